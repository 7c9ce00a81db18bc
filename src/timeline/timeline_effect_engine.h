#pragma once

#include <string>

#include "shared/error.h"
#include "shared/project_time.h"

namespace vumo {

struct EditTimeline;

// Failures of the effect tracks: zooms, camera keyframes and full-screen camera segments.
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
  ErrorClassification classification() const override { return {"validation", ErrorKind::validation}; }

 private:
  Case kind_;
};

struct TimelineEffectEngine {
  // Zooms, full-screen camera segments and camera keyframes of a timeline; throws the first
  // TimelineEffectError found. Part of every timeline validation.
  static void validate(const EditTimeline& timeline, ProjectTime sourceDuration);
};

}  // namespace vumo
