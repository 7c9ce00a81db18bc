#include "rendering/caption_texture_renderer.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <functional>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "support/test_support.h"

namespace vumo {
namespace {

constexpr PixelSize fullHD{1920, 1080};

// Fontconfig writes its cache under the cache home: never the real one.
class CaptionTextureRendererTest : public ::testing::Test {
 protected:
  testing::TemporaryDirectory home_;
  testing::ScopedEnvironmentVariable cacheHome_{"XDG_CACHE_HOME", (home_.path() / "cache").string()};
  testing::ScopedEnvironmentVariable userHome_{"HOME", home_.path().string()};
};

CaptionState caption(std::string text, std::vector<CaptionHighlight> highlights = {},
                     CaptionAppearance appearance = CaptionAppearance::whiteOnBlack) {
  CaptionState state;
  state.text = std::move(text);
  state.highlights = std::move(highlights);
  state.appearance = appearance;
  return state;
}

const std::uint8_t* pixelAt(const StillImage& image, int x, int y) {
  return image.pixels.data() + (static_cast<std::size_t>(y) * image.width + x) * 4;
}

std::vector<std::uint8_t> channel(const StillImage& image, int index) {
  std::vector<std::uint8_t> values;
  for (std::size_t i = index; i < image.pixels.size(); i += 4) values.push_back(image.pixels[i]);
  return values;
}

// Opaque pixels whose red channel is at least (bright) or at most (dark) the threshold.
int opaqueCount(const StillImage& image, bool bright) {
  int count = 0;
  for (std::size_t i = 0; i < image.pixels.size(); i += 4) {
    if (image.pixels[i + 3] != 255) continue;
    if (bright ? image.pixels[i] >= 240 : image.pixels[i] <= 15) ++count;
  }
  return count;
}

// Over 3,000 pixels at 0.6 of the 1080p size: more than two lines even then.
const std::string longCue =
    "This cue runs on and on, far longer than anything a single line of a caption box could ever hold, "
    "so the layout has to give up shrinking and clip it. And then it goes on for a while, repeating "
    "itself, because a speaker who never pauses gives the captions no place to break the cue apart.";

TEST_F(CaptionTextureRendererTest, TheBaseSizeAndLineWidthFollowTheOutput) {
  struct Case {
    const char* name;
    PixelSize output;
    double fontScale;
    double wantedFontSize;
    double maximumWidth;
  } cases[] = {
      {"1080p", fullHD, 1, 1080 * 0.046, 1920 * 0.84},
      {"portrait takes the shorter side", {1080, 1920}, 1, 1080 * 0.046, 1080 * 0.84},
      {"a 320 px output keeps the base at 12", {320, 180}, 1, 12, 320 * 0.84},
      {"a tiny square keeps it too", {200, 200}, 1, 12, 200 * 0.84},
      {"scale 2 acts as 1.2", fullHD, 2, 1080 * 0.046 * 1.2, 1920 * 0.84},
      {"scale 0.1 acts as 0.6", fullHD, 0.1, 1080 * 0.046 * 0.6, 1920 * 0.84},
      {"scale 0.9 is kept", fullHD, 0.9, 1080 * 0.046 * 0.9, 1920 * 0.84},
      {"a scale that is no number is 1", fullHD, std::numeric_limits<double>::quiet_NaN(), 1080 * 0.046, 1920 * 0.84},
      {"scale 0.6 on a small output", {320, 180}, 0.6, 12 * 0.6, 320 * 0.84},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto layout = captionLayout("Hi", 2, c.fontScale, c.output);
    ASSERT_TRUE(layout.has_value());
    EXPECT_NEAR(layout->wantedFontSize, c.wantedFontSize, 1e-9);
    EXPECT_NEAR(layout->fontSize, c.wantedFontSize, 1e-9);
    EXPECT_NEAR(layout->maximumWidth, c.maximumWidth, 1e-9);
    EXPECT_EQ(layout->lineCount, 1);
    EXPECT_FALSE(layout->isClipped);
  }
  EXPECT_EQ(captionMaximumWidth({2, 2}), 2);
}

TEST_F(CaptionTextureRendererTest, ALongCueShrinksToSixTenthsAndIsClippedThere) {
  for (double fontScale : {1.0, 2.0}) {
    SCOPED_TRACE(fontScale);
    const auto layout = captionLayout(longCue, 1, fontScale, fullHD);
    ASSERT_TRUE(layout.has_value());
    EXPECT_NEAR(layout->fontSize, 0.6 * layout->wantedFontSize, 1e-9);
    EXPECT_NEAR(layout->wantedFontSize, 1080 * 0.046 * std::min(fontScale, 1.2), 1e-9);
    EXPECT_TRUE(layout->isClipped);
    EXPECT_GT(layout->lineCount, 1);
  }

  // Drawn, it is one line at 0.6 of the size: exactly as tall as a short cue set at scale 0.6.
  CaptionTextureRenderer renderer;
  auto clippedState = caption(longCue);
  clippedState.maximumLines = 1;
  auto shortState = caption("Hi");
  shortState.fontScale = 0.6;
  const auto clipped = renderer.asset(clippedState, fullHD);
  const auto oneLine = renderer.asset(shortState, fullHD);
  ASSERT_TRUE(clipped && oneLine);
  EXPECT_EQ(clipped->frame.height, oneLine->frame.height);
  EXPECT_LE(clipped->frame.width, 1920 * 0.84 + 0.6 * 1080 * 0.046 + 1);

  // With two lines allowed, the same cue is clipped to two lines.
  clippedState.maximumLines = 2;
  const auto twoLines = renderer.asset(clippedState, fullHD);
  ASSERT_TRUE(twoLines);
  const double lineHeight = twoLines->frame.height - oneLine->frame.height;
  // Noto Sans's line is 1.362 em (ascender 1.069, descender 0.293).
  EXPECT_NEAR(lineHeight, 1.362 * 0.6 * 1080 * 0.046, 1);
  ASSERT_TRUE(captionLayout(longCue, 2, 1, fullHD).value().isClipped);
}

TEST_F(CaptionTextureRendererTest, ACueJustOverItsLineLimitKeepsTheLargestSizeThatFits) {
  const double wanted = 1080 * 0.046;
  const double width = 1920 * 0.84;
  // Words are added until the cue no longer fits one line at full size but still does at 0.6.
  std::string text = "Captions";
  while (captionMeasurement(text, wanted, width).value().lineCount < 2) text += " shrink";
  ASSERT_EQ(captionMeasurement(text, 0.6 * wanted, width).value().lineCount, 1);

  const auto layout = captionLayout(text, 1, 1, fullHD);
  ASSERT_TRUE(layout.has_value());
  EXPECT_FALSE(layout->isClipped);
  EXPECT_EQ(layout->lineCount, 1);
  EXPECT_GT(layout->fontSize, 0.6 * wanted);
  EXPECT_LT(layout->fontSize, wanted);
  EXPECT_LE(captionMeasurement(text, layout->fontSize, width).value().size.width, width);
  EXPECT_EQ(captionMeasurement(text, layout->fontSize * 1.01, width).value().lineCount, 2);

  // Two lines allowed: it keeps its full size.
  EXPECT_EQ(captionLayout(text, 2, 1, fullHD).value().fontSize, wanted);
}

TEST_F(CaptionTextureRendererTest, HighlightsRecolourWithoutMovingAGlyph) {
  const std::string text = "the cat sat on the mat while the dog watched the cat and the mat from the door";
  for (auto appearance : {CaptionAppearance::whiteOnBlack, CaptionAppearance::whiteWithBlackOutline,
                          CaptionAppearance::blackWithWhiteOutline}) {
    SCOPED_TRACE(static_cast<int>(appearance));
    CaptionTextureRenderer renderer;
    auto plainState = caption(text, {}, appearance);
    plainState.fontScale = 1.2;
    auto firstState = plainState;
    firstState.highlights = {{"the cat", 1}};
    auto secondState = plainState;
    secondState.highlights = {{"the cat", 2}, {"door", 1}};
    auto absentState = plainState;
    absentState.highlights = {{"the cat", 3}};

    const auto plain = renderer.asset(plainState, fullHD);
    const auto first = renderer.asset(firstState, fullHD);
    const auto second = renderer.asset(secondState, fullHD);
    const auto absent = renderer.asset(absentState, fullHD);
    ASSERT_TRUE(plain && first && second && absent);
    ASSERT_GT(plain->frame.height, 2 * 1080 * 0.046) << "the cue should take two lines";

    for (const auto& highlighted : {first, second}) {
      EXPECT_EQ(highlighted->frame, plain->frame);
      // Same coverage everywhere: no glyph moved, no line broke elsewhere.
      EXPECT_EQ(channel(highlighted->image, 3), channel(plain->image, 3));
      EXPECT_NE(highlighted->image, plain->image);
    }
    EXPECT_NE(first->image, second->image);
    EXPECT_EQ(absent->image, plain->image);
  }
}

TEST_F(CaptionTextureRendererTest, ChineseIsSetInTheCJKFontAndDrawsGlyphs) {
  EXPECT_EQ(captionFontFamilies("自动生成字幕"), std::vector<std::string>{"Noto Sans CJK SC"});
  EXPECT_EQ(captionFontFamilies("Captions"), std::vector<std::string>{"Noto Sans"});
  EXPECT_EQ(captionFontFamilies("Vumo 字幕"), (std::vector<std::string>{"Noto Sans", "Noto Sans CJK SC"}));

  CaptionTextureRenderer renderer;
  const auto chinese = renderer.asset(caption("自动生成字幕", {}, CaptionAppearance::whiteWithBlackOutline), fullHD);
  ASSERT_TRUE(chinese);
  // Six ideographs of about 50 px at bold weight cover thousands of pixels in white fill.
  EXPECT_GT(opaqueCount(chinese->image, true), 2000);
}

TEST_F(CaptionTextureRendererTest, TheThreeAppearancesDiffer) {
  CaptionTextureRenderer renderer;
  const auto box = renderer.asset(caption("Vumo captions", {}, CaptionAppearance::whiteOnBlack), fullHD);
  const auto whiteText = renderer.asset(caption("Vumo captions", {}, CaptionAppearance::whiteWithBlackOutline), fullHD);
  const auto blackText = renderer.asset(caption("Vumo captions", {}, CaptionAppearance::blackWithWhiteOutline), fullHD);
  ASSERT_TRUE(box && whiteText && blackText);
  // One line of 1.362 em plus a quarter em of padding above and below, rounded up:
  // 49.68 × (1.362 + 0.5) = 92.5.
  EXPECT_EQ(box->frame.height, 93);
  EXPECT_EQ(box->frame, whiteText->frame);
  EXPECT_EQ(box->frame, blackText->frame);

  // In the box's left padding, half way down: the translucent black box, or nothing.
  const int x = 3;
  const int y = box->image.height / 2;
  const auto* inBox = pixelAt(box->image, x, y);
  EXPECT_EQ(inBox[0], 0);
  EXPECT_NEAR(inBox[3], 0.7 * 255, 1);
  EXPECT_EQ(pixelAt(whiteText->image, x, y)[3], 0);
  EXPECT_EQ(pixelAt(blackText->image, x, y)[3], 0);
  // Over the box the text is white and nothing is opaque black.
  EXPECT_GT(opaqueCount(box->image, true), 500);
  EXPECT_EQ(opaqueCount(box->image, false), 0);

  // Both outlined appearances show an opaque outline in the other colour.
  EXPECT_GT(opaqueCount(whiteText->image, false), 500);
  EXPECT_GT(opaqueCount(blackText->image, true), 500);
  // They are the same shapes with the colours swapped: in premultiplied pixels the second one's
  // grey is the first one's alpha minus its grey.
  ASSERT_EQ(whiteText->image.pixels.size(), blackText->image.pixels.size());
  int mismatches = 0;
  for (std::size_t i = 0; i < whiteText->image.pixels.size(); i += 4) {
    const int alpha = whiteText->image.pixels[i + 3];
    const int grey = whiteText->image.pixels[i];
    if (std::abs(blackText->image.pixels[i + 3] - alpha) > 1 ||
        std::abs(blackText->image.pixels[i] - (alpha - grey)) > 2)
      ++mismatches;
  }
  EXPECT_EQ(mismatches, 0);
}

TEST_F(CaptionTextureRendererTest, TheBoxIsCentredWithItsBottomAboveTheFrameBottom) {
  struct Case {
    PixelSize output;
    double bottomPosition;
    double bottom;
  } cases[] = {
      {fullHD, 0.25, 810}, {fullHD, 0, 1080}, {{1280, 720}, 0.5, 360}, {fullHD, 1.5, 0},  // held at the top edge
  };
  CaptionTextureRenderer renderer;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.bottom);
    auto state = caption("Centred");
    state.bottomPosition = c.bottomPosition;
    const auto raster = renderer.asset(state, c.output);
    ASSERT_TRUE(raster);
    EXPECT_EQ(raster->frame.y + raster->frame.height, c.bottom);
    EXPECT_NEAR(2 * raster->frame.x + raster->frame.width, static_cast<double>(c.output.width), 1);
    EXPECT_EQ(raster->frame.width, raster->image.width);
    EXPECT_EQ(raster->frame.height, raster->image.height);
    EXPECT_EQ(raster->image.pixels.size(), static_cast<std::size_t>(raster->image.width) * raster->image.height * 4);
  }
}

