#include "ui/editor_window.h"

#include <QHBoxLayout>
#include <QKeySequence>
#include <QLabel>
#include <QPushButton>
#include <QShortcut>
#include <QSplitter>
#include <QTabWidget>
#include <QVBoxLayout>
#include <stop_token>
#include <thread>

#include "agent/agent_prompt_builder.h"
#include "captions/caption_document.h"
#include "cli/media_module_loader.h"
#include "editor/caption_editing_session.h"
#include "editor/external_edit_reloader.h"
#include "editor/main_loop.h"
#include "editor/project_timeline_watcher.h"
#include "editor/timeline_editing_session.h"
#include "editor/timeline_persistence.h"
#include "editor/view_update_change_queue.h"
#include "media/waveform_service.h"
#include "project/project_store.h"
#include "shared/digest.h"
#include "shared/error.h"
#include "timeline/timeline_mapper.h"
#include "ui/agent_panel.h"
#include "ui/announced_label.h"
#include "ui/editor_player.h"
#include "ui/inspector_panels.h"
#include "ui/player_view.h"
#include "ui/timeline_canvas.h"
#include "ui/timeline_canvas_thumbnails.h"

namespace vumo {

namespace {

QPushButton* toolButton(const QString& text, QWidget* parent) {
  auto* button = new QPushButton(text, parent);
  button->setAccessibleName(text);
  button->setFocusPolicy(Qt::TabFocus);  // a click leaves the keys with the timeline
  return button;
}

}  // namespace

// The waveform is read (from the `.cswf` cache, or analysed once) off the main thread; the
// answer comes back through the loop and finds the window gone if it was closed meanwhile.
struct EditorWindow::WaveformLoad {
  std::jthread thread;
};

EditorWindow::EditorWindow(MainLoop& loop, ProjectStore& store, ProjectSnapshot snapshot, QWidget* parent)
    : EditorWindow(loop, store, std::move(snapshot), makeEditorPlayer(loop), parent) {}

EditorWindow::EditorWindow(MainLoop& loop, ProjectStore& store, ProjectSnapshot snapshot,
                           std::unique_ptr<EditorPlayer> player, QWidget* parent)
    : QWidget(parent),
      loop_(loop),
      store_(store),
      snapshot_(std::move(snapshot)),
      player_(std::move(player)),
      alive_(std::make_shared<bool>(true)) {
  const ProjectPackage package{snapshot_.packagePath};
  const ProjectManifest& manifest = snapshot_.manifest;
  const std::string& title = manifest.source.title;
  setWindowTitle(QString::fromUtf8("Vumo Editor \u2014 ") +
                 (title.empty() ? QString("Recording") : QString::fromStdString(title)));
  setAccessibleName(windowTitle());

  queue_ = std::make_unique<ViewUpdateChangeQueue>(loop_);
  session_ =
      std::make_unique<TimelineEditingSession>(snapshot_.timeline, manifest.duration, manifest.encodedPixelSize,
                                               [this](const EditTimeline& timeline, bool committed, bool persist) {
                                                 timelineChanged(timeline, committed, persist);
                                               });
  session_->onStateChange = [this] { queue_->enqueueLatest(std::string("views"), [this] { refreshViews(); }); };
  saves_ = std::make_unique<TimelinePersistence>(
      loop_, std::make_unique<ProjectStoreTimelineWriter>(store_.projectsDirectoryPath(), package),
      snapshot_.timelineDigest,
      TimelinePersistenceHooks{.reloadExternalTimeline = [this] { reloader_->reload(); },
                               .showMessage = [this](const std::string& text) { showFailure(text); },
                               .saved = {}});
  if (snapshot_.captions) openCaptionSession(*snapshot_.captions, snapshot_.captionsDigest);

  reloader_ = std::make_unique<ExternalEditReloader>(
      package, manifest.duration, manifest.webcam.has_value(),
      ExternalEditReloader::Targets{
          .applyTimeline = [this](const EditTimeline& timeline) { session_->applyExternalTimeline(timeline); },
          .timelineSaves = [this] { return saves_.get(); },
          .captionSession = [this] { return captions_.get(); },
          .openCaptionSession = [this](const CaptionDocument& document,
                                       const std::string& digest) { openCaptionSession(document, digest); },
          .captionSaves = [this] { return captionSaves_.get(); },
          .reportError = [this](std::string text) { showFailure(text); }});

  std::weak_ptr<bool> alive = alive_;
  player_->setObserver(EditorPlayer::Observer{.frameChanged =
                                                  [this, alive] {
                                                    if (alive.expired()) return;
                                                    playerView_->frameChanged();
                                                    canvas_->playheadMoved();
                                                  },
                                              .stateChanged =
                                                  [this, alive] {
                                                    if (!alive.expired()) playerStateChanged();
                                                  },
                                              .failed =
                                                  [this, alive](const std::string& text) {
                                                    if (alive.expired()) return;
                                                    playerView_->frameChanged();
                                                    showFailure(text);
                                                  }});

  buildViews();
  bindKeys();
  player_->load(snapshot_);

  watcher_ = std::make_unique<ProjectTimelineWatcher>(loop_);
  reloader_->startWatching(*watcher_);
  startWaveform();
  thumbnails_ = std::make_unique<TimelineCanvasThumbnails>(loop_);
  thumbnails_->changed = [this] { canvas_->update(); };
  canvas_->setThumbnails(thumbnails_.get());
  reloadThumbnails(snapshot_.timeline);
  refreshViews();
}

EditorWindow::~EditorWindow() {
  alive_.reset();  // what the player, the loop and the threads hand back finds the window gone
  watcher_->stop();
  queue_->cancel();
  if (waveformLoad_) waveformLoad_->thread.request_stop();
  canvas_->setThumbnails(nullptr);
  thumbnails_.reset();
  // The views borrow the sessions and the player: they go first.
  for (QWidget* child : findChildren<QWidget*>(QString(), Qt::FindDirectChildrenOnly)) delete child;
}

const TimelineEditingSession& EditorWindow::session() const { return *session_; }
const CaptionEditingSession* EditorWindow::captionSession() const { return captions_.get(); }
QString EditorWindow::messageText() const { return banner_; }

std::size_t EditorWindow::outstandingSaves() const { return saves_->outstandingSaves(); }

bool EditorWindow::savesSettled() const {
  if (queue_->pendingCount() > 0 || saves_->outstandingSaves() > 0 || deferredTimeline_ || deferredCaptions_)
    return false;
  return !pendingCaptionDigest_ || !captionSaves_ || captionSaves_->isOwnSave(*pendingCaptionDigest_);
}

// A caption save that neither landed nor failed within a few seconds met a conflict, which the
// reload that follows settles; the timeline saves do not wait for it any longer.
bool EditorWindow::captionSaveInFlight() const {
  return pendingCaptionDigest_ && captionSaves_ && !captionSaves_->isOwnSave(*pendingCaptionDigest_) &&
         std::chrono::steady_clock::now() - captionSaveAskedAt_ < std::chrono::seconds(3);
}

void EditorWindow::persistTimeline(const EditTimeline& timeline) {
  deferredTimeline_ = timeline;
  takeSaveTurns();
}

void EditorWindow::persistCaptions(const CaptionDocument& document) {
  deferredCaptions_ = document;
  takeSaveTurns();
}

void EditorWindow::takeSaveTurns() {
  if (deferredTimeline_ && !captionSaveInFlight()) {
    saves_->scheduleTimelinePersistence(std::move(*deferredTimeline_));
    deferredTimeline_.reset();
  }
  if (deferredCaptions_ && saves_->outstandingSaves() == 0 && !deferredTimeline_) {
    if (captionSaves_) {
      pendingCaptionDigest_ = sha256Hex(encodeCaptionDocument(*deferredCaptions_));
      captionSaveAskedAt_ = std::chrono::steady_clock::now();
      captionSaves_->save(*deferredCaptions_);
    }
    deferredCaptions_.reset();
  }
  if ((deferredTimeline_ || deferredCaptions_) && !turnScheduled_) {
    turnScheduled_ = true;
    std::weak_ptr<bool> alive = alive_;
    loop_.schedule(std::chrono::milliseconds(5), [this, alive] {
      if (alive.expired()) return;
      turnScheduled_ = false;
      takeSaveTurns();
    });
  }
}

void EditorWindow::finishSaves(std::function<void()> done, std::chrono::milliseconds limit) {
  pollSaves(std::move(done), std::chrono::steady_clock::now() + limit);
}

void EditorWindow::pollSaves(std::function<void()> done, std::chrono::steady_clock::time_point deadline) {
  if (savesSettled() || std::chrono::steady_clock::now() >= deadline) {
    loop_.post(std::move(done));
    return;
  }
  std::weak_ptr<bool> alive = alive_;
  loop_.schedule(std::chrono::milliseconds(10), [this, alive, done = std::move(done), deadline]() mutable {
    if (alive.expired()) return done();  // the window is gone: nothing more will be saved
    pollSaves(std::move(done), deadline);
  });
}

// ---- Views ---------------------------------------------------------------------------------------

void EditorWindow::buildViews() {
  auto* root = new QVBoxLayout(this);
  root->setContentsMargins(8, 8, 8, 8);

  messageLabel_ = new QLabel(this);
  messageLabel_->setAccessibleName("Notice");
  messageLabel_->setWordWrap(true);
  messageLabel_->setTextInteractionFlags(Qt::TextSelectableByMouse);
  messageLabel_->setStyleSheet(
      "QLabel { background: palette(highlight); color: palette(highlighted-text); "
      "padding: 4px 8px; border-radius: 4px; }");
  messageLabel_->hide();
  root->addWidget(messageLabel_);

  // The picture and the inspectors side by side; the toolbar and the timeline below them across
  // the whole width, so a recording of some length fits at the standard scale.
  auto* splitter = new QSplitter(Qt::Horizontal, this);
  root->addWidget(splitter, 1);
  playerView_ = new PlayerView(*player_, splitter);

  auto* editing = new QWidget(this);
  auto* column = new QVBoxLayout(editing);
  column->setContentsMargins(0, 0, 0, 0);
  root->addWidget(editing);

  auto* toolbar = new QHBoxLayout();
  playButton_ = toolButton("Play", editing);
  auto* split = toolButton("Split", editing);
  undoButton_ = toolButton("Undo", editing);
  redoButton_ = toolButton("Redo", editing);
  auto* exportButton = toolButton(QString::fromUtf8("Export\u2026"), editing);
  auto* close = toolButton("Close", editing);
  for (QPushButton* button : {playButton_, split, undoButton_, redoButton_}) toolbar->addWidget(button);
  toolbar->addStretch(1);
  toolbar->addWidget(exportButton);
  toolbar->addWidget(close);
  column->addLayout(toolbar);
  connect(playButton_, &QPushButton::clicked, this, [this] { togglePlayback(); });
  connect(split, &QPushButton::clicked, this, [this] { splitAtPlayhead(); });
  connect(undoButton_, &QPushButton::clicked, this, [this] { undo(); });
  connect(redoButton_, &QPushButton::clicked, this, [this] { redo(); });
  connect(exportButton, &QPushButton::clicked, this, &EditorWindow::exportRequested);
  connect(close, &QPushButton::clicked, this, &EditorWindow::closeRequested);

  canvas_ = new TimelineCanvas(*session_, *player_, editing);
  canvas_->setCaptionSession(captions_.get());
  connect(canvas_, &TimelineCanvas::interacted, this,
          [this] { queue_->enqueueLatest(std::string("views"), [this] { refreshViews(); }); });
  column->addWidget(canvas_);

  inspectorTabs_ = new QTabWidget(splitter);
  inspectorTabs_->setAccessibleName("Inspectors");
  // Every tab in sight: none hides behind a scroll arrow or shows half its name.
  inspectorTabs_->setUsesScrollButtons(false);
  inspectorTabs_->setDocumentMode(true);
  inspectors_ = new InspectorPanels(
      InspectorPanels::Context{
          .session = *session_,
          .captions = [this] { return captions_.get(); },
          .store = store_,
          .snapshot = snapshot_,
          .edited = [this] { queue_->enqueueLatest(std::string("views"), [this] { refreshViews(); }); },
          .showFailure = [this](const std::string& text) { showFailure(text); },
          .playhead = [this] { return player_->currentTime(); }},
      inspectorTabs_);
  agentPanel_ = new AgentPanel(snapshot_.manifest.id.string(), inspectorTabs_);
  inspectorTabs_->addTab(agentPanel_, "Agent");
  splitter->addWidget(playerView_);
  splitter->addWidget(inspectorTabs_);
  splitter->setStretchFactor(0, 1);
  splitter->setStretchFactor(1, 0);
}

void EditorWindow::bindKeys() {
  const auto bind = [this](QWidget* scope, Qt::ShortcutContext context, const QKeySequence& keys, auto action) {
    auto* shortcut = new QShortcut(keys, scope);
    shortcut->setContext(context);
    connect(shortcut, &QShortcut::activated, this, action);
  };
  bind(this, Qt::WindowShortcut, QKeySequence(Qt::CTRL | Qt::Key_Z), [this] { undo(); });
  bind(this, Qt::WindowShortcut, QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_Z), [this] { redo(); });
  // The plain keys belong to the player and the timeline: in the inspectors, Space still ticks a
  // box and the arrows still move through a list.
  QWidget* editing = canvas_->parentWidget();
  bind(editing, Qt::WidgetWithChildrenShortcut, QKeySequence(Qt::Key_Space), [this] { togglePlayback(); });
  bind(editing, Qt::WidgetWithChildrenShortcut, QKeySequence(Qt::Key_S), [this] { splitAtPlayhead(); });
  bind(editing, Qt::WidgetWithChildrenShortcut, QKeySequence(Qt::Key_Left), [this] { stepFrames(-1); });
  bind(editing, Qt::WidgetWithChildrenShortcut, QKeySequence(Qt::Key_Right), [this] { stepFrames(1); });
  bind(editing, Qt::WidgetWithChildrenShortcut, QKeySequence(Qt::Key_Delete), [this] { deleteSelection(); });
}

