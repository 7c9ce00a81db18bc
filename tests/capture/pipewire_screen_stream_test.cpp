#include "capture/pipewire_screen_stream.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <regex>
#include <thread>

#include "capture/capture_error.h"
#include "capture/x11_cursor_shape_provider.h"
#include "support/pipewire_test_servers.h"

namespace vumo {
namespace {

using namespace std::chrono_literals;
using testing::PipeWireTestServers;
using testing::ScreencastBuffer;
using testing::ScreencastCursor;
using testing::ScreencastProducerOptions;
using testing::TestScreencastProducer;

struct ReceivedFrame {
  std::shared_ptr<const PixelBuffer> pixels;
  std::int64_t presentation = 0;
  std::uint64_t display = 0;
  GeometryFrameMetadata metadata;
  bool changed = false;
  std::optional<std::uint32_t> number;
};

// Everything the stream handed over, for the test thread to wait on.
struct FrameLog {
  std::mutex lock;
  std::condition_variable arrived;
  std::vector<ReceivedFrame> frames;
  std::exception_ptr stoppedWith;
  bool stopped = false;
  bool afterStop = false;
  bool stopReturned = false;

  void start(PipeWireScreenStream& stream) {
    stream.start(
        [this](const VideoFrame& frame) {
          std::lock_guard guard(lock);
          if (stopReturned) afterStop = true;
          const PixelBuffer& p = *frame.pixels;
          frames.push_back(ReceivedFrame{frame.pixels, frame.presentationNanoseconds, frame.displayTimeNanoseconds,
                                         frame.metadata, frame.changed,
                                         testing::readScreencastPattern(p.data(), p.width, p.height, p.stride)});
          arrived.notify_all();
        },
        [this](std::exception_ptr error) {
          std::lock_guard guard(lock);
          stopped = true;
          stoppedWith = error;
          arrived.notify_all();
        });
  }
  // Waits until `count` changed frames arrived; false on time-out.
  bool waitForChanged(std::size_t count, std::chrono::milliseconds timeout = 10s) {
    std::unique_lock guard(lock);
    return arrived.wait_for(guard, timeout, [&] { return changedFrames().size() >= count; });
  }
  bool waitForStop(std::chrono::milliseconds timeout) {
    std::unique_lock guard(lock);
    return arrived.wait_for(guard, timeout, [&] { return stopped; });
  }
  // With `lock` held.
  std::vector<ReceivedFrame> changedFrames() const {
    std::vector<ReceivedFrame> result;
    for (const auto& frame : frames)
      if (frame.changed) result.push_back(frame);
    return result;
  }
  std::vector<ReceivedFrame> snapshot() {
    std::lock_guard guard(lock);
    return frames;
  }
};

std::array<std::uint8_t, 4> pixelAt(const PixelBuffer& buffer, int x, int y) {
  const std::uint8_t* p = buffer.data() + std::size_t(y) * std::size_t(buffer.stride) + std::size_t(x) * 4;
  return {p[0], p[1], p[2], p[3]};
}

class PipeWireScreenStreamTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { servers_ = std::make_unique<PipeWireTestServers>(); }
  static void TearDownTestSuite() { servers_.reset(); }

  // A producer whose node runs, linked to a fresh stream of `configuration` (node id filled in).
  struct Linked {
    std::unique_ptr<TestScreencastProducer> producer;
    std::unique_ptr<PipeWireScreenStream> stream;
    std::int64_t probes = 0;  // pointer-only buffers sent before the test's own
  };
  static Linked link(ScreencastProducerOptions options, PipeWireScreenStreamConfiguration configuration = {}) {
    Linked linked;
    linked.producer = std::make_unique<TestScreencastProducer>(options);
    configuration.nodeID = linked.producer->nodeID();
    linked.stream = std::make_unique<PipeWireScreenStream>(configuration);
    EXPECT_TRUE(linked.producer->waitUntilStreaming(10s)) << "the session manager never linked the nodes";
    // Both ends report that they run a moment before the first cycle reaches the consumer: a
    // buffer sent in that moment is lost. Buffers that carry nothing (the pointer outside) are
    // sent until one arrives.
    for (int attempt = 0; attempt < 100 && linked.stream->pointerOnlyBuffers() == 0; ++attempt) {
      ScreencastBuffer probe;
      probe.picture = false;
      probe.cursor = ScreencastCursor{};
      probe.cursor->id = 0;
      linked.producer->send(probe);
      std::this_thread::sleep_for(20ms);
    }
    EXPECT_GT(linked.stream->pointerOnlyBuffers(), 0) << "no buffer ever reached the stream";
    std::this_thread::sleep_for(50ms);  // a probe still on its way
    linked.probes = linked.stream->pointerOnlyBuffers();
    return linked;
  }

