// `vumo record --backend portal` as on a Wayland desktop, with everything the desktop would give
// brought by the test: a session bus of its own, a screen-cast portal that answers as a desktop
// does, and a PipeWire daemon with a producer that publishes a screen the way a compositor does
// (a known pattern, frames only on change, the pointer as metadata).

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <set>
#include <thread>

#include "project/project_store.h"
#include "shared/json.h"
#include "support/desktop_servers.h"
#include "support/fake_screen_cast_portal.h"
#include "support/pipewire_test_servers.h"
#include "support/private_session_bus.h"
#include "support/test_support.h"

namespace vumo {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

class RecordThroughPortalTest : public ::testing::Test {
 protected:
  void SetUp() override {
    servers_ = std::make_unique<testing::PipeWireTestServers>(bus_.address());
    testing::ScreencastProducerOptions options;
    options.width = 320;
    options.height = 240;
    options.framesPerSecond = 30;
    producer_ = std::make_unique<testing::TestScreencastProducer>(options);
    testing::FakeScreenCastPortalOptions portal;
    portal.pipeWireSocket = servers_->runtimeFolder() / "pipewire-0";
    portal.streams = {{producer_->nodeID(), std::pair{100, 50}, std::pair{320, 240}, 1}};
    portal_ = std::make_unique<testing::FakeScreenCastPortal>(bus_.address(), portal);
  }

  void TearDown() override {
    stopDrawing();
    portal_.reset();
    producer_.reset();
    servers_.reset();
  }

  // Changes the picture every 33 ms and walks the pointer across it, once a consumer is linked.
  void startDrawing() {
    drawing_ = std::jthread([this](std::stop_token stop) {
      std::uint32_t number = 1;
      while (!stop.stop_requested()) {
        testing::ScreencastBuffer buffer;
        buffer.number = number;
        testing::ScreencastCursor cursor;
        cursor.x = int(10 + (number * 7) % 300);
        cursor.y = 120;
        // Every buffer carries the bitmap: a consumer linked later, or a buffer lost while the link
        // is made, must not leave a recording without its pointer's image.
        cursor.bitmapColour = std::array<std::uint8_t, 4>{0, 0, 255, 255};
        buffer.cursor = cursor;
        if (producer_->send(buffer)) ++number;
        std::this_thread::sleep_for(33ms);
      }
    });
  }
  void stopDrawing() {
    drawing_.request_stop();
    if (drawing_.joinable()) drawing_.join();
  }

  testing::ProcessResult record(std::vector<std::string> arguments, std::function<void(int)> whileRunning = {}) {
    testing::ProcessLaunch launch;
    launch.words = {testing::vumoBinary().string(), "record", "--backend", "portal"};
    launch.words.insert(launch.words.end(), arguments.begin(), arguments.end());
    launch.timeout = 60s;
    launch.whileRunning = std::move(whileRunning);
    return testing::run(launch);
  }

  std::vector<fs::path> packages() const {
    std::vector<fs::path> found;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(home_.path() / "Vumo" / "Projects", error))
      found.push_back(entry.path());
    return found;
  }

  testing::ScopedDataHome home_;
  testing::PrivateSessionBus bus_;
  std::unique_ptr<testing::PipeWireTestServers> servers_;
  std::unique_ptr<testing::TestScreencastProducer> producer_;
  std::unique_ptr<testing::FakeScreenCastPortal> portal_;
  std::jthread drawing_;
};

