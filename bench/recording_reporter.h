#pragma once

// The one reporter of the benchmarks. The machines they run on are shared and absolute times
// drift, so a benchmark here states no absolute target: it measures a baseline doing comparable
// work in the same run and prints ratios of medians over repetitions (five unless the command line
// says otherwise). A ratio naming a benchmark that did not run, or failed, makes the program exit
// non-zero instead of printing a meaningless number.
//
//   int main(int argc, char** argv) {
//     return vumo::bench::runAndCompare(argc, argv, {{"cut / copy", "BM_Cut/1000", "BM_Copy/1000"}});
//   }

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace vumo::bench {

// A smoke run (CI's: --benchmark_min_time below 0.1 s) only checks that a benchmark still works;
// benchmarks that take their own time, such as long recordings, make their work short for it.
inline bool isSmokeRun(int argc, char** argv) {
  constexpr std::string_view flag = "--benchmark_min_time=";
  for (int i = 1; i < argc; ++i) {
    std::string_view argument = argv[i];
    if (argument.starts_with(flag)) return std::atof(std::string(argument.substr(flag.size())).c_str()) < 0.1;
  }
  return false;
}

// Per-iteration times of every repetition of each benchmark, and their medians. A benchmark is
// named by its function and arguments, e.g. "BM_Validate/100000", whatever its time settings.
class RecordingReporter : public benchmark::ConsoleReporter {
 public:
  struct Sample {
    double cpuSeconds = 0;   // the calling thread's processor time
    double realSeconds = 0;  // wall-clock time (all threads)
    double cpuInUnit = 0;    // processor time in the benchmark's display unit
    // What the benchmark measured itself, e.g. the processor time of a program it started and
    // waited for; absent counters read as NaN.
    std::map<std::string, double> counters;
  };

  void ReportRuns(const std::vector<Run>& runs) override {
    std::vector<Run> shown;  // one line per benchmark: its median, or its only run
    for (const Run& run : runs) {
      const std::string name = shortName(run);
      if (run.error_occurred) {
        failed.insert(name);
        shown.push_back(run);
      } else if (run.run_type == Run::RT_Iteration && run.iterations > 0) {
        const double iterations = static_cast<double>(run.iterations);
        Sample sample{run.cpu_accumulated_time / iterations,
                      run.real_accumulated_time / iterations,
                      run.GetAdjustedCPUTime(),
                      {}};
        for (const auto& [counter, value] : run.counters) sample.counters[counter] = value;
        samples[name].push_back(std::move(sample));
        if (run.repetitions <= 1) shown.push_back(run);
        remember(name, run.run_name.str());
      } else if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
        shown.push_back(run);
      }
    }
    ConsoleReporter::ReportRuns(shown);
  }

  // The median over repetitions; false when the benchmark did not run or failed.
  bool median(const std::string& name, Sample& out) const {
    auto found = samples.find(name);
    if (found == samples.end() || found->second.empty() || failed.count(name)) return false;
    out = {medianOf(found->second, &Sample::cpuSeconds),
           medianOf(found->second, &Sample::realSeconds),
           medianOf(found->second, &Sample::cpuInUnit),
           {}};
    for (const auto& [counter, value] : found->second.front().counters) {
      std::vector<double> values;
      for (const Sample& sample : found->second) {
        auto it = sample.counters.find(counter);
        values.push_back(it == sample.counters.end() ? std::nan("") : it->second);
      }
      std::sort(values.begin(), values.end());
      const std::size_t middle = values.size() / 2;
      out.counters[counter] = values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
    }
    return true;
  }

  std::map<std::string, std::vector<Sample>> samples;
  std::set<std::string> failed;
  // Medians under both the short name and the full one (with its time settings), as plain maps.
  std::map<std::string, double> times;        // processor time per iteration, in the benchmark's unit
  std::map<std::string, double> cpuSeconds;   // processor seconds per iteration (the calling thread)
  std::map<std::string, double> realSeconds;  // wall seconds per iteration (all threads)

 private:
  static std::string shortName(const Run& run) {
    return run.run_name.args.empty() ? run.run_name.function_name
                                     : run.run_name.function_name + "/" + run.run_name.args;
  }
  static double medianOf(std::vector<Sample> values, double Sample::*field) {
    std::sort(values.begin(), values.end(), [&](const Sample& a, const Sample& b) { return a.*field < b.*field; });
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle].*field : (values[middle - 1].*field + values[middle].*field) / 2;
  }
  void remember(const std::string& name, const std::string& fullName) {
    Sample m;
    if (!median(name, m)) return;
    for (const std::string& key : {name, fullName}) {
      times[key] = m.cpuInUnit;
      cpuSeconds[key] = m.cpuSeconds;
      realSeconds[key] = m.realSeconds;
    }
  }
};

