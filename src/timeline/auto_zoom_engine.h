#pragma once

#include <vector>

#include "shared/project_time.h"
#include "timeline/edit_timeline.h"
#include "timeline/mouse_event.h"

namespace vumo {

// Turns left-button presses into zooms: the camera moves in shortly before a burst of clicks,
// holds while the user works at one spot and moves out. Every caller uses the standard values
// below; they are fields so that the behaviour is one plain record.
struct AutoZoomEngine {
  ProjectTime clusterGap{1'200'000'000};  // largest pause between two clicks of one cluster
  double clusterDistance = 0.12;          // largest normalised distance between two clicks of one cluster
  double scale = 1.7;                     // zoom factor of every segment
  ProjectTime leadIn{650'000'000};        // ramp start before the first click
  ProjectTime hold{1'600'000'000};        // hold after the last click
  ProjectTime zoomOut{500'000'000};       // length of the ramp out

  static AutoZoomEngine standard() { return AutoZoomEngine{}; }

  // One zoom per cluster of left presses, in time order, with fresh ids; `duration` is the source
  // duration. Callers choose the events beforehand. Never fails, and every segment it returns
  // passes timeline validation for a source of `duration`.
  std::vector<ZoomSegment> makeSegments(const std::vector<MouseEvent>& events, ProjectTime duration) const;
};

}  // namespace vumo
