#include "editor/external_edit_reloader.h"

#include <optional>
#include <utility>

#include "project/project_store.h"
#include "shared/document_limits.h"
#include "shared/files.h"

namespace vumo {

ExternalEditReloader::ExternalEditReloader(ProjectPackage package, ProjectTime sourceDuration, bool hasWebcam,
                                           Targets targets)
    : package_(std::move(package)),
      sourceDuration_(sourceDuration),
      hasWebcam_(hasWebcam),
      targets_(std::move(targets)),
      store_(std::make_unique<ProjectStore>(package_.rootPath.parent_path())) {}

ExternalEditReloader::~ExternalEditReloader() = default;

void ExternalEditReloader::reload() {
  EditTimeline timeline;
  CaptionsState captions;
  try {
    timeline = decodeEditTimeline(readFile(package_.timelinePath(), documentLimits::timelineBytes))
                   .normalized(sourceDuration_, hasWebcam_);
    captions = store_->captionsState(package_);
  } catch (const Error& error) {
    if (targets_.reportError)
      targets_.reportError(std::string(externalEditMessages::loadFailed.text) + error.message());
    return;
  }

  if (targets_.applyTimeline) targets_.applyTimeline(timeline);

  // Captions that were removed from disk leave the open session alone: its next save writes them
  // back.
  if (!captions.document) return;
  CaptionSaveChain* saves = targets_.captionSaves ? targets_.captionSaves() : nullptr;
  // The bytes of one of the session's own saves: the session is at that state or beyond it.
  if (saves && saves->isOwnSave(captions.digest)) return;
  if (saves) saves->noteDiskDigest(captions.digest);
  if (CaptionEditingSession* session = targets_.captionSession ? targets_.captionSession() : nullptr) {
    session->applyExternalDocument(*captions.document);
    return;
  }
  std::optional<CaptionDocument> accepted;
  try {
    accepted = captions.document->validated(sourceDuration_);
  } catch (const Error& error) {
    if (targets_.reportError)
      targets_.reportError(std::string(captionEditorMessages::externalInvalid.text) + error.message());
    return;
  }
  if (targets_.openCaptionSession) targets_.openCaptionSession(*accepted, captions.digest);
}

bool ExternalEditReloader::startWatching(ProjectTimelineWatcher& watcher) {
  try {
    watcher.start(package_.editsDirectory(), [this] { reload(); });
    return true;
  } catch (const Error& error) {
    if (targets_.reportError)
      targets_.reportError(std::string(externalEditMessages::watcherUnavailable.text) + error.message());
    return false;
  }
}

}  // namespace vumo
