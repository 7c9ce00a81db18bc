#include "rendering/scene_uniforms.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace vumo {
namespace {

constexpr float tolerance = 1e-4f;

void expectRect(const WebcamGeometry& g, float x, float y, float w, float h) {
  EXPECT_NEAR(g.x, x, tolerance);
  EXPECT_NEAR(g.y, y, tolerance);
  EXPECT_NEAR(g.width, w, tolerance);
  EXPECT_NEAR(g.height, h, tolerance);
}

void expectVec(const Vec4& v, float x, float y, float z, float w) {
  EXPECT_NEAR(v.x, x, 1e-3f);
  EXPECT_NEAR(v.y, y, 1e-3f);
  EXPECT_NEAR(v.z, z, 1e-3f);
  EXPECT_NEAR(v.w, w, 1e-3f);
}

SceneState withWebcam(PointValue center, double diameter, WebcamAspectRatio aspect, double progress) {
  SceneState state;
  WebcamState webcam;
  webcam.center = center;
  webcam.diameter = diameter;
  webcam.aspectRatio = aspect;
  webcam.fullscreenProgress = progress;
  webcam.isMirrored = true;
  webcam.cornerRadius = 0.6;
  webcam.showsBorder = true;
  webcam.borderWidthAt1080p = 10;
  webcam.showsShadow = true;
  state.webcam = webcam;
  return state;
}

TEST(WebcamGeometryTest, SizesFromTheShorterOutputSideCentredAndGrowingToFullScreen) {
  struct Case {
    std::string name;
    SceneState state;
    PixelSize texture;
    PixelSize output;
    float x, y, w, h;
    float border;
  };
  const std::vector<Case> cases = {
      // h = 0.2 × 1080 = 216 = w; origin (960 − 108, 540 − 108).
      {"square landscape",
       withWebcam({0.5, 0.5}, 0.2, WebcamAspectRatio::square, 0),
       {1280, 720},
       {1920, 1080},
       852.0f / 1920,
       432.0f / 1080,
       216.0f / 1920,
       216.0f / 1080,
       10},
      // h = 0.25 × 1080 = 270, w = 270 × 16/9 = 480; origin (540 − 240, 480 − 135).
      {"source aspect portrait",
       withWebcam({0.5, 0.25}, 0.25, WebcamAspectRatio::source, 0),
       {1280, 720},
       {1080, 1920},
       300.0f / 1080,
       345.0f / 1920,
       480.0f / 1080,
       270.0f / 1920,
       10},
      // Halfway: origin halves, size halfway to the output.
      {"half full screen",
       withWebcam({0.5, 0.5}, 0.2, WebcamAspectRatio::square, 0.5),
       {1280, 720},
       {1920, 1080},
       426.0f / 1920,
       216.0f / 1080,
       1068.0f / 1920,
       648.0f / 1080,
       10},
      {"full screen",
       withWebcam({0.86, 0.8}, 0.22, WebcamAspectRatio::source, 1),
       {640, 480},
       {1920, 1080},
       0,
       0,
       1,
       1,
       10},
      // The border is given at 1080p: 10 × 720 / 1080.
      {"720p border",
       withWebcam({0.5, 0.5}, 0.2, WebcamAspectRatio::square, 0),
       {1280, 720},
       {1280, 720},
       (640.0f - 72) / 1280,
       (360.0f - 72) / 720,
       144.0f / 1280,
       144.0f / 720,
       10.0f * 720 / 1080},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const WebcamGeometry g = webcamGeometry(c.state, c.texture, c.output);
    expectRect(g, c.x, c.y, c.w, c.h);
    EXPECT_EQ(g.mirrored, 1);
    EXPECT_NEAR(g.cornerRadius, 0.6f, tolerance);
    EXPECT_NEAR(g.borderWidth, c.border, tolerance);
    EXPECT_EQ(g.shadow, 1);
  }
}

TEST(WebcamGeometryTest, NothingWithoutAVisibleOverlayAndAPicture) {
  SceneState hidden = withWebcam({0.5, 0.5}, 0.2, WebcamAspectRatio::square, 0);
  hidden.webcam->visible = false;
  const SceneState shown = withWebcam({0.5, 0.5}, 0.2, WebcamAspectRatio::square, 0);
  EXPECT_EQ(webcamGeometry(SceneState{}, {640, 480}, {1920, 1080}), WebcamGeometry{});
  EXPECT_EQ(webcamGeometry(hidden, {640, 480}, {1920, 1080}), WebcamGeometry{});
  EXPECT_EQ(webcamGeometry(shown, {0, 0}, {1920, 1080}), WebcamGeometry{});

  SceneState plain = shown;
  plain.webcam->showsBorder = false;
  plain.webcam->showsShadow = false;
  plain.webcam->isMirrored = false;
  const WebcamGeometry g = webcamGeometry(plain, {640, 480}, {1920, 1080});
  EXPECT_EQ(g.borderWidth, 0);
  EXPECT_EQ(g.shadow, 0);
  EXPECT_EQ(g.mirrored, 0);
}

AnnotationElement annotation(AnnotationKind kind, bool filled, bool dims) {
  AnnotationElement a;
  a.kind = kind;
  a.isFilled = filled;
  a.dimsOutside = dims;
  if (kind == AnnotationKind::arrow) {
    a.startPoint = PointValue{0.1, 0.2};
    a.endPoint = PointValue{0.7, 0.9};
  } else {
    a.bounds = RectValue{0.1, 0.2, 0.3, 0.4};
  }
  a.color = {0.25, 0.5, 0.75};
  a.lineWidth = 0.01;
  a.cornerRadius = 0.3;
  return a;
}

TEST(AnnotationUniformsTest, ShapeCodesFillModesAndGeometry) {
  struct Case {
    AnnotationElement element;
    float shape;
    float fill;
  };
  const std::vector<Case> cases = {
      {annotation(AnnotationKind::rectangle, false, false), 0, 0},
      {annotation(AnnotationKind::rectangle, true, false), 0, 1},
      {annotation(AnnotationKind::rectangle, true, true), 0, 2},
      {annotation(AnnotationKind::circle, false, true), 1, 2},
      {annotation(AnnotationKind::arrow, true, true), 2, 1},
      {annotation(AnnotationKind::arrow, false, true), 2, 0},
      {annotation(AnnotationKind::mosaic, false, true), 3, 0},
      {annotation(AnnotationKind::text, true, true), 4, 1},
  };
  std::vector<AnnotationElement> elements;
  for (const Case& c : cases) elements.push_back(c.element);
  const std::vector<AnnotationUniform> uniforms = annotationUniforms(elements);
  ASSERT_EQ(uniforms.size(), cases.size());
  for (std::size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE(i);
    expectVec(uniforms[i].options, cases[i].shape, 0.01f, 0.3f, cases[i].fill);
    expectVec(uniforms[i].color, 0.25f, 0.5f, 0.75f, 1.0f);
    if (cases[i].element.kind == AnnotationKind::arrow)
      expectVec(uniforms[i].geometry, 0.1f, 0.2f, 0.7f, 0.9f);
    else
      expectVec(uniforms[i].geometry, 0.1f, 0.2f, 0.3f, 0.4f);
  }
}

TEST(AnnotationUniformsTest, MissingGeometryIsZero) {
  AnnotationElement arrow = annotation(AnnotationKind::arrow, false, false);
  arrow.endPoint.reset();
  AnnotationElement box = annotation(AnnotationKind::rectangle, false, false);
  box.bounds.reset();
  const std::vector<AnnotationUniform> uniforms = annotationUniforms({arrow, box});
  EXPECT_EQ(uniforms[0].geometry, Vec4{});
  EXPECT_EQ(uniforms[1].geometry, Vec4{});
}

SceneUniformInputs fullHdInputs() {
  SceneUniformInputs in;
  in.sourceSize = {1920, 1080};
  in.outputSize = {1920, 1080};
  in.cursorLogicalSize = SizeValue{16, 24};
  in.cursorHotSpot = {2, 2};
  return in;
}

TEST(SceneUniformsTest, ScreenRectangleCornersAndBackground) {
  SceneState state;
  state.canvas.padding = 0.1;
  state.canvas.cornerRadius = 0.02;
  state.canvas.background = CanvasBackground::solid;
  state.canvas.preset = CanvasBackgroundPreset::navy;
  const SceneUniforms u = sceneUniforms(state, fullHdInputs());
  // Scale min(1536 / 1920, 864 / 1080) = 0.8: 1536 × 864 centred.
  expectVec(u.vectors[0], 1920, 1080, 0.02f * 864, static_cast<float>(BackgroundKind::solid));
  expectVec(u.vectors[1], 192, 108, 1536, 864);
  EXPECT_EQ(u.vectors[2], u.vectors[1]);
  EXPECT_EQ(u.vectors[3], Vec4{});
  EXPECT_EQ(u.vectors[8], u.vectors[7]) << "a solid background has one colour";
  const CanvasColorValue navy = presetColors(CanvasBackgroundPreset::navy).start;
  expectVec(u.vectors[7], static_cast<float>(navy.red), static_cast<float>(navy.green), static_cast<float>(navy.blue),
            1);
  EXPECT_EQ(u.vectors[5].w, 1) << "the screen casts a shadow without a device frame";
}

TEST(SceneUniformsTest, MotionBlurSamplesOnlyWithAShutterCamera) {
  SceneState state;
  state.camera = {{0.3, 0.4}, 2};
  EXPECT_EQ(sceneUniforms(state, fullHdInputs()).vectors[4].w, 0);
  state.motionBlurCamera = CameraState{{0.5, 0.5}, 1.5};
  const SceneUniforms u = sceneUniforms(state, fullHdInputs());
  expectVec(u.vectors[4], 0.3f, 0.4f, 2, static_cast<float>(motionBlurSampleCount));
  expectVec(u.vectors[5], 0.5f, 0.5f, 1.5f, 1);
}

TEST(SceneUniformsTest, CursorAndClickFollowTheCameraAndScales) {
  SceneState state;
  state.canvas.padding = 0;
  state.camera = {{0.5, 0.5}, 2};
  state.cursor.visible = true;
  state.cursor.outputPosition = {0.5, 0.5};
  state.cursor.scale = 1.5;
  state.clickEffect = ClickEffectState{{0.25, 0.75}, 0.4, ClickEffectStyle::ringAndPress};
  const SceneUniforms u = sceneUniforms(state, fullHdInputs());
  // One point is one source pixel, × camera 2 × cursor 1.5 = 3 output pixels.
  expectVec(u.vectors[10], 960 - 6, 540 - 6, 48, 72);
  expectVec(u.vectors[11], 1, 1, 0.4f, 2);
  expectVec(u.vectors[12], 480, 810, 0.03f * 1080 * 2, 0);

  state.cursor.visible = false;
  state.clickEffect.reset();
  const SceneUniforms hidden = sceneUniforms(state, fullHdInputs());
  EXPECT_EQ(hidden.vectors[11], Vec4{});
}

TEST(SceneUniformsTest, DeviceFrameFitAndFill) {
  SceneState state;
  state.canvas.padding = 0;
  DeviceFrameLayout frame{{200, 400}, {20, 20, 160, 360}, 10, DeviceFrameContentMode::fit};
  // Frame scale min(400 / 200, 400 / 400) = 1: the bitmap at (100, 0); its screen at (120, 20).
  SceneGeometry fit = sceneGeometry(state, {1920, 1080}, {400, 400}, frame);
  EXPECT_TRUE(fit.hasDeviceFrame);
  EXPECT_EQ(fit.deviceFrameRect, (RectValue{100, 0, 200, 400}));
  EXPECT_EQ(fit.screenRect, (RectValue{120, 20, 160, 360}));
  EXPECT_EQ(fit.contentRect, (RectValue{120, 155, 160, 90}));
  EXPECT_DOUBLE_EQ(fit.screenCornerRadius, 10);
  frame.contentMode = DeviceFrameContentMode::fill;
  SceneGeometry fill = sceneGeometry(state, {1920, 1080}, {400, 400}, frame);
  EXPECT_EQ(fill.contentRect, (RectValue{-120, 20, 640, 360}));

  SceneUniformInputs in = fullHdInputs();
  in.outputSize = {400, 400};
  in.deviceFrame = frame;
  const SceneUniforms u = sceneUniforms(state, in);
  expectVec(u.vectors[3], 100, 0, 200, 400);
  EXPECT_EQ(u.vectors[5].w, 0) << "a device frame brings its own edge";
}

TEST(SceneUniformsTest, TheCroppedContentKeepsItsProportions) {
  SceneState state;
  state.canvas.padding = 0;
  state.screen.sourceRect = {0, 0, 0.5, 1};  // the left half of a 1920 × 1080 frame: 960 × 1080
  const SceneGeometry g = sceneGeometry(state, {1920, 1080}, {1920, 1080}, std::nullopt);
  EXPECT_EQ(g.screenRect, (RectValue{480, 0, 960, 1080}));
}

TEST(SceneUniformsTest, PicturesAreCentreCropped) {
  SceneState state;
  state.webcam = withWebcam({0.5, 0.5}, 0.2, WebcamAspectRatio::square, 0).webcam;
  SceneUniformInputs in = fullHdInputs();
  in.background = BackgroundKind::image;
  in.backgroundPictureSize = {1000, 1000};  // square picture on a 16:9 output: the middle 9/16 of its height
  in.webcamSize = {1280, 720};              // 16:9 camera in a square: the middle 9/16 of its width
  const SceneUniforms u = sceneUniforms(state, in);
  expectVec(u.vectors[9], 1, 0.5625f, 0, 0.21875f);
  expectVec(u.vectors[20], 0.5625f, 1, 0.21875f, 0);
  expectVec(u.vectors[15], 1, 0, 0, 0);
}

}  // namespace
}  // namespace vumo

