#pragma once

// A batch of edits applied as one transaction: cuts, speed changes, zoom handling and settings,
// all addressed in source time, so that no operation shifts the address of another. The agent's
// edit plans are previewed and committed through this engine, and it decides what a cut does to
// the zooms that it runs through.

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "shared/error.h"
#include "shared/geometry.h"
#include "shared/json_fwd.h"
#include "shared/project_time.h"
#include "shared/uuid.h"
#include "timeline/edit_timeline.h"
#include "timeline/mouse_event.h"
#include "timeline/timeline_speed_engine.h"

namespace vumo {

// A zoom the plan adds. Without a focus the engine looks for the last click inside the range.
struct PlannedZoom {
  ProjectTimeRange range;
  double scale = 1;
  std::optional<PointValue> focus;

  friend bool operator==(const PlannedZoom&, const PlannedZoom&) = default;
};

struct TimelineEditPlan {
  std::vector<ProjectTimeRange> cuts;
  std::vector<TimelineSpeedChange> speedChanges;
  bool clearsZooms = false;
  bool reconcilesZooms = false;
  std::vector<PlannedZoom> zooms;
  std::map<std::string, std::string> settings;

  // Every cut, speed change and added zoom is one operation, and so is each of zoom-clear,
  // zoom-reconcile and a non-empty settings batch.
  std::size_t operationCount() const;

  friend bool operator==(const TimelineEditPlan&, const TimelineEditPlan&) = default;
};

enum class ZoomReconciliationAction { preserved, trimmed, split, removed };

template <>
struct EnumNames<ZoomReconciliationAction> {
  static constexpr std::string_view typeName = "zoom reconciliation action";
  static constexpr NameTable<ZoomReconciliationAction, 4> table{{
      {ZoomReconciliationAction::preserved, "preserved"},
      {ZoomReconciliationAction::trimmed, "trimmed"},
      {ZoomReconciliationAction::split, "split"},
      {ZoomReconciliationAction::removed, "removed"},
  }};
};

// What became of one existing zoom: `zoomID` and `originalRange` are the zoom before the plan,
// `resultingRanges` the retained pieces that now carry a zoom (before snapping to the grid).
struct ZoomReconciliation {
  Uuid zoomID;
  ProjectTimeRange originalRange;
  ZoomReconciliationAction action = ZoomReconciliationAction::preserved;
  std::vector<ProjectTimeRange> resultingRanges;

  friend bool operator==(const ZoomReconciliation&, const ZoomReconciliation&) = default;
};

struct ZoomReconciliationResult {
  // The zooms that replace the reconciled ones (preserved ones as they were), sorted by start.
  std::vector<ZoomSegment> zooms;
  // One entry per input zoom, in order of start.
  std::vector<ZoomReconciliation> reconciliations;
};

struct TimelinePlanResult {
  EditTimeline timeline;
  std::vector<ProjectTimeRange> normalizedCutRanges;
  std::vector<TimelineSpeedChange> normalizedSpeedChanges;
  std::vector<ZoomReconciliation> zoomReconciliations;
};

// Failures of a plan as a whole. `zoomOutsideRetainedContent` carries what the command line puts
// into its error details: the zoom's range, the id of an existing zoom (none for a zoom the plan
// adds) and the plan's normalised cuts.
class TimelinePlanError : public Error {
 public:
  enum class Case {
    zoomOutsideRetainedContent,
    empty,
    tooManyOperations,
    cutOutsideRetainedContent,
  };

  static TimelinePlanError zoomOutsideRetainedContent(ProjectTimeRange range, std::optional<Uuid> zoomID,
                                                      std::vector<ProjectTimeRange> normalizedCuts);
  static TimelinePlanError empty();
  static TimelinePlanError tooManyOperations();
  static TimelinePlanError cutOutsideRetainedContent();

  Case kind() const noexcept { return kind_; }
  // Payload of zoomOutsideRetainedContent; empty for the other cases.
  const ProjectTimeRange& range() const noexcept { return range_; }
  const std::optional<Uuid>& zoomID() const noexcept { return zoomID_; }
  const std::vector<ProjectTimeRange>& normalizedCuts() const noexcept { return normalizedCuts_; }

  static const ErrorCatalogue<Case>& catalogue();

 private:
  TimelinePlanError(Case kind, ProjectTimeRange range, std::optional<Uuid> zoomID, std::vector<ProjectTimeRange> cuts);

  Case kind_;
  ProjectTimeRange range_;
  std::optional<Uuid> zoomID_;
  std::vector<ProjectTimeRange> normalizedCuts_;
};

struct TimelinePlanEngine {
  static constexpr std::size_t maximumOperations = 500;
  // The shortest retained piece of a cut zoom that still gets a zoom of its own: both ramps and a
  // short hold. A shorter fragment is dropped rather than left as a jump.
  static constexpr ProjectTime minimumReconciledZoomDuration{1'150'000'000};
  static constexpr ProjectTime zoomRampInDuration{650'000'000};
  static constexpr ProjectTime zoomRampOutDuration{500'000'000};

  // Applies the whole plan to a copy of `timeline` (which must be valid) or throws; nothing is
  // partial. The same plan on the same timeline always gives the same document, byte for byte,
  // so a preview and the commit that repeats it agree. Errors of the clip, speed, effect and
  // settings engines and of the validator pass through.
  static TimelinePlanResult apply(const TimelineEditPlan& plan, const EditTimeline& timeline,
                                  ProjectTime sourceDuration, bool hasWebcam, PixelSize sourceSize,
                                  const std::vector<MouseEvent>& clickEvents);

  // Both ends snapped to the frame grid, empty ranges dropped, sorted by start, overlapping or
  // touching ranges merged. An end beyond the 64-bit range is TimelineEditError.invalidRange.
  static std::vector<ProjectTimeRange> mergedRanges(const std::vector<ProjectTimeRange>& ranges);

  // The source content of `range` that `timeline` retains, as contiguous pieces in order. Clips
  // that touch in source time (a speed change splits clips without a gap) play on without a
  // break, so their parts form one piece.
  static std::vector<ProjectTimeRange> retainedPieces(const ProjectTimeRange& range, const EditTimeline& timeline);

  // Fits each zoom to the content `timeline` retains: kept as it is when wholly retained,
  // otherwise one new zoom per retained piece of at least `minimumReconciledZoomDuration`, with
  // the old focus and scale and fresh ramps. New zooms get random ids.
  static ZoomReconciliationResult reconcileZooms(const std::vector<ZoomSegment>& zooms, const EditTimeline& timeline,
                                                 ProjectTime sourceDuration);

  // Engines make random ids for new clips and zooms. These replace every id that the input did
  // not have by one derived from the item itself, so that applying one plan twice gives equal
  // documents. Ids the input had are kept.
  static EditTimeline canonicalSegmentIDs(const EditTimeline& result, const EditTimeline& input);
  static EditTimeline canonicalZoomIDs(const EditTimeline& result, const EditTimeline& input,
                                       std::string_view idNamespace);
};

}  // namespace vumo
