#include "rendering/scene_renderer.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "media/still_image.h"
#include "rendering/rendering_errors.h"
#include "rendering/scene_uniforms.h"
#include "shared/document_limits.h"
#include "shared/files.h"
#include "support/test_support.h"
#include "timeline/scene_layout.h"

namespace vumo {
namespace {

using testing::ScopedEnvironmentVariable;
using testing::TemporaryDirectory;

using Rgb = std::array<int, 3>;
using Yuv = std::array<std::uint8_t, 3>;

// Four colours in the quadrants of a picture, in the encodings the renderer must read.
// Hand-computed: BT.709 limited range (Y 16...235, C 16...240) and BT.601 full range.
struct Quadrants {
  Yuv topLeft, topRight, bottomLeft, bottomRight;
};
constexpr Quadrants limited709{{63, 102, 240}, {173, 42, 26}, {32, 240, 118}, {235, 128, 128}};
constexpr Quadrants full601{{76, 85, 255}, {150, 43, 21}, {29, 255, 107}, {255, 128, 128}};
constexpr Rgb red{255, 0, 0}, green{0, 255, 0}, blue{0, 0, 255}, white{255, 255, 255};

// A decoded picture built in memory, rows padded beyond the width so strides are exercised. The
// frame it hands out points into its own vectors.
class SyntheticFrame {
 public:
  SyntheticFrame(int width, int height, VideoPixelLayout layout, std::function<Yuv(int, int)> colourAt,
                 VideoColorRange range = VideoColorRange::limited, VideoColorMatrix matrix = VideoColorMatrix::bt709)
      : width_(width), height_(height), layout_(layout), range_(range), matrix_(matrix) {
    const int chromaWidth = (width + 1) / 2, chromaHeight = (height + 1) / 2;
    lumaStride_ = width + 13;
    chromaStride_ = layout == VideoPixelLayout::nv12 ? chromaWidth * 2 + 6 : chromaWidth + 7;
    luma_.assign(static_cast<std::size_t>(lumaStride_ * height), 0);
    first_.assign(static_cast<std::size_t>(chromaStride_ * chromaHeight), 0);
    second_.assign(first_.size(), 0);
    for (int y = 0; y < height; ++y)
      for (int x = 0; x < width; ++x) luma_[static_cast<std::size_t>(y * lumaStride_ + x)] = colourAt(x, y)[0];
    for (int y = 0; y < chromaHeight; ++y)
      for (int x = 0; x < chromaWidth; ++x) {
        const Yuv c = colourAt(2 * x, 2 * y);
        if (layout == VideoPixelLayout::nv12) {
          first_[static_cast<std::size_t>(y * chromaStride_ + 2 * x)] = c[1];
          first_[static_cast<std::size_t>(y * chromaStride_ + 2 * x + 1)] = c[2];
        } else {
          first_[static_cast<std::size_t>(y * chromaStride_ + x)] = c[1];
          second_[static_cast<std::size_t>(y * chromaStride_ + x)] = c[2];
        }
      }
  }

  DecodedVideoFrame frame() const {
    DecodedVideoFrame f;
    f.width = width_;
    f.height = height_;
    f.layout = layout_;
    f.range = range_;
    f.matrix = matrix_;
    f.planeCount = layout_ == VideoPixelLayout::nv12 ? 2 : 3;
    f.planes = {luma_.data(), first_.data(), layout_ == VideoPixelLayout::nv12 ? nullptr : second_.data()};
    f.strides = {lumaStride_, chromaStride_, layout_ == VideoPixelLayout::nv12 ? 0 : chromaStride_};
    return f;
  }

