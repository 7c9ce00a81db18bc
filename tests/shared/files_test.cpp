#include <cstdint>
#include <gtest/gtest.h>

#include "shared/digest.h"
#include "shared/error.h"
#include "shared/files.h"
#include "shared/json.h"
#include "support/test_support.h"

namespace vumo {
namespace {

TEST(FilesTest, AtomicWriteReplacesAndLeavesNoTemporaryFiles) {
  testing::TemporaryDirectory dir;
  auto file = dir.path() / "timeline.json";
  writeFileAtomically(file, "first");
  writeFileAtomically(file, "second");
  EXPECT_EQ(readFile(file, SIZE_MAX), "second");
  int entries = 0;
  for ([[maybe_unused]] auto& e : std::filesystem::directory_iterator(dir.path())) ++entries;
  EXPECT_EQ(entries, 1);
}

TEST(FilesTest, FailuresAreFileErrorsNamingThePath) {
  testing::TemporaryDirectory dir;
  try {
    readFile(dir.path() / "missing.json", SIZE_MAX);
    FAIL();
  } catch (const FileError& e) {
    EXPECT_NE(std::string(e.what()).find("missing.json"), std::string::npos);
  }
  EXPECT_THROW(writeFileAtomically(dir.path() / "no" / "such" / "folder.json", "x"), FileError);
}

TEST(FilesTest, SupportFolderFollowsXdgDataHome) {
  testing::ScopedDataHome home;
  EXPECT_EQ(vumoSupportDirectory(), home.path() / "Vumo");
}

TEST(DigestTest, Sha256IsLowerCaseHex) {
  EXPECT_EQ(sha256Hex(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(sha256Hex("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(JsonTest, DocumentsArePrettySortedAndSlashesAreOnlyEscapedOnRequest) {
  Json doc = {{"zeta", 1}, {"alpha", "a/b"}, {"mid", {{"b", 2.5}, {"a", true}}}};
  EXPECT_EQ(encodeDocument(doc), "{\n  \"alpha\": \"a/b\",\n  \"mid\": {\n    \"a\": true,\n    \"b\": 2.5\n  },\n  \"zeta\": 1\n}");
  EXPECT_EQ(escapeSlashes(encodeCompact(doc)), R"({"alpha":"a\/b","mid":{"a":true,"b":2.5},"zeta":1})");
  EXPECT_THROW(parseJson("{"), DecodingError);
  EXPECT_THROW(parseJson(std::string("[1]\0garbage", 11)), DecodingError);
}

}  // namespace
}  // namespace vumo
