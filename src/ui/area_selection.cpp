#include "ui/area_selection.h"

#include <QCursor>
#include <QGuiApplication>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QScreen>

#include "ui/recording_layout.h"

namespace vumo {

AreaSelection::AreaSelection(QScreen* screen)
    : QWidget(nullptr, Qt::Window | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint) {
  if (screen == nullptr) screen = QGuiApplication::screenAt(QCursor::pos());
  if (screen == nullptr) screen = QGuiApplication::primaryScreen();
  setWindowTitle("Select Area");
  setAccessibleName("Select Area");
  setCursor(Qt::CrossCursor);
  setMouseTracking(true);
  ratio_ = screen->devicePixelRatio();
  const QRect geometry = screen->geometry();
  display_ = {geometry.x() * ratio_, geometry.y() * ratio_, geometry.width() * ratio_, geometry.height() * ratio_};
  // Window 0 is the root: the whole screen as it is now, in device pixels.
  frozen_ = screen->grabWindow(0);
  setScreen(screen);
  setGeometry(geometry);
}

std::optional<RectValue> AreaSelection::selection() const {
  if (!dragStart_ || !dragEnd_) return std::nullopt;
  return selectedRootArea({dragStart_->x(), dragStart_->y()}, {dragEnd_->x(), dragEnd_->y()}, display_, ratio_);
}

void AreaSelection::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  painter.drawPixmap(rect(), frozen_);
  QRectF chosen;
  if (std::optional<RectValue> area = selection())
    chosen = QRectF((area->x - display_.x) / ratio_, (area->y - display_.y) / ratio_, area->width / ratio_,
                    area->height / ratio_);
  // Everything but the chosen rectangle is dimmed.
  QPainterPath dimmed;
  dimmed.addRect(rect());
  if (!chosen.isEmpty()) dimmed.addRect(chosen);
  painter.fillPath(dimmed, QColor(0, 0, 0, 140));
  if (!chosen.isEmpty()) {
    painter.setPen(QPen(QColor(255, 255, 255), 2));
    painter.drawRect(chosen);
    if (std::optional<RectValue> area = selection())
      painter.drawText(chosen.adjusted(6, 6, 0, 0), Qt::AlignLeft | Qt::AlignTop,
                       QString("%1 × %2").arg(int(area->width)).arg(int(area->height)));
  } else {
    painter.setPen(Qt::white);
    painter.drawText(rect(), Qt::AlignCenter,
                     "Drag over the area to record. Press Enter or double-click to confirm, Escape to cancel.");
  }
}

void AreaSelection::mousePressEvent(QMouseEvent* event) {
  if (event->button() != Qt::LeftButton) return;
  // A press inside the drawn rectangle keeps it: it may be the first half of the confirming double
  // click.
  if (std::optional<RectValue> area = selection()) {
    const double x = display_.x + event->position().x() * ratio_, y = display_.y + event->position().y() * ratio_;
    if (x >= area->x && x < area->x + area->width && y >= area->y && y < area->y + area->height) {
      dragging_ = false;
      return;
    }
  }
  dragging_ = true;
  dragStart_ = event->position();
  dragEnd_ = event->position();
  update();
}

void AreaSelection::mouseMoveEvent(QMouseEvent* event) {
  if (!(event->buttons() & Qt::LeftButton) || !dragging_) return;
  dragEnd_ = event->position();
  update();
}

void AreaSelection::mouseReleaseEvent(QMouseEvent* event) {
  if (event->button() != Qt::LeftButton || !dragging_) return;
  dragging_ = false;
  dragEnd_ = event->position();
  update();
}

void AreaSelection::mouseDoubleClickEvent(QMouseEvent* event) {
  // A double click inside a drawn rectangle takes it; the second press must not start a new one.
  if (event->button() == Qt::LeftButton) confirm();
}

void AreaSelection::keyPressEvent(QKeyEvent* event) {
  switch (event->key()) {
    case Qt::Key_Return:
    case Qt::Key_Enter: confirm(); return;
    case Qt::Key_Escape:
      if (done_) return;
      done_ = true;
      hide();
      emit cancelled();
      return;
    default: QWidget::keyPressEvent(event);
  }
}

void AreaSelection::confirm() {
  const std::optional<RectValue> area = selection();
  if (!area || done_) return;
  done_ = true;
  hide();
  emit selected(*area);
}

}  // namespace vumo
