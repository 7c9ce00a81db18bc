#pragma once

#include <string>
#include <string_view>

#include "shared/error.h"

namespace vumo {

// A caption document that is not acceptable as a whole: its version, track, size, timing, words
// or highlights, or its relation to the project it is meant for. Reported as an execution failure.
class CaptionValidationError : public Error {
 public:
  enum class Case {
    unsupportedSchema,
    invalidTrack,
    tooManyCues,
    invalidCue,
    invalidWord,
    invalidHighlight,
    cueCrossesRemovedContent,
    staleTimeline,
    staleAudio,
  };

  explicit CaptionValidationError(Case kind);

  Case kind() const noexcept { return kind_; }

  static const ErrorCatalogue<Case>& catalogue();

 private:
  Case kind_;
};

// A caption edit that cannot be made to the document as it stands. The texts speak to the person
// editing, so a failed highlight talks about the selection rather than the document.
class CaptionEditingError : public Error {
 public:
  enum class Case {
    cueNotFound,
    invalidRange,
    overlapsNeighbor,
    emptyText,
    invalidHighlight,
  };

  explicit CaptionEditingError(Case kind);

  Case kind() const noexcept { return kind_; }

  static const ErrorCatalogue<Case>& catalogue();

 private:
  Case kind_;
};

// Both families live in this localisation table.
inline constexpr std::string_view captionsLocalizationTable = "EditorCaptions";

}  // namespace vumo
