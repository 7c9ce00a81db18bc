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

std::int64_t checkedInt64(double value) {
  // 2^63 is exactly representable; anything at or beyond it does not fit.
  if (!std::isfinite(value) || value >= 9223372036854775808.0 || value < -9223372036854775808.0)
    arithmeticFault("floating-point conversion");
  return static_cast<std::int64_t>(value);
}

}  // namespace vumo
