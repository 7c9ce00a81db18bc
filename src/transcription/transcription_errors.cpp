#include "transcription/transcription_errors.h"

#include "captions/caption_errors.h"
#include "captions/caption_text.h"

namespace vumo {

namespace {

using Transcription = CaptionTranscriptionError::Case;
using Credential = CloudCredentialError::Case;

// "{}" receives the detail paragraph, or nothing.
constexpr ErrorCase<Transcription> transcriptionCases[] = {
    {Transcription::invalidResponse, "invalidResponse", "captions.bailian.invalidResponse",
     "Bailian returned an invalid transcription response.{}", "execution", ErrorKind::failure},
    {Transcription::missingTimestamps, "missingTimestamps", "captions.bailian.missingTimestamps",
     "Bailian did not return usable caption timestamps.{}", "execution", ErrorKind::failure},
    {Transcription::requestFailed, "requestFailed", "captions.bailian.requestFailed",
     "Bailian transcription failed. Check your key, network, or account quota.{}", "execution", ErrorKind::failure},
    {Transcription::missingTrack, "missingTrack", "captions.bailian.missingTrack",
     "No selected audio track is available for captions.", "execution", ErrorKind::failure},
};
static_assert(inCaseOrder(transcriptionCases));

constexpr ErrorCase<Credential> credentialCases[] = {
    {Credential::missing, "missing", "captions.bailian.credentialMissing",
     "Add an Alibaba Cloud Bailian API key first.", "execution", ErrorKind::failure},
    {Credential::invalid, "invalid", "captions.bailian.credentialInvalid",
     "The Alibaba Cloud Bailian API key is invalid.", "execution", ErrorKind::failure},
};
static_assert(inCaseOrder(credentialCases));

// The first `limit` Unicode scalars of `text`. A byte that starts no well-formed sequence (a
// service may send anything) counts as one character and becomes U+FFFD, so the message stays
// UTF-8 and can go into a JSON envelope.
std::string leadingCharacters(std::string_view text, std::size_t limit) {
  std::string result;
  std::size_t offset = 0;
  for (std::size_t count = 0; count < limit && offset < text.size(); ++count) {
    Utf8Scalar scalar = decodeUtf8Scalar(text, offset);
    if (scalar.scalar)
      result.append(text.substr(offset, scalar.length));
    else
      result.append("\uFFFD");
    offset += scalar.length;
  }
  return result;
}

std::string detailParagraph(std::string_view detail) {
  std::string_view trimmed = trimmedWhitespaceAndNewlines(detail);
  if (trimmed.empty()) return {};
  return "\n\nAPI response:\n" + leadingCharacters(trimmed, CaptionTranscriptionError::maximumDetailCharacters);
}

}  // namespace

CaptionTranscriptionError::CaptionTranscriptionError(Case kind, std::string_view detail)
    : Error(catalogue(), kind, detailParagraph(detail)), kind_(kind), detail_(detail) {}

const ErrorCatalogue<Transcription>& CaptionTranscriptionError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"CaptionTranscriptionError", captionsLocalizationTable,
                                                  transcriptionCases};
  return catalogue;
}

CloudCredentialError::CloudCredentialError(Case kind) : Error(catalogue(), kind), kind_(kind) {}

const ErrorCatalogue<Credential>& CloudCredentialError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"CloudCredentialError", captionsLocalizationTable, credentialCases};
  return catalogue;
}

}  // namespace vumo
