#pragma once

// Speech to captions with the Alibaba Cloud Bailian realtime recognition service, model
// "paraformer-realtime-v2", over one WebSocket per transcription with the user's own key. The
// audio is sent as fast as the socket takes it; the sentences that come back become an exchange
// document for the job. Not thread-safe; one transcription at a time per provider.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <stop_token>
#include <string>
#include <string_view>

#include "agent/caption_exchange.h"
#include "transcription/cloud_credential_store.h"

namespace vumo {

// How long the transfer waits for the network. The request time-out bounds each step on its own:
// resolving and connecting, the TLS handshake, the WebSocket handshake, each send and each wait for
// the next message; the service answers while it listens, so a longer recording does not need a
// longer time-out. Closing waits briefly for the service's reply and then simply drops the socket.
struct BailianConnectionSettings {
  std::chrono::milliseconds requestTimeout{60'000};
  std::chrono::milliseconds closeTimeout{2'000};
};

// Where the service is. Only `wss` is used towards the network; `ws` is accepted for a loopback
// host (127.0.0.0/8, ::1, "localhost"), which is how a local stand-in is reached.
struct BailianEndpoint {
  bool secure = true;
  std::string host;  // without brackets for IPv6
  std::uint16_t port = 443;
  std::string target = "/";  // path and query

  friend bool operator==(const BailianEndpoint&, const BailianEndpoint&) = default;
};

// Reads a ws:// or wss:// URL. A URL of another scheme, with user information, without a host,
// with a bad port, or ws:// to a host that is not loopback is
// CaptionTranscriptionError::requestFailed with a detail that says so.
BailianEndpoint parseBailianEndpoint(std::string_view url);

class BailianTranscriptionProvider {
 public:
  static constexpr std::string_view defaultEndpointURL = "wss://dashscope.aliyuncs.com/api-ws/v1/inference";
  // Replaces the whole endpoint URL, for a private deployment or a local stand-in.
  static constexpr std::string_view endpointVariable = "VUMO_BAILIAN_ENDPOINT";
  static constexpr std::string_view model = "paraformer-realtime-v2";
  // The canonical WAV header of the caption audio: the service takes the bare PCM after it.
  static constexpr std::size_t wavHeaderBytes = 44;
  // One second of 16 kHz 16-bit mono audio per message.
  static constexpr std::size_t audioChunkBytes = 32'000;
  // The service's messages are small JSON events; these bound what a hostile peer can make the
  // program hold.
  static constexpr std::size_t maximumMessageBytes = 4 * 1024 * 1024;
  static constexpr std::size_t maximumResponseBytes = 64 * 1024 * 1024;

  explicit BailianTranscriptionProvider(const CloudCredentialStore& credentials,
                                        BailianConnectionSettings settings = {});

  // The endpoint: $VUMO_BAILIAN_ENDPOINT when set and not empty, else the service's own.
  static BailianEndpoint endpoint();

  // Transcribes the WAV bytes of `job`'s audio. Loads the key first, so a missing key
  // (CloudCredentialError) fails before any connection. Failures of the network, of TLS
  // verification, time-outs and the service's own errors are requestFailed; messages that are not
  // JSON objects invalidResponse; a task without usable sentences missingTimestamps. A stop of
  // `stop` ends the transfer at once, also during a wait, with CancelledError. The connection is
  // always closed, with code 1000 where it is still in a state to say so.
  CaptionExchangeDocument transcribe(std::string_view wavBytes, const CaptionExchangeJob& job,
                                     std::stop_token stop = {}) const;

  // The two commands, compact JSON.
  static std::string runTaskCommand(const CaptionExchangeJob& job);
  static std::string finishTaskCommand(const CaptionExchangeJob& job);

 private:
  const CloudCredentialStore& credentials_;
  BailianConnectionSettings settings_;
};

}  // namespace vumo
