#include "ui/main_window.h"

#include <QCloseEvent>
#include <QFrame>
#include <QHBoxLayout>
#include <QLabel>
#include <QPointer>
#include <QPushButton>
#include <QStackedWidget>
#include <QTimer>
#include <QVBoxLayout>
#include <chrono>
#include <stdexcept>

#include "editor/caption_editing_session.h"
#include "editor/timeline_editing_session.h"
#include "project/project_store.h"
#include "transcription/cloud_credential_store.h"
#include "ui/announced_label.h"
#include "ui/editor_window.h"
#include "ui/library_window.h"
#include "ui/preferences_store.h"
#include "ui/recording_flow.h"
#include "ui/settings_window.h"
#include "ui/user_messages.h"

namespace vumo {

namespace {

// What quitting waits for at most: a recording's finish or the last save, never forever.
constexpr auto quitLimit = std::chrono::seconds(60);
constexpr int pollMilliseconds = 20;

QString titleOf(const ProjectSnapshot& snapshot) {
  return snapshot.manifest.source.title.empty() ? QStringLiteral("Untitled Recording")
                                                : QString::fromStdString(snapshot.manifest.source.title);
}

bool isRecordingPhase(ApplicationPhase phase) {
  return phase == ApplicationPhase::countdown || phase == ApplicationPhase::recording ||
         phase == ApplicationPhase::finishing;
}

}  // namespace

EditorPlaceholder::EditorPlaceholder(const ProjectSnapshot& snapshot, QWidget* parent) : QWidget(parent) {
  setWindowTitle(QStringLiteral("Vumo Editor — %1").arg(titleOf(snapshot)));
  auto* layout = new QVBoxLayout(this);
  auto* title = new QLabel(titleOf(snapshot), this);
  auto* exportButton = new QPushButton(QStringLiteral("Export…"), this);
  auto* closeButton = new QPushButton(QStringLiteral("Close"), this);
  auto* buttons = new QHBoxLayout;
  buttons->addStretch(1);
  buttons->addWidget(exportButton);
  buttons->addWidget(closeButton);
  layout->addWidget(title);
  layout->addStretch(1);
  layout->addLayout(buttons);
  connect(exportButton, &QPushButton::clicked, this, &EditorPlaceholder::exportRequested);
  connect(closeButton, &QPushButton::clicked, this, &EditorPlaceholder::closeRequested);
}

MainWindowParts MainWindow::defaultParts() {
  MainWindowParts parts;
  parts.makeEditor = [](MainLoop& loop, ProjectStore& store, ProjectSnapshot snapshot, QWidget* parent) -> QWidget* {
    return new EditorWindow(loop, store, std::move(snapshot), parent);
  };
  parts.editedSnapshot = [](QWidget* editor) -> std::optional<ProjectSnapshot> {
    const auto* window = qobject_cast<const EditorWindow*>(editor);
    if (window == nullptr) return std::nullopt;
    ProjectSnapshot snapshot = window->snapshot();
    snapshot.timeline = window->session().timeline();
    if (const CaptionEditingSession* captions = window->captionSession()) snapshot.captions = captions->document();
    return snapshot;
  };
  parts.finishEditorSaves = [](QWidget* editor, std::function<void()> done) {
    QPointer<EditorWindow> window = qobject_cast<EditorWindow*>(editor);
    if (window == nullptr || window->outstandingSaves() == 0) {
      done();
      return;
    }
    const auto deadline = std::chrono::steady_clock::now() + quitLimit;
    auto* timer = new QTimer(window);
    timer->setInterval(pollMilliseconds);
    QObject::connect(timer, &QTimer::timeout, window, [timer, window, done, deadline] {
      if (window->outstandingSaves() > 0 && std::chrono::steady_clock::now() < deadline) return;
      timer->stop();
      timer->deleteLater();
      done();
    });
    timer->start();
  };
  parts.makeRecordingFlow = [](ApplicationModel& model, ProjectStore& store, QWidget* parent) {
    QPointer<RecordingFlow> flow = new RecordingFlow(model, store, parent);
    RecordingHooks hooks;
    hooks.start = [flow] {
      if (flow) flow->start();
    };
    hooks.stopAndFinish = [flow] {
      if (flow) flow->stopAndFinish();
    };
    hooks.isRecording = [flow] { return flow && flow->isRecording(); };
    hooks.onShortcutConflict = [flow](std::function<void(const std::string&)> handler) {
      if (flow) flow->onShortcutConflict(std::move(handler));
    };
    hooks.shortcutsChanged = [flow](const std::string& startStop, const std::string& pause) {
      if (flow) flow->setShortcuts(startStop, pause);
    };
    return hooks;
  };
  parts.stills = LibraryThumbnails::mediaEngineStills();
  parts.exporters = ExportDialog::mediaEngineExporter();
  return parts;
}

MainWindow::MainWindow(ApplicationModel& model, ProjectStore& store, PreferencesStore& preferences, MainLoop& loop,
                       MainWindowParts parts, QWidget* parent)
    : QMainWindow(parent),
      model_(model),
      store_(store),
      preferences_(preferences),
      loop_(loop),
      parts_(std::move(parts)),
      credentials_(std::make_unique<CloudCredentialStore>()) {
  // A part left out is this build's own.
  const MainWindowParts defaults = defaultParts();
  if (!parts_.makeEditor) parts_.makeEditor = defaults.makeEditor;
  if (!parts_.editedSnapshot) parts_.editedSnapshot = defaults.editedSnapshot;
  if (!parts_.finishEditorSaves) parts_.finishEditorSaves = defaults.finishEditorSaves;
  if (!parts_.makeRecordingFlow) parts_.makeRecordingFlow = defaults.makeRecordingFlow;
  if (!parts_.stills) parts_.stills = defaults.stills;
  if (!parts_.exporters) parts_.exporters = defaults.exporters;

  setWindowTitle(QStringLiteral("Vumo"));
  setAccessibleName(QStringLiteral("Vumo"));
  resize(960, 640);

  auto* central = new QWidget(this);
  auto* layout = new QVBoxLayout(central);
  banner_ = new QFrame(central);
  banner_->setFrameShape(QFrame::StyledPanel);
  banner_->setAccessibleName(QStringLiteral("Message"));
  auto* bannerLayout = new QHBoxLayout(banner_);
  bannerText_ = new QLabel(banner_);
  bannerText_->setWordWrap(true);
  bannerText_->setTextInteractionFlags(Qt::TextSelectableByMouse);
  bannerText_->setAccessibleName(QStringLiteral("Message"));
  auto* dismiss = new QPushButton(QStringLiteral("Dismiss"), banner_);
  bannerLayout->addWidget(bannerText_, 1);
  bannerLayout->addWidget(dismiss);
  banner_->hide();
  connect(dismiss, &QPushButton::clicked, this, [this] {
    banner_->hide();
    bannerText_->clear();
  });

  pages_ = new QStackedWidget(central);
  library_ = new LibraryWindow(model_, store_, loop_, parts_.stills, pages_);
  library_->setUnfinishedListed(false);
  library_->refresh();
  pages_->addWidget(library_);
  layout->addWidget(banner_);
  layout->addWidget(pages_, 1);
  setCentralWidget(central);

  export_ = new ExportDialog(model_, loop_, parts_.exporters, this);

  model_.addObserver({[this](ApplicationPhase phase) { phaseChanged(phase); },
                      [this](const std::string& message) { showMessage(message); }});

  recording_ = parts_.makeRecordingFlow(model_, store_, this);
  if (recording_.onShortcutConflict)
    recording_.onShortcutConflict([this](const std::string& message) {
      shortcutConflict_ = QString::fromStdString(message);
      if (settings_ != nullptr) settings_->reportShortcutConflict(shortcutConflict_);
    });

  connect(library_, &LibraryWindow::recordRequested, this, [this] {
    if (recording_.start) recording_.start();
  });
  connect(library_, &LibraryWindow::openRequested, this,
          [this](const QString& projectID) { model_.openProject(projectID.toStdString()); });
  connect(library_, &LibraryWindow::settingsRequested, this, &MainWindow::showSettings);

  // A damaged preferences file is said once, at start.
  preferences_.load();
  if (preferences_.loadProblem()) model_.fail(std::runtime_error(*preferences_.loadProblem()));
}

MainWindow::~MainWindow() = default;

QString MainWindow::messageText() const { return banner_->isHidden() ? QString() : bannerText_->text(); }

void MainWindow::showMessage(const std::string& message) {
  const QString text = QString::fromStdString(message);
  setAnnouncedText(bannerText_, text);
  banner_->show();
  emit messageShown(text);
}

void MainWindow::phaseChanged(ApplicationPhase phase) {
  // Out of the picture while it is recorded, back when the recording is done.
  if (isRecordingPhase(phase) && isVisible()) {
    hiddenForRecording_ = true;
    hide();
  } else if (!isRecordingPhase(phase) && hiddenForRecording_ && !quitting_) {
    hiddenForRecording_ = false;
    show();
    raise();
    activateWindow();
  }
  switch (phase) {
    case ApplicationPhase::library:
      if (editor_ != nullptr) closeEditor();
      setWindowTitle(QStringLiteral("Vumo"));
      pages_->setCurrentWidget(library_);
      library_->refresh();
      break;
    case ApplicationPhase::editing:
      // A recording finished by quitting is kept, not opened.
      if (editor_ == nullptr && model_.openProjectID() && !quitting_) openEditor(*model_.openProjectID());
      break;
    case ApplicationPhase::choosingSource:
    case ApplicationPhase::countdown:
    case ApplicationPhase::recording:
    case ApplicationPhase::finishing:
    case ApplicationPhase::exporting: break;
  }
}

void MainWindow::openEditor(const std::string& projectID) {
  QWidget* editor = nullptr;
  try {
    const ProjectSnapshot snapshot = store_.loadSnapshot(store_.project(projectID));
    editor = parts_.makeEditor(loop_, store_, snapshot, pages_);
    setWindowTitle(editor->windowTitle().isEmpty() ? QStringLiteral("Vumo Editor — %1").arg(titleOf(snapshot))
                                                   : editor->windowTitle());
  } catch (const std::exception& error) {
    // A project that cannot be opened leaves the person where they were, told why.
    delete editor;
    model_.closeEditor();
    model_.fail(error);
    return;
  }
  editor_ = editor;
  pages_->addWidget(editor_);
  pages_->setCurrentWidget(editor_);
  // By name: the editor is whichever widget the factory made, with these two signals.
  connect(editor_, SIGNAL(exportRequested()), this, SLOT(showExport()));
  connect(editor_, SIGNAL(closeRequested()), this, SLOT(requestCloseEditor()));
}

void MainWindow::requestCloseEditor() { model_.closeEditor(); }

void MainWindow::closeEditor() {
  QWidget* editor = editor_;
  editor_ = nullptr;
  pages_->removeWidget(editor);
  editor->hide();
  // The editor goes only once its last save has landed.
  parts_.finishEditorSaves(editor, [editor] { editor->deleteLater(); });
}

void MainWindow::showExport() {
  if (!model_.openProjectID() || export_->isRunning()) {
    export_->show();
    export_->raise();
    return;
  }
  try {
    std::optional<ProjectSnapshot> snapshot = editor_ != nullptr ? parts_.editedSnapshot(editor_) : std::nullopt;
    if (!snapshot) snapshot = store_.loadSnapshot(store_.project(*model_.openProjectID()));
    export_->prepare(std::move(*snapshot), preferences_.load().exportFolder);
  } catch (const std::exception& error) {
    model_.fail(error);
    return;
  }
  export_->show();
  export_->raise();
  export_->activateWindow();
}

void MainWindow::showSettings() {
  if (settings_ == nullptr) {
    settings_ = new SettingsWindow(
        preferences_, *credentials_, store_, loop_, [this](const std::exception& error) { model_.fail(error); },
        SettingsDevices::ofThisMachine(), this);
    if (!shortcutConflict_.isEmpty()) settings_->reportShortcutConflict(shortcutConflict_);
    connect(settings_, &SettingsWindow::shortcutsChanged, this, [this](const QString& startStop, const QString& pause) {
      if (recording_.shortcutsChanged) recording_.shortcutsChanged(startStop.toStdString(), pause.toStdString());
    });
  } else {
    settings_->reload();
  }
  settings_->show();
  settings_->raise();
  settings_->activateWindow();
}

void MainWindow::raiseAndActivate() {
  // While a source is chosen or recorded the flow's own windows are in front, and the main
  // window raised over the screen would be in the film.
  if (model_.phase() == ApplicationPhase::choosingSource || isRecordingPhase(model_.phase())) return;
  if (isMinimized()) showNormal();
  show();
  raise();
  activateWindow();
}

void MainWindow::recoveryFinished(const std::vector<std::string>& sentences) {
  if (!sentences.empty()) {
    std::string text;
    for (const std::string& sentence : sentences) text += (text.empty() ? "" : "\n") + sentence;
    showMessage(text);
  }
  library_->setUnfinishedListed(true);
  library_->refresh();
}

void MainWindow::waitUntil(std::function<bool()> finished, std::function<void()> then) {
  const auto deadline = std::chrono::steady_clock::now() + quitLimit;
  auto* timer = new QTimer(this);
  timer->setInterval(pollMilliseconds);
  connect(timer, &QTimer::timeout, this, [timer, finished, then, deadline] {
    if (!finished() && std::chrono::steady_clock::now() < deadline) return;
    timer->stop();
    timer->deleteLater();
    then();
  });
  timer->start();
}

void MainWindow::prepareToQuit(std::function<void()> done) {
  quitting_ = true;
  auto finishSaves = [this, done] {
    if (editor_ == nullptr) {
      done();
      return;
    }
    parts_.finishEditorSaves(editor_, done);
  };
  auto cancelExport = [this, finishSaves] {
    if (!export_->isRunning()) {
      finishSaves();
      return;
    }
    export_->cancel();
    waitUntil([this] { return !export_->isRunning(); }, finishSaves);
  };
  if (isRecordingPhase(model_.phase()) || (recording_.isRecording && recording_.isRecording())) {
    if (recording_.stopAndFinish) recording_.stopAndFinish();
    waitUntil(
        [this] { return !isRecordingPhase(model_.phase()) && !(recording_.isRecording && recording_.isRecording()); },
        cancelExport);
    return;
  }
  cancelExport();
}

void MainWindow::closeEvent(QCloseEvent* event) {
  if (quitting_) {
    event->accept();
    return;
  }
  // Quitting finishes what is running first; the application quits once it is done.
  event->ignore();
  emit quitRequested();
}

}  // namespace vumo
