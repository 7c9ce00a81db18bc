#pragma once

// The tests' own main loop: work runs only when the test turns the loop, and time passes only when
// the test moves the clock, so a debounce or a chain of saves is checked without sleeping.

#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "editor/main_loop.h"

namespace vumo::testing {

class ManualMainLoop final : public MainLoop {
 public:
  void post(Work work) override {
    std::lock_guard lock(mutex_);
    posted_.push_back(std::move(work));
  }
  TimerID schedule(Clock::duration delay, Work work) override {
    const TimerID id = ++lastTimer_;
    timers_.emplace(std::make_pair(now_ + delay, id), std::move(work));
    return id;
  }
  void cancel(TimerID timer) override {
    for (auto it = timers_.begin(); it != timers_.end(); ++it)
      if (it->first.second == timer) {
        timers_.erase(it);
        return;
      }
  }
  Clock::time_point now() const override { return now_; }

  // Runs posted work, including work that it posts, until none is left; returns how much ran.
  int runUntilIdle() {
    int ran = 0;
    for (;;) {
      std::vector<Work> batch;
      {
        std::lock_guard lock(mutex_);
        batch.swap(posted_);
      }
      if (batch.empty()) return ran;
      for (auto& work : batch) {
        work();
        ++ran;
      }
    }
  }

  // Moves the clock forward by `step`, firing each timer that falls due on the way at its own
  // time, in order, with the posted work it causes.
  void advance(Clock::duration step) {
    const Clock::time_point until = now_ + step;
    runUntilIdle();
    while (!timers_.empty() && timers_.begin()->first.first <= until) {
      auto due = timers_.begin();
      now_ = due->first.first;
      Work work = std::move(due->second);
      timers_.erase(due);
      work();
      runUntilIdle();
    }
    now_ = until;
  }

  std::size_t pendingTimers() const { return timers_.size(); }

 private:
  std::mutex mutex_;
  std::vector<Work> posted_;
  std::map<std::pair<Clock::time_point, TimerID>, Work> timers_;
  TimerID lastTimer_ = 0;
  Clock::time_point now_{};
};

}  // namespace vumo::testing
