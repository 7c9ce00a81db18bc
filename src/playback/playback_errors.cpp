#include "playback/playback_errors.h"

namespace vumo {

namespace {

using Playback = PlaybackError::Case;
constexpr ErrorCase<Playback> playbackCases[] = {
    {Playback::engineUnavailable, "engineUnavailable", "playback.error.engine", "The player could not be started: {}",
     "execution", ErrorKind::failure},
    {Playback::audioOutputUnavailable, "audioOutputUnavailable", "playback.error.audioOutput",
     "Sound cannot be played: {}", "execution", ErrorKind::failure},
    {Playback::audioOutputFailed, "audioOutputFailed", "playback.error.audioFailed", "Sound playback stopped: {}",
     "execution", ErrorKind::failure},
};
static_assert(inCaseOrder(playbackCases));

}  // namespace

PlaybackError::PlaybackError(Case kind, std::string_view detail) : Error(catalogue(), kind, detail), kind_(kind) {}

const ErrorCatalogue<PlaybackError::Case>& PlaybackError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"PlaybackError", "Playback", playbackCases};
  return catalogue;
}

}  // namespace vumo
