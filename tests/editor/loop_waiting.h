#pragma once

// Work that a background thread (the watcher's reader, the save thread) posts reaches the hand-turned
// loop at a time the test cannot know. These turn the loop until it arrives; the limit is only
// there to fail a test whose work never comes.

#include <chrono>
#include <thread>

#include "support/manual_main_loop.h"

namespace vumo::testing {

inline constexpr std::chrono::seconds kPostedWorkLimit{10};

// Turns the loop until `done()` holds; false when the limit passed first.
template <class Condition>
bool turnUntil(ManualMainLoop& loop, Condition done) {
  const auto deadline = std::chrono::steady_clock::now() + kPostedWorkLimit;
  for (;;) {
    loop.runUntilIdle();
    if (done()) return true;
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

// Turns the loop until some posted work has run; how much ran (0 when none came in time).
inline int turnUntilPosted(ManualMainLoop& loop) {
  const auto deadline = std::chrono::steady_clock::now() + kPostedWorkLimit;
  for (;;) {
    if (const int ran = loop.runUntilIdle(); ran > 0) return ran;
    if (std::chrono::steady_clock::now() > deadline) return 0;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

}  // namespace vumo::testing
