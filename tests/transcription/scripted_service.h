#pragma once

// A stand-in for the Bailian service on 127.0.0.1: one WebSocket connection, over TLS with a
// certificate of a throw-away authority or in the clear, that records what the client sends and
// answers from a script.

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace vumo::testing {

// A certificate and its key, PEM encoded.
struct TlsIdentity {
  std::string certificatePem;
  std::string privateKeyPem;
};

// A certificate authority made for one test run, and server certificates it signs.
class ThrowAwayAuthority {
 public:
  ThrowAwayAuthority();
  ~ThrowAwayAuthority();
  ThrowAwayAuthority(const ThrowAwayAuthority&) = delete;
  ThrowAwayAuthority& operator=(const ThrowAwayAuthority&) = delete;

  const std::string& certificatePem() const { return authority_.certificatePem; }
  // A server certificate for `subjectAltNames` ("DNS:localhost,IP:127.0.0.1").
  TlsIdentity issue(const std::string& subjectAltNames) const;

 private:
  TlsIdentity authority_;
};

struct ReceivedConversation {
  bool connected = false;
  bool upgraded = false;
  std::string authorization;
  std::string target;
  std::vector<std::string> texts;
  std::vector<std::size_t> binarySizes;
  std::optional<unsigned> clientCloseCode;
};

struct ServiceScript {
  // Sent one by one as text messages once finish-task has arrived.
  std::vector<std::string> replies;
  enum class Ending {
    awaitClientClose,  // read until the client closes, recording its code
    closeEarly,        // close with code 1011 instead of answering further
    stall,             // answer nothing more and wait until the client goes
  } ending = Ending::awaitClientClose;
};

class ScriptedService {
 public:
  ScriptedService(ServiceScript script, std::optional<TlsIdentity> tls);
  ~ScriptedService();
  ScriptedService(const ScriptedService&) = delete;
  ScriptedService& operator=(const ScriptedService&) = delete;

  std::uint16_t port() const { return port_; }
  // Waits for the conversation to end (forcing it after a few seconds) and returns the record.
  const ReceivedConversation& received();

 private:
  struct Impl;
  void finish();

  Impl* impl_;
  std::uint16_t port_ = 0;
  std::thread thread_;
  std::atomic<bool> finished_{false};
  std::atomic<int> connection_{-1};
  ReceivedConversation received_;
};

}  // namespace vumo::testing
