#include "ui/recording_layout.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string_view>

namespace vumo {

namespace {

bool overlaps(const RectValue& a, const RectValue& b) {
  return a.x < b.x + b.width && b.x < a.x + a.width && a.y < b.y + b.height && b.y < a.y + a.height;
}

bool inside(const RectValue& inner, const RectValue& outer) {
  return inner.x >= outer.x && inner.y >= outer.y && inner.x + inner.width <= outer.x + outer.width &&
         inner.y + inner.height <= outer.y + outer.height;
}

RectValue grown(const RectValue& r, double by) { return {r.x - by, r.y - by, r.width + 2 * by, r.height + 2 * by}; }

}  // namespace

std::optional<PointValue> controlPanelPosition(const std::vector<RectValue>& displays, const RectValue& captured,
                                               const SizeValue& panel, double margin) {
  const RectValue keepOut = grown(captured, margin);
  auto fits = [&](const RectValue& display, PointValue corner) {
    const RectValue placed{corner.x, corner.y, panel.width, panel.height};
    return inside(placed, display) && !overlaps(placed, keepOut);
  };
  for (const RectValue& display : displays) {
    if (overlaps(display, captured)) continue;
    const PointValue corner{std::floor(display.x + (display.width - panel.width) / 2), display.y + margin};
    if (fits(display, corner)) return corner;
  }
  for (const RectValue& display : displays) {
    if (!overlaps(display, captured)) continue;
    auto within = [&](double value, double low, double high) { return std::clamp(value, low, std::max(low, high)); };
    const double centredX = within(std::floor(captured.x + (captured.width - panel.width) / 2), display.x + margin,
                                   display.x + display.width - margin - panel.width);
    const double centredY = within(std::floor(captured.y + (captured.height - panel.height) / 2), display.y + margin,
                                   display.y + display.height - margin - panel.height);
    const PointValue candidates[] = {
        {centredX, captured.y + captured.height + margin},
        {centredX, captured.y - margin - panel.height},
        {captured.x + captured.width + margin, centredY},
        {captured.x - margin - panel.width, centredY},
    };
    for (const PointValue& corner : candidates)
      if (fits(display, corner)) return corner;
  }
  return std::nullopt;
}

std::optional<RectValue> selectedRootArea(PointValue dragStart, PointValue dragEnd, const RectValue& display,
                                          double devicePixelRatio) {
  if (!(devicePixelRatio > 0)) return std::nullopt;
  auto pixel = [&](double logical, double size) {
    return std::clamp(std::round(logical * devicePixelRatio), 0.0, size);
  };
  const double left = pixel(std::min(dragStart.x, dragEnd.x), display.width);
  const double right = pixel(std::max(dragStart.x, dragEnd.x), display.width);
  const double top = pixel(std::min(dragStart.y, dragEnd.y), display.height);
  const double bottom = pixel(std::max(dragStart.y, dragEnd.y), display.height);
  if (right - left < 2 || bottom - top < 2) return std::nullopt;
  return RectValue{display.x + left, display.y + top, right - left, bottom - top};
}

std::string elapsedClockText(ProjectTime elapsed) {
  const std::int64_t seconds = std::max<std::int64_t>(elapsed.nanoseconds, 0) / 1'000'000'000;
  if (seconds >= 3600) return fmt::format("{}:{:02}:{:02}", seconds / 3600, (seconds / 60) % 60, seconds % 60);
  return fmt::format("{}:{:02}", seconds / 60, seconds % 60);
}

bool isWaylandSession() {
  const char* display = std::getenv("WAYLAND_DISPLAY");
  const char* type = std::getenv("XDG_SESSION_TYPE");
  return (display && *display) || (type && std::string_view(type) == "wayland");
}

std::string hiddenPanelMessage(const std::string& startStopShortcut, const std::string& pauseShortcut,
                               bool trayAvailable) {
  std::string text = fmt::format(
      "The recording covers every screen, so the control panel stays hidden (it would be recorded). Press {} to "
      "stop and {} to pause or resume",
      startStopShortcut.empty() ? "the start/stop shortcut" : startStopShortcut,
      pauseShortcut.empty() ? "the pause shortcut" : pauseShortcut);
  text += trayAvailable ? ", or use the Vumo icon in the system tray." : ".";
  return text;
}

}  // namespace vumo
