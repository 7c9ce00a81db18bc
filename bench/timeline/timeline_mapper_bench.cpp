// TimelineMapper::mappedTimeForSequenceTime runs once per rendered frame and per scrub event, and
// mappedTimeForSourceTime once per recorded event shown. Each is measured against the floor of any
// clip lookup: a bare std::upper_bound over an array of the same clip starts, with the same
// queries, in the same run. Sequence queries cover the whole sequence; source queries the whole
// source, gaps between clips included.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "recording_reporter.h"
#include "timeline/timeline_mapper.h"

namespace {

using namespace vumo;

constexpr int clipCount = 1000;
constexpr std::size_t queryCount = 1 << 14;

struct Fixture {
  EditTimeline timeline = EditTimeline::empty();
  ProjectTime sourceDuration;
  std::vector<std::int64_t> sequenceStarts;
  std::vector<std::int64_t> sourceStarts;
  std::vector<ProjectTime> sequenceQueries;
  std::vector<ProjectTime> sourceQueries;

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
    for (const auto& segment : timeline.segments) sourceStarts.push_back(segment.sourceRange.start.nanoseconds);
    std::uniform_int_distribution<std::int64_t> inSequence(0, mapper.sequenceDuration().nanoseconds - 1);
    std::uniform_int_distribution<std::int64_t> inSource(0, sourceDuration.nanoseconds - 1);
    for (std::size_t i = 0; i < queryCount; ++i) {
      sequenceQueries.push_back(ProjectTime{inSequence(random)});
      sourceQueries.push_back(ProjectTime{inSource(random)});
    }
  }
};

const Fixture& fixture() {
  static const Fixture f;
  return f;
}

void upperBound(benchmark::State& state, const std::vector<std::int64_t>& starts,
                const std::vector<ProjectTime>& queries) {
  std::size_t i = 0;
  for (auto _ : state) {
    auto it = std::upper_bound(starts.begin(), starts.end(), queries[i++ & (queryCount - 1)].nanoseconds);
    benchmark::DoNotOptimize(it);
  }
}
void BM_UpperBoundSequence(benchmark::State& state) {
  upperBound(state, fixture().sequenceStarts, fixture().sequenceQueries);
}
void BM_UpperBoundSource(benchmark::State& state) {
  upperBound(state, fixture().sourceStarts, fixture().sourceQueries);
}
BENCHMARK(BM_UpperBoundSequence);
BENCHMARK(BM_UpperBoundSource);

void BM_MappedTimeForSequenceTime(benchmark::State& state) {
  const Fixture& f = fixture();
  TimelineMapper mapper(f.timeline, f.sourceDuration);
  std::size_t i = 0;
  for (auto _ : state) {
    auto mapped = mapper.mappedTimeForSequenceTime(f.sequenceQueries[i++ & (queryCount - 1)]);
    benchmark::DoNotOptimize(mapped);
  }
}
BENCHMARK(BM_MappedTimeForSequenceTime);

void BM_MappedTimeForSourceTime(benchmark::State& state) {
  const Fixture& f = fixture();
  TimelineMapper mapper(f.timeline, f.sourceDuration);
  std::size_t i = 0;
  for (auto _ : state) {
    auto mapped = mapper.mappedTimeForSourceTime(f.sourceQueries[i++ & (queryCount - 1)]);
    benchmark::DoNotOptimize(mapped);
  }
}
BENCHMARK(BM_MappedTimeForSourceTime);

}  // namespace

int main(int argc, char** argv) {
  return vumo::bench::runAndCompare(argc, argv,
                                    {
                                        {"mappedTime(sequence) / upper_bound over the sequence starts",
                                         "BM_MappedTimeForSequenceTime", "BM_UpperBoundSequence"},
                                        {"mappedTime(source) / upper_bound over the source starts",
                                         "BM_MappedTimeForSourceTime", "BM_UpperBoundSource"},
                                    });
}
