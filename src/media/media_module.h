#pragma once

// The media engine as a part of the program that is loaded only when a command needs it. FFmpeg
// brings some 130 shared libraries with it; linked into the executable they would cost every
// command, `vumo cli list` included, some 25 ms of dynamic loading before it does anything. The
// engine is built as `lib/vumo/vumo-media.so` beside `bin/vumo` (and at the same place in the
// build tree), and the command line opens it on first use through this one entry point.

#include <filesystem>
#include <memory>
#include <stop_token>

#include "media/still_image.h"
#include "media/waveform_service.h"
#include "project/project_snapshot.h"
#include "shared/media_track_kind.h"

namespace vumo {

// Stills of edited projects on one GPU context, made once and used for any number of pictures.
class ProjectStillRendering {
 public:
  virtual ~ProjectStillRendering() = default;
  // The encoded picture of `snapshot` at `sequenceTime`, `width` pixels wide (the height follows
  // the canvas; both even). Throws ProjectFrameRendererError, the media errors, or CancelledError.
  virtual std::string render(const ProjectSnapshot& snapshot, ProjectTime sequenceTime, int width,
                             StillImageFormat format, std::stop_token stop) = 0;
};

struct MediaModule {
  // Raised whenever a member changes meaning, so a program never calls into an engine built for
  // another one.
  static constexpr int currentInterfaceVersion = 2;
  static constexpr const char* fileName = "vumo-media.so";
  static constexpr const char* entryPointName = "vumoMediaModule";

  int interfaceVersion = currentInterfaceVersion;
  std::shared_ptr<WaveformProviding> (*makeWaveformService)() = nullptr;
  void (*exportCaptionAudio)(const ProjectSnapshot& snapshot, MediaTrackKind track, const std::filesystem::path& target,
                             std::stop_token stop) = nullptr;
  // Creates the GPU context and the renderer on it; throws RenderingContextError.
  std::shared_ptr<ProjectStillRendering> (*makeStillRenderer)() = nullptr;
};

using MediaModuleEntryPoint = const MediaModule* (*)();

}  // namespace vumo
