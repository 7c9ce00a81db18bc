#include "editor/caption_editing_session.h"

#include <algorithm>
#include <utility>

#include "captions/caption_document_engine.h"
#include "captions/caption_errors.h"
#include "project/project_store.h"
#include "project/project_store_error.h"

namespace vumo {

namespace {

using Engine = CaptionDocumentEngine;

CaptionCue& cueToEdit(CaptionDocument& document, const Uuid& id) {
  for (auto& cue : document.cues)
    if (cue.id == id) return cue;
  throw CaptionEditingError(CaptionEditingError::Case::cueNotFound);
}

// A document whose highlights the person changed by hand: a highlight that the cue's text does not
// allow is their selection's fault, so it is reported as an editing error about the selection.
CaptionDocument validatedHighlightEdit(const CaptionDocument& document, ProjectTime sourceDuration) {
  try {
    return document.validated(sourceDuration);
  } catch (const CaptionValidationError& error) {
    if (error.kind() == CaptionValidationError::Case::invalidHighlight)
      throw CaptionEditingError(CaptionEditingError::Case::invalidHighlight);
    throw;
  }
}

CaptionDocument replacedHighlight(const CaptionDocument& document, const Uuid& id, const CaptionHighlight& old,
                                  const CaptionHighlight& replacement, ProjectTime sourceDuration) {
  CaptionDocument result = document;
  CaptionCue& cue = cueToEdit(result, id);
  auto entry = std::find(cue.highlights.begin(), cue.highlights.end(), old);
  if (entry == cue.highlights.end()) throw CaptionEditingError(CaptionEditingError::Case::invalidHighlight);
  *entry = replacement;
  return validatedHighlightEdit(result, sourceDuration);
}

CaptionDocument removedHighlight(const CaptionDocument& document, const Uuid& id, const CaptionHighlight& highlight,
                                 ProjectTime sourceDuration) {
  CaptionDocument result = document;
  CaptionCue& cue = cueToEdit(result, id);
  std::erase(cue.highlights, highlight);
  return validatedHighlightEdit(result, sourceDuration);
}

// Own digests are kept only to recognise the echo of recent saves; a long drag must not grow
// the list without end.
constexpr std::size_t ownDigestsKept = 64;

}  // namespace

// ---- Session ---------------------------------------------------------------------------------

CaptionEditingSession::CaptionEditingSession(CaptionDocument document, ProjectTime sourceDuration,
                                             ChangeHandler onChange)
    : document_(std::move(document)), sourceDuration_(sourceDuration), onChange_(std::move(onChange)) {}

const CaptionCue* CaptionEditingSession::selectedCue() const {
  return selectedCueID_ ? document_.findCue(*selectedCueID_) : nullptr;
}

void CaptionEditingSession::select(std::optional<Uuid> id) { selectedCueID_ = std::move(id); }

bool CaptionEditingSession::apply(bool usesGestureBaseline, const Mutation& mutation) {
  const bool fromBaseline = usesGestureBaseline && gestureBaseline_.has_value();
  CaptionDocument result;
  try {
    result = mutation(fromBaseline ? *gestureBaseline_ : document_);
  } catch (const Error& error) {
    message_ = error.message();
    return false;
  }
  if (result == document_) return true;
  if (!gestureBaseline_) {
    pushUndo(document_);
    redoStack_.clear();
  }
  document_ = std::move(result);
  message_.reset();
  onChange_(document_, !fromBaseline, true);
  return true;
}

bool CaptionEditingSession::addCue(const CaptionCue& cue, bool requestsTextFocus) {
  const bool made =
      apply(false, [&](const CaptionDocument& from) { return Engine::addCue(from, cue, sourceDuration_); });
  if (made) {
    selectedCueID_ = cue.id;
    if (requestsTextFocus) textFocusRequestCueID_ = cue.id;
  }
  return made;
}

bool CaptionEditingSession::removeSelectedCue() {
  if (!selectedCueID_) return false;
  const Uuid id = *selectedCueID_;
  const bool made =
      apply(false, [&](const CaptionDocument& from) { return Engine::removeCue(from, id, sourceDuration_); });
  if (made) restoreSelection();
  return made;
}

bool CaptionEditingSession::moveCue(const Uuid& id, ProjectTime start) {
  return apply(true, [&](const CaptionDocument& from) { return Engine::moveCue(from, id, start, sourceDuration_); });
}

bool CaptionEditingSession::trimStart(const Uuid& id, ProjectTime start) {
  return apply(true, [&](const CaptionDocument& from) { return Engine::trimStart(from, id, start, sourceDuration_); });
}

bool CaptionEditingSession::trimEnd(const Uuid& id, ProjectTime end) {
  return apply(true, [&](const CaptionDocument& from) { return Engine::trimEnd(from, id, end, sourceDuration_); });
}

bool CaptionEditingSession::updateText(const Uuid& id, std::string_view text) {
  return apply(false, [&](const CaptionDocument& from) { return Engine::updateText(from, id, text, sourceDuration_); });
}

bool CaptionEditingSession::addHighlight(const Uuid& id, const CaptionHighlight& highlight) {
  return apply(false,
               [&](const CaptionDocument& from) { return Engine::addHighlight(from, id, highlight, sourceDuration_); });
}

bool CaptionEditingSession::replaceHighlight(const Uuid& id, const CaptionHighlight& old,
                                             const CaptionHighlight& replacement) {
  return apply(false, [&](const CaptionDocument& from) {
    return replacedHighlight(from, id, old, replacement, sourceDuration_);
  });
}

bool CaptionEditingSession::removeHighlight(const Uuid& id, const CaptionHighlight& highlight) {
  return apply(false,
               [&](const CaptionDocument& from) { return removedHighlight(from, id, highlight, sourceDuration_); });
}

bool CaptionEditingSession::clearHighlights(const Uuid& id) {
  return apply(false, [&](const CaptionDocument& from) { return Engine::clearHighlights(from, id, sourceDuration_); });
}

bool CaptionEditingSession::updateStyle(const CaptionStyle& style) {
  return apply(false, [&](const CaptionDocument& from) { return Engine::updateStyle(from, style, sourceDuration_); });
}

void CaptionEditingSession::consumeTextFocusRequest(const Uuid& id) {
  if (textFocusRequestCueID_ == id) textFocusRequestCueID_.reset();
}

void CaptionEditingSession::beginCoalescedEdit() {
  if (!gestureBaseline_) gestureBaseline_ = document_;
}

void CaptionEditingSession::endCoalescedEdit() {
  if (!gestureBaseline_) return;
  CaptionDocument baseline = std::move(*gestureBaseline_);
  gestureBaseline_.reset();
  if (document_ != baseline) {
    pushUndo(std::move(baseline));
    redoStack_.clear();
    onChange_(document_, true, true);
  }
  if (pendingExternalDocument_) {
    CaptionDocument pending = std::move(*pendingExternalDocument_);
    pendingExternalDocument_.reset();
    applyExternalDocument(pending);
  }
}

void CaptionEditingSession::undo() {
  if (undoStack_.empty()) return;
  CaptionDocument previous = std::move(undoStack_.back());
  undoStack_.pop_back();
  redoStack_.push_back(std::move(document_));
  document_ = std::move(previous);
  restoreSelection();
  message_.reset();
  onChange_(document_, true, true);
}

void CaptionEditingSession::redo() {
  if (redoStack_.empty()) return;
  CaptionDocument next = std::move(redoStack_.back());
  redoStack_.pop_back();
  undoStack_.push_back(std::move(document_));
  document_ = std::move(next);
  restoreSelection();
  message_.reset();
  onChange_(document_, true, true);
}

void CaptionEditingSession::applyExternalDocument(const CaptionDocument& document) {
  if (document == document_) return;
  if (gestureBaseline_) {
    pendingExternalDocument_ = document;
    message_ = editorMessageText(EditorMessageID::captionsExternalPending);
    return;
  }
  CaptionDocument accepted;
  try {
    accepted = document.validated(sourceDuration_);
  } catch (const Error& error) {
    message_ = editorMessageText(EditorMessageID::captionsExternalInvalid, error.message());
    return;
  }
  // A file in another normal form than the session's (white space, highlight order) is the same
  // captions: nothing to load and nothing to undo.
  if (accepted == document_) return;
  pushUndo(std::move(document_));
  redoStack_.clear();
  document_ = std::move(accepted);
  restoreSelection();
  onChange_(document_, true, false);
  message_ = editorMessageText(EditorMessageID::captionsExternalLoaded);
}

void CaptionEditingSession::pushUndo(CaptionDocument document) {
  undoStack_.push_back(std::move(document));
  if (undoStack_.size() > undoDepth)
    undoStack_.erase(undoStack_.begin(),
                     undoStack_.begin() + static_cast<std::ptrdiff_t>(undoStack_.size() - undoDepth));
}

void CaptionEditingSession::restoreSelection() {
  if (selectedCueID_ && !document_.findCue(*selectedCueID_)) selectedCueID_.reset();
  if (textFocusRequestCueID_ && !document_.findCue(*textFocusRequestCueID_)) textFocusRequestCueID_.reset();
}

// ---- Saves -----------------------------------------------------------------------------------

ProjectStoreCaptionSaves::ProjectStoreCaptionSaves(ProjectPackage package)
    : package_(std::move(package)), store_(std::make_unique<ProjectStore>(package_.rootPath.parent_path())) {}

ProjectStoreCaptionSaves::~ProjectStoreCaptionSaves() = default;

std::string ProjectStoreCaptionSaves::commitCaptions(const CaptionDocument& document,
                                                     const std::string& expectedCaptionsDigest,
                                                     const std::string& expectedTimelineDigest) {
  return store_->commitCaptions(document, expectedCaptionsDigest, expectedTimelineDigest, package_);
}

CaptionSaveChain::CaptionSaveChain(MainLoop& loop, std::shared_ptr<CaptionSaveStore> store, std::string captionsDigest,
                                   Hooks hooks)
    : loop_(loop),
      store_(std::move(store)),
      hooks_(std::move(hooks)),
      shared_(std::make_shared<Shared>()),
      alive_(std::make_shared<bool>(true)),
      savedDigest_(captionsDigest) {
  shared_->currentDigest = std::move(captionsDigest);
}

CaptionSaveChain::~CaptionSaveChain() {
  // Saves not yet begun are skipped; the queue's destruction then waits for the one writing.
  shared_->cancelled = true;
}

void CaptionSaveChain::save(const CaptionDocument& document) {
  std::string timelineDigest = hooks_.timelineDigest ? hooks_.timelineDigest() : std::string();
  std::weak_ptr<bool> alive = alive_;
  queue_.enqueue([this, alive, shared = shared_, store = store_, document, timelineDigest = std::move(timelineDigest)] {
    if (shared->cancelled) return;
    std::string expected;
    {
      std::lock_guard lock(shared->mutex);
      expected = shared->currentDigest;
    }
    std::optional<std::string> digest;
    std::optional<std::string> failure;
    bool conflict = false;
    try {
      digest = store->commitCaptions(document, expected, timelineDigest);
      std::lock_guard lock(shared->mutex);
      shared->currentDigest = *digest;
      shared->ownDigests.push_back(*digest);
      if (shared->ownDigests.size() > ownDigestsKept) shared->ownDigests.erase(shared->ownDigests.begin());
    } catch (const ProjectStoreError& error) {
      using Case = ProjectStoreError::Case;
      if (error.kind() == Case::captionsDigestConflict || error.kind() == Case::timelineDigestConflict) {
        conflict = true;
        // What is on disk now is someone else's: none of the own digests describes it any more,
        // and the reload that follows shows it to the person before the next save replaces it.
        std::lock_guard lock(shared->mutex);
        if (error.kind() == Case::captionsDigestConflict) shared->currentDigest = error.actualDigest();
        shared->ownDigests.clear();
      } else {
        failure = error.message();
      }
    } catch (const Error& error) {
      failure = error.message();
    } catch (const std::exception& error) {
      failure = error.what();
    }
    // `this` is touched only on the main thread, and only while the chain is alive.
    loop_.post([this, alive, digest, failure, conflict] {
      if (alive.lock()) finished(digest, failure, conflict);
    });
  });
}

void CaptionSaveChain::finished(const std::optional<std::string>& digest, const std::optional<std::string>& failure,
                                bool conflict) {
  if (digest) {
    savedDigest_ = *digest;
    failureReported_ = false;
  } else if (conflict) {
    if (hooks_.reloadExternalEdits) hooks_.reloadExternalEdits();
  } else if (failure && !failureReported_) {
    failureReported_ = true;
    if (hooks_.reportFailure) hooks_.reportFailure(editorMessageText(EditorMessageID::saveCaptionsFailed, *failure));
  }
}

void CaptionSaveChain::noteDiskDigest(const std::string& digest) {
  queue_.enqueue([shared = shared_, digest] {
    std::lock_guard lock(shared->mutex);
    if (digest == shared->currentDigest) return;
    if (std::find(shared->ownDigests.begin(), shared->ownDigests.end(), digest) != shared->ownDigests.end()) return;
    shared->currentDigest = digest;
    shared->ownDigests.clear();
  });
}

bool CaptionSaveChain::isOwnSave(const std::string& digest) const {
  std::lock_guard lock(shared_->mutex);
  return std::find(shared_->ownDigests.begin(), shared_->ownDigests.end(), digest) != shared_->ownDigests.end();
}

}  // namespace vumo
