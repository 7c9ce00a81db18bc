#pragma once
// Text annotations as pictures, cropped to the drawn glyphs and placed inside the annotation's
// bounds; cached by content and output size.

#include <memory>

#include "rendering/text_raster.h"
#include "shared/geometry.h"
#include "timeline/edit_timeline.h"

namespace vumo {

// The pixel size of a text annotation's font: `fontSize` is given for a 1080-pixel-high output.
double textAnnotationFontSize(double fontSize, PixelSize outputSize);

class TextAnnotationRenderer {
 public:
  TextAnnotationRenderer();
  ~TextAnnotationRenderer();
  TextAnnotationRenderer(const TextAnnotationRenderer&) = delete;
  TextAnnotationRenderer& operator=(const TextAnnotationRenderer&) = delete;

  // Null for an annotation that is not text, has no bounds or draws nothing. Safe from any thread.
  SharedTextRaster texture(const AnnotationElement& annotation, PixelSize outputSize);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace vumo
