#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <stop_token>

#include "cli/signal_cancellation.h"

namespace vumo {

enum class RecordControlEvent { stop, togglePause };

// What the user asks of a running `vumo record`. A queue that any thread may feed; the command
// waits on it between status lines.
class RecordControls {
 public:
  RecordControls() = default;
  virtual ~RecordControls() = default;
  RecordControls(const RecordControls&) = delete;
  RecordControls& operator=(const RecordControls&) = delete;

  // The next request, waiting at most `timeout`; none when the time ran out or `wake` was called.
  std::optional<RecordControlEvent> wait(std::chrono::milliseconds timeout);
  void post(RecordControlEvent event);
  // Ends the current wait early (a recording that failed on another thread).
  void wake();
  // Requested by the first stop: what waits before the recording starts (the desktop's source
  // dialog) is cancelled by it.
  std::stop_token stopRequested() const { return stopSource_.get_token(); }
  // From now on requests change nothing: each is handed to `acknowledge` (on the poster's thread)
  // while the recording is finished, and it is kept whatever comes.
  void finishing(std::function<void(RecordControlEvent)> acknowledge);

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  std::deque<RecordControlEvent> events_;
  bool woken_ = false;
  std::function<void(RecordControlEvent)> acknowledge_;
  std::stop_source stopSource_;
};

// SIGINT and SIGTERM ask to stop (and keep the recording), SIGUSR1 toggles pause. None of them can
// kill the process half-way through finishing a package (construct this before any other thread
// starts).
class RecordSignals : public RecordControls {
 public:
  RecordSignals()
      : watcher_({SIGINT, SIGTERM, SIGUSR1}, [this](int signal) {
          post(signal == SIGUSR1 ? RecordControlEvent::togglePause : RecordControlEvent::stop);
        }) {}

 private:
  SignalWatcher watcher_;
};

}  // namespace vumo
