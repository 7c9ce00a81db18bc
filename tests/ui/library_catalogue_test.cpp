#include "ui/library_catalogue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <fstream>
#include <thread>

#include "project/file_lock.h"
#include "project/project_fixtures.h"
#include "project/project_store.h"
#include "support/manual_main_loop.h"
#include "support/test_support.h"
#include "ui/library_thumbnails.h"
#include "ui/library_trash.h"

namespace vumo {
namespace {

namespace fs = std::filesystem;
using project_testing::displaySource;
using testing::ScopedDataHome;
using testing::TemporaryDirectory;

std::string contents(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

class LibraryTest : public ::testing::Test {
 protected:
  TemporaryDirectory home;
  testing::ScopedEnvironmentVariable homeVariable{"HOME", home.path().string()};
  testing::ScopedEnvironmentVariable cacheHome{"XDG_CACHE_HOME", (home.path() / "cache").string()};
  testing::ScopedEnvironmentVariable runtime{"XDG_RUNTIME_DIR", home.path().string()};
  ScopedDataHome data;
  ProjectStore store;
  FreedesktopTrash trash{data.path() / "Trash"};
  LibraryCatalogue catalogue{store, trash};

  ProjectPackage finished(const std::string& title, std::int64_t milliseconds = 10'000) {
    CaptureSourceDescriptor source = displaySource();
    source.title = title;
    auto created = store.createProject(source, RecordingOptions{}, {1920, 1080}, std::nullopt, std::nullopt);
    writeFileAtomically(created.package.mediaPath(), "placeholder");
    created.manifest.duration = ProjectTime::fromMilliseconds(milliseconds);
    return store.finish(created.package, created.manifest);
  }

  ProjectManifest manifestOf(const ProjectPackage& package) { return store.readManifest(package); }

  LibraryEntry only(const std::vector<LibraryEntry>& entries) {
    EXPECT_EQ(entries.size(), 1u);
    return entries.empty() ? LibraryEntry{} : entries.front();
  }
};

TEST_F(LibraryTest, TheListShowsEachFinishedProjectWithTitleDurationAndDate) {
  const ProjectPackage package = finished("Quarterly Review", 12'345);
  const std::vector<LibraryEntry> entries = catalogue.recentProjects();
  const LibraryEntry& entry = only(entries);
  EXPECT_EQ(entry.projectID, manifestOf(package).id.string());
  EXPECT_EQ(entry.title, "Quarterly Review");
  EXPECT_EQ(entry.duration, ProjectTime::fromMilliseconds(12'345));
  EXPECT_EQ(entry.updatedAt, manifestOf(package).updatedAt);
  EXPECT_TRUE(catalogue.damagedPackages().empty());
}

TEST_F(LibraryTest, PackagesTheListLeavesOutAreListedAsDamagedWithTheirReason) {
  finished("Fine");
  const ProjectPackage noMedia = finished("No media");
  fs::remove(noMedia.mediaPath());
  const ProjectPackage badManifest = finished("Bad manifest");
  writeFileAtomically(badManifest.manifestPath(), "{\"version\": ");
  const ProjectPackage failed = finished("Failed");
  ProjectManifest failedManifest = manifestOf(failed);
  store.markFailed(failed, failedManifest, "The disk was full.");
  auto interrupted = store.createProject(displaySource(), RecordingOptions{}, {1920, 1080}, std::nullopt, std::nullopt);
  auto live = store.createProject(displaySource(), RecordingOptions{}, {1920, 1080}, std::nullopt, std::nullopt);
  RecordingPackageLock liveLock(live.package.rootPath);
  fs::create_directories(store.projectsDirectoryPath() / "notes");  // not a package at all

  ASSERT_EQ(catalogue.recentProjects().size(), 1u);
  std::map<fs::path, std::string> reasons;
  for (const DamagedPackage& damaged : catalogue.damagedPackages()) reasons[damaged.packagePath] = damaged.error;

  std::map<fs::path, std::string> expected = {
      {noMedia.rootPath, "The recording's media file media/recording.mov is missing."},
      {failed.rootPath, "The recording failed: The disk was full."},
      {interrupted.package.rootPath, "The recording was interrupted and could not be recovered."},
  };
  ASSERT_EQ(reasons.size(), 4u) << "a live recording is not damaged";
  for (const auto& [path, reason] : expected) EXPECT_EQ(reasons[path], reason) << path;
  ASSERT_TRUE(reasons.contains(badManifest.rootPath));
  for (const DamagedPackage& damaged : catalogue.damagedPackages(false))
    EXPECT_NE(damaged.packagePath, interrupted.package.rootPath) << "left to start-up recovery";
  EXPECT_EQ(catalogue.damagedPackages(false).size(), 3u);
  EXPECT_FALSE(reasons[badManifest.rootPath].empty());
  EXPECT_EQ(reasons[badManifest.rootPath].find("{\"version\""), std::string::npos) << "the text is never quoted";
}

TEST_F(LibraryTest, RenameWritesTheTitleThroughTheStoreAndRefusesAnEmptyOne) {
  const ProjectPackage package = finished("Screen 1");
  const ProjectManifest before = manifestOf(package);
  catalogue.rename(only(catalogue.recentProjects()), "  Launch demo\n");
  EXPECT_EQ(only(catalogue.recentProjects()).title, "Launch demo");
  ProjectManifest after = manifestOf(package);
  EXPECT_EQ(after.source.title, "Launch demo");
  after.source.title = before.source.title;
  EXPECT_EQ(after, before) << "nothing else of the manifest changes";

  EXPECT_ERROR_CASE(catalogue.rename(only(catalogue.recentProjects()), " \t"), LibraryError,
                    LibraryError::Case::emptyTitle);
  EXPECT_EQ(only(catalogue.recentProjects()).title, "Launch demo");
}

TEST_F(LibraryTest, DeletingMovesThePackageToTheTrashWithWhereItCameFromAndWhen) {
  const ProjectPackage package = finished("Old take");
  const std::string name = package.rootPath.filename().string();
  const auto before = std::chrono::system_clock::now();
  const fs::path trashed = catalogue.moveToTrash(only(catalogue.recentProjects()));

  EXPECT_EQ(trashed, data.path() / "Trash" / "files" / name);
  EXPECT_FALSE(fs::exists(package.rootPath));
  EXPECT_EQ(contents(trashed / "media" / "recording.mov"), "placeholder") << "moved whole, not removed";
  EXPECT_TRUE(catalogue.recentProjects().empty());

  const std::string info = contents(data.path() / "Trash" / "info" / (name + ".trashinfo"));
  const std::string expectedPath = fs::absolute(package.rootPath).string();
  ASSERT_EQ(info.rfind("[Trash Info]\nPath=" + expectedPath + "\nDeletionDate=", 0), 0u) << info;
  // Local time at whole seconds, within the test's own run.
  std::tm parsed{};
  const std::string date = info.substr(info.find("DeletionDate=") + 13, 19);
  ASSERT_NE(::strptime(date.c_str(), "%Y-%m-%dT%H:%M:%S", &parsed), nullptr) << date;
  parsed.tm_isdst = -1;
  const auto deleted = std::chrono::system_clock::from_time_t(std::mktime(&parsed));
  EXPECT_GE(deleted, std::chrono::floor<std::chrono::seconds>(before));
  EXPECT_LE(deleted, std::chrono::system_clock::now());
}

TEST_F(LibraryTest, DeletionKeepsTheStoresChecks) {
  finished("Kept");
  LibraryEntry outside = only(catalogue.recentProjects());
  TemporaryDirectory elsewhere;
  fs::create_directories(elsewhere.path() / outside.recent.packagePath.filename());
  outside.recent.packagePath = elsewhere.path() / outside.recent.packagePath.filename();
  EXPECT_ERROR_CASE(catalogue.moveToTrash(outside), ProjectStoreError, ProjectStoreError::Case::invalidProjectLocation);
  EXPECT_TRUE(fs::exists(outside.recent.packagePath));
  EXPECT_FALSE(fs::exists(data.path() / "Trash" / "files"));
}

TEST(FreedesktopTrash, NamesAreNeverReusedAndPathsAreWrittenAsURLs) {
  TemporaryDirectory folder;
  FreedesktopTrash trash(folder.path() / "Trash");
  std::vector<fs::path> trashed;
  for (int i = 0; i < 3; ++i) {
    const fs::path original = folder.path() / "My Films" / "take #1.vumo";
    fs::create_directories(original);
    std::ofstream(original / "n") << i;
    trashed.push_back(trash.moveToTrash(original));
  }
  EXPECT_EQ(trashed, (std::vector<fs::path>{folder.path() / "Trash/files/take #1.vumo",
                                            folder.path() / "Trash/files/take #1 2.vumo",
                                            folder.path() / "Trash/files/take #1 3.vumo"}));
  EXPECT_EQ(contents(trashed[2] / "n"), "2");
  const std::string info = contents(folder.path() / "Trash/info/take #1 3.vumo.trashinfo");
  EXPECT_NE(info.find("\nPath=" + folder.path().string() + "/My%20Films/take%20%231.vumo\n"), std::string::npos)
      << info;
}

TEST(FreedesktopTrash, AFailedMoveLeavesTheOriginalAndNoInfo) {
  TemporaryDirectory folder;
  FreedesktopTrash trash(folder.path() / "Trash");
  EXPECT_THROW(trash.moveToTrash(folder.path() / "missing.vumo"), FileError);
  EXPECT_TRUE(fs::is_empty(folder.path() / "Trash" / "info"));
}

TEST_F(LibraryTest, ADroppedPackageIsImportedOnceAndAnythingElseIsRefused) {
  TemporaryDirectory other;
  ProjectStore otherStore(other.path() / "Projects");
  auto created = otherStore.createProject(displaySource(), RecordingOptions{}, {1280, 720}, std::nullopt, std::nullopt);
  writeFileAtomically(created.package.mediaPath(), "placeholder");
  created.manifest.duration = ProjectTime::fromMilliseconds(3'000);
  const ProjectPackage dropped = otherStore.finish(created.package, created.manifest);
  fs::create_directories(other.path() / "Projects" / "sibling.vumo");  // next to it, not dropped

  catalogue.importPackage(dropped.rootPath);
  const LibraryEntry entry = only(catalogue.recentProjects());
  EXPECT_EQ(entry.projectID, created.manifest.id.string());
  EXPECT_EQ(entry.recent.packagePath.parent_path(), store.projectsDirectoryPath());
  EXPECT_TRUE(fs::exists(dropped.rootPath)) << "the original stays";

  EXPECT_ERROR_CASE(catalogue.importPackage(dropped.rootPath), LibraryError, LibraryError::Case::alreadyInLibrary);
  EXPECT_ERROR_CASE(catalogue.importPackage(other.path() / "Projects" / "sibling.vumo"), LibraryError,
                    LibraryError::Case::notAProject);
  EXPECT_ERROR_CASE(catalogue.importPackage(other.path() / "Projects"), LibraryError, LibraryError::Case::notAProject);
  EXPECT_EQ(catalogue.recentProjects().size(), 1u);
  for (const auto& left : fs::directory_iterator(store.projectsDirectoryPath()))
    EXPECT_EQ(left.path().extension(), ".vumo") << "nothing staged is left: " << left.path();
}

// Turns the loop until `done` or a generous limit.
void turnUntil(testing::ManualMainLoop& loop, const std::function<bool()>& done) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!done() && std::chrono::steady_clock::now() < limit) {
    loop.runUntilIdle();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

TEST_F(LibraryTest, ThumbnailsAreRenderedOffTheMainThreadOncePerTimelineAndCached) {
  TemporaryDirectory cache;
  const ProjectPackage shortOne = finished("Short", 600);
  const ProjectPackage longOne = finished("Long", 5'000);
  const std::thread::id mainThread = std::this_thread::get_id();
  std::atomic<int> renders = 0;
  std::atomic<bool> renderedOnMain = false;
  testing::ManualMainLoop loop;
  LibraryThumbnails thumbnails(
      loop, store.projectsDirectoryPath(),
      [&](const ProjectSnapshot& snapshot, ProjectTime at, int width, std::stop_token) {
        ++renders;
        renderedOnMain = renderedOnMain || std::this_thread::get_id() == mainThread;
        return snapshot.manifest.source.title + "@" + std::to_string(at.cliMilliseconds()) + "/" +
               std::to_string(width);
      },
      cache.path() / "Thumbnails");

  std::map<fs::path, LibraryThumbnails::Result> results;
  auto ask = [&](const ProjectPackage& package) {
    thumbnails.request(package.rootPath, [&](const LibraryThumbnails::Result& result) {
      EXPECT_EQ(std::this_thread::get_id(), mainThread);
      results[result.packagePath] = result;
    });
  };
  ask(shortOne);
  ask(longOne);
  ask(ProjectPackage{store.projectsDirectoryPath() / "missing.vumo"});
  EXPECT_TRUE(results.empty()) << "nothing is answered inside the request";
  turnUntil(loop, [&] { return results.size() == 3; });
  ASSERT_EQ(results.size(), 3u);
  EXPECT_FALSE(renderedOnMain);

  const std::string digest = store.timelineDigest(longOne);
  const fs::path expected = cache.path() / "Thumbnails" / (manifestOf(longOne).id.string() + "-" + digest + ".png");
  EXPECT_EQ(results[longOne.rootPath].image, expected);
  EXPECT_EQ(contents(expected), "Long@1000/320");
  EXPECT_EQ(contents(*results[shortOne.rootPath].image), "Short@0/320") << "a film under a second shows its start";
  EXPECT_FALSE(results[store.projectsDirectoryPath() / "missing.vumo"].image);
  EXPECT_TRUE(results[store.projectsDirectoryPath() / "missing.vumo"].error);
  EXPECT_EQ(renders, 2);

  results.clear();
  ask(longOne);
  turnUntil(loop, [&] { return results.size() == 1; });
  EXPECT_EQ(results[longOne.rootPath].image, expected);
  EXPECT_EQ(renders, 2) << "an unchanged project is never rendered again";

  EditTimeline edited = store.readTimeline(longOne, ProjectTime::fromMilliseconds(5'000), false);
  edited.motionBlurAmount = 0.25;
  store.writeTimeline(edited, longOne);
  results.clear();
  ask(longOne);
  turnUntil(loop, [&] { return results.size() == 1; });
  EXPECT_NE(results[longOne.rootPath].image, expected);
  EXPECT_EQ(renders, 3) << "an edit makes a new thumbnail";
}

TEST_F(LibraryTest, AnswersNeverArriveAfterTheThumbnailsAreGone) {
  finished("Any");
  testing::ManualMainLoop loop;
  TemporaryDirectory cache;
  bool answered = false;
  {
    LibraryThumbnails thumbnails(
        loop, store.projectsDirectoryPath(),
        [](const ProjectSnapshot&, ProjectTime, int, std::stop_token) { return std::string("png"); }, cache.path());
    thumbnails.request(only(catalogue.recentProjects()).recent.packagePath,
                       [&](const LibraryThumbnails::Result&) { answered = true; });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  loop.runUntilIdle();
  EXPECT_FALSE(answered);
}

}  // namespace
}  // namespace vumo
