#pragma once

// Small pieces shared by the editing engines of this folder.

#include <algorithm>
#include <cstdint>
#include <vector>

#include "shared/project_time.h"
#include "timeline/edit_timeline.h"
#include "timeline/timeline_validator.h"

namespace vumo::engine_support {

// Every engine hands back only documents that pass the whole validation.
inline EditTimeline validated(EditTimeline timeline, ProjectTime sourceDuration) {
  TimelineValidator::validate(timeline, sourceDuration);
  return timeline;
}

// Requested times come from users and agents. Snapping a time to the grid beyond about 146 years
// from zero could leave the 64-bit range and stop the process, and no recording reaches that far,
// so such times are refused (or, where a clamp to the source follows anyway, clamped) first.
constexpr std::int64_t snappableLimitNanoseconds = std::int64_t{1} << 62;

inline bool isSnappable(ProjectTime time) {
  return time.nanoseconds >= -snappableLimitNanoseconds && time.nanoseconds <= snappableLimitNanoseconds;
}

inline ProjectTime clampedForSnapping(ProjectTime time) {
  return {std::clamp(time.nanoseconds, -snappableLimitNanoseconds, snappableLimitNanoseconds)};
}

// Like std::clamp, but defined when the bounds cross: the lower bound wins, and validation then
// reports whatever that leaves wrong.
template <class T>
T clampLowerWins(T value, T lower, T upper) {
  return std::max(lower, std::min(value, upper));
}

template <class T, class Key>
void stableSortBy(std::vector<T>& items, Key key) {
  std::stable_sort(items.begin(), items.end(), [&](const T& a, const T& b) { return key(a) < key(b); });
}

}  // namespace vumo::engine_support
