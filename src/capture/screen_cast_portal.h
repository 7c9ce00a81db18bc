#pragma once

// The desktop's screen-cast portal (org.freedesktop.portal.ScreenCast on the session bus): on a
// Wayland session the only way to see the screen. The portal asks the person which monitor or
// window to share, in a dialog of the desktop's own, and hands over a PipeWire remote on which the
// chosen source is a video stream. Everything here talks D-Bus through GIO's GDBus: GLib is
// already in the program through Pango, so the portal adds no library.

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "shared/geometry.h"
#include "shared/json_fwd.h"
#include "shared/name_table.h"

namespace vumo {

// The portal's source types; the values are its bit flags.
enum class ScreenCastSourceType : std::uint32_t { monitor = 1, window = 2, virtualMonitor = 4 };

template <>
struct EnumNames<ScreenCastSourceType> {
  static constexpr std::string_view typeName = "screen-cast source type";
  static constexpr NameTable<ScreenCastSourceType, 3> table{{{ScreenCastSourceType::monitor, "monitor"},
                                                             {ScreenCastSourceType::window, "window"},
                                                             {ScreenCastSourceType::virtualMonitor, "virtual"}}};
};

// How the pointer reaches the recording; the values are the portal's bit flags. `metadata` keeps
// the pointer out of the picture and sends its position and image beside each frame, which is
// what the recorded mouse samples and the zooms need.
enum class ScreenCastCursorMode : std::uint32_t { hidden = 1, embedded = 2, metadata = 4 };

template <>
struct EnumNames<ScreenCastCursorMode> {
  static constexpr std::string_view typeName = "screen-cast cursor mode";
  static constexpr NameTable<ScreenCastCursorMode, 3> table{{{ScreenCastCursorMode::hidden, "hidden"},
                                                             {ScreenCastCursorMode::embedded, "embedded"},
                                                             {ScreenCastCursorMode::metadata, "metadata"}}};
};

// The cases of a portal bit mask that this program knows, in the order of their bits.
std::vector<ScreenCastSourceType> decodeScreenCastSourceTypes(std::uint32_t mask);
std::vector<ScreenCastCursorMode> decodeScreenCastCursorModes(std::uint32_t mask);

// What to ask for: metadata where the portal offers it, else embedded (the pointer at least stays
// in the picture), else none, which leaves the portal's default.
std::optional<ScreenCastCursorMode> preferredCursorMode(std::uint32_t availableCursorModes);

// The object path on which the portal answers the request of `handleToken` made by the connection
// of unique name `uniqueName` (":1.42" becomes "1_42"). Known before the call, so the answer's
// signal can be subscribed to before the call is made and cannot be missed.
std::string screenCastRequestPath(const std::string& uniqueName, const std::string& handleToken);
std::string screenCastSessionPath(const std::string& uniqueName, const std::string& sessionToken);

// A file descriptor with one owner.
class OwnedFileDescriptor {
 public:
  OwnedFileDescriptor() = default;
  explicit OwnedFileDescriptor(int fd) : fd_(fd) {}
  ~OwnedFileDescriptor();
  OwnedFileDescriptor(OwnedFileDescriptor&& other) noexcept : fd_(other.release()) {}
  OwnedFileDescriptor& operator=(OwnedFileDescriptor&& other) noexcept;
  int get() const { return fd_; }
  int release() noexcept {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }
  explicit operator bool() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

// One stream of a granted screen cast. Position and size are in the compositor's logical
// coordinates and only given where the portal knows them (a monitor has both; a window often
// neither).
struct ScreenCastStream {
  std::uint32_t nodeID = 0;  // the PipeWire node to connect to
  std::optional<PointValue> position;
  std::optional<SizeValue> size;
  std::optional<ScreenCastSourceType> sourceType;
};

struct ScreenCastGrant {
  OwnedFileDescriptor pipeWireRemote;  // hand to pw_context_connect_fd, which takes it over
  std::vector<ScreenCastStream> streams;
  // What was asked for in SelectSources: the portal honours it or fails, and does not report it.
  // Hidden where the portal offers no cursor modes at all.
  ScreenCastCursorMode cursorMode = ScreenCastCursorMode::hidden;
  std::uint32_t version = 0;
  bool restored = false;  // a stored restore token was passed, so the desktop may have shown no dialog
};

struct ScreenCastRequest {
  ScreenCastSourceType sourceType = ScreenCastSourceType::monitor;
  // False asks the person again ("Change source…", `--choose-source`); the new choice is stored.
  bool useStoredToken = true;
};

struct ScreenCastPortalOptions {
  // Where the restore token is kept; by default ScreenCastRestoreToken in vumoSupportDirectory().
  std::optional<std::filesystem::path> restoreTokenFile;
  // How long a request may wait for its answer. The Start dialog waits on a person, so it is long;
  // a stop request ends any wait at once.
  std::chrono::milliseconds responseTimeout = std::chrono::minutes(10);
  // How long one method call may take before the portal has to answer through its request.
  std::chrono::milliseconds callTimeout = std::chrono::seconds(30);
};

// What the portal offers, read without a dialog.
struct ScreenCastPortalProbe {
  std::uint32_t version = 0;
  std::vector<ScreenCastSourceType> sourceTypes;
  std::vector<ScreenCastCursorMode> cursorModes;
  bool restoreTokenStored = false;
};

void to_json(Json& j, const ScreenCastPortalProbe& v);

// The portal's interface properties and whether a token is stored. Fails with CaptureError
// (sessionBusUnavailable, portalUnavailable, portalTimedOut) like `ScreenCastPortal::start`, or
// CancelledError.
ScreenCastPortalProbe probeScreenCastPortal(const ScreenCastPortalOptions& options = {}, std::stop_token stop = {});

// One screen-cast session: CreateSession, SelectSources, Start and OpenPipeWireRemote, then the
// session stays open while the stream is recorded and is closed with the object (or `close`).
//
// Each object holds its own connection to the session bus (its address read in `start`, so a
// test's private bus is used) and a thread that receives the portal's signals. Not for use by
// several threads at once; the session-closed handler may call `close`.
class ScreenCastPortal {
 public:
  // Called once, on the portal's signal thread, when the desktop ends the session (the person
  // pressed "stop sharing") or the portal leaves the bus, after `start` returned. It must not
  // destroy this object.
  using SessionClosedHandler = std::function<void()>;

