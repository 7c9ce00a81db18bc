#pragma once
// The pointer's position and visibility at any source time. The pointer is recorded as events, not
// drawn into the video, so every output frame redraws it; a cubic Hermite curve through the
// recorded samples keeps 60 fps output fluid whatever rate the events came at.

#include <vector>

#include "shared/geometry.h"
#include "shared/project_time.h"
#include "timeline/mouse_event.h"

namespace vumo {

class CursorInterpolator {
 public:
  CursorInterpolator() = default;
  // Every event takes part, whatever its phase or button. Sorted stably by time once, here.
  explicit CursorInterpolator(std::vector<MouseEvent> events);

  const std::vector<MouseEvent>& samples() const { return samples_; }

  // The normalised point at `time`, each coordinate within 0...1. The centre without samples;
  // before the first sample the first one's point, after the last the last one's. Allocates
  // nothing: a binary search and a cubic.
  PointValue position(ProjectTime time) const;
  // Whether the newest sample at or before `time` (the first one before all of them) lies inside
  // the source; false without samples.
  bool isVisible(ProjectTime time) const;

 private:
  std::vector<MouseEvent> samples_;
};

}  // namespace vumo
