#pragma once

// The area of a recording, drawn over a frozen, dimmed picture of one display: the picture is
// taken once, before the window opens, so no compositing manager is needed for the see-through
// look. Drag a rectangle; Enter or a double click confirms it, Escape cancels.

#include <QPixmap>
#include <QWidget>
#include <optional>

#include "shared/geometry.h"

class QScreen;

namespace vumo {

class AreaSelection : public QWidget {
  Q_OBJECT

 public:
  // Covers `screen` (the one under the pointer when none is given).
  explicit AreaSelection(QScreen* screen = nullptr);

  // The display this window covers, in root pixels.
  const RectValue& displayInRoot() const { return display_; }
  // The rectangle dragged so far, in root pixels.
  std::optional<RectValue> selection() const;

 signals:
  void selected(RectValue rootArea);
  void cancelled();

 protected:
  void paintEvent(QPaintEvent* event) override;
  void mousePressEvent(QMouseEvent* event) override;
  void mouseMoveEvent(QMouseEvent* event) override;
  void mouseReleaseEvent(QMouseEvent* event) override;
  void mouseDoubleClickEvent(QMouseEvent* event) override;
  void keyPressEvent(QKeyEvent* event) override;

 private:
  void confirm();

  QPixmap frozen_;
  RectValue display_;
  double ratio_ = 1;
  std::optional<QPointF> dragStart_;
  std::optional<QPointF> dragEnd_;
  bool dragging_ = false;
  bool done_ = false;
};

}  // namespace vumo
