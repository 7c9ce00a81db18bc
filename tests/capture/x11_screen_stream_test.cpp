#include "capture/x11_screen_stream.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include "capture/capture_error.h"
#include "capture/x11_source_catalogue.h"
#include "support/desktop_servers.h"

namespace vumo {
namespace {

using namespace std::chrono_literals;
using testing::TestX11Client;
using testing::XvfbServer;

constexpr std::uint32_t white = 0xFFFFFF, red = 0xFF0000, green = 0x00FF00, blue = 0x0000FF, yellow = 0xFFFF00;
const X11DisplayInfo screen{0, "screen", RectValue{0, 0, 1280, 720}, true, true};

// The pixel as 0xRRGGBB, after checking that it is opaque.
std::uint32_t rgbAt(const PixelBuffer& buffer, int x, int y) {
  const std::uint8_t* p = buffer.data() + std::size_t(y) * std::size_t(buffer.stride) + std::size_t(x) * 4;
  return std::uint32_t(p[2]) << 16 | std::uint32_t(p[1]) << 8 | p[0];
}

// What a test keeps of the frames: their flags, times and metadata, and the latest picture.
struct FrameLog {
  std::mutex lock;
  std::vector<bool> changed;
  std::vector<std::int64_t> times;
  std::vector<GeometryFrameMetadata> metadata;
  std::vector<PixelSize> sizes;
  std::shared_ptr<const PixelBuffer> latest;
  std::exception_ptr stoppedWith;
  bool stopped = false;

