// The film pass: a frame of known colours comes back from the GPU as the BT.709 limited-range
// planes of those colours, computed by hand, whatever the size's padding and the caller's strides.

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "rendering/rendering_context.h"
#include "rendering/rendering_errors.h"
#include "rendering/scene_renderer.h"
#include "support/test_support.h"

namespace vumo {
namespace {

using testing::ScopedEnvironmentVariable;
using testing::TemporaryDirectory;

using Yuv = std::array<int, 3>;

// Y' = 16 + 219 (0.2126 R + 0.7152 G + 0.0722 B), Cb = 128 + 224 (B - Y) / 1.8556,
// Cr = 128 + 224 (R - Y) / 1.5748, with R, G, B in 0...1, rounded.
constexpr Yuv red{63, 102, 240}, green{173, 42, 26}, blue{32, 240, 118}, white{235, 128, 128};

// A 4:2:0 picture whose quadrants are red, green (top), blue and white (bottom), in the limited
// range BT.709 values the film must carry again.
class QuadrantFrame {
 public:
  QuadrantFrame(int width, int height, std::function<Yuv(int, int)> colourAt) : width_(width), height_(height) {
    luma_.resize(static_cast<std::size_t>(width * height));
    cb_.resize(static_cast<std::size_t>(width * height / 4));
    cr_.resize(cb_.size());
    for (int y = 0; y < height; ++y)
      for (int x = 0; x < width; ++x) {
        const Yuv c = colourAt(x, y);
        luma_[static_cast<std::size_t>(y * width + x)] = static_cast<std::uint8_t>(c[0]);
        if (x % 2 == 0 && y % 2 == 0) {
          cb_[static_cast<std::size_t>(y / 2 * width / 2 + x / 2)] = static_cast<std::uint8_t>(c[1]);
          cr_[static_cast<std::size_t>(y / 2 * width / 2 + x / 2)] = static_cast<std::uint8_t>(c[2]);
        }
      }
  }

  SceneFrames frames() const {
    DecodedVideoFrame f;
    f.width = width_;
    f.height = height_;
    f.layout = VideoPixelLayout::yuv420p;
    f.range = VideoColorRange::limited;
    f.matrix = VideoColorMatrix::bt709;
    f.planeCount = 3;
    f.planes = {luma_.data(), cb_.data(), cr_.data()};
    f.strides = {width_, width_ / 2, width_ / 2};
    SceneFrames frames;
    frames.sourceSize = {width_, height_};
    frames.screen = f;
    return frames;
  }

 private:
  int width_, height_;
  std::vector<std::uint8_t> luma_, cb_, cr_;
};

Yuv quadrantAt(double x, double y) { return y < 0.5 ? (x < 0.5 ? red : green) : (x < 0.5 ? blue : white); }

QuadrantFrame quadrantsOf(PixelSize size) {
  const int width = static_cast<int>(size.width), height = static_cast<int>(size.height);
  return QuadrantFrame(width, height, [=](int x, int y) { return quadrantAt(double(x) / width, double(y) / height); });
}

const QuadrantFrame& quadrants() {
  static const QuadrantFrame frame = quadrantsOf({64, 36});
  return frame;
}

// Planes with strides wider than their rows, filled with a marker so unwritten bytes show.
struct Planes {
  Planes(PixelSize size) : width(static_cast<int>(size.width)), height(static_cast<int>(size.height)) {
    strides = {width + 13, width / 2 + 5, width / 2 + 9};
    for (std::size_t plane = 0; plane < 3; ++plane) {
      const int rows = plane == 0 ? height : height / 2;
      bytes[plane].assign(static_cast<std::size_t>(strides[plane] * rows), 7);
    }
  }
  PlanarFrameTarget target() {
    PlanarFrameTarget t;
    for (std::size_t plane = 0; plane < 3; ++plane) {
      t.planes[plane] = bytes[plane].data();
      t.strides[plane] = strides[plane];
    }
    return t;
  }
  int at(std::size_t plane, int x, int y) const {
    return bytes[plane][static_cast<std::size_t>(y * strides[plane] + x)];
  }

  int width, height;
  std::array<int, 3> strides{};
  std::array<std::vector<std::uint8_t>, 3> bytes;
};

class FilmPlanes : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    home_ = new TemporaryDirectory();
    homeVariable_ = new ScopedEnvironmentVariable("HOME", home_->path().string());
    cacheVariable_ = new ScopedEnvironmentVariable("XDG_CACHE_HOME", (home_->path() / "cache").string());
    renderer_ = new SceneRenderer(RenderingContext::create(VUMO_TEST_RESOURCE_DIR), {});
  }
  static void TearDownTestSuite() {
    delete renderer_;
    delete cacheVariable_;
    delete homeVariable_;
    delete home_;
  }
  void TearDown() override { renderer_->discardFramesInFlight(); }

  // The recording fills the output: no margin, corners, pointer or shadow.
  static SceneState plainState() {
    SceneState state;
    state.canvas.padding = 0;
    state.canvas.cornerRadius = 0;
    state.cursor.visible = false;
    return state;
  }

