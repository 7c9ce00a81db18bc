#pragma once

#include <memory>

#include "cli/recording_platform.h"

namespace vumo {

// The machine as `vumo record` sees it on a Linux desktop: displays, windows and the pointer
// through X11, sound through PulseAudio (or PipeWire's PulseAudio service), cameras and capture
// devices through V4L2, and the movie through the media engine.
std::unique_ptr<RecordingPlatform> makeDesktopRecordingPlatform();

}  // namespace vumo
