// The effect tracks' rules: zooms, full-screen camera segments and camera keyframes.

#include <algorithm>
#include <cmath>
#include <unordered_set>
#include <vector>

#include "shared/checked_math.h"
#include "timeline/timeline_frame_grid.h"
#include "timeline/timeline_validator.h"

namespace vumo {

namespace {

using Case = TimelineEffectError::Case;

// `end - start >= minimum` without forming a difference that could leave the 64-bit range on a
// document with nonsense times.
bool lastsAtLeast(ProjectTime start, ProjectTime end, ProjectTime minimum) {
  std::int64_t length;
  return end >= start && trySub(end.nanoseconds, start.nanoseconds, length) && length >= minimum.nanoseconds;
}

bool isUnitInterval(double value) { return std::isfinite(value) && value >= 0 && value <= 1; }

// The items in start order; equal starts keep their stored order.
template <class Item>
std::vector<Item> sortedByStart(std::vector<Item> items) {
  std::stable_sort(items.begin(), items.end(), [](const Item& a, const Item& b) { return a.startTime < b.startTime; });
  return items;
}

void validateZooms(const std::vector<ZoomSegment>& stored, ProjectTime sourceDuration) {
  std::unordered_set<Uuid> seen;
  const std::vector<ZoomSegment> zooms = sortedByStart(stored);
  const ZoomSegment* previous = nullptr;
  for (const ZoomSegment& zoom : zooms) {
    bool valid =
        seen.insert(zoom.id).second && zoom.startTime >= ProjectTime::zero() && zoom.endTime <= sourceDuration &&
        zoom.startTime <= zoom.focusTime && zoom.focusTime <= zoom.holdEndTime && zoom.holdEndTime <= zoom.endTime &&
        lastsAtLeast(zoom.startTime, zoom.endTime, TimelineFrameGrid::minimumDuration) && std::isfinite(zoom.scale) &&
        zoom.scale >= TimelineValidator::minimumZoomScale && zoom.scale <= TimelineValidator::maximumZoomScale;
    if (valid) valid = zoom.focusPoint == TimelineValidator::constrainedZoomFocus(zoom.focusPoint, zoom.scale);
    if (!valid) throw TimelineEffectError(Case::zoomRangeInvalid);
    if (previous != nullptr && zoom.startTime < previous->endTime) throw TimelineEffectError(Case::zoomOverlap);
    previous = &zoom;
  }
}

void validateFullscreenSegments(const EditTimeline& timeline, ProjectTime sourceDuration) {
  if (timeline.webcamFullscreenSegments.empty()) return;
  if (!timeline.webcamOverlay) throw TimelineEffectError(Case::webcamFullscreenRangeInvalid);
  std::unordered_set<Uuid> seen;
  const std::vector<WebcamFullscreenSegment> segments = sortedByStart(timeline.webcamFullscreenSegments);
  const WebcamFullscreenSegment* previous = nullptr;
  for (const WebcamFullscreenSegment& segment : segments) {
    bool valid = seen.insert(segment.id).second && segment.startTime >= ProjectTime::zero() &&
                 segment.endTime <= sourceDuration &&
                 lastsAtLeast(segment.startTime, segment.endTime, TimelineValidator::minimumWebcamFullscreenDuration);
    if (!valid) throw TimelineEffectError(Case::webcamFullscreenRangeInvalid);
    if (previous != nullptr && segment.startTime < previous->endTime)
      throw TimelineEffectError(Case::webcamFullscreenOverlap);
    previous = &segment;
  }
}

void validateKeyframes(const std::vector<WebcamOverlayKeyframe>& keyframes, ProjectTime sourceDuration) {
  std::unordered_set<Uuid> ids;
  std::unordered_set<ProjectTime> times;
  for (const WebcamOverlayKeyframe& keyframe : keyframes) {
    if (keyframe.time < ProjectTime::zero() || keyframe.time >= sourceDuration)
      throw TimelineEffectError(Case::keyframeOutsideSource);
    bool valid = ids.insert(keyframe.id).second && times.insert(keyframe.time).second &&
                 std::isfinite(keyframe.diameter) && keyframe.diameter >= TimelineValidator::minimumWebcamDiameter &&
                 keyframe.diameter <= TimelineValidator::maximumWebcamDiameter && isUnitInterval(keyframe.center.x) &&
                 isUnitInterval(keyframe.center.y);
    if (!valid) throw TimelineEffectError(Case::keyframeInvalid);
  }
}

}  // namespace

void TimelineValidator::validateEffectTracks(const EditTimeline& timeline, ProjectTime sourceDuration) {
  validateZooms(timeline.zooms, sourceDuration);
  validateFullscreenSegments(timeline, sourceDuration);
  validateKeyframes(timeline.webcamKeyframes, sourceDuration);
}

PointValue TimelineValidator::constrainedZoomFocus(PointValue focus, double scale) {
  if (!(scale > 1)) return {0.5, 0.5};
  const double lower = 0.5 / scale;
  const double upper = 1 - 0.5 / scale;
  // A coordinate that is not a number comes out as the lower bound.
  auto clamp = [&](double value) { return std::max(lower, std::min(value, upper)); };
  return {clamp(focus.x), clamp(focus.y)};
}

}  // namespace vumo
