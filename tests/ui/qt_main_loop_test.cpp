#include "ui/qt_main_loop.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QTimer>
#include <chrono>
#include <thread>
#include <vector>

#include "widget_test_support.h"

namespace vumo {
namespace {

using widget_testing::turnUntil;

using namespace std::chrono_literals;

// Turns Qt's loop until `done` or a generous limit, so a broken loop fails instead of hanging.

class QtMainLoopTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    static int argc = 1;
    static char name[] = "ui_tests";
    static char* argv[] = {name, nullptr};
    if (QCoreApplication::instance() == nullptr) new QCoreApplication(argc, argv);
  }
};

TEST_F(QtMainLoopTest, PostedWorkRunsLaterInOrderAndFromOtherThreads) {
  QtMainLoop loop;
  std::vector<int> order;
  loop.post([&] { order.push_back(1); });
  loop.post([&] { order.push_back(2); });
  EXPECT_TRUE(order.empty()) << "post must never run inside the caller's call";
  std::thread other([&] { loop.post([&] { order.push_back(3); }); });
  other.join();
  turnUntil([&] { return order.size() == 3; });
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST_F(QtMainLoopTest, TimersFireOnceAfterTheirDelayUnlessCancelled) {
  QtMainLoop loop;
  int fired = 0, cancelled = 0;
  const auto start = loop.now();
  MainLoop::Clock::time_point firedAt;
  loop.schedule(30ms, [&] {
    ++fired;
    firedAt = loop.now();
  });
  const auto doomed = loop.schedule(10ms, [&] { ++cancelled; });
  loop.cancel(doomed);
  loop.cancel(doomed);  // twice, and an unknown id, are both ignored
  loop.cancel(987654);
  turnUntil([&] { return fired == 1; });
  // Give a doomed timer every chance to fire.
  const auto settle = loop.now() + 50ms;
  turnUntil([&] { return loop.now() >= settle; });
  EXPECT_EQ(fired, 1);
  EXPECT_EQ(cancelled, 0);
  EXPECT_GE(firedAt - start, 30ms);
}

}  // namespace
}  // namespace vumo
