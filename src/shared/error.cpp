#include "shared/error.h"

namespace vumo {

namespace {

// The text with its first "{}" replaced by the payload.
std::string filled(std::string_view text, std::string_view payload) {
  std::size_t slot = text.find("{}");
  if (slot == std::string_view::npos) return std::string(text);
  std::string result(text.substr(0, slot));
  result += payload;
  result += text.substr(slot + 2);
  return result;
}

constexpr ErrorCase<DecodingError::Case> decodingCases[] = {
    {DecodingError::Case::decoding, "decoding", "error.decoding", "{}", "execution", ErrorKind::failure},
};
static_assert(inCaseOrder(decodingCases));

constexpr ErrorCase<FileError::Case> fileCases[] = {
    {FileError::Case::file, "file", "error.file", "{}", "execution", ErrorKind::failure},
};
static_assert(inCaseOrder(fileCases));

using Unicode = UnicodeTextError::Case;
constexpr ErrorCase<Unicode> unicodeCases[] = {
    {Unicode::unreadable, "unreadable", "error.unicode", "Caption text could not be read as Unicode ({}).", "execution",
     ErrorKind::failure},
    {Unicode::rulesUnavailable, "rulesUnavailable", "error.unicode",
     "The Unicode character rules could not be loaded ({}).", "execution", ErrorKind::failure},
    {Unicode::unsegmentable, "unsegmentable", "error.unicode", "Caption text could not be segmented ({}).", "execution",
     ErrorKind::failure},
    {Unicode::notUTF8, "notUTF8", "error.encoding",
     "The captions contain text that is not valid UTF-8 and cannot be saved.", "execution", ErrorKind::failure},
};
static_assert(inCaseOrder(unicodeCases));

}  // namespace

void throwMissingErrorCase(std::string_view family) {
  throw std::logic_error("An error case of " + std::string(family) + " has no row in its catalogue");
}

Error::Error(std::string_view table, std::string_view key, std::string_view englishText, std::string_view payload,
             ErrorClassification classification)
    : std::runtime_error(filled(englishText, payload)),
      key_(key),
      table_(table),
      classification_(std::move(classification)) {}

const ErrorCatalogue<DecodingError::Case>& DecodingError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"DecodingError", "Editor", decodingCases};
  return catalogue;
}

const ErrorCatalogue<FileError::Case>& FileError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"FileError", "Editor", fileCases};
  return catalogue;
}

const ErrorCatalogue<UnicodeTextError::Case>& UnicodeTextError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"UnicodeTextError", "Editor", unicodeCases};
  return catalogue;
}

}  // namespace vumo
