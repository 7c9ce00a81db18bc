#include "timeline/timeline_speed_engine.h"

namespace vumo {

namespace {

struct CaseText {
  const char* key;
  const char* text;
};

CaseText describe(TimelineSpeedError::Case kind) {
  using C = TimelineSpeedError::Case;
  switch (kind) {
    case C::invalidRate:
      return {"editor.error.playbackRate",
              "Playback speed must be a finite value from 0.50 to 4.00 in increments of 0.01."};
    case C::invalidRange:
      return {"timeline.error.speedRange", "The speed-change range is invalid or shorter than one source video frame."};
    case C::rangeOutsideRetainedContent:
      return {"timeline.error.speedOutside", "The entire speed-change range must fit within the currently retained content."};
    case C::conflictingRanges:
      return {"timeline.error.speedConflict", "Overlapping speed-change ranges cannot use different playback speeds."};
    case C::noChange:
      return {"timeline.error.speedUnchanged", "The selected content already uses this playback speed."};
  }
  return {"timeline.error.speedRange", "The speed-change range is invalid or shorter than one source video frame."};
}

}  // namespace

TimelineSpeedError::TimelineSpeedError(Case kind) : Error(describe(kind).key, "Editor", describe(kind).text), kind_(kind) {}

}  // namespace vumo
