#pragma once

// The failures of cloud transcription and of the stored key, both in the EditorCaptions table.

#include <cstddef>
#include <string>
#include <string_view>

#include "shared/error.h"

namespace vumo {

// A transcription that produced no captions. The first three cases carry a detail: what the
// service answered (its raw messages joined by new lines) or what went wrong on the way there. A
// detail that is not empty once trimmed is shown after the text, cut to 4,000 characters, so the
// service's own words reach the user. The key never appears in a detail: it travels only in the
// request header.
class CaptionTranscriptionError : public Error {
 public:
  enum class Case { invalidResponse, missingTimestamps, requestFailed, missingTrack };

  static constexpr std::size_t maximumDetailCharacters = 4'000;

  static CaptionTranscriptionError invalidResponse(std::string_view detail) { return {Case::invalidResponse, detail}; }
  static CaptionTranscriptionError missingTimestamps(std::string_view detail) {
    return {Case::missingTimestamps, detail};
  }
  static CaptionTranscriptionError requestFailed(std::string_view detail) { return {Case::requestFailed, detail}; }
  static CaptionTranscriptionError missingTrack() { return {Case::missingTrack, {}}; }

  Case kind() const noexcept { return kind_; }
  // The detail as given, untrimmed and uncut.
  const std::string& detail() const noexcept { return detail_; }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  CaptionTranscriptionError(Case kind, std::string_view detail);

  Case kind_;
  std::string detail_;
};

// The stored or offered API key cannot be used.
class CloudCredentialError : public Error {
 public:
  enum class Case { missing, invalid };

  explicit CloudCredentialError(Case kind);
  Case kind() const noexcept { return kind_; }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  Case kind_;
};

}  // namespace vumo
