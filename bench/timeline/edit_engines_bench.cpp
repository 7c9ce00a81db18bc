// Every clip edit copies the timeline, builds a mapper (which validates) and validates the result,
// so on a long timeline an edit should cost a small, fixed multiple of copying the document.
// Measured against two baselines of the same run: the copy, and one validation.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>

#include "recording_reporter.h"
#include "timeline/edit_timeline.h"
#include "timeline/timeline_edit_engine.h"
#include "timeline/timeline_speed_engine.h"
#include "timeline/timeline_validator.h"

namespace {

using namespace vumo;

constexpr std::int64_t second = 1'000'000'000;

// `clipCount` one-second clips with half-second cuts between them, a zoom every ten clips and an
// annotation every twenty.
EditTimeline makeTimeline(int clipCount) {
  EditTimeline timeline = EditTimeline::empty();
  for (int i = 0; i < clipCount; ++i) {
    std::int64_t start = i * 3 * second / 2;
    timeline.segments.push_back({Uuid::random(), {{start}, {second}}, {i % 3 == 0 ? 1500 : 1000}});
    if (i % 10 == 0)
      timeline.zooms.push_back(
          {Uuid::random(), {start}, {start + second / 4}, {start + second / 2}, {start + second}, {0.5, 0.5}, 1.0});
    if (i % 20 == 0) {
      AnnotationElement annotation;
      annotation.id = Uuid::random();
      annotation.startTime = {start};
      annotation.endTime = {start + second / 2};
      annotation.bounds = RectValue{0.1, 0.1, 0.2, 0.2};
      annotation.zIndex = i;
      timeline.annotations.push_back(annotation);
    }
  }
  return timeline;
}

ProjectTime sourceFor(int clipCount) { return {clipCount * 3 * second / 2}; }

// A range in the middle of the middle clip, on the grid.
ProjectTimeRange middleRange(int clipCount) {
  std::int64_t start = (clipCount / 2) * 3 * second / 2;
  return {{start + second / 4}, {second / 2}};
}

void BM_CopyTimeline(benchmark::State& state) {
  EditTimeline timeline = makeTimeline(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    EditTimeline copy = timeline;
    benchmark::DoNotOptimize(copy);
  }
}

void BM_Validate(benchmark::State& state) {
  int clips = static_cast<int>(state.range(0));
  EditTimeline timeline = makeTimeline(clips);
  for (auto _ : state) {
    TimelineValidator::validate(timeline, sourceFor(clips));
    benchmark::ClobberMemory();
  }
}

void BM_Cut(benchmark::State& state) {
  int clips = static_cast<int>(state.range(0));
  EditTimeline timeline = makeTimeline(clips);
  for (auto _ : state)
    benchmark::DoNotOptimize(TimelineEditEngine::removeSourceRanges(timeline, {middleRange(clips)}, sourceFor(clips)));
}

void BM_SpeedChange(benchmark::State& state) {
  int clips = static_cast<int>(state.range(0));
  EditTimeline timeline = makeTimeline(clips);
  for (auto _ : state)
    benchmark::DoNotOptimize(TimelineSpeedEngine::settingRate({2000}, middleRange(clips), timeline, sourceFor(clips)));
}

BENCHMARK(BM_CopyTimeline)->Arg(1'000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Validate)->Arg(1'000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Cut)->Arg(1'000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SpeedChange)->Arg(1'000)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  return vumo::bench::runAndCompare(
      argc, argv,
      {
          {"cut / copy of the timeline (1,000 clips)", "BM_Cut/1000", "BM_CopyTimeline/1000"},
          {"speed change / copy of the timeline", "BM_SpeedChange/1000", "BM_CopyTimeline/1000"},
          {"cut / one validation", "BM_Cut/1000", "BM_Validate/1000"},
          {"speed change / one validation", "BM_SpeedChange/1000", "BM_Validate/1000"},
      });
}
