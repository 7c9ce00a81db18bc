#include "timeline/timeline_edit_engine.h"

#include <algorithm>

#include "timeline/annotation_track_assignment.h"
#include "timeline/timeline_engine_support.h"
#include "timeline/timeline_frame_grid.h"
#include "timeline/timeline_mapper.h"

namespace vumo {

namespace {

using Case = TimelineEditError::Case;
using Grid = TimelineFrameGrid;

constexpr ErrorCase<Case> errorCases[] = {
    {Case::noSegmentAtPlayhead, "noSegmentAtPlayhead", "timeline.error.noSegment",
     "The playhead is not within a clip that can be split.", "validation", ErrorKind::validation},
    {Case::splitAtBoundary, "splitAtBoundary", "timeline.error.splitBoundary",
     "The playhead is already at a clip boundary.", "validation", ErrorKind::validation},
    {Case::segmentNotFound, "segmentNotFound", "timeline.error.segmentMissing", "The clip to edit could not be found.",
     "validation", ErrorKind::validation},
    {Case::trimOutsideHandles, "trimOutsideHandles", "timeline.error.trimRange",
     "The trim position is outside the clip\u2019s available range.", "validation", ErrorKind::validation},
    {Case::cannotDeleteLastSegment, "cannotDeleteLastSegment", "timeline.error.lastSegment",
     "Keep at least one clip on the timeline.", "validation", ErrorKind::validation},
    {Case::invalidRange, "invalidRange", "timeline.error.editRange",
     "The edit range is invalid or outside the timeline.", "validation", ErrorKind::validation},
};
static_assert(inCaseOrder(errorCases));

std::vector<TimelineSegment>::iterator findSegment(std::vector<TimelineSegment>& segments, const Uuid& id) {
  return std::find_if(segments.begin(), segments.end(), [&](const TimelineSegment& s) { return s.id == id; });
}

// The last step of every edit that can remove content.
EditTimeline finishedWithoutOrphans(EditTimeline timeline, ProjectTime sourceDuration) {
  TimelineMapper mapper(timeline, sourceDuration);
  timeline.annotations = TimelineEditEngine::removingOrphanedAnnotations(timeline.annotations, mapper);
  return engine_support::validated(std::move(timeline), sourceDuration);
}

}  // namespace

TimelineEditError::TimelineEditError(Case kind) : Error(catalogue(), kind), kind_(kind) {}

const ErrorCatalogue<Case>& TimelineEditError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"TimelineEditError", "Editor", errorCases};
  return catalogue;
}

EditTimeline TimelineEditEngine::split(const EditTimeline& timeline, ProjectTime sequenceTime,
                                       ProjectTime sourceDuration) {
  TimelineMapper mapper(timeline, sourceDuration);
  if (!engine_support::isSnappable(sequenceTime)) throw TimelineEditError(Case::noSegmentAtPlayhead);
  auto mapped = mapper.mappedTimeForSequenceTime(Grid::nearestBoundary(sequenceTime));
  if (!mapped) throw TimelineEditError(Case::noSegmentAtPlayhead);

  EditTimeline result = timeline;
  auto segment = findSegment(result.segments, mapped->segmentID);
  if (segment == result.segments.end()) throw TimelineEditError(Case::noSegmentAtPlayhead);

  // Snapped again in source time: a sped-up clip maps a grid sequence time off the source grid.
  ProjectTime point = Grid::nearestBoundary(mapped->sourceTime);
  ProjectTime start = segment->sourceRange.start;
  ProjectTime end = segment->sourceRange.end();
  if (point - start < Grid::minimumDuration || end - point < Grid::minimumDuration)
    throw TimelineEditError(Case::splitAtBoundary);

  TimelineSegment right{Uuid::random(), ProjectTimeRange::fromStartEnd(point, end), segment->playbackRate};
  segment->sourceRange = ProjectTimeRange::fromStartEnd(start, point);
  result.segments.insert(segment + 1, right);
  return engine_support::validated(std::move(result), sourceDuration);
}

EditTimeline TimelineEditEngine::trimStart(const EditTimeline& timeline, const Uuid& segmentID, ProjectTime sourceTime,
                                           ProjectTime sourceDuration) {
  EditTimeline result = timeline;
  auto segment = findSegment(result.segments, segmentID);
  if (segment == result.segments.end()) throw TimelineEditError(Case::segmentNotFound);
  ProjectTime end = segment->sourceRange.end();
  ProjectTime lowest = segment == result.segments.begin() ? ProjectTime::zero() : (segment - 1)->sourceRange.end();
  ProjectTime highest = end - Grid::minimumDuration;
  if (!engine_support::isSnappable(sourceTime)) throw TimelineEditError(Case::trimOutsideHandles);
  ProjectTime start = Grid::nearestBoundary(sourceTime);
  if (start < lowest || start > highest) throw TimelineEditError(Case::trimOutsideHandles);
  segment->sourceRange = ProjectTimeRange::fromStartEnd(start, end);
  return finishedWithoutOrphans(std::move(result), sourceDuration);
}

