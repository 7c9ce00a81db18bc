// `vumo record` of a 1920x1080 display at 60 frames a second for 20 s, without sound, against
// ffmpeg's x11grab recording the same display with the same encoder and settings as the recorder's
// writer, both started as processes on a private Xvfb:
//   vumo record --fps 60 --duration 20
//   ffmpeg -f x11grab -framerate 60 -video_size 1920x1080 -draw_mouse 0 -i :N -t 20
//          -c:v libx264 -preset veryfast -tune zerolatency -bf 0 -g 120 -b:v 12M -pix_fmt yuv420p out.mov
// A client of the benchmark's own draws on the display meanwhile: first the whole screen every
// frame (a checkerboard that scrolls a few pixels a frame, so that every frame differs), then a
// mostly still screen (one small square redrawn once a second), where capturing only what changed
// should cost the recorder far less than a grab of every frame.
//
// For each program: the frames lost (the recorder's dropped frames and any shortfall of its frames
// against 60 a second; ffmpeg's shortfall of frames in its movie, counted by ffprobe, and the drops
// it reports), its processor time (user and system, of the child and its threads, from wait4) and
// the wall time. The processor time of each thread, sampled from /proc while the program runs, is
// printed to standard error, to tell where the time goes.
//
// A smoke run (--benchmark_min_time below 0.1 s) records 2 s instead.

#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "recording/screen_painter.h"
#include "recording/thread_sampler.h"
#include "recording_reporter.h"
#include "shared/geometry.h"
#include "shared/json.h"
#include "spawn_and_wait.h"
#include "support/desktop_servers.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using vumo::bench::MeasuredRun;
using vumo::bench::Scene;
using vumo::bench::ScreenPainter;
using vumo::bench::spawnAndMeasure;
using vumo::bench::ThreadSampler;

constexpr int screenWidth = 1920;
constexpr int screenHeight = 1080;
constexpr int framesPerSecond = 60;

std::string workFolder;
std::string display;
int recordSeconds = 20;

std::string readText(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// The last value of `key=` in ffmpeg's progress file, or 0.
std::int64_t progressValue(const std::string& text, const std::string& key) {
  std::int64_t value = 0;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);)
    if (line.starts_with(key + "=")) value = std::atoll(line.c_str() + key.size() + 1);
  return value;
}

std::int64_t expectedFrames() { return std::int64_t(recordSeconds) * framesPerSecond; }

void report(benchmark::State& state, const MeasuredRun& run, std::int64_t frames, std::int64_t lost,
            const ThreadSampler& threads, const char* program, Scene scene) {
  state.SetIterationTime(run.wallSeconds);
  state.counters[vumo::bench::processCpuCounter] = run.cpuSeconds();
  state.counters["sys_s"] = run.systemSeconds;
  state.counters["frames"] = double(frames);
  state.counters["lost_frames"] = double(lost);
  state.counters["lost_share"] = double(lost) / double(expectedFrames());
  // The program that keeps more frames has more to encode; this is what each kept frame cost.
  state.counters["cpu_ms_per_frame"] = frames > 0 ? run.cpuSeconds() * 1e3 / double(frames) : 0;
  std::fprintf(stderr, "%s, %s screen: processor time by thread: %s\n", program,
               scene == Scene::moving ? "moving" : "still", threads.summary().c_str());
}

// The drawing client for one benchmark; none, and the benchmark fails, when it cannot connect.
std::unique_ptr<ScreenPainter> startPainter(benchmark::State& state, Scene scene) {
  try {
    return std::make_unique<ScreenPainter>(display, scene, screenWidth, screenHeight, framesPerSecond);
  } catch (const std::exception& error) {
    state.SkipWithError(error.what());
    return nullptr;
  }
}

void recordWithVumo(benchmark::State& state, Scene scene) {
  std::unique_ptr<ScreenPainter> painter = startPainter(state, scene);
  if (!painter) return;
  for (auto _ : state) {
    ThreadSampler threads;
    const std::string output = workFolder + "/vumo.json";
    const MeasuredRun run =
        spawnAndMeasure({vumo::bench::vumoExecutable(VUMO_EXECUTABLE), "record", "--fps",
                         std::to_string(framesPerSecond), "--duration", std::to_string(recordSeconds)},
                        output, [&](pid_t pid) { threads.sample(pid); });
    if (run.status != 0) {
      state.SkipWithError("vumo record failed");
      return;
    }
    std::int64_t frames = 0, dropped = 0;
    try {
      const vumo::Json answer = vumo::Json::parse(readText(output));
      frames = answer.at("videoFrames").get<std::int64_t>();
      dropped = answer.at("droppedVideoFrames").get<std::int64_t>();
    } catch (const std::exception& error) {
      state.SkipWithError(error.what());
      return;
    }
    report(state, run, frames, std::max(dropped, expectedFrames() - frames), threads, "vumo", scene);
  }
}

