#include "cli/record_controls.h"

namespace vumo {

std::optional<RecordControlEvent> RecordControls::wait(std::chrono::milliseconds timeout) {
  std::unique_lock guard(lock_);
  changed_.wait_for(guard, timeout, [this] { return !events_.empty() || woken_; });
  woken_ = false;
  if (events_.empty()) return std::nullopt;
  RecordControlEvent event = events_.front();
  events_.pop_front();
  return event;
}

void RecordControls::post(RecordControlEvent event) {
  if (event == RecordControlEvent::stop) stopSource_.request_stop();
  std::function<void(RecordControlEvent)> acknowledge;
  {
    std::lock_guard guard(lock_);
    if (acknowledge_) {
      acknowledge = acknowledge_;
    } else {
      events_.push_back(event);
    }
  }
  if (acknowledge) {
    acknowledge(event);
    return;
  }
  changed_.notify_all();
}

void RecordControls::wake() {
  {
    std::lock_guard guard(lock_);
    woken_ = true;
  }
  changed_.notify_all();
}

void RecordControls::finishing(std::function<void(RecordControlEvent)> acknowledge) {
  std::lock_guard guard(lock_);
  acknowledge_ = std::move(acknowledge);
  events_.clear();
}

}  // namespace vumo