  explicit ScreenCastPortal(ScreenCastPortalOptions options = {}, SessionClosedHandler onSessionClosed = {});
  ~ScreenCastPortal();
  ScreenCastPortal(const ScreenCastPortal&) = delete;
  ScreenCastPortal& operator=(const ScreenCastPortal&) = delete;

  // Asks the desktop for a source and returns the stream to record. At most once per object.
  // Outcomes: the person cancelled the dialog, or `stop` was requested during a wait, is
  // CancelledError; the portal failed or gave no answer in time is CaptureError::portalFailed or
  // portalTimedOut; no session bus, no portal or no ScreenCast interface is
  // CaptureError::sessionBusUnavailable or portalUnavailable; a source type the portal does not
  // offer is CaptureError::sourceTypeUnavailable. Whatever fails, a session already made is closed.
  //
  // With interface version 4 or later the session asks to persist until revoked, passes the stored
  // restore token (unless `useStoredToken` is false) and replaces the stored token with the one
  // Start returns: a token is good for one use only.
  ScreenCastGrant start(const ScreenCastRequest& request, std::stop_token stop);

  // Closes the session (idempotent). The handler is not called for a close of our own.
  void close();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// The stored restore token, read as untrusted input: absent when the file is missing, too large,
// not a regular file or not a plausible token.
std::optional<std::string> readScreenCastRestoreToken(const std::filesystem::path& file);
std::filesystem::path defaultScreenCastRestoreTokenFile();

}  // namespace vumo
