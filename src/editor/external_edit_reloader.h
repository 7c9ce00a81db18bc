#pragma once

#include <functional>
#include <memory>
#include <string>

#include "captions/caption_document.h"
#include "editor/caption_editing_session.h"
#include "editor/editor_messages.h"
#include "editor/project_timeline_watcher.h"
#include "editor/timeline_persistence.h"
#include "project/project_package.h"
#include "shared/project_time.h"
#include "timeline/edit_timeline.h"

namespace vumo {

class ProjectStore;

// What the editor does when the watcher reports a change of the open project's edit documents:
// reads the timeline and the captions as they now stand and hands them to the editing sessions,
// which compare by value first, so the echo of the editor's own save changes nothing. Main thread
// only; the shell owns one per open project.
class ExternalEditReloader {
 public:
  // Each may be left empty.
  struct Targets {
    // The timeline session's applyExternalTimeline.
    std::function<void(const EditTimeline&)> applyTimeline{};
    // The timeline saves of the open session, or none: a reload skips the echo of their own
    // writes and tells them what else is on disk.
    std::function<TimelinePersistence*()> timelineSaves{};
    // The open caption session, or none.
    std::function<CaptionEditingSession*()> captionSession{};
    // Called instead when no caption session is open and a valid caption document appeared: the
    // document in its normal form and the digest of its bytes, for a new session and its saves.
    std::function<void(const CaptionDocument& document, const std::string& digest)> openCaptionSession{};
    // The caption saves of the open session, or none: a reload tells them what is on disk.
    std::function<CaptionSaveChain*()> captionSaves{};
    // The editor's error line.
    std::function<void(std::string message)> reportError{};
  };

  // `sourceDuration` and `hasWebcam` come from the manifest: the timeline read is normalised as
  // the snapshot's was, so an unchanged file compares equal to the open timeline.
  ExternalEditReloader(ProjectPackage package, ProjectTime sourceDuration, bool hasWebcam, Targets targets);
  ~ExternalEditReloader();
  ExternalEditReloader(const ExternalEditReloader&) = delete;
  ExternalEditReloader& operator=(const ExternalEditReloader&) = delete;

  // The watcher's `onChange`. The timeline file must be there and decode: a missing file (or
  // folder) is a load error, never an empty timeline. Nothing is handed on unless both documents
  // were read.
  void reload();

  // Watches the package's edits folder with `reload` as the action. The editor works on without
  // the watch when it fails; the failure goes to the error line. Answers whether it watches.
  bool startWatching(ProjectTimelineWatcher& watcher);

 private:
  ProjectPackage package_;
  ProjectTime sourceDuration_;
  bool hasWebcam_;
  Targets targets_;
  std::unique_ptr<ProjectStore> store_;
};

}  // namespace vumo
