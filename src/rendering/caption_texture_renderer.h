#pragma once
// Captions as pictures: laid out with Pango, drawn with Cairo into a box, cached by everything
// that changes the pixels, since a cue stays on screen for many frames.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "rendering/text_raster.h"
#include "scene/scene_state.h"
#include "shared/geometry.h"

namespace vumo {

// How much room a text takes in the caption font: its lines and its logical size in pixels.
struct TextMeasurement {
  std::int64_t lineCount = 0;
  SizeValue size;
  friend bool operator==(const TextMeasurement&, const TextMeasurement&) = default;
};

// How a caption is set on one output. Sizes are pixels of the output.
struct CaptionLayout {
  double wantedFontSize = 0;   // the base size times the clamped font scale
  double fontSize = 0;         // after shrinking to the line limit; never below 0.6 of the wanted
  double maximumWidth = 0;     // the width a line may take
  std::int64_t lineCount = 0;  // lines at `fontSize`, before any clipping
  bool isClipped = false;      // even the smallest size takes more lines than allowed
  friend bool operator==(const CaptionLayout&, const CaptionLayout&) = default;
};

// The font scale a caption is drawn with: 0.6...1.2, the default 1 for a value that is no number.
double clampedCaptionFontScale(double fontScale);
// max(min(width, height) × 0.046, 12): captions stay readable on tiny outputs.
double captionBaseFontSize(PixelSize outputSize);
// max(width × 0.84, 2).
double captionMaximumWidth(PixelSize outputSize);

// Both need the caption fonts; without them (a missing font file) they give nothing.
std::optional<TextMeasurement> captionMeasurement(std::string_view text, double fontSize, double maximumWidth);
std::optional<CaptionLayout> captionLayout(std::string_view text, std::int64_t maximumLines, double fontScale,
                                           PixelSize outputSize);

// The font families that draw `text` in the caption font, one per run: shows which font a script
// falls back to.
std::vector<std::string> captionFontFamilies(std::string_view text);

class CaptionTextureRenderer {
 public:
  CaptionTextureRenderer();
  ~CaptionTextureRenderer();
  CaptionTextureRenderer(const CaptionTextureRenderer&) = delete;
  CaptionTextureRenderer& operator=(const CaptionTextureRenderer&) = delete;

  // The caption box of `caption` on an output of `outputSize` pixels, placed centred and
  // `bottomPosition` of the height above the bottom. Null when nothing can be drawn (empty text, a
  // bitmap that cannot be made): the frame then shows no caption. Safe from any thread.
  SharedTextRaster asset(const CaptionState& caption, PixelSize outputSize);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace vumo