TEST_F(RecordThroughPortalTest, ARecordingOfTheSharedScreenKeepsThePointerAsDataAndTheChoiceForNextTime) {
  startDrawing();
  testing::ProcessResult first = record({"--duration", "1.5", "--fps", "30"});
  ASSERT_EQ(first.status, 0) << first.standardError << first.standardOutput;
  const Json answer = Json::parse(first.standardOutput);
  EXPECT_EQ(answer["width"], 320);
  EXPECT_EQ(answer["height"], 240);
  EXPECT_GE(answer["durationMilliseconds"].get<std::int64_t>(), 1'400);
  EXPECT_LE(answer["durationMilliseconds"].get<std::int64_t>(), 2'000);
  EXPECT_GT(answer["mouseEvents"].get<std::int64_t>(), 5) << "the pointer comes from the cursor metadata";
  ProjectStore store;
  const ProjectSnapshot snapshot = store.loadSnapshot(store.project(answer["projectID"].get<std::string>()));
  EXPECT_EQ(snapshot.manifest.state, ProjectState::completed);
  ASSERT_FALSE(snapshot.mouseEvents.empty());
  // Stream position (10 + 7n, 120) on a stream placed at (100, 50) in global points.
  EXPECT_DOUBLE_EQ(snapshot.mouseEvents.front().globalPoint.y, 170);
  ASSERT_TRUE(snapshot.manifest.cursorAssets.has_value());
  EXPECT_EQ(snapshot.manifest.cursorAssets->size(), 1u);
  // No pointer device can be read here: the answer says that clicks are missing, and why.
  ASSERT_FALSE(answer["notes"].empty());
  EXPECT_EQ(portal_->dialogsShown(), 1);

  // The desktop remembers the choice: no dialog the second time, unless asked for.
  testing::ProcessResult second = record({"--duration", "0.5"});
  ASSERT_EQ(second.status, 0) << second.standardError;
  EXPECT_EQ(portal_->dialogsShown(), 1);
  testing::ProcessResult chosen = record({"--duration", "0.5", "--choose-source"});
  ASSERT_EQ(chosen.status, 0) << chosen.standardError;
  EXPECT_EQ(portal_->dialogsShown(), 2);
}

// The film's pictures as the producer drew them: each decoded frame's number, in order.
std::vector<std::uint32_t> numbersInFilm(const fs::path& movie) {
  testing::ProcessLaunch launch;
  launch.words = {testing::requireProgram("ffmpeg", "ffmpeg").string(),
                  "-nostdin",
                  "-v",
                  "error",
                  "-i",
                  movie.string(),
                  "-map",
                  "0:v:0",
                  "-fps_mode",
                  "passthrough",
                  "-f",
                  "rawvideo",
                  "-pix_fmt",
                  "bgra",
                  "-"};
  launch.timeout = 60s;
  const testing::ProcessResult decoded = testing::run(launch);
  EXPECT_EQ(decoded.status, 0) << decoded.standardError;
  const std::size_t frameBytes = 320u * 240u * 4u;
  std::vector<std::uint32_t> numbers;
  for (std::size_t at = 0; at + frameBytes <= decoded.standardOutput.size(); at += frameBytes) {
    const auto* pixels = reinterpret_cast<const std::uint8_t*>(decoded.standardOutput.data() + at);
    if (auto number = testing::readScreencastPattern(pixels, 320, 240, 320 * 4)) numbers.push_back(*number);
  }
  return numbers;
}

TEST_F(RecordThroughPortalTest, TheFilmShowsThePicturesInOrderAPauseLeavesNoGapAndAKilledRecordingIsRecovered) {
  const Json sources = Json::parse(record({"--list-sources"}).standardOutput);
  EXPECT_EQ(sources["backend"], "portal");
  EXPECT_EQ(sources["portal"]["version"], 4);
  EXPECT_FALSE(sources["portal"]["clicksAvailable"].get<bool>());
  EXPECT_EQ(portal_->dialogsShown(), 0) << "listing opens no dialog";

  startDrawing();
  // Recording, a pause of 0.8 s, recording again, then Ctrl-C.
  testing::ProcessResult paused = record({"--fps", "30"}, [](int pid) {
    std::this_thread::sleep_for(1000ms);
    ::kill(pid, SIGUSR1);
    std::this_thread::sleep_for(800ms);
    ::kill(pid, SIGUSR1);
    std::this_thread::sleep_for(1000ms);
    ::kill(pid, SIGINT);
  });
  ASSERT_EQ(paused.status, 0) << paused.standardError;
  const Json answer = Json::parse(paused.standardOutput);
  ProjectStore store;
  const ProjectSnapshot snapshot = store.loadSnapshot(store.project(answer["projectID"].get<std::string>()));
  EXPECT_EQ(snapshot.manifest.metrics.pauseCount, 1);
  ASSERT_TRUE(snapshot.manifest.metrics.pausedDurationNanoseconds.has_value());
  EXPECT_NEAR(double(*snapshot.manifest.metrics.pausedDurationNanoseconds) / 1e9, 0.8, 0.5);
  // About two seconds of recording remain, the pause cut out.
  EXPECT_NEAR(double(snapshot.manifest.duration.nanoseconds) / 1e9, 2.0, 0.7);
  const std::vector<std::uint32_t> numbers = numbersInFilm(ProjectPackage{snapshot.packagePath}.mediaPath());
  ASSERT_GT(numbers.size(), 20u);
  EXPECT_TRUE(std::is_sorted(numbers.begin(), numbers.end())) << "pictures in the order they were drawn";
  // What was drawn during the pause is not in the film: the numbers jump once, by about 0.8 s.
  std::size_t jumps = 0;
  for (std::size_t i = 1; i < numbers.size(); ++i)
    if (numbers[i] - numbers[i - 1] > 10) ++jumps;
  EXPECT_EQ(jumps, 1u);

  // Killed in the middle, the package stays unfinished until the next recording recovers it.
  testing::ProcessResult killed = record({"--fps", "30"}, [](int pid) {
    std::this_thread::sleep_for(2500ms);
    ::kill(pid, SIGKILL);
  });
  EXPECT_NE(killed.status, 0);
  testing::ProcessResult next = record({"--duration", "0.5"});
  ASSERT_EQ(next.status, 0) << next.standardError;
  const Json recovered = Json::parse(next.standardOutput)["recoveredProjects"];
  ASSERT_EQ(recovered.size(), 1u) << next.standardOutput;
  // The first fragment is cut after a second of film.
  EXPECT_GE(recovered[0]["durationMilliseconds"].get<std::int64_t>(), 900);
}

TEST_F(RecordThroughPortalTest, ACancelledDialogLeavesNothingAndStopSharingKeepsTheRecording) {
  portal_->setResponse("Start", testing::FakePortalResponse::cancelled);
  testing::ProcessResult cancelled = record({"--duration", "1"});
  EXPECT_EQ(cancelled.status, 130) << cancelled.standardError;
  EXPECT_TRUE(packages().empty());

  portal_->setResponse("Start", testing::FakePortalResponse::granted);
  startDrawing();
  testing::ProcessResult stopped = record({"--fps", "30"}, [this](int) {
    std::this_thread::sleep_for(1500ms);
    portal_->closeSessions();
  });
  ASSERT_EQ(stopped.status, 0) << stopped.standardError;
  const Json answer = Json::parse(stopped.standardOutput);
  EXPECT_GT(answer["videoFrames"].get<std::int64_t>(), 10);
  ASSERT_EQ(packages().size(), 1u);
  EXPECT_EQ(packages().front().extension(), ".vumo");
}

}  // namespace
}  // namespace vumo
