#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

// Text rules for captions, over UTF-8. "Characters" in caption limits are user-perceived
// characters (extended grapheme clusters), so a flag, a family emoji or a letter with combining
// accents counts once, as a person reading the caption would count it.

struct UBreakIterator;

namespace vumo {

// True when `text` is well-formed UTF-8: no stray continuation bytes, truncated or overlong
// sequences, surrogates or values above U+10FFFF.
bool isWellFormedUtf8(std::string_view text);

// The Unicode scalar starting at byte `offset`, with its length in bytes. An ill-formed sequence
// yields no scalar and a length of 1, so callers can step over it.
struct Utf8Scalar {
  std::optional<char32_t> scalar;
  std::size_t length = 1;
};
Utf8Scalar decodeUtf8Scalar(std::string_view text, std::size_t offset);

// True for every scalar with the Unicode White_Space property: the space separators (U+0020,
// U+00A0, U+3000, ...), the line and paragraph separators, TAB through CR and NEL (U+0085).
bool isWhitespaceOrNewline(char32_t scalar);

// `text` without white space and line breaks at either end, as a view into `text`. Trimming works
// on scalars and stops at anything ill-formed, which is therefore kept.
std::string_view trimmedWhitespaceAndNewlines(std::string_view text);

// True when some scalar of `text` is a letter, a mark or a number (general categories L, M, N).
bool containsAlphanumericScalar(std::string_view text);

// Counts extended grapheme clusters with ICU's character break rules. One counter holds one ICU
// break iterator, so checking every cue of a document opens the rules once. Not thread-safe; make
// one per thread.
class GraphemeClusterCounter {
 public:
  GraphemeClusterCounter();
  ~GraphemeClusterCounter();
  GraphemeClusterCounter(const GraphemeClusterCounter&) = delete;
  GraphemeClusterCounter& operator=(const GraphemeClusterCounter&) = delete;

  std::size_t count(std::string_view text);

  // True when `text` holds more than `limit` clusters. Short and plain ASCII texts are decided
  // without ICU, and counting stops at the first cluster beyond the limit.
  bool exceeds(std::string_view text, std::size_t limit);

 private:
  struct IteratorCloser {
    void operator()(UBreakIterator* iterator) const noexcept;
  };
  std::size_t countClusters(std::string_view text, std::optional<std::size_t> stopAfter);

  std::unique_ptr<UBreakIterator, IteratorCloser> iterator_;
};

// Convenience for a single text.
std::size_t graphemeClusterCount(std::string_view text);

}  // namespace vumo
