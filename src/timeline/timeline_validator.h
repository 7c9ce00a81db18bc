#pragma once

#include <cstddef>

#include "shared/geometry.h"
#include "shared/project_time.h"
#include "timeline/edit_timeline.h"
#include "timeline/timeline_effect_error.h"
#include "timeline/timeline_validation_error.h"

namespace vumo {

// The rules a timeline document keeps, and their limits. It calls no engine: the engines hand
// back only documents that pass it, and the mapper lays out only documents that pass it.
struct TimelineValidator {
  static constexpr std::size_t maximumAnnotations = 500;
  static constexpr int maximumSimultaneousAnnotations = 16;
  static constexpr std::size_t maximumTextGraphemes = 2000;

  static constexpr double minimumZoomScale = 1.0;
  static constexpr double maximumZoomScale = 3.0;
  static constexpr double minimumWebcamDiameter = 0.1;
  static constexpr double maximumWebcamDiameter = 0.4;
  // Two frames of the 60 fps grid.
  static constexpr ProjectTime minimumWebcamFullscreenDuration{33'333'333};

  // Throws the first TimelineValidationError (or TimelineEffectError of the effect tracks) that
  // it finds; a document that passes has clips sorted by source time, inside the source, none
  // overlapping, and a sequence length that fits in 64 bits. Never repairs anything.
  static void validate(const EditTimeline& timeline, ProjectTime sourceDuration);

  // Zooms, full-screen camera segments and camera keyframes; throws the first TimelineEffectError
  // found. Part of `validate`.
  static void validateEffectTracks(const EditTimeline& timeline, ProjectTime sourceDuration);

  // Commands address clips, zooms, annotations, full-screen camera segments and camera keyframes
  // by id, so two items of one kind sharing an id would leave one of them out of reach. Throws
  // TimelineValidationError `duplicateID` naming the first shared id. Reading a document checks
  // this first; `validate` refuses shared clip ids the same way and shared ids of the other kinds
  // by the rule of their track.
  static void requireUniqueIDs(const EditTimeline& timeline);

  // The focus that keeps a view zoomed by `scale` inside the frame: (0.5, 0.5) at scale 1 or
  // less, otherwise each axis clamped to 0.5 / scale ... 1 - 0.5 / scale. Stored zooms hold
  // exactly this, so every reader of the document frames the same view.
  static PointValue constrainedZoomFocus(PointValue focus, double scale);
};

}  // namespace vumo
