#pragma once

// A screen-cast portal of the tests' own: it owns org.freedesktop.portal.Desktop on a private
// session bus and answers org.freedesktop.portal.ScreenCast as a desktop would, with the dialog's
// outcome scripted by the test. It runs on a thread of the test process, so a test drives it and
// reads what it saw through this object, while the client may be in the same process or in a
// program the test starts (`vumo record` inherits DBUS_SESSION_BUS_ADDRESS from the
// PrivateSessionBus):
//
//   PrivateSessionBus bus;
//   FakeScreenCastPortal portal(bus.address(), {.pipeWireSocket = runtimeDir / "pipewire-0",
//                                              .streams = {{nodeOfTheTestProducer, ...}}});
//   portal.setResponse("Start", FakePortalResponse::cancelled);
//   ... run the client ...
//   EXPECT_EQ(portal.dialogsShown(), 1);

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vumo::testing {

// The Response codes of the portal's Request objects, and `never` for a dialog nobody answers.
enum class FakePortalResponse : std::uint32_t { granted = 0, cancelled = 1, failed = 2, never = 0xffffffff };

struct FakeScreenCastStream {
  std::uint32_t nodeID = 42;
  std::optional<std::pair<int, int>> position = std::pair{0, 0};
  std::optional<std::pair<int, int>> size = std::pair{1280, 720};
  std::uint32_t sourceType = 1;  // monitor
};

struct FakeScreenCastPortalOptions {
  std::uint32_t version = 4;
  std::uint32_t availableSourceTypes = 1 | 2;
  std::uint32_t availableCursorModes = 1 | 2 | 4;
  // False exports the portal's object without the ScreenCast interface, as a portal without a
  // backend that casts does.
  bool screenCast = true;
  // Where OpenPipeWireRemote connects the socket it hands over (a PipeWire daemon's, such as
  // $XDG_RUNTIME_DIR/pipewire-0). Without one it hands over one end of a socket pair and keeps the
  // other (`remotePeer`).
  std::optional<std::filesystem::path> pipeWireSocket;
  // The streams Start grants; none given means one FakeScreenCastStream{}.
  std::vector<FakeScreenCastStream> streams;
};

// What one SelectSources asked for.
struct FakeSelectSources {
  std::uint32_t types = 0;
  bool multiple = false;
  std::optional<std::uint32_t> cursorMode;
  std::optional<std::uint32_t> persistMode;
  std::optional<std::string> restoreToken;
};

class FakeScreenCastPortal {
 public:
  // Returns once the portal owns its name and answers.
  explicit FakeScreenCastPortal(const std::string& busAddress, FakeScreenCastPortalOptions options = {});
  ~FakeScreenCastPortal();
  FakeScreenCastPortal(const FakeScreenCastPortal&) = delete;
  FakeScreenCastPortal& operator=(const FakeScreenCastPortal&) = delete;

  // How the following calls of `method` ("CreateSession", "SelectSources" or "Start") are
  // answered; granted until set.
  void setResponse(const std::string& method, FakePortalResponse response);

  // The dialogs the portal "showed": every Start of a session that was not restored from a valid
  // token, whatever the person then answered.
  int dialogsShown() const;
  // Restore tokens handed out, oldest first. Each is good for one SelectSources.
  std::vector<std::string> tokensIssued() const;
  // Restore tokens passed that were never issued or already used.
  int tokensRefused() const;
  std::vector<FakeSelectSources> selectSourcesCalls() const;
  std::vector<std::string> parentWindows() const;  // of every Start
  int requestsClosedByClient() const;              // Request.Close: a dialog the client dismissed
  int sessionsClosedByClient() const;              // Session.Close
  // Made and not yet closed by the client, the desktop, or the client's leaving the bus.
  int openSessions() const;
  // Waits until at least `count` dialogs are left waiting (`never`); false after `timeout`.
  bool waitForPendingRequests(int count, std::chrono::milliseconds timeout) const;

  // Ends every open session with the Closed signal, as the desktop does when the person presses
  // "stop sharing".
  void closeSessions();

  // The fake's end of the socket pair handed over last (-1 before any, or with `pipeWireSocket`).
  int remotePeer() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace vumo::testing
