#include "transcription/bailian_transcription_provider.h"

// The only file that includes Asio and Beast: they are heavy to compile.
#include <fmt/format.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include <algorithm>
#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <cstdlib>
#include <optional>
#include <vector>

#include "shared/cancellation.h"
#include "shared/json.h"
#include "transcription/bailian_response.h"
#include "transcription/transcription_errors.h"

namespace vumo {

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace ssl = asio::ssl;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using ErrorCode = boost::system::error_code;
using Clock = std::chrono::steady_clock;

// How often a wait looks at its deadline; a stop wakes it at once.
constexpr std::chrono::milliseconds pollSlice{20};
// After a socket is closed under an operation, how long its handler may take to report it.
constexpr std::chrono::milliseconds abortGrace{2'000};

[[noreturn]] void badEndpoint(std::string_view url, std::string_view reason) {
  throw CaptionTranscriptionError::requestFailed(fmt::format("The endpoint \"{}\" {}.", url, reason));
}

std::string lowercased(std::string_view text) {
  std::string lower(text);
  for (char& c : lower)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return lower;
}

bool isLoopback(const std::string& host) {
  if (lowercased(host) == "localhost") return true;
  ErrorCode error;
  asio::ip::address address = asio::ip::make_address(host, error);
  return !error && address.is_loopback();
}

bool isHostCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '-' ||
         c == '_' || c == ':' || c == '%';
}

std::optional<asio::ip::address> literalAddress(const std::string& host) {
  ErrorCode error;
  asio::ip::address address = asio::ip::make_address(host, error);
  if (error) return std::nullopt;
  return address;
}

// Host header and TLS name of the endpoint.
std::string hostHeader(const BailianEndpoint& endpoint) {
  bool ipv6 = endpoint.host.find(':') != std::string::npos;
  std::string host = ipv6 ? "[" + endpoint.host + "]" : endpoint.host;
  std::uint16_t defaultPort = endpoint.secure ? 443 : 80;
  return endpoint.port == defaultPort ? host : fmt::format("{}:{}", host, endpoint.port);
}

std::string joinedResponses(const std::vector<std::string>& responses) {
  std::string joined;
  for (const std::string& response : responses) {
    if (!joined.empty()) joined += '\n';
    joined += response;
  }
  return joined;
}

bool hasStringAt(const Json& object, std::string_view key) {
  if (!object.is_object()) return false;
  const Json* found = json::findKey(object, key);
  return found != nullptr && found->is_string();
}

// Drives asynchronous operations on a private io_context in short slices, so that a stop or a
// deadline ends any wait at once: the operation is aborted by closing its socket, and its handler
// is allowed to report that before the exception leaves (nothing then refers to the frame).
class Transfer {
 public:
  Transfer(std::stop_token stop, BailianConnectionSettings settings)
      : stop_(std::move(stop)), settings_(settings), wake_(stop_, [this] { io_.stop(); }) {}

  asio::io_context& io() { return io_; }
  const BailianConnectionSettings& settings() const { return settings_; }

  // Whether every operation so far ended by itself; after an abort or a transport failure the
  // stream is not fit for a closing handshake.
  bool healthy() const { return healthy_; }

  template <class Start, class Abort>
  ErrorCode run(std::string_view stage, std::chrono::milliseconds timeout, Start start, Abort abort) {
    State state;
    start(Completion{&state});
    Clock::time_point deadline = Clock::now() + timeout;
    enum class Ending { none, stopped, timedOut } ending = Ending::none;
    Clock::time_point abortedAt;
    while (!state.done) {
      if (ending == Ending::none) {
        if (stop_.stop_requested())
          ending = Ending::stopped;
        else if (Clock::now() >= deadline)
          ending = Ending::timedOut;
        if (ending != Ending::none) {
          healthy_ = false;
          abort();
          abortedAt = Clock::now();
        }
      } else if (Clock::now() - abortedAt > abortGrace) {
        break;
      }
      io_.restart();
      auto slice = pollSlice;
      if (ending == Ending::none)
        slice = std::clamp(std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()),
                           std::chrono::milliseconds(1), pollSlice);
      io_.run_for(slice);
    }
    if (ending == Ending::stopped) throw CancelledError();
    if (ending == Ending::timedOut)
      throw CaptionTranscriptionError::requestFailed(
          fmt::format("No answer from the service within {} ms while {}.", timeout.count(), stage));
    if (state.error) healthy_ = false;
    return state.error;
  }

 private:
  struct State {
    bool done = false;
    ErrorCode error;
  };
  struct Completion {
    State* state;
    void operator()(ErrorCode error) const {
      state->error = error;
      state->done = true;
    }
    template <class Result>
    void operator()(ErrorCode error, const Result&) const {
      (*this)(error);
    }
  };

