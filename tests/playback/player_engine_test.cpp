// The player end to end: a generated recording played for a second through the media engine
// loaded as the program loads it, with the silent output on the real clock. The pictures it shows
// advance with the sound, and each is the still of `frame` at the same instant.

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <thread>

#include "cli/media_module_loader.h"
#include "media/still_image.h"
#include "playback/playback_audio_output.h"
#include "playback/project_player.h"
#include "project/project_store.h"
#include "sample_project.h"
#include "support/manual_main_loop.h"
#include "support/test_support.h"

namespace vumo {
namespace {

using namespace std::chrono_literals;

double psnr(const std::vector<std::uint8_t>& a, const std::vector<std::uint8_t>& b) {
  double sum = 0;
  std::size_t count = 0;
  for (std::size_t i = 0; i < a.size() && i < b.size(); ++i) {
    if (i % 4 == 3) continue;
    const double difference = double(a[i]) - double(b[i]);
    sum += difference * difference;
    ++count;
  }
  const double mse = sum / double(count);
  return mse == 0 ? 99.0 : 10.0 * std::log10(255.0 * 255.0 / mse);
}

// Mesa keeps the first shader cache folder it was given for the whole process: one folder serves
// every test of the suite, however often it runs.
class PlayerWithTheMediaEngine : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    static testing::TemporaryDirectory cache;
    static testing::ScopedEnvironmentVariable cacheHome("XDG_CACHE_HOME", cache.path().string());
    static testing::ScopedEnvironmentVariable home("HOME", cache.path().string());
  }

  testing::ScopedDataHome data_;
};

TEST_F(PlayerWithTheMediaEngine, PlaysAGeneratedRecordingInStepWithItsSoundAsTheStillsShowIt) {
  ProjectStore store;
  SampleProjectOptions options;
  options.duration = ProjectTime::fromMilliseconds(4'000);
  options.clickMilliseconds = {300, 700};
  const ProjectSnapshot snapshot = store.loadSnapshot(makeSampleProject(store, options));

  const MediaModule& module = MediaModuleLoader::load();
  testing::ManualMainLoop loop;
  std::vector<ProjectTime> shown;
  std::vector<std::string> failures;
  ProjectPlayer* playerPointer = nullptr;
  ProjectPlayer::Observer observer;
  observer.frameChanged = [&] {
    if (auto frame = playerPointer->currentFrame()) shown.push_back(frame->sequenceTime);
  };
  observer.failed = [&](const std::string& text) { failures.push_back(text); };
  auto output = std::make_unique<SilentAudioOutput>();
  SilentAudioOutput* sound = output.get();
  ProjectPlayer player(loop, loadPreviewEngine(module), std::move(output), observer);
  playerPointer = &player;
  player.setViewSize({640, 360});
  player.load(snapshot);
  EXPECT_EQ(player.duration(), ProjectTime::fromMilliseconds(4'000));

  auto turnFor = [&](std::chrono::steady_clock::duration span, const std::function<bool()>& done) {
    const auto until = std::chrono::steady_clock::now() + span;
    auto last = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() < until && !done()) {
      std::this_thread::sleep_for(2ms);
      const auto now = std::chrono::steady_clock::now();
      loop.advance(now - last);
      last = now;
    }
  };
  turnFor(30s, [&] { return player.currentFrame() != nullptr || !failures.empty(); });
  ASSERT_TRUE(failures.empty()) << failures.front();
  ASSERT_NE(player.currentFrame(), nullptr);

  // About a second, longer where the machine is busy: until three frames have played.
  player.play();
  turnFor(3s, [&] { return shown.size() >= 4 && player.currentTime() >= ProjectTime::fromMilliseconds(1'000); });
  ASSERT_TRUE(failures.empty()) << failures.front();
  ASSERT_TRUE(player.isPlaying());
  const std::optional<ProjectTime> heard = sound->playedTime();
  ASSERT_TRUE(heard);
  // The clock is the sound's (read at the last turn of the loop, a few milliseconds ago).
  EXPECT_NEAR(double(player.currentTime().nanoseconds), double(heard->nanoseconds), 20e6);
  EXPECT_GT(player.currentTime(), ProjectTime::fromMilliseconds(250));
  ASSERT_GE(shown.size(), 4u);
  for (std::size_t i = 1; i < shown.size(); ++i) EXPECT_GT(shown[i], shown[i - 1]);

  const std::shared_ptr<const PlayerFrame> frame = player.currentFrame();
  player.pause();
  ASSERT_EQ(frame->size, (PixelSize{640, 360}));
  EXPECT_LE(frame->sequenceTime, player.currentTime());

  const auto stills = module.makeStillRenderer();
  const StillImage still = decodeStillImage(
      stills->render(snapshot, frame->sequenceTime, static_cast<int>(frame->size.width), StillImageFormat::png, {}));
  ASSERT_EQ(still.width, frame->size.width);
  ASSERT_EQ(still.height, frame->size.height);
  EXPECT_GE(psnr(still.pixels, frame->rgba), 45.0);
}

// A change of look reaches the next picture without a new load: the engine's picture after
// setVisualEdits is the still of a project that was saved with those edits.
TEST_F(PlayerWithTheMediaEngine, VisualEditsReachTheNextPictureAsTheStillShowsThem) {
  ProjectStore store;
  SampleProjectOptions options;
  options.duration = ProjectTime::fromMilliseconds(2'000);
  options.clickMilliseconds = {300, 700};
  const ProjectSnapshot snapshot = store.loadSnapshot(makeSampleProject(store, options));
  ASSERT_FALSE(snapshot.timeline.zooms.empty());

  const MediaModule& module = MediaModuleLoader::load();
  const std::shared_ptr<ProjectPreviewing> engine = loadPreviewEngine(module);
  EXPECT_EQ(engine->load(snapshot), ProjectTime::fromMilliseconds(2'000));
  const ProjectTime time = ProjectTime::fromMilliseconds(800);
  const StillImage before = engine->render(time, {640, 640}, {});
  EXPECT_EQ(before.width, 640);
  EXPECT_EQ(before.height, 360);

  ProjectSnapshot edited = snapshot;
  edited.timeline.zooms.clear();
  edited.timeline.canvas.aspectRatio = CanvasAspectRatio::square;
  edited.timeline.cursor.scale = 2.0;
  engine->setVisualEdits(edited.timeline);
  const StillImage after = engine->render(time, {640, 640}, {});
  ASSERT_EQ(after.width, 640);
  ASSERT_EQ(after.height, 640);

  const auto stills = module.makeStillRenderer();
  const StillImage still = decodeStillImage(stills->render(edited, time, 640, StillImageFormat::png, {}));
  ASSERT_EQ(still.height, 640);
  EXPECT_GE(psnr(still.pixels, after.pixels), 45.0);

  // Any time outside the sequence shows its nearest picture; the view size decides the size.
  const StillImage last = engine->render(ProjectTime::fromMilliseconds(5'000), {100, 300}, {});
  EXPECT_EQ(last.width, 100);
  EXPECT_EQ(last.height, 100);
}

}  // namespace
}  // namespace vumo
