#include "captions/caption_errors.h"

namespace vumo {

namespace {

using Validation = CaptionValidationError::Case;
using Editing = CaptionEditingError::Case;

constexpr ErrorCase<Validation> validationCases[] = {
    {Validation::unsupportedSchema, "unsupportedSchema", "captions.error.schema",
     "This caption format version is not supported.", "execution", ErrorKind::failure},
    {Validation::invalidTrack, "invalidTrack", "captions.error.track", "Captions must use microphone or system audio.",
     "execution", ErrorKind::failure},
    {Validation::tooManyCues, "tooManyCues", "captions.error.limit", "The number of captions exceeds the safety limit.",
     "execution", ErrorKind::failure},
    {Validation::invalidCue, "invalidCue", "captions.error.cue", "Caption text, ordering, or timing is invalid.",
     "execution", ErrorKind::failure},
    {Validation::invalidWord, "invalidWord", "captions.error.word", "Word timing falls outside its caption.",
     "execution", ErrorKind::failure},
    {Validation::invalidHighlight, "invalidHighlight", "captions.error.highlight",
     "Highlights must be non-overlapping words within the caption and cannot cover the entire sentence.", "execution",
     ErrorKind::failure},
    {Validation::cueCrossesRemovedContent, "cueCrossesRemovedContent", "captions.error.removedContent",
     "Final captions cannot include deleted content or cross cut boundaries. Regenerate them from the latest retained "
     "clips.",
     "execution", ErrorKind::failure},
    {Validation::staleTimeline, "staleTimeline", "captions.error.staleTimeline",
     "The project edits have changed. Regenerate the captions.", "execution", ErrorKind::failure},
    {Validation::staleAudio, "staleAudio", "captions.error.staleAudio",
     "The caption audio does not match the current task.", "execution", ErrorKind::failure},
};
static_assert(inCaseOrder(validationCases));

constexpr ErrorCase<Editing> editingCases[] = {
    {Editing::cueNotFound, "cueNotFound", "captions.error.notFound", "The selected caption could not be found.",
     "execution", ErrorKind::failure},
    {Editing::invalidRange, "invalidRange", "captions.error.range",
     "Caption timing must stay within the source media and last at least one frame.", "execution", ErrorKind::failure},
    {Editing::overlapsNeighbor, "overlapsNeighbor", "captions.error.overlap",
     "Captions cannot overlap neighboring captions.", "execution", ErrorKind::failure},
    {Editing::emptyText, "emptyText", "captions.error.emptyText", "Caption text cannot be empty.", "execution",
     ErrorKind::failure},
    {Editing::invalidHighlight, "invalidHighlight", "captions.error.selection",
     "Select a continuous range of words in the caption text.", "execution", ErrorKind::failure},
};
static_assert(inCaseOrder(editingCases));

}  // namespace

CaptionValidationError::CaptionValidationError(Case kind) : Error(catalogue(), kind), kind_(kind) {}

const ErrorCatalogue<CaptionValidationError::Case>& CaptionValidationError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"CaptionValidationError", captionsLocalizationTable, validationCases};
  return catalogue;
}

CaptionEditingError::CaptionEditingError(Case kind) : Error(catalogue(), kind), kind_(kind) {}

const ErrorCatalogue<CaptionEditingError::Case>& CaptionEditingError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"CaptionEditingError", captionsLocalizationTable, editingCases};
  return catalogue;
}

}  // namespace vumo
