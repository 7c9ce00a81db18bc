#include "captions/caption_coverage.h"

#include <gtest/gtest.h>

#include "captions/caption_errors.h"
#include "support/builders.h"
#include "support/test_support.h"

namespace vumo {
namespace {

using namespace vumo::testing;

const ProjectTime source = ms(10'000);

CaptionCue cue(std::int64_t start, std::int64_t end, std::vector<std::pair<std::int64_t, std::int64_t>> words = {}) {
  CaptionCue c{Uuid::random(), ms(start), ms(end), "字幕", {}, {}};
  for (auto [ws, we] : words) c.words.push_back({ms(ws), ms(we), "字"});
  return c;
}

CaptionDocument documentOf(std::vector<CaptionCue> cues) {
  CaptionDocument document;
  document.cues = std::move(cues);
  return document;
}

TEST(CaptionCoverageTest, EveryMillisecondOfACueMustBeRetained) {
  EditTimeline adjoining = timelineWith({{0, 4000}, {4000, 10'000}});
  EXPECT_NO_THROW(validateCaptionCoverage(documentOf({cue(3000, 5000)}), adjoining, source));

  EditTimeline gap = timelineWith({{0, 4000}, {4500, 10'000}});
  EXPECT_NO_THROW(validateCaptionCoverage(documentOf({cue(1000, 3999), cue(4500, 6000)}), gap, source));
  try {
    validateCaptionCoverage(documentOf({cue(1000, 2000), cue(3900, 4600)}), gap, source);
    FAIL();
  } catch (const CaptionValidationError& e) {
    EXPECT_EQ(e.kind(), CaptionValidationError::Case::cueCrossesRemovedContent);
  }
  // The check is in whole milliseconds, so a sliver below one goes unnoticed.
  EditTimeline sliver = timelineWith({{0, 4000}});
  sliver.segments[0].sourceRange.duration = ProjectTime{4'000'000'000 - 400'000};
  EXPECT_NO_THROW(validateCaptionCoverage(documentOf({cue(3000, 3999)}), sliver, source));
}

TEST(CaptionImpactTest, CutsClassifyCuesAndSpeedAloneAffectsNone) {
  EditTimeline original = timelineWith({{0, 10'000}});
  CaptionCue untouched = cue(0, 1000);
  CaptionCue removed = cue(2000, 3000);
  CaptionCue wordsHit = cue(4500, 6500, {{4500, 5200}, {5300, 6500}});
  CaptionCue edgeOnly = cue(7000, 8000, {{7000, 7400}});
  auto document = documentOf({untouched, removed, wordsHit, edgeOnly});
  std::vector<ProjectTimeRange> cuts = {rangeMs(1500, 3500), rangeMs(5000, 5100), rangeMs(7600, 8200)};
  EditTimeline resulting = timelineWith({{0, 1500}, {3500, 5000}, {5100, 7600}, {8200, 10'000}});

  auto impact = captionImpact(document, original, resulting, cuts, source);
  EXPECT_EQ(impact.removed, (std::vector<Uuid>{removed.id}));
  EXPECT_EQ(impact.split, (std::vector<Uuid>{wordsHit.id, edgeOnly.id}));
  ASSERT_EQ(impact.impacts.size(), 3u);
  EXPECT_EQ(impact.impacts[0].cueID, removed.id);
  EXPECT_EQ(impact.impacts[0].kind, CaptionImpactKind::fullyRemoved);
  EXPECT_EQ(impact.impacts[0].affectedCutRanges, (std::vector<ProjectTimeRange>{cuts[0]}));
  EXPECT_EQ(impact.impacts[1].kind, CaptionImpactKind::wordTimingOverlap);
  EXPECT_TRUE(impact.impacts[1].hasWordTimings);
  EXPECT_EQ(impact.impacts[1].affectedCutRanges, (std::vector<ProjectTimeRange>{cuts[1]}));
  EXPECT_EQ(impact.impacts[2].kind, CaptionImpactKind::cueTimingOverlap);
  // The words the command line reports for each kind.
  EXPECT_EQ(nameOf(impact.impacts[0].kind), "fully-removed");
  EXPECT_EQ(nameOf(impact.impacts[1].kind), "word-timing-overlap");
  EXPECT_EQ(nameOf(impact.impacts[2].kind), "cue-timing-overlap");

  EditTimeline faster = timelineOf({clip(ms(0), ms(10'000), 2000)});
  EXPECT_TRUE(captionImpact(document, original, faster, {}, source).impacts.empty());
  EXPECT_TRUE(captionImpact(std::nullopt, original, resulting, cuts, source).impacts.empty());
  // A timeline that cannot be mapped makes the impact unknown, which is no error.
  EXPECT_TRUE(captionImpact(document, EditTimeline::empty(), resulting, cuts, source).impacts.empty());
}

}  // namespace
}  // namespace vumo
