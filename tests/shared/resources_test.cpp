#include "shared/resources.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>

#include "shared/files.h"
#include "support/test_support.h"

namespace vumo {
namespace {

namespace fs = std::filesystem;

TEST(ResourceLocator, FindsShareVumoBesideTheExecutableOrAboveIt) {
  struct Case {
    const char* name;
    const char* executable;  // relative to a fresh temporary folder
    const char* resources;   // the folder made there, or none
    const char* expected;    // what is found, or none
  } cases[] = {
      {"installed", "prefix/bin/vumo", "prefix/share/vumo", "prefix/share/vumo"},
      {"in a build tree", "build/tests/shared/shared_tests", "build/share/vumo", "build/share/vumo"},
      {"nearest wins", "build/src/app/vumo", "build/src/share/vumo", "build/src/share/vumo"},
      {"a bare share folder is not it", "prefix/bin/vumo", "prefix/share", nullptr},
      {"beside nothing", "prefix/bin/vumo", nullptr, nullptr},
  };
  testing::ScopedEnvironmentVariable noOverride("VUMO_RESOURCE_DIR", std::nullopt);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    testing::TemporaryDirectory root;
    createDirectories(root.path() / fs::path(c.executable).parent_path());
    writeFileAtomically(root.path() / c.executable, "");
    if (c.resources != nullptr) createDirectories(root.path() / c.resources);
    std::optional<fs::path> found = ResourceLocator::forExecutable(root.path() / c.executable);
    if (c.expected == nullptr)
      EXPECT_EQ(found, std::nullopt);
    else
      EXPECT_EQ(found, root.path() / c.expected);
  }
  EXPECT_EQ(ResourceLocator::forExecutable("bin/vumo"), std::nullopt);
  EXPECT_EQ(ResourceLocator::forExecutable(""), std::nullopt);
}

TEST(ResourceLocator, FindsTheLoadablePartsInLibVumoTheSameWay) {
  struct Case {
    const char* name;
    const char* executable;
    const char* folder;
    const char* expected;
  } cases[] = {
      {"installed", "prefix/bin/vumo", "prefix/lib/vumo", "prefix/lib/vumo"},
      {"in a build tree", "build/src/app/vumo", "build/lib/vumo", "build/lib/vumo"},
      {"resources are not modules", "prefix/bin/vumo", "prefix/share/vumo", nullptr},
  };
  testing::ScopedEnvironmentVariable noOverride("VUMO_MODULE_DIR", std::nullopt);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    testing::TemporaryDirectory root;
    createDirectories(root.path() / c.folder);
    std::optional<fs::path> found = ResourceLocator::modulesForExecutable(root.path() / c.executable);
    if (c.expected == nullptr)
      EXPECT_EQ(found, std::nullopt);
    else
      EXPECT_EQ(found, root.path() / c.expected);
  }
  testing::ScopedEnvironmentVariable override("VUMO_MODULE_DIR", "/opt/vumo-modules");
  EXPECT_EQ(ResourceLocator::modulesForExecutable("/usr/bin/vumo"), fs::path("/opt/vumo-modules"));
}

TEST(ResourceLocator, TheEnvironmentOverridesUnlessEmpty) {
  testing::TemporaryDirectory root;
  createDirectories(root.path() / "share/vumo");
  {
    testing::ScopedEnvironmentVariable override("VUMO_RESOURCE_DIR", "/somewhere/else");
    EXPECT_EQ(ResourceLocator::forExecutable(root.path() / "bin/vumo"), fs::path("/somewhere/else"));
  }
  {
    testing::ScopedEnvironmentVariable empty("VUMO_RESOURCE_DIR", "");
    EXPECT_EQ(ResourceLocator::forExecutable(root.path() / "bin/vumo"), root.path() / "share/vumo");
  }
}

TEST(ResourceLocator, TheBuiltProgramFindsTheResourcesOfItsBuild) {
  testing::ScopedEnvironmentVariable noOverride("VUMO_RESOURCE_DIR", std::nullopt);
  std::optional<fs::path> found = ResourceLocator::directory();
  ASSERT_TRUE(found);
  EXPECT_TRUE(fs::is_regular_file(*found / "device-frames/catalog.json")) << *found;
}

}  // namespace
}  // namespace vumo
