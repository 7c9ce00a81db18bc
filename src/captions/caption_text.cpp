#include "captions/caption_text.h"

#include <unicode/ubrk.h>
#include <unicode/uchar.h>
#include <unicode/utext.h>

#include "shared/error.h"

namespace vumo {

namespace {

// A UText over UTF-8 bytes that it does not copy; closed on every path out of the scope.
class Utf8TextHandle {
 public:
  explicit Utf8TextHandle(std::string_view text) {
    UErrorCode status = U_ZERO_ERROR;
    utext_openUTF8(&text_, text.data(), static_cast<int64_t>(text.size()), &status);
    if (U_FAILURE(status)) {
      throw UnicodeTextError(UnicodeTextError::Case::unreadable, u_errorName(status));
    }
  }
  ~Utf8TextHandle() { utext_close(&text_); }
  Utf8TextHandle(const Utf8TextHandle&) = delete;
  Utf8TextHandle& operator=(const Utf8TextHandle&) = delete;

  UText* get() { return &text_; }

 private:
  UText text_ = UTEXT_INITIALIZER;
};

bool isAscii(std::string_view text) {
  for (unsigned char c : text)
    if (c >= 0x80) return false;
  return true;
}

}  // namespace

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

void GraphemeClusterCounter::IteratorCloser::operator()(UBreakIterator* iterator) const noexcept { ubrk_close(iterator); }

GraphemeClusterCounter::GraphemeClusterCounter() {
  UErrorCode status = U_ZERO_ERROR;
  UBreakIterator* opened = ubrk_open(UBRK_CHARACTER, "", nullptr, 0, &status);
  if (U_FAILURE(status) || opened == nullptr) {
    if (opened != nullptr) ubrk_close(opened);
    throw UnicodeTextError(UnicodeTextError::Case::rulesUnavailable, u_errorName(status));
  }
  iterator_.reset(opened);
}

GraphemeClusterCounter::~GraphemeClusterCounter() = default;

std::size_t GraphemeClusterCounter::countClusters(std::string_view text, std::optional<std::size_t> stopAfter) {
  if (text.empty()) return 0;
  if (isAscii(text)) {
    // In ASCII only CR LF joins into one cluster; every other byte is a cluster of its own.
    std::size_t count = text.size();
    for (std::size_t i = 1; i < text.size(); ++i)
      if (text[i - 1] == '\r' && text[i] == '\n') --count;
    return count;
  }
  Utf8TextHandle handle(text);
  UErrorCode status = U_ZERO_ERROR;
  ubrk_setUText(iterator_.get(), handle.get(), &status);
  if (U_FAILURE(status)) {
    throw UnicodeTextError(UnicodeTextError::Case::unsegmentable, u_errorName(status));
  }
  std::size_t count = 0;
  ubrk_first(iterator_.get());
  while (ubrk_next(iterator_.get()) != UBRK_DONE) {
    ++count;
    if (stopAfter && count > *stopAfter) break;
  }
  // The iterator keeps a shallow view of the text; point it at nothing before the bytes go.
  status = U_ZERO_ERROR;
  ubrk_setText(iterator_.get(), nullptr, 0, &status);
  return count;
}

std::size_t GraphemeClusterCounter::count(std::string_view text) { return countClusters(text, std::nullopt); }

bool GraphemeClusterCounter::exceeds(std::string_view text, std::size_t limit) {
  // Every cluster holds at least one scalar and every scalar at least one byte.
  if (text.size() <= limit) return false;
  std::size_t scalars = 0;
  for (std::size_t offset = 0; offset < text.size(); offset += decodeUtf8Scalar(text, offset).length) ++scalars;
  if (scalars <= limit) return false;
  return countClusters(text, limit) > limit;
}

std::size_t graphemeClusterCount(std::string_view text) {
  GraphemeClusterCounter counter;
  return counter.count(text);
}

}  // namespace vumo
