#include "support/desktop_servers.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace vumo::testing {

namespace {

using namespace std::chrono_literals;

bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < deadline) {
    if (condition()) return true;
    std::this_thread::sleep_for(20ms);
  }
  return condition();
}

}  // namespace

std::filesystem::path requireProgram(const std::string& name, const std::string& package) {
  const char* path = std::getenv("PATH");
  std::string folders = path ? path : "/usr/bin:/bin";
  std::size_t begin = 0;
  while (begin <= folders.size()) {
    auto end = folders.find(':', begin);
    if (end == std::string::npos) end = folders.size();
    std::filesystem::path candidate = std::filesystem::path(folders.substr(begin, end - begin)) / name;
    if (!candidate.parent_path().empty() && ::access(candidate.c_str(), X_OK) == 0) return candidate;
    begin = end + 1;
  }
  throw std::runtime_error(name + " is not installed; recording tests need the package " + package +
                           " (scripts/install-deps installs it)");
}

BackgroundProcess::BackgroundProcess(const std::vector<std::string>& words,
                                     const std::vector<std::string>& extraEnvironment,
                                     const std::filesystem::path& logFile) {
  std::vector<std::string> words_ = words;
  std::vector<char*> argv;
  for (auto& word : words_) argv.push_back(word.data());
  argv.push_back(nullptr);
  std::vector<std::string> entries;
  for (char** e = environ; *e; ++e) entries.emplace_back(*e);
  for (const auto& extra : extraEnvironment) entries.push_back(extra);
  std::vector<char*> envp;
  for (auto& entry : entries) envp.push_back(entry.data());
  envp.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  int rc = ::posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) throw std::runtime_error(std::string("could not start ") + words.front() + ": " + std::strerror(rc));
}

bool BackgroundProcess::running() {
  if (pid_ < 0) return false;
  int status = 0;
  if (::waitpid(pid_, &status, WNOHANG) == pid_) {
    pid_ = -1;
    return false;
  }
  return true;
}

BackgroundProcess::~BackgroundProcess() {
  if (!running()) return;
  ::kill(pid_, SIGTERM);
  if (!waitFor([&] { return ::waitpid(pid_, nullptr, WNOHANG) == pid_; }, 3s)) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
}

XvfbServer::XvfbServer(int width, int height) {
  auto program = requireProgram("Xvfb", "xvfb");
  // Display numbers are taken by trying: another test may start its own server at the same time,
  // and the loser of the lock file race exits at once.
  for (int number = 60; number < 160; ++number) {
    std::filesystem::path socket = "/tmp/.X11-unix/X" + std::to_string(number);
    if (std::filesystem::exists(socket) || std::filesystem::exists("/tmp/.X" + std::to_string(number) + "-lock"))
      continue;
    std::string display = ":" + std::to_string(number);
    auto process = std::make_unique<BackgroundProcess>(
        std::vector<std::string>{program.string(), display, "-screen", "0",
                                 std::to_string(width) + "x" + std::to_string(height) + "x24", "-nolisten", "tcp",
                                 "-noreset"},
        std::vector<std::string>{}, folder_.path() / "xvfb.log");
    // Up when the display's lock file names our server and it accepts a client. Two tests that
    // chose the same number at once both start a server; the one whose pid is not in the lock
    // file is the loser and exits.
    std::filesystem::path lockFile = "/tmp/.X" + std::to_string(number) + "-lock";
    auto owner = [&]() -> long {
      std::ifstream in(lockFile);
      long pid = -1;
      in >> pid;
      return in ? pid : -1;
    };
    bool up = waitFor(
        [&] {
          if (!process->running()) return true;
          long pid = owner();
          if (pid != long(process->pid())) return false;
          xcb_connection_t* probe = xcb_connect(display.c_str(), nullptr);
          bool ok = !xcb_connection_has_error(probe);
          xcb_disconnect(probe);
          return ok;
        },
        10s);
    if (up && process->running()) {
      display_ = display;
      process_ = std::move(process);
      return;
    }
  }
  throw std::runtime_error("Xvfb did not start on any display from :60 to :159");
}

PulseAudioServer::PulseAudioServer() {
  auto program = requireProgram("pulseaudio", "pulseaudio");
  std::filesystem::path socket = folder_.path() / "native";
  server_ = "unix:" + socket.string();
  home_.emplace("HOME", folder_.path().string());
  runtime_.emplace("XDG_RUNTIME_DIR", folder_.path().string());
  pulseServer_.emplace("PULSE_SERVER", server_);
  process_ = std::make_unique<BackgroundProcess>(
      std::vector<std::string>{program.string(), "-n", "--daemonize=no", "--exit-idle-time=-1", "--disable-shm=yes",
                               "--log-target=stderr", "--load=module-null-sink sink_name=vumo_test_sink rate=48000",
                               "--load=module-native-protocol-unix socket=" + socket.string() + " auth-anonymous=1"},
      std::vector<std::string>{"HOME=" + folder_.path().string(), "XDG_RUNTIME_DIR=" + folder_.path().string()},
      folder_.path() / "pulseaudio.log");
  if (!waitFor([&] { return !process_->running() || std::filesystem::exists(socket); }, 10s) || !process_->running())
    throw std::runtime_error("pulseaudio did not start; see its log in " + folder_.path().string());
}

