#pragma once

#include <algorithm>
#include <cstdint>
#include <string_view>

#include "analysis/waveform_envelope.h"

namespace vumo::testing {

// Magnitudes with round levels: 16384 lies at -6.02 dB, 328 at -39.99 dB, 0 is digital silence.
constexpr std::int16_t loud = 16384;

// A bucket whose loudest sample has `magnitude` (0...32768) on both sides of zero.
inline WaveformPeak peakOf(int magnitude) {
  return {static_cast<std::int16_t>(-magnitude), static_cast<std::int16_t>(std::min(magnitude, 32767))};
}

// An envelope drawn one bucket (20 ms) per character: '.' digital silence, '#' loud.
inline WaveformEnvelope envelopeOf(std::string_view buckets) {
  WaveformEnvelope envelope;
  for (char c : buckets) {
    std::int16_t magnitude = c == '#' ? loud : 0;
    envelope.peaks.push_back({static_cast<std::int16_t>(-magnitude), magnitude});
  }
  return envelope;
}

// An envelope built from stretches of whole milliseconds (multiples of 20).
class EnvelopeBuilder {
 public:
  explicit EnvelopeBuilder(MediaTrackKind kind = MediaTrackKind::microphone) { envelope_.kind = kind; }
  EnvelopeBuilder& then(std::int64_t milliseconds, std::int16_t magnitude) {
    for (std::int64_t i = 0; i < milliseconds / WaveformEnvelope::bucketMilliseconds; ++i)
      envelope_.peaks.push_back({static_cast<std::int16_t>(-magnitude), magnitude});
    return *this;
  }
  EnvelopeBuilder& silence(std::int64_t milliseconds) { return then(milliseconds, 0); }
  EnvelopeBuilder& sound(std::int64_t milliseconds) { return then(milliseconds, loud); }
  // Silence up to `startMilliseconds`, then sound up to `endMilliseconds`.
  EnvelopeBuilder& burst(std::int64_t startMilliseconds, std::int64_t endMilliseconds) {
    silence(startMilliseconds - lengthMilliseconds());
    return sound(endMilliseconds - startMilliseconds);
  }
  // Silence up to `endMilliseconds`.
  EnvelopeBuilder& silenceUntil(std::int64_t endMilliseconds) {
    return silence(endMilliseconds - lengthMilliseconds());
  }
  std::int64_t lengthMilliseconds() const {
    return static_cast<std::int64_t>(envelope_.peaks.size()) * WaveformEnvelope::bucketMilliseconds;
  }
  WaveformEnvelope build() const { return envelope_; }

 private:
  WaveformEnvelope envelope_;
};

}  // namespace vumo::testing
