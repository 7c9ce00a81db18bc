#pragma once

// The one conversion between source time (the recording's clock) and sequence time (the edited
// film). All rate arithmetic is integer, so the same input maps to the same nanosecond on every
// run and no floating point enters an edit.

#include <cstdint>
#include <optional>
#include <vector>

#include "shared/project_time.h"
#include "shared/uuid.h"
#include "timeline/edit_timeline.h"
#include "timeline/timeline_rate_math.h"

namespace vumo {

struct TimelineSegmentProjection {
  TimelineSegment segment;
  ProjectTimeRange sequenceRange;

  friend bool operator==(const TimelineSegmentProjection&, const TimelineSegmentProjection&) = default;
};

struct TimelineMappedTime {
  Uuid segmentID;
  ProjectTime sourceTime;
  ProjectTime sequenceTime;

  friend bool operator==(const TimelineMappedTime&, const TimelineMappedTime&) = default;
};

// An immutable projection table of a validated timeline; safe to read from any thread.
class TimelineMapper {
 public:
  // Validates the timeline (throwing what TimelineValidator::validate throws) and lays its clips
  // end to end. Each clip's sequence length is rounded on its own, so the sequence length of a
  // timeline is the sum of rounded clips.
  TimelineMapper(const EditTimeline& timeline, ProjectTime sourceDuration);

  ProjectTime sourceDuration() const { return sourceDuration_; }
  ProjectTime sequenceDuration() const { return sequenceDuration_; }
  const std::vector<TimelineSegmentProjection>& projections() const { return projections_; }

  // The clip playing at sequence time `t`, and the source frame it shows. None outside
  // 0 <= t < sequenceDuration. A mapped time never lands on the exclusive end of its clip.
  // Runs once per rendered frame: a binary search, no allocation.
  std::optional<TimelineMappedTime> mappedTimeForSequenceTime(ProjectTime sequenceTime) const;
  // Where source time `s` plays; none outside the source or inside a removed gap.
  std::optional<TimelineMappedTime> mappedTimeForSourceTime(ProjectTime sourceTime) const;

  // Linear scan by id.
  std::optional<TimelineSegmentProjection> projection(const Uuid& segmentID) const;

  // Like mappedTimeForSequenceTime, except that the end of the sequence maps to the exclusive
  // source end of the last clip.
  std::optional<ProjectTime> sourceTimeForSequenceBoundary(ProjectTime sequenceTime) const;

  // The sequence time of `sourceTime`, or, for a time inside a cut, the start of the clip that
  // follows the cut (the sequence end if none follows).
  ProjectTime nearestSequenceBoundary(ProjectTime deletedSourceTime) const;

  // `sourceTime` moved by a sequence delta at the rate of `segmentID`. Not clamped: the caller
  // clamps. None for an unknown clip, the lowest 64-bit delta, or overflow.
  std::optional<ProjectTime> sourceTimeByApplyingSequenceDelta(ProjectTime sequenceDelta, ProjectTime sourceTime,
                                                               const Uuid& segmentID) const;

  // The sequence ranges that show any part of a source range, one per touched clip, in timeline
  // order; touching neighbours are not merged. Empty when the range lies wholly in cuts.
  std::vector<ProjectTimeRange> projectedRanges(const ProjectTimeRange& sourceRange) const;
  // The mirror: the source ranges played during a sequence range.
  std::vector<ProjectTimeRange> sourceRanges(const ProjectTimeRange& sequenceRange) const;

  // Whether every nanosecond of `sourceRange` is retained by some clip.
  bool retainsEntireSourceRange(const ProjectTimeRange& sourceRange) const;

 private:
  ProjectTime sourceDuration_;
  ProjectTime sequenceDuration_;
  std::vector<TimelineSegmentProjection> projections_;
  // Starts kept apart from the projections so that the per-frame searches walk dense arrays.
  std::vector<std::int64_t> sequenceStarts_;
  std::vector<std::int64_t> sourceStarts_;
};

}  // namespace vumo
