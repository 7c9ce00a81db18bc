#include "analysis/audio_activity_analyzer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/builders.h"
#include "support/envelope_builder.h"

namespace vumo {
namespace {

using namespace vumo::testing;
using Ranges = std::vector<ProjectTimeRange>;

WaveformEnvelope envelopeOfMagnitudes(const std::vector<int>& magnitudes) {
  WaveformEnvelope envelope;
  for (int magnitude : magnitudes) envelope.peaks.push_back(peakOf(magnitude));
  return envelope;
}

TEST(AudioActivityAnalyzerTest, NoiseFloorIsTheLowerQuartileOfAllBuckets) {
  struct Case {
    std::string name;
    std::vector<int> magnitudes;
    int expectedMagnitude;
  };
  const std::vector<Case> cases = {
      {"four peaks: index 1 of the sorted levels", {4000, 10, 2000, 300}, 300},
      {"three peaks: index 0", {4000, 10, 2000}, 10},
      {"one peak", {500}, 500},
      {"two silent buckets of eight are not enough for -96", {0, 900, 50, 700, 0, 600, 800, 1000}, 50},
      {"three are", {0, 900, 0, 700, 0, 600, 800, 1000}, 0},
      {"the most negative sample lies above 0 dB", {32768, 32768, 32768, 32768}, 32768},
  };
  for (const Case& c : cases) {
    const WaveformEnvelope envelope = envelopeOfMagnitudes(c.magnitudes);
    EXPECT_EQ(AudioActivityAnalyzer::estimatedNoiseFloor(&envelope), peakLevelDecibels(peakOf(c.expectedMagnitude)))
        << c.name;
  }
  EXPECT_EQ(peakLevelDecibels(peakOf(0)), -96.0);
  EXPECT_GT(peakLevelDecibels(peakOf(32768)), 0.0);

  const WaveformEnvelope empty;
  EXPECT_EQ(AudioActivityAnalyzer::estimatedNoiseFloor(nullptr), -96.0);
  EXPECT_EQ(AudioActivityAnalyzer::estimatedNoiseFloor(&empty), -96.0);
}

TEST(AudioActivityAnalyzerTest, RecommendedThresholdLiesEightAboveTheFloorWithinLimits) {
  const std::vector<std::pair<double, double>> cases = {
      {-20.0, -30.0}, {-90.0, -55.0}, {-40.0, -32.0}, {-96.0, -55.0}, {-63.0, -55.0}, {-38.0, -30.0}, {-50.0, -42.0},
  };
  for (auto [floor, expected] : cases)
    EXPECT_DOUBLE_EQ(AudioActivityAnalyzer::recommendedThreshold(floor), expected) << floor;
}

TEST(AudioActivityAnalyzerTest, ActiveRangesOfOneRange) {
  struct Case {
    std::string name;
    WaveformEnvelope envelope;
    ProjectTimeRange range;
    double threshold;
    std::int64_t mergeGapMs;
    std::int64_t minimumMs;
    Ranges expected;
  };
  const double atTwoSixty = peakLevelDecibels(peakOf(260));
  const std::vector<Case> cases = {
      {"runs of loud buckets",
       envelopeOf("..##..##.."),
       rangeMs(0, 200),
       -55.0,
       0,
       0,
       {rangeMs(40, 80), rangeMs(120, 160)}},
      {"a pause of exactly the gap joins", envelopeOf("..##..##.."), rangeMs(0, 200), -55.0, 40, 0, {rangeMs(40, 160)}},
      {"a shorter gap does not",
       envelopeOf("..##..##.."),
       rangeMs(0, 200),
       -55.0,
       39,
       0,
       {rangeMs(40, 80), rangeMs(120, 160)}},
      {"a run of exactly the minimum stays",
       envelopeOf("..##..###."),
       rangeMs(0, 200),
       -55.0,
       0,
       40,
       {rangeMs(40, 80), rangeMs(120, 180)}},
      {"shorter ones go", envelopeOf("..##..###."), rangeMs(0, 200), -55.0, 0, 41, {rangeMs(120, 180)}},
      {"clipped to a range that starts and ends inside buckets",
       envelopeOf("..##..##.."),
       rangeMs(50, 150),
       -55.0,
       0,
       0,
       {rangeMs(50, 80), rangeMs(120, 150)}},
      {"clipped after merging", envelopeOf("##.##....."), rangeMs(30, 200), -55.0, 20, 50, {rangeMs(30, 100)}},
      {"time beyond the envelope has no sound",
       envelopeOf("....######"),
       rangeMs(100, 500),
       -55.0,
       0,
       0,
       {rangeMs(100, 200)}},
      {"a range wholly beyond it has no buckets", envelopeOf("##########"), rangeMs(300, 400), -55.0, 0, 0, {}},
      {"a negative start reads from bucket 0", envelopeOf("##...."), rangeMs(-100, 100), -55.0, 0, 0, {rangeMs(0, 40)}},
      {"an empty range has nothing", envelopeOf("##########"), span(ms(40), ms(40)), -55.0, 0, 0, {}},
      {"a bucket exactly at the threshold is not active",
       envelopeOfMagnitudes({260, 261, 260, 261, 261}),
       rangeMs(0, 100),
       atTwoSixty,
       0,
       0,
       {rangeMs(20, 40), rangeMs(60, 100)}},
  };
  for (const Case& c : cases)
    EXPECT_EQ(AudioActivityAnalyzer::activeRanges(c.range, c.envelope, c.threshold, ms(c.mergeGapMs), ms(c.minimumMs)),
              c.expected)
        << c.name;
}

}  // namespace
}  // namespace vumo