  static std::unique_ptr<PipeWireTestServers> servers_;
};

std::unique_ptr<PipeWireTestServers> PipeWireScreenStreamTest::servers_;

// Sends until the producer has a free buffer: the consumer may hold all of them for a moment.
void send(TestScreencastProducer& producer, const ScreencastBuffer& buffer = {}) {
  for (int attempt = 0; attempt < 100; ++attempt) {
    if (producer.send(buffer)) return;
    std::this_thread::sleep_for(10ms);
  }
  FAIL() << "the producer never got a free buffer";
}

// Buffers of the producer, spelled out for the cases below.
ScreencastBuffer stamped(std::int64_t pts, std::optional<std::uint32_t> number = std::nullopt) {
  ScreencastBuffer buffer;
  buffer.pts = pts;
  buffer.number = number;
  return buffer;
}
ScreencastCursor cursorAt(int x, int y, std::uint32_t id = 1) {
  ScreencastCursor cursor;
  cursor.id = id;
  cursor.x = x;
  cursor.y = y;
  return cursor;
}
ScreencastBuffer numbered(std::uint64_t sequence, std::optional<ScreencastCursor> cursor = std::nullopt,
                          bool picture = true, bool corrupted = false) {
  ScreencastBuffer buffer;
  buffer.sequence = sequence;
  buffer.cursor = cursor;
  buffer.picture = picture;
  buffer.corrupted = corrupted;
  return buffer;
}
ScreencastBuffer pointerOnly(std::optional<ScreencastCursor> cursor = std::nullopt) {
  ScreencastBuffer buffer;
  buffer.picture = false;
  buffer.cursor = cursor;
  return buffer;
}
ScreencastBuffer cropped(int x, int y, int width, int height) {
  ScreencastBuffer buffer;
  buffer.crop = std::array<int, 4>{x, y, width, height};
  return buffer;
}

bool waitForPointerOnly(const PipeWireScreenStream& stream, std::int64_t count) {
  for (int attempt = 0; attempt < 1000 && stream.pointerOnlyBuffers() < count; ++attempt)
    std::this_thread::sleep_for(10ms);
  return stream.pointerOnlyBuffers() >= count;
}

TEST_F(PipeWireScreenStreamTest, FramesArriveWithTheProducersPatternSizeAndTimes) {
  struct Case {
    const char* name;
    bool rgbOrder;
    std::optional<RectValue> logicalFrame;
    PixelSize encodedSize;
    PixelSize expectedSize;
    RectValue expectedGlobalFrame;
    double expectedScale;
  };
  const Case cases[] = {
      {"BGRx, no portal geometry", false, std::nullopt, {}, {322, 242}, {0, 0, 322, 242}, 1.0},
      {"RGBx swizzled, on a HiDPI monitor at (1920, 0)",
       true,
       RectValue{1920, 0, 161, 121},
       {640, 360},
       {640, 360},
       {1920, 0, 161, 121},
       2.0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ScreencastProducerOptions options;
    options.width = 322;
    options.height = 242;
    options.rgbOrder = c.rgbOrder;
    PipeWireScreenStreamConfiguration configuration;
    configuration.framesPerSecond = 10;
    configuration.logicalFrame = c.logicalFrame;
    configuration.encodedSize = c.encodedSize;
    auto linked = link(options, configuration);
    EXPECT_EQ(linked.stream->pixelSize().width, c.expectedSize.width);
    EXPECT_EQ(linked.stream->pixelSize().height, c.expectedSize.height);
    FrameLog log;
    log.start(*linked.stream);
    const std::int64_t base = std::int64_t(monotonicNanoseconds());
    for (std::uint32_t i = 1; i <= 3; ++i) {
      send(*linked.producer, stamped(base + i * 1'000'000, 40000 + i));
      ASSERT_TRUE(log.waitForChanged(i)) << "frame " << i;
    }
    linked.stream->stop();
    auto frames = log.snapshot();
    std::vector<ReceivedFrame> changed;
    for (const auto& frame : frames)
      if (frame.changed) changed.push_back(frame);
    ASSERT_EQ(changed.size(), 3u);
    for (std::uint32_t i = 0; i < 3; ++i) {
      const ReceivedFrame& frame = changed[i];
      EXPECT_EQ(frame.number, 40001 + i);
      EXPECT_EQ(frame.presentation, base + std::int64_t(i + 1) * 1'000'000);
      EXPECT_EQ(frame.pixels->width, 322);
      EXPECT_EQ(frame.pixels->height, 242);
      EXPECT_EQ(frame.metadata.globalFrame, c.expectedGlobalFrame);
      EXPECT_DOUBLE_EQ(frame.metadata.scaleFactor, c.expectedScale);
      // Blue follows x, green y, red is fixed, and the X byte became opaque alpha.
      EXPECT_EQ(pixelAt(*frame.pixels, 300, 200), (std::array<std::uint8_t, 4>{238, 211, 0x40, 0xFF}));
    }
    EXPECT_EQ(linked.stream->droppedFrames(), 0);
    EXPECT_EQ(linked.stream->timeDiscontinuities(), 0);
  }
}

TEST_F(PipeWireScreenStreamTest, TicksWithoutABufferRepeatTheLastFrameOnItsTimeLine) {
  PipeWireScreenStreamConfiguration configuration;
  configuration.framesPerSecond = 20;
  auto linked = link({}, configuration);
  FrameLog log;
  log.start(*linked.stream);
  const std::int64_t pts = std::int64_t(monotonicNanoseconds()) - 3'000'000;  // 3 ms of latency
  send(*linked.producer, stamped(pts));
  ASSERT_TRUE(log.waitForChanged(1));
  std::this_thread::sleep_for(420ms);
  linked.stream->stop();
  auto frames = log.snapshot();
  std::size_t first = 0;
  while (first < frames.size() && !frames[first].changed) ++first;
  ASSERT_LT(first, frames.size());
  std::vector<ReceivedFrame> repeats(frames.begin() + std::ptrdiff_t(first) + 1, frames.end());
  // 20 ticks a second for 0.42 s: about eight repeats, allowing for a loaded machine.
  EXPECT_GE(repeats.size(), 5u);
  EXPECT_LE(repeats.size(), 10u);
  const std::int64_t offset = frames[first].presentation - std::int64_t(frames[first].display);
  std::uint64_t previous = frames[first].display;
  for (const auto& repeat : repeats) {
    EXPECT_FALSE(repeat.changed);
    EXPECT_EQ(repeat.pixels, frames[first].pixels) << "a repeat hands the same buffer again";
    EXPECT_EQ(repeat.presentation - std::int64_t(repeat.display), offset);
    EXPECT_GT(repeat.display, previous);
    // Ticks lie on the 50 ms grid of the stream's start.
    if (&repeat != &repeats.front()) {
      EXPECT_EQ((repeat.display - previous) % 50'000'000, 0u);
    }
    previous = repeat.display;
  }
}

// A compositor's latency varies: the next picture may carry a time before that of a repeat the
// ticker already stamped on the previous picture's line. It must still follow, not be lost.
TEST_F(PipeWireScreenStreamTest, APictureOlderThanTheLastRepeatStillFollowsIt) {
  PipeWireScreenStreamConfiguration configuration;
  configuration.framesPerSecond = 20;
  auto linked = link({}, configuration);
  FrameLog log;
  log.start(*linked.stream);
  const std::int64_t pts = std::int64_t(monotonicNanoseconds()) - 3'000'000;
  send(*linked.producer, stamped(pts, 1));
  ASSERT_TRUE(log.waitForChanged(1));
  std::this_thread::sleep_for(180ms);  // about three repeats, each stamped 50 ms further on
  send(*linked.producer, stamped(pts + 1'000'000, 2));
  ASSERT_TRUE(log.waitForChanged(2));
  linked.stream->stop();
  const auto frames = log.snapshot();
  std::size_t second = 0;
  while (second < frames.size() && !(frames[second].changed && frames[second].number == 2u)) ++second;
  ASSERT_LT(second, frames.size());
  ASSERT_GE(second, 2u) << "the first picture and at least one repeat come before";
  EXPECT_FALSE(frames[second - 1].changed);
  EXPECT_EQ(frames[second].presentation, frames[second - 1].presentation + 1);
  for (std::size_t i = 1; i < frames.size(); ++i) EXPECT_GT(frames[i].presentation, frames[i - 1].presentation);
  EXPECT_EQ(linked.stream->timeDiscontinuities(), 0) << "its own time was usable, only late";
}

TEST_F(PipeWireScreenStreamTest, APictureSentBeforeTheStartIsTheFirstFrameAtTheFirstTick) {
  PipeWireScreenStreamConfiguration configuration;
  configuration.framesPerSecond = 20;
  auto linked = link({}, configuration);
  const std::uint64_t before = monotonicNanoseconds();
  const std::int64_t pts = std::int64_t(before) - 7'000'000;
  send(*linked.producer, stamped(pts, 1234));
  std::this_thread::sleep_for(200ms);  // the buffer reaches the stream, which keeps it
  const std::uint64_t started = monotonicNanoseconds();
  FrameLog log;
  log.start(*linked.stream);
  ASSERT_TRUE(log.waitForChanged(1));
  linked.stream->stop();
  auto frames = log.snapshot();
  ASSERT_FALSE(frames.empty());
  EXPECT_TRUE(frames[0].changed);
  EXPECT_EQ(frames[0].number, 1234u);
  // It appears at the first tick, its presentation time moved along with it: the offset from its
  // host time stays what it was when the buffer came (7 ms of latency, plus the way to the stream).
  EXPECT_GE(frames[0].display, started);
  EXPECT_LT(frames[0].display, started + 50'000'000);
  const std::int64_t offset = frames[0].presentation - std::int64_t(frames[0].display);
  EXPECT_LE(offset, -7'000'000);
  EXPECT_GE(offset, pts - std::int64_t(started));
}

TEST_F(PipeWireScreenStreamTest, UnusablePresentationTimesFallBackToTheHostClock) {
  auto linked = link({});
  FrameLog log;
  log.start(*linked.stream);
  const std::int64_t base = std::int64_t(monotonicNanoseconds());
  struct Case {
    const char* name;
    std::int64_t pts;
    bool usable;
  };
  const Case cases[] = {
      {"first", base, true},
      {"missing", 0, false},
      {"negative", -5, false},
      {"ahead", base + 1000, true},
      {"backward", base + 10, false},
      {"equal to the last", base + 10, false},
      {"ahead again", base + 2000, true},
  };
  std::uint32_t index = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ++index;
    send(*linked.producer, stamped(c.pts));
    ASSERT_TRUE(log.waitForChanged(index));
    std::lock_guard guard(log.lock);
    ReceivedFrame frame = log.changedFrames().back();
    if (c.usable)
      EXPECT_EQ(frame.presentation, c.pts);
    else
      EXPECT_EQ(frame.presentation, std::int64_t(frame.display));
  }
  EXPECT_EQ(linked.stream->timeDiscontinuities(), 4);
}

TEST_F(PipeWireScreenStreamTest, SequenceGapsCountAsDroppedAndPointerOnlyBuffersAreNotFrames) {
  auto linked = link({});
  FrameLog log;
  log.start(*linked.stream);
  auto pointer = linked.stream->pointerEvents();
  std::mutex eventsLock;
  std::vector<PointerEvent> events;
  pointer->start([&](const PointerEvent& event) {
    std::lock_guard guard(eventsLock);
    events.push_back(event);
  });
  // 1, 2 pictures; 3 only the pointer; 4 flagged corrupted; 5 a picture; 6 and 7 lost; 8 a picture.
  // Each buffer is sent once the stream has the one before, as a compositor paces its frames.
  send(*linked.producer, numbered(1, cursorAt(10, 10)));
  ASSERT_TRUE(log.waitForChanged(1));
  send(*linked.producer, numbered(2));
  ASSERT_TRUE(log.waitForChanged(2));
  send(*linked.producer, numbered(3, cursorAt(20, 12), false));
  ASSERT_TRUE(waitForPointerOnly(*linked.stream, linked.probes + 1));
  send(*linked.producer, numbered(4, cursorAt(30, 14), true, true));
  ASSERT_TRUE(waitForPointerOnly(*linked.stream, linked.probes + 2));
  send(*linked.producer, numbered(5));
  ASSERT_TRUE(log.waitForChanged(3));
  send(*linked.producer, numbered(8));
  ASSERT_TRUE(log.waitForChanged(4));
  std::this_thread::sleep_for(100ms);
  linked.stream->stop();
  pointer->stop();
  std::vector<std::uint32_t> numbers;
  {
    std::lock_guard guard(log.lock);
    for (const auto& frame : log.changedFrames()) numbers.push_back(frame.number.value_or(0));
  }
  EXPECT_EQ(numbers, (std::vector<std::uint32_t>{1, 2, 5, 8}));
  EXPECT_EQ(linked.stream->droppedFrames(), 2);
  EXPECT_GE(linked.stream->missedTicks(), 2) << "the recording's dropped frames include the producer's";
  EXPECT_EQ(linked.stream->pointerOnlyBuffers() - linked.probes, 2);
  std::lock_guard guard(eventsLock);
  std::vector<PointValue> points;
  for (const auto& event : events) points.push_back(event.globalPoint);
  EXPECT_EQ(points, (std::vector<PointValue>{{10, 10}, {20, 12}, {30, 14}}));
}

class FakeButtons : public PointerButtonSource {
 public:
  void start(std::function<void(const PointerButtonEvent&)> onEvent) override { handler_ = std::move(onEvent); }
  void stop() override { handler_ = nullptr; }
  void press(MouseButton button, bool pressed) {
    if (handler_) handler_(PointerButtonEvent{monotonicNanoseconds(), button, pressed});
  }

