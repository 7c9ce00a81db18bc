#include "timeline/auto_zoom_engine.h"

#include <algorithm>
#include <cmath>

#include "shared/checked_math.h"
#include "timeline/timeline_effect_engine.h"
#include "timeline/timeline_frame_grid.h"

namespace vumo {

namespace {

// Recorded times come from files; a damaged chunk must not stop the process here.
ProjectTime saturatingAdd(ProjectTime a, ProjectTime b) {
  std::int64_t sum;
  if (tryAdd(a.nanoseconds, b.nanoseconds, sum)) return {sum};
  return {b.nanoseconds > 0 ? INT64_MAX : INT64_MIN};
}

ProjectTime saturatingSub(ProjectTime a, ProjectTime b) {
  std::int64_t difference;
  if (trySub(a.nanoseconds, b.nanoseconds, difference)) return {difference};
  return {b.nanoseconds > 0 ? INT64_MIN : INT64_MAX};
}

}  // namespace

std::vector<ZoomSegment> AutoZoomEngine::makeSegments(const std::vector<MouseEvent>& events,
                                                      ProjectTime duration) const {
  std::vector<const MouseEvent*> clicks;
  for (const MouseEvent& event : events)
    if (event.isLeftPress()) clicks.push_back(&event);
  std::stable_sort(clicks.begin(), clicks.end(),
                   [](const MouseEvent* a, const MouseEvent* b) { return a->time < b->time; });

  struct Cluster {
    const MouseEvent* first;
    const MouseEvent* last;
  };
  std::vector<Cluster> clusters;
  for (const MouseEvent* click : clicks) {
    if (!clusters.empty()) {
      // Compared with the cluster's latest click, not its first, so a slow drift stays together.
      const MouseEvent* previous = clusters.back().last;
      bool closeInTime = saturatingSub(click->time, previous->time) <= clusterGap;
      double distance = std::hypot(click->normalizedPoint.x - previous->normalizedPoint.x,
                                   click->normalizedPoint.y - previous->normalizedPoint.y);
      if (closeInTime && distance <= clusterDistance) {
        clusters.back().last = click;
        continue;
      }
    }
    clusters.push_back({click, click});
  }

  std::vector<ZoomSegment> segments;
  for (const Cluster& cluster : clusters) {
    ZoomSegment zoom;
    zoom.id = Uuid::random();
    zoom.startTime = std::max(saturatingSub(cluster.first->time, leadIn), ProjectTime::zero());
    zoom.holdEndTime = std::min(saturatingAdd(cluster.last->time, hold), duration);
    zoom.endTime = std::min(saturatingAdd(zoom.holdEndTime, zoomOut), duration);
    if (zoom.endTime <= zoom.startTime) continue;
    // The ramp in ends at the first click. A click stamped outside the source (the clock runs on
    // for a moment after the last frame) is held inside the segment so the times stay ordered.
    zoom.focusTime = std::clamp(cluster.first->time, zoom.startTime, std::max(zoom.startTime, zoom.holdEndTime));
    zoom.holdEndTime = std::max(zoom.holdEndTime, zoom.focusTime);
    // The last click, not a centroid: it is where the user's attention ended up.
    zoom.focusPoint = TimelineEffectEngine::constrainedFocus(cluster.last->normalizedPoint, scale);
    zoom.scale = scale;
    segments.push_back(zoom);
  }

  // A zoom that runs into the next one ends where the next begins; the evaluator blends touching
  // zooms directly.
  for (std::size_t i = 1; i < segments.size(); ++i) {
    ZoomSegment& previous = segments[i - 1];
    ProjectTime nextStart = segments[i].startTime;
    if (nextStart < previous.endTime) {
      previous.endTime = nextStart;
      previous.focusTime = std::min(previous.focusTime, nextStart);
      previous.holdEndTime = std::min(previous.holdEndTime, nextStart);
      previous.id = Uuid::random();
    }
  }

  // Shortening can leave slivers. A zoom under one frame cannot be seen and would be refused by
  // validation, which would lose the whole timeline, so it goes.
  std::erase_if(segments, [](const ZoomSegment& zoom) {
    return zoom.endTime <= zoom.startTime || zoom.endTime - zoom.startTime < TimelineFrameGrid::minimumDuration;
  });
  return segments;
}

}  // namespace vumo