namespace vumo {
namespace {

TEST(SceneFeaturesTest, TheProgramHasExactlyThePartsTheFrameUses) {
  SceneState bare;
  bare.cursor.visible = false;
  SceneUniformInputs in = fullHdInputs();
  EXPECT_EQ(sceneFeatures(sceneUniforms(bare, in)), screenShadowFeature);

  SceneState full = withWebcam({0.5, 0.5}, 0.2, WebcamAspectRatio::square, 0);
  full.cursor.visible = true;
  full.motionBlurCamera = CameraState{{0.4, 0.4}, 2};
  full.clickEffect = ClickEffectState{};
  in.webcamSize = {640, 480};
  in.captionFrame = RectValue{10, 10, 100, 20};
  in.background = BackgroundKind::video;
  in.backgroundPlanes.layout = PlaneLayout::nv12;
  in.webcamPlanes.layout = PlaneLayout::yuv420p;
  in.deviceFrame = DeviceFrameLayout{{200, 400}, {20, 20, 160, 360}, 10, DeviceFrameContentMode::fit};
  EXPECT_EQ(sceneFeatures(sceneUniforms(full, in)), motionBlurFeature | deviceFrameFeature | cursorFeature |
                                                        clickEffectFeature | cameraFeature | captionFeature |
                                                        backgroundVideoFeature | backgroundNv12Feature);
  in.background = BackgroundKind::image;
  EXPECT_TRUE(sceneFeatures(sceneUniforms(full, in)) & backgroundImageFeature);
}

}  // namespace
}  // namespace vumo