TEST_F(CaptionTextureRendererTest, TheCacheAnswersTheSameInputsWithTheSameRaster) {
  CaptionTextureRenderer renderer;
  auto base = caption("the cat sat", {{"cat", 1}});
  const auto first = renderer.asset(base, fullHD);
  ASSERT_TRUE(first);
  EXPECT_EQ(renderer.asset(base, fullHD), first);

  struct Change {
    const char* name;
    std::function<void(CaptionState&)> apply;
    PixelSize output = fullHD;
  } changes[] = {
      {"text", [](CaptionState& s) { s.text = "the cat sat down"; }},
      {"highlight",
       [](CaptionState& s) {
         s.highlights = {{"sat", 1}};
       }},
      {"no highlight", [](CaptionState& s) { s.highlights.clear(); }},
      {"appearance", [](CaptionState& s) { s.appearance = CaptionAppearance::blackWithWhiteOutline; }},
      {"line limit", [](CaptionState& s) { s.maximumLines = 1; }},
      {"font scale", [](CaptionState& s) { s.fontScale = 0.8; }},
      {"bottom", [](CaptionState& s) { s.bottomPosition = 0.3; }},
      {"output", [](CaptionState&) {}, {1280, 720}},
  };
  std::vector<SharedTextRaster> seen{first};
  for (const auto& change : changes) {
    SCOPED_TRACE(change.name);
    auto changed = base;
    change.apply(changed);
    const auto raster = renderer.asset(changed, change.output);
    ASSERT_TRUE(raster);
    for (const auto& earlier : seen) EXPECT_NE(raster, earlier);
    seen.push_back(raster);
    EXPECT_EQ(renderer.asset(changed, change.output), raster);
  }
  // Still held after the others.
  EXPECT_EQ(renderer.asset(base, fullHD), first);
}

