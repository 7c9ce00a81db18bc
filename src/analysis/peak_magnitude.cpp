#include "analysis/peak_magnitude.h"

#include <algorithm>
#include <cstdlib>

namespace vumo {

int PeakMagnitude::of(WaveformPeak peak) {
  return std::max(std::abs(static_cast<int>(peak.minimum)), std::abs(static_cast<int>(peak.maximum)));
}

int PeakMagnitude::firstAbove(double thresholdDecibels) {
  // Invariant: magnitudes below `low` are at or below the threshold, those from `high` above it.
  int low = 0;
  int high = largest + 1;
  while (low < high) {
    int middle = low + (high - low) / 2;
    WaveformPeak probe{0, static_cast<std::int16_t>(std::min(middle, 32767))};
    if (middle == largest) probe.minimum = -32768;
    if (thresholdDecibels < peakLevelDecibels(probe))
      high = middle;
    else
      low = middle + 1;
  }
  return low;
}

}  // namespace vumo