  static inline SceneRenderer* renderer_ = nullptr;
  static inline TemporaryDirectory* home_ = nullptr;
  static inline ScopedEnvironmentVariable* homeVariable_ = nullptr;
  static inline ScopedEnvironmentVariable* cacheVariable_ = nullptr;
};

// The source's own size, a larger one, and sizes whose rows and chroma planes are not multiples of
// the GPU's four-byte groups.
TEST_F(FilmPlanes, EachQuadrantCarriesTheLimitedRangeValuesOfItsColour) {
  struct Row {
    PixelSize source, size;
  };
  for (const Row row :
       {Row{{64, 36}, {64, 36}}, Row{{64, 36}, {320, 180}}, Row{{66, 38}, {66, 38}}, Row{{90, 22}, {90, 22}}}) {
    const PixelSize size = row.size;
    SCOPED_TRACE(::testing::PrintToString(size.width) + "x" + ::testing::PrintToString(size.height));
    const QuadrantFrame source = quadrantsOf(row.source);
    renderer_->beginPlanarFrame(plainState(), source.frames(), size);
    Planes planes(size);
    renderer_->finishPlanarFrame(planes.target());
    const int w = planes.width, h = planes.height;
    for (const auto& [fx, fy] : {std::pair{0.2, 0.2}, std::pair{0.8, 0.2}, std::pair{0.2, 0.8}, std::pair{0.8, 0.8}}) {
      SCOPED_TRACE(::testing::PrintToString(fx) + "," + ::testing::PrintToString(fy));
      const Yuv expected = quadrantAt(fx, fy);
      const int x = static_cast<int>(fx * w) & ~1, y = static_cast<int>(fy * h) & ~1;
      EXPECT_NEAR(planes.at(0, x, y), expected[0], 1);
      EXPECT_NEAR(planes.at(0, x + 1, y + 1), expected[0], 1);
      EXPECT_NEAR(planes.at(1, x / 2, y / 2), expected[1], 1);
      EXPECT_NEAR(planes.at(2, x / 2, y / 2), expected[2], 1);
    }
    // The corners: every row of every plane is written, top row first, and nothing past its end.
    EXPECT_NEAR(planes.at(0, w - 1, h - 1), white[0], 1);
    EXPECT_NEAR(planes.at(0, 0, 0), red[0], 1);
    EXPECT_NEAR(planes.at(2, w / 2 - 1, h / 2 - 1), white[2], 1);
    EXPECT_NEAR(planes.at(2, 0, 0), red[2], 1);
    EXPECT_NEAR(planes.at(1, 0, h / 2 - 1), blue[1], 1);
    EXPECT_EQ(planes.at(0, w, 0), 7);
    EXPECT_EQ(planes.at(1, w / 2, h / 2 - 1), 7);
    EXPECT_EQ(planes.at(2, w / 2, 0), 7);
  }
}

// Two frames may wait; they come back in the order begun, each as it was begun (planes or RGBA),
// and a third is refused until one is taken.
TEST_F(FilmPlanes, FramesComeBackInTheOrderBegun) {
  static const QuadrantFrame whiteFrame(64, 36, [](int, int) { return white; });
  const PixelSize size{64, 36};
  renderer_->beginPlanarFrame(plainState(), whiteFrame.frames(), size);
  renderer_->beginRgbaFrame(plainState(), quadrants().frames(), size);
  EXPECT_EQ(renderer_->framesInFlight(), 2);
  EXPECT_THROW(renderer_->beginPlanarFrame(plainState(), whiteFrame.frames(), size), SceneRendererError);
  std::vector<std::uint8_t> rgba(64 * 36 * 4);
  EXPECT_THROW(renderer_->finishRgbaFrame(rgba.data()), SceneRendererError);
  EXPECT_EQ(renderer_->framesInFlight(), 2);

  Planes first(size);
  renderer_->finishPlanarFrame(first.target());
  EXPECT_NEAR(first.at(0, 2, 2), white[0], 1);
  renderer_->finishRgbaFrame(rgba.data());
  // Rows bottom first: blue at the start, red in the last row.
  auto near = [](const std::uint8_t* pixel, std::array<int, 3> expected) {
    for (std::size_t c = 0; c < 3; ++c)
      if (std::abs(pixel[c] - expected[c]) > 2) return false;
    return true;
  };
  EXPECT_TRUE(near(&rgba[0], {0, 0, 255}));
  EXPECT_TRUE(near(&rgba[35 * 64 * 4], {255, 0, 0}));
  EXPECT_TRUE(near(&rgba[(35 * 64 + 63) * 4], {0, 255, 0}));

  Planes none(size);
  EXPECT_THROW(renderer_->finishPlanarFrame(none.target()), SceneRendererError);
}

TEST_F(FilmPlanes, AnOddSizeIsRefused) {
  for (const PixelSize size : {PixelSize{65, 36}, PixelSize{64, 37}, PixelSize{0, 36}}) {
    EXPECT_THROW(renderer_->beginPlanarFrame(plainState(), quadrants().frames(), size), SceneRendererError);
    EXPECT_EQ(renderer_->framesInFlight(), 0);
  }
}

}  // namespace
}  // namespace vumo
