// A film of a 30 s 1080p60 recording (the sample project at that size: a test pattern, two tracks
// of sound, a moving pointer with clicks and the automatic zooms made from them) on the default
// canvas (gradient, margin, rounded corners), exported at 1080p60 standard quality with H.264,
// without and with motion blur. The baseline is ffmpeg doing the least of the same job as a
// process: decode, scale to 1080p, encode with libx264 at the same preset and bit rate, and the
// sound to AAC:
//   ProjectExporter / ffmpeg -i movie -vf scale=1920:1080 -c:v libx264 -preset veryfast -b:v RATE
// Where the export's time goes (decode, render, readback, conversion, encode, sound) is reported as
// counters, in seconds per film. Drawing and reading back happen on one thread, conversion and
// encoding on another, so the two sums overlap in time. The first two films convert as the
// exporter chooses for this renderer; the film pass on the GPU (with the readback overlapped, and
// waiting for each frame before drawing the next) and libswscale are also measured on their own.
//
// A smoke run (--benchmark_min_time below 0.1 s) exports a 1 s recording instead, so that it stays
// short on the software rasteriser.

#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "export/project_exporter.h"
#include "project/project_store.h"
#include "recording_reporter.h"
#include "rendering/rendering_context.h"
#include "sample_project.h"
#include "spawn_and_wait.h"

namespace {

namespace fs = std::filesystem;

std::string workFolder;
std::string moviePath;
vumo::ProjectSnapshot snapshot;
std::shared_ptr<vumo::SceneRenderer> renderer;
std::int64_t bitRate = 0;

using vumo::bench::spawnAndWait;

// Software H.264 unless `hardwareEncoder`, so that both sides of the ratio run the same encoder.
void exportFilm(benchmark::State& state, double motionBlur,
                vumo::ExportFrameConversion conversion = vumo::ExportFrameConversion::automatic,
                bool hardwareEncoder = false) {
  vumo::ProjectSnapshot blurred = snapshot;
  blurred.timeline.motionBlurAmount = motionBlur;
  vumo::ProjectExporter exporter(renderer);
  vumo::ExportStageTimes total;
  std::int64_t frames = 0;
  std::string encoder;
  for (auto _ : state) {
    vumo::ExportStageTimes times;
    vumo::ProjectExportOptions options;
    options.stageTimes = &times;
    options.conversion = conversion;
    options.allowHardwareEncoders = hardwareEncoder;
    try {
      vumo::ExportedFilm film =
          exporter.exportProject(blurred, workFolder + "/film.mp4", vumo::ExportConfiguration{}, {}, {}, options);
      frames = film.frameCount;
      encoder = film.encoder;
    } catch (const std::exception& error) {
      state.SkipWithError(error.what());
      return;
    }
    total.decodeSeconds += times.decodeSeconds;
    total.renderSeconds += times.renderSeconds;
    total.readbackSeconds += times.readbackSeconds;
    total.conversionSeconds += times.conversionSeconds;
    total.encodeSeconds += times.encodeSeconds;
    total.audioSeconds += times.audioSeconds;
  }
  const double runs = double(state.iterations());
  state.counters["decode_s"] = total.decodeSeconds / runs;
  state.counters["render_s"] = total.renderSeconds / runs;
  state.counters["readback_s"] = total.readbackSeconds / runs;
  state.counters["convert_s"] = total.conversionSeconds / runs;
  state.counters["encode_s"] = total.encodeSeconds / runs;
  state.counters["audio_s"] = total.audioSeconds / runs;
  state.counters["frames"] = double(frames);
  state.SetLabel(encoder);
}

void BM_ExportWithoutMotionBlur(benchmark::State& state) { exportFilm(state, 0); }
void BM_ExportWithMotionBlur(benchmark::State& state) { exportFilm(state, 0.5); }
void BM_ExportSoftwareConversion(benchmark::State& state) {
  exportFilm(state, 0, vumo::ExportFrameConversion::software);
}
void BM_ExportGpuConversion(benchmark::State& state) {
  exportFilm(state, 0, vumo::ExportFrameConversion::gpuOverlapped);
}
void BM_ExportGpuConversionWithoutOverlap(benchmark::State& state) {
  exportFilm(state, 0, vumo::ExportFrameConversion::gpu);
}

void BM_ExportHardwareEncoder(benchmark::State& state) {
  exportFilm(state, 0, vumo::ExportFrameConversion::automatic, true);
}

void BM_FfmpegTranscode(benchmark::State& state) {
  for (auto _ : state) {
    if (spawnAndWait({VUMO_FFMPEG_PROGRAM, "-v", "error", "-y", "-i", moviePath, "-vf", "scale=1920:1080", "-c:v",
                      "libx264", "-preset", "veryfast", "-b:v", std::to_string(bitRate), workFolder + "/ffmpeg.mp4"}) !=
        0) {
      state.SkipWithError("ffmpeg failed");
      return;
    }
  }
}

}  // namespace

