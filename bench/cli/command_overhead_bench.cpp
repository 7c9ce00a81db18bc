// What one `vumo cli` command costs before it does any work: `list` on an empty library against
// `true`, both started and waited for the same way (posix_spawn, waitpid, output to /dev/null).
// Agents run many short commands, so a fixed delay in start-up or shut-down adds up. `vumo cli
// version` (no store, no signal watcher) is measured too, to tell what loading the executable
// costs from what a command adds to it, and `describe` of a small project (a command that runs
// long enough for a watcher that polls to make it wait):
//   vumo cli list (empty library) - vumo cli version  ->  a millisecond or two, no fixed wait
// `idle` on the generated sample recording, its waveform already cached in the package, is
// measured beside `list` of the library that holds that one package: what the analysis adds to a
// command that reads the same project folder.

#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "project/project_store.h"
#include "recording_reporter.h"
#include "sample_project.h"
#include "shared/files.h"
#include "spawn_and_wait.h"

namespace {

std::string dataHome;
std::string projectID;
std::string sampleID;

// A finished project without pointer events; describe never opens its movie.
void makeSmallProject() {
  vumo::ProjectStore store;
  vumo::CaptureSourceDescriptor source;
  source.title = "Benchmark";
  source.initialPixelSize = {1920, 1080};
  vumo::CreatedProject created = store.createProject(source, {}, {1920, 1080}, std::nullopt, std::nullopt);
  vumo::writeFileAtomically(created.package.mediaPath(), "movie");
  vumo::ProjectManifest manifest = created.manifest;
  manifest.duration = vumo::ProjectTime::fromMilliseconds(60'000);
  store.finish(created.package, manifest);
  projectID = manifest.id.string();
}

using vumo::bench::spawnAndWait;

void run(benchmark::State& state, const std::vector<std::string>& words) {
  for (auto _ : state) {
    if (spawnAndWait(words) != 0) {
      state.SkipWithError("the command failed");
      return;
    }
  }
}

void BM_True(benchmark::State& state) { run(state, {"/bin/true"}); }
void BM_VumoVersion(benchmark::State& state) {
  run(state, {vumo::bench::vumoExecutable(VUMO_EXECUTABLE), "cli", "version"});
}
void BM_VumoListEmptyLibrary(benchmark::State& state) {
  run(state, {vumo::bench::vumoExecutable(VUMO_EXECUTABLE), "cli", "list"});
}
void BM_VumoDescribeSmallProject(benchmark::State& state) {
  // In a library of its own, so that the listing above stays empty.
  static const bool made = [] {
    ::setenv("XDG_DATA_HOME", (dataHome + "/with-project").c_str(), 1);
    makeSmallProject();
    return true;
  }();
  (void)made;
  run(state, {vumo::bench::vumoExecutable(VUMO_EXECUTABLE), "cli", "describe", projectID.substr(0, 8)});
}

// The sample recording in a library of its own, its waveform cache written by one idle run.
void useSampleLibrary() {
  static const bool made = [] {
    ::setenv("XDG_DATA_HOME", (dataHome + "/with-sample").c_str(), 1);
    vumo::ProjectStore store;
    sampleID = store.readManifest(vumo::makeSampleProject(store)).id.string();
    return spawnAndWait({vumo::bench::vumoExecutable(VUMO_EXECUTABLE), "cli", "idle", sampleID.substr(0, 8)}) == 0;
  }();
  ::setenv("XDG_DATA_HOME", (dataHome + "/with-sample").c_str(), 1);
  (void)made;
}

void BM_VumoListSampleLibrary(benchmark::State& state) {
  useSampleLibrary();
  run(state, {vumo::bench::vumoExecutable(VUMO_EXECUTABLE), "cli", "list"});
}
void BM_VumoIdleWarmCache(benchmark::State& state) {
  useSampleLibrary();
  run(state, {vumo::bench::vumoExecutable(VUMO_EXECUTABLE), "cli", "idle", sampleID.substr(0, 8)});
}

}  // namespace

// Wall time: the work happens in the child, not in this process.
BENCHMARK(BM_True)->Unit(benchmark::kMillisecond)->MinTime(0.5)->UseRealTime();
BENCHMARK(BM_VumoVersion)->Unit(benchmark::kMillisecond)->MinTime(0.5)->UseRealTime();
BENCHMARK(BM_VumoListEmptyLibrary)->Unit(benchmark::kMillisecond)->MinTime(0.5)->UseRealTime();
BENCHMARK(BM_VumoDescribeSmallProject)->Unit(benchmark::kMillisecond)->MinTime(0.5)->UseRealTime();
BENCHMARK(BM_VumoListSampleLibrary)->Unit(benchmark::kMillisecond)->MinTime(0.5)->UseRealTime();
BENCHMARK(BM_VumoIdleWarmCache)->Unit(benchmark::kMillisecond)->MinTime(0.5)->UseRealTime();

int main(int argc, char** argv) {
  char pattern[] = "/tmp/vumo-bench-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) return 1;
  dataHome = pattern;
  ::setenv("XDG_DATA_HOME", dataHome.c_str(), 1);
  using vumo::bench::Clock;
  // Starting the executable (the dynamic loader, some 140 shared libraries) is most of any
  // command's cost; what a command adds is measured beyond `version`, which does nothing else.
  int status = vumo::bench::runAndCompare(
      argc, argv,
      {{"vumo cli list (empty library) / true", "BM_VumoListEmptyLibrary", "BM_True", {}, 1.0, Clock::wall},
       {"vumo cli version / true", "BM_VumoVersion", "BM_True", {}, 1.0, Clock::wall},
       {"list beyond version / true", "BM_VumoListEmptyLibrary", "BM_True", "BM_VumoVersion", 1.0, Clock::wall},
       {"describe (small project) beyond version / true", "BM_VumoDescribeSmallProject", "BM_True", "BM_VumoVersion",
        1.0, Clock::wall},
       {"idle (sample, warm cache) / list (same library)",
        "BM_VumoIdleWarmCache",
        "BM_VumoListSampleLibrary",
        {},
        1.0,
        Clock::wall},
       {"idle beyond version / true", "BM_VumoIdleWarmCache", "BM_True", "BM_VumoVersion", 1.0, Clock::wall}});
  std::error_code ignored;
  std::filesystem::remove_all(dataHome, ignored);
  return status;
}
