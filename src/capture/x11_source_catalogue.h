#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "project/project_manifest.h"
#include "shared/geometry.h"
#include "shared/json_fwd.h"

namespace vumo {

// What an X11 session offers to record. Coordinates are those of the root window, in pixels; X11
// has no separate point unit, so the scale factor of every source is 1.

// The whole root (every monitor at once) or one RandR monitor of it.
struct X11DisplayInfo {
  std::uint32_t nativeID = 0;  // the root window for the whole screen; a monitor's first output
  std::string name;            // "screen" for the whole root, the monitor's RandR name otherwise
  RectValue frame;
  bool primary = false;
  bool wholeScreen = false;
  friend bool operator==(const X11DisplayInfo&, const X11DisplayInfo&) = default;
};

// A top-level window as the window manager lists it.
struct X11WindowInfo {
  std::uint32_t nativeID = 0;  // the client window, not the manager's frame around it
  std::string title;
  std::optional<std::string> applicationName;  // the class of WM_CLASS
  std::optional<std::int64_t> processID;       // _NET_WM_PID, where the client sets it
  RectValue frame;                             // the client area, without decorations
  friend bool operator==(const X11WindowInfo&, const X11WindowInfo&) = default;
};

struct X11CaptureSources {
  std::vector<X11DisplayInfo> displays;  // the whole screen first, then the monitors
  std::vector<X11WindowInfo> windows;    // in the window manager's order (oldest first)
};

void to_json(Json& j, const X11DisplayInfo& v);
void to_json(Json& j, const X11WindowInfo& v);
void to_json(Json& j, const X11CaptureSources& v);

// Displays and the windows that can be recorded: viewable, with a size, and not this program's own
// (windows whose _NET_WM_PID is `ownProcessID`). Without a window manager that keeps
// _NET_CLIENT_LIST, the titled top-level children of the root stand in for its list. An empty
// display name means $DISPLAY. Fails with CaptureError (displayUnavailable, waylandSession).
X11CaptureSources listX11CaptureSources(const std::string& displayName, std::int64_t ownProcessID);

// The frame size of a recording of a source that is `width` x `height` pixels: whole pixels, even
// on both sides (what the encoders take), at least 2, never larger than the source.
PixelSize evenPixelSize(double width, double height);

CaptureSourceDescriptor displayCaptureSource(const X11DisplayInfo& display);
CaptureSourceDescriptor windowCaptureSource(const X11WindowInfo& window);
// `area` is in the display's own coordinates (its top-left corner is 0, 0) and must lie inside it
// with a size of at least 2 x 2 pixels; otherwise CaptureError::areaOutsideDisplay.
CaptureSourceDescriptor areaCaptureSource(const X11DisplayInfo& display, const RectValue& area);

}  // namespace vumo