 private:
  int width_, height_;
  VideoPixelLayout layout_;
  VideoColorRange range_;
  VideoColorMatrix matrix_;
  int lumaStride_ = 0, chromaStride_ = 0;
  std::vector<std::uint8_t> luma_, first_, second_;
};

std::function<Yuv(int, int)> quadrants(const Quadrants& q, int width, int height) {
  return [q, width, height](int x, int y) {
    const bool right = x >= width / 2, bottom = y >= height / 2;
    return bottom ? (right ? q.bottomRight : q.bottomLeft) : (right ? q.topRight : q.topLeft);
  };
}

constexpr PixelSize outputSize{320, 180};
constexpr PixelSize sourceSize{64, 36};

Rgb pixel(const StillImage& image, double x, double y) {
  const std::size_t offset =
      (static_cast<std::size_t>(y) * static_cast<std::size_t>(image.width) + static_cast<std::size_t>(x)) * 4;
  return {image.pixels[offset], image.pixels[offset + 1], image.pixels[offset + 2]};
}

Rgb rgb(const CanvasColorValue& c) {
  return {static_cast<int>(std::lround(c.red * 255)), static_cast<int>(std::lround(c.green * 255)),
          static_cast<int>(std::lround(c.blue * 255))};
}

int distance(const Rgb& a, const Rgb& b) {
  return std::max({std::abs(a[0] - b[0]), std::abs(a[1] - b[1]), std::abs(a[2] - b[2])});
}

::testing::AssertionResult colourNear(const Rgb& actual, const Rgb& expected, int tolerance) {
  if (distance(actual, expected) <= tolerance) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "got " << actual[0] << "," << actual[1] << "," << actual[2] << " want "
                                       << expected[0] << "," << expected[1] << "," << expected[2];
}

#define EXPECT_COLOUR(actual, expected, tolerance) EXPECT_TRUE(colourNear((actual), (expected), (tolerance)))

double psnr(const StillImage& a, const StillImage& b) { return testing::colourPSNR(a.pixels, b.pixels); }

// Compares with a reference picture of tests/rendering/golden; VUMO_UPDATE_GOLDEN=1 rewrites it.
void expectGolden(const StillImage& image, const std::string& name) {
  const std::filesystem::path path = std::filesystem::path(VUMO_GOLDEN_DIR) / (name + ".png");
  const char* update = std::getenv("VUMO_UPDATE_GOLDEN");
  if (update != nullptr && std::string(update) == "1") {
    writeFileAtomically(path, encodeStillImage(image, StillImageFormat::png));
    return;
  }
  ASSERT_TRUE(std::filesystem::exists(path)) << path << " is missing; run with VUMO_UPDATE_GOLDEN=1";
  const StillImage reference = decodeStillImage(readFile(path, documentLimits::resourceBytes));
  ASSERT_EQ(reference.width, image.width);
  ASSERT_EQ(reference.height, image.height);
  EXPECT_GE(psnr(image, reference), 40.0) << name;
}

// One EGL context for the suite; Mesa's shader cache goes to a temporary home.
class SceneRendererTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    home_ = new TemporaryDirectory();
    homeVariable_ = new ScopedEnvironmentVariable("HOME", home_->path().string());
    cacheVariable_ = new ScopedEnvironmentVariable("XDG_CACHE_HOME", (home_->path() / "cache").string());
    context_ = RenderingContext::create(VUMO_TEST_RESOURCE_DIR);
  }
  static void TearDownTestSuite() {
    context_.reset();
    delete cacheVariable_;
    delete homeVariable_;
    delete home_;
  }

  SceneRenderer renderer(TextRasterSources text = {}) { return SceneRenderer(context_, std::move(text)); }

  // A plain scene: the screen fills the output, no cursor, no click effect.
  static SceneState plainState() {
    SceneState state;
    state.canvas.padding = 0;
    state.canvas.cornerRadius = 0;
    state.cursor.visible = false;
    return state;
  }

  SceneFrames quadrantFrames(const SyntheticFrame& screen) const {
    SceneFrames frames;
    frames.sourceSize = sourceSize;
    frames.screen = screen.frame();
    return frames;
  }

  static inline std::shared_ptr<RenderingContext> context_;
  static inline TemporaryDirectory* home_ = nullptr;
  static inline ScopedEnvironmentVariable* homeVariable_ = nullptr;
  static inline ScopedEnvironmentVariable* cacheVariable_ = nullptr;
};

