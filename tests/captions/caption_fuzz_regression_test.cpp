#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "captions/caption_document.h"

namespace vumo {
namespace {

// Inputs that once crashed the decoder fuzz target, or tripped a sanitizer in it.
std::filesystem::path corpusFolder() {
  return std::filesystem::path(__FILE__).parent_path().parent_path().parent_path() / "fuzz" / "corpus" /
         "caption_document_decoder";
}

std::string readAll(const std::filesystem::path& path) {
  std::ifstream stream(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << stream.rdbuf();
  return bytes.str();
}

// What the fuzz target does with each input: decode, and validate whatever decodes.
void decodeAndValidate(const std::string& bytes) {
  CaptionDocument document;
  try {
    document = decodeCaptionDocument(bytes);
  } catch (const DecodingError&) {
    return;
  }
  (void)encodeCaptionDocument(document);
  for (ProjectTime duration : {ProjectTime::zero(), ProjectTime::fromMilliseconds(60'000), ProjectTime{INT64_MAX}}) {
    try {
      CaptionDocument normal = document.validated(duration);
      EXPECT_EQ(normal.validated(duration), normal);
      EXPECT_EQ(decodeCaptionDocument(encodeCaptionDocument(normal)), normal);
    } catch (const CaptionValidationError&) {
    }
  }
}

TEST(CaptionDocumentFuzzRegressionTest, StoredInputsDecodeOrFailWithTheirOwnErrors) {
  ASSERT_TRUE(std::filesystem::is_directory(corpusFolder())) << corpusFolder();
  int replayed = 0;
  for (const auto& entry : std::filesystem::directory_iterator(corpusFolder())) {
    SCOPED_TRACE(entry.path().filename().string());
    EXPECT_NO_FATAL_FAILURE(decodeAndValidate(readAll(entry.path())));
    ++replayed;
  }
  EXPECT_GT(replayed, 0);
}

TEST(CaptionDocumentFuzzRegressionTest, IntegersWrittenAsHugeFloatsAreDecodingErrors) {
  // Each of these once converted an out-of-range double to a 64-bit integer.
  for (const char* name : {"schema-version-float-beyond-int64.json", "maximum-lines-float-beyond-int64.json",
                           "nanoseconds-float-beyond-int64.json"}) {
    EXPECT_THROW(decodeCaptionDocument(readAll(corpusFolder() / name)), DecodingError) << name;
  }
}

}  // namespace
}  // namespace vumo
