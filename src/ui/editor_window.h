#pragma once

// The editor of one open project: the player on top, the toolbar, the timeline below and the
// inspectors on the right. A view over the editing sessions, which own every edit, the undo
// histories and the ordered saves; an agent's commit from another process arrives through the
// watcher as one undo step.

#include <QWidget>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "captions/caption_document.h"
#include "project/project_snapshot.h"
#include "timeline/edit_timeline.h"

class QLabel;
class QPushButton;
class QTabWidget;

namespace vumo {

class AgentPanel;
class CaptionEditingSession;
class CaptionSaveChain;
class EditorPlayer;
class ExternalEditReloader;
class InspectorPanels;
class MainLoop;
class PlayerView;
class ProjectStore;
class ProjectTimelineWatcher;
class TimelineCanvas;
class TimelineCanvasThumbnails;
class TimelineEditingSession;
class TimelinePersistence;
class ViewUpdateChangeQueue;
struct WaveformEnvelope;

class EditorWindow : public QWidget {
  Q_OBJECT

 public:
  // Opens `snapshot` (read through `store`, which outlives the window) with the preview engine's
  // player, or, where the engine cannot start, a playhead without pictures and the reason shown in
  // the player.
  EditorWindow(MainLoop& loop, ProjectStore& store, ProjectSnapshot snapshot, QWidget* parent = nullptr);
  // The same with a player of the caller's.
  EditorWindow(MainLoop& loop, ProjectStore& store, ProjectSnapshot snapshot, std::unique_ptr<EditorPlayer> player,
               QWidget* parent = nullptr);
  // Finishes the save being written and drops those not begun: call `finishSaves` first to keep
  // every change.
  ~EditorWindow() override;

  const TimelineEditingSession& session() const;
  // None while the project has no captions.
  const CaptionEditingSession* captionSession() const;
  const ProjectSnapshot& snapshot() const { return snapshot_; }

  // The notice line: the sessions' messages and the failures of saves and reloads.
  QString messageText() const;
  // Timeline saves asked for and not yet answered.
  std::size_t outstandingSaves() const;
  // Whether every change made so far has reached the disk, or failed and said so.
  bool savesSettled() const;
  // Calls `done` on the loop once every change made so far is on disk (or has failed and said so),
  // or after `limit`, whichever comes first: what closing the project and quitting wait for.
  void finishSaves(std::function<void()> done, std::chrono::milliseconds limit = std::chrono::seconds(10));

  TimelineCanvas& timelineCanvas() { return *canvas_; }
  PlayerView& playerView() { return *playerView_; }
  EditorPlayer& player() { return *player_; }

  // The toolbar's actions, also bound to the keys.
  void togglePlayback();
  void splitAtPlayhead();
  void undo();
  void redo();
  void stepFrames(int frames);
  void deleteSelection();
  // The canvas inspector's wallpaper import with `file` as chosen in its dialog.
  void importWallpaper(const std::filesystem::path& file);

 signals:
  void exportRequested();
  void closeRequested();

 protected:
  void showEvent(QShowEvent* event) override;

 private:
  enum class History { timeline, captions };

  void buildViews();
  void bindKeys();
  void timelineChanged(const EditTimeline& timeline, bool committed, bool shouldPersist);
  void captionsChanged(const CaptionDocument& document, bool committed, bool shouldPersist);
  void openCaptionSession(const CaptionDocument& document, const std::string& digest);
  void startWaveform();
  void waveformArrived(const WaveformEnvelope& envelope);
  void showFailure(const std::string& text);
  void refreshViews();
  void reloadThumbnails(const EditTimeline& timeline);
  void playerStateChanged();
  void persistTimeline(const EditTimeline& timeline);
  void persistCaptions(const CaptionDocument& document);
  void takeSaveTurns();
  bool captionSaveInFlight() const;
  void pollSaves(std::function<void()> done, std::chrono::steady_clock::time_point deadline);

  MainLoop& loop_;
  ProjectStore& store_;
  ProjectSnapshot snapshot_;
  std::unique_ptr<EditorPlayer> player_;
  std::unique_ptr<ViewUpdateChangeQueue> queue_;
  std::unique_ptr<TimelineEditingSession> session_;
  std::unique_ptr<CaptionEditingSession> captions_;
  std::unique_ptr<TimelinePersistence> saves_;
  std::unique_ptr<CaptionSaveChain> captionSaves_;
  std::unique_ptr<ExternalEditReloader> reloader_;
  std::unique_ptr<ProjectTimelineWatcher> watcher_;
  std::unique_ptr<TimelineCanvasThumbnails> thumbnails_;
  // The clips the thumbnails were made for: a change of clips makes them again.
  std::vector<TimelineSegment> thumbnailSegments_;
  struct WaveformLoad;
  std::unique_ptr<WaveformLoad> waveformLoad_;

  // Which history each undoable step went to, so Undo and Redo take the latest across both.
  std::vector<History> undoOrder_;
  std::vector<History> redoOrder_;
  bool inHistoryStep_ = false;
  // Timeline and caption saves take turns: a caption commit is guarded by the timeline's digest
  // too, so it must not meet a timeline save on its way to the disk. What waits for its turn:
  std::optional<EditTimeline> deferredTimeline_;
  std::optional<CaptionDocument> deferredCaptions_;
  bool turnScheduled_ = false;
  // The digest the latest caption save will leave on disk, until it is there (or failed), and when
  // it was asked for.
  std::optional<std::string> pendingCaptionDigest_;
  std::chrono::steady_clock::time_point captionSaveAskedAt_;

  // The notice line: the latest of a session's message and a reported failure.
  QString banner_;
  std::optional<std::string> shownTimelineMessage_;
  std::optional<std::string> shownCaptionMessage_;

  PlayerView* playerView_ = nullptr;
  TimelineCanvas* canvas_ = nullptr;
  QLabel* messageLabel_ = nullptr;
  QPushButton* playButton_ = nullptr;
  QPushButton* undoButton_ = nullptr;
  QPushButton* redoButton_ = nullptr;
  QTabWidget* inspectorTabs_ = nullptr;
  InspectorPanels* inspectors_ = nullptr;
  AgentPanel* agentPanel_ = nullptr;
  std::shared_ptr<bool> alive_;
};

}  // namespace vumo
