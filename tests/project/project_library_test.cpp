// The projects folder as a collection: listing, lookup, deletion, discards and imports.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <set>
#include <vector>

#include "project/project_store.h"
#include "project_fixtures.h"
#include "shared/files.h"
#include "support/test_support.h"

namespace vumo {
namespace {

namespace fs = std::filesystem;
using namespace project_testing;

TEST(ProjectStoreLookup, PrefixesMatchTheIdTextCaseInsensitively) {
  StoreFixture f;
  const char* ids[] = {"AB120000-1111-4000-8000-000000000001", "AB125555-2222-4000-8000-000000000002",
                       "CD000000-3333-4000-8000-000000000003"};
  std::vector<ProjectPackage> packages;
  for (const char* id : ids) {
    auto package = f.finishedProject();
    auto manifest = f.store.readManifest(package);
    manifest.id = *Uuid::parse(id);
    f.store.updateManifest(manifest, package);
    packages.push_back(package);
  }
  struct Case {
    std::string prefix;
    std::optional<std::size_t> match;
    std::optional<ProjectStoreError::Case> error;
  };
  using E = ProjectStoreError::Case;
  const Case cases[] = {
      {"ab12", std::nullopt, E::ambiguousProjectPrefix},
      {"AB120", 0, std::nullopt},
      {"ab1255", 1, std::nullopt},
      {"cd", 2, std::nullopt},
      {"ab120000-1", 0, std::nullopt},
      {"ab1200001", std::nullopt, E::projectNotFound},  // hyphens are part of the text
      {"ef", std::nullopt, E::projectNotFound},
      {"", std::nullopt, E::ambiguousProjectPrefix},
      {ids[2], 2, std::nullopt},
  };
  for (const auto& c : cases) {
    if (c.match) {
      EXPECT_EQ(f.store.project(c.prefix), packages[*c.match]) << c.prefix;
    } else {
      EXPECT_EQ(testing::thrownCase<ProjectStoreError>([&] { f.store.project(c.prefix); }), *c.error) << c.prefix;
    }
  }
  try {
    f.store.project("ef");
  } catch (const ProjectStoreError& e) {
    EXPECT_STREQ(e.what(), "Project not found: ef");
  }
}

TEST(ProjectStoreLookup, OnlyFinishedProjectsWithMediaAndAReadableManifestAreListed) {
  StoreFixture f;
  auto visible = f.finishedProject();
  auto noMedia = f.finishedProject();
  fs::remove(noMedia.mediaPath());
  auto brokenManifest = f.finishedProject();
  writeFileAtomically(brokenManifest.manifestPath(), "{}");
  auto failed = f.finishedProject();
  auto failedManifest = f.store.readManifest(failed);
  f.store.markFailed(failed, failedManifest, "crash");
  auto recording = f.store.createProject(displaySource(), RecordingOptions{}, {1920, 1080}, std::nullopt, std::nullopt);
  writeFileAtomically(recording.package.mediaPath(), "m");
  writeFileAtomically(f.store.projectsDirectoryPath() / "stray.vumo", "a file, not a package");

  auto recent = f.store.recentProjects();
  ASSERT_EQ(recent.size(), 1u);
  EXPECT_EQ(recent[0].packagePath, visible.rootPath);
  EXPECT_EQ(recent[0].state, ProjectState::completed);
  EXPECT_EQ(recent[0].sourceTitle, "Built-in Display");
  EXPECT_EQ(recent[0].duration, tenSeconds);
  EXPECT_FALSE(recent[0].hasWebcam);
  auto id = f.store.readManifest(noMedia).id.string();
  EXPECT_EQ(testing::thrownCase<ProjectStoreError>([&] { f.store.project(id); }),
            ProjectStoreError::Case::projectNotFound);
  EXPECT_EQ(testing::thrownCase<ProjectStoreError>([&] { f.store.project(recording.manifest.id.string()); }),
            ProjectStoreError::Case::projectNotFound);
}

TEST(ProjectStoreLookup, RecentProjectsAreNewestFirstThenByName) {
  StoreFixture f;
  std::vector<ProjectPackage> packages;
  const char* dates[] = {"2026-01-01T00:00:00Z", "2026-03-01T00:00:00Z", "2026-03-01T00:00:00Z"};
  for (const char* date : dates) {
    auto package = f.finishedProject();
    auto manifest = f.store.readManifest(package);
    manifest.updatedAt = *Timestamp::parseISO8601(date);
    f.store.updateManifest(manifest, package);
    packages.push_back(package);
  }
  auto recent = f.store.recentProjects();
  ASSERT_EQ(recent.size(), 3u);
  std::string first = packages[1].rootPath.filename().string(), second = packages[2].rootPath.filename().string();
  if (second < first) std::swap(first, second);
  EXPECT_EQ(recent[0].packagePath.filename().string(), first);
  EXPECT_EQ(recent[1].packagePath.filename().string(), second);
  EXPECT_EQ(recent[2].packagePath, packages[0].rootPath);
}

TEST(ProjectStoreRemoval, DeleteOnlyRemovesPackagesDirectlyInTheProjectsFolder) {
  StoreFixture f;
  auto package = f.finishedProject();
  testing::TemporaryDirectory elsewhere;
  createDirectories(elsewhere.path() / "Other.vumo");
  auto recent = f.store.recentProjects().at(0);

  RecentProject outside = recent;
  outside.packagePath = elsewhere.path() / "Other.vumo";
  RecentProject wrongExtension = recent;
  wrongExtension.packagePath = f.store.projectsDirectoryPath() / "notes";
  RecentProject climbing = recent;
  climbing.packagePath = f.store.projectsDirectoryPath() / ".." / ".." / elsewhere.path().filename() / "Other.vumo";
  for (const auto& bad : {outside, wrongExtension, climbing}) {
    try {
      f.store.deleteProject(bad);
      FAIL() << bad.packagePath;
    } catch (const ProjectStoreError& e) {
      EXPECT_EQ(e.kind(), ProjectStoreError::Case::invalidProjectLocation);
      EXPECT_NE(std::string(e.what()).find("Deletion refused"), std::string::npos);
    }
  }
  EXPECT_TRUE(fs::exists(elsewhere.path() / "Other.vumo"));

  RecentProject roundabout = recent;
  roundabout.packagePath = f.store.projectsDirectoryPath() / "." / package.rootPath.filename();
  f.store.deleteProject(roundabout);
  EXPECT_FALSE(fs::exists(package.rootPath));
}

TEST(ProjectStoreRemoval, DiscardingAnUnfinishedRecordingHidesItFirstAndCleanupFinishesInterruptedDiscards) {
  StoreFixture f;
  auto created = f.store.createProject(displaySource(), RecordingOptions{}, {1920, 1080}, std::nullopt, std::nullopt);
  f.store.discardRecording(created.package);
  EXPECT_TRUE(entryNames(f.store.projectsDirectoryPath()).empty());

  auto finished = f.finishedProject();
  fs::path notUuid = f.store.projectsDirectoryPath() / "holiday.vumo.tmp";
  createDirectories(notUuid);
  testing::TemporaryDirectory elsewhere;
  fs::path outside = elsewhere.path() / (Uuid::random().string() + ".vumo.tmp");
  createDirectories(outside);
  fs::path link = f.store.projectsDirectoryPath() / (Uuid::random().string() + ".vumo.tmp");
  fs::create_directory_symlink(outside, link);
  for (const fs::path& bad : {finished.rootPath, notUuid, outside, link})
    EXPECT_EQ(testing::thrownCase<ProjectStoreError>([&] { f.store.discardRecording(ProjectPackage{bad}); }),
              ProjectStoreError::Case::invalidProjectLocation)
        << bad;
  EXPECT_TRUE(fs::exists(outside));

  // A discard that a crash cut short.
  std::string id = Uuid::random().string();
  createDirectories(f.store.projectsDirectoryPath() / (id + ".vumo.discarding") / "media");
  createDirectories(f.store.projectsDirectoryPath() / "keep.vumo.discarding");
  EXPECT_EQ(f.store.cleanupDiscardedRecordings(), 1u);
  EXPECT_FALSE(fs::exists(f.store.projectsDirectoryPath() / (id + ".vumo.discarding")));
  EXPECT_TRUE(fs::exists(f.store.projectsDirectoryPath() / "keep.vumo.discarding"));
}

TEST(ProjectStoreImport, CopiesPackagesThatAreNotHereYetAndKeepsTheOriginals) {
  StoreFixture f;
  testing::TemporaryDirectory legacy;
  std::string a = Uuid::random().string() + ".vumo", b = Uuid::random().string() + ".vumo.tmp";
  for (const std::string& name : {a, b}) {
    createDirectories(legacy.path() / name / "edits");
    writeFileAtomically(legacy.path() / name / "edits" / "timeline.json", name);
  }
  writeFileAtomically(legacy.path() / "notes.txt", "x");
  createDirectories(legacy.path() / "present.vumo");
  createDirectories(f.store.projectsDirectoryPath() / "present.vumo");
  writeFileAtomically(f.store.projectsDirectoryPath() / "present.vumo" / "mine", "mine");

  EXPECT_EQ(f.store.importProjects(legacy.path()), 2u);
  EXPECT_EQ(readFile(f.store.projectsDirectoryPath() / a / "edits" / "timeline.json", SIZE_MAX), a);
  EXPECT_EQ(readFile(f.store.projectsDirectoryPath() / b / "edits" / "timeline.json", SIZE_MAX), b);
  EXPECT_TRUE(fs::exists(f.store.projectsDirectoryPath() / "present.vumo" / "mine"));
  EXPECT_TRUE(fs::exists(legacy.path() / a));
  EXPECT_EQ(entryNames(f.store.projectsDirectoryPath()), (std::set<std::string>{a, b, "present.vumo"}));
  EXPECT_EQ(f.store.importProjects(legacy.path()), 0u);
}

TEST(ProjectStoreLookup, APackageWhoseManifestIsNoRegularFileOrTooLargeIsLeftOutWithoutBlocking) {
  StoreFixture f;
  auto visible = f.finishedProject();
  std::vector<ProjectPackage> hostile;
  auto planted = [&](const std::function<void(const fs::path&)>& plant) {
    auto package = f.finishedProject();
    fs::remove(package.manifestPath());
    plant(package.manifestPath());
    hostile.push_back(package);
  };
  planted([](const fs::path& manifest) { ASSERT_EQ(::mkfifo(manifest.c_str(), 0600), 0); });
  planted([](const fs::path& manifest) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(manifest.native().size(), sizeof address.sun_path);
    std::strcpy(address.sun_path, manifest.c_str());
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ::close(fd);
  });
  planted([](const fs::path& manifest) {
    writeFileAtomically(manifest, "");
    fs::resize_file(manifest, 64 * 1024 * 1024);  // sparse, far over the manifest limit
  });
  planted([](const fs::path& manifest) { createDirectories(manifest); });
  planted([&](const fs::path& manifest) {
    fs::path fifo = manifest.parent_path() / "fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    fs::create_symlink(fifo, manifest);
  });

  EXPECT_TRUE(finishesWithin(std::chrono::seconds(20), [&] {
    f.store.recentProjects();
    f.store.project(visible.rootPath.filename().string().substr(0, 8));
  }));
  auto recent = f.store.recentProjects();
  ASSERT_EQ(recent.size(), 1u);
  EXPECT_EQ(recent[0].packagePath, visible.rootPath);
  EXPECT_EQ(f.store.project(visible.rootPath.filename().string().substr(0, 8)), visible);
  for (const auto& package : hostile) EXPECT_TRUE(fs::exists(fs::symlink_status(package.manifestPath())));
}

}  // namespace
}  // namespace vumo
