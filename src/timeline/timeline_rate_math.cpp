#include "timeline/timeline_rate_math.h"

#include "shared/checked_math.h"

namespace vumo {

std::optional<std::int64_t> TimelineRateMath::sourceNanoseconds(std::int64_t sequence, TimelinePlaybackRate rate,
                                                                TimelineRateRounding rounding) {
  const std::int64_t r = rate.permille;
  if (sequence < 0 || r < 1) return std::nullopt;
  std::int64_t bias = rounding == TimelineRateRounding::down ? 0 : rounding == TimelineRateRounding::up ? 999 : 500;
  std::int64_t whole;
  if (!tryMul(sequence / 1000, r, whole)) return std::nullopt;
  // (s % 1000) * r stays below 1000 * 2^31: no overflow possible.
  std::int64_t fraction = ((sequence % 1000) * r + bias) / 1000;
  std::int64_t result;
  if (!tryAdd(whole, fraction, result)) return std::nullopt;
  return result;
}

std::optional<std::int64_t> TimelineRateMath::sequenceNanoseconds(std::int64_t source, TimelinePlaybackRate rate,
                                                                  TimelineRateRounding rounding) {
  const std::int64_t r = rate.permille;
  if (source < 0 || r < 1) return std::nullopt;
  std::int64_t bias = rounding == TimelineRateRounding::down ? 0 : rounding == TimelineRateRounding::up ? r - 1 : r / 2;
  std::int64_t q = source / r;
  std::int64_t whole;
  if (!tryMul(q, 1000, whole)) return std::nullopt;
  // The remainder is below r < 2^31, so this product fits.
  std::int64_t fraction = ((source - q * r) * 1000 + bias) / r;
  std::int64_t result;
  if (!tryAdd(whole, fraction, result)) return std::nullopt;
  return result;
}

}  // namespace vumo
