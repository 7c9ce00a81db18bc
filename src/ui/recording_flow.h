#pragma once

// The recording as a person makes it: pick a source, count down, record with a small panel (or
// the shortcuts and the tray where the panel would be recorded), then stop, restart or discard.
// The recording itself is `vumo record`'s: the same platform, the same session start, the same
// session, so the first timeline with its zooms is made the same way. Every step drives the
// application model, which the windows follow.
//
// Threads: the flow lives on the Qt main thread. The platform's waits (the desktop's dialog), the
// start of a session and its end (finishing the package) run on one worker thread, in order, so
// the window never freezes and the session is only ever driven from that one thread.

#include <QObject>
#include <QPointer>
#include <QString>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "cli/recording_platform.h"
#include "project/serial_work_queue.h"
#include "recording/free_space_guard.h"
#include "shared/geometry.h"
#include "ui/preferences_store.h"
#include "ui/recording_choice.h"

class QSocketNotifier;
class QTimer;
class QWidget;

namespace vumo {

class ApplicationModel;
class AreaSelection;
class ControlPanel;
class CountdownWindow;
class ProjectStore;
class RecordingControlRegionStore;
class ScreenRecordingSession;
class SourcePicker;
class TrayIcon;
class X11GlobalShortcuts;

struct RecordingFlowSettings {
  // A platform for each recording; none: the desktop's, as `vumo record` has it.
  std::function<std::unique_ptr<RecordingPlatform>()> makePlatform;
  FreeSpaceGuard::Settings freeSpace;
  int countdownFrom = 3;
  std::chrono::milliseconds countdownStep{1000};
  // Key grabs for the start/stop and pause shortcuts (X11 only).
  bool globalShortcuts = true;
  // None: the stored preferences.
  std::optional<Preferences> preferences;
  // The displays the panel may go on, in root pixels; none: the screens Qt knows.
  std::function<std::vector<RectValue>()> displays;
  // None: the process-wide store that the pointer recording reads.
  RecordingControlRegionStore* controlRegionStore = nullptr;
  std::chrono::milliseconds statusInterval{100};
};

class RecordingFlow : public QObject {
  Q_OBJECT

 public:
  // A child of `parentWindow` where one is given (and deleted with it); the picker and the
  // messages open over it. The model and the store must outlive the flow.
  RecordingFlow(ApplicationModel& model, ProjectStore& store, QWidget* parentWindow);
  RecordingFlow(ApplicationModel& model, ProjectStore& store, QWidget* parentWindow, RecordingFlowSettings settings);
  // A recording still running is finished first (its package kept), as on stopAndFinish.
  ~RecordingFlow() override;

  // Opens the source picker (library → choosing a source).
  void start();
  // Records `choice`: what the picker's "Record" does (and the area selection's confirmation).
  // From the library it chooses the source first. A start that fails returns to the library with
  // the error shown once.
  void record(const RecordingChoice& choice);
  // Stop: the package is finished and the editor opens on it (projectRecorded). What SIGTERM and
  // SIGINT do; before the recording runs it cancels instead.
  void stopAndFinish();
  // stopAndFinish, and returns only once the package is finished: for quitting.
  void finishBeforeQuit();
  void togglePause();
  // Discards the recording and starts the same source again after a new countdown.
  void restart();
  // Stops and removes the package.
  void discard();
  // Grabs other shortcuts (in Qt's portable text). A shortcut that cannot be had (another program
  // holds its keys) is shown once through the model and handed to the conflict handler.
  void setShortcuts(const std::string& startStop, const std::string& pause);
  // Told each shortcut conflict's sentence, including those of the constructor's grabs (they are
  // reported once the event loop turns, so a handler set right after construction hears them).
  void onShortcutConflict(std::function<void(const std::string&)> handler) { conflictHandler_ = std::move(handler); }

  // A recording runs or is being finished.
  bool isRecording() const;
  bool isPaused() const { return paused_; }
  // Where the panel goes in root pixels for the current recording; none: hidden for the whole
  // recording.
  const std::optional<PointValue>& controlPanelCorner() const { return panelCorner_; }
  // The sentence shown before the countdown, empty when none.
  const QString& countdownNote() const { return countdownNote_; }
  ControlPanel* controlPanel() const { return panel_.get(); }
  CountdownWindow* countdownWindow() const { return countdown_.get(); }
  SourcePicker* sourcePicker() const;

 signals:
  void projectRecorded(QString projectID);

 private:
  template <class Work>
  void onMain(Work work);
  void chooseArea(const RecordingChoice& choice);
  void showAreaSelection(const RecordingChoice& choice);
  void closePicker();
  void resolved(int generation, CaptureSourceDescriptor source);
  void beginRecording(int generation);
  void recordingBegan(int generation, std::shared_ptr<ScreenRecordingSession> session,
                      std::shared_ptr<RecordingPlatform> platform);
  void failedToStart(int generation, std::exception_ptr error);
  void finish();
  // Discards the running recording, then runs `afterwards` unless the discard failed.
  void endSession(std::function<void()> afterwards);
  void pollStatus();
  void showRecordingControls(bool shown);
  void dropPlatform();
  void handleShortcutPresses();
  std::vector<RectValue> displays() const;

  ApplicationModel& model_;
  ProjectStore& store_;
  QWidget* parentWindow_;
  RecordingFlowSettings settings_;
  Preferences preferences_;
  RecordingControlRegionStore& regionStore_;

  // Windows that close themselves (and are deleted then): watched, not owned.
  QPointer<QWidget> picker_;
  QPointer<QWidget> area_;
  std::unique_ptr<CountdownWindow> countdown_;
  std::unique_ptr<ControlPanel> panel_;
  TrayIcon* tray_ = nullptr;
  QTimer* statusTimer_ = nullptr;
  std::unique_ptr<X11GlobalShortcuts> shortcuts_;
  QSocketNotifier* shortcutNotifier_ = nullptr;
  int startStopShortcut_ = 0;
  int pauseShortcut_ = 0;
  std::function<void(const std::string&)> conflictHandler_;

  RecordingChoice choice_;
  CaptureSourceDescriptor source_;
  std::optional<FreeSpaceGuard> freeSpace_;
  std::optional<PointValue> panelCorner_;
  QString countdownNote_;
  bool paused_ = false;
  bool stoppedForSpace_ = false;
  // Raised whenever what is under way is abandoned, so a late answer of the worker is dropped.
  int generation_ = 0;
  std::stop_source resolveStop_;
  std::shared_ptr<std::atomic<bool>> sessionFailed_;
  std::shared_ptr<RecordingPlatform> platform_;
  std::shared_ptr<ScreenRecordingSession> session_;
  // Last: it ends (running what is queued) before anything its jobs use.
  SerialWorkQueue worker_;
};

}  // namespace vumo
