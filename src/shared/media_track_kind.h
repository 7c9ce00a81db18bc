#pragma once

#include <string_view>

#include "shared/name_table.h"

namespace vumo {

// The kinds of track a recording's movie holds. The raw values are the manifest's words; the
// command line spells the audio kinds "microphone" and "system-audio" on its own.
enum class MediaTrackKind { screen, systemAudio, microphone };

template <>
struct EnumNames<MediaTrackKind> {
  static constexpr std::string_view typeName = "media track kind";
  static constexpr NameTable<MediaTrackKind, 3> table{{
      {MediaTrackKind::screen, "screen"},
      {MediaTrackKind::systemAudio, "systemAudio"},
      {MediaTrackKind::microphone, "microphone"},
  }};
};

}  // namespace vumo
