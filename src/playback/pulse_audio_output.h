#pragma once
// The player's sound through the PulseAudio server (or PipeWire's PulseAudio service): one
// playback stream of 48 kHz stereo float on the default sink, fed without blocking from the
// player's worker thread, with the server's own latency measurement behind the heard position.

#include <memory>

#include "playback/playback_audio_output.h"

namespace vumo {

// Connects to the default server. Every wait on the server is bounded (a few seconds), so a server
// that is missing or hangs costs a PlaybackError::audioOutputUnavailable, never a hang.
std::unique_ptr<PlaybackAudioOutput> makePulseAudioOutput();

// A silent output on the steady clock, for machines without a sound server.
std::unique_ptr<PlaybackAudioOutput> makeSilentAudioOutput();

}  // namespace vumo
