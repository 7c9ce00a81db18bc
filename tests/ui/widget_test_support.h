#pragma once

// What every test of the application's widgets needs: widgets without a display or a window
// manager, and a way to let Qt's event loop run until something has happened, bounded so that a
// broken view fails its test instead of hanging it.

#include <QApplication>
#include <QCoreApplication>
#include <QtTest/QTest>
#include <chrono>
#include <functional>

namespace vumo::widget_testing {

// Starts a QApplication on the offscreen platform, once per process. False when another kind of
// application object was made first (a test that needs widgets then reports it).
inline bool startWidgets() {
  static int argc = 1;
  static char name[] = "ui_tests";
  static char* argv[] = {name, nullptr};
  if (QCoreApplication::instance() == nullptr) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    new QApplication(argc, argv);
  }
  return qobject_cast<QApplication*>(QCoreApplication::instance()) != nullptr;
}

// Runs the event loop until `done` or `limit`, and says whether `done` came. It waits between
// turns instead of spinning, so that the worker threads a test waits for keep the processor.
inline bool turnUntil(const std::function<bool()>& done, std::chrono::milliseconds limit = std::chrono::seconds(30)) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > end) return false;
    QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    QTest::qWait(5);
  }
  return true;
}

}  // namespace vumo::widget_testing
