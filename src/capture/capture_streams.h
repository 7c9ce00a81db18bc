#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "shared/geometry.h"
#include "timeline/mouse_event.h"

namespace vumo {

// The host timebase of a recording: CLOCK_MONOTONIC in nanoseconds. Every stream stamps what it
// delivers on it, so video, audio, pointer and cursor meet on one line.
std::uint64_t monotonicNanoseconds();

// One captured picture, 8-bit BGRA with a top-left origin; the fourth byte is padding, not
// coverage (a screen has none, and X11 leaves it undefined), so no reader may depend on it.
// Buffers are shared, never copied on the way to the encoder: an unchanged screen hands the same
// buffer out again, and a source only writes into a buffer that nobody else holds any more.
//
// The pixels are either `bytes`, filled by the source, or memory the source lends (shared memory
// the display server wrote into): `external` then keeps that memory alive for as long as the
// buffer lives. Readers go through `data` and `size`, which see either.
struct PixelBuffer {
  int width = 0;
  int height = 0;
  int stride = 0;  // bytes per row, at least width * 4
  std::vector<std::uint8_t> bytes;
  std::shared_ptr<const void> external;
  const std::uint8_t* externalData = nullptr;
  std::size_t externalSize = 0;

  const std::uint8_t* data() const { return externalData ? externalData : bytes.data(); }
  std::size_t size() const { return externalData ? externalSize : bytes.size(); }
};

// What a frame says about the geometry it was captured with, in global display coordinates
// (points, top-left origin). An empty rectangle means "not known": the tracker falls back.
struct GeometryFrameMetadata {
  RectValue globalFrame;
  RectValue contentRect;  // points, relative to globalFrame
  double scaleFactor = 1;
};

struct VideoFrame {
  std::shared_ptr<const PixelBuffer> pixels;
  // Both on the host timebase: when the tick that gave this frame happened. For a screen the two
  // are the same instant; a device may know a presentation time of its own.
  std::int64_t presentationNanoseconds = 0;
  std::uint64_t displayTimeNanoseconds = 0;
  GeometryFrameMetadata metadata;
  // False when the source saw no change since the previous frame and repeats its buffer.
  bool changed = true;
};

// 48 kHz interleaved stereo float samples; the time is that of the first sample, on the host
// timebase (read time less the stream's reported latency).
struct AudioBuffer {
  std::vector<float> samples;
  int channels = 2;
  int sampleRate = 48000;
  std::uint64_t hostTimeNanoseconds = 0;
  std::int64_t frameCount() const { return channels > 0 ? std::int64_t(samples.size()) / channels : 0; }
};

// A pointer event as the input system saw it, before it is placed on the recording's timeline.
struct PointerEvent {
  std::uint64_t hostTimeNanoseconds = 0;
  std::uint64_t rawTimestampNanoseconds = 0;  // the input system's own time, kept for diagnosis
  PointValue globalPoint;
  MouseButton button = MouseButton::none;
  MousePhase phase = MousePhase::moved;
};

// The pointer's current image: PNG bytes (straight alpha), its size and hot spot in points.
struct CapturedCursorShape {
  std::string pngData;
  SizeValue logicalSize;
  PointValue hotSpot;
};

// A stream delivers on a thread of its own until `stop` returns; after that no handler runs.
// `onStopped` reports a stream that ended by itself (a display unplugged, a device pulled out),
// with the error that ended it.
using StreamStoppedHandler = std::function<void(std::exception_ptr)>;

class VideoCaptureStream {
 public:
  virtual ~VideoCaptureStream() = default;
  // The size of the frames this stream delivers, fixed for the whole recording.
  virtual PixelSize pixelSize() const = 0;
  virtual void start(std::function<void(const VideoFrame&)> onFrame, StreamStoppedHandler onStopped) = 0;
  virtual void stop() = 0;
  // Ticks that gave no frame (a capture that came too late, a failed copy).
  virtual std::int64_t missedTicks() const = 0;
};

class AudioCaptureStream {
 public:
  virtual ~AudioCaptureStream() = default;
  virtual void start(std::function<void(const AudioBuffer&)> onBuffer, StreamStoppedHandler onStopped) = 0;
  virtual void stop() = 0;
};

// Listen-only: never grabs the pointer, never delays the user's input.
class PointerEventStream {
 public:
  virtual ~PointerEventStream() = default;
  virtual void start(std::function<void(const PointerEvent&)> onEvent) = 0;
  virtual void stop() = 0;
};

// Presses and releases of pointer buttons that come without a position (input devices read
// directly where the desktop gives no pointer events); the place of a click is the pointer's
// position at its time, from wherever the position comes.
struct PointerButtonEvent {
  std::uint64_t hostTimeNanoseconds = 0;
  MouseButton button = MouseButton::left;
  bool pressed = true;
};

class PointerButtonSource {
 public:
  virtual ~PointerButtonSource() = default;
  virtual void start(std::function<void(const PointerButtonEvent&)> onEvent) = 0;
  virtual void stop() = 0;
};

class CursorShapeProvider {
 public:
  virtual ~CursorShapeProvider() = default;
  // Nothing when the platform cannot tell the current pointer image.
  virtual std::optional<CapturedCursorShape> captureCurrentCursor() = 0;
};

}  // namespace vumo
