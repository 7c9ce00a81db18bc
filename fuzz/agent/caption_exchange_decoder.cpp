// Arbitrary bytes as an agent's caption result or as a job record: decoding, the conversion to a
// caption document and its validation must either accept the input or fail with the program's own
// errors, never crash, hang or trip a sanitizer. A document that decodes must survive encoding and
// decoding unchanged.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "agent/caption_exchange.h"
#include "shared/error.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view bytes(reinterpret_cast<const char*>(data), size);

  try {
    vumo::CaptionExchangeJob job = vumo::decodeCaptionExchangeJob(bytes);
    if (!(vumo::decodeCaptionExchangeJob(vumo::encodeCaptionExchangeJob(job)) == job)) std::abort();
  } catch (const vumo::Error&) {
  }

  vumo::CaptionExchangeDocument document;
  try {
    document = vumo::decodeCaptionExchangeDocument(bytes);
  } catch (const vumo::Error&) {
    return 0;
  }
  try {
    if (!(vumo::decodeCaptionExchangeDocument(vumo::encodeCaptionExchangeDocument(document)) == document)) std::abort();
  } catch (const vumo::UnicodeTextError&) {
    // Text that is not UTF-8 cannot be written back; the decoder took it as it came.
  }

  // A job that the document answers, so the conversion reaches the cues.
  vumo::CaptionExchangeJob job;
  job.id = document.jobID;
  job.projectID = document.projectID;
  job.sourceAudioDigest = document.sourceAudioDigest;
  try {
    (void)document.captionDocument(job).validated(vumo::ProjectTime{60'000'000'000});
  } catch (const vumo::Error&) {
  }
  return 0;
}
