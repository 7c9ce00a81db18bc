#include "ui/settings_window.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QKeySequenceEdit>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSpinBox>
#include <QTabWidget>
#include <QVBoxLayout>
#include <cstdlib>
#include <string_view>

#include "cli/media_module_loader.h"
#include "transcription/cloud_credential_store.h"
#include "transcription/transcription_errors.h"
#include "ui/diagnostics_page.h"
#include "ui/user_messages.h"

namespace vumo {

namespace {

constexpr int minimumFramesPerSecond = 1;
constexpr int maximumFramesPerSecond = 240;

QString text(const std::string& value) { return QString::fromStdString(value); }

}  // namespace

SettingsDevices SettingsDevices::ofThisMachine() {
  return {[] { return listPulseAudioSources(); }, [] { return MediaModuleLoader::load().listVideoDevices(); }};
}

ShortcutReach SettingsWindow::shortcutReachOfThisSession() {
  const char* wayland = std::getenv("WAYLAND_DISPLAY");
  const char* session = std::getenv("XDG_SESSION_TYPE");
  if ((wayland != nullptr && wayland[0] != 0) || (session != nullptr && std::string_view(session) == "wayland"))
    return ShortcutReach::waylandPortal;
  return ShortcutReach::x11KeyGrabs;
}

QString SettingsWindow::shortcutReachText(ShortcutReach reach) {
  switch (reach) {
    case ShortcutReach::x11KeyGrabs:
      return QStringLiteral(
          "On this X11 desktop the shortcuts work everywhere: Vumo takes the keys for the whole screen while it "
          "runs.");
    case ShortcutReach::waylandPortal:
      return QStringLiteral(
          "On this Wayland desktop the shortcuts work everywhere only where the desktop offers global shortcuts "
          "(the GlobalShortcuts portal); otherwise they work only while Vumo has focus.");
  }
  return {};
}

QString SettingsWindow::maskedKey(const std::string& key) {
  const QString whole = text(key);
  if (whole.size() <= 4) return QStringLiteral("••••");
  return QStringLiteral("••••") + whole.right(4);
}

SettingsWindow::SettingsWindow(PreferencesStore& preferences, CloudCredentialStore& credentials, ProjectStore& store,
                               MainLoop& loop, std::function<void(const std::exception&)> report,
                               SettingsDevices devices, QWidget* parent)
    : QDialog(parent),
      store_(preferences),
      credentials_(credentials),
      report_(std::move(report)),
      devices_(std::move(devices)) {
  setWindowTitle(QStringLiteral("Settings"));
  setAccessibleName(QStringLiteral("Settings"));
  auto* layout = new QVBoxLayout(this);
  pages_ = new QTabWidget(this);
  pages_->setAccessibleName(QStringLiteral("Settings pages"));
  // Every page's name in sight: a tab behind a scroll arrow is one a person never finds.
  pages_->setUsesScrollButtons(false);
  pages_->addTab(makeRecordingPage(), QStringLiteral("Recording"));
  pages_->addTab(makeShortcutsPage(), QStringLiteral("Shortcuts"));
  pages_->addTab(makeCloudPage(), QStringLiteral("Cloud"));
  pages_->addTab(makeExportPage(), QStringLiteral("Export"));
  diagnostics_ = new DiagnosticsPage(store, loop, this);
  pages_->addTab(diagnostics_, QStringLiteral("Diagnostics"));
  layout->addWidget(pages_);
  auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close, this);
  layout->addWidget(buttons);
  connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::close);
  resize(640, 520);
  connect(pages_, &QTabWidget::currentChanged, this, [this](int index) {
    if (pages_->widget(index) == diagnostics_) diagnostics_->refresh();
  });
  reload();
}

SettingsWindow::~SettingsWindow() = default;

QWidget* SettingsWindow::makeRecordingPage() {
  auto* page = new QWidget(this);
  auto* form = new QFormLayout(page);
  systemAudio_ = new QCheckBox(QStringLiteral("Record system audio"), page);
  microphone_ = new QCheckBox(QStringLiteral("Record microphone"), page);
  camera_ = new QCheckBox(QStringLiteral("Record camera"), page);
  microphoneDevice_ = new QComboBox(page);
  microphoneDevice_->setAccessibleName(QStringLiteral("Microphone"));
  cameraDevice_ = new QComboBox(page);
  cameraDevice_->setAccessibleName(QStringLiteral("Camera"));
  framesPerSecond_ = new QSpinBox(page);
  framesPerSecond_->setRange(minimumFramesPerSecond, maximumFramesPerSecond);
  framesPerSecond_->setAccessibleName(QStringLiteral("Frames per second"));
  deviceNote_ = new QLabel(page);
  deviceNote_->setWordWrap(true);
  form->addRow(systemAudio_);
  form->addRow(microphone_);
  form->addRow(QStringLiteral("Microphone:"), microphoneDevice_);
  form->addRow(camera_);
  form->addRow(QStringLiteral("Camera:"), cameraDevice_);
  form->addRow(QStringLiteral("Frames per second:"), framesPerSecond_);
  form->addRow(deviceNote_);
  for (QCheckBox* box : {systemAudio_, microphone_, camera_})
    connect(box, &QCheckBox::toggled, this, &SettingsWindow::save);
  for (QComboBox* box : {microphoneDevice_, cameraDevice_})
    connect(box, &QComboBox::currentIndexChanged, this, &SettingsWindow::save);
  connect(framesPerSecond_, &QSpinBox::valueChanged, this, &SettingsWindow::save);
  return page;
}

