#pragma once

#include <atomic>
#include <stop_token>
#include <thread>

namespace vumo {

// Turns SIGINT and SIGTERM into a cancellation request instead of letting them kill the process
// half-way through a commit. Both signals are blocked (construct this before any other thread
// starts, so every thread inherits the mask) and a watcher thread waits for them and requests
// the stop. Work that has cancellation points checks the token; everything else runs to its end.
class SignalCancellation {
 public:
  SignalCancellation();
  ~SignalCancellation();
  SignalCancellation(const SignalCancellation&) = delete;
  SignalCancellation& operator=(const SignalCancellation&) = delete;

  std::stop_token token() const { return source_.get_token(); }

 private:
  std::stop_source source_;
  std::atomic<bool> finished_{false};
  std::thread watcher_;
};

}  // namespace vumo
