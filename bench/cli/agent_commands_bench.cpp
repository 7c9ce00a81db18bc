// What an agent's commands cost on a large project (1,000 clips, 300 zooms, 200,000 pointer
// events in 400 chunk files). Every command starts by loading the project, which dwarfs most of
// what follows, so a ratio of command to load would hide even a large regression of the command's
// own work. Measured instead, in the same run: each command's work beyond the load it starts with
// (the command minus the load), and describe's work alone on a loaded project, both against
// decoding and validating the project's timeline document, work of a comparable kind and size.

#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdint>
#include <cstdio>
#include <map>

#include "agent/agent_exchange.h"
#include "cli/project_command_service.h"
#include "cli/project_descriptions.h"
#include "project/chunk_store.h"
#include "recording_reporter.h"
#include "shared/files.h"
#include "timeline/edit_timeline.h"
#include "timeline/timeline_validator.h"

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
      timeline.segments.push_back(
          {Uuid::random(),
           {ProjectTime::fromMilliseconds(i * strideMilliseconds), ProjectTime::fromMilliseconds(clipMilliseconds)},
           TimelinePlaybackRate::normal()});
    for (int i = 0; i < zoomCount; ++i) {
      std::int64_t start = i * 3 * strideMilliseconds;  // inside every third clip
      timeline.zooms.push_back({Uuid::random(),
                                ProjectTime::fromMilliseconds(start),
                                ProjectTime::fromMilliseconds(start + 600),
                                ProjectTime::fromMilliseconds(start + 2000),
                                ProjectTime::fromMilliseconds(start + 2500),
                                {0.5, 0.5},
                                1.6});
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

// What every command below starts with: finding the project, loading its snapshot and digest.
void BM_LoadProject(benchmark::State& state) {
  auto& f = fixture();
  ProjectCommandService service(*f.store);
  for (auto _ : state) benchmark::DoNotOptimize(service.load(f.id.substr(0, 8)));
}

void BM_DecodeAndValidateTimeline(benchmark::State& state) {
  auto& f = fixture();
  const std::string text = readFile(f.package.timelinePath(), SIZE_MAX);
  for (auto _ : state) {
    EditTimeline timeline = decodeEditTimeline(text);
    TimelineValidator::validate(timeline, sourceDuration);
    benchmark::DoNotOptimize(timeline);
  }
}

void BM_DescribeLoadedProject(benchmark::State& state) {
  auto& f = fixture();
  ProjectCommandService service(*f.store);
  auto project = service.load(f.id.substr(0, 8));
  for (auto _ : state)
    benchmark::DoNotOptimize(ProjectInspector::describe(project.snapshot, project.snapshot.timelineDigest));
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
  CLIMutationRequest request{
      f.id.substr(0, 8), {CLIMutation::Cut{{600'000 + 700, 600'000 + 1500}, CLITimeDomain::source}}, false, {}};
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
      case 0:
        operation = {{"type", "cut"},
                     {"range", {{"startMilliseconds", start + 200}, {"endMilliseconds", start + 400}}}};
        break;
      case 1:
        operation = {{"type", "speed"},
                     {"rate", 1.5},
                     {"range", {{"startMilliseconds", start}, {"endMilliseconds", start + 3000}}}};
        break;
      default:
        operation = {{"type", "zoom-add"},
                     {"level", 1.5},
                     {"range", {{"startMilliseconds", start + 500}, {"endMilliseconds", start + 2500}}}};
        break;
    }
    plan["operations"].push_back(operation);
  }
  for (int clip = 0; plan["operations"].size() < 500; clip += 3)
    plan["operations"].push_back({{"type", "cut"},
                                  {"range",
                                   {{"startMilliseconds", clip * strideMilliseconds + 2700},
                                    {"endMilliseconds", clip * strideMilliseconds + 2900}}}});
  writeExchange(plan, prepared.planPath);
  CLIEditPlanRequest request{f.id.substr(0, 8), *Uuid::parse(prepared.jobID), false, {}, {}, {}};
  state.counters["operations"] = static_cast<double>(plan["operations"].size());
  for (auto _ : state) benchmark::DoNotOptimize(service.executeEditPlan(request));
}

}  // namespace

BENCHMARK(BM_LoadProject)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DecodeAndValidateTimeline)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DescribeLoadedProject)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Describe)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CutPreview)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EditPlanPreview)->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) {
  using vumo::bench::Clock;
  const char* const decode = "BM_DecodeAndValidateTimeline";
  int status = vumo::bench::runAndCompare(
      argc, argv,
      {
          {"describe's work on a loaded project / decode+validate timeline", "BM_DescribeLoadedProject", decode},
          {"(describe - load) / decode+validate timeline", "BM_Describe", decode, "BM_LoadProject", 1.0, Clock::wall},
          {"(cut preview - load) / decode+validate timeline", "BM_CutPreview", decode, "BM_LoadProject", 1.0,
           Clock::wall},
          {"(500-operation plan preview - load) / decode+validate timeline", "BM_EditPlanPreview", decode,
           "BM_LoadProject", 1.0, Clock::wall},
      });
  std::error_code ignored;
  std::filesystem::remove_all(fixture().dataHome, ignored);
  return status;
}
