#include "timeline/timeline_effect_engine.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <unordered_set>

#include "timeline/timeline_engine_support.h"
#include "timeline/timeline_frame_grid.h"

namespace vumo {

namespace {

using engine_support::clampLowerWins;
using engine_support::stableSortBy;
using Case = TimelineEffectError::Case;

// `end - start >= minimum` without forming a difference that could leave the 64-bit range on a
// request with nonsense times.
bool lastsAtLeast(ProjectTime start, ProjectTime end, ProjectTime minimum) {
  std::int64_t length;
  return end >= start && trySub(end.nanoseconds, start.nanoseconds, length) && length >= minimum.nanoseconds;
}

// Ramps of a zoom whose edges move to `start` and `end`: the ramp lengths are kept where they fit,
// otherwise both shrink in proportion, so the four times never invert.
void fitRamps(ZoomSegment& zoom, ProjectTime start, ProjectTime end) {
  std::int64_t lead = std::max<std::int64_t>((zoom.focusTime - zoom.startTime).nanoseconds, 0);
  std::int64_t tail = std::max<std::int64_t>((zoom.endTime - zoom.holdEndTime).nanoseconds, 0);
  std::int64_t length = std::max<std::int64_t>((end - start).nanoseconds, 1);
  std::int64_t ramps = checkedAdd(lead, tail);
  if (ramps > length) {
    double ratio = static_cast<double>(length) / static_cast<double>(ramps);
    lead = checkedInt64(std::round(static_cast<double>(lead) * ratio));
    tail = checkedInt64(std::round(static_cast<double>(tail) * ratio));
    lead = std::min(lead, length);
    tail = std::min(tail, length - lead);
  }
  zoom.startTime = start;
  zoom.endTime = end;
  zoom.focusTime = start + ProjectTime{lead};
  zoom.holdEndTime = end - ProjectTime{tail};
}

template <class Item>
struct Neighbours {
  const Item* previous = nullptr;
  const Item* next = nullptr;
};

// Finds `id` in `items` (throwing `missing` if absent), hands the item and its neighbours in start
// order to `change`, writes the result back and keeps the list sorted by start.
template <class Item>
std::vector<Item> updatingItem(const std::vector<Item>& items, const Uuid& id, Case missing,
                               const std::function<void(Item&, const Neighbours<Item>&)>& change) {
  std::vector<Item> ordered = items;
  stableSortBy(ordered, [](const Item& item) { return item.startTime; });
  auto position = std::find_if(ordered.begin(), ordered.end(), [&](const Item& item) { return item.id == id; });
  if (position == ordered.end()) throw TimelineEffectError(missing);
  Neighbours<Item> neighbours;
  if (position != ordered.begin()) neighbours.previous = &*(position - 1);
  if (position + 1 != ordered.end()) neighbours.next = &*(position + 1);
  Item changed = *position;
  change(changed, neighbours);

  std::vector<Item> result = items;
  auto stored = std::find_if(result.begin(), result.end(), [&](const Item& item) { return item.id == id; });
  *stored = changed;
  stableSortBy(result, [](const Item& item) { return item.startTime; });
  return result;
}

EditTimeline withZoomUpdate(const EditTimeline& timeline, const Uuid& id, ProjectTime sourceDuration,
                            const std::function<void(ZoomSegment&, const Neighbours<ZoomSegment>&)>& change) {
  EditTimeline result = timeline;
  result.zooms = updatingItem<ZoomSegment>(timeline.zooms, id, Case::zoomNotFound, change);
  return engine_support::validated(std::move(result), sourceDuration);
}

EditTimeline withFullscreenUpdate(
    const EditTimeline& timeline, const Uuid& id, ProjectTime sourceDuration,
    const std::function<void(WebcamFullscreenSegment&, const Neighbours<WebcamFullscreenSegment>&)>& change) {
  EditTimeline result = timeline;
  result.webcamFullscreenSegments = updatingItem<WebcamFullscreenSegment>(timeline.webcamFullscreenSegments, id,
                                                                          Case::webcamFullscreenNotFound, change);
  return engine_support::validated(std::move(result), sourceDuration);
}

// A requested edge on the grid. Far-out requests are clamped first; the edge is clamped to its
// neighbours afterwards anyway.
ProjectTime snappedRequest(ProjectTime time) {
  return TimelineFrameGrid::nearestBoundary(engine_support::clampedForSnapping(time));
}

double clampDiameter(double diameter) {
  return clampLowerWins(diameter, TimelineEffectEngine::minimumWebcamDiameter,
                        TimelineEffectEngine::maximumWebcamDiameter);
}

double smoothstep(double p) { return p * p * (3 - 2 * p); }

}  // namespace

// --- Zooms ---------------------------------------------------------------------------------------

EditTimeline TimelineEffectEngine::replaceZooms(const EditTimeline& timeline, std::vector<ZoomSegment> zooms,
                                                ProjectTime sourceDuration) {
  stableSortBy(zooms, [](const ZoomSegment& z) { return z.startTime; });
  EditTimeline result = timeline;
  result.zooms = std::move(zooms);
  return engine_support::validated(std::move(result), sourceDuration);
}

EditTimeline TimelineEffectEngine::removeZoom(const EditTimeline& timeline, std::int64_t index,
                                              ProjectTime sourceDuration) {
  if (index < 0 || index >= static_cast<std::int64_t>(timeline.zooms.size()))
    throw TimelineEffectError(Case::zoomIndexInvalid);
  EditTimeline result = timeline;
  result.zooms.erase(result.zooms.begin() + index);
  return engine_support::validated(std::move(result), sourceDuration);
}

EditTimeline TimelineEffectEngine::removeZoom(const EditTimeline& timeline, const Uuid& id,
                                              ProjectTime sourceDuration) {
  EditTimeline result = timeline;
  auto found = std::find_if(result.zooms.begin(), result.zooms.end(), [&](const ZoomSegment& z) { return z.id == id; });
  if (found == result.zooms.end()) throw TimelineEffectError(Case::zoomNotFound);
  result.zooms.erase(found);
  return engine_support::validated(std::move(result), sourceDuration);
}

EditTimeline TimelineEffectEngine::updateZoomStart(const EditTimeline& timeline, const Uuid& id, ProjectTime startTime,
                                                   ProjectTime sourceDuration) {
  return withZoomUpdate(timeline, id, sourceDuration, [&](ZoomSegment& zoom, const Neighbours<ZoomSegment>& around) {
    ProjectTime lowest =
        around.previous ? TimelineFrameGrid::ceilingBoundary(around.previous->endTime) : ProjectTime::zero();
    ProjectTime highest = TimelineFrameGrid::floorBoundary(
        std::max(zoom.endTime - TimelineFrameGrid::minimumDuration, ProjectTime::zero()));
    ProjectTime start = clampLowerWins(snappedRequest(startTime), lowest, highest);
    fitRamps(zoom, start, zoom.endTime);
  });
}

EditTimeline TimelineEffectEngine::updateZoomEnd(const EditTimeline& timeline, const Uuid& id, ProjectTime endTime,
                                                 ProjectTime sourceDuration) {
  return withZoomUpdate(timeline, id, sourceDuration, [&](ZoomSegment& zoom, const Neighbours<ZoomSegment>& around) {
    ProjectTime lowest = TimelineFrameGrid::ceilingBoundary(zoom.startTime + TimelineFrameGrid::minimumDuration);
    ProjectTime highest = TimelineFrameGrid::floorBoundary(around.next ? around.next->startTime : sourceDuration);
    ProjectTime end = clampLowerWins(snappedRequest(endTime), lowest, highest);
    fitRamps(zoom, zoom.startTime, end);
  });
}

EditTimeline TimelineEffectEngine::updateZoomScale(const EditTimeline& timeline, const Uuid& id, double scale,
                                                   ProjectTime sourceDuration) {
  return withZoomUpdate(timeline, id, sourceDuration, [&](ZoomSegment& zoom, const Neighbours<ZoomSegment>&) {
    zoom.scale = clampLowerWins(scale, minimumZoomScale, maximumZoomScale);
    zoom.focusPoint = constrainedFocus(zoom.focusPoint, zoom.scale);
  });
}

EditTimeline TimelineEffectEngine::updateZoomFocus(const EditTimeline& timeline, const Uuid& id, PointValue focus,
                                                   ProjectTime sourceDuration) {
  return withZoomUpdate(timeline, id, sourceDuration, [&](ZoomSegment& zoom, const Neighbours<ZoomSegment>&) {
    zoom.focusPoint = constrainedFocus(focus, zoom.scale);
  });
}

bool TimelineEffectEngine::hasSameZoomConfiguration(const std::vector<ZoomSegment>& a,
                                                    const std::vector<ZoomSegment>& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    const ZoomSegment& x = a[i];
    const ZoomSegment& y = b[i];
    if (x.startTime != y.startTime || x.focusTime != y.focusTime || x.holdEndTime != y.holdEndTime ||
        x.endTime != y.endTime || x.focusPoint != y.focusPoint || x.scale != y.scale)
      return false;
  }
  return true;
}

