#pragma once

#include <vector>

#include "timeline/edit_timeline.h"

namespace vumo {

// Lanes of the editor's annotation track. Each annotation keeps its own lane when that lane is
// free at its start, otherwise it moves to the lowest free lane, or a new one; so a reflow after
// an edit moves as few annotations as possible.
struct AnnotationTrackAssignment {
  // The input in its given order with every `trackIndex` replaced; `zIndex` is untouched.
  static std::vector<AnnotationElement> reflow(const std::vector<AnnotationElement>& annotations);
};

}  // namespace vumo
