#include "capture/x11_connection.h"

#include <cstdlib>
#include <cstring>

#include "capture/capture_error.h"

namespace vumo {

namespace {

std::string environmentValue(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

bool serverIsXwayland(xcb_connection_t* connection) {
  static constexpr std::string_view name = "XWAYLAND";
  XcbReply<xcb_query_extension_reply_t> reply(
      xcb_query_extension_reply(connection, xcb_query_extension(connection, name.size(), name.data()), nullptr));
  return reply && reply->present;
}

}  // namespace

bool x11SeesWholeScreen(std::string_view sessionType, std::string_view waylandDisplay, bool serverIsXwayland) {
  bool waylandSession = sessionType == "wayland" || !waylandDisplay.empty();
  // A Wayland session may run a nested X server of its own (Xvfb, Xephyr) that is whole in itself.
  return !(waylandSession && serverIsXwayland);
}

X11Connection::X11Connection(const std::string& displayName) {
  displayName_ = displayName.empty() ? environmentValue("DISPLAY") : displayName;
  if (displayName_.empty()) throw CaptureError(CaptureError::Case::displayUnavailable, "(DISPLAY is not set)");
  int screenNumber = 0;
  connection_ = xcb_connect(displayName_.c_str(), &screenNumber);
  if (xcb_connection_has_error(connection_)) {
    xcb_disconnect(connection_);
    throw CaptureError(CaptureError::Case::displayUnavailable, displayName_);
  }
  auto iterator = xcb_setup_roots_iterator(xcb_get_setup(connection_));
  for (int i = 0; iterator.rem > 0 && i < screenNumber; ++i) xcb_screen_next(&iterator);
  screen_ = iterator.rem > 0 ? iterator.data : nullptr;
  if (!screen_) {
    xcb_disconnect(connection_);
    throw CaptureError(CaptureError::Case::displayUnavailable, displayName_);
  }
  if (!x11SeesWholeScreen(environmentValue("XDG_SESSION_TYPE"), environmentValue("WAYLAND_DISPLAY"),
                          serverIsXwayland(connection_))) {
    xcb_disconnect(connection_);
    throw CaptureError(CaptureError::Case::waylandSession);
  }
}

X11Connection::~X11Connection() { xcb_disconnect(connection_); }

xcb_atom_t X11Connection::atom(std::string_view name) const {
  XcbReply<xcb_intern_atom_reply_t> reply(
      xcb_intern_atom_reply(connection_, xcb_intern_atom(connection_, 1, name.size(), name.data()), nullptr));
  return reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
}

const xcb_query_extension_reply_t& X11Connection::requireExtension(xcb_extension_t* extension,
                                                                   std::string_view name) const {
  const xcb_query_extension_reply_t* data = xcb_get_extension_data(connection_, extension);
  if (!data || !data->present) throw CaptureError(CaptureError::Case::extensionMissing, name);
  return *data;
}

void X11Connection::sync() const {
  XcbReply<xcb_get_input_focus_reply_t> reply(
      xcb_get_input_focus_reply(connection_, xcb_get_input_focus(connection_), nullptr));
}

std::optional<X11WindowPlacement> windowPlacement(const X11Connection& x, xcb_window_t window) {
  auto geometryCookie = xcb_get_geometry(x.get(), window);
  auto originCookie = xcb_translate_coordinates(x.get(), window, x.root(), 0, 0);
  XcbReply<xcb_get_geometry_reply_t> geometry(xcb_get_geometry_reply(x.get(), geometryCookie, nullptr));
  XcbReply<xcb_translate_coordinates_reply_t> origin(xcb_translate_coordinates_reply(x.get(), originCookie, nullptr));
  if (!geometry || !origin) return std::nullopt;
  return X11WindowPlacement{
      RectValue{double(origin->dst_x), double(origin->dst_y), double(geometry->width), double(geometry->height)},
      geometry->border_width, geometry->depth};
}

}  // namespace vumo
