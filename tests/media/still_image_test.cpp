#include "media/still_image.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cmath>
#include <string>

#include "support/test_support.h"

namespace vumo {
namespace {

StillImage gradient(int width, int height, std::uint8_t alpha) {
  StillImage image{width, height, {}};
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const auto premultiplied = [&](int value) { return static_cast<std::uint8_t>((value * alpha + 127) / 255); };
      image.pixels.push_back(premultiplied(x * 255 / (width - 1)));
      image.pixels.push_back(premultiplied(y * 255 / (height - 1)));
      image.pixels.push_back(premultiplied(128));
      image.pixels.push_back(alpha);
    }
  }
  return image;
}

double psnr(const StillImage& a, const StillImage& b) {
  double sum = 0;
  for (std::size_t i = 0; i < a.pixels.size(); ++i) {
    const double d = double(a.pixels[i]) - double(b.pixels[i]);
    sum += d * d;
  }
  const double mse = sum / double(a.pixels.size());
  return mse == 0 ? 99 : 10 * std::log10(255.0 * 255.0 / mse);
}

TEST(StillImage, PngKeepsEveryPixelAndDropsAlphaOnlyWhenOpaque) {
  for (const std::uint8_t alpha : {std::uint8_t{255}, std::uint8_t{128}}) {
    const StillImage image = gradient(40, 30, alpha);
    const std::string png = encodeStillImage(image, StillImageFormat::png);
    // Colour type is byte 25 of the file: 2 is RGB, 6 is RGBA.
    EXPECT_EQ(static_cast<int>(png[25]), alpha == 255 ? 2 : 6);
    const StillImage back = decodeStillImage(png);
    ASSERT_EQ(back.width, 40);
    ASSERT_EQ(back.height, 30);
    if (alpha == 255) {
      EXPECT_EQ(back, image);
    } else {
      // Straight alpha in the file loses at most the rounding of one division per channel.
      EXPECT_GT(psnr(back, image), 45);
    }
  }
}

TEST(StillImage, JpegRoundTripIsCloseAndIgnoresTheFileName) {
  const StillImage image = gradient(64, 48, 255);
  const std::string jpeg = encodeStillImage(image, StillImageFormat::jpeg);
  EXPECT_EQ(static_cast<unsigned char>(jpeg[0]), 0xFF);
  const StillImage back = decodeStillImage(jpeg);
  ASSERT_EQ(back.width, 64);
  ASSERT_EQ(back.height, 48);
  EXPECT_GT(psnr(back, image), 35);
}

std::string pngChunk(const std::string& type, const std::string& data) {
  std::string chunk;
  const auto be32 = [&](std::uint32_t v) {
    for (int s = 24; s >= 0; s -= 8) chunk.push_back(static_cast<char>((v >> s) & 0xFF));
  };
  be32(static_cast<std::uint32_t>(data.size()));
  const std::string body = type + data;
  chunk += body;
  be32(static_cast<std::uint32_t>(crc32(0, reinterpret_cast<const Bytef*>(body.data()), body.size())));
  return chunk;
}

TEST(StillImage, HostileInputIsRefusedWithItsCase) {
  const std::string png = encodeStillImage(gradient(8, 8, 255), StillImageFormat::png);
  // A well-formed header that asks for 40000 × 40000 pixels.
  std::string ihdr("\x00\x00\x9c\x40\x00\x00\x9c\x40\x08\x06\x00\x00\x00", 13);
  std::string idat(64, '\0');
  uLongf idatSize = idat.size();
  const Bytef firstRow[] = {0};
  compress(reinterpret_cast<Bytef*>(idat.data()), &idatSize, firstRow, 1);
  idat.resize(idatSize);
  const std::string huge = png.substr(0, 8) + pngChunk("IHDR", ihdr) + pngChunk("IDAT", idat) + pngChunk("IEND", "");
  const std::string jpeg = encodeStillImage(gradient(8, 8, 255), StillImageFormat::jpeg);
  struct Row {
    std::string name;
    std::string bytes;
    StillImageError::Case expected;
  };
  const Row rows[] = {
      {"empty", "", StillImageError::Case::unsupportedFormat},
      {"text", "GIF89a not really", StillImageError::Case::unsupportedFormat},
      {"truncated png", png.substr(0, png.size() / 2), StillImageError::Case::decodingFailed},
      {"png signature only", png.substr(0, 8), StillImageError::Case::decodingFailed},
      {"huge png", huge, StillImageError::Case::tooLarge},
      {"jpeg marker only", jpeg.substr(0, 3), StillImageError::Case::decodingFailed},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    try {
      decodeStillImage(row.bytes);
      ADD_FAILURE() << "decoded";
    } catch (const StillImageError& error) {
      EXPECT_EQ(error.kind(), row.expected) << error.what();
    }
  }
  EXPECT_THROW(encodeStillImage(StillImage{}, StillImageFormat::png), StillImageError);
}

}  // namespace
}  // namespace vumo
