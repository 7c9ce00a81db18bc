#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "shared/media_track_kind.h"

namespace vumo {

// The loudest and quietest sample of one bucket, channels together.
struct WaveformPeak {
  std::int16_t minimum = 0;
  std::int16_t maximum = 0;
  friend bool operator==(const WaveformPeak&, const WaveformPeak&) = default;
};

// One audio track reduced to a peak per 20 ms of source time: peak i covers
// [i × 20 ms, (i + 1) × 20 ms). A track that ends early simply has fewer peaks.
struct WaveformEnvelope {
  static constexpr std::int64_t bucketNanoseconds = 20'000'000;
  static constexpr std::int64_t bucketMilliseconds = 20;

  MediaTrackKind kind = MediaTrackKind::microphone;
  std::vector<WaveformPeak> peaks;

  friend bool operator==(const WaveformEnvelope&, const WaveformEnvelope&) = default;
};

// Level of a bucket in dB relative to full scale: the larger magnitude over 32767 (so -32768 lies
// just above 0 dB), and -96 for silence or anything quieter.
double peakLevelDecibels(WaveformPeak peak);

}  // namespace vumo

template <>
struct std::hash<vumo::WaveformEnvelope> {
  std::size_t operator()(const vumo::WaveformEnvelope& envelope) const noexcept;
};
