#include "analysis/timeline_idle_analyzer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "analysis/audio_activity_analyzer.h"
#include "support/builders.h"
#include "support/envelope_builder.h"

namespace vumo {
namespace {

using namespace vumo::testing;
using Ranges = std::vector<ProjectTimeRange>;

TEST(TimelineIdleAnalyzerTest, MergeJoinsWithinTheGapAndDropsEmptyRanges) {
  struct Case {
    std::string name;
    std::int64_t gapMs;
    Ranges input;
    Ranges expected;
  };
  const std::vector<Case> cases = {
      {"touching ranges join at gap 0", 0, {rangeMs(0, 100), rangeMs(100, 200)}, {rangeMs(0, 200)}},
      {"a nanosecond apart stay apart at gap 0",
       0,
       {rangeMs(0, 100), span(ms(100) + ns(1), ms(200))},
       {rangeMs(0, 100), span(ms(100) + ns(1), ms(200))}},
      {"a gap of exactly the gap joins", 250, {rangeMs(0, 100), rangeMs(350, 400)}, {rangeMs(0, 400)}},
      {"a millisecond more does not", 250, {rangeMs(0, 100), rangeMs(351, 400)}, {rangeMs(0, 100), rangeMs(351, 400)}},
      {"sorted first; a contained range keeps the longer end",
       0,
       {rangeMs(500, 600), rangeMs(0, 100), rangeMs(50, 80)},
       {rangeMs(0, 100), rangeMs(500, 600)}},
      // Kept, the empty range would bridge the two real ones.
      {"empty and negative ranges bridge nothing",
       250,
       {rangeMs(0, 100), rangeMs(300, 300), {ms(320), ms(-10)}, rangeMs(500, 600)},
       {rangeMs(0, 100), rangeMs(500, 600)}},
  };
  for (const Case& c : cases) EXPECT_EQ(TimelineIdleAnalyzer::merge(c.input, ms(c.gapMs)), c.expected) << c.name;
}

TEST(TimelineIdleAnalyzerTest, ComplementAndMinimum) {
  struct Case {
    std::string name;
    Ranges input;
    Ranges expected;
  };
  const std::vector<Case> cases = {
      {"nothing busy", {}, {rangeMs(0, 1000)}},
      {"overlapping busy ranges",
       {rangeMs(0, 100), rangeMs(50, 300), rangeMs(600, 700)},
       {rangeMs(300, 600), rangeMs(700, 1000)}},
      {"a contained range does not pull the cursor back",
       {rangeMs(100, 200), rangeMs(150, 180)},
       {rangeMs(0, 100), rangeMs(200, 1000)}},
      {"busy beyond the end", {rangeMs(200, 1200)}, {rangeMs(0, 200)}},
  };
  for (const Case& c : cases) EXPECT_EQ(TimelineIdleAnalyzer::complement(c.input, ms(1000)), c.expected) << c.name;

  EXPECT_EQ(TimelineIdleAnalyzer::filterMinimum({rangeMs(0, 1499), rangeMs(0, 1500), rangeMs(0, 1501)}, ms(1500)),
            (Ranges{rangeMs(0, 1500), rangeMs(0, 1501)}));
}

MouseEvent eventAt(std::int64_t nanoseconds, std::optional<bool> inside = std::nullopt) {
  MouseEvent event = press(0, {0.5, 0.5}, MouseButton::none, inside, MousePhase::moved);
  event.time = ns(nanoseconds);
  return event;
}

TEST(TimelineIdleAnalyzerTest, PointerEventsKeepHalfASecondEitherSideBusy) {
  constexpr std::int64_t second = 1'000'000'000;
  constexpr std::int64_t largest = std::numeric_limits<std::int64_t>::max();
  constexpr std::int64_t smallest = std::numeric_limits<std::int64_t>::min();
  struct Case {
    std::string name;
    std::vector<MouseEvent> events;
    std::int64_t minimumMs;
    Ranges expectedIdle;
  };
  const std::vector<Case> cases = {
      {"no events: idle throughout", {}, 1500, {rangeMs(0, 10'000)}},
      {"events outside the source are as if absent", {eventAt(5 * second, false)}, 1500, {rangeMs(0, 10'000)}},
      {"inside, and a mere move, counts", {eventAt(5 * second, true)}, 1, {rangeMs(0, 4500), rangeMs(5500, 10'000)}},
      {"an event at 0 is busy for 500 ms", {eventAt(0)}, 1, {rangeMs(500, 10'000)}},
      {"1.25 s apart the windows join",
       {eventAt(2 * second), eventAt(3'250'000'000)},
       1,
       {rangeMs(0, 1500), rangeMs(3750, 10'000)}},
      {"1.26 s apart they leave 260 ms",
       {eventAt(2 * second), eventAt(3'260'000'000)},
       1,
       {rangeMs(0, 1500), rangeMs(2500, 2760), rangeMs(3760, 10'000)}},
      {"which the default minimum drops, keeping 1500 ms exactly",
       {eventAt(2 * second), eventAt(3'260'000'000)},
       1500,
       {rangeMs(0, 1500), rangeMs(3760, 10'000)}},
      {"events in any order",
       {eventAt(6 * second), eventAt(2 * second)},
       1,
       {rangeMs(0, 1500), rangeMs(2500, 5500), rangeMs(6500, 10'000)}},
      {"windows stop at the end", {eventAt(10'400'000'000)}, 1, {rangeMs(0, 9900)}},
      {"and at 0", {eventAt(-400'000'000)}, 1, {rangeMs(100, 10'000)}},
      {"events beyond either end, however far",
       {eventAt(10'500'000'000), eventAt(-500'000'000), eventAt(largest), eventAt(smallest)},
       1,
       {rangeMs(0, 10'000)}},
  };
  for (const Case& c : cases) {
    auto analysis = TimelineIdleAnalyzer::analyze({}, c.events, ms(10'000), ms(c.minimumMs), -42.0);
    EXPECT_EQ(analysis.idleRanges, c.expectedIdle) << c.name;
  }
}

TEST(TimelineIdleAnalyzerTest, SilentRunsOfBuckets) {
  const double atTwoSixty = peakLevelDecibels(peakOf(260));
  struct Case {
    std::string name;
    WaveformEnvelope envelope;
    ProjectTime duration;
    double threshold;
    Ranges expected;
  };
  WaveformEnvelope borderline;
  borderline.peaks = {peakOf(260), peakOf(261), peakOf(260), peakOf(261)};
  const std::vector<Case> cases = {
      {"an envelope without peaks has no silence", {}, ms(1000), -42.0, {}},
      {"runs between sounds", envelopeOf("##..#"), ms(100), -42.0, {rangeMs(40, 80)}},
      {"a silent last bucket reaches the end of the recording",
       envelopeOf("#.."),
       ms(1000),
       -42.0,
       {rangeMs(20, 1000)}},
      {"time behind a loud last bucket is not silent", envelopeOf("..#"), ms(1000), -42.0, {rangeMs(0, 40)}},
      {"an envelope longer than the recording is cut at its end", envelopeOf("....#"), ms(50), -42.0, {rangeMs(0, 50)}},
      {"a run starting after the end is nothing", envelopeOf("##..#"), ms(30), -42.0, {}},
      {"digital silence lies at -96 and is silent there", envelopeOf("..#"), ms(60), -96.0, {rangeMs(0, 40)}},
      {"a bucket exactly at the threshold is silent",
       borderline,
       ms(80),
       atTwoSixty,
       {rangeMs(0, 20), rangeMs(40, 60)}},
      {"below the quietest level nothing is", envelopeOf("..."), ms(60), -96.5, {}},
  };
  for (const Case& c : cases)
    EXPECT_EQ(TimelineIdleAnalyzer::silentRanges(&c.envelope, c.duration, c.threshold), c.expected) << c.name;

  EXPECT_EQ(TimelineIdleAnalyzer::silentRanges(nullptr, ms(1000), -42.0), (Ranges{rangeMs(0, 1000)}));
  EXPECT_TRUE(TimelineIdleAnalyzer::silentRanges(nullptr, ProjectTime::zero(), -42.0).empty());
}

// Every possible magnitude once, in ascending order: the levels only grow, so at any threshold the
// silent buckets are a prefix and the active ones the rest. The bounds are counted here from the
// level of each bucket, the definition itself.
TEST(TimelineIdleAnalyzerTest, EveryMagnitudeIsJudgedByItsOwnLevel) {
  WaveformEnvelope all;
  for (int magnitude = 0; magnitude <= 32768; ++magnitude) all.peaks.push_back(peakOf(magnitude));
  const ProjectTime length{static_cast<std::int64_t>(all.peaks.size()) * WaveformEnvelope::bucketNanoseconds};
  const ProjectTimeRange whole{ProjectTime::zero(), length};
  for (double threshold : {-120.0, -96.0, peakLevelDecibels(peakOf(1)), -42.0, peakLevelDecibels(peakOf(260)),
                           peakLevelDecibels(peakOf(261)), -6.02, peakLevelDecibels(peakOf(32767)), 0.0,
                           peakLevelDecibels(peakOf(32768)), 1.0}) {
    std::int64_t silentCount = 0;
    for (WaveformPeak peak : all.peaks)
      if (peakLevelDecibels(peak) <= threshold) ++silentCount;
    const ProjectTime boundary{silentCount * WaveformEnvelope::bucketNanoseconds};
    const Ranges silent = silentCount == 0 ? Ranges{} : Ranges{span(ProjectTime::zero(), boundary)};
    const Ranges active = boundary == length ? Ranges{} : Ranges{span(boundary, length)};
    EXPECT_EQ(TimelineIdleAnalyzer::silentRanges(&all, length, threshold), silent) << threshold;
    EXPECT_EQ(AudioActivityAnalyzer::activeRanges(whole, all, threshold, ProjectTime::zero(), ProjectTime::zero()),
              active)
        << threshold;
  }
}

TEST(TimelineIdleAnalyzerTest, IntersectionsAreAMajorAndExcludeTouching) {
  EXPECT_EQ(TimelineIdleAnalyzer::intersections({rangeMs(0, 1000), rangeMs(2000, 3000)},
                                                {rangeMs(500, 2500), rangeMs(2800, 4000)}),
            (Ranges{rangeMs(500, 1000), rangeMs(2000, 2500), rangeMs(2800, 3000)}));
  EXPECT_TRUE(TimelineIdleAnalyzer::intersections({rangeMs(0, 100)}, {rangeMs(100, 200)}).empty());
}

TEST(TimelineIdleAnalyzerTest, AnalysisOfARecording) {
  // Pointer windows [500, 1500) and [5500, 6500); the envelope ends silent at 8 s and so stays
  // silent to the end at 10 s.
  const WaveformEnvelope envelope = EnvelopeBuilder()
                                        .sound(2000)
                                        .silenceUntil(4000)
                                        .sound(200)
                                        .silenceUntil(5600)  // 1400 ms: below the minimum
                                        .sound(400)
                                        .silenceUntil(8000)
                                        .build();
  const std::vector<MouseEvent> events = {eventAt(1'000'000'000), eventAt(6'000'000'000),
                                          eventAt(3'000'000'000, false)};
  auto analysis = TimelineIdleAnalyzer::analyze(envelope, events, ms(10'000), ms(1500), -42.0);
  EXPECT_EQ(analysis.idleRanges, (Ranges{rangeMs(1500, 5500), rangeMs(6500, 10'000)}));
  EXPECT_EQ(analysis.silenceRanges, (Ranges{rangeMs(2000, 4000), rangeMs(6000, 10'000)}));
  EXPECT_EQ(analysis.quietRanges, (Ranges{rangeMs(2000, 4000), rangeMs(6500, 10'000)}));

  // A recording without length has nothing to report, whatever its envelope and events.
  for (ProjectTime duration : {ProjectTime::zero(), ns(-1)})
    EXPECT_EQ(TimelineIdleAnalyzer::analyze(envelope, events, duration, ms(1500), -42.0), TimelineIdleAnalysis{});
}

TEST(TimelineIdleAnalyzerTest, NormalizedRangesShrinkToTheFrameGridAndJoin) {
  struct Case {
    std::string name;
    Ranges input;
    Ranges expected;
  };
  const std::vector<Case> cases = {
      {"grid times stay", {rangeMs(1000, 2000)}, {rangeMs(1000, 2000)}},
      // 16,666,666 is frame 1; a nanosecond above it goes up to frame 2.
      {"less than a frame inside vanishes", {rangeNs(1, 16'666'667)}, {}},
      {"a nanosecond above a truncated line goes up a frame",
       {rangeNs(16'666'667, 50'000'001)},
       {rangeNs(33'333'333, 50'000'000)}},
      {"negative times count as 0", {span(ns(-5'000'000'000), ms(100))}, {rangeMs(0, 100)}},
      {"touching and overlapping ranges join",
       {rangeMs(150, 300), rangeMs(0, 100), rangeMs(100, 200)},
       {rangeMs(0, 300)}},
      {"the end goes down", {rangeMs(1000, 1020)}, {rangeNs(1'000'000'000, 1'016'666'666)}},
  };
  for (const Case& c : cases) EXPECT_EQ(TimelineIdleAnalyzer::normalizedRanges(c.input), c.expected) << c.name;
}

TEST(TimelineIdleAnalyzerTest, RecommendedCutsKeepTheTailAndOnlyCutWhatStillPlays) {
  const ProjectTime oneFrameOver = ms(1000) + ns(16'666'667);
  struct Case {
    std::string name;
    Ranges quiet;
    Ranges retained;
    std::int64_t keepTailMs;
    ProjectTime minimumRemoval;
    Ranges expected;
  };
  const std::vector<Case> cases = {
      {"1500 ms quiet: the first 1000 ms",
       {rangeMs(1000, 2500)},
       {rangeMs(0, 10'000)},
       500,
       ms(150),
       {rangeMs(1000, 2000)}},
      {"no tail kept", {rangeMs(1000, 2500)}, {rangeMs(0, 10'000)}, 0, ms(150), {rangeMs(1000, 2500)}},
      {"a span no longer than the tail yields nothing", {rangeMs(1000, 1400)}, {rangeMs(0, 10'000)}, 500, ms(17), {}},
      {"one cut each side of a cut in the timeline",
       {rangeMs(1000, 5000)},
       {rangeMs(0, 2000), rangeMs(3000, 10'000)},
       500,
       ms(150),
       {rangeMs(1000, 2000), rangeMs(3000, 4500)}},
      {"one when the pieces join",
       {rangeMs(1000, 5000)},
       {rangeMs(0, 2000), rangeMs(2000, 10'000)},
       500,
       ms(150),
       {rangeMs(1000, 4500)}},
      {"nothing from a span already cut away",
       {rangeMs(1000, 5000)},
       {rangeMs(0, 1000), rangeMs(5000, 10'000)},
       500,
       ms(17),
       {}},
      {"not before what plays", {rangeMs(500, 3000)}, {rangeMs(1000, 10'000)}, 500, ms(150), {rangeMs(1000, 2500)}},
      {"one frame (16.7 ms) is below any allowed minimum",
       {span(ms(1000), oneFrameOver + ms(500))},
       {rangeMs(0, 10'000)},
       500,
       ms(17),
       {}},
      {"a cut of exactly the minimum stays",
       {span(ms(1000), oneFrameOver + ms(500))},
       {rangeMs(0, 10'000)},
       500,
       ns(16'666'666),
       {rangeNs(1'000'000'000, 1'016'666'666)}},
      {"150 ms at a minimum of 150",
       {rangeMs(1000, 1650), rangeMs(3000, 3651)},
       {rangeMs(0, 10'000)},
       500,
       ms(150),
       {rangeMs(1000, 1150), rangeMs(3000, 3150)}},
      {"but not at 151", {rangeMs(1000, 1650)}, {rangeMs(0, 10'000)}, 500, ms(151), {}},
  };
  for (const Case& c : cases) {
    TimelineIdleAnalysis analysis;
    analysis.quietRanges = c.quiet;
    EXPECT_EQ(TimelineIdleAnalyzer::recommendedCuts(analysis, c.retained, ms(c.keepTailMs), c.minimumRemoval),
              c.expected)
        << c.name;
  }
}

}  // namespace
}  // namespace vumo
