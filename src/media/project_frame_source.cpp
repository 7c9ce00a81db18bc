#include "media/project_frame_source.h"

#include "media/media_container.h"
#include "media/timeline_composition.h"
#include "shared/error.h"

namespace vumo {

namespace {

// A wallpaper video loops for as long as the film lasts: one piece covering its whole stream,
// asked for at the film's time modulo its length.
struct Wallpaper {
  SequenceVideoReader reader;
  ProjectTime length;
};

std::optional<Wallpaper> openWallpaper(const ProjectSnapshot& snapshot, std::stop_token stop) {
  const auto& image = snapshot.timeline.canvas.image;
  if (!image || image->mediaKind != CanvasBackgroundMediaKind::video) return std::nullopt;
  try {
    MediaContainer container = MediaContainer::open(snapshot.packagePath / image->relativePath, stop);
    for (std::int64_t index = 0; index < container.streamCount(); ++index) {
      if (container.streamType(index) != MediaStreamType::video) continue;
      const ProjectTimeRange range = container.streamTimeRange(index);
      if (range.duration <= ProjectTime{}) return std::nullopt;
      CompositionTrack track;
      track.role = CompositionTrackRole::screen;
      track.streamIndex = index;
      track.pieces.push_back({range, ProjectTime{}, range.duration, 1000});
      return Wallpaper{SequenceVideoReader(std::move(container), std::move(track)), range.duration};
    }
  } catch (const CancelledError&) {
    throw;
  } catch (const Error&) {
    // Falls back to the canvas colours, as the editor does for a wallpaper it cannot show.
  }
  return std::nullopt;
}

}  // namespace

struct ProjectFrameSource::State {
  TimelineCompositionPlan plan;
  SequenceVideoReader screen;
  std::optional<SequenceVideoReader> camera;
  std::optional<Wallpaper> wallpaper;
};

ProjectFrameSource::ProjectFrameSource(const ProjectSnapshot& snapshot, std::stop_token stopToken) {
  TimelineCompositionPlan plan = TimelineCompositionBuilder::build(snapshot, stopToken);
  SequenceVideoReader screen(MediaContainer::open(snapshot, stopToken), plan.screen);
  std::optional<SequenceVideoReader> camera;
  if (plan.webcam) camera.emplace(MediaContainer::open(snapshot, stopToken), *plan.webcam);
  std::optional<Wallpaper> wallpaper = openWallpaper(snapshot, stopToken);
  state_ = std::make_unique<State>(State{std::move(plan), std::move(screen), std::move(camera), std::move(wallpaper)});
}

ProjectFrameSource::ProjectFrameSource(ProjectFrameSource&&) noexcept = default;
ProjectFrameSource& ProjectFrameSource::operator=(ProjectFrameSource&&) noexcept = default;
ProjectFrameSource::~ProjectFrameSource() = default;

ProjectTime ProjectFrameSource::sequenceDuration() const { return state_->plan.mapper.sequenceDuration(); }

std::optional<ProjectTime> ProjectFrameSource::sourceTime(ProjectTime sequenceTime) const {
  const auto mapped = state_->plan.mapper.mappedTimeForSequenceTime(sequenceTime);
  if (!mapped) return std::nullopt;
  return mapped->sourceTime;
}

ProjectFrames ProjectFrameSource::framesAt(ProjectTime sequenceTime) {
  ProjectFrames frames;
  frames.sequenceTime = sequenceTime;
  frames.screen = state_->screen.frameAt(sequenceTime);
  if (state_->camera) frames.camera = state_->camera->frameAt(sequenceTime);
  if (state_->wallpaper) {
    const std::int64_t length = state_->wallpaper->length.nanoseconds;
    std::int64_t offset = sequenceTime.nanoseconds % length;
    if (offset < 0) offset += length;
    frames.background = state_->wallpaper->reader.frameAt(ProjectTime{offset});
  }
  return frames;
}

}  // namespace vumo
