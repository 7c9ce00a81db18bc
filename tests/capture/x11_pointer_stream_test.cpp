#include "capture/x11_pointer_stream.h"

#include <gtest/gtest.h>
#include <png.h>

#include <chrono>
#include <mutex>
#include <thread>

#include "capture/x11_cursor_shape_provider.h"
#include "support/desktop_servers.h"

namespace vumo {
namespace {

using namespace std::chrono_literals;
using testing::XvfbServer;

TEST(X11PointerStream, ServerTimesRunOnPastTheirWrap) {
  struct Step {
    std::uint32_t milliseconds;
    std::int64_t expected;
  };
  X11ServerTimeUnwrapper unwrapper(0xFFFF'FF00u);
  Step steps[] = {
      {0xFFFF'FF10u, 0xFFFF'FF10},   {0xFFFF'FF08u, 0xFFFF'FF08},    // a little out of order
      {0x0000'0010u, 0x1'0000'0010},                                 // past the wrap
      {0xFFFF'FFF0u, 0xFFFF'FFF0},                                   // back before it again
      {0x0000'0100u, 0x1'0000'0100}, {0x8000'0000u, 0x1'8000'0000},  // half the range on
  };
  for (const auto& step : steps) EXPECT_EQ(unwrapper.unwrap(step.milliseconds), step.expected) << step.milliseconds;
}

struct Seen {
  PointValue point;
  MouseButton button;
  MousePhase phase;
  friend bool operator==(const Seen&, const Seen&) = default;
};

std::ostream& operator<<(std::ostream& out, const Seen& s) {
  return out << "(" << s.point.x << "," << s.point.y << " button " << int(s.button) << " phase " << int(s.phase) << ")";
}

TEST(X11PointerStream, ReportsMovesClicksAndDragsButNoWheel) {
  XvfbServer server;
  X11PointerStream stream(server.display());
  std::mutex lock;
  std::vector<PointerEvent> events;
  std::uint64_t before = monotonicNanoseconds();
  stream.start([&](const PointerEvent& event) {
    std::lock_guard guard(lock);
    events.push_back(event);
  });
  auto xdotool = [&](std::vector<std::string> words) { testing::xdotool(server.display(), words); };
  // The server makes raw events of relative motion only, as a mouse gives: steps within the
  // acceleration threshold (4) land where they are sent. The test device's absolute jumps make no
  // raw event and are found by looking at the position.
  auto settle = [] { std::this_thread::sleep_for(50ms); };
  xdotool({"mousemove", "300", "200"});
  // The jump is found by the position poll; on a busy machine its next look may be late, and a
  // relative move before it would hide the jump.
  for (int tries = 0; tries < 200; ++tries) {
    {
      std::lock_guard guard(lock);
      if (!events.empty() && events.back().globalPoint == PointValue{300, 200}) break;
    }
    settle();
  }
  xdotool({"mousemove_relative", "--", "3", "-2"});
  xdotool({"click", "1"});
  xdotool({"click", "3"});
  xdotool({"click", "4"});
  xdotool({"click", "5"});
  xdotool({"click", "2"});
  xdotool({"click", "9"});
  xdotool({"mousedown", "1"});
  xdotool({"mousemove_relative", "--", "2", "4"});
  xdotool({"mouseup", "1"});
  xdotool({"mousedown", "3"});
  settle();
  xdotool({"mousemove", "400", "250"});
  settle();
  xdotool({"mouseup", "3"});
  std::this_thread::sleep_for(100ms);
  stream.stop();
  std::uint64_t after = monotonicNanoseconds();

  using B = MouseButton;
  using P = MousePhase;
  PointValue jump{300, 200}, a{303, 198}, b{305, 202}, c{400, 250};
  std::vector<Seen> expected = {
      {jump, B::none, P::moved}, {a, B::none, P::moved}, {a, B::left, P::down},     {a, B::left, P::up},
      {a, B::right, P::down},    {a, B::right, P::up},   {a, B::other, P::down},    {a, B::other, P::up},
      {a, B::other, P::down},    {a, B::other, P::up},   {a, B::left, P::down},     {b, B::left, P::dragged},
      {b, B::left, P::up},       {b, B::right, P::down}, {c, B::right, P::dragged}, {c, B::right, P::up},
  };
  std::lock_guard guard(lock);
  std::vector<Seen> seen;
  for (const auto& e : events) seen.push_back({e.globalPoint, e.button, e.phase});
  EXPECT_EQ(seen, expected);
  for (std::size_t i = 0; i < events.size(); ++i) {
    // The server's clock carried onto ours lands within the recording, give or take its
    // millisecond resolution and the round trip that measured it.
    EXPECT_GE(events[i].hostTimeNanoseconds + 5'000'000, before) << i;
    EXPECT_LE(events[i].hostTimeNanoseconds, after + 5'000'000) << i;
    if (i > 0) {
      EXPECT_GE(events[i].hostTimeNanoseconds, events[i - 1].hostTimeNanoseconds) << i;
    }
  }
}

TEST(X11CursorShapeProvider, GivesThePointerImageAsPNGWithItsHotSpot) {
  XvfbServer server;
  X11CursorShapeProvider provider(server.display());
  auto shape = provider.captureCurrentCursor();
  ASSERT_TRUE(shape);
  ASSERT_GT(shape->pngData.size(), 8u);
  EXPECT_EQ(shape->pngData.substr(0, 8), std::string("\x89PNG\r\n\x1a\n", 8));
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  ASSERT_TRUE(png_image_begin_read_from_memory(&image, shape->pngData.data(), shape->pngData.size()));
  png_image_free(&image);
  EXPECT_EQ(double(image.width), shape->logicalSize.width);
  EXPECT_EQ(double(image.height), shape->logicalSize.height);
  EXPECT_GT(shape->logicalSize.width, 0);
  EXPECT_GE(shape->hotSpot.x, 0);
  EXPECT_LT(shape->hotSpot.x, shape->logicalSize.width);
  EXPECT_GE(shape->hotSpot.y, 0);
  EXPECT_LT(shape->hotSpot.y, shape->logicalSize.height);
  // An unchanged pointer gives the same image again.
  EXPECT_EQ(provider.captureCurrentCursor()->pngData, shape->pngData);
}

TEST(X11CursorShapeProvider, PremultipliedPixelsAreStoredWithStraightAlpha) {
  struct Case {
    std::uint32_t premultiplied;
    std::uint8_t rgba[4];
  } cases[] = {
      {0xFF102030u, {0x10, 0x20, 0x30, 0xFF}},  // opaque: as it is
      {0x80400020u, {0x80, 0x00, 0x40, 0x80}},  // half covered: divided by 128/255
      {0x00000000u, {0, 0, 0, 0}},              // transparent
      {0x40FF0000u, {0xFF, 0, 0, 0x40}},        // a colour above its alpha is clamped
  };
  std::vector<std::uint32_t> pixels;
  for (const auto& c : cases) pixels.push_back(c.premultiplied);
  std::string png = encodePremultipliedARGBAsPNG(pixels.data(), int(pixels.size()), 1);
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  ASSERT_TRUE(png_image_begin_read_from_memory(&image, png.data(), png.size()));
  image.format = PNG_FORMAT_RGBA;
  std::vector<std::uint8_t> decoded(PNG_IMAGE_SIZE(image));
  ASSERT_TRUE(png_image_finish_read(&image, nullptr, decoded.data(), 0, nullptr));
  for (std::size_t i = 0; i < pixels.size(); ++i)
    for (int channel = 0; channel < 4; ++channel)
      EXPECT_EQ(decoded[i * 4 + std::size_t(channel)], cases[i].rgba[channel])
          << "pixel " << i << " channel " << channel;
  EXPECT_TRUE(encodePremultipliedARGBAsPNG(pixels.data(), 0, 1).empty());
}

}  // namespace
}  // namespace vumo
