#pragma once

// Builders shared by the engine tests: clips on the 60 fps grid, annotations and zooms.

#include <cstdint>
#include <ostream>
#include <vector>

#include "shared/project_time.h"
#include "timeline/edit_timeline.h"
#include "timeline/timeline_frame_grid.h"

namespace vumo {

// Readable failure messages for times and ranges.
inline void PrintTo(const ProjectTime& time, std::ostream* out) { *out << time.nanoseconds << " ns"; }
inline void PrintTo(const ProjectTimeRange& range, std::ostream* out) {
  *out << "[" << range.start.nanoseconds << ", +" << range.duration.nanoseconds << ")";
}

}  // namespace vumo

namespace vumo::engine_testing {

inline ProjectTime ns(std::int64_t nanoseconds) { return {nanoseconds}; }
inline ProjectTime ms(std::int64_t milliseconds) { return ProjectTime::fromMilliseconds(milliseconds); }
// Grid line number `n` (frame 60 is exactly one second).
inline ProjectTime frame(std::int64_t n) { return TimelineFrameGrid::boundary(n); }

inline TimelineSegment clip(ProjectTime start, ProjectTime end, std::int32_t permille = 1000) {
  return {Uuid::random(), ProjectTimeRange::fromStartEnd(start, end), {permille}};
}

inline EditTimeline timelineOf(std::vector<TimelineSegment> segments) {
  EditTimeline timeline = EditTimeline::empty();
  timeline.segments = std::move(segments);
  return timeline;
}

inline AnnotationElement rectangle(ProjectTime start, ProjectTime end, std::int64_t zIndex, std::int64_t trackIndex = 0) {
  AnnotationElement annotation;
  annotation.id = Uuid::random();
  annotation.startTime = start;
  annotation.endTime = end;
  annotation.kind = AnnotationKind::rectangle;
  annotation.bounds = RectValue{0.1, 0.1, 0.2, 0.2};
  annotation.zIndex = zIndex;
  annotation.trackIndex = trackIndex;
  return annotation;
}

inline ZoomSegment zoom(ProjectTime start, ProjectTime focus, ProjectTime holdEnd, ProjectTime end, double scale = 2.0,
                        PointValue focusPoint = {0.5, 0.5}) {
  return {Uuid::random(), start, focus, holdEnd, end, focusPoint, scale};
}

inline std::vector<ProjectTimeRange> sourceRanges(const EditTimeline& timeline) {
  std::vector<ProjectTimeRange> ranges;
  for (const TimelineSegment& segment : timeline.segments) ranges.push_back(segment.sourceRange);
  return ranges;
}

inline ProjectTimeRange span(ProjectTime start, ProjectTime end) { return ProjectTimeRange::fromStartEnd(start, end); }

}  // namespace vumo::engine_testing
