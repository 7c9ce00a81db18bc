#include "timeline/timeline_effect_error.h"

namespace vumo {

namespace {

using Case = TimelineEffectError::Case;

struct CaseText {
  const char* key;
  const char* text;
};

CaseText describe(Case kind) {
  switch (kind) {
    case Case::zoomNotFound:
      return {"timeline.error.zoomMissing", "The selected Auto Zoom segment could not be found."};
    case Case::zoomRangeInvalid:
      return {"timeline.error.zoomRange",
              "An Auto Zoom segment must last at least one frame and stay within the source media."};
    case Case::zoomOverlap:
      return {"timeline.error.zoomOverlap", "Auto Zoom segments cannot overlap neighboring zooms."};
    case Case::webcamFullscreenNotFound:
      return {"timeline.error.cameraMissing", "The selected full-screen camera segment could not be found."};
    case Case::webcamFullscreenRangeInvalid:
      return {"timeline.error.cameraRange",
              "A full-screen camera segment must last at least two frames and stay within the source media."};
    case Case::webcamFullscreenOverlap:
      return {"timeline.error.cameraOverlap", "Full-screen camera segments cannot overlap neighboring segments."};
    case Case::keyframeOutsideSource:
      return {"timeline.error.keyframeRange", "A camera keyframe falls outside the source media."};
    case Case::keyframeInvalid:
      return {"timeline.error.keyframeInvalid", "Camera keyframes must be unique and have valid positions and sizes."};
    case Case::zoomIndexInvalid: return {"timeline.error.zoomIndex", "The Auto Zoom index is invalid."};
  }
  return {"timeline.error.zoomRange",
          "An Auto Zoom segment must last at least one frame and stay within the source media."};
}

}  // namespace

TimelineEffectError::TimelineEffectError(Case kind)
    : Error(describe(kind).key, "Editor", describe(kind).text), kind_(kind) {}

}  // namespace vumo
