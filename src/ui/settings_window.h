#pragma once

// The "Settings" window: recording defaults with the machine's microphones and cameras, the
// global shortcuts with what they can do on this desktop, the Bailian key (stored through
// CloudCredentialStore and never shown whole), the export folder, and diagnostics. Every change
// is saved at once; a failure goes to `report`, which shows it once.

#include <QDialog>
#include <exception>
#include <functional>
#include <string>
#include <vector>

#include "capture/pulse_audio_stream.h"
#include "media/video_device_stream.h"
#include "ui/preferences_store.h"

class QCheckBox;
class QComboBox;
class QKeySequenceEdit;
class QLabel;
class QLineEdit;
class QPushButton;
class QSpinBox;
class QTabWidget;

namespace vumo {

class CloudCredentialStore;
class DiagnosticsPage;
class MainLoop;
class ProjectStore;

// Where the devices come from; replaced in tests, which have neither sound server nor camera.
struct SettingsDevices {
  // PulseAudio's sources, as `vumo record --list-sources` lists them. Throws CaptureError.
  std::function<std::vector<PulseAudioSourceInfo>()> audioSources;
  // The media engine's cameras. Throws MediaModuleError.
  std::function<std::vector<VideoDeviceDescription>()> cameras;

  static SettingsDevices ofThisMachine();
};

// How global shortcuts work where the application runs.
enum class ShortcutReach { x11KeyGrabs, waylandPortal };

class SettingsWindow : public QDialog {
  Q_OBJECT

 public:
  // A Wayland session (WAYLAND_DISPLAY set, or XDG_SESSION_TYPE=wayland) or X11.
  static ShortcutReach shortcutReachOfThisSession();
  // The sentence the Shortcuts page shows for `reach`.
  static QString shortcutReachText(ShortcutReach reach);
  // "••••" and the key's last four characters; the whole key is never shown.
  static QString maskedKey(const std::string& key);

  SettingsWindow(PreferencesStore& preferences, CloudCredentialStore& credentials, ProjectStore& store, MainLoop& loop,
                 std::function<void(const std::exception&)> report,
                 SettingsDevices devices = SettingsDevices::ofThisMachine(), QWidget* parent = nullptr);
  ~SettingsWindow() override;

  const Preferences& preferences() const { return current_; }
  QTabWidget* pages() const { return pages_; }
  DiagnosticsPage* diagnostics() const { return diagnostics_; }
  QString shortcutStatus() const;
  QString cloudKeyText() const;

 public slots:
  // Reads the stored values and the device lists again.
  void reload();
  // A global shortcut the recording flow could not take (another program holds the keys).
  void reportShortcutConflict(const QString& message);
  void saveCloudKey(const QString& key);
  void removeCloudKey();
  void chooseExportFolder();

 signals:
  // The shortcuts changed: the recording flow grabs the new keys.
  void shortcutsChanged(const QString& startStop, const QString& pause);

 private:
  QWidget* makeRecordingPage();
  QWidget* makeShortcutsPage();
  QWidget* makeCloudPage();
  QWidget* makeExportPage();
  void fillDevices();
  void showCloudKey();
  void save();
  void readControls();

  PreferencesStore& store_;
  CloudCredentialStore& credentials_;
  std::function<void(const std::exception&)> report_;
  SettingsDevices devices_;
  Preferences current_;
  bool filling_ = false;

  QTabWidget* pages_ = nullptr;
  QCheckBox* systemAudio_ = nullptr;
  QCheckBox* microphone_ = nullptr;
  QCheckBox* camera_ = nullptr;
  QComboBox* microphoneDevice_ = nullptr;
  QComboBox* cameraDevice_ = nullptr;
  QLabel* deviceNote_ = nullptr;
  QSpinBox* framesPerSecond_ = nullptr;
  QKeySequenceEdit* startStop_ = nullptr;
  QKeySequenceEdit* pause_ = nullptr;
  QLabel* shortcutReach_ = nullptr;
  QLabel* shortcutConflict_ = nullptr;
  QLabel* cloudState_ = nullptr;
  QLineEdit* cloudKey_ = nullptr;
  QPushButton* cloudSave_ = nullptr;
  QPushButton* cloudRemove_ = nullptr;
  QLineEdit* exportFolder_ = nullptr;
  DiagnosticsPage* diagnostics_ = nullptr;
};

}  // namespace vumo
