#include "analysis/audio_activity_analyzer.h"

#include <algorithm>
#include <cstdint>
#include <optional>

#include "analysis/peak_magnitude.h"

namespace vumo {

double AudioActivityAnalyzer::estimatedNoiseFloor(const WaveformEnvelope* envelope) {
  if (!envelope || envelope->peaks.empty()) return silenceFloorDecibels;
  // The level only grows with the magnitude, so the quartile of the magnitudes is the bucket whose
  // level is the quartile of the levels; one logarithm instead of one per bucket.
  std::vector<int> magnitudes;
  magnitudes.reserve(envelope->peaks.size());
  for (WaveformPeak peak : envelope->peaks) magnitudes.push_back(PeakMagnitude::of(peak));
  const std::size_t count = magnitudes.size();
  const std::size_t index = std::min(count / 4, count - 1);
  std::nth_element(magnitudes.begin(), magnitudes.begin() + static_cast<std::ptrdiff_t>(index), magnitudes.end());
  return PeakMagnitude::levelDecibels(magnitudes[index]);
}

double AudioActivityAnalyzer::recommendedThreshold(double noiseFloorDecibels) {
  return std::clamp(noiseFloorDecibels + recommendedMarginDecibels, lowestRecommendedDecibels,
                    highestRecommendedDecibels);
}

std::vector<ProjectTimeRange> AudioActivityAnalyzer::activeRanges(ProjectTimeRange range,
                                                                  const WaveformEnvelope& envelope,
                                                                  double thresholdDecibels, ProjectTime mergeGap,
                                                                  ProjectTime minimumDuration) {
  if (range.duration.nanoseconds < 1) return {};
  constexpr std::int64_t bucket = WaveformEnvelope::bucketNanoseconds;
  const auto peakCount = static_cast<std::int64_t>(envelope.peaks.size());
  const std::int64_t firstBucket = range.start.nanoseconds < 0 ? 0 : range.start.nanoseconds / bucket;
  const ProjectTime rangeEnd = range.end();
  const ProjectTime end = std::min(ProjectTime{checkedMul(peakCount, bucket)}, rangeEnd);
  // Rounded up for a positive end; for a negative one truncation already rounds up.
  std::int64_t endBucket = end.nanoseconds / bucket;
  if (end.nanoseconds > 0 && end.nanoseconds % bucket != 0) ++endBucket;
  const std::int64_t lastBucket = std::min(endBucket, peakCount);
  if (firstBucket >= lastBucket) return {};

  const int firstActive = PeakMagnitude::firstAbove(thresholdDecibels);
  std::vector<ProjectTimeRange> runs;
  std::optional<ProjectTime> runStart;
  auto close = [&](ProjectTime at) {
    runs.push_back({*runStart, std::max(at - *runStart, ProjectTime::zero())});
    runStart.reset();
  };
  for (std::int64_t index = firstBucket; index < lastBucket; ++index) {
    const bool active = PeakMagnitude::of(envelope.peaks[static_cast<std::size_t>(index)]) >= firstActive;
    const ProjectTime bucketStart{index * bucket};
    if (active && !runStart)
      runStart = bucketStart;
    else if (!active && runStart)
      close(bucketStart);
  }
  if (runStart) close(end);

  std::vector<ProjectTimeRange> merged;
  for (const ProjectTimeRange& run : runs) {
    if (!merged.empty() && run.start - merged.back().end() <= mergeGap)
      merged.back().duration = run.end() - merged.back().start;
    else
      merged.push_back(run);
  }

  std::vector<ProjectTimeRange> result;
  for (const ProjectTimeRange& run : merged) {
    const ProjectTime clippedStart = std::max(run.start, range.start);
    const ProjectTime clippedEnd = std::min(run.end(), rangeEnd);
    if (clippedEnd <= clippedStart) continue;
    const ProjectTimeRange clipped = ProjectTimeRange::fromStartEnd(clippedStart, clippedEnd);
    if (clipped.duration >= minimumDuration) result.push_back(clipped);
  }
  return result;
}

}  // namespace vumo
