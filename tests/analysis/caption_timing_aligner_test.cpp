#include "analysis/caption_timing_aligner.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "support/builders.h"
#include "support/envelope_builder.h"

namespace vumo {
namespace {

using namespace vumo::testing;
using Bursts = std::vector<std::pair<std::int64_t, std::int64_t>>;

// Ten seconds of digital silence with loud bursts: the noise floor is -96 dB, the threshold -55.
WaveformEnvelope silenceWith(const Bursts& bursts) {
  EnvelopeBuilder builder;
  for (auto [start, end] : bursts) builder.burst(start, end);
  return builder.silenceUntil(10'000).build();
}

CaptionCue cueOf(int number, std::int64_t startMs, std::int64_t endMs, Bursts words = {}) {
  CaptionCue cue{Uuid::random(), ms(startMs), ms(endMs), "字幕 " + std::to_string(number), {}, {}};
  for (auto [start, end] : words) cue.words.push_back({ms(start), ms(end), "字"});
  return cue;
}

CaptionDocument documentOf(std::vector<CaptionCue> cues) {
  CaptionDocument document;
  document.sourceAudioDigest = std::string(64, 'a');
  document.language = "zh-CN";
  document.style.fontScale = 1.2;
  document.cues = std::move(cues);
  return document;
}

TEST(CaptionTimingAlignerTest, EachCueShrinksTowardsItsSound) {
  using Action = CaptionTimingAlignmentAction;
  struct Case {
    std::string name;
    CaptionCue cue;
    Bursts bursts;
    ProjectTimeRange expected;
    Action action;
  };
  const std::vector<Case> cases = {
      {"sound from 2.0 to 2.5 s of a 5 s cue", cueOf(0, 0, 5000), {{2000, 2500}}, rangeMs(1900, 2650), Action::aligned},
      {"60 ms bursts 100 ms apart join and count",
       cueOf(0, 0, 5000),
       {{2000, 2060}, {2160, 2220}},
       rangeMs(1900, 2370),
       Action::aligned},
      {"140 ms apart each must reach 80 ms alone",
       cueOf(0, 0, 5000),
       {{2000, 2060}, {2200, 2260}},
       rangeMs(0, 5000),
       Action::unchangedNoActivity},
      {"140 ms apart and both long enough: first start to last end",
       cueOf(0, 0, 5000),
       {{2000, 2100}, {2240, 2340}},
       rangeMs(1900, 2490),
       Action::aligned},
      {"a 60 ms burst alone is no activity",
       cueOf(0, 0, 5000),
       {{2000, 2060}},
       rangeMs(0, 5000),
       Action::unchangedNoActivity},
      {"and beside real sound it is ignored",
       cueOf(0, 0, 5000),
       {{1000, 1060}, {3000, 3200}},
       rangeMs(2900, 3350),
       Action::aligned},
      {"100 ms of sound padded to 350 ms needs no extension",
       cueOf(0, 0, 5000),
       {{2000, 2100}},
       rangeMs(1900, 2250),
       Action::aligned},
      {"80 ms at the start of a 1 s cue: the end moves to 300 ms",
       cueOf(0, 0, 1000),
       {{0, 80}},
       rangeMs(0, 300),
       Action::aligned},
      {"80 ms at the end of a long cue: the start goes 300 ms before it",
       cueOf(0, 0, 5000),
       {{4920, 5000}},
       rangeMs(4700, 5000),
       Action::aligned},
      {"sound filling the cue", cueOf(0, 1000, 2000), {{0, 3000}}, rangeMs(1000, 2000), Action::unchangedAlreadyTight},
      {"a cue shorter than 300 ms ends as it was",
       cueOf(0, 1000, 1200),
       {{1100, 1180}},
       rangeMs(1000, 1200),
       Action::unchangedAlreadyTight},
      {"sound before the cue does not pull it back",
       cueOf(0, 1000, 3000),
       {{900, 1300}},
       rangeMs(1000, 1450),
       Action::aligned},
      {"words reaching beyond the sound stay whole",
       cueOf(0, 0, 5000, {{1500, 1800}, {2000, 2900}}),
       {{2000, 2500}},
       rangeMs(1500, 2900),
       Action::aligned},
      {"a cue beyond the envelope has no buckets",
       cueOf(0, 12'000, 13'000),
       {{0, 10'000}},
       rangeMs(12'000, 13'000),
       Action::unchangedNoActivity},
  };
  for (const Case& c : cases) {
    const CaptionDocument document = documentOf({c.cue});
    const auto result = CaptionTimingAligner::align(document, silenceWith(c.bursts));
    ASSERT_EQ(result.adjustments.size(), 1u) << c.name;
    const CaptionTimingAdjustment& adjustment = result.adjustments[0];
    EXPECT_EQ(adjustment.cueIndex, 0) << c.name;
    EXPECT_EQ(adjustment.originalRange, span(c.cue.start, c.cue.end)) << c.name;
    EXPECT_EQ(adjustment.adjustedRange, c.expected) << c.name;
    EXPECT_EQ(adjustment.action, c.action) << c.name;
    // Only the times change; text, words and the rest of the document stay.
    CaptionDocument expectedDocument = document;
    expectedDocument.cues[0].start = c.expected.start;
    expectedDocument.cues[0].end = c.expected.end();
    EXPECT_EQ(result.document, expectedDocument) << c.name;
  }
}

TEST(CaptionTimingAlignerTest, TheThresholdFollowsTheNoiseFloor) {
  // A hum at magnitude 328 (-39.99 dB) raises the threshold to -31.99 dB: a burst at 1000 (-30.3 dB)
  // is sound above it, one at 700 (-33.4 dB) is not.
  const double hum = peakLevelDecibels({-328, 328});
  auto humWith = [](std::int16_t burst) {
    return EnvelopeBuilder().then(2000, 328).then(500, burst).then(7500, 328).build();
  };
  const CaptionDocument document = documentOf({cueOf(0, 0, 5000)});

  auto louder = CaptionTimingAligner::align(document, humWith(1000));
  EXPECT_DOUBLE_EQ(louder.estimatedNoiseFloorDecibels, hum);
  EXPECT_DOUBLE_EQ(louder.thresholdDecibels, hum + 8.0);
  EXPECT_EQ(louder.adjustments[0].adjustedRange, rangeMs(1900, 2650));
  auto quieter = CaptionTimingAligner::align(document, humWith(700));
  EXPECT_EQ(quieter.adjustments[0].action, CaptionTimingAlignmentAction::unchangedNoActivity);

  // Digital silence in more than a quarter of the buckets puts the floor at -96 and the threshold
  // at its lowest, -55; in exactly a quarter (125 of 500) the quartile is the hum.
  auto silentQuarter = [](std::int64_t silenceMs) {
    return EnvelopeBuilder().silence(silenceMs).then(10'000 - silenceMs, 328).build();
  };
  auto moreThanAQuarter = CaptionTimingAligner::align(document, silentQuarter(2520));
  EXPECT_EQ(moreThanAQuarter.estimatedNoiseFloorDecibels, -96.0);
  EXPECT_EQ(moreThanAQuarter.thresholdDecibels, -55.0);
  EXPECT_DOUBLE_EQ(CaptionTimingAligner::align(document, silentQuarter(2500)).thresholdDecibels, hum + 8.0);
}

TEST(CaptionTimingAlignerTest, CuesWithoutSoundAreNamedInOneWarning) {
  auto silentCues = [](int count) {
    std::vector<CaptionCue> cues;
    for (int i = 0; i < count; ++i) cues.push_back(cueOf(i, i * 400, i * 400 + 300));
    return documentOf(std::move(cues));
  };
  const WaveformEnvelope silence = silenceWith({});

  const CaptionDocument twentyOneCues = silentCues(21);
  auto twentyOne = CaptionTimingAligner::align(twentyOneCues, silence);
  EXPECT_EQ(twentyOne.warnings,
            (std::vector<std::string>{"Reliable audio activity was not detected for 21 captions. Original timing was "
                                      "kept (indices: 0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19…)."}));
  ASSERT_EQ(twentyOne.adjustments.size(), 21u);
  EXPECT_EQ(twentyOne.adjustments[20].cueIndex, 20);
  EXPECT_EQ(twentyOne.document, twentyOneCues);

  auto twenty = CaptionTimingAligner::align(silentCues(20), silence);
  EXPECT_EQ(twenty.warnings,
            (std::vector<std::string>{"Reliable audio activity was not detected for 20 captions. Original timing was "
                                      "kept (indices: 0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19)."}));

  const CaptionDocument mixed = documentOf({cueOf(0, 0, 1000), cueOf(1, 2000, 3000), cueOf(2, 4000, 5000)});
  auto some = CaptionTimingAligner::align(mixed, silenceWith({{2400, 2600}}));
  EXPECT_EQ(some.warnings, (std::vector<std::string>{"Reliable audio activity was not detected for 2 captions. "
                                                     "Original timing was kept (indices: 0,2)."}));
  EXPECT_EQ(some.adjustments[1].action, CaptionTimingAlignmentAction::aligned);
  EXPECT_EQ(some.adjustments[2].cueIndex, 2);

  EXPECT_TRUE(CaptionTimingAligner::align(mixed, silenceWith({{0, 10'000}})).warnings.empty());
  EXPECT_TRUE(CaptionTimingAligner::align(documentOf({}), silence).warnings.empty());
}

}  // namespace
}  // namespace vumo
