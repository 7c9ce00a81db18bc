#include "analysis/caption_timing_aligner.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>

#include "analysis/audio_activity_analyzer.h"

namespace vumo {

namespace {

// The one warning of an alignment, for the cues left as they were for want of sound.
std::string noActivityWarning(const std::vector<std::int64_t>& indices) {
  const std::size_t listed = std::min(indices.size(), CaptionTimingAligner::listedIndexLimit);
  std::string list =
      fmt::format("{}", fmt::join(indices.begin(), indices.begin() + static_cast<std::ptrdiff_t>(listed), ","));
  if (indices.size() > listed) list += "…";
  return fmt::format(
      "Reliable audio activity was not detected for {} captions. Original timing was kept (indices: {}).",
      indices.size(), list);
}

}  // namespace

CaptionTimingAlignmentResult CaptionTimingAligner::align(const CaptionDocument& document,
                                                         const WaveformEnvelope& envelope) {
  CaptionTimingAlignmentResult result;
  result.document = document;
  result.estimatedNoiseFloorDecibels = AudioActivityAnalyzer::estimatedNoiseFloor(&envelope);
  result.thresholdDecibels = AudioActivityAnalyzer::recommendedThreshold(result.estimatedNoiseFloorDecibels);
  result.adjustments.reserve(document.cues.size());

  std::vector<std::int64_t> withoutActivity;
  for (std::size_t index = 0; index < result.document.cues.size(); ++index) {
    CaptionCue& cue = result.document.cues[index];
    const ProjectTime cueStart = cue.start;
    const ProjectTime cueEnd = cue.end;
    const ProjectTimeRange original = ProjectTimeRange::fromStartEnd(cueStart, cueEnd);
    const auto cueIndex = static_cast<std::int64_t>(index);

    const auto active =
        AudioActivityAnalyzer::activeRanges(original, envelope, result.thresholdDecibels, mergeGap, minimumActivity);
    if (active.empty()) {
      result.adjustments.push_back({cueIndex, original, original, CaptionTimingAlignmentAction::unchangedNoActivity});
      withoutActivity.push_back(cueIndex);
      continue;
    }

    ProjectTime newStart = std::max(active.front().start - leadPadding, cueStart);
    ProjectTime newEnd = std::min(active.back().end() + tailPadding, cueEnd);
    if (!cue.words.empty()) {
      newStart = std::min(newStart, cue.words.front().start);
      newEnd = std::max(newEnd, cue.words.back().end);
    }
    // Too short to read: grow evenly where the cue has room before, the rest after, and if the end
    // is held by the cue's end, take all of it from before.
    const ProjectTime deficit = minimumLength - (newEnd - newStart);
    if (deficit.nanoseconds >= 1) {
      const ProjectTime left = std::min(newStart - cueStart, ProjectTime{deficit.nanoseconds / 2});
      newStart = newStart - left;
      newEnd = std::min(newEnd + deficit - left, cueEnd);
      if (newEnd - newStart < minimumLength) newStart = std::max(newEnd - minimumLength, cueStart);
    }

    const ProjectTimeRange adjusted = ProjectTimeRange::fromStartEnd(newStart, newEnd);
    const bool unchanged = newStart == cueStart && adjusted.duration == original.duration;
    result.adjustments.push_back(
        {cueIndex, original, adjusted,
         unchanged ? CaptionTimingAlignmentAction::unchangedAlreadyTight : CaptionTimingAlignmentAction::aligned});
    cue.start = newStart;
    cue.end = newEnd;
  }

  if (!withoutActivity.empty()) result.warnings.push_back(noActivityWarning(withoutActivity));
  return result;
}

}  // namespace vumo
