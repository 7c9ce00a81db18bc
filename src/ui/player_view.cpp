#include "ui/player_view.h"

#include <QImage>
#include <QPainter>
#include <QResizeEvent>
#include <cmath>

#include "ui/editor_player.h"

namespace vumo {

PlayerView::PlayerView(EditorPlayer& player, QWidget* parent) : QWidget(parent), player_(player) {
  setAccessibleName("Player");
  setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
  setAttribute(Qt::WA_OpaquePaintEvent);
}

void PlayerView::frameChanged() {
  const QString error = shownErrorText();
  if (accessibleDescription() != error) setAccessibleDescription(error);
  update();
}

QString PlayerView::shownErrorText() const {
  const auto error = player_.errorText();
  return error ? QString::fromStdString(*error) : QString();
}

QSize PlayerView::sizeHint() const { return {640, 360}; }
QSize PlayerView::minimumSizeHint() const { return {160, 90}; }

void PlayerView::resizeEvent(QResizeEvent* event) {
  QWidget::resizeEvent(event);
  tellViewSize();
}

void PlayerView::showEvent(QShowEvent* event) {
  QWidget::showEvent(event);
  tellViewSize();  // the window may have moved to a screen of another scale while hidden
}

void PlayerView::tellViewSize() {
  const double ratio = devicePixelRatioF();
  player_.setViewSize(PixelSize{static_cast<std::int64_t>(std::lround(width() * ratio)),
                                static_cast<std::int64_t>(std::lround(height() * ratio))});
}

void PlayerView::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  painter.fillRect(rect(), QColor(18, 18, 20));
  const QString error = shownErrorText();
  const auto frame = player_.currentFrame();
  if (frame && frame->rgba != nullptr && frame->size.width > 0 && frame->size.height > 0) {
    // Borrowed, not copied: the frame outlives this paint through `keepAlive`.
    const QImage image(frame->rgba, static_cast<int>(frame->size.width), static_cast<int>(frame->size.height),
                       static_cast<qsizetype>(frame->size.width) * 4, QImage::Format_RGBA8888_Premultiplied);
    QSizeF fitted = QSizeF(image.size()).scaled(QSizeF(size()), Qt::KeepAspectRatio);
    const QRectF target((width() - fitted.width()) / 2, (height() - fitted.height()) / 2, fitted.width(),
                        fitted.height());
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    painter.drawImage(target, image);
  }
  if (!error.isEmpty()) {
    painter.setPen(QColor(240, 240, 240));
    painter.drawText(rect().adjusted(16, 16, -16, -16), Qt::AlignCenter | Qt::TextWordWrap, error);
  }
}

}  // namespace vumo
