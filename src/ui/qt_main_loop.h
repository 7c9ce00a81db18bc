#pragma once

// The editor models' main loop on Qt's event loop: `post` from any thread lands as a queued call on
// the object's thread, and timers are single-shot QTimers owned here, so cancelling one that has
// not fired drops it without a trace.

#include <QObject>
#include <unordered_map>

#include "editor/main_loop.h"

class QTimer;

namespace vumo {

class QtMainLoop final : public QObject, public MainLoop {
  Q_OBJECT

 public:
  explicit QtMainLoop(QObject* parent = nullptr);
  ~QtMainLoop() override;

  void post(Work work) override;
  TimerID schedule(Clock::duration delay, Work work) override;
  void cancel(TimerID timer) override;
  Clock::time_point now() const override;

 private:
  std::unordered_map<TimerID, QTimer*> timers_;
  TimerID nextTimer_ = 1;
};

}  // namespace vumo
