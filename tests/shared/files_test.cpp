#include "shared/files.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <vector>

#include "shared/digest.h"
#include "shared/error.h"
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

// Sets the process umask for the lifetime of the object.
class ScopedUmask {
 public:
  explicit ScopedUmask(mode_t mask) : previous_(::umask(mask)) {}
  ~ScopedUmask() { ::umask(previous_); }

 private:
  mode_t previous_;
};

mode_t permissions(const std::filesystem::path& path) {
  struct stat status {};
  EXPECT_EQ(::stat(path.c_str(), &status), 0);
  return status.st_mode & 07777;
}

TEST(FilesTest, AtomicWriteMakesFilesAsTheUmaskSaysAndKeepsTheModeOfAReplacedOne) {
  struct Case {
    mode_t umask;
    std::optional<mode_t> existingMode;  // none: the file is new
    mode_t expected;
  };
  const Case cases[] = {
      {022, std::nullopt, 0644}, {077, std::nullopt, 0600}, {027, std::nullopt, 0640}, {002, std::nullopt, 0664},
      {022, 0600, 0600},         {077, 0664, 0664},         {022, 0640, 0640},
  };
  for (const Case& c : cases) {
    testing::TemporaryDirectory dir;
    auto file = dir.path() / "timeline.json";
    if (c.existingMode) {
      writeFileAtomically(file, "old");
      ASSERT_EQ(::chmod(file.c_str(), *c.existingMode), 0);
    }
    {
      ScopedUmask mask(c.umask);
      writeFileAtomically(file, "new");
    }
    EXPECT_EQ(permissions(file), c.expected) << "umask " << std::oct << c.umask;
    EXPECT_EQ(readFile(file, SIZE_MAX), "new");
  }
}

// Lowers the descriptor limit and fills every free descriptor, so that the next open fails with
// EMFILE; everything is given back on destruction.
class DescriptorsExhausted {
 public:
  DescriptorsExhausted() {
    ::getrlimit(RLIMIT_NOFILE, &previous_);
    rlimit lowered = previous_;
    lowered.rlim_cur = std::min<rlim_t>(previous_.rlim_cur, 256);
    ::setrlimit(RLIMIT_NOFILE, &lowered);
    for (int fd; (fd = ::dup(STDIN_FILENO)) >= 0;) held_.push_back(fd);
  }
  ~DescriptorsExhausted() {
    for (int fd : held_) ::close(fd);
    ::setrlimit(RLIMIT_NOFILE, &previous_);
  }

 private:
  rlimit previous_{};
  std::vector<int> held_;
};

TEST(FilesTest, RunningOutOfDescriptorsIsASystemFailureNamingThePath) {
#ifdef VUMO_SANITIZED_BUILD
  GTEST_SKIP() << "the sanitizer runtime needs descriptors of its own to check memory";
#endif
  testing::TemporaryDirectory dir;
  auto existing = dir.path() / "manifest.json";
  writeFileAtomically(existing, "{}");
  auto expectSystemFailure = [&](auto&& action, const std::string& name) {
    try {
      action();
      ADD_FAILURE() << name << " did not fail";
    } catch (const SystemFileError& e) {
      EXPECT_NE(std::string(e.what()).find(name), std::string::npos) << e.what();
    }
  };
  DescriptorsExhausted exhausted;
  expectSystemFailure([&] { readFile(existing, SIZE_MAX); }, "manifest.json");
  expectSystemFailure([&] { writeFileAtomically(dir.path() / "timeline.json", "x"); }, "timeline.json");
}

TEST(FilesTest, TheNamesOfAtomicWriteTemporariesAndOnlyThose) {
  // The writer's names are the ones the clean-up recognises, whatever the random part.
  for (const char* document : {"timeline.json", "2026-01-02T03-04-05.678Z-X.json", "a"}) {
    for (int i = 0; i < 50; ++i) {
      std::string name = atomicWriteTemporaryName(std::filesystem::path("/p") / document);
      EXPECT_EQ(atomicWriteTarget(name), std::optional<std::string_view>(document)) << name;
    }
  }
  struct Case {
    const char* name;
    std::optional<std::string_view> document;
  };
  const Case cases[] = {
      {".timeline.json.0a1b2c3d", "timeline.json"},
      {".2026-01-02T03-04-05.678Z-X.json.00000000", "2026-01-02T03-04-05.678Z-X.json"},
      {".a.ffffffff", "a"},
      {".timeline.json.0a1b2c3", std::nullopt},    // seven digits, not eight
      {".timeline.json.0a1b2c3d4", std::nullopt},  // nine
      {".timeline.json.0a1b2c3g", std::nullopt},   // not a hexadecimal digit
      {".timeline.json.0A1B2C3D", std::nullopt},   // the writer writes lower case
      {"timeline.json.0a1b2c3d", std::nullopt},    // not hidden
      {"..0a1b2c3d", std::nullopt},                // no document
      {".timeline.lock", std::nullopt},
  };
  for (const auto& c : cases) EXPECT_EQ(atomicWriteTarget(c.name), c.document) << c.name;
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
  EXPECT_EQ(encodeDocument(doc),
            "{\n  \"alpha\": \"a/b\",\n  \"mid\": {\n    \"a\": true,\n    \"b\": 2.5\n  },\n  \"zeta\": 1\n}");
  EXPECT_EQ(escapeSlashes(encodeCompact(doc)), R"({"alpha":"a\/b","mid":{"a":true,"b":2.5},"zeta":1})");
  EXPECT_THROW(parseJson("{"), DecodingError);
  EXPECT_THROW(parseJson(std::string("[1]\0garbage", 11)), DecodingError);
}

TEST(JsonTest, ParseErrorsGiveThePositionButNeverQuoteTheText) {
  struct Case {
    std::string text;
    std::string position;
  };
  // Each document holds the word "secret" where the parser stops reading, so the parser's own
  // message would quote it.
  const Case cases[] = {
      {R"({"token": secret})", "line 1, column 11"},   {"{\n  \"token\": \"secret", "line 2, column 19"},
      {R"(["secret" "secret"])", "line 1, column 18"}, {"{\"secret\xff\": 1}", "line 1, column 9"},
      {R"({"a": 1} secret)", "line 1, column 10"},     {"{\"k\": \"secret\x01\"}", "line 1, column 14"},
  };
  for (const Case& c : cases) {
    try {
      parseJson(c.text);
      ADD_FAILURE() << c.text << " parsed";
    } catch (const DecodingError& e) {
      std::string message = e.what();
      EXPECT_EQ(message.find("secret"), std::string::npos) << message;
      EXPECT_NE(message.find(c.position), std::string::npos) << message;
      EXPECT_TRUE(message.starts_with("The data isn't valid JSON: ")) << message;
    }
  }
}

TEST(JsonTest, DisplayEncodingReplacesBytesThatAreNotUTF8) {
  Json names = {{"packagePath", "/p/\xff\xfe.vumo"}, {"title", "Zoé"}};
  EXPECT_THROW(encodeDocument(names), nlohmann::json::exception);
  EXPECT_EQ(encodeForDisplay(names),
            "{\n  \"packagePath\": \"/p/\xef\xbf\xbd\xef\xbf\xbd.vumo\",\n  \"title\": \"Zoé\"\n}");
}

}  // namespace
}  // namespace vumo
