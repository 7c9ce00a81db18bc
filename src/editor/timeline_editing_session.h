#pragma once

// The one owner of the open project's timeline in the editor. Every user action on the timeline
// runs one pure engine through it; it keeps the undo and redo histories, the selection, folds a
// running gesture into one undo step and announces each change through `onChange`. Changes that
// other programs commit to the project arrive through `applyExternalTimeline`.
//
// Main thread only, and synchronous: `onChange` and `onStateChange` run inside the call that
// caused them, so a caller that must not react during a view update puts them through a
// ViewUpdateChangeQueue.
//
// Refusals: an edit that an engine or the validator refuses changes nothing (timeline, selection,
// histories) and puts the refusal's text in `message()`; the operation returns false. Only the
// errors of the program's error families are taken this way; anything else propagates.
//
// Every edit reports its result the same way: outside a gesture it is one undo step, inside one
// (between beginCoalescedEdit and endCoalescedEdit) a step without history that the end folds into
// one. An edit that changes nothing leaves no step and announces nothing. Undo and redo wait for
// a running gesture to end: they do nothing meanwhile.

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "shared/geometry.h"
#include "shared/media_track_kind.h"
#include "shared/project_time.h"
#include "shared/uuid.h"
#include "timeline/edit_timeline.h"
#include "timeline/mouse_event.h"

namespace vumo {

// The look of one annotation, apart from its place, its times and its words: what the inspector
// shows. `textStyle` counts for text annotations only, and its `content` is not taken (the words
// change through `updateAnnotationText`).
struct AnnotationStyleEdit {
  CanvasColorValue color = AnnotationElement::defaultColor();
  double lineWidth = 0.006;
  double cornerRadius = 0;
  bool locksAspectRatio = false;
  bool isFilled = false;
  bool dimsOutside = false;
  std::optional<TextAnnotationStyle> textStyle;

  static AnnotationStyleEdit of(const AnnotationElement& annotation);
  friend bool operator==(const AnnotationStyleEdit&, const AnnotationStyleEdit&) = default;
};

class TimelineEditingSession {
 public:
  // The timeline and where the change came from: `committed` is false for a step inside a
  // gesture; `shouldPersist` is false only for a timeline loaded from outside, which is already
  // on disk.
  using ChangeHandler = std::function<void(const EditTimeline& timeline, bool committed, bool shouldPersist)>;

  static constexpr std::size_t undoDepth = 100;

  // `timeline` is the project's validated timeline as loaded.
  TimelineEditingSession(EditTimeline timeline, ProjectTime sourceDuration, PixelSize sourceSize,
                         ChangeHandler onChange);
  TimelineEditingSession(const TimelineEditingSession&) = delete;
  TimelineEditingSession& operator=(const TimelineEditingSession&) = delete;

  // Runs after any observable field below may have changed; for the views. Optional.
  std::function<void()> onStateChange;

  // ---- Observable state ------------------------------------------------------------------------

  const EditTimeline& timeline() const { return timeline_; }
  const std::optional<Uuid>& selectedSegmentID() const { return selectedSegmentID_; }
  const std::optional<Uuid>& selectedZoomID() const { return selectedZoomID_; }
  const std::optional<Uuid>& selectedWebcamFullscreenID() const { return selectedWebcamFullscreenID_; }
  const std::optional<Uuid>& selectedWebcamKeyframeID() const { return selectedWebcamKeyframeID_; }
  const std::optional<Uuid>& selectedAnnotationID() const { return selectedAnnotationID_; }
  AnnotationKind annotationTool() const { return annotationTool_; }
  const std::optional<std::string>& message() const { return message_; }
  bool canUndo() const { return !undoStack_.empty(); }
  bool canRedo() const { return !redoStack_.empty(); }

  ProjectTime sourceDuration() const { return sourceDuration_; }
  PixelSize sourceSize() const { return sourceSize_; }
  std::size_t undoCount() const { return undoStack_.size(); }
  std::size_t redoCount() const { return redoStack_.size(); }
  bool isInGesture() const { return gestureBaseline_.has_value(); }
  bool hasPendingExternalTimeline() const { return pendingExternalTimeline_.has_value(); }

  void dismissMessage();

  // ---- Gestures --------------------------------------------------------------------------------
  // Between begin and end, `update...` and `move...` steps change the timeline without an undo
  // step; the end folds them into one. A second begin keeps the first baseline.

  void beginCoalescedEdit();
  void endCoalescedEdit();

  // ---- Selection: the five selections exclude each other ---------------------------------------

  // Selects the clip that plays at sequence time `sequenceTime`; outside the sequence nothing
  // changes.
  void select(ProjectTime sequenceTime);
  void selectSegment(std::optional<Uuid> id);
  void selectZoom(std::optional<Uuid> id);
  void selectWebcamFullscreen(std::optional<Uuid> id);
  void selectWebcamKeyframe(std::optional<Uuid> id);
  void selectAnnotation(std::optional<Uuid> id);
  void clearSelection();
  // The kind the next `addAnnotation` draws.
  void setAnnotationTool(AnnotationKind kind);

  // ---- Clips (times: `at` is sequence time, `to...` source time) ------------------------------

  bool split(ProjectTime sequenceTime);
  bool trimStart(const Uuid& segmentID, ProjectTime toSourceTime);
  bool trimEnd(const Uuid& segmentID, ProjectTime toSourceTime);
  // Ripple-deletes the selected clip; without a selected clip nothing happens.
  bool rippleDeleteSelection();
  bool updatePlaybackRate(const Uuid& segmentID, double multiplier);

