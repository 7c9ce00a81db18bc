#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "capture/capture_streams.h"

namespace vumo {

// Where a screen-cast stream comes from and how it is recorded.
struct PipeWireScreenStreamConfiguration {
  // The remote the screen-cast portal opened for this session. The stream works on a duplicate;
  // the caller keeps its own descriptor. -1 connects to the default remote of $XDG_RUNTIME_DIR.
  int remoteFileDescriptor = -1;
  std::uint32_t nodeID = 0;
  int framesPerSecond = 30;
  // The stream's place and size in global points where the portal gave them.
  std::optional<RectValue> logicalFrame;
  // The size of the recording's film, both sides even. Zero: the size of the stream's first
  // format, made even, which the constructor waits for.
  PixelSize encodedSize;
};

// A screen-cast node of PipeWire as BGRA frames: shared-memory buffers only (the stride from each
// buffer's chunk, the crop of SPA_META_VideoCrop applied, RGBx swizzled), each frame at its own
// size, which the writer scales into the fixed encoded size with the aspect kept.
//
// Compositors send a buffer only when something changed, so a ticker of the stream's own, at
// absolute deadlines of the frame rate, hands the last frame again with `changed` false on every
// tick that saw no new buffer; a tick whose deadline passed while the previous one was late is
// counted in `missedTicks`, as is a tick before the first picture and a frame of the producer's
// that never arrived (`droppedFrames`), so that the recording's dropped frames include the source's.
//
// Times: the presentation time of a frame is its SPA_META_Header.pts; a missing, non-positive or
// backward pts falls back to the host time and counts as a discontinuity. The display time is the
// monotonic clock when the buffer was dequeued. A repeated frame continues the presentation line
// of the frame it repeats; a new frame whose own time lies at or before such a repeat of a frame with
// a nanosecond. Gaps in SPA_META_Header.seq are counted as dropped frames.
//
// A buffer with no picture (chunk size 0, or flagged corrupted) carries only the pointer: it moves
// the pointer and is neither delivered nor counted as dropped.
//
// The pointer comes from SPA_META_Cursor through `pointerEvents` and `cursorShapes`, which share
// the stream's state and may outlive it (they go quiet with it).
class PipeWireScreenStream : public VideoCaptureStream {
 public:
  // Connects and waits (bounded) until the node is linked and, without an encoded size, for its
  // first format. Fails with CaptureError when the remote cannot be reached or nothing comes.
  explicit PipeWireScreenStream(PipeWireScreenStreamConfiguration configuration);
  ~PipeWireScreenStream() override;

  PixelSize pixelSize() const override;
  // Handlers run on the stream's threads, one at a time, and must not call `stop`. A stream that
  // fails, or whose node goes away, ends through `onStopped` with a CaptureError.
  void start(std::function<void(const VideoFrame&)> onFrame, StreamStoppedHandler onStopped) override;
  void stop() override;
  std::int64_t missedTicks() const override;

  // Frames the producer made that never reached this stream, from gaps in the sequence numbers.
  std::int64_t droppedFrames() const;
  // Frames whose pts could not be used.
  std::int64_t timeDiscontinuities() const;
  // Buffers that carried only the pointer.
  std::int64_t pointerOnlyBuffers() const;

  // The pointer's moves from the cursor metadata, in global points (the stream's place plus the
  // position divided by the scale), stamped with the host time of their buffer; a move while a
  // button is held is `dragged`. Presses and releases come from `buttons` where given, at the
  // pointer's current position. Nothing while the pointer is outside the stream.
  std::unique_ptr<PointerEventStream> pointerEvents(std::unique_ptr<PointerButtonSource> buttons = nullptr);
  // The pointer's image from the cursor metadata (premultiplied RGBA or BGRA bitmaps), as PNG with
  // its hot spot; nothing before the first bitmap.
  std::unique_ptr<CursorShapeProvider> cursorShapes();

  struct Shared;

 private:
  std::shared_ptr<Shared> shared_;
};

}  // namespace vumo