const SyntheticFrame& screenFrame() {
  static const SyntheticFrame frame(64, 36, VideoPixelLayout::yuv420p, quadrants(limited709, 64, 36));
  return frame;
}

TEST_F(SceneRendererTest, ReadsEachPlaneLayoutRangeAndMatrix) {
  struct Case {
    std::string name;
    VideoPixelLayout layout;
    VideoColorRange range;
    VideoColorMatrix matrix;
    Quadrants values;
  };
  const std::vector<Case> cases = {
      {"yuv420p limited BT.709", VideoPixelLayout::yuv420p, VideoColorRange::limited, VideoColorMatrix::bt709,
       limited709},
      {"nv12 limited BT.709", VideoPixelLayout::nv12, VideoColorRange::limited, VideoColorMatrix::bt709, limited709},
      {"yuv420p full BT.601", VideoPixelLayout::yuv420p, VideoColorRange::full, VideoColorMatrix::bt601, full601},
  };
  SceneRenderer r = renderer();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const SyntheticFrame screen(64, 36, c.layout, quadrants(c.values, 64, 36), c.range, c.matrix);
    const StillImage image = r.render(plainState(), quadrantFrames(screen), outputSize);
    ASSERT_EQ(image.width, 320);
    ASSERT_EQ(image.height, 180);
    EXPECT_COLOUR(pixel(image, 80, 45), red, 4);
    EXPECT_COLOUR(pixel(image, 240, 45), green, 4);
    EXPECT_COLOUR(pixel(image, 80, 135), blue, 4);
    EXPECT_COLOUR(pixel(image, 240, 135), white, 4);
    EXPECT_EQ(image.pixels[3], 255) << "opaque";
  }
}

TEST_F(SceneRendererTest, BackgroundCornersShowThePreset) {
  struct Case {
    CanvasBackground background;
    CanvasBackgroundPreset preset;
  };
  SceneRenderer r = renderer();
  for (const Case& c : {Case{CanvasBackground::solid, CanvasBackgroundPreset::navy},
                        Case{CanvasBackground::solid, CanvasBackgroundPreset::snow},
                        Case{CanvasBackground::gradient, CanvasBackgroundPreset::midnightViolet},
                        Case{CanvasBackground::gradient, CanvasBackgroundPreset::warmSunrise}}) {
    SCOPED_TRACE(std::string(nameOf(c.preset)));
    SceneState state = plainState();
    state.canvas.padding = 0.1;
    state.canvas.background = c.background;
    state.canvas.preset = c.preset;
    const StillImage image = r.render(state, quadrantFrames(screenFrame()), outputSize);
    const CanvasBackgroundPresetColors colours = presetColors(c.preset);
    const Rgb end = rgb(c.background == CanvasBackground::solid ? colours.start : colours.end);
    EXPECT_COLOUR(pixel(image, 0, 0), rgb(colours.start), 3);
    EXPECT_COLOUR(pixel(image, 319, 179), end, 3);
  }
}

TEST_F(SceneRendererTest, ScreenContentLiesInsideTheScreenRectangle) {
  SceneState state = plainState();
  state.canvas.padding = 0.12;
  state.canvas.background = CanvasBackground::solid;
  state.canvas.preset = CanvasBackgroundPreset::charcoal;
  const RectValue rect = SceneLayout::screenRect({64, 36}, {320, 180}, 0.12);
  const StillImage image = renderer().render(state, quadrantFrames(screenFrame()), outputSize);
  EXPECT_COLOUR(pixel(image, rect.x + rect.width * 0.25, rect.y + rect.height * 0.25), red, 4);
  EXPECT_COLOUR(pixel(image, rect.x + rect.width * 0.75, rect.y + rect.height * 0.25), green, 4);
  EXPECT_COLOUR(pixel(image, rect.x + rect.width * 0.25, rect.y + rect.height * 0.75), blue, 4);
  EXPECT_COLOUR(pixel(image, rect.x + rect.width * 0.75, rect.y + rect.height * 0.75), white, 4);
  // Just left of the rectangle, halfway down: background (a little shadow), no content.
  const Rgb outside = pixel(image, rect.x - 3, rect.y + rect.height * 0.25);
  EXPECT_GT(distance(outside, red), 100);
  EXPECT_LE(distance(outside, rgb(presetColors(CanvasBackgroundPreset::charcoal).start)), 25);
}

