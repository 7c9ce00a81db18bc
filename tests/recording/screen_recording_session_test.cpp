#include "recording/screen_recording_session.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <future>
#include <mutex>
#include <thread>

#include "capture/synthetic_streams.h"
#include "fake_media_writer.h"
#include "project/project_store.h"
#include "recording/recording_errors.h"
#include "support/test_support.h"

namespace vumo {
namespace {

using testing::FakeMediaWriter;
using testing::FakeWriterLog;

constexpr std::int64_t ms = 1'000'000;
constexpr std::int64_t s = 1'000'000'000;
constexpr std::int64_t interval = 33'333'333;  // one frame at 30 fps

CaptureSourceDescriptor displaySource() {
  CaptureSourceDescriptor source;
  source.kind = CaptureSourceKind::display;
  source.nativeID = 1;
  source.title = "Built-in display";
  source.globalFrame = {0, 0, 320, 180};
  source.initialPixelSize = {320, 180};
  source.pointPixelScale = 1.0;
  return source;
}

RecordingOptions thirtyFramesWithAudio() {
  RecordingOptions options;
  options.capturesSystemAudio = true;
  options.capturesMicrophone = true;
  options.capturesWebcam = false;
  options.framesPerSecond = 30;
  return options;
}

// Waits (a bounded while) until `condition` holds.
template <class Condition>
bool eventually(Condition condition) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

struct SessionSetup {
  CaptureSourceDescriptor source = displaySource();
  RecordingOptions options = thirtyFramesWithAudio();
  std::int64_t firstPresentation = 1 * s;
  bool pointerAndCursor = false;
  bool withCamera = false;
  std::function<void(RecordingSessionSettings&)> adjust = nullptr;
};

// One recording into a real package under a temporary data folder, with synthetic streams that
// the test drives and a fake writer. The stream pointers stay valid: the session owns the streams.
struct SessionFixture {
  testing::ScopedDataHome home;
  ProjectStore store;
  std::shared_ptr<FakeWriterLog> log = std::make_shared<FakeWriterLog>();
  RecordingControlRegionStore controlRegion;
  SyntheticVideoStream* video = nullptr;
  SyntheticAudioStream* systemAudio = nullptr;
  SyntheticAudioStream* microphone = nullptr;
  ScriptedPointerStream* pointer = nullptr;
  ScriptedCursorProvider* cursor = nullptr;
  SyntheticVideoStream* camera = nullptr;
  std::mutex mutex;
  std::vector<std::string> failures;
  std::vector<RecordingLiveStatus> statuses;
  std::unique_ptr<ScreenRecordingSession> session;

  explicit SessionFixture(SessionSetup setup = {}) {
    RecordingCaptureStreams streams;
    auto videoStream = std::make_unique<SyntheticVideoStream>(
        setup.source.initialPixelSize, 30, SyntheticVideoStream::Pacing::driven, setup.firstPresentation);
    video = videoStream.get();
    streams.video = std::move(videoStream);
    auto system = std::make_unique<SyntheticAudioStream>();
    systemAudio = system.get();
    streams.systemAudio = std::move(system);
    auto mic = std::make_unique<SyntheticAudioStream>();
    microphone = mic.get();
    streams.microphone = std::move(mic);
    if (setup.pointerAndCursor) {
      auto events = std::make_unique<ScriptedPointerStream>();
      pointer = events.get();
      streams.pointer = std::move(events);
      auto shapes = std::make_unique<ScriptedCursorProvider>();
      cursor = shapes.get();
      streams.cursorShapes = std::move(shapes);
    }
    if (setup.withCamera) {
      auto cameraStream = std::make_unique<SyntheticVideoStream>(
          PixelSize{64, 48}, 30, SyntheticVideoStream::Pacing::driven, setup.firstPresentation + 500 * ms);
      camera = cameraStream.get();
      streams.camera = std::move(cameraStream);
      streams.cameraConfiguration = WebcamCaptureConfiguration{"cam-1", "Desk camera", {64, 48}, 30};
    }
    RecordingSessionSettings settings;
    settings.maximumPendingFrames = 100'000;  // the tests deliver faster than real time
    settings.controlRegionStore = &controlRegion;
    settings.failureHandler = [this](const std::string& message) {
      std::lock_guard guard(mutex);
      failures.push_back(message);
    };
    settings.liveStatusHandler = [this](const RecordingLiveStatus& status) {
      std::lock_guard guard(mutex);
      statuses.push_back(status);
    };
    if (setup.adjust) setup.adjust(settings);
    auto factory = [log = log](const RecordingWriterConfiguration& configuration) {
      log->configuration = configuration;
      return std::make_unique<FakeMediaWriter>(log, configuration.url);
    };
    session = ScreenRecordingSession::create(store, setup.source, setup.options, std::move(streams), factory,
                                             std::move(settings));
  }