EditTimeline TimelineEditEngine::trimEnd(const EditTimeline& timeline, const Uuid& segmentID, ProjectTime sourceTime,
                                         ProjectTime sourceDuration) {
  EditTimeline result = timeline;
  auto segment = findSegment(result.segments, segmentID);
  if (segment == result.segments.end()) throw TimelineEditError(Case::segmentNotFound);
  ProjectTime start = segment->sourceRange.start;
  ProjectTime lowest = start + Grid::minimumDuration;
  ProjectTime highest = segment + 1 == result.segments.end() ? sourceDuration : (segment + 1)->sourceRange.start;
  if (!engine_support::isSnappable(sourceTime)) throw TimelineEditError(Case::trimOutsideHandles);
  ProjectTime end = Grid::nearestBoundary(sourceTime);
  if (end < lowest || end > highest) throw TimelineEditError(Case::trimOutsideHandles);
  segment->sourceRange = ProjectTimeRange::fromStartEnd(start, end);
  return finishedWithoutOrphans(std::move(result), sourceDuration);
}

EditTimeline TimelineEditEngine::rippleDelete(const EditTimeline& timeline, const Uuid& segmentID,
                                              ProjectTime sourceDuration) {
  if (timeline.segments.size() < 2) throw TimelineEditError(Case::cannotDeleteLastSegment);
  EditTimeline result = timeline;
  auto segment = findSegment(result.segments, segmentID);
  if (segment == result.segments.end()) throw TimelineEditError(Case::segmentNotFound);
  result.segments.erase(segment);
  return finishedWithoutOrphans(std::move(result), sourceDuration);
}

EditTimeline TimelineEditEngine::removeSourceRanges(const EditTimeline& timeline,
                                                    const std::vector<ProjectTimeRange>& ranges,
                                                    ProjectTime sourceDuration) {
  struct Cut {
    ProjectTime start;
    ProjectTime end;
  };
  std::vector<Cut> cuts;
  for (const ProjectTimeRange& range : ranges) {
    std::int64_t rawEnd;
    if (!tryAdd(range.start.nanoseconds, range.duration.nanoseconds, rawEnd) ||
        !engine_support::isSnappable(range.start) || !engine_support::isSnappable({rawEnd}))
      throw TimelineEditError(Case::invalidRange);
    // Each edge is snapped on its own, so a range between two grid lines vanishes.
    ProjectTime start = Grid::nearestBoundary(range.start);
    ProjectTime end = Grid::nearestBoundary({rawEnd});
    if (end <= start) continue;
    cuts.push_back({start, end});
  }
  if (cuts.empty()) throw TimelineEditError(Case::invalidRange);
  for (const Cut& cut : cuts)
    if (cut.start < ProjectTime::zero() || cut.end > sourceDuration) throw TimelineEditError(Case::invalidRange);

  std::vector<TimelineSegment> segments = timeline.segments;
  for (const Cut& cut : cuts) {
    std::vector<TimelineSegment> pieces;
    pieces.reserve(segments.size() + 1);
    for (const TimelineSegment& segment : segments) {
      ProjectTime segmentStart = segment.sourceRange.start;
      ProjectTime segmentEnd = segment.sourceRange.end();
      if (std::max(cut.start, segmentStart) >= std::min(cut.end, segmentEnd)) {
        pieces.push_back(segment);
        continue;
      }
      // Pieces under a frame are dropped with the cut rather than left as unplayable slivers.
      bool keptLeft = false;
      if (cut.start - segmentStart >= Grid::minimumDuration) {
        pieces.push_back({segment.id, ProjectTimeRange::fromStartEnd(segmentStart, cut.start), segment.playbackRate});
        keptLeft = true;
      }
      ProjectTime rightStart = std::max(cut.end, segmentStart);
      if (segmentEnd - rightStart >= Grid::minimumDuration) {
        pieces.push_back({keptLeft ? Uuid::random() : segment.id,
                          ProjectTimeRange::fromStartEnd(rightStart, segmentEnd), segment.playbackRate});
      }
    }
    segments = std::move(pieces);
  }
  if (segments.empty()) throw TimelineEditError(Case::cannotDeleteLastSegment);
  if (segments == timeline.segments) throw TimelineEditError(Case::invalidRange);

  EditTimeline result = timeline;
  result.segments = std::move(segments);
  return finishedWithoutOrphans(std::move(result), sourceDuration);
}

std::vector<AnnotationElement> TimelineEditEngine::removingOrphanedAnnotations(
    const std::vector<AnnotationElement>& annotations, const TimelineMapper& mapper) {
  std::vector<AnnotationElement> survivors;
  survivors.reserve(annotations.size());
  for (const AnnotationElement& annotation : annotations) {
    std::int64_t length;
    // A malformed span is left for validation to report rather than silently dropped.
    bool measurable = annotation.endTime > annotation.startTime &&
                      trySub(annotation.endTime.nanoseconds, annotation.startTime.nanoseconds, length);
    if (measurable && mapper.projectedRanges({annotation.startTime, {length}}).empty()) continue;
    survivors.push_back(annotation);
  }
  return AnnotationTrackAssignment::reflow(survivors);
}

}  // namespace vumo
