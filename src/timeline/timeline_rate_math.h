#pragma once

// Integer rate arithmetic between source time (the recording's clock) and sequence time (the
// edited film). Validation and the mapper both measure clips with it, so it stands on its own
// and depends on neither.

#include <cstdint>
#include <optional>

#include "timeline/edit_timeline.h"

namespace vumo {

enum class TimelineRateRounding { down, up, nearest };

struct TimelineRateMath {
  // Source nanoseconds that play in `sequenceNanoseconds` at `rate`. None for a negative time, a
  // rate below 1 permille or an overflow. The quotient is split off first so that the products
  // stay inside 64 bits for recordings of many hours.
  static std::optional<std::int64_t> sourceNanoseconds(std::int64_t sequenceNanoseconds, TimelinePlaybackRate rate,
                                                       TimelineRateRounding rounding);
  // Sequence nanoseconds that `sourceNanoseconds` of content last at `rate`; same conditions.
  static std::optional<std::int64_t> sequenceNanoseconds(std::int64_t sourceNanoseconds, TimelinePlaybackRate rate,
                                                         TimelineRateRounding rounding);
};

}  // namespace vumo
