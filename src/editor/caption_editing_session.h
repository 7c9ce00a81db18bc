#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "captions/caption_document.h"
#include "editor/editor_messages.h"
#include "editor/main_loop.h"
#include "project/project_package.h"
#include "project/serial_work_queue.h"
#include "shared/project_time.h"
#include "shared/uuid.h"

namespace vumo {

class ProjectStore;

// The one owner of the open project's caption document in the editor. Every edit is one pure call
// of CaptionDocumentEngine; the session keeps its own undo and redo history (apart from the
// timeline's), the selected cue, the gesture in progress and external documents that arrive during
// one. Main thread only.
//
// `onChange(document, committed, shouldPersist)` follows every change of the document: `committed`
// is false for the steps of a drag, and `shouldPersist` is false only for a document loaded from
// outside, which is already on disk.
class CaptionEditingSession {
 public:
  using ChangeHandler = std::function<void(const CaptionDocument& document, bool committed, bool shouldPersist)>;

  static constexpr std::size_t undoDepth = 100;

  CaptionEditingSession(CaptionDocument document, ProjectTime sourceDuration, ChangeHandler onChange);
  CaptionEditingSession(const CaptionEditingSession&) = delete;
  CaptionEditingSession& operator=(const CaptionEditingSession&) = delete;

  const CaptionDocument& document() const { return document_; }
  const std::optional<Uuid>& selectedCueID() const { return selectedCueID_; }
  const std::optional<Uuid>& textFocusRequestCueID() const { return textFocusRequestCueID_; }
  const std::optional<std::string>& message() const { return message_; }
  bool canUndo() const { return !undoStack_.empty(); }
  bool canRedo() const { return !redoStack_.empty(); }
  std::size_t undoCount() const { return undoStack_.size(); }
  std::size_t redoCount() const { return redoStack_.size(); }
  bool isInGesture() const { return gestureBaseline_.has_value(); }

  // The selected cue, or none when nothing (or a cue that is gone) is selected.
  const CaptionCue* selectedCue() const;
  void select(std::optional<Uuid> id);

  // Each edit answers whether it was made; a refused one leaves the document as it was and puts
  // the error's text in `message`.
  bool addCue(const CaptionCue& cue, bool requestsTextFocus);
  bool removeSelectedCue();

  // The drag operations of the caption lane: inside a gesture each step starts from the document
  // as the gesture found it, so a drag is measured from where it began and words a trim step
  // dropped come back when the drag returns.
  bool moveCue(const Uuid& id, ProjectTime start);
  bool trimStart(const Uuid& id, ProjectTime start);
  bool trimEnd(const Uuid& id, ProjectTime end);

  bool updateText(const Uuid& id, std::string_view text);
  bool addHighlight(const Uuid& id, const CaptionHighlight& highlight);
  // Replaces the highlight equal to `old`; a result the cue's text does not allow is
  // CaptionEditingError invalidHighlight.
  bool replaceHighlight(const Uuid& id, const CaptionHighlight& old, const CaptionHighlight& replacement);
  // Removes every highlight with the same text and occurrence; the others keep their occurrence.
  bool removeHighlight(const Uuid& id, const CaptionHighlight& highlight);
  bool clearHighlights(const Uuid& id);
  // The style of every cue, in its normal form (see CaptionStyle::normalized).
  bool updateStyle(const CaptionStyle& style);

  // The text field took the focus it was asked for; a request for another cue stays.
  void consumeTextFocusRequest(const Uuid& id);

  // A gesture of any length becomes one undo step. A second begin keeps the first baseline.
  void beginCoalescedEdit();
  void endCoalescedEdit();

  void undo();
  void redo();

  // A document read from disk that someone else wrote: one undoable step, not saved again. During
  // a gesture it waits for the gesture's end (a later one replaces it).
  void applyExternalDocument(const CaptionDocument& document);

 private:
  using Mutation = std::function<CaptionDocument(const CaptionDocument&)>;

  bool apply(bool usesGestureBaseline, const Mutation& mutation);
  void pushUndo(CaptionDocument document);
  void restoreSelection();

