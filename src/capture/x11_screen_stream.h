#pragma once

#include <memory>
#include <string>

#include "capture/capture_streams.h"
#include "project/project_manifest.h"

namespace vumo {

// A display, a window or an area of an X11 session as BGRA frames, one per tick of the frame rate
// on a thread of its own. Ticks lie on absolute deadlines of the monotonic clock; a tick whose
// deadline passed while the previous one was still copying is counted in `missedTicks` and
// skipped, so a slow moment never bunches frames up. A tick in which the X server reported no
// damage to the source hands the previous buffer again with `changed` false, without a copy.
//
// A window is read from its off-screen pixmap (Composite), so it records while other windows cover
// it; its frames keep the window's own size (even on both sides) after a resize, and its metadata
// follows the window's position. A closed window ends the stream with CaptureError::windowGone.
// The X server never draws the pointer into these pictures.
class X11ScreenStream : public VideoCaptureStream {
 public:
  // An empty display name means $DISPLAY. Fails with CaptureError when the display cannot be
  // reached, lacks MIT-SHM, DAMAGE or (for a window) Composite, or the window is gone.
  X11ScreenStream(CaptureSourceDescriptor source, int framesPerSecond, const std::string& displayName = {});
  ~X11ScreenStream() override;

  PixelSize pixelSize() const override;
  // Handlers run on the stream's thread and must not call `stop`.
  void start(std::function<void(const VideoFrame&)> onFrame, StreamStoppedHandler onStopped) override;
  void stop() override;
  std::int64_t missedTicks() const override;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace vumo
