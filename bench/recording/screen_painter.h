#pragma once
// The drawing client of the recording benchmarks: it draws on the root window of an X display from
// a thread of its own, at a frame rate, until it ends, so that a recorder has something to record.

#include <xcb/xcb.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/pipewire_test_servers.h"

namespace vumo::bench {

enum class Scene {
  // A checkerboard that scrolls a few pixels a frame: the whole screen differs on every frame.
  moving,
  // One small square redrawn once a second.
  still,
  // The test screen-cast producer's picture (its gradient, and the band of cells spelling the frame
  // number, which changes every frame), so that X11 and a screen cast record the same thing.
  screencastPattern,
};

// Each drawing is followed by a round trip, so the server has painted it before the next is timed.
class ScreenPainter {
 public:
  ScreenPainter(const std::string& displayName, Scene scene, int width, int height, int framesPerSecond)
      : scene_(scene), width_(width), height_(height), framesPerSecond_(framesPerSecond) {
    connection_ = xcb_connect(displayName.c_str(), nullptr);
    if (xcb_connection_has_error(connection_)) {
      xcb_disconnect(connection_);
      throw std::runtime_error("cannot connect to " + displayName);
    }
    const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(connection_)).data;
    root_ = screen->root;
    depth_ = screen->root_depth;
    gc_ = xcb_generate_id(connection_);
    xcb_create_gc(connection_, gc_, root_, 0, nullptr);
    if (scene_ == Scene::screencastPattern) {
      putScreencastPattern();
    } else {
      fill(0x5A6470, {{0, 0, std::uint16_t(width_), std::uint16_t(height_)}});
    }
    sync();
    thread_ = std::thread([this] { run(); });
  }
  ~ScreenPainter() {
    stopping_ = true;
    thread_.join();
    xcb_disconnect(connection_);
  }
  ScreenPainter(const ScreenPainter&) = delete;
  ScreenPainter& operator=(const ScreenPainter&) = delete;

 private:
  static constexpr int tile = 120;
  static constexpr int scrollPixels = 4;
  static constexpr std::uint32_t palette[] = {0xE8D44D, 0x3B7DD8, 0xD8483B, 0x48B86A, 0x202028, 0xF4F4F0};
  static constexpr int colours = int(std::size(palette));

  void fill(std::uint32_t rgb, const std::vector<xcb_rectangle_t>& rectangles) {
    xcb_change_gc(connection_, gc_, XCB_GC_FOREGROUND, &rgb);
    xcb_poly_fill_rectangle(connection_, root_, gc_, std::uint32_t(rectangles.size()), rectangles.data());
  }
  void sync() { std::free(xcb_get_input_focus_reply(connection_, xcb_get_input_focus(connection_), nullptr)); }

  // A checkerboard of six colours that scrolls to the left by a few pixels a frame, like a page
  // being read: the whole screen is drawn and differs on every frame, in a way the encoder can follow.
  void drawCheckerboard(std::int64_t frame) {
    const int shift = int(frame * scrollPixels % (tile * colours));
    std::vector<xcb_rectangle_t> byColour[colours];
    for (int y = 0; y < height_ / tile; ++y)
      for (int column = shift / tile; column * tile - shift < width_; ++column)
        byColour[(column + y) % colours].push_back(
            {std::int16_t(column * tile - shift), std::int16_t(y * tile), tile, tile});
    for (int c = 0; c < colours; ++c) fill(palette[c], byColour[c]);
  }

  void drawSquare(std::int64_t frame) {
    const int x = int(frame * 97 % (width_ - 64));
    const int y = int(frame * 61 % (height_ - 64));
    fill(palette[frame % colours], {{std::int16_t(x), std::int16_t(y), 64, 64}});
  }

  // The whole picture once, in strips small enough for any server's request size (the 32-bit
  // pixels of a 24-bit root are B, G, R, X in memory, as the producer writes them).
  void putScreencastPattern() {
    const int stride = width_ * 4;
    std::vector<std::uint8_t> pixels(std::size_t(stride) * std::size_t(height_));
    vumo::testing::fillScreencastPattern(pixels.data(), width_, height_, stride, 0);
    const int rows = std::max(1, 200'000 / stride);
    for (int y = 0; y < height_; y += rows) {
      const int strip = std::min(rows, height_ - y);
      xcb_put_image(connection_, XCB_IMAGE_FORMAT_Z_PIXMAP, root_, gc_, std::uint16_t(width_), std::uint16_t(strip), 0,
                    std::int16_t(y), 0, depth_, std::uint32_t(stride * strip), pixels.data() + std::size_t(stride) * y);
    }
  }

  // The band of the producer's picture: cell c is white where bit 15 - c of the number is set.
  void drawPatternBand(std::int64_t frame) {
    const auto number = std::uint32_t(frame + 1);
    const int band = std::max(1, height_ / 4);
    std::vector<xcb_rectangle_t> byLevel[2];
    for (int cell = 0; cell < vumo::testing::screencastPatternCells; ++cell) {
      const int cells = vumo::testing::screencastPatternCells;
      const int left = (cell * width_ + cells - 1) / cells, right = ((cell + 1) * width_ + cells - 1) / cells;
      const bool set = (number >> (cells - 1 - cell)) & 1;
      byLevel[set ? 1 : 0].push_back({std::int16_t(left), 0, std::uint16_t(right - left), std::uint16_t(band)});
    }
    fill(0x000000, byLevel[0]);
    fill(0xFFFFFF, byLevel[1]);
  }

  void run() {
    const auto interval = scene_ == Scene::still ? std::chrono::nanoseconds(1'000'000'000)
                                                 : std::chrono::nanoseconds(1'000'000'000 / framesPerSecond_);
    const auto start = std::chrono::steady_clock::now();
    for (std::int64_t frame = 0; !stopping_; ++frame) {
      switch (scene_) {
        case Scene::moving: drawCheckerboard(frame); break;
        case Scene::still: drawSquare(frame); break;
        case Scene::screencastPattern: drawPatternBand(frame); break;
      }
      sync();
      // Short sleeps, so that the end is seen at once in the still scene too.
      const auto next = start + interval * (frame + 1);
      while (!stopping_ && std::chrono::steady_clock::now() < next)
        std::this_thread::sleep_for(
            std::min<std::chrono::nanoseconds>(next - std::chrono::steady_clock::now(), std::chrono::milliseconds(50)));
    }
  }

  Scene scene_;
  int width_;
  int height_;
  int framesPerSecond_;
  xcb_connection_t* connection_ = nullptr;
  xcb_window_t root_ = 0;
  std::uint8_t depth_ = 24;
  xcb_gcontext_t gc_ = 0;
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

}  // namespace vumo::bench
