#include "export/preview_engine.h"

#include <algorithm>

#include "media/media_container.h"
#include "media/sequence_audio_reader.h"
#include "rendering/project_frame_renderer.h"
#include "rendering/rendering_context.h"
#include "rendering/rendering_errors.h"
#include "shared/cancellation.h"
#include "shared/resources.h"
#include "timeline/timeline_frame_grid.h"

namespace vumo {

namespace {

class PreviewAudioReader final : public PreviewAudioReading {
 public:
  explicit PreviewAudioReader(SequenceAudioReader reader) : reader_(std::move(reader)) {}
  std::int64_t read(std::span<float> into) override { return reader_.read(into); }

 private:
  SequenceAudioReader reader_;
};

}  // namespace

struct ProjectPreviewEngine::Composition {
  // The snapshot as loaded, its timeline replaced by the latest visual edits' timeline, so that the
  // picture's aspect follows a canvas change.
  ProjectSnapshot snapshot;
  ProjectFrameSource frames;
  SceneEvaluator evaluator;
  TimelineCompositionPlan plan;
  TimelineVisualEdits edits;
};

ProjectPreviewEngine::ProjectPreviewEngine(std::shared_ptr<SceneRenderer> renderer) : renderer_(std::move(renderer)) {}

ProjectPreviewEngine::~ProjectPreviewEngine() = default;

std::shared_ptr<ProjectPreviewEngine> ProjectPreviewEngine::makeForProgram() {
  const auto resources = ResourceLocator::directory();
  if (!resources) throw RenderingContextError(RenderingContextError::Case::unavailable);
  return std::make_shared<ProjectPreviewEngine>(std::make_shared<SceneRenderer>(RenderingContext::create(*resources)));
}

ProjectTime ProjectPreviewEngine::load(const ProjectSnapshot& snapshot) {
  composition_.reset();
  ProjectFrameSource frames(snapshot);
  TimelineCompositionPlan plan = TimelineCompositionBuilder::build(snapshot);
  renderer_->registerProjectAssets(snapshot);
  composition_ =
      std::make_unique<Composition>(Composition{snapshot, std::move(frames), SceneEvaluator(snapshot), std::move(plan),
                                                TimelineVisualEdits::from(snapshot.timeline)});
  return composition_->frames.sequenceDuration();
}

void ProjectPreviewEngine::setVisualEdits(const EditTimeline& timeline) {
  if (!composition_) return;
  composition_->edits = TimelineVisualEdits::from(timeline);
  composition_->snapshot.timeline = timeline;
}

PixelSize ProjectPreviewEngine::fittedSize(const ProjectSnapshot& snapshot, PixelSize maxSize) {
  const std::int64_t maxWidth = std::max<std::int64_t>(2, maxSize.width);
  const std::int64_t maxHeight = std::max<std::int64_t>(2, maxSize.height);
  PixelSize size = ProjectFrameRenderer::outputSize(snapshot, static_cast<int>(maxWidth));
  if (size.height <= maxHeight) return size;
  // Too tall at full width: the width the height allows, then down two pixels at a time while the
  // rounding of the height still overshoots.
  auto width = static_cast<int>(std::max<std::int64_t>(2, maxWidth * maxHeight / size.height));
  size = ProjectFrameRenderer::outputSize(snapshot, width);
  while (size.height > maxHeight && width > 2) size = ProjectFrameRenderer::outputSize(snapshot, width -= 2);
  return size;
}

StillImage ProjectPreviewEngine::render(ProjectTime sequenceTime, PixelSize maxSize, std::stop_token stop) {
  throwIfCancelled(stop);
  if (!composition_) throw ProjectFrameRendererError(ProjectFrameRendererError::Case::unavailable);
  Composition& c = *composition_;
  const ProjectTime duration = c.frames.sequenceDuration();
  if (duration <= ProjectTime{}) throw ProjectFrameRendererError(ProjectFrameRendererError::Case::unavailable);
  const ProjectTime last = std::max(ProjectTime{}, TimelineFrameGrid::floorBoundary(duration - ProjectTime{1}));
  const ProjectTime time = std::clamp(sequenceTime, ProjectTime{}, last);
  const CaptionDocument* captions = c.snapshot.captions ? &*c.snapshot.captions : nullptr;
  return renderProjectFrame(*renderer_, c.frames, c.evaluator, c.edits, captions, time,
                            fittedSize(c.snapshot, maxSize));
}

std::unique_ptr<PreviewAudioReading> ProjectPreviewEngine::openAudio(ProjectTime from) {
  if (!composition_ || composition_->plan.audioTracks.empty()) return nullptr;
  SequenceAudioReader reader(MediaContainer::open(composition_->snapshot), composition_->plan,
                             AudioOutputFormat{PreviewAudioReading::sampleRate, PreviewAudioReading::channelCount});
  reader.seek(from);
  return std::make_unique<PreviewAudioReader>(std::move(reader));
}

}  // namespace vumo
