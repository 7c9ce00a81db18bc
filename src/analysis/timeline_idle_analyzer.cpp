#include "analysis/timeline_idle_analyzer.h"

#include <algorithm>
#include <cmath>
#include <optional>

#include "analysis/peak_magnitude.h"
#include "timeline/timeline_frame_grid.h"

namespace vumo {

std::vector<ProjectTimeRange> TimelineIdleAnalyzer::merge(std::vector<ProjectTimeRange> ranges, ProjectTime gap) {
  std::erase_if(ranges, [](const ProjectTimeRange& range) { return range.duration.nanoseconds < 1; });
  std::stable_sort(ranges.begin(), ranges.end(),
                   [](const ProjectTimeRange& a, const ProjectTimeRange& b) { return a.start < b.start; });
  std::vector<ProjectTimeRange> merged;
  for (const ProjectTimeRange& range : ranges) {
    if (!merged.empty() && range.start - merged.back().end() <= gap) {
      ProjectTimeRange& last = merged.back();
      last.duration = std::max(range.end(), last.end()) - last.start;
    } else {
      merged.push_back(range);
    }
  }
  return merged;
}

std::vector<ProjectTimeRange> TimelineIdleAnalyzer::complement(const std::vector<ProjectTimeRange>& ranges,
                                                               ProjectTime duration) {
  std::vector<ProjectTimeRange> gaps;
  ProjectTime cursor = ProjectTime::zero();
  for (const ProjectTimeRange& range : ranges) {
    if (cursor < range.start) gaps.push_back(ProjectTimeRange::fromStartEnd(cursor, range.start));
    cursor = std::max(range.end(), cursor);
  }
  if (cursor < duration) gaps.push_back(ProjectTimeRange::fromStartEnd(cursor, duration));
  return gaps;
}

std::vector<ProjectTimeRange> TimelineIdleAnalyzer::filterMinimum(const std::vector<ProjectTimeRange>& ranges,
                                                                  ProjectTime minimum) {
  std::vector<ProjectTimeRange> kept;
  for (const ProjectTimeRange& range : ranges)
    if (range.duration >= minimum) kept.push_back(range);
  return kept;
}

std::vector<ProjectTimeRange> TimelineIdleAnalyzer::silentRanges(const WaveformEnvelope* envelope, ProjectTime duration,
                                                                 double thresholdDecibels) {
  std::vector<ProjectTimeRange> silences;
  auto emit = [&](ProjectTime start, ProjectTime end) {
    ProjectTime length = std::max(end - start, ProjectTime::zero());
    if (length.nanoseconds >= 1) silences.push_back({start, length});
  };
  if (!envelope) {
    emit(ProjectTime::zero(), duration);
    return silences;
  }
  // A threshold that is not a number has no bucket at or below it.
  const int firstLoud = std::isnan(thresholdDecibels) ? 0 : PeakMagnitude::firstAbove(thresholdDecibels);
  const ProjectTime bucket{WaveformEnvelope::bucketNanoseconds};
  ProjectTime clock = ProjectTime::zero();
  std::optional<ProjectTime> runStart;
  for (WaveformPeak peak : envelope->peaks) {
    const bool silent = PeakMagnitude::of(peak) < firstLoud;
    if (silent && !runStart) {
      runStart = clock;
    } else if (!silent && runStart) {
      emit(*runStart, std::min(duration, clock));
      runStart.reset();
    }
    clock = clock + bucket;
  }
  if (runStart) emit(*runStart, duration);
  return silences;
}

std::vector<ProjectTimeRange> TimelineIdleAnalyzer::intersections(const std::vector<ProjectTimeRange>& a,
                                                                  const std::vector<ProjectTimeRange>& b) {
  std::vector<ProjectTimeRange> overlaps;
  for (const ProjectTimeRange& first : a) {
    for (const ProjectTimeRange& second : b) {
      const ProjectTime low = std::max(first.start, second.start);
      const ProjectTime high = std::min(first.end(), second.end());
      if (low < high) overlaps.push_back(ProjectTimeRange::fromStartEnd(low, high));
    }
  }
  return overlaps;
}

std::vector<ProjectTimeRange> TimelineIdleAnalyzer::normalizedRanges(const std::vector<ProjectTimeRange>& ranges) {
  std::vector<ProjectTimeRange> aligned;
  for (const ProjectTimeRange& range : ranges) {
    const ProjectTime start = TimelineFrameGrid::ceilingBoundary(range.start);
    const ProjectTime end = TimelineFrameGrid::floorBoundary(range.end());
    if (end > start) aligned.push_back(ProjectTimeRange::fromStartEnd(start, end));
  }
  return merge(std::move(aligned), ProjectTime::zero());
}

std::vector<ProjectTimeRange> TimelineIdleAnalyzer::recommendedCuts(const TimelineIdleAnalysis& analysis,
                                                                    const std::vector<ProjectTimeRange>& retainedRanges,
                                                                    ProjectTime keepTail, ProjectTime minimumRemoval) {
  std::vector<ProjectTimeRange> candidates;
  for (const ProjectTimeRange& quiet : analysis.quietRanges) {
    // The end of a pause is left alone, so speech that follows it does not start abruptly.
    const ProjectTime usableEnd = std::max(quiet.end() - keepTail, quiet.start);
    for (const ProjectTimeRange& retained : retainedRanges) {
      const ProjectTime low = std::max(quiet.start, retained.start);
      const ProjectTime high = std::min(usableEnd, retained.end());
      if (low < high) candidates.push_back(ProjectTimeRange::fromStartEnd(low, high));
    }
  }
  return filterMinimum(normalizedRanges(candidates), minimumRemoval);
}

TimelineIdleAnalysis TimelineIdleAnalyzer::analyze(const WaveformEnvelope& envelope,
                                                   const std::vector<MouseEvent>& events, ProjectTime duration,
                                                   ProjectTime minimum, double silenceDecibels) {
  if (duration.nanoseconds < 1) return {};

  std::vector<ProjectTimeRange> windows;
  windows.reserve(events.size());
  for (const MouseEvent& event : events) {
    if (!event.isVisibleInsideSource()) continue;
    // A window wholly outside the recording is empty and would be dropped by the merge anyway;
    // skipping it first keeps a wild timestamp in an events file from overflowing the sums below.
    const std::int64_t time = event.time.nanoseconds;
    if (time <= -pointerReach.nanoseconds || time - pointerReach.nanoseconds >= duration.nanoseconds) continue;
    const ProjectTime start = std::max(ProjectTime::zero(), event.time - pointerReach);
    const ProjectTime end = std::min(event.time + pointerReach, duration);
    windows.push_back({start, std::max(end - start, ProjectTime::zero())});
  }

  TimelineIdleAnalysis analysis;
  analysis.idleRanges = filterMinimum(complement(merge(std::move(windows), pointerMergeGap), duration), minimum);
  // The minimum applies before the intersection too, so a short silence never makes a quiet span.
  analysis.silenceRanges = filterMinimum(silentRanges(&envelope, duration, silenceDecibels), minimum);
  analysis.quietRanges = filterMinimum(intersections(analysis.idleRanges, analysis.silenceRanges), minimum);
  return analysis;
}

}  // namespace vumo