  CaptionDocument document_;
  std::optional<Uuid> selectedCueID_;
  std::optional<Uuid> textFocusRequestCueID_;
  std::optional<std::string> message_;

  ProjectTime sourceDuration_;
  ChangeHandler onChange_;
  std::vector<CaptionDocument> undoStack_;
  std::vector<CaptionDocument> redoStack_;
  std::optional<CaptionDocument> gestureBaseline_;
  std::optional<CaptionDocument> pendingExternalDocument_;
};

// Where the caption saves go. The real one is the project store; tests put a slow or failing
// store in its place. Called on the save thread only, one call at a time.
class CaptionSaveStore {
 public:
  virtual ~CaptionSaveStore() = default;
  // Guarded by both digests (ProjectStoreError on a conflict); returns the new captions digest.
  virtual std::string commitCaptions(const CaptionDocument& document, const std::string& expectedCaptionsDigest,
                                     const std::string& expectedTimelineDigest) = 0;
};

// The project store's guarded caption commit for one package, through a store of its own: a
// store serves one caller at a time, and this one is used from the save thread only.
class ProjectStoreCaptionSaves final : public CaptionSaveStore {
 public:
  explicit ProjectStoreCaptionSaves(ProjectPackage package);
  ~ProjectStoreCaptionSaves() override;
  std::string commitCaptions(const CaptionDocument& document, const std::string& expectedCaptionsDigest,
                             const std::string& expectedTimelineDigest) override;

 private:
  ProjectPackage package_;
  std::unique_ptr<ProjectStore> store_;
};

// The caption saves of one open project, strictly in the order they were asked for: each waits
// for the one before it and is guarded by the digest that one left on disk. Results come back to
// the main thread through the loop. A conflict (someone else wrote in between) asks for a reload
// of the external edits instead of a message; any other failure is reported, once until a save
// succeeds again, so a drag over a broken disk does not raise a message for each step.
//
// `save`, `noteDiskDigest` and `savedDigest` are main-thread calls; `isOwnSave` may be called from
// anywhere. Destruction skips saves that have not begun and waits for the one that has.
class CaptionSaveChain {
 public:
  struct Hooks {
    // The expected timeline digest of a save, asked on the main thread when the save is queued:
    // the digest the editor's timeline holds.
    std::function<std::string()> timelineDigest;
    std::function<void()> reloadExternalEdits;
    std::function<void(std::string message)> reportFailure;
  };

  CaptionSaveChain(MainLoop& loop, std::shared_ptr<CaptionSaveStore> store, std::string captionsDigest, Hooks hooks);
  ~CaptionSaveChain();
  CaptionSaveChain(const CaptionSaveChain&) = delete;
  CaptionSaveChain& operator=(const CaptionSaveChain&) = delete;

  void save(const CaptionDocument& document);

  // The digest of captions read from disk by a reload, in order with the saves: a digest this chain
  // wrote itself is its own save coming back and changes nothing; any other is what the next save
  // must find on disk.
  void noteDiskDigest(const std::string& digest);

  // Whether the chain wrote bytes of this digest since it last followed a change from outside.
  bool isOwnSave(const std::string& digest) const;

  // The digest of the last save that came back to the main thread (the starting digest before).
  const std::string& savedDigest() const { return savedDigest_; }

 private:
  // What the save thread and the main thread share.
  struct Shared {
    mutable std::mutex mutex;
    std::string currentDigest;
    std::vector<std::string> ownDigests;
    std::atomic<bool> cancelled{false};
  };

  void finished(const std::optional<std::string>& digest, const std::optional<std::string>& failure, bool conflict);

  MainLoop& loop_;
  std::shared_ptr<CaptionSaveStore> store_;
  Hooks hooks_;
  std::shared_ptr<Shared> shared_;
  std::shared_ptr<bool> alive_;
  std::string savedDigest_;
  bool failureReported_ = false;
  SerialWorkQueue queue_;  // last: joined first, while the rest still exists
};

}  // namespace vumo
