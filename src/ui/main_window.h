#pragma once

// The one top-level window "Vumo": a view of ApplicationModel. In the library phases it shows the
// library; while a project is open it hosts the editor; failures the model reports are shown once
// in a banner at its top. The recording flow and the editor are built by factories, so the window
// knows them only by the few calls it makes.

#include <QMainWindow>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "project/project_snapshot.h"
#include "ui/application_model.h"
#include "ui/export_dialog.h"
#include "ui/library_thumbnails.h"

class QLabel;
class QPushButton;
class QStackedWidget;
class QFrame;

namespace vumo {

class MainLoop;
class ProjectStore;
class PreferencesStore;
class LibraryWindow;
class SettingsWindow;
class CloudCredentialStore;

// The recording flow as the window drives it.
struct RecordingHooks {
  std::function<void()> start;          // opens the source picker
  std::function<void()> stopAndFinish;  // finishes the package, as quitting does
  std::function<bool()> isRecording;
  // Where the flow reports the global shortcuts it could not take (see SettingsWindow).
  std::function<void(std::function<void(const std::string&)>)> onShortcutConflict;
  // The person changed the shortcuts in the settings (Qt's portable key sequence texts).
  std::function<void(const std::string& startStop, const std::string& pause)> shortcutsChanged;
};

struct MainWindowParts {
  // The editor of the open project. It has the signals `exportRequested()` and `closeRequested()`.
  std::function<QWidget*(MainLoop&, ProjectStore&, ProjectSnapshot, QWidget* parent)> makeEditor;
  // What the editor shows now, edits not yet saved included: what an export writes. None: the
  // project as the store has it.
  std::function<std::optional<ProjectSnapshot>(QWidget* editor)> editedSnapshot;
  // Calls `done` once every save the editor has queued has landed.
  std::function<void(QWidget* editor, std::function<void()> done)> finishEditorSaves;
  // The recording flow, which drives the model itself.
  std::function<RecordingHooks(ApplicationModel&, ProjectStore&, QWidget* parent)> makeRecordingFlow;
  // The media engine's stills and films; tests hand in their own.
  LibraryThumbnails::StillRender stills;
  ExportDialog::ExporterFactory exporters;
};

// Stands in for the editor where none is built in: the project's title, "Export…" and "Close".
class EditorPlaceholder : public QWidget {
  Q_OBJECT

 public:
  EditorPlaceholder(const ProjectSnapshot& snapshot, QWidget* parent = nullptr);

 signals:
  void exportRequested();
  void closeRequested();
};

class MainWindow : public QMainWindow {
  Q_OBJECT

 public:
  // What this build has: the placeholder editor and a recording flow that says it is missing.
  static MainWindowParts defaultParts();

  MainWindow(ApplicationModel& model, ProjectStore& store, PreferencesStore& preferences, MainLoop& loop,
             MainWindowParts parts = defaultParts(), QWidget* parent = nullptr);
  ~MainWindow() override;

  ApplicationModel& model() { return model_; }
  LibraryWindow& library() { return *library_; }
  QWidget* editor() const { return editor_; }
  ExportDialog& exportDialog() { return *export_; }
  SettingsWindow* settingsWindow() const { return settings_; }
  // The banner's text; empty when it is hidden.
  QString messageText() const;

  // Finishes what must not be lost (a recording, the editor's saves), cancels an export (its
  // partial file goes with it), then calls `done`. Gives up waiting after a minute.
  void prepareToQuit(std::function<void()> done);

 public slots:
  // What a second `vumo` asks for; not while a source is chosen or recorded.
  void raiseAndActivate();
  void showSettings();
  void showExport();
  void requestCloseEditor();
  // Start-up recovery's sentences; the library is listed again, now with the interrupted
  // recordings it could not recover. Until this is called they are not listed.
  void recoveryFinished(const std::vector<std::string>& sentences);

 signals:
  // Once for each message the banner shows.
  void messageShown(const QString& text);
  // The person closed the window; the application quits cleanly.
  void quitRequested();

 protected:
  void closeEvent(QCloseEvent* event) override;

 private:
  void phaseChanged(ApplicationPhase phase);
  void showMessage(const std::string& message);
  void openEditor(const std::string& projectID);
  void closeEditor();
  void waitUntil(std::function<bool()> finished, std::function<void()> then);

  ApplicationModel& model_;
  ProjectStore& store_;
  PreferencesStore& preferences_;
  MainLoop& loop_;
  MainWindowParts parts_;
  RecordingHooks recording_;
  QFrame* banner_ = nullptr;
  QLabel* bannerText_ = nullptr;
  QStackedWidget* pages_ = nullptr;
  LibraryWindow* library_ = nullptr;
  QWidget* editor_ = nullptr;
  std::unique_ptr<CloudCredentialStore> credentials_;
  SettingsWindow* settings_ = nullptr;
  QString shortcutConflict_;
  ExportDialog* export_ = nullptr;
  bool quitting_ = false;
  bool hiddenForRecording_ = false;
  bool closeAccepted_ = false;
};

}  // namespace vumo
