#pragma once

// The recording's actions in the desktop's tray, where the desktop has one: the only controls in
// sight when the panel must stay hidden (a recording of every screen).

#include <QObject>

class QAction;
class QMenu;
class QSystemTrayIcon;

namespace vumo {

class TrayIcon : public QObject {
  Q_OBJECT

 public:
  explicit TrayIcon(QObject* parent = nullptr);
  ~TrayIcon() override;

  // Whether this desktop shows tray icons at all.
  static bool available();

  // Shown while a recording runs, hidden otherwise.
  void setRecording(bool recording);
  void setPaused(bool paused);
  // A balloon message, where the tray offers them.
  void notify(const QString& text);

 signals:
  void pauseToggled();
  void stopRequested();
  void restartRequested();
  void discardRequested();

 private:
  QSystemTrayIcon* icon_ = nullptr;
  QMenu* menu_ = nullptr;
  QAction* pause_ = nullptr;
};

}  // namespace vumo
