#include <gtest/gtest.h>

#include <string>

#include "captions/caption_document.h"

namespace vumo {
namespace {

// Inputs that once crashed the decoder fuzz target (kept in its corpus, which CTest replays).
TEST(CaptionDocumentFuzzRegressionTest, IntegersWrittenAsHugeFloatsAreDecodingErrors) {
  // Each of these once converted an out-of-range double to a 64-bit integer.
  const char* const documents[] = {
      // schema-version-float-beyond-int64.json
      R"({"schemaVersion":2e25})",
      // maximum-lines-float-beyond-int64.json
      R"({"schemaVersion":1,"sourceTrack":"microphone","sourceAudioDigest":"","basedOnTimelineDigest":"","style":{"isEnabled":true,"maximumLines":-1e300},"cues":[]})",
      // nanoseconds-float-beyond-int64.json
      R"({"schemaVersion":1,"sourceTrack":"microphone","sourceAudioDigest":"","basedOnTimelineDigest":"","style":{"isEnabled":true,"maximumLines":2},"cues":[{"id":"00000000-0000-4000-8000-000000000001","start":{"nanoseconds":9.3e18},"end":{"nanoseconds":5},"text":"a"}]})",
  };
  for (const char* document : documents) EXPECT_THROW(decodeCaptionDocument(document), DecodingError) << document;
}

}  // namespace
}  // namespace vumo
