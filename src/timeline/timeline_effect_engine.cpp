#include "timeline/timeline_effect_engine.h"

namespace vumo {

namespace {

struct CaseText {
  const char* key;
  const char* text;
};

CaseText describe(TimelineEffectError::Case kind) {
  using C = TimelineEffectError::Case;
  switch (kind) {
    case C::zoomNotFound:
      return {"timeline.error.zoomMissing", "The selected Auto Zoom segment could not be found."};
    case C::zoomRangeInvalid:
      return {"timeline.error.zoomRange", "An Auto Zoom segment must last at least one frame and stay within the source media."};
    case C::zoomOverlap:
      return {"timeline.error.zoomOverlap", "Auto Zoom segments cannot overlap neighboring zooms."};
    case C::webcamFullscreenNotFound:
      return {"timeline.error.cameraMissing", "The selected full-screen camera segment could not be found."};
    case C::webcamFullscreenRangeInvalid:
      return {"timeline.error.cameraRange",
              "A full-screen camera segment must last at least two frames and stay within the source media."};
    case C::webcamFullscreenOverlap:
      return {"timeline.error.cameraOverlap", "Full-screen camera segments cannot overlap neighboring segments."};
    case C::keyframeOutsideSource:
      return {"timeline.error.keyframeRange", "A camera keyframe falls outside the source media."};
    case C::keyframeInvalid:
      return {"timeline.error.keyframeInvalid", "Camera keyframes must be unique and have valid positions and sizes."};
    case C::zoomIndexInvalid:
      return {"timeline.error.zoomIndex", "The Auto Zoom index is invalid."};
  }
  return {"timeline.error.zoomRange", "An Auto Zoom segment must last at least one frame and stay within the source media."};
}

}  // namespace

TimelineEffectError::TimelineEffectError(Case kind)
    : Error(describe(kind).key, "Editor", describe(kind).text), kind_(kind) {}

}  // namespace vumo