TEST_F(SceneRendererTest, AZoomMagnifiesAroundItsCentre) {
  SceneState state = plainState();
  state.camera = {{0.25, 0.25}, 2};  // the top-left quadrant fills the screen
  const StillImage image = renderer().render(state, quadrantFrames(screenFrame()), outputSize);
  for (const auto& [x, y] :
       std::vector<std::pair<double, double>>{{160, 90}, {20, 12}, {300, 12}, {20, 168}, {300, 168}})
    EXPECT_COLOUR(pixel(image, x, y), red, 4) << x << "," << y;
}

TEST_F(SceneRendererTest, RoundedCornersLeaveTheCornerToTheBackground) {
  SceneRenderer r = renderer();
  SceneState state = plainState();
  state.canvas.padding = 0.1;
  state.canvas.background = CanvasBackground::solid;
  state.canvas.preset = CanvasBackgroundPreset::snow;
  const RectValue rect = SceneLayout::screenRect({64, 36}, {320, 180}, 0.1);
  const double cornerX = std::ceil(rect.x), cornerY = std::ceil(rect.y);
  const StillImage square = r.render(state, quadrantFrames(screenFrame()), outputSize);
  EXPECT_COLOUR(pixel(square, cornerX, cornerY), red, 6);
  state.canvas.cornerRadius = 0.08;
  const StillImage rounded = r.render(state, quadrantFrames(screenFrame()), outputSize);
  EXPECT_GT(distance(pixel(rounded, cornerX, cornerY), red), 150);
  EXPECT_COLOUR(pixel(rounded, rect.x + rect.width * 0.25, rect.y + rect.height * 0.25), red, 4);
}

TEST_F(SceneRendererTest, TheCameraOverlayAppearsWhereItsGeometrySaysMirroredOrNot) {
  // The camera's left half green, right half blue.
  const SyntheticFrame camera(48, 48, VideoPixelLayout::nv12,
                              [](int x, int) { return x < 24 ? limited709.topRight : limited709.bottomLeft; });
  SceneRenderer r = renderer();
  for (const bool mirrored : {false, true}) {
    SCOPED_TRACE(mirrored ? "mirrored" : "as recorded");
    SceneState state = plainState();
    WebcamState webcam;
    webcam.center = {0.75, 0.6};
    webcam.diameter = 0.4;
    webcam.cornerRadius = 0;
    webcam.isMirrored = mirrored;
    state.webcam = webcam;
    SceneFrames frames = quadrantFrames(screenFrame());
    frames.webcam = camera.frame();
    const StillImage image = r.render(state, frames, outputSize);
    const WebcamGeometry g = webcamGeometry(state, {48, 48}, outputSize);
    const double y = (g.y + g.height * 0.5) * 180;
    const Rgb left = pixel(image, (g.x + g.width * 0.2) * 320, y);
    const Rgb right = pixel(image, (g.x + g.width * 0.8) * 320, y);
    EXPECT_COLOUR(left, mirrored ? blue : green, 6);
    EXPECT_COLOUR(right, mirrored ? green : blue, 6);
    // Just outside the overlay the screen shows again (bottom-right quadrant: white).
    EXPECT_COLOUR(pixel(image, (g.x + g.width) * 320 + 3, y), white, 6);
  }
}

// Solid pictures standing in for the text renderers.
SharedTextRaster solidRaster(int width, int height, Rgb colour, RectValue frame) {
  auto raster = std::make_shared<TextRaster>();
  raster->image.width = width;
  raster->image.height = height;
  for (int i = 0; i < width * height; ++i)
    raster->image.pixels.insert(raster->image.pixels.end(),
                                {static_cast<std::uint8_t>(colour[0]), static_cast<std::uint8_t>(colour[1]),
                                 static_cast<std::uint8_t>(colour[2]), 255});
  raster->frame = frame;
  return raster;
}