  void start(X11ScreenStream& stream) {
    stream.start(
        [this](const VideoFrame& frame) {
          std::lock_guard guard(lock);
          changed.push_back(frame.changed);
          times.push_back(frame.presentationNanoseconds);
          metadata.push_back(frame.metadata);
          sizes.push_back({frame.pixels->width, frame.pixels->height});
          latest = frame.pixels;
        },
        [this](std::exception_ptr error) {
          std::lock_guard guard(lock);
          stopped = true;
          stoppedWith = error;
        });
  }
  std::size_t count() {
    std::lock_guard guard(lock);
    return changed.size();
  }
  std::shared_ptr<const PixelBuffer> picture() {
    std::lock_guard guard(lock);
    return latest;
  }
};

TEST(X11ScreenStream, ADisplayAtThirtyFramesASecondCopiesOnlyWhatChanged) {
  XvfbServer server;
  TestX11Client client(server.display());
  auto window = client.createWindow(100, 100, 400, 300, white, "canvas");
  X11ScreenStream stream(displayCaptureSource(screen), 30, server.display());
  EXPECT_EQ(stream.pixelSize(), (PixelSize{1280, 720}));

  FrameLog log;
  log.start(stream);
  std::this_thread::sleep_for(500ms);
  std::size_t beforeDrawing = log.count();
  client.fillRectangle(window, 120, 130, 40, 30, red);  // (220, 230) on the screen
  std::this_thread::sleep_for(500ms);
  stream.stop();

  std::lock_guard guard(log.lock);
  std::size_t frames = log.changed.size();
  EXPECT_GE(frames + std::size_t(stream.missedTicks()), 29u);
  EXPECT_LE(frames + std::size_t(stream.missedTicks()), 31u);
  EXPECT_GE(frames, 24u);
  for (const auto& size : log.sizes) EXPECT_EQ(size, (PixelSize{1280, 720}));
  ASSERT_GT(beforeDrawing, 2u);
  EXPECT_TRUE(log.changed[0]);
  for (std::size_t i = 1; i < beforeDrawing; ++i) EXPECT_FALSE(log.changed[i]) << "idle frame " << i;
  EXPECT_EQ(std::count(log.changed.begin() + std::ptrdiff_t(beforeDrawing), log.changed.end(), true), 1);
  // Ticks lie on a fixed grid of 1/30 s from the first one, whatever the thread's wake-ups did.
  for (std::size_t i = 1; i < frames; ++i) {
    std::int64_t offset = log.times[i] - log.times[0];
    std::int64_t ticks = (offset * 30 + 500'000'000) / 1'000'000'000;
    EXPECT_NEAR(double(offset), double(ticks * 1'000'000'000 / 30), 1.0) << "frame " << i;
  }
  EXPECT_EQ(log.metadata.back().globalFrame, (RectValue{0, 0, 1280, 720}));
  EXPECT_EQ(log.metadata.back().contentRect, (RectValue{0, 0, 1280, 720}));
  EXPECT_EQ(log.metadata.back().scaleFactor, 1.0);

  const PixelBuffer& picture = *log.latest;
  EXPECT_EQ(picture.stride, 1280 * 4);
  EXPECT_EQ(rgbAt(picture, 220, 230), red);
  EXPECT_EQ(rgbAt(picture, 259, 259), red);
  EXPECT_EQ(rgbAt(picture, 219, 240), white);
  EXPECT_EQ(rgbAt(picture, 260, 240), white);
  EXPECT_EQ(rgbAt(picture, 240, 260), white);
  EXPECT_EQ(rgbAt(picture, 150, 150), white);
}

TEST(X11ScreenStream, ASteadyRecordingReusesItsBuffers) {
  XvfbServer server;
  TestX11Client client(server.display());
  auto window = client.createWindow(0, 0, 200, 200, white, "canvas");
  X11ScreenStream stream(displayCaptureSource(screen), 60, server.display());
  std::mutex lock;
  std::set<const std::uint8_t*> buffers;
  int changedFrames = 0;
  // A consumer that lets go of each frame at once, as a writer that keeps up does.
  stream.start(
      [&](const VideoFrame& frame) {
        std::lock_guard guard(lock);
        if (!frame.changed) return;
        ++changedFrames;
        buffers.insert(frame.pixels->data());
      },
      nullptr);
  for (int i = 0; i < 40; ++i) {
    client.fillRectangle(window, 0, 0, 200, 200, i % 2 ? red : green);
    std::this_thread::sleep_for(15ms);
  }
  stream.stop();
  EXPECT_GE(changedFrames, 15);
  // The picture of the previous frame is held by the stream for repeats, so two shared memory
  // segments take turns.
  EXPECT_LE(buffers.size(), 2u);
}

// A consumer that keeps every frame (a writer that fell behind): the server never writes into a
// picture still held, the stream holds a bounded number of them and misses ticks rather than wait,
// and it delivers again as soon as the frames are let go.
TEST(X11ScreenStream, HeldFramesKeepTheirPicturesAndABusyPoolMissesTicks) {
  XvfbServer server;
  TestX11Client client(server.display());
  auto window = client.createWindow(0, 0, 200, 200, white, "canvas");
  X11ScreenStream stream(displayCaptureSource(screen), 60, server.display());
  std::mutex lock;
  bool holding = true;
  std::vector<std::pair<std::shared_ptr<const PixelBuffer>, std::uint32_t>> held;
  std::shared_ptr<const PixelBuffer> latest;
  stream.start(
      [&](const VideoFrame& frame) {
        std::lock_guard guard(lock);
        latest = frame.pixels;
        if (holding && frame.changed) held.emplace_back(frame.pixels, rgbAt(*frame.pixels, 100, 100));
      },
      nullptr);
  for (int i = 0; i < 40; ++i) {
    client.fillRectangle(window, 0, 0, 200, 200, i % 2 ? red : green);
    std::this_thread::sleep_for(15ms);
  }
  std::int64_t missedWhileHolding = stream.missedTicks();
  {
    std::lock_guard guard(lock);
    std::set<const std::uint8_t*> pictures;
    for (const auto& [pixels, colour] : held) {
      pictures.insert(pixels->data());
      EXPECT_EQ(rgbAt(*pixels, 100, 100), colour) << "a held picture was written over";
    }
    EXPECT_EQ(pictures.size(), held.size());
    EXPECT_GE(held.size(), 2u);
    EXPECT_LE(held.size(), 8u);
    held.clear();
    holding = false;
  }
  EXPECT_GT(missedWhileHolding, 10);
  client.fillRectangle(window, 0, 0, 200, 200, blue);
  std::this_thread::sleep_for(200ms);
  stream.stop();
  std::lock_guard guard(lock);
  ASSERT_TRUE(latest);
  EXPECT_EQ(rgbAt(*latest, 100, 100), blue);
}

TEST(X11ScreenStream, TicksMissedWhileTheConsumerWasSlowAreSkippedNotBunched) {
  XvfbServer server;
  X11ScreenStream stream(displayCaptureSource(screen), 30, server.display());
  std::mutex lock;
  std::vector<std::int64_t> times;
  stream.start(
      [&](const VideoFrame& frame) {
        std::size_t count;
        {
          std::lock_guard guard(lock);
          times.push_back(frame.presentationNanoseconds);
          count = times.size();
        }
        // The fourth frame takes 3.3 tick intervals to hand over: ticks 4, 5 and 6 pass meanwhile.
        if (count == 4) std::this_thread::sleep_for(110ms);
      },
      nullptr);
  std::this_thread::sleep_for(400ms);
  stream.stop();
  std::lock_guard guard(lock);
  ASSERT_GT(times.size(), 6u);
  EXPECT_GE(stream.missedTicks(), 3);
  const double period = 1e9 / 30;
  // The next frame is that of the first tick still ahead, on the grid: 4 intervals on (more on a
  // machine slow enough to wake late).
  double gap = double(times[4] - times[3]);
  EXPECT_GE(std::lround(gap / period), 4);
  EXPECT_NEAR(gap, double(std::lround(gap / period)) * period, 1.0);
  for (std::size_t i = 1; i < times.size(); ++i) EXPECT_GE(double(times[i] - times[i - 1]), period - 1) << i;
}

TEST(X11ScreenStream, AnAreaIsCroppedFromTheScreen) {
  XvfbServer server;
  TestX11Client client(server.display());
  auto window = client.createWindow(0, 0, 1280, 720, white, "background");
  client.fillRectangle(window, 250, 150, 20, 10, green);
  auto source = areaCaptureSource(screen, RectValue{200, 100, 301, 201});
  X11ScreenStream stream(source, 30, server.display());
  FrameLog log;
  log.start(stream);
  std::this_thread::sleep_for(150ms);
  stream.stop();

  auto picture = log.picture();
  ASSERT_TRUE(picture);
  EXPECT_EQ(picture->width, 300);
  EXPECT_EQ(picture->height, 200);
  EXPECT_EQ(rgbAt(*picture, 50, 50), green);
  EXPECT_EQ(rgbAt(*picture, 69, 59), green);
  EXPECT_EQ(rgbAt(*picture, 49, 50), white);
  EXPECT_EQ(rgbAt(*picture, 70, 55), white);
  EXPECT_EQ(rgbAt(*picture, 60, 60), white);
  EXPECT_EQ(log.metadata.back().globalFrame, (RectValue{200, 100, 301, 201}));
}

TEST(X11ScreenStream, ACoveredWindowStillRecordsAndItsEndEndsTheStream) {
  XvfbServer server;
  TestX11Client client(server.display());
  auto window = client.createWindow(400, 300, 301, 201, blue, "recorded");
  client.fillRectangle(window, 10, 10, 20, 20, red);
  X11WindowInfo info{window, "recorded", std::nullopt, std::nullopt, RectValue{400, 300, 301, 201}};
  X11ScreenStream stream(windowCaptureSource(info), 30, server.display());
  FrameLog log;
  log.start(stream);
  std::this_thread::sleep_for(100ms);
  client.createWindow(350, 250, 500, 400, yellow, "on top");
  client.fillRectangle(window, 100, 100, 10, 10, green);  // drawn while covered
  client.moveWindow(window, 420, 310);
  std::this_thread::sleep_for(250ms);
  {
    auto picture = log.picture();
    ASSERT_TRUE(picture);
    EXPECT_EQ(picture->width, 300);
    EXPECT_EQ(picture->height, 200);
    EXPECT_EQ(rgbAt(*picture, 15, 15), red);
    EXPECT_EQ(rgbAt(*picture, 105, 105), green);
    EXPECT_EQ(rgbAt(*picture, 200, 150), blue);
    std::lock_guard guard(log.lock);
    EXPECT_EQ(log.metadata.back().globalFrame, (RectValue{420, 310, 301, 201}));
    EXPECT_EQ(log.metadata.back().contentRect, (RectValue{0, 0, 301, 201}));
  }
  // A resized window keeps recording at its new size; the writer scales it.
  client.resizeWindow(window, 201, 101);
  client.fillRectangle(window, 150, 50, 10, 10, red);
  std::this_thread::sleep_for(250ms);
  {
    auto picture = log.picture();
    EXPECT_EQ(picture->width, 200);
    EXPECT_EQ(picture->height, 100);
    EXPECT_EQ(rgbAt(*picture, 155, 55), red);
    EXPECT_EQ(stream.pixelSize(), (PixelSize{300, 200}));
    std::lock_guard guard(log.lock);
    EXPECT_EQ(log.metadata.back().globalFrame, (RectValue{420, 310, 201, 101}));
  }
  client.destroyWindow(window);
  for (int i = 0; i < 50; ++i) {
    std::this_thread::sleep_for(20ms);
    std::lock_guard guard(log.lock);
    if (log.stopped) break;
  }
  std::lock_guard guard(log.lock);
  ASSERT_TRUE(log.stopped);
  EXPECT_ERROR_CASE(std::rethrow_exception(log.stoppedWith), CaptureError, CaptureError::Case::windowGone);
  EXPECT_ERROR_CASE(X11ScreenStream(windowCaptureSource(info), 30, server.display()), CaptureError,
                    CaptureError::Case::windowGone);
}

TEST(X11ScreenStream, AServerThatGoesAwayEndsTheStream) {
  XvfbServer server;
  X11ScreenStream stream(displayCaptureSource(screen), 30, server.display());
  FrameLog log;
  log.start(stream);
  std::this_thread::sleep_for(100ms);
  server.kill();
  for (int i = 0; i < 100; ++i) {
    std::this_thread::sleep_for(20ms);
    std::lock_guard guard(log.lock);
    if (log.stopped) break;
  }
  std::lock_guard guard(log.lock);
  ASSERT_TRUE(log.stopped);
  EXPECT_ERROR_CASE(std::rethrow_exception(log.stoppedWith), CaptureError, CaptureError::Case::screenCaptureFailed);
}

}  // namespace
}  // namespace vumo
