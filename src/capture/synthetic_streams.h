#pragma once

#include <atomic>
#include <cstdint>
#include <exception>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

#include "capture/capture_streams.h"

namespace vumo {

// Stand-ins for the platform's streams, for tests and for runs without a display. Each delivers on
// the thread that drives it (or on a thread of its own where said), and after `stop` returns no
// handler runs any more.

// Numbered frames: the first four bytes of each picture hold the frame's number, little-endian.
class SyntheticVideoStream : public VideoCaptureStream {
 public:
  enum class Pacing {
    driven,  // frames come when the test calls `emitFrames`, on a clock of its own
    thread,  // a thread of the stream's own emits one frame per interval, stamped with the host clock
  };

  SyntheticVideoStream(PixelSize size, int framesPerSecond, Pacing pacing = Pacing::driven,
                       std::int64_t firstPresentationNanoseconds = 1'000'000'000);
  ~SyntheticVideoStream() override;

  PixelSize pixelSize() const override { return size_; }
  void start(std::function<void(const VideoFrame&)> onFrame, StreamStoppedHandler onStopped) override;
  void stop() override;
  std::int64_t missedTicks() const override { return missedTicks_.load(); }

  // The next `count` frames, one interval apart on the stream's clock. Ignored unless started.
  void emitFrames(int count);
  // A tick whose capture gave no picture; it uses up its interval like any other tick.
  void emitInvalidFrame();
  // Moves the stream's clock forward (a long pause with nothing on screen, say).
  void advanceClock(std::int64_t nanoseconds);
  // Any frame as it is.
  void emit(const VideoFrame& frame);
  std::int64_t nextPresentationNanoseconds() const;
  std::int64_t frameIntervalNanoseconds() const { return intervalNanoseconds_; }

  void setMetadata(const GeometryFrameMetadata& metadata);
  void setMissedTicks(std::int64_t ticks) { missedTicks_ = ticks; }
  // The next `start` throws this.
  void failNextStart(std::exception_ptr error);
  // The stream ends by itself, as an unplugged display would.
  void stopByItself(std::exception_ptr error);
  bool isRunning() const;
  std::int64_t emittedFrames() const;

 private:
  VideoFrame makeFrame(std::int64_t presentation, std::int64_t number, bool withPixels) const;
  void deliver(const VideoFrame& frame);

  PixelSize size_;
  std::int64_t intervalNanoseconds_;
  Pacing pacing_;
  mutable std::mutex mutex_;
  std::function<void(const VideoFrame&)> onFrame_;
  StreamStoppedHandler onStopped_;
  bool running_ = false;
  std::int64_t nextPresentation_;
  std::int64_t frameNumber_ = 0;
  GeometryFrameMetadata metadata_;
  std::exception_ptr startFailure_;
  std::atomic<std::int64_t> missedTicks_{0};
  std::jthread ticker_;
};

// A 440 Hz tone in buffers of any length, stamped with the times the test gives.
class SyntheticAudioStream : public AudioCaptureStream {
 public:
  SyntheticAudioStream() = default;
  void start(std::function<void(const AudioBuffer&)> onBuffer, StreamStoppedHandler onStopped) override;
  void stop() override;

  // `frameCount` frames of tone at `amplitude` (0...1) whose first sample is at `hostTimeNanoseconds`.
  void emit(std::uint64_t hostTimeNanoseconds, std::int64_t frameCount = 480, float amplitude = 0.5f);
  void stopByItself(std::exception_ptr error);
  bool isRunning() const;

 private:
  mutable std::mutex mutex_;
  std::function<void(const AudioBuffer&)> onBuffer_;
  StreamStoppedHandler onStopped_;
  bool running_ = false;
  std::int64_t phaseFrames_ = 0;
};

// Pointer events exactly as the test sends them, on the test's thread.
class ScriptedPointerStream : public PointerEventStream {
 public:
  void start(std::function<void(const PointerEvent&)> onEvent) override;
  void stop() override;

  void send(const PointerEvent& event);
  // A press at one point: `down` then `up` one millisecond later.
  void click(PointValue point, std::uint64_t hostTimeNanoseconds, MouseButton button = MouseButton::left);
  void failNextStart(std::exception_ptr error);
  bool isRunning() const;

 private:
  mutable std::mutex mutex_;
  std::function<void(const PointerEvent&)> onEvent_;
  bool running_ = false;
  std::exception_ptr startFailure_;
};

// Whatever shape the test set last; none means "cannot tell".
class ScriptedCursorProvider : public CursorShapeProvider {
 public:
  std::optional<CapturedCursorShape> captureCurrentCursor() override;
  void setShape(std::optional<CapturedCursorShape> shape);
  std::int64_t probes() const;

  // Two distinct made-up shapes (not valid pictures: the store keeps bytes as they come).
  static CapturedCursorShape arrow();
  static CapturedCursorShape text();

 private:
  mutable std::mutex mutex_;
  std::optional<CapturedCursorShape> shape_;
  std::int64_t probes_ = 0;
};

}  // namespace vumo