TEST_F(SceneRendererTest, CaptionsAndTextAnnotationsArePlacedFromTheirRasters) {
  TextRasterSources text;
  text.caption = [](const CaptionState&, PixelSize) {
    return solidRaster(100, 20, {200, 30, 30}, {110, 150, 100, 20});
  };
  // Each text annotation's raster is coloured by its z index, so the atlas placement is visible.
  text.textAnnotation = [](const AnnotationElement& a, PixelSize) {
    const Rgb colour = a.zIndex == 1 ? Rgb{220, 220, 20} : Rgb{20, 20, 220};
    return solidRaster(40 + static_cast<int>(a.zIndex) * 10, 16, colour, {20.0 + 100 * a.zIndex, 20, 0, 0});
  };
  SceneState state = plainState();
  state.caption = CaptionState{};
  for (int z : {1, 2}) {
    AnnotationElement a;
    a.kind = AnnotationKind::text;
    a.bounds = RectValue{0.1, 0.1, 0.3, 0.2};
    a.zIndex = z;
    state.annotations.push_back(a);
  }
  const StillImage image = renderer(text).render(state, quadrantFrames(screenFrame()), outputSize);
  EXPECT_COLOUR(pixel(image, 160, 160), (Rgb{200, 30, 30}), 2);
  EXPECT_COLOUR(pixel(image, 125, 28), (Rgb{220, 220, 20}), 2);  // first: 50 wide from x 120
  EXPECT_COLOUR(pixel(image, 165, 28), (Rgb{220, 220, 20}), 2);
  EXPECT_COLOUR(pixel(image, 275, 28), (Rgb{20, 20, 220}), 2);  // second: 60 wide from x 220
  EXPECT_COLOUR(pixel(image, 175, 28), green, 4) << "nothing drawn past the first raster";
}

TEST_F(SceneRendererTest, ShapeAnnotationsDrawOverTheScene) {
  SceneState state = plainState();
  AnnotationElement box;
  box.kind = AnnotationKind::rectangle;
  box.bounds = RectValue{0.1, 0.1, 0.2, 0.2};
  box.isFilled = true;
  box.color = {0, 0, 0};
  AnnotationElement arrow;
  arrow.kind = AnnotationKind::arrow;
  arrow.startPoint = PointValue{0.55, 0.75};
  arrow.endPoint = PointValue{0.95, 0.75};
  arrow.lineWidth = 0.03;
  arrow.color = {1, 0, 1};
  AnnotationElement spotlight;
  spotlight.kind = AnnotationKind::circle;
  spotlight.bounds = RectValue{0.05, 0.55, 0.3, 0.4};
  spotlight.dimsOutside = true;
  state.annotations = {spotlight, box, arrow};
  const StillImage image = renderer().render(state, quadrantFrames(screenFrame()), outputSize);
  EXPECT_COLOUR(pixel(image, 64, 36), (Rgb{0, 0, 0}), 2);
  EXPECT_COLOUR(pixel(image, 240, 135), (Rgb{255, 0, 255}), 2);
  EXPECT_COLOUR(pixel(image, 64, 135), blue, 4) << "inside the spotlight";
  EXPECT_COLOUR(pixel(image, 240, 45), (Rgb{0, 115, 0}), 4) << "outside it, darkened by 0.55";
}

TEST_F(SceneRendererTest, TheAnnotationPassCopiesTheSceneExactly) {
  SceneState state;
  state.canvas.cornerRadius = 0.05;
  state.cursor.visible = true;
  SceneRenderer r = renderer();
  const StillImage direct = r.render(state, quadrantFrames(screenFrame()), outputSize);
  AnnotationElement empty;  // no bounds: draws nothing, but sends the frame through the second pass
  state.annotations = {empty};
  const StillImage twoPasses = r.render(state, quadrantFrames(screenFrame()), outputSize);
  EXPECT_TRUE(direct == twoPasses);
}

