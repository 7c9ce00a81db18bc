#pragma once

#include <optional>
#include <string_view>

#include "shared/json_fwd.h"

namespace vumo {

// The kinds of track a recording's movie holds. The raw values are the manifest's words; the
// command line spells the audio kinds "microphone" and "system-audio" on its own.
enum class MediaTrackKind { screen, systemAudio, microphone };

std::string_view rawValue(MediaTrackKind kind);
std::optional<MediaTrackKind> mediaTrackKindFromRawValue(std::string_view raw);

void to_json(Json& j, const MediaTrackKind& kind);
void from_json(const Json& j, MediaTrackKind& kind);

}  // namespace vumo
