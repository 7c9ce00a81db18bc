#include "analysis/waveform_envelope.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace vumo {

double peakLevelDecibels(WaveformPeak peak) {
  int magnitude = std::max(std::abs(static_cast<int>(peak.minimum)), std::abs(static_cast<int>(peak.maximum)));
  if (magnitude == 0) return -96.0;
  return std::max(20.0 * std::log10(magnitude / 32767.0), -96.0);
}

}  // namespace vumo

std::size_t std::hash<vumo::WaveformEnvelope>::operator()(const vumo::WaveformEnvelope& envelope) const noexcept {
  // FNV-1a over the kind and every peak: envelopes are compared whole, so the hash reads them whole.
  std::uint64_t h = 1469598103934665603ull;
  auto mix = [&](std::uint64_t value) {
    h ^= value;
    h *= 1099511628211ull;
  };
  mix(static_cast<std::uint64_t>(envelope.kind));
  for (const auto& peak : envelope.peaks)
    mix((static_cast<std::uint64_t>(static_cast<std::uint16_t>(peak.minimum)) << 16) |
        static_cast<std::uint16_t>(peak.maximum));
  return static_cast<std::size_t>(h);
}