// --- Full-screen camera --------------------------------------------------------------------------

EditTimeline TimelineEffectEngine::addWebcamFullscreen(const EditTimeline& timeline, ProjectTimeRange range,
                                                       ProjectTime sourceDuration) {
  std::int64_t rawEnd;
  if (!tryAdd(range.start.nanoseconds, range.duration.nanoseconds, rawEnd) ||
      !engine_support::isSnappable(range.start) || !engine_support::isSnappable({rawEnd}))
    throw TimelineEffectError(Case::webcamFullscreenRangeInvalid);
  ProjectTime start = TimelineFrameGrid::nearestBoundary(range.start);
  ProjectTime end = TimelineFrameGrid::nearestBoundary({rawEnd});
  if (start < ProjectTime::zero() || end > sourceDuration || !lastsAtLeast(start, end, minimumWebcamFullscreenDuration))
    throw TimelineEffectError(Case::webcamFullscreenRangeInvalid);
  EditTimeline result = timeline;
  result.webcamFullscreenSegments.push_back({Uuid::random(), start, end});
  stableSortBy(result.webcamFullscreenSegments, [](const WebcamFullscreenSegment& s) { return s.startTime; });
  return engine_support::validated(std::move(result), sourceDuration);
}

EditTimeline TimelineEffectEngine::removeWebcamFullscreen(const EditTimeline& timeline, const Uuid& id,
                                                          ProjectTime sourceDuration) {
  EditTimeline result = timeline;
  auto& segments = result.webcamFullscreenSegments;
  auto found =
      std::find_if(segments.begin(), segments.end(), [&](const WebcamFullscreenSegment& s) { return s.id == id; });
  if (found == segments.end()) throw TimelineEffectError(Case::webcamFullscreenNotFound);
  segments.erase(found);
  return engine_support::validated(std::move(result), sourceDuration);
}

