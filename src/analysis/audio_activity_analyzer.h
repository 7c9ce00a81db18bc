#pragma once

#include <vector>

#include "analysis/waveform_envelope.h"
#include "shared/project_time.h"

namespace vumo {

// Where a track holds sound, judged by the peak level of its 20 ms buckets. Stateless.
struct AudioActivityAnalyzer {
  // The level below which `recommendedThreshold` never advises, and the level of an unknown track.
  static constexpr double silenceFloorDecibels = -96.0;
  static constexpr double lowestRecommendedDecibels = -55.0;
  static constexpr double highestRecommendedDecibels = -30.0;
  // How far above the noise floor sound has to rise before it counts.
  static constexpr double recommendedMarginDecibels = 8.0;

  // The lower quartile of the levels of all buckets of the track (not only the quiet ones): the
  // level at index min(n / 4, n - 1) of the ascending levels. -96 without an envelope or peaks.
  static double estimatedNoiseFloor(const WaveformEnvelope* envelope);

  // The noise floor plus the margin, kept within -55...-30 dB: the level a second analysis should
  // use, and the one caption alignment does use.
  static double recommendedThreshold(double noiseFloorDecibels);

  // The stretches of `range` whose buckets lie strictly above `thresholdDecibels` (a bucket exactly
  // at it is quiet), joined across pauses of at most `mergeGap`, clipped to `range` and kept when
  // at least `minimumDuration` long. Reads only the buckets that `range` covers; time beyond the
  // envelope has no sound.
  static std::vector<ProjectTimeRange> activeRanges(ProjectTimeRange range, const WaveformEnvelope& envelope,
                                                    double thresholdDecibels, ProjectTime mergeGap,
                                                    ProjectTime minimumDuration);
};

}  // namespace vumo
