#include "shared/geometry.h"

#include <algorithm>
#include <cmath>

#include "shared/checked_math.h"

namespace vumo {

PointValue PointValue::clamped() const { return {std::clamp(x, 0.0, 1.0), std::clamp(y, 0.0, 1.0)}; }

std::int64_t PixelSize::pixelCount() const { return checkedMul(width, height); }

PixelSize PixelSize::constrained(double width, double height, double longestEdge) {
  double w = std::max(width, 2.0);
  double h = std::max(height, 2.0);
  double scale = std::min(longestEdge / std::max(w, h), 1.0);
  auto side = [scale](double v) {
    std::int64_t s = checkedInt64(std::floor(scale * v));
    s -= s % 2;
    return std::max<std::int64_t>(s, 2);
  };
  return {side(w), side(h)};
}

std::int64_t PixelSize::recommendedBitRate() const {
  struct Anchor {
    double pixels;
    double bitsPerSecond;
  };
  static constexpr Anchor anchors[] = {{2'073'600, 12'000'000}, {3'686'400, 24'000'000}, {8'294'400, 50'000'000}};
  const double count = static_cast<double>(pixelCount());
  if (count <= anchors[0].pixels) return 12'000'000;
  if (count >= anchors[2].pixels) return 50'000'000;
  const Anchor& lo = count <= anchors[1].pixels ? anchors[0] : anchors[1];
  const Anchor& hi = count <= anchors[1].pixels ? anchors[1] : anchors[2];
  double rate =
      lo.bitsPerSecond + (count - lo.pixels) / (hi.pixels - lo.pixels) * (hi.bitsPerSecond - lo.bitsPerSecond);
  return checkedInt64(std::round(rate));
}

}  // namespace vumo
