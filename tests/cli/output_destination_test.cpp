#include "cli/output_destination.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "cli/cli_errors.h"
#include "shared/files.h"
#include "support/test_support.h"

namespace vumo {
namespace {

namespace fs = std::filesystem;

TEST(OutputDestinationTest, ABareNameLandsInTheExportsFolderAndAnAbsolutePathStays) {
  testing::ScopedDataHome home;
  const fs::path exports = home.path() / "Vumo" / "Exports";
  EXPECT_EQ(defaultExportsDirectory(), exports);
  struct Case {
    const char* requested;
    std::optional<fs::path> resolved;  // none: refused as an invalid --out
  };
  const Case cases[] = {
      {"shot.png", exports / "shot.png"},
      {"/tmp/a.png", fs::path("/tmp/a.png")},
      {"a/b.png", std::nullopt},
      {"..", std::nullopt},
      {".", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& c : cases) {
    if (c.resolved) {
      EXPECT_EQ(resolvedOutputPath(c.requested), *c.resolved) << c.requested;
    } else {
      EXPECT_THROW(resolvedOutputPath(c.requested), CLIArgumentError) << c.requested;
    }
  }
  EXPECT_FALSE(fs::exists(home.path() / "Vumo"));  // resolving touches nothing
}

TEST(OutputDestinationTest, RefusesExistingFilesAndCreatesOnlyTheExportsFolder) {
  testing::ScopedDataHome home;
  auto exports = home.path() / "Vumo" / "Exports";
  EXPECT_EQ(prepareOutputPath(exports / "a.png", false), exports / "a.png");
  EXPECT_TRUE(fs::is_directory(exports));
  fs::remove(exports);
  EXPECT_EQ(prepareOutputPath("a.png", false), exports / "a.png");
  EXPECT_TRUE(fs::is_directory(exports));

  writeFileAtomically(exports / "a.png", "x");
  try {
    prepareOutputPath(exports / "a.png", false);
    FAIL();
  } catch (const CLIOutputError& e) {
    EXPECT_EQ(std::string(e.what()), "输出已存在，使用--replace才能覆盖：" + (exports / "a.png").string());
  }
  EXPECT_THROW(prepareOutputPath("a.png", false), CLIOutputError);
  EXPECT_NO_THROW(prepareOutputPath(exports / "a.png", true));
  EXPECT_EQ(readFile(exports / "a.png", SIZE_MAX), "x");

  try {
    prepareOutputPath(home.path() / "missing" / "a.png", false);
    FAIL();
  } catch (const CLIOutputError& e) {
    EXPECT_EQ(e.kind(), CLIOutputError::Case::parentMissing);
    EXPECT_EQ(std::string(e.what()), "输出目录不存在：" + (home.path() / "missing").string());
  }
  EXPECT_FALSE(fs::exists(home.path() / "missing"));
}

}  // namespace
}  // namespace vumo
