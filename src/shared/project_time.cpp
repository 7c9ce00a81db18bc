#include "shared/project_time.h"

#include <algorithm>
#include <cmath>

namespace vumo {

std::optional<ProjectTimeRange> ProjectTimeRange::intersection(const ProjectTimeRange& other) const {
  ProjectTime s = std::max(start, other.start);
  ProjectTime e = std::min(end(), other.end());
  if (s >= e) return std::nullopt;
  return ProjectTimeRange{s, e - s};
}

void to_json(Json& j, const ProjectTime& t) { j = Json{{"nanoseconds", t.nanoseconds}}; }

void from_json(const Json& j, ProjectTime& t) { t.nanoseconds = json::required<std::int64_t>(j, "nanoseconds"); }

void to_json(Json& j, const ProjectTimeRange& r) { j = Json{{"start", r.start}, {"duration", r.duration}}; }

void from_json(const Json& j, ProjectTimeRange& r) {
  r.start = json::required<ProjectTime>(j, "start");
  r.duration = json::required<ProjectTime>(j, "duration");
}

std::int64_t checkedInt64(double value) {
  // 2^63 is exactly representable; anything at or beyond it does not fit.
  if (!std::isfinite(value) || value >= 9223372036854775808.0 || value < -9223372036854775808.0)
    arithmeticFault("floating-point conversion");
  return static_cast<std::int64_t>(value);
}

}  // namespace vumo
