#pragma once

// What the two sequence readers share: exact integer scaling of times and sample counts, and how a
// failing libav call becomes their error. Private to the media area.

#include <fmt/format.h>

#include <cstdint>
#include <stop_token>
#include <string_view>

#include "media/libav_handles.h"
#include "media/media_errors.h"
#include "shared/cancellation.h"

namespace vumo::media_detail {

// floor(a × b / c) and ceil(a × b / c) for c > 0, exact for every time a recording can have.
inline std::int64_t mulDivFloor(std::int64_t a, std::int64_t b, std::int64_t c) {
  const __int128 product = static_cast<__int128>(a) * b;
  __int128 quotient = product / c;
  if (product % c != 0 && product < 0) --quotient;
  return static_cast<std::int64_t>(quotient);
}

inline std::int64_t mulDivCeil(std::int64_t a, std::int64_t b, std::int64_t c) {
  const __int128 product = static_cast<__int128>(a) * b;
  __int128 quotient = product / c;
  if (product % c != 0 && product > 0) ++quotient;
  return static_cast<std::int64_t>(quotient);
}

// A read or decode that failed; a read ended by a stop request is the cancellation it was.
[[noreturn]] inline void throwDecoding(const std::stop_token& stop, std::string_view stage, int code) {
  throwIfCancelled(stop);
  throw SequenceReaderError(SequenceReaderError::Case::decodingFailed,
                            fmt::format("{}: {}", stage, libavErrorText(code)));
}

[[noreturn]] inline void throwConversion(std::string_view stage, int code) {
  throw SequenceReaderError(SequenceReaderError::Case::conversionFailed,
                            fmt::format("{}: {}", stage, libavErrorText(code)));
}

}  // namespace vumo::media_detail
