#pragma once

#include <string_view>

#include "shared/error.h"

namespace vumo {

// Why the screen, the pointer or the sound could not be captured on this machine. The payload of
// the cases with one is the detail that names what was missing.
class CaptureError : public Error {
 public:
  enum class Case {
    displayUnavailable,
    waylandSession,
    extensionMissing,
    sourceNotFound,
    areaOutsideDisplay,
    windowGone,
    screenCaptureFailed,
    audioServerUnavailable,
    audioSourceMissing,
    audioCaptureFailed,
    sessionBusUnavailable,
    portalUnavailable,
    portalFailed,
    portalTimedOut,
    sourceTypeUnavailable,
  };

  explicit CaptureError(Case kind, std::string_view detail = {}) : Error(catalogue(), kind, detail), kind_(kind) {}
  Case kind() const noexcept { return kind_; }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  Case kind_;
};

}  // namespace vumo
