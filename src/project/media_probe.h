#pragma once

#include <filesystem>
#include <optional>

#include "shared/project_time.h"

namespace vumo {

// What recovery needs to know of a recording's media file.
struct MediaProbeResult {
  std::optional<ProjectTime> duration;  // none when the container states no usable duration
  bool hasVideoTrack = false;

  // A package is recoverable when its media has a positive duration and a video track.
  bool isPlayableRecording() const { return duration && duration->nanoseconds > 0 && hasVideoTrack; }
};

struct MediaProbe {
  // Opens the file with libavformat and reads its stream information. A missing, empty or
  // unreadable file gives nothing rather than an error: the caller only decides whether to offer
  // the package for recovery.
  static std::optional<MediaProbeResult> inspect(const std::filesystem::path& media);
};

}  // namespace vumo
