#include "capture/x11_window_frame.h"

#include "capture/x11_connection.h"

namespace vumo {

X11WindowFrameProbe::X11WindowFrameProbe(std::uint32_t window, const std::string& displayName)
    : connection_(std::make_shared<X11Connection>(displayName)), window_(window) {}

X11WindowFrameProbe::~X11WindowFrameProbe() = default;

std::optional<RectValue> X11WindowFrameProbe::operator()() const {
  if (auto placement = windowPlacement(*connection_, window_)) return placement->frame;
  return std::nullopt;
}

}  // namespace vumo
