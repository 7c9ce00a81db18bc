#pragma once

// The edit document of one recording (`edits/timeline.json`). Every field is a plain value; the
// engines take one EditTimeline and return the next. All times are source times.

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "shared/geometry.h"
#include "shared/json_fwd.h"
#include "shared/project_time.h"
#include "shared/uuid.h"
#include "timeline/timeline_frame_grid.h"

namespace vumo {

// ---------------------------------------------------------------------------------------------
// Playback rate

// An integer rate in permille so that all rate arithmetic stays exact. JSON: the bare multiplier.
struct TimelinePlaybackRate {
  std::int32_t permille = 1000;

  static constexpr std::int32_t minimumPermille = 500;
  static constexpr std::int32_t maximumPermille = 4000;
  static constexpr std::int32_t permilleStep = 10;

  static constexpr TimelinePlaybackRate normal() { return {1000}; }
  constexpr bool isNormal() const { return permille == 1000; }
  // 500...4000 permille in steps of 10.
  constexpr bool isValid() const {
    return permille >= minimumPermille && permille <= maximumPermille && permille % permilleStep == 0;
  }
  double multiplier() const { return permille / 1000.0; }
  // The strict reading of a multiplier: finite, within 1e-6 of a whole permille, valid. None
  // otherwise.
  static std::optional<TimelinePlaybackRate> fromMultiplier(double multiplier);

  friend constexpr auto operator<=>(const TimelinePlaybackRate&, const TimelinePlaybackRate&) = default;
};

void to_json(Json& j, const TimelinePlaybackRate& rate);
// Fails with the text of `editor.error.playbackRate`.
void from_json(const Json& j, TimelinePlaybackRate& rate);

// ---------------------------------------------------------------------------------------------
// Clips

struct TimelineSegment {
  Uuid id;
  ProjectTimeRange sourceRange;
  TimelinePlaybackRate playbackRate = TimelinePlaybackRate::normal();

  friend bool operator==(const TimelineSegment&, const TimelineSegment&) = default;
};

void to_json(Json& j, const TimelineSegment& segment);
void from_json(const Json& j, TimelineSegment& segment);

// ---------------------------------------------------------------------------------------------
// Canvas

// Channels 0...1 (8-bit values divided by 255 for the presets).
struct CanvasColorValue {
  double red = 0;
  double green = 0;
  double blue = 0;

  static CanvasColorValue fromRGB8(int red, int green, int blue) { return {red / 255.0, green / 255.0, blue / 255.0}; }
  friend bool operator==(const CanvasColorValue&, const CanvasColorValue&) = default;
};

void to_json(Json& j, const CanvasColorValue& color);
void from_json(const Json& j, CanvasColorValue& color);

// Note the pairing: `portrait4x3` is the wider 4:3 value and `portrait3x4` the taller one.
enum class CanvasAspectRatio { source, square, landscape16x9, portrait9x16, portrait4x3, portrait3x4 };

std::string_view jsonString(CanvasAspectRatio value);
std::optional<CanvasAspectRatio> parseCanvasAspectRatio(std::string_view text);
// Output width over height; `source` takes the source's own aspect.
double outputAspectRatio(CanvasAspectRatio value, double sourceAspectRatio);
void to_json(Json& j, CanvasAspectRatio value);
void from_json(const Json& j, CanvasAspectRatio& value);

enum class CanvasBackground { solid, gradient };

std::string_view jsonString(CanvasBackground value);
std::optional<CanvasBackground> parseCanvasBackground(std::string_view text);
void to_json(Json& j, CanvasBackground value);
void from_json(const Json& j, CanvasBackground& value);

// The first twelve cases are gradients, the last twelve solids (two equal colours).
enum class CanvasBackgroundPreset {
  midnightViolet,
  deepOcean,
  graphite,
  dusk,
  darkRose,
  forestGradient,
  mintSky,
  lavenderMist,
  warmSunrise,
  aurora,
  coralSunset,
  electricLime,
  midnight,
  charcoal,
  navy,
  plum,
  forest,
  warmGray,
  snow,
  pearl,
  sand,
  sky,
  coral,
  lime,
};

struct CanvasBackgroundPresetColors {
  CanvasColorValue start;
  CanvasColorValue end;
  friend bool operator==(const CanvasBackgroundPresetColors&, const CanvasBackgroundPresetColors&) = default;
};

// Every preset in declaration order.
const std::array<CanvasBackgroundPreset, 24>& allCanvasBackgroundPresets();
std::string_view jsonString(CanvasBackgroundPreset value);
std::optional<CanvasBackgroundPreset> parseCanvasBackgroundPreset(std::string_view text);
CanvasBackgroundPresetColors presetColors(CanvasBackgroundPreset value);
// The background kind a preset belongs to.
CanvasBackground presetBackground(CanvasBackgroundPreset value);
// The preset a background falls back to: `midnightViolet` for a gradient, `midnight` for a solid.
CanvasBackgroundPreset defaultPreset(CanvasBackground background);
void to_json(Json& j, CanvasBackgroundPreset value);
void from_json(const Json& j, CanvasBackgroundPreset& value);

enum class CanvasBackgroundImageSource { bundledLandscape, desktopWallpaper, uploaded };

std::string_view jsonString(CanvasBackgroundImageSource value);
std::optional<CanvasBackgroundImageSource> parseCanvasBackgroundImageSource(std::string_view text);
void to_json(Json& j, CanvasBackgroundImageSource value);
void from_json(const Json& j, CanvasBackgroundImageSource& value);

enum class CanvasBackgroundMediaKind { image, video };

std::string_view jsonString(CanvasBackgroundMediaKind value);
std::optional<CanvasBackgroundMediaKind> parseCanvasBackgroundMediaKind(std::string_view text);
void to_json(Json& j, CanvasBackgroundMediaKind value);
void from_json(const Json& j, CanvasBackgroundMediaKind& value);

struct CanvasBackgroundImage {
  std::string id;
  std::string relativePath;  // inside the package
  PixelSize pixelSize;
  CanvasBackgroundImageSource source = CanvasBackgroundImageSource::uploaded;
  std::optional<std::string> selectionID;
  CanvasBackgroundMediaKind mediaKind = CanvasBackgroundMediaKind::image;
  std::optional<double> duration;  // seconds, for video wallpapers

