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

std::optional<MediaTrackKind> mediaTrackKindFromRawValue(std::string_view raw) {
  return parseName(trackKindNames, raw);
}

}  // namespace vumo
