#include "rendering/text_annotation_renderer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include "support/test_support.h"

namespace vumo {
namespace {

constexpr PixelSize fullHD{1920, 1080};
constexpr PixelSize ultraHD{3840, 2160};

// Fontconfig writes its cache under the cache home: never the real one.
class TextAnnotationRendererTest : public ::testing::Test {
 protected:
  testing::TemporaryDirectory home_;
  testing::ScopedEnvironmentVariable cacheHome_{"XDG_CACHE_HOME", (home_.path() / "cache").string()};
  testing::ScopedEnvironmentVariable userHome_{"HOME", home_.path().string()};
};

AnnotationElement textAnnotation(std::string content, RectValue bounds = {0.1, 0.2, 0.5, 0.3}, double fontSize = 48) {
  AnnotationElement annotation;
  annotation.kind = AnnotationKind::text;
  annotation.bounds = bounds;
  annotation.color = {1, 0, 0};
  TextAnnotationStyle style;
  style.content = std::move(content);
  style.fontSize = fontSize;
  annotation.textStyle = style;
  return annotation;
}

RectValue pixelBounds(const AnnotationElement& annotation, PixelSize output) {
  const auto& b = *annotation.bounds;
  return {b.x * output.width, b.y * output.height, b.width * output.width, b.height * output.height};
}

void expectInside(const RectValue& frame, const RectValue& bounds) {
  EXPECT_GE(frame.x, bounds.x);
  EXPECT_GE(frame.y, bounds.y);
  EXPECT_LE(frame.x + frame.width, bounds.x + bounds.width);
  EXPECT_LE(frame.y + frame.height, bounds.y + bounds.height);
}

struct PixelCounts {
  int opaque = 0;
  int opaqueRed = 0;    // (255, 0, 0)
  int opaqueBlack = 0;  // every channel at most 15
  int opaqueWhite = 0;  // every channel at least 240
};

PixelCounts countPixels(const StillImage& image) {
  PixelCounts counts;
  for (std::size_t i = 0; i < image.pixels.size(); i += 4) {
    const auto* p = &image.pixels[i];
    if (p[3] != 255) continue;
    ++counts.opaque;
    if (p[0] == 255 && p[1] == 0 && p[2] == 0) ++counts.opaqueRed;
    if (p[0] <= 15 && p[1] <= 15 && p[2] <= 15) ++counts.opaqueBlack;
    if (p[0] >= 240 && p[1] >= 240 && p[2] >= 240) ++counts.opaqueWhite;
  }
  return counts;
}

TEST_F(TextAnnotationRendererTest, TheCropHugsTheGlyphsInsideTheBoundsAndScalesWithTheOutput) {
  TextAnnotationRenderer renderer;
  const auto annotation = textAnnotation("H");
  const auto small = renderer.texture(annotation, fullHD);
  const auto large = renderer.texture(annotation, ultraHD);
  ASSERT_TRUE(small && large);
  expectInside(small->frame, pixelBounds(annotation, fullHD));
  expectInside(large->frame, pixelBounds(annotation, ultraHD));
  EXPECT_EQ(small->frame.width, small->image.width);
  EXPECT_EQ(small->frame.height, small->image.height);

  // A capital H at 48 px is 0.714 em tall (34.3 px) and starts a few pixels from the left edge,
  // under the line's ascent; the crop adds a pixel of anti-aliasing on each side.
  EXPECT_NEAR(small->frame.height, 48 * 0.714 + 2, 1.5);
  EXPECT_NEAR(small->frame.x, 192 + 48 * 0.09 - 1, 2);
  EXPECT_GT(small->frame.y, 216 + 5);
  EXPECT_LT(small->frame.y, 216 + 48 * 0.5);

  // Twice the output height: twice the glyphs, at twice the offset in the bounds.
  EXPECT_NEAR(large->frame.width, 2 * small->frame.width, 3);
  EXPECT_NEAR(large->frame.height, 2 * small->frame.height, 3);
  EXPECT_NEAR(large->frame.x - 384, 2 * (small->frame.x - 192), 3);
  EXPECT_NEAR(large->frame.y - 432, 2 * (small->frame.y - 216), 3);

  EXPECT_NEAR(textAnnotationFontSize(48, fullHD), 48, 1e-12);
  EXPECT_NEAR(textAnnotationFontSize(48, {1280, 720}), 32, 1e-12);
  EXPECT_NEAR(textAnnotationFontSize(48, {1080, 1920}), 48 * 1920 / 1080.0, 1e-12);
}

TEST_F(TextAnnotationRendererTest, TextWrapsAtTheBoundsWidthAndIsCutAtItsBottom) {
  TextAnnotationRenderer renderer;
  struct Case {
    const char* name;
    RectValue bounds;
    double minimumHeight;
    double maximumHeight;
  } cases[] = {
      // A line of Noto Sans at 48 px is 65.4 px; the ink of a lower-case line with ascenders is
      // about 0.76 em (36 px).
      {"wide bounds hold one line", {0.05, 0.1, 0.9, 0.5}, 34, 42},
      {"narrow bounds wrap", {0.05, 0.1, 0.12, 0.8}, 2 * 65.4 + 34, 1000},
      {"short bounds cut the lines", {0.05, 0.1, 0.12, 0.06}, 34, 0.06 * 1080},
  };
  const std::string content = "one two three four five six";
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto annotation = textAnnotation(content, c.bounds);
    const auto raster = renderer.texture(annotation, fullHD);
    ASSERT_TRUE(raster);
    expectInside(raster->frame, pixelBounds(annotation, fullHD));
    EXPECT_GE(raster->frame.height, c.minimumHeight);
    EXPECT_LE(raster->frame.height, c.maximumHeight);
  }
}

TEST_F(TextAnnotationRendererTest, ColourAndOutlineComeFromTheAnnotation) {
  struct Case {
    const char* name;
    bool hasOutline;
    TextAnnotationOutlineColor outline;
    bool expectBlack;
    bool expectWhite;
  } cases[] = {
      {"no outline", false, TextAnnotationOutlineColor::black, false, false},
      {"black outline", true, TextAnnotationOutlineColor::black, true, false},
      {"white outline", true, TextAnnotationOutlineColor::white, false, true},
  };
  TextAnnotationRenderer renderer;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto annotation = textAnnotation("Outlined text", {0.1, 0.1, 0.8, 0.5}, 96);
    annotation.textStyle->hasOutline = c.hasOutline;
    annotation.textStyle->outlineColor = c.outline;
    const auto raster = renderer.texture(annotation, fullHD);
    ASSERT_TRUE(raster);
    const auto counts = countPixels(raster->image);
    EXPECT_GT(counts.opaqueRed, 1000);
    EXPECT_EQ(counts.opaqueBlack > 200, c.expectBlack);
    EXPECT_EQ(counts.opaqueWhite > 200, c.expectWhite);
    if (!c.hasOutline) {
      EXPECT_EQ(counts.opaqueRed, counts.opaque) << "fill only: every opaque pixel is the colour";
    }
  }
}

