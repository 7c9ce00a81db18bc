#include "captions/caption_errors.h"

namespace vumo {

namespace {

struct CaseText {
  std::string_view key;
  std::string_view text;
};

CaseText validationText(CaptionValidationError::Case kind) {
  using Case = CaptionValidationError::Case;
  switch (kind) {
    case Case::unsupportedSchema:
      return {"captions.error.schema", "This caption format version is not supported."};
    case Case::invalidTrack:
      return {"captions.error.track", "Captions must use microphone or system audio."};
    case Case::tooManyCues:
      return {"captions.error.limit", "The number of captions exceeds the safety limit."};
    case Case::invalidCue:
      return {"captions.error.cue", "Caption text, ordering, or timing is invalid."};
    case Case::invalidWord:
      return {"captions.error.word", "Word timing falls outside its caption."};
    case Case::invalidHighlight:
      return {"captions.error.highlight",
              "Highlights must be non-overlapping words within the caption and cannot cover the entire sentence."};
    case Case::cueCrossesRemovedContent:
      return {"captions.error.removedContent",
              "Final captions cannot include deleted content or cross cut boundaries. Regenerate them from the "
              "latest retained clips."};
    case Case::staleTimeline:
      return {"captions.error.staleTimeline", "The project edits have changed. Regenerate the captions."};
    case Case::staleAudio:
      return {"captions.error.staleAudio", "The caption audio does not match the current task."};
  }
  return {"captions.error.cue", "Caption text, ordering, or timing is invalid."};
}

CaseText editingText(CaptionEditingError::Case kind) {
  using Case = CaptionEditingError::Case;
  switch (kind) {
    case Case::cueNotFound:
      return {"captions.error.notFound", "The selected caption could not be found."};
    case Case::invalidRange:
      return {"captions.error.range", "Caption timing must stay within the source media and last at least one frame."};
    case Case::overlapsNeighbor:
      return {"captions.error.overlap", "Captions cannot overlap neighboring captions."};
    case Case::emptyText:
      return {"captions.error.emptyText", "Caption text cannot be empty."};
    case Case::invalidHighlight:
      return {"captions.error.selection", "Select a continuous range of words in the caption text."};
  }
  return {"captions.error.notFound", "The selected caption could not be found."};
}

}  // namespace

CaptionValidationError::CaptionValidationError(Case kind)
    : Error(std::string(validationText(kind).key), std::string(captionsLocalizationTable),
            std::string(validationText(kind).text)),
      kind_(kind) {}

std::string_view CaptionValidationError::localizationKeyFor(Case kind) { return validationText(kind).key; }
std::string_view CaptionValidationError::englishTextFor(Case kind) { return validationText(kind).text; }

CaptionEditingError::CaptionEditingError(Case kind)
    : Error(std::string(editingText(kind).key), std::string(captionsLocalizationTable),
            std::string(editingText(kind).text)),
      kind_(kind) {}

std::string_view CaptionEditingError::localizationKeyFor(Case kind) { return editingText(kind).key; }
std::string_view CaptionEditingError::englishTextFor(Case kind) { return editingText(kind).text; }

}  // namespace vumo