void EditorWindow::showEvent(QShowEvent* event) {
  QWidget::showEvent(event);
  // Keys go to the timeline until the person clicks elsewhere.
  if (focusWidget() == nullptr) canvas_->setFocus(Qt::OtherFocusReason);
}

void EditorWindow::refreshViews() {
  canvas_->refresh();
  inspectors_->refresh();
  undoButton_->setEnabled(session_->canUndo() || (captions_ && captions_->canUndo()));
  redoButton_->setEnabled(session_->canRedo() || (captions_ && captions_->canRedo()));

  // A session's new message replaces what the line shows; a message that went away takes the
  // line with it unless something else has been shown since.
  const auto follow = [this](const std::optional<std::string>& message, std::optional<std::string>& shown) {
    if (message == shown) return;
    const QString previous = shown ? QString::fromStdString(*shown) : QString();
    shown = message;
    if (message) {
      banner_ = QString::fromStdString(*message);
    } else if (banner_ == previous) {
      banner_.clear();
    }
  };
  follow(session_->message(), shownTimelineMessage_);
  if (captions_) follow(captions_->message(), shownCaptionMessage_);
  if (messageLabel_->text() != banner_) {
    setAnnouncedText(messageLabel_, banner_);
  }
  messageLabel_->setVisible(!banner_.isEmpty());
  playerStateChanged();
}

