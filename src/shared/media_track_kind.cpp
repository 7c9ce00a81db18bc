#include "shared/media_track_kind.h"

#include "shared/name_table.h"

namespace vumo {

namespace {
constexpr NameTable<MediaTrackKind, 3> trackKindNames{{
    {MediaTrackKind::screen, "screen"},
    {MediaTrackKind::systemAudio, "systemAudio"},
    {MediaTrackKind::microphone, "microphone"},
}};
}  // namespace

std::string_view rawValue(MediaTrackKind kind) { return nameOf(trackKindNames, kind); }

std::optional<MediaTrackKind> mediaTrackKindFromRawValue(std::string_view raw) { return parseName(trackKindNames, raw); }

void to_json(Json& j, const MediaTrackKind& kind) { j = std::string(rawValue(kind)); }

void from_json(const Json& j, MediaTrackKind& kind) {
  auto parsed = mediaTrackKindFromRawValue(json::asString(j, "kind"));
  if (!parsed) throw DecodingError("Cannot initialize MediaTrackKind from invalid String value " + j.get<std::string>());
  kind = *parsed;
}

}  // namespace vumo
