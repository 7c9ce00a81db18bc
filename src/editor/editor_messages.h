#pragma once

// The editor's own notices: what the editing sessions, their saves and the external-edit watcher
// show the user. Each has a localisation key in a named table and its English text; the texts that
// end in ": " are followed by the text of the error that caused them. Failures that are errors of
// their own family (the watcher's refusal to start, say) keep their row in that family's
// catalogue; these are the notices around them.

#include <array>
#include <string>
#include <string_view>

namespace vumo {

enum class EditorMessageID {
  timelineExternalPending,
  timelineExternalInvalid,
  timelineExternalLoaded,
  captionsExternalPending,
  captionsExternalInvalid,
  captionsExternalLoaded,
  saveTimelineFailed,
  saveCaptionsFailed,
  externalLoadFailed,
  watcherUnavailable,
};

struct EditorMessage {
  EditorMessageID id;
  std::string_view table;        // the localisation table the key lives in
  std::string_view key;          // localisation key
  std::string_view englishText;  // a trailing ": " takes the cause's text
};

// Every notice, in the order of EditorMessageID.
const std::array<EditorMessage, 10>& editorMessages();
const EditorMessage& editorMessage(EditorMessageID id);

// The English text; `cause` (an error's text) is appended to the notices that take one and
// ignored by the others.
std::string editorMessageText(EditorMessageID id, std::string_view cause = {});

}  // namespace vumo
