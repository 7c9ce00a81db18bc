#include "capture/x11_source_catalogue.h"

#include <fmt/core.h>
#include <xcb/randr.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "capture/capture_error.h"
#include "capture/x11_connection.h"
#include "shared/json.h"

namespace vumo {

namespace {

// Titles and class names are short; a client that writes megabytes into them is not worth reading.
constexpr std::uint32_t maximumPropertyWords = 1024;

struct PropertyValue {
  xcb_atom_t type = XCB_ATOM_NONE;
  int format = 0;
  std::string bytes;
};

std::optional<PropertyValue> readProperty(const X11Connection& x, xcb_window_t window, xcb_atom_t property,
                                          xcb_atom_t type) {
  if (property == XCB_ATOM_NONE) return std::nullopt;
  XcbReply<xcb_get_property_reply_t> reply(xcb_get_property_reply(
      x.get(), xcb_get_property(x.get(), 0, window, property, type, 0, maximumPropertyWords), nullptr));
  if (!reply || reply->type == XCB_ATOM_NONE) return std::nullopt;
  PropertyValue value;
  value.type = reply->type;
  value.format = reply->format;
  auto length = xcb_get_property_value_length(reply.get());
  value.bytes.assign(static_cast<const char*>(xcb_get_property_value(reply.get())), std::size_t(length));
  return value;
}

std::string latin1ToUTF8(std::string_view text) {
  std::string result;
  for (unsigned char c : text) {
    if (c < 0x80) {
      result += char(c);
    } else {
      result += char(0xC0 | (c >> 6));
      result += char(0x80 | (c & 0x3F));
    }
  }
  return result;
}

std::string windowTitle(const X11Connection& x, xcb_window_t window, xcb_atom_t netWMName, xcb_atom_t utf8String) {
  if (auto name = readProperty(x, window, netWMName, utf8String); name && name->format == 8) return name->bytes;
  if (auto name = readProperty(x, window, XCB_ATOM_WM_NAME, XCB_GET_PROPERTY_TYPE_ANY); name && name->format == 8)
    return name->type == XCB_ATOM_STRING ? latin1ToUTF8(name->bytes) : name->bytes;
  return {};
}

std::vector<X11DisplayInfo> listDisplays(const X11Connection& x) {
  std::vector<X11DisplayInfo> displays;
  displays.push_back({x.root(), "screen",
                      RectValue{0, 0, double(x.screen()->width_in_pixels), double(x.screen()->height_in_pixels)}, true,
                      true});
  const xcb_query_extension_reply_t* randr = xcb_get_extension_data(x.get(), &xcb_randr_id);
  if (!randr || !randr->present) return displays;
  XcbReply<xcb_randr_query_version_reply_t> version(
      xcb_randr_query_version_reply(x.get(), xcb_randr_query_version(x.get(), 1, 5), nullptr));
  // Monitors came with RandR 1.5; an older server is shown as its whole screen only.
  if (!version || version->major_version < 1 || (version->major_version == 1 && version->minor_version < 5))
    return displays;
  XcbReply<xcb_randr_get_monitors_reply_t> monitors(
      xcb_randr_get_monitors_reply(x.get(), xcb_randr_get_monitors(x.get(), x.root(), 1), nullptr));
  if (!monitors) return displays;
  for (auto it = xcb_randr_get_monitors_monitors_iterator(monitors.get()); it.rem > 0;
       xcb_randr_monitor_info_next(&it)) {
    const xcb_randr_monitor_info_t* monitor = it.data;
    X11DisplayInfo display;
    XcbReply<xcb_get_atom_name_reply_t> name(
        xcb_get_atom_name_reply(x.get(), xcb_get_atom_name(x.get(), monitor->name), nullptr));
    if (name)
      display.name.assign(xcb_get_atom_name_name(name.get()), std::size_t(xcb_get_atom_name_name_length(name.get())));
    const xcb_randr_output_t* outputs = xcb_randr_monitor_info_outputs(monitor);
    display.nativeID = xcb_randr_monitor_info_outputs_length(monitor) > 0 ? outputs[0] : monitor->name;
    display.frame = RectValue{double(monitor->x), double(monitor->y), double(monitor->width), double(monitor->height)};
    display.primary = monitor->primary != 0;
    if (display.frame.width > 0 && display.frame.height > 0) displays.push_back(std::move(display));
  }
  // The whole screen is primary only where no monitor is.
  if (displays.size() > 1) displays.front().primary = false;
  return displays;
}

std::vector<xcb_window_t> candidateWindows(const X11Connection& x, bool& fromWindowManager) {
  std::vector<xcb_window_t> windows;
  xcb_atom_t clientList = x.atom("_NET_CLIENT_LIST");
  if (clientList != XCB_ATOM_NONE) {
    XcbReply<xcb_get_property_reply_t> reply(xcb_get_property_reply(
        x.get(), xcb_get_property(x.get(), 0, x.root(), clientList, XCB_ATOM_WINDOW, 0, 65536), nullptr));
    if (reply && reply->type == XCB_ATOM_WINDOW && reply->format == 32) {
      auto* ids = static_cast<const xcb_window_t*>(xcb_get_property_value(reply.get()));
      windows.assign(ids, ids + xcb_get_property_value_length(reply.get()) / 4);
      fromWindowManager = true;
      return windows;
    }
  }
  fromWindowManager = false;
  XcbReply<xcb_query_tree_reply_t> tree(xcb_query_tree_reply(x.get(), xcb_query_tree(x.get(), x.root()), nullptr));
  if (!tree) return windows;
  auto* children = xcb_query_tree_children(tree.get());
  windows.assign(children, children + xcb_query_tree_children_length(tree.get()));
  return windows;
}

}  // namespace

void to_json(Json& j, const X11DisplayInfo& v) {
  j = Json{{"nativeID", v.nativeID},
           {"name", v.name},
           {"frame", v.frame},
           {"primary", v.primary},
           {"wholeScreen", v.wholeScreen}};
}

void to_json(Json& j, const X11WindowInfo& v) {
  j = Json{{"nativeID", v.nativeID}, {"title", v.title}, {"frame", v.frame}};
  json::setOptional(j, "applicationName", v.applicationName);
  json::setOptional(j, "processID", v.processID);
}

void to_json(Json& j, const X11CaptureSources& v) { j = Json{{"displays", v.displays}, {"windows", v.windows}}; }

X11CaptureSources listX11CaptureSources(const std::string& displayName, std::int64_t ownProcessID) {
  X11Connection x(displayName);
  X11CaptureSources sources;
  sources.displays = listDisplays(x);

  xcb_atom_t netWMName = x.atom("_NET_WM_NAME");
  xcb_atom_t utf8String = x.atom("UTF8_STRING");
  xcb_atom_t netWMPID = x.atom("_NET_WM_PID");
  bool fromWindowManager = false;
  for (xcb_window_t window : candidateWindows(x, fromWindowManager)) {
    auto attributesCookie = xcb_get_window_attributes(x.get(), window);
    auto geometryCookie = xcb_get_geometry(x.get(), window);
    auto originCookie = xcb_translate_coordinates(x.get(), window, x.root(), 0, 0);
    XcbReply<xcb_get_window_attributes_reply_t> attributes(
        xcb_get_window_attributes_reply(x.get(), attributesCookie, nullptr));
    XcbReply<xcb_get_geometry_reply_t> geometry(xcb_get_geometry_reply(x.get(), geometryCookie, nullptr));
    XcbReply<xcb_translate_coordinates_reply_t> origin(xcb_translate_coordinates_reply(x.get(), originCookie, nullptr));
    // A window closed while we looked, an unmapped one (nothing to copy) or an input-only one.
    if (!attributes || !geometry || !origin) continue;
    if (attributes->map_state != XCB_MAP_STATE_VIEWABLE || attributes->_class != XCB_WINDOW_CLASS_INPUT_OUTPUT)
      continue;
    if (!fromWindowManager && attributes->override_redirect) continue;  // menus and tooltips
    if (geometry->width < 2 || geometry->height < 2) continue;

    X11WindowInfo info;
    info.nativeID = window;
    info.title = windowTitle(x, window, netWMName, utf8String);
    if (!fromWindowManager && info.title.empty()) continue;
    if (auto pid = readProperty(x, window, netWMPID, XCB_ATOM_CARDINAL);
        pid && pid->format == 32 && pid->bytes.size() >= 4) {
      std::uint32_t value = 0;
      std::memcpy(&value, pid->bytes.data(), 4);
      info.processID = value;
    }
    if (info.processID == ownProcessID) continue;
    if (auto windowClass = readProperty(x, window, XCB_ATOM_WM_CLASS, XCB_ATOM_STRING); windowClass) {
      // "instance\0class\0"
      auto separator = windowClass->bytes.find('\0');
      if (separator != std::string::npos) {
        std::string className = windowClass->bytes.substr(separator + 1);
        if (auto end = className.find('\0'); end != std::string::npos) className.resize(end);
        if (!className.empty()) info.applicationName = latin1ToUTF8(className);
      }
    }
    info.frame =
        RectValue{double(origin->dst_x), double(origin->dst_y), double(geometry->width), double(geometry->height)};
    sources.windows.push_back(std::move(info));
  }
  return sources;
}

PixelSize evenPixelSize(double width, double height) {
  auto even = [](double side) {
    auto whole = std::int64_t(std::floor(std::max(side, 0.0)));
    return std::max<std::int64_t>(whole - whole % 2, 2);
  };
  return PixelSize{even(width), even(height)};
}

CaptureSourceDescriptor displayCaptureSource(const X11DisplayInfo& display) {
  CaptureSourceDescriptor source;
  source.kind = CaptureSourceKind::display;
  source.nativeID = display.nativeID;
  source.title = display.name;
  source.globalFrame = display.frame;
  source.initialPixelSize = evenPixelSize(display.frame.width, display.frame.height);
  source.pointPixelScale = 1.0;
  return source;
}

CaptureSourceDescriptor windowCaptureSource(const X11WindowInfo& window) {
  CaptureSourceDescriptor source;
  source.kind = CaptureSourceKind::window;
  source.nativeID = window.nativeID;
  source.title = window.title;
  source.applicationName = window.applicationName;
  source.globalFrame = window.frame;
  source.initialPixelSize = evenPixelSize(window.frame.width, window.frame.height);
  source.pointPixelScale = 1.0;
  return source;
}

CaptureSourceDescriptor areaCaptureSource(const X11DisplayInfo& display, const RectValue& area) {
  bool finite =
      std::isfinite(area.x) && std::isfinite(area.y) && std::isfinite(area.width) && std::isfinite(area.height);
  bool inside = finite && area.width >= 2 && area.height >= 2 && area.x >= 0 && area.y >= 0 &&
                area.x + area.width <= display.frame.width && area.y + area.height <= display.frame.height;
  if (!inside)
    throw CaptureError(CaptureError::Case::areaOutsideDisplay,
                       fmt::format("{},{} {}x{} on {} ({}x{})", area.x, area.y, area.width, area.height, display.name,
                                   display.frame.width, display.frame.height));
  CaptureSourceDescriptor source;
  source.kind = CaptureSourceKind::area;
  source.nativeID = display.nativeID;
  source.title = display.name;
  source.globalFrame = RectValue{display.frame.x + area.x, display.frame.y + area.y, area.width, area.height};
  source.initialPixelSize = evenPixelSize(area.width, area.height);
  source.areaSourceRect = area;
  source.pointPixelScale = 1.0;
  return source;
}

}  // namespace vumo