QWidget* SettingsWindow::makeShortcutsPage() {
  auto* page = new QWidget(this);
  auto* form = new QFormLayout(page);
  startStop_ = new QKeySequenceEdit(page);
  startStop_->setAccessibleName(QStringLiteral("Start or stop recording"));
  pause_ = new QKeySequenceEdit(page);
  pause_->setAccessibleName(QStringLiteral("Pause or resume recording"));
  shortcutReach_ = new QLabel(shortcutReachText(shortcutReachOfThisSession()), page);
  shortcutReach_->setWordWrap(true);
  shortcutConflict_ = new QLabel(page);
  shortcutConflict_->setWordWrap(true);
  shortcutConflict_->setAccessibleName(QStringLiteral("Shortcut conflict"));
  shortcutConflict_->hide();
  form->addRow(QStringLiteral("Start or stop recording:"), startStop_);
  form->addRow(QStringLiteral("Pause or resume:"), pause_);
  form->addRow(shortcutReach_);
  form->addRow(shortcutConflict_);
  for (QKeySequenceEdit* edit : {startStop_, pause_})
    connect(edit, &QKeySequenceEdit::editingFinished, this, [this] {
      const Preferences before = current_;
      save();
      if (current_.startStopShortcut != before.startStopShortcut || current_.pauseShortcut != before.pauseShortcut)
        emit shortcutsChanged(text(current_.startStopShortcut), text(current_.pauseShortcut));
    });
  return page;
}

QWidget* SettingsWindow::makeCloudPage() {
  auto* page = new QWidget(this);
  auto* layout = new QVBoxLayout(page);
  auto* about = new QLabel(
      QStringLiteral("Captions are transcribed by Alibaba Cloud Bailian with your own API key. The key is kept in a "
                     "file only you can read."),
      page);
  about->setWordWrap(true);
  cloudState_ = new QLabel(page);
  cloudState_->setAccessibleName(QStringLiteral("Stored key"));
  cloudState_->setWordWrap(true);
  cloudKey_ = new QLineEdit(page);
  cloudKey_->setEchoMode(QLineEdit::Password);
  cloudKey_->setAccessibleName(QStringLiteral("Bailian API key"));
  cloudKey_->setPlaceholderText(QStringLiteral("Bailian API key"));
  auto* buttons = new QHBoxLayout;
  cloudSave_ = new QPushButton(QStringLiteral("Save"), page);
  cloudRemove_ = new QPushButton(QStringLiteral("Remove"), page);
  buttons->addWidget(cloudSave_);
  buttons->addWidget(cloudRemove_);
  buttons->addStretch(1);
  layout->addWidget(about);
  layout->addWidget(cloudState_);
  layout->addWidget(cloudKey_);
  layout->addLayout(buttons);
  layout->addStretch(1);
  connect(cloudSave_, &QPushButton::clicked, this, [this] { saveCloudKey(cloudKey_->text()); });
  connect(cloudRemove_, &QPushButton::clicked, this, &SettingsWindow::removeCloudKey);
  return page;
}

QWidget* SettingsWindow::makeExportPage() {
  auto* page = new QWidget(this);
  auto* form = new QFormLayout(page);
  auto* row = new QHBoxLayout;
  exportFolder_ = new QLineEdit(page);
  exportFolder_->setReadOnly(true);
  exportFolder_->setAccessibleName(QStringLiteral("Export folder"));
  auto* choose = new QPushButton(QStringLiteral("Choose…"), page);
  row->addWidget(exportFolder_, 1);
  row->addWidget(choose);
  form->addRow(QStringLiteral("Export folder:"), row);
  connect(choose, &QPushButton::clicked, this, &SettingsWindow::chooseExportFolder);
  return page;
}

void SettingsWindow::reload() {
  current_ = store_.load();
  if (store_.loadProblem()) report_(std::runtime_error(*store_.loadProblem()));
  filling_ = true;
  systemAudio_->setChecked(current_.recording.capturesSystemAudio);
  microphone_->setChecked(current_.recording.capturesMicrophone);
  camera_->setChecked(current_.recording.capturesWebcam);
  framesPerSecond_->setValue(static_cast<int>(current_.recording.framesPerSecond));
  startStop_->setKeySequence(QKeySequence(text(current_.startStopShortcut)));
  pause_->setKeySequence(QKeySequence(text(current_.pauseShortcut)));
  exportFolder_->setText(text(current_.exportFolder.string()));
  fillDevices();
  filling_ = false;
  showCloudKey();
}

