#pragma once

#include <cstdint>

#include "shared/json_fwd.h"

namespace vumo {

// Plain geometry records. They give the origin and the y axis no meaning: that belongs to the
// data they carry. Normalised points run 0...1.
struct PointValue {
  double x = 0;
  double y = 0;
  PointValue clamped() const;
  friend bool operator==(const PointValue&, const PointValue&) = default;
};

struct SizeValue {
  double width = 0;
  double height = 0;
  friend bool operator==(const SizeValue&, const SizeValue&) = default;
};

struct RectValue {
  double x = 0;
  double y = 0;
  double width = 0;
  double height = 0;
  friend bool operator==(const RectValue&, const RectValue&) = default;
};

struct PixelSize {
  std::int64_t width = 0;
  std::int64_t height = 0;

  std::int64_t pixelCount() const;
  // Shrinks (never enlarges) to fit the longest edge, then makes both sides even and at least 2.
  static PixelSize constrained(double width, double height, double longestEdge);
  // Encoder bit rate in bits per second, piecewise linear in the pixel count.
  std::int64_t recommendedBitRate() const;

  friend bool operator==(const PixelSize&, const PixelSize&) = default;
};

void to_json(Json& j, const PointValue& v);
void from_json(const Json& j, PointValue& v);
void to_json(Json& j, const SizeValue& v);
void from_json(const Json& j, SizeValue& v);
void to_json(Json& j, const RectValue& v);
void from_json(const Json& j, RectValue& v);
void to_json(Json& j, const PixelSize& v);
void from_json(const Json& j, PixelSize& v);

}  // namespace vumo
