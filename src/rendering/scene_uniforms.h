#pragma once
// The numbers the fragment stages read, packed on the CPU. Nothing here touches OpenGL, so the
// packing is tested on its own; the shaders in resources/shaders read the same order.
//
// Scene block (std140, 21 × vec4, 336 bytes). Pixels are output pixels, origin at the top left.
//   0  output width, output height, screen corner radius (px), background kind (BackgroundKind)
//   1  screen rectangle (px): where the recording is visible (a device's screen when framed)
//   2  content rectangle (px): where the whole cropped recording maps (equal to 1 without a frame)
//   3  device frame bitmap rectangle (px), zero without a frame
//   4  camera centre x, y, scale, motion-blur sample count (0: no blur; the shader unrolls 8)
//   5  shutter-open camera centre x, y, scale, drop shadow under the screen (0/1)
//   6  the recording's content in its encoded frame (`screen.sourceRect`, normalised)
//   7  background colour at the top left (r, g, b, 1)
//   8  background colour at the bottom right (r, g, b, 1)
//   9  background picture fill: texture coordinate = output fraction × xy + zw (centre crop)
//  10  cursor rectangle (px)
//  11  cursor visible (0/1), click effect shown (0/1), click progress 0...1, click style code
//  12  click centre (px), click base radius (px), 0
//  13  camera overlay rectangle, output fractions (webcamGeometry)
//  14  mirrored (0/1), corner radius 0...1, border width (px), shadow (0/1)
//  15  camera overlay shown (0/1), full-screen progress, 0, 0
//  16  caption rectangle (px), zero without a caption
//  17  screen planes: layout (PlaneLayout), full range (0/1), matrix (0 BT.709, 1 BT.601, 2 BT.2020), 0
//  18  camera planes, as 17
//  19  background video planes, as 17
//  20  camera picture fill inside its rectangle: texture coordinate = local × xy + zw
//
// Annotation header (std140, 4 × vec4, 64 bytes):
//   0  output width, output height, annotation count, text atlas width
//   1  text atlas height, mosaic block size (px), 0, 0
//   2, 3  zero
// Then the AnnotationUniform array (16 entries) and, for text, a placement array of 16 × 2 vec4:
// the raster's rectangle in the atlas (px) and on the output (px); zero for every other kind.

#include <array>
#include <cstdint>
#include <vector>

#include "scene/scene_state.h"
#include "shared/geometry.h"
#include "timeline/edit_timeline.h"

