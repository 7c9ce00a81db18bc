#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <optional>

#include "shared/checked_math.h"
#include "shared/json_fwd.h"

namespace vumo {

// The one unit of time of the program: signed nanoseconds. Arithmetic is checked; leaving the
// 64-bit range stops the process.
struct ProjectTime {
  std::int64_t nanoseconds = 0;

  static constexpr ProjectTime zero() { return {0}; }
  static ProjectTime fromMilliseconds(std::int64_t milliseconds) { return {checkedMul(milliseconds, 1'000'000)}; }

  // Whole milliseconds, truncating toward zero (-1,999,999 ns is -1 ms).
  constexpr std::int64_t cliMilliseconds() const { return nanoseconds / 1'000'000; }

  friend constexpr auto operator<=>(ProjectTime, ProjectTime) = default;
  friend ProjectTime operator+(ProjectTime a, ProjectTime b) { return {checkedAdd(a.nanoseconds, b.nanoseconds)}; }
  friend ProjectTime operator-(ProjectTime a, ProjectTime b) { return {checkedSub(a.nanoseconds, b.nanoseconds)}; }
};

// A start and a duration; the end is excluded and derived, never stored.
struct ProjectTimeRange {
  ProjectTime start;
  ProjectTime duration;

  ProjectTime end() const { return start + duration; }
  bool contains(ProjectTime time) const { return time >= start && time < end(); }
  // Ranges that merely touch have no intersection.
  std::optional<ProjectTimeRange> intersection(const ProjectTimeRange& other) const;

  static ProjectTimeRange fromStartEnd(ProjectTime start, ProjectTime end) { return {start, end - start}; }

  friend bool operator==(const ProjectTimeRange&, const ProjectTimeRange&) = default;
};

void to_json(Json& j, const ProjectTime& t);
void from_json(const Json& j, ProjectTime& t);
void to_json(Json& j, const ProjectTimeRange& r);
void from_json(const Json& j, ProjectTimeRange& r);

}  // namespace vumo

template <>
struct std::hash<vumo::ProjectTime> {
  std::size_t operator()(vumo::ProjectTime t) const noexcept { return std::hash<std::int64_t>{}(t.nanoseconds); }
};
