#pragma once

// Keeps a session's announcements out of the view update in which they arise. A change announced
// while the views are being updated is applied on a later turn of the main loop, and of a burst of
// changes under one key only the latest is applied, at the place the first one took in the queue.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "editor/main_loop.h"

namespace vumo {

class ViewUpdateChangeQueue {
 public:
  using Action = std::function<void()>;

  // Borrows the loop, which must outlive the queue. Main thread only, like everything here.
  explicit ViewUpdateChangeQueue(MainLoop& loop);
  ~ViewUpdateChangeQueue();
  ViewUpdateChangeQueue(const ViewUpdateChangeQueue&) = delete;
  ViewUpdateChangeQueue& operator=(const ViewUpdateChangeQueue&) = delete;

  // With a key that a pending entry already has, that entry's action is replaced in place and
  // keeps its position; otherwise (and always without a key) the action is appended. Starts one
  // drain unless one is already on its way.
  void enqueueLatest(std::optional<std::string> key, Action apply);

  // Drops every pending action and the drain on its way.
  void cancel();

  std::size_t pendingCount() const;

 private:
  struct Pending {
    std::optional<std::string> key;
    Action apply;
  };
  struct State {
    std::vector<Pending> pending;
    // The drain on its way, by number; a drain whose number is no longer this one was cancelled.
    std::optional<std::uint64_t> drainTask;
    std::uint64_t lastDrain = 0;
  };

  void scheduleDrainIfNeeded();
  static void drain(const std::shared_ptr<State>& state);

  MainLoop& loop_;
  // Shared with the posted drain, which finds it gone once the queue has been destroyed.
  std::shared_ptr<State> state_;
};

}  // namespace vumo
