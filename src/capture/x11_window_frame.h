#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "shared/geometry.h"

namespace vumo {

class X11Connection;

// Where a window is now, in root coordinates, for a recording that follows it: its own
// connection, one round trip a question. Nothing once the window is gone.
class X11WindowFrameProbe {
 public:
  // Fails with CaptureError like X11Connection.
  X11WindowFrameProbe(std::uint32_t window, const std::string& displayName = {});
  ~X11WindowFrameProbe();

  std::optional<RectValue> operator()() const;

 private:
  std::shared_ptr<X11Connection> connection_;
  std::uint32_t window_;
};

}  // namespace vumo