  friend bool operator==(const CanvasBackgroundImage&, const CanvasBackgroundImage&) = default;
};

void to_json(Json& j, const CanvasBackgroundImage& image);
void from_json(const Json& j, CanvasBackgroundImage& image);

// The default-constructed value is `CanvasEdit.default`. A document with keys missing reads with
// a corner radius of 0.035 instead: that is what documents written before the key existed meant.
struct CanvasEdit {
  CanvasAspectRatio aspectRatio = CanvasAspectRatio::landscape16x9;
  CanvasBackground background = CanvasBackground::gradient;
  CanvasBackgroundPreset preset = CanvasBackgroundPreset::midnightViolet;
  std::optional<CanvasBackgroundImage> image;
  double padding = 0.08;        // share of the output on every side
  double cornerRadius = 0.015;  // share, see the canvas layout

  static constexpr double legacyCornerRadius = 0.035;
  static CanvasEdit defaultValue() { return CanvasEdit{}; }

  friend bool operator==(const CanvasEdit&, const CanvasEdit&) = default;
};

void to_json(Json& j, const CanvasEdit& canvas);
void from_json(const Json& j, CanvasEdit& canvas);

// ---------------------------------------------------------------------------------------------
// Cursor

enum class ClickEffectStyle { solidPulse, ring, ringAndPress };

std::string_view jsonString(ClickEffectStyle value);
// Also accepts the legacy "soft-glow" as `solidPulse`.
std::optional<ClickEffectStyle> parseClickEffectStyle(std::string_view text);
void to_json(Json& j, ClickEffectStyle value);
void from_json(const Json& j, ClickEffectStyle& value);

// The default-constructed value is `CursorEdit.default`.
struct CursorEdit {
  bool isVisible = true;
  double scale = 1.0;
  bool showsClickEffect = true;
  ClickEffectStyle clickEffectStyle = ClickEffectStyle::ring;

