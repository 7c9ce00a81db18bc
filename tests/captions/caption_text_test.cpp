#include <gtest/gtest.h>

#include <string>

#include "captions/caption_text.h"

namespace vumo {
namespace {

struct ClusterCase {
  const char* label;
  std::string text;
  std::size_t clusters;
};

TEST(GraphemeClusterCountTest, CountsWhatAReaderSeesAsOneCharacter) {
  const ClusterCase cases[] = {
      {"empty", "", 0},
      {"plain ASCII", "Hello, world", 12},
      {"CR LF is one break", "a\r\nb", 3},
      {"LF CR is two", "a\n\rb", 4},
      {"precomposed e acute", "caf\u00E9", 4},
      {"e with combining acute", "cafe\u0301", 4},
      {"stacked combining marks", "a\u0301\u0323\u0308b", 2},
      {"leading lone combining mark is its own cluster", "\u0301a", 2},
      {"family emoji joined with ZWJ", "\U0001F468\u200D\U0001F469\u200D\U0001F467\u200D\U0001F466", 1},
      {"woman technologist with skin tone", "\U0001F469\U0001F3FD\u200D\U0001F4BB", 1},
      {"rainbow flag: flag, VS16, ZWJ, rainbow", "\U0001F3F3\uFE0F\u200D\U0001F308", 1},
      {"regional indicator pair is one flag", "\U0001F1E8\U0001F1F3\U0001F1EF\U0001F1F5", 2},
      {"keycap sequence", "1\uFE0F\u20E3", 1},
      {"CJK ideographs count one each", "字幕测试", 4},
      {"CJK with full-width punctuation", "你好，世界！", 6},
      {"Hangul jamo form one syllable", "\u1100\u1161\u11A8", 1},
      {"Devanagari consonant with vowel sign", "\u0915\u093F", 1},
      {"Thai with tone mark", "\u0E01\u0E48\u0E32", 2},
  };
  GraphemeClusterCounter counter;
  for (const auto& c : cases) {
    EXPECT_EQ(counter.count(c.text), c.clusters) << c.label;
    EXPECT_EQ(graphemeClusterCount(c.text), c.clusters) << c.label;
  }
}

TEST(GraphemeClusterCountTest, ExceedsAgreesWithCountAroundTheLimit) {
  GraphemeClusterCounter counter;
  const std::string family = "\U0001F468\u200D\U0001F469\u200D\U0001F467";  // 8 scalars, one cluster
  const std::string units[] = {"a", "字", "e\u0301", family, "\r\n"};
  for (const auto& unit : units) {
    std::string atLimit;
    for (int i = 0; i < 2000; ++i) atLimit += unit;
    EXPECT_EQ(counter.count(atLimit), 2000u) << unit;
    EXPECT_FALSE(counter.exceeds(atLimit, 2000)) << unit;
    EXPECT_TRUE(counter.exceeds(atLimit + unit, 2000)) << unit;
  }
}

TEST(GraphemeClusterCountTest, OneCounterServesManyTextsInTurn) {
  GraphemeClusterCounter counter;
  EXPECT_EQ(counter.count("e\u0301e\u0301"), 2u);
  EXPECT_EQ(counter.count("abc"), 3u);
  EXPECT_EQ(counter.count("\U0001F44D\U0001F3FB!"), 2u);
  EXPECT_EQ(counter.count(""), 0u);
}

TEST(TrimmingTest, RemovesUnicodeWhiteSpaceAndLineBreaksAtBothEnds) {
  struct Case {
    const char* label;
    std::string input;
    std::string expected;
  } cases[] = {
      {"ASCII spaces and tabs", " \t hello \t ", "hello"},
      {"line breaks", "\r\n\nhello\n\v\f", "hello"},
      {"ideographic space U+3000", "\u3000你好\u3000\u3000", "你好"},
      {"no-break space U+00A0", "\u00A0word\u00A0", "word"},
      {"next line U+0085", "\u0085x\u0085", "x"},
      {"line and paragraph separators", "\u2028x\u2029", "x"},
      {"en quad, thin and narrow no-break spaces", "\u2000\u2009\u202Fx\u205F", "x"},
      {"inner white space stays", " a \u3000 b ", "a \u3000 b"},
      {"only white space", " \u3000\u00A0\n", ""},
      {"zero width space is not white space", "\u200Bx\u200B", "\u200Bx\u200B"},
      {"byte order mark is not white space", "\uFEFFx", "\uFEFFx"},
      {"combining mark after a space keeps the mark", " \u0301a", "\u0301a"},
      {"nothing to trim", "abc", "abc"},
      {"empty", "", ""},
  };
  for (const auto& c : cases) EXPECT_EQ(trimmedWhitespaceAndNewlines(c.input), c.expected) << c.label;
}

TEST(TrimmingTest, StopsAtIllFormedBytesAndKeepsThem) {
  EXPECT_EQ(trimmedWhitespaceAndNewlines(" \xFF "), "\xFF");
  EXPECT_EQ(trimmedWhitespaceAndNewlines(std::string(" a\xE3\x80")), std::string("a\xE3\x80"));  // truncated U+3000
  EXPECT_EQ(trimmedWhitespaceAndNewlines(std::string("\x80\x80\x80 ")), std::string("\x80\x80\x80"));
}

TEST(Utf8Test, AcceptsOnlyWellFormedSequences) {
  struct Case {
    const char* label;
    std::string bytes;
    bool wellFormed;
  } cases[] = {
      {"ASCII", "abc", true},
      {"two, three and four byte scalars", "\u00E9\u4E2D\U0001F600", true},
      {"highest scalar", "\xF4\x8F\xBF\xBF", true},
      {"stray continuation byte", "a\x80", false},
      {"truncated three byte sequence", "\xE4\xB8", false},
      {"overlong slash", "\xC0\xAF", false},
      {"overlong three byte NUL", "\xE0\x80\x80", false},
      {"encoded surrogate", "\xED\xA0\x80", false},
      {"beyond U+10FFFF", "\xF4\x90\x80\x80", false},
      {"invalid lead byte", "\xFF", false},
      {"lead byte followed by ASCII", "\xC3(", false},
  };
  for (const auto& c : cases) EXPECT_EQ(isWellFormedUtf8(c.bytes), c.wellFormed) << c.label;
}

TEST(AlphanumericTest, LettersMarksAndNumbersCountPunctuationAndSymbolsDoNot) {
  EXPECT_TRUE(containsAlphanumericScalar("cat"));
  EXPECT_TRUE(containsAlphanumericScalar("？字"));
  EXPECT_TRUE(containsAlphanumericScalar("٣"));        // Arabic-Indic digit
  EXPECT_TRUE(containsAlphanumericScalar("\u0301"));   // a combining mark
  EXPECT_FALSE(containsAlphanumericScalar("？"));
  EXPECT_FALSE(containsAlphanumericScalar("!?…"));
  EXPECT_FALSE(containsAlphanumericScalar("\U0001F600"));
  EXPECT_FALSE(containsAlphanumericScalar(" \u3000"));
  EXPECT_FALSE(containsAlphanumericScalar("\xFF\xFE"));
}

}  // namespace
}  // namespace vumo
