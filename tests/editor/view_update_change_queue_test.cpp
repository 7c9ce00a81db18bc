#include "editor/view_update_change_queue.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/manual_main_loop.h"

namespace vumo {
namespace {

struct QueueFixture {
  testing::ManualMainLoop loop;
  ViewUpdateChangeQueue queue{loop};
  std::vector<std::string> ran;
  ViewUpdateChangeQueue::Action record(std::string name) {
    return [this, name] { ran.push_back(name); };
  }
};

TEST(ViewUpdateChangeQueue, ALaterActionUnderAKeyReplacesTheEarlierInItsPlace) {
  QueueFixture f;
  f.queue.enqueueLatest("timeline", f.record("timeline 1"));
  f.queue.enqueueLatest("captions", f.record("captions 1"));
  f.queue.enqueueLatest(std::nullopt, f.record("unkeyed 1"));
  f.queue.enqueueLatest(std::nullopt, f.record("unkeyed 2"));
  f.queue.enqueueLatest("timeline", f.record("timeline 2"));
  EXPECT_TRUE(f.ran.empty());  // never inside the caller
  f.loop.runUntilIdle();
  EXPECT_EQ(f.ran, (std::vector<std::string>{"timeline 2", "captions 1", "unkeyed 1", "unkeyed 2"}));
}

TEST(ViewUpdateChangeQueue, TheDrainRunsAfterTheWorkTheViewUpdateHasAlreadyPosted) {
  QueueFixture f;
  f.loop.post([&] {
    f.queue.enqueueLatest("timeline", f.record("change"));
    f.loop.post(f.record("rest of the update"));
  });
  f.loop.runUntilIdle();
  EXPECT_EQ(f.ran, (std::vector<std::string>{"rest of the update", "change"}));
}

TEST(ViewUpdateChangeQueue, AnActionThatEnqueuesAgainLandsInTheNextDrain) {
  QueueFixture f;
  f.queue.enqueueLatest("timeline", [&] {
    f.ran.push_back("first");
    f.queue.enqueueLatest("timeline", f.record("again"));
    EXPECT_EQ(f.queue.pendingCount(), 1u);
  });
  f.loop.runUntilIdle();
  EXPECT_EQ(f.ran, (std::vector<std::string>{"first", "again"}));
  EXPECT_EQ(f.queue.pendingCount(), 0u);
}

TEST(ViewUpdateChangeQueue, CancelDropsWhatIsPendingAndTheDrainOnItsWay) {
  QueueFixture f;
  f.queue.enqueueLatest("timeline", f.record("dropped"));
  f.queue.cancel();
  f.loop.runUntilIdle();
  EXPECT_TRUE(f.ran.empty());
  f.queue.enqueueLatest("timeline", f.record("after"));
  f.loop.runUntilIdle();
  EXPECT_EQ(f.ran, (std::vector<std::string>{"after"}));
}

TEST(ViewUpdateChangeQueue, ADrainAfterTheQueueIsGoneDoesNothing) {
  testing::ManualMainLoop loop;
  bool ran = false;
  {
    ViewUpdateChangeQueue queue(loop);
    queue.enqueueLatest("timeline", [&] { ran = true; });
  }
  loop.runUntilIdle();
  EXPECT_FALSE(ran);
}

}  // namespace
}  // namespace vumo
