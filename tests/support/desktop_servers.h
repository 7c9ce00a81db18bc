#pragma once

// The X server and the sound server that the capture and recording tests and benchmarks record
// from, each a private instance started for one test and ended with it, so nothing sees the user's
// screen or sound.

#include <sys/types.h>
#include <xcb/xcb.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/test_support.h"

namespace vumo::testing {

// The full path of a program on PATH; fails the test with a message that names the package.
std::filesystem::path requireProgram(const std::string& name, const std::string& package);

// A program left running in the background until the object ends (SIGTERM, then SIGKILL).
class BackgroundProcess {
 public:
  BackgroundProcess(const std::vector<std::string>& words, const std::vector<std::string>& extraEnvironment,
                    const std::filesystem::path& logFile);
  ~BackgroundProcess();
  BackgroundProcess(const BackgroundProcess&) = delete;
  BackgroundProcess& operator=(const BackgroundProcess&) = delete;
  bool running();
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
};

// Xvfb on the first free display number from 60 on, 1280 x 720 at 24 bits unless another size is
// asked for.
class XvfbServer {
 public:
  explicit XvfbServer(int width = 1280, int height = 720);
  const std::string& display() const { return display_; }
  // Ends the server now, as a crash or a logout would.
  void kill() { process_.reset(); }

 private:
  TemporaryDirectory folder_;
  std::string display_;
  std::unique_ptr<BackgroundProcess> process_;
};

// PulseAudio with one null output ("vumo_test_sink", 48 kHz) on a socket in a temporary folder.
// HOME, XDG_RUNTIME_DIR and PULSE_SERVER of this process point there while it lives.
class PulseAudioServer {
 public:
  PulseAudioServer();
  const std::string& server() const { return server_; }
  const std::filesystem::path& folder() const { return folder_.path(); }
  // Ends the server now, as a crash or a logout would.
  void kill() { process_.reset(); }

 private:
  TemporaryDirectory folder_;
  std::string server_;
  std::unique_ptr<BackgroundProcess> process_;
  std::optional<ScopedEnvironmentVariable> home_, runtime_, pulseServer_;
};

// A client of the test's X server that makes and draws windows, as an application would.
class TestX11Client {
 public:
  explicit TestX11Client(const std::string& display);
  ~TestX11Client();
  TestX11Client(const TestX11Client&) = delete;
  TestX11Client& operator=(const TestX11Client&) = delete;

  xcb_window_t root() const { return screen_->root; }
  // A mapped top-level window filled with `rgb` (0xRRGGBB), titled through _NET_WM_NAME.
  xcb_window_t createWindow(int x, int y, int width, int height, std::uint32_t rgb, const std::string& title);
  void fillRectangle(xcb_drawable_t drawable, int x, int y, int width, int height, std::uint32_t rgb);
  void setCardinalProperty(xcb_window_t window, const std::string& name, std::uint32_t value);
  void setWindowListProperty(xcb_window_t window, const std::string& name, const std::vector<xcb_window_t>& windows);
  void setLatin1Property(xcb_window_t window, xcb_atom_t property, const std::string& value);
  void moveWindow(xcb_window_t window, int x, int y);
  void resizeWindow(xcb_window_t window, int width, int height);
  void destroyWindow(xcb_window_t window);
  // Waits until the server has handled everything sent so far.
  void sync();

 private:
  xcb_atom_t atom(const std::string& name);
  xcb_connection_t* connection_ = nullptr;
  xcb_screen_t* screen_ = nullptr;
  xcb_gcontext_t gc_ = 0;
};

// Runs xdotool against the display; fails the test when it does not succeed.
void xdotool(const std::string& display, const std::vector<std::string>& arguments);

}  // namespace vumo::testing
