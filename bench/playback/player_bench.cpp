// Playback of a 1080p edit (the sample recording at 1920×1080 with a camera stream added, its
// automatic zooms from the clicks, the cursor and the camera overlay shown) through ProjectPlayer
// on a main loop of its own, with the silent output on the steady clock, against the same engine
// and renderer drawing offscreen in a loop that does nothing else: each of its frames is the grid
// frame of the time it starts at, so it skips what a slow renderer cannot draw just as the
// player does, without threads, queues, sound or a main loop.
//   frames shown per second by the player / frames drawn per second by the loop   (target ≥ 0.9)
// The renderer drawing every 30 fps frame in order, skipping none, is a second baseline.
// Also reported: the loop's milliseconds per 1080p frame and their share of the 33.3 ms a frame
// has at 30 fps (on this machine's renderer, llvmpipe where there is no GPU), and after 60 s of
// playback the offset between the video clock and the position the sound is heard at, and how far
// the picture on screen lies behind that position, against one frame of what the player shows.
//
// A smoke run (--benchmark_min_time below 0.1 s) plays a 2 s recording for 1 s instead.

#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>

#include "editor/main_loop.h"
#include "export/preview_engine.h"
#include "playback/playback_audio_output.h"
#include "playback/project_player.h"
#include "project/project_store.h"
#include "recording_reporter.h"
#include "rendering/rendering_context.h"
#include "sample_project.h"
#include "spawn_and_wait.h"
#include "timeline/timeline_frame_grid.h"

namespace {

namespace fs = std::filesystem;
using SteadyClock = std::chrono::steady_clock;

std::string workFolder;
vumo::ProjectSnapshot snapshot;
std::shared_ptr<vumo::ProjectPreviewEngine> engine;
std::chrono::seconds frameRateSpan{15};
std::chrono::seconds syncSpan{60};
bool smokeRun = false;
const vumo::PixelSize viewSize{1920, 1080};

// The program's main loop as the desktop runs it, on the benchmark's thread: posted work and due
// timers run in order, and it sleeps in between.
class ThreadMainLoop final : public vumo::MainLoop {
 public:
  void post(Work work) override {
    {
      std::lock_guard lock(mutex_);
      posted_.push_back(std::move(work));
    }
    wake_.notify_one();
  }
  TimerID schedule(Clock::duration delay, Work work) override {
    std::lock_guard lock(mutex_);
    timers_.emplace(std::make_pair(Clock::now() + delay, ++lastTimer_), std::move(work));
    return lastTimer_;
  }
  void cancel(TimerID timer) override {
    std::lock_guard lock(mutex_);
    std::erase_if(timers_, [timer](const auto& entry) { return entry.first.second == timer; });
  }
  Clock::time_point now() const override { return Clock::now(); }

  void runUntil(Clock::time_point until) {
    std::unique_lock lock(mutex_);
    while (Clock::now() < until) {
      Work work;
      if (!posted_.empty()) {
        work = std::move(posted_.front());
        posted_.pop_front();
      } else if (!timers_.empty() && timers_.begin()->first.first <= Clock::now()) {
        work = std::move(timers_.begin()->second);
        timers_.erase(timers_.begin());
      } else {
        const Clock::time_point next = timers_.empty() ? until : std::min(until, timers_.begin()->first.first);
        wake_.wait_until(lock, next);
        continue;
      }
      lock.unlock();
      work();
      lock.lock();
    }
  }

