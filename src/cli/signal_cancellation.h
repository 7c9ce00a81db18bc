#pragma once

#include <stop_token>
#include <thread>

namespace vumo {

// Turns SIGINT and SIGTERM into a cancellation request instead of letting them kill the process
// half-way through a commit. Both signals are blocked (construct this before any other thread
// starts, so every thread inherits the mask) and a watcher thread waits on a signalfd for them
// and requests the stop. Work that has cancellation points checks the token; everything else runs
// to its end. The watcher also waits on an eventfd that the destructor signals, so the end of a
// command is seen at once rather than at the next poll.
//
// When the descriptors cannot be had (the process is out of them) the signals keep their default
// action: the command can still be interrupted, only not cleanly.
class SignalCancellation {
 public:
  SignalCancellation();
  ~SignalCancellation();
  SignalCancellation(const SignalCancellation&) = delete;
  SignalCancellation& operator=(const SignalCancellation&) = delete;

  std::stop_token token() const { return source_.get_token(); }

 private:
  std::stop_source source_;
  int signals_ = -1;   // signalfd for SIGINT and SIGTERM
  int finished_ = -1;  // eventfd, written once when the command has ended
  std::thread watcher_;
};

}  // namespace vumo
