#include "captions/caption_text.h"

#include <unicode/uchar.h>

namespace vumo {

Utf8Scalar decodeUtf8Scalar(std::string_view text, std::size_t offset) {
  if (offset >= text.size()) return {};
  auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  unsigned char lead = byte(offset);
  if (lead < 0x80) return {char32_t(lead), 1};

  std::size_t length;
  char32_t value;
  char32_t minimum;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2, value = lead & 0x1F, minimum = 0x80;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3, value = lead & 0x0F, minimum = 0x800;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4, value = lead & 0x07, minimum = 0x10000;
  } else {
    return {};  // continuation byte, overlong two-byte lead or beyond U+10FFFF
  }
  if (text.size() - offset < length) return {};
  for (std::size_t i = 1; i < length; ++i) {
    unsigned char c = byte(offset + i);
    if ((c & 0xC0) != 0x80) return {};
    value = (value << 6) | (c & 0x3F);
  }
  if (value < minimum || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return {};
  return {value, length};
}

bool isWellFormedUtf8(std::string_view text) {
  std::size_t offset = 0;
  while (offset < text.size()) {
    auto decoded = decodeUtf8Scalar(text, offset);
    if (!decoded.scalar) return false;
    offset += decoded.length;
  }
  return true;
}

bool isWhitespaceOrNewline(char32_t scalar) { return u_isUWhiteSpace(static_cast<UChar32>(scalar)); }

std::string_view trimmedWhitespaceAndNewlines(std::string_view text) {
  std::size_t begin = 0;
  while (begin < text.size()) {
    auto decoded = decodeUtf8Scalar(text, begin);
    if (!decoded.scalar || !isWhitespaceOrNewline(*decoded.scalar)) break;
    begin += decoded.length;
  }
  std::size_t end = text.size();
  while (end > begin) {
    // Step back to the lead byte of the last scalar (at most three continuation bytes) and
    // accept it only if it decodes to exactly the bytes up to `end`.
    std::size_t lead = end - 1;
    while (lead > begin && end - lead < 4 && (static_cast<unsigned char>(text[lead]) & 0xC0) == 0x80) --lead;
    auto decoded = decodeUtf8Scalar(text, lead);
    if (!decoded.scalar || lead + decoded.length != end || !isWhitespaceOrNewline(*decoded.scalar)) break;
    end = lead;
  }
  return text.substr(begin, end - begin);
}

bool containsAlphanumericScalar(std::string_view text) {
  constexpr uint32_t alphanumeric = U_GC_L_MASK | U_GC_M_MASK | U_GC_N_MASK;
  std::size_t offset = 0;
  while (offset < text.size()) {
    auto decoded = decodeUtf8Scalar(text, offset);
    if (decoded.scalar && (U_GET_GC_MASK(static_cast<UChar32>(*decoded.scalar)) & alphanumeric) != 0) return true;
    offset += decoded.length;
  }
  return false;
}

}  // namespace vumo
