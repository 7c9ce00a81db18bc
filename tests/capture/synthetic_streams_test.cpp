#include "capture/synthetic_streams.h"

#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

namespace vumo {
namespace {

TEST(SyntheticVideoStream, DrivenFramesAreNumberedAndOneIntervalApart) {
  SyntheticVideoStream stream(PixelSize{4, 2}, 60, SyntheticVideoStream::Pacing::driven, 500);
  std::vector<VideoFrame> frames;
  stream.emitFrames(1);  // not started: nothing
  stream.start([&](const VideoFrame& frame) { frames.push_back(frame); }, [](std::exception_ptr) {});
  stream.emitFrames(2);
  stream.emitInvalidFrame();
  stream.advanceClock(1000);
  stream.emitFrames(1);
  stream.stop();
  stream.emitFrames(1);
  ASSERT_EQ(frames.size(), 4u);
  const std::int64_t interval = 16'666'667;
  EXPECT_EQ(stream.frameIntervalNanoseconds(), interval);
  std::vector<std::int64_t> times;
  for (const auto& frame : frames) times.push_back(frame.presentationNanoseconds);
  EXPECT_EQ(times, (std::vector<std::int64_t>{500 + interval, 500 + 2 * interval, 500 + 3 * interval,
                                              500 + 4 * interval + 1000}));
  EXPECT_FALSE(frames[2].pixels);
  ASSERT_TRUE(frames[3].pixels);
  EXPECT_EQ(frames[3].pixels->size(), 4u * 4u * 2u);
  EXPECT_EQ(frames[3].pixels->data()[0], 3);  // the invalid tick used no number
}

TEST(SyntheticVideoStream, APacedStreamDeliversOnItsOwnThreadUntilStopped) {
  SyntheticVideoStream stream(PixelSize{2, 2}, 200, SyntheticVideoStream::Pacing::thread);
  std::mutex mutex;
  std::vector<std::int64_t> times;
  stream.start(
      [&](const VideoFrame& frame) {
        std::lock_guard guard(mutex);
        times.push_back(frame.presentationNanoseconds);
      },
      [](std::exception_ptr) {});
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < deadline) {
    std::lock_guard guard(mutex);
    if (times.size() >= 5) break;
  }
  stream.stop();
  std::lock_guard guard(mutex);
  std::size_t delivered = times.size();
  ASSERT_GE(delivered, 5u);
  for (std::size_t i = 1; i < times.size(); ++i) EXPECT_GT(times[i], times[i - 1]);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(times.size(), delivered);  // nothing after stop
}

TEST(SyntheticAudioStream, DeliversATimedToneOnlyWhileRunning) {
  SyntheticAudioStream stream;
  std::vector<AudioBuffer> buffers;
  stream.start([&](const AudioBuffer& buffer) { buffers.push_back(buffer); }, [](std::exception_ptr) {});
  stream.emit(1234, 480, 0.5f);
  stream.stop();
  stream.emit(5678);
  ASSERT_EQ(buffers.size(), 1u);
  EXPECT_EQ(buffers[0].hostTimeNanoseconds, 1234u);
  EXPECT_EQ(buffers[0].frameCount(), 480);
  float peak = 0;
  for (float sample : buffers[0].samples) peak = std::max(peak, std::abs(sample));
  EXPECT_NEAR(peak, 0.5f, 0.01f);
}

}  // namespace
}  // namespace vumo
