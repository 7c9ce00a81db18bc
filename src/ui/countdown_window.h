#pragma once

// 3, 2, 1 before a recording starts, a second each; Escape or "Cancel" stops it. It may carry a
// sentence the person must read before recording (where the controls will be).

#include <QWidget>
#include <chrono>

class QLabel;
class QTimer;

namespace vumo {

class CountdownWindow : public QWidget {
  Q_OBJECT

 public:
  explicit CountdownWindow(QWidget* parent = nullptr);

  // Starts from `from`, one step every `step`; emits finished after the last.
  void start(int from = 3, std::chrono::milliseconds step = std::chrono::seconds(1));
  void setNote(const QString& text);
  int remaining() const { return remaining_; }

 public slots:
  void cancel();

 signals:
  void finished();
  void cancelled();

 protected:
  void keyPressEvent(QKeyEvent* event) override;

 private:
  void tick();

  QLabel* number_;
  QLabel* note_;
  QTimer* timer_;
  int remaining_ = 0;
};

}  // namespace vumo