  std::vector<std::string> failureMessages() {
    std::lock_guard guard(mutex);
    return failures;
  }
  std::vector<RecordingTransportState> transportChanges() {
    std::lock_guard guard(mutex);
    std::vector<RecordingTransportState> changes;
    for (const auto& status : statuses)
      if (changes.empty() || changes.back() != status.transportState) changes.push_back(status.transportState);
    return changes;
  }
};

std::vector<std::int64_t> evenlySpaced(std::int64_t first, std::size_t count) {
  std::vector<std::int64_t> times;
  for (std::size_t i = 0; i < count; ++i) times.push_back(first + std::int64_t(i) * interval);
  return times;
}

TEST(ScreenRecordingSession, AnHourLongPauseLeavesTheOutputGapless) {
  SessionFixture f;
  f.session->start();
  f.systemAudio->emit(1 * s - 10 * ms);  // before the first frame: no place for it
  f.video->emitFrames(10);
  f.session->drainCaptureQueue();
  f.systemAudio->emit(1 * s + 5 * interval);

  f.session->pause();
  f.video->emitFrames(5);  // the screen goes on while paused; none of it is written
  f.systemAudio->emit(1 * s + 12 * interval);
  f.video->advanceClock(3600 * s);
  f.session->resume();
  std::int64_t resumedInput = f.video->nextPresentationNanoseconds();
  f.systemAudio->emit(std::uint64_t(resumedInput - 1 * ms));  // while resuming: dropped
  f.video->emitFrames(10);
  f.systemAudio->emit(std::uint64_t(resumedInput + 2 * interval));

  RecordingSessionResult result = f.session->stop();

  // The first frame after the resume lies one interval after the last one before the pause.
  EXPECT_EQ(f.log->video(), evenlySpaced(1 * s, 20));
  std::vector<std::int64_t> numbers;
  for (std::int64_t n = 0; n < 10; ++n) numbers.push_back(n);
  for (std::int64_t n = 15; n < 25; ++n) numbers.push_back(n);
  EXPECT_EQ(f.log->videoFrameNumbers, numbers);
  EXPECT_EQ(f.log->audio(), (std::vector<std::pair<RecordingStreamType, std::int64_t>>{
                                {RecordingStreamType::systemAudio, 1 * s + 5 * interval},
                                {RecordingStreamType::systemAudio, 1 * s + 12 * interval}}));

  const ProjectManifest& manifest = result.snapshot.manifest;
  EXPECT_EQ(manifest.state, ProjectState::completed);
  EXPECT_EQ(manifest.duration, ProjectTime{19 * interval});
  EXPECT_EQ(manifest.metrics.videoFrames, 20);
  EXPECT_EQ(manifest.metrics.pauseCount, 1);
  EXPECT_EQ(manifest.metrics.pausedDurationNanoseconds, 3600 * s + 5 * interval);
  EXPECT_EQ(manifest.metrics.systemAudioSamples, 2);
  EXPECT_EQ(manifest.metrics.timeDiscontinuities, 0);
  EXPECT_EQ(manifest.metrics.writerStatus, "completed");
  EXPECT_EQ(f.transportChanges(), (std::vector<RecordingTransportState>{
                                      RecordingTransportState::recording, RecordingTransportState::paused,
                                      RecordingTransportState::resuming, RecordingTransportState::recording}));
  EXPECT_EQ(result.package.rootPath.extension(), ".vumo");
  EXPECT_TRUE(f.failureMessages().empty());
}

TEST(ScreenRecordingSession, PauseAndResumeBeforeTheFirstFrameStartTheClockAtTheNextFrame) {
  SessionFixture f;
  f.session->start();
  f.session->pause();
  f.session->pause();  // no effect when paused
  f.session->resume();
  f.video->advanceClock(10 * s);
  f.video->emitFrames(3);
  RecordingSessionResult result = f.session->stop();
  EXPECT_EQ(f.log->video(), evenlySpaced(11 * s, 3));
  EXPECT_EQ(result.snapshot.manifest.metrics.pausedDurationNanoseconds, 0);
  EXPECT_EQ(result.snapshot.manifest.metrics.pauseCount, 1);
}

TEST(ScreenRecordingSession, StopDuringAPauseEndsAtTheLastFrameBeforeIt) {
  SessionFixture f;
  f.session->start();
  f.video->emitFrames(10);
  f.session->pause();
  f.video->emitFrames(3);
  RecordingSessionResult result = f.session->stop();
  EXPECT_EQ(result.snapshot.manifest.duration, ProjectTime{9 * interval});
  EXPECT_EQ(result.snapshot.manifest.metrics.videoFrames, 10);
  EXPECT_EQ(result.snapshot.manifest.metrics.pausedDurationNanoseconds, 0);
  EXPECT_EQ(result.report.state, ProjectState::finalizing);  // the report is written before the package is finished
}

TEST(ScreenRecordingSession, TwoFatalErrorsTellTheOwnerOnceAndStopThrowsTheLatest) {
  SessionFixture f;
  f.log->videoFailures = {{3, std::make_exception_ptr(std::runtime_error("disk full"))},
                          {4, std::make_exception_ptr(std::runtime_error("disk gone"))}};
  f.session->start();
  f.video->emitFrames(6);
  f.session->drainCaptureQueue();
  EXPECT_EQ(f.failureMessages(), std::vector<std::string>{"disk full"});
  try {
    f.session->stop();
    ADD_FAILURE() << "stop finished a failed recording";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "disk gone");
  }
  EXPECT_FALSE(f.log->finished);  // nothing is finished once an error is latched

