#include "editor/editor_messages.h"

namespace vumo {

namespace {

using ID = EditorMessageID;

constexpr std::array<EditorMessage, 10> messages{{
    {ID::timelineExternalPending, "Editor", "timeline.external.pending",
     "External edits detected. They will load after the current operation finishes."},
    {ID::timelineExternalInvalid, "Editor", "timeline.external.invalid", "Invalid external edits: "},
    {ID::timelineExternalLoaded, "Editor", "timeline.external.loaded", "External edits loaded. Press Ctrl+Z to undo."},
    {ID::captionsExternalPending, "EditorCaptions", "captions.external.pending",
     "External captions detected. They will load after the current operation finishes."},
    {ID::captionsExternalInvalid, "EditorCaptions", "captions.external.invalid", "Invalid external captions: "},
    {ID::captionsExternalLoaded, "EditorCaptions", "captions.external.loaded",
     "External captions loaded. Press Ctrl+Z to undo."},
    {ID::saveTimelineFailed, "Editor", "editor.external.saveTimeline", "Edits could not be saved: "},
    {ID::saveCaptionsFailed, "Editor", "editor.external.saveCaptions", "Captions could not be saved: "},
    {ID::externalLoadFailed, "Editor", "editor.external.load", "External edits could not be loaded: "},
    {ID::watcherUnavailable, "Editor", "editor.external.watcher", "Monitoring external edits is unavailable: "},
}};

consteval bool inIDOrder() {
  for (std::size_t i = 0; i < messages.size(); ++i)
    if (static_cast<std::size_t>(messages[i].id) != i) return false;
  return true;
}
static_assert(inIDOrder());

}  // namespace

const std::array<EditorMessage, 10>& editorMessages() { return messages; }

const EditorMessage& editorMessage(EditorMessageID id) { return messages.at(static_cast<std::size_t>(id)); }

std::string editorMessageText(EditorMessageID id, std::string_view cause) {
  const std::string_view text = editorMessage(id).englishText;
  std::string result(text);
  if (text.ends_with(": ")) result += cause;
  return result;
}

}  // namespace vumo
