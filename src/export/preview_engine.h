#pragma once
// The player's engine (ProjectPreviewing): one project's frame source, scene evaluator and sound
// plan kept open between frames, drawn by the renderer that draws the still of `frame` and the
// exported film. A change of look swaps the visual edits only; the readers stay where they are, so
// the next frame after an edit costs what any frame costs.

#include <memory>
#include <optional>
#include <stop_token>

#include "media/media_module.h"
#include "media/project_frame_source.h"
#include "media/timeline_composition.h"
#include "project/project_snapshot.h"
#include "rendering/scene_renderer.h"
#include "scene/scene_evaluator.h"

namespace vumo {

class ProjectPreviewEngine final : public ProjectPreviewing {
 public:
  explicit ProjectPreviewEngine(std::shared_ptr<SceneRenderer> renderer);
  ~ProjectPreviewEngine() override;

  // A renderer on a new GPU context with the running program's resources. Throws
  // RenderingContextError.
  static std::shared_ptr<ProjectPreviewEngine> makeForProgram();

  ProjectTime load(const ProjectSnapshot& snapshot) override;
  void setVisualEdits(const EditTimeline& timeline) override;
  StillImage render(ProjectTime sequenceTime, PixelSize maxSize, std::stop_token stop) override;
  std::unique_ptr<PreviewAudioReading> openAudio(ProjectTime from) override;

  // The largest picture of `snapshot`'s canvas that fits `maxSize`, both sides even and at least
  // 2, as the still of the same width would be.
  static PixelSize fittedSize(const ProjectSnapshot& snapshot, PixelSize maxSize);

 private:
  struct Composition;

  std::shared_ptr<SceneRenderer> renderer_;
  std::unique_ptr<Composition> composition_;
};

}  // namespace vumo
