#include "captions/caption_text.h"

#include <gtest/gtest.h>

#include <string>

namespace vumo {
namespace {

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
  EXPECT_TRUE(containsAlphanumericScalar("٣"));       // Arabic-Indic digit
  EXPECT_TRUE(containsAlphanumericScalar("\u0301"));  // a combining mark
  EXPECT_FALSE(containsAlphanumericScalar("？"));
  EXPECT_FALSE(containsAlphanumericScalar("!?…"));
  EXPECT_FALSE(containsAlphanumericScalar("\U0001F600"));
  EXPECT_FALSE(containsAlphanumericScalar(" \u3000"));
  EXPECT_FALSE(containsAlphanumericScalar("\xFF\xFE"));
}

}  // namespace
}  // namespace vumo
