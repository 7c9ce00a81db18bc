// A cold still: `vumo cli frame` of a 1280-wide picture as a fresh process with an empty shader
// cache (fontconfig's cache already built, as after installation), on the sample recording (a
// keyframe every 2 s) at 3 s, the middle of a group of pictures, so the frame must be decoded
// forward from the keyframe before it. The baseline is ffmpeg doing the least of the same job:
// seek, decode one frame, scale it to the same width and write a PNG:
//   vumo cli frame / ffmpeg -ss 3 -i movie -frames:v 1 -vf scale=1280:-2 out.png

#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "project/project_store.h"
#include "recording_reporter.h"
#include "sample_project.h"
#include "spawn_and_wait.h"

namespace {

namespace fs = std::filesystem;

std::string workFolder;
std::string sampleID;
std::string moviePath;
int shaderCacheCount = 0;

using vumo::bench::spawnAndWait;

std::vector<std::string> frameCommand() {
  return {vumo::bench::vumoExecutable(VUMO_EXECUTABLE),
          "cli",
          "frame",
          sampleID.substr(0, 8),
          "--ms",
          "3000",
          "--out",
          workFolder + "/still.png",
          "--width",
          "1280",
          "--replace"};
}

void BM_FrameColdShaderCache(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    // Mesa keeps compiled shaders between runs; each run gets a cache folder it has never seen.
    const std::string shaders = workFolder + "/shaders-" + std::to_string(++shaderCacheCount);
    ::setenv("MESA_SHADER_CACHE_DIR", shaders.c_str(), 1);
    state.ResumeTiming();
    if (spawnAndWait(frameCommand()) != 0) {
      state.SkipWithError("vumo cli frame failed");
      return;
    }
  }
}

void BM_FfmpegStill(benchmark::State& state) {
  for (auto _ : state) {
    if (spawnAndWait({VUMO_FFMPEG_PROGRAM, "-v", "error", "-y", "-ss", "3", "-i", moviePath, "-frames:v", "1", "-vf",
                      "scale=1280:-2", workFolder + "/ffmpeg.png"}) != 0) {
      state.SkipWithError("ffmpeg failed");
      return;
    }
  }
}

}  // namespace

BENCHMARK(BM_FfmpegStill)->Unit(benchmark::kMillisecond)->MinTime(1.0)->UseRealTime();
BENCHMARK(BM_FrameColdShaderCache)->Unit(benchmark::kMillisecond)->MinTime(1.0)->UseRealTime();

int main(int argc, char** argv) {
  char pattern[] = "/tmp/vumo-frame-bench-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) return 1;
  workFolder = pattern;
  ::setenv("XDG_DATA_HOME", (workFolder + "/data").c_str(), 1);
  ::setenv("XDG_CACHE_HOME", (workFolder + "/cache").c_str(), 1);
  {
    vumo::ProjectStore store;
    vumo::ProjectPackage package = vumo::makeSampleProject(store);
    sampleID = store.readManifest(package).id.string();
    moviePath = package.mediaPath().string();
  }
  // One run as installation would leave it: fontconfig's cache built. Its shader cache is not used.
  ::setenv("MESA_SHADER_CACHE_DIR", (workFolder + "/shaders-0").c_str(), 1);
  if (spawnAndWait(frameCommand()) != 0) return 1;
  using vumo::bench::Clock;
  const int status = vumo::bench::runAndCompare(argc, argv,
                                                {{"cold vumo cli frame (1280 wide) / ffmpeg still",
                                                  "BM_FrameColdShaderCache",
                                                  "BM_FfmpegStill",
                                                  {},
                                                  1.0,
                                                  Clock::wall}});
  std::error_code ignored;
  fs::remove_all(workFolder, ignored);
  return status;
}
