// Inputs that once broke a fuzz target (fuzz/corpus/<target>/) replayed as ordinary tests.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <optional>

#include "project/chunk_reader.h"
#include "project/project_manifest.h"
#include "shared/error.h"
#include "shared/files.h"
#include "shared/json.h"

namespace vumo {
namespace {

namespace fs = std::filesystem;

fs::path corpusFolder(const char* target) {
  const char* source = std::getenv("VUMO_SOURCE_DIR");
  fs::path root = source != nullptr ? fs::path(source) : fs::path(__FILE__).parent_path().parent_path().parent_path();
  return root / "fuzz" / "corpus" / target;
}

std::vector<fs::path> corpus(const char* target) {
  std::vector<fs::path> files;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(corpusFolder(target), error)) files.push_back(entry.path());
  return files;
}

template <class Record, class Decode>
void expectReadersAgree(const std::string& bytes, Decode decode) {
  std::optional<std::vector<Record>> reference;
  try {
    Json document = parseJson(bytes);
    json::requireArray(document, "");
    std::vector<Record> records;
    for (const Json& e : document) records.push_back(json::as<Record>(e, ""));
    reference = records;
  } catch (const DecodingError&) {
  }
  std::optional<std::vector<Record>> fast;
  try {
    fast = decode(bytes);
  } catch (const DecodingError&) {
  }
  // The document parser stops at a NUL byte; the chunk reader refuses the file instead.
  if (reference && !fast && bytes.find('\0') != std::string::npos) return;
  EXPECT_EQ(fast, reference);
}

TEST(FuzzRegressions, ChunkDecoderInputsDecodeAlikeInBothReaders) {
  auto files = corpus("chunk_decoder");
  EXPECT_FALSE(files.empty()) << corpusFolder("chunk_decoder");
  ChunkReader reader;
  for (const auto& file : files) {
    SCOPED_TRACE(file.filename().string());
    std::string bytes = readFile(file, SIZE_MAX);
    expectReadersAgree<MouseEvent>(bytes, [&](const std::string& b) { return reader.decodeMouseEvents(b); });
    expectReadersAgree<GeometrySample>(bytes, [&](const std::string& b) { return reader.decodeGeometrySamples(b); });
    expectReadersAgree<CursorShapeSample>(bytes,
                                          [&](const std::string& b) { return reader.decodeCursorShapeSamples(b); });
  }
}

TEST(FuzzRegressions, ManifestDecoderInputsFailCleanlyOrRoundTrip) {
  for (const auto& file : corpus("manifest_decoder")) {
    SCOPED_TRACE(file.filename().string());
    std::optional<ProjectManifest> manifest;
    try {
      manifest = decodeProjectManifest(readFile(file, SIZE_MAX));
    } catch (const DecodingError&) {
    }
    if (manifest) {
      EXPECT_EQ(decodeProjectManifest(encodeProjectManifest(*manifest)), *manifest);
    }
  }
}

}  // namespace
}  // namespace vumo
