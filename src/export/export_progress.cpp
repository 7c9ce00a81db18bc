#include "export/export_progress.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "shared/json.h"

namespace vumo {

namespace {

// The window the rendering rate is measured over, and how long the first estimate waits.
constexpr double estimateWindowSeconds = 8;
constexpr double minimumEstimateSeconds = 2;

}  // namespace

double ExportProgressUpdate::fraction() const {
  switch (phase) {
    case ExportPhase::preparing: return 0;
    case ExportPhase::rendering: {
      if (totalFrames <= 0) return 0;
      auto done = std::clamp<std::int64_t>(completedFrames, 0, totalFrames);
      return 0.9 * static_cast<double>(done) / static_cast<double>(totalFrames);
    }
    case ExportPhase::finalizing: return 0.95;
    case ExportPhase::completed: return 1;
  }
  return 0;
}

void to_json(Json& j, const ExportProgressUpdate& update) {
  j = Json{{"phase", update.phase},
           {"completedFrames", update.completedFrames},
           {"totalFrames", update.totalFrames},
           {"fraction", update.fraction()}};
}

std::optional<double> ExportTimeEstimator::estimatedRemainingSeconds(const ExportProgressUpdate& update,
                                                                     double elapsedSeconds) {
  if (update.phase != ExportPhase::rendering || update.totalFrames <= 0) return std::nullopt;
  if (!std::isfinite(elapsedSeconds) || elapsedSeconds < 0) return std::nullopt;

  std::int64_t done = std::clamp<std::int64_t>(update.completedFrames, 0, update.totalFrames);
  if (samples_.empty() || samples_.back().completedFrames != done) samples_.push_back({elapsedSeconds, done});
  std::erase_if(samples_,
                [&](const Sample& sample) { return sample.elapsedSeconds < elapsedSeconds - estimateWindowSeconds; });

  if (elapsedSeconds < minimumEstimateSeconds || samples_.empty()) return std::nullopt;
  double span = samples_.back().elapsedSeconds - samples_.front().elapsedSeconds;
  auto frames = static_cast<double>(samples_.back().completedFrames - samples_.front().completedFrames);
  if (span < minimumEstimateSeconds || frames <= 0) return std::nullopt;
  return std::max(static_cast<double>(update.totalFrames - done) / (frames / span), 0.0);
}

void ExportTimeEstimator::reset() { samples_.clear(); }

double ExportTimeEstimator::elapsedSeconds(std::chrono::steady_clock::time_point from,
                                           std::chrono::steady_clock::time_point to) {
  return std::chrono::duration<double>(to - from).count();
}

ExportProgressLimiter::ExportProgressLimiter(Clock clock)
    : clock_(clock ? std::move(clock) : Clock([] { return std::chrono::steady_clock::now(); })) {}

void ExportProgressLimiter::report(std::int64_t completedFrame, std::int64_t frameCount, const Handler& handler) {
  auto now = clock_();
  bool isFinal = completedFrame == frameCount;
  if (!isFinal && lastUpdate_ && now - *lastUpdate_ < minimumInterval) return;
  lastUpdate_ = now;
  if (handler) handler(ExportProgressUpdate::rendering(completedFrame, frameCount));
}

std::string ExportDurationFormatter::string(double seconds) {
  if (!std::isfinite(seconds)) return std::string(placeholder);
  // Beyond any export's length; keeps the conversion to an integer defined.
  constexpr double longest = 1e15;
  auto s = static_cast<std::int64_t>(std::clamp(std::trunc(seconds), 0.0, longest));
  if (s >= 3600) return fmt::format("{}:{:02}:{:02}", s / 3600, (s % 3600) / 60, s % 60);
  return fmt::format("{}:{:02}", s / 60, s % 60);
}

}  // namespace vumo
