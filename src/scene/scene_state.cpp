#include "scene/scene_state.h"

#include "shared/json.h"

namespace vumo {

void to_json(Json& j, const CameraState& camera) { j = Json{{"center", camera.center}, {"scale", camera.scale}}; }

void to_json(Json& j, const ScreenState& screen) { j = Json{{"sourceRect", screen.sourceRect}}; }

void to_json(Json& j, const CursorState& cursor) {
  j = Json::object();
  j["sourcePosition"] = cursor.sourcePosition;
  j["outputPosition"] = cursor.outputPosition;
  j["visible"] = cursor.visible;
  j["scale"] = cursor.scale;
  json::setOptional(j, "assetID", cursor.assetID);
  json::setOptional(j, "logicalSize", cursor.logicalSize);
  json::setOptional(j, "hotSpot", cursor.hotSpot);
}

void to_json(Json& j, const WebcamState& webcam) {
  j = Json::object();
  j["center"] = webcam.center;
  j["diameter"] = webcam.diameter;
  j["isMirrored"] = webcam.isMirrored;
  j["visible"] = webcam.visible;
  j["aspectRatio"] = webcam.aspectRatio;
  j["cornerRadius"] = webcam.cornerRadius;
  j["showsBorder"] = webcam.showsBorder;
  j["borderWidthAt1080p"] = webcam.borderWidthAt1080p;
  j["showsShadow"] = webcam.showsShadow;
  j["fullscreenProgress"] = webcam.fullscreenProgress;
}

void to_json(Json& j, const ClickEffectState& effect) {
  j = Json{{"position", effect.position}, {"progress", effect.progress}, {"style", effect.style}};
}

void to_json(Json& j, const CaptionState& caption) {
  j = Json::object();
  j["cueID"] = caption.cueID;
  j["text"] = caption.text;
  j["highlights"] = caption.highlights;
  j["appearance"] = caption.appearance;
  j["maximumLines"] = caption.maximumLines;
  j["fontScale"] = caption.fontScale;
  j["bottomPosition"] = caption.bottomPosition;
}

void to_json(Json& j, const SceneState& state) {
  j = Json::object();
  j["time"] = state.time;
  j["camera"] = state.camera;
  json::setOptional(j, "motionBlurCamera", state.motionBlurCamera);
  j["screen"] = state.screen;
  j["cursor"] = state.cursor;
  j["canvas"] = state.canvas;
  json::setOptional(j, "deviceFrame", state.deviceFrame);
  json::setOptional(j, "webcam", state.webcam);
  json::setOptional(j, "clickEffect", state.clickEffect);
  j["annotations"] = state.annotations;
  json::setOptional(j, "caption", state.caption);
}

}  // namespace vumo
