#pragma once

#include <string_view>

#include "shared/name_table.h"

namespace vumo {

// Which audio track captions are made from. `automatic` prefers the microphone, where the person
// recording speaks, and falls back to the system audio. The command line spells it "auto".
enum class CaptionTrackSelection { automatic, microphone, systemAudio };

template <>
struct EnumNames<CaptionTrackSelection> {
  static constexpr std::string_view typeName = "caption track";
  static constexpr NameTable<CaptionTrackSelection, 3> table{{
      {CaptionTrackSelection::automatic, "auto"},
      {CaptionTrackSelection::microphone, "microphone"},
      {CaptionTrackSelection::systemAudio, "system-audio"},
  }};
};

// The selection as a person picks it in the editor.
constexpr std::string_view captionTrackSelectionTitle(CaptionTrackSelection selection) {
  switch (selection) {
    case CaptionTrackSelection::automatic: return "Automatic";
    case CaptionTrackSelection::microphone: return "Microphone";
    case CaptionTrackSelection::systemAudio: return "System Audio";
  }
  return "Automatic";
}

}  // namespace vumo
