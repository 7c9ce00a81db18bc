#pragma once

// The media engine as a part of the program that is loaded only when a command needs it. FFmpeg
// brings some 130 shared libraries with it; linked into the executable they would cost every
// command, `vumo cli list` included, some 25 ms of dynamic loading before it does anything. The
// engine is built as `lib/vumo/vumo-media.so` beside `bin/vumo` (and at the same place in the
// build tree), and the command line opens it on first use through this one entry point.

#include <filesystem>
#include <memory>
#include <stop_token>

#include "media/waveform_service.h"
#include "project/project_snapshot.h"
#include "shared/media_track_kind.h"

namespace vumo {

struct MediaModule {
  // Raised whenever a member changes meaning, so a program never calls into an engine built for
  // another one.
  static constexpr int currentInterfaceVersion = 1;
  static constexpr const char* fileName = "vumo-media.so";
  static constexpr const char* entryPointName = "vumoMediaModule";

  int interfaceVersion = currentInterfaceVersion;
  std::shared_ptr<WaveformProviding> (*makeWaveformService)() = nullptr;
  void (*exportCaptionAudio)(const ProjectSnapshot& snapshot, MediaTrackKind track, const std::filesystem::path& target,
                             std::stop_token stop) = nullptr;
};

using MediaModuleEntryPoint = const MediaModule* (*)();

}  // namespace vumo
