#include "ui/recording_flow.h"

#include <QGuiApplication>
#include <QMessageBox>
#include <QScreen>
#include <QSocketNotifier>
#include <QTimer>
#include <QWidget>
#include <cmath>

#include "capture/x11_global_shortcuts.h"
#include "cli/desktop_recording_platform.h"
#include "cli/recording_start.h"
#include "project/project_store.h"
#include "recording/recording_control_region.h"
#include "recording/recording_errors.h"
#include "recording/screen_recording_session.h"
#include "ui/application_model.h"
#include "ui/area_selection.h"
#include "ui/control_panel.h"
#include "ui/countdown_window.h"
#include "ui/recording_layout.h"
#include "ui/source_picker.h"
#include "ui/tray_icon.h"

namespace vumo {

namespace {

Preferences storedPreferences() {
  try {
    return PreferencesStore().load();
  } catch (const std::exception&) {
    return PreferencesStore::defaults();
  }
}

}  // namespace

RecordingFlow::RecordingFlow(ApplicationModel& model, ProjectStore& store, QWidget* parentWindow)
    : RecordingFlow(model, store, parentWindow, RecordingFlowSettings{}) {}

RecordingFlow::RecordingFlow(ApplicationModel& model, ProjectStore& store, QWidget* parentWindow,
                             RecordingFlowSettings settings)
    : QObject(parentWindow),
      model_(model),
      store_(store),
      parentWindow_(parentWindow),
      settings_(std::move(settings)),
      preferences_(settings_.preferences ? *settings_.preferences : storedPreferences()),
      regionStore_(settings_.controlRegionStore ? *settings_.controlRegionStore
                                                : RecordingControlRegionStore::shared()) {
  if (!settings_.makePlatform) settings_.makePlatform = [] { return makeDesktopRecordingPlatform(); };
  panel_ = std::make_unique<ControlPanel>();
  connect(panel_.get(), &ControlPanel::pauseToggled, this, &RecordingFlow::togglePause);
  connect(panel_.get(), &ControlPanel::stopRequested, this, &RecordingFlow::stopAndFinish);
  connect(panel_.get(), &ControlPanel::restartRequested, this, &RecordingFlow::restart);
  connect(panel_.get(), &ControlPanel::discardRequested, this, &RecordingFlow::discard);
  connect(panel_.get(), &ControlPanel::regionChanged, this,
          [this](std::optional<RectValue> region) { regionStore_.replace(region); });
  tray_ = new TrayIcon(this);
  connect(tray_, &TrayIcon::pauseToggled, this, &RecordingFlow::togglePause);
  connect(tray_, &TrayIcon::stopRequested, this, &RecordingFlow::stopAndFinish);
  connect(tray_, &TrayIcon::restartRequested, this, &RecordingFlow::restart);
  connect(tray_, &TrayIcon::discardRequested, this, &RecordingFlow::discard);
  statusTimer_ = new QTimer(this);
  connect(statusTimer_, &QTimer::timeout, this, &RecordingFlow::pollStatus);
  if (settings_.globalShortcuts) setShortcuts(preferences_.startStopShortcut, preferences_.pauseShortcut);
}

RecordingFlow::~RecordingFlow() {
  finishBeforeQuit();
  regionStore_.replace(std::nullopt);
}

template <class Work>
void RecordingFlow::onMain(Work work) {
  QMetaObject::invokeMethod(this, std::move(work), Qt::QueuedConnection);
}

SourcePicker* RecordingFlow::sourcePicker() const { return static_cast<SourcePicker*>(picker_.data()); }

void RecordingFlow::start() {
  if (!model_.chooseSource()) return;
  // The settings window may have changed the defaults since the last recording.
  if (!settings_.preferences) preferences_.recording = storedPreferences().recording;
  auto* picker = new SourcePicker(preferences_.recording, parentWindow_);
  picker_ = picker;
  picker->setAttribute(Qt::WA_DeleteOnClose);
  connect(picker, &SourcePicker::recordRequested, this, &RecordingFlow::record);
  connect(picker, &SourcePicker::areaRequested, this, &RecordingFlow::chooseArea);
  connect(picker, &QDialog::rejected, this, [this] {
    if (model_.phase() == ApplicationPhase::choosingSource) model_.cancel();
  });
  picker->show();
  picker->raise();
  picker->activateWindow();
}

void RecordingFlow::closePicker() {
  if (!picker_) return;
  picker_->disconnect(this);
  picker_->close();
  picker_ = nullptr;
}

void RecordingFlow::chooseArea(const RecordingChoice& choice) {
  closePicker();
  // The screenshot is taken once the picker is off the screen and the windows under it have
  // drawn themselves again (no compositor keeps their pictures).
  QTimer::singleShot(250, this, [this, choice] {
    if (model_.phase() == ApplicationPhase::choosingSource && !area_) showAreaSelection(choice);
  });
}

void RecordingFlow::showAreaSelection(const RecordingChoice& choice) {
  auto* area = new AreaSelection();
  area->setAttribute(Qt::WA_DeleteOnClose);
  area_ = area;
  connect(area, &AreaSelection::selected, this, [this, choice](RectValue rootArea) {
    if (area_) area_->close();
    RecordingChoice chosen = choice;
    chosen.source.kind = CaptureSourceKind::area;
    // An area is given in the whole screen's pixels, which are the root's.
    chosen.source.display.reset();
    chosen.source.area = rootArea;
    record(chosen);
  });
  connect(area, &AreaSelection::cancelled, this, [this] {
    if (area_) area_->close();
    if (model_.phase() == ApplicationPhase::choosingSource) model_.cancel();
  });
  area->show();
  area->raise();
  area->activateWindow();
}

void RecordingFlow::record(const RecordingChoice& choice) {
  if (model_.phase() == ApplicationPhase::library) model_.chooseSource();
  if (model_.phase() != ApplicationPhase::choosingSource) return;
  closePicker();
  choice_ = choice;
  const int generation = ++generation_;
  try {
    freeSpace_.emplace(store_.projectsDirectoryPath(), settings_.freeSpace);
    freeSpace_->requireRoomToStart();
  } catch (const std::exception& error) {
    model_.fail(error);
    return;
  }
  std::shared_ptr<RecordingPlatform> platform;
  try {
    platform = settings_.makePlatform();
  } catch (const std::exception& error) {
    model_.fail(error);
    return;
  }
  platform_ = platform;
  // The desktop ended the shared source ("stop sharing"): the recording is finished as on Stop.
  platform->onSourceEnded([this, generation] {
    onMain([this, generation] {
      if (generation == generation_) stopAndFinish();
    });
  });
  resolveStop_ = std::stop_source();
  worker_.enqueue([this, platform, generation, request = choice.source, stop = resolveStop_.get_token()] {
    try {
      CaptureSourceDescriptor source = platform->resolve(request, stop);
      onMain([this, generation, source] { resolved(generation, source); });
    } catch (...) {
      onMain([this, generation, error = std::current_exception()] { failedToStart(generation, error); });
    }
  });
}

std::vector<RectValue> RecordingFlow::displays() const {
  if (settings_.displays) return settings_.displays();
  std::vector<RectValue> rects;
  for (const QScreen* screen : QGuiApplication::screens()) {
    const double ratio = screen->devicePixelRatio();
    const QRect geometry = screen->geometry();
    rects.push_back({geometry.x() * ratio, geometry.y() * ratio, geometry.width() * ratio, geometry.height() * ratio});
  }
  return rects;
}

void RecordingFlow::resolved(int generation, CaptureSourceDescriptor source) {
  if (generation != generation_ || model_.phase() != ApplicationPhase::choosingSource) return;
  source_ = std::move(source);
  const double ratio = panel_->devicePixelRatioF();
  const QSize panelSize = panel_->sizeHint();
  panelCorner_ = controlPanelPosition(displays(), source_.globalFrame,
                                      SizeValue{panelSize.width() * ratio, panelSize.height() * ratio});
  countdownNote_.clear();
  if (!panelCorner_) {
    countdownNote_ =
        QString::fromStdString(hiddenPanelMessage(shortcuts_ ? preferences_.startStopShortcut : "",
                                                  shortcuts_ ? preferences_.pauseShortcut : "", TrayIcon::available()));
  }
  if (!model_.beginCountdown()) return;
  countdown_ = std::make_unique<CountdownWindow>();
  countdown_->setNote(countdownNote_);
  connect(countdown_.get(), &CountdownWindow::finished, this, [this, generation] { beginRecording(generation); });
  connect(countdown_.get(), &CountdownWindow::cancelled, this, [this] {
    ++generation_;
    dropPlatform();
    if (model_.phase() == ApplicationPhase::countdown) model_.cancel();
  });
  countdown_->adjustSize();
  // In the middle of what will be recorded, where the person looks; it is gone before the capture.
  if (QScreen* screen = QGuiApplication::screenAt(QPoint(int(source_.globalFrame.x), int(source_.globalFrame.y)))) {
    const double screenRatio = screen->devicePixelRatio();
    const QPointF centre((source_.globalFrame.x + source_.globalFrame.width / 2) / screenRatio,
                         (source_.globalFrame.y + source_.globalFrame.height / 2) / screenRatio);
    countdown_->move(int(centre.x() - countdown_->width() / 2.0), int(centre.y() - countdown_->height() / 2.0));
  }
  countdown_->show();
  countdown_->raise();
  countdown_->activateWindow();
  countdown_->start(settings_.countdownFrom, settings_.countdownStep);
}

void RecordingFlow::beginRecording(int generation) {
  if (generation != generation_ || model_.phase() != ApplicationPhase::countdown) return;
  auto failed = std::make_shared<std::atomic<bool>>(false);
  sessionFailed_ = failed;
  RecordingSessionSettings settings;
  // The status poll sees it and finishes the recording, which reports the latched error.
  settings.failureHandler = [failed](const std::string&) { failed->store(true); };
  settings.controlRegionStore = &regionStore_;
  worker_.enqueue([this, generation, platform = platform_, source = source_, streams = choice_.streams,
                   settings = std::move(settings)]() mutable {
    try {
      StartedRecording started = startRecording(*platform, store_, source, streams, std::move(settings));
      std::shared_ptr<ScreenRecordingSession> session(std::move(started.session));
      onMain([this, generation, session, platform] { recordingBegan(generation, session, platform); });
    } catch (...) {
      onMain([this, generation, error = std::current_exception()] { failedToStart(generation, error); });
    }
  });
}

void RecordingFlow::recordingBegan(int generation, std::shared_ptr<ScreenRecordingSession> session,
                                   std::shared_ptr<RecordingPlatform> platform) {
  if (generation != generation_ || model_.phase() != ApplicationPhase::countdown) {
    // Cancelled while the streams opened: nothing of it is kept. The platform that made the
    // streams outlives them.
    worker_.enqueue([session, platform] {
      try {
        session->discard();
      } catch (const std::exception&) {
      }
    });
    return;
  }
  session_ = std::move(session);
  paused_ = false;
  stoppedForSpace_ = false;
  model_.recordingStarted();
  showRecordingControls(true);
  if (!panelCorner_) tray_->notify(countdownNote_);
  statusTimer_->start(settings_.statusInterval);
}

void RecordingFlow::failedToStart(int generation, std::exception_ptr error) {
  if (generation != generation_) return;
  dropPlatform();
  try {
    std::rethrow_exception(error);
  } catch (const CancelledError&) {
    model_.cancel();
  } catch (const std::exception& failure) {
    model_.fail(failure);
  }
}

void RecordingFlow::showRecordingControls(bool shown) {
  panel_->setPaused(paused_);
  tray_->setPaused(paused_);
  if (shown && panelCorner_) {
    panel_->setElapsed({});
    panel_->placeAt(*panelCorner_);
    panel_->show();
    panel_->raise();
  } else {
    panel_->hide();
  }
  tray_->setRecording(shown);
}

void RecordingFlow::pollStatus() {
  if (!session_ || model_.phase() != ApplicationPhase::recording) return;
  const RecordingLiveStatus status = session_->liveStatus();
  panel_->setElapsed(status.elapsed);
  panel_->setMicrophoneLevel(status.microphoneLevel);
  if (sessionFailed_ && sessionFailed_->load()) {
    finish();
    return;
  }
  if (freeSpace_ && freeSpace_->ranShort()) {
    stoppedForSpace_ = true;
    finish();
  }
}

void RecordingFlow::stopAndFinish() {
  switch (model_.phase()) {
    case ApplicationPhase::choosingSource:
      // Nothing recorded yet: stopping means not starting.
      ++generation_;
      resolveStop_.request_stop();
      closePicker();
      if (area_) area_->close();
      dropPlatform();
      model_.cancel();
      return;
    case ApplicationPhase::countdown:
      ++generation_;
      if (countdown_) countdown_->hide();
      dropPlatform();
      model_.cancel();
      return;
    case ApplicationPhase::recording: finish(); return;
    default: return;
  }
}

void RecordingFlow::finish() {
  if (!session_ || !model_.stopRecording()) return;
  statusTimer_->stop();
  showRecordingControls(false);
  std::shared_ptr<ScreenRecordingSession> session = std::move(session_);
  const int generation = generation_;
  worker_.enqueue([this, session, generation] {
    // Stopped before the first picture: there is nothing worth keeping.
    if (!session->hasFirstFrame()) {
      try {
        session->discard();
      } catch (const std::exception&) {
      }
      onMain([this, generation] {
        if (generation != generation_) return;
        dropPlatform();
        model_.recordingDiscarded();
      });
      return;
    }
    try {
      RecordingSessionResult result = session->stop();
      onMain([this, generation, id = result.snapshot.manifest.id.string()] {
        if (generation != generation_) return;
        dropPlatform();
        model_.recordingFinished(id);
        emit projectRecorded(QString::fromStdString(id));
        if (stoppedForSpace_) {
          auto* box = new QMessageBox(QMessageBox::Information, "Vumo",
                                      QString::fromUtf8(recording_messages::stoppedForFreeSpace.data(),
                                                        qsizetype(recording_messages::stoppedForFreeSpace.size())),
                                      QMessageBox::Ok, parentWindow_);
          box->setAttribute(Qt::WA_DeleteOnClose);
          box->show();
        }
      });
    } catch (const std::exception& error) {
      // The package stays, marked failed, for recovery to take up.
      session->fail(error.what());
      onMain([this, generation, error = std::current_exception()] {
        if (generation != generation_) return;
        dropPlatform();
        try {
          std::rethrow_exception(error);
        } catch (const std::exception& failure) {
          model_.fail(failure);
        }
      });
    }
  });
}

void RecordingFlow::finishBeforeQuit() {
  stopAndFinish();
  worker_.waitUntilIdle();
}

void RecordingFlow::endSession(std::function<void()> afterwards) {
  statusTimer_->stop();
  showRecordingControls(false);
  std::shared_ptr<ScreenRecordingSession> session = std::move(session_);
  const int generation = ++generation_;
  worker_.enqueue([this, session, generation, afterwards = std::move(afterwards)] {
    std::optional<std::string> problem;
    try {
      session->discard();
    } catch (const std::exception& error) {
      problem = error.what();
    }
    onMain([this, generation, problem, afterwards] {
      if (generation != generation_) return;
      dropPlatform();
      model_.recordingDiscarded();
      if (problem)
        model_.fail(FileError(std::string(recording_messages::discardFailed.englishText) + *problem));
      else if (afterwards)
        afterwards();
    });
  });
}

void RecordingFlow::togglePause() {
  if (!session_ || model_.phase() != ApplicationPhase::recording) return;
  paused_ = !paused_;
  panel_->setPaused(paused_);
  tray_->setPaused(paused_);
  worker_.enqueue([session = session_, pause = paused_] {
    if (pause)
      session->pause();
    else
      session->resume();
  });
}

void RecordingFlow::restart() {
  if (!session_ || model_.phase() != ApplicationPhase::recording) return;
  // The same source again, without asking the desktop's dialog a second time.
  RecordingChoice again = choice_;
  again.source.chooseSource = false;
  endSession([this, again] { record(again); });
}

void RecordingFlow::discard() {
  if (!session_ || model_.phase() != ApplicationPhase::recording) return;
  endSession({});
}

bool RecordingFlow::isRecording() const { return session_ != nullptr || model_.phase() == ApplicationPhase::finishing; }

void RecordingFlow::dropPlatform() {
  // Ended on the worker, after whatever it still does with it.
  if (platform_) worker_.enqueue([platform = std::move(platform_)] {});
  platform_.reset();
}

void RecordingFlow::setShortcuts(const std::string& startStop, const std::string& pause) {
  preferences_.startStopShortcut = startStop;
  preferences_.pauseShortcut = pause;
  delete shortcutNotifier_;
  shortcutNotifier_ = nullptr;
  shortcuts_.reset();
  startStopShortcut_ = pauseShortcut_ = 0;
  // Key grabs on the root window exist on X11 only; a Wayland session has no root to grab on.
  if (isWaylandSession() || QGuiApplication::platformName() != "xcb") return;
  try {
    shortcuts_ = std::make_unique<X11GlobalShortcuts>();
  } catch (const std::exception&) {
    return;
  }
  std::vector<std::string> problems;
  for (auto [text, id] : {std::pair{&startStop, &startStopShortcut_}, std::pair{&pause, &pauseShortcut_}}) {
    if (text->empty()) continue;
    try {
      *id = shortcuts_->add(*text);
    } catch (const GlobalShortcutError& error) {
      // Shown once, after the windows that show it exist.
      QTimer::singleShot(0, this, [this, error] {
        model_.fail(error);
        if (conflictHandler_) conflictHandler_(error.what());
      });
    }
  }
  shortcutNotifier_ = new QSocketNotifier(shortcuts_->fileDescriptor(), QSocketNotifier::Read, this);
  connect(shortcutNotifier_, &QSocketNotifier::activated, this, &RecordingFlow::handleShortcutPresses);
  QTimer::singleShot(0, this, &RecordingFlow::handleShortcutPresses);
}

void RecordingFlow::handleShortcutPresses() {
  if (!shortcuts_) return;
  for (int id : shortcuts_->takePresses()) {
    if (id == startStopShortcut_) {
      if (model_.phase() == ApplicationPhase::library)
        start();
      else
        stopAndFinish();
    } else if (id == pauseShortcut_) {
      togglePause();
    }
  }
}

}  // namespace vumo
