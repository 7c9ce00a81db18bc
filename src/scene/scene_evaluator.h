#pragma once
// What is on screen at source time t. The evaluator takes a project's recorded data once and maps
// (t, edits, captions) to a SceneState. Preview, the still frame and export all evaluate through
// here, so they agree frame for frame.

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "captions/caption_document.h"
#include "project/cursor_records.h"
#include "project/geometry_sample.h"
#include "project/project_snapshot.h"
#include "scene/cursor_interpolator.h"
#include "scene/scene_state.h"
#include "shared/geometry.h"
#include "shared/project_time.h"
#include "timeline/edit_timeline.h"
#include "timeline/mouse_event.h"

namespace vumo {

// The part of an EditTimeline that affects pixels. Clips, speeds and the audio mix do not: they
// decide which source time plays, not what it looks like.
struct TimelineVisualEdits {
  CanvasEdit canvas;
  std::optional<DeviceFrameEdit> deviceFrame;
  CursorEdit cursor;
  std::optional<WebcamOverlay> webcamOverlay;
  std::vector<WebcamOverlayKeyframe> webcamKeyframes;
  std::vector<WebcamFullscreenSegment> webcamFullscreenSegments;
  std::vector<ZoomSegment> zooms;  // sorted by startTime, as normalised timelines are
  double motionBlurAmount = EditTimeline::defaultMotionBlurAmount;
  std::vector<AnnotationElement> annotations;

  // An absent override takes the timeline's own value; `overlay` may override with "no overlay".
  static TimelineVisualEdits from(const EditTimeline& timeline, std::optional<CanvasEdit> canvas = {},
                                  std::optional<std::optional<WebcamOverlay>> overlay = {});

  friend bool operator==(const TimelineVisualEdits&, const TimelineVisualEdits&) = default;
};

// Immutable once built: `evaluate` is const and may run on any thread at once.
class SceneEvaluator {
 public:
  // The full-screen camera always ramps over this long (or half its segment, if shorter).
  static constexpr std::int64_t webcamFullscreenTransitionNanoseconds = 300'000'000;
  // How long a click effect shows, by style.
  static constexpr std::int64_t solidPulseNanoseconds = 350'000'000;
  static constexpr std::int64_t ringNanoseconds = 500'000'000;

  explicit SceneEvaluator(const ProjectSnapshot& snapshot, std::optional<CanvasEdit> canvas = {});

  SceneState evaluate(ProjectTime sourceTime, const TimelineVisualEdits& edits, const CaptionDocument* captions) const;
  // With the snapshot's own edits (and canvas override) and captions.
  SceneState evaluate(ProjectTime sourceTime) const {
    return evaluate(sourceTime, defaultVisualEdits_, captions_ ? &*captions_ : nullptr);
  }

  const TimelineVisualEdits& defaultVisualEdits() const { return defaultVisualEdits_; }
  const CursorInterpolator& cursor() const { return cursor_; }
  // Left presses inside the source (or recorded before that was known), in stored order.
  const std::vector<MouseEvent>& clicks() const { return clicks_; }
  const std::vector<GeometrySample>& geometry() const { return geometry_; }
  const std::vector<CursorShapeSample>& cursorShapeSamples() const { return cursorShapeSamples_; }
  const CursorAssetDescriptor* cursorAsset(const std::string& id) const;
  const std::optional<CaptionDocument>& captions() const { return captions_; }
  // The manifest's encoded pixel size.
  PixelSize sourceSize() const { return sourceSize_; }
  bool hasWebcam() const { return hasWebcam_; }

  // --- The pieces of `evaluate`, each pure -----------------------------------------------------

  // The one easing of the program: an underdamped spring in absolute seconds, scaled to land on 1
  // at the end of the ramp. A short ramp shows only the start of the curve, a long one all of it.
  // A ramp of no length is complete at once.
  static double springProgress(std::int64_t elapsedNanoseconds, std::int64_t durationNanoseconds);
  // The camera of the zoom active at `time` (`zooms` sorted by startTime); identity outside zooms.
  // Zooms that touch pan from one target to the next without passing through identity.
  static CameraState cameraState(ProjectTime time, const std::vector<ZoomSegment>& zooms);
  // How far back the motion blur reaches: nothing at 0, one 60 fps frame at 0.5, 100 ms at 1.
  // Rounded half away from zero; an amount that is not a number counts as 0.
  static std::int64_t motionBlurShutterNanoseconds(double amount);
  // 0 (overlay) ... 1 (full screen). Segments are sorted here; touching ones stay at 1 across the
  // seam.
  static double webcamFullscreenProgress(ProjectTime time, const std::vector<WebcamFullscreenSegment>& segments,
                                         std::int64_t transitionNanoseconds);
  // The camera overlay shrinks to 80 % while the view is zoomed, in step with the camera.
  static double webcamZoomScale(ProjectTime time, const std::vector<ZoomSegment>& zooms, const CameraState& camera);
  // The content rectangle of the newest geometry sample at or before `time` (`geometry` sorted
  // by time), as a share of the encoded frame; the full frame without one.
  static ScreenState screenState(ProjectTime time, const std::vector<GeometrySample>& geometry);

 private:
  TimelineVisualEdits defaultVisualEdits_;
  CursorInterpolator cursor_;
  std::vector<MouseEvent> clicks_;
  std::vector<GeometrySample> geometry_;
  std::vector<CursorShapeSample> cursorShapeSamples_;
  std::unordered_map<std::string, CursorAssetDescriptor> cursorAssets_;
  std::optional<CaptionDocument> captions_;
  PixelSize sourceSize_;
  bool hasWebcam_ = false;
};

}  // namespace vumo
