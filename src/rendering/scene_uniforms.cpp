#include "rendering/scene_uniforms.h"

#include <algorithm>

#include "timeline/scene_layout.h"

namespace vumo {

namespace {

float f(double value) { return static_cast<float>(value); }

Vec4 rect4(const RectValue& r) { return {f(r.x), f(r.y), f(r.width), f(r.height)}; }

Vec4 colour4(const CanvasColorValue& c) { return {f(c.red), f(c.green), f(c.blue), 1.0f}; }

float shapeCode(AnnotationKind kind) {
  switch (kind) {
    case AnnotationKind::rectangle: return 0;
    case AnnotationKind::circle: return 1;
    case AnnotationKind::arrow: return 2;
    case AnnotationKind::mosaic: return 3;
    case AnnotationKind::text: return 4;
  }
  return 0;
}

float fillMode(const AnnotationElement& a) {
  const bool closedShape = a.kind == AnnotationKind::rectangle || a.kind == AnnotationKind::circle;
  if (closedShape && a.dimsOutside) return 2;
  return a.isFilled ? 1 : 0;
}

float styleCode(ClickEffectStyle style) {
  switch (style) {
    case ClickEffectStyle::solidPulse: return 0;
    case ClickEffectStyle::ring: return 1;
    case ClickEffectStyle::ringAndPress: return 2;
  }
  return 1;
}

// Texture coordinates that cover a `target`-shaped area with a `picture`, cropping the overflow
// equally on both sides: xy scale, zw offset.
Vec4 centreCrop(double pictureAspect, double targetAspect) {
  if (!(pictureAspect > 0) || !(targetAspect > 0)) return {1, 1, 0, 0};
  if (pictureAspect > targetAspect) {
    const double sx = targetAspect / pictureAspect;
    return {f(sx), 1, f((1 - sx) / 2), 0};
  }
  const double sy = pictureAspect / targetAspect;
  return {1, f(sy), 0, f((1 - sy) / 2)};
}

double aspect(PixelSize size) {
  return size.width > 0 && size.height > 0 ? static_cast<double>(size.width) / static_cast<double>(size.height) : 0;
}

Vec4 planes4(const PlaneFormat& p) {
  return {static_cast<float>(p.layout), p.fullRange ? 1.0f : 0.0f, static_cast<float>(p.matrix), 0};
}

}  // namespace

std::vector<AnnotationUniform> annotationUniforms(const std::vector<AnnotationElement>& annotations) {
  std::vector<AnnotationUniform> result;
  result.reserve(annotations.size());
  for (const AnnotationElement& a : annotations) {
    AnnotationUniform u;
    if (a.kind == AnnotationKind::arrow) {
      if (a.startPoint && a.endPoint)
        u.geometry = {f(a.startPoint->x), f(a.startPoint->y), f(a.endPoint->x), f(a.endPoint->y)};
    } else if (a.bounds) {
      u.geometry = rect4(*a.bounds);
    }
    u.color = colour4(a.color);
    u.options = {shapeCode(a.kind), f(a.lineWidth), f(a.cornerRadius), fillMode(a)};
    result.push_back(u);
  }
  return result;
}

WebcamGeometry webcamGeometry(const SceneState& state, PixelSize cameraTextureSize, PixelSize outputSize) {
  if (!state.webcam || !state.webcam->visible || cameraTextureSize.width <= 0 || cameraTextureSize.height <= 0 ||
      outputSize.width <= 0 || outputSize.height <= 0)
    return {};
  const WebcamState& webcam = *state.webcam;
  const double outW = static_cast<double>(outputSize.width);
  const double outH = static_cast<double>(outputSize.height);
  const double minSide = std::min(outW, outH);
  const double h = webcam.diameter * minSide;
  const double ratio = webcam.aspectRatio == WebcamAspectRatio::square ? 1.0 : aspect(cameraTextureSize);
  const double w = h * ratio;
  double x = webcam.center.x * outW - w / 2;
  double y = webcam.center.y * outH - h / 2;
  const double p = webcam.fullscreenProgress;
  x = (1 - p) * x;
  y = (1 - p) * y;
  const double width = w + p * (outW - w);
  const double height = h + p * (outH - h);
  WebcamGeometry g;
  g.x = f(x / outW);
  g.y = f(y / outH);
  g.width = f(width / outW);
  g.height = f(height / outH);
  g.mirrored = webcam.isMirrored ? 1 : 0;
  g.cornerRadius = f(webcam.cornerRadius);
  g.borderWidth = webcam.showsBorder ? f(webcam.borderWidthAt1080p * minSide / 1080.0) : 0;
  g.shadow = webcam.showsShadow ? 1 : 0;
  return g;
}

SizeValue contentSize(const SceneState& state, PixelSize sourceSize) {
  return {static_cast<double>(sourceSize.width) * state.screen.sourceRect.width,
          static_cast<double>(sourceSize.height) * state.screen.sourceRect.height};
}

SceneGeometry sceneGeometry(const SceneState& state, PixelSize sourceSize, PixelSize outputSize,
                            const std::optional<DeviceFrameLayout>& frame) {
  const SizeValue content = contentSize(state, sourceSize);
  const SizeValue output{static_cast<double>(outputSize.width), static_cast<double>(outputSize.height)};
  SceneGeometry g;
  if (!frame || frame->outerPixelSize.width <= 0 || frame->outerPixelSize.height <= 0) {
    g.screenRect = SceneLayout::screenRect(content, output, state.canvas.padding);
    g.contentRect = g.screenRect;
    g.screenCornerRadius = state.canvas.cornerRadius * std::min(g.screenRect.width, g.screenRect.height);
    return g;
  }
  const SizeValue outer{static_cast<double>(frame->outerPixelSize.width),
                        static_cast<double>(frame->outerPixelSize.height)};
  g.hasDeviceFrame = true;
  g.deviceFrameRect = SceneLayout::screenRect(outer, output, state.canvas.padding);
  const double s = g.deviceFrameRect.width / outer.width;
  g.screenRect = {g.deviceFrameRect.x + frame->screenRect.x * s, g.deviceFrameRect.y + frame->screenRect.y * s,
                  frame->screenRect.width * s, frame->screenRect.height * s};
  g.contentRect = contentRect(frame->contentMode, content, g.screenRect);
  g.screenCornerRadius = frame->screenCornerRadius * s;
  return g;
}

RectValue cursorRect(const SceneState& state, const SceneGeometry& geometry, SizeValue content, SizeValue logicalSize,
                     PointValue hotSpot) {
  if (!(content.height > 0)) return {};
  const double factor = geometry.contentRect.height / content.height * state.camera.scale * state.cursor.scale;
  const double x = geometry.contentRect.x + state.cursor.outputPosition.x * geometry.contentRect.width;
  const double y = geometry.contentRect.y + state.cursor.outputPosition.y * geometry.contentRect.height;
  return {x - hotSpot.x * factor, y - hotSpot.y * factor, logicalSize.width * factor, logicalSize.height * factor};
}

SceneUniforms sceneUniforms(const SceneState& state, const SceneUniformInputs& in) {
  SceneUniforms u;
  auto& v = u.vectors;
  const SceneGeometry g = sceneGeometry(state, in.sourceSize, in.outputSize, in.deviceFrame);
  const double outW = static_cast<double>(in.outputSize.width);
  const double outH = static_cast<double>(in.outputSize.height);

  // A picture shows only when the renderer has one; otherwise the canvas says solid or gradient.
  const bool picture = in.background == BackgroundKind::image || in.background == BackgroundKind::video;
  const BackgroundKind background = picture                                              ? in.background
                                    : state.canvas.background == CanvasBackground::solid ? BackgroundKind::solid
                                                                                         : BackgroundKind::gradient;
  v[0] = {f(outW), f(outH), f(g.screenCornerRadius), static_cast<float>(background)};
  v[1] = rect4(g.screenRect);
  v[2] = rect4(g.contentRect);
  v[3] = g.hasDeviceFrame ? rect4(g.deviceFrameRect) : Vec4{};
  const CameraState& camera = state.camera;
  const CameraState shutter = state.motionBlurCamera.value_or(camera);
  v[4] = {f(camera.center.x), f(camera.center.y), f(camera.scale),
          state.motionBlurCamera ? static_cast<float>(motionBlurSampleCount) : 0.0f};
  v[5] = {f(shutter.center.x), f(shutter.center.y), f(shutter.scale), g.hasDeviceFrame ? 0.0f : 1.0f};
  v[6] = rect4(state.screen.sourceRect);
  const CanvasBackgroundPresetColors colours = presetColors(state.canvas.preset);
  v[7] = colour4(colours.start);
  v[8] = colour4(state.canvas.background == CanvasBackground::solid ? colours.start : colours.end);
  v[9] = centreCrop(aspect(in.backgroundPictureSize), outH > 0 ? outW / outH : 0);

  const SizeValue content = contentSize(state, in.sourceSize);
  if (state.cursor.visible && in.cursorLogicalSize) {
    v[10] = rect4(cursorRect(state, g, content, *in.cursorLogicalSize, in.cursorHotSpot));
    v[11].x = 1;
  }
  if (state.clickEffect) {
    const ClickEffectState& click = *state.clickEffect;
    v[11].y = 1;
    v[11].z = f(std::clamp(click.progress, 0.0, 1.0));
    v[11].w = styleCode(click.style);
    v[12] = {f(g.contentRect.x + click.position.x * g.contentRect.width),
             f(g.contentRect.y + click.position.y * g.contentRect.height),
             f(0.03 * g.contentRect.height * camera.scale), 0};
  }

  const WebcamGeometry webcam = webcamGeometry(state, in.webcamSize, in.outputSize);
  if (!webcam.isZero()) {
    v[13] = {webcam.x, webcam.y, webcam.width, webcam.height};
    v[14] = {webcam.mirrored, webcam.cornerRadius, webcam.borderWidth, webcam.shadow};
    v[15] = {1, f(state.webcam->fullscreenProgress), 0, 0};
    v[20] = centreCrop(aspect(in.webcamSize), (webcam.width * outW) / (webcam.height * outH));
  } else {
    v[20] = {1, 1, 0, 0};
  }
  if (in.captionFrame) v[16] = rect4(*in.captionFrame);
  v[17] = planes4(in.screenPlanes);
  v[18] = planes4(in.webcamPlanes);
  v[19] = planes4(in.backgroundPlanes);
  return u;
}

std::uint32_t sceneFeatures(const SceneUniforms& uniforms) {
  const auto& v = uniforms.vectors;
  std::uint32_t features = 0;
  if (v[4].w > 1) features |= motionBlurFeature;
  if (v[5].w > 0.5f) features |= screenShadowFeature;
  if (v[3].z > 0) features |= deviceFrameFeature;
  if (v[11].x > 0.5f && v[10].z > 0) features |= cursorFeature;
  if (v[11].y > 0.5f) features |= clickEffectFeature;
  if (v[15].x > 0.5f) features |= cameraFeature;
  if (v[16].z > 0) features |= captionFeature;
  if (v[0].w == static_cast<float>(BackgroundKind::image)) features |= backgroundImageFeature;
  if (v[0].w == static_cast<float>(BackgroundKind::video)) features |= backgroundVideoFeature;
  const float nv12 = static_cast<float>(PlaneLayout::nv12);
  if (v[17].x == nv12) features |= screenNv12Feature;
  if (v[18].x == nv12) features |= cameraNv12Feature;
  if (v[19].x == nv12) features |= backgroundNv12Feature;
  return features;
}

AnnotationHeader annotationHeader(PixelSize outputSize, std::size_t count, PixelSize atlasSize) {
  AnnotationHeader h;
  const double minSide = static_cast<double>(std::min(outputSize.width, outputSize.height));
  h.vectors[0] = {static_cast<float>(outputSize.width), static_cast<float>(outputSize.height),
                  static_cast<float>(count), static_cast<float>(atlasSize.width)};
  h.vectors[1] = {static_cast<float>(atlasSize.height), f(std::max(4.0, minSide * 0.025)), 0, 0};
  return h;
}

}  // namespace vumo
