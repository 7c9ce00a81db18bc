#include "editor/view_update_change_queue.h"

#include <algorithm>
#include <utility>

namespace vumo {

ViewUpdateChangeQueue::ViewUpdateChangeQueue(MainLoop& loop) : loop_(loop), state_(std::make_shared<State>()) {}

ViewUpdateChangeQueue::~ViewUpdateChangeQueue() { cancel(); }

void ViewUpdateChangeQueue::enqueueLatest(std::optional<std::string> key, Action apply) {
  auto& pending = state_->pending;
  auto same = key ? std::find_if(pending.begin(), pending.end(), [&](const Pending& p) { return p.key == key; })
                  : pending.end();
  if (same != pending.end())
    same->apply = std::move(apply);
  else
    pending.push_back({std::move(key), std::move(apply)});
  scheduleDrainIfNeeded();
}

void ViewUpdateChangeQueue::cancel() {
  state_->drainTask.reset();
  state_->pending.clear();
}

std::size_t ViewUpdateChangeQueue::pendingCount() const { return state_->pending.size(); }

void ViewUpdateChangeQueue::scheduleDrainIfNeeded() {
  if (state_->drainTask) return;
  const std::uint64_t number = ++state_->lastDrain;
  state_->drainTask = number;
  // Two hops: the first lands after whatever the current view update has already posted, and the
  // drain after whatever that work posts in turn, so the update has settled when changes apply.
  MainLoop& loop = loop_;
  std::weak_ptr<State> weak = state_;
  loop.post([&loop, weak, number] {
    auto state = weak.lock();
    if (!state || state->drainTask != number) return;
    loop.post([weak, number] {
      auto state = weak.lock();
      if (!state || state->drainTask != number) return;
      drain(state);
    });
  });
}

void ViewUpdateChangeQueue::drain(const std::shared_ptr<State>& state) {
  // The list is taken whole and the drain forgotten before any action runs, so an action that
  // enqueues again starts a new drain instead of being lost or run in this one.
  std::vector<Pending> batch;
  batch.swap(state->pending);
  state->drainTask.reset();
  for (auto& entry : batch) entry.apply();
}

}  // namespace vumo