void EditorWindow::playerStateChanged() {
  const QString text = player_->isPlaying() ? "Pause" : "Play";
  if (playButton_->text() != text) {
    playButton_->setText(text);
    playButton_->setAccessibleName(text);
  }
  canvas_->playheadMoved();
  playerView_->frameChanged();
}

void EditorWindow::showFailure(const std::string& text) {
  banner_ = QString::fromStdString(text);
  setAnnouncedText(messageLabel_, banner_);
  messageLabel_->setVisible(true);
}

// ---- Actions -------------------------------------------------------------------------------------

void EditorWindow::togglePlayback() {
  player_->togglePlayback();
  playerStateChanged();
}

void EditorWindow::splitAtPlayhead() { session_->split(player_->currentTime()); }

void EditorWindow::stepFrames(int frames) {
  player_->pause();
  player_->stepFrames(frames);
  playerStateChanged();
}

void EditorWindow::importWallpaper(const std::filesystem::path& file) { inspectors_->importWallpaper(file); }

void EditorWindow::deleteSelection() {
  if (session_->selectedSegmentID()) {
    session_->rippleDeleteSelection();
  } else if (session_->selectedZoomID()) {
    session_->removeSelectedZoom();
  } else if (session_->selectedAnnotationID()) {
    session_->removeSelectedAnnotation();
  } else if (session_->selectedWebcamFullscreenID()) {
    session_->removeSelectedWebcamFullscreen();
  } else if (captions_ && captions_->selectedCueID()) {
    captions_->removeSelectedCue();
    refreshViews();
  }
}

