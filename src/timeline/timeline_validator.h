#pragma once

#include "shared/project_time.h"
#include "timeline/edit_timeline.h"
#include "timeline/timeline_validation_error.h"

namespace vumo {

struct TimelineValidator {
  static constexpr std::size_t maximumAnnotations = 500;
  static constexpr int maximumSimultaneousAnnotations = 16;
  static constexpr std::size_t maximumTextGraphemes = 2000;

  // Throws the first TimelineValidationError (or TimelineEffectError of the effect tracks) that
  // it finds; a document that passes has clips sorted by source time, inside the source, none
  // overlapping, and a sequence length that fits in 64 bits. Never repairs anything.
  static void validate(const EditTimeline& timeline, ProjectTime sourceDuration);
};

// User-perceived characters (extended grapheme clusters) of UTF-8 text.
std::size_t graphemeCount(std::string_view utf8);

}  // namespace vumo
