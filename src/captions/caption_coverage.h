#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "captions/caption_document.h"
#include "shared/name_table.h"
#include "shared/project_time.h"
#include "shared/uuid.h"
#include "timeline/edit_timeline.h"

namespace vumo {

// How captions meet the clips of a timeline: whether every cue is still heard, and what a change
// of the timeline does to each cue. Shared by the command line's previews and the editor.

// Captions are final only against retained material: every millisecond of every cue must lie in
// a clip. The check is in whole milliseconds, so a sliver below one goes unnoticed. Fails with
// CaptionValidationError(cueCrossesRemovedContent).
void validateCaptionCoverage(const CaptionDocument& document, const EditTimeline& timeline, ProjectTime sourceDuration);

enum class CaptionImpactKind {
  fullyRemoved,       // nothing of the cue is left
  wordTimingOverlap,  // part of the cue is left, and a cut runs through one of its timed words
  cueTimingOverlap,   // part of the cue is left; no timed word is cut
};
template <>
struct EnumNames<CaptionImpactKind> {
  static constexpr std::string_view typeName = "caption impact kind";
  static constexpr NameTable<CaptionImpactKind, 3> table{{
      {CaptionImpactKind::fullyRemoved, "fully-removed"},
      {CaptionImpactKind::wordTimingOverlap, "word-timing-overlap"},
      {CaptionImpactKind::cueTimingOverlap, "cue-timing-overlap"},
  }};
};

// A cue that keeps less of itself after the change than before.
struct CaptionCueImpact {
  Uuid cueID;
  CaptionImpactKind kind = CaptionImpactKind::fullyRemoved;
  std::vector<ProjectTimeRange> affectedCutRanges;  // the normalised cuts that meet the cue
  bool hasWordTimings = false;
  friend bool operator==(const CaptionCueImpact&, const CaptionCueImpact&) = default;
};

struct CaptionImpact {
  std::vector<Uuid> removed;  // the fully removed cues, in document order
  std::vector<Uuid> split;    // the partly removed cues, in document order
  std::vector<CaptionCueImpact> impacts;
};

// How a change from `originalTimeline` to `resultingTimeline` (by `normalizedCuts`, in source
// time) meets the cues. Only reports: no document is none, and an unknown impact (a timeline that
// cannot be mapped) is reported as none.
CaptionImpact captionImpact(const std::optional<CaptionDocument>& document, const EditTimeline& originalTimeline,
                            const EditTimeline& resultingTimeline, const std::vector<ProjectTimeRange>& normalizedCuts,
                            ProjectTime sourceDuration);

}  // namespace vumo
