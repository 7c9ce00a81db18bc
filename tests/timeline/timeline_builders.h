#pragma once

// Small constructors for timelines in tests of the document, validator and mapper.

#include <cstdint>
#include <vector>

#include "timeline/edit_timeline.h"

namespace vumo::testing {

inline ProjectTime ns(std::int64_t nanoseconds) { return ProjectTime{nanoseconds}; }
inline ProjectTime ms(std::int64_t milliseconds) { return ProjectTime::fromMilliseconds(milliseconds); }

inline TimelineSegment clip(ProjectTime start, ProjectTime duration, std::int32_t permille = 1000) {
  return TimelineSegment{Uuid::random(), {start, duration}, TimelinePlaybackRate{permille}};
}

inline EditTimeline timelineWith(std::vector<TimelineSegment> segments) {
  EditTimeline timeline = EditTimeline::empty();
  timeline.segments = std::move(segments);
  return timeline;
}

inline AnnotationElement rectangle(ProjectTime start, ProjectTime end, std::int64_t zIndex) {
  AnnotationElement annotation;
  annotation.id = Uuid::random();
  annotation.startTime = start;
  annotation.endTime = end;
  annotation.kind = AnnotationKind::rectangle;
  annotation.bounds = RectValue{0.1, 0.1, 0.3, 0.2};
  annotation.zIndex = zIndex;
  return annotation;
}

inline AnnotationElement arrow(ProjectTime start, ProjectTime end, std::int64_t zIndex) {
  AnnotationElement annotation = rectangle(start, end, zIndex);
  annotation.kind = AnnotationKind::arrow;
  annotation.bounds.reset();
  annotation.startPoint = PointValue{0.2, 0.2};
  annotation.endPoint = PointValue{0.6, 0.5};
  return annotation;
}

inline AnnotationElement text(ProjectTime start, ProjectTime end, std::int64_t zIndex, std::string content = "Hello") {
  AnnotationElement annotation = rectangle(start, end, zIndex);
  annotation.kind = AnnotationKind::text;
  annotation.textStyle = TextAnnotationStyle{std::move(content), 48, true, TextAnnotationOutlineColor::white};
  return annotation;
}

}  // namespace vumo::testing
