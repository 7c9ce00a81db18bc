#include "timeline/timeline_speed_engine.h"

#include <gtest/gtest.h>

#include <functional>

#include "support/builders.h"
#include "support/test_support.h"
#include "timeline/timeline_validation_error.h"

namespace vumo {
namespace {

using namespace vumo::testing;
using SpeedCase = TimelineSpeedError::Case;

const ProjectTime source = ms(10'000);

void expectSpeedError(const std::function<void()>& edit, SpeedCase expected) {
  EXPECT_EQ(testing::thrownCase<TimelineSpeedError>(edit), expected);
}

TimelineSpeedChange change(ProjectTime start, ProjectTime end, std::int32_t permille) {
  return {span(start, end), {permille}};
}

TEST(TimelineSpeedEngineNormalizeTest, SnapsSortsAndMergesSameRateChanges) {
  auto merged = TimelineSpeedEngine::normalized({
      change(ms(5'000), ms(6'000), 1500), change(ms(1'004), ms(2'000), 2000),
      change(ms(1'500), ms(3'000), 2000),  // overlaps the one before: one range
      change(ms(3'000), ms(4'000), 2000),  // touches it with the same rate: still one range
      change(ms(4'000), ms(5'000), 1500),  // touches with another rate: stays apart
  });
  EXPECT_EQ(merged, (std::vector{change(ms(1'000), ms(4'000), 2000), change(ms(4'000), ms(6'000), 1500)}));
}

TEST(TimelineSpeedEngineNormalizeTest, AContainedSameRateChangeDoesNotShortenTheMerge) {
  auto merged = TimelineSpeedEngine::normalized({change(ms(0), ms(5'000), 800), change(ms(1'000), ms(2'000), 800)});
  EXPECT_EQ(merged, (std::vector{change(ms(0), ms(5'000), 800)}));
}

TEST(TimelineSpeedEngineNormalizeTest, RefusesBadRatesShortRangesAndConflicts) {
  struct Case {
    const char* name;
    std::vector<TimelineSpeedChange> changes;
    SpeedCase expected;
  };
  const std::vector<Case> cases = {
      {"below 0.5", {change(ms(0), ms(1'000), 490)}, SpeedCase::invalidRate},
      {"above 4", {change(ms(0), ms(1'000), 4010)}, SpeedCase::invalidRate},
      {"not a step of 0.01", {change(ms(0), ms(1'000), 1005)}, SpeedCase::invalidRate},
      {"under a frame after snapping", {change(ms(1'001), ms(1'006), 2000)}, SpeedCase::invalidRange},
      {"far beyond any recording", {change(ns(INT64_MAX - 100), ns(INT64_MAX), 2000)}, SpeedCase::invalidRange},
      {"backwards", {TimelineSpeedChange{ProjectTimeRange{ms(2'000), ms(-1'000)}, {2000}}}, SpeedCase::invalidRange},
      {"overlap with another rate",
       {change(ms(0), ms(2'000), 2000), change(ms(1'000), ms(3'000), 1500)},
       SpeedCase::conflictingRanges},
      {"overlap found after sorting",
       {change(ms(1'000), ms(3'000), 1500), change(ms(0), ms(1'020), 2000)},
       SpeedCase::conflictingRanges},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    expectSpeedError([&] { TimelineSpeedEngine::normalized(c.changes); }, c.expected);
  }
}

TEST(TimelineSpeedEngineSetRateTest, RangeInsideOneClipGivesThreeClipsAndTheLeftKeepsTheId) {
  EditTimeline timeline = timelineOf({clip(ms(0), ms(10'000))});
  EditTimeline result = TimelineSpeedEngine::settingRate({2000}, span(ms(2'000), ms(4'000)), timeline, source);
  ASSERT_EQ(result.segments.size(), 3u);
  EXPECT_EQ(sourceRanges(result),
            (std::vector{span(ms(0), ms(2'000)), span(ms(2'000), ms(4'000)), span(ms(4'000), ms(10'000))}));
  EXPECT_EQ(result.segments[0].id, timeline.segments[0].id);
  EXPECT_NE(result.segments[1].id, result.segments[0].id);
  EXPECT_NE(result.segments[2].id, result.segments[1].id);
  EXPECT_EQ(result.segments[0].playbackRate.permille, 1000);
  EXPECT_EQ(result.segments[1].playbackRate.permille, 2000);
  EXPECT_EQ(result.segments[2].playbackRate.permille, 1000);
}

TEST(TimelineSpeedEngineSetRateTest, RemaindersUnderAFrameAreTakenAlong) {
  // The clip ends 5 ms after a grid line; the snapped range stops at that line.
  EditTimeline timeline = timelineOf({clip(ms(0), ms(9'005))});
  EditTimeline result = TimelineSpeedEngine::settingRate({1500}, span(ms(1'000), ms(9'000)), timeline, source);
  EXPECT_EQ(sourceRanges(result), (std::vector{span(ms(0), ms(1'000)), span(ms(1'000), ms(9'005))}));
  EXPECT_EQ(result.segments[1].playbackRate.permille, 1500);

  EditTimeline offGridStart = timelineOf({clip(ms(5), ms(9'000))});
  EditTimeline fromStart = TimelineSpeedEngine::settingRate({1500}, span(ms(16), ms(4'000)), offGridStart, source);
  EXPECT_EQ(sourceRanges(fromStart), (std::vector{span(ms(5), ms(4'000)), span(ms(4'000), ms(9'000))}));
  EXPECT_EQ(fromStart.segments[0].id, offGridStart.segments[0].id);
  EXPECT_EQ(fromStart.segments[0].playbackRate.permille, 1500);
}

TEST(TimelineSpeedEngineSetRateTest, RangeAcrossTwoTouchingClipsSetsBothAndEachFirstPieceKeepsItsId) {
  EditTimeline timeline = timelineOf({clip(ms(0), ms(3'000)), clip(ms(3'000), ms(6'000), 800)});
  EditTimeline result = TimelineSpeedEngine::settingRate({2500}, span(ms(1'000), ms(5'000)), timeline, source);
  ASSERT_EQ(result.segments.size(), 4u);
  EXPECT_EQ(sourceRanges(result), (std::vector{span(ms(0), ms(1'000)), span(ms(1'000), ms(3'000)),
                                               span(ms(3'000), ms(5'000)), span(ms(5'000), ms(6'000))}));
  EXPECT_EQ(result.segments[0].id, timeline.segments[0].id);
  EXPECT_EQ(result.segments[2].id, timeline.segments[1].id);
  EXPECT_NE(result.segments[1].id, timeline.segments[0].id);
  EXPECT_NE(result.segments[3].id, timeline.segments[1].id);
  std::vector<std::int32_t> rates;
  for (const auto& segment : result.segments) rates.push_back(segment.playbackRate.permille);
  EXPECT_EQ(rates, (std::vector<std::int32_t>{1000, 2500, 2500, 800}));
}

TEST(TimelineSpeedEngineSetRateTest, NoChangeOnlyWhenEveryOverlappedClipAlreadyHasTheRate) {
  EditTimeline uniform = timelineOf({clip(ms(0), ms(3'000), 1500), clip(ms(3'000), ms(6'000), 1500)});
  expectSpeedError([&] { TimelineSpeedEngine::settingRate({1500}, span(ms(1'000), ms(5'000)), uniform, source); },
                   SpeedCase::noChange);

  EditTimeline mixed = timelineOf({clip(ms(0), ms(3'000), 1500), clip(ms(3'000), ms(6'000))});
  EditTimeline result = TimelineSpeedEngine::settingRate({1500}, span(ms(1'000), ms(5'000)), mixed, source);
  // Both overlapped clips are rewritten, the one already at 1.5 included.
  EXPECT_EQ(sourceRanges(result), (std::vector{span(ms(0), ms(1'000)), span(ms(1'000), ms(3'000)),
                                               span(ms(3'000), ms(5'000)), span(ms(5'000), ms(6'000))}));
}

TEST(TimelineSpeedEngineSetRateTest, RefusesRangesOutsideTheSourceOrAcrossACut) {
  EditTimeline timeline = timelineOf({clip(ms(0), ms(3'000)), clip(ms(5'000), ms(10'000))});
  struct Case {
    const char* name;
    TimelinePlaybackRate rate;
    ProjectTimeRange range;
    SpeedCase expected;
  };
  const std::vector<Case> cases = {
      {"invalid rate", {0}, span(ms(0), ms(1'000)), SpeedCase::invalidRate},
      {"negative start", {2000}, span(ms(-100), ms(1'000)), SpeedCase::invalidRange},
      {"beyond the source", {2000}, span(ms(9'000), ms(10'100)), SpeedCase::invalidRange},
      {"under a frame", {2000}, span(ms(1'000), ms(1'005)), SpeedCase::invalidRange},
      {"end overflows", {2000}, {ms(1'000), ns(INT64_MAX)}, SpeedCase::invalidRange},
      {"far beyond any recording", {2000}, {ns(INT64_MAX - 5), ms(1)}, SpeedCase::invalidRange},
      {"far before zero", {2000}, {ns(INT64_MIN), ms(1'000)}, SpeedCase::invalidRange},
      {"across the cut", {2000}, span(ms(2'000), ms(6'000)), SpeedCase::rangeOutsideRetainedContent},
      {"inside the cut", {2000}, span(ms(3'500), ms(4'500)), SpeedCase::rangeOutsideRetainedContent},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    expectSpeedError([&] { TimelineSpeedEngine::settingRate(c.rate, c.range, timeline, source); }, c.expected);
  }
}

TEST(TimelineSpeedEngineSetRateTest, AClipTooShortForTheRateFailsInTheValidator) {
  EditTimeline timeline = timelineOf({clip(ms(0), ms(1'000))});
  EXPECT_ERROR_CASE(TimelineSpeedEngine::settingRate({2000}, span(ms(0), frame(1)), timeline, source),
                    TimelineValidationError, TimelineValidationError::Case::sequenceSegmentTooShort);
}

TEST(TimelineSpeedEngineApplyTest, NothingToApplyLeavesTheTimelineAsItIs) {
  EditTimeline timeline = timelineOf({clip(ms(0), ms(10'000))});
  TimelineSpeedApplication application = TimelineSpeedEngine::applying({}, timeline, source);
  EXPECT_EQ(application.timeline, timeline);
  EXPECT_TRUE(application.normalizedChanges.empty());
}

TEST(TimelineSpeedEngineApplyTest, AppliesTheMergedChangesInOrderAndReportsThem) {
  EditTimeline timeline = timelineOf({clip(ms(0), ms(10'000))});
  TimelineSpeedApplication application = TimelineSpeedEngine::applying(
      {change(ms(6'000), ms(8'000), 500), change(ms(1'000), ms(2'000), 2000), change(ms(1'500), ms(3'000), 2000)},
      timeline, source);
  EXPECT_EQ(application.normalizedChanges,
            (std::vector{change(ms(1'000), ms(3'000), 2000), change(ms(6'000), ms(8'000), 500)}));
  EXPECT_EQ(sourceRanges(application.timeline),
            (std::vector{span(ms(0), ms(1'000)), span(ms(1'000), ms(3'000)), span(ms(3'000), ms(6'000)),
                         span(ms(6'000), ms(8'000)), span(ms(8'000), ms(10'000))}));
  EXPECT_EQ(application.timeline.segments[0].id, timeline.segments[0].id);
  EXPECT_EQ(application.timeline.segments[3].playbackRate.permille, 500);
}

}  // namespace
}  // namespace vumo
