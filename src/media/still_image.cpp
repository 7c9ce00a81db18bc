#include "media/still_image.h"

// clang-format off
#include <cstdio>  // jpeglib.h needs FILE first
#include <csetjmp>
#include <jpeglib.h>
#include <png.h>
// clang-format on

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <memory>

namespace vumo {

namespace {

using Still = StillImageError::Case;
constexpr ErrorCase<Still> stillCases[] = {
    {Still::unsupportedFormat, "unsupportedFormat", "media.image.format", "The image is neither a PNG nor a JPEG file.",
     "execution", ErrorKind::failure},
    {Still::decodingFailed, "decodingFailed", "media.image.decode", "The image could not be decoded: {}", "execution",
     ErrorKind::failure},
    {Still::tooLarge, "tooLarge", "media.image.size", "The image is too large: {}", "execution", ErrorKind::failure},
    {Still::encodingFailed, "encodingFailed", "media.image.encode", "The image could not be encoded: {}", "execution",
     ErrorKind::failure},
};
static_assert(inCaseOrder(stillCases));

void requireSize(std::int64_t width, std::int64_t height) {
  if (width <= 0 || height <= 0 || width > maximumStillImageSide || height > maximumStillImageSide) {
    throw StillImageError(Still::tooLarge, fmt::format("{}x{} pixels", width, height));
  }
}

void premultiply(std::vector<std::uint8_t>& pixels) {
  for (std::size_t i = 0; i + 3 < pixels.size(); i += 4) {
    const unsigned alpha = pixels[i + 3];
    if (alpha == 255) continue;
    for (int c = 0; c < 3; ++c) pixels[i + c] = static_cast<std::uint8_t>((pixels[i + c] * alpha + 127) / 255);
  }
}

StillImage decodePng(std::string_view encoded) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_memory(&image, encoded.data(), encoded.size())) {
    throw StillImageError(Still::decodingFailed, image.message);
  }
  const auto release = std::unique_ptr<png_image, void (*)(png_image*)>(&image, png_image_free);
  requireSize(image.width, image.height);
  image.format = PNG_FORMAT_RGBA;
  StillImage still;
  still.width = static_cast<int>(image.width);
  still.height = static_cast<int>(image.height);
  still.pixels.resize(PNG_IMAGE_SIZE(image));
  if (!png_image_finish_read(&image, nullptr, still.pixels.data(), 0, nullptr)) {
    throw StillImageError(Still::decodingFailed, image.message);
  }
  premultiply(still.pixels);
  return still;
}

// libjpeg reports failures through longjmp: the functions that call it keep only plain values on
// their frames, and the error text is copied out before any exception is thrown.
struct JpegFailure {
  jpeg_error_mgr manager;
  std::jmp_buf jump;
  char message[JMSG_LENGTH_MAX];
};

void jpegErrorExit(j_common_ptr info) {
  auto* failure = reinterpret_cast<JpegFailure*>(info->err);
  (*info->err->format_message)(info, failure->message);
  std::longjmp(failure->jump, 1);
}

void jpegSilence(j_common_ptr, int) {}

// Return false with `failure.message` set.
bool jpegReadHeader(jpeg_decompress_struct& info, JpegFailure& failure, const unsigned char* data, unsigned long size) {
  if (setjmp(failure.jump)) return false;
  jpeg_mem_src(&info, data, size);
  jpeg_read_header(&info, TRUE);
  return true;
}

bool jpegReadRows(jpeg_decompress_struct& info, JpegFailure& failure, std::uint8_t* pixels, std::size_t rowBytes) {
  if (setjmp(failure.jump)) return false;
  info.out_color_space = JCS_EXT_RGBA;
  jpeg_start_decompress(&info);
  while (info.output_scanline < info.output_height) {
    JSAMPROW row = pixels + info.output_scanline * rowBytes;
    jpeg_read_scanlines(&info, &row, 1);
  }
  jpeg_finish_decompress(&info);
  return true;
}

StillImage decodeJpeg(std::string_view encoded) {
  jpeg_decompress_struct info{};
  JpegFailure failure{};
  info.err = jpeg_std_error(&failure.manager);
  failure.manager.error_exit = jpegErrorExit;
  failure.manager.emit_message = jpegSilence;
  jpeg_create_decompress(&info);
  const auto release = std::unique_ptr<jpeg_decompress_struct, void (*)(jpeg_decompress_struct*)>(
      &info, [](jpeg_decompress_struct* i) { jpeg_destroy_decompress(i); });
  // The size is checked from the header before jpeg_start_decompress allocates anything large.
  if (!jpegReadHeader(info, failure, reinterpret_cast<const unsigned char*>(encoded.data()),
                      static_cast<unsigned long>(encoded.size()))) {
    throw StillImageError(Still::decodingFailed, failure.message);
  }
  requireSize(info.image_width, info.image_height);
  StillImage still;
  still.width = static_cast<int>(info.image_width);
  still.height = static_cast<int>(info.image_height);
  still.pixels.resize(static_cast<std::size_t>(still.width) * still.height * 4);
  if (!jpegReadRows(info, failure, still.pixels.data(), static_cast<std::size_t>(still.width) * 4)) {
    throw StillImageError(Still::decodingFailed, failure.message);
  }
  return still;
}

