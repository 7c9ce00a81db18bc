#pragma once
// One still picture of an edited project at one sequence time: the check of composition behind
// `frame`, drawn by the same evaluator and renderer as preview and export.

#include <memory>
#include <stop_token>
#include <string>

#include "media/media_module.h"
#include "media/project_frame_source.h"
#include "media/still_image.h"
#include "project/project_snapshot.h"
#include "rendering/scene_renderer.h"
#include "scene/scene_evaluator.h"
#include "shared/geometry.h"
#include "shared/project_time.h"

namespace vumo {

// The picture at `sequenceTime` of a composition that is already open: its frames from `source`,
// the scene of `edits` evaluated at the source time they show, drawn at `outputSize`. The still,
// and the player for each of its frames, draw through here. A time outside the sequence, or one
// at which the screen shows nothing, is ProjectFrameRendererError::unavailable; throws what the
// frame source and the renderer throw.
StillImage renderProjectFrame(SceneRenderer& renderer, ProjectFrameSource& source, const SceneEvaluator& evaluator,
                              const TimelineVisualEdits& edits, const CaptionDocument* captions,
                              ProjectTime sequenceTime, PixelSize outputSize);

class ProjectFrameRenderer final : public ProjectStillRendering {
 public:
  explicit ProjectFrameRenderer(std::shared_ptr<SceneRenderer> renderer);

  // A renderer on a new GPU context with the running program's resources. Throws
  // RenderingContextError.
  static std::shared_ptr<ProjectFrameRenderer> makeForProgram();

  // The picture's size for a requested width: the width rounded down to an even count (at least
  // 2) and the height from the canvas aspect (the source's own for `source`), rounded to the
  // nearest even count.
  static PixelSize outputSize(const ProjectSnapshot& snapshot, int width);

  // The picture at `sequenceTime`. A time outside the sequence, or one at which the screen shows
  // nothing, is ProjectFrameRendererError::unavailable; an image that cannot be encoded is
  // `encoding`. Throws what the frame source and the renderer throw, and CancelledError.
  std::string render(const ProjectSnapshot& snapshot, ProjectTime sequenceTime, int width, StillImageFormat format,
                     std::stop_token stop) override;

  // The same, unencoded.
  StillImage renderImage(const ProjectSnapshot& snapshot, ProjectTime sequenceTime, int width, std::stop_token stop);

 private:
  std::shared_ptr<SceneRenderer> renderer_;
};

}  // namespace vumo
