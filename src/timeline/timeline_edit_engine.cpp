#include "timeline/timeline_edit_engine.h"

namespace vumo {

namespace {

struct CaseText {
  const char* key;
  const char* text;
};

CaseText describe(TimelineEditError::Case kind) {
  using C = TimelineEditError::Case;
  switch (kind) {
    case C::noSegmentAtPlayhead:
      return {"timeline.error.noSegment", "The playhead is not within a clip that can be split."};
    case C::splitAtBoundary:
      return {"timeline.error.splitBoundary", "The playhead is already at a clip boundary."};
    case C::segmentNotFound:
      return {"timeline.error.segmentMissing", "The clip to edit could not be found."};
    case C::trimOutsideHandles:
      return {"timeline.error.trimRange", "The trim position is outside the clip\u2019s available range."};
    case C::cannotDeleteLastSegment:
      return {"timeline.error.lastSegment", "Keep at least one clip on the timeline."};
    case C::invalidRange:
      return {"timeline.error.editRange", "The edit range is invalid or outside the timeline."};
  }
  return {"timeline.error.editRange", "The edit range is invalid or outside the timeline."};
}

}  // namespace

TimelineEditError::TimelineEditError(Case kind) : Error(describe(kind).key, "Editor", describe(kind).text), kind_(kind) {}

}  // namespace vumo
