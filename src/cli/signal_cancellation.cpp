#include "cli/signal_cancellation.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

namespace vumo {

namespace {

void closeIfOpen(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

}  // namespace

SignalWatcher::SignalWatcher(std::initializer_list<int> signalNumbers, std::function<void(int)> handler)
    : handler_(std::move(handler)) {
  sigset_t set;
  sigemptyset(&set);
  for (int number : signalNumbers) sigaddset(&set, number);
  signals_ = ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  finished_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (signals_ < 0 || finished_ < 0) {
    closeIfOpen(signals_);
    closeIfOpen(finished_);
    return;
  }
  // Blocked before the watcher starts, so that it inherits the mask like every later thread; a
  // signal that comes in between waits in the signalfd. Should the watcher not start, the mask
  // is put back and the signals keep their default action.
  sigset_t previous;
  pthread_sigmask(SIG_BLOCK, &set, &previous);
  try {
    watcher_ = std::thread([this] {
      pollfd waits[2] = {{signals_, POLLIN, 0}, {finished_, POLLIN, 0}};
      for (;;) {
        if (::poll(waits, 2, -1) < 0) {
          if (errno == EINTR) continue;
          return;
        }
        if (waits[0].revents & POLLIN) {
          signalfd_siginfo info;
          while (::read(signals_, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
            handler_(static_cast<int>(info.ssi_signo));
          }
        }
        if (waits[1].revents != 0) return;
      }
    });
  } catch (const std::system_error&) {
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    closeIfOpen(signals_);
    closeIfOpen(finished_);
  }
}

SignalWatcher::~SignalWatcher() {
  if (watcher_.joinable()) {
    const std::uint64_t one = 1;
    ssize_t written;
    do {
      written = ::write(finished_, &one, sizeof one);
    } while (written < 0 && errno == EINTR);
    watcher_.join();
  }
  closeIfOpen(signals_);
  closeIfOpen(finished_);
}

}  // namespace vumo
