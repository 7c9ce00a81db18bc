#include "agent/timeline_plan_engine.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <unordered_set>

#include "shared/checked_math.h"
#include "shared/digest.h"
#include "shared/json.h"
#include "shared/name_table.h"
#include "timeline/timeline_edit_engine.h"
#include "timeline/timeline_effect_engine.h"
#include "timeline/timeline_frame_grid.h"
#include "timeline/timeline_mapper.h"
#include "timeline/timeline_settings_engine.h"
#include "timeline/timeline_validator.h"

namespace vumo {

namespace {

using Grid = TimelineFrameGrid;
using Case = TimelinePlanError::Case;

constexpr ErrorCase<Case> errorCases[] = {
    {Case::zoomOutsideRetainedContent, "zoomOutsideRetainedContent", "timeline.error.zoomOutside",
     "The entire zoom range must fit within content retained after cutting.", "validation", ErrorKind::validation},
    {Case::empty, "empty", "timeline.error.planEmpty", "An edit plan must contain at least one operation.",
     "validation", ErrorKind::validation},
    {Case::tooManyOperations, "tooManyOperations", "timeline.error.planLimit", "The edit plan exceeds 500 operations.",
     "validation", ErrorKind::validation},
    {Case::cutOutsideRetainedContent, "cutOutsideRetainedContent", "timeline.error.cutOutside",
     "The cut range does not cover any currently retained content.", "validation", ErrorKind::validation},
};
static_assert(inCaseOrder(errorCases));

ProjectTimeRange zoomRange(const ZoomSegment& zoom) {
  return ProjectTimeRange::fromStartEnd(zoom.startTime, zoom.endTime);
}

bool isRetainedEntirely(const ProjectTimeRange& range, const EditTimeline& timeline) {
  auto pieces = TimelinePlanEngine::retainedPieces(range, timeline);
  return pieces.size() == 1 && pieces.front() == range;
}

// A zoom over `start`...`end` with the standard ramps: in over at most 0.65 s, out over at most
// 0.5 s, whatever is left held. The focus is stored only in the clamped form the validator
// demands.
ZoomSegment makeZoom(ProjectTime rawStart, ProjectTime rawEnd, PointValue focus, double scale,
                     ProjectTime sourceDuration) {
  if (!std::isfinite(scale)) throw TimelineEffectError(TimelineEffectError::Case::zoomRangeInvalid);
  ProjectTime start = Grid::nearestBoundary(rawStart);
  ProjectTime end = Grid::nearestBoundary(rawEnd);
  if (start < ProjectTime::zero() || end > sourceDuration || end < start || end - start < Grid::minimumDuration)
    throw TimelineEffectError(TimelineEffectError::Case::zoomRangeInvalid);
  ProjectTime length = end - start;
  ProjectTime lead = std::min(length, TimelinePlanEngine::zoomRampInDuration);
  ProjectTime tail = std::min(std::max(length - lead, ProjectTime::zero()), TimelinePlanEngine::zoomRampOutDuration);
  double clampedScale =
      std::clamp(scale, TimelineEffectEngine::minimumZoomScale, TimelineEffectEngine::maximumZoomScale);
  ZoomSegment zoom;
  zoom.id = Uuid::random();
  zoom.startTime = start;
  zoom.focusTime = start + lead;
  zoom.holdEndTime = end - tail;
  zoom.endTime = end;
  zoom.scale = clampedScale;
  zoom.focusPoint = TimelineEffectEngine::constrainedFocus(focus, clampedScale);
  return zoom;
}

// Where the viewer's attention was: the last press of the primary button inside the range, as
// recorded inside the captured frame. No such click centres the zoom.
PointValue clickFocus(const std::vector<MouseEvent>& events, const ProjectTimeRange& range) {
  for (auto event = events.rbegin(); event != events.rend(); ++event) {
    if (!event->isLeftPress() || !event->isVisibleInsideSource() || !range.contains(event->time)) continue;
    if (!std::isfinite(event->normalizedPoint.x) || !std::isfinite(event->normalizedPoint.y)) continue;
    return event->normalizedPoint;
  }
  return {0.5, 0.5};
}

// The id `seed` names, stepped on deterministically in the (practically impossible) case that it
// is taken already, so that ids stay unique within the document.
Uuid uniqueStableUUID(const std::string& seed, std::unordered_set<Uuid>& used) {
  Uuid id = Uuid::stable(seed);
  for (int attempt = 1; used.count(id) != 0; ++attempt) id = Uuid::stable(fmt::format("{}#{}", seed, attempt));
  used.insert(id);
  return id;
}

void sortZooms(std::vector<ZoomSegment>& zooms) {
  std::stable_sort(zooms.begin(), zooms.end(),
                   [](const ZoomSegment& a, const ZoomSegment& b) { return a.startTime < b.startTime; });
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Plan values

std::size_t TimelineEditPlan::operationCount() const {
  return cuts.size() + speedChanges.size() + zooms.size() + (clearsZooms ? 1 : 0) + (reconcilesZooms ? 1 : 0) +
         (settings.empty() ? 0 : 1);
}

// ---------------------------------------------------------------------------------------------
// Errors

TimelinePlanError::TimelinePlanError(Case kind, ProjectTimeRange range, std::optional<Uuid> zoomID,
                                     std::vector<ProjectTimeRange> cuts)
    : Error(catalogue(), kind),
      kind_(kind),
      range_(range),
      zoomID_(std::move(zoomID)),
      normalizedCuts_(std::move(cuts)) {}

TimelinePlanError TimelinePlanError::zoomOutsideRetainedContent(ProjectTimeRange range, std::optional<Uuid> zoomID,
                                                                std::vector<ProjectTimeRange> normalizedCuts) {
  return {Case::zoomOutsideRetainedContent, range, std::move(zoomID), std::move(normalizedCuts)};
}

TimelinePlanError TimelinePlanError::empty() { return {Case::empty, {}, std::nullopt, {}}; }
TimelinePlanError TimelinePlanError::tooManyOperations() { return {Case::tooManyOperations, {}, std::nullopt, {}}; }
TimelinePlanError TimelinePlanError::cutOutsideRetainedContent() {
  return {Case::cutOutsideRetainedContent, {}, std::nullopt, {}};
}

const ErrorCatalogue<Case>& TimelinePlanError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"TimelinePlanError", "Editor", errorCases};
  return catalogue;
}

// ---------------------------------------------------------------------------------------------
// Ranges and pieces

std::vector<ProjectTimeRange> TimelinePlanEngine::mergedRanges(const std::vector<ProjectTimeRange>& ranges) {
  std::vector<ProjectTimeRange> snapped;
  snapped.reserve(ranges.size());
  for (const ProjectTimeRange& range : ranges) {
    std::int64_t rawEnd;
    if (!tryAdd(range.start.nanoseconds, range.duration.nanoseconds, rawEnd))
      throw TimelineEditError(TimelineEditError::Case::invalidRange);
    ProjectTime start = Grid::nearestBoundary(range.start);
    ProjectTime end = Grid::nearestBoundary({rawEnd});
    if (end <= start) continue;
    snapped.push_back(ProjectTimeRange::fromStartEnd(start, end));
  }
  std::stable_sort(snapped.begin(), snapped.end(),
                   [](const ProjectTimeRange& a, const ProjectTimeRange& b) { return a.start < b.start; });
  std::vector<ProjectTimeRange> merged;
  for (const ProjectTimeRange& range : snapped) {
    if (!merged.empty() && range.start <= merged.back().end()) {
      ProjectTimeRange& last = merged.back();
      last = ProjectTimeRange::fromStartEnd(last.start, std::max(last.end(), range.end()));
      continue;
    }
    merged.push_back(range);
  }
  return merged;
}

std::vector<ProjectTimeRange> TimelinePlanEngine::retainedPieces(const ProjectTimeRange& range,
                                                                 const EditTimeline& timeline) {
  std::vector<ProjectTimeRange> pieces;
  std::int64_t rawEnd;
  if (range.duration <= ProjectTime::zero() || !tryAdd(range.start.nanoseconds, range.duration.nanoseconds, rawEnd))
    return pieces;
  ProjectTime end{rawEnd};
  const auto& segments = timeline.segments;
  // Valid clips are sorted and disjoint, so their ends are sorted too.
  auto first = std::partition_point(segments.begin(), segments.end(),
                                    [&](const TimelineSegment& s) { return s.sourceRange.end() <= range.start; });
  for (auto segment = first; segment != segments.end() && segment->sourceRange.start < end; ++segment) {
    ProjectTime pieceStart = std::max(range.start, segment->sourceRange.start);
    ProjectTime pieceEnd = std::min(end, segment->sourceRange.end());
    if (pieceEnd <= pieceStart) continue;
    if (!pieces.empty() && pieces.back().end() == pieceStart) {
      pieces.back() = ProjectTimeRange::fromStartEnd(pieces.back().start, pieceEnd);
    } else {
      pieces.push_back(ProjectTimeRange::fromStartEnd(pieceStart, pieceEnd));
    }
  }
  return pieces;
}

// ---------------------------------------------------------------------------------------------
// Zoom reconciliation

ZoomReconciliationResult TimelinePlanEngine::reconcileZooms(const std::vector<ZoomSegment>& zooms,
                                                            const EditTimeline& timeline, ProjectTime sourceDuration) {
  std::vector<ZoomSegment> ordered = zooms;
  sortZooms(ordered);
  ZoomReconciliationResult result;
  for (const ZoomSegment& zoom : ordered) {
    ProjectTimeRange original = zoomRange(zoom);
    std::vector<ProjectTimeRange> pieces = retainedPieces(original, timeline);
    ZoomReconciliation reconciliation{zoom.id, original, ZoomReconciliationAction::preserved, {}};
    if (pieces.size() == 1 && pieces.front() == original) {
      reconciliation.resultingRanges = pieces;
      result.zooms.push_back(zoom);
      result.reconciliations.push_back(std::move(reconciliation));
      continue;
    }
    for (const ProjectTimeRange& piece : pieces) {
      if (piece.duration < minimumReconciledZoomDuration) continue;
      result.zooms.push_back(makeZoom(piece.start, piece.end(), zoom.focusPoint, zoom.scale, sourceDuration));
      reconciliation.resultingRanges.push_back(piece);
    }
    switch (reconciliation.resultingRanges.size()) {
      case 0: reconciliation.action = ZoomReconciliationAction::removed; break;
      case 1: reconciliation.action = ZoomReconciliationAction::trimmed; break;
      default: reconciliation.action = ZoomReconciliationAction::split; break;
    }
    result.reconciliations.push_back(std::move(reconciliation));
  }
  sortZooms(result.zooms);
  return result;
}

// ---------------------------------------------------------------------------------------------
// Canonical ids

EditTimeline TimelinePlanEngine::canonicalSegmentIDs(const EditTimeline& result, const EditTimeline& input) {
  std::unordered_set<Uuid> inputIDs;
  for (const TimelineSegment& segment : input.segments) inputIDs.insert(segment.id);
  std::unordered_set<Uuid> used;
  for (const TimelineSegment& segment : result.segments)
    if (inputIDs.count(segment.id) != 0) used.insert(segment.id);

  EditTimeline canonical = result;
  for (TimelineSegment& segment : canonical.segments) {
    if (inputIDs.count(segment.id) != 0) continue;
    segment.id = uniqueStableUUID(fmt::format("segment:{}:{}:{}", segment.sourceRange.start.nanoseconds,
                                              segment.sourceRange.duration.nanoseconds, segment.playbackRate.permille),
                                  used);
  }
  return canonical;
}

EditTimeline TimelinePlanEngine::canonicalZoomIDs(const EditTimeline& result, const EditTimeline& input,
                                                  std::string_view idNamespace) {
  std::unordered_set<Uuid> inputIDs;
  for (const ZoomSegment& zoom : input.zooms) inputIDs.insert(zoom.id);
  std::unordered_set<Uuid> used;
  for (const ZoomSegment& zoom : result.zooms)
    if (inputIDs.count(zoom.id) != 0) used.insert(zoom.id);

  EditTimeline canonical = result;
  for (ZoomSegment& zoom : canonical.zooms) {
    if (inputIDs.count(zoom.id) != 0) continue;
    // Doubles print in their shortest exact form, so equal zooms give equal seeds.
    zoom.id = uniqueStableUUID(fmt::format("zoom:{}:{}:{}:{}:{}:{}:{}:{}", idNamespace, zoom.startTime.nanoseconds,
                                           zoom.focusTime.nanoseconds, zoom.holdEndTime.nanoseconds,
                                           zoom.endTime.nanoseconds, zoom.focusPoint.x, zoom.focusPoint.y, zoom.scale),
                               used);
  }
  return canonical;
}

// ---------------------------------------------------------------------------------------------
// The transaction

TimelinePlanResult TimelinePlanEngine::apply(const TimelineEditPlan& plan, const EditTimeline& timeline,
                                             ProjectTime sourceDuration, bool hasWebcam, PixelSize sourceSize,
                                             const std::vector<MouseEvent>& clickEvents) {
  std::size_t operations = plan.operationCount();
  if (operations < 1) throw TimelinePlanError::empty();
  if (operations > maximumOperations) throw TimelinePlanError::tooManyOperations();

  TimelinePlanResult result;
  result.normalizedCutRanges = mergedRanges(plan.cuts);
  const std::vector<ProjectTimeRange>& cuts = result.normalizedCutRanges;
  if (!plan.cuts.empty() && cuts.empty()) throw TimelineEditError(TimelineEditError::Case::invalidRange);

  EditTimeline current = timeline;

  // Cuts first, all at once, against the input's source addresses.
  if (!cuts.empty()) {
    for (const ProjectTimeRange& cut : cuts)
      if (cut.start < ProjectTime::zero() || cut.end() > sourceDuration)
        throw TimelineEditError(TimelineEditError::Case::invalidRange);
    TimelineMapper mapper(timeline, sourceDuration);
    for (const ProjectTimeRange& cut : cuts)
      if (mapper.projectedRanges(cut).empty()) throw TimelinePlanError::cutOutsideRetainedContent();
    current = TimelineEditEngine::removeSourceRanges(current, cuts, sourceDuration);
  }

  if (!plan.speedChanges.empty()) {
    // Speed changes touch clips only, but the speed engine validates the whole document after
    // every change. The zooms and annotations ride along unchanged, so they are set aside for the
    // duration (and checked with everything else at the end) instead of being revalidated
    // hundreds of times in a large plan.
    EditTimeline clips = std::move(current);
    std::vector<ZoomSegment> zooms = std::move(clips.zooms);
    std::vector<AnnotationElement> annotations = std::move(clips.annotations);
    clips.zooms.clear();
    clips.annotations.clear();
    TimelineSpeedApplication speed = TimelineSpeedEngine::applying(plan.speedChanges, clips, sourceDuration);
    current = std::move(speed.timeline);
    current.zooms = std::move(zooms);
    current.annotations = std::move(annotations);
    result.normalizedSpeedChanges = std::move(speed.normalizedChanges);
  }

  // Existing zooms. Clips changed above; zooms still carry their old source times.
  if (plan.clearsZooms) {
    current.zooms.clear();
    TimelineValidator::validateEffectTracks(current, sourceDuration);
  } else if (cuts.empty() && !plan.reconcilesZooms) {
    for (const ZoomSegment& zoom : current.zooms)
      if (!isRetainedEntirely(zoomRange(zoom), current))
        throw TimelinePlanError::zoomOutsideRetainedContent(zoomRange(zoom), zoom.id, cuts);
  } else {
    // Asked to reconcile, every zoom is fitted to what is retained and reported. Otherwise only
    // the zooms whose retained content the cuts changed are; the rest keep their bytes and ids.
    std::vector<ZoomSegment> kept;
    std::vector<ZoomSegment> affected;
    for (const ZoomSegment& zoom : current.zooms) {
      bool changed =
          plan.reconcilesZooms || retainedPieces(zoomRange(zoom), current) != retainedPieces(zoomRange(zoom), timeline);
      (changed ? affected : kept).push_back(zoom);
    }
    if (!affected.empty()) {
      ZoomReconciliationResult reconciled = reconcileZooms(affected, current, sourceDuration);
      kept.insert(kept.end(), reconciled.zooms.begin(), reconciled.zooms.end());
      result.zoomReconciliations = std::move(reconciled.reconciliations);
      current = TimelineEffectEngine::replaceZooms(current, std::move(kept), sourceDuration);
    }
  }

  // Added zooms, earliest first; each must lie wholly in what the plan keeps.
  if (!plan.zooms.empty()) {
    std::vector<PlannedZoom> planned = plan.zooms;
    std::stable_sort(planned.begin(), planned.end(),
                     [](const PlannedZoom& a, const PlannedZoom& b) { return a.range.start < b.range.start; });
    sortZooms(current.zooms);
    for (const PlannedZoom& zoom : planned) {
      std::int64_t rawEnd;
      if (!tryAdd(zoom.range.start.nanoseconds, zoom.range.duration.nanoseconds, rawEnd))
        throw TimelineEffectError(TimelineEffectError::Case::zoomRangeInvalid);
      // An empty range has nothing to be retained; it is reported as the invalid zoom it is.
      if (zoom.range.duration > ProjectTime::zero() && !isRetainedEntirely(zoom.range, current))
        throw TimelinePlanError::zoomOutsideRetainedContent(zoom.range, std::nullopt, cuts);
      PointValue focus = zoom.focus ? *zoom.focus : clickFocus(clickEvents, zoom.range);
      ZoomSegment added = makeZoom(zoom.range.start, {rawEnd}, focus, zoom.scale, sourceDuration);
      // The zooms are sorted and valid and the new one is valid by construction, so a check
      // against its two neighbours is what a full effect validation would find: an overlap.
      // The whole document is validated at the end.
      auto position = std::upper_bound(current.zooms.begin(), current.zooms.end(), added.startTime,
                                       [](ProjectTime start, const ZoomSegment& z) { return start < z.startTime; });
      bool overlapsBefore = position != current.zooms.begin() && added.startTime < std::prev(position)->endTime;
      bool overlapsAfter = position != current.zooms.end() && position->startTime < added.endTime;
      if (overlapsBefore || overlapsAfter) throw TimelineEffectError(TimelineEffectError::Case::zoomOverlap);
      current.zooms.insert(position, added);
    }
  }

  if (!plan.settings.empty()) current = TimelineSettingsEngine::applying(plan.settings, current, hasWebcam, sourceSize);

  current = canonicalSegmentIDs(current, timeline);
  std::string idNamespace;
  for (const TimelineSegment& segment : current.segments) {
    if (!idNamespace.empty()) idNamespace += ':';
    idNamespace += segment.id.string();
  }
  current = canonicalZoomIDs(current, timeline, idNamespace);

  TimelineValidator::validate(current, sourceDuration);
  result.timeline = std::move(current);
  return result;
}

}  // namespace vumo
