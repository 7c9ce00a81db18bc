#pragma once

#include "analysis/waveform_envelope.h"

namespace vumo {

// The level comparisons of the analysers, done on integer magnitudes. The level of a bucket only
// grows with its magnitude max(|minimum|, |maximum|) (0...32768), so "level above a threshold" is
// "magnitude at or above some bound": one binary search over the 32769 magnitudes, each probe
// computing the exact level, replaces a logarithm per bucket and decides every bucket the same way.
struct PeakMagnitude {
  static constexpr int largest = 32768;

  static int of(WaveformPeak peak);
  // The level of a bucket of this magnitude, as peakLevelDecibels gives it.
  static double levelDecibels(int magnitude);
  // The smallest magnitude whose level lies strictly above `thresholdDecibels`, or largest + 1
  // when none does (also for a threshold that is not a number).
  static int firstAbove(double thresholdDecibels);
};

}  // namespace vumo
