// TimelineMapper::mappedTimeForSequenceTime runs once per rendered frame and per scrub event. Its
// cost is measured against the floor of any clip lookup: a bare std::upper_bound over an array
// of the same clip starts, in the same run. Target: at most 2x.

#include <benchmark/benchmark.h>

#include "recording_reporter.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "timeline/timeline_mapper.h"

namespace {

using namespace vumo;

constexpr int clipCount = 1000;
constexpr std::size_t queryCount = 1 << 14;

struct Fixture {
  EditTimeline timeline = EditTimeline::empty();
  ProjectTime sourceDuration;
  std::vector<std::int64_t> sequenceStarts;
  std::vector<ProjectTime> queries;

  Fixture() {
    std::mt19937_64 random(7);
    std::int64_t cursor = 0;
    for (int i = 0; i < clipCount; ++i) {
      std::int64_t length = std::uniform_int_distribution<std::int64_t>(200'000'000, 4'000'000'000)(random);
      std::int32_t permille = 500 + 10 * std::uniform_int_distribution<std::int32_t>(0, 350)(random);
      timeline.segments.push_back({Uuid::random(), {ProjectTime{cursor}, ProjectTime{length}}, {permille}});
      cursor += length + std::uniform_int_distribution<std::int64_t>(0, 1'000'000'000)(random);
    }
    sourceDuration = ProjectTime{cursor};
    TimelineMapper mapper(timeline, sourceDuration);
    for (const auto& p : mapper.projections()) sequenceStarts.push_back(p.sequenceRange.start.nanoseconds);
    std::uniform_int_distribution<std::int64_t> anywhere(0, mapper.sequenceDuration().nanoseconds - 1);
    for (std::size_t i = 0; i < queryCount; ++i) queries.push_back(ProjectTime{anywhere(random)});
  }
};

const Fixture& fixture() {
  static const Fixture f;
  return f;
}

void BM_UpperBoundBaseline(benchmark::State& state) {
  const Fixture& f = fixture();
  std::size_t i = 0;
  for (auto _ : state) {
    auto it = std::upper_bound(f.sequenceStarts.begin(), f.sequenceStarts.end(), f.queries[i++ & (queryCount - 1)].nanoseconds);
    benchmark::DoNotOptimize(it);
  }
}
BENCHMARK(BM_UpperBoundBaseline);

void BM_MappedTimeForSequenceTime(benchmark::State& state) {
  const Fixture& f = fixture();
  TimelineMapper mapper(f.timeline, f.sourceDuration);
  std::size_t i = 0;
  for (auto _ : state) {
    auto mapped = mapper.mappedTimeForSequenceTime(f.queries[i++ & (queryCount - 1)]);
    benchmark::DoNotOptimize(mapped);
  }
}
BENCHMARK(BM_MappedTimeForSequenceTime);

void BM_MappedTimeForSourceTime(benchmark::State& state) {
  const Fixture& f = fixture();
  TimelineMapper mapper(f.timeline, f.sourceDuration);
  std::size_t i = 0;
  for (auto _ : state) {
    auto mapped = mapper.mappedTimeForSourceTime(f.queries[i++ & (queryCount - 1)]);
    benchmark::DoNotOptimize(mapped);
  }
}
BENCHMARK(BM_MappedTimeForSourceTime);

}  // namespace

using vumo::bench::RecordingReporter;

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  RecordingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  const double baseline = reporter.times["BM_UpperBoundBaseline"];
  if (baseline > 0) {
    std::printf("\nmappedTime(sequence) / bare upper_bound over %d clips: %.2fx (target <= 2x)\n", clipCount,
                reporter.times["BM_MappedTimeForSequenceTime"] / baseline);
    std::printf("mappedTime(source)   / bare upper_bound over %d clips: %.2fx\n", clipCount,
                reporter.times["BM_MappedTimeForSourceTime"] / baseline);
  }
  benchmark::Shutdown();
  return 0;
}
