#include "shared/media_track_kind.h"

namespace vumo {

std::string_view rawValue(MediaTrackKind kind) {
  switch (kind) {
    case MediaTrackKind::screen: return "screen";
    case MediaTrackKind::systemAudio: return "systemAudio";
    case MediaTrackKind::microphone: return "microphone";
  }
  return "screen";
}

std::optional<MediaTrackKind> mediaTrackKindFromRawValue(std::string_view raw) {
  for (auto kind : {MediaTrackKind::screen, MediaTrackKind::systemAudio, MediaTrackKind::microphone})
    if (rawValue(kind) == raw) return kind;
  return std::nullopt;
}

void to_json(Json& j, const MediaTrackKind& kind) { j = std::string(rawValue(kind)); }

void from_json(const Json& j, MediaTrackKind& kind) {
  auto parsed = mediaTrackKindFromRawValue(json::asString(j, "kind"));
  if (!parsed) throw DecodingError("Cannot initialize MediaTrackKind from invalid String value " + j.get<std::string>());
  kind = *parsed;
}

}  // namespace vumo
