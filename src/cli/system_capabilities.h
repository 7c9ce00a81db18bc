#pragma once

#include <string>

#include "cli/cli_models.h"

namespace vumo {

// What an agent needs to propose a local transcription tool, and nothing that identifies the
// machine or its user. It never fails: an unreadable value becomes "unknown" or 0.
struct SystemCapabilityInspector {
  static CLISystemInfoResponse inspect();

  // True when an EGL display and an OpenGL ES 3 context can be created; a surfaceless software
  // renderer counts.
  static bool canCreateOpenGLES3Context();
  // The first "model name" of a /proc/cpuinfo text, or "unknown".
  static std::string chipName(const std::string& cpuinfo);
  // PRETTY_NAME of an os-release text and the kernel release, e.g. "Debian GNU/Linux 12
  // (bookworm), Linux 6.1.0-18-amd64".
  static std::string operatingSystemVersion(const std::string& osRelease, const std::string& kernelRelease);
};

}  // namespace vumo
