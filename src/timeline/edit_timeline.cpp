#include "timeline/edit_timeline.h"

#include <algorithm>
#include <cmath>

#include "timeline/annotation_track_assignment.h"
#include "timeline/timeline_validator.h"

// The timeline document as a value: the exact reading of a playback rate, the output aspect of a
// canvas, and the repair that brings a document of any older schema to the current one. Its JSON
// form is in edit_timeline_json.cpp, the background presets in canvas_background_presets.cpp.

namespace vumo {

namespace {

double clampOr(double value, double low, double high, double fallback) {
  if (std::isnan(value)) return fallback;
  return std::clamp(value, low, high);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Playback rate

std::optional<TimelinePlaybackRate> TimelinePlaybackRate::fromMultiplier(double multiplier) {
  if (!std::isfinite(multiplier)) return std::nullopt;
  double product = multiplier * 1000.0;
  double rounded = std::round(product);
  if (std::fabs(rounded - product) >= 1e-6) return std::nullopt;
  // Range first: the cast below is only defined for values that fit.
  if (rounded < minimumPermille || rounded > maximumPermille) return std::nullopt;
  TimelinePlaybackRate rate{static_cast<std::int32_t>(rounded)};
  if (!rate.isValid()) return std::nullopt;
  return rate;
}

// ---------------------------------------------------------------------------------------------
// Canvas

double outputAspectRatio(CanvasAspectRatio value, double sourceAspectRatio) {
  switch (value) {
    case CanvasAspectRatio::source: return sourceAspectRatio;
    case CanvasAspectRatio::square: return 1.0;
    case CanvasAspectRatio::landscape16x9: return 16.0 / 9.0;
    case CanvasAspectRatio::portrait9x16: return 0.5625;
    case CanvasAspectRatio::portrait4x3: return 4.0 / 3.0;
    case CanvasAspectRatio::portrait3x4: return 0.75;
  }
  return sourceAspectRatio;
}

// ---------------------------------------------------------------------------------------------
// The document and its schema migration

EditTimeline EditTimeline::empty() { return EditTimeline{}; }

EditTimeline EditTimeline::normalized(ProjectTime sourceDuration, bool hasWebcam) const {
  EditTimeline result = *this;

  // What the stored schema did not have yet is dropped, whatever the document says.
  if (schemaVersion <= 4) result.webcamFullscreenSegments.clear();
  if (schemaVersion <= 5) result.motionBlurAmount = defaultMotionBlurAmount;
  if (schemaVersion <= 6) result.annotations.clear();
  if (schemaVersion <= 7) result.deviceFrame.reset();
  // A newer document stays as it is, so that the validator refuses it instead of this silently
  // discarding what it does not know.
  if (schemaVersion <= currentSchemaVersion) result.schemaVersion = currentSchemaVersion;

  if (result.segments.empty() && sourceDuration.nanoseconds >= 1)
    result.segments.push_back({Uuid::random(), {ProjectTime::zero(), sourceDuration}, TimelinePlaybackRate::normal()});

  if (!hasWebcam) {
    result.webcamOverlay.reset();
    result.webcamKeyframes.clear();
  } else if (!result.webcamOverlay) {
    result.webcamOverlay = WebcamOverlay::defaultValue();
  }

  std::erase_if(result.webcamKeyframes, [&](const WebcamOverlayKeyframe& keyframe) {
    return keyframe.time < ProjectTime::zero() || keyframe.time >= sourceDuration;
  });
  std::stable_sort(result.webcamKeyframes.begin(), result.webcamKeyframes.end(),
                   [](const auto& a, const auto& b) { return a.time < b.time; });
  std::stable_sort(result.webcamFullscreenSegments.begin(), result.webcamFullscreenSegments.end(),
                   [](const auto& a, const auto& b) { return a.startTime < b.startTime; });
  std::stable_sort(result.zooms.begin(), result.zooms.end(),
                   [](const auto& a, const auto& b) { return a.startTime < b.startTime; });

  result.annotations = AnnotationTrackAssignment::reflow(result.annotations);
  // Uuid ordering is by bytes, which is the order of the upper-case hexadecimal text.
  std::stable_sort(result.annotations.begin(), result.annotations.end(), [](const auto& a, const auto& b) {
    if (a.zIndex != b.zIndex) return a.zIndex < b.zIndex;
    if (a.startTime != b.startTime) return a.startTime < b.startTime;
    return a.id < b.id;
  });

  if (presetBackground(result.canvas.preset) != result.canvas.background)
    result.canvas.preset = defaultPreset(result.canvas.background);

  result.canvas.padding = clampOr(result.canvas.padding, 0.0, 0.18, 0.08);
  result.canvas.cornerRadius = clampOr(result.canvas.cornerRadius, 0.0, 0.08, 0.015);
  result.cursor.scale = clampOr(result.cursor.scale, 0.5, 3.0, 1.0);
  for (AudioTrackEdit* track : {&result.audioMix.systemAudio, &result.audioMix.microphone})
    track->gainDecibels =
        clampOr(track->gainDecibels, AudioMixEdit::minimumGainDecibels, AudioMixEdit::maximumGainDecibels, 0.0);
  return result;
}

}  // namespace vumo
