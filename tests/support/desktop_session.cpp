#include "support/desktop_session.h"

#include <fcntl.h>
#include <gio/gio.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xcb/xcb.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace vumo::testing {

namespace {

using namespace std::chrono_literals;

bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < deadline) {
    if (condition()) return true;
    std::this_thread::sleep_for(25ms);
  }
  return condition();
}

int exitStatusOf(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

std::string readTail(const std::filesystem::path& file, std::size_t bytes) {
  std::ifstream in(file, std::ios::binary);
  if (!in) return {};
  in.seekg(0, std::ios::end);
  const auto size = static_cast<std::size_t>(in.tellg());
  in.seekg(static_cast<std::streamoff>(size > bytes ? size - bytes : 0));
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// True once a window manager runs on `display`: it owns the WM_S0 selection (ICCCM) and names its
// check window on the root (EWMH), the two things applications look at before trusting one.
bool windowManagerRuns(const std::string& display) {
  xcb_connection_t* connection = xcb_connect(display.c_str(), nullptr);
  bool runs = false;
  if (!xcb_connection_has_error(connection)) {
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(connection)).data->root;
    auto atom = [&](const char* name) {
      auto* reply = xcb_intern_atom_reply(connection, xcb_intern_atom(connection, 0, std::strlen(name), name), nullptr);
      const xcb_atom_t value = reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
      std::free(reply);
      return value;
    };
    auto* owner =
        xcb_get_selection_owner_reply(connection, xcb_get_selection_owner(connection, atom("WM_S0")), nullptr);
    auto* check = xcb_get_property_reply(
        connection, xcb_get_property(connection, 0, root, atom("_NET_SUPPORTING_WM_CHECK"), XCB_ATOM_WINDOW, 0, 1),
        nullptr);
    runs = owner && owner->owner != XCB_NONE && check && xcb_get_property_value_length(check) == 4;
    std::free(owner);
    std::free(check);
  }
  xcb_disconnect(connection);
  return runs;
}

// The accessibility bus's address from org.a11y.Bus on the session bus, or none while nobody
// answers there yet. Each call is bounded, so a stuck launcher cannot hang the test.
std::optional<std::string> accessibilityBusOf(const std::string& sessionBus) {
  GError* error = nullptr;
  GDBusConnection* connection =
      g_dbus_connection_new_for_address_sync(sessionBus.c_str(),
                                             GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                                  G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
                                             nullptr, nullptr, &error);
  if (!connection) {
    g_clear_error(&error);
    return std::nullopt;
  }
  std::optional<std::string> address;
  GVariant* reply =
      g_dbus_connection_call_sync(connection, "org.a11y.Bus", "/org/a11y/bus", "org.a11y.Bus", "GetAddress", nullptr,
                                  G_VARIANT_TYPE("(s)"), G_DBUS_CALL_FLAGS_NO_AUTO_START, 1000, nullptr, &error);
  if (reply) {
    const gchar* text = nullptr;
    g_variant_get(reply, "(&s)", &text);
    if (text && *text) address = text;
    g_variant_unref(reply);
  }
  g_clear_error(&error);
  g_dbus_connection_close_sync(connection, nullptr, nullptr);
  g_object_unref(connection);
  return address;
}

std::filesystem::path accessibilityBusLauncher() {
  for (const char* candidate : {"/usr/libexec/at-spi-bus-launcher", "/usr/lib/at-spi2-core/at-spi-bus-launcher"})
    if (::access(candidate, X_OK) == 0) return candidate;
  throw std::runtime_error(
      "at-spi-bus-launcher is not installed; the desktop tests need the package at-spi2-core "
      "(scripts/install-deps installs it)");
}

}  // namespace

DesktopProgram::DesktopProgram(const std::vector<std::string>& words,
                               const std::map<std::string, std::optional<std::string>>& environment,
                               const std::filesystem::path& logFile)
    : logFile_(logFile) {
  std::vector<std::string> arguments = words;
  std::vector<char*> argv;
  for (auto& word : arguments) argv.push_back(word.data());
  argv.push_back(nullptr);
  std::vector<std::string> entries = environmentWith(environment);
  std::vector<char*> envp;
  for (auto& entry : entries) envp.push_back(entry.data());
  envp.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
  posix_spawnattr_setpgroup(&attributes, 0);
  const int rc = ::posix_spawn(&pid_, argv[0], &actions, &attributes, argv.data(), envp.data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    pid_ = -1;
    throw std::runtime_error("could not start " + words.front() + ": " + std::strerror(rc));
  }
}

DesktopProgram::~DesktopProgram() {
  if (pid_ > 0) terminate(3s);
}

bool DesktopProgram::running() {
  if (status_ || pid_ <= 0) return false;
  int status = 0;
  if (::waitpid(pid_, &status, WNOHANG) == pid_) {
    status_ = exitStatusOf(status);
    return false;
  }
  return true;
}

std::optional<int> DesktopProgram::waitForExit(std::chrono::milliseconds timeout) {
  waitFor([&] { return !running(); }, timeout);
  return status_;
}

void DesktopProgram::signal(int signal) {
  if (running()) ::kill(pid_, signal);
}

int DesktopProgram::terminate(std::chrono::milliseconds grace) {
  // The group outlives its leader when a helper stays behind, so it is signalled even after the
  // program itself has ended.
  ::kill(-pid_, SIGTERM);
  if (!waitForExit(grace)) {
    ::kill(-pid_, SIGKILL);
    int status = 0;
    if (::waitpid(pid_, &status, 0) == pid_) status_ = exitStatusOf(status);
  }
  ::kill(-pid_, SIGKILL);
  return status_.value_or(-1);
}

