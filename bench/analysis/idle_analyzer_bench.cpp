// The idle command's analysis of a one-hour recording: pointer windows, silences and their
// intersection, the noise floor (computed twice, once for each value of the answer) and the
// recommended cuts, with the envelope and the events already in memory. Measured against the least
// any analysis of the envelope costs: one pass over the same peaks that finds the loudest.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <vector>

#include "analysis/audio_activity_analyzer.h"
#include "analysis/timeline_idle_analyzer.h"
#include "recording_reporter.h"

namespace {

using namespace vumo;

constexpr std::int64_t hourMilliseconds = 3'600'000;

struct Fixture {
  WaveformEnvelope envelope;
  std::vector<MouseEvent> events;
  std::vector<ProjectTimeRange> retainedRanges;
  ProjectTime duration = ProjectTime::fromMilliseconds(hourMilliseconds);

  Fixture() {
    std::mt19937_64 random(11);
    auto between = [&](std::int64_t low, std::int64_t high) {
      return std::uniform_int_distribution<std::int64_t>(low, high)(random);
    };
    auto append = [&](std::int64_t milliseconds, std::int64_t lowMagnitude, std::int64_t highMagnitude) {
      for (std::int64_t i = 0; i < milliseconds / WaveformEnvelope::bucketMilliseconds; ++i) {
        auto magnitude = static_cast<std::int16_t>(between(lowMagnitude, highMagnitude));
        envelope.peaks.push_back({static_cast<std::int16_t>(-magnitude), magnitude});
      }
    };
    // Speech: words of 200-800 ms, short breaths at the room's noise, now and then a long pause,
    // and stretches of digital silence where the microphone was muted.
    const std::size_t peakCount = hourMilliseconds / WaveformEnvelope::bucketMilliseconds;
    while (envelope.peaks.size() < peakCount) {
      switch (between(0, 19)) {
        case 0: append(between(1500, 6000), 20, 200); break;
        case 1: append(between(2000, 8000), 0, 0); break;
        default: append(between(200, 800), 2000, 20000); append(between(100, 400), 20, 200);
      }
    }
    envelope.peaks.resize(peakCount);

    // Pointer activity in bursts of 2-10 s (an event every 200-600 ms) between idle stretches.
    std::int64_t cursor = 0;
    while (cursor < hourMilliseconds) {
      const std::int64_t burstEnd = cursor + between(2000, 10'000);
      for (; cursor < burstEnd && cursor < hourMilliseconds; cursor += between(200, 600)) {
        MouseEvent event;
        event.time = ProjectTime::fromMilliseconds(cursor);
        if (between(0, 9) == 0) event.isInsideSource = false;
        events.push_back(event);
      }
      cursor += between(5000, 40'000);
    }

    // A timeline with fifty cuts already made.
    std::int64_t start = 0;
    while (start < hourMilliseconds) {
      const std::int64_t end = std::min(start + between(30'000, 110'000), hourMilliseconds);
      retainedRanges.push_back(
          ProjectTimeRange::fromStartEnd(ProjectTime::fromMilliseconds(start), ProjectTime::fromMilliseconds(end)));
      start = end + between(1000, 5000);
    }
  }
};

const Fixture& fixture() {
  static const Fixture f;
  return f;
}

void BM_LoudestPeak(benchmark::State& state) {
  const Fixture& f = fixture();
  for (auto _ : state) {
    int loudest = 0;
    for (WaveformPeak peak : f.envelope.peaks)
      loudest = std::max({loudest, std::abs(static_cast<int>(peak.minimum)), std::abs(static_cast<int>(peak.maximum))});
    benchmark::DoNotOptimize(loudest);
  }
}
BENCHMARK(BM_LoudestPeak);

void BM_IdleAnalysis(benchmark::State& state) {
  const Fixture& f = fixture();
  for (auto _ : state) {
    auto analysis =
        TimelineIdleAnalyzer::analyze(f.envelope, f.events, f.duration, ProjectTime::fromMilliseconds(1500), -42.0);
    double floor = AudioActivityAnalyzer::estimatedNoiseFloor(&f.envelope);
    double recommended =
        AudioActivityAnalyzer::recommendedThreshold(AudioActivityAnalyzer::estimatedNoiseFloor(&f.envelope));
    auto cuts = TimelineIdleAnalyzer::recommendedCuts(analysis, f.retainedRanges, ProjectTime::fromMilliseconds(500),
                                                      ProjectTime::fromMilliseconds(150));
    benchmark::DoNotOptimize(analysis);
    benchmark::DoNotOptimize(floor);
    benchmark::DoNotOptimize(recommended);
    benchmark::DoNotOptimize(cuts);
  }
  // The size of the answer, to show the recording is a plausible one.
  auto analysis =
      TimelineIdleAnalyzer::analyze(f.envelope, f.events, f.duration, ProjectTime::fromMilliseconds(1500), -42.0);
  state.counters["events"] = static_cast<double>(f.events.size());
  state.counters["quiet"] = static_cast<double>(analysis.quietRanges.size());
  state.counters["cuts"] = static_cast<double>(TimelineIdleAnalyzer::recommendedCuts(analysis, f.retainedRanges,
                                                                                     ProjectTime::fromMilliseconds(500),
                                                                                     ProjectTime::fromMilliseconds(150))
                                                   .size());
}
BENCHMARK(BM_IdleAnalysis)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  return vumo::bench::runAndCompare(
      argc, argv, {{"idle analysis of one hour / one pass over its peaks", "BM_IdleAnalysis", "BM_LoudestPeak"}});
}
