#include "timeline/timeline_effect_error.h"

namespace vumo {

namespace {

using Case = TimelineEffectError::Case;

constexpr ErrorCase<Case> errorCases[] = {
    {Case::zoomNotFound, "zoomNotFound", "timeline.error.zoomMissing",
     "The selected Auto Zoom segment could not be found.", "validation", ErrorKind::validation},
    {Case::zoomRangeInvalid, "zoomRangeInvalid", "timeline.error.zoomRange",
     "An Auto Zoom segment must last at least one frame and stay within the source media.", "validation",
     ErrorKind::validation},
    {Case::zoomOverlap, "zoomOverlap", "timeline.error.zoomOverlap",
     "Auto Zoom segments cannot overlap neighboring zooms.", "validation", ErrorKind::validation},
    {Case::webcamFullscreenNotFound, "webcamFullscreenNotFound", "timeline.error.cameraMissing",
     "The selected full-screen camera segment could not be found.", "validation", ErrorKind::validation},
    {Case::webcamFullscreenRangeInvalid, "webcamFullscreenRangeInvalid", "timeline.error.cameraRange",
     "A full-screen camera segment must last at least two frames and stay within the source media.", "validation",
     ErrorKind::validation},
    {Case::webcamFullscreenOverlap, "webcamFullscreenOverlap", "timeline.error.cameraOverlap",
     "Full-screen camera segments cannot overlap neighboring segments.", "validation", ErrorKind::validation},
    {Case::keyframeOutsideSource, "keyframeOutsideSource", "timeline.error.keyframeRange",
     "A camera keyframe falls outside the source media.", "validation", ErrorKind::validation},
    {Case::keyframeInvalid, "keyframeInvalid", "timeline.error.keyframeInvalid",
     "Camera keyframes must be unique and have valid positions and sizes.", "validation", ErrorKind::validation},
    {Case::zoomIndexInvalid, "zoomIndexInvalid", "timeline.error.zoomIndex", "The Auto Zoom index is invalid.",
     "validation", ErrorKind::validation},
};
static_assert(inCaseOrder(errorCases));

}  // namespace

TimelineEffectError::TimelineEffectError(Case kind) : Error(catalogue(), kind), kind_(kind) {}

const ErrorCatalogue<Case>& TimelineEffectError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"TimelineEffectError", "Editor", errorCases};
  return catalogue;
}

}  // namespace vumo
