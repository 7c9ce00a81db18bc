#include "timeline/scene_layout.h"

#include <algorithm>

namespace vumo {

RectValue SceneLayout::screenRect(SizeValue source, SizeValue output, double padding) {
  if (!(source.width > 0) || !(source.height > 0) || !(output.width > 0) || !(output.height > 0)) return {};
  const double inset = 1 - 2 * padding;
  const double scale = std::min(output.width * inset / source.width, output.height * inset / source.height);
  const double width = source.width * scale;
  const double height = source.height * scale;
  return {(output.width - width) * 0.5, (output.height - height) * 0.5, width, height};
}

RectValue contentRect(DeviceFrameContentMode mode, SizeValue source, const RectValue& screen) {
  if (!(source.width > 0) || !(source.height > 0)) return screen;
  const double sx = screen.width / source.width;
  const double sy = screen.height / source.height;
  const double scale = mode == DeviceFrameContentMode::fit ? std::min(sx, sy) : std::max(sx, sy);
  const double width = source.width * scale;
  const double height = source.height * scale;
  return {screen.x + (screen.width - width) * 0.5, screen.y + (screen.height - height) * 0.5, width, height};
}

}  // namespace vumo
