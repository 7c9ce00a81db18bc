#pragma once

// Work handed to the thread that iterates a GLib main context, for the D-Bus code of the portal
// client and of the tests' portal, whose objects belong to that thread.

#include <glib.h>

#include <functional>
#include <future>

namespace vumo {

// Runs `job` on the thread iterating `context` and waits for it; what `job` throws is thrown here.
inline void invokeOnContextAndWait(GMainContext* context, std::function<void()> job) {
  struct Pending {
    std::function<void()> job;
    std::promise<void> done;
  };
  auto* pending = new Pending{std::move(job), {}};
  auto future = pending->done.get_future();
  g_main_context_invoke_full(
      context, G_PRIORITY_DEFAULT,
      [](gpointer data) -> gboolean {
        auto* p = static_cast<Pending*>(data);
        try {
          p->job();
          p->done.set_value();
        } catch (...) {
          p->done.set_exception(std::current_exception());
        }
        return G_SOURCE_REMOVE;
      },
      pending, [](gpointer data) { delete static_cast<Pending*>(data); });
  future.get();
}

}  // namespace vumo
