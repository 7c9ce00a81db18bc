#pragma once

// The geometry of the recording flow's windows, without Qt: where the control panel may sit so the
// capture never shows it, and which pixels of the root window a rectangle drawn over a display
// covers. All rectangles are in root pixels (X11's top-left global coordinates).

#include <optional>
#include <string>
#include <vector>

#include "shared/geometry.h"
#include "shared/project_time.h"

namespace vumo {

// Space kept between the panel and the captured rectangle or a display's edge.
inline constexpr double controlPanelMargin = 16;

// The panel's top-left corner, or none when it fits nowhere outside `captured`. X11 cannot leave a
// window out of a capture, so the panel must lie wholly outside the captured rectangle and wholly on
// one display. First choice: the top centre of a display that the capture does not touch (out of
// the way of the work); then beside the captured rectangle on a display it is on: below, above,
// right, left, centred on it and moved inside the display where needed.
std::optional<PointValue> controlPanelPosition(const std::vector<RectValue>& displays, const RectValue& captured,
                                               const SizeValue& panel, double margin = controlPanelMargin);

// The rectangle of root pixels a drag covers on an area selection window that fills the display at
// `display` (root pixels) with `devicePixelRatio` device pixels per logical pixel. The drag's ends
// are in the window's logical coordinates and may go either way or past the window; the result is
// in whole pixels, inside the display, and none when smaller than 2 x 2 pixels (nothing to record).
std::optional<RectValue> selectedRootArea(PointValue dragStart, PointValue dragEnd, const RectValue& display,
                                          double devicePixelRatio);

// The clock of the control panel: "m:ss", "h:mm:ss" from an hour on.
std::string elapsedClockText(ProjectTime elapsed);

// Whether the session is a Wayland one, where X11 sees only other X11 clients: the desktop's own
// dialog picks what is recorded. From WAYLAND_DISPLAY and XDG_SESSION_TYPE.
bool isWaylandSession();

// What the person is told before the countdown when the panel has nowhere to go.
std::string hiddenPanelMessage(const std::string& startStopShortcut, const std::string& pauseShortcut,
                               bool trayAvailable);

}  // namespace vumo