TEST_F(SceneRendererTest, AMosaicShowsOneColourPerBlock) {
  SceneRenderer r = renderer();
  SceneState state = plainState();
  const StillImage plain = r.render(state, quadrantFrames(screenFrame()), outputSize);
  // Across the red-green edge at x 160 the scene blends over a few pixels.
  EXPECT_GT(distance(pixel(plain, 160, 70), pixel(plain, 163, 70)), 40);
  AnnotationElement mosaic;
  mosaic.kind = AnnotationKind::mosaic;
  mosaic.bounds = RectValue{0.4, 0.35, 0.2, 0.3};  // x from 128; blocks of 180 × 0.025 = 4.5 pixels
  state.annotations = {mosaic};
  const StillImage pixelated = r.render(state, quadrantFrames(screenFrame()), outputSize);
  // Pixels 160...163 lie in the block [159.5, 164).
  for (int x = 161; x <= 163; ++x) EXPECT_EQ(pixel(pixelated, x, 70), pixel(pixelated, 160, 70)) << x;
  EXPECT_EQ(pixel(pixelated, 100, 70), pixel(plain, 100, 70)) << "outside the bounds nothing changes";
}

TEST_F(SceneRendererTest, MoreThanSixteenAnnotationsAreRefused) {
  SceneState state = plainState();
  for (int i = 0; i < 17; ++i) {
    AnnotationElement a;
    a.bounds = RectValue{0.1, 0.1, 0.1, 0.1};
    a.zIndex = i;
    state.annotations.push_back(a);
  }
  SceneRenderer r = renderer();
  EXPECT_ERROR_CASE(r.render(state, quadrantFrames(screenFrame()), outputSize), SceneRendererError,
                    SceneRendererError::Case::tooManyAnnotations);
  state.annotations.pop_back();
  EXPECT_NO_THROW(r.render(state, quadrantFrames(screenFrame()), outputSize));
}

// Reference pictures: what a person checked once, kept to catch unintended change.

TEST_F(SceneRendererTest, GoldenPaddingAndRadius) {
  SceneState state;
  state.canvas.padding = 0.15;
  state.canvas.cornerRadius = 0.06;
  state.cursor.visible = false;
  expectGolden(renderer().render(state, quadrantFrames(screenFrame()), outputSize), "padding-radius-gradient");
}

TEST_F(SceneRendererTest, GoldenBackgrounds) {
  SceneRenderer r = renderer();
  SceneState solid;
  solid.cursor.visible = false;
  solid.canvas.background = CanvasBackground::solid;
  solid.canvas.preset = CanvasBackgroundPreset::sky;
  expectGolden(r.render(solid, quadrantFrames(screenFrame()), outputSize), "background-solid");

  // A 60 × 60 picture in horizontal bands, centre-cropped to 16:9.
  StillImage bands;
  bands.width = 60;
  bands.height = 60;
  for (int y = 0; y < 60; ++y)
    for (int x = 0; x < 60; ++x)
      bands.pixels.insert(bands.pixels.end(),
                          {static_cast<std::uint8_t>(y * 4), 90, static_cast<std::uint8_t>(240 - x * 3), 255});
  CanvasBackgroundAssetPayload payload;
  payload.descriptor.id = "bands";
  payload.descriptor.mediaKind = CanvasBackgroundMediaKind::image;
  payload.imageData = encodeStillImage(bands, StillImageFormat::png);
  CanvasBackgroundAssetPayload broken;
  broken.descriptor.id = "broken";
  broken.imageData = "not a picture";
  r.registerCanvasBackgroundAssets({broken, payload});
  SceneState image = solid;
  image.canvas.image = payload.descriptor;
  expectGolden(r.render(image, quadrantFrames(screenFrame()), outputSize), "background-image");

  constexpr Quadrants turned{limited709.bottomRight, limited709.bottomLeft, limited709.topRight, limited709.topLeft};
  const SyntheticFrame wallpaper(80, 40, VideoPixelLayout::nv12, quadrants(turned, 80, 40));
  SceneState video = solid;
  CanvasBackgroundImage descriptor;
  descriptor.id = "wallpaper";
  descriptor.mediaKind = CanvasBackgroundMediaKind::video;
  video.canvas.image = descriptor;
  video.canvas.padding = 0.25;
  SceneFrames frames = quadrantFrames(screenFrame());
  frames.backgroundVideo = wallpaper.frame();
  expectGolden(r.render(video, frames, outputSize), "background-video");
}