namespace vumo {

inline constexpr int sceneUniformVectorCount = 21;
inline constexpr int maximumRenderedAnnotations = 16;
inline constexpr int motionBlurSampleCount = 8;

enum class BackgroundKind { solid = 0, gradient = 1, image = 2, video = 3 };
enum class PlaneLayout { none = 0, yuv420p = 1, nv12 = 2 };

struct Vec4 {
  float x = 0, y = 0, z = 0, w = 0;
  friend bool operator==(const Vec4&, const Vec4&) = default;
};

struct SceneUniforms {
  std::array<Vec4, sceneUniformVectorCount> vectors{};
};
static_assert(sizeof(SceneUniforms) == 336);

struct AnnotationUniform {
  Vec4 geometry;
  Vec4 color;
  Vec4 options;
  friend bool operator==(const AnnotationUniform&, const AnnotationUniform&) = default;
};
static_assert(sizeof(AnnotationUniform) == 48);

struct AnnotationHeader {
  std::array<Vec4, 4> vectors{};
};
static_assert(sizeof(AnnotationHeader) == 64);

// One uniform per annotation, in the order given. Throws nothing: the limit is the renderer's.
std::vector<AnnotationUniform> annotationUniforms(const std::vector<AnnotationElement>& annotations);

// The camera overlay's rectangle (output fractions) and its look, as the fragment stage reads it.
struct WebcamGeometry {
  float x = 0, y = 0, width = 0, height = 0;
  float mirrored = 0;
  float cornerRadius = 0;  // 0...1: 1 rounds the shorter side fully (circle, capsule)
  float borderWidth = 0;   // output pixels
  float shadow = 0;
  bool isZero() const { return width <= 0 || height <= 0; }
  friend bool operator==(const WebcamGeometry&, const WebcamGeometry&) = default;
};

// Zero for an absent or hidden overlay, or without a camera picture (`cameraTextureSize` not
// positive).
WebcamGeometry webcamGeometry(const SceneState& state, PixelSize cameraTextureSize, PixelSize outputSize);

// Where the recording goes on the output and how it is cut out.
struct SceneGeometry {
  RectValue screenRect;   // visible area of the recording (px)
  RectValue contentRect;  // the whole cropped recording (px)
  RectValue deviceFrameRect;
  double screenCornerRadius = 0;  // px
  bool hasDeviceFrame = false;
};

// A device frame to draw: the bitmap's pixel size, its screen inside it and the screen's corner.
struct DeviceFrameLayout {
  PixelSize outerPixelSize;
  RectValue screenRect;  // in bitmap pixels
  double screenCornerRadius = 0;
  DeviceFrameContentMode contentMode = DeviceFrameContentMode::fit;
};

// The recording's content size is the encoded size times `screen.sourceRect`: the layout follows
// what is shown, so a cropped window keeps its own proportions.
SizeValue contentSize(const SceneState& state, PixelSize sourceSize);

SceneGeometry sceneGeometry(const SceneState& state, PixelSize sourceSize, PixelSize outputSize,
                            const std::optional<DeviceFrameLayout>& frame);

// How a frame's planes are read by the shader.
struct PlaneFormat {
  PlaneLayout layout = PlaneLayout::none;
  bool fullRange = false;
  int matrix = 0;  // 0 BT.709, 1 BT.601, 2 BT.2020
};

// Everything besides the state that the scene block needs; the renderer fills it from the frames
// and textures it has.
struct SceneUniformInputs {
  PixelSize sourceSize;
  PixelSize outputSize;
  std::optional<DeviceFrameLayout> deviceFrame;
  // `image` or `video` when that picture is bound; anything else follows the canvas.
  BackgroundKind background = BackgroundKind::gradient;
  PixelSize backgroundPictureSize;  // the image or video shown as background
  PlaneFormat screenPlanes;
  PlaneFormat webcamPlanes;
  PlaneFormat backgroundPlanes;
  PixelSize webcamSize;  // the camera picture; zero without one
  // The cursor picture's logical size and hot spot (points), already chosen: the recorded shape
  // or the arrow. None draws no cursor.
  std::optional<SizeValue> cursorLogicalSize;
  PointValue cursorHotSpot;
  std::optional<RectValue> captionFrame;  // px
};

SceneUniforms sceneUniforms(const SceneState& state, const SceneUniformInputs& inputs);

// The cursor's rectangle on the output (px): the hot spot lands on the cursor's position in the
// content rectangle, and a point of the logical size covers one source pixel at scale 1, times the
// camera and cursor scales.
RectValue cursorRect(const SceneState& state, const SceneGeometry& geometry, SizeValue contentSize,
                     SizeValue logicalSize, PointValue hotSpot);

// The optional parts of the scene program; a frame's program has exactly the parts it uses.
enum SceneFeature : std::uint32_t {
  motionBlurFeature = 1u << 0,
  screenShadowFeature = 1u << 1,
  deviceFrameFeature = 1u << 2,
  cursorFeature = 1u << 3,
  clickEffectFeature = 1u << 4,
  cameraFeature = 1u << 5,
  captionFeature = 1u << 6,
  backgroundImageFeature = 1u << 7,
  backgroundVideoFeature = 1u << 8,
  screenNv12Feature = 1u << 9,  // the frame has two planes (else three)
  cameraNv12Feature = 1u << 10,
  backgroundNv12Feature = 1u << 11,
};
inline constexpr std::uint32_t allSceneFeatures = (1u << 12) - 1;

// Read off the packed block, so the program and the numbers cannot disagree.
std::uint32_t sceneFeatures(const SceneUniforms& uniforms);

// Header of the annotation pass.
AnnotationHeader annotationHeader(PixelSize outputSize, std::size_t count, PixelSize atlasSize);

}  // namespace vumo
