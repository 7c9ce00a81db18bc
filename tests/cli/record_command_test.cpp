#include "cli/record_command.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "capture/synthetic_streams.h"
#include "project/file_lock.h"
#include "project/project_store.h"
#include "recording/fake_media_writer.h"
#include "shared/json.h"
#include "support/test_support.h"

namespace vumo {
namespace {

namespace fs = std::filesystem;

// A machine with one 640x360 display whose picture comes from a stream of numbered frames, and a
// writer that keeps times instead of encoding.
class SyntheticPlatform : public RecordingPlatform {
 public:
  explicit SyntheticPlatform(SyntheticVideoStream::Pacing pacing = SyntheticVideoStream::Pacing::thread)
      : pacing_(pacing) {}

  void listSources(const RecordSourceRequest&, Json& answer) override {
    answer["displays"] = Json::array({{{"name", "synthetic"}}});
  }
  CaptureSourceDescriptor resolve(const RecordSourceRequest& request, std::stop_token) override {
    if (request.kind == CaptureSourceKind::window) throw FileError("no such window");
    CaptureSourceDescriptor source;
    source.kind = CaptureSourceKind::display;
    source.nativeID = 1;
    source.title = "Synthetic display";
    source.globalFrame = {0, 0, 640, 360};
    source.initialPixelSize = {640, 360};
    return source;
  }
  RecordingCaptureStreams openStreams(const CaptureSourceDescriptor&, const RecordStreamRequest& request) override {
    RecordingCaptureStreams streams;
    auto video = std::make_unique<SyntheticVideoStream>(PixelSize{640, 360}, request.framesPerSecond, pacing_);
    SyntheticVideoStream* raw = video.get();
    video_ = raw;
    streams.video = std::move(video);
    if (failAfterStart_) {
      std::thread([raw] {
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        raw->stopByItself(std::make_exception_ptr(FileError("the display went away")));
      }).detach();
    }
    return streams;
  }
  std::optional<RecordingMicrophoneConfiguration> microphoneConfiguration(const RecordStreamRequest&) override {
    return std::nullopt;
  }
  RecordingMediaWriterFactory writerFactory() override {
    return [log = log_](const RecordingWriterConfiguration& configuration) {
      return std::make_unique<testing::FakeMediaWriter>(log, configuration.url);
    };
  }
  void watchSource(const CaptureSourceDescriptor&, RecordingSessionSettings&) override {}
  // Any movie with something in it plays for 2.5 s.
  MediaProbing recordingMediaProbe() override {
    return [](const fs::path& media) -> std::optional<MediaProbeResult> {
      std::error_code error;
      if (fs::file_size(media, error) == 0 || error) return std::nullopt;
      return MediaProbeResult{ProjectTime{2'500'000'000}, true};
    };
  }

  std::shared_ptr<testing::FakeWriterLog> log_ = std::make_shared<testing::FakeWriterLog>();
  SyntheticVideoStream* video_ = nullptr;
  bool failAfterStart_ = false;

 private:
  SyntheticVideoStream::Pacing pacing_;
};

struct Outcome {
  int status = -1;
  std::string output;
  std::string error;
  Json answer() const { return Json::parse(output); }
};

class RecordCommandTest : public ::testing::Test {
 protected:
  Outcome run(std::vector<std::string> arguments, std::unique_ptr<SyntheticPlatform> platform = nullptr,
              const std::function<void(RecordControls&)>& user = {}) {
    if (!platform) platform = std::make_unique<SyntheticPlatform>();
    log_ = platform->log_;
    auto outcome = std::make_shared<Outcome>();
    VumoCLI::Streams streams{[outcome](std::string_view text) { outcome->output += text; },
                             [outcome](std::string_view text) { outcome->error += text; }};
    RecordCommand command(controls_, streams, false, std::move(platform), freeSpace_);
    std::jthread driver;
    if (user) driver = std::jthread([&] { user(controls_); });
    outcome->status = command.run(arguments);
    return *outcome;
  }

  std::vector<fs::path> packages() const {
    std::vector<fs::path> found;
    const fs::path projects = home_.path() / "Vumo" / "Projects";
    if (!fs::exists(projects)) return found;
    for (const auto& entry : fs::directory_iterator(projects)) found.push_back(entry.path());
    return found;
  }

  testing::ScopedDataHome home_;
  RecordControls controls_;
  std::shared_ptr<testing::FakeWriterLog> log_;
  // A disk of any size: the tests cannot fill a real one.
  FreeSpaceGuard::Settings freeSpace_{.probe = [](const fs::path&) { return std::optional<std::uint64_t>(); }};
};

TEST_F(RecordCommandTest, ARecordingOfAGivenDurationBecomesAFinishedProject) {
  Outcome outcome = run({"--fps", "30", "--duration", "0.4", "--name", "Demo take"});
  ASSERT_EQ(outcome.status, 0) << outcome.output << outcome.error;
  const Json answer = outcome.answer();
  EXPECT_EQ(answer["title"], "Demo take");
  const fs::path package = answer["packagePath"].get<std::string>();
  EXPECT_EQ(package.extension(), ".vumo");
  ASSERT_EQ(packages(), std::vector<fs::path>{package});
  // The recording stops at the first frame past the duration: within a frame or two of it.
  EXPECT_GE(answer["durationMilliseconds"].get<std::int64_t>(), 400 - 34);
  EXPECT_LE(answer["durationMilliseconds"].get<std::int64_t>(), 400 + 100);
  ProjectStore store;
  EXPECT_EQ(store.project(answer["projectID"].get<std::string>()).rootPath, package);
  EXPECT_NE(outcome.error.find("finishing the recording"), std::string::npos);
}

TEST_F(RecordCommandTest, StopBeforeTheFirstFrameCancelsAndLeavesNothing) {
  Outcome outcome = run({}, std::make_unique<SyntheticPlatform>(SyntheticVideoStream::Pacing::driven),
                        [](RecordControls& controls) { controls.post(RecordControlEvent::stop); });
  EXPECT_EQ(outcome.status, 130);
  EXPECT_TRUE(packages().empty());
}

TEST_F(RecordCommandTest, StopKeepsTheRecordingAndAFurtherStopOnlyIsAcknowledged) {
  Outcome outcome = run({"--fps", "60"}, nullptr, [](RecordControls& controls) {
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    controls.post(RecordControlEvent::stop);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    controls.post(RecordControlEvent::stop);
  });
  ASSERT_EQ(outcome.status, 0) << outcome.error;
  EXPECT_GT(outcome.answer()["videoFrames"].get<std::int64_t>(), 5);
  EXPECT_EQ(packages().size(), 1u);
}

TEST_F(RecordCommandTest, PauseAndResumeLeaveNoGap) {
  Outcome outcome = run({"--fps", "50"}, nullptr, [](RecordControls& controls) {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    controls.post(RecordControlEvent::togglePause);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    controls.post(RecordControlEvent::togglePause);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    controls.post(RecordControlEvent::stop);
  });
  ASSERT_EQ(outcome.status, 0) << outcome.error;
  EXPECT_NE(outcome.error.find("paused"), std::string::npos);
  const std::vector<std::int64_t> times = log_->video();
  ASSERT_GT(times.size(), 10u);
  for (std::size_t i = 1; i < times.size(); ++i) EXPECT_LE(times[i] - times[i - 1], 20'000'000 * 3) << i;
  // About 0.4 s recorded out of 0.7 s.
  EXPECT_LT(outcome.answer()["durationMilliseconds"].get<std::int64_t>(), 600);
}

TEST_F(RecordCommandTest, AStreamThatFailsEndsTheCommandWithTheErrorAndKeepsAFailedPackage) {
  auto platform = std::make_unique<SyntheticPlatform>();
  platform->failAfterStart_ = true;
  Outcome outcome = run({"--fps", "30"}, std::move(platform));
  EXPECT_EQ(outcome.status, 6) << outcome.output;
  EXPECT_NE(outcome.error.find("the display went away"), std::string::npos) << outcome.error;
  ASSERT_EQ(packages().size(), 1u);
  EXPECT_EQ(packages().front().extension(), ".tmp");
}

TEST_F(RecordCommandTest, UnfinishedRecordingsAreRecoveredBeforeTheNewOneUnlessTheirRecorderStillRuns) {
  ProjectStore store;
  auto unfinished = [&](bool withMovie) {
    CaptureSourceDescriptor source;
    source.kind = CaptureSourceKind::display;
    source.title = "Killed take";
    source.globalFrame = {0, 0, 640, 360};
    source.initialPixelSize = {640, 360};
    CreatedProject created = store.createProject(source, RecordingOptions{}, {640, 360}, std::nullopt, std::nullopt);
    fs::create_directories(created.package.mediaPath().parent_path());
    if (withMovie) std::ofstream(created.package.mediaPath()) << "fragments";
    return created;
  };
  const CreatedProject killed = unfinished(true);
  const CreatedProject stillRecording = unfinished(true);
  const CreatedProject withoutMovie = unfinished(false);
  const RecordingPackageLock liveRecorder(stillRecording.package.rootPath);

  Outcome outcome = run({"--fps", "30", "--duration", "0.2"});
  ASSERT_EQ(outcome.status, 0) << outcome.error;
  const Json answer = outcome.answer();
  ASSERT_EQ(answer["recoveredProjects"].size(), 1u) << answer.dump();
  EXPECT_EQ(answer["recoveredProjects"][0]["projectID"], killed.manifest.id.string());
  EXPECT_EQ(answer["recoveredProjects"][0]["durationMilliseconds"], 2500);
  const fs::path recoveredPath = answer["recoveredProjects"][0]["packagePath"].get<std::string>();
  EXPECT_EQ(recoveredPath.filename(), killed.manifest.id.string() + ".vumo");
  const ProjectManifest manifest = store.readManifest(ProjectPackage{recoveredPath});
  EXPECT_EQ(manifest.state, ProjectState::recovered);
  EXPECT_EQ(manifest.duration, ProjectTime{2'500'000'000});
  EXPECT_NE(outcome.error.find("recovered the interrupted recording " + killed.manifest.id.string()), std::string::npos)
      << outcome.error;
  EXPECT_TRUE(fs::is_directory(stillRecording.package.rootPath));
  EXPECT_TRUE(fs::is_directory(withoutMovie.package.rootPath));
  // The three old packages and the new recording, nothing else.
  EXPECT_EQ(packages().size(), 4u);

  // Nothing is left to recover the next time.
  Outcome next = run({"--fps", "30", "--duration", "0.2"});
  ASSERT_EQ(next.status, 0) << next.error;
  EXPECT_TRUE(next.answer()["recoveredProjects"].empty());
}

TEST_F(RecordCommandTest, ARecordingStartsOnlyWithTheMinimumFreeInTheProjectsFolder) {
  constexpr std::uint64_t gibibyte = std::uint64_t(1) << 30;
  struct Case {
    std::uint64_t minimumBytes;
    std::optional<std::uint64_t> available;
    bool refused;
  } cases[] = {
      {FreeSpaceGuard::defaultMinimumBytes, gibibyte - 1, true},
      {FreeSpaceGuard::defaultMinimumBytes, gibibyte, false},
      {FreeSpaceGuard::defaultMinimumBytes, 0, true},
      // A file system that cannot say how much is free does not stop anyone.
      {FreeSpaceGuard::defaultMinimumBytes, std::nullopt, false},
      {10'000'000, 10'000'001, false},
      {10'000'000, 9'999'999, true},
  };
  std::size_t recorded = 0;
  for (const Case& c : cases) {
    fs::path asked;
    freeSpace_ = {.minimumBytes = c.minimumBytes, .probe = [&](const fs::path& folder) {
                    asked = folder;
                    return c.available;
                  }};
    Outcome outcome = run({"--fps", "30", "--duration", "0.1"});
    EXPECT_EQ(asked, home_.path() / "Vumo" / "Projects");
    if (c.refused) {
      EXPECT_EQ(outcome.status, 6) << c.minimumBytes << " " << *c.available;
      EXPECT_TRUE(outcome.output.empty());
      EXPECT_EQ(Json::parse(outcome.error)["message"],
                "Not enough free disk space to record. At least 1 GiB must be free in the projects folder (" +
                    asked.string() + ").")
          << outcome.error;
    } else {
      ASSERT_EQ(outcome.status, 0) << outcome.error;
      ++recorded;
    }
    EXPECT_EQ(packages().size(), recorded);
  }
}

TEST_F(RecordCommandTest, ARecordingThatRunsShortOfSpaceIsStoppedAndKeptWithANote) {
  // Room at the start, then the disk fills up a third of a second in; no duration and no stop.
  const auto start = std::chrono::steady_clock::now();
  std::atomic<int> probes = 0;
  freeSpace_ = {.probe =
                    [&](const fs::path&) {
                      ++probes;
                      const bool full = std::chrono::steady_clock::now() - start > std::chrono::milliseconds(300);
                      return std::optional<std::uint64_t>(full ? 500'000'000 : 5'000'000'000);
                    },
                .checkInterval = std::chrono::milliseconds(100)};
  Outcome outcome = run({"--fps", "30"});
  ASSERT_EQ(outcome.status, 0) << outcome.error;
  const Json answer = outcome.answer();
  EXPECT_EQ(answer["notes"], Json::array({std::string(recording_messages::stoppedForFreeSpace)}));
  EXPECT_NE(outcome.error.find("note: " + std::string(recording_messages::stoppedForFreeSpace)), std::string::npos);
  EXPECT_GE(answer["durationMilliseconds"].get<std::int64_t>(), 150);
  EXPECT_LE(answer["durationMilliseconds"].get<std::int64_t>(), 1000);
  // Checked about once per interval, not at every status line.
  EXPECT_LE(probes.load(), 12);
  ASSERT_EQ(packages().size(), 1u);
  EXPECT_EQ(packages().front().extension(), ".vumo");
}

TEST_F(RecordCommandTest, BadWordsAreRefusedBeforeAnythingIsWritten) {
  const std::vector<std::vector<std::string>> refused = {
      {"--fps", "0"},
      {"--fps", "sixty"},
      {"--area", "1,2,3"},
      {"--area", "0,0,1,10"},
      {"--window", "0"},
      {"--duration", "-1"},
      {"--duration", "forever"},
      {"--display", "a", "--window", "5"},
      {"stray"},
      {"--name", ""},
      {"--list-sources", "--fps", "5"},
      {"--colour"},
  };
  for (const auto& words : refused) {
    Outcome outcome = run(words);
    EXPECT_EQ(outcome.status, 2) << words.front() << ": " << outcome.output;
  }
  EXPECT_TRUE(packages().empty());
  // A source the machine does not have is a failure of the run, not of the words.
  EXPECT_EQ(run({"--window", "0x2a"}).status, 6);
  EXPECT_TRUE(packages().empty());
}

TEST_F(RecordCommandTest, ListsSourcesAndExplainsItself) {
  Outcome sources = run({"--list-sources"});
  ASSERT_EQ(sources.status, 0);
  EXPECT_EQ(sources.answer()["displays"][0]["name"], "synthetic");
  Outcome help = run({"--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.output.find("--list-sources"), std::string::npos);
}

}  // namespace
}  // namespace vumo
