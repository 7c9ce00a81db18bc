#include "ui/control_panel.h"

#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QScreen>
#include <QTimer>
#include <cmath>
#include <cstdlib>
#include <memory>

#include "capture/x11_connection.h"
#include "ui/recording_layout.h"

namespace vumo {

ControlPanel::~ControlPanel() = default;

ControlPanel::ControlPanel(QWidget* parent)
    : QWidget(parent, Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint | Qt::WindowDoesNotAcceptFocus) {
  setWindowTitle("Vumo Recording");
  setAccessibleName("Recording controls");
  elapsed_ = new QLabel(QString::fromStdString(elapsedClockText({})), this);
  elapsed_->setAccessibleName("Elapsed time");
  elapsed_->setMinimumWidth(elapsed_->fontMetrics().horizontalAdvance("00:00:00"));
  level_ = new QProgressBar(this);
  level_->setAccessibleName("Microphone level");
  level_->setRange(0, 100);
  level_->setValue(0);
  level_->setTextVisible(false);
  level_->setFixedWidth(60);
  pause_ = new QPushButton("Pause", this);
  stop_ = new QPushButton("Stop", this);
  restart_ = new QPushButton("Restart", this);
  discard_ = new QPushButton("Discard", this);
  auto* layout = new QHBoxLayout(this);
  layout->setContentsMargins(8, 6, 8, 6);
  for (QWidget* part : std::initializer_list<QWidget*>{elapsed_, level_, pause_, stop_, restart_, discard_})
    layout->addWidget(part);
  connect(pause_, &QPushButton::clicked, this, &ControlPanel::pauseToggled);
  connect(stop_, &QPushButton::clicked, this, &ControlPanel::stopRequested);
  connect(restart_, &QPushButton::clicked, this, &ControlPanel::restartRequested);
  connect(discard_, &QPushButton::clicked, this, &ControlPanel::discardRequested);
  adjustSize();
}

void ControlPanel::setElapsed(ProjectTime elapsed) {
  elapsed_->setText(QString::fromStdString(elapsedClockText(elapsed)));
}

void ControlPanel::setMicrophoneLevel(std::optional<double> level) {
  level_->setEnabled(level.has_value());
  level_->setValue(level ? int(std::lround(std::clamp(*level, 0.0, 1.0) * 100)) : 0);
}

void ControlPanel::setPaused(bool paused) {
  pause_->setText(paused ? "Resume" : "Pause");
  pause_->setAccessibleName(pause_->text());
}

void ControlPanel::placeAt(PointValue rootCorner) {
  QScreen* screen = QGuiApplication::screenAt(QPoint(int(rootCorner.x), int(rootCorner.y)));
  const double ratio = screen ? screen->devicePixelRatio() : devicePixelRatioF();
  move(QPoint(int(std::lround(rootCorner.x / ratio)), int(std::lround(rootCorner.y / ratio))));
}

std::optional<RectValue> ControlPanel::rootRectangle() const {
  if (!isVisible()) return std::nullopt;
  // Where the window really is: the window manager may have moved it from where it was asked to
  // go, and what it shows around the window belongs to the panel too.
  if (QGuiApplication::platformName() == "xcb") {
    try {
      if (!x11_) x11_ = std::make_shared<X11Connection>();
      if (std::optional<X11WindowPlacement> placement = windowPlacement(*x11_, xcb_window_t(winId())))
        return placement->frame;
    } catch (const std::exception&) {
      // No connection of our own: Qt's own idea of the geometry below.
    }
  }
  const double ratio = devicePixelRatioF();
  const QRect frame = frameGeometry();
  return RectValue{frame.x() * ratio, frame.y() * ratio, frame.width() * ratio, frame.height() * ratio};
}

void ControlPanel::reportRegion() { emit regionChanged(rootRectangle()); }

void ControlPanel::showEvent(QShowEvent* event) {
  QWidget::showEvent(event);
  reportRegion();
  // The window manager places a new window after it is mapped: read it again once that is done.
  QTimer::singleShot(150, this, [this] { reportRegion(); });
}

void ControlPanel::hideEvent(QHideEvent* event) {
  QWidget::hideEvent(event);
  emit regionChanged(std::nullopt);
}

void ControlPanel::moveEvent(QMoveEvent* event) {
  QWidget::moveEvent(event);
  if (isVisible()) reportRegion();
}

void ControlPanel::resizeEvent(QResizeEvent* event) {
  QWidget::resizeEvent(event);
  if (isVisible()) reportRegion();
}

}  // namespace vumo
