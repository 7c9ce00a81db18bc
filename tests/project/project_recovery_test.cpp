#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>

#include "project/chunk_store.h"
#include "project/cursor_asset_store.h"
#include "project/file_lock.h"
#include "project/media_probe.h"
#include "project/project_store.h"
#include "project_fixtures.h"
#include "shared/files.h"
#include "support/test_support.h"

namespace vumo {
namespace {

namespace fs = std::filesystem;
using project_testing::displaySource;
using project_testing::runFFmpeg;
using project_testing::StoreFixture;

// Movies made once for the whole suite: a fragmented one (as a recorder that must survive a
// crash writes them), a plain one whose index sits at the end, and a sound-only one.
class RecoveryTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    movies_ = new testing::TemporaryDirectory;
    const std::string video = "-f lavfi -i testsrc=duration=2:size=320x240:rate=30 -c:v mpeg4 -g 10 ";
    ready_ = runFFmpeg(video + "-movflags frag_keyframe+empty_moov " + (movies_->path() / "fragmented.mov").string()) &&
             runFFmpeg(video + (movies_->path() / "plain.mov").string()) &&
             runFFmpeg("-f lavfi -i sine=duration=2 -c:a pcm_s16le " + (movies_->path() / "sound.mov").string());
  }
  static void TearDownTestSuite() {
    delete movies_;
    movies_ = nullptr;
  }
  void SetUp() override {
    if (!ready_) GTEST_SKIP() << "the ffmpeg command line could not make test movies";
  }

  static std::string movie(const char* name) { return readFile(movies_->path() / name, SIZE_MAX); }
  static std::string firstHalf(const std::string& bytes) { return bytes.substr(0, bytes.size() / 2); }

  // An unfinished package as a crash leaves it: media, chunks and cursor images, never finished.
  ProjectPackage interruptedRecording(const std::string& media) {
    auto created = f.store.createProject(displaySource(), RecordingOptions{}, {320, 240}, std::nullopt, std::nullopt);
    writeFileAtomically(created.package.mediaPath(), media);
    ChunkStore<MouseEvent> events(created.package.mouseEventsDirectory(), 500, standardChunkMaximumSpan,
                                  [](const MouseEvent& e) { return e.time; });
    for (int i = 0; i < 730; ++i) {
      MouseEvent event;
      event.time = ProjectTime::fromMilliseconds(i);
      events.append(event);
    }
    events.flush();
    ChunkStore<GeometrySample> geometry(created.package.geometryDirectory(), 500, standardChunkMaximumSpan,
                                        [](const GeometrySample& g) { return g.time; });
    GeometrySample sample;
    sample.revision = 1;
    geometry.append(sample);
    sample.time = ProjectTime::fromMilliseconds(500);
    sample.revision = 2;
    geometry.append(sample);
    geometry.flush();
    // The chunk being written when the process died.
    writeFileAtomically(created.package.mouseEventsDirectory() / "active.tmp", "[{\"time\":");
    CursorAssetStore(created.package.cursorAssetsDirectory()).store("png", {16, 16}, {0, 0});
    return created.package;
  }

  StoreFixture f;
  static inline testing::TemporaryDirectory* movies_ = nullptr;
  static inline bool ready_ = false;
};

