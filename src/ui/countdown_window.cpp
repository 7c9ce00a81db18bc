#include "ui/countdown_window.h"

#include <QKeyEvent>
#include <QLabel>
#include <QPushButton>
#include <QTimer>
#include <QVBoxLayout>

namespace vumo {

CountdownWindow::CountdownWindow(QWidget* parent)
    : QWidget(parent, Qt::Window | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint) {
  setWindowTitle("Countdown");
  setAccessibleName("Countdown");
  number_ = new QLabel(this);
  number_->setAlignment(Qt::AlignCenter);
  QFont large = number_->font();
  large.setPointSize(72);
  large.setBold(true);
  number_->setFont(large);
  number_->setAccessibleName("Seconds until recording");
  note_ = new QLabel(this);
  note_->setWordWrap(true);
  note_->setAlignment(Qt::AlignCenter);
  note_->setAccessibleName("Note");
  note_->hide();
  auto* cancelButton = new QPushButton("Cancel", this);
  auto* layout = new QVBoxLayout(this);
  layout->addWidget(number_);
  layout->addWidget(note_);
  layout->addWidget(cancelButton, 0, Qt::AlignHCenter);
  setMinimumWidth(320);
  timer_ = new QTimer(this);
  connect(timer_, &QTimer::timeout, this, &CountdownWindow::tick);
  connect(cancelButton, &QPushButton::clicked, this, &CountdownWindow::cancel);
}

void CountdownWindow::setNote(const QString& text) {
  note_->setText(text);
  note_->setVisible(!text.isEmpty());
}

void CountdownWindow::start(int from, std::chrono::milliseconds step) {
  remaining_ = std::max(from, 0);
  number_->setText(QString::number(remaining_));
  timer_->start(step);
  if (remaining_ == 0) tick();
}

void CountdownWindow::tick() {
  if (remaining_ > 1) {
    --remaining_;
    number_->setText(QString::number(remaining_));
    return;
  }
  remaining_ = 0;
  timer_->stop();
  // Gone before the capture starts: X11 would record it.
  hide();
  emit finished();
}

void CountdownWindow::cancel() {
  if (!timer_->isActive()) return;
  timer_->stop();
  hide();
  emit cancelled();
}

void CountdownWindow::keyPressEvent(QKeyEvent* event) {
  if (event->key() == Qt::Key_Escape) {
    cancel();
    return;
  }
  QWidget::keyPressEvent(event);
}

}  // namespace vumo
