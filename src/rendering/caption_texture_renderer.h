#pragma once
// Captions as pictures: laid out with Pango, drawn with Cairo into a box, cached by everything
// that changes the pixels, since a cue stays on screen for many frames.

#include <memory>

#include "rendering/text_raster.h"
#include "scene/scene_state.h"
#include "shared/geometry.h"

namespace vumo {

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
