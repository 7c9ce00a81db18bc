#include "timeline/timeline_speed_engine.h"

#include <algorithm>

#include "timeline/timeline_engine_support.h"
#include "timeline/timeline_frame_grid.h"
#include "timeline/timeline_mapper.h"

namespace vumo {

namespace {

using Case = TimelineSpeedError::Case;
using Grid = TimelineFrameGrid;

constexpr ErrorCase<Case> errorCases[] = {
    {Case::invalidRate, "invalidRate", TimelinePlaybackRate::invalidKey, TimelinePlaybackRate::invalidText,
     "validation", ErrorKind::validation},
    {Case::invalidRange, "invalidRange", "timeline.error.speedRange",
     "The speed-change range is invalid or shorter than one source video frame.", "validation", ErrorKind::validation},
    {Case::rangeOutsideRetainedContent, "rangeOutsideRetainedContent", "timeline.error.speedOutside",
     "The entire speed-change range must fit within the currently retained content.", "validation",
     ErrorKind::validation},
    {Case::conflictingRanges, "conflictingRanges", "timeline.error.speedConflict",
     "Overlapping speed-change ranges cannot use different playback speeds.", "validation", ErrorKind::validation},
    {Case::noChange, "noChange", "timeline.error.speedUnchanged",
     "The selected content already uses this playback speed.", "validation", ErrorKind::validation},
};
static_assert(inCaseOrder(errorCases));

// The range with both edges on the grid; an end that does not fit in 64 bits is invalidRange.
std::pair<ProjectTime, ProjectTime> snappedEdges(const ProjectTimeRange& range) {
  std::int64_t end;
  if (!tryAdd(range.start.nanoseconds, range.duration.nanoseconds, end) || !engine_support::isSnappable(range.start) ||
      !engine_support::isSnappable({end}))
    throw TimelineSpeedError(Case::invalidRange);
  return {Grid::nearestBoundary(range.start), Grid::nearestBoundary({end})};
}

bool lastsAFrame(ProjectTime start, ProjectTime end) { return end > start && end - start >= Grid::minimumDuration; }

}  // namespace

TimelineSpeedError::TimelineSpeedError(Case kind) : Error(catalogue(), kind), kind_(kind) {}

const ErrorCatalogue<Case>& TimelineSpeedError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"TimelineSpeedError", "Editor", errorCases};
  return catalogue;
}

std::vector<TimelineSpeedChange> TimelineSpeedEngine::normalized(const std::vector<TimelineSpeedChange>& changes) {
  std::vector<TimelineSpeedChange> snapped;
  snapped.reserve(changes.size());
  for (const TimelineSpeedChange& change : changes) {
    if (!change.rate.isValid()) throw TimelineSpeedError(Case::invalidRate);
    auto [start, end] = snappedEdges(change.range);
    if (!lastsAFrame(start, end)) throw TimelineSpeedError(Case::invalidRange);
    snapped.push_back({ProjectTimeRange::fromStartEnd(start, end), change.rate});
  }
  std::stable_sort(snapped.begin(), snapped.end(), [](const TimelineSpeedChange& a, const TimelineSpeedChange& b) {
    return a.range.start < b.range.start;
  });

  std::vector<TimelineSpeedChange> merged;
  for (const TimelineSpeedChange& change : snapped) {
    if (!merged.empty()) {
      TimelineSpeedChange& last = merged.back();
      ProjectTime lastEnd = last.range.end();
      if (change.range.start < lastEnd && change.rate != last.rate) throw TimelineSpeedError(Case::conflictingRanges);
      // Touching changes of one rate become one; touching changes of two rates stay apart.
      if (change.rate == last.rate && change.range.start <= lastEnd) {
        last.range = ProjectTimeRange::fromStartEnd(last.range.start, std::max(lastEnd, change.range.end()));
        continue;
      }
    }
    merged.push_back(change);
  }
  return merged;
}

EditTimeline TimelineSpeedEngine::settingRate(TimelinePlaybackRate rate, const ProjectTimeRange& range,
                                              const EditTimeline& timeline, ProjectTime sourceDuration) {
  if (!rate.isValid()) throw TimelineSpeedError(Case::invalidRate);
  const auto edges = snappedEdges(range);
  const ProjectTime lower = edges.first;
  const ProjectTime upper = edges.second;
  if (!lastsAFrame(lower, upper) || lower < ProjectTime::zero() || upper > sourceDuration)
    throw TimelineSpeedError(Case::invalidRange);

  // A speed range may not reach across a removed gap: what would it mean for the missing part?
  TimelineMapper mapper(timeline, sourceDuration);
  if (!mapper.retainsEntireSourceRange(ProjectTimeRange::fromStartEnd(lower, upper)))
    throw TimelineSpeedError(Case::rangeOutsideRetainedContent);

  auto overlaps = [&](const TimelineSegment& segment) {
    return std::max(lower, segment.sourceRange.start) < std::min(upper, segment.sourceRange.end());
  };
  bool changesSomething = std::any_of(timeline.segments.begin(), timeline.segments.end(),
                                      [&](const TimelineSegment& s) { return overlaps(s) && s.playbackRate != rate; });
  if (!changesSomething) throw TimelineSpeedError(Case::noChange);

  std::vector<TimelineSegment> segments;
  segments.reserve(timeline.segments.size() + 2);
  for (const TimelineSegment& segment : timeline.segments) {
    if (!overlaps(segment)) {
      segments.push_back(segment);
      continue;
    }
    ProjectTime segmentStart = segment.sourceRange.start;
    ProjectTime segmentEnd = segment.sourceRange.end();
    ProjectTime a = std::max(lower, segmentStart);
    ProjectTime b = std::min(upper, segmentEnd);
    // A remainder under a frame could not stand as a clip of its own, so it takes the new rate.
    if (a > segmentStart && a - segmentStart < Grid::minimumDuration) a = segmentStart;
    if (segmentEnd > b && segmentEnd - b < Grid::minimumDuration) b = segmentEnd;

    bool first = true;
    auto emit = [&](ProjectTime from, ProjectTime to, TimelinePlaybackRate pieceRate) {
      if (to <= from) return;
      segments.push_back({first ? segment.id : Uuid::random(), ProjectTimeRange::fromStartEnd(from, to), pieceRate});
      first = false;
    };
    emit(segmentStart, a, segment.playbackRate);
    emit(a, b, rate);
    emit(b, segmentEnd, segment.playbackRate);
  }

  EditTimeline result = timeline;
  result.segments = std::move(segments);
  return engine_support::validated(std::move(result), sourceDuration);
}

TimelineSpeedApplication TimelineSpeedEngine::applying(const std::vector<TimelineSpeedChange>& changes,
                                                       const EditTimeline& timeline, ProjectTime sourceDuration) {
  TimelineSpeedApplication application{timeline, normalized(changes)};
  for (const TimelineSpeedChange& change : application.normalizedChanges)
    application.timeline = settingRate(change.rate, change.range, application.timeline, sourceDuration);
  return application;
}

}  // namespace vumo
