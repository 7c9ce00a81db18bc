#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "shared/error.h"
#include "shared/geometry.h"
#include "shared/project_time.h"
#include "shared/uuid.h"
#include "timeline/edit_timeline.h"
#include "timeline/timeline_effect_error.h"
#include "timeline/timeline_validator.h"

namespace vumo {

// Half extents of the camera overlay in output fractions.
struct WebcamRadii {
  double horizontal = 0;
  double vertical = 0;
  friend bool operator==(const WebcamRadii&, const WebcamRadii&) = default;
};

// The effect tracks of a timeline: zooms, camera keyframes and full-screen camera segments, and
// where the camera overlay is at a given time. Every edit returns a new, validated timeline.
struct TimelineEffectEngine {
  // The document's limits, named where the edits use them.
  static constexpr ProjectTime minimumWebcamFullscreenDuration = TimelineValidator::minimumWebcamFullscreenDuration;
  static constexpr double minimumZoomScale = TimelineValidator::minimumZoomScale;
  static constexpr double maximumZoomScale = TimelineValidator::maximumZoomScale;
  static constexpr double minimumWebcamDiameter = TimelineValidator::minimumWebcamDiameter;
  static constexpr double maximumWebcamDiameter = TimelineValidator::maximumWebcamDiameter;

  // --- Zooms -----------------------------------------------------------------------------------
  // Replaces every zoom (sorted by start), then validates.
  static EditTimeline replaceZooms(const EditTimeline& timeline, std::vector<ZoomSegment> zooms,
                                   ProjectTime sourceDuration);
  // `index` counts the zooms in stored order; out of range is zoomIndexInvalid.
  static EditTimeline removeZoom(const EditTimeline& timeline, std::int64_t index, ProjectTime sourceDuration);
  static EditTimeline removeZoom(const EditTimeline& timeline, const Uuid& id, ProjectTime sourceDuration);
  // Moves one edge onto the grid within its neighbours; the ramps keep their lengths where they
  // fit and shrink in proportion where they do not.
  static EditTimeline updateZoomStart(const EditTimeline& timeline, const Uuid& id, ProjectTime startTime,
                                      ProjectTime sourceDuration);
  static EditTimeline updateZoomEnd(const EditTimeline& timeline, const Uuid& id, ProjectTime endTime,
                                    ProjectTime sourceDuration);
  // Clamps the scale to 1...3 and keeps the focus within the zoomed view.
  static EditTimeline updateZoomScale(const EditTimeline& timeline, const Uuid& id, double scale,
                                      ProjectTime sourceDuration);
  static EditTimeline updateZoomFocus(const EditTimeline& timeline, const Uuid& id, PointValue focus,
                                      ProjectTime sourceDuration);

  // See TimelineValidator::constrainedZoomFocus.
  static PointValue constrainedFocus(PointValue focus, double scale) {
    return TimelineValidator::constrainedZoomFocus(focus, scale);
  }
  // Equal counts and, in order, equal times, focus and scale; ids do not count.
  static bool hasSameZoomConfiguration(const std::vector<ZoomSegment>& a, const std::vector<ZoomSegment>& b);

  // --- Full-screen camera ---------------------------------------------------------------------
  static EditTimeline addWebcamFullscreen(const EditTimeline& timeline, ProjectTimeRange range,
                                          ProjectTime sourceDuration);
  static EditTimeline removeWebcamFullscreen(const EditTimeline& timeline, const Uuid& id, ProjectTime sourceDuration);
  static EditTimeline updateWebcamFullscreenStart(const EditTimeline& timeline, const Uuid& id, ProjectTime startTime,
                                                  ProjectTime sourceDuration);
  static EditTimeline updateWebcamFullscreenEnd(const EditTimeline& timeline, const Uuid& id, ProjectTime endTime,
                                                ProjectTime sourceDuration);

  // --- Camera overlay -------------------------------------------------------------------------
  // The overlay as shown at source time `time` on an output of aspect `outputAspectRatio` (width
  // over height): keyframes are eased with smoothstep, the diameter is clamped to 0.1...0.4 and
  // the centre kept inside the output by the overlay's radii. None without a base overlay.
  static std::optional<WebcamOverlay> webcamOverlay(const std::optional<WebcamOverlay>& base,
                                                    const std::vector<WebcamOverlayKeyframe>& keyframes,
                                                    ProjectTime time, double outputAspectRatio);
  // `diameter` is the camera's height as a share of the output's shorter side; `cameraAspectRatio`
  // is 1 for a square camera and 16/9 for the source shape. Both aspects are held at >= 0.01.
  static WebcamRadii webcamRadii(double diameter, double outputAspectRatio, double cameraAspectRatio);
  static double cameraAspectRatio(WebcamAspectRatio aspectRatio);
  // `center` limited per axis to radius ... 1 - radius for the given overlay size.
  static PointValue constrainedWebcamCenter(PointValue center, double diameter, double outputAspectRatio,
                                            WebcamAspectRatio aspectRatio);

  // Moves the overlay as seen at `time` to `point` by shifting the base and every keyframe by the
  // same offset, so that an animated camera keeps its path. A timeline without an overlay comes
  // back unchanged.
  static EditTimeline moveWebcamGlobally(const EditTimeline& timeline, ProjectTime time, PointValue point,
                                         double outputAspectRatio, ProjectTime sourceDuration);
  // Resizes the overlay as seen at `time` to `diameter` (clamped to 0.1...0.4) by changing the base
  // and every keyframe by the same amount.
  static EditTimeline resizeWebcamGlobally(const EditTimeline& timeline, ProjectTime time, double diameter,
                                           double outputAspectRatio, ProjectTime sourceDuration);
};

}  // namespace vumo
