#include "cli/signal_cancellation.h"

#include <pthread.h>
#include <signal.h>

#include <ctime>

namespace vumo {

namespace {
sigset_t cancellationSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}
}  // namespace

SignalCancellation::SignalCancellation() {
  sigset_t set = cancellationSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  watcher_ = std::thread([this, set] {
    // A short timeout lets the watcher notice the end of the command without a signal of its own.
    const timespec interval{0, 50'000'000};
    while (!finished_.load()) {
      if (sigtimedwait(&set, nullptr, &interval) > 0) source_.request_stop();
    }
  });
}

SignalCancellation::~SignalCancellation() {
  finished_.store(true);
  watcher_.join();
  // The signals stay blocked: one that arrives now, after the command finished, must not kill the
  // process while it writes its answer and exits.
}

}  // namespace vumo