EditTimeline TimelineEffectEngine::updateWebcamFullscreenStart(const EditTimeline& timeline, const Uuid& id,
                                                               ProjectTime startTime, ProjectTime sourceDuration) {
  return withFullscreenUpdate(timeline, id, sourceDuration,
                              [&](WebcamFullscreenSegment& segment, const Neighbours<WebcamFullscreenSegment>& around) {
                                ProjectTime lowest = around.previous
                                                         ? TimelineFrameGrid::ceilingBoundary(around.previous->endTime)
                                                         : ProjectTime::zero();
                                ProjectTime highest = TimelineFrameGrid::floorBoundary(
                                    std::max(segment.endTime - minimumWebcamFullscreenDuration, ProjectTime::zero()));
                                segment.startTime = clampLowerWins(snappedRequest(startTime), lowest, highest);
                              });
}

EditTimeline TimelineEffectEngine::updateWebcamFullscreenEnd(const EditTimeline& timeline, const Uuid& id,
                                                             ProjectTime endTime, ProjectTime sourceDuration) {
  return withFullscreenUpdate(
      timeline, id, sourceDuration,
      [&](WebcamFullscreenSegment& segment, const Neighbours<WebcamFullscreenSegment>& around) {
        ProjectTime lowest = TimelineFrameGrid::ceilingBoundary(segment.startTime + minimumWebcamFullscreenDuration);
        ProjectTime highest = TimelineFrameGrid::floorBoundary(around.next ? around.next->startTime : sourceDuration);
        segment.endTime = clampLowerWins(snappedRequest(endTime), lowest, highest);
      });
}

// --- Camera overlay ------------------------------------------------------------------------------

double TimelineEffectEngine::cameraAspectRatio(WebcamAspectRatio aspectRatio) {
  return aspectRatio == WebcamAspectRatio::square ? 1.0 : 16.0 / 9.0;
}

WebcamRadii TimelineEffectEngine::webcamRadii(double diameter, double outputAspectRatio, double cameraAspectRatio) {
  double a = std::max(outputAspectRatio, 0.01);
  double w = std::max(cameraAspectRatio, 0.01);
  return {w * diameter * 0.5 * std::min(1.0, 1.0 / a), diameter * 0.5 * std::min(1.0, a)};
}

PointValue TimelineEffectEngine::constrainedWebcamCenter(PointValue center, double diameter, double outputAspectRatio,
                                                         WebcamAspectRatio aspectRatio) {
  WebcamRadii radii = webcamRadii(diameter, outputAspectRatio, cameraAspectRatio(aspectRatio));
  return {clampLowerWins(center.x, radii.horizontal, 1 - radii.horizontal),
          clampLowerWins(center.y, radii.vertical, 1 - radii.vertical)};
}

