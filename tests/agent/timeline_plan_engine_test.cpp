#include "agent/timeline_plan_engine.h"

#include <gtest/gtest.h>

#include <string>

#include "support/builders.h"
#include "support/test_support.h"
#include "timeline/timeline_edit_engine.h"
#include "timeline/timeline_effect_engine.h"
#include "timeline/timeline_settings_engine.h"

namespace vumo {
namespace {

using namespace vumo::testing;

const ProjectTime kSource = ms(60'000);
const PixelSize kSourceSize{1920, 1080};

TimelinePlanResult applyPlan(const TimelineEditPlan& plan, const EditTimeline& timeline,
                             const std::vector<MouseEvent>& clicks = {}) {
  return TimelinePlanEngine::apply(plan, timeline, kSource, false, kSourceSize, clicks);
}

template <class E, class F>
E captured(F&& body) {
  try {
    body();
  } catch (const E& error) {
    return error;
  }
  ADD_FAILURE() << "expected error was not thrown";
  throw std::logic_error("no error");
}

TimelineEditPlan cutPlan(std::vector<ProjectTimeRange> cuts, bool reconciles = false) {
  TimelineEditPlan plan;
  plan.cuts = std::move(cuts);
  plan.reconcilesZooms = reconciles;
  return plan;
}

// ---------------------------------------------------------------------------------------------
// Operation count

TEST(TimelinePlanEngine, RefusesAPlanWithoutOperations) {
  auto error = captured<TimelinePlanError>([] { applyPlan({}, timelineWith({{0, 60'000}})); });
  EXPECT_EQ(error.kind(), TimelinePlanError::Case::empty);
  EXPECT_EQ(error.localizationKey(), "timeline.error.planEmpty");
  EXPECT_STREQ(error.what(), "An edit plan must contain at least one operation.");
}

TEST(TimelinePlanEngine, AcceptsFiveHundredOperationsAndRefusesOneMore) {
  EditTimeline timeline = timelineWith({{0, 60'000}});
  TimelineEditPlan plan;
  // 499 one-frame cuts three frames apart, plus a settings batch: 500 operations.
  for (int k = 0; k < 499; ++k)
    plan.cuts.push_back(
        ProjectTimeRange::fromStartEnd(TimelineFrameGrid::boundary(3 * k + 1), TimelineFrameGrid::boundary(3 * k + 2)));
  plan.settings = {{"canvas.padding", "0.1"}};
  auto result = applyPlan(plan, timeline);
  EXPECT_EQ(result.normalizedCutRanges.size(), 499u);
  EXPECT_EQ(result.timeline.segments.size(), 500u);

  plan.clearsZooms = true;
  auto error = captured<TimelinePlanError>([&] { applyPlan(plan, timeline); });
  EXPECT_EQ(error.kind(), TimelinePlanError::Case::tooManyOperations);
  EXPECT_STREQ(error.what(), "The edit plan exceeds 500 operations.");
}

// ---------------------------------------------------------------------------------------------
// Cuts

TEST(TimelinePlanEngine, MergedRangesSnapsSortsAndJoinsTouchingRanges) {
  auto merged = TimelinePlanEngine::mergedRanges({
      rangeMs(5'000, 6'000),
      rangeMs(1'000, 2'000),
      rangeMs(2'000, 3'000),  // touches the one before: joined
      rangeMs(5'500, 7'000),  // overlaps: joined
      rangeNs(0, 5'000'000),  // 5 ms between two grid lines: snaps to nothing
      rangeNs(9'000'000'001, 9'499'999'999),
  });
  ASSERT_EQ(merged.size(), 3u);
  EXPECT_EQ(merged[0], rangeMs(1'000, 3'000));
  EXPECT_EQ(merged[1], rangeMs(5'000, 7'000));
  EXPECT_EQ(merged[2], rangeMs(9'000, 9'500));
}

TEST(TimelinePlanEngine, CutThatSnapsToNothingIsAnInvalidRange) {
  EXPECT_ERROR_CASE(applyPlan(cutPlan({rangeNs(1'000'000, 6'000'000)}), timelineWith({{0, 60'000}})), TimelineEditError,
                    TimelineEditError::Case::invalidRange);
}

TEST(TimelinePlanEngine, CutInContentAlreadyRemovedIsRefused) {
  EditTimeline timeline = timelineWith({{0, 30'000}, {32'000, 60'000}});
  auto error = captured<TimelinePlanError>([&] { applyPlan(cutPlan({rangeMs(30'200, 31'800)}), timeline); });
  EXPECT_EQ(error.kind(), TimelinePlanError::Case::cutOutsideRetainedContent);
  EXPECT_EQ(error.localizationKey(), "timeline.error.cutOutside");
  EXPECT_EQ(error.classification().code, "validation");
  EXPECT_EQ(error.classification().kind, ErrorKind::validation);

  // Repeating a cut that a first plan made is the same situation.
  EditTimeline once = applyPlan(cutPlan({rangeMs(10'000, 12'000)}), timelineWith({{0, 60'000}})).timeline;
  EXPECT_THROW(applyPlan(cutPlan({rangeMs(10'000, 12'000)}), once), TimelinePlanError);
}

TEST(TimelinePlanEngine, CutsAreAddressedInSourceTimeSoTheirOrderDoesNotMatter) {
  EditTimeline timeline = timelineWith({{0, 60'000}});
  auto forward = applyPlan(cutPlan({rangeMs(10'000, 12'000), rangeMs(20'000, 25'000)}), timeline);
  auto backward = applyPlan(cutPlan({rangeMs(20'000, 25'000), rangeMs(10'000, 12'000)}), timeline);
  EXPECT_EQ(encodeEditTimeline(forward.timeline), encodeEditTimeline(backward.timeline));
  ASSERT_EQ(forward.timeline.segments.size(), 3u);
  EXPECT_EQ(forward.timeline.segments[1].sourceRange, rangeMs(12'000, 20'000));
  EXPECT_EQ(forward.normalizedCutRanges,
            (std::vector<ProjectTimeRange>{rangeMs(10'000, 12'000), rangeMs(20'000, 25'000)}));
}

// ---------------------------------------------------------------------------------------------
// Reconciling zooms with cuts

struct ReconcileCase {
  const char* name;
  ZoomSegment zoom;
  ProjectTimeRange cut;
  ZoomReconciliationAction action;
  std::vector<ProjectTimeRange> resulting;
};

void PrintTo(const ReconcileCase& c, std::ostream* out) { *out << c.name; }

class CutThroughZoom : public ::testing::TestWithParam<ReconcileCase> {};

TEST_P(CutThroughZoom, ReconcilesTheZoomToWhatIsRetained) {
  const ReconcileCase& c = GetParam();
  ZoomSegment untouched = zoomMs(40'000, 43'000, 1.5, {0.3, 0.3});
  EditTimeline timeline = timelineWith({{0, 60'000}}, {c.zoom, untouched});
  auto result = applyPlan(cutPlan({c.cut}), timeline);

  ASSERT_EQ(result.zoomReconciliations.size(), 1u);
  const ZoomReconciliation& r = result.zoomReconciliations[0];
  EXPECT_EQ(r.zoomID, c.zoom.id);
  EXPECT_EQ(r.originalRange, ProjectTimeRange::fromStartEnd(c.zoom.startTime, c.zoom.endTime));
  EXPECT_EQ(r.action, c.action);
  EXPECT_EQ(r.resultingRanges, c.resulting);

  // A zoom the cut does not reach keeps its bytes and its id.
  ASSERT_EQ(result.timeline.zooms.size(), c.resulting.size() + 1);
  EXPECT_EQ(result.timeline.zooms.back(), untouched);

  for (std::size_t i = 0; i < c.resulting.size(); ++i) {
    const ZoomSegment& zoom = result.timeline.zooms[i];
    ProjectTime start = TimelineFrameGrid::nearestBoundary(c.resulting[i].start);
    ProjectTime end = TimelineFrameGrid::nearestBoundary(c.resulting[i].end());
    EXPECT_EQ(zoom.startTime, start);
    EXPECT_EQ(zoom.endTime, end);
    // Fresh ramps: in over 0.65 s, out over 0.5 s; the old look is kept.
    EXPECT_EQ(zoom.focusTime, start + ms(650));
    EXPECT_EQ(zoom.holdEndTime, end - ms(500));
    EXPECT_EQ(zoom.scale, c.zoom.scale);
    EXPECT_EQ(zoom.focusPoint, c.zoom.focusPoint);
    EXPECT_NE(zoom.id, c.zoom.id);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Pieces, CutThroughZoom,
    ::testing::Values(
        // 5 s zoom, cut leaves 2 s and 1 s: the short fragment goes.
        ReconcileCase{"Trimmed",
                      zoomMs(10'000, 15'000, 2.0, {0.3, 0.6}),
                      rangeMs(12'000, 14'000),
                      ZoomReconciliationAction::trimmed,
                      {rangeMs(10'000, 12'000)}},
        ReconcileCase{"Split",
                      zoomMs(10'000, 13'400, 1.8, {0.7, 0.4}),
                      rangeMs(11'200, 12'200),
                      ZoomReconciliationAction::split,
                      {rangeMs(10'000, 11'200), rangeMs(12'200, 13'400)}},
        ReconcileCase{
            "Removed", zoomMs(10'000, 12'000), rangeMs(11'000, 11'500), ZoomReconciliationAction::removed, {}},
        ReconcileCase{
            "CoveredEntirely", zoomMs(10'000, 12'000), rangeMs(9'000, 13'000), ZoomReconciliationAction::removed, {}},
        // The threshold is inclusive: exactly 1.15 s stays, one nanosecond less goes.
        ReconcileCase{"PieceOfExactlyThreshold",
                      makeZoom(ms(9'900), ms(11'150)),
                      rangeMs(9'000, 10'000),
                      ZoomReconciliationAction::trimmed,
                      {rangeMs(10'000, 11'150)}},
        ReconcileCase{"PieceJustBelowThreshold",
                      makeZoom(ms(9'900), ProjectTime{11'149'999'999}),
                      rangeMs(9'000, 10'000),
                      ZoomReconciliationAction::removed,
                      {}}),
    [](const ::testing::TestParamInfo<ReconcileCase>& info) { return std::string(info.param.name); });

TEST(TimelinePlanEngine, ClearingZoomsWithACutReportsNoReconciliations) {
  EditTimeline timeline = timelineWith({{0, 60'000}}, {zoomMs(10'000, 15'000), zoomMs(20'000, 22'000)});
  TimelineEditPlan plan = cutPlan({rangeMs(12'000, 14'000)});
  plan.clearsZooms = true;
  auto result = applyPlan(plan, timeline);
  EXPECT_TRUE(result.zoomReconciliations.empty());
  EXPECT_TRUE(result.timeline.zooms.empty());
}

TEST(TimelinePlanEngine, ExistingZoomOverRemovedContentBlocksAPlanThatDoesNotReconcile) {
  ZoomSegment straddling = zoomMs(29'000, 33'500);
  EditTimeline timeline = timelineWith({{0, 30'000}, {32'000, 60'000}}, {straddling});
  TimelineEditPlan plan;
  plan.settings = {{"cursor.scale", "1.5"}};
  auto error = captured<TimelinePlanError>([&] { applyPlan(plan, timeline); });
  EXPECT_EQ(error.kind(), TimelinePlanError::Case::zoomOutsideRetainedContent);
  EXPECT_EQ(error.range(), rangeMs(29'000, 33'500));
  EXPECT_EQ(error.zoomID(), straddling.id);
  EXPECT_TRUE(error.normalizedCuts().empty());
  EXPECT_EQ(error.localizationKey(), "timeline.error.zoomOutside");
  EXPECT_STREQ(error.what(), "The entire zoom range must fit within content retained after cutting.");
}

TEST(TimelinePlanEngine, ZoomReconcileFitsAndReportsEveryZoom) {
  ZoomSegment straddling = zoomMs(29'000, 33'500, 2.5, {0.2, 0.8});
  ZoomSegment whole = zoomMs(40'000, 44'000);
  EditTimeline timeline = timelineWith({{0, 30'000}, {32'000, 60'000}}, {whole, straddling});
  TimelineEditPlan plan;
  plan.reconcilesZooms = true;
  auto result = applyPlan(plan, timeline);

  ASSERT_EQ(result.zoomReconciliations.size(), 2u);
  EXPECT_EQ(result.zoomReconciliations[0].zoomID, straddling.id);
  EXPECT_EQ(result.zoomReconciliations[0].action, ZoomReconciliationAction::trimmed);
  EXPECT_EQ(result.zoomReconciliations[0].resultingRanges, std::vector<ProjectTimeRange>{rangeMs(32'000, 33'500)});
  EXPECT_EQ(result.zoomReconciliations[1].zoomID, whole.id);
  EXPECT_EQ(result.zoomReconciliations[1].action, ZoomReconciliationAction::preserved);
  EXPECT_EQ(result.zoomReconciliations[1].resultingRanges, std::vector<ProjectTimeRange>{rangeMs(40'000, 44'000)});
  ASSERT_EQ(result.timeline.zooms.size(), 2u);
  EXPECT_EQ(result.timeline.zooms[1], whole);
}

TEST(TimelinePlanEngine, SpeedChangeInsideAZoomDoesNotSplitIt) {
  ZoomSegment zoom = zoomMs(10'000, 16'000);
  EditTimeline timeline = timelineWith({{0, 60'000}}, {zoom});
  TimelineEditPlan plan;
  plan.speedChanges = {{rangeMs(12'000, 14'000), TimelinePlaybackRate{2000}}};
  plan.reconcilesZooms = true;
  auto result = applyPlan(plan, timeline);
  EXPECT_EQ(result.timeline.segments.size(), 3u);
  ASSERT_EQ(result.zoomReconciliations.size(), 1u);
  EXPECT_EQ(result.zoomReconciliations[0].action, ZoomReconciliationAction::preserved);
  EXPECT_EQ(result.timeline.zooms, std::vector<ZoomSegment>{zoom});
  EXPECT_EQ(result.normalizedSpeedChanges,
            (std::vector<TimelineSpeedChange>{{rangeMs(12'000, 14'000), TimelinePlaybackRate{2000}}}));
}

TEST(TimelinePlanEngine, RetainedPiecesJoinClipsThatTouch) {
  EditTimeline timeline = timelineWith({{0, 10'000}, {10'000, 20'000}, {25'000, 30'000}});
  EXPECT_EQ(TimelinePlanEngine::retainedPieces(rangeMs(5'000, 27'000), timeline),
            (std::vector<ProjectTimeRange>{rangeMs(5'000, 20'000), rangeMs(25'000, 27'000)}));
  EXPECT_TRUE(TimelinePlanEngine::retainedPieces(rangeMs(21'000, 24'000), timeline).empty());
}

// ---------------------------------------------------------------------------------------------
// Added zooms

TEST(TimelinePlanEngine, AddedZoomFocusesOnTheLastLeftClickInsideItsRange) {
  EditTimeline timeline = timelineWith({{0, 60'000}});
  std::vector<MouseEvent> clicks = {
      press(4'000, {0.9, 0.9}),                                                   // before the range
      press(5'500, {0.3, 0.4}),                                                   // the one
      press(6'000, {0.7, 0.6}, MouseButton::left, false),                         // outside the captured frame
      press(6'200, {0.8, 0.8}, MouseButton::left, std::nullopt, MousePhase::up),  // a release
      press(6'500, {0.1, 0.1}, MouseButton::right),                               // another button
      press(7'000, {0.6, 0.6}),                                                   // at the excluded end
  };
  TimelineEditPlan plan;
  plan.zooms = {{rangeMs(5'000, 7'000), 2.0, std::nullopt}};
  auto result = applyPlan(plan, timeline, clicks);
  ASSERT_EQ(result.timeline.zooms.size(), 1u);
  const ZoomSegment& zoom = result.timeline.zooms[0];
  EXPECT_EQ(zoom.focusPoint, (PointValue{0.3, 0.4}));
  EXPECT_EQ(zoom.startTime, ms(5'000));
  EXPECT_EQ(zoom.focusTime, ms(5'650));
  EXPECT_EQ(zoom.holdEndTime, ms(6'500));
  EXPECT_EQ(zoom.endTime, ms(7'000));
}

TEST(TimelinePlanEngine, AddedZoomWithoutClicksIsCentredAndExplicitFocusIsConstrained) {
  EditTimeline timeline = timelineWith({{0, 60'000}});
  TimelineEditPlan plan;
  plan.zooms = {{rangeMs(20'000, 20'400), 5.0, PointValue{0.95, 0.05}}, {rangeMs(5'000, 7'000), 2.0, std::nullopt}};
  auto result = applyPlan(plan, timeline, {press(8'000, {0.2, 0.2})});
  ASSERT_EQ(result.timeline.zooms.size(), 2u);
  EXPECT_EQ(result.timeline.zooms[0].focusPoint, (PointValue{0.5, 0.5}));
  const ZoomSegment& shortZoom = result.timeline.zooms[1];
  EXPECT_EQ(shortZoom.scale, 3.0);
  EXPECT_EQ(shortZoom.focusPoint, TimelineEffectEngine::constrainedFocus({0.95, 0.05}, 3.0));
  // Too short for a hold: all ramp in, no ramp out.
  EXPECT_EQ(shortZoom.focusTime, ms(20'400));
  EXPECT_EQ(shortZoom.holdEndTime, ms(20'400));
}

TEST(TimelinePlanEngine, AddedZoomOverContentThePlanCutsCarriesTheCuts) {
  EditTimeline timeline = timelineWith({{0, 60'000}});
  TimelineEditPlan plan = cutPlan({rangeMs(5'000, 7'000)});
  plan.zooms = {{rangeMs(6'000, 8'000), 2.0, std::nullopt}};
  auto error = captured<TimelinePlanError>([&] { applyPlan(plan, timeline); });
  EXPECT_EQ(error.kind(), TimelinePlanError::Case::zoomOutsideRetainedContent);
  EXPECT_EQ(error.range(), rangeMs(6'000, 8'000));
  EXPECT_FALSE(error.zoomID().has_value());
  EXPECT_EQ(error.normalizedCuts(), std::vector<ProjectTimeRange>{rangeMs(5'000, 7'000)});
}

TEST(TimelinePlanEngine, AddedZoomsMayNotOverlapEachOtherOrExistingZooms) {
  EditTimeline timeline = timelineWith({{0, 60'000}}, {zoomMs(10'000, 12'000)});
  TimelineEditPlan plan;
  plan.zooms = {{rangeMs(11'000, 13'000), 2.0, std::nullopt}};
  EXPECT_ERROR_CASE(applyPlan(plan, timeline), TimelineEffectError, TimelineEffectError::Case::zoomOverlap);

  plan.clearsZooms = true;  // clearing first makes room
  EXPECT_EQ(applyPlan(plan, timeline).timeline.zooms.size(), 1u);

  plan.zooms.push_back({rangeMs(12'500, 14'000), 2.0, std::nullopt});
  EXPECT_ERROR_CASE(applyPlan(plan, timeline), TimelineEffectError, TimelineEffectError::Case::zoomOverlap);
}

// ---------------------------------------------------------------------------------------------
// Determinism and ids

TEST(TimelinePlanEngine, ApplyingOnePlanTwiceGivesTheSameDocument) {
  ZoomSegment zoom = zoomMs(10'000, 15'000);
  EditTimeline timeline = timelineWith({{0, 60'000}}, {zoom, zoomMs(30'000, 34'000)});
  TimelineEditPlan plan = cutPlan({rangeMs(12'000, 14'000), rangeMs(31'000, 32'000)});
  plan.speedChanges = {{rangeMs(40'000, 45'000), TimelinePlaybackRate{1500}}};
  plan.zooms = {{rangeMs(50'000, 53'000), 1.8, std::nullopt}};
  plan.settings = {{"canvas.aspect", "1:1"}};

  auto first = applyPlan(plan, timeline);
  auto second = applyPlan(plan, timeline);
  EXPECT_EQ(encodeEditTimeline(first.timeline), encodeEditTimeline(second.timeline));
  EXPECT_EQ(first.zoomReconciliations, second.zoomReconciliations);

  // Input ids survive where the engines keep them: the first clip keeps its id on its left piece.
  EXPECT_EQ(first.timeline.segments.front().id, timeline.segments.front().id);
  EXPECT_EQ(first.timeline.canvas.aspectRatio, CanvasAspectRatio::square);

  // A different plan names its new pieces differently: [32 s, 40 s) against [32.5 s, 40 s).
  TimelineEditPlan other = plan;
  other.cuts[1] = rangeMs(31'000, 32'500);
  auto third = applyPlan(other, timeline);
  ASSERT_EQ(third.timeline.segments.size(), 5u);
  EXPECT_NE(third.timeline.segments[2].id, first.timeline.segments[2].id);
}

TEST(TimelinePlanEngine, CanonicalIDsKeepInputIDsAndReplaceNewOnes) {
  EditTimeline input = timelineWith({{0, 30'000}});
  EditTimeline result = input;
  result.segments.push_back({Uuid::random(), rangeMs(40'000, 50'000), TimelinePlaybackRate{2000}});
  EditTimeline a = TimelinePlanEngine::canonicalSegmentIDs(result, input);
  result.segments.back().id = Uuid::random();
  EditTimeline b = TimelinePlanEngine::canonicalSegmentIDs(result, input);
  EXPECT_EQ(a.segments[0].id, input.segments[0].id);
  EXPECT_EQ(a.segments[1].id, b.segments[1].id);

  // Zoom ids depend on the namespace (the clip ids), so another arrangement of clips gives others.
  result.zooms = {zoomMs(1'000, 3'000)};
  EXPECT_EQ(TimelinePlanEngine::canonicalZoomIDs(result, input, "A").zooms[0].id,
            TimelinePlanEngine::canonicalZoomIDs(result, input, "A").zooms[0].id);
  EXPECT_NE(TimelinePlanEngine::canonicalZoomIDs(result, input, "A").zooms[0].id,
            TimelinePlanEngine::canonicalZoomIDs(result, input, "B").zooms[0].id);
}

TEST(TimelinePlanEngine, FailingPlanLeavesTheInputAlone) {
  EditTimeline timeline = timelineWith({{0, 60'000}}, {zoomMs(10'000, 12'000)});
  EditTimeline copy = timeline;
  TimelineEditPlan plan = cutPlan({rangeMs(1'000, 2'000)});
  plan.settings = {{"no.such.key", "1"}};
  EXPECT_THROW(applyPlan(plan, timeline), TimelineSettingsError);
  EXPECT_EQ(timeline, copy);
}

}  // namespace
}  // namespace vumo
