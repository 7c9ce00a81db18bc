#pragma once

// The small always-on-top panel of a running recording: the elapsed time, the microphone's level
// and the buttons that pause, stop, restart or discard it. It is only ever shown outside what is
// captured (X11 would record it); where it stands in root pixels, as the X server has it, is
// reported so the pointer events on it can be left out of the film.

#include <QWidget>
#include <memory>
#include <optional>

#include "shared/geometry.h"
#include "shared/project_time.h"

class QLabel;
class QProgressBar;
class QPushButton;

namespace vumo {

class X11Connection;

class ControlPanel : public QWidget {
  Q_OBJECT

 public:
  explicit ControlPanel(QWidget* parent = nullptr);
  ~ControlPanel() override;

  void setElapsed(ProjectTime elapsed);
  // 0...1; none without a microphone (or while paused): the meter shows nothing.
  void setMicrophoneLevel(std::optional<double> level);
  void setPaused(bool paused);
  // Places the panel's top-left corner at `corner` in root pixels.
  void placeAt(PointValue rootCorner);

  // The panel's rectangle in root pixels, read from the X server where there is one (after the
  // window manager has placed it), else from Qt's geometry. None while hidden.
  std::optional<RectValue> rootRectangle() const;

 signals:
  void pauseToggled();
  void stopRequested();
  void restartRequested();
  void discardRequested();
  // Whenever the panel is shown, moved or hidden: what the pointer recording must leave out.
  void regionChanged(std::optional<RectValue> rootRectangle);

 protected:
  void showEvent(QShowEvent* event) override;
  void hideEvent(QHideEvent* event) override;
  void moveEvent(QMoveEvent* event) override;
  void resizeEvent(QResizeEvent* event) override;

 private:
  void reportRegion();

  QLabel* elapsed_;
  QProgressBar* level_;
  QPushButton* pause_;
  QPushButton* stop_;
  QPushButton* restart_;
  QPushButton* discard_;
  mutable std::shared_ptr<X11Connection> x11_;
};

}  // namespace vumo