 private:
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Work> posted_;
  std::map<std::pair<Clock::time_point, TimerID>, Work> timers_;
  TimerID lastTimer_ = 0;
};

void BM_OffscreenLoop(benchmark::State& state) {
  std::int64_t frames = 0;
  double seconds = 0;
  for (auto _ : state) {
    try {
      // As the player, which shows the first picture before it plays.
      engine->load(snapshot);
      benchmark::DoNotOptimize(engine->render({}, viewSize, {}));
      const auto began = SteadyClock::now();
      while (SteadyClock::now() - began < frameRateSpan) {
        const vumo::ProjectTime time = vumo::TimelineFrameGrid::ceilingBoundary(
            {std::chrono::duration_cast<std::chrono::nanoseconds>(SteadyClock::now() - began).count()});
        benchmark::DoNotOptimize(engine->render(time, viewSize, {}));
        ++frames;
      }
      seconds = std::chrono::duration<double>(SteadyClock::now() - began).count();
    } catch (const std::exception& error) {
      state.SkipWithError(error.what());
      return;
    }
  }
  state.counters["fps"] = double(frames) / seconds;
  state.counters["frame_ms"] = seconds * 1000.0 / double(frames);
  state.counters["budget_share_30fps"] = seconds * 1000.0 / double(frames) / (1000.0 / 30.0);
}

// The renderer's own pace: every frame of 30 fps in order, as fast as it goes, skipping none.
void BM_OffscreenEveryFrame(benchmark::State& state) {
  std::int64_t frames = 0;
  double seconds = 0;
  for (auto _ : state) {
    try {
      engine->load(snapshot);
      benchmark::DoNotOptimize(engine->render({}, viewSize, {}));
      const auto began = SteadyClock::now();
      while (SteadyClock::now() - began < frameRateSpan) {
        ++frames;
        benchmark::DoNotOptimize(engine->render({frames * 1'000'000'000 / 30}, viewSize, {}));
      }
      seconds = std::chrono::duration<double>(SteadyClock::now() - began).count();
    } catch (const std::exception& error) {
      state.SkipWithError(error.what());
      return;
    }
  }
  state.counters["fps"] = double(frames) / seconds;
  state.counters["frame_ms"] = seconds * 1000.0 / double(frames);
}

struct Playback {
  std::int64_t framesShown = 0;
  double seconds = 0;
  // At the end: the video clock's distance from the heard position, and how far the picture on
  // screen lies behind the heard position (largest over the last second).
  double clockOffsetMilliseconds = 0;
  double pictureLagMilliseconds = 0;
};

Playback play(std::chrono::seconds span) {
  ThreadMainLoop loop;
  Playback result;
  std::optional<std::string> failure;
  auto output = std::make_unique<vumo::SilentAudioOutput>();
  vumo::SilentAudioOutput* sound = output.get();
  vumo::ProjectPlayer* player = nullptr;
  SteadyClock::time_point lastSecond = SteadyClock::now() + span - std::chrono::seconds(1);
  vumo::ProjectPlayer::Observer observer;
  observer.frameChanged = [&] {
    ++result.framesShown;
    if (SteadyClock::now() < lastSecond || !player->isPlaying()) return;
    const auto heard = sound->playedTime();
    const auto frame = player->currentFrame();
    if (!heard || !frame) return;
    result.clockOffsetMilliseconds =
        std::max(result.clockOffsetMilliseconds, std::abs(double((player->currentTime() - *heard).nanoseconds)) / 1e6);
    result.pictureLagMilliseconds =
        std::max(result.pictureLagMilliseconds, double((*heard - frame->sequenceTime).nanoseconds) / 1e6);
  };
  observer.failed = [&](const std::string& text) { failure = text; };
  vumo::ProjectPlayer instance(loop, engine, std::move(output), observer);
  player = &instance;
  instance.setViewSize(viewSize);
  instance.load(snapshot);
  loop.runUntil(SteadyClock::now() + std::chrono::seconds(2));  // the composition and the first picture
  if (failure) throw std::runtime_error(*failure);
  result.framesShown = 0;
  const auto began = SteadyClock::now();
  lastSecond = began + span - std::chrono::seconds(1);
  instance.play();
  loop.runUntil(began + span);
  result.seconds = std::chrono::duration<double>(SteadyClock::now() - began).count();
  if (failure) throw std::runtime_error(*failure);
  if (!instance.isPlaying()) throw std::runtime_error("playback ended before the measurement did");
  return result;
}

void BM_Player(benchmark::State& state) {
  Playback result;
  for (auto _ : state) {
    try {
      result = play(frameRateSpan);
    } catch (const std::exception& error) {
      state.SkipWithError(error.what());
      return;
    }
  }
  state.counters["fps"] = double(result.framesShown) / result.seconds;
}

void BM_PlayerSync(benchmark::State& state) {
  Playback result;
  for (auto _ : state) {
    try {
      result = play(syncSpan);
    } catch (const std::exception& error) {
      state.SkipWithError(error.what());
      return;
    }
  }
  const double fps = double(result.framesShown) / result.seconds;
  state.counters["fps"] = fps;
  state.counters["clock_offset_ms"] = result.clockOffsetMilliseconds;
  state.counters["picture_lag_ms"] = result.pictureLagMilliseconds;
  state.counters["frame_interval_ms"] = 1000.0 / fps;
  // Within one frame of what the player shows: the clock is the heard position up to one tick of
  // the main loop, and the picture is the newest frame the clock has reached.
  // (A smoke run's one second is mostly the start, where the first frame is still being drawn.)
  if (!smokeRun && (result.clockOffsetMilliseconds > 1000.0 / 60.0 || result.pictureLagMilliseconds > 1000.0 / fps))
    state.SkipWithError("picture and sound more than one frame apart");
}

}  // namespace

BENCHMARK(BM_OffscreenLoop)->Unit(benchmark::kSecond)->Iterations(1)->Repetitions(1)->UseRealTime();
BENCHMARK(BM_OffscreenEveryFrame)->Unit(benchmark::kSecond)->Iterations(1)->Repetitions(1)->UseRealTime();
BENCHMARK(BM_Player)->Unit(benchmark::kSecond)->Iterations(1)->Repetitions(1)->UseRealTime();
BENCHMARK(BM_PlayerSync)->Unit(benchmark::kSecond)->Iterations(1)->Repetitions(1)->UseRealTime();

int main(int argc, char** argv) {
  char pattern[] = "/tmp/vumo-player-bench-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) return 1;
  workFolder = pattern;
  ::setenv("XDG_DATA_HOME", (workFolder + "/data").c_str(), 1);
  ::setenv("XDG_CACHE_HOME", (workFolder + "/cache").c_str(), 1);
  const bool smoke = smokeRun = vumo::bench::isSmokeRun(argc, argv);
  if (smoke) {
    frameRateSpan = std::chrono::seconds(1);
    syncSpan = std::chrono::seconds(1);
  }
  try {
    vumo::ProjectStore store;
    vumo::SampleProjectOptions options;
    options.size = {1920, 1080};
    options.framesPerSecond = 30;
    options.duration = vumo::ProjectTime::fromMilliseconds(smoke ? 2'000 : 64'000);
    if (smoke) options.clickMilliseconds = {300, 600};
    const vumo::ProjectPackage package = vumo::makeSampleProject(store, options);
    snapshot = store.loadSnapshot(package);
    // A camera: a second video stream beside the recording's, as a recording with a camera has.
    const fs::path withCamera = package.rootPath / "media" / "with-camera.mov";
    const std::string seconds = std::to_string(options.duration.nanoseconds / 1'000'000'000 + 1);
    if (vumo::bench::spawnAndWait({VUMO_FFMPEG_PROGRAM,
                                   "-v",
                                   "error",
                                   "-y",
                                   "-i",
                                   package.mediaPath().string(),
                                   "-f",
                                   "lavfi",
                                   "-i",
                                   "testsrc2=s=640x480:r=30:d=" + seconds,
                                   "-map",
                                   "0",
                                   "-map",
                                   "1:v",
                                   "-c",
                                   "copy",
                                   "-c:v:1",
                                   "mpeg4",
                                   "-q:v",
                                   "8",
                                   "-shortest",
                                   withCamera.string()}) != 0)
      throw std::runtime_error("ffmpeg could not add the camera");
    snapshot.manifest.media.relativePath = "media/with-camera.mov";
    vumo::WebcamMediaInfo camera;
    camera.trackIndex = static_cast<std::int64_t>(snapshot.manifest.media.tracks.size());
    camera.deviceID = "camera";
    camera.deviceName = "Camera";
    camera.pixelSize = {640, 480};
    camera.framesPerSecond = 30;
    snapshot.manifest.webcam = camera;
    snapshot.timeline.cursor.isVisible = true;
    snapshot.timeline.webcamOverlay = vumo::WebcamOverlay{};
    engine = std::make_shared<vumo::ProjectPreviewEngine>(
        std::make_shared<vumo::SceneRenderer>(vumo::RenderingContext::create(VUMO_BENCH_RESOURCE_DIR)));
    std::printf("renderer: %s, zooms: %zu\n", engine ? "ready" : "none", snapshot.timeline.zooms.size());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "cannot prepare the player benchmark: %s\n", error.what());
    return 1;
  }
  using vumo::bench::Clock;
  const int status = vumo::bench::runAndCompare(
      argc, argv,
      {{"player frames per second / offscreen loop's", "BM_Player", "BM_OffscreenLoop", {}, 1.0, Clock::counter, "fps"},
       {"player frames per second / every frame drawn in order",
        "BM_Player",
        "BM_OffscreenEveryFrame",
        {},
        1.0,
        Clock::counter,
        "fps"}});
  engine.reset();
  std::error_code ignored;
  fs::remove_all(workFolder, ignored);
  return status;
}
