#include "rendering/project_frame_renderer.h"

#include <algorithm>
#include <cmath>

#include "media/project_frame_source.h"
#include "rendering/rendering_context.h"
#include "rendering/rendering_errors.h"
#include "scene/scene_evaluator.h"
#include "shared/cancellation.h"
#include "shared/resources.h"

namespace vumo {

ProjectFrameRenderer::ProjectFrameRenderer(std::shared_ptr<SceneRenderer> renderer) : renderer_(std::move(renderer)) {}

std::shared_ptr<ProjectFrameRenderer> ProjectFrameRenderer::makeForProgram() {
  const auto resources = ResourceLocator::directory();
  if (!resources) throw RenderingContextError(RenderingContextError::Case::unavailable);
  return std::make_shared<ProjectFrameRenderer>(std::make_shared<SceneRenderer>(RenderingContext::create(*resources)));
}

PixelSize ProjectFrameRenderer::outputSize(const ProjectSnapshot& snapshot, int width) {
  const PixelSize source = snapshot.manifest.encodedPixelSize;
  const double sourceAspect =
      source.width > 0 && source.height > 0 ? double(source.width) / double(source.height) : 16.0 / 9.0;
  const double aspect = outputAspectRatio(snapshot.timeline.canvas.aspectRatio, sourceAspect);
  const std::int64_t evenWidth = std::max<std::int64_t>(2, width - width % 2);
  const std::int64_t height = std::max<std::int64_t>(2, 2 * std::llround(double(evenWidth) / aspect / 2));
  return {evenWidth, height};
}

StillImage renderProjectFrame(SceneRenderer& renderer, ProjectFrameSource& source, const SceneEvaluator& evaluator,
                              const TimelineVisualEdits& edits, const CaptionDocument* captions,
                              ProjectTime sequenceTime, PixelSize outputSize) {
  const auto sourceTime = source.sourceTime(sequenceTime);
  if (sequenceTime < ProjectTime{} || sequenceTime >= source.sequenceDuration() || !sourceTime) {
    throw ProjectFrameRendererError(ProjectFrameRendererError::Case::unavailable);
  }
  ProjectFrames frames = source.framesAt(sequenceTime);
  if (!frames.screen) throw ProjectFrameRendererError(ProjectFrameRendererError::Case::unavailable);

  const SceneState state = evaluator.evaluate(*sourceTime, edits, captions);
  SceneFrames sceneFrames;
  sceneFrames.sourceSize = evaluator.sourceSize();
  sceneFrames.screen = std::move(frames.screen);
  sceneFrames.webcam = std::move(frames.camera);
  sceneFrames.backgroundVideo = std::move(frames.background);
  return renderer.render(state, sceneFrames, outputSize);
}

StillImage ProjectFrameRenderer::renderImage(const ProjectSnapshot& snapshot, ProjectTime sequenceTime, int width,
                                             std::stop_token stop) {
  throwIfCancelled(stop);
  const PixelSize size = outputSize(snapshot, width);
  ProjectFrameSource source(snapshot, stop);
  const SceneEvaluator evaluator(snapshot);
  renderer_->registerProjectAssets(snapshot);
  throwIfCancelled(stop);
  return renderProjectFrame(*renderer_, source, evaluator, TimelineVisualEdits::from(snapshot.timeline),
                            snapshot.captions ? &*snapshot.captions : nullptr, sequenceTime, size);
}

std::string ProjectFrameRenderer::render(const ProjectSnapshot& snapshot, ProjectTime sequenceTime, int width,
                                         StillImageFormat format, std::stop_token stop) {
  const StillImage image = renderImage(snapshot, sequenceTime, width, stop);
  try {
    return encodeStillImage(image, format);
  } catch (const StillImageError&) {
    throw ProjectFrameRendererError(ProjectFrameRendererError::Case::encoding);
  }
}

}  // namespace vumo