TEST_F(TextAnnotationRendererTest, OnlyTextAnnotationsWithBoundsAndContentDraw) {
  TextAnnotationRenderer renderer;
  auto rectangle = textAnnotation("Text");
  rectangle.kind = AnnotationKind::rectangle;
  auto unbounded = textAnnotation("Text");
  unbounded.bounds.reset();
  auto empty = textAnnotation("");
  auto blank = textAnnotation("   ");
  auto zeroWidth = textAnnotation("Text", {0.1, 0.1, 0, 0.2});
  auto zeroSize = textAnnotation("Text", {0.1, 0.1, 0.5, 0.2}, 0);
  auto outside = textAnnotation("Text", {1.2, 0.1, 0.5, 0.2});
  for (const auto* annotation : {&rectangle, &unbounded, &empty, &blank, &zeroWidth, &zeroSize, &outside}) {
    EXPECT_EQ(renderer.texture(*annotation, fullHD), nullptr);
  }
  EXPECT_EQ(renderer.texture(textAnnotation("Text"), {0, 0}), nullptr);

  // Without a style, a text annotation reads with the default one.
  auto unstyled = textAnnotation("");
  unstyled.textStyle.reset();
  const auto drawn = renderer.texture(unstyled, fullHD);
  const auto defaultText = renderer.texture(textAnnotation("Text"), fullHD);
  ASSERT_TRUE(drawn && defaultText);
  EXPECT_EQ(drawn->image, defaultText->image);
}

TEST_F(TextAnnotationRendererTest, TheCacheAnswersTheSameInputsWithTheSameRaster) {
  TextAnnotationRenderer renderer;
  const auto base = textAnnotation("Cached");
  const auto first = renderer.texture(base, fullHD);
  ASSERT_TRUE(first);
  EXPECT_EQ(renderer.texture(base, fullHD), first);
  // What does not change the pixels does not miss the cache.
  auto moved = base;
  moved.startTime = ProjectTime::fromMilliseconds(3000);
  moved.zIndex = 7;
  EXPECT_EQ(renderer.texture(moved, fullHD), first);

  struct Change {
    const char* name;
    std::function<void(AnnotationElement&)> apply;
    PixelSize output = fullHD;
  } changes[] = {
      {"content", [](AnnotationElement& a) { a.textStyle->content = "Cache"; }},
      {"size", [](AnnotationElement& a) { a.textStyle->fontSize = 50; }},
      {"colour",
       [](AnnotationElement& a) {
         a.color = {0, 0, 1};
       }},
      {"outline", [](AnnotationElement& a) { a.textStyle->hasOutline = true; }},
      {"outline colour",
       [](AnnotationElement& a) {
         a.textStyle->hasOutline = true;
         a.textStyle->outlineColor = TextAnnotationOutlineColor::white;
       }},
      {"bounds", [](AnnotationElement& a) { a.bounds->x = 0.3; }},
      {"output", [](AnnotationElement&) {}, {1280, 720}},
  };
  std::vector<SharedTextRaster> seen{first};
  for (const auto& change : changes) {
    SCOPED_TRACE(change.name);
    auto changed = base;
    change.apply(changed);
    const auto raster = renderer.texture(changed, change.output);
    ASSERT_TRUE(raster);
    for (const auto& earlier : seen) EXPECT_NE(raster, earlier);
    seen.push_back(raster);
  }
}

}  // namespace
}  // namespace vumo
