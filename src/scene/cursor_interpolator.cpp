#include "scene/cursor_interpolator.h"

#include <algorithm>
#include <cstddef>
#include <iterator>

namespace vumo {

namespace {

bool timeBefore(ProjectTime time, const MouseEvent& event) { return time < event.time; }

// Differences of times in doubles: recorded times come from files and need not be close to each
// other, so the subtraction must not overflow.
double difference(ProjectTime later, ProjectTime earlier) {
  return static_cast<double>(later.nanoseconds) - static_cast<double>(earlier.nanoseconds);
}

}  // namespace

CursorInterpolator::CursorInterpolator(std::vector<MouseEvent> events) : samples_(std::move(events)) {
  std::stable_sort(samples_.begin(), samples_.end(),
                   [](const MouseEvent& a, const MouseEvent& b) { return a.time < b.time; });
}

PointValue CursorInterpolator::position(ProjectTime time) const {
  if (samples_.empty()) return {0.5, 0.5};
  const MouseEvent& first = samples_.front();
  const MouseEvent& last = samples_.back();
  if (samples_.size() == 1 || time <= first.time) return first.normalizedPoint;
  if (time >= last.time) return last.normalizedPoint;

  const std::size_t lastIndex = samples_.size() - 1;
  auto after = std::upper_bound(samples_.begin(), samples_.end(), time, timeBefore);
  const std::size_t i = std::min(static_cast<std::size_t>(std::distance(samples_.begin(), after)), lastIndex);
  const MouseEvent& s1 = samples_[i - 1];
  const MouseEvent& s2 = samples_[i];
  if (time == s1.time) return s1.normalizedPoint;
  if (time == s2.time) return s2.normalizedPoint;
  const MouseEvent& s0 = samples_[i >= 2 ? i - 2 : 0];
  const MouseEvent& s3 = samples_[std::min(i + 1, lastIndex)];

  const double d = std::max(difference(s2.time, s1.time), 1.0);
  const double u = difference(time, s1.time) / d;
  // Tangents scaled for uneven spacing of the samples.
  const double k1 = d / std::max(difference(s2.time, s0.time), 1.0);
  const double k2 = d / std::max(difference(s3.time, s1.time), 1.0);

  const double u2 = u * u;
  const double u3 = u2 * u;
  const double h00 = 2 * u3 - 3 * u2 + 1;
  const double h10 = u3 - 2 * u2 + u;
  const double h01 = 3 * u2 - 2 * u3;
  const double h11 = u3 - u2;

  auto curve = [&](double p0, double p1, double p2, double p3) {
    const double m1 = (p2 - p0) * k1;
    const double m2 = (p3 - p1) * k2;
    // The cubic may overshoot the samples it passes through.
    return std::clamp(h00 * p1 + h10 * m1 + h01 * p2 + h11 * m2, 0.0, 1.0);
  };
  const PointValue &p0 = s0.normalizedPoint, &p1 = s1.normalizedPoint, &p2 = s2.normalizedPoint,
                   &p3 = s3.normalizedPoint;
  return {curve(p0.x, p1.x, p2.x, p3.x), curve(p0.y, p1.y, p2.y, p3.y)};
}

bool CursorInterpolator::isVisible(ProjectTime time) const {
  if (samples_.empty()) return false;
  auto after = std::upper_bound(samples_.begin(), samples_.end(), time, timeBefore);
  const MouseEvent& newest = after == samples_.begin() ? samples_.front() : *std::prev(after);
  return newest.isVisibleInsideSource();
}

}  // namespace vumo