TEST_F(SceneRendererTest, GoldenZoomWithCursorAndClicks) {
  SceneRenderer r = renderer();
  SceneState state;
  state.camera = {{0.4, 0.45}, 1.8};
  state.cursor.visible = true;
  state.cursor.scale = 2;
  state.cursor.outputPosition = {0.45, 0.5};
  // The recording's encoded size: a point of the cursor is one pixel of it, the frame is upscaled.
  SceneFrames frames = quadrantFrames(screenFrame());
  frames.sourceSize = {640, 360};
  for (const ClickEffectStyle style :
       {ClickEffectStyle::solidPulse, ClickEffectStyle::ring, ClickEffectStyle::ringAndPress}) {
    state.clickEffect = ClickEffectState{{0.6, 0.4}, 0.25, style};
    expectGolden(r.render(state, frames, outputSize), "zoom-cursor-click-" + std::string(nameOf(style)));
  }
  state.clickEffect.reset();
  state.motionBlurCamera = CameraState{{0.5, 0.5}, 1.2};
  expectGolden(r.render(state, frames, outputSize), "zoom-motion-blur");
}

TEST_F(SceneRendererTest, GoldenCameraOverlay) {
  const SyntheticFrame camera(64, 48, VideoPixelLayout::yuv420p, quadrants(limited709, 64, 48));
  SceneState state;
  state.cursor.visible = false;
  WebcamState webcam;
  webcam.center = {0.82, 0.74};
  webcam.diameter = 0.35;
  webcam.isMirrored = true;
  webcam.cornerRadius = 1;
  webcam.showsBorder = true;
  webcam.showsShadow = true;
  state.webcam = webcam;
  SceneFrames frames = quadrantFrames(screenFrame());
  frames.webcam = camera.frame();
  SceneRenderer r = renderer();
  expectGolden(r.render(state, frames, outputSize), "camera-circle");
  state.webcam->aspectRatio = WebcamAspectRatio::source;
  state.webcam->cornerRadius = 0.4;
  state.webcam->fullscreenProgress = 0.5;
  expectGolden(r.render(state, frames, outputSize), "camera-source-half-fullscreen");
}

TEST_F(SceneRendererTest, GoldenDeviceFrame) {
  SceneState state;
  state.cursor.visible = false;
  state.deviceFrame = DeviceFrameEdit{true, "vumo-display-black", DeviceFrameContentMode::fit};
  expectGolden(renderer().render(state, quadrantFrames(screenFrame()), outputSize), "device-frame-display");
}

TEST_F(SceneRendererTest, GoldenAnnotations) {
  SceneState state = plainState();
  auto make = [](AnnotationKind kind, RectValue bounds, CanvasColorValue colour) {
    AnnotationElement a;
    a.kind = kind;
    a.bounds = bounds;
    a.color = colour;
    return a;
  };
  AnnotationElement outline = make(AnnotationKind::rectangle, {0.05, 0.08, 0.3, 0.3}, {1, 0.8, 0});
  outline.cornerRadius = 0.4;
  outline.lineWidth = 0.015;
  AnnotationElement circle = make(AnnotationKind::circle, {0.6, 0.1, 0.3, 0.35}, {0.1, 0.1, 0.1});
  circle.isFilled = true;
  AnnotationElement mosaic = make(AnnotationKind::mosaic, {0.4, 0.35, 0.18, 0.3}, {0, 0, 0});
  AnnotationElement arrow;
  arrow.kind = AnnotationKind::arrow;
  arrow.startPoint = PointValue{0.1, 0.9};
  arrow.endPoint = PointValue{0.45, 0.6};
  arrow.lineWidth = 0.012;
  AnnotationElement dim = make(AnnotationKind::rectangle, {0.55, 0.55, 0.4, 0.4}, {0.2, 0.6, 1});
  dim.dimsOutside = true;
  state.annotations = {outline, circle, mosaic, arrow, dim};
  expectGolden(renderer().render(state, quadrantFrames(screenFrame()), outputSize), "annotations");
}

