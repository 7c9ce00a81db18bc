#include "timeline/timeline_validator.h"

#include <algorithm>
#include <cmath>
#include <unordered_set>
#include <utility>
#include <vector>

#include "shared/checked_math.h"
#include "timeline/device_frame_catalog.h"
#include "timeline/grapheme_clusters.h"
#include "timeline/timeline_frame_grid.h"
#include "timeline/timeline_rate_math.h"

namespace vumo {

namespace {

using Case = TimelineValidationError::Case;

bool within(double value, double low, double high) { return std::isfinite(value) && value >= low && value <= high; }

void validateDeviceFrame(const EditTimeline& timeline) {
  if (!timeline.deviceFrame) return;
  if (timeline.schemaVersion != EditTimeline::currentSchemaVersion)
    throw TimelineValidationError::of(Case::deviceFrameRequiresSchema8);
  try {
    if (!DeviceFrameCatalog::bundled().descriptor(timeline.deviceFrame->assetID))
      throw TimelineValidationError::of(Case::invalidDeviceFrame);
  } catch (const DeviceFrameCatalogError&) {
    throw TimelineValidationError::of(Case::invalidDeviceFrame);
  }
}

void validateSegments(const EditTimeline& timeline, ProjectTime sourceDuration) {
  std::int64_t sequenceLength = 0;
  const TimelineSegment* previous = nullptr;
  std::unordered_set<Uuid> ids;
  ids.reserve(timeline.segments.size());
  for (const TimelineSegment& segment : timeline.segments) {
    if (!ids.insert(segment.id).second) throw TimelineValidationError::withID(Case::duplicateID, segment.id);
    const std::int64_t start = segment.sourceRange.start.nanoseconds;
    const std::int64_t duration = segment.sourceRange.duration.nanoseconds;
    std::int64_t end;
    if (start < 0 || duration < 1 || !tryAdd(start, duration, end) || end > sourceDuration.nanoseconds)
      throw TimelineValidationError::withID(Case::rangeOutsideSource, segment.id);
    if (duration < TimelineFrameGrid::minimumDuration.nanoseconds)
      throw TimelineValidationError::withID(Case::segmentTooShort, segment.id);
    if (!segment.playbackRate.isValid()) throw TimelineValidationError::withID(Case::invalidPlaybackRate, segment.id);
    if (timeline.schemaVersion < 4 && !segment.playbackRate.isNormal())
      throw TimelineValidationError::withID(Case::playbackRateRequiresSchema4, segment.id);

    auto output = TimelineRateMath::sequenceNanoseconds(duration, segment.playbackRate, TimelineRateRounding::nearest);
    if (!output) throw TimelineValidationError::withID(Case::sequenceDurationOverflow, segment.id);
    if (*output < TimelineFrameGrid::minimumDuration.nanoseconds)
      throw TimelineValidationError::withID(Case::sequenceSegmentTooShort, segment.id);
    if (!tryAdd(sequenceLength, *output, sequenceLength))
      throw TimelineValidationError::withID(Case::sequenceDurationOverflow, segment.id);

    if (previous != nullptr) {
      if (segment.sourceRange.start < previous->sourceRange.start)
        throw TimelineValidationError::withID(Case::segmentsOutOfOrder, segment.id);
      if (segment.sourceRange.start < previous->sourceRange.end())
        throw TimelineValidationError::withID(Case::overlappingSegments, segment.id);
    }
    previous = &segment;
  }
}

bool hasValidGeometry(const AnnotationElement& annotation) {
  if (annotation.kind == AnnotationKind::arrow) {
    if (!annotation.startPoint || !annotation.endPoint || annotation.bounds) return false;
    const PointValue& a = *annotation.startPoint;
    const PointValue& b = *annotation.endPoint;
    if (!within(a.x, 0, 1) || !within(a.y, 0, 1) || !within(b.x, 0, 1) || !within(b.y, 0, 1)) return false;
    return std::hypot(b.x - a.x, b.y - a.y) >= 0.02;
  }
  if (!annotation.bounds || annotation.startPoint || annotation.endPoint) return false;
  const RectValue& r = *annotation.bounds;
  if (!std::isfinite(r.x) || !std::isfinite(r.y) || !std::isfinite(r.width) || !std::isfinite(r.height)) return false;
  return r.x >= 0 && r.y >= 0 && r.width >= 0.02 && r.height >= 0.02 && r.x + r.width <= 1 && r.y + r.height <= 1;
}

bool hasValidStyle(const AnnotationElement& annotation, GraphemeClusterCounter& counter) {
  if (annotation.kind == AnnotationKind::text) {
    if (!annotation.textStyle) return false;
    if (!within(annotation.textStyle->fontSize, 12, 240)) return false;
    if (counter.exceeds(annotation.textStyle->content, TimelineValidator::maximumTextGraphemes)) return false;
  }
  if (!within(annotation.cornerRadius, 0, 1)) return false;
  if (!within(annotation.lineWidth, 0.001, 0.05)) return false;
  const CanvasColorValue& c = annotation.color;
  return within(c.red, 0, 1) && within(c.green, 0, 1) && within(c.blue, 0, 1);
}

void validateAnnotations(const EditTimeline& timeline, ProjectTime sourceDuration) {
  const auto& annotations = timeline.annotations;
  if (annotations.empty()) return;
  if (annotations.size() > TimelineValidator::maximumAnnotations)
    throw TimelineValidationError::of(Case::tooManyAnnotations);

  GraphemeClusterCounter counter;
  std::unordered_set<Uuid> ids;
  std::unordered_set<std::int64_t> zIndexes;
  ids.reserve(annotations.size());
  zIndexes.reserve(annotations.size());
  for (const AnnotationElement& annotation : annotations) {
    const std::int64_t start = annotation.startTime.nanoseconds;
    const std::int64_t end = annotation.endTime.nanoseconds;
    std::int64_t length;
    bool valid = ids.insert(annotation.id).second && annotation.zIndex >= 0 &&
                 zIndexes.insert(annotation.zIndex).second && annotation.trackIndex >= 0 && start >= 0 && start < end &&
                 end <= sourceDuration.nanoseconds && trySub(end, start, length) &&
                 length >= TimelineFrameGrid::minimumDuration.nanoseconds && hasValidStyle(annotation, counter) &&
                 hasValidGeometry(annotation);
    if (!valid) throw TimelineValidationError::withID(Case::invalidAnnotation, annotation.id);
  }

  // Ends sort before starts at the same instant: annotations that merely meet never overlap.
  std::vector<std::pair<std::int64_t, int>> events;
  events.reserve(annotations.size() * 2);
  for (const AnnotationElement& annotation : annotations) {
    events.emplace_back(annotation.startTime.nanoseconds, +1);
    events.emplace_back(annotation.endTime.nanoseconds, -1);
  }
  std::sort(events.begin(), events.end());
  int running = 0;
  for (const auto& [time, delta] : events) {
    running += delta;
    if (running > TimelineValidator::maximumSimultaneousAnnotations)
      throw TimelineValidationError::of(Case::tooManySimultaneousAnnotations);
  }
}

template <class Item>
void requireUniqueIDsOf(const std::vector<Item>& items) {
  std::unordered_set<Uuid> ids;
  ids.reserve(items.size());
  for (const Item& item : items)
    if (!ids.insert(item.id).second) throw TimelineValidationError::withID(Case::duplicateID, item.id);
}

}  // namespace

void TimelineValidator::validate(const EditTimeline& timeline, ProjectTime sourceDuration) {
  if (timeline.schemaVersion > EditTimeline::currentSchemaVersion)
    throw TimelineValidationError::unsupportedSchema(timeline.schemaVersion);
  if (timeline.segments.empty()) throw TimelineValidationError::of(Case::empty);
  if (!within(timeline.motionBlurAmount, 0, 1)) throw TimelineValidationError::of(Case::invalidMotionBlurAmount);
  validateDeviceFrame(timeline);
  validateSegments(timeline, sourceDuration);
  validateEffectTracks(timeline, sourceDuration);
  if (timeline.schemaVersion < 7 && !timeline.annotations.empty())
    throw TimelineValidationError::of(Case::annotationsRequireSchema7);
  validateAnnotations(timeline, sourceDuration);
}

void TimelineValidator::requireUniqueIDs(const EditTimeline& timeline) {
  requireUniqueIDsOf(timeline.segments);
  requireUniqueIDsOf(timeline.zooms);
  requireUniqueIDsOf(timeline.annotations);
  requireUniqueIDsOf(timeline.webcamFullscreenSegments);
  requireUniqueIDsOf(timeline.webcamKeyframes);
}

}  // namespace vumo
