#include "ui/tray_icon.h"

#include <QApplication>
#include <QMenu>
#include <QPainter>
#include <QPixmap>
#include <QStyle>
#include <QSystemTrayIcon>

namespace vumo {

namespace {

// A red dot: recording.
QIcon recordingIcon() {
  QPixmap pixmap(32, 32);
  pixmap.fill(Qt::transparent);
  QPainter painter(&pixmap);
  painter.setRenderHint(QPainter::Antialiasing);
  painter.setBrush(QColor(220, 30, 30));
  painter.setPen(Qt::NoPen);
  painter.drawEllipse(4, 4, 24, 24);
  return QIcon(pixmap);
}

}  // namespace

TrayIcon::TrayIcon(QObject* parent) : QObject(parent) {
  if (!available()) return;
  menu_ = new QMenu;
  pause_ = menu_->addAction("Pause", this, &TrayIcon::pauseToggled);
  menu_->addAction("Stop", this, &TrayIcon::stopRequested);
  menu_->addAction("Restart", this, &TrayIcon::restartRequested);
  menu_->addAction("Discard", this, &TrayIcon::discardRequested);
  icon_ = new QSystemTrayIcon(recordingIcon(), this);
  icon_->setToolTip("Vumo is recording");
  icon_->setContextMenu(menu_);
  // A plain click stops, the most urgent wish of someone who looks for the controls.
  connect(icon_, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
    if (reason == QSystemTrayIcon::Trigger) emit stopRequested();
  });
}

TrayIcon::~TrayIcon() { delete menu_; }

bool TrayIcon::available() { return QSystemTrayIcon::isSystemTrayAvailable(); }

void TrayIcon::setRecording(bool recording) {
  if (icon_) icon_->setVisible(recording);
}

void TrayIcon::setPaused(bool paused) {
  if (pause_) pause_->setText(paused ? "Resume" : "Pause");
  if (icon_) icon_->setToolTip(paused ? "Vumo recording is paused" : "Vumo is recording");
}

void TrayIcon::notify(const QString& text) {
  if (icon_ && icon_->isVisible() && QSystemTrayIcon::supportsMessages()) icon_->showMessage("Vumo", text);
}

}  // namespace vumo