void recordWithFfmpeg(benchmark::State& state, Scene scene) {
  std::unique_ptr<ScreenPainter> painter = startPainter(state, scene);
  if (!painter) return;
  for (auto _ : state) {
    ThreadSampler threads;
    const std::string movie = workFolder + "/ffmpeg.mov";
    const std::string progress = workFolder + "/ffmpeg-progress.txt";
    // The writer's settings: libx264 veryfast, zero latency, no B-frames, a keyframe every 2 s,
    // its bit rate, 4:2:0 limited-range BT.709 converted bilinearly. Frames keep their capture
    // times, as the recorder's do: nothing is duplicated to fill a gap.
    const MeasuredRun run =
        spawnAndMeasure({VUMO_FFMPEG_PROGRAM,
                         "-hide_banner",
                         "-nostats",
                         "-v",
                         "error",
                         "-y",
                         "-f",
                         "x11grab",
                         "-framerate",
                         std::to_string(framesPerSecond),
                         "-video_size",
                         std::to_string(screenWidth) + "x" + std::to_string(screenHeight),
                         "-draw_mouse",
                         "0",
                         "-i",
                         display,
                         "-t",
                         std::to_string(recordSeconds),
                         "-fps_mode",
                         "passthrough",
                         "-vf",
                         "scale=out_color_matrix=bt709:out_range=tv:flags=bilinear",
                         "-c:v",
                         "libx264",
                         "-preset",
                         "veryfast",
                         "-tune",
                         "zerolatency",
                         "-profile:v",
                         "high",
                         "-bf",
                         "0",
                         "-g",
                         std::to_string(2 * framesPerSecond),
                         "-b:v",
                         std::to_string(vumo::PixelSize{screenWidth, screenHeight}.recommendedBitRate()),
                         "-pix_fmt",
                         "yuv420p",
                         "-color_primaries",
                         "bt709",
                         "-color_trc",
                         "bt709",
                         "-colorspace",
                         "bt709",
                         "-progress",
                         progress,
                         movie},
                        {}, [&](pid_t pid) { threads.sample(pid); });
    if (run.status != 0) {
      state.SkipWithError("ffmpeg failed");
      return;
    }
    const std::string counted = workFolder + "/ffprobe.txt";
    if (spawnAndMeasure({VUMO_FFPROBE_PROGRAM, "-v", "error", "-select_streams", "v:0", "-count_frames",
                         "-show_entries", "stream=nb_read_frames", "-of", "csv=p=0", movie},
                        counted)
            .status != 0) {
      state.SkipWithError("ffprobe failed");
      return;
    }
    const std::int64_t frames = std::atoll(readText(counted).c_str());
    const std::int64_t dropped = progressValue(readText(progress), "drop_frames");
    report(state, run, frames, std::max<std::int64_t>(expectedFrames() - frames, 0) + dropped, threads, "ffmpeg",
           scene);
  }
}

void BM_VumoRecordMovingScreen(benchmark::State& state) { recordWithVumo(state, Scene::moving); }
void BM_FfmpegGrabMovingScreen(benchmark::State& state) { recordWithFfmpeg(state, Scene::moving); }
void BM_VumoRecordStillScreen(benchmark::State& state) { recordWithVumo(state, Scene::still); }
void BM_FfmpegGrabStillScreen(benchmark::State& state) { recordWithFfmpeg(state, Scene::still); }

}  // namespace

// One recording of each: 20 s apiece already averages over 1,200 frames.
BENCHMARK(BM_FfmpegGrabMovingScreen)->Unit(benchmark::kSecond)->Iterations(1)->Repetitions(1)->UseManualTime();
BENCHMARK(BM_VumoRecordMovingScreen)->Unit(benchmark::kSecond)->Iterations(1)->Repetitions(1)->UseManualTime();
BENCHMARK(BM_FfmpegGrabStillScreen)->Unit(benchmark::kSecond)->Iterations(1)->Repetitions(1)->UseManualTime();
BENCHMARK(BM_VumoRecordStillScreen)->Unit(benchmark::kSecond)->Iterations(1)->Repetitions(1)->UseManualTime();

int main(int argc, char** argv) {
  char pattern[] = "/tmp/vumo-recording-bench-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) return 1;
  workFolder = pattern;
  for (const char* variable : {"XDG_DATA_HOME", "XDG_CACHE_HOME", "XDG_CONFIG_HOME", "HOME"})
    ::setenv(variable, (workFolder + "/" + variable).c_str(), 1);
  if (vumo::bench::isSmokeRun(argc, argv)) recordSeconds = 2;
  std::unique_ptr<vumo::testing::XvfbServer> server;
  try {
    server = std::make_unique<vumo::testing::XvfbServer>(screenWidth, screenHeight);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "cannot prepare the recording benchmark: %s\n", error.what());
    return 1;
  }
  display = server->display();
  ::setenv("DISPLAY", display.c_str(), 1);
  using vumo::bench::Clock;
  auto ratio = [](std::string label, std::string numerator, std::string denominator, Clock clock,
                  std::string counter = {}, double floor = 0) {
    vumo::bench::Ratio made{std::move(label), std::move(numerator), std::move(denominator)};
    made.clock = clock;
    made.counter = std::move(counter);
    made.floor = floor;
    return made;
  };
  const int status = vumo::bench::runAndCompare(
      argc, argv,
      {ratio("processor time, vumo record / ffmpeg x11grab, whole screen moving", "BM_VumoRecordMovingScreen",
             "BM_FfmpegGrabMovingScreen", Clock::process),
       ratio("processor time per frame kept, vumo / ffmpeg, whole screen moving", "BM_VumoRecordMovingScreen",
             "BM_FfmpegGrabMovingScreen", Clock::counter, "cpu_ms_per_frame"),
       ratio("lost frames, vumo / max(1 %, ffmpeg's share), whole screen moving", "BM_VumoRecordMovingScreen",
             "BM_FfmpegGrabMovingScreen", Clock::counter, "lost_share", 0.01),
       ratio("processor time, vumo record / ffmpeg x11grab, still screen", "BM_VumoRecordStillScreen",
             "BM_FfmpegGrabStillScreen", Clock::process),
       ratio("lost frames, vumo / max(1 %, ffmpeg's share), still screen", "BM_VumoRecordStillScreen",
             "BM_FfmpegGrabStillScreen", Clock::counter, "lost_share", 0.01)});
  server.reset();
  std::error_code ignored;
  fs::remove_all(workFolder, ignored);
  return status;
}
