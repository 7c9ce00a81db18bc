#pragma once

#include <optional>
#include <vector>

#include "shared/project_time.h"
#include "timeline/edit_timeline.h"
#include "timeline/mouse_event.h"

namespace vumo {

// The first timeline of a new recording: one whole-source clip at normal speed, automatic zooms
// from the clicks made inside the captured area, the chosen camera overlay moved to the new
// recording's starting corner, and every other field at its default. Not validated here: a
// recording shorter than one frame yields a clip that the store will refuse.
EditTimeline makeInitialTimeline(ProjectTime duration, const std::optional<WebcamOverlay>& webcamOverlay,
                                 const std::vector<MouseEvent>& recordedEvents);

}  // namespace vumo