// Captions and a text annotation drawn by the real text renderers (Pango with the program's own
// Noto fonts), in Chinese and in English, with a highlight and each appearance.
TEST_F(SceneRendererTest, GoldenCaptionsAndTextAnnotation) {
  SceneRenderer r = renderer(TextRasterSources::standard());
  SceneState chinese = plainState();
  chinese.caption = CaptionState{};
  chinese.caption->text = "先找出没有声音的停顿";
  chinese.caption->highlights = {CaptionHighlight{"停顿", 1}};
  AnnotationElement label;
  label.kind = AnnotationKind::text;
  label.bounds = RectValue{0.08, 0.1, 0.5, 0.3};
  label.color = {1, 1, 1};
  label.textStyle = TextAnnotationStyle{"Click here", 150, true, TextAnnotationOutlineColor::black};
  chinese.annotations = {label};
  expectGolden(r.render(chinese, quadrantFrames(screenFrame()), outputSize), "caption-chinese-text-annotation");

  SceneState english = plainState();
  english.caption = CaptionState{};
  english.caption->text = "Cut the pauses where nothing happens, then zoom in on every click";
  english.caption->appearance = CaptionAppearance::whiteWithBlackOutline;
  english.caption->maximumLines = 1;
  english.caption->bottomPosition = 0.2;
  expectGolden(r.render(english, quadrantFrames(screenFrame()), outputSize), "caption-english-outline");
}

// Every part at once: the fullest shader variant compiles and draws (variants are made on first
// use, so nothing else would ever build this one before a user's frame needs it).
TEST_F(SceneRendererTest, EveryPartAtOnceDraws) {
  const SyntheticFrame camera(64, 48, VideoPixelLayout::nv12, quadrants(limited709, 64, 48));
  const SyntheticFrame wallpaper(80, 40, VideoPixelLayout::yuv420p, quadrants(limited709, 80, 40));
  SceneState state;
  state.camera = {{0.4, 0.45}, 1.8};
  state.motionBlurCamera = CameraState{{0.5, 0.5}, 1.2};
  state.cursor.visible = true;
  state.clickEffect = ClickEffectState{{0.6, 0.4}, 0.25, ClickEffectStyle::ringAndPress};
  state.webcam = WebcamState{};
  state.deviceFrame = DeviceFrameEdit{true, "vumo-display-black", DeviceFrameContentMode::fill};
  CanvasBackgroundImage descriptor;
  descriptor.id = "wallpaper";
  descriptor.mediaKind = CanvasBackgroundMediaKind::video;
  state.canvas.image = descriptor;
  state.caption = CaptionState{};
  state.caption->text = "All of it";
  AnnotationElement box;
  box.kind = AnnotationKind::rectangle;
  box.bounds = RectValue{0.1, 0.1, 0.2, 0.2};
  state.annotations = {box};
  SceneFrames frames = quadrantFrames(screenFrame());
  frames.webcam = camera.frame();
  frames.backgroundVideo = wallpaper.frame();
  SceneRenderer r = renderer(TextRasterSources::standard());
  const StillImage image = r.render(state, frames, outputSize);
  ASSERT_EQ(image.width, outputSize.width);
  ASSERT_EQ(image.height, outputSize.height);
  // Opaque throughout, and not one flat colour.
  std::set<std::uint32_t> colours;
  for (std::size_t i = 0; i < image.pixels.size(); i += 4) {
    EXPECT_EQ(image.pixels[i + 3], 255);
    colours.insert(image.pixels[i] << 16 | image.pixels[i + 1] << 8 | image.pixels[i + 2]);
    if (HasFailure()) break;
  }
  EXPECT_GT(colours.size(), 100u);
}

}  // namespace
}  // namespace vumo
