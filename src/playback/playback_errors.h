#pragma once
// The failures of the player's own parts: the engine it draws with and the sound output. What the
// engine reports while it decodes and draws keeps its own family (media, rendering, timeline).

#include <string_view>

#include "shared/error.h"

namespace vumo {

class PlaybackError : public Error {
 public:
  enum class Case {
    // The loaded media engine offers no player (built for another version). Payload: the reason.
    engineUnavailable,
    // No sound server answered, or it refused the output stream. Payload: the server's reason.
    audioOutputUnavailable,
    // The sound server failed while playing. Payload: the server's reason.
    audioOutputFailed,
  };

  explicit PlaybackError(Case kind, std::string_view detail = {});

  Case kind() const noexcept { return kind_; }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  Case kind_;
};

}  // namespace vumo