BENCHMARK(BM_FfmpegTranscode)->Unit(benchmark::kSecond)->Iterations(1)->UseRealTime();
BENCHMARK(BM_ExportWithoutMotionBlur)->Unit(benchmark::kSecond)->Iterations(1)->UseRealTime();
BENCHMARK(BM_ExportWithMotionBlur)->Unit(benchmark::kSecond)->Iterations(1)->UseRealTime();
BENCHMARK(BM_ExportGpuConversion)->Unit(benchmark::kSecond)->Iterations(1)->UseRealTime();
BENCHMARK(BM_ExportSoftwareConversion)->Unit(benchmark::kSecond)->Iterations(1)->UseRealTime();
BENCHMARK(BM_ExportGpuConversionWithoutOverlap)->Unit(benchmark::kSecond)->Iterations(1)->UseRealTime();
BENCHMARK(BM_ExportHardwareEncoder)->Unit(benchmark::kSecond)->Iterations(1)->UseRealTime();

int main(int argc, char** argv) {
  char pattern[] = "/tmp/vumo-export-bench-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) return 1;
  workFolder = pattern;
  ::setenv("XDG_DATA_HOME", (workFolder + "/data").c_str(), 1);
  ::setenv("XDG_CACHE_HOME", (workFolder + "/cache").c_str(), 1);
  try {
    vumo::ProjectStore store;
    vumo::SampleProjectOptions options;
    options.size = {1920, 1080};
    options.framesPerSecond = 60;
    options.duration = vumo::ProjectTime::fromMilliseconds(vumo::bench::isSmokeRun(argc, argv) ? 1'000 : 30'000);
    if (vumo::bench::isSmokeRun(argc, argv)) options.clickMilliseconds = {300, 600};
    vumo::ProjectPackage package = vumo::makeSampleProject(store, options);
    snapshot = store.loadSnapshot(package);
    moviePath = package.mediaPath().string();
    snapshot.timeline.cursor.isVisible = true;
    bitRate = vumo::ExportConfiguration{}
                  .resolved(snapshot.manifest.encodedPixelSize, snapshot.timeline.canvas.aspectRatio)
                  .bitRate;
    renderer = std::make_shared<vumo::SceneRenderer>(vumo::RenderingContext::create(VUMO_BENCH_RESOURCE_DIR));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "cannot prepare the export benchmark: %s\n", error.what());
    return 1;
  }
  using vumo::bench::Clock;
  const int status = vumo::bench::runAndCompare(argc, argv,
                                                {{"export 1080p60 without motion blur / ffmpeg transcode",
                                                  "BM_ExportWithoutMotionBlur",
                                                  "BM_FfmpegTranscode",
                                                  {},
                                                  1.0,
                                                  Clock::wall},
                                                 {"export 1080p60 with motion blur / ffmpeg transcode",
                                                  "BM_ExportWithMotionBlur",
                                                  "BM_FfmpegTranscode",
                                                  {},
                                                  1.0,
                                                  Clock::wall},
                                                 {"export converted by the GPU / ffmpeg transcode",
                                                  "BM_ExportGpuConversion",
                                                  "BM_FfmpegTranscode",
                                                  {},
                                                  1.0,
                                                  Clock::wall},
                                                 {"export converted by libswscale / ffmpeg transcode",
                                                  "BM_ExportSoftwareConversion",
                                                  "BM_FfmpegTranscode",
                                                  {},
                                                  1.0,
                                                  Clock::wall},
                                                 {"export read back frame by frame / ffmpeg transcode",
                                                  "BM_ExportGpuConversionWithoutOverlap",
                                                  "BM_FfmpegTranscode",
                                                  {},
                                                  1.0,
                                                  Clock::wall},
                                                 {"export with a hardware encoder where one opens / ffmpeg transcode",
                                                  "BM_ExportHardwareEncoder",
                                                  "BM_FfmpegTranscode",
                                                  {},
                                                  1.0,
                                                  Clock::wall}});
  renderer.reset();
  std::error_code ignored;
  fs::remove_all(workFolder, ignored);
  return status;
}