  static CursorEdit defaultValue() { return CursorEdit{}; }
  friend bool operator==(const CursorEdit&, const CursorEdit&) = default;
};

void to_json(Json& j, const CursorEdit& cursor);
void from_json(const Json& j, CursorEdit& cursor);

// ---------------------------------------------------------------------------------------------
// Camera overlay

enum class WebcamAspectRatio { source, square };

std::string_view jsonString(WebcamAspectRatio value);
std::optional<WebcamAspectRatio> parseWebcamAspectRatio(std::string_view text);
void to_json(Json& j, WebcamAspectRatio value);
void from_json(const Json& j, WebcamAspectRatio& value);

// The default-constructed value is `WebcamOverlay.default`.
struct WebcamOverlay {
  bool isVisible = true;
  PointValue center{0.86, 0.8};
  double diameter = 0.22;  // share of the output's shorter side
  bool isMirrored = true;
  WebcamAspectRatio aspectRatio = WebcamAspectRatio::square;
  double cornerRadius = 1.0;  // 0...1
  bool showsBorder = true;
  double borderWidthAt1080p = 10;
  bool showsShadow = true;

  static WebcamOverlay defaultValue() { return WebcamOverlay{}; }
  // Where a recording without a chosen overlay starts: bottom left, rounded square, no border.
  static WebcamOverlay newRecording() {
    WebcamOverlay overlay;
    overlay.center = {0.14, 0.8};
    overlay.cornerRadius = 0.6;
    overlay.showsBorder = false;
    return overlay;
  }

  friend bool operator==(const WebcamOverlay&, const WebcamOverlay&) = default;
};

void to_json(Json& j, const WebcamOverlay& overlay);
void from_json(const Json& j, WebcamOverlay& overlay);

struct WebcamOverlayKeyframe {
  Uuid id;
  ProjectTime time;
  PointValue center;
  double diameter = 0;

  friend bool operator==(const WebcamOverlayKeyframe&, const WebcamOverlayKeyframe&) = default;
};

void to_json(Json& j, const WebcamOverlayKeyframe& keyframe);
void from_json(const Json& j, WebcamOverlayKeyframe& keyframe);

struct WebcamFullscreenSegment {
  Uuid id;
  ProjectTime startTime;
  ProjectTime endTime;

  friend bool operator==(const WebcamFullscreenSegment&, const WebcamFullscreenSegment&) = default;
};

void to_json(Json& j, const WebcamFullscreenSegment& segment);
void from_json(const Json& j, WebcamFullscreenSegment& segment);

// ---------------------------------------------------------------------------------------------
// Audio

struct AudioTrackEdit {
  bool isMuted = false;
  double gainDecibels = 0;

  friend bool operator==(const AudioTrackEdit&, const AudioTrackEdit&) = default;
};

void to_json(Json& j, const AudioTrackEdit& track);
void from_json(const Json& j, AudioTrackEdit& track);

// Default-constructed: both tracks unmuted at 0 dB.
struct AudioMixEdit {
  AudioTrackEdit systemAudio;
  AudioTrackEdit microphone;

  static constexpr double minimumGainDecibels = -60;
  static constexpr double maximumGainDecibels = 12;

  friend bool operator==(const AudioMixEdit&, const AudioMixEdit&) = default;
};

void to_json(Json& j, const AudioMixEdit& mix);
void from_json(const Json& j, AudioMixEdit& mix);

// ---------------------------------------------------------------------------------------------
// Device frame

enum class DeviceFrameContentMode { fit, fill };

std::string_view jsonString(DeviceFrameContentMode value);
std::optional<DeviceFrameContentMode> parseDeviceFrameContentMode(std::string_view text);
void to_json(Json& j, DeviceFrameContentMode value);
void from_json(const Json& j, DeviceFrameContentMode& value);

struct DeviceFrameEdit {
  bool isEnabled = false;
  std::string assetID;  // a variant id (or a legacy id) of the device frame catalogue
  DeviceFrameContentMode contentMode = DeviceFrameContentMode::fit;

  friend bool operator==(const DeviceFrameEdit&, const DeviceFrameEdit&) = default;
};

void to_json(Json& j, const DeviceFrameEdit& frame);
void from_json(const Json& j, DeviceFrameEdit& frame);

// ---------------------------------------------------------------------------------------------
// Zooms

// Ramp in from `startTime` to `focusTime`, hold until `holdEndTime`, ramp out until `endTime`.
struct ZoomSegment {
  Uuid id;
  ProjectTime startTime;
  ProjectTime focusTime;
  ProjectTime holdEndTime;
  ProjectTime endTime;
  PointValue focusPoint{0.5, 0.5};
  double scale = 1;

