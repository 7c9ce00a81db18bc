#include "capture/synthetic_streams.h"

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <stdexcept>

namespace vumo {

// ---- SyntheticVideoStream -----------------------------------------------------------------------

SyntheticVideoStream::SyntheticVideoStream(PixelSize size, int framesPerSecond, Pacing pacing,
                                           std::int64_t firstPresentationNanoseconds)
    : size_(size),
      intervalNanoseconds_((1'000'000'000 + std::max(framesPerSecond, 1) / 2) / std::max(framesPerSecond, 1)),
      pacing_(pacing),
      nextPresentation_(firstPresentationNanoseconds) {
  metadata_.globalFrame = RectValue{0, 0, double(size.width), double(size.height)};
  metadata_.contentRect = metadata_.globalFrame;
  metadata_.scaleFactor = 1;
}

SyntheticVideoStream::~SyntheticVideoStream() { stop(); }

void SyntheticVideoStream::start(std::function<void(const VideoFrame&)> onFrame, StreamStoppedHandler onStopped) {
  {
    std::lock_guard guard(mutex_);
    if (startFailure_) {
      std::exception_ptr failure = std::exchange(startFailure_, nullptr);
      std::rethrow_exception(failure);
    }
    onFrame_ = std::move(onFrame);
    onStopped_ = std::move(onStopped);
    running_ = true;
  }
  if (pacing_ != Pacing::thread) return;
  ticker_ = std::jthread([this](std::stop_token stop) {
    std::mutex sleepMutex;
    std::condition_variable_any wake;
    auto next = std::chrono::steady_clock::now();
    while (!stop.stop_requested()) {
      std::int64_t now = std::int64_t(monotonicNanoseconds());
      VideoFrame frame;
      {
        std::lock_guard guard(mutex_);
        frame = makeFrame(now, frameNumber_++, true);
      }
      deliver(frame);
      next += std::chrono::nanoseconds(intervalNanoseconds_);
      std::unique_lock lock(sleepMutex);
      wake.wait_until(lock, stop, next, [] { return false; });
    }
  });
}

void SyntheticVideoStream::stop() {
  if (ticker_.joinable()) {
    ticker_.request_stop();
    ticker_.join();
  }
  std::lock_guard guard(mutex_);
  running_ = false;
  onFrame_ = nullptr;
  onStopped_ = nullptr;
}

VideoFrame SyntheticVideoStream::makeFrame(std::int64_t presentation, std::int64_t number, bool withPixels) const {
  VideoFrame frame;
  frame.presentationNanoseconds = presentation;
  frame.displayTimeNanoseconds = presentation < 0 ? 0 : std::uint64_t(presentation);
  frame.metadata = metadata_;
  if (withPixels) {
    auto pixels = std::make_shared<PixelBuffer>();
    pixels->width = int(size_.width);
    pixels->height = int(size_.height);
    pixels->stride = pixels->width * 4;
    pixels->bytes.assign(std::size_t(pixels->stride) * std::size_t(std::max(pixels->height, 1)), 0);
    for (int i = 0; i < 4 && std::size_t(i) < pixels->bytes.size(); ++i)
      pixels->bytes[std::size_t(i)] = std::uint8_t((std::uint64_t(number) >> (8 * i)) & 0xff);
    frame.pixels = std::move(pixels);
  }
  return frame;
}

void SyntheticVideoStream::deliver(const VideoFrame& frame) {
  // Held while the handler runs, so that once `stop` has the lock no frame is on its way.
  std::lock_guard guard(mutex_);
  if (running_ && onFrame_) onFrame_(frame);
}

void SyntheticVideoStream::emitFrames(int count) {
  for (int i = 0; i < count; ++i) {
    VideoFrame frame;
    {
      std::lock_guard guard(mutex_);
      frame = makeFrame(nextPresentation_, frameNumber_++, true);
      nextPresentation_ += intervalNanoseconds_;
    }
    deliver(frame);
  }
}

void SyntheticVideoStream::emitInvalidFrame() {
  VideoFrame frame;
  {
    std::lock_guard guard(mutex_);
    frame = makeFrame(nextPresentation_, frameNumber_, false);
    nextPresentation_ += intervalNanoseconds_;
  }
  deliver(frame);
}

void SyntheticVideoStream::advanceClock(std::int64_t nanoseconds) {
  std::lock_guard guard(mutex_);
  nextPresentation_ += nanoseconds;
}

void SyntheticVideoStream::emit(const VideoFrame& frame) { deliver(frame); }

std::int64_t SyntheticVideoStream::nextPresentationNanoseconds() const {
  std::lock_guard guard(mutex_);
  return nextPresentation_;
}

void SyntheticVideoStream::setMetadata(const GeometryFrameMetadata& metadata) {
  std::lock_guard guard(mutex_);
  metadata_ = metadata;
}

void SyntheticVideoStream::failNextStart(std::exception_ptr error) {
  std::lock_guard guard(mutex_);
  startFailure_ = std::move(error);
}

void SyntheticVideoStream::stopByItself(std::exception_ptr error) {
  StreamStoppedHandler handler;
  {
    std::lock_guard guard(mutex_);
    if (!running_) return;
    running_ = false;
    handler = onStopped_;
  }
  if (handler) handler(error);
}

bool SyntheticVideoStream::isRunning() const {
  std::lock_guard guard(mutex_);
  return running_;
}

std::int64_t SyntheticVideoStream::emittedFrames() const {
  std::lock_guard guard(mutex_);
  return frameNumber_;
}

// ---- SyntheticAudioStream -----------------------------------------------------------------------

void SyntheticAudioStream::start(std::function<void(const AudioBuffer&)> onBuffer, StreamStoppedHandler onStopped) {
  std::lock_guard guard(mutex_);
  onBuffer_ = std::move(onBuffer);
  onStopped_ = std::move(onStopped);
  running_ = true;
}

void SyntheticAudioStream::stop() {
  std::lock_guard guard(mutex_);
  running_ = false;
  onBuffer_ = nullptr;
  onStopped_ = nullptr;
}

void SyntheticAudioStream::emit(std::uint64_t hostTimeNanoseconds, std::int64_t frameCount, float amplitude) {
  std::lock_guard guard(mutex_);
  if (!running_ || !onBuffer_) return;
  AudioBuffer buffer;
  buffer.hostTimeNanoseconds = hostTimeNanoseconds;
  buffer.samples.resize(std::size_t(std::max<std::int64_t>(frameCount, 0)) * std::size_t(buffer.channels));
  constexpr double twoPi = 6.283185307179586;
  for (std::int64_t i = 0; i < frameCount; ++i) {
    float value = float(amplitude * std::sin(twoPi * 440.0 * double(phaseFrames_ + i) / buffer.sampleRate));
    for (int c = 0; c < buffer.channels; ++c) buffer.samples[std::size_t(i * buffer.channels + c)] = value;
  }
  phaseFrames_ += frameCount;
  onBuffer_(buffer);
}

void SyntheticAudioStream::stopByItself(std::exception_ptr error) {
  StreamStoppedHandler handler;
  {
    std::lock_guard guard(mutex_);
    if (!running_) return;
    running_ = false;
    handler = onStopped_;
  }
  if (handler) handler(error);
}

bool SyntheticAudioStream::isRunning() const {
  std::lock_guard guard(mutex_);
  return running_;
}

// ---- ScriptedPointerStream ----------------------------------------------------------------------

void ScriptedPointerStream::start(std::function<void(const PointerEvent&)> onEvent) {
  std::lock_guard guard(mutex_);
  if (startFailure_) {
    std::exception_ptr failure = std::exchange(startFailure_, nullptr);
    std::rethrow_exception(failure);
  }
  onEvent_ = std::move(onEvent);
  running_ = true;
}

void ScriptedPointerStream::stop() {
  std::lock_guard guard(mutex_);
  running_ = false;
  onEvent_ = nullptr;
}

void ScriptedPointerStream::send(const PointerEvent& event) {
  std::lock_guard guard(mutex_);
  if (running_ && onEvent_) onEvent_(event);
}

void ScriptedPointerStream::click(PointValue point, std::uint64_t hostTimeNanoseconds, MouseButton button) {
  PointerEvent down{hostTimeNanoseconds, hostTimeNanoseconds, point, button, MousePhase::down};
  PointerEvent up{hostTimeNanoseconds + 1'000'000, hostTimeNanoseconds + 1'000'000, point, button, MousePhase::up};
  send(down);
  send(up);
}

void ScriptedPointerStream::failNextStart(std::exception_ptr error) {
  std::lock_guard guard(mutex_);
  startFailure_ = std::move(error);
}

bool ScriptedPointerStream::isRunning() const {
  std::lock_guard guard(mutex_);
  return running_;
}

// ---- ScriptedCursorProvider ---------------------------------------------------------------------

std::optional<CapturedCursorShape> ScriptedCursorProvider::captureCurrentCursor() {
  std::lock_guard guard(mutex_);
  ++probes_;
  return shape_;
}

void ScriptedCursorProvider::setShape(std::optional<CapturedCursorShape> shape) {
  std::lock_guard guard(mutex_);
  shape_ = std::move(shape);
}

std::int64_t ScriptedCursorProvider::probes() const {
  std::lock_guard guard(mutex_);
  return probes_;
}

CapturedCursorShape ScriptedCursorProvider::arrow() { return {"synthetic arrow", SizeValue{17, 23}, PointValue{1, 1}}; }

CapturedCursorShape ScriptedCursorProvider::text() { return {"synthetic I-beam", SizeValue{9, 18}, PointValue{4, 9}}; }

}  // namespace vumo
