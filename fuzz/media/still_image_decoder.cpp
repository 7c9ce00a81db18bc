// Arbitrary bytes as a cursor shape or wallpaper image from a package: decoding either gives a
// picture of the size it claims, bounded, or fails with its own error type; never a crash, a hang
// or a sanitizer report. A decoded picture must encode again.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "media/still_image.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  vumo::StillImage image;
  try {
    image = vumo::decodeStillImage(std::string_view(reinterpret_cast<const char*>(data), size));
  } catch (const vumo::StillImageError&) {
    return 0;
  }
  if (image.width <= 0 || image.height <= 0 || image.width > vumo::maximumStillImageSide ||
      image.height > vumo::maximumStillImageSide ||
      image.pixels.size() != static_cast<std::size_t>(image.width) * image.height * 4)
    std::abort();
  // Premultiplied: no channel exceeds its alpha.
  for (std::size_t i = 0; i < image.pixels.size(); i += 4) {
    for (int c = 0; c < 3; ++c)
      if (image.pixels[i + c] > image.pixels[i + 3]) std::abort();
  }
  if (static_cast<std::int64_t>(image.width) * image.height <= 1 << 20) {
    (void)vumo::encodeStillImage(image, vumo::StillImageFormat::png);
  }
  return 0;
}
