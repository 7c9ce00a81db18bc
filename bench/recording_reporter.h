#pragma once

// Benchmarks here report ratios against a baseline measured in the same run, since the machines
// they run on are shared and absolute times drift. This console reporter also keeps each
// benchmark's time per iteration so that a custom main can print those ratios.

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

namespace vumo::bench {

class RecordingReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const auto& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.iterations == 0) continue;
      const std::string name = run.benchmark_name();
      times[name] = run.GetAdjustedCPUTime();
      cpuSeconds[name] = run.GetAdjustedCPUTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
      realSeconds[name] = run.real_accumulated_time / static_cast<double>(run.iterations);
    }
    ConsoleReporter::ReportRuns(runs);
  }

  std::map<std::string, double> times;        // CPU time per iteration, in the benchmark's unit
  std::map<std::string, double> cpuSeconds;   // CPU seconds per iteration (the calling thread)
  std::map<std::string, double> realSeconds;  // wall seconds per iteration (all threads)
};

}  // namespace vumo::bench
