#pragma once

#include <csignal>
#include <functional>
#include <initializer_list>
#include <stop_token>
#include <thread>

namespace vumo {

// Takes the given signals away from their default action and hands each one that arrives to
// `handler`, on a watcher thread of its own. The signals are blocked (construct this before any
// other thread starts, so every thread inherits the mask) and read from a signalfd; an eventfd that
// the destructor signals ends the watcher at once rather than at the next poll.
//
// When the descriptors cannot be had (the process is out of them) the signals keep their default
// action: the command can still be interrupted, only not cleanly. After the watcher is gone the
// signals stay blocked: one that arrives while the command writes its answer and exits must not
// kill it half-way.
class SignalWatcher {
 public:
  SignalWatcher(std::initializer_list<int> signalNumbers, std::function<void(int)> handler);
  ~SignalWatcher();
  SignalWatcher(const SignalWatcher&) = delete;
  SignalWatcher& operator=(const SignalWatcher&) = delete;

 private:
  std::function<void(int)> handler_;
  int signals_ = -1;   // signalfd for the watched signals
  int finished_ = -1;  // eventfd, written once when the command has ended
  std::thread watcher_;
};

// Turns SIGINT and SIGTERM into a cancellation request instead of letting them kill the process
// half-way through a commit. Work that has cancellation points checks the token; everything else
// runs to its end.
class SignalCancellation {
 public:
  SignalCancellation() : watcher_({SIGINT, SIGTERM}, [this](int) { source_.request_stop(); }) {}

  std::stop_token token() const { return source_.get_token(); }

 private:
  std::stop_source source_;
  SignalWatcher watcher_;  // after the source it stops
};

}  // namespace vumo