  asio::io_context io_;
  std::stop_token stop_;
  BailianConnectionSettings settings_;
  bool healthy_ = true;
  std::stop_callback<std::function<void()>> wake_;
};

[[noreturn]] void transportFailure(std::string_view stage, const ErrorCode& error, std::string_view extra = {}) {
  throw CaptionTranscriptionError::requestFailed(
      fmt::format("{} failed: {}{}{}", stage, error.message(), extra.empty() ? "" : " ", extra));
}

template <class WebSocket>
class Session {
 public:
  Session(Transfer& transfer, WebSocket& socket) : transfer_(transfer), socket_(socket) {}

  void closeLowestLayer() {
    ErrorCode ignored;
    beast::get_lowest_layer(socket_).close(ignored);
  }

  ErrorCode run(std::string_view stage, auto start) {
    return transfer_.run(stage, transfer_.settings().requestTimeout, start, [this] { closeLowestLayer(); });
  }

  void connect(const BailianEndpoint& endpoint) {
    std::vector<tcp::endpoint> candidates;
    if (auto address = literalAddress(endpoint.host)) {
      candidates.emplace_back(*address, endpoint.port);
    } else {
      tcp::resolver resolver(transfer_.io());
      tcp::resolver::results_type results;
      ErrorCode error = transfer_.run(
          "resolving the host", transfer_.settings().requestTimeout,
          [&](auto completion) {
            resolver.async_resolve(endpoint.host, std::to_string(endpoint.port),
                                   [&results, completion](ErrorCode e, tcp::resolver::results_type r) {
                                     results = std::move(r);
                                     completion(e);
                                   });
          },
          [&] { resolver.cancel(); });
      if (error) transportFailure(fmt::format("Resolving {}", endpoint.host), error);
      for (const auto& entry : results) candidates.push_back(entry.endpoint());
    }
    ErrorCode error = run("connecting", [&](auto completion) {
      asio::async_connect(beast::get_lowest_layer(socket_), candidates, completion);
    });
    if (error) transportFailure(fmt::format("Connecting to {}", hostHeader(endpoint)), error);
  }

