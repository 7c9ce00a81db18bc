#include "timeline/grapheme_clusters.h"

#include <unicode/ubrk.h>
#include <unicode/utext.h>
#include <unicode/utf8.h>

#include <cstdint>

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

// Code points as ICU reads the bytes: an ill-formed sequence is one replacement character, just
// as the break iterator's UText sees it.
std::size_t codePointCount(std::string_view utf8) {
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(utf8.data());
  const auto length = static_cast<std::int64_t>(utf8.size());
  std::size_t count = 0;
  for (std::int64_t offset = 0; offset < length; ++count) {
    UChar32 ignored;
    U8_NEXT(bytes, offset, length, ignored);
    (void)ignored;
  }
  return count;
}

}  // namespace

void GraphemeClusterCounter::IteratorCloser::operator()(UBreakIterator* iterator) const noexcept {
  ubrk_close(iterator);
}

GraphemeClusterCounter::GraphemeClusterCounter() = default;

GraphemeClusterCounter::~GraphemeClusterCounter() = default;

std::size_t GraphemeClusterCounter::countClusters(std::string_view utf8, std::optional<std::size_t> stopAfter) {
  if (utf8.empty()) return 0;
  if (isAscii(utf8)) {
    // In ASCII only CR LF joins into one cluster; every other byte is a cluster of its own.
    std::size_t count = utf8.size();
    for (std::size_t i = 1; i < utf8.size(); ++i)
      if (utf8[i - 1] == '\r' && utf8[i] == '\n') --count;
    return count;
  }
  if (!iterator_) {
    UErrorCode status = U_ZERO_ERROR;
    UBreakIterator* opened = ubrk_open(UBRK_CHARACTER, "", nullptr, 0, &status);
    if (U_FAILURE(status) || opened == nullptr) {
      if (opened != nullptr) ubrk_close(opened);
      throw UnicodeTextError(UnicodeTextError::Case::rulesUnavailable, u_errorName(status));
    }
    iterator_.reset(opened);
  }
  Utf8TextHandle handle(utf8);
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

std::size_t GraphemeClusterCounter::count(std::string_view utf8) { return countClusters(utf8, std::nullopt); }

bool GraphemeClusterCounter::exceeds(std::string_view utf8, std::size_t limit) {
  // Every cluster holds at least one code point and every code point at least one byte.
  if (utf8.size() <= limit) return false;
  if (codePointCount(utf8) <= limit) return false;
  return countClusters(utf8, limit) > limit;
}

std::size_t graphemeClusterCount(std::string_view utf8) {
  GraphemeClusterCounter counter;
  return counter.count(utf8);
}

}  // namespace vumo
