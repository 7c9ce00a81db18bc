#include "timeline/timeline_mapper.h"

#include <gtest/gtest.h>

#include <limits>
#include <random>

#include "support/builders.h"
#include "timeline/timeline_validator.h"

namespace vumo {
namespace {

using namespace vumo::testing;

const ProjectTime source = ms(10'000);

TEST(TimelineMapper, ClipsAreLaidEndToEndWithEachLengthRoundedOnItsOwn) {
  EditTimeline t = timelineOf({clip(ns(0), ns(100'000'001), 1500), clip(ns(200'000'000), ns(300'000'001), 1500),
                               clip(ns(400'000'000), ns(500'000'001), 1500)});
  TimelineMapper mapper(t, source);
  ASSERT_EQ(mapper.projections().size(), 3u);
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(mapper.projections()[i].sequenceRange.duration, ns(66'666'667)) << i;  // 66,666,667.33
    EXPECT_EQ(mapper.projections()[i].sequenceRange.start, ns(66'666'667 * static_cast<std::int64_t>(i))) << i;
  }
  // The sum of rounded clips, not the rounded sum (which would be 200,000,002).
  EXPECT_EQ(mapper.sequenceDuration(), ns(200'000'001));
  EXPECT_EQ(mapper.sourceDuration(), source);
}

TEST(TimelineMapper, RefusesTimelinesTheValidatorRefuses) {
  EXPECT_THROW(TimelineMapper(EditTimeline::empty(), source), TimelineValidationError);
  EXPECT_THROW(TimelineMapper(timelineOf({clip(ms(0), ms(20'000))}), source), TimelineValidationError);
}

class TwoClipMapper : public ::testing::Test {
 protected:
  // Source 1 s...3 s at double speed, a cut, then 5 s...8 s at half speed.
  TimelineSegment fast = clip(ms(1'000), ms(3'000), 2000);
  TimelineSegment slow = clip(ms(5'000), ms(8'000), 500);
  TimelineMapper mapper{timelineOf({fast, slow}), source};
};

TEST_F(TwoClipMapper, SequenceTimesMapIntoTheirClips) {
  EXPECT_EQ(mapper.sequenceDuration(), ms(1'000 + 6'000));
  struct Case {
    ProjectTime sequence;
    std::optional<ProjectTime> source;
  };
  const Case cases[] = {
      {ns(-1), std::nullopt},
      {ns(0), ms(1'000)},
      {ns(1'000), ms(1'000) + ns(2'000)},
      {ms(1'000) - ns(1), ms(3'000) - ns(2)},
      {ms(1'000), ms(5'000)},                  // the first nanosecond of the second clip
      {ms(1'000) + ns(3), ms(5'000) + ns(2)},  // 1.5 rounds half up
      {ms(7'000) - ns(1), ms(8'000) - ns(1)},  // 2,999,999,999.5 would land on the end: clamped
      {ms(7'000), std::nullopt},
  };
  for (const auto& c : cases) {
    auto mapped = mapper.mappedTimeForSequenceTime(c.sequence);
    ASSERT_EQ(mapped.has_value(), c.source.has_value()) << c.sequence.nanoseconds;
    if (!mapped) continue;
    EXPECT_EQ(mapped->sourceTime, *c.source) << c.sequence.nanoseconds;
    EXPECT_EQ(mapped->sequenceTime, c.sequence);
    EXPECT_EQ(mapped->segmentID, c.sequence < ms(1'000) ? fast.id : slow.id);
  }
}

TEST_F(TwoClipMapper, TheSequenceEndMapsOnlyAsABoundary) {
  EXPECT_FALSE(mapper.mappedTimeForSequenceTime(mapper.sequenceDuration()));
  EXPECT_EQ(mapper.sourceTimeForSequenceBoundary(mapper.sequenceDuration()), ms(8'000));
  EXPECT_EQ(mapper.sourceTimeForSequenceBoundary(ms(1'000)), ms(5'000));
  EXPECT_EQ(mapper.sourceTimeForSequenceBoundary(ms(9'000)), std::nullopt);
}

TEST_F(TwoClipMapper, SourceTimesMapUnlessTheyWereCut) {
  struct Case {
    ProjectTime sourceTime;
    std::optional<ProjectTime> sequence;
  };
  const Case cases[] = {
      {ns(-1), std::nullopt},
      {ms(500), std::nullopt},  // before the first clip
      {ms(1'000), ns(0)},
      {ms(1'000) + ns(3), ns(2)},              // 1.5 rounds half up
      {ms(3'000) - ns(1), ms(1'000) - ns(1)},  // 999,999,999.5 would land on the end: clamped
      {ms(3'000), std::nullopt},               // in the cut
      {ms(5'000), ms(1'000)},
      {ms(6'000), ms(3'000)},
      {ms(8'000), std::nullopt},
      {source, std::nullopt},
  };
  for (const auto& c : cases) {
    auto mapped = mapper.mappedTimeForSourceTime(c.sourceTime);
    ASSERT_EQ(mapped.has_value(), c.sequence.has_value()) << c.sourceTime.nanoseconds;
    if (mapped) {
      EXPECT_EQ(mapped->sequenceTime, *c.sequence) << c.sourceTime.nanoseconds;
    }
  }
}

TEST_F(TwoClipMapper, DeletedTimesLandAtTheClipAfterTheCut) {
  EXPECT_EQ(mapper.nearestSequenceBoundary(ms(0)), ns(0));
  EXPECT_EQ(mapper.nearestSequenceBoundary(ms(2'000)), ms(500));
  EXPECT_EQ(mapper.nearestSequenceBoundary(ms(4'000)), ms(1'000));
  EXPECT_EQ(mapper.nearestSequenceBoundary(ms(9'000)), ms(7'000));
}

TEST_F(TwoClipMapper, SequenceDeltasScaleByTheClipsRateWithoutClamping) {
  EXPECT_EQ(mapper.sourceTimeByApplyingSequenceDelta(ns(1'000), ms(2'000), fast.id), ms(2'000) + ns(2'000));
  EXPECT_EQ(mapper.sourceTimeByApplyingSequenceDelta(ns(-1'000), ms(2'000), fast.id), ms(2'000) - ns(2'000));
  EXPECT_EQ(mapper.sourceTimeByApplyingSequenceDelta(ms(-10'000), ms(6'000), slow.id), ms(1'000));
  EXPECT_EQ(mapper.sourceTimeByApplyingSequenceDelta(ms(60'000), ms(6'000), slow.id), ms(36'000));
  EXPECT_EQ(mapper.sourceTimeByApplyingSequenceDelta(ns(1), ms(2'000), Uuid::random()), std::nullopt);
  EXPECT_EQ(mapper.sourceTimeByApplyingSequenceDelta(ns(std::numeric_limits<std::int64_t>::min()), ms(2'000), fast.id),
            std::nullopt);
  EXPECT_EQ(
      mapper.sourceTimeByApplyingSequenceDelta(ns(std::numeric_limits<std::int64_t>::max() / 2), ms(2'000), fast.id),
      std::nullopt);
}

TEST_F(TwoClipMapper, ProjectedRangesRoundOutwardAndNeverMerge) {
  // Wholly inside the cut: nothing of it plays.
  EXPECT_TRUE(mapper.projectedRanges({ms(3'000), ms(2'000)}).empty());
  // Across the cut: one range per clip, touching in the sequence.
  auto across = mapper.projectedRanges({ms(2'000), ms(4'000)});
  ASSERT_EQ(across.size(), 2u);
  EXPECT_EQ(across[0], (ProjectTimeRange{ms(500), ms(500)}));
  EXPECT_EQ(across[1], (ProjectTimeRange{ms(1'000), ms(2'000)}));
  // A sliver of one source nanosecond at double speed still shows as one sequence nanosecond.
  auto sliver = mapper.projectedRanges({ms(1'000) + ns(1), ns(1)});
  ASSERT_EQ(sliver.size(), 1u);
  EXPECT_EQ(sliver[0], (ProjectTimeRange{ns(0), ns(1)}));
  // Empty and reversed ranges give nothing; a range reaching past every clip is cut at the end.
  EXPECT_TRUE(mapper.projectedRanges({ms(2'000), ns(0)}).empty());
  EXPECT_TRUE(mapper.projectedRanges({ms(2'000), ns(-5)}).empty());
  auto everything = mapper.projectedRanges({ns(0), ns(std::numeric_limits<std::int64_t>::max())});
  ASSERT_EQ(everything.size(), 2u);
  EXPECT_EQ(everything[1].end(), ms(7'000));
}

TEST_F(TwoClipMapper, SourceRangesMirrorProjectedRanges) {
  auto all = mapper.sourceRanges({ns(0), mapper.sequenceDuration()});
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[0], fast.sourceRange);
  EXPECT_EQ(all[1], slow.sourceRange);
  auto part = mapper.sourceRanges({ms(500), ms(1'000)});
  ASSERT_EQ(part.size(), 2u);
  EXPECT_EQ(part[0], (ProjectTimeRange{ms(2'000), ms(1'000)}));
  EXPECT_EQ(part[1], (ProjectTimeRange{ms(5'000), ms(250)}));
  // One sequence nanosecond at half speed covers the half nanosecond of source rounded outward.
  auto sliver = mapper.sourceRanges({ms(1'000) + ns(1), ns(1)});
  ASSERT_EQ(sliver.size(), 1u);
  EXPECT_EQ(sliver[0], (ProjectTimeRange{ms(5'000), ns(1)}));
}

TEST_F(TwoClipMapper, RetainsEntireSourceRangeOnlyWithoutGaps) {
  EXPECT_TRUE(mapper.retainsEntireSourceRange({ms(1'000), ms(2'000)}));
  EXPECT_TRUE(mapper.retainsEntireSourceRange({ms(6'000), ns(1)}));
  EXPECT_TRUE(mapper.retainsEntireSourceRange({ms(4'000), ns(0)}));
  EXPECT_FALSE(mapper.retainsEntireSourceRange({ms(2'000), ms(4'000)}));
  EXPECT_FALSE(mapper.retainsEntireSourceRange({ms(1'000) - ns(1), ms(1)}));
  EXPECT_FALSE(mapper.retainsEntireSourceRange({ms(7'999), ms(2)}));
}

TEST(TimelineMapper, TouchingClipsWithDifferentRatesStayTwoRanges) {
  TimelineSegment a = clip(ms(0), ms(1'000), 1000), b = clip(ms(1'000), ms(2'000), 1500);
  TimelineMapper mapper(timelineOf({a, b}), source);
  auto ranges = mapper.projectedRanges({ms(500), ms(1'000)});
  ASSERT_EQ(ranges.size(), 2u);
  EXPECT_EQ(ranges[0].end(), ranges[1].start);
  EXPECT_TRUE(mapper.retainsEntireSourceRange({ms(0), ms(2'000)}));
}

TEST(TimelineMapper, FourTimesSpeedShortensAsStated) {
  // The sequence length of 2 ns at 4x is 1 ns (half rounds up); shown here through the rate
  // arithmetic the mapper uses, since a real clip is at least one frame.
  EXPECT_EQ(TimelineRateMath::sequenceNanoseconds(2, TimelinePlaybackRate{4000}, TimelineRateRounding::nearest), 1);
  EXPECT_EQ(TimelineRateMath::sequenceNanoseconds(3, TimelinePlaybackRate{500}, TimelineRateRounding::nearest), 6);
  TimelineMapper mapper(timelineOf({clip(ns(0), ns(100'000'003), 4000)}), source);
  EXPECT_EQ(mapper.sequenceDuration(), ns(25'000'001));
  // 100,000,002 ns would round onto the clip's end (25,000,001): it is held one before.
  EXPECT_EQ(mapper.mappedTimeForSourceTime(ns(100'000'002))->sequenceTime, ns(25'000'000));
}

TEST(TimelineMapper, RandomTimelinesMapMonotonicallyAndRoundTripWithinRounding) {
  std::mt19937_64 random(20261121);
  for (int round = 0; round < 60; ++round) {
    const std::int64_t sourceNs = 60'000'000'000;
    std::vector<TimelineSegment> segments;
    std::int64_t cursor = std::uniform_int_distribution<std::int64_t>(0, 1'000'000'000)(random);
    while (segments.size() < 20) {
      std::int64_t length = std::uniform_int_distribution<std::int64_t>(70'000'000, 3'000'000'000)(random);
      if (cursor + length > sourceNs) break;
      std::int32_t permille = 500 + 10 * std::uniform_int_distribution<std::int32_t>(0, 350)(random);
      segments.push_back(clip(ns(cursor), ns(cursor + length), permille));
      cursor += length + std::uniform_int_distribution<std::int64_t>(0, 1)(random) *
                             std::uniform_int_distribution<std::int64_t>(1, 500'000'000)(random);
    }
    TimelineMapper mapper(timelineOf(segments), ns(sourceNs));
    std::int64_t previousSource = -1;
    for (std::int64_t t = 0; t < mapper.sequenceDuration().nanoseconds; t += 7'777'777) {
      auto mapped = mapper.mappedTimeForSequenceTime(ns(t));
      ASSERT_TRUE(mapped) << t;
      ASSERT_GE(mapped->sourceTime.nanoseconds, previousSource) << t;
      previousSource = mapped->sourceTime.nanoseconds;
      auto back = mapper.mappedTimeForSourceTime(mapped->sourceTime);
      ASSERT_TRUE(back) << t;
      ASSERT_LE(std::abs(back->sequenceTime.nanoseconds - t), 2) << t;
      ASSERT_EQ(back->segmentID, mapped->segmentID);
    }
    // Every clip is retained, and its projection covers exactly its sequence range.
    for (const auto& p : mapper.projections()) {
      ASSERT_TRUE(mapper.retainsEntireSourceRange(p.segment.sourceRange));
      auto ranges = mapper.projectedRanges(p.segment.sourceRange);
      ASSERT_EQ(ranges.size(), 1u);
      ASSERT_EQ(ranges[0], p.sequenceRange);
    }
  }
}

}  // namespace
}  // namespace vumo
