#pragma once
// Still pictures in and out: the PNG and JPEG files of a package (cursor shapes, canvas background
// images) and of the program's resources (device frames, the arrow cursor) decoded to pixels, and a
// rendered frame encoded for `frame`. libpng and libjpeg-turbo, nothing else.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "shared/error.h"
#include "shared/name_table.h"

namespace vumo {

enum class StillImageFormat { jpeg, png };

template <>
struct EnumNames<StillImageFormat> {
  static constexpr std::string_view typeName = "image format";
  static constexpr NameTable<StillImageFormat, 2> table{{
      {StillImageFormat::jpeg, "jpeg"},
      {StillImageFormat::png, "png"},
  }};
};

// 8-bit RGBA with premultiplied alpha, rows top to bottom, tightly packed (width × 4 bytes a row):
// the layout the renderer uploads and reads back.
struct StillImage {
  int width = 0;
  int height = 0;
  std::vector<std::uint8_t> pixels;

  bool isEmpty() const { return width <= 0 || height <= 0; }
  friend bool operator==(const StillImage&, const StillImage&) = default;
};

class StillImageError : public Error {
 public:
  enum class Case { unsupportedFormat, decodingFailed, tooLarge, encodingFailed };

  explicit StillImageError(Case kind, std::string_view detail = {});

  Case kind() const noexcept { return kind_; }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  Case kind_;
};

// Pictures larger than this on either side are refused before any pixel memory is taken: a
// hostile file cannot ask for gigabytes.
inline constexpr int maximumStillImageSide = 16384;

// Decodes PNG (any bit depth, palette, grey or alpha, gamma left alone) or JPEG (by its first
// bytes, whatever the file name says). Throws StillImageError.
StillImage decodeStillImage(std::string_view encoded);

// Encodes for a file: PNG without alpha when every pixel is opaque, JPEG at `jpegQuality` (alpha is
// composited onto black, which is what premultiplied pixels already are). Throws
// StillImageError::encodingFailed.
std::string encodeStillImage(const StillImage& image, StillImageFormat format, int jpegQuality = 92);

}  // namespace vumo