 private:
  std::function<void(const PointerButtonEvent&)> handler_;
};

TEST_F(PipeWireScreenStreamTest, ThePointerComesFromTheCursorMetadata) {
  // The stream is 320 x 240 pixels of a monitor of 160 x 120 points at (100, 50): scale 2.
  PipeWireScreenStreamConfiguration configuration;
  configuration.logicalFrame = RectValue{100, 50, 160, 120};
  auto linked = link({}, configuration);
  auto buttonsOwned = std::make_unique<FakeButtons>();
  FakeButtons& buttons = *buttonsOwned;
  auto pointer = linked.stream->pointerEvents(std::move(buttonsOwned));
  auto shapes = linked.stream->cursorShapes();
  EXPECT_FALSE(shapes->captureCurrentCursor()) << "no shape before the first bitmap";
  std::mutex eventsLock;
  std::condition_variable eventArrived;
  std::vector<PointerEvent> events;
  pointer->start([&](const PointerEvent& event) {
    std::lock_guard guard(eventsLock);
    events.push_back(event);
    eventArrived.notify_all();
  });
  auto waitForEvents = [&](std::size_t count) {
    std::unique_lock guard(eventsLock);
    return eventArrived.wait_for(guard, 10s, [&] { return events.size() >= count; });
  };
  const std::array<std::uint8_t, 4> halfRed{0, 0, 128, 128};  // premultiplied B, G, R, A

  std::uint64_t before = monotonicNanoseconds();
  ScreencastCursor withBitmap = cursorAt(40, 60);
  withBitmap.bitmapColour = halfRed;
  withBitmap.bitmapSide = 8;
  withBitmap.bitmapAsRGBA = true;
  withBitmap.hotX = 2;
  withBitmap.hotY = 3;
  send(*linked.producer, pointerOnly(withBitmap));
  ASSERT_TRUE(waitForEvents(1));
  // Unchanged position: no event. Outside the stream: none either, and the way back is a move.
  send(*linked.producer, pointerOnly());
  ASSERT_TRUE(waitForPointerOnly(*linked.stream, linked.probes + 2));
  send(*linked.producer, pointerOnly(cursorAt(0, 0, 0)));
  ASSERT_TRUE(waitForPointerOnly(*linked.stream, linked.probes + 3));
  send(*linked.producer, pointerOnly(cursorAt(40, 60)));
  ASSERT_TRUE(waitForEvents(2));
  buttons.press(MouseButton::left, true);
  send(*linked.producer, pointerOnly(cursorAt(50, 70)));
  ASSERT_TRUE(waitForEvents(4));
  buttons.press(MouseButton::left, false);
  pointer->stop();

  std::lock_guard guard(eventsLock);
  struct Expected {
    MousePhase phase;
    MouseButton button;
    PointValue point;
  };
  const Expected expected[] = {
      {MousePhase::moved, MouseButton::none, {120, 80}}, {MousePhase::moved, MouseButton::none, {120, 80}},
      {MousePhase::down, MouseButton::left, {120, 80}},  {MousePhase::dragged, MouseButton::left, {125, 85}},
      {MousePhase::up, MouseButton::left, {125, 85}},
  };
  ASSERT_EQ(events.size(), std::size(expected));
  for (std::size_t i = 0; i < events.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(events[i].phase, expected[i].phase);
    EXPECT_EQ(events[i].button, expected[i].button);
    EXPECT_EQ(events[i].globalPoint, expected[i].point);
    EXPECT_GE(events[i].hostTimeNanoseconds, before);
    if (i > 0) {
      EXPECT_GE(events[i].hostTimeNanoseconds, events[i - 1].hostTimeNanoseconds);
    }
  }
  auto shape = shapes->captureCurrentCursor();
  ASSERT_TRUE(shape);
  EXPECT_EQ(shape->logicalSize, (SizeValue{8, 8}));
  EXPECT_EQ(shape->hotSpot, (PointValue{2, 3}));
  // Sent as premultiplied RGBA; the same picture as premultiplied ARGB gives the same PNG.
  std::vector<std::uint32_t> argb(64, 0x80800000u);
  EXPECT_EQ(shape->pngData, encodePremultipliedARGBAsPNG(argb.data(), 8, 8));
}

TEST_F(PipeWireScreenStreamTest, ACroppedBufferIsDeliveredAtTheCropsSize) {
  auto linked = link({});
  FrameLog log;
  log.start(*linked.stream);
  send(*linked.producer, cropped(16, 8, 160, 120));
  ASSERT_TRUE(log.waitForChanged(1));
  send(*linked.producer, cropped(300, 200, 160, 120));  // outside: ignored
  ASSERT_TRUE(log.waitForChanged(2));
  linked.stream->stop();
  std::lock_guard guard(log.lock);
  auto frames = log.changedFrames();
  ASSERT_EQ(frames[0].pixels->width, 160);
  ASSERT_EQ(frames[0].pixels->height, 120);
  EXPECT_EQ(pixelAt(*frames[0].pixels, 100, 100), testing::screencastPatternBackground(116, 108, 320, 240));
  EXPECT_EQ(frames[1].pixels->width, 320);
  EXPECT_EQ(linked.stream->pixelSize().width, 320) << "the encoded size stays that of the first format";
}

TEST_F(PipeWireScreenStreamTest, StopIsPromptAndNothingIsDeliveredAfterIt) {
  PipeWireScreenStreamConfiguration configuration;
  configuration.framesPerSecond = 60;
  auto linked = link({}, configuration);
  FrameLog log;
  log.start(*linked.stream);
  std::atomic<bool> producing{true};
  std::thread producer([&] {
    while (producing) {
      linked.producer->send();
      std::this_thread::sleep_for(5ms);
    }
  });
  ASSERT_TRUE(log.waitForChanged(5));
  auto begin = std::chrono::steady_clock::now();
  linked.stream->stop();
  auto took = std::chrono::steady_clock::now() - begin;
  {
    std::lock_guard guard(log.lock);
    log.stopReturned = true;
  }
  std::this_thread::sleep_for(100ms);
  producing = false;
  producer.join();
  EXPECT_LT(took, 500ms);
  std::lock_guard guard(log.lock);
  EXPECT_FALSE(log.afterStop);
  EXPECT_FALSE(log.stopped) << "a stream that was stopped reports no end of its own";
}

TEST_F(PipeWireScreenStreamTest, AProducerThatDisappearsEndsTheStreamWithAnError) {
  auto linked = link({});
  FrameLog log;
  log.start(*linked.stream);
  send(*linked.producer);
  ASSERT_TRUE(log.waitForChanged(1));
  linked.producer->disconnect();
  ASSERT_TRUE(log.waitForStop(10s));
  std::lock_guard guard(log.lock);
  try {
    std::rethrow_exception(log.stoppedWith);
  } catch (const CaptureError& error) {
    EXPECT_EQ(error.kind(), CaptureError::Case::screenCaptureFailed);
  } catch (...) {
    ADD_FAILURE() << "not a CaptureError";
  }
}

TEST_F(PipeWireScreenStreamTest, ANodeThatDoesNotExistFailsAtConstruction) {
  PipeWireScreenStreamConfiguration configuration;
  configuration.nodeID = 999999;
  auto begin = std::chrono::steady_clock::now();
  EXPECT_THROW(PipeWireScreenStream{configuration}, CaptureError);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 15s);
}

