#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace vumo {

// One background thread that runs submitted jobs one after another, in submission order.
// Destruction runs what is still queued, then joins.
class SerialWorkQueue {
 public:
  SerialWorkQueue();
  ~SerialWorkQueue();
  SerialWorkQueue(const SerialWorkQueue&) = delete;
  SerialWorkQueue& operator=(const SerialWorkQueue&) = delete;

  // Jobs must not throw: they report their own failures.
  void enqueue(std::function<void()> job);
  // Returns once every job submitted before the call has finished.
  void waitUntilIdle();

 private:
  void run();

  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable idle_;
  std::deque<std::function<void()>> jobs_;
  std::size_t submitted_ = 0;
  std::size_t finished_ = 0;
  bool stopping_ = false;
  std::thread worker_;
};

}  // namespace vumo
