#pragma once

#include "shared/error.h"

namespace vumo {

// Failures of the effect tracks: zooms, camera keyframes and full-screen camera segments. The
// validator raises them for stored documents and the effect engine for refused edits.
class TimelineEffectError : public Error {
 public:
  enum class Case {
    zoomNotFound,
    zoomRangeInvalid,
    zoomOverlap,
    webcamFullscreenNotFound,
    webcamFullscreenRangeInvalid,
    webcamFullscreenOverlap,
    keyframeOutsideSource,
    keyframeInvalid,
    zoomIndexInvalid,
  };

  explicit TimelineEffectError(Case kind);
  Case kind() const noexcept { return kind_; }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  Case kind_;
};

}  // namespace vumo