bool isOpaque(const StillImage& image) {
  for (std::size_t i = 3; i < image.pixels.size(); i += 4) {
    if (image.pixels[i] != 255) return false;
  }
  return true;
}

std::string encodePng(const StillImage& image) {
  png_image png{};
  png.version = PNG_IMAGE_VERSION;
  png.width = static_cast<png_uint_32>(image.width);
  png.height = static_cast<png_uint_32>(image.height);
  // A still is written to be looked at once, by a person or an agent: a quarter larger for half the
  // time, since deflating the picture costs more than drawing it.
  png.flags = PNG_IMAGE_FLAG_FAST;
  std::vector<std::uint8_t> straight;
  const std::uint8_t* source = image.pixels.data();
  png_int_32 rowStride = image.width * 4;
  if (isOpaque(image)) {
    // Three channels: a third smaller, and no viewer shows a checkerboard behind it.
    straight.resize(static_cast<std::size_t>(image.width) * image.height * 3);
    for (std::size_t p = 0, q = 0; p < image.pixels.size(); p += 4, q += 3) {
      std::memcpy(&straight[q], &image.pixels[p], 3);
    }
    png.format = PNG_FORMAT_RGB;
    rowStride = image.width * 3;
  } else {
    straight = image.pixels;
    for (std::size_t i = 0; i + 3 < straight.size(); i += 4) {
      const unsigned alpha = straight[i + 3];
      if (alpha == 0 || alpha == 255) continue;
      for (int c = 0; c < 3; ++c) {
        straight[i + c] = static_cast<std::uint8_t>(std::min(255u, (straight[i + c] * 255u + alpha / 2) / alpha));
      }
    }
    png.format = PNG_FORMAT_RGBA;
  }
  source = straight.data();
  png_alloc_size_t size = 0;
  if (!png_image_write_get_memory_size(png, size, 0, source, rowStride, nullptr)) {
    throw StillImageError(Still::encodingFailed, png.message);
  }
  std::string out(size, '\0');
  if (!png_image_write_to_memory(&png, out.data(), &size, 0, source, rowStride, nullptr)) {
    throw StillImageError(Still::encodingFailed, png.message);
  }
  out.resize(size);
  return out;
}

bool jpegWrite(jpeg_compress_struct& info, JpegFailure& failure, const StillImage& image, int quality,
               unsigned char** buffer, unsigned long* size) {
  if (setjmp(failure.jump)) return false;
  jpeg_mem_dest(&info, buffer, size);
  info.image_width = static_cast<JDIMENSION>(image.width);
  info.image_height = static_cast<JDIMENSION>(image.height);
  info.input_components = 4;
  info.in_color_space = JCS_EXT_RGBA;  // alpha is ignored: premultiplied pixels are already on black
  jpeg_set_defaults(&info);
  jpeg_set_quality(&info, quality, TRUE);
  jpeg_start_compress(&info, TRUE);
  while (info.next_scanline < info.image_height) {
    JSAMPROW row = const_cast<std::uint8_t*>(image.pixels.data()) + info.next_scanline * image.width * 4;
    jpeg_write_scanlines(&info, &row, 1);
  }
  jpeg_finish_compress(&info);
  return true;
}

std::string encodeJpeg(const StillImage& image, int quality) {
  jpeg_compress_struct info{};
  JpegFailure failure{};
  info.err = jpeg_std_error(&failure.manager);
  failure.manager.error_exit = jpegErrorExit;
  failure.manager.emit_message = jpegSilence;
  jpeg_create_compress(&info);
  unsigned char* buffer = nullptr;
  unsigned long size = 0;
  const bool written = jpegWrite(info, failure, image, quality, &buffer, &size);
  jpeg_destroy_compress(&info);
  const auto release = std::unique_ptr<unsigned char, void (*)(void*)>(buffer, std::free);
  if (!written) throw StillImageError(Still::encodingFailed, failure.message);
  return std::string(reinterpret_cast<const char*>(buffer), size);
}

}  // namespace

StillImageError::StillImageError(Case kind, std::string_view detail) : Error(catalogue(), kind, detail), kind_(kind) {}

const ErrorCatalogue<StillImageError::Case>& StillImageError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"StillImageError", "Media", stillCases};
  return catalogue;
}

StillImage decodeStillImage(std::string_view encoded) {
  static constexpr unsigned char pngSignature[] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
  if (encoded.size() >= sizeof pngSignature && std::memcmp(encoded.data(), pngSignature, sizeof pngSignature) == 0) {
    return decodePng(encoded);
  }
  if (encoded.size() >= 3 && static_cast<unsigned char>(encoded[0]) == 0xFF &&
      static_cast<unsigned char>(encoded[1]) == 0xD8 && static_cast<unsigned char>(encoded[2]) == 0xFF) {
    return decodeJpeg(encoded);
  }
  throw StillImageError(Still::unsupportedFormat);
}

std::string encodeStillImage(const StillImage& image, StillImageFormat format, int jpegQuality) {
  if (image.isEmpty() || image.pixels.size() != static_cast<std::size_t>(image.width) * image.height * 4) {
    throw StillImageError(Still::encodingFailed, "the picture has no pixels");
  }
  requireSize(image.width, image.height);
  return format == StillImageFormat::png ? encodePng(image) : encodeJpeg(image, jpegQuality);
}

}  // namespace vumo
