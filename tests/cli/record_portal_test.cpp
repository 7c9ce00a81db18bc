// `vumo record --backend portal` as on a Wayland desktop, with everything the desktop would give
// brought by the test: a session bus of its own, a screen-cast portal that answers as a desktop
// does, and a PipeWire daemon with a producer that publishes a screen the way a compositor does
// (a known pattern, frames only on change, the pointer as metadata).

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>

#include "project/project_store.h"
#include "shared/json.h"
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
