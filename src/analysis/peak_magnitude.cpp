#include "analysis/peak_magnitude.h"

#include <algorithm>
#include <cstdlib>

namespace vumo {

int PeakMagnitude::of(WaveformPeak peak) {
  return std::max(std::abs(static_cast<int>(peak.minimum)), std::abs(static_cast<int>(peak.maximum)));
}

double PeakMagnitude::levelDecibels(int magnitude) {
  WaveformPeak peak{0, static_cast<std::int16_t>(std::min(magnitude, 32767))};
  if (magnitude == largest) peak.minimum = -32768;
  return peakLevelDecibels(peak);
}

int PeakMagnitude::firstAbove(double thresholdDecibels) {
  // Invariant: magnitudes below `low` are at or below the threshold, those from `high` above it.
  int low = 0;
  int high = largest + 1;
  while (low < high) {
    int middle = low + (high - low) / 2;
    if (thresholdDecibels < levelDecibels(middle))
      high = middle;
    else
      low = middle + 1;
  }
  return low;
}

}  // namespace vumo
