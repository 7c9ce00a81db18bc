#pragma once

// Small builders for timelines in the agent tests. Times are given in milliseconds; multiples of
// 50 ms lie exactly on the 60 fps grid.

#include <cstdint>
#include <initializer_list>
#include <utility>
#include <vector>

#include "shared/project_time.h"
#include "timeline/edit_timeline.h"
#include "timeline/mouse_event.h"
#include "timeline/timeline_effect_engine.h"

namespace vumo::testing {

inline ProjectTime ms(std::int64_t milliseconds) { return ProjectTime::fromMilliseconds(milliseconds); }

inline ProjectTimeRange rangeMs(std::int64_t startMilliseconds, std::int64_t endMilliseconds) {
  return ProjectTimeRange::fromStartEnd(ms(startMilliseconds), ms(endMilliseconds));
}

inline ProjectTimeRange rangeNs(std::int64_t start, std::int64_t end) { return ProjectTimeRange::fromStartEnd({start}, {end}); }

inline ZoomSegment makeZoom(ProjectTime start, ProjectTime end, double scale = 2.0, PointValue focus = {0.5, 0.5}) {
  ZoomSegment zoom;
  zoom.id = Uuid::random();
  zoom.startTime = start;
  zoom.endTime = end;
  ProjectTime lead = std::min(end - start, ms(300));
  zoom.focusTime = start + lead;
  zoom.holdEndTime = std::max(zoom.focusTime, end - ms(300));
  zoom.scale = scale;
  zoom.focusPoint = TimelineEffectEngine::constrainedFocus(focus, scale);
  return zoom;
}

inline ZoomSegment zoomMs(std::int64_t start, std::int64_t end, double scale = 2.0, PointValue focus = {0.5, 0.5}) {
  return makeZoom(ms(start), ms(end), scale, focus);
}

// Clips over the given source ranges (milliseconds) at normal speed, and the given zooms.
inline EditTimeline timelineWith(std::initializer_list<std::pair<std::int64_t, std::int64_t>> clips,
                                 std::vector<ZoomSegment> zooms = {}) {
  EditTimeline timeline = EditTimeline::empty();
  for (auto [start, end] : clips) timeline.segments.push_back({Uuid::random(), rangeMs(start, end), TimelinePlaybackRate::normal()});
  timeline.zooms = std::move(zooms);
  return timeline;
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
