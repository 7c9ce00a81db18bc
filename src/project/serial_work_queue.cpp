#include "project/serial_work_queue.h"

namespace vumo {

SerialWorkQueue::SerialWorkQueue() : worker_([this] { run(); }) {}

SerialWorkQueue::~SerialWorkQueue() {
  {
    std::lock_guard guard(mutex_);
    stopping_ = true;
  }
  wake_.notify_one();
  worker_.join();
}

void SerialWorkQueue::enqueue(std::function<void()> job) {
  {
    std::lock_guard guard(mutex_);
    jobs_.push_back(std::move(job));
    ++submitted_;
  }
  wake_.notify_one();
}

void SerialWorkQueue::waitUntilIdle() {
  std::unique_lock guard(mutex_);
  std::size_t target = submitted_;
  idle_.wait(guard, [&] { return finished_ >= target; });
}

void SerialWorkQueue::run() {
  std::unique_lock guard(mutex_);
  for (;;) {
    wake_.wait(guard, [&] { return stopping_ || !jobs_.empty(); });
    if (jobs_.empty()) return;  // stopping, and everything queued has run
    auto job = std::move(jobs_.front());
    jobs_.pop_front();
    guard.unlock();
    job();
    guard.lock();
    ++finished_;
    idle_.notify_all();
  }
}

}  // namespace vumo
