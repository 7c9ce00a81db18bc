#include "ui/timeline_canvas_geometry.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "captions/caption_document.h"
#include "shared/error.h"
#include "timeline/timeline_frame_grid.h"
#include "timeline/timeline_mapper.h"

namespace vumo {

namespace {

constexpr double nanosecondsPerSecond = 1e9;

struct Kinds {
  TimelineHitKind body, start, end;
};

Kinds kindsOf(TimelineLane lane) {
  switch (lane) {
    case TimelineLane::clips:
      return {TimelineHitKind::segment, TimelineHitKind::segmentStart, TimelineHitKind::segmentEnd};
    case TimelineLane::zooms: return {TimelineHitKind::zoom, TimelineHitKind::zoomStart, TimelineHitKind::zoomEnd};
    case TimelineLane::captions: return {TimelineHitKind::cue, TimelineHitKind::cueStart, TimelineHitKind::cueEnd};
    case TimelineLane::annotations:
      return {TimelineHitKind::annotation, TimelineHitKind::annotationStart, TimelineHitKind::annotationEnd};
    default: return {TimelineHitKind::none, TimelineHitKind::none, TimelineHitKind::none};
  }
}

}  // namespace

TimelineCanvasGeometry::TimelineCanvasGeometry(double zoom, double scrollX) : zoom_(1), scrollX_(0) {
  setZoom(zoom);
  setScrollX(scrollX);
}

void TimelineCanvasGeometry::setZoom(double zoom) {
  if (!std::isfinite(zoom)) return;
  zoom_ = std::clamp(zoom, minimumZoom, maximumZoom);
}

void TimelineCanvasGeometry::zoomAround(double factor, double anchorX) {
  if (!std::isfinite(factor) || factor <= 0) return;
  const double seconds = (anchorX - leftInset + scrollX_) / pixelsPerSecondAtZoom();
  setZoom(zoom_ * factor);
  setScrollX(seconds * pixelsPerSecondAtZoom() - anchorX + leftInset);
}

double TimelineCanvasGeometry::xForSequenceTime(ProjectTime sequenceTime) const {
  return leftInset - scrollX_ +
         static_cast<double>(sequenceTime.nanoseconds) / nanosecondsPerSecond * pixelsPerSecondAtZoom();
}

ProjectTime TimelineCanvasGeometry::sequenceTimeForX(double x) const {
  const double nanoseconds = (x - leftInset + scrollX_) / pixelsPerSecondAtZoom() * nanosecondsPerSecond;
  constexpr double limit = static_cast<double>(std::numeric_limits<std::int64_t>::max() / 2);
  return ProjectTime{static_cast<std::int64_t>(std::llround(std::clamp(nanoseconds, -limit, limit)))};
}

ProjectTime TimelineCanvasGeometry::snappedSequenceTimeForX(double x, ProjectTime duration) const {
  ProjectTime time = sequenceTimeForX(x);
  if (time.nanoseconds <= 0) return ProjectTime{0};
  if (time >= duration) return duration;
  time = TimelineFrameGrid::nearestBoundary(time);
  return time > duration ? duration : time;
}

ProjectTime TimelineCanvasGeometry::sequenceDeltaForDX(double dx) const {
  const double frames = dx / pixelsPerSecondAtZoom() * TimelineFrameGrid::framesPerSecond;
  constexpr double limit = 1e9;
  const auto whole = static_cast<std::int64_t>(std::llround(std::clamp(frames, -limit, limit)));
  const ProjectTime magnitude = TimelineFrameGrid::boundary(whole < 0 ? -whole : whole);
  return whole < 0 ? ProjectTime{-magnitude.nanoseconds} : magnitude;
}

double TimelineCanvasGeometry::contentWidth(ProjectTime duration) const {
  return 2.0 * leftInset + static_cast<double>(duration.nanoseconds) / nanosecondsPerSecond * pixelsPerSecondAtZoom();
}

std::optional<TimelineLane> TimelineCanvasGeometry::laneAt(double y) {
  for (const TimelineLaneBand* band : {&ruler, &clips, &zooms, &captions, &annotations, &waveform})
    if (band->contains(y)) return band->lane;
  return std::nullopt;
}

const TimelineLaneBand& TimelineCanvasGeometry::band(TimelineLane lane) {
  switch (lane) {
    case TimelineLane::ruler: return ruler;
    case TimelineLane::clips: return clips;
    case TimelineLane::zooms: return zooms;
    case TimelineLane::captions: return captions;
    case TimelineLane::annotations: return annotations;
    case TimelineLane::waveform: return waveform;
  }
  return ruler;
}

TimelineCanvasLayout TimelineCanvasLayout::make(const EditTimeline& timeline, ProjectTime sourceDuration,
                                                const CaptionDocument* captions) {
  TimelineCanvasLayout layout;
  std::optional<TimelineMapper> mapper;
  try {
    mapper.emplace(timeline, sourceDuration);
  } catch (const Error&) {
    return layout;  // a timeline the validator refuses has nothing to draw
  }
  layout.sequenceDuration = mapper->sequenceDuration();
  for (const auto& projection : mapper->projections())
    layout.items.push_back({TimelineLane::clips, projection.segment.id, projection.sequenceRange,
                            projection.segment.sourceRange, projection.segment.playbackRate});
  const auto addPieces = [&](TimelineLane lane, const Uuid& id, ProjectTime start, ProjectTime end) {
    if (end <= start) return;
    const ProjectTimeRange source{start, end - start};
    for (const ProjectTimeRange& piece : mapper->projectedRanges(source))
      layout.items.push_back({lane, id, piece, source, TimelinePlaybackRate::normal()});
  };
  for (const ZoomSegment& zoom : timeline.zooms) addPieces(TimelineLane::zooms, zoom.id, zoom.startTime, zoom.endTime);
  if (captions != nullptr)
    for (const CaptionCue& cue : captions->cues) addPieces(TimelineLane::captions, cue.id, cue.start, cue.end);
  for (const AnnotationElement& annotation : timeline.annotations)
    addPieces(TimelineLane::annotations, annotation.id, annotation.startTime, annotation.endTime);
  return layout;
}

TimelineCanvasHit TimelineCanvasLayout::hitTest(const TimelineCanvasGeometry& geometry, double x, double y) const {
  TimelineCanvasHit hit;
  hit.sequenceTime = geometry.snappedSequenceTimeForX(x, sequenceDuration);
  const auto lane = TimelineCanvasGeometry::laneAt(y);
  if (!lane) return hit;
  if (*lane == TimelineLane::ruler) {
    hit.kind = TimelineHitKind::ruler;
    return hit;
  }
  const Kinds kinds = kindsOf(*lane);
  if (kinds.body == TimelineHitKind::none) return hit;

  // The nearest edge within reach; where two pieces meet, the one the point lies inside wins.
  double best = std::numeric_limits<double>::infinity();
  const TimelineCanvasItem* body = nullptr;
  for (const TimelineCanvasItem& item : items) {
    if (item.lane != *lane) continue;
    const double x0 = geometry.xForSequenceTime(item.sequenceRange.start);
    const double x1 = geometry.xForSequenceTime(item.sequenceRange.end());
    const bool inside = x >= x0 && x < x1;
    if (inside && body == nullptr) body = &item;
    const double insideBonus = inside ? 0.25 : 0;
    for (const auto& [edge, kind] : {std::pair{x0, kinds.start}, std::pair{x1, kinds.end}}) {
      const double distance = std::abs(x - edge);
      if (distance > TimelineCanvasGeometry::handleReach) continue;
      if (distance - insideBonus < best) {
        best = distance - insideBonus;
        hit.kind = kind;
        hit.id = item.id;
      }
    }
  }
  if (hit.kind == TimelineHitKind::none && body != nullptr) {
    hit.kind = kinds.body;
    hit.id = body->id;
  }
  return hit;
}

const TimelineCanvasItem* TimelineCanvasLayout::clip(const Uuid& id) const {
  for (const TimelineCanvasItem& item : items)
    if (item.lane == TimelineLane::clips && item.id == id) return &item;
  return nullptr;
}

}  // namespace vumo