void EditorWindow::undo() {
  // The latest step of either history; a history that cannot go back gives way to the other.
  std::optional<History> which;
  if (!undoOrder_.empty()) which = undoOrder_.back();
  const auto can = [this](History history) {
    return history == History::timeline ? session_->canUndo() : captions_ && captions_->canUndo();
  };
  if (!which || !can(*which))
    which = can(History::timeline)   ? std::optional(History::timeline)
            : can(History::captions) ? std::optional(History::captions)
                                     : std::nullopt;
  if (!which) return;
  if (!undoOrder_.empty()) undoOrder_.pop_back();
  inHistoryStep_ = true;
  *which == History::timeline ? session_->undo() : captions_->undo();
  inHistoryStep_ = false;
  redoOrder_.push_back(*which);
  refreshViews();
}

void EditorWindow::redo() {
  std::optional<History> which;
  if (!redoOrder_.empty()) which = redoOrder_.back();
  const auto can = [this](History history) {
    return history == History::timeline ? session_->canRedo() : captions_ && captions_->canRedo();
  };
  if (!which || !can(*which))
    which = can(History::timeline)   ? std::optional(History::timeline)
            : can(History::captions) ? std::optional(History::captions)
                                     : std::nullopt;
  if (!which) return;
  if (!redoOrder_.empty()) redoOrder_.pop_back();
  inHistoryStep_ = true;
  *which == History::timeline ? session_->redo() : captions_->redo();
  inHistoryStep_ = false;
  undoOrder_.push_back(*which);
  refreshViews();
}

