#pragma once

// A D-Bus session bus of a test's own, so that nothing a test does reaches the desktop's bus.

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "support/desktop_servers.h"
#include "support/test_support.h"

namespace vumo::testing {

// `dbus-daemon --session --nofork` listening on a socket in a temporary folder, with no service
// folders (nothing is started on demand: a name nobody owns stays unowned). While it lives,
// DBUS_SESSION_BUS_ADDRESS of this process names it, so clients made in this process and the
// programs a test starts (which inherit the environment) use it.
class PrivateSessionBus {
 public:
  PrivateSessionBus();
  ~PrivateSessionBus();
  PrivateSessionBus(const PrivateSessionBus&) = delete;
  PrivateSessionBus& operator=(const PrivateSessionBus&) = delete;

  const std::string& address() const { return address_; }
  const std::filesystem::path& folder() const { return folder_.path(); }

 private:
  TemporaryDirectory folder_;
  std::string address_;
  std::unique_ptr<BackgroundProcess> process_;
  std::optional<ScopedEnvironmentVariable> variable_;
};

}  // namespace vumo::testing
