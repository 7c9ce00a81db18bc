#pragma once

// The tabs beside the player that restyle the film. A control shows the open timeline (or caption
// document) and changes it only through an editing session, so every change is one undo step and
// reaches the disk through the session's ordered saves.

#include <QObject>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "shared/project_time.h"

class QTabWidget;

namespace vumo {

class CaptionEditingSession;
class ProjectStore;
class TimelineEditingSession;
struct ProjectSnapshot;

class InspectorPanels final : public QObject {
  Q_OBJECT

 public:
  struct Context {
    TimelineEditingSession& session;
    // The open caption session, or none.
    std::function<CaptionEditingSession*()> captions;
    ProjectStore& store;
    const ProjectSnapshot& snapshot;
    // After an edit of the caption session, which has no state hook of its own.
    std::function<void()> edited;
    std::function<void(const std::string&)> showFailure;
    // The playhead in sequence time, where new zooms and annotations go.
    std::function<ProjectTime()> playhead;
  };

  // Adds the tabs to `tabs`, which owns them (and this).
  InspectorPanels(Context context, QTabWidget* tabs);
  ~InspectorPanels() override;

  // Shows the sessions' current state; changes nothing.
  void refresh();

  // What the canvas tab's "Import Wallpaper…" does with the file chosen in its dialog: a picture or
  // a movie into the package, then the canvas's wallpaper as one undo step; a failure is shown.
  void importWallpaper(const std::filesystem::path& file);

  struct Panel;

 private:
  std::vector<Panel*> panels_;
  std::function<void(const std::filesystem::path&)> importWallpaper_;
};

}  // namespace vumo
