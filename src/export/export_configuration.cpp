#include "export/export_configuration.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

#include "shared/json.h"

namespace vumo {

namespace {

// No encoder takes a side beyond the 32-bit range; a source of absurd proportions stops there
// instead of overflowing the conversion.
constexpr double largestSide = std::numeric_limits<std::int32_t>::max();

// Truncated, then even by dropping the lowest bit.
std::int64_t evenSide(double side) {
  auto whole = static_cast<std::int64_t>(std::clamp(side, 0.0, largestSide));
  return whole & ~std::int64_t{1};
}

struct BitRatePoint {
  double pixels;
  double bitsPerSecond;
};

constexpr std::array<BitRatePoint, 4> bitRatePoints{{
    {921'600, 6'000'000},
    {2'073'600, 12'000'000},
    {3'686'400, 24'000'000},
    {8'294'400, 50'000'000},
}};

double baseBitRate(double pixels) {
  if (pixels <= bitRatePoints.front().pixels) return bitRatePoints.front().bitsPerSecond;
  for (std::size_t i = 1; i < bitRatePoints.size(); ++i) {
    const auto& low = bitRatePoints[i - 1];
    const auto& high = bitRatePoints[i];
    if (pixels <= high.pixels) {
      double t = (pixels - low.pixels) / (high.pixels - low.pixels);
      return low.bitsPerSecond + t * (high.bitsPerSecond - low.bitsPerSecond);
    }
  }
  return bitRatePoints.back().bitsPerSecond;
}

double qualityFactor(ExportQuality quality) {
  switch (quality) {
    case ExportQuality::compact: return 0.65;
    case ExportQuality::standard: return 1.0;
    case ExportQuality::high: return 1.5;
  }
  return 1.0;
}

double codecFactor(ExportCodec codec) { return codec == ExportCodec::hevc ? 0.65 : 1.0; }

constexpr std::int64_t minimumBitRate = 3'000'000;
constexpr std::int64_t maximumBitRate = 80'000'000;
constexpr double audioBitRate = 192'000;
constexpr double containerOverhead = 1.002;

}  // namespace

std::optional<std::int64_t> shortEdge(ExportResolution resolution) {
  switch (resolution) {
    case ExportResolution::original: return std::nullopt;
    case ExportResolution::p720: return 720;
    case ExportResolution::p1080: return 1080;
    case ExportResolution::p1440: return 1440;
    case ExportResolution::p2160: return 2160;
  }
  return std::nullopt;
}

ResolvedExportConfiguration ExportConfiguration::resolved(PixelSize sourceSize, CanvasAspectRatio aspectRatio) const {
  if (resolution == ExportResolution::original && aspectRatio != CanvasAspectRatio::source)
    throw ExportConfigurationError(ExportConfigurationError::Case::originalResolutionRequiresSourceAspect);
  ResolvedExportConfiguration result;
  result.outputSize = resolvedOutputSize(sourceSize, aspectRatio);
  result.framesPerSecond = framesPerSecond();
  result.bitRate = bitRate(result.outputSize, result.framesPerSecond, quality, codec);
  result.quality = quality;
  result.codec = codec;
  return result;
}

PixelSize ExportConfiguration::resolvedOutputSize(PixelSize sourceSize, CanvasAspectRatio aspectRatio) const {
  auto edge = shortEdge(resolution);
  if (!edge) return sourceSize;
  // A source without area has no shape of its own; it is treated as square.
  double sourceAspect = sourceSize.width > 0 && sourceSize.height > 0
                            ? static_cast<double>(sourceSize.width) / static_cast<double>(sourceSize.height)
                            : 1.0;
  double ratio = outputAspectRatio(aspectRatio, sourceAspect);
  auto e = static_cast<double>(*edge);
  double width = ratio >= 1 ? e * ratio : e;
  double height = ratio >= 1 ? e : e / ratio;
  return {std::max<std::int64_t>(evenSide(width), 2), evenSide(height)};
}

std::int32_t ExportConfiguration::framesPerSecond() const { return frameRate == ExportFrameRate::fps30 ? 30 : 60; }

std::int64_t ExportConfiguration::bitRate(PixelSize outputSize, std::int32_t framesPerSecond, ExportQuality quality,
                                          ExportCodec codec) {
  double pixels = static_cast<double>(outputSize.width) * static_cast<double>(outputSize.height);
  double rate = framesPerSecond == 30 ? 0.65 : 1.0;
  double bits = std::round(rate * baseBitRate(pixels) * qualityFactor(quality) * codecFactor(codec));
  return std::clamp(static_cast<std::int64_t>(bits), minimumBitRate, maximumBitRate);
}

void to_json(Json& j, const ExportConfiguration& configuration) {
  j = Json{{"resolution", configuration.resolution},
           {"frameRate", configuration.frameRate},
           {"quality", configuration.quality},
           {"codec", configuration.codec}};
}

void from_json(const Json& j, ExportConfiguration& configuration) {
  json::requireObject(j, "export configuration");
  configuration.resolution = json::required<ExportResolution>(j, "resolution");
  configuration.frameRate = json::required<ExportFrameRate>(j, "frameRate");
  configuration.quality = json::required<ExportQuality>(j, "quality");
  configuration.codec = json::required<ExportCodec>(j, "codec");
}

void to_json(Json& j, const ResolvedExportConfiguration& resolved) {
  j = Json{{"outputSize", resolved.outputSize},
           {"framesPerSecond", resolved.framesPerSecond},
           {"bitRate", resolved.bitRate},
           {"quality", resolved.quality},
           {"codec", resolved.codec}};
}

ExportConfiguration exportPresetConfiguration(ExportPreset preset) {
  switch (preset) {
    case ExportPreset::highQuality:
      return {ExportResolution::p2160, ExportFrameRate::fps60, ExportQuality::high, ExportCodec::h264};
    case ExportPreset::standard:
      return {ExportResolution::p1080, ExportFrameRate::fps60, ExportQuality::standard, ExportCodec::h264};
    case ExportPreset::compact:
      return {ExportResolution::p720, ExportFrameRate::fps30, ExportQuality::compact, ExportCodec::h264};
  }
  return {};
}

std::int64_t ExportFileSizeEstimator::estimatedBytes(const ResolvedExportConfiguration& configuration,
                                                     ProjectTime duration) {
  double seconds = std::max(static_cast<double>(duration.nanoseconds) / 1e9, 0.0);
  double bytes = seconds * (static_cast<double>(configuration.bitRate) + audioBitRate) * 0.125 * containerOverhead;
  return static_cast<std::int64_t>(bytes);
}

}  // namespace vumo