// ---- Sessions ------------------------------------------------------------------------------------

void EditorWindow::timelineChanged(const EditTimeline& timeline, bool committed, bool shouldPersist) {
  if (committed && !inHistoryStep_) {
    undoOrder_.push_back(History::timeline);
    redoOrder_.clear();
  }
  queue_->enqueueLatest(std::string("timeline"), [this, timeline, shouldPersist] {
    player_->applyTimeline(timeline);
    if (shouldPersist) {
      persistTimeline(timeline);
    } else {
      deferredTimeline_.reset();  // the disk already holds this one, newer than what waited
    }
    if (timeline.segments != thumbnailSegments_) reloadThumbnails(timeline);
  });
  queue_->enqueueLatest(std::string("views"), [this] { refreshViews(); });
}

void EditorWindow::captionsChanged(const CaptionDocument& document, bool committed, bool shouldPersist) {
  if (committed && !inHistoryStep_) {
    undoOrder_.push_back(History::captions);
    redoOrder_.clear();
  }
  queue_->enqueueLatest(std::string("captions"), [this, document, shouldPersist] {
    if (shouldPersist) {
      persistCaptions(document);
    } else {
      pendingCaptionDigest_.reset();  // loaded from the disk: nothing to wait for
      deferredCaptions_.reset();
    }
  });
  queue_->enqueueLatest(std::string("views"), [this] { refreshViews(); });
}

void EditorWindow::openCaptionSession(const CaptionDocument& document, const std::string& digest) {
  captions_ = std::make_unique<CaptionEditingSession>(
      document, snapshot_.manifest.duration, [this](const CaptionDocument& changed, bool committed, bool persist) {
        captionsChanged(changed, committed, persist);
      });
  captionSaves_ = std::make_unique<CaptionSaveChain>(
      loop_, std::make_shared<ProjectStoreCaptionSaves>(ProjectPackage{snapshot_.packagePath}), digest,
      CaptionSaveChain::Hooks{.timelineDigest = [this] { return saves_->lastKnownTimelineDigest(); },
                              .reloadExternalEdits = [this] { reloader_->reload(); },
                              .reportFailure =
                                  [this](std::string text) {
                                    pendingCaptionDigest_.reset();  // said so: nothing more to wait for
                                    showFailure(text);
                                  }});
  if (canvas_ != nullptr) {
    canvas_->setCaptionSession(captions_.get());
    queue_->enqueueLatest(std::string("views"), [this] { refreshViews(); });
  }
}

void EditorWindow::reloadThumbnails(const EditTimeline& timeline) {
  thumbnailSegments_ = timeline.segments;
  ProjectTime duration{0};
  try {
    duration = TimelineMapper(timeline, snapshot_.manifest.duration).sequenceDuration();
  } catch (const Error&) {
  }
  // One picture for each thumbnail's width at the standard scale of the timeline.
  const auto spacing = ProjectTime{
      static_cast<std::int64_t>(TimelineCanvasThumbnails::thumbnailWidth * 1e9 / TimelineCanvas::pixelsPerSecond)};
  thumbnails_->reload(snapshot_, timeline, duration, spacing);
}

// ---- Waveform ------------------------------------------------------------------------------------

void EditorWindow::startWaveform() {
  waveformLoad_ = std::make_unique<WaveformLoad>();
  std::weak_ptr<bool> alive = alive_;
  waveformLoad_->thread = std::jthread([this, alive, snapshot = snapshot_](std::stop_token stop) {
    try {
      const MediaModule& module = MediaModuleLoader::load();
      std::shared_ptr<WaveformProviding> service = module.makeWaveformService();
      // The voice where there is one: the track captions are made from.
      const auto kind = AgentPromptBuilder::preferredCaptionTrack(snapshot);
      if (!kind) return;
      auto envelope = std::make_shared<WaveformEnvelope>(service->envelope(*kind, snapshot, {}, stop));
      loop_.post([this, alive, envelope] {
        if (!alive.expired()) waveformArrived(*envelope);
      });
    } catch (const std::exception&) {
      // No waveform: a project without sound, a damaged film or no media engine. The lane stays
      // empty; the player says what is wrong with the film.
    }
  });
}

void EditorWindow::waveformArrived(const WaveformEnvelope& envelope) { canvas_->setWaveform(envelope); }

}  // namespace vumo
