#pragma once

// The one set of builders for times, clips, zooms, annotations and pointer events in tests. Every
// builder takes a start and an end, never a start and a length. Milliseconds that are multiples
// of 50 lie exactly on the 60 fps grid.

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "shared/project_time.h"
#include "timeline/edit_timeline.h"
#include "timeline/mouse_event.h"
#include "timeline/timeline_effect_engine.h"
#include "timeline/timeline_frame_grid.h"

namespace vumo {

// Readable failure messages for times and ranges.
inline void PrintTo(const ProjectTime& time, std::ostream* out) { *out << time.nanoseconds << " ns"; }
inline void PrintTo(const ProjectTimeRange& range, std::ostream* out) {
  *out << "[" << range.start.nanoseconds << ", +" << range.duration.nanoseconds << ")";
}

}  // namespace vumo

namespace vumo::testing {

inline ProjectTime ns(std::int64_t nanoseconds) { return ProjectTime{nanoseconds}; }
inline ProjectTime ms(std::int64_t milliseconds) { return ProjectTime::fromMilliseconds(milliseconds); }
// Grid line number `n` (frame 60 is exactly one second).
inline ProjectTime frame(std::int64_t n) { return TimelineFrameGrid::boundary(n); }

inline ProjectTimeRange span(ProjectTime start, ProjectTime end) { return ProjectTimeRange::fromStartEnd(start, end); }
inline ProjectTimeRange rangeMs(std::int64_t startMilliseconds, std::int64_t endMilliseconds) {
  return span(ms(startMilliseconds), ms(endMilliseconds));
}
inline ProjectTimeRange rangeNs(std::int64_t start, std::int64_t end) { return span(ns(start), ns(end)); }

// A clip over the source from `start` to `end`, played at `permille`.
inline TimelineSegment clip(ProjectTime start, ProjectTime end, std::int32_t permille = 1000) {
  return {Uuid::random(), span(start, end), TimelinePlaybackRate{permille}};
}

inline EditTimeline timelineOf(std::vector<TimelineSegment> segments) {
  EditTimeline timeline = EditTimeline::empty();
  timeline.segments = std::move(segments);
  return timeline;
}

// Clips over the given source ranges (milliseconds) at normal speed, and the given zooms.
inline EditTimeline timelineWith(std::initializer_list<std::pair<std::int64_t, std::int64_t>> clips,
                                 std::vector<ZoomSegment> zooms = {}) {
  EditTimeline timeline = EditTimeline::empty();
  for (auto [start, end] : clips) timeline.segments.push_back(clip(ms(start), ms(end)));
  timeline.zooms = std::move(zooms);
  return timeline;
}

inline std::vector<ProjectTimeRange> sourceRanges(const EditTimeline& timeline) {
  std::vector<ProjectTimeRange> ranges;
  for (const TimelineSegment& segment : timeline.segments) ranges.push_back(segment.sourceRange);
  return ranges;
}

// A zoom with every one of its times given.
inline ZoomSegment zoom(ProjectTime start, ProjectTime focus, ProjectTime holdEnd, ProjectTime end, double scale = 2.0,
                        PointValue focusPoint = {0.5, 0.5}) {
  return {Uuid::random(), start, focus, holdEnd, end, focusPoint, scale};
}

// A zoom from `start` to `end` that ramps in and out over at most 300 ms, its focus constrained as
// the effect engine would.
inline ZoomSegment makeZoom(ProjectTime start, ProjectTime end, double scale = 2.0, PointValue focus = {0.5, 0.5}) {
  ProjectTime focusTime = start + std::min(end - start, ms(300));
  ProjectTime holdEnd = std::max(focusTime, end - ms(300));
  return zoom(start, focusTime, holdEnd, end, scale, TimelineEffectEngine::constrainedFocus(focus, scale));
}
inline ZoomSegment zoomMs(std::int64_t start, std::int64_t end, double scale = 2.0, PointValue focus = {0.5, 0.5}) {
  return makeZoom(ms(start), ms(end), scale, focus);
}

inline AnnotationElement rectangle(ProjectTime start, ProjectTime end, std::int64_t zIndex,
                                   std::int64_t trackIndex = 0) {
  AnnotationElement annotation;
  annotation.id = Uuid::random();
  annotation.startTime = start;
  annotation.endTime = end;
  annotation.kind = AnnotationKind::rectangle;
  annotation.bounds = RectValue{0.1, 0.1, 0.3, 0.2};
  annotation.zIndex = zIndex;
  annotation.trackIndex = trackIndex;
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

inline MouseEvent press(std::int64_t atMilliseconds, PointValue point, MouseButton button = MouseButton::left,
                        std::optional<bool> inside = std::nullopt, MousePhase phase = MousePhase::down) {
  MouseEvent event;
  event.time = ms(atMilliseconds);
  event.normalizedPoint = point;
  event.button = button;
  event.phase = phase;
  event.isInsideSource = inside;
  return event;
}

}  // namespace vumo::testing
