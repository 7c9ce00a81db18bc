#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <string>

#include "shared/json.h"
#include "timeline/edit_timeline.h"
#include "timeline/timeline_validator.h"

// The JSON form of the timeline document and its parts. Enumerations are written and read through
// their name tables; what is here is the shape of the objects and what an older document meant.

namespace vumo {

namespace {

// The camera overlay's shape before it had an aspect ratio and a corner radius.
enum class LegacyWebcamShape { circle, roundedRectangle };

}  // namespace

template <>
struct EnumNames<LegacyWebcamShape> {
  static constexpr std::string_view typeName = "camera shape";
  static constexpr NameTable<LegacyWebcamShape, 3> table{{
      {LegacyWebcamShape::circle, "circle"},
      {LegacyWebcamShape::roundedRectangle, "roundedRectangle"},
      {LegacyWebcamShape::roundedRectangle, "rounded-rectangle"},
  }};
};

namespace {

// A value that must be a JSON object; documents of the wrong shape fail with a clear message.
void requireObject(const Json& j, std::string_view what) {
  if (!j.is_object()) throw DecodingError(fmt::format("Expected an object for {}", what));
}

template <class T>
std::vector<T> decodeArray(const Json& object, std::string_view key) {
  std::vector<T> result;
  const Json* found = json::findKey(object, key);
  if (found == nullptr || found->is_null()) return result;
  json::requireArray(*found, key);
  result.reserve(found->size());
  for (const Json& element : *found) result.push_back(json::as<T>(element, key));
  return result;
}

Uuid idOrFresh(const Json& j) { return json::optional<Uuid>(j, "id").value_or(Uuid::random()); }

}  // namespace

// ---------------------------------------------------------------------------------------------
// Playback rate

void to_json(Json& j, const TimelinePlaybackRate& rate) { j = rate.multiplier(); }

void from_json(const Json& j, TimelinePlaybackRate& rate) {
  if (!j.is_number()) throw DecodingError(std::string(TimelinePlaybackRate::invalidText));
  auto parsed = TimelinePlaybackRate::fromMultiplier(j.get<double>());
  if (!parsed) throw DecodingError(std::string(TimelinePlaybackRate::invalidText));
  rate = *parsed;
}

// ---------------------------------------------------------------------------------------------
// Segment

void to_json(Json& j, const TimelineSegment& segment) {
  j = Json::object();
  j["id"] = segment.id;
  j["sourceRange"] = segment.sourceRange;
  j["playbackRate"] = segment.playbackRate;
}

void from_json(const Json& j, TimelineSegment& segment) {
  requireObject(j, "a timeline clip");
  segment.id = json::required<Uuid>(j, "id");
  segment.sourceRange = json::required<ProjectTimeRange>(j, "sourceRange");
  segment.playbackRate = json::valueOr<TimelinePlaybackRate>(j, "playbackRate", TimelinePlaybackRate::normal());
}

// ---------------------------------------------------------------------------------------------
// Canvas

void to_json(Json& j, const CanvasColorValue& color) {
  j = Json{{"red", color.red}, {"green", color.green}, {"blue", color.blue}};
}

void from_json(const Json& j, CanvasColorValue& color) {
  requireObject(j, "a colour");
  color.red = json::required<double>(j, "red");
  color.green = json::required<double>(j, "green");
  color.blue = json::required<double>(j, "blue");
}

void to_json(Json& j, const CanvasBackgroundImage& image) {
  j = Json::object();
  j["id"] = image.id;
  j["relativePath"] = image.relativePath;
  j["pixelSize"] = image.pixelSize;
  j["source"] = image.source;
  json::setOptional(j, "selectionID", image.selectionID);
  j["mediaKind"] = image.mediaKind;
  json::setOptional(j, "duration", image.duration);
}

void from_json(const Json& j, CanvasBackgroundImage& image) {
  requireObject(j, "a background image");
  image.id = json::required<std::string>(j, "id");
  image.relativePath = json::required<std::string>(j, "relativePath");
  image.pixelSize = json::required<PixelSize>(j, "pixelSize");
  image.source = json::required<CanvasBackgroundImageSource>(j, "source");
  image.selectionID = json::optional<std::string>(j, "selectionID");
  image.mediaKind = json::valueOr(j, "mediaKind", CanvasBackgroundMediaKind::image);
  image.duration = json::optional<double>(j, "duration");
}

void to_json(Json& j, const CanvasEdit& canvas) {
  j = Json::object();
  j["aspectRatio"] = canvas.aspectRatio;
  j["background"] = canvas.background;
  j["preset"] = canvas.preset;
  json::setOptional(j, "image", canvas.image);
  j["padding"] = canvas.padding;
  j["cornerRadius"] = canvas.cornerRadius;
}

void from_json(const Json& j, CanvasEdit& canvas) {
  requireObject(j, "the canvas");
  canvas.aspectRatio = json::valueOr(j, "aspectRatio", CanvasAspectRatio::landscape16x9);
  canvas.background = json::valueOr(j, "background", CanvasBackground::gradient);
  canvas.preset = json::valueOr(j, "preset", defaultPreset(canvas.background));
  canvas.image = json::optional<CanvasBackgroundImage>(j, "image");
  canvas.padding = json::valueOr(j, "padding", 0.08);
  // Documents written before the key existed were drawn with the larger radius.
  canvas.cornerRadius = json::valueOr(j, "cornerRadius", CanvasEdit::legacyCornerRadius);
}

// ---------------------------------------------------------------------------------------------
// Cursor

void to_json(Json& j, const CursorEdit& cursor) {
  j = Json::object();
  j["isVisible"] = cursor.isVisible;
  j["scale"] = cursor.scale;
  j["showsClickEffect"] = cursor.showsClickEffect;
  j["clickEffectStyle"] = cursor.clickEffectStyle;
}

void from_json(const Json& j, CursorEdit& cursor) {
  requireObject(j, "the cursor");
  const CursorEdit fallback;
  cursor.isVisible = json::valueOr(j, "isVisible", fallback.isVisible);
  cursor.scale = json::valueOr(j, "scale", fallback.scale);
  cursor.showsClickEffect = json::valueOr(j, "showsClickEffect", fallback.showsClickEffect);
  cursor.clickEffectStyle = json::valueOr(j, "clickEffectStyle", fallback.clickEffectStyle);
}

// ---------------------------------------------------------------------------------------------
// Camera overlay

void to_json(Json& j, const WebcamOverlay& overlay) {
  j = Json::object();
  j["isVisible"] = overlay.isVisible;
  j["center"] = overlay.center;
  j["diameter"] = overlay.diameter;
  j["isMirrored"] = overlay.isMirrored;
  j["aspectRatio"] = overlay.aspectRatio;
  j["cornerRadius"] = overlay.cornerRadius;
  j["showsBorder"] = overlay.showsBorder;
  j["borderWidthAt1080p"] = overlay.borderWidthAt1080p;
  j["showsShadow"] = overlay.showsShadow;
}

void from_json(const Json& j, WebcamOverlay& overlay) {
  requireObject(j, "the camera overlay");
  overlay.isVisible = json::required<bool>(j, "isVisible");
  overlay.center = json::required<PointValue>(j, "center");
  overlay.diameter = json::required<double>(j, "diameter");
  overlay.isMirrored = json::required<bool>(j, "isMirrored");

  if (auto aspect = json::optional<WebcamAspectRatio>(j, "aspectRatio")) {
    overlay.aspectRatio = *aspect;
    double radius = json::valueOr(j, "cornerRadius", 0.6);
    overlay.cornerRadius = std::isfinite(radius) ? std::clamp(radius, 0.0, 1.0) : 0.6;
  } else {
    // Before the overlay had an aspect ratio it was always square, a circle or a rounded square.
    LegacyWebcamShape shape = LegacyWebcamShape::circle;
    if (const Json* found = json::findKey(j, "shape"); found != nullptr && !found->is_null())
      shape = json::as<LegacyWebcamShape>(*found, "shape");
    overlay.aspectRatio = WebcamAspectRatio::square;
    overlay.cornerRadius = shape == LegacyWebcamShape::circle ? 1.0 : 0.6;
  }

  overlay.showsBorder = json::valueOr(j, "showsBorder", true);
  double border = json::valueOr(j, "borderWidthAt1080p", 10.0);
  overlay.borderWidthAt1080p = std::isfinite(border) ? std::clamp(border, 2.0, 20.0) : 10.0;
  overlay.showsShadow = json::valueOr(j, "showsShadow", true);
}

void to_json(Json& j, const WebcamOverlayKeyframe& keyframe) {
  j = Json::object();
  j["id"] = keyframe.id;
  j["time"] = keyframe.time;
  j["center"] = keyframe.center;
  j["diameter"] = keyframe.diameter;
}

void from_json(const Json& j, WebcamOverlayKeyframe& keyframe) {
  requireObject(j, "a camera keyframe");
  keyframe.id = idOrFresh(j);
  keyframe.time = json::required<ProjectTime>(j, "time");
  keyframe.center = json::required<PointValue>(j, "center");
  keyframe.diameter = json::required<double>(j, "diameter");
}

void to_json(Json& j, const WebcamFullscreenSegment& segment) {
  j = Json::object();
  j["id"] = segment.id;
  j["startTime"] = segment.startTime;
  j["endTime"] = segment.endTime;
}

void from_json(const Json& j, WebcamFullscreenSegment& segment) {
  requireObject(j, "a full-screen camera segment");
  segment.id = idOrFresh(j);
  segment.startTime = json::required<ProjectTime>(j, "startTime");
  segment.endTime = json::required<ProjectTime>(j, "endTime");
}

// ---------------------------------------------------------------------------------------------
// Audio

void to_json(Json& j, const AudioTrackEdit& track) {
  j = Json{{"isMuted", track.isMuted}, {"gainDecibels", track.gainDecibels}};
}

void from_json(const Json& j, AudioTrackEdit& track) {
  requireObject(j, "an audio track");
  track.isMuted = json::required<bool>(j, "isMuted");
  track.gainDecibels = json::required<double>(j, "gainDecibels");
}

void to_json(Json& j, const AudioMixEdit& mix) {
  j = Json{{"systemAudio", mix.systemAudio}, {"microphone", mix.microphone}};
}

void from_json(const Json& j, AudioMixEdit& mix) {
  requireObject(j, "the audio mix");
  mix.systemAudio = json::required<AudioTrackEdit>(j, "systemAudio");
  mix.microphone = json::required<AudioTrackEdit>(j, "microphone");
}

// ---------------------------------------------------------------------------------------------
// Device frame

void to_json(Json& j, const DeviceFrameEdit& frame) {
  j = Json{{"isEnabled", frame.isEnabled}, {"assetID", frame.assetID}, {"contentMode", frame.contentMode}};
}

void from_json(const Json& j, DeviceFrameEdit& frame) {
  requireObject(j, "the device frame");
  frame.isEnabled = json::required<bool>(j, "isEnabled");
  frame.assetID = json::required<std::string>(j, "assetID");
  frame.contentMode = json::valueOr(j, "contentMode", DeviceFrameContentMode::fit);
}

// ---------------------------------------------------------------------------------------------
// Zoom

void to_json(Json& j, const ZoomSegment& zoom) {
  j = Json::object();
  j["id"] = zoom.id;
  j["startTime"] = zoom.startTime;
  j["focusTime"] = zoom.focusTime;
  j["holdEndTime"] = zoom.holdEndTime;
  j["endTime"] = zoom.endTime;
  j["focusPoint"] = zoom.focusPoint;
  j["scale"] = zoom.scale;
}

void from_json(const Json& j, ZoomSegment& zoom) {
  requireObject(j, "a zoom");
  zoom.id = idOrFresh(j);
  zoom.startTime = json::required<ProjectTime>(j, "startTime");
  zoom.focusTime = json::required<ProjectTime>(j, "focusTime");
  zoom.holdEndTime = json::required<ProjectTime>(j, "holdEndTime");
  zoom.endTime = json::required<ProjectTime>(j, "endTime");
  zoom.focusPoint = json::required<PointValue>(j, "focusPoint");
  zoom.scale = json::required<double>(j, "scale");
}

// ---------------------------------------------------------------------------------------------
// Annotations

void to_json(Json& j, const TextAnnotationStyle& style) {
  j = Json{{"content", style.content},
           {"fontSize", style.fontSize},
           {"hasOutline", style.hasOutline},
           {"outlineColor", style.outlineColor}};
}

void from_json(const Json& j, TextAnnotationStyle& style) {
  requireObject(j, "a text style");
  style.content = json::required<std::string>(j, "content");
  style.fontSize = json::required<double>(j, "fontSize");
  style.hasOutline = json::required<bool>(j, "hasOutline");
  style.outlineColor = json::valueOr(j, "outlineColor", TextAnnotationOutlineColor::black);
}

void to_json(Json& j, const AnnotationElement& annotation) {
  j = Json::object();
  j["id"] = annotation.id;
  j["startTime"] = annotation.startTime;
  j["endTime"] = annotation.endTime;
  j["kind"] = annotation.kind;
  json::setOptional(j, "bounds", annotation.bounds);
  json::setOptional(j, "startPoint", annotation.startPoint);
  json::setOptional(j, "endPoint", annotation.endPoint);
  j["color"] = annotation.color;
  j["lineWidth"] = annotation.lineWidth;
  j["cornerRadius"] = annotation.cornerRadius;
  j["locksAspectRatio"] = annotation.locksAspectRatio;
  j["isFilled"] = annotation.isFilled;
  j["dimsOutside"] = annotation.dimsOutside;
  json::setOptional(j, "textStyle", annotation.textStyle);
  j["zIndex"] = annotation.zIndex;
  j["trackIndex"] = annotation.trackIndex;
}

void from_json(const Json& j, AnnotationElement& annotation) {
  requireObject(j, "an annotation");
  annotation.id = idOrFresh(j);
  annotation.startTime = json::required<ProjectTime>(j, "startTime");
  annotation.endTime = json::required<ProjectTime>(j, "endTime");
  annotation.kind = json::required<AnnotationKind>(j, "kind");
  annotation.bounds = json::optional<RectValue>(j, "bounds");
  annotation.startPoint = json::optional<PointValue>(j, "startPoint");
  annotation.endPoint = json::optional<PointValue>(j, "endPoint");
  annotation.color = json::valueOr(j, "color", AnnotationElement::defaultColor());
  annotation.lineWidth = json::valueOr(j, "lineWidth", 0.006);
  annotation.cornerRadius = json::valueOr(j, "cornerRadius", 0.0);
  annotation.locksAspectRatio = json::valueOr(j, "locksAspectRatio", false);
  annotation.isFilled = json::valueOr(j, "isFilled", false);
  annotation.dimsOutside = json::valueOr(j, "dimsOutside", false);
  annotation.textStyle = json::optional<TextAnnotationStyle>(j, "textStyle");
  if (annotation.kind == AnnotationKind::text && !annotation.textStyle)
    annotation.textStyle = TextAnnotationStyle::defaultValue();
  annotation.zIndex = json::valueOr<std::int64_t>(j, "zIndex", 0);
  annotation.trackIndex = json::valueOr<std::int64_t>(j, "trackIndex", 0);
}

// ---------------------------------------------------------------------------------------------
// The document

void to_json(Json& j, const EditTimeline& timeline) {
  j = Json::object();
  j["schemaVersion"] = timeline.schemaVersion;
  j["segments"] = timeline.segments;
  json::setOptional(j, "deviceFrame", timeline.deviceFrame);
  j["motionBlurAmount"] = timeline.motionBlurAmount;
  j["canvas"] = timeline.canvas;
  j["cursor"] = timeline.cursor;
  json::setOptional(j, "webcamOverlay", timeline.webcamOverlay);
  j["webcamKeyframes"] = timeline.webcamKeyframes;
  j["webcamFullscreenSegments"] = timeline.webcamFullscreenSegments;
  j["audioMix"] = timeline.audioMix;
  j["zooms"] = timeline.zooms;
  j["annotations"] = timeline.annotations;
}

void from_json(const Json& j, EditTimeline& timeline) {
  requireObject(j, "the timeline");
  timeline.schemaVersion = json::valueOr<std::int64_t>(j, "schemaVersion", 1);
  timeline.segments = decodeArray<TimelineSegment>(j, "segments");
  timeline.deviceFrame = json::optional<DeviceFrameEdit>(j, "deviceFrame");
  timeline.motionBlurAmount = json::valueOr(j, "motionBlurAmount", EditTimeline::defaultMotionBlurAmount);
  timeline.canvas = json::valueOr(j, "canvas", CanvasEdit::defaultValue());
  timeline.cursor = json::valueOr(j, "cursor", CursorEdit::defaultValue());
  timeline.webcamOverlay = json::optional<WebcamOverlay>(j, "webcamOverlay");
  timeline.webcamKeyframes = decodeArray<WebcamOverlayKeyframe>(j, "webcamKeyframes");
  timeline.webcamFullscreenSegments = decodeArray<WebcamFullscreenSegment>(j, "webcamFullscreenSegments");
  timeline.audioMix = json::valueOr(j, "audioMix", AudioMixEdit{});
  timeline.zooms = decodeArray<ZoomSegment>(j, "zooms");
  timeline.annotations = decodeArray<AnnotationElement>(j, "annotations");
}

EditTimeline decodeEditTimeline(std::string_view jsonText) {
  EditTimeline timeline = json::as<EditTimeline>(parseJson(jsonText), "timeline");
  // Commands address clips, zooms and annotations by id; a hand-edited document that repeats one
  // would decode into something no command could reach.
  TimelineValidator::requireUniqueIDs(timeline);
  return timeline;
}

std::string encodeEditTimeline(const EditTimeline& timeline) { return encodeDocument(Json(timeline)); }

}  // namespace vumo
