#pragma once
// How an export tells its progress: the update handed to the caller, the estimate of the time
// left, the limiter that keeps updates to a readable pace, and the strings of durations.

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "shared/json_fwd.h"
#include "shared/name_table.h"

namespace vumo {

enum class ExportPhase { preparing, rendering, finalizing, completed };

template <>
struct EnumNames<ExportPhase> {
  static constexpr std::string_view typeName = "export phase";
  static constexpr NameTable<ExportPhase, 4> table{{
      {ExportPhase::preparing, "preparing"},
      {ExportPhase::rendering, "rendering"},
      {ExportPhase::finalizing, "finalizing"},
      {ExportPhase::completed, "completed"},
  }};
};

struct ExportProgressUpdate {
  ExportPhase phase = ExportPhase::preparing;
  std::int64_t completedFrames = 0;
  std::int64_t totalFrames = 0;

  static ExportProgressUpdate rendering(std::int64_t completedFrames, std::int64_t totalFrames) {
    return {ExportPhase::rendering, completedFrames, totalFrames};
  }

  // 0...1 over the whole export: rendering fills the first 90 %, finalizing stands at 95 %.
  double fraction() const;

  friend bool operator==(const ExportProgressUpdate&, const ExportProgressUpdate&) = default;
};

// `phase`, `completedFrames`, `totalFrames` and `fraction`.
void to_json(Json& j, const ExportProgressUpdate& update);

// The time left, from the rendering rate over the last 8 seconds. One estimator per export; not
// safe to share between threads.
class ExportTimeEstimator {
 public:
  struct Sample {
    double elapsedSeconds = 0;
    std::int64_t completedFrames = 0;
    friend bool operator==(const Sample&, const Sample&) = default;
  };

  // Seconds left after `update` at `elapsedSeconds` since the export began; none outside
  // rendering, in the first 2 seconds, or while the window shows no progress (a stalled export
  // loses its estimate rather than showing one that grows without bound).
  std::optional<double> estimatedRemainingSeconds(const ExportProgressUpdate& update, double elapsedSeconds);
  void reset();

  const std::vector<Sample>& samples() const noexcept { return samples_; }

  static double elapsedSeconds(std::chrono::steady_clock::time_point from, std::chrono::steady_clock::time_point to);

 private:
  std::vector<Sample> samples_;
};

// Passes rendering updates on at most every 50 ms of the continuous clock; the one for the final
// frame always passes. Not safe to share between threads.
class ExportProgressLimiter {
 public:
  using Clock = std::function<std::chrono::steady_clock::time_point()>;
  using Handler = std::function<void(const ExportProgressUpdate&)>;

  static constexpr std::chrono::milliseconds minimumInterval{50};

  // `clock` defaults to std::chrono::steady_clock::now; tests pass their own.
  explicit ExportProgressLimiter(Clock clock = {});

  void report(std::int64_t completedFrame, std::int64_t frameCount, const Handler& handler);

 private:
  Clock clock_;
  std::optional<std::chrono::steady_clock::time_point> lastUpdate_;
};

struct ExportDurationFormatter {
  // What a non-finite duration shows.
  static constexpr std::string_view placeholder = "--:--";

  // "m:ss" below an hour, "h:mm:ss" from an hour on; fractions are dropped and negative values
  // show as 0:00.
  static std::string string(double seconds);
};

}  // namespace vumo
