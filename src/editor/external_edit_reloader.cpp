#include "editor/external_edit_reloader.h"

#include <optional>
#include <utility>

#include "project/project_store.h"
#include "shared/digest.h"
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
  TimelinePersistence* timelineSaves = targets_.timelineSaves ? targets_.timelineSaves() : nullptr;
  bool ownTimeline = false;
  try {
    const std::string bytes = readFile(package_.timelinePath(), documentLimits::timelineBytes);
    const std::string digest = sha256Hex(bytes);
    // The bytes of one of the session's own saves: the session is at that state or beyond it.
    ownTimeline = timelineSaves && timelineSaves->isOwnSave(digest);
    // Whatever else is on disk is what the next save must expect, decodable or not.
    if (timelineSaves && !ownTimeline) timelineSaves->adoptLoadedDigest(digest);
    if (!ownTimeline) timeline = decodeEditTimeline(bytes).normalized(sourceDuration_, hasWebcam_);
    captions = store_->captionsState(package_);
  } catch (const Error& error) {
    if (targets_.reportError)
      targets_.reportError(editorMessageText(EditorMessageID::externalLoadFailed, error.message()));
    return;
  }

  if (targets_.applyTimeline && !ownTimeline) targets_.applyTimeline(timeline);

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
      targets_.reportError(editorMessageText(EditorMessageID::captionsExternalInvalid, error.message()));
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
      targets_.reportError(editorMessageText(EditorMessageID::watcherUnavailable, error.message()));
    return false;
  }
}

}  // namespace vumo