TEST_F(CaptionTextureRendererTest, TheCacheForgetsTheLeastRecentlyUsedBeyondSixtyFour) {
  CaptionTextureRenderer renderer;
  constexpr PixelSize small{320, 180};
  const auto numbered = [](int i) { return caption(fmt::format("Cue {}", i)); };
  const auto kept = renderer.asset(numbered(0), small);
  const auto dropped = renderer.asset(numbered(1), small);
  ASSERT_TRUE(kept && dropped);
  for (int i = 2; i < 64; ++i) renderer.asset(numbered(i), small);
  EXPECT_EQ(renderer.asset(numbered(0), small), kept);  // now the most recent
  renderer.asset(numbered(64), small);                  // the 65th pushes out the oldest
  EXPECT_EQ(renderer.asset(numbered(0), small), kept);
  const auto redrawn = renderer.asset(numbered(1), small);
  ASSERT_TRUE(redrawn);
  EXPECT_NE(redrawn, dropped);
  EXPECT_EQ(redrawn->image, dropped->image);
}

TEST_F(CaptionTextureRendererTest, ThreadsDrawingAtOnceGetWhatOneThreadDraws) {
  std::vector<CaptionState> states;
  for (int i = 0; i < 12; ++i) {
    states.push_back(caption(fmt::format("Caption number {} 第{}条字幕", i, i), {{"Caption", 1}},
                             static_cast<CaptionAppearance>(i % 3)));
  }
  std::vector<SharedTextRaster> expected;
  {
    CaptionTextureRenderer alone;
    for (const auto& state : states) expected.push_back(alone.asset(state, fullHD));
  }

  CaptionTextureRenderer shared;
  std::vector<std::vector<SharedTextRaster>> results(4);
  {
    std::vector<std::jthread> threads;
    for (std::size_t t = 0; t < results.size(); ++t) {
      threads.emplace_back([&, t] {
        for (std::size_t i = 0; i < states.size(); ++i) {
          results[t].push_back(shared.asset(states[(i + t * 3) % states.size()], fullHD));
        }
      });
    }
  }
  for (std::size_t t = 0; t < results.size(); ++t) {
    for (std::size_t i = 0; i < states.size(); ++i) {
      const std::size_t index = (i + t * 3) % states.size();
      ASSERT_TRUE(results[t][i] && expected[index]);
      EXPECT_EQ(results[t][i]->image, expected[index]->image);
      // Every thread holds the one raster the cache kept.
      EXPECT_EQ(results[t][i], shared.asset(states[index], fullHD));
    }
  }
}

TEST_F(CaptionTextureRendererTest, NothingToDrawGivesNoAsset) {
  CaptionTextureRenderer renderer;
  EXPECT_EQ(renderer.asset(caption(""), fullHD), nullptr);
  EXPECT_EQ(renderer.asset(caption("   "), fullHD), nullptr);
  EXPECT_EQ(renderer.asset(caption("Hi"), {0, 1080}), nullptr);
  EXPECT_EQ(renderer.asset(caption("Hi"), {1920, -1}), nullptr);
}

}  // namespace
}  // namespace vumo
