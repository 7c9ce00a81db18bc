#pragma once

#include <memory>
#include <string>
#include <vector>

#include "capture/capture_streams.h"
#include "shared/json_fwd.h"

namespace vumo {

// A source of the PulseAudio server (or PipeWire's PulseAudio service) that can be recorded.
struct PulseAudioSourceInfo {
  std::string name;  // what a microphone choice names
  std::string description;
  bool isMonitor = false;  // the sound an output plays, rather than a microphone
  bool isDefault = false;
  friend bool operator==(const PulseAudioSourceInfo&, const PulseAudioSourceInfo&) = default;
};

void to_json(Json& j, const PulseAudioSourceInfo& v);

// Every source of the server, in its own order. An empty server means the default one
// ($PULSE_SERVER, then the user's). Fails with CaptureError::audioServerUnavailable.
std::vector<PulseAudioSourceInfo> listPulseAudioSources(const std::string& server = {});

enum class PulseAudioCapture {
  systemAudio,  // the monitor of the default output: what the machine plays
  microphone,   // a named source, or the default one
};

// 48 kHz interleaved stereo float in buffers of 10 ms, read on the PulseAudio client's own thread.
// Each buffer is stamped with the monotonic time of its first sample: the time of the read less
// the latency the server reports for the stream.
class PulseAudioStream : public AudioCaptureStream {
 public:
  // Connects and finds the source at once, so that a missing server or source shows before the
  // recording starts: CaptureError audioServerUnavailable or audioSourceMissing.
  PulseAudioStream(PulseAudioCapture what, const std::string& sourceName = {}, const std::string& server = {});
  ~PulseAudioStream() override;

  // The source being read.
  const std::string& sourceName() const;

  // Fails with CaptureError::audioCaptureFailed when the server refuses the stream. Handlers run on
  // the client's thread and must not call `stop`; `onStopped` hears of a server that went away.
  void start(std::function<void(const AudioBuffer&)> onBuffer, StreamStoppedHandler onStopped) override;
  void stop() override;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace vumo