void SettingsWindow::fillDevices() {
  QStringList notes;
  microphoneDevice_->clear();
  microphoneDevice_->addItem(QStringLiteral("Default microphone"), QString());
  try {
    for (const PulseAudioSourceInfo& source : devices_.audioSources())
      if (!source.isMonitor)
        microphoneDevice_->addItem(text(source.description.empty() ? source.name : source.description),
                                   text(source.name));
  } catch (const std::exception& error) {
    notes << QString::fromStdString(userMessageFor(error));
  }
  cameraDevice_->clear();
  cameraDevice_->addItem(QStringLiteral("Default camera"), QString());
  try {
    for (const VideoDeviceDescription& device : devices_.cameras())
      cameraDevice_->addItem(text(device.name.empty() ? device.deviceID : device.name), text(device.deviceID));
  } catch (const std::exception& error) {
    notes << QString::fromStdString(userMessageFor(error));
  }
  // A chosen device that is not connected now stays chosen: it may be plugged in later.
  auto select = [](QComboBox* box, const std::optional<std::string>& id) {
    if (!id) {
      box->setCurrentIndex(0);
      return;
    }
    int index = box->findData(text(*id));
    if (index < 0) {
      box->addItem(QStringLiteral("%1 (not connected)").arg(text(*id)), text(*id));
      index = box->count() - 1;
    }
    box->setCurrentIndex(index);
  };
  select(microphoneDevice_, current_.recording.microphoneDeviceID);
  select(cameraDevice_, current_.recording.webcamDeviceID);
  deviceNote_->setText(notes.join(QLatin1Char('\n')));
  deviceNote_->setVisible(!notes.isEmpty());
}

void SettingsWindow::readControls() {
  RecordingOptions& recording = current_.recording;
  recording.capturesSystemAudio = systemAudio_->isChecked();
  recording.capturesMicrophone = microphone_->isChecked();
  recording.capturesWebcam = camera_->isChecked();
  auto chosen = [](QComboBox* box) -> std::optional<std::string> {
    const QString id = box->currentData().toString();
    if (id.isEmpty()) return std::nullopt;
    return id.toStdString();
  };
  recording.microphoneDeviceID = chosen(microphoneDevice_);
  recording.webcamDeviceID = chosen(cameraDevice_);
  recording.framesPerSecond = framesPerSecond_->value();
  // An emptied shortcut field keeps the keys it had: a shortcut is never switched off by accident.
  const QString startStop = startStop_->keySequence().toString(QKeySequence::PortableText);
  const QString pause = pause_->keySequence().toString(QKeySequence::PortableText);
  if (!startStop.isEmpty()) current_.startStopShortcut = startStop.toStdString();
  if (!pause.isEmpty()) current_.pauseShortcut = pause.toStdString();
  current_.exportFolder = exportFolder_->text().toStdString();
}

void SettingsWindow::save() {
  if (filling_) return;
  readControls();
  try {
    store_.save(current_);
  } catch (const std::exception& error) {
    report_(error);
  }
}

QString SettingsWindow::shortcutStatus() const {
  return shortcutConflict_->isVisible() || !shortcutConflict_->text().isEmpty() ? shortcutConflict_->text()
                                                                                : shortcutReach_->text();
}

void SettingsWindow::reportShortcutConflict(const QString& message) {
  shortcutConflict_->setText(message);
  shortcutConflict_->setVisible(!message.isEmpty());
}

QString SettingsWindow::cloudKeyText() const { return cloudState_->text(); }

void SettingsWindow::showCloudKey() {
  const bool fromEnvironment = CloudCredentialStore::environmentKeyOverrides();
  try {
    const std::string key = credentials_.loadBailianAPIKey();
    cloudState_->setText(fromEnvironment
                             ? QStringLiteral("Key from DASHSCOPE_API_KEY: %1 (it takes precedence over a saved key)")
                                   .arg(maskedKey(key))
                             : QStringLiteral("Saved key: %1").arg(maskedKey(key)));
    cloudRemove_->setEnabled(!fromEnvironment);
  } catch (const CloudCredentialError&) {
    cloudState_->setText(QStringLiteral("No key is saved."));
    cloudRemove_->setEnabled(false);
  } catch (const std::exception& error) {
    cloudState_->setText(QString::fromStdString(userMessageFor(error)));
    cloudRemove_->setEnabled(true);
  }
}

void SettingsWindow::saveCloudKey(const QString& key) {
  try {
    credentials_.saveBailianAPIKey(key.toStdString());
    cloudKey_->clear();
  } catch (const std::exception& error) {
    report_(error);
  }
  showCloudKey();
}

void SettingsWindow::removeCloudKey() {
  try {
    credentials_.deleteBailianAPIKey();
  } catch (const std::exception& error) {
    report_(error);
  }
  showCloudKey();
}

void SettingsWindow::chooseExportFolder() {
  const QString folder =
      QFileDialog::getExistingDirectory(this, QStringLiteral("Export Folder"), exportFolder_->text());
  if (folder.isEmpty()) return;
  exportFolder_->setText(folder);
  save();
}

}  // namespace vumo