  ProjectPackage package = f.session->package();
  f.session->fail("disk full");
  ProjectManifest manifest = f.store.readManifest(package);
  EXPECT_EQ(manifest.state, ProjectState::failed);
  EXPECT_EQ(manifest.failureReason, "disk full");
  EXPECT_EQ(package.rootPath.extension(), ".tmp");
  EXPECT_TRUE(std::filesystem::exists(package.rootPath));
  EXPECT_FALSE(f.log->cancelled);  // the movie stays for recovery
}

TEST(ScreenRecordingSession, NoValidFrameIsNoVideoFramesAfterTheWriterFinished) {
  SessionFixture f;
  f.session->start();
  f.video->emitInvalidFrame();
  f.video->emitInvalidFrame();
  EXPECT_ERROR_CASE(f.session->stop(), ScreenRecordingSessionError, ScreenRecordingSessionError::Case::noVideoFrames);
  EXPECT_TRUE(f.log->finished);
  EXPECT_EQ(f.session->metrics().droppedVideoFrames, 2);
}

TEST(ScreenRecordingSession, AFinishedPackageHoldsEverythingTheRecordingSaw) {
  std::int64_t base = std::int64_t(monotonicNanoseconds());
  SessionFixture f({.firstPresentation = base, .pointerAndCursor = true, .withCamera = true});
  f.controlRegion.replace(RectValue{300, 0, 20, 20});
  f.cursor->setShape(ScriptedCursorProvider::arrow());
  f.session->start();
  EXPECT_TRUE(f.pointer->isRunning());

  f.camera->emitFrames(1);  // before the first screen frame: dropped
  f.video->emitFrames(1);
  f.session->drainCaptureQueue();
  f.camera->emitFrames(3);  // from base + 533 ms on, placed by host time
  f.pointer->click({80, 45}, std::uint64_t(base + 1 * s));
  f.pointer->click({310, 10}, std::uint64_t(base + 2 * s));  // on the control panel
  f.pointer->send(PointerEvent{std::uint64_t(base + 3 * s), 0, {400, 90}, MouseButton::left, MousePhase::moved});
  f.pointer->click({240, 135}, std::uint64_t(base + 4 * s));
  f.microphone->emit(std::uint64_t(base + 100 * ms), 480, 0.25f);

  // The sampler probes every 34 ms: arrow, then the I-beam, then the arrow again.
  auto waitForProbes = [&](std::int64_t more) {
    std::int64_t target = f.cursor->probes() + more;
    EXPECT_TRUE(eventually([&] { return f.cursor->probes() >= target; }));
  };
  waitForProbes(2);
  f.cursor->setShape(ScriptedCursorProvider::text());
  waitForProbes(2);
  f.cursor->setShape(ScriptedCursorProvider::arrow());
  waitForProbes(2);

  f.video->emitFrames(149);
  f.video->emitInvalidFrame();
  f.video->setMissedTicks(3);
  f.log->writerDroppedVideoFrames = 1;
  f.camera->stopByItself(std::make_exception_ptr(std::runtime_error("Camera unplugged")));
  RecordingSessionResult result = f.session->stop();
  const ProjectSnapshot& snapshot = result.snapshot;
  const ProjectManifest& manifest = snapshot.manifest;

  EXPECT_EQ(manifest.state, ProjectState::completed);
  EXPECT_EQ(manifest.duration, ProjectTime{149 * interval});
  const RecordingMetrics& metrics = manifest.metrics;
  EXPECT_EQ(metrics.videoFrames, 150);
  EXPECT_EQ(metrics.droppedVideoFrames, 1 + 3 + 1);  // the session's, the stream's missed ticks, the writer's
  EXPECT_EQ(metrics.mouseEvents, 5);
  EXPECT_EQ(metrics.geometryRevisions, 1);
  EXPECT_EQ(metrics.microphoneSamples, 1);
  EXPECT_EQ(metrics.webcamFrames, 3);
  EXPECT_EQ(metrics.droppedWebcamFrames, 1);
  EXPECT_EQ(metrics.webcamInterruptions, 1);
  EXPECT_EQ(metrics.pauseCount, 0);
  EXPECT_EQ(metrics.pausedDurationNanoseconds, 0);
  EXPECT_GT(metrics.peakResidentMemoryBytes.value_or(0), 0u);
  EXPECT_EQ(metrics.writerStatus, "completed");

  // Camera frames go to the screen's timeline by their host times.
  EXPECT_EQ(f.log->webcamTimes, (std::vector<std::int64_t>{base + 500 * ms + interval, base + 500 * ms + 2 * interval,
                                                           base + 500 * ms + 3 * interval}));
  ASSERT_TRUE(f.log->configuration);
  EXPECT_EQ(f.log->configuration->url,
            std::filesystem::path(result.package.rootPath.string() + ".tmp") / "media" / "recording.mov");
  EXPECT_TRUE(f.log->configuration->webcam.has_value());
  EXPECT_EQ(f.log->configuration->framesPerSecond, 30);

  ASSERT_EQ(snapshot.mouseEvents.size(), 5u);
  EXPECT_EQ(snapshot.mouseEvents[0].time, ProjectTime{1 * s});
  EXPECT_EQ(snapshot.mouseEvents[0].normalizedPoint, (PointValue{0.25, 0.25}));
  EXPECT_EQ(snapshot.mouseEvents[2].isInsideSource, false);
  EXPECT_EQ(snapshot.mouseEvents[3].time, ProjectTime{4 * s});
  ASSERT_EQ(snapshot.geometry.size(), 1u);
  EXPECT_EQ(snapshot.geometry[0].globalWindowFrame, (RectValue{0, 0, 320, 180}));
  EXPECT_EQ(snapshot.geometry[0].revision, 1u);

  ASSERT_EQ(snapshot.cursorShapeSamples.size(), 3u);
  EXPECT_EQ(snapshot.cursorShapeSamples[0].assetID, snapshot.cursorShapeSamples[2].assetID);
  EXPECT_NE(snapshot.cursorShapeSamples[0].assetID, snapshot.cursorShapeSamples[1].assetID);
  EXPECT_EQ(snapshot.cursorAssets.size(), 2u);
  ASSERT_TRUE(manifest.cursorAssets);
  EXPECT_EQ(manifest.cursorAssets->size(), 2u);

  // The first timeline zooms in at the two clicks inside the source.
  ASSERT_EQ(snapshot.timeline.zooms.size(), 2u);
  EXPECT_EQ(snapshot.timeline.zooms[0].focusTime, ProjectTime{1 * s});
  EXPECT_EQ(snapshot.timeline.zooms[1].focusTime, ProjectTime{4 * s});
  EXPECT_TRUE(snapshot.timeline.webcamOverlay.has_value());

  EXPECT_NE(std::find(result.report.notes.begin(), result.report.notes.end(), "Camera unplugged"),
            result.report.notes.end());
  EXPECT_NE(std::find(result.report.notes.begin(), result.report.notes.end(), "Video encoder: fake-h264"),
            result.report.notes.end());
  EXPECT_FALSE(f.pointer->isRunning());
  EXPECT_FALSE(f.video->isRunning());
  EXPECT_EQ(f.session->liveStatus().webcamState, RecordingWebcamState::interrupted);
  EXPECT_EQ(f.store.recentProjects().size(), 1u);
}

TEST(ScreenRecordingSession, DiscardLeavesNothing) {
  SessionFixture f({.pointerAndCursor = true});
  f.session->start();
  f.video->emitFrames(5);
  ProjectPackage package = f.session->package();
  ASSERT_TRUE(std::filesystem::exists(package.rootPath));
  f.session->discard();
  EXPECT_FALSE(std::filesystem::exists(package.rootPath));
  EXPECT_TRUE(f.log->cancelled);
  EXPECT_FALSE(f.video->isRunning());
  EXPECT_FALSE(f.pointer->isRunning());
  EXPECT_EQ(f.transportChanges().back(), RecordingTransportState::discarding);
  EXPECT_TRUE(f.store.recentProjects().empty());
}

TEST(ScreenRecordingSession, AnAreaThatBecomesInvalidEndsTheRecording) {
  CaptureSourceDescriptor area = displaySource();
  area.kind = CaptureSourceKind::area;
  area.areaSourceRect = RectValue{100, 100, 320, 180};
  area.globalFrame = {100, 100, 320, 180};
  area.pointPixelScale = 2.0;
  std::atomic<bool> valid = true;
  SessionFixture f({.source = area, .adjust = [&](RecordingSessionSettings& settings) {
                      settings.areaCheckInterval = std::chrono::milliseconds(5);
                      settings.areaSourceCheck = [&] { return valid.load(); };
                    }});
  f.session->start();
  f.video->emitFrames(2);
  f.session->drainCaptureQueue();
  EXPECT_TRUE(f.failureMessages().empty());
  valid = false;
  ASSERT_TRUE(eventually([&] { return !f.failureMessages().empty(); }));
  EXPECT_EQ(f.failureMessages(), std::vector<std::string>{"Cropped recording stopped because the display resolution, "
                                                          "scaling, or connection changed."});
  EXPECT_ERROR_CASE(f.session->stop(), ScreenRecordingSessionError,
                    ScreenRecordingSessionError::Case::sourceRectBecameInvalid);
  f.session->fail(f.failureMessages().front());
  EXPECT_EQ(f.store.readManifest(f.session->package()).state, ProjectState::failed);
}

TEST(ScreenRecordingSession, AnAreaIsRecordedWithItsOwnFrameAndScale) {
  CaptureSourceDescriptor area = displaySource();
  area.kind = CaptureSourceKind::area;
  area.areaSourceRect = RectValue{100, 100, 160, 90};
  area.globalFrame = {100, 100, 160, 90};
  area.pointPixelScale = 2.0;
  SessionFixture f({.source = area});
  f.session->start();
  f.video->setMetadata(GeometryFrameMetadata{{0, 0, 1920, 1080}, {0, 0, 1920, 1080}, 1.0});  // the whole display
  f.video->emitFrames(3);
  RecordingSessionResult result = f.session->stop();
  ASSERT_EQ(result.snapshot.geometry.size(), 1u);
  EXPECT_EQ(result.snapshot.geometry[0].globalWindowFrame, (RectValue{100, 100, 160, 90}));
  EXPECT_EQ(result.snapshot.geometry[0].sourceContentSize, (SizeValue{320, 180}));
  EXPECT_EQ(result.snapshot.geometry[0].scaleFactor, 2.0);
}

TEST(ScreenRecordingSession, AMovedWindowIsANewGeometryAndAClosedOneKeepsItsLastFrame) {
  CaptureSourceDescriptor window = displaySource();
  window.kind = CaptureSourceKind::window;
  window.nativeID = 0x3a00007;
  window.globalFrame = {10, 10, 320, 180};
  std::vector<std::optional<RectValue>> answers = {RectValue{10, 10, 320, 180}, RectValue{50, 10, 320, 180},
                                                   std::nullopt};
  std::size_t probes = 0;
  SessionFixture f({.source = window, .adjust = [&](RecordingSessionSettings& settings) {
                      settings.windowFrameProbe = [&]() -> std::optional<RectValue> {
                        return answers[std::min(probes++, answers.size() - 1)];
                      };
                    }});
  f.session->start();
  f.video->emitFrames(10);
  RecordingSessionResult result = f.session->stop();
  // Probed at frames 0, 4 and 8: three frames are 99,999,999 ns, short of the 100 ms between probes.
  EXPECT_EQ(probes, 3u);
  ASSERT_EQ(result.snapshot.geometry.size(), 2u);
  EXPECT_EQ(result.snapshot.geometry[1].time, ProjectTime{4 * interval});
  EXPECT_EQ(result.snapshot.geometry[1].globalWindowFrame, (RectValue{50, 10, 320, 180}));
  EXPECT_EQ(result.snapshot.manifest.metrics.geometryRevisions, 2);
}

TEST(ScreenRecordingSession, AStalledWriterCostsDroppedFramesNotABlockedStream) {
  SessionFixture f({.adjust = [](RecordingSessionSettings& settings) { settings.maximumPendingFrames = 5; }});
  std::promise<void> writerBusy;
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  bool first = true;
  f.log->beforeVideoAppend = [&] {
    if (!std::exchange(first, false)) return;
    writerBusy.set_value();
    released.wait();
  };
  f.session->start();
  f.video->emitFrames(1);
  writerBusy.get_future().wait();
  f.video->emitFrames(9);  // five wait for the capture thread, four are dropped at once
  EXPECT_EQ(f.session->metrics().droppedVideoFrames, 4);
  release.set_value();
  RecordingSessionResult result = f.session->stop();
  EXPECT_EQ(result.snapshot.manifest.metrics.videoFrames, 6);
  EXPECT_EQ(result.snapshot.manifest.metrics.droppedVideoFrames, 4);
  std::vector<std::int64_t> written = {0, 1, 2, 3, 4, 5};
  EXPECT_EQ(f.log->videoFrameNumbers, written);
}

TEST(ScreenRecordingSession, AStreamThatEndsByItselfIsFatal) {
  SessionFixture f;
  f.session->start();
  f.video->emitFrames(3);
  f.video->stopByItself(std::make_exception_ptr(std::runtime_error("The display was disconnected")));
  EXPECT_EQ(f.failureMessages(), std::vector<std::string>{"The display was disconnected"});
  EXPECT_THROW(f.session->stop(), std::runtime_error);
}

TEST(ScreenRecordingSession, AFailedStartLeavesNothingRunning) {
  {
    SessionFixture f({.pointerAndCursor = true});
    f.pointer->failNextStart(std::make_exception_ptr(std::runtime_error("no XInput2")));
    EXPECT_ERROR_CASE(f.session->start(), MouseEventRecorderError, MouseEventRecorderError::Case::eventTapUnavailable);
    EXPECT_FALSE(f.video->isRunning());
    EXPECT_FALSE(f.systemAudio->isRunning());
  }
  {
    SessionFixture f({.pointerAndCursor = true});
    f.video->failNextStart(std::make_exception_ptr(std::runtime_error("no display")));
    EXPECT_THROW(f.session->start(), std::runtime_error);
    EXPECT_FALSE(f.pointer->isRunning());
  }
}

TEST(ScreenRecordingSession, AWriterThatCannotOpenTakesTheNewPackageAway) {
  testing::ScopedDataHome home;
  ProjectStore store;
  RecordingCaptureStreams streams;
  streams.video = std::make_unique<SyntheticVideoStream>(PixelSize{320, 180}, 30);
  auto failingFactory = [](const RecordingWriterConfiguration&) -> std::unique_ptr<RecordingMediaWriting> {
    throw std::runtime_error("no encoder");
  };
  EXPECT_THROW(ScreenRecordingSession::create(store, displaySource(), thirtyFramesWithAudio(), std::move(streams),
                                              failingFactory),
               std::runtime_error);
  std::size_t entries = 0;
  for (const auto& entry : std::filesystem::directory_iterator(store.projectsDirectoryPath()))
    if (entry.path().filename().string()[0] != '.') ++entries;
  EXPECT_EQ(entries, 0u);
}

TEST(DeviceRecordingSession, RecordsTheDevicePictureWithoutPointer) {
  CaptureSourceDescriptor device;
  device.kind = CaptureSourceKind::device;
  device.title = "Phone";
  device.deviceUniqueID = "phone-1";
  device.globalFrame = {0, 0, 200, 400};
  device.initialPixelSize = {200, 400};
  testing::ScopedDataHome home;
  ProjectStore store;
  auto log = std::make_shared<FakeWriterLog>();
  RecordingCaptureStreams streams;
  auto video = std::make_unique<SyntheticVideoStream>(PixelSize{200, 400}, 30);
  SyntheticVideoStream* stream = video.get();
  video->setMetadata(GeometryFrameMetadata{{5, 5, 10, 10}, {0, 0, 10, 10}, 3.0});  // ignored for a device
  streams.video = std::move(video);
  auto pointer = std::make_unique<ScriptedPointerStream>();
  ScriptedPointerStream* events = pointer.get();
  streams.pointer = std::move(pointer);
  RecordingOptions options;
  options.capturesSystemAudio = false;
  options.capturesMicrophone = false;
  options.framesPerSecond = 30;
  CreatedProject project = store.createProject(device, options, PixelSize{200, 400}, std::nullopt, std::nullopt);
  DeviceRecordingSession session(store, project, std::move(streams),
                                 [log](const RecordingWriterConfiguration& configuration) {
                                   return std::make_unique<FakeMediaWriter>(log, configuration.url);
                                 });
  session.start();
  EXPECT_FALSE(events->isRunning());
  stream->emitFrames(5);
  RecordingSessionResult result = session.stop();
  EXPECT_EQ(result.snapshot.manifest.source.kind, CaptureSourceKind::device);
  EXPECT_EQ(result.snapshot.manifest.duration, ProjectTime{4 * interval});
  ASSERT_EQ(result.snapshot.geometry.size(), 1u);
  EXPECT_EQ(result.snapshot.geometry[0].globalWindowFrame, (RectValue{0, 0, 200, 400}));
  EXPECT_EQ(result.snapshot.geometry[0].contentRectInEncodedFrame, (RectValue{0, 0, 200, 400}));
  EXPECT_TRUE(result.snapshot.mouseEvents.empty());
  EXPECT_TRUE(result.snapshot.cursorShapeSamples.empty());
}

}  // namespace
}  // namespace vumo
