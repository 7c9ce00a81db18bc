#pragma once

#include <memory>
#include <string>

#include "capture/capture_streams.h"

namespace vumo {

// The pointer's moves and button presses from the X server's raw input events (XInput 2),
// selected on the root window: listen-only, never a grab, so the user's input is never delayed.
// Each event takes the pointer's position from the server at the time it is handled, and its time
// from the server's millisecond clock, unwrapped past its 32-bit overflow and carried onto the
// monotonic host clock by an offset measured once at start. The server makes no raw motion for a
// pointer moved by XTEST (remote desktops, test tools) or warped by an application, so the
// position is also looked at 100 times a second, and a move found that way is stamped with the
// time it was seen. Host times never run backwards from one event to the next.
//
// Buttons go through the server's button map: 1 is left, 3 right, 2 and 8 upwards other; 4 to 7
// are wheel steps, not clicks, and leave no event. A move with a button held is `dragged` with the
// held button (left before right before other); a move with none is `moved` with no button.
class X11PointerStream : public PointerEventStream {
 public:
  // An empty display name means $DISPLAY. Fails with CaptureError when the display cannot be
  // reached or lacks XInput 2.2.
  explicit X11PointerStream(const std::string& displayName = {});
  ~X11PointerStream() override;

  // The handler runs on the stream's thread. Fails with CaptureError when the server's clock
  // cannot be read.
  void start(std::function<void(const PointerEvent&)> onEvent) override;
  void stop() override;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// The X server's time is milliseconds in 32 bits, which run over after 49.7 days. Times come in
// nearly in order, so each one lies within half the range of the one before.
class X11ServerTimeUnwrapper {
 public:
  explicit X11ServerTimeUnwrapper(std::uint32_t firstMilliseconds)
      : last_(firstMilliseconds), unwrapped_(firstMilliseconds) {}
  std::int64_t unwrap(std::uint32_t milliseconds) {
    unwrapped_ += std::int32_t(milliseconds - last_);
    last_ = milliseconds;
    return unwrapped_;
  }

 private:
  std::uint32_t last_;
  std::int64_t unwrapped_;
};

}  // namespace vumo
