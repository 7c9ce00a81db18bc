#pragma once

// A private PipeWire for the screen-cast tests and benchmarks: a session bus, the PipeWire daemon
// and WirePlumber on a temporary XDG_RUNTIME_DIR, and a producer that publishes a video node the
// way a compositor's screen cast does, so nothing reaches the user's desktop.

#include <array>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/desktop_servers.h"
#include "support/test_support.h"

namespace vumo::testing {

// dbus-daemon (unless the environment already names a private bus), pipewire and wireplumber,
// all running as the current user (root in CI) on a temporary folder. While the object lives,
// XDG_RUNTIME_DIR, PIPEWIRE_RUNTIME_DIR, HOME, XDG_CONFIG_HOME, XDG_STATE_HOME and
// DBUS_SESSION_BUS_ADDRESS of this process point there, so clients started now reach only these.
class PipeWireTestServers {
 public:
  // `sessionBusAddress`: a bus another fixture started (its portal, say); empty starts one.
  explicit PipeWireTestServers(const std::string& sessionBusAddress = {});
  ~PipeWireTestServers();
  const std::filesystem::path& runtimeFolder() const { return folder_.path(); }
  const std::string& sessionBusAddress() const { return busAddress_; }
  // The environment entries ("NAME=value") a child process needs to reach these servers.
  std::vector<std::string> environment() const;
  // Ends the PipeWire daemon now, as a crash would.
  void killPipeWire() { pipewire_.reset(); }

 private:
  TemporaryDirectory folder_;
  std::string busAddress_;
  std::vector<std::unique_ptr<ScopedEnvironmentVariable>> variables_;
  std::unique_ptr<BackgroundProcess> bus_, pipewire_, wireplumber_;
};

// The picture of the test producer: a band along the top of sixteen black or white cells that
// spell a 16-bit number (most significant first), over a gradient whose blue follows x and green
// follows y, with red at 0x40. Cells and gradient are coarse enough to survive H.264.
constexpr int screencastPatternCells = 16;
constexpr std::uint8_t screencastPatternRed = 0x40;
// Writes the picture into 32-bit pixels ordered B, G, R, X (or R, G, B, X with `rgbOrder`).
void fillScreencastPattern(std::uint8_t* pixels, int width, int height, int stride, std::uint32_t number,
                           bool rgbOrder = false);
// Reads the number back from BGRA pixels; nothing when the band is not there.
std::optional<std::uint32_t> readScreencastPattern(const std::uint8_t* bgra, int width, int height, int stride);
// The gradient's B, G, R, A below the band.
std::array<std::uint8_t, 4> screencastPatternBackground(int x, int y, int width, int height);

struct ScreencastCursor {
  std::uint32_t id = 1;  // 0: the pointer is outside the stream
  int x = 0;
  int y = 0;
  // A new bitmap: a square of one premultiplied colour (B, G, R, A bytes), sent as RGBA or BGRA.
  std::optional<std::array<std::uint8_t, 4>> bitmapColour;
  int bitmapSide = 16;
  bool bitmapAsRGBA = false;
  int hotX = 0;
  int hotY = 0;
};

// One buffer of the producer.
struct ScreencastBuffer {
  // False: a buffer that carries only the pointer (chunk size 0); with `corrupted`, a full-size
  // buffer flagged corrupted instead.
  bool picture = true;
  bool corrupted = false;
  std::optional<std::uint64_t> sequence;   // by default one more than the last
  std::optional<std::int64_t> pts;         // by default the monotonic clock now; 0 means none
  std::optional<std::uint32_t> number;     // what the pattern spells; by default the sequence
  std::optional<ScreencastCursor> cursor;  // a change of the pointer; else the last state again
  std::optional<std::array<int, 4>> crop;  // x, y, width, height
};

struct ScreencastProducerOptions {
  int width = 320;
  int height = 240;
  int framesPerSecond = 60;  // the rate the node announces
  bool rgbOrder = false;     // RGBx instead of BGRx
  bool cursorMetadata = true;
  std::string name = "vumo-test-screencast";
};

// A video source node (media.class Video/Source, BGRx or RGBx in shared memory) that drives
// itself: nothing is sent until `send`, like a compositor that has nothing new to show. Each
// buffer has SPA_META_Header (pts, seq) and, where enabled, SPA_META_Cursor and SPA_META_VideoCrop.
class TestScreencastProducer {
 public:
  // Connects to the default remote of $XDG_RUNTIME_DIR; fails (throws) when it cannot.
  explicit TestScreencastProducer(ScreencastProducerOptions options = {});
  ~TestScreencastProducer();
  TestScreencastProducer(const TestScreencastProducer&) = delete;
  TestScreencastProducer& operator=(const TestScreencastProducer&) = delete;

  // The node's global id, once the daemon has it (waits, bounded; throws when it does not come).
  std::uint32_t nodeID();
  // True once a consumer is linked and the node runs.
  bool waitUntilStreaming(std::chrono::milliseconds timeout);
  // Sends one buffer in a cycle of its own and waits until it went out; false when the consumer
  // holds every buffer or the node is not running.
  bool send(const ScreencastBuffer& buffer = {});
  std::uint64_t lastSequence() const;
  // Disconnects now, as a compositor that stops sharing does.
  void disconnect();

  struct State;

 private:
  std::unique_ptr<State> state_;
};

}  // namespace vumo::testing
