// vumo-test-screencast-producer: the test producer as a program of its own, for tests and
// benchmarks that record from another process. It connects to the PipeWire of $XDG_RUNTIME_DIR,
// prints "node <id>" once its node is registered, and sends numbered pattern frames at its rate
// until the run time is over or it is told to stop (SIGTERM, SIGINT).
//
//   --width N --height N   picture size (default 320 x 240)
//   --fps N                ticks a second (default 60)
//   --change-every N       a new picture every N ticks; 0: only the first (default 1)
//   --cursor-only          on ticks without a new picture the pointer still moves, in a buffer
//                          that carries only the pointer
//   --no-cursor            no cursor metadata at all
//   --rgbx                 RGBx pixels instead of BGRx
//   --duration S           run time in seconds (default 10)

#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "support/pipewire_test_servers.h"

namespace {

std::atomic<bool> stopRequested{false};

void requestStop(int) { stopRequested = true; }

int usage(const char* problem) {
  std::fprintf(stderr, "vumo-test-screencast-producer: %s\n", problem);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace vumo::testing;
  ScreencastProducerOptions options;
  int changeEvery = 1;
  bool cursorOnly = false;
  double duration = 10;
  for (int i = 1; i < argc; ++i) {
    std::string option = argv[i];
    auto number = [&]() -> double {
      if (i + 1 >= argc) {
        std::fprintf(stderr, "vumo-test-screencast-producer: %s needs a value\n", option.c_str());
        std::exit(2);
      }
      return std::atof(argv[++i]);
    };
    if (option == "--width")
      options.width = int(number());
    else if (option == "--height")
      options.height = int(number());
    else if (option == "--fps")
      options.framesPerSecond = int(number());
    else if (option == "--change-every")
      changeEvery = int(number());
    else if (option == "--duration")
      duration = number();
    else if (option == "--cursor-only")
      cursorOnly = true;
    else if (option == "--no-cursor")
      options.cursorMetadata = false;
    else if (option == "--rgbx")
      options.rgbOrder = true;
    else
      return usage(("unknown option " + option).c_str());
  }
  if (options.width < 16 || options.height < 4 || options.framesPerSecond < 1 || changeEvery < 0 || duration <= 0)
    return usage("sizes, rate and run time must be positive");
  signal(SIGTERM, requestStop);
  signal(SIGINT, requestStop);

  try {
    TestScreencastProducer producer(options);
    std::printf("node %u\n", producer.nodeID());
    std::fflush(stdout);
    auto start = std::chrono::steady_clock::now();
    auto end = start +
               std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(duration));
    auto period = std::chrono::nanoseconds(1'000'000'000 / options.framesPerSecond);
    long long tick = 0, sent = 0, busy = 0;
    // A tick whose buffer could not go out still takes its sequence number, so a consumer sees
    // the frame it missed as a gap.
    std::uint64_t sequence = 1;
    bool streaming = false;
    while (!stopRequested && std::chrono::steady_clock::now() < end) {
      std::this_thread::sleep_until(start + period * tick);
      ++tick;
      // Nothing is sent before a consumer is linked; the first picture goes out then.
      if (!streaming) {
        streaming = producer.waitUntilStreaming(std::chrono::milliseconds(0));
        if (!streaming) continue;
      }
      bool picture = sent == 0 || (changeEvery > 0 && tick % changeEvery == 0);
      if (!picture && !cursorOnly) continue;
      ScreencastBuffer buffer;
      buffer.picture = picture;
      if (options.cursorMetadata) {
        ScreencastCursor cursor;
        cursor.x = int(tick % options.width);
        cursor.y = int((tick / 2) % options.height);
        if (sent == 0) cursor.bitmapColour = std::array<std::uint8_t, 4>{0, 0, 0, 0xFF};
        buffer.cursor = cursor;
      }
      buffer.sequence = sequence++;
      if (producer.send(buffer))
        ++sent;
      else
        ++busy;
    }
    std::printf("sent %lld buffers, %lld ticks found no free buffer\n", sent, busy);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "vumo-test-screencast-producer: %s\n", error.what());
    return 1;
  }
  return 0;
}
