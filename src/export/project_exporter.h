#pragma once
// A project rendered offline into a film: every output frame at the exact output rate drawn by the
// same evaluator and renderer as preview and stills, encoded to H.264 or HEVC with its sound
// (AAC) in an MP4 or QuickTime file. The film is written beside the destination under a temporary
// name and renamed over it only once complete, so a failure or a cancel never leaves a partial
// film, and an existing file is untouched until the new one is whole.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>

#include "export/export_configuration.h"
#include "export/export_progress.h"
#include "media/media_module.h"
#include "project/project_snapshot.h"
#include "rendering/scene_renderer.h"
#include "shared/geometry.h"

namespace vumo {

// Where the time of an export goes, summed over its frames, for measurements.
struct ExportStageTimes {
  double decodeSeconds = 0;      // frames of the source, camera and wallpaper
  double renderSeconds = 0;      // scene evaluation and drawing (with the film pass on the GPU)
  double readbackSeconds = 0;    // waiting for the GPU's pixels and copying them out
  double conversionSeconds = 0;  // RGBA to the encoder's Y'CbCr on the CPU (the software conversion)
  double encodeSeconds = 0;      // video encoding and writing
  double audioSeconds = 0;       // mixing and encoding the sound
};

// How a drawn frame becomes the encoder's Y'CbCr 4:2:0. The film is the same either way up to the
// rounding of the conversion; the choice is kept for measurements and as a fallback.
enum class ExportFrameConversion {
  // `gpuOverlapped` on a GPU, `software` on a software rasteriser (Mesa's llvmpipe or softpipe),
  // where the film pass costs the same processors more than libswscale does beside the drawing.
  automatic,
  // The GPU converts (SceneRenderer's film pass); a frame is read back while the next one draws.
  gpuOverlapped,
  // The GPU converts; each frame is read back before the next one draws.
  gpu,
  // RGBA is read back (while the next frame draws) and converted with libswscale.
  software,
};

struct ProjectExportOptions {
  // Overrides of what the snapshot's timeline says, as the editor's export sheet may give them.
  std::optional<CanvasEdit> canvas;
  std::optional<std::optional<WebcamOverlay>> webcamOverlay;
  // Allows the hardware encoders (VAAPI, then NVENC) when opening one succeeds; tests that compare
  // pixels switch them off.
  bool allowHardwareEncoders = true;
  // The render node a VAAPI encoder is tried on, before NVENC and the software encoders.
  std::filesystem::path vaapiDevice = "/dev/dri/renderD128";
  ExportFrameConversion conversion = ExportFrameConversion::automatic;
  // Called after each output frame has been handed to the encoder, with its index, on the
  // encoder's thread: for tests that cancel in the middle of the frame loop.
  std::function<void(std::int64_t)> frameWritten;
  ExportStageTimes* stageTimes = nullptr;
};

class ProjectExporter {
 public:
  using ProgressHandler = std::function<void(const ExportProgressUpdate&)>;

  explicit ProjectExporter(std::shared_ptr<SceneRenderer> renderer);

  // The file type follows the destination's extension: `.mov` is QuickTime, anything else MP4.
  // `progress` hears `preparing` and then, from the encoder's thread, the rendering updates (at
  // most every 50 ms and always the last frame's), then `finalizing` and `completed`; one call at
  // a time.
  // Throws ProjectExporterError, ExportConfigurationError, what the composition plan, the readers
  // and the renderer throw, or CancelledError (checked once per frame and between audio reads).
  ExportedFilm exportProject(const ProjectSnapshot& snapshot, const std::filesystem::path& destination,
                             const ExportConfiguration& configuration, const ProgressHandler& progress,
                             std::stop_token stop, const ProjectExportOptions& options = {});

  // ceil(sequenceDuration × framesPerSecond / 1 s), computed exactly.
  static std::int64_t frameCount(ProjectTime sequenceDuration, int framesPerSecond);
  // The sequence time of output frame `index`: index / framesPerSecond, rounded up to the
  // nanosecond. Source frames carry their times rounded to the nearest nanosecond, so a source frame
  // at exactly the instant of an output frame (2/30 s is 66,666,667 ns) must not fall a nanosecond
  // after it; rounding up keeps it at or before, at normal and at higher speeds.
  static ProjectTime frameTime(std::int64_t index, int framesPerSecond);

 private:
  std::shared_ptr<SceneRenderer> renderer_;
};

}  // namespace vumo
