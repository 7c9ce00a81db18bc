#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <string>

#include "caption_fixtures.h"
#include "captions/caption_document.h"
#include "support/test_support.h"

namespace vumo {
namespace {

using testing::cueId;
using testing::kSourceDuration;
using testing::makeCue;
using testing::makeDocument;
using testing::makeWord;
using testing::ms;
using Case = CaptionValidationError::Case;

CaptionDocument baseDocument() {
  return makeDocument({
      makeCue(1, 1000, 2000, "Hello big world",
              {makeWord(1000, 1400, "Hello"), makeWord(1400, 1700, "big"), makeWord(1700, 2000, "world")},
              {{"big", 1}}),
      makeCue(2, 2000, 3000, "cat cat"),
  });
}

std::string repeated(const std::string& unit, int times) {
  std::string text;
  for (int i = 0; i < times; ++i) text += unit;
  return text;
}

std::optional<Case> failureOf(const CaptionDocument& document, ProjectTime sourceDuration = kSourceDuration) {
  return testing::thrownCase<CaptionValidationError>([&] { (void)document.validated(sourceDuration); });
}

struct FailureCase {
  const char* label;
  std::function<void(CaptionDocument&)> change;
  Case expected;
};

TEST(CaptionValidationTest, ReportsTheFirstProblemWithItsCase) {
  const FailureCase cases[] = {
      // Document level, checked in this order before any cue.
      {"schema 2", [](auto& d) { d.schemaVersion = 2; }, Case::unsupportedSchema},
      {"schema 0", [](auto& d) { d.schemaVersion = 0; }, Case::unsupportedSchema},
      {"schema wins over track", [](auto& d) { d.schemaVersion = 2, d.sourceTrack = MediaTrackKind::screen; },
       Case::unsupportedSchema},
      {"screen track", [](auto& d) { d.sourceTrack = MediaTrackKind::screen; }, Case::invalidTrack},
      {"track wins over cue count",
       [](auto& d) {
         d.sourceTrack = MediaTrackKind::screen;
         d.cues.resize(CaptionDocument::maximumCueCount + 1);
       },
       Case::invalidTrack},
      // Cues.
      {"blank text", [](auto& d) { d.cues[1].text = " \u3000\u00A0\n"; }, Case::invalidCue},
      {"empty text", [](auto& d) { d.cues[1].text = ""; }, Case::invalidCue},
      {"text of 2,001 characters", [](auto& d) { d.cues[1].text = repeated("字", 2001); }, Case::invalidCue},
      {"2,001 accented letters", [](auto& d) { d.cues[1].text = repeated("e\u0301", 2001); }, Case::invalidCue},
      {"ill-formed UTF-8", [](auto& d) { d.cues[1].text = "cat \xC3("; }, Case::invalidCue},
      {"repeated id far apart", [](auto& d) { d.cues.push_back(makeCue(1, 50'000, 51'000, "again")); },
       Case::invalidCue},
      {"negative start", [](auto& d) { d.cues[0].start = ProjectTime{-1}; }, Case::invalidCue},
      {"zero length", [](auto& d) { d.cues[1].end = d.cues[1].start; }, Case::invalidCue},
      {"end before start", [](auto& d) { d.cues[1].end = ms(1500); }, Case::invalidCue},
      {"end beyond the source", [](auto& d) { d.cues[1].end = ProjectTime{kSourceDuration.nanoseconds + 1}; },
       Case::invalidCue},
      {"overlapping the previous cue by 1 ns", [](auto& d) { d.cues[1].start = ProjectTime{ms(2000).nanoseconds - 1}; },
       Case::invalidCue},
      {"out of order", [](auto& d) { std::swap(d.cues[0], d.cues[1]); }, Case::invalidCue},
      // Words.
      {"blank word", [](auto& d) { d.cues[0].words[1].text = "\u3000"; }, Case::invalidWord},
      {"ill-formed word", [](auto& d) { d.cues[0].words[1].text = "\xFF"; }, Case::invalidWord},
      {"word before its cue", [](auto& d) { d.cues[0].words[0].start = ms(999); }, Case::invalidWord},
      {"word of zero length", [](auto& d) { d.cues[0].words[1].end = d.cues[0].words[1].start; }, Case::invalidWord},
      {"word after its cue", [](auto& d) { d.cues[0].words[2].end = ms(2001); }, Case::invalidWord},
      {"overlapping words", [](auto& d) { d.cues[0].words[1].start = ms(1399); }, Case::invalidWord},
      {"words out of order", [](auto& d) { std::swap(d.cues[0].words[0], d.cues[0].words[2]); }, Case::invalidWord},
      {"word problem before a highlight problem in the same cue",
       [](auto& d) {
         d.cues[0].words[0].text = "";
         d.cues[0].highlights = {{"missing", 1}};
       },
       Case::invalidWord},
      // Highlights.
      {"nine highlights",
       [](auto& d) {
         d.cues[0].highlights.assign(9, {"big", 1});
       },
       Case::invalidHighlight},
      {"untrimmed highlight",
       [](auto& d) {
         d.cues[0].highlights = {{" big", 1}};
       },
       Case::invalidHighlight},
      {"highlight with trailing ideographic space",
       [](auto& d) {
         d.cues[0].highlights = {{"big\u3000", 1}};
       },
       Case::invalidHighlight},
      {"empty highlight",
       [](auto& d) {
         d.cues[0].highlights = {{"", 1}};
       },
       Case::invalidHighlight},
      {"punctuation only",
       [](auto& d) {
         d.cues[1].text = "cat？";
         d.cues[1].highlights = {{"？", 1}};
       },
       Case::invalidHighlight},
      {"occurrence 0",
       [](auto& d) {
         d.cues[0].highlights = {{"big", 0}};
       },
       Case::invalidHighlight},
      {"negative occurrence",
       [](auto& d) {
         d.cues[0].highlights = {{"big", -1}};
       },
       Case::invalidHighlight},
      {"not in the text",
       [](auto& d) {
         d.cues[0].highlights = {{"small", 1}};
       },
       Case::invalidHighlight},
      {"different case",
       [](auto& d) {
         d.cues[0].highlights = {{"Big", 1}};
       },
       Case::invalidHighlight},
      {"third of two occurrences",
       [](auto& d) {
         d.cues[1].highlights = {{"cat", 3}};
       },
       Case::invalidHighlight},
      {"huge occurrence",
       [](auto& d) {
         d.cues[1].highlights = {{"cat", std::numeric_limits<std::int64_t>::max()}};
       },
       Case::invalidHighlight},
      {"the whole sentence",
       [](auto& d) {
         d.cues[1].highlights = {{"cat cat", 1}};
       },
       Case::invalidHighlight},
      {"occurrences do not overlap",
       [](auto& d) {
         d.cues[1].text = "aaa";
         d.cues[1].highlights = {{"aa", 2}};
       },
       Case::invalidHighlight},
      {"overlapping highlights",
       [](auto& d) {
         d.cues[0].highlights = {{"big world", 1}, {"world", 1}};
       },
       Case::invalidHighlight},
      {"the same highlight twice",
       [](auto& d) {
         d.cues[0].highlights = {{"big", 1}, {"big", 1}};
       },
       Case::invalidHighlight},
      {"an earlier cue's highlight before a later cue's timing",
       [](auto& d) {
         d.cues[0].highlights = {{"nope", 1}};
         d.cues[1].end = ms(1);
       },
       Case::invalidHighlight},
  };
  ASSERT_EQ(failureOf(baseDocument()), std::nullopt) << "the base document must be valid";
  for (const auto& c : cases) {
    CaptionDocument document = baseDocument();
    c.change(document);
    EXPECT_EQ(failureOf(document), c.expected) << c.label;
  }
}

TEST(CaptionValidationTest, AcceptsWhatTheRulesAllow) {
  const std::pair<const char*, std::function<void(CaptionDocument&)>> cases[] = {
      {"no cues at all", [](auto& d) { d.cues.clear(); }},
      {"a cue ending exactly at the source end", [](auto& d) { d.cues[1].end = kSourceDuration; }},
      {"a cue starting at zero", [](auto& d) { d.cues[0].start = ProjectTime::zero(); }},
      {"a gap between cues", [](auto& d) { d.cues[1].start = ms(2500); }},
      {"words with gaps and touching",
       [](auto& d) {
         d.cues[0].words = {makeWord(1100, 1200, "a"), makeWord(1200, 1300, "b"), makeWord(1900, 2000, "c")};
       }},
      {"2,000 characters of CJK", [](auto& d) { d.cues[1].text = repeated("字", 2000); }},
      {"2,000 family emoji",
       [](auto& d) { d.cues[1].text = repeated("\U0001F468\u200D\U0001F469\u200D\U0001F467", 2000); }},
      {"2,000 accented letters plus surrounding white space",
       [](auto& d) { d.cues[1].text = "\u3000" + repeated("e\u0301", 2000) + "\n"; }},
      {"second occurrence",
       [](auto& d) {
         d.cues[1].highlights = {{"cat", 2}};
       }},
      {"single letters do not overlap each other",
       [](auto& d) {
         d.cues[1].text = "aaa";
         d.cues[1].highlights = {{"a", 2}, {"a", 3}};
       }},
      {"eight highlights",
       [](auto& d) {
         d.cues[1].text = "a b c d e f g h i";
         d.cues[1].highlights = {{"a", 1}, {"b", 1}, {"c", 1}, {"d", 1}, {"e", 1}, {"f", 1}, {"g", 1}, {"h", 1}};
       }},
      {"touching highlights",
       [](auto& d) {
         d.cues[1].text = "abc";
         d.cues[1].highlights = {{"b", 1}, {"a", 1}};
       }},
      {"highlight with a number",
       [](auto& d) {
         d.cues[1].text = "价格 42 元";
         d.cues[1].highlights = {{"42", 1}};
       }},
      {"punctuation inside a highlight with letters",
       [](auto& d) {
         d.cues[1].text = "真的？好";
         d.cues[1].highlights = {{"真的？", 1}};
       }},
  };
  for (const auto& [label, change] : cases) {
    CaptionDocument document = baseDocument();
    change(document);
    EXPECT_EQ(failureOf(document), std::nullopt) << label;
  }
}

TEST(CaptionValidationTest, CueLimitIsOneHundredThousand) {
  CaptionDocument document = makeDocument({});
  document.cues.reserve(CaptionDocument::maximumCueCount + 1);
  for (int i = 0; i < static_cast<int>(CaptionDocument::maximumCueCount); ++i)
    document.cues.push_back({cueId(i), {i * 10LL}, {i * 10LL + 10}, "x", {}, {}});
  const ProjectTime duration{10LL * static_cast<std::int64_t>(CaptionDocument::maximumCueCount) + 10};
  EXPECT_EQ(failureOf(document, duration), std::nullopt);
  document.cues.push_back({cueId(0xFFFF), {duration.nanoseconds - 10}, duration, "x", {}, {}});
  EXPECT_EQ(failureOf(document, duration), Case::tooManyCues);
}

TEST(CaptionValidationTest, NormalFormTrimsTextsAndOrdersHighlights) {
  CaptionDocument document = baseDocument();
  document.cues[0].text = "\u3000\u00A0 Hello big world \r\n";
  document.cues[0].words[0].text = "\u00A0Hello\u3000";
  document.cues[1].highlights = {{"cat", 2}, {"cat", 1}};

  CaptionDocument normal = document.validated(kSourceDuration);
  EXPECT_EQ(normal.cues[0].text, "Hello big world");
  EXPECT_EQ(normal.cues[0].words[0].text, "Hello");
  EXPECT_EQ(normal.cues[1].highlights, (std::vector<CaptionHighlight>{{"cat", 1}, {"cat", 2}}));
  // Everything else is carried over untouched, and the normal form is a fixed point.
  EXPECT_EQ(normal.language, document.language);
  EXPECT_EQ(normal.sourceAudioDigest, document.sourceAudioDigest);
  EXPECT_EQ(normal.cues[0].words[1], document.cues[0].words[1]);
  EXPECT_EQ(normal.validated(kSourceDuration), normal);
  // The receiver itself keeps its original texts.
  EXPECT_EQ(document.cues[0].text, "\u3000\u00A0 Hello big world \r\n");
}

TEST(CaptionValidationTest, HighlightsComeBackInTextOrder) {
  EXPECT_EQ(validatedHighlights({{"world", 1}, {"Hello", 1}, {"big", 1}}, "Hello big world"),
            (std::vector<CaptionHighlight>{{"Hello", 1}, {"big", 1}, {"world", 1}}));
  EXPECT_EQ(validatedHighlights({}, "anything"), std::vector<CaptionHighlight>{});
  // Search is by exact characters: a precomposed letter does not match its decomposed form.
  EXPECT_THROW(validatedHighlights({{"cafe\u0301", 1}}, "caf\u00E9 au lait"), CaptionValidationError);
  EXPECT_EQ(validatedHighlights({{"字幕", 2}}, "字幕和字幕"), (std::vector<CaptionHighlight>{{"字幕", 2}}));
}

TEST(CaptionStyleTest, NormalFormClampsAndRoundsToTwoDecimals) {
  struct Case {
    double input;
    double fontScale;
    double bottomPosition;
  } cases[] = {
      {0.6, 0.6, 0.6},
      {0.55, 0.6, 0.55},
      {1.134, 1.13, 1.0},
      {0.876, 0.88, 0.88},
      {0.234, 0.6, 0.23},
      // Clamping bounds the value whatever its decimals: 1.234 lies above the largest scale.
      {1.234, 1.2, 1.0},
      {1.3, 1.2, 1.0},
      {-0.1, 0.6, 0.0},
      {0.125, 0.6, 0.13},
      {1.0, 1.0, 1.0},
      {0.0, 0.6, 0.0},
      {std::numeric_limits<double>::infinity(), 1.2, 1.0},
  };
  for (const auto& c : cases) {
    CaptionStyle style;
    style.fontScale = c.input;
    style.bottomPosition = c.input;
    CaptionStyle normal = style.normalized();
    EXPECT_DOUBLE_EQ(normal.fontScale, c.fontScale) << c.input;
    EXPECT_DOUBLE_EQ(normal.bottomPosition, c.bottomPosition) << c.input;
    EXPECT_FALSE(std::signbit(normal.bottomPosition)) << c.input;
    EXPECT_EQ(normal.normalized(), normal) << c.input;
  }

  const std::pair<std::int64_t, std::int64_t> lines[] = {{0, 1}, {1, 1}, {2, 2}, {3, 2}, {-7, 1}, {INT64_MAX, 2}};
  for (auto [input, expected] : lines) {
    CaptionStyle style;
    style.maximumLines = input;
    EXPECT_EQ(style.normalized().maximumLines, expected) << input;
  }

  CaptionStyle notANumber;
  notANumber.fontScale = std::nan("");
  notANumber.bottomPosition = std::nan("");
  EXPECT_EQ(notANumber.normalized(), CaptionStyle::defaults());
  EXPECT_EQ(CaptionStyle::defaults().normalized(), CaptionStyle::defaults());
}

TEST(CaptionValidationTest, NormalisesTheStyleOfAnOtherwiseValidDocument) {
  CaptionDocument document = baseDocument();
  document.style = {false, 0, CaptionAppearance::blackWithWhiteOutline, 1.3, -0.1};
  EXPECT_EQ(document.validated(kSourceDuration).style,
            (CaptionStyle{false, 1, CaptionAppearance::blackWithWhiteOutline, 1.2, 0.0}));
}

}  // namespace
}  // namespace vumo
