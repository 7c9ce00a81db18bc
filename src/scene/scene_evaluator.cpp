#include "scene/scene_evaluator.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <iterator>
#include <limits>
#include <utility>

#include "timeline/timeline_effect_engine.h"

namespace vumo {

namespace {

// --- Zooms -----------------------------------------------------------------------------------

CameraState target(const ZoomSegment& zoom) { return {zoom.focusPoint, zoom.scale}; }

CameraState interpolate(const CameraState& from, const CameraState& to, double progress) {
  return {{from.center.x + (to.center.x - from.center.x) * progress,
           from.center.y + (to.center.y - from.center.y) * progress},
          from.scale + (to.scale - from.scale) * progress};
}

// Saturating: recorded click times come from files and may lie anywhere in the 64-bit range.
std::int64_t elapsed(ProjectTime later, ProjectTime earlier) {
  std::int64_t difference = 0;
  if (__builtin_sub_overflow(later.nanoseconds, earlier.nanoseconds, &difference))
    return later.nanoseconds < earlier.nanoseconds ? std::numeric_limits<std::int64_t>::min()
                                                   : std::numeric_limits<std::int64_t>::max();
  return difference;
}

// The newest zoom with startTime <= time < endTime; none outside every zoom.
std::optional<std::size_t> activeZoom(ProjectTime time, const std::vector<ZoomSegment>& zooms) {
  for (std::size_t i = zooms.size(); i-- > 0;)
    if (zooms[i].startTime <= time && time < zooms[i].endTime) return i;
  return std::nullopt;
}

// From the hold of `a` to the focus of `b` when `b` starts where `a` ends.
std::optional<CameraState> touchingTransition(ProjectTime time, const ZoomSegment& a, const ZoomSegment& b) {
  if (a.endTime != b.startTime || time < a.holdEndTime || time > b.focusTime) return std::nullopt;
  const std::int64_t length = elapsed(b.focusTime, a.holdEndTime);
  if (length <= 0) return target(b);
  return interpolate(target(a), target(b), SceneEvaluator::springProgress(elapsed(time, a.holdEndTime), length));
}

// 1 unzoomed, 0.8 once the camera has reached a zoom of scale `scale`.
double shrinkFor(double scale, const CameraState& camera) {
  if (scale - 1 <= 0) return 1;
  const double p = (camera.scale - 1) / (scale - 1);
  return p <= 0 ? 1 : 1 - 0.2 * std::min(p, 1.0);
}

double webcamTransitionScale(const ZoomSegment& a, const ZoomSegment& b, const CameraState& camera) {
  // Panning from one zoom straight to another keeps the overlay small throughout.
  if (a.scale > 1 && b.scale > 1) return 0.8;
  return shrinkFor(std::max(a.scale, b.scale), camera);
}

// --- Sorted lookups --------------------------------------------------------------------------

// The last element with time <= `time` of a list sorted by time; null if there is none.
template <class T>
const T* newestAtOrBefore(const std::vector<T>& items, ProjectTime time) {
  auto after =
      std::upper_bound(items.begin(), items.end(), time, [](ProjectTime t, const T& item) { return t < item.time; });
  return after == items.begin() ? nullptr : &*std::prev(after);
}

PointValue throughCamera(PointValue point, const CameraState& camera) {
  return {camera.scale * (point.x - camera.center.x) + 0.5, camera.scale * (point.y - camera.center.y) + 0.5};
}

double clampedOr(double value, double low, double high, double fallback) {
  return std::isfinite(value) ? std::clamp(value, low, high) : fallback;
}

std::int64_t clickEffectNanoseconds(ClickEffectStyle style) {
  return style == ClickEffectStyle::solidPulse ? SceneEvaluator::solidPulseNanoseconds
                                               : SceneEvaluator::ringNanoseconds;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Visual edits

TimelineVisualEdits TimelineVisualEdits::from(const EditTimeline& timeline, std::optional<CanvasEdit> canvas,
                                              std::optional<std::optional<WebcamOverlay>> overlay) {
  TimelineVisualEdits edits;
  edits.canvas = canvas ? std::move(*canvas) : timeline.canvas;
  edits.deviceFrame = timeline.deviceFrame;
  edits.cursor = timeline.cursor;
  edits.webcamOverlay = overlay ? std::move(*overlay) : timeline.webcamOverlay;
  edits.webcamKeyframes = timeline.webcamKeyframes;
  edits.webcamFullscreenSegments = timeline.webcamFullscreenSegments;
  edits.zooms = timeline.zooms;
  edits.motionBlurAmount = timeline.motionBlurAmount;
  edits.annotations = timeline.annotations;
  return edits;
}

// ---------------------------------------------------------------------------------------------
// Construction

SceneEvaluator::SceneEvaluator(const ProjectSnapshot& snapshot, std::optional<CanvasEdit> canvas)
    : defaultVisualEdits_(TimelineVisualEdits::from(snapshot.timeline, std::move(canvas))),
      cursor_(snapshot.mouseEvents),
      geometry_(snapshot.geometry),
      cursorShapeSamples_(snapshot.cursorShapeSamples),
      captions_(snapshot.captions),
      sourceSize_(snapshot.manifest.encodedPixelSize),
      hasWebcam_(snapshot.manifest.webcam.has_value()) {
  for (const MouseEvent& event : snapshot.mouseEvents)
    if (event.isLeftPress() && event.isVisibleInsideSource()) clicks_.push_back(event);
  std::stable_sort(geometry_.begin(), geometry_.end(),
                   [](const GeometrySample& a, const GeometrySample& b) { return a.time < b.time; });
  std::stable_sort(cursorShapeSamples_.begin(), cursorShapeSamples_.end(),
                   [](const CursorShapeSample& a, const CursorShapeSample& b) { return a.time < b.time; });
  // The first descriptor of an id wins; ids are digests of the image, so duplicates are equal.
  for (const CursorAssetPayload& asset : snapshot.cursorAssets)
    cursorAssets_.emplace(asset.descriptor.id, asset.descriptor);
}

const CursorAssetDescriptor* SceneEvaluator::cursorAsset(const std::string& id) const {
  auto found = cursorAssets_.find(id);
  return found == cursorAssets_.end() ? nullptr : &found->second;
}

// ---------------------------------------------------------------------------------------------
// The pieces

double SceneEvaluator::springProgress(std::int64_t elapsedNanoseconds, std::int64_t durationNanoseconds) {
  if (durationNanoseconds <= 0) return elapsedNanoseconds >= 0 ? 1.0 : 0.0;
  const double p =
      std::clamp(static_cast<double>(elapsedNanoseconds) / static_cast<double>(durationNanoseconds), 0.0, 1.0);
  if (p == 0.0 || p == 1.0) return p;
  const double seconds = static_cast<double>(durationNanoseconds) / 1e9;
  auto spring = [](double x) {
    return 1 - std::exp(-8.88888888888889 * x) *
                   (std::cos(3.1426968052735456 * x) + 2.8284271247461894 * std::sin(3.1426968052735456 * x));
  };
  const double end = spring(seconds);
  if (end <= 2.220446049250313e-16) return p;
  return std::clamp(spring(seconds * p) / end, 0.0, 1.0);
}

CameraState SceneEvaluator::cameraState(ProjectTime time, const std::vector<ZoomSegment>& zooms) {
  const std::optional<std::size_t> active = activeZoom(time, zooms);
  if (!active) return CameraState::identity();
  const std::size_t i = *active;
  const ZoomSegment& z = zooms[i];
  if (i > 0)
    if (auto state = touchingTransition(time, zooms[i - 1], z)) return *state;
  if (i + 1 < zooms.size())
    if (auto state = touchingTransition(time, z, zooms[i + 1])) return *state;
  if (time <= z.focusTime)
    return interpolate(
        CameraState::identity(), target(z),
        springProgress(elapsed(time, z.startTime), std::max<std::int64_t>(elapsed(z.focusTime, z.startTime), 1)));
  if (time <= z.holdEndTime) return target(z);
  return interpolate(
      target(z), CameraState::identity(),
      springProgress(elapsed(time, z.holdEndTime), std::max<std::int64_t>(elapsed(z.endTime, z.holdEndTime), 1)));
}

std::int64_t SceneEvaluator::motionBlurShutterNanoseconds(double amount) {
  if (!(amount > 0)) return 0;  // also a value that is not a number
  const double a = std::min(amount, 1.0);
  // std::round rounds halves away from zero.
  const double shutter =
      a <= 0.5 ? std::round(2 * a * 16666667.0) : std::round(2 * (a - 0.5) * 83333333.0 + 16666667.0);
  return static_cast<std::int64_t>(shutter);
}

double SceneEvaluator::webcamFullscreenProgress(ProjectTime time, const std::vector<WebcamFullscreenSegment>& segments,
                                                std::int64_t transitionNanoseconds) {
  auto byStart = [](const WebcamFullscreenSegment& a, const WebcamFullscreenSegment& b) {
    return a.startTime < b.startTime;
  };
  // Normalised timelines keep the segments sorted; only an unsorted list is copied.
  std::vector<WebcamFullscreenSegment> copy;
  const std::vector<WebcamFullscreenSegment>* sorted = &segments;
  if (!std::is_sorted(segments.begin(), segments.end(), byStart)) {
    copy = segments;
    std::stable_sort(copy.begin(), copy.end(), byStart);
    sorted = &copy;
  }
  const std::vector<WebcamFullscreenSegment>& list = *sorted;
  for (std::size_t i = list.size(); i-- > 0;) {
    const WebcamFullscreenSegment& s = list[i];
    if (!(s.startTime <= time && time < s.endTime)) continue;
    const std::int64_t ramp = std::min(elapsed(s.endTime, s.startTime) / 2, transitionNanoseconds);
    const bool touchesPrevious = i > 0 && list[i - 1].endTime == s.startTime;
    const bool touchesNext = i + 1 < list.size() && list[i + 1].startTime == s.endTime;
    if (touchesPrevious && touchesNext) return 1;
    const std::int64_t rampLength = std::max<std::int64_t>(ramp, 1);
    if (!touchesPrevious && time < s.startTime + ProjectTime{ramp})
      return springProgress(elapsed(time, s.startTime), rampLength);
    if (!touchesNext && time > s.endTime - ProjectTime{ramp})
      return 1 - springProgress(elapsed(time, s.endTime - ProjectTime{ramp}), rampLength);
    return 1;
  }
  return 0;
}

double SceneEvaluator::webcamZoomScale(ProjectTime time, const std::vector<ZoomSegment>& zooms,
                                       const CameraState& camera) {
  const std::optional<std::size_t> active = activeZoom(time, zooms);
  if (!active) return 1;
  const std::size_t i = *active;
  const ZoomSegment& z = zooms[i];
  if (i > 0 && zooms[i - 1].endTime == z.startTime && time <= z.focusTime)
    return webcamTransitionScale(zooms[i - 1], z, camera);
  if (i + 1 < zooms.size() && zooms[i + 1].startTime == z.endTime && time >= z.holdEndTime)
    return webcamTransitionScale(z, zooms[i + 1], camera);
  return shrinkFor(z.scale, camera);
}

ScreenState SceneEvaluator::screenState(ProjectTime time, const std::vector<GeometrySample>& geometry) {
  const GeometrySample* sample = newestAtOrBefore(geometry, time);
  if (sample == nullptr || sample->encodedPixelSize.width <= 0 || sample->encodedPixelSize.height <= 0)
    return ScreenState::fullFrame();
  const double width = static_cast<double>(sample->encodedPixelSize.width);
  const double height = static_cast<double>(sample->encodedPixelSize.height);
  const RectValue& content = sample->contentRectInEncodedFrame;
  return {{content.x / width, content.y / height, content.width / width, content.height / height}};
}

// ---------------------------------------------------------------------------------------------
// Evaluation

SceneState SceneEvaluator::evaluate(ProjectTime sourceTime, const TimelineVisualEdits& edits,
                                    const CaptionDocument* captions) const {
  const ProjectTime t = sourceTime;
  SceneState state;
  state.time = t;

  state.camera = cameraState(t, edits.zooms);
  const std::int64_t shutter = motionBlurShutterNanoseconds(edits.motionBlurAmount);
  const ProjectTime shutterOpen = t.nanoseconds > shutter ? ProjectTime{t.nanoseconds - shutter} : ProjectTime::zero();
  const CameraState previous = cameraState(shutterOpen, edits.zooms);
  if (previous != state.camera) state.motionBlurCamera = previous;

  CursorState& cursor = state.cursor;
  cursor.sourcePosition = cursor_.position(t);
  cursor.outputPosition = throughCamera(cursor.sourcePosition, state.camera);
  if (const CursorShapeSample* shape = newestAtOrBefore(cursorShapeSamples_, t)) {
    cursor.assetID = shape->assetID;
    if (const CursorAssetDescriptor* descriptor = cursorAsset(shape->assetID)) {
      cursor.logicalSize = descriptor->logicalSize;
      cursor.hotSpot = descriptor->hotSpot;
    }
  }
  cursor.visible = edits.cursor.isVisible && cursor_.isVisible(t);
  cursor.scale = edits.cursor.scale;

  // A source of unknown size is taken as the common 16:9.
  const double sourceAspect = sourceSize_.width > 0 && sourceSize_.height > 0
                                  ? static_cast<double>(sourceSize_.width) / static_cast<double>(sourceSize_.height)
                                  : 16.0 / 9.0;
  const double outputAspect = outputAspectRatio(edits.canvas.aspectRatio, sourceAspect);
  const std::optional<WebcamOverlay> overlay =
      TimelineEffectEngine::webcamOverlay(edits.webcamOverlay, edits.webcamKeyframes, t, outputAspect);
  const double fullscreenProgress =
      webcamFullscreenProgress(t, edits.webcamFullscreenSegments, webcamFullscreenTransitionNanoseconds);
  const double zoomScale = webcamZoomScale(t, edits.zooms, state.camera);
  // The shrink fades out as the camera goes full screen.
  const double diameterScale = (1 - fullscreenProgress) * (zoomScale - 1) + 1;

  state.screen = screenState(t, geometry_);
  state.canvas = edits.canvas;
  state.deviceFrame = edits.deviceFrame;

  if (hasWebcam_ && overlay) {
    WebcamState webcam;
    webcam.center = {std::clamp(overlay->center.x, 0.0, 1.0), std::clamp(overlay->center.y, 0.0, 1.0)};
    webcam.diameter = std::clamp(overlay->diameter, 0.1, 0.4) * diameterScale;
    webcam.isMirrored = overlay->isMirrored;
    webcam.visible = overlay->isVisible;
    webcam.aspectRatio = overlay->aspectRatio;
    webcam.cornerRadius = clampedOr(overlay->cornerRadius, 0, 1, 0.6);
    webcam.showsBorder = overlay->showsBorder;
    webcam.borderWidthAt1080p = clampedOr(overlay->borderWidthAt1080p, 2, 20, 10);
    webcam.showsShadow = overlay->showsShadow;
    webcam.fullscreenProgress = std::clamp(fullscreenProgress, 0.0, 1.0);
    state.webcam = webcam;
  }

  if (edits.cursor.showsClickEffect) {
    const ClickEffectStyle style = edits.cursor.clickEffectStyle;
    const std::int64_t duration = clickEffectNanoseconds(style);
    // Clicks are in stored order, not necessarily sorted, so every one is looked at; the newest
    // in that order wins, and only one effect shows at a time.
    for (std::size_t i = clicks_.size(); i-- > 0;) {
      const MouseEvent& click = clicks_[i];
      if (click.time > t) continue;
      const std::int64_t age = elapsed(t, click.time);
      if (age > duration) continue;
      // The click stays where it happened in the source; the effect follows the camera.
      state.clickEffect = ClickEffectState{throughCamera(click.normalizedPoint, state.camera),
                                           static_cast<double>(age) / static_cast<double>(duration), style};
      break;
    }
  }

  std::vector<std::pair<std::string, const AnnotationElement*>> active;
  for (const AnnotationElement& annotation : edits.annotations)
    if (annotation.startTime <= t && t < annotation.endTime) active.emplace_back(annotation.id.string(), &annotation);
  std::sort(active.begin(), active.end(), [](const auto& a, const auto& b) {
    if (a.second->zIndex != b.second->zIndex) return a.second->zIndex < b.second->zIndex;
    return a.first < b.first;
  });
  state.annotations.reserve(active.size());
  for (const auto& [key, annotation] : active) state.annotations.push_back(*annotation);

  if (captions != nullptr && captions->style.isEnabled) {
    for (std::size_t i = captions->cues.size(); i-- > 0;) {
      const CaptionCue& cue = captions->cues[i];
      if (!(cue.start <= t && t < cue.end)) continue;
      const CaptionStyle& style = captions->style;
      state.caption = CaptionState{cue.id,
                                   cue.text,
                                   cue.highlights,
                                   style.appearance,
                                   style.maximumLines,
                                   style.fontScale,
                                   style.bottomPosition};
      break;
    }
  }
  return state;
}

}  // namespace vumo
