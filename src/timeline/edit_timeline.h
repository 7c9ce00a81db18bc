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
#include "shared/name_table.h"
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

  // The one key and text of a rate outside those steps, whichever check refuses it.
  static constexpr std::string_view invalidKey = "editor.error.playbackRate";
  static constexpr std::string_view invalidText =
      "Playback speed must be a finite value from 0.50 to 4.00 in increments of 0.01.";

  friend constexpr auto operator<=>(const TimelinePlaybackRate&, const TimelinePlaybackRate&) = default;
};

void to_json(Json& j, const TimelinePlaybackRate& rate);
// Fails with `invalidText`.
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

template <>
struct EnumNames<CanvasAspectRatio> {
  static constexpr std::string_view typeName = "canvas aspect ratio";
  static constexpr NameTable<CanvasAspectRatio, 6> table{{
      {CanvasAspectRatio::source, "source"},
      {CanvasAspectRatio::square, "1:1"},
      {CanvasAspectRatio::landscape16x9, "16:9"},
      {CanvasAspectRatio::portrait9x16, "9:16"},
      {CanvasAspectRatio::portrait4x3, "4:3"},
      {CanvasAspectRatio::portrait3x4, "3:4"},
  }};
};

// Output width over height; `source` takes the source's own aspect.
double outputAspectRatio(CanvasAspectRatio value, double sourceAspectRatio);

enum class CanvasBackground { solid, gradient };

template <>
struct EnumNames<CanvasBackground> {
  static constexpr std::string_view typeName = "canvas background";
  static constexpr NameTable<CanvasBackground, 2> table{{
      {CanvasBackground::solid, "solid"},
      {CanvasBackground::gradient, "gradient"},
  }};
};

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

template <>
struct EnumNames<CanvasBackgroundPreset> {
  static constexpr std::string_view typeName = "canvas background preset";
  static constexpr NameTable<CanvasBackgroundPreset, 24> table{{
      {CanvasBackgroundPreset::midnightViolet, "midnight-violet"},
      {CanvasBackgroundPreset::deepOcean, "deep-ocean"},
      {CanvasBackgroundPreset::graphite, "graphite"},
      {CanvasBackgroundPreset::dusk, "dusk"},
      {CanvasBackgroundPreset::darkRose, "dark-rose"},
      {CanvasBackgroundPreset::forestGradient, "forest-gradient"},
      {CanvasBackgroundPreset::mintSky, "mint-sky"},
      {CanvasBackgroundPreset::lavenderMist, "lavender-mist"},
      {CanvasBackgroundPreset::warmSunrise, "warm-sunrise"},
      {CanvasBackgroundPreset::aurora, "aurora"},
      {CanvasBackgroundPreset::coralSunset, "coral-sunset"},
      {CanvasBackgroundPreset::electricLime, "electric-lime"},
      {CanvasBackgroundPreset::midnight, "midnight"},
      {CanvasBackgroundPreset::charcoal, "charcoal"},
      {CanvasBackgroundPreset::navy, "navy"},
      {CanvasBackgroundPreset::plum, "plum"},
      {CanvasBackgroundPreset::forest, "forest"},
      {CanvasBackgroundPreset::warmGray, "warm-gray"},
      {CanvasBackgroundPreset::snow, "snow"},
      {CanvasBackgroundPreset::pearl, "pearl"},
      {CanvasBackgroundPreset::sand, "sand"},
      {CanvasBackgroundPreset::sky, "sky"},
      {CanvasBackgroundPreset::coral, "coral"},
      {CanvasBackgroundPreset::lime, "lime"},
  }};
};

struct CanvasBackgroundPresetColors {
  CanvasColorValue start;
  CanvasColorValue end;
  friend bool operator==(const CanvasBackgroundPresetColors&, const CanvasBackgroundPresetColors&) = default;
};

// Every preset in declaration order.
const std::array<CanvasBackgroundPreset, 24>& allCanvasBackgroundPresets();
CanvasBackgroundPresetColors presetColors(CanvasBackgroundPreset value);
// The background kind a preset belongs to.
CanvasBackground presetBackground(CanvasBackgroundPreset value);
// The preset a background falls back to: `midnightViolet` for a gradient, `midnight` for a solid.
CanvasBackgroundPreset defaultPreset(CanvasBackground background);

enum class CanvasBackgroundImageSource { bundledLandscape, desktopWallpaper, uploaded };

template <>
struct EnumNames<CanvasBackgroundImageSource> {
  static constexpr std::string_view typeName = "background image source";
  static constexpr NameTable<CanvasBackgroundImageSource, 3> table{{
      {CanvasBackgroundImageSource::bundledLandscape, "bundled-landscape"},
      {CanvasBackgroundImageSource::desktopWallpaper, "desktop-wallpaper"},
      {CanvasBackgroundImageSource::uploaded, "uploaded"},
  }};
};

enum class CanvasBackgroundMediaKind { image, video };

template <>
struct EnumNames<CanvasBackgroundMediaKind> {
  static constexpr std::string_view typeName = "background media kind";
  static constexpr NameTable<CanvasBackgroundMediaKind, 2> table{{
      {CanvasBackgroundMediaKind::image, "image"},
      {CanvasBackgroundMediaKind::video, "video"},
  }};
};

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

template <>
struct EnumNames<ClickEffectStyle> {
  static constexpr std::string_view typeName = "click effect style";
  static constexpr NameTable<ClickEffectStyle, 4> table{{
      {ClickEffectStyle::solidPulse, "solid-pulse"},
      {ClickEffectStyle::ring, "ring"},
      {ClickEffectStyle::ringAndPress, "ring-and-press"},
      {ClickEffectStyle::solidPulse, "soft-glow"},  // the earlier name, read but never written
  }};
};

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

template <>
struct EnumNames<WebcamAspectRatio> {
  static constexpr std::string_view typeName = "camera aspect ratio";
  static constexpr NameTable<WebcamAspectRatio, 2> table{{
      {WebcamAspectRatio::source, "source"},
      {WebcamAspectRatio::square, "square"},
  }};
};

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

template <>
struct EnumNames<DeviceFrameContentMode> {
  static constexpr std::string_view typeName = "device frame content mode";
  static constexpr NameTable<DeviceFrameContentMode, 2> table{{
      {DeviceFrameContentMode::fit, "fit"},
      {DeviceFrameContentMode::fill, "fill"},
  }};
};

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

template <>
struct EnumNames<AnnotationKind> {
  static constexpr std::string_view typeName = "annotation kind";
  static constexpr NameTable<AnnotationKind, 5> table{{
      {AnnotationKind::rectangle, "rectangle"},
      {AnnotationKind::circle, "circle"},
      {AnnotationKind::arrow, "arrow"},
      {AnnotationKind::mosaic, "mosaic"},
      {AnnotationKind::text, "text"},
  }};
};

enum class TextAnnotationOutlineColor { black, white };

template <>
struct EnumNames<TextAnnotationOutlineColor> {
  static constexpr std::string_view typeName = "text outline colour";
  static constexpr NameTable<TextAnnotationOutlineColor, 2> table{{
      {TextAnnotationOutlineColor::black, "black"},
      {TextAnnotationOutlineColor::white, "white"},
  }};
};

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
