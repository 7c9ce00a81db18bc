#include "timeline/grapheme_clusters.h"

#include <gtest/gtest.h>

#include <string>

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
      {"short ASCII", "abc", 3},
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
      {"other CJK ideographs", "中文字幕", 4},
      {"CJK with full-width punctuation", "你好，世界！", 6},
      {"Hangul jamo form one syllable", "\u1100\u1161\u11A8", 1},
      {"Devanagari consonant with vowel sign", "\u0915\u093F", 1},
      {"Thai with tone mark", "\u0E01\u0E48\u0E32", 2},
      {"CR LF alone", "\r\n", 1},
      {"thumbs up with a skin tone", "\xF0\x9F\x91\x8D\xF0\x9F\x8F\xBD", 1},
      {"a flag: two regional indicators", "\xF0\x9F\x87\xA8\xF0\x9F\x87\xB3", 1},
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
  // Stray and truncated bytes read as one replacement character each, a cluster of its own.
  const std::string units[] = {"a", "字", "e\u0301", family, "\r\n", "\x80", "\xE5\xAD"};
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

}  // namespace
}  // namespace vumo