// The counter in which a benchmark that starts programs reports their processor time (user and
// system, of the child from its rusage) in seconds per iteration; what Clock::process reads.
inline constexpr const char* processCpuCounter = "process_cpu_s";

// cpu: the benchmark thread's processor time; wall: elapsed time (its manual time where it sets
// one); process: the processCpuCounter; counter: the counter the ratio names.
enum class Clock { cpu, wall, process, counter };

// (numerator - minus) / denominator * scale, of medians. `minus` takes off work the numerator
// includes but is not what is measured, e.g. the project load a command starts with.
struct Ratio {
  std::string label;
  std::string numerator;
  std::string denominator;
  std::string minus = {};
  double scale = 1.0;
  Clock clock = Clock::cpu;  // wall time for work spread over several threads
  std::string counter = {};  // for Clock::counter
  // The denominator is at least this, so that a ratio against a baseline that measured (nearly)
  // nothing, e.g. no frames lost, still compares with a floor rather than dividing by zero.
  double floor = 0;
};

// Prints each ratio; false if one of them names a benchmark without a result.
inline bool printRatios(const RecordingReporter& reporter, const std::vector<Ratio>& ratios) {
  bool complete = true;
  std::printf("\nRatios of medians (same run):\n");
  for (const Ratio& ratio : ratios) {
    auto seconds = [&](const std::string& name, double& out) {
      RecordingReporter::Sample m;
      if (!reporter.median(name, m)) {
        std::fprintf(stderr, "no result for %s (needed by \"%s\")\n", name.c_str(), ratio.label.c_str());
        return false;
      }
      switch (ratio.clock) {
        case Clock::cpu: out = m.cpuSeconds; break;
        case Clock::wall: out = m.realSeconds; break;
        case Clock::process:
        case Clock::counter: {
          const std::string& counter = ratio.clock == Clock::process ? std::string(processCpuCounter) : ratio.counter;
          auto found = m.counters.find(counter);
          if (found == m.counters.end() || std::isnan(found->second)) {
            std::fprintf(stderr, "%s has no counter %s (needed by \"%s\")\n", name.c_str(), counter.c_str(),
                         ratio.label.c_str());
            return false;
          }
          out = found->second;
          break;
        }
      }
      return true;
    };
    double numerator = 0, denominator = 0, minus = 0;
    bool ok = seconds(ratio.numerator, numerator);
    ok = seconds(ratio.denominator, denominator) && ok;
    if (!ratio.minus.empty()) ok = seconds(ratio.minus, minus) && ok;
    denominator = std::max(denominator, ratio.floor);
    if (!ok || denominator <= 0) {
      complete = false;
      continue;
    }
    std::printf("  %-64s %8.3f\n", ratio.label.c_str(), (numerator - minus) / denominator * ratio.scale);
  }
  return complete;
}

// Runs the benchmarks of this program (five repetitions unless the command line sets them) and
// prints the ratios. `prepare` runs after the command line is read and before any benchmark.
// Returns the exit status: 1 when a ratio could not be computed, 2 for an unknown flag.
inline int runAndCompare(int argc, char** argv, const std::vector<Ratio>& ratios,
                         const std::function<void()>& prepare = {}) {
  std::vector<char*> arguments{argv[0], const_cast<char*>("--benchmark_repetitions=5")};
  arguments.insert(arguments.end(), argv + 1, argv + argc);
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 2;
  if (prepare) prepare();
  RecordingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return printRatios(reporter, ratios) ? 0 : 1;
}

}  // namespace vumo::bench
