// A package from its first folder to its final name: creation, the manifest, reports and imported
// canvas backgrounds.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <vector>

#include "project/project_store.h"
#include "project_fixtures.h"
#include "shared/digest.h"
#include "shared/files.h"
#include "support/test_support.h"
#include "timeline/device_frame_catalog.h"

namespace vumo {
namespace {

namespace fs = std::filesystem;
using namespace project_testing;

TEST(ProjectStoreCreate, MakesTheNineFoldersAManifestAndAnInitialTimeline) {
  StoreFixture f;
  auto created = f.store.createProject(displaySource(), RecordingOptions{}, {1920, 1080}, std::nullopt, std::nullopt);
  const fs::path& root = created.package.rootPath;
  EXPECT_EQ(root.parent_path(), f.store.projectsDirectoryPath());
  EXPECT_EQ(root.filename().string(), created.manifest.id.string() + ".vumo.tmp");
  for (const char* folder :
       {"media", "events", "geometry", "cursor/assets", "cursor/events", "edits", "diagnostics", "cache/waveform"})
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
  for (const auto& bad :
       {payload("ABC", "assets/backgrounds/ABC.jpg", K::image),
        payload(id, "assets/backgrounds/" + id + ".mov", K::image),
        payload(id, "assets/backgrounds/" + id + ".jpg", K::video),
        payload("../x", "assets/backgrounds/../x.jpg", K::image), payload("", "assets/backgrounds/.jpg", K::image)})
    EXPECT_EQ(testing::thrownCase<ProjectStoreError>([&] { f.store.writeCanvasBackgroundAsset(bad, package); }),
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

}  // namespace
}  // namespace vumo