TEST_F(RecoveryTest, TheMediaProbeReadsDurationAndVideoTracks) {
  auto whole = MediaProbe::inspect(movies_->path() / "fragmented.mov");
  ASSERT_TRUE(whole.has_value());
  EXPECT_TRUE(whole->hasVideoTrack);
  EXPECT_EQ(whole->duration, ProjectTime::fromMilliseconds(2'000));
  auto sound = MediaProbe::inspect(movies_->path() / "sound.mov");
  ASSERT_TRUE(sound.has_value());
  EXPECT_FALSE(sound->hasVideoTrack);
  EXPECT_FALSE(sound->isPlayableRecording());
  EXPECT_FALSE(MediaProbe::inspect(movies_->path() / "missing.mov").has_value());
}

TEST_F(RecoveryTest, APackageWhoseMediaWasCutShortIsRecoveredWithWhatItsChunksHold) {
  ProjectPackage package = interruptedRecording(firstHalf(movie("fragmented.mov")));
  auto recoverable = f.store.recoverableProjects();
  ASSERT_EQ(recoverable.size(), 1u);
  EXPECT_EQ(recoverable[0].package, package);
  ProjectTime duration = recoverable[0].mediaDuration;
  EXPECT_GT(duration, ProjectTime::zero());
  EXPECT_LT(duration, ProjectTime::fromMilliseconds(2'000));

  ProjectPackage recovered = f.store.markRecovered(package, duration);
  EXPECT_EQ(recovered.rootPath.filename().string(), recoverable[0].manifest.id.string() + ".vumo");
  EXPECT_FALSE(fs::exists(package.rootPath));
  ProjectManifest manifest = f.store.readManifest(recovered);
  EXPECT_EQ(manifest.state, ProjectState::recovered);
  EXPECT_EQ(manifest.duration, duration);
  EXPECT_EQ(manifest.metrics.mouseEvents, 730);
  EXPECT_EQ(manifest.metrics.geometryRevisions, 2);
  EXPECT_EQ(manifest.metrics.writerStatus, "recoveredFragment");
  ASSERT_TRUE(manifest.cursorAssets.has_value());
  EXPECT_EQ(manifest.cursorAssets->size(), 1u);
  EXPECT_TRUE(decodeDiagnosticReport(readFile(recovered.reportPath(), SIZE_MAX)).recovered);

  // From now on an ordinary project: listed, found, and loaded with one clip over the media.
  ASSERT_EQ(f.store.recentProjects().size(), 1u);
  EXPECT_EQ(f.store.project(manifest.id.string().substr(0, 6)), recovered);
  ProjectSnapshot snapshot = f.store.loadSnapshot(recovered);
  EXPECT_EQ(snapshot.mouseEvents.size(), 730u);
  ASSERT_EQ(snapshot.timeline.segments.size(), 1u);
  EXPECT_EQ(snapshot.timeline.segments[0].sourceRange.duration, duration);
  EXPECT_TRUE(f.store.recoverableProjects().empty());
}

TEST_F(RecoveryTest, APackageStillBeingRecordedIsLeftToItsRecorder) {
  ProjectPackage package = interruptedRecording(firstHalf(movie("fragmented.mov")));
  {
    RecordingPackageLock live(package.rootPath);
    EXPECT_TRUE(RecordingPackageLock::isHeld(package.rootPath));
    EXPECT_TRUE(f.store.recoverableProjects().empty());
    // One recorder to a package.
    EXPECT_THROW(RecordingPackageLock second(package.rootPath), FileError);
  }
  // The recorder is gone (as a killed process's lock goes with it): now it is a crash to recover.
  EXPECT_FALSE(RecordingPackageLock::isHeld(package.rootPath));
  EXPECT_EQ(f.store.recoverableProjects().size(), 1u);
}

TEST_F(RecoveryTest, PackagesWithoutPlayableVideoAreLeftWhereTheyAre) {
  std::vector<ProjectPackage> unplayable = {
      interruptedRecording(firstHalf(movie("plain.mov"))),  // the index at the end was never written
      interruptedRecording(""),
      interruptedRecording("not a movie at all"),
      interruptedRecording(movie("sound.mov")),
  };
  ProjectPackage noManifest = interruptedRecording(movie("fragmented.mov"));
  fs::remove(noManifest.manifestPath());
  ProjectPackage noMedia = interruptedRecording(movie("fragmented.mov"));
  fs::remove(noMedia.mediaPath());

  EXPECT_TRUE(f.store.recoverableProjects().empty());
  for (const auto& p : unplayable) EXPECT_TRUE(fs::exists(p.rootPath));
  EXPECT_TRUE(fs::exists(noManifest.rootPath));
  EXPECT_TRUE(f.store.recentProjects().empty());
}

TEST_F(RecoveryTest, RecoveryRemovesOldTemporariesOfThePackagesDocumentsOnly) {
  ProjectPackage package = interruptedRecording(movie("fragmented.mov"));
  struct Case {
    fs::path relative;  // inside the package
    bool old;
    bool removed;
  };
  const Case cases[] = {
      {".manifest.json.a1b2c3d4", true, true},
      {".manifest.json.d4e5f6a7", false, false},  // a writer of the package may still be at work
      {"diagnostics/.report.json.a1b2c3d4", true, true},
      {"edits/.timeline.json.a1b2c3d4", true, true},
      {"edits/.captions.json.a1b2c3d4", true, true},
      {"edits/.timeline.pre-schema5.json.a1b2c3d4", true, true},
      {"edits/history/.2026-01-02T03-04-05.678Z-X.json.a1b2c3d4", true, true},
      {"events/.active.tmp.a1b2c3d4", true, true},
      {"geometry/.active.tmp.a1b2c3d4", true, true},
      {"cursor/assets/.0123.png.a1b2c3d4", true, true},
      {"events/active.tmp", true, false},  // the chunk being written when the process died
      {".notes.txt.a1b2c3d4", true, false},
      {"media/.recording.mov.a1b2c3d4", true, false},
      {"edits/.timeline.lock", true, false},
  };
  for (const auto& c : cases) {
    createDirectories((package.rootPath / c.relative).parent_path());
    writeFileAtomically(package.rootPath / c.relative, "partial");
    if (c.old) project_testing::makeOlder(package.rootPath / c.relative, std::chrono::minutes(60));
  }
  ProjectPackage recovered = f.store.markRecovered(package, f.store.recoverableProjects().at(0).mediaDuration);
  for (const auto& c : cases) EXPECT_EQ(fs::exists(recovered.rootPath / c.relative), !c.removed) << c.relative;
}

}  // namespace
}  // namespace vumo