std::string DesktopProgram::logTail(std::size_t bytes) const { return readTail(logFile_, bytes); }

DesktopSession::DesktopSession(DesktopSessionOptions options) : options_(options) {
  sound_ = std::make_unique<PulseAudioServer>();
  for (const auto& folder : {dataHome(), configHome(), cacheHome(), stateHome()})
    std::filesystem::create_directories(folder);
  // The runtime folder is private to its user (the base directory rules), and programs such as
  // the accessibility bus launcher refuse one that is not.
  ::chmod(runtimeDirectory().c_str(), 0700);
  auto set = [&](const std::string& name, const std::optional<std::string>& value) {
    variables_.push_back(std::make_unique<ScopedEnvironmentVariable>(name, value));
  };
  set("HOME", home().string());
  set("XDG_DATA_HOME", dataHome().string());
  set("XDG_CONFIG_HOME", configHome().string());
  set("XDG_CACHE_HOME", cacheHome().string());
  set("XDG_STATE_HOME", stateHome().string());
  set("XDG_RUNTIME_DIR", runtimeDirectory().string());
  set("WAYLAND_DISPLAY", std::nullopt);
  set("XDG_SESSION_TYPE", std::nullopt);
  set("XDG_CURRENT_DESKTOP", std::nullopt);
  set("DESKTOP_SESSION", std::nullopt);
  set("SESSION_MANAGER", std::nullopt);
  set("AT_SPI_BUS_ADDRESS", std::nullopt);

  xvfb_ = std::make_unique<XvfbServer>(options.width, options.height);
  set("DISPLAY", xvfb_->display());
  bus_ = std::make_unique<PrivateSessionBus>();

  // The launcher starts the accessibility bus and answers org.a11y.Bus on the session bus, as a
  // desktop session does; the registry daemon is started on the accessibility bus on demand.
  accessibilityLauncher_ = start({accessibilityBusLauncher().string(), "--launch-immediately"}, "at-spi-bus-launcher");
  if (!waitFor(
          [&] {
            if (!accessibilityLauncher_->running()) return true;
            if (auto address = accessibilityBusOf(busAddress())) accessibilityBus_ = *address;
            return !accessibilityBus_.empty();
          },
          15s) ||
      accessibilityBus_.empty())
    throw std::runtime_error("the accessibility bus did not start: " + accessibilityLauncher_->logTail());

  windowManager_ = start({requireProgram("openbox", "openbox").string(), "--sm-disable"}, "openbox");
  if (!waitFor([&] { return !windowManager_->running() || windowManagerRuns(display()); }, 15s) ||
      !windowManager_->running())
    throw std::runtime_error("openbox did not take the display: " + windowManager_->logTail());
}

DesktopSession::~DesktopSession() {
  windowManager_.reset();
  accessibilityLauncher_.reset();
  bus_.reset();
  xvfb_.reset();
  while (!variables_.empty()) variables_.pop_back();
  sound_.reset();
}

std::map<std::string, std::optional<std::string>> DesktopSession::environment() const {
  std::map<std::string, std::optional<std::string>> variables{
      {"HOME", home().string()},
      {"XDG_DATA_HOME", dataHome().string()},
      {"XDG_CONFIG_HOME", configHome().string()},
      {"XDG_CACHE_HOME", cacheHome().string()},
      {"XDG_STATE_HOME", stateHome().string()},
      {"XDG_RUNTIME_DIR", runtimeDirectory().string()},
      {"DISPLAY", display()},
      {"DBUS_SESSION_BUS_ADDRESS", busAddress()},
      {"PULSE_SERVER", sound_->server()},
      {"QT_QPA_PLATFORM", "xcb"},
      {"QT_LINUX_ACCESSIBILITY_ALWAYS_ON", "1"},
      {"QT_ACCESSIBILITY", "1"},
      {"QT_QPA_PLATFORMTHEME", std::nullopt},
      {"QT_SCALE_FACTOR", std::nullopt},
      {"QT_AUTO_SCREEN_SCALE_FACTOR", std::nullopt},
      {"QT_SCREEN_SCALE_FACTORS", std::nullopt},
      {"QT_ENABLE_HIGHDPI_SCALING", std::nullopt},
      {"WAYLAND_DISPLAY", std::nullopt},
      {"XDG_SESSION_TYPE", std::nullopt},
      {"XDG_CURRENT_DESKTOP", std::nullopt},
      {"DESKTOP_SESSION", std::nullopt},
      {"SESSION_MANAGER", std::nullopt},
      {"NO_AT_BRIDGE", std::nullopt},
  };
  if (options_.scaleFactor) {
    std::ostringstream factor;
    factor << *options_.scaleFactor;
    variables["QT_SCALE_FACTOR"] = factor.str();
  }
  return variables;
}

std::unique_ptr<DesktopProgram> DesktopSession::start(
    const std::vector<std::string>& words, const std::string& name,
    const std::map<std::string, std::optional<std::string>>& extraEnvironment) {
  auto variables = environment();
  for (const auto& [key, value] : extraEnvironment) variables[key] = value;
  return std::make_unique<DesktopProgram>(words, variables, logFolder() / (name + ".log"));
}

ProcessResult DesktopSession::run(const std::vector<std::string>& words, std::chrono::milliseconds timeout,
                                  const std::map<std::string, std::optional<std::string>>& extraEnvironment) {
  ProcessLaunch launch;
  launch.words = words;
  launch.environment = environment();
  for (const auto& [key, value] : extraEnvironment) launch.environment[key] = value;
  launch.timeout = timeout;
  return vumo::testing::run(launch);
}

}  // namespace vumo::testing