  void secureHandshake(const BailianEndpoint& endpoint) requires(
      !std::is_same_v<typename WebSocket::next_layer_type, tcp::socket>) {
    SSL* handle = socket_.next_layer().native_handle();
    if (literalAddress(endpoint.host)) {
      X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(handle), endpoint.host.c_str());
    } else {
      SSL_set_tlsext_host_name(handle, endpoint.host.c_str());
      SSL_set1_host(handle, endpoint.host.c_str());
    }
    ErrorCode error = run("negotiating TLS", [&](auto completion) {
      socket_.next_layer().async_handshake(ssl::stream_base::client, completion);
    });
    if (error) {
      long verification = SSL_get_verify_result(handle);
      std::string reason =
          verification == X509_V_OK ? std::string() : fmt::format("({})", X509_verify_cert_error_string(verification));
      transportFailure("The TLS handshake", error, reason);
    }
  }

  void upgrade(const BailianEndpoint& endpoint, const std::string& key) {
    socket_.read_message_max(BailianTranscriptionProvider::maximumMessageBytes);
    socket_.set_option(
        websocket::stream_base::decorator([authorization = "Bearer " + key](websocket::request_type& request) {
          request.set(http::field::authorization, authorization);
        }));
    websocket::response_type response;
    ErrorCode error = run("opening the WebSocket", [&](auto completion) {
      socket_.async_handshake(response, hostHeader(endpoint), endpoint.target, completion);
    });
    if (error) {
      std::string answer;
      if (response.result_int() != 0)
        answer = fmt::format("(HTTP {} {}) {}", response.result_int(), std::string(response.reason()), response.body());
      transportFailure("The WebSocket handshake", error, answer);
    }
  }

  void send(std::string_view stage, std::string_view bytes, bool binary) {
    socket_.binary(binary);
    ErrorCode error =
        run(stage, [&](auto completion) { socket_.async_write(asio::buffer(bytes.data(), bytes.size()), completion); });
    if (error) transportFailure(fmt::format("Sending {}", stage), error);
  }

  CaptionExchangeDocument exchange(std::string_view wavBytes, const CaptionExchangeJob& job,
                                   const std::stop_token& stop) {
    send("the run-task command", BailianTranscriptionProvider::runTaskCommand(job), false);
    std::string_view audio = wavBytes.substr(std::min(wavBytes.size(), BailianTranscriptionProvider::wavHeaderBytes));
    while (!audio.empty()) {
      throwIfCancelled(stop);
      std::string_view chunk = audio.substr(0, BailianTranscriptionProvider::audioChunkBytes);
      send("audio", chunk, true);
      audio.remove_prefix(chunk.size());
    }
    throwIfCancelled(stop);
    send("the finish-task command", BailianTranscriptionProvider::finishTaskCommand(job), false);

    std::vector<std::string> responses;
    std::size_t responseBytes = 0;
    std::vector<CaptionExchangeCue> cues;
    beast::flat_buffer buffer;
    for (;;) {
      buffer.clear();
      ErrorCode error =
          run("waiting for the service", [&](auto completion) { socket_.async_read(buffer, completion); });
      if (error == websocket::error::closed) {
        const websocket::close_reason& reason = socket_.reason();
        std::string detail = fmt::format("The service closed the connection before the task finished (code {}{}{}).",
                                         static_cast<unsigned>(reason.code), reason.reason.empty() ? "" : ": ",
                                         std::string(reason.reason.c_str()));
        if (!responses.empty()) detail += "\n" + joinedResponses(responses);
        throw CaptionTranscriptionError::requestFailed(detail);
      }
      // Beast refuses a text message that is not UTF-8 before handing it out.
      if (error == websocket::error::bad_frame_payload)
        throw CaptionTranscriptionError::invalidResponse(joinedResponses(responses));
      if (error) transportFailure("Receiving", error);
      if (!socket_.got_text()) continue;

      responseBytes += buffer.size();
      if (responseBytes > BailianTranscriptionProvider::maximumResponseBytes)
        throw CaptionTranscriptionError::invalidResponse("The service sent more than the program keeps.");
      responses.push_back(beast::buffers_to_string(buffer.data()));

      Json message;
      try {
        message = parseJson(responses.back());
      } catch (const DecodingError&) {
        throw CaptionTranscriptionError::invalidResponse(joinedResponses(responses));
      }
      if (!message.is_object()) throw CaptionTranscriptionError::invalidResponse(joinedResponses(responses));

      std::vector<CaptionExchangeCue> parsed = parseBailianCues(message);
      cues.insert(cues.end(), std::make_move_iterator(parsed.begin()), std::make_move_iterator(parsed.end()));

      const Json* header = json::findKey(message, "header");
      static const Json noHeader = Json::object();
      if (header == nullptr) header = &noHeader;
      if (hasStringAt(*header, "error_message") || hasStringAt(*header, "error_code") || hasStringAt(message, "error"))
        throw CaptionTranscriptionError::requestFailed(joinedResponses(responses));
      if (hasStringAt(*header, "event") && header->at("event").get_ref<const std::string&>() == "task-finished") break;
    }
    return bailianTranscriptionDocument(std::move(cues), job, joinedResponses(responses));
  }

  // Code 1000 and no reason, waiting briefly for the service's answer; then the socket goes,
  // whatever happened before.
  void close() {
    if (transfer_.healthy() && socket_.is_open()) {
      try {
        transfer_.run(
            "closing", transfer_.settings().closeTimeout,
            [&](auto completion) { socket_.async_close(websocket::close_code::normal, completion); },
            [this] { closeLowestLayer(); });
      } catch (const CaptionTranscriptionError&) {
      } catch (const CancelledError&) {
      }
    }
    closeLowestLayer();
  }

 private:
  Transfer& transfer_;
  WebSocket& socket_;
};

template <class WebSocket>
CaptionExchangeDocument transcribeOver(Transfer& transfer, WebSocket& socket, const BailianEndpoint& endpoint,
                                       const std::string& key, std::string_view wavBytes, const CaptionExchangeJob& job,
                                       const std::stop_token& stop) {
  Session<WebSocket> session(transfer, socket);
  try {
    session.connect(endpoint);
    if constexpr (!std::is_same_v<typename WebSocket::next_layer_type, tcp::socket>) session.secureHandshake(endpoint);
    session.upgrade(endpoint, key);
    CaptionExchangeDocument document = session.exchange(wavBytes, job, stop);
    session.close();
    return document;
  } catch (...) {
    session.close();
    throw;
  }
}

bool usableInHeader(std::string_view key) {
  return std::none_of(key.begin(), key.end(), [](unsigned char c) { return c < 0x20 || c == 0x7F; });
}

}  // namespace

