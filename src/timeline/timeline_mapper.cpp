#include "timeline/timeline_mapper.h"

#include <algorithm>
#include <limits>

#include "shared/checked_math.h"
#include "timeline/timeline_validation_error.h"
#include "timeline/timeline_validator.h"

namespace vumo {

namespace {

// r.end() aborts on overflow; range queries come from callers that may pass anything, so the end
// saturates instead.
std::int64_t saturatedEnd(const ProjectTimeRange& range) {
  std::int64_t end;
  if (tryAdd(range.start.nanoseconds, range.duration.nanoseconds, end)) return end;
  return range.duration.nanoseconds > 0 ? std::numeric_limits<std::int64_t>::max()
                                        : std::numeric_limits<std::int64_t>::min();
}

}  // namespace

TimelineMapper::TimelineMapper(const EditTimeline& timeline, ProjectTime sourceDuration)
    : sourceDuration_(sourceDuration) {
  TimelineValidator::validate(timeline, sourceDuration);
  projections_.reserve(timeline.segments.size());
  sequenceStarts_.reserve(timeline.segments.size());
  sourceStarts_.reserve(timeline.segments.size());
  std::int64_t cursor = 0;
  for (const TimelineSegment& segment : timeline.segments) {
    auto length = TimelineRateMath::sequenceNanoseconds(segment.sourceRange.duration.nanoseconds, segment.playbackRate,
                                                        TimelineRateRounding::nearest);
    std::int64_t next;
    if (!length || !tryAdd(cursor, *length, next))
      throw TimelineValidationError::withID(TimelineValidationError::Case::sequenceDurationOverflow, segment.id);
    projections_.push_back({segment, {ProjectTime{cursor}, ProjectTime{*length}}});
    sequenceStarts_.push_back(cursor);
    sourceStarts_.push_back(segment.sourceRange.start.nanoseconds);
    cursor = next;
  }
  sequenceDuration_ = ProjectTime{cursor};
}

std::optional<TimelineMappedTime> TimelineMapper::mappedTimeForSequenceTime(ProjectTime sequenceTime) const {
  const std::int64_t t = sequenceTime.nanoseconds;
  if (t < 0 || t >= sequenceDuration_.nanoseconds) return std::nullopt;
  auto it = std::upper_bound(sequenceStarts_.begin(), sequenceStarts_.end(), t);
  if (it == sequenceStarts_.begin()) return std::nullopt;
  const TimelineSegmentProjection& p = projections_[static_cast<std::size_t>(it - sequenceStarts_.begin()) - 1];
  const std::int64_t delta = t - p.sequenceRange.start.nanoseconds;
  if (delta >= p.sequenceRange.duration.nanoseconds) return std::nullopt;
  auto source = TimelineRateMath::sourceNanoseconds(delta, p.segment.playbackRate, TimelineRateRounding::nearest);
  if (!source) return std::nullopt;
  const std::int64_t clamped = std::clamp<std::int64_t>(*source, 0, p.segment.sourceRange.duration.nanoseconds - 1);
  return TimelineMappedTime{p.segment.id, ProjectTime{p.segment.sourceRange.start.nanoseconds + clamped}, sequenceTime};
}

std::optional<TimelineMappedTime> TimelineMapper::mappedTimeForSourceTime(ProjectTime sourceTime) const {
  const std::int64_t s = sourceTime.nanoseconds;
  if (s < 0 || s >= sourceDuration_.nanoseconds) return std::nullopt;
  auto it = std::upper_bound(sourceStarts_.begin(), sourceStarts_.end(), s);
  if (it == sourceStarts_.begin()) return std::nullopt;
  const TimelineSegmentProjection& p = projections_[static_cast<std::size_t>(it - sourceStarts_.begin()) - 1];
  const std::int64_t delta = s - p.segment.sourceRange.start.nanoseconds;
  if (delta >= p.segment.sourceRange.duration.nanoseconds) return std::nullopt;  // in a removed gap
  auto sequence = TimelineRateMath::sequenceNanoseconds(delta, p.segment.playbackRate, TimelineRateRounding::nearest);
  if (!sequence) return std::nullopt;
  const std::int64_t clamped = std::clamp<std::int64_t>(*sequence, 0, p.sequenceRange.duration.nanoseconds - 1);
  return TimelineMappedTime{p.segment.id, sourceTime, ProjectTime{p.sequenceRange.start.nanoseconds + clamped}};
}

std::optional<TimelineSegmentProjection> TimelineMapper::projection(const Uuid& segmentID) const {
  for (const auto& p : projections_)
    if (p.segment.id == segmentID) return p;
  return std::nullopt;
}

std::optional<ProjectTime> TimelineMapper::sourceTimeForSequenceBoundary(ProjectTime sequenceTime) const {
  if (sequenceTime == sequenceDuration_) {
    if (projections_.empty()) return std::nullopt;
    return projections_.back().segment.sourceRange.end();
  }
  auto mapped = mappedTimeForSequenceTime(sequenceTime);
  if (!mapped) return std::nullopt;
  return mapped->sourceTime;
}

ProjectTime TimelineMapper::nearestSequenceBoundary(ProjectTime deletedSourceTime) const {
  if (auto mapped = mappedTimeForSourceTime(deletedSourceTime)) return mapped->sequenceTime;
  auto it = std::upper_bound(sourceStarts_.begin(), sourceStarts_.end(), deletedSourceTime.nanoseconds);
  if (it == sourceStarts_.end()) return sequenceDuration_;
  return projections_[static_cast<std::size_t>(it - sourceStarts_.begin())].sequenceRange.start;
}

std::optional<ProjectTime> TimelineMapper::sourceTimeByApplyingSequenceDelta(ProjectTime sequenceDelta,
                                                                             ProjectTime sourceTime,
                                                                             const Uuid& segmentID) const {
  const std::int64_t d = sequenceDelta.nanoseconds;
  if (d == std::numeric_limits<std::int64_t>::min()) return std::nullopt;
  const TimelineSegmentProjection* found = nullptr;
  for (const auto& p : projections_)
    if (p.segment.id == segmentID) {
      found = &p;
      break;
    }
  if (found == nullptr) return std::nullopt;
  auto magnitude =
      TimelineRateMath::sourceNanoseconds(d < 0 ? -d : d, found->segment.playbackRate, TimelineRateRounding::nearest);
  if (!magnitude) return std::nullopt;
  std::int64_t result;
  if (!tryAdd(sourceTime.nanoseconds, d < 0 ? -*magnitude : *magnitude, result)) return std::nullopt;
  return ProjectTime{result};
}

std::vector<ProjectTimeRange> TimelineMapper::projectedRanges(const ProjectTimeRange& sourceRange) const {
  std::vector<ProjectTimeRange> ranges;
  const std::int64_t rangeEnd = saturatedEnd(sourceRange);
  for (const auto& p : projections_) {
    const std::int64_t segmentStart = p.segment.sourceRange.start.nanoseconds;
    const std::int64_t segmentEnd = segmentStart + p.segment.sourceRange.duration.nanoseconds;
    const std::int64_t lower = std::max(sourceRange.start.nanoseconds, segmentStart);
    const std::int64_t upper = std::min(rangeEnd, segmentEnd);
    if (lower >= upper) continue;
    // Outward rounding: a sliver of retained source always shows up in the sequence.
    auto lowerSequence =
        TimelineRateMath::sequenceNanoseconds(lower - segmentStart, p.segment.playbackRate, TimelineRateRounding::down);
    auto upperSequence =
        TimelineRateMath::sequenceNanoseconds(upper - segmentStart, p.segment.playbackRate, TimelineRateRounding::up);
    if (!lowerSequence || !upperSequence) continue;
    const std::int64_t length = p.sequenceRange.duration.nanoseconds;
    const std::int64_t a = std::min(length, *lowerSequence);
    const std::int64_t b = std::min(length, std::max(*upperSequence, a));
    if (*lowerSequence < b) ranges.push_back({ProjectTime{p.sequenceRange.start.nanoseconds + a}, ProjectTime{b - a}});
  }
  return ranges;
}

std::vector<ProjectTimeRange> TimelineMapper::sourceRanges(const ProjectTimeRange& sequenceRange) const {
  std::vector<ProjectTimeRange> ranges;
  const std::int64_t rangeEnd = saturatedEnd(sequenceRange);
  for (const auto& p : projections_) {
    const std::int64_t sequenceStart = p.sequenceRange.start.nanoseconds;
    const std::int64_t sequenceEnd = sequenceStart + p.sequenceRange.duration.nanoseconds;
    const std::int64_t lower = std::max(sequenceRange.start.nanoseconds, sequenceStart);
    const std::int64_t upper = std::min(rangeEnd, sequenceEnd);
    if (lower >= upper) continue;
    auto lowerSource =
        TimelineRateMath::sourceNanoseconds(lower - sequenceStart, p.segment.playbackRate, TimelineRateRounding::down);
    auto upperSource =
        TimelineRateMath::sourceNanoseconds(upper - sequenceStart, p.segment.playbackRate, TimelineRateRounding::up);
    if (!lowerSource || !upperSource) continue;
    const std::int64_t length = p.segment.sourceRange.duration.nanoseconds;
    const std::int64_t a = std::min(length, *lowerSource);
    const std::int64_t b = std::min(length, std::max(*upperSource, a));
    if (*lowerSource < b)
      ranges.push_back({ProjectTime{p.segment.sourceRange.start.nanoseconds + a}, ProjectTime{b - a}});
  }
  return ranges;
}

bool TimelineMapper::retainsEntireSourceRange(const ProjectTimeRange& sourceRange) const {
  if (projections_.empty()) return sourceRange.duration.nanoseconds == 0;
  const std::int64_t rangeEnd = saturatedEnd(sourceRange);
  std::int64_t covered = 0;
  for (const auto& p : projections_) {
    const std::int64_t segmentStart = p.segment.sourceRange.start.nanoseconds;
    const std::int64_t lower = std::max(sourceRange.start.nanoseconds, segmentStart);
    const std::int64_t upper = std::min(rangeEnd, segmentStart + p.segment.sourceRange.duration.nanoseconds);
    // Clips never overlap, so the sum of overlaps stays within the range's own length.
    if (lower < upper) covered += upper - lower;
  }
  return covered == sourceRange.duration.nanoseconds;
}

}  // namespace vumo
