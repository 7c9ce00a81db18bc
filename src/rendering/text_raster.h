#pragma once
// A piece of text drawn on the CPU, ready to be uploaded: the pixels and where they go on the
// output. Captions and text annotations both arrive at the renderer in this form.

#include <memory>

#include "media/still_image.h"
#include "shared/geometry.h"

namespace vumo {

struct TextRaster {
  StillImage image;  // premultiplied RGBA
  RectValue frame;   // output pixels, origin at the top left; the image's size
};

using SharedTextRaster = std::shared_ptr<const TextRaster>;

}  // namespace vumo
