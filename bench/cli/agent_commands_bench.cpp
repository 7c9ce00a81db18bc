// What an agent's commands cost on a large project (1,000 clips, 300 zooms, 200,000 pointer
// events in 400 chunk files), each measured against loading the same project's snapshot in the
// same run. A command's own work should stay small next to reading the project:
//   describe and a cut preview  ->  at most 1.3x the snapshot load
//   a 500-operation edit plan   ->  under 200 ms beyond the snapshot load

#include <benchmark/benchmark.h>

#include "recording_reporter.h"
#include <stdlib.h>

#include <cstdio>
#include <map>

#include "agent/agent_exchange.h"
#include "cli/project_command_service.h"
#include "project/chunk_store.h"
#include "shared/files.h"

namespace {

using namespace vumo;

constexpr std::int64_t millisecond = 1'000'000;
constexpr int clipCount = 1000;
constexpr int zoomCount = 300;
constexpr int eventCount = 200'000;
// Clips of 3 s with 1 s removed after each: a 4,000 s source.
constexpr std::int64_t clipMilliseconds = 3000;
constexpr std::int64_t strideMilliseconds = 4000;
const ProjectTime sourceDuration = ProjectTime::fromMilliseconds(clipCount * strideMilliseconds);

struct Fixture {
  std::filesystem::path dataHome;
  std::unique_ptr<ProjectStore> store;
  ProjectPackage package;
  std::string id;
};

Fixture& fixture() {
  static Fixture f = [] {
    Fixture made;
    char pattern[] = "/tmp/vumo-bench-XXXXXX";
    made.dataHome = ::mkdtemp(pattern);
    ::setenv("XDG_DATA_HOME", made.dataHome.c_str(), 1);
    made.store = std::make_unique<ProjectStore>();
    CaptureSourceDescriptor source;
    source.title = "Benchmark";
    source.initialPixelSize = {1920, 1080};
    CreatedProject created = made.store->createProject(source, {}, {1920, 1080}, std::nullopt, std::nullopt);
    // The commands never open the movie; listing only asks that it exists.
    writeFileAtomically(created.package.mediaPath(), "movie");
    {
      ChunkStore<MouseEvent> events(created.package.mouseEventsDirectory(), standardChunkMaximumCount,
                                    ProjectTime{INT64_MAX}, [](const MouseEvent& e) { return e.time; });
      for (int i = 0; i < eventCount; ++i) {
        MouseEvent event;
        event.time = {sourceDuration.nanoseconds / eventCount * i};
        event.normalizedPoint = {(i % 100) / 100.0, (i % 37) / 37.0};
        event.button = i % 50 == 0 ? MouseButton::left : MouseButton::none;
        event.phase = i % 50 == 0 ? MousePhase::down : MousePhase::moved;
        events.append(event);
      }
      events.flush();
    }
    EditTimeline timeline = EditTimeline::empty();
    for (int i = 0; i < clipCount; ++i)
      timeline.segments.push_back({Uuid::random(),
                                   {ProjectTime::fromMilliseconds(i * strideMilliseconds), ProjectTime::fromMilliseconds(clipMilliseconds)},
                                   TimelinePlaybackRate::normal()});
    for (int i = 0; i < zoomCount; ++i) {
      std::int64_t start = i * 3 * strideMilliseconds;  // inside every third clip
      timeline.zooms.push_back({Uuid::random(), ProjectTime::fromMilliseconds(start), ProjectTime::fromMilliseconds(start + 600),
                                ProjectTime::fromMilliseconds(start + 2000), ProjectTime::fromMilliseconds(start + 2500),
                                {0.5, 0.5}, 1.6});
    }
    made.store->writeTimeline(timeline, created.package);
    ProjectManifest manifest = created.manifest;
    manifest.duration = sourceDuration;
    made.package = made.store->finish(created.package, manifest);
    made.id = manifest.id.string();
    return made;
  }();
  return f;
}

void BM_LoadSnapshot(benchmark::State& state) {
  auto& f = fixture();
  for (auto _ : state) benchmark::DoNotOptimize(f.store->loadSnapshot(f.package));
}

void BM_Describe(benchmark::State& state) {
  auto& f = fixture();
  ProjectCommandService service(*f.store);
  for (auto _ : state) benchmark::DoNotOptimize(service.describe(f.id.substr(0, 8)));
}

void BM_CutPreview(benchmark::State& state) {
  auto& f = fixture();
  ProjectCommandService service(*f.store);
  // Through the middle of a clip that carries a zoom, so the zoom is reconciled too.
  CLIMutationRequest request{f.id.substr(0, 8), {CLIMutation::Cut{{600'000 + 700, 600'000 + 1500}, CLITimeDomain::source}}, false, {}};
  for (auto _ : state) benchmark::DoNotOptimize(service.mutate(request));
}

void BM_EditPlanPreview(benchmark::State& state) {
  auto& f = fixture();
  ProjectCommandService service(*f.store);
  auto prepared = service.prepareEditPlan(f.id.substr(0, 8));
  Json plan = prepared.example;
  plan["operations"] = Json::array();
  // 500 operations spread over the project: cuts inside clips without zooms, speed changes and
  // zooms inside the others.
  for (int i = 0; i < 500; ++i) {
    std::int64_t clip = 2 * i + 1;
    std::int64_t start = clip * strideMilliseconds;
    if (clip % 3 == 0) continue;
    Json operation;
    switch (i % 3) {
      case 0: operation = {{"type", "cut"}, {"range", {{"startMilliseconds", start + 200}, {"endMilliseconds", start + 400}}}}; break;
      case 1: operation = {{"type", "speed"}, {"rate", 1.5}, {"range", {{"startMilliseconds", start}, {"endMilliseconds", start + 3000}}}}; break;
      default: operation = {{"type", "zoom-add"}, {"level", 1.5}, {"range", {{"startMilliseconds", start + 500}, {"endMilliseconds", start + 2500}}}}; break;
    }
    plan["operations"].push_back(operation);
  }
  for (int clip = 0; plan["operations"].size() < 500; clip += 3)
    plan["operations"].push_back({{"type", "cut"}, {"range", {{"startMilliseconds", clip * strideMilliseconds + 2700}, {"endMilliseconds", clip * strideMilliseconds + 2900}}}});
  writeExchange(plan, prepared.planPath);
  CLIEditPlanRequest request{f.id.substr(0, 8), *Uuid::parse(prepared.jobID), false, {}, {}, {}};
  state.counters["operations"] = static_cast<double>(plan["operations"].size());
  for (auto _ : state) benchmark::DoNotOptimize(service.executeEditPlan(request));
}

}  // namespace

BENCHMARK(BM_LoadSnapshot)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_Describe)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_CutPreview)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_EditPlanPreview)->Unit(benchmark::kMillisecond)->MinTime(2.0);

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  vumo::bench::RecordingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  auto at = [&](const char* name) { return reporter.realSeconds.count(name) ? reporter.realSeconds[name] : 0.0; };
  double load = at("BM_LoadSnapshot/min_time:2.000");
  if (load > 0) {
    std::printf("describe / snapshot load:        %.2fx (target <= 1.3x)\n", at("BM_Describe/min_time:2.000") / load);
    std::printf("cut preview / snapshot load:     %.2fx (target <= 1.3x)\n", at("BM_CutPreview/min_time:2.000") / load);
    std::printf("500-operation plan beyond load:  %.1f ms (target < 200 ms)\n",
                (at("BM_EditPlanPreview/min_time:2.000") - load) * 1e3);
  }
  std::error_code ignored;
  std::filesystem::remove_all(fixture().dataHome, ignored);
  return 0;
}
