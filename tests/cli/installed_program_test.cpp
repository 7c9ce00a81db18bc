// The program as a user gets it: installed under a prefix and started from anywhere. It must find
// its resources beside itself, and nothing of the folders it was built in may be written into it.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "project/project_store.h"
#include "sample_project.h"
#include "shared/files.h"
#include "shared/json.h"
#include "support/test_support.h"
#include "timeline/device_frame_catalog.h"
#include "timeline/timeline_validation_error.h"

namespace vumo {
namespace {

namespace fs = std::filesystem;

// A finished project recorded from a phone: its first timeline names the catalogue's frame, so
// loading it needs the catalogue.
std::string deviceProject(const fs::path& dataHome) {
  testing::ScopedEnvironmentVariable home("XDG_DATA_HOME", dataHome.string());
  ProjectStore store;
  CaptureSourceDescriptor source;
  source.kind = CaptureSourceKind::device;
  source.title = "Phone";
  source.globalFrame = {0, 0, 1179, 2556};
  source.initialPixelSize = {1179, 2556};
  CreatedProject created = store.createProject(source, RecordingOptions{}, {1179, 2556}, std::nullopt, std::nullopt);
  writeFileAtomically(created.package.mediaPath(), "movie");
  created.manifest.duration = ProjectTime::fromMilliseconds(10'000);
  ProjectPackage package = store.finish(created.package, created.manifest);
  EXPECT_TRUE(store.readTimeline(package, created.manifest.duration, false).deviceFrame.has_value());
  return created.manifest.id.string();
}

TEST(InstalledProgram, RunsFromAnywhereWithItsResourcesAndNoBuildPaths) {
  testing::TemporaryDirectory prefix, elsewhere, dataHome;
  const fs::path build = VUMO_TEST_BUILD_DIR;
  auto install =
      testing::runProgram(VUMO_TEST_CMAKE_COMMAND, {"--install", build.string(), "--prefix", prefix.path().string()});
  ASSERT_EQ(install.status, 0) << install.standardOutput << install.standardError;

  const fs::path program = prefix.path() / "bin" / "vumo";
  const fs::path resources = prefix.path() / "share" / "vumo";
  ASSERT_TRUE(fs::is_regular_file(program));
  EXPECT_NO_THROW(DeviceFrameCatalog::load(resources));  // the catalogue and every image it names

  // Started from an unrelated folder, with nothing pointing it at its resources.
  const std::map<std::string, std::optional<std::string>> plain{{"XDG_DATA_HOME", dataHome.path().string()},
                                                                {"VUMO_RESOURCE_DIR", std::nullopt}};
  auto info = testing::runProgram(program, {"cli", "system-info"}, plain, elsewhere.path());
  EXPECT_EQ(info.status, 0) << info.standardError;
  EXPECT_TRUE(Json::accept(info.standardOutput));

  const std::string id = deviceProject(dataHome.path());
  auto described = testing::runProgram(program, {"cli", "describe", id.substr(0, 8)}, plain, elsewhere.path());
  EXPECT_EQ(described.status, 0) << described.standardError;
  EXPECT_EQ(Json::parse(described.standardOutput)["id"], id);

  // The same program without its resources cannot accept that timeline's frame: describe above did
  // need them.
  fs::copy_file(program, elsewhere.path() / "vumo");
  auto stranded = testing::runProgram(elsewhere.path() / "vumo", {"cli", "describe", id.substr(0, 8)}, plain);
  EXPECT_EQ(stranded.status, 5) << stranded.standardOutput;
  EXPECT_EQ(Json::parse(stranded.standardError)["message"],
            TimelineValidationError::of(TimelineValidationError::Case::invalidDeviceFrame).what());

  // The media engine is loaded from lib/vumo of the prefix only when a command decodes: the copy
  // without it still lists, says what is missing when it would have to decode, and answers once
  // the installed program has left a current waveform in the package.
  std::string sample;
  {
    testing::ScopedEnvironmentVariable home("XDG_DATA_HOME", dataHome.path().string());
    ProjectStore store;
    sample = store.readManifest(makeSampleProject(store)).id.string();
  }
  ASSERT_TRUE(fs::is_regular_file(prefix.path() / "lib" / "vumo" / "vumo-media.so"));
  const auto withoutModules = [&] {
    auto environment = plain;
    environment["VUMO_MODULE_DIR"] = std::nullopt;
    return environment;
  }();
  const fs::path stray = elsewhere.path() / "vumo";
  EXPECT_EQ(testing::runProgram(stray, {"cli", "list"}, withoutModules).status, 0);
  auto deaf = testing::runProgram(stray, {"cli", "idle", sample.substr(0, 8)}, withoutModules);
  EXPECT_EQ(deaf.status, 6);
  EXPECT_EQ(Json::parse(deaf.standardError)["message"],
            "The media component of Vumo could not be loaded: no lib/vumo folder beside the program");
  auto idle = testing::runProgram(program, {"cli", "idle", sample.substr(0, 8)}, plain, elsewhere.path());
  EXPECT_EQ(idle.status, 0) << idle.standardError;
  EXPECT_EQ(Json::parse(idle.standardOutput)["analyzedTrack"], "microphone");
  auto cached = testing::runProgram(stray, {"cli", "idle", sample.substr(0, 8)}, withoutModules);
  EXPECT_EQ(cached.status, 0) << cached.standardError;
  EXPECT_EQ(cached.standardOutput, idle.standardOutput);

  // The installed shaders, fonts and arrow draw a still; the stray copy has none of them.
  testing::TemporaryDirectory cache;
  auto drawing = plain;
  drawing["XDG_CACHE_HOME"] = cache.path().string();
  const fs::path still = elsewhere.path() / "still.png";
  auto frame = testing::runProgram(
      program, {"cli", "frame", sample.substr(0, 8), "--ms", "1000", "--out", still.string(), "--width", "320"},
      drawing, elsewhere.path());
  EXPECT_EQ(frame.status, 0) << frame.standardError;
  EXPECT_EQ(Json::parse(frame.standardOutput)["outputPath"], still.string());
  EXPECT_EQ(readFile(still, 16 << 20).substr(1, 3), "PNG");

  // No path of the machine that built it: not the sources, not the build folder. (The sanitizers'
  // source locations keep header paths whatever the prefix maps say; that build is never shipped.)
#ifdef VUMO_SANITIZED_BUILD
  return;
#endif
  for (const fs::path& file : {program, prefix.path() / "lib" / "vumo" / "vumo-media.so"}) {
    const std::string bytes = readFile(file, SIZE_MAX);
    for (const fs::path& folder : {fs::path(VUMO_TEST_SOURCE_DIR), build})
      EXPECT_EQ(bytes.find(folder.lexically_normal().string()), std::string::npos) << file << " names " << folder;
  }
}

}  // namespace
}  // namespace vumo
