#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "capture/capture_streams.h"

namespace vumo {

// The pointer's current image from XFixes, as PNG with straight alpha (the server's premultiplied
// ARGB is divided out), its size in pixels (X11 has no separate point unit) and its hot spot. The
// image of the last probe is kept by the server's cursor serial, so probing an unchanged pointer
// costs one round trip and no encoding. Safe to call from any thread.
class X11CursorShapeProvider : public CursorShapeProvider {
 public:
  // An empty display name means $DISPLAY. Fails with CaptureError when the display cannot be
  // reached or lacks XFixes 2.
  explicit X11CursorShapeProvider(const std::string& displayName = {});
  ~X11CursorShapeProvider() override;

  std::optional<CapturedCursorShape> captureCurrentCursor() override;

 private:
  struct State;
  std::mutex lock_;
  std::unique_ptr<State> state_;
};

// PNG bytes of premultiplied ARGB pixels (one 32-bit value a pixel, alpha in the high byte, rows
// packed), stored with straight alpha. Empty when the picture cannot be encoded.
std::string encodePremultipliedARGBAsPNG(const std::uint32_t* pixels, int width, int height);

}  // namespace vumo
