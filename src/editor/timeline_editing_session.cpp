#include "editor/timeline_editing_session.h"

#include <algorithm>
#include <utility>

#include "editor/editor_messages.h"
#include "shared/error.h"
#include "timeline/annotation_track_assignment.h"
#include "timeline/auto_zoom_engine.h"
#include "timeline/timeline_edit_engine.h"
#include "timeline/timeline_effect_engine.h"
#include "timeline/timeline_frame_grid.h"
#include "timeline/timeline_mapper.h"
#include "timeline/timeline_settings_engine.h"
#include "timeline/timeline_speed_engine.h"
#include "timeline/timeline_validator.h"

namespace vumo {

namespace {

using Grid = TimelineFrameGrid;

template <class Item>
bool holdsID(const std::vector<Item>& items, const Uuid& id) {
  return std::any_of(items.begin(), items.end(), [&](const Item& item) { return item.id == id; });
}

template <class Item>
auto findByID(std::vector<Item>& items, const Uuid& id) {
  return std::find_if(items.begin(), items.end(), [&](const Item& item) { return item.id == id; });
}

template <class Item>
std::optional<Uuid> addedID(const std::vector<Item>& before, const std::vector<Item>& after) {
  for (const auto& item : after)
    if (!holdsID(before, item.id)) return item.id;
  return std::nullopt;
}

// The start that places an item of `length` as near to `wanted` as the window lowest...highestEnd
// allows, on the grid; none when it does not fit.
std::optional<ProjectTime> placedStart(ProjectTime wanted, ProjectTime length, ProjectTime lowest,
                                       ProjectTime highestEnd) {
  const ProjectTime low = Grid::ceilingBoundary(lowest);
  if (highestEnd - length < low) return std::nullopt;
  const ProjectTime high = Grid::floorBoundary(highestEnd - length);
  if (high < low) return std::nullopt;
  return std::clamp(Grid::nearestBoundary(wanted), low, high);
}

// The item's neighbours in time order: the end of the one before it (0 if none) and the start of
// the one after it (`sourceDuration` if none).
template <class Item>
std::pair<ProjectTime, ProjectTime> neighbourBounds(const std::vector<Item>& items, const Item& item,
                                                    ProjectTime sourceDuration) {
  ProjectTime previousEnd = ProjectTime::zero();
  ProjectTime nextStart = sourceDuration;
  for (const auto& other : items) {
    if (other.id == item.id) continue;
    if (other.startTime < item.startTime || (other.startTime == item.startTime && other.endTime <= item.startTime))
      previousEnd = std::max(previousEnd, other.endTime);
    else
      nextStart = std::min(nextStart, other.startTime);
  }
  return {previousEnd, nextStart};
}

// Annotations have no engine of their own: each edit reflows the lanes and validates the whole.
EditTimeline withAnnotations(const EditTimeline& timeline, std::vector<AnnotationElement> annotations,
                             ProjectTime sourceDuration) {
  EditTimeline next = timeline;
  next.annotations = AnnotationTrackAssignment::reflow(annotations);
  TimelineValidator::validate(next, sourceDuration);
  return next;
}

EditTimeline validated(EditTimeline timeline, ProjectTime sourceDuration) {
  TimelineValidator::validate(timeline, sourceDuration);
  return timeline;
}

}  // namespace

AnnotationStyleEdit AnnotationStyleEdit::of(const AnnotationElement& annotation) {
  return {annotation.color,    annotation.lineWidth,   annotation.cornerRadius, annotation.locksAspectRatio,
          annotation.isFilled, annotation.dimsOutside, annotation.textStyle};
}

TimelineEditingSession::TimelineEditingSession(EditTimeline timeline, ProjectTime sourceDuration, PixelSize sourceSize,
                                               ChangeHandler onChange)
    : timeline_(std::move(timeline)),
      sourceDuration_(sourceDuration),
      sourceSize_(sourceSize),
      onChange_(std::move(onChange)) {}

// ---- Paths of every change ---------------------------------------------------------------------

template <class Mutation>
std::optional<EditTimeline> TimelineEditingSession::attempt(Mutation&& mutation) {
  try {
    return std::optional<EditTimeline>(mutation());
  } catch (const Error& error) {
    message_ = error.what();
    notifyState();
    return std::nullopt;
  }
}

template <class Mutation>
bool TimelineEditingSession::mutationResult(Mutation&& mutation) {
  auto next = attempt(std::forward<Mutation>(mutation));
  if (!next) return false;
  applyMutationResult(std::move(*next));
  return true;
}

void TimelineEditingSession::pushUndo(EditTimeline timeline) {
  undoStack_.push_back(std::move(timeline));
  if (undoStack_.size() > undoDepth)
    undoStack_.erase(undoStack_.begin(),
                     undoStack_.begin() + static_cast<std::ptrdiff_t>(undoStack_.size() - undoDepth));
}

void TimelineEditingSession::commit(EditTimeline newTimeline) {
  if (newTimeline == timeline_) return;
  pushUndo(std::move(timeline_));
  redoStack_.clear();
  timeline_ = std::move(newTimeline);
  message_.reset();
  restoreSelections();
  announce(true, true);
}

void TimelineEditingSession::applyMutationResult(EditTimeline newTimeline) {
  if (newTimeline == timeline_) return;
  if (!gestureBaseline_) {
    commit(std::move(newTimeline));
    return;
  }
  timeline_ = std::move(newTimeline);
  message_.reset();
  restoreSelections();
  announce(false, true);
}

void TimelineEditingSession::announce(bool committed, bool shouldPersist) {
  notifyState();
  if (onChange_) onChange_(timeline_, committed, shouldPersist);
}

void TimelineEditingSession::notifyState() {
  if (onStateChange) onStateChange();
}

void TimelineEditingSession::restoreSelections() {
  auto keep = [](std::optional<Uuid>& selected, bool exists) {
    if (selected && !exists) selected.reset();
  };
  if (selectedSegmentID_) keep(selectedSegmentID_, holdsID(timeline_.segments, *selectedSegmentID_));
  if (selectedZoomID_) keep(selectedZoomID_, holdsID(timeline_.zooms, *selectedZoomID_));
  if (selectedWebcamFullscreenID_)
    keep(selectedWebcamFullscreenID_, holdsID(timeline_.webcamFullscreenSegments, *selectedWebcamFullscreenID_));
  if (selectedWebcamKeyframeID_)
    keep(selectedWebcamKeyframeID_, holdsID(timeline_.webcamKeyframes, *selectedWebcamKeyframeID_));
  if (selectedAnnotationID_) keep(selectedAnnotationID_, holdsID(timeline_.annotations, *selectedAnnotationID_));
}

void TimelineEditingSession::dismissMessage() {
  if (!message_) return;
  message_.reset();
  notifyState();
}

// ---- Gestures ----------------------------------------------------------------------------------

void TimelineEditingSession::beginCoalescedEdit() {
  if (!gestureBaseline_) gestureBaseline_ = timeline_;
}

void TimelineEditingSession::endCoalescedEdit() {
  if (!gestureBaseline_) return;
  EditTimeline baseline = std::move(*gestureBaseline_);
  gestureBaseline_.reset();
  if (timeline_ != baseline) {
    pushUndo(std::move(baseline));
    redoStack_.clear();
    announce(true, true);
  }
  if (pendingExternalTimeline_) {
    EditTimeline pending = std::move(*pendingExternalTimeline_);
    pendingExternalTimeline_.reset();
    applyExternalTimeline(pending);
  }
}

// ---- Selection ---------------------------------------------------------------------------------

void TimelineEditingSession::setSelection(std::optional<Uuid> TimelineEditingSession::*field, std::optional<Uuid> id) {
  selectedSegmentID_.reset();
  selectedZoomID_.reset();
  selectedWebcamFullscreenID_.reset();
  selectedWebcamKeyframeID_.reset();
  selectedAnnotationID_.reset();
  if (field) this->*field = std::move(id);
  notifyState();
}

void TimelineEditingSession::select(ProjectTime sequenceTime) {
  std::optional<TimelineMappedTime> mapped;
  try {
    mapped = TimelineMapper(timeline_, sourceDuration_).mappedTimeForSequenceTime(sequenceTime);
  } catch (const Error&) {
    return;
  }
  if (mapped) selectSegment(mapped->segmentID);
}

void TimelineEditingSession::selectSegment(std::optional<Uuid> id) {
  setSelection(&TimelineEditingSession::selectedSegmentID_, std::move(id));
}
void TimelineEditingSession::selectZoom(std::optional<Uuid> id) {
  setSelection(&TimelineEditingSession::selectedZoomID_, std::move(id));
}
void TimelineEditingSession::selectWebcamFullscreen(std::optional<Uuid> id) {
  setSelection(&TimelineEditingSession::selectedWebcamFullscreenID_, std::move(id));
}
void TimelineEditingSession::selectWebcamKeyframe(std::optional<Uuid> id) {
  setSelection(&TimelineEditingSession::selectedWebcamKeyframeID_, std::move(id));
}
void TimelineEditingSession::selectAnnotation(std::optional<Uuid> id) {
  setSelection(&TimelineEditingSession::selectedAnnotationID_, std::move(id));
}
void TimelineEditingSession::clearSelection() { setSelection(nullptr, std::nullopt); }

void TimelineEditingSession::setAnnotationTool(AnnotationKind kind) {
  if (annotationTool_ == kind) return;
  annotationTool_ = kind;
  notifyState();
}

// ---- Clips -------------------------------------------------------------------------------------

bool TimelineEditingSession::split(ProjectTime sequenceTime) {
  return mutationResult([&] { return TimelineEditEngine::split(timeline_, sequenceTime, sourceDuration_); });
}

bool TimelineEditingSession::trimStart(const Uuid& segmentID, ProjectTime toSourceTime) {
  return mutationResult(
      [&] { return TimelineEditEngine::trimStart(timeline_, segmentID, toSourceTime, sourceDuration_); });
}

bool TimelineEditingSession::trimEnd(const Uuid& segmentID, ProjectTime toSourceTime) {
  return mutationResult(
      [&] { return TimelineEditEngine::trimEnd(timeline_, segmentID, toSourceTime, sourceDuration_); });
}

bool TimelineEditingSession::rippleDeleteSelection() {
  if (!selectedSegmentID_) return false;
  const Uuid id = *selectedSegmentID_;
  return mutationResult([&] { return TimelineEditEngine::rippleDelete(timeline_, id, sourceDuration_); });
}

bool TimelineEditingSession::updatePlaybackRate(const Uuid& segmentID, double multiplier) {
  return mutationResult([&] {
    const auto rate = TimelinePlaybackRate::fromMultiplier(multiplier);
    if (!rate) throw TimelineSpeedError(TimelineSpeedError::Case::invalidRate);
    auto segment = std::find_if(timeline_.segments.begin(), timeline_.segments.end(),
                                [&](const TimelineSegment& s) { return s.id == segmentID; });
    if (segment == timeline_.segments.end()) throw TimelineEditError(TimelineEditError::Case::segmentNotFound);
    // A slider that passes over the clip's own rate is no refusal.
    if (segment->playbackRate == *rate) return timeline_;
    return TimelineSpeedEngine::settingRate(*rate, segment->sourceRange, timeline_, sourceDuration_);
  });
}

// ---- Zooms -------------------------------------------------------------------------------------

bool TimelineEditingSession::addZoom(ProjectTime sourceTime) {
  std::optional<Uuid> added;
  const bool applied = mutationResult([&] {
    const ProjectTime start = std::max(Grid::nearestBoundary(sourceTime), ProjectTime::zero());
    ProjectTime limit = sourceDuration_;
    for (const auto& zoom : timeline_.zooms)
      if (zoom.startTime >= start) limit = std::min(limit, zoom.startTime);
    const ProjectTime end = std::min(Grid::nearestBoundary(start + newZoomDuration), Grid::floorBoundary(limit));
    ZoomSegment zoom;
    zoom.id = Uuid::random();
    zoom.startTime = start;
    zoom.endTime = end;
    // Ramps of a quarter of the length each; a zoom too short for the minimum fails validation.
    const ProjectTime ramp{std::max<std::int64_t>((end - start).nanoseconds / 4, 0)};
    zoom.focusTime = end > start ? start + ramp : start;
    zoom.holdEndTime = end > start ? end - ramp : start;
    zoom.scale = newZoomScale;
    zoom.focusPoint = TimelineEffectEngine::constrainedFocus({0.5, 0.5}, newZoomScale);
    added = zoom.id;
    auto zooms = timeline_.zooms;
    zooms.push_back(zoom);
    return TimelineEffectEngine::replaceZooms(timeline_, std::move(zooms), sourceDuration_);
  });
  if (applied && added && holdsID(timeline_.zooms, *added)) selectZoom(added);
  return applied;
}

bool TimelineEditingSession::removeSelectedZoom() {
  if (!selectedZoomID_) return false;
  const Uuid id = *selectedZoomID_;
  return mutationResult([&] { return TimelineEffectEngine::removeZoom(timeline_, id, sourceDuration_); });
}

bool TimelineEditingSession::moveZoom(const Uuid& id, ProjectTime toSourceTime, const Uuid& segmentID) {
  return mutationResult([&] {
    auto zooms = timeline_.zooms;
    auto zoom = findByID(zooms, id);
    if (zoom == zooms.end()) throw TimelineEffectError(TimelineEffectError::Case::zoomNotFound);
    auto segment = std::find_if(timeline_.segments.begin(), timeline_.segments.end(),
                                [&](const TimelineSegment& s) { return s.id == segmentID; });
    if (segment == timeline_.segments.end()) throw TimelineEditError(TimelineEditError::Case::segmentNotFound);
    const ProjectTime length = zoom->endTime - zoom->startTime;
    const auto [previousEnd, nextStart] = neighbourBounds(zooms, *zoom, sourceDuration_);
    // Inside the clip where the zoom fits there; across clips (a zoom longer than its clip)
    // only between its neighbours.
    auto start = placedStart(toSourceTime, length, std::max(previousEnd, segment->sourceRange.start),
                             std::min(nextStart, segment->sourceRange.end()));
    if (!start) start = placedStart(toSourceTime, length, previousEnd, nextStart);
    if (!start) return timeline_;
    const ProjectTime delta = *start - zoom->startTime;
    zoom->startTime = zoom->startTime + delta;
    zoom->focusTime = zoom->focusTime + delta;
    zoom->holdEndTime = zoom->holdEndTime + delta;
    zoom->endTime = zoom->endTime + delta;
    return TimelineEffectEngine::replaceZooms(timeline_, std::move(zooms), sourceDuration_);
  });
}

bool TimelineEditingSession::updateZoomStart(const Uuid& id, ProjectTime to) {
  return mutationResult([&] { return TimelineEffectEngine::updateZoomStart(timeline_, id, to, sourceDuration_); });
}

bool TimelineEditingSession::updateZoomEnd(const Uuid& id, ProjectTime to) {
  return mutationResult([&] { return TimelineEffectEngine::updateZoomEnd(timeline_, id, to, sourceDuration_); });
}

bool TimelineEditingSession::updateZoomScale(const Uuid& id, double scale) {
  return mutationResult([&] { return TimelineEffectEngine::updateZoomScale(timeline_, id, scale, sourceDuration_); });
}

bool TimelineEditingSession::updateZoomFocus(const Uuid& id, PointValue focusPoint) {
  return mutationResult(
      [&] { return TimelineEffectEngine::updateZoomFocus(timeline_, id, focusPoint, sourceDuration_); });
}

bool TimelineEditingSession::regenerateAutoZooms(const std::vector<MouseEvent>& events) {
  return mutationResult([&] {
    return TimelineEffectEngine::replaceZooms(
        timeline_, AutoZoomEngine::standard().makeSegments(events, sourceDuration_), sourceDuration_);
  });
}

// ---- Full-screen camera ------------------------------------------------------------------------

bool TimelineEditingSession::addWebcamFullscreen(ProjectTimeRange sourceRange) {
  const auto before = timeline_.webcamFullscreenSegments;
  const bool applied = mutationResult(
      [&] { return TimelineEffectEngine::addWebcamFullscreen(timeline_, sourceRange, sourceDuration_); });
  if (applied)
    if (auto added = addedID(before, timeline_.webcamFullscreenSegments)) selectWebcamFullscreen(added);
  return applied;
}

bool TimelineEditingSession::removeSelectedWebcamFullscreen() {
  if (!selectedWebcamFullscreenID_) return false;
  const Uuid id = *selectedWebcamFullscreenID_;
  return mutationResult([&] { return TimelineEffectEngine::removeWebcamFullscreen(timeline_, id, sourceDuration_); });
}

bool TimelineEditingSession::moveWebcamFullscreen(const Uuid& id, ProjectTime toSourceTime) {
  return mutationResult([&] {
    EditTimeline next = timeline_;
    auto segment = findByID(next.webcamFullscreenSegments, id);
    if (segment == next.webcamFullscreenSegments.end())
      throw TimelineEffectError(TimelineEffectError::Case::webcamFullscreenNotFound);
    const ProjectTime length = segment->endTime - segment->startTime;
    const auto [previousEnd, nextStart] = neighbourBounds(next.webcamFullscreenSegments, *segment, sourceDuration_);
    const auto start = placedStart(toSourceTime, length, previousEnd, nextStart);
    if (!start) return timeline_;
    segment->endTime = segment->endTime + (*start - segment->startTime);
    segment->startTime = *start;
    std::sort(next.webcamFullscreenSegments.begin(), next.webcamFullscreenSegments.end(),
              [](const auto& a, const auto& b) { return a.startTime < b.startTime; });
    return validated(std::move(next), sourceDuration_);
  });
}

bool TimelineEditingSession::updateWebcamFullscreenStart(const Uuid& id, ProjectTime to) {
  return mutationResult(
      [&] { return TimelineEffectEngine::updateWebcamFullscreenStart(timeline_, id, to, sourceDuration_); });
}

bool TimelineEditingSession::updateWebcamFullscreenEnd(const Uuid& id, ProjectTime to) {
  return mutationResult(
      [&] { return TimelineEffectEngine::updateWebcamFullscreenEnd(timeline_, id, to, sourceDuration_); });
}

// ---- Annotations -------------------------------------------------------------------------------

bool TimelineEditingSession::addAnnotation(ProjectTimeRange sourceRange, RectValue bounds) {
  AnnotationElement annotation;
  annotation.id = Uuid::random();
  annotation.kind = annotationTool_;
  annotation.startTime = std::max(Grid::nearestBoundary(sourceRange.start), ProjectTime::zero());
  annotation.endTime = std::min(Grid::nearestBoundary(sourceRange.end()), sourceDuration_);
  if (annotationTool_ == AnnotationKind::arrow) {
    annotation.startPoint = PointValue{bounds.x, bounds.y};
    annotation.endPoint = PointValue{bounds.x + bounds.width, bounds.y + bounds.height};
  } else {
    annotation.bounds = bounds;
  }
  if (annotationTool_ == AnnotationKind::text) annotation.textStyle = TextAnnotationStyle::defaultValue();
  std::int64_t top = -1;
  for (const auto& other : timeline_.annotations) top = std::max(top, other.zIndex);
  annotation.zIndex = top + 1;
  const bool applied = mutationResult([&] {
    auto annotations = timeline_.annotations;
    annotations.push_back(annotation);
    return withAnnotations(timeline_, std::move(annotations), sourceDuration_);
  });
  if (applied && holdsID(timeline_.annotations, annotation.id)) selectAnnotation(annotation.id);
  return applied;
}

bool TimelineEditingSession::removeSelectedAnnotation() {
  if (!selectedAnnotationID_ || !holdsID(timeline_.annotations, *selectedAnnotationID_)) return false;
  const Uuid id = *selectedAnnotationID_;
  return mutationResult([&] {
    auto annotations = timeline_.annotations;
    annotations.erase(findByID(annotations, id));
    return withAnnotations(timeline_, std::move(annotations), sourceDuration_);
  });
}

bool TimelineEditingSession::moveAnnotation(const Uuid& id, ProjectTime toSourceTime) {
  if (!holdsID(timeline_.annotations, id)) return false;
  return mutationResult([&] {
    auto annotations = timeline_.annotations;
    auto annotation = findByID(annotations, id);
    const ProjectTime length = annotation->endTime - annotation->startTime;
    const auto start = placedStart(toSourceTime, length, ProjectTime::zero(), sourceDuration_);
    if (!start) return timeline_;
    annotation->endTime = annotation->endTime + (*start - annotation->startTime);
    annotation->startTime = *start;
    return withAnnotations(timeline_, std::move(annotations), sourceDuration_);
  });
}

bool TimelineEditingSession::updateAnnotationStart(const Uuid& id, ProjectTime to) {
  if (!holdsID(timeline_.annotations, id)) return false;
  return mutationResult([&] {
    auto annotations = timeline_.annotations;
    auto annotation = findByID(annotations, id);
    const ProjectTime highest = Grid::floorBoundary(annotation->endTime - Grid::minimumDuration);
    annotation->startTime =
        std::clamp(Grid::nearestBoundary(to), ProjectTime::zero(), std::max(highest, ProjectTime::zero()));
    return withAnnotations(timeline_, std::move(annotations), sourceDuration_);
  });
}

bool TimelineEditingSession::updateAnnotationEnd(const Uuid& id, ProjectTime to) {
  if (!holdsID(timeline_.annotations, id)) return false;
  return mutationResult([&] {
    auto annotations = timeline_.annotations;
    auto annotation = findByID(annotations, id);
    const ProjectTime lowest = Grid::ceilingBoundary(annotation->startTime + Grid::minimumDuration);
    annotation->endTime = std::clamp(Grid::nearestBoundary(to), std::min(lowest, sourceDuration_), sourceDuration_);
    return withAnnotations(timeline_, std::move(annotations), sourceDuration_);
  });
}

bool TimelineEditingSession::updateAnnotationText(const Uuid& id, const std::string& text) {
  auto current = std::find_if(timeline_.annotations.begin(), timeline_.annotations.end(),
                              [&](const AnnotationElement& a) { return a.id == id; });
  if (current == timeline_.annotations.end() || current->kind != AnnotationKind::text) return false;
  return mutationResult([&] {
    auto annotations = timeline_.annotations;
    auto annotation = findByID(annotations, id);
    TextAnnotationStyle style = annotation->textStyle.value_or(TextAnnotationStyle::defaultValue());
    style.content = text;
    annotation->textStyle = std::move(style);
    return withAnnotations(timeline_, std::move(annotations), sourceDuration_);
  });
}

bool TimelineEditingSession::updateAnnotationBounds(const Uuid& id, RectValue bounds) {
  if (!holdsID(timeline_.annotations, id)) return false;
  return mutationResult([&] {
    auto annotations = timeline_.annotations;
    auto annotation = findByID(annotations, id);
    if (annotation->kind == AnnotationKind::arrow && annotation->startPoint && annotation->endPoint) {
      PointValue& start = *annotation->startPoint;
      PointValue& end = *annotation->endPoint;
      const bool rightward = start.x <= end.x;
      const bool downward = start.y <= end.y;
      const double left = bounds.x, right = bounds.x + bounds.width;
      const double top = bounds.y, bottom = bounds.y + bounds.height;
      start = PointValue{rightward ? left : right, downward ? top : bottom};
      end = PointValue{rightward ? right : left, downward ? bottom : top};
    } else {
      annotation->bounds = bounds;
    }
    return withAnnotations(timeline_, std::move(annotations), sourceDuration_);
  });
}

bool TimelineEditingSession::updateAnnotationStyle(const Uuid& id, const AnnotationStyleEdit& style) {
  if (!holdsID(timeline_.annotations, id)) return false;
  return mutationResult([&] {
    auto annotations = timeline_.annotations;
    auto annotation = findByID(annotations, id);
    annotation->color = style.color;
    annotation->lineWidth = style.lineWidth;
    annotation->cornerRadius = style.cornerRadius;
    annotation->locksAspectRatio = style.locksAspectRatio;
    annotation->isFilled = style.isFilled;
    annotation->dimsOutside = style.dimsOutside;
    if (annotation->kind == AnnotationKind::text && style.textStyle) {
      TextAnnotationStyle text = *style.textStyle;
      text.content = annotation->textStyle.value_or(TextAnnotationStyle::defaultValue()).content;
      annotation->textStyle = std::move(text);
    }
    return withAnnotations(timeline_, std::move(annotations), sourceDuration_);
  });
}

// ---- Settings ----------------------------------------------------------------------------------

bool TimelineEditingSession::updateAudio(MediaTrackKind kind, bool isMuted, double gainDecibels) {
  if (kind == MediaTrackKind::screen) return false;
  return mutationResult([&] {
    EditTimeline next = timeline_;
    AudioTrackEdit& track = kind == MediaTrackKind::systemAudio ? next.audioMix.systemAudio : next.audioMix.microphone;
    track.isMuted = isMuted;
    track.gainDecibels = std::clamp(gainDecibels, AudioMixEdit::minimumGainDecibels, AudioMixEdit::maximumGainDecibels);
    return validated(std::move(next), sourceDuration_);
  });
}

bool TimelineEditingSession::updateCanvas(const CanvasEdit& canvas) {
  return mutationResult([&] {
    EditTimeline next = timeline_;
    next.canvas = canvas;
    return validated(TimelineSettingsEngine::constrainWebcam(next, sourceSize_), sourceDuration_);
  });
}

bool TimelineEditingSession::updateWebcam(const std::optional<WebcamOverlay>& overlay) {
  return mutationResult([&] {
    EditTimeline next = timeline_;
    next.webcamOverlay = overlay;
    return validated(TimelineSettingsEngine::constrainWebcam(next, sourceSize_), sourceDuration_);
  });
}

bool TimelineEditingSession::updateDeviceFrame(const std::optional<DeviceFrameEdit>& frame) {
  return mutationResult([&] {
    EditTimeline next = timeline_;
    next.deviceFrame = frame;
    return validated(std::move(next), sourceDuration_);
  });
}

bool TimelineEditingSession::updateCursor(const CursorEdit& cursor) {
  return mutationResult(
      [&] { return validated(TimelineSettingsEngine::withCursor(timeline_, cursor), sourceDuration_); });
}

bool TimelineEditingSession::applySettings(const std::map<std::string, std::string>& values) {
  return mutationResult([&] {
    return validated(
        TimelineSettingsEngine::applying(values, timeline_, timeline_.webcamOverlay.has_value(), sourceSize_),
        sourceDuration_);
  });
}

// ---- History -----------------------------------------------------------------------------------

void TimelineEditingSession::undo() {
  if (gestureBaseline_ || undoStack_.empty()) return;
  EditTimeline previous = std::move(undoStack_.back());
  undoStack_.pop_back();
  redoStack_.push_back(std::move(timeline_));
  timeline_ = std::move(previous);
  restoreSelections();
  message_.reset();
  announce(true, true);
}

void TimelineEditingSession::redo() {
  if (gestureBaseline_ || redoStack_.empty()) return;
  EditTimeline next = std::move(redoStack_.back());
  redoStack_.pop_back();
  pushUndo(std::move(timeline_));
  timeline_ = std::move(next);
  restoreSelections();
  message_.reset();
  announce(true, true);
}

// ---- External edits ----------------------------------------------------------------------------

bool TimelineEditingSession::applyExternalTimeline(const EditTimeline& external) {
  if (external == timeline_) {
    // The file now holds what is open, so an older change still waiting for a gesture is stale.
    pendingExternalTimeline_.reset();
    return false;
  }
  if (gestureBaseline_) {
    pendingExternalTimeline_ = external;
    message_ = editorMessageText(EditorMessageID::timelineExternalPending);
    notifyState();
    return false;
  }
  EditTimeline next = external;
  try {
    next.annotations = AnnotationTrackAssignment::reflow(next.annotations);
    TimelineValidator::validate(next, sourceDuration_);
  } catch (const Error& error) {
    message_ = editorMessageText(EditorMessageID::timelineExternalInvalid, error.what());
    notifyState();
    return false;
  }
  if (next == timeline_) return false;
  pushUndo(std::move(timeline_));
  redoStack_.clear();
  timeline_ = std::move(next);
  restoreSelections();
  message_ = editorMessageText(EditorMessageID::timelineExternalLoaded);
  announce(true, false);
  return true;
}

}  // namespace vumo
