// The timeline and captions documents: digest-guarded commits, their history and migration
// backups.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <set>
#include <thread>

#include "captions/caption_errors.h"
#include "project/project_history_files.h"
#include "project/project_store.h"
#include "project/stale_temporaries.h"
#include "project_fixtures.h"
#include "shared/digest.h"
#include "shared/files.h"
#include "support/test_support.h"

namespace vumo {
namespace {

namespace fs = std::filesystem;
using namespace project_testing;

TEST(ProjectStoreCommit, ReplacesTheTimelineAndKeepsThePreviousBytesInHistory) {
  StoreFixture f;
  auto package = f.finishedProject();
  std::string before = readFile(package.timelinePath(), SIZE_MAX);
  std::string digest = f.store.timelineDigest(package);
  EXPECT_EQ(digest, sha256Hex(before));

  auto commit = f.store.commitTimeline(timelineWithBlur(0.25), digest, std::nullopt, package);
  EXPECT_TRUE(commit.warnings.empty());
  EXPECT_EQ(commit.digest, sha256Hex(readFile(package.timelinePath(), SIZE_MAX)));
  EXPECT_EQ(decodeEditTimeline(readFile(package.timelinePath(), SIZE_MAX)).motionBlurAmount, 0.25);
  auto history = f.store.timelineHistory(package);
  ASSERT_EQ(history.size(), 1u);
  EXPECT_EQ(readFile(history[0].path, SIZE_MAX), before);
  EXPECT_EQ(history[0].digest, digest);
  // Nothing but the documents and the lock: no temporary file is left behind.
  EXPECT_EQ(entryNames(package.editsDirectory()),
            (std::set<std::string>{"timeline.json", ".timeline.lock", "history"}));

  // The autosave path: guarded, returns the new digest, keeps no history.
  std::string current = f.store.timelineDigest(package);
  std::string next = f.store.writeTimeline(timelineWithBlur(0.75), current, package);
  EXPECT_EQ(next, f.store.timelineDigest(package));
  EXPECT_EQ(f.store.timelineHistory(package).size(), 1u);
  EXPECT_EQ(f.store.readTimelineState(package, tenSeconds, false).digest, next);
}

TEST(ProjectStoreCommit, AConflictLeavesEveryByteUntouched) {
  StoreFixture f;
  auto package = f.finishedProject();
  std::string stale = f.store.timelineDigest(package);
  f.store.commitTimeline(timelineWithBlur(0.1), stale, std::nullopt, package);
  f.store.commitCaptions(captionsWithCue("hello"), ProjectStore::zeroByteDigest, f.store.timelineDigest(package),
                         package);
  auto before = folderContents(package.rootPath);

  try {
    f.store.commitTimeline(timelineWithBlur(0.2), stale, std::nullopt, package);
    FAIL() << "stale commit succeeded";
  } catch (const ProjectStoreError& e) {
    EXPECT_EQ(e.kind(), ProjectStoreError::Case::timelineDigestConflict);
    EXPECT_EQ(e.expectedDigest(), stale);
    EXPECT_EQ(e.actualDigest(), f.store.timelineDigest(package));
  }
  EXPECT_EQ(
      testing::thrownCase<ProjectStoreError>([&] { f.store.writeTimeline(timelineWithBlur(0.2), stale, package); }),
      ProjectStoreError::Case::timelineDigestConflict);
  EXPECT_EQ(testing::thrownCase<ProjectStoreError>([&] {
              f.store.commitTimeline(timelineWithBlur(0.2), f.store.timelineDigest(package),
                                     std::string(ProjectStore::zeroByteDigest), package);
            }),
            ProjectStoreError::Case::captionsDigestConflict);
  EXPECT_EQ(testing::thrownCase<ProjectStoreError>([&] {
              f.store.commitCaptions(captionsWithCue("x"), ProjectStore::zeroByteDigest,
                                     f.store.timelineDigest(package), package);
            }),
            ProjectStoreError::Case::captionsDigestConflict);
  EXPECT_EQ(testing::thrownCase<ProjectStoreError>(
                [&] { f.store.commitCaptions(captionsWithCue("x"), f.store.captionsDigest(package), stale, package); }),
            ProjectStoreError::Case::timelineDigestConflict);
  EXPECT_EQ(folderContents(package.rootPath), before);
}

TEST(ProjectStoreCommit, WhiteSpaceAloneChangesTheDigestAndMakesAPreviewStale) {
  StoreFixture f;
  auto package = f.finishedProject();
  std::string digest = f.store.timelineDigest(package);
  writeFileAtomically(package.timelinePath(), readFile(package.timelinePath(), SIZE_MAX) + "\n");
  EXPECT_NE(f.store.timelineDigest(package), digest);
  EXPECT_EQ(testing::thrownCase<ProjectStoreError>(
                [&] { f.store.commitTimeline(timelineWithBlur(0.3), digest, std::nullopt, package); }),
            ProjectStoreError::Case::timelineDigestConflict);
}

TEST(ProjectStoreCommit, ACaptionsFileThatDoesNotDecodeFailsOnlyCommitsThatNameACaptionsDigest) {
  StoreFixture f;
  auto package = f.finishedProject();
  writeFileAtomically(package.captionsPath(), "{ not json");
  EXPECT_THROW(f.store.commitTimeline(timelineWithBlur(0.3), f.store.timelineDigest(package),
                                      std::string(ProjectStore::zeroByteDigest), package),
               DecodingError);
  EXPECT_NO_THROW(
      f.store.commitTimeline(timelineWithBlur(0.3), f.store.timelineDigest(package), std::nullopt, package));
  EXPECT_THROW(f.store.captionsDigest(package), DecodingError);
}

TEST(ProjectStoreCommit, ALockThatCannotBeCreatedIsReportedAsSuch) {
  StoreFixture f;
  auto package = f.finishedProject();
  std::string digest = f.store.timelineDigest(package);
  fs::remove_all(package.editsDirectory());
  EXPECT_EQ(testing::thrownCase<ProjectStoreError>(
                [&] { f.store.commitTimeline(timelineWithBlur(0.3), digest, std::nullopt, package); }),
            ProjectStoreError::Case::timelineLockUnavailable);
}

TEST(ProjectStoreCommit, APackageWithoutATimelineReadsTheDefaultAndCommitsFromTheEmptyDigest) {
  StoreFixture f;
  auto package = f.finishedProject();
  fs::remove(package.timelinePath());
  auto state = f.store.readTimelineState(package, tenSeconds, false);
  EXPECT_EQ(state.digest, ProjectStore::zeroByteDigest);
  ASSERT_EQ(state.timeline.segments.size(), 1u);
  EXPECT_EQ(state.timeline.segments[0].sourceRange.duration, tenSeconds);
  f.store.commitTimeline(state.timeline, state.digest, std::nullopt, package);
  EXPECT_TRUE(f.store.timelineHistory(package).empty());  // there were no earlier bytes to keep
  EXPECT_EQ(f.store.readTimeline(package, tenSeconds, false), state.timeline);
}

TEST(ProjectStoreHistory, TwentyOneCommitsKeepTheTwentyNewestReplacedStates) {
  StoreFixture f;
  auto package = f.finishedProject();
  std::vector<std::string> replaced;
  for (int i = 1; i <= 21; ++i) {
    replaced.push_back(readFile(package.timelinePath(), SIZE_MAX));
    f.store.commitTimeline(timelineWithBlur(i / 100.0), f.store.timelineDigest(package), std::nullopt, package);
    // History names order by millisecond; within one, by their random UUIDs. Commits this test
    // means to order must therefore fall in different milliseconds.
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  auto history = f.store.timelineHistory(package);
  ASSERT_EQ(history.size(), 20u);
  std::set<std::string> kept;
  for (const auto& entry : history) {
    std::string bytes = readFile(entry.path, SIZE_MAX);
    EXPECT_EQ(entry.digest, sha256Hex(bytes));
    kept.insert(bytes);
  }
  EXPECT_FALSE(kept.count(replaced[0]));  // the initial timeline is gone
  EXPECT_EQ(readFile(history[0].path, SIZE_MAX), replaced[20]);
  EXPECT_EQ(readFile(history[19].path, SIZE_MAX), replaced[1]);
  EXPECT_DOUBLE_EQ(f.store.historyTimeline(0, package, tenSeconds, false).motionBlurAmount, 0.20);
  EXPECT_DOUBLE_EQ(f.store.historyTimeline(18, package, tenSeconds, false).motionBlurAmount, 0.02);
  EXPECT_EQ(testing::thrownCase<ProjectStoreError>([&] { f.store.historyTimeline(20, package, tenSeconds, false); }),
            ProjectStoreError::Case::historyNotFound);
  EXPECT_EQ(testing::thrownCase<ProjectStoreError>([&] { f.store.historyTimeline(-1, package, tenSeconds, false); }),
            ProjectStoreError::Case::historyNotFound);
}

TEST(ProjectStoreHistory, NamesSortByTimeAndTheUuidSeparatesCommitsOfOneMillisecond) {
  using namespace std::chrono;
  sys_time<milliseconds> instant = sys_days{2026y / 1 / 2} + 3h + 4min + 5s + 678ms;
  Uuid a = *Uuid::parse("00000000-0000-4000-8000-000000000001");
  Uuid b = *Uuid::parse("00000000-0000-4000-8000-000000000002");
  EXPECT_EQ(ProjectHistoryFiles::timelineFileName(instant, a),
            "2026-01-02T03-04-05.678Z-00000000-0000-4000-8000-000000000001.json");
  EXPECT_LT(ProjectHistoryFiles::timelineFileName(instant, a), ProjectHistoryFiles::timelineFileName(instant, b));
  EXPECT_LT(ProjectHistoryFiles::timelineFileName(instant, b), ProjectHistoryFiles::timelineFileName(instant + 1ms, a));
  EXPECT_EQ(ProjectHistoryFiles::captionFileName(instant, a),
            "1767323045.678-00000000-0000-4000-8000-000000000001.json");
  EXPECT_LT(ProjectHistoryFiles::captionFileName(instant, a), ProjectHistoryFiles::captionFileName(instant + 1ms, a));
}

TEST(ProjectStoreHistory, OtherFilesInTheFolderAreIgnoredByListingAndTrimming) {
  StoreFixture f;
  auto package = f.finishedProject();
  createDirectories(package.timelineHistoryDirectory());
  writeFileAtomically(package.timelineHistoryDirectory() / "0000-notes.txt", "keep me");
  writeFileAtomically(package.timelineHistoryDirectory() / ".0000-hidden.json", "keep me");
  for (int i = 0; i < 22; ++i)
    f.store.commitTimeline(timelineWithBlur(0.5), f.store.timelineDigest(package), std::nullopt, package);
  EXPECT_EQ(f.store.timelineHistory(package).size(), 20u);
  EXPECT_TRUE(fs::exists(package.timelineHistoryDirectory() / "0000-notes.txt"));
  EXPECT_TRUE(fs::exists(package.timelineHistoryDirectory() / ".0000-hidden.json"));
  EXPECT_TRUE(StoreFixture().store.timelineHistory(ProjectPackage{"/nonexistent"}).empty());
}

TEST(ProjectStoreMigration, AnUpgradeKeepsTheOldFileOnceForEverySchemaItCrosses) {
  StoreFixture f;
  auto package = f.finishedProject();
  const std::string schema2 = documentAtSchema(2);
  writeFileAtomically(package.timelinePath(), schema2);
  f.store.commitTimeline(timelineWithBlur(0.4), f.store.timelineDigest(package), std::nullopt, package);
  for (int n = 3; n <= 8; ++n) EXPECT_EQ(readFile(package.preSchemaTimelineBackupPath(n), SIZE_MAX), schema2) << n;

  // Later writes, a downgrade and an upgrade again included, never touch them.
  f.store.commitTimeline(timelineWithBlur(0.3), f.store.timelineDigest(package), std::nullopt, package);
  writeFileAtomically(package.timelinePath(), documentAtSchema(5));
  f.store.writeTimeline(timelineWithBlur(0.2), package);
  for (int n = 3; n <= 8; ++n) EXPECT_EQ(readFile(package.preSchemaTimelineBackupPath(n), SIZE_MAX), schema2) << n;
}

TEST(ProjectStoreMigration, OnlyTheCrossedSchemasAreBackedUp) {
  struct Case {
    int oldSchema;
    int newSchema;
    std::set<int> backups;
  };
  const Case cases[] = {
      {8, 8, {}}, {5, 8, {6, 7, 8}}, {2, 4, {3, 4}}, {7, 7, {}}, {1, 3, {3}},
  };
  for (const auto& c : cases) {
    StoreFixture f;
    auto package = f.finishedProject();
    writeFileAtomically(package.timelinePath(), documentAtSchema(c.oldSchema));
    EditTimeline next = timelineWithBlur(0.4);
    next.schemaVersion = c.newSchema;
    f.store.commitTimeline(next, f.store.timelineDigest(package), std::nullopt, package);
    std::set<int> found;
    for (int n = 3; n <= 8; ++n)
      if (fs::exists(package.preSchemaTimelineBackupPath(n))) found.insert(n);
    EXPECT_EQ(found, c.backups) << c.oldSchema << " -> " << c.newSchema;
  }
}

TEST(ProjectStoreCaptions, TheFirstCaptionsCommitFromTheEmptyDigestAndThenHistory) {
  StoreFixture f;
  auto package = f.finishedProject();
  auto state = f.store.captionsState(package);
  EXPECT_FALSE(state.document.has_value());
  EXPECT_EQ(state.digest, ProjectStore::zeroByteDigest);

  std::string timeline = f.store.timelineDigest(package);
  std::string first = f.store.commitCaptions(captionsWithCue("  hello  "), state.digest, timeline, package);
  EXPECT_EQ(first, f.store.captionsDigest(package));
  EXPECT_EQ(f.store.captionsState(package).document->cues[0].text, "hello");  // the normal form is written
  EXPECT_TRUE(ProjectHistoryFiles::list(package.captionsHistoryDirectory()).empty());

  std::string firstBytes = readFile(package.captionsPath(), SIZE_MAX);
  std::string second = f.store.commitCaptions(captionsWithCue("world"), first, timeline, package);
  auto history = ProjectHistoryFiles::list(package.captionsHistoryDirectory());
  ASSERT_EQ(history.size(), 1u);
  EXPECT_EQ(readFile(history[0], SIZE_MAX), firstBytes);

  std::string third = f.store.writeCaptions(captionsWithCue("again"), second, package);
  EXPECT_EQ(third, f.store.captionsDigest(package));
  EXPECT_EQ(ProjectHistoryFiles::list(package.captionsHistoryDirectory()).size(), 1u);
  EXPECT_EQ(
      testing::thrownCase<ProjectStoreError>([&] { f.store.writeCaptions(captionsWithCue("late"), second, package); }),
      ProjectStoreError::Case::captionsDigestConflict);

  for (int i = 0; i < 22; ++i)
    f.store.commitCaptions(captionsWithCue("n" + std::to_string(i)), f.store.captionsDigest(package), timeline,
                           package);
  EXPECT_EQ(ProjectHistoryFiles::list(package.captionsHistoryDirectory()).size(), 20u);
}

TEST(ProjectStoreCaptions, ADocumentThatDoesNotValidateIsRefusedBeforeAnythingIsWritten) {
  StoreFixture f;
  auto package = f.finishedProject();
  writeFileAtomically(package.timelineLockPath(), "");
  writeFileAtomically(package.captionsLockPath(), "");
  auto before = folderContents(package.rootPath);
  EXPECT_THROW(f.store.commitCaptions(captionsWithCue("late", ProjectTime::fromMilliseconds(11'000)),
                                      ProjectStore::zeroByteDigest, f.store.timelineDigest(package), package),
               CaptionValidationError);
  EXPECT_EQ(folderContents(package.rootPath), before);
}

// ---- What killed writers left -------------------------------------------------------------------

TEST(ProjectStoreStaleTemporaries, AGuardedWriterRemovesWhatKilledWritersOfItsDocumentsLeft) {
  StoreFixture f;
  auto package = f.finishedProject();
  const std::string stale = f.store.timelineDigest(package);
  f.store.commitTimeline(timelineWithBlur(0.1), stale, std::nullopt, package);
  f.store.commitCaptions(captionsWithCue("a"), ProjectStore::zeroByteDigest, f.store.timelineDigest(package), package);
  const fs::path edits = package.editsDirectory();
  const fs::path history = package.timelineHistoryDirectory();
  const fs::path captionHistory = package.captionsHistoryDirectory();
  createDirectories(captionHistory);
  testing::TemporaryDirectory elsewhere;
  writeFileAtomically(elsewhere.path() / "target", "x");

  enum class Goes { never, withTimelineCommit, withCaptionsCommit };
  struct Case {
    fs::path path;
    bool old;  // older than the grace given to writers that take no lock
    Goes goes;
  };
  const Case cases[] = {
      // The timeline and its backups are also written without the lock: only old ones go.
      {edits / ".timeline.json.0a1b2c3d", true, Goes::withTimelineCommit},
      {edits / ".timeline.json.1b2c3d4e", false, Goes::never},
      {edits / ".timeline.pre-schema8.json.aaaaaaaa", true, Goes::withTimelineCommit},
      {edits / ".timeline.pre-schema8.json.bbbbbbbb", false, Goes::never},
      // History entries are written under the lock only: any temporary is a dead writer's.
      {history / ".2026-01-02T03-04-05.678Z-X.json.abcdef01", false, Goes::withTimelineCommit},
      {history / ".notes.txt.abcdef01", true, Goes::never},
      {edits / ".captions.json.c1d2e3f4", false, Goes::withCaptionsCommit},
      {captionHistory / ".1767323045.678-X.json.d4e5f6a7", false, Goes::withCaptionsCommit},
      // Not temporaries of the package's documents.
      {edits / ".timeline.json.abcdef0", true, Goes::never},
      {edits / ".timeline.json.abcdef012", true, Goes::never},
      {edits / "timeline.json.abcdef01", true, Goes::never},
      {edits / ".other.json.abcdef01", true, Goes::never},
      {edits / ".manifest.json.abcdef01", true, Goes::never},
      {edits / ".timeline.json.f01de700", true, Goes::never},
      {edits / ".timeline.json.11111111", true, Goes::never},
  };
  for (const auto& c : cases) {
    if (c.path.filename() == ".timeline.json.f01de700") {
      createDirectories(c.path);
    } else if (c.path.filename() == ".timeline.json.11111111") {
      fs::create_symlink(elsewhere.path() / "target", c.path);
      continue;
    } else {
      writeFileAtomically(c.path, "half a document");
    }
    if (c.old) makeOlder(c.path, std::chrono::minutes(60));
  }
  makeOlder(elsewhere.path() / "target", std::chrono::minutes(60));
  auto present = [&](Goes gone) {
    for (const auto& c : cases)
      EXPECT_EQ(fs::exists(fs::symlink_status(c.path)), c.goes == Goes::never || c.goes > gone) << c.path;
  };

  // A writer that fails its check changes nothing, these files included.
  EXPECT_EQ(testing::thrownCase<ProjectStoreError>(
                [&] { f.store.commitTimeline(timelineWithBlur(0.3), stale, std::nullopt, package); }),
            ProjectStoreError::Case::timelineDigestConflict);
  present(Goes::never);
  f.store.commitTimeline(timelineWithBlur(0.3), f.store.timelineDigest(package), std::nullopt, package);
  present(Goes::withTimelineCommit);
  f.store.writeCaptions(captionsWithCue("b"), f.store.captionsDigest(package), package);
  present(Goes::withCaptionsCommit);
  EXPECT_TRUE(fs::exists(elsewhere.path() / "target"));
}

}  // namespace
}  // namespace vumo