TestX11Client::TestX11Client(const std::string& display) {
  connection_ = xcb_connect(display.c_str(), nullptr);
  if (xcb_connection_has_error(connection_)) throw std::runtime_error("cannot connect to " + display);
  screen_ = xcb_setup_roots_iterator(xcb_get_setup(connection_)).data;
  gc_ = xcb_generate_id(connection_);
  xcb_create_gc(connection_, gc_, screen_->root, 0, nullptr);
}

TestX11Client::~TestX11Client() { xcb_disconnect(connection_); }

xcb_atom_t TestX11Client::atom(const std::string& name) {
  auto* reply = xcb_intern_atom_reply(connection_, xcb_intern_atom(connection_, 0, name.size(), name.c_str()), nullptr);
  xcb_atom_t atom = reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
  std::free(reply);
  return atom;
}

xcb_window_t TestX11Client::createWindow(int x, int y, int width, int height, std::uint32_t rgb,
                                         const std::string& title) {
  xcb_window_t window = xcb_generate_id(connection_);
  std::uint32_t values[] = {rgb, XCB_EVENT_MASK_EXPOSURE};
  xcb_create_window(connection_, XCB_COPY_FROM_PARENT, window, screen_->root, std::int16_t(x), std::int16_t(y),
                    std::uint16_t(width), std::uint16_t(height), 0, XCB_WINDOW_CLASS_INPUT_OUTPUT, screen_->root_visual,
                    XCB_CW_BACK_PIXEL | XCB_CW_EVENT_MASK, values);
  if (!title.empty())
    xcb_change_property(connection_, XCB_PROP_MODE_REPLACE, window, atom("_NET_WM_NAME"), atom("UTF8_STRING"), 8,
                        std::uint32_t(title.size()), title.data());
  xcb_map_window(connection_, window);
  sync();
  return window;
}

void TestX11Client::fillRectangle(xcb_drawable_t drawable, int x, int y, int width, int height, std::uint32_t rgb) {
  xcb_change_gc(connection_, gc_, XCB_GC_FOREGROUND, &rgb);
  xcb_rectangle_t rectangle{std::int16_t(x), std::int16_t(y), std::uint16_t(width), std::uint16_t(height)};
  xcb_poly_fill_rectangle(connection_, drawable, gc_, 1, &rectangle);
  sync();
}

void TestX11Client::setCardinalProperty(xcb_window_t window, const std::string& name, std::uint32_t value) {
  xcb_change_property(connection_, XCB_PROP_MODE_REPLACE, window, atom(name), XCB_ATOM_CARDINAL, 32, 1, &value);
  sync();
}

void TestX11Client::setWindowListProperty(xcb_window_t window, const std::string& name,
                                          const std::vector<xcb_window_t>& windows) {
  xcb_change_property(connection_, XCB_PROP_MODE_REPLACE, window, atom(name), XCB_ATOM_WINDOW, 32,
                      std::uint32_t(windows.size()), windows.data());
  sync();
}

void TestX11Client::setLatin1Property(xcb_window_t window, xcb_atom_t property, const std::string& value) {
  xcb_change_property(connection_, XCB_PROP_MODE_REPLACE, window, property, XCB_ATOM_STRING, 8,
                      std::uint32_t(value.size()), value.data());
  sync();
}

void TestX11Client::moveWindow(xcb_window_t window, int x, int y) {
  std::uint32_t values[] = {std::uint32_t(x), std::uint32_t(y)};
  xcb_configure_window(connection_, window, XCB_CONFIG_WINDOW_X | XCB_CONFIG_WINDOW_Y, values);
  sync();
}

void TestX11Client::resizeWindow(xcb_window_t window, int width, int height) {
  std::uint32_t values[] = {std::uint32_t(width), std::uint32_t(height)};
  xcb_configure_window(connection_, window, XCB_CONFIG_WINDOW_WIDTH | XCB_CONFIG_WINDOW_HEIGHT, values);
  sync();
}

void TestX11Client::destroyWindow(xcb_window_t window) {
  xcb_destroy_window(connection_, window);
  sync();
}

void TestX11Client::sync() {
  std::free(xcb_get_input_focus_reply(connection_, xcb_get_input_focus(connection_), nullptr));
  // Drop the events the windows asked for (exposures); the tests redraw explicitly.
  while (auto* event = xcb_poll_for_event(connection_)) std::free(event);
}

void xdotool(const std::string& display, const std::vector<std::string>& arguments) {
  ProcessLaunch launch;
  launch.words = {requireProgram("xdotool", "xdotool").string()};
  launch.words.insert(launch.words.end(), arguments.begin(), arguments.end());
  launch.environment["DISPLAY"] = display;
  launch.timeout = std::chrono::seconds(10);
  auto result = run(launch);
  if (result.status != 0) throw std::runtime_error("xdotool failed: " + result.standardError);
}

}  // namespace vumo::testing