  // ---- Zooms (source times) --------------------------------------------------------------------

  // A zoom of `newZoomDuration` at `sourceTime`, shortened to fit before the next zoom and the end
  // of the source; selected once added.
  bool addZoom(ProjectTime sourceTime);
  bool removeSelectedZoom();
  // Moves a zoom whole so that it starts at `toSourceTime`, kept inside `segmentID`'s clip where
  // it fits and between its neighbours.
  bool moveZoom(const Uuid& id, ProjectTime toSourceTime, const Uuid& segmentID);
  bool updateZoomStart(const Uuid& id, ProjectTime to);
  bool updateZoomEnd(const Uuid& id, ProjectTime to);
  bool updateZoomScale(const Uuid& id, double scale);
  bool updateZoomFocus(const Uuid& id, PointValue focusPoint);
  // Replaces every zoom by those the standard automatic engine makes of `events`.
  bool regenerateAutoZooms(const std::vector<MouseEvent>& events);

  // ---- Full-screen camera (source times) -------------------------------------------------------

  bool addWebcamFullscreen(ProjectTimeRange sourceRange);
  bool removeSelectedWebcamFullscreen();
  // Moves a segment whole to start at `toSourceTime`, kept within the source and its neighbours.
  bool moveWebcamFullscreen(const Uuid& id, ProjectTime toSourceTime);
  bool updateWebcamFullscreenStart(const Uuid& id, ProjectTime to);
  bool updateWebcamFullscreenEnd(const Uuid& id, ProjectTime to);

  // ---- Annotations (source times; geometry normalised to the frame) ---------------------------
  // An unknown id changes nothing and returns false: the views only name annotations they show.

  // Adds an annotation of the current tool over `sourceRange` (snapped to the grid) in `bounds`;
  // an arrow runs from the top left to the bottom right corner of `bounds`. Drawn above every
  // other annotation, and selected once added.
  bool addAnnotation(ProjectTimeRange sourceRange, RectValue bounds);
  bool removeSelectedAnnotation();
  bool moveAnnotation(const Uuid& id, ProjectTime toSourceTime);
  bool updateAnnotationStart(const Uuid& id, ProjectTime to);
  bool updateAnnotationEnd(const Uuid& id, ProjectTime to);
  // The text of a text annotation; other kinds have no text and nothing changes.
  bool updateAnnotationText(const Uuid& id, const std::string& text);
  // Where the annotation is drawn. An arrow keeps its direction: its two points become the
  // corners of `bounds` that they held in the box around them.
  bool updateAnnotationBounds(const Uuid& id, RectValue bounds);
  bool updateAnnotationStyle(const Uuid& id, const AnnotationStyleEdit& style);

  // ---- Settings --------------------------------------------------------------------------------

  // `kind` is systemAudio or microphone; the gain is clamped to the mix's limits.
  bool updateAudio(MediaTrackKind kind, bool isMuted, double gainDecibels);
  // The overlay is kept on the output afterwards, as a new aspect ratio may push it off.
  bool updateCanvas(const CanvasEdit& canvas);
  bool updateWebcam(const std::optional<WebcamOverlay>& overlay);
  // A frame of the device frame catalogue, or none. The validator refuses an asset the catalogue
  // does not know; which frames suit the recording's shape is the picker's choice.
  bool updateDeviceFrame(const std::optional<DeviceFrameEdit>& frame);
  // The scale is clamped as the command line's `cursor.scale` clamps it; a scale that is not a
  // number is refused.
  bool updateCursor(const CursorEdit& cursor);
  // `key=value` pairs as the command line's `set` takes them.
  bool applySettings(const std::map<std::string, std::string>& values);

  // ---- History ---------------------------------------------------------------------------------

  void undo();
  void redo();

  // ---- External edits --------------------------------------------------------------------------

  // A timeline that another program committed. Equal to the open one: nothing. During a gesture it
  // waits for the gesture's end (a later one replaces it). Otherwise it is validated and becomes
  // one undo step, announced as not to be persisted. Returns whether it was loaded now.
  bool applyExternalTimeline(const EditTimeline& external);

  // Length of a zoom that `addZoom` places: two seconds.
  static constexpr ProjectTime newZoomDuration{2'000'000'000};
  // Scale of a new zoom.
  static constexpr double newZoomScale = 1.5;

 private:
  template <class Mutation>
  bool mutationResult(Mutation&& mutation);
  template <class Mutation>
  std::optional<EditTimeline> attempt(Mutation&& mutation);

  void commit(EditTimeline newTimeline);
  void applyMutationResult(EditTimeline newTimeline);
  void pushUndo(EditTimeline timeline);
  void restoreSelections();
  void announce(bool committed, bool shouldPersist);
  void notifyState();
  void setSelection(std::optional<Uuid> TimelineEditingSession::*field, std::optional<Uuid> id);

  EditTimeline timeline_;
  std::optional<Uuid> selectedSegmentID_;
  std::optional<Uuid> selectedZoomID_;
  std::optional<Uuid> selectedWebcamFullscreenID_;
  std::optional<Uuid> selectedWebcamKeyframeID_;
  std::optional<Uuid> selectedAnnotationID_;
  AnnotationKind annotationTool_ = AnnotationKind::rectangle;
  std::optional<std::string> message_;

  ProjectTime sourceDuration_;
  PixelSize sourceSize_;
  ChangeHandler onChange_;
  std::vector<EditTimeline> undoStack_;
  std::vector<EditTimeline> redoStack_;
  std::optional<EditTimeline> gestureBaseline_;
  std::optional<EditTimeline> pendingExternalTimeline_;
};

}  // namespace vumo