BailianEndpoint parseBailianEndpoint(std::string_view url) {
  std::size_t schemeEnd = url.find("://");
  if (schemeEnd == std::string_view::npos) badEndpoint(url, "is not a ws:// or wss:// URL");
  std::string scheme = lowercased(url.substr(0, schemeEnd));
  BailianEndpoint endpoint;
  if (scheme == "wss")
    endpoint.secure = true;
  else if (scheme == "ws")
    endpoint.secure = false;
  else
    badEndpoint(url, "is not a ws:// or wss:// URL");

  std::string_view rest = url.substr(schemeEnd + 3);
  rest = rest.substr(0, rest.find('#'));
  std::size_t authorityEnd = rest.find_first_of("/?");
  std::string_view authority = rest.substr(0, authorityEnd);
  std::string_view target = authorityEnd == std::string_view::npos ? std::string_view() : rest.substr(authorityEnd);
  if (authority.find('@') != std::string_view::npos) badEndpoint(url, "must not carry user information");

  std::string_view host;
  std::string_view port;
  if (authority.starts_with('[')) {
    std::size_t close = authority.find(']');
    if (close == std::string_view::npos) badEndpoint(url, "has an unterminated IPv6 address");
    host = authority.substr(1, close - 1);
    std::string_view after = authority.substr(close + 1);
    if (!after.empty()) {
      if (!after.starts_with(':')) badEndpoint(url, "has a malformed host");
      port = after.substr(1);
    }
    if (!literalAddress(std::string(host)) || !literalAddress(std::string(host))->is_v6())
      badEndpoint(url, "has a malformed IPv6 address");
  } else {
    std::size_t colon = authority.find(':');
    host = authority.substr(0, colon);
    if (colon != std::string_view::npos) port = authority.substr(colon + 1);
    if (host.find(':') != std::string_view::npos) badEndpoint(url, "has a malformed host");
  }
  if (host.empty()) badEndpoint(url, "has no host");
  if (!std::all_of(host.begin(), host.end(), isHostCharacter)) badEndpoint(url, "has a malformed host");
  endpoint.host = std::string(host);

  endpoint.port = endpoint.secure ? 443 : 80;
  if (!port.empty() || authority.ends_with(':')) {
    if (port.empty() || port.size() > 5 ||
        !std::all_of(port.begin(), port.end(), [](char c) { return c >= '0' && c <= '9'; }))
      badEndpoint(url, "has an invalid port");
    int value = std::stoi(std::string(port));
    if (value < 1 || value > 65535) badEndpoint(url, "has an invalid port");
    endpoint.port = static_cast<std::uint16_t>(value);
  }

  if (target.empty()) target = "/";
  if (!std::all_of(target.begin(), target.end(), [](unsigned char c) { return c > 0x20 && c < 0x7F; }))
    badEndpoint(url, "has a malformed path");
  endpoint.target = target.starts_with('/') ? std::string(target) : "/" + std::string(target);

  if (!endpoint.secure && !isLoopback(endpoint.host))
    badEndpoint(url, "uses ws://, which is only allowed for a loopback address; use wss://");
  return endpoint;
}

BailianTranscriptionProvider::BailianTranscriptionProvider(const CloudCredentialStore& credentials,
                                                           BailianConnectionSettings settings)
    : credentials_(credentials), settings_(settings) {}

BailianEndpoint BailianTranscriptionProvider::endpoint() {
  const char* configured = std::getenv(endpointVariable.data());
  return parseBailianEndpoint(configured != nullptr && configured[0] != '\0' ? std::string_view(configured)
                                                                             : defaultEndpointURL);
}

std::string BailianTranscriptionProvider::runTaskCommand(const CaptionExchangeJob& job) {
  Json command = {
      {"header", {{"action", "run-task"}, {"task_id", job.id.string()}, {"streaming", "duplex"}}},
      {"payload",
       {{"task_group", "audio"},
        {"task", "asr"},
        {"function", "recognition"},
        {"model", model},
        {"parameters", {{"format", "pcm"}, {"sample_rate", 16000}, {"language_hints", Json::array({"zh"})}}},
        {"input", Json::object()}}},
  };
  return encodeCompact(command);
}

std::string BailianTranscriptionProvider::finishTaskCommand(const CaptionExchangeJob& job) {
  Json command = {
      {"header", {{"action", "finish-task"}, {"task_id", job.id.string()}}},
      {"payload", {{"input", Json::object()}}},
  };
  return encodeCompact(command);
}

CaptionExchangeDocument BailianTranscriptionProvider::transcribe(std::string_view wavBytes,
                                                                 const CaptionExchangeJob& job,
                                                                 std::stop_token stop) const {
  std::string key = credentials_.loadBailianAPIKey();
  if (!usableInHeader(key)) throw CloudCredentialError(CloudCredentialError::Case::invalid);
  BailianEndpoint where = endpoint();
  throwIfCancelled(stop);

  Transfer transfer(stop, settings_);
  if (!where.secure) {
    websocket::stream<tcp::socket> socket(transfer.io());
    return transcribeOver(transfer, socket, where, key, wavBytes, job, stop);
  }
  ssl::context context(ssl::context::tls_client);
  // The system's trust store, or the one SSL_CERT_FILE / SSL_CERT_DIR name.
  context.set_default_verify_paths();
  context.set_verify_mode(ssl::verify_peer);
  websocket::stream<ssl::stream<tcp::socket>> socket(transfer.io(), context);
  return transcribeOver(transfer, socket, where, key, wavBytes, job, stop);
}

}  // namespace vumo
