#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

// Text rules for captions, over UTF-8. "Characters" in caption limits are user-perceived
// characters, counted by timeline/grapheme_clusters.h.

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

}  // namespace vumo
