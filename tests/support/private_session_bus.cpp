#include "support/private_session_bus.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace vumo::testing {

namespace {

bool accepts(const std::filesystem::path& socketPath) {
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, socketPath.c_str(), sizeof address.sun_path - 1);
  bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  ::close(fd);
  return ok;
}

}  // namespace

PrivateSessionBus::PrivateSessionBus() {
  auto program = requireProgram("dbus-daemon", "dbus-daemon");
  std::filesystem::path socket = folder_.path() / "bus";
  std::filesystem::path configuration = folder_.path() / "session.conf";
  {
    std::ofstream out(configuration);
    out << R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path=)"
        << socket.string() << R"(</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)";
  }
  process_ = std::make_unique<BackgroundProcess>(
      std::vector<std::string>{program.string(), "--config-file=" + configuration.string(), "--nofork",
                               "--print-address"},
      std::vector<std::string>{}, folder_.path() / "dbus-daemon.log");
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!(std::filesystem::exists(socket) && accepts(socket))) {
    if (!process_->running() || std::chrono::steady_clock::now() > deadline)
      throw std::runtime_error("dbus-daemon did not start; see its log in " + folder_.path().string());
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  address_ = "unix:path=" + socket.string();
  variable_.emplace("DBUS_SESSION_BUS_ADDRESS", address_);
}

PrivateSessionBus::~PrivateSessionBus() = default;

}  // namespace vumo::testing