std::optional<WebcamOverlay> TimelineEffectEngine::webcamOverlay(const std::optional<WebcamOverlay>& base,
                                                                 const std::vector<WebcamOverlayKeyframe>& keyframes,
                                                                 ProjectTime time, double outputAspectRatio) {
  if (!base) return std::nullopt;
  WebcamOverlay overlay = *base;
  if (!keyframes.empty()) {
    std::vector<WebcamOverlayKeyframe> sorted = keyframes;
    stableSortBy(sorted, [](const WebcamOverlayKeyframe& k) { return k.time; });
    if (time <= sorted.front().time) {
      overlay.center = sorted.front().center;
      overlay.diameter = sorted.front().diameter;
    } else if (time >= sorted.back().time) {
      overlay.center = sorted.back().center;
      overlay.diameter = sorted.back().diameter;
    } else {
      // The first keyframe after `time`; the one before it is at or before `time`.
      auto after = std::upper_bound(sorted.begin(), sorted.end(), time,
                                    [](ProjectTime t, const WebcamOverlayKeyframe& k) { return t < k.time; });
      const WebcamOverlayKeyframe& a = *(after - 1);
      const WebcamOverlayKeyframe& b = *after;
      double span =
          std::max<double>(static_cast<double>(b.time.nanoseconds) - static_cast<double>(a.time.nanoseconds), 1.0);
      double p = std::clamp((static_cast<double>(time.nanoseconds) - static_cast<double>(a.time.nanoseconds)) / span,
                            0.0, 1.0);
      double s = smoothstep(p);
      overlay.center = {a.center.x + (b.center.x - a.center.x) * s, a.center.y + (b.center.y - a.center.y) * s};
      overlay.diameter = a.diameter + (b.diameter - a.diameter) * s;
    }
  }
  overlay.diameter = clampDiameter(overlay.diameter);
  overlay.center = constrainedWebcamCenter(overlay.center, overlay.diameter, outputAspectRatio, overlay.aspectRatio);
  return overlay;
}

EditTimeline TimelineEffectEngine::moveWebcamGlobally(const EditTimeline& timeline, ProjectTime time, PointValue point,
                                                      double outputAspectRatio, ProjectTime sourceDuration) {
  EditTimeline result = timeline;
  if (result.webcamOverlay) {
    WebcamOverlay& base = *result.webcamOverlay;
    auto place = [&](PointValue center, double diameter) {
      return constrainedWebcamCenter(center, clampDiameter(diameter), outputAspectRatio, base.aspectRatio);
    };
    if (result.webcamKeyframes.empty()) {
      base.center = place(point, base.diameter);
    } else {
      PointValue shown =
          webcamOverlay(timeline.webcamOverlay, timeline.webcamKeyframes, time, outputAspectRatio)->center;
      double dx = point.x - shown.x;
      double dy = point.y - shown.y;
      for (WebcamOverlayKeyframe& keyframe : result.webcamKeyframes)
        keyframe.center = place({keyframe.center.x + dx, keyframe.center.y + dy}, keyframe.diameter);
      base.center = place({base.center.x + dx, base.center.y + dy}, base.diameter);
    }
  }
  return engine_support::validated(std::move(result), sourceDuration);
}

EditTimeline TimelineEffectEngine::resizeWebcamGlobally(const EditTimeline& timeline, ProjectTime time, double diameter,
                                                        double outputAspectRatio, ProjectTime sourceDuration) {
  EditTimeline result = timeline;
  if (result.webcamOverlay) {
    WebcamOverlay& base = *result.webcamOverlay;
    double target = clampDiameter(diameter);
    auto resize = [&](PointValue& center, double& size, double newSize) {
      size = clampDiameter(newSize);
      // A larger camera may no longer fit where it was.
      center = constrainedWebcamCenter(center, size, outputAspectRatio, base.aspectRatio);
    };
    if (result.webcamKeyframes.empty()) {
      resize(base.center, base.diameter, target);
    } else {
      double shown = webcamOverlay(timeline.webcamOverlay, timeline.webcamKeyframes, time, outputAspectRatio)->diameter;
      double delta = target - shown;
      for (WebcamOverlayKeyframe& keyframe : result.webcamKeyframes)
        resize(keyframe.center, keyframe.diameter, keyframe.diameter + delta);
      resize(base.center, base.diameter, base.diameter + delta);
    }
  }
  return engine_support::validated(std::move(result), sourceDuration);
}

}  // namespace vumo
