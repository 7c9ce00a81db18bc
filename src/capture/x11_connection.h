#pragma once

// The one owner of a connection to the X server, for the X11 capture sources only: the seam
// (capture_streams.h) and the source catalogue's header show no XCB type.

#include <xcb/xcb.h>

#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "shared/geometry.h"

namespace vumo {

// XCB hands every reply over as malloc'ed memory that the caller frees.
struct XcbFree {
  void operator()(void* reply) const { std::free(reply); }
};
template <class Reply>
using XcbReply = std::unique_ptr<Reply, XcbFree>;

// Whether the X server can see every window on screen. Under a Wayland compositor the X server is
// Xwayland, which sees only the X11 clients; its root window shows black where native Wayland
// windows are, so a recording from it would be black.
bool x11SeesWholeScreen(std::string_view sessionType, std::string_view waylandDisplay, bool serverIsXwayland);

class X11Connection {
 public:
  // An empty name means $DISPLAY. Fails with CaptureError: displayUnavailable, waylandSession.
  explicit X11Connection(const std::string& displayName = {});
  ~X11Connection();
  X11Connection(const X11Connection&) = delete;
  X11Connection& operator=(const X11Connection&) = delete;

  xcb_connection_t* get() const { return connection_; }
  xcb_screen_t* screen() const { return screen_; }
  xcb_window_t root() const { return screen_->root; }
  int fileDescriptor() const { return xcb_get_file_descriptor(connection_); }
  bool hasError() const { return xcb_connection_has_error(connection_) != 0; }
  const std::string& displayName() const { return displayName_; }

  // XCB_ATOM_NONE where the server does not know the name.
  xcb_atom_t atom(std::string_view name) const;
  // The extension's opcodes and first event and error numbers; fails with
  // CaptureError::extensionMissing naming `name` where the server lacks it.
  const xcb_query_extension_reply_t& requireExtension(xcb_extension_t* extension, std::string_view name) const;
  // One round trip with nothing asked: every request sent before it has been handled when it
  // returns, and its errors are in the event queue.
  void sync() const;

 private:
  xcb_connection_t* connection_ = nullptr;
  xcb_screen_t* screen_ = nullptr;
  std::string displayName_;
};

// A window's client area on the root, with what a copy of its pixels needs to know.
struct X11WindowPlacement {
  RectValue frame;
  std::uint16_t borderWidth = 0;
  std::uint8_t depth = 0;
};

// Asks for the geometry and the root position at once (one round trip); none once the window no
// longer exists.
std::optional<X11WindowPlacement> windowPlacement(const X11Connection& x, xcb_window_t window);

}  // namespace vumo
