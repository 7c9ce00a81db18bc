// Arbitrary bytes as a caption document file: decoding and validation must either accept the
// input or fail with their own error types, never crash, hang or trip a sanitizer. Accepted
// documents must also survive the trip to disk and back unchanged.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string_view>

#include "captions/caption_document.h"

namespace {

void checkNormalForm(const vumo::CaptionDocument& normal, vumo::ProjectTime sourceDuration) {
  if (!(normal.validated(sourceDuration) == normal)) std::abort();
  vumo::CaptionDocument reread = vumo::decodeCaptionDocument(vumo::encodeCaptionDocument(normal));
  if (!(reread == normal)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  vumo::CaptionDocument document;
  try {
    document = vumo::decodeCaptionDocument(text);
  } catch (const vumo::DecodingError&) {
    return 0;
  }
  // Whatever decodes can be written again, valid or not.
  (void)vumo::encodeCaptionDocument(document);

  const vumo::ProjectTime durations[] = {
      vumo::ProjectTime::zero(),
      vumo::ProjectTime::fromMilliseconds(60'000),
      {std::numeric_limits<std::int64_t>::max()},
  };
  for (vumo::ProjectTime sourceDuration : durations) {
    try {
      checkNormalForm(document.validated(sourceDuration), sourceDuration);
    } catch (const vumo::CaptionValidationError&) {
    }
  }
  return 0;
}
