#include "media/video_device_stream.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "shared/files.h"
#include "support/test_support.h"

namespace vumo {
namespace {

using namespace vumo::testing;

TEST(VideoDeviceList, FindsNoCaptureDeviceWhereThereIsNone) {
  TemporaryDirectory folder;
  // Names that look like nodes but are a regular file, a FIFO and a character device that is no
  // V4L2 device, and a real device's name under another prefix: none is a capture device.
  writeFileAtomically(folder.path() / "video0", "");
  ASSERT_EQ(::mkfifo((folder.path() / "video1").c_str(), 0600), 0);
  std::filesystem::create_symlink("/dev/null", folder.path() / "video2");
  std::filesystem::create_symlink("/dev/null", folder.path() / "videoX");
  std::filesystem::create_directory(folder.path() / "video3");
  EXPECT_TRUE(listVideoDevices(folder.path()).empty());
  EXPECT_TRUE(listVideoDevices(folder.path() / "missing").empty());
}

TEST(VideoDeviceStream, AMissingDeviceIsAClearError) {
  TemporaryDirectory folder;
  VideoDeviceRequest request;
  request.deviceID = (folder.path() / "video7").string();
  try {
    (void)makeVideoDeviceStream(request);
    FAIL() << "a missing device opened";
  } catch (const VideoDeviceError& error) {
    EXPECT_EQ(error.kind(), VideoDeviceError::Case::notFound);
    EXPECT_EQ(error.message(), "The video device " + request.deviceID + " is not connected.");
    EXPECT_EQ(error.localizationKey(), "recording.error.videoDeviceMissing");
  }
}

TEST(VideoDeviceStream, DeviceTimestampsOnTheHostTimebase) {
  constexpr std::int64_t second = 1'000'000'000;
  constexpr std::int64_t monotonic = 5'000 * second;           // about 83 minutes since boot
  constexpr std::int64_t realtime = 1'760'000'000LL * second;  // 2025
  const struct {
    const char* name;
    std::int64_t device;
    std::int64_t expected;
  } cases[] = {
      {"a monotonic capture time is kept", monotonic - 40'000'000, monotonic - 40'000'000},
      {"a wall-clock capture time is moved onto the monotonic clock", realtime - 40'000'000, monotonic - 40'000'000},
      {"a driver's own counter gives way to the read time", 123'456, monotonic},
      {"a monotonic time far in the past is no capture time", monotonic - 11 * second, monotonic},
  };
  for (const auto& c : cases)
    EXPECT_EQ(deviceTimestampOnHostTimebase(c.device, monotonic, realtime), c.expected) << c.name;
}

// The path from a libavdevice input to BGRA frames, through a generated source since tests have
// no camera: four vertical bars of known colours, in YUV 4:2:2 as webcams deliver it.
TEST(VideoDeviceStream, DeliversConvertedFramesOnTheHostTimebaseUntilStopped) {
  VideoDeviceRequest request;
  request.inputFormat = "lavfi";
  request.deviceID =
      "color=c=red:s=32x16:r=30,format=yuyv422[a];color=c=blue:s=32x16:r=30,format=yuyv422[b];"
      "[a][b]hstack,format=yuyv422";
  auto stream = makeVideoDeviceStream(request);
  EXPECT_EQ(stream->pixelSize(), (PixelSize{64, 16}));

  std::mutex mutex;
  std::condition_variable arrived;
  std::vector<VideoFrame> frames;
  std::size_t delivered = 0;
  const auto before = static_cast<std::int64_t>(monotonicNanoseconds());
  stream->start(
      [&](const VideoFrame& frame) {
        std::lock_guard lock(mutex);
        ++delivered;
        if (frames.size() < 5) frames.push_back(frame);
        arrived.notify_all();
      },
      [](std::exception_ptr) {});
  {
    std::unique_lock lock(mutex);
    ASSERT_TRUE(arrived.wait_for(lock, std::chrono::seconds(10), [&] { return frames.size() >= 5; }));
  }
  stream->stop();
  const auto after = static_cast<std::int64_t>(monotonicNanoseconds());
  EXPECT_EQ(stream->missedTicks(), 0);

  for (const VideoFrame& frame : frames) {
    ASSERT_TRUE(frame.pixels);
    const PixelBuffer& pixels = *frame.pixels;
    ASSERT_EQ(pixels.width, 64);
    ASSERT_EQ(pixels.height, 16);
    ASSERT_GE(pixels.stride, 64 * 4);
    // A generated source counts from zero, so each frame carries the time it was read.
    EXPECT_GE(frame.presentationNanoseconds, before);
    EXPECT_LE(frame.presentationNanoseconds, after);
    auto pixel = [&](int x, int y) { return pixels.data() + y * pixels.stride + x * 4; };
    // Red on the left, blue on the right, in B, G, R order, within the rounding of 4:2:2.
    const std::uint8_t* left = pixel(8, 8);
    const std::uint8_t* right = pixel(56, 8);
    EXPECT_LT(left[0], 16);
    EXPECT_GT(left[2], 235);
    EXPECT_GT(right[0], 235);
    EXPECT_LT(right[2], 16);
  }
  // Once stopped, nothing more is delivered.
  std::size_t count = 0;
  {
    std::lock_guard lock(mutex);
    count = delivered;
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  std::lock_guard lock(mutex);
  EXPECT_EQ(delivered, count);
}

}  // namespace
}  // namespace vumo
