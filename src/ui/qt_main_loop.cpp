#include "ui/qt_main_loop.h"

#include <QMetaObject>
#include <QPointer>
#include <QTimer>
#include <chrono>

namespace vumo {

QtMainLoop::QtMainLoop(QObject* parent) : QObject(parent) {}

QtMainLoop::~QtMainLoop() {
  for (auto& [id, timer] : timers_) delete timer;
}

void QtMainLoop::post(Work work) {
  // A queued invocation is never run inside the caller's call, even on the loop's own thread.
  QMetaObject::invokeMethod(
      this, [work = std::move(work)] { work(); }, Qt::QueuedConnection);
}

MainLoop::TimerID QtMainLoop::schedule(Clock::duration delay, Work work) {
  const TimerID id = nextTimer_++;
  auto* timer = new QTimer(this);
  timer->setSingleShot(true);
  timer->setTimerType(Qt::PreciseTimer);
  const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(delay).count();
  timer->setInterval(static_cast<int>(std::max<long long>(0, milliseconds)));
  connect(timer, &QTimer::timeout, this, [this, id, work = std::move(work)] {
    auto found = timers_.find(id);
    if (found == timers_.end()) return;
    found->second->deleteLater();
    timers_.erase(found);
    work();
  });
  timers_.emplace(id, timer);
  timer->start();
  return id;
}

void QtMainLoop::cancel(TimerID timer) {
  auto found = timers_.find(timer);
  if (found == timers_.end()) return;
  found->second->stop();
  found->second->deleteLater();
  timers_.erase(found);
}

MainLoop::Clock::time_point QtMainLoop::now() const { return Clock::now(); }

}  // namespace vumo