  friend bool operator==(const ZoomSegment&, const ZoomSegment&) = default;
};

void to_json(Json& j, const ZoomSegment& zoom);
void from_json(const Json& j, ZoomSegment& zoom);

// ---------------------------------------------------------------------------------------------
// Annotations

enum class AnnotationKind { rectangle, circle, arrow, mosaic, text };

std::string_view jsonString(AnnotationKind value);
std::optional<AnnotationKind> parseAnnotationKind(std::string_view text);
void to_json(Json& j, AnnotationKind value);
void from_json(const Json& j, AnnotationKind& value);

enum class TextAnnotationOutlineColor { black, white };

std::string_view jsonString(TextAnnotationOutlineColor value);
std::optional<TextAnnotationOutlineColor> parseTextAnnotationOutlineColor(std::string_view text);
void to_json(Json& j, TextAnnotationOutlineColor value);
void from_json(const Json& j, TextAnnotationOutlineColor& value);

struct TextAnnotationStyle {
  std::string content = "Text";
  double fontSize = 48;
  bool hasOutline = false;
  TextAnnotationOutlineColor outlineColor = TextAnnotationOutlineColor::black;

  // The style a `text` annotation without one reads with.
  static TextAnnotationStyle defaultValue() { return TextAnnotationStyle{}; }
  friend bool operator==(const TextAnnotationStyle&, const TextAnnotationStyle&) = default;
};

void to_json(Json& j, const TextAnnotationStyle& style);
void from_json(const Json& j, TextAnnotationStyle& style);

// A static shape drawn over the frame between two source times. Arrows have points; every other
// kind has bounds. Coordinates are normalised to the frame.
struct AnnotationElement {
  Uuid id;
  ProjectTime startTime;
  ProjectTime endTime;
  AnnotationKind kind = AnnotationKind::rectangle;
  std::optional<RectValue> bounds;
  std::optional<PointValue> startPoint;
  std::optional<PointValue> endPoint;
  CanvasColorValue color = defaultColor();
  double lineWidth = 0.006;
  double cornerRadius = 0;
  bool locksAspectRatio = false;
  bool isFilled = false;
  bool dimsOutside = false;
  std::optional<TextAnnotationStyle> textStyle;
  std::int64_t zIndex = 0;      // drawing order, unique within a timeline
  std::int64_t trackIndex = 0;  // lane on the editor's annotation track

  static constexpr CanvasColorValue defaultColor() { return {0.96, 0.45, 0.16}; }

  friend bool operator==(const AnnotationElement&, const AnnotationElement&) = default;
};

void to_json(Json& j, const AnnotationElement& annotation);
void from_json(const Json& j, AnnotationElement& annotation);

// ---------------------------------------------------------------------------------------------
// The document

struct EditTimeline {
  static constexpr std::int64_t currentSchemaVersion = 8;
  static constexpr double defaultMotionBlurAmount = 0.5;

  std::int64_t schemaVersion = currentSchemaVersion;
  std::vector<TimelineSegment> segments;
  std::optional<DeviceFrameEdit> deviceFrame;
  double motionBlurAmount = defaultMotionBlurAmount;  // 0...1
  CanvasEdit canvas;
  CursorEdit cursor;
  std::optional<WebcamOverlay> webcamOverlay;
  std::vector<WebcamOverlayKeyframe> webcamKeyframes;
  std::vector<WebcamFullscreenSegment> webcamFullscreenSegments;
  AudioMixEdit audioMix;
  std::vector<ZoomSegment> zooms;
  std::vector<AnnotationElement> annotations;

  // Schema 8, no clips, default canvas and cursor, motion blur 0.5, everything else empty.
  static EditTimeline empty();

  // The repaired, current-schema form: drops what the stored schema did not have, fills in a
  // whole-source clip when there are none, fits the camera overlay to `hasWebcam`, sorts the
  // tracks, reflows annotation lanes and clamps canvas, cursor and gains. Never fails.
  EditTimeline normalized(ProjectTime sourceDuration, bool hasWebcam) const;

  friend bool operator==(const EditTimeline&, const EditTimeline&) = default;
};

void to_json(Json& j, const EditTimeline& timeline);
void from_json(const Json& j, EditTimeline& timeline);

// Reads a timeline document; malformed text or a bad value is a DecodingError, and items of one
// kind sharing an id are TimelineValidationError `duplicateID` (see
// TimelineValidator::requireUniqueIDs).
EditTimeline decodeEditTimeline(std::string_view jsonText);
// The document text: pretty printed, sorted keys, absent optionals left out.
std::string encodeEditTimeline(const EditTimeline& timeline);

}  // namespace vumo
