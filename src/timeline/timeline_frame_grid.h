#pragma once

#include <cstdint>

#include "shared/project_time.h"

namespace vumo {

// Every edit lands on a fixed 60 fps grid, whatever the media's own frame rate, so that a cut can
// be previewed, committed and derived again without drift. A grid value is floor(k * 1e9 / 60) ns.
struct TimelineFrameGrid {
  static constexpr std::int64_t framesPerSecond = 60;
  // One frame, rounded down: the shortest clip, zoom or annotation the timeline accepts.
  static constexpr ProjectTime minimumDuration{16'666'666};

  // The grid line nearest to `time`; a tie rounds away from zero.
  static ProjectTime nearestBoundary(ProjectTime time);
  // The first grid line at or after `time` (negative times give 0).
  static ProjectTime ceilingBoundary(ProjectTime time);
  // The grid floor: the frame count of `time` rounded down, then back to nanoseconds, i.e.
  // (t * 60 / 1e9) * 1e9 / 60 in integers (negative times give 0). Two of every three grid lines
  // lie a fraction of a nanosecond below their exact frame time, so for those lines this gives
  // the line before; callers that clamp to it stay on the grid and never pass `time`.
  static ProjectTime floorBoundary(ProjectTime time);
  // Grid line number `frame`.
  static ProjectTime boundary(std::int64_t frame);
};

}  // namespace vumo
