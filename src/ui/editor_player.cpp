#include "ui/editor_player.h"

#include <algorithm>

#include "cli/media_module_loader.h"
#include "playback/project_player.h"
#include "playback/pulse_audio_output.h"
#include "project/project_snapshot.h"
#include "shared/error.h"
#include "timeline/timeline_frame_grid.h"
#include "timeline/timeline_mapper.h"

namespace vumo {

TimelineClockPlayer::TimelineClockPlayer(std::string reason) : reason_(std::move(reason)) {}

void TimelineClockPlayer::load(const ProjectSnapshot& snapshot) {
  sourceDuration_ = snapshot.manifest.duration;
  applyTimeline(snapshot.timeline);
}

void TimelineClockPlayer::applyTimeline(const EditTimeline& timeline) {
  try {
    duration_ = TimelineMapper(timeline, sourceDuration_).sequenceDuration();
  } catch (const Error&) {
    duration_ = ProjectTime{0};
  }
  if (time_ > duration_) moveTo(duration_);
}

void TimelineClockPlayer::seek(ProjectTime sequenceTime) {
  skimTime_.reset();
  moveTo(sequenceTime);
}

void TimelineClockPlayer::skim(ProjectTime sequenceTime) {
  skimTime_ = std::clamp(sequenceTime, ProjectTime{0}, duration_);
  if (observer_.stateChanged) observer_.stateChanged();
}

void TimelineClockPlayer::endSkim() {
  if (!skimTime_) return;
  skimTime_.reset();
  if (observer_.stateChanged) observer_.stateChanged();
}

void TimelineClockPlayer::stepFrames(int frames) {
  const std::int64_t frame =
      TimelineFrameGrid::nearestBoundary(time_).nanoseconds == time_.nanoseconds
          ? (time_.nanoseconds * TimelineFrameGrid::framesPerSecond + 999'999'999) / 1'000'000'000
          : time_.nanoseconds * TimelineFrameGrid::framesPerSecond / 1'000'000'000;
  moveTo(TimelineFrameGrid::boundary(std::max<std::int64_t>(0, frame + frames)));
}

void TimelineClockPlayer::moveTo(ProjectTime time) {
  time_ = std::clamp(time, ProjectTime{0}, duration_);
  if (observer_.stateChanged) observer_.stateChanged();
}

namespace {

class ProjectEditorPlayer final : public EditorPlayer {
 public:
  ProjectEditorPlayer(MainLoop& loop, std::shared_ptr<ProjectPreviewing> engine,
                      std::unique_ptr<PlaybackAudioOutput> audio)
      : player_(loop, std::move(engine), std::move(audio),
                ProjectPlayer::Observer{.frameChanged =
                                            [this] {
                                              if (observer_.frameChanged) observer_.frameChanged();
                                            },
                                        .stateChanged =
                                            [this] {
                                              if (observer_.stateChanged) observer_.stateChanged();
                                            },
                                        .failed =
                                            [this](const std::string& text) {
                                              if (observer_.failed) observer_.failed(text);
                                            }}) {}

  void setObserver(Observer observer) override { observer_ = std::move(observer); }
  void load(const ProjectSnapshot& snapshot) override { player_.load(snapshot); }
  void applyTimeline(const EditTimeline& timeline) override { player_.applyTimeline(timeline); }
  void setViewSize(PixelSize devicePixels) override { player_.setViewSize(devicePixels); }
  void play() override { player_.play(); }
  void pause() override { player_.pause(); }
  void togglePlayback() override { player_.togglePlayback(); }
  void seek(ProjectTime sequenceTime) override { player_.seek(sequenceTime); }
  void skim(ProjectTime sequenceTime) override { player_.skim(sequenceTime); }
  void endSkim() override { player_.endSkim(); }
  void stepFrames(int frames) override { player_.stepFrames(frames); }
  ProjectTime currentTime() const override { return player_.currentTime(); }
  std::optional<ProjectTime> skimTime() const override { return player_.skimTime(); }
  ProjectTime duration() const override { return player_.duration(); }
  bool isPlaying() const override { return player_.isPlaying(); }
  std::optional<EditorPlayerFrame> currentFrame() const override {
    std::shared_ptr<const PlayerFrame> frame = player_.currentFrame();
    if (!frame) return std::nullopt;
    return EditorPlayerFrame{frame->size, frame->rgba.data(), frame->sequenceTime, frame};
  }
  std::optional<std::string> errorText() const override { return player_.errorText(); }

 private:
  Observer observer_;  // before the player, whose observer calls it
  ProjectPlayer player_;
};

}  // namespace

std::unique_ptr<EditorPlayer> makeEditorPlayer(MainLoop& loop) {
  std::shared_ptr<ProjectPreviewing> engine;
  try {
    engine = loadPreviewEngine(MediaModuleLoader::load());
  } catch (const std::exception& error) {
    return std::make_unique<TimelineClockPlayer>(std::string("The preview is not available: ") + error.what());
  }
  std::unique_ptr<PlaybackAudioOutput> audio;
  try {
    audio = makePulseAudioOutput();
  } catch (const std::exception&) {
    audio = makeSilentAudioOutput();  // no sound server: the picture still plays, on the clock
  }
  return std::make_unique<ProjectEditorPlayer>(loop, std::move(engine), std::move(audio));
}

}  // namespace vumo
