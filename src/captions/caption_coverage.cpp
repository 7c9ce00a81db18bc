#include "captions/caption_coverage.h"

#include <algorithm>
#include <cstdint>
#include <exception>

#include "captions/caption_errors.h"
#include "timeline/timeline_mapper.h"

namespace vumo {

void validateCaptionCoverage(const CaptionDocument& document, const EditTimeline& timeline,
                             ProjectTime sourceDuration) {
  TimelineMapper mapper(timeline, sourceDuration);
  for (const auto& cue : document.cues) {
    const std::int64_t cueStart = cue.start.cliMilliseconds();
    const std::int64_t cueEnd = cue.end.cliMilliseconds();
    std::int64_t covered = 0;
    for (const auto& projection : mapper.projections()) {
      const auto& clip = projection.segment.sourceRange;
      covered += std::max<std::int64_t>(
          0, std::min(clip.end().cliMilliseconds(), cueEnd) - std::max(clip.start.cliMilliseconds(), cueStart));
    }
    if (covered != cueEnd - cueStart)
      throw CaptionValidationError(CaptionValidationError::Case::cueCrossesRemovedContent);
  }
}

CaptionImpact captionImpact(const std::optional<CaptionDocument>& document, const EditTimeline& originalTimeline,
                            const EditTimeline& resultingTimeline, const std::vector<ProjectTimeRange>& normalizedCuts,
                            ProjectTime sourceDuration) {
  CaptionImpact impact;
  if (!document) return impact;
  std::optional<TimelineMapper> original, resulting;
  try {
    original.emplace(originalTimeline, sourceDuration);
    resulting.emplace(resultingTimeline, sourceDuration);
  } catch (const std::exception&) {
    return impact;  // the impact is unknown, which is not an error of the plan
  }
  auto coverage = [](const TimelineMapper& mapper, const ProjectTimeRange& range) {
    std::int64_t total = 0;
    for (const auto& projection : mapper.projections())
      if (auto overlap = projection.segment.sourceRange.intersection(range)) total += overlap->duration.nanoseconds;
    return total;
  };
  for (const auto& cue : document->cues) {
    const auto range = ProjectTimeRange::fromStartEnd(cue.start, cue.end);
    const std::int64_t before = coverage(*original, range);
    const std::int64_t after = coverage(*resulting, range);
    if (after >= before) continue;
    CaptionCueImpact row;
    row.cueID = cue.id;
    for (const auto& cut : normalizedCuts)
      if (cut.intersection(range)) row.affectedCutRanges.push_back(cut);
    row.hasWordTimings = !cue.words.empty();
    if (after == 0) {
      impact.removed.push_back(cue.id);
      row.kind = CaptionImpactKind::fullyRemoved;
    } else {
      impact.split.push_back(cue.id);
      bool wordHit = std::any_of(cue.words.begin(), cue.words.end(), [&](const CaptionWord& word) {
        auto wordRange = ProjectTimeRange::fromStartEnd(word.start, word.end);
        return std::any_of(row.affectedCutRanges.begin(), row.affectedCutRanges.end(),
                           [&](const auto& cut) { return cut.intersection(wordRange).has_value(); });
      });
      row.kind = wordHit ? CaptionImpactKind::wordTimingOverlap : CaptionImpactKind::cueTimingOverlap;
    }
    impact.impacts.push_back(std::move(row));
  }
  return impact;
}

}  // namespace vumo
