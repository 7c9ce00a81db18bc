#pragma once

#include <string_view>

#include "captions/caption_document.h"
#include "captions/caption_errors.h"
#include "shared/project_time.h"
#include "shared/uuid.h"

namespace vumo {

// The editing operations on a caption document. Each is a pure function: it returns a new,
// validated document or throws (CaptionEditingError for the edit itself, CaptionValidationError
// from the final validation), and the input document is never changed. Times are source times;
// starts and ends that the user gives are snapped to the 60 fps timeline grid.
struct CaptionDocumentEngine {
  // Inserts `cue` (its id, times and text; words and highlights are not taken over) in start
  // order. A cue starting where another starts goes after it.
  static CaptionDocument addCue(const CaptionDocument& document, const CaptionCue& cue, ProjectTime sourceDuration);

  // Moves the cue so that it starts at `start`, keeping its length; its words move with it.
  static CaptionDocument moveCue(const CaptionDocument& document, const Uuid& id, ProjectTime start,
                                 ProjectTime sourceDuration);

  // Moves the cue's start; words that would begin before it are dropped.
  static CaptionDocument trimStart(const CaptionDocument& document, const Uuid& id, ProjectTime start,
                                   ProjectTime sourceDuration);

  // Moves the cue's end; words that would finish after it are dropped.
  static CaptionDocument trimEnd(const CaptionDocument& document, const Uuid& id, ProjectTime end,
                                 ProjectTime sourceDuration);

  // Replaces the text. Words and highlights refer to the old text, so they go when it changes.
  static CaptionDocument updateText(const CaptionDocument& document, const Uuid& id, std::string_view text,
                                    ProjectTime sourceDuration);

  static CaptionDocument addHighlight(const CaptionDocument& document, const Uuid& id,
                                      const CaptionHighlight& highlight, ProjectTime sourceDuration);

  static CaptionDocument clearHighlights(const CaptionDocument& document, const Uuid& id, ProjectTime sourceDuration);

  // The project's caption style, clamped and rounded as every document's style is.
  static CaptionDocument updateStyle(const CaptionDocument& document, const CaptionStyle& style,
                                     ProjectTime sourceDuration);

  static CaptionDocument removeCue(const CaptionDocument& document, const Uuid& id, ProjectTime sourceDuration);
};

}  // namespace vumo
