#pragma once

// The editor's models live on one thread, the application's main loop: the editing sessions, the
// change queue, the external-edit watcher and the answers of saves all run there and nowhere else.
// This interface is that loop as the models see it. The desktop shell implements it on Qt's event
// loop; tests implement it with a loop they turn themselves and a clock they move by hand, so
// nothing in a test sleeps or waits on the wall clock.

#include <chrono>
#include <cstdint>
#include <functional>

namespace vumo {

class MainLoop {
 public:
  using Clock = std::chrono::steady_clock;
  using Work = std::function<void()>;
  using TimerID = std::uint64_t;

  virtual ~MainLoop() = default;

  // Runs `work` on the loop after what is already queued, never inside the caller's own call.
  // May be called from any thread: this is how background work comes back to the main thread.
  virtual void post(Work work) = 0;

  // Runs `work` on the loop once `delay` has passed on the loop's clock, unless cancelled first.
  // Main thread only.
  virtual TimerID schedule(Clock::duration delay, Work work) = 0;

  // A timer that has not fired never will; one that has fired or is unknown is ignored. Main
  // thread only.
  virtual void cancel(TimerID timer) = 0;

  virtual Clock::time_point now() const = 0;
};

}  // namespace vumo
