#include <cstdint>
#include <sys/stat.h>

#include <chrono>
#include <set>

#include <gtest/gtest.h>

#include "captions/caption_errors.h"
#include "project/chunk_store.h"
#include "project/cursor_asset_store.h"
#include "project/project_history_files.h"
#include "project/project_store.h"
#include "project_fixtures.h"
#include "shared/digest.h"
#include "shared/files.h"
#include "support/test_support.h"
#include "timeline/device_frame_catalog.h"

namespace vumo {
namespace {

namespace fs = std::filesystem;
using project_testing::displaySource;
using project_testing::folderContents;
using project_testing::StoreFixture;

const ProjectTime tenSeconds = ProjectTime::fromMilliseconds(10'000);

EditTimeline timelineWithBlur(double blur, ProjectTime duration = tenSeconds) {
  EditTimeline t = EditTimeline::empty();
  t.segments.push_back({Uuid::random(), {ProjectTime::zero(), duration}, TimelinePlaybackRate::normal()});
  t.motionBlurAmount = blur;
  return t;
}

CaptionDocument captionsWithCue(const std::string& text, ProjectTime end = ProjectTime::fromMilliseconds(1'000)) {
  CaptionDocument document;
  document.sourceAudioDigest = std::string(64, 'a');
  document.basedOnTimelineDigest = std::string(64, 'b');
  document.cues.push_back({Uuid::random(), ProjectTime::zero(), end, text, {}, {}});
  return document;
}

template <class F>
ProjectStoreError::Case storeErrorOf(F&& f) {
  try {
    f();
  } catch (const ProjectStoreError& e) {
    return e.kind();
  }
  ADD_FAILURE() << "no ProjectStoreError";
  return ProjectStoreError::Case::projectNotFound;
}

std::set<std::string> entryNames(const fs::path& folder) {
  std::set<std::string> names;
  for (const auto& e : fs::directory_iterator(folder)) names.insert(e.path().filename().string());
  return names;
}

// ---- Creation and lifecycle -----------------------------------------------------------------

TEST(ProjectStoreCreate, MakesTheNineFoldersAManifestAndAnInitialTimeline) {
  StoreFixture f;
  auto created = f.store.createProject(displaySource(), RecordingOptions{}, {1920, 1080}, std::nullopt, std::nullopt);
  const fs::path& root = created.package.rootPath;
  EXPECT_EQ(root.parent_path(), f.store.projectsDirectoryPath());
  EXPECT_EQ(root.filename().string(), created.manifest.id.string() + ".vumo.tmp");
  for (const char* folder : {"media", "events", "geometry", "cursor/assets", "cursor/events", "edits", "diagnostics",
                             "cache/waveform"})
    EXPECT_TRUE(fs::is_directory(root / folder)) << folder;

  ProjectManifest onDisk = f.store.readManifest(created.package);
  EXPECT_EQ(onDisk, created.manifest);
  EXPECT_EQ(onDisk.version, 4);
  EXPECT_EQ(onDisk.state, ProjectState::recording);
  EXPECT_EQ(onDisk.duration, ProjectTime::zero());
  EXPECT_EQ(onDisk.media.relativePath, "media/recording.mov");
  EXPECT_EQ(onDisk.metrics, RecordingMetrics{});
  EXPECT_EQ(onDisk.createdAt, onDisk.updatedAt);

  EditTimeline initial = decodeEditTimeline(readFile(created.package.timelinePath(), SIZE_MAX));
  EXPECT_EQ(initial.schemaVersion, EditTimeline::currentSchemaVersion);
  EXPECT_TRUE(initial.segments.empty());
  EXPECT_FALSE(initial.deviceFrame.has_value());
  EXPECT_FALSE(initial.webcamOverlay.has_value());
}

TEST(ProjectStoreCreate, NumbersTheMediaTracks) {
  struct Case {
    bool webcam;
    bool systemAudio;
    bool microphone;
    std::vector<MediaTrack> tracks;
    std::optional<std::int64_t> webcamTrack;
  };
  using K = MediaTrackKind;
  const Case cases[] = {
      {false, true, true, {{K::screen, 0}, {K::systemAudio, 1}, {K::microphone, 2}}, std::nullopt},
      {true, true, true, {{K::screen, 0}, {K::systemAudio, 2}, {K::microphone, 3}}, 1},
      {true, false, true, {{K::screen, 0}, {K::microphone, 2}}, 1},
      {false, false, false, {{K::screen, 0}}, std::nullopt},
      {true, true, false, {{K::screen, 0}, {K::systemAudio, 2}}, 1},
  };
  StoreFixture f;
  for (const auto& c : cases) {
    RecordingOptions options;
    options.capturesSystemAudio = c.systemAudio;
    options.capturesMicrophone = c.microphone;
    options.capturesWebcam = c.webcam;
    std::optional<RecordingWebcamConfiguration> webcam;
    if (c.webcam) webcam = RecordingWebcamConfiguration{"cam", "Camera", {1280, 720}, 30};
    auto created = f.store.createProject(displaySource(), options, {1920, 1080},
                                         RecordingMicrophoneConfiguration{std::nullopt, "Mic"}, webcam);
    EXPECT_EQ(created.manifest.media.tracks, c.tracks);
    EXPECT_EQ(created.manifest.webcam ? std::optional(created.manifest.webcam->trackIndex) : std::nullopt,
              c.webcamTrack);
    EXPECT_EQ(created.manifest.microphone->deviceName, "Mic");
    EditTimeline initial = decodeEditTimeline(readFile(created.package.timelinePath(), SIZE_MAX));
    EXPECT_EQ(initial.webcamOverlay.has_value(), c.webcam);
    if (c.webcam) {
      EXPECT_EQ(*initial.webcamOverlay, WebcamOverlay::newRecording());
    }
  }
}

TEST(ProjectStoreCreate, ADeviceSourceStartsWithAFrameForItsScreenSize) {
  StoreFixture f;
  CaptureSourceDescriptor phone = displaySource();
  phone.kind = CaptureSourceKind::device;
  phone.deviceUniqueID = "00008110-001";
  phone.initialPixelSize = {1170, 2532};
  auto created = f.store.createProject(phone, RecordingOptions{}, {1170, 2532}, std::nullopt, std::nullopt);
  EditTimeline initial = decodeEditTimeline(readFile(created.package.timelinePath(), SIZE_MAX));
  ASSERT_TRUE(initial.deviceFrame.has_value());
  EXPECT_TRUE(initial.deviceFrame->isEnabled);
  EXPECT_TRUE(DeviceFrameCatalog::bundled().descriptor(initial.deviceFrame->assetID).has_value());

  // The frame survives to the finished project's validated timeline.
  writeFileAtomically(created.package.mediaPath(), "m");
  created.manifest.duration = tenSeconds;
  auto package = f.store.finish(created.package, created.manifest);
  EXPECT_EQ(f.store.loadSnapshot(package).timeline.deviceFrame, initial.deviceFrame);
}

TEST(ProjectStoreLifecycle, FinishRenamesToVumoAndReplacesAnEarlierFolderOfThatName) {
  StoreFixture f;
  auto created = f.store.createProject(displaySource(), RecordingOptions{}, {1920, 1080}, std::nullopt, std::nullopt);
  fs::path final = f.store.projectsDirectoryPath() / (created.manifest.id.string() + ".vumo");
  createDirectories(final / "stale");
  ProjectPackage package = f.store.finish(created.package, created.manifest);
  EXPECT_EQ(package.rootPath, final);
  EXPECT_FALSE(fs::exists(created.package.rootPath));
  EXPECT_FALSE(fs::exists(final / "stale"));
  EXPECT_EQ(created.manifest.state, ProjectState::completed);
  EXPECT_EQ(f.store.readManifest(package).state, ProjectState::completed);
}

TEST(ProjectStoreLifecycle, MarkFailedKeepsTheUnfinishedNameAndRecordsTheReason) {
  StoreFixture f;
  auto created = f.store.createProject(displaySource(), RecordingOptions{}, {1920, 1080}, std::nullopt, std::nullopt);
  EXPECT_EQ(readFile(created.package.manifestPath(), SIZE_MAX).find("failureReason"), std::string::npos);
  f.store.markFailed(created.package, created.manifest, "The disk is full.");
  ProjectManifest m = f.store.readManifest(created.package);
  EXPECT_EQ(m.state, ProjectState::failed);
  EXPECT_EQ(m.failureReason, "The disk is full.");
  EXPECT_TRUE(fs::exists(created.package.rootPath));
}

TEST(ProjectStoreLifecycle, TheDefaultRootIsInTheDataHome) {
  testing::ScopedDataHome home;
  ProjectStore store;
  EXPECT_EQ(store.projectsDirectoryPath(), home.path() / "Vumo" / "Projects");
  EXPECT_TRUE(fs::is_directory(home.path() / "Vumo" / "Projects"));
}

TEST(ProjectStoreLifecycle, ReportsAreWrittenToTheDiagnosticsFolder) {
  StoreFixture f;
  auto package = f.finishedProject();
  auto report = DiagnosticReport::make(f.store.readManifest(package), false, {"note"});
  f.store.writeReport(report, package);
  EXPECT_EQ(decodeDiagnosticReport(readFile(package.reportPath(), SIZE_MAX)), report);
}

// ---- Guarded timeline commits ------------------------------------------------------------------

TEST(ProjectStoreCommit, ReplacesTheTimelineAndKeepsThePreviousBytesInHistory) {
  StoreFixture f;
  auto package = f.finishedProject();
  std::string before = readFile(package.timelinePath(), SIZE_MAX);
  std::string digest = f.store.timelineDigest(package);
  EXPECT_EQ(digest, sha256Hex(before));

  auto warnings = f.store.commitTimeline(timelineWithBlur(0.25), digest, std::nullopt, package);
  EXPECT_TRUE(warnings.empty());
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
  EXPECT_EQ(storeErrorOf([&] { f.store.writeTimeline(timelineWithBlur(0.2), stale, package); }),
            ProjectStoreError::Case::timelineDigestConflict);
  EXPECT_EQ(storeErrorOf([&] {
              f.store.commitTimeline(timelineWithBlur(0.2), f.store.timelineDigest(package),
                                     std::string(ProjectStore::zeroByteDigest), package);
            }),
            ProjectStoreError::Case::captionsDigestConflict);
  EXPECT_EQ(storeErrorOf([&] {
              f.store.commitCaptions(captionsWithCue("x"), ProjectStore::zeroByteDigest,
                                     f.store.timelineDigest(package), package);
            }),
            ProjectStoreError::Case::captionsDigestConflict);
  EXPECT_EQ(storeErrorOf([&] {
              f.store.commitCaptions(captionsWithCue("x"), f.store.captionsDigest(package), stale, package);
            }),
            ProjectStoreError::Case::timelineDigestConflict);
  EXPECT_EQ(folderContents(package.rootPath), before);
}

TEST(ProjectStoreCommit, WhiteSpaceAloneChangesTheDigestAndMakesAPreviewStale) {
  StoreFixture f;
  auto package = f.finishedProject();
  std::string digest = f.store.timelineDigest(package);
  writeFileAtomically(package.timelinePath(), readFile(package.timelinePath(), SIZE_MAX) + "\n");
  EXPECT_NE(f.store.timelineDigest(package), digest);
  EXPECT_EQ(storeErrorOf([&] { f.store.commitTimeline(timelineWithBlur(0.3), digest, std::nullopt, package); }),
            ProjectStoreError::Case::timelineDigestConflict);
}

TEST(ProjectStoreCommit, ACaptionsFileThatDoesNotDecodeFailsOnlyCommitsThatNameACaptionsDigest) {
  StoreFixture f;
  auto package = f.finishedProject();
  writeFileAtomically(package.captionsPath(), "{ not json");
  EXPECT_THROW(f.store.commitTimeline(timelineWithBlur(0.3), f.store.timelineDigest(package),
                                      std::string(ProjectStore::zeroByteDigest), package),
               DecodingError);
  EXPECT_NO_THROW(f.store.commitTimeline(timelineWithBlur(0.3), f.store.timelineDigest(package), std::nullopt, package));
  EXPECT_THROW(f.store.captionsDigest(package), DecodingError);
}

TEST(ProjectStoreCommit, ALockThatCannotBeCreatedIsReportedAsSuch) {
  StoreFixture f;
  auto package = f.finishedProject();
  std::string digest = f.store.timelineDigest(package);
  fs::remove_all(package.editsDirectory());
  EXPECT_EQ(storeErrorOf([&] { f.store.commitTimeline(timelineWithBlur(0.3), digest, std::nullopt, package); }),
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

// ---- History -----------------------------------------------------------------------------------

TEST(ProjectStoreHistory, TwentyOneCommitsKeepTheTwentyNewestReplacedStates) {
  StoreFixture f;
  auto package = f.finishedProject();
  std::vector<std::string> replaced;
  for (int i = 1; i <= 21; ++i) {
    replaced.push_back(readFile(package.timelinePath(), SIZE_MAX));
    f.store.commitTimeline(timelineWithBlur(i / 100.0), f.store.timelineDigest(package), std::nullopt, package);
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
  EXPECT_EQ(storeErrorOf([&] { f.store.historyTimeline(20, package, tenSeconds, false); }),
            ProjectStoreError::Case::historyNotFound);
  EXPECT_EQ(storeErrorOf([&] { f.store.historyTimeline(-1, package, tenSeconds, false); }),
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
  EXPECT_LT(ProjectHistoryFiles::timelineFileName(instant, b),
            ProjectHistoryFiles::timelineFileName(instant + 1ms, a));
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

// ---- Migration backups -------------------------------------------------------------------------

std::string documentAtSchema(int schema) {
  Json j = parseJson(encodeEditTimeline(timelineWithBlur(0.5)));
  j["schemaVersion"] = schema;
  return j.dump(1);  // other formatting than ours, so the backup's bytes are recognisable
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

// ---- Captions ----------------------------------------------------------------------------------

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
  EXPECT_EQ(storeErrorOf([&] { f.store.writeCaptions(captionsWithCue("late"), second, package); }),
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

// ---- Finding projects ----------------------------------------------------------------------------

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
      EXPECT_EQ(storeErrorOf([&] { f.store.project(c.prefix); }), *c.error) << c.prefix;
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
  EXPECT_EQ(storeErrorOf([&] { f.store.project(id); }), ProjectStoreError::Case::projectNotFound);
  EXPECT_EQ(storeErrorOf([&] { f.store.project(recording.manifest.id.string()); }),
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

// ---- Removing and importing ----------------------------------------------------------------------

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
    EXPECT_EQ(storeErrorOf([&] { f.store.discardRecording(ProjectPackage{bad}); }),
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

// ---- Snapshot --------------------------------------------------------------------------------------

TEST(ProjectStoreSnapshot, LoadsEveryPartOfAProject) {
  StoreFixture f;
  auto package = f.finishedProject();
  {
    ChunkStore<MouseEvent> events(package.mouseEventsDirectory(), 500, standardChunkMaximumSpan,
                                  [](const MouseEvent& e) { return e.time; });
    for (int i = 0; i < 1'200; ++i) {
      MouseEvent e;
      e.time = ProjectTime::fromMilliseconds(i);
      e.rawTimestampNanoseconds = static_cast<std::uint64_t>(i);
      events.append(e);
    }
    events.flush();
    ChunkStore<GeometrySample> geometry(package.geometryDirectory(), 500, standardChunkMaximumSpan,
                                        [](const GeometrySample& g) { return g.time; });
    geometry.append(GeometrySample{{0}, 1, {0, 0, 1920, 1080}, {1920, 1080}, {1920, 1080}, {0, 0, 1920, 1080}, 1});
    geometry.flush();
  }
  CursorAssetStore cursors(package.cursorAssetsDirectory());
  auto arrow = cursors.store("png-bytes", {16, 24}, {1, 1});
  {
    ChunkStore<CursorShapeSample> shapes(package.cursorEventsDirectory(), 500, standardChunkMaximumSpan,
                                         [](const CursorShapeSample& s) { return s.time; });
    shapes.append({{0}, arrow.id});
    shapes.flush();
  }
  std::string imageData = "jpeg-bytes";
  CanvasBackgroundImage image;
  image.id = sha256Hex(imageData);
  image.relativePath = "assets/backgrounds/" + image.id + ".jpg";
  image.pixelSize = {640, 480};
  f.store.writeCanvasBackgroundAsset({image, imageData}, package);
  EditTimeline timeline = timelineWithBlur(0.5);
  timeline.canvas.image = image;
  f.store.commitTimeline(timeline, f.store.timelineDigest(package), std::nullopt, package);
  f.store.commitCaptions(captionsWithCue("hi"), ProjectStore::zeroByteDigest, f.store.timelineDigest(package), package);

  ProjectSnapshot snapshot = f.store.loadSnapshot(package);
  EXPECT_EQ(snapshot.packagePath, package.rootPath);
  EXPECT_EQ(snapshot.manifest, f.store.readManifest(package));
  ASSERT_EQ(snapshot.mouseEvents.size(), 1'200u);
  EXPECT_EQ(snapshot.mouseEvents[1'199].rawTimestampNanoseconds, 1'199u);
  EXPECT_EQ(snapshot.geometry.size(), 1u);
  ASSERT_EQ(snapshot.cursorShapeSamples.size(), 1u);
  EXPECT_EQ(snapshot.cursorShapeSamples[0].assetID, arrow.id);
  ASSERT_EQ(snapshot.cursorAssets.size(), 1u);
  EXPECT_EQ(snapshot.cursorAssets[0].descriptor, arrow);
  EXPECT_EQ(snapshot.cursorAssets[0].pngData, "png-bytes");
  EXPECT_EQ(snapshot.timeline, f.store.readTimeline(package, tenSeconds, false));
  ASSERT_TRUE(snapshot.captions.has_value());
  EXPECT_EQ(snapshot.captions->cues[0].text, "hi");
  ASSERT_EQ(snapshot.canvasBackgroundAssets.size(), 1u);
  EXPECT_EQ(snapshot.canvasBackgroundAssets[0].imageData, imageData);
}

TEST(ProjectStoreSnapshot, ReadingNeverWritesAndAnyBrokenPartFailsTheLoad) {
  StoreFixture f;
  auto package = f.finishedProject();
  // An old schema and no clips: normalised in memory, the file stays as it is.
  writeFileAtomically(package.timelinePath(), documentAtSchema(3));
  std::string digest = f.store.timelineDigest(package);
  auto snapshot = f.store.loadSnapshot(package);
  EXPECT_EQ(snapshot.timeline.schemaVersion, EditTimeline::currentSchemaVersion);
  EXPECT_EQ(f.store.timelineDigest(package), digest);
  EXPECT_FALSE(fs::exists(package.preSchema8TimelineBackupPath()));

  struct Case {
    const char* name;
    std::function<void()> damage;
    std::function<void()> repair;
  };
  const Case cases[] = {
      {"chunk", [&] { writeFileAtomically(package.mouseEventsDirectory() / "000000.json", "[{]"); },
       [&] { fs::remove(package.mouseEventsDirectory() / "000000.json"); }},
      {"timeline", [&] { writeFileAtomically(package.timelinePath(), "[]"); },
       [&] { writeFileAtomically(package.timelinePath(), documentAtSchema(8)); }},
      {"invalid timeline", [&] { writeFileAtomically(package.timelinePath(), encodeEditTimeline(timelineWithBlur(0.5, ProjectTime::fromMilliseconds(20'000)))); },
       [&] { writeFileAtomically(package.timelinePath(), documentAtSchema(8)); }},
      {"captions", [&] { writeFileAtomically(package.captionsPath(), "{}"); }, [&] { fs::remove(package.captionsPath()); }},
      {"canvas outside the package",
       [&] {
         EditTimeline t = timelineWithBlur(0.5);
         CanvasBackgroundImage image;
         image.id = "x";
         image.relativePath = "assets/backgrounds/../../../manifest.json";
         t.canvas.image = image;
         writeFileAtomically(package.timelinePath(), encodeEditTimeline(t));
       },
       [&] { writeFileAtomically(package.timelinePath(), documentAtSchema(8)); }},
  };
  for (const auto& c : cases) {
    c.damage();
    EXPECT_ANY_THROW(f.store.loadSnapshot(package)) << c.name;
    c.repair();
    EXPECT_NO_THROW(f.store.loadSnapshot(package)) << c.name;
  }
}

TEST(ProjectStoreAssets, CanvasBackgroundsNeedADigestNameAndAreWrittenOnce) {
  StoreFixture f;
  auto package = f.finishedProject();
  std::string data = "image";
  std::string id = sha256Hex(data);
  auto payload = [&](std::string payloadID, std::string path, CanvasBackgroundMediaKind kind) {
    CanvasBackgroundImage image;
    image.id = std::move(payloadID);
    image.relativePath = std::move(path);
    image.mediaKind = kind;
    return CanvasBackgroundAssetPayload{image, data};
  };
  using K = CanvasBackgroundMediaKind;
  for (const auto& bad : {payload("ABC", "assets/backgrounds/ABC.jpg", K::image),
                          payload(id, "assets/backgrounds/" + id + ".mov", K::image),
                          payload(id, "assets/backgrounds/" + id + ".jpg", K::video),
                          payload("../x", "assets/backgrounds/../x.jpg", K::image), payload("", "assets/backgrounds/.jpg", K::image)})
    EXPECT_EQ(storeErrorOf([&] { f.store.writeCanvasBackgroundAsset(bad, package); }),
              ProjectStoreError::Case::invalidProjectLocation);

  f.store.writeCanvasBackgroundAsset(payload(id, "assets/backgrounds/" + id + ".jpg", K::image), package);
  fs::path file = package.canvasBackgroundsDirectory() / (id + ".jpg");
  EXPECT_EQ(readFile(file, SIZE_MAX), data);
  auto again = payload(id, "assets/backgrounds/" + id + ".jpg", K::image);
  again.imageData = "different bytes";
  f.store.writeCanvasBackgroundAsset(again, package);
  EXPECT_EQ(readFile(file, SIZE_MAX), data);  // already there with the right digest: left alone
  f.store.writeCanvasBackgroundAsset(payload(id, "assets/backgrounds/" + id + ".mov", K::video), package);
  EXPECT_TRUE(fs::exists(package.canvasBackgroundsDirectory() / (id + ".mov")));
}

TEST(CursorAssetStore, StoresEachShapeOnceAndReadsItsDescriptorsBack) {
  testing::TemporaryDirectory dir;
  fs::path folder = dir.path() / "cursor" / "assets";
  CursorAssetStore store(folder);
  auto a = store.store("png", {16, 24}, {1, 2});
  EXPECT_EQ(store.store("png", {16, 24}, {1, 2}), a);
  auto b = store.store("png", {16, 24}, {2, 2});
  EXPECT_NE(a.id, b.id);
  // png bytes, then width, height, hot spot x, y as big-endian doubles.
  std::string bytes = "png";
  for (std::uint64_t bits : {0x4030000000000000ull, 0x4038000000000000ull, 0x3ff0000000000000ull, 0x4000000000000000ull})
    for (int shift = 56; shift >= 0; shift -= 8) bytes.push_back(static_cast<char>((bits >> shift) & 0xff));
  EXPECT_EQ(a.id, sha256Hex(bytes));
  EXPECT_EQ(a.relativePath, "cursor/assets/" + a.id + ".png");
  EXPECT_EQ(readFile(folder / (a.id + ".png"), SIZE_MAX), "png");
  EXPECT_EQ(fs::directory_iterator(folder) == fs::directory_iterator(), false);

  writeFileAtomically(folder / "junk.json", "{");
  writeFileAtomically(folder / "EVIL.JSON", encodeDocument(Json(CursorAssetDescriptor{"../../x", "p", {1, 1}, {0, 0}})));
  auto c = CursorAssetDescriptor{std::string(64, '0'), "cursor/assets/x.png", {1, 1}, {0, 0}};
  writeFileAtomically(folder / "UPPER.JSON", encodeDocument(Json(c)));
  auto read = CursorAssetStore::readDescriptors(folder);
  std::vector<CursorAssetDescriptor> expected{a, b, c};
  std::sort(expected.begin(), expected.end(), [](auto& x, auto& y) { return x.id < y.id; });
  EXPECT_EQ(read, expected);
  EXPECT_EQ(CursorAssetStore(folder).descriptors(), expected);
  EXPECT_TRUE(CursorAssetStore::readDescriptors(dir.path() / "missing").empty());
}

}  // namespace
}  // namespace vumo
