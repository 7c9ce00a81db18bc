#include "timeline/edit_timeline.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include "shared/json.h"
#include "shared/name_table.h"
#include "timeline/annotation_track_assignment.h"
#include "timeline/timeline_validator.h"

namespace vumo {

namespace {

const char* const playbackRateText = "Playback speed must be a finite value from 0.50 to 4.00 in increments of 0.01.";

template <class E, std::size_t N>
E decodeName(const NameTable<E, N>& table, const Json& j, std::string_view typeName) {
  std::string text = json::asString(j, typeName);
  auto parsed = parseName(table, text);
  if (!parsed) throw DecodingError(fmt::format("Unsupported {}: {}", typeName, text));
  return *parsed;
}

constexpr NameTable<CanvasAspectRatio, 6> aspectRatioNames{{
    {CanvasAspectRatio::source, "source"},
    {CanvasAspectRatio::square, "1:1"},
    {CanvasAspectRatio::landscape16x9, "16:9"},
    {CanvasAspectRatio::portrait9x16, "9:16"},
    {CanvasAspectRatio::portrait4x3, "4:3"},
    {CanvasAspectRatio::portrait3x4, "3:4"},
}};

constexpr NameTable<CanvasBackground, 2> backgroundNames{{
    {CanvasBackground::solid, "solid"},
    {CanvasBackground::gradient, "gradient"},
}};

struct PresetEntry {
  CanvasBackgroundPreset preset;
  std::string_view name;
  int start[3];
  int end[3];
};

constexpr std::array<PresetEntry, 24> presetTable{{
    {CanvasBackgroundPreset::midnightViolet, "midnight-violet", {14, 19, 31}, {51, 26, 82}},
    {CanvasBackgroundPreset::deepOcean, "deep-ocean", {15, 23, 42}, {22, 78, 99}},
    {CanvasBackgroundPreset::graphite, "graphite", {17, 24, 39}, {55, 65, 81}},
    {CanvasBackgroundPreset::dusk, "dusk", {42, 18, 21}, {124, 45, 18}},
    {CanvasBackgroundPreset::darkRose, "dark-rose", {41, 18, 30}, {131, 24, 67}},
    {CanvasBackgroundPreset::forestGradient, "forest-gradient", {5, 46, 43}, {20, 83, 45}},
    {CanvasBackgroundPreset::mintSky, "mint-sky", {167, 243, 208}, {186, 230, 253}},
    {CanvasBackgroundPreset::lavenderMist, "lavender-mist", {221, 214, 254}, {251, 207, 232}},
    {CanvasBackgroundPreset::warmSunrise, "warm-sunrise", {253, 230, 138}, {252, 165, 165}},
    {CanvasBackgroundPreset::aurora, "aurora", {14, 165, 233}, {139, 92, 246}},
    {CanvasBackgroundPreset::coralSunset, "coral-sunset", {251, 113, 133}, {253, 186, 116}},
    {CanvasBackgroundPreset::electricLime, "electric-lime", {34, 197, 94}, {217, 249, 157}},
    {CanvasBackgroundPreset::midnight, "midnight", {14, 19, 31}, {14, 19, 31}},
    {CanvasBackgroundPreset::charcoal, "charcoal", {24, 24, 27}, {24, 24, 27}},
    {CanvasBackgroundPreset::navy, "navy", {23, 37, 84}, {23, 37, 84}},
    {CanvasBackgroundPreset::plum, "plum", {46, 16, 101}, {46, 16, 101}},
    {CanvasBackgroundPreset::forest, "forest", {5, 46, 43}, {5, 46, 43}},
    {CanvasBackgroundPreset::warmGray, "warm-gray", {41, 37, 36}, {41, 37, 36}},
    {CanvasBackgroundPreset::snow, "snow", {248, 250, 252}, {248, 250, 252}},
    {CanvasBackgroundPreset::pearl, "pearl", {245, 243, 255}, {245, 243, 255}},
    {CanvasBackgroundPreset::sand, "sand", {254, 243, 199}, {254, 243, 199}},
    {CanvasBackgroundPreset::sky, "sky", {56, 189, 248}, {56, 189, 248}},
    {CanvasBackgroundPreset::coral, "coral", {251, 113, 133}, {251, 113, 133}},
    {CanvasBackgroundPreset::lime, "lime", {132, 204, 22}, {132, 204, 22}},
}};

constexpr std::size_t gradientPresetCount = 12;

const PresetEntry& presetEntry(CanvasBackgroundPreset preset) {
  return presetTable[static_cast<std::size_t>(preset) % presetTable.size()];
}

constexpr NameTable<CanvasBackgroundImageSource, 3> imageSourceNames{{
    {CanvasBackgroundImageSource::bundledLandscape, "bundled-landscape"},
    {CanvasBackgroundImageSource::desktopWallpaper, "desktop-wallpaper"},
    {CanvasBackgroundImageSource::uploaded, "uploaded"},
}};

constexpr NameTable<CanvasBackgroundMediaKind, 2> mediaKindNames{{
    {CanvasBackgroundMediaKind::image, "image"},
    {CanvasBackgroundMediaKind::video, "video"},
}};

constexpr NameTable<ClickEffectStyle, 3> clickEffectNames{{
    {ClickEffectStyle::solidPulse, "solid-pulse"},
    {ClickEffectStyle::ring, "ring"},
    {ClickEffectStyle::ringAndPress, "ring-and-press"},
}};

constexpr NameTable<WebcamAspectRatio, 2> webcamAspectNames{{
    {WebcamAspectRatio::source, "source"},
    {WebcamAspectRatio::square, "square"},
}};

constexpr NameTable<DeviceFrameContentMode, 2> contentModeNames{{
    {DeviceFrameContentMode::fit, "fit"},
    {DeviceFrameContentMode::fill, "fill"},
}};

constexpr NameTable<AnnotationKind, 5> annotationKindNames{{
    {AnnotationKind::rectangle, "rectangle"},
    {AnnotationKind::circle, "circle"},
    {AnnotationKind::arrow, "arrow"},
    {AnnotationKind::mosaic, "mosaic"},
    {AnnotationKind::text, "text"},
}};

constexpr NameTable<TextAnnotationOutlineColor, 2> outlineColorNames{{
    {TextAnnotationOutlineColor::black, "black"},
    {TextAnnotationOutlineColor::white, "white"},
}};

// The camera overlay's shape before it had an aspect ratio and a corner radius.
enum class LegacyWebcamShape { circle, roundedRectangle };

constexpr NameTable<LegacyWebcamShape, 3> legacyShapeNames{{
    {LegacyWebcamShape::circle, "circle"},
    {LegacyWebcamShape::roundedRectangle, "roundedRectangle"},
    {LegacyWebcamShape::roundedRectangle, "rounded-rectangle"},
}};

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

void to_json(Json& j, const TimelinePlaybackRate& rate) { j = rate.multiplier(); }

void from_json(const Json& j, TimelinePlaybackRate& rate) {
  if (!j.is_number()) throw DecodingError(playbackRateText);
  auto parsed = TimelinePlaybackRate::fromMultiplier(j.get<double>());
  if (!parsed) throw DecodingError(playbackRateText);
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

std::string_view jsonString(CanvasAspectRatio value) { return nameOf(aspectRatioNames, value); }
std::optional<CanvasAspectRatio> parseCanvasAspectRatio(std::string_view text) {
  return parseName(aspectRatioNames, text);
}
void to_json(Json& j, CanvasAspectRatio value) { j = std::string(jsonString(value)); }
void from_json(const Json& j, CanvasAspectRatio& value) {
  value = decodeName(aspectRatioNames, j, "canvas aspect ratio");
}

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

std::string_view jsonString(CanvasBackground value) { return nameOf(backgroundNames, value); }
std::optional<CanvasBackground> parseCanvasBackground(std::string_view text) {
  return parseName(backgroundNames, text);
}
void to_json(Json& j, CanvasBackground value) { j = std::string(jsonString(value)); }
void from_json(const Json& j, CanvasBackground& value) { value = decodeName(backgroundNames, j, "canvas background"); }

const std::array<CanvasBackgroundPreset, 24>& allCanvasBackgroundPresets() {
  static constexpr std::array<CanvasBackgroundPreset, 24> all = [] {
    std::array<CanvasBackgroundPreset, 24> presets{};
    for (std::size_t i = 0; i < presets.size(); ++i) presets[i] = presetTable[i].preset;
    return presets;
  }();
  return all;
}

std::string_view jsonString(CanvasBackgroundPreset value) { return presetEntry(value).name; }

std::optional<CanvasBackgroundPreset> parseCanvasBackgroundPreset(std::string_view text) {
  for (const auto& entry : presetTable)
    if (entry.name == text) return entry.preset;
  return std::nullopt;
}

CanvasBackgroundPresetColors presetColors(CanvasBackgroundPreset value) {
  const auto& entry = presetEntry(value);
  return {CanvasColorValue::fromRGB8(entry.start[0], entry.start[1], entry.start[2]),
          CanvasColorValue::fromRGB8(entry.end[0], entry.end[1], entry.end[2])};
}

CanvasBackground presetBackground(CanvasBackgroundPreset value) {
  return static_cast<std::size_t>(value) < gradientPresetCount ? CanvasBackground::gradient : CanvasBackground::solid;
}

CanvasBackgroundPreset defaultPreset(CanvasBackground background) {
  return background == CanvasBackground::gradient ? CanvasBackgroundPreset::midnightViolet
                                                  : CanvasBackgroundPreset::midnight;
}

void to_json(Json& j, CanvasBackgroundPreset value) { j = std::string(jsonString(value)); }

void from_json(const Json& j, CanvasBackgroundPreset& value) {
  std::string text = json::asString(j, "preset");
  auto parsed = parseCanvasBackgroundPreset(text);
  if (!parsed) throw DecodingError("Unsupported canvas background preset: " + text);
  value = *parsed;
}

std::string_view jsonString(CanvasBackgroundImageSource value) { return nameOf(imageSourceNames, value); }
std::optional<CanvasBackgroundImageSource> parseCanvasBackgroundImageSource(std::string_view text) {
  return parseName(imageSourceNames, text);
}
void to_json(Json& j, CanvasBackgroundImageSource value) { j = std::string(jsonString(value)); }
void from_json(const Json& j, CanvasBackgroundImageSource& value) {
  value = decodeName(imageSourceNames, j, "background image source");
}

std::string_view jsonString(CanvasBackgroundMediaKind value) { return nameOf(mediaKindNames, value); }
std::optional<CanvasBackgroundMediaKind> parseCanvasBackgroundMediaKind(std::string_view text) {
  return parseName(mediaKindNames, text);
}
void to_json(Json& j, CanvasBackgroundMediaKind value) { j = std::string(jsonString(value)); }
void from_json(const Json& j, CanvasBackgroundMediaKind& value) {
  value = decodeName(mediaKindNames, j, "background media kind");
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

std::string_view jsonString(ClickEffectStyle value) { return nameOf(clickEffectNames, value); }

std::optional<ClickEffectStyle> parseClickEffectStyle(std::string_view text) {
  if (text == "soft-glow") return ClickEffectStyle::solidPulse;
  return parseName(clickEffectNames, text);
}

void to_json(Json& j, ClickEffectStyle value) { j = std::string(jsonString(value)); }

void from_json(const Json& j, ClickEffectStyle& value) {
  std::string text = json::asString(j, "clickEffectStyle");
  auto parsed = parseClickEffectStyle(text);
  if (!parsed) throw DecodingError("Unsupported click effect style: " + text);
  value = *parsed;
}

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

std::string_view jsonString(WebcamAspectRatio value) { return nameOf(webcamAspectNames, value); }
std::optional<WebcamAspectRatio> parseWebcamAspectRatio(std::string_view text) {
  return parseName(webcamAspectNames, text);
}
void to_json(Json& j, WebcamAspectRatio value) { j = std::string(jsonString(value)); }
void from_json(const Json& j, WebcamAspectRatio& value) {
  value = decodeName(webcamAspectNames, j, "camera aspect ratio");
}

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
      shape = decodeName(legacyShapeNames, *found, "camera shape");
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

std::string_view jsonString(DeviceFrameContentMode value) { return nameOf(contentModeNames, value); }
std::optional<DeviceFrameContentMode> parseDeviceFrameContentMode(std::string_view text) {
  return parseName(contentModeNames, text);
}
void to_json(Json& j, DeviceFrameContentMode value) { j = std::string(jsonString(value)); }
void from_json(const Json& j, DeviceFrameContentMode& value) {
  value = decodeName(contentModeNames, j, "device frame content mode");
}

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

std::string_view jsonString(AnnotationKind value) { return nameOf(annotationKindNames, value); }
std::optional<AnnotationKind> parseAnnotationKind(std::string_view text) {
  return parseName(annotationKindNames, text);
}
void to_json(Json& j, AnnotationKind value) { j = std::string(jsonString(value)); }
void from_json(const Json& j, AnnotationKind& value) { value = decodeName(annotationKindNames, j, "annotation kind"); }

std::string_view jsonString(TextAnnotationOutlineColor value) { return nameOf(outlineColorNames, value); }
std::optional<TextAnnotationOutlineColor> parseTextAnnotationOutlineColor(std::string_view text) {
  return parseName(outlineColorNames, text);
}
void to_json(Json& j, TextAnnotationOutlineColor value) { j = std::string(jsonString(value)); }
void from_json(const Json& j, TextAnnotationOutlineColor& value) {
  value = decodeName(outlineColorNames, j, "text outline colour");
}

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
  TimelineValidator::requireUniqueIDs(timeline);
  return timeline;
}

std::string encodeEditTimeline(const EditTimeline& timeline) { return encodeDocument(Json(timeline)); }

}  // namespace vumo
