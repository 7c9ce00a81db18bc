#pragma once
// What is on screen at one source time: everything the renderer needs and nothing else. A plain
// value; preview, the still frame and export all draw from it, so they agree frame for frame.

#include <optional>
#include <string>
#include <vector>

#include "captions/caption_document.h"
#include "shared/geometry.h"
#include "shared/json_fwd.h"
#include "shared/project_time.h"
#include "timeline/edit_timeline.h"

namespace vumo {

// The view onto the recording: `center` is the source point shown in the middle of the screen
// rectangle, `scale` the magnification (1 shows the whole source).
struct CameraState {
  PointValue center{0.5, 0.5};
  double scale = 1;
  static CameraState identity() { return {}; }
  friend bool operator==(const CameraState&, const CameraState&) = default;
};

struct ScreenState {
  // The normalised share of the encoded frame that holds content.
  RectValue sourceRect{0, 0, 1, 1};
  static ScreenState fullFrame() { return {}; }
  friend bool operator==(const ScreenState&, const ScreenState&) = default;
};

struct CursorState {
  PointValue sourcePosition{0.5, 0.5};  // normalised in the source
  PointValue outputPosition{0.5, 0.5};  // normalised in the screen rectangle, after the camera
  bool visible = false;
  double scale = 1;
  std::optional<std::string> assetID;    // the recorded shape, when one was recorded
  std::optional<SizeValue> logicalSize;  // points, from the shape's descriptor
  std::optional<PointValue> hotSpot;     // points, from the shape's descriptor
  friend bool operator==(const CursorState&, const CursorState&) = default;
};

struct WebcamState {
  PointValue center{0.5, 0.5};  // output fractions
  double diameter = 0.22;       // share of the output's shorter side, after the zoom shrink
  bool isMirrored = false;
  bool visible = true;
  WebcamAspectRatio aspectRatio = WebcamAspectRatio::square;
  double cornerRadius = 0.6;  // 0...1
  bool showsBorder = false;
  double borderWidthAt1080p = 10;
  bool showsShadow = false;
  double fullscreenProgress = 0;  // 0...1
  friend bool operator==(const WebcamState&, const WebcamState&) = default;
};

struct ClickEffectState {
  PointValue position;  // normalised in the screen rectangle, after the camera
  double progress = 0;  // 0...1
  ClickEffectStyle style = ClickEffectStyle::ring;
  friend bool operator==(const ClickEffectState&, const ClickEffectState&) = default;
};

struct CaptionState {
  Uuid cueID;
  std::string text;
  std::vector<CaptionHighlight> highlights;
  CaptionAppearance appearance = CaptionAppearance::whiteOnBlack;
  std::int64_t maximumLines = 2;
  double fontScale = 1;
  double bottomPosition = 0.08;
  friend bool operator==(const CaptionState&, const CaptionState&) = default;
};

struct SceneState {
  ProjectTime time;
  CameraState camera;
  std::optional<CameraState> motionBlurCamera;  // at shutter open; absent when equal to `camera`
  ScreenState screen;
  CursorState cursor;
  CanvasEdit canvas;
  std::optional<DeviceFrameEdit> deviceFrame;
  std::optional<WebcamState> webcam;
  std::optional<ClickEffectState> clickEffect;
  std::vector<AnnotationElement> annotations;  // the active ones, in drawing order
  std::optional<CaptionState> caption;
  friend bool operator==(const SceneState&, const SceneState&) = default;
};

// The diagnostic JSON form, with exactly the member names above: one object per part, absent
// optionals left out.
void to_json(Json& j, const CameraState& camera);
void to_json(Json& j, const ScreenState& screen);
void to_json(Json& j, const CursorState& cursor);
void to_json(Json& j, const WebcamState& webcam);
void to_json(Json& j, const ClickEffectState& effect);
void to_json(Json& j, const CaptionState& caption);
void to_json(Json& j, const SceneState& state);

}  // namespace vumo