// The producer other processes use: its node id on the first line, then frames at its rate.
TEST_F(PipeWireScreenStreamTest, TheProducerProgramPublishesNumberedFrames) {
  testing::TemporaryDirectory folder;
  auto output = folder.path() / "producer.out";
  testing::BackgroundProcess producer({VUMO_TEST_SCREENCAST_PRODUCER, "--width", "64", "--height", "48", "--fps", "30",
                                       "--cursor-only", "--change-every", "2", "--duration", "20"},
                                      {}, output);
  std::optional<std::uint32_t> node;
  for (int attempt = 0; attempt < 200 && !node; ++attempt) {
    std::ifstream in(output);
    std::string line;
    std::smatch match;
    static const std::regex nodeLine("node ([0-9]+)");
    while (std::getline(in, line))
      if (std::regex_match(line, match, nodeLine)) node = std::uint32_t(std::stoul(match[1]));
    if (!node) std::this_thread::sleep_for(50ms);
  }
  ASSERT_TRUE(node) << "no node id from the producer";
  PipeWireScreenStreamConfiguration configuration;
  configuration.nodeID = *node;
  PipeWireScreenStream stream(configuration);
  EXPECT_EQ(stream.pixelSize().width, 64);
  EXPECT_EQ(stream.pixelSize().height, 48);
  FrameLog log;
  log.start(stream);
  ASSERT_TRUE(log.waitForChanged(6));
  stream.stop();
  std::lock_guard guard(log.lock);
  auto frames = log.changedFrames();
  for (std::size_t i = 1; i < frames.size(); ++i) {
    ASSERT_TRUE(frames[i].number && frames[i - 1].number);
    EXPECT_GT(*frames[i].number, *frames[i - 1].number);
  }
  EXPECT_GT(stream.pointerOnlyBuffers(), 0) << "the ticks without a change carry only the pointer";
}

}  // namespace
}  // namespace vumo
