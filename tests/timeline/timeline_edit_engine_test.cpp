#include "timeline/timeline_edit_engine.h"

#include <gtest/gtest.h>

#include <functional>

#include "support/builders.h"
#include "support/test_support.h"
#include "timeline/timeline_validation_error.h"

namespace vumo {
namespace {

using namespace vumo::testing;
using EditCase = TimelineEditError::Case;

const ProjectTime source = ms(10'000);

void expectEditError(const std::function<void()>& edit, EditCase expected) {
  EXPECT_EQ(testing::thrownCase<TimelineEditError>(edit), expected);
}

TEST(TimelineEditEngineSplitTest, SplitsAtTheNearestFrameAndKeepsTheIdOnTheLeft) {
  EditTimeline timeline = timelineOf({clip(ms(0), ms(10'000))});
  EditTimeline result = TimelineEditEngine::split(timeline, ns(1'000'000'000 + 8'000'000), source);
  ASSERT_EQ(result.segments.size(), 2u);
  EXPECT_EQ(result.segments[0].id, timeline.segments[0].id);
  EXPECT_NE(result.segments[1].id, timeline.segments[0].id);
  EXPECT_EQ(sourceRanges(result), (std::vector{span(ms(0), ms(1'000)), span(ms(1'000), ms(10'000))}));
}

TEST(TimelineEditEngineSplitTest, SpedUpClipIsSplitOnTheSourceGrid) {
  // Sequence frame 3 (50 ms) shows source 75 ms at 1.5x, which lies between two grid lines.
  EditTimeline timeline = timelineOf({clip(ms(0), ms(6'000), 1500)});
  EditTimeline result = TimelineEditEngine::split(timeline, frame(3), source);
  ASSERT_EQ(result.segments.size(), 2u);
  EXPECT_EQ(result.segments[0].sourceRange, span(ms(0), frame(5)));
  EXPECT_EQ(result.segments[1].playbackRate.permille, 1500);
}

TEST(TimelineEditEngineSplitTest, SplitsTheClipUnderThePlayheadOfALaterClip) {
  EditTimeline timeline = timelineOf({clip(ms(0), ms(2'000)), clip(ms(4'000), ms(8'000))});
  EditTimeline result = TimelineEditEngine::split(timeline, ms(3'000), source);
  EXPECT_EQ(sourceRanges(result),
            (std::vector{span(ms(0), ms(2'000)), span(ms(4'000), ms(5'000)), span(ms(5'000), ms(8'000))}));
  EXPECT_EQ(result.segments[1].id, timeline.segments[1].id);
}

TEST(TimelineEditEngineSplitTest, RefusesPlayheadsThatLeaveLessThanAFrameOrNoClip) {
  EditTimeline timeline = timelineOf({clip(ms(0), ms(2'000)), clip(ms(4'000), ms(8'000))});
  struct Case {
    ProjectTime playhead;
    EditCase expected;
  };
  const Case cases[] = {
      {ms(0), EditCase::splitAtBoundary},
      {ms(2'000), EditCase::splitAtBoundary},              // start of the second clip
      {ms(6'000) - ns(1), EditCase::noSegmentAtPlayhead},  // snaps to the sequence end
      {ms(7'000), EditCase::noSegmentAtPlayhead},
      {ms(-20), EditCase::noSegmentAtPlayhead},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.playhead.nanoseconds);
    expectEditError([&] { TimelineEditEngine::split(timeline, c.playhead, source); }, c.expected);
  }
  // Exactly one frame on either side is allowed; grid frames are 16,666,666 or 16,666,667 ns.
  EXPECT_EQ(TimelineEditEngine::split(timeline, frame(1), source).segments[0].sourceRange, span(ms(0), frame(1)));
  EXPECT_EQ(TimelineEditEngine::split(timeline, ms(6'000) - frame(1), source).segments[2].sourceRange,
            span(frame(479), ms(8'000)));
}

TEST(TimelineEditEngineSplitTest, RefusesASliverAtTheEndOfAClipThatEndsOffTheGrid) {
  EditTimeline timeline = timelineOf({clip(ms(0), ms(2'000)), clip(ms(4'000), ms(8'010))});
  expectEditError([&] { TimelineEditEngine::split(timeline, ms(6'000), source); }, EditCase::splitAtBoundary);
}

TEST(TimelineEditEngineTrimTest, StartMovesWithinItsHandlesOnTheGrid) {
  EditTimeline timeline = timelineOf({clip(ms(0), ms(2'000)), clip(ms(5'000), ms(8'000))});
  const Uuid id = timeline.segments[1].id;

  // Back to the end of the left neighbour is allowed and leaves touching clips.
  EXPECT_EQ(TimelineEditEngine::trimStart(timeline, id, ms(2'000), source).segments[1].sourceRange,
            span(ms(2'000), ms(8'000)));
  EXPECT_EQ(TimelineEditEngine::trimStart(timeline, id, ms(3'004), source).segments[1].sourceRange,
            span(ms(3'000), ms(8'000)));
  EXPECT_EQ(TimelineEditEngine::trimStart(timeline, id, ms(8'000) - frame(1), source).segments[1].sourceRange,
            span(frame(479), ms(8'000)));
  expectEditError([&] { TimelineEditEngine::trimStart(timeline, id, ms(1'980), source); },
                  EditCase::trimOutsideHandles);
  expectEditError([&] { TimelineEditEngine::trimStart(timeline, id, ms(7'995), source); },
                  EditCase::trimOutsideHandles);
  expectEditError([&] { TimelineEditEngine::trimStart(timeline, timeline.segments[0].id, ms(-20), source); },
                  EditCase::trimOutsideHandles);
  expectEditError([&] { TimelineEditEngine::trimStart(timeline, Uuid::random(), ms(3'000), source); },
                  EditCase::segmentNotFound);
}

TEST(TimelineEditEngineTrimTest, EndCanReextendIntoCutContentUpToTheNextClipOrTheSourceEnd) {
  EditTimeline timeline = timelineOf({clip(ms(0), ms(2'000)), clip(ms(5'000), ms(8'000))});
  EXPECT_EQ(TimelineEditEngine::trimEnd(timeline, timeline.segments[0].id, ms(5'000), source).segments[0].sourceRange,
            span(ms(0), ms(5'000)));
  EXPECT_EQ(TimelineEditEngine::trimEnd(timeline, timeline.segments[1].id, ms(10'000), source).segments[1].sourceRange,
            span(ms(5'000), ms(10'000)));
  expectEditError([&] { TimelineEditEngine::trimEnd(timeline, timeline.segments[0].id, ms(5'020), source); },
                  EditCase::trimOutsideHandles);
  expectEditError([&] { TimelineEditEngine::trimEnd(timeline, timeline.segments[1].id, ms(10'020), source); },
                  EditCase::trimOutsideHandles);
  expectEditError([&] { TimelineEditEngine::trimEnd(timeline, timeline.segments[1].id, ms(5'005), source); },
                  EditCase::trimOutsideHandles);
  expectEditError([&] { TimelineEditEngine::trimEnd(timeline, Uuid::random(), ms(3'000), source); },
                  EditCase::segmentNotFound);
}

TEST(TimelineEditEngineTrimTest, TrimmingAwayAnAnnotationsWholeSpanRemovesIt) {
  EditTimeline timeline = timelineOf({clip(ms(0), ms(10'000))});
  AnnotationElement covered = rectangle(ms(8'500), ms(9'500), 1);
  AnnotationElement straddling = rectangle(ms(7'500), ms(8'500), 2);
  timeline.annotations = {covered, straddling};
  EditTimeline result = TimelineEditEngine::trimEnd(timeline, timeline.segments[0].id, ms(8'000), source);
  ASSERT_EQ(result.annotations.size(), 1u);
  EXPECT_EQ(result.annotations[0].id, straddling.id);
  EXPECT_EQ(result.annotations[0].endTime, ms(8'500));  // kept whole
}

TEST(TimelineEditEngineRippleDeleteTest, LastClipCannotGoEvenUnderAnUnknownId) {
  EditTimeline single = timelineOf({clip(ms(0), ms(10'000))});
  expectEditError([&] { TimelineEditEngine::rippleDelete(single, Uuid::random(), source); },
                  EditCase::cannotDeleteLastSegment);
  EditTimeline two = timelineOf({clip(ms(0), ms(2'000)), clip(ms(3'000), ms(4'000))});
  expectEditError([&] { TimelineEditEngine::rippleDelete(two, Uuid::random(), source); }, EditCase::segmentNotFound);
}

TEST(TimelineEditEngineRippleDeleteTest, RemovesTheClipItsOrphansAndReflowsTheSurvivors) {
  EditTimeline timeline = timelineOf({clip(ms(0), ms(2'000)), clip(ms(3'000), ms(4'000)), clip(ms(5'000), ms(6'000))});
  AnnotationElement orphan = rectangle(ms(3'100), ms(3'900), 1, 0);
  AnnotationElement survivor = rectangle(ms(5'100), ms(5'900), 2, 3);  // lane 3 is not free: it does not exist yet
  timeline.annotations = {orphan, survivor};
  EditTimeline result = TimelineEditEngine::rippleDelete(timeline, timeline.segments[1].id, source);
  EXPECT_EQ(sourceRanges(result), (std::vector{span(ms(0), ms(2'000)), span(ms(5'000), ms(6'000))}));
  ASSERT_EQ(result.annotations.size(), 1u);
  EXPECT_EQ(result.annotations[0].id, survivor.id);
  EXPECT_EQ(result.annotations[0].trackIndex, 0);
}

TEST(TimelineEditEngineCutTest, MiddleCutKeepsTheIdOnTheLeftPiece) {
  EditTimeline timeline = timelineOf({clip(ms(0), ms(10'000))});
  EditTimeline result = TimelineEditEngine::removeSourceRanges(timeline, {span(ms(1'000), ms(2'000))}, source);
  EXPECT_EQ(sourceRanges(result), (std::vector{span(ms(0), ms(1'000)), span(ms(2'000), ms(10'000))}));
  EXPECT_EQ(result.segments[0].id, timeline.segments[0].id);
  EXPECT_NE(result.segments[1].id, timeline.segments[0].id);
}

TEST(TimelineEditEngineCutTest, CutOfTheLeftPartKeepsTheIdOnTheRightPiece) {
  EditTimeline timeline = timelineOf({clip(ms(0), ms(10'000), 2000)});
  EditTimeline result = TimelineEditEngine::removeSourceRanges(timeline, {span(ms(0), ms(3'000))}, source);
  ASSERT_EQ(result.segments.size(), 1u);
  EXPECT_EQ(result.segments[0].id, timeline.segments[0].id);
  EXPECT_EQ(result.segments[0].sourceRange, span(ms(3'000), ms(10'000)));
  EXPECT_EQ(result.segments[0].playbackRate.permille, 2000);
}

TEST(TimelineEditEngineCutTest, SeveralRangesApplyInTurnAgainstTheResultSoFar) {
  EditTimeline timeline = timelineOf({clip(ms(0), ms(10'000))});
  EditTimeline result = TimelineEditEngine::removeSourceRanges(
      timeline, {span(ms(1'000), ms(2'000)), span(ms(5'000), ms(6'000))}, source);
  ASSERT_EQ(result.segments.size(), 3u);
  EXPECT_EQ(sourceRanges(result),
            (std::vector{span(ms(0), ms(1'000)), span(ms(2'000), ms(5'000)), span(ms(6'000), ms(10'000))}));
  // The piece made by the first cut keeps its new id through the second.
  EditTimeline once = TimelineEditEngine::removeSourceRanges(timeline, {span(ms(1'000), ms(2'000))}, source);
  EditTimeline twice = TimelineEditEngine::removeSourceRanges(once, {span(ms(5'000), ms(6'000))}, source);
  EXPECT_EQ(twice.segments[1].id, once.segments[1].id);
  EXPECT_NE(twice.segments[2].id, once.segments[1].id);
}

TEST(TimelineEditEngineCutTest, PiecesShorterThanAFrameGoWithTheCut) {
  // A clip that starts off the grid: the cut's snapped start leaves 11.7 ms before it.
  EditTimeline timeline = timelineOf({clip(ms(5), ms(1'000))});
  EditTimeline result = TimelineEditEngine::removeSourceRanges(timeline, {span(ms(16), ms(500))}, source);
  ASSERT_EQ(result.segments.size(), 1u);
  EXPECT_EQ(result.segments[0].sourceRange, span(ms(500), ms(1'000)));
  EXPECT_EQ(result.segments[0].id, timeline.segments[0].id);
}

TEST(TimelineEditEngineCutTest, RefusesCutsThatAreEmptyOutsideOrChangeNothing) {
  EditTimeline timeline = timelineOf({clip(ms(0), ms(4'000)), clip(ms(6'000), ms(10'000))});
  struct Case {
    const char* name;
    std::vector<ProjectTimeRange> ranges;
    EditCase expected;
  };
  const std::vector<Case> cases = {
      {"no ranges", {}, EditCase::invalidRange},
      {"5 ms between two grid lines", {span(ms(1'001), ms(1'006))}, EditCase::invalidRange},
      {"negative duration", {{ms(2'000), ms(-500)}}, EditCase::invalidRange},
      {"negative start", {span(ms(-100), ms(500))}, EditCase::invalidRange},
      {"end beyond the source", {span(ms(9'000), ms(10'100))}, EditCase::invalidRange},
      {"only an already removed gap", {span(ms(4'000), ms(6'000))}, EditCase::invalidRange},
      {"end overflows", {{ms(1'000), ns(INT64_MAX)}}, EditCase::invalidRange},
      {"everything retained", {span(ms(0), ms(10'000))}, EditCase::cannotDeleteLastSegment},
      {"everything in two cuts",
       {span(ms(0), ms(4'000)), span(ms(6'000), ms(10'000))},
       EditCase::cannotDeleteLastSegment},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    expectEditError([&] { TimelineEditEngine::removeSourceRanges(timeline, c.ranges, source); }, c.expected);
  }
}

TEST(TimelineEditEngineCutTest, RepeatingACutIsAnInvalidRange) {
  EditTimeline timeline = timelineOf({clip(ms(0), ms(10'000))});
  EditTimeline once = TimelineEditEngine::removeSourceRanges(timeline, {span(ms(1'000), ms(2'000))}, source);
  expectEditError([&] { TimelineEditEngine::removeSourceRanges(once, {span(ms(1'000), ms(2'000))}, source); },
                  EditCase::invalidRange);
}

TEST(TimelineEditEngineCutTest, OrphanedAnnotationsGoAndStraddlingOnesStayWhole) {
  EditTimeline timeline = timelineOf({clip(ms(0), ms(10'000))});
  AnnotationElement inside = rectangle(ms(2'100), ms(2'900), 1, 0);
  AnnotationElement straddling = rectangle(ms(2'500), ms(3'500), 2, 1);
  AnnotationElement untouched = rectangle(ms(6'000), ms(7'000), 3, 0);
  timeline.annotations = {inside, straddling, untouched};
  EditTimeline result = TimelineEditEngine::removeSourceRanges(timeline, {span(ms(2'000), ms(3'000))}, source);
  ASSERT_EQ(result.annotations.size(), 2u);
  EXPECT_EQ(result.annotations[0].id, straddling.id);
  EXPECT_EQ(result.annotations[0].startTime, ms(2'500));
  EXPECT_EQ(result.annotations[0].endTime, ms(3'500));
  EXPECT_EQ(result.annotations[1].id, untouched.id);
}

TEST(TimelineEditEngineTest, ExtremeTimesAreRefusedNotOverflowed) {
  EditTimeline timeline = timelineOf({clip(ms(0), ms(4'000)), clip(ms(6'000), ms(10'000))});
  const Uuid id = timeline.segments[0].id;
  for (ProjectTime extreme : {ns(INT64_MAX), ns(INT64_MIN), ns(INT64_MAX / 2)}) {
    SCOPED_TRACE(extreme.nanoseconds);
    expectEditError([&] { TimelineEditEngine::split(timeline, extreme, source); }, EditCase::noSegmentAtPlayhead);
    expectEditError([&] { TimelineEditEngine::trimStart(timeline, id, extreme, source); },
                    EditCase::trimOutsideHandles);
    expectEditError([&] { TimelineEditEngine::trimEnd(timeline, id, extreme, source); }, EditCase::trimOutsideHandles);
    expectEditError(
        [&] {
          TimelineEditEngine::removeSourceRanges(timeline, {{extreme, ms(1)}}, source);
        },
        EditCase::invalidRange);
  }
  expectEditError(
      [&] {
        TimelineEditEngine::removeSourceRanges(timeline, {{ms(0), ns(INT64_MAX / 2)}}, source);
      },
      EditCase::invalidRange);
}

TEST(TimelineEditEngineTest, ValidationErrorsOfTheResultPassThrough) {
  // The input's annotation is out of the source: the engine reports the validator's error.
  EditTimeline timeline = timelineOf({clip(ms(0), ms(10'000))});
  timeline.annotations = {rectangle(ms(9'000), ms(11'000), 1)};
  EXPECT_THROW(TimelineEditEngine::removeSourceRanges(timeline, {span(ms(1'000), ms(2'000))}, source),
               TimelineValidationError);
  EXPECT_THROW(TimelineEditEngine::split(timeline, ms(5'000), source), TimelineValidationError);
}

}  // namespace
}  // namespace vumo
