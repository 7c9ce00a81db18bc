#pragma once

// A private desktop for end-to-end tests of the application: a home folder and every XDG folder of
// its own, an X server (Xvfb) with a window manager (openbox), a sound server with a null output, a
// D-Bus session bus on which the accessibility bus of screen readers is reachable, and the
// programs a test starts in it. Everything listens on Unix sockets only and ends with the session,
// so nothing reaches the user's screen, sound, buses or files.

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/desktop_servers.h"
#include "support/private_session_bus.h"
#include "support/test_support.h"

namespace vumo::testing {

// A program started in a process group of its own, so that whatever it starts (helpers, buses)
// ends with it. Its standard output and error go to one log file.
class DesktopProgram {
 public:
  DesktopProgram(const std::vector<std::string>& words,
                 const std::map<std::string, std::optional<std::string>>& environment,
                 const std::filesystem::path& logFile);
  // Ends the group: SIGTERM, then SIGKILL after a few seconds.
  ~DesktopProgram();
  DesktopProgram(const DesktopProgram&) = delete;
  DesktopProgram& operator=(const DesktopProgram&) = delete;

  pid_t pid() const { return pid_; }
  bool running();
  // The exit status (128 + signal for a killed program) once it has ended within `timeout`.
  std::optional<int> waitForExit(std::chrono::milliseconds timeout);
  // Sends `signal` to the program alone (not its group), as a desktop's logout or a user's kill does.
  void signal(int signal);
  // SIGTERM to the group, SIGKILL after `grace`; the exit status of the program.
  int terminate(std::chrono::milliseconds grace = std::chrono::seconds(10));
  const std::filesystem::path& logFile() const { return logFile_; }
  // The log's last `bytes` bytes, for a failure message.
  std::string logTail(std::size_t bytes = 4000) const;

 private:
  pid_t pid_ = -1;
  std::optional<int> status_;
  std::filesystem::path logFile_;
};

struct DesktopSessionOptions {
  int width = 1280;
  int height = 720;
  // QT_SCALE_FACTOR of the programs started in the session; none leaves Qt's own choice (1).
  std::optional<double> scaleFactor;
};

// Starting the session fails the test (throws) naming the program that did not come up; every wait
// has a limit, so a broken desktop fails instead of hanging. While the session lives, this process's
// HOME, XDG_* folders, DISPLAY and DBUS_SESSION_BUS_ADDRESS are the session's (so an accessibility
// client made here, and every program the test starts, see the private desktop).
class DesktopSession {
 public:
  explicit DesktopSession(DesktopSessionOptions options = {});
  ~DesktopSession();
  DesktopSession(const DesktopSession&) = delete;
  DesktopSession& operator=(const DesktopSession&) = delete;

  const DesktopSessionOptions& options() const { return options_; }
  const std::string& display() const { return xvfb_->display(); }
  const std::string& busAddress() const { return bus_->address(); }
  // The address of the accessibility bus, as org.a11y.Bus gives it on the session bus.
  const std::string& accessibilityBusAddress() const { return accessibilityBus_; }
  const std::filesystem::path& home() const { return home_.path(); }
  std::filesystem::path dataHome() const { return home() / ".local/share"; }
  std::filesystem::path configHome() const { return home() / ".config"; }
  std::filesystem::path cacheHome() const { return home() / ".cache"; }
  std::filesystem::path stateHome() const { return home() / ".local/state"; }
  const std::filesystem::path& runtimeDirectory() const { return runtime_.path(); }
  // Where the session's servers and started programs write their logs.
  const std::filesystem::path& logFolder() const { return logs_.path(); }

  // The environment of a program started in the session, on top of this process's: the desktop's
  // variables, the Qt settings of an accessible X11 application, and no Wayland.
  std::map<std::string, std::optional<std::string>> environment() const;

  // Starts a program in the session; `name` names its log file in logFolder().
  std::unique_ptr<DesktopProgram> start(const std::vector<std::string>& words, const std::string& name,
                                        const std::map<std::string, std::optional<std::string>>& extraEnvironment = {});
  // Runs a program to its end in the session (a command-line tool, xdotool), with a time limit.
  ProcessResult run(const std::vector<std::string>& words, std::chrono::milliseconds timeout = std::chrono::seconds(60),
                    const std::map<std::string, std::optional<std::string>>& extraEnvironment = {});

 private:
  DesktopSessionOptions options_;
  TemporaryDirectory home_, runtime_, logs_;
  // Started in this order and ended in the reverse one; the sound server sets HOME and
  // XDG_RUNTIME_DIR of this process while it lives, so the session's own variables come after it.
  std::unique_ptr<PulseAudioServer> sound_;
  std::vector<std::unique_ptr<ScopedEnvironmentVariable>> variables_;
  std::unique_ptr<XvfbServer> xvfb_;
  std::unique_ptr<PrivateSessionBus> bus_;
  std::unique_ptr<DesktopProgram> accessibilityLauncher_;
  std::unique_ptr<DesktopProgram> windowManager_;
  std::string accessibilityBus_;
};

}  // namespace vumo::testing
