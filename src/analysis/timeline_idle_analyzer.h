#pragma once

#include <vector>

#include "analysis/waveform_envelope.h"
#include "shared/project_time.h"
#include "timeline/mouse_event.h"

namespace vumo {

// Where a recording holds nothing, in source time. Each list is sorted by start and has no
// overlaps.
struct TimelineIdleAnalysis {
  std::vector<ProjectTimeRange> idleRanges;     // no counted pointer event within reach
  std::vector<ProjectTimeRange> silenceRanges;  // every bucket at or below the threshold
  std::vector<ProjectTimeRange> quietRanges;    // both

  friend bool operator==(const TimelineIdleAnalysis&, const TimelineIdleAnalysis&) = default;
};

// Stateless range arithmetic behind the idle analysis and the cuts it recommends. Amplitude only:
// it knows nothing of speech, and a bucket with any sound above the threshold breaks a silence.
struct TimelineIdleAnalyzer {
  // A pointer event keeps this much time either side of it busy.
  static constexpr ProjectTime pointerReach{500'000'000};
  // Busy windows this close together are one.
  static constexpr ProjectTime pointerMergeGap{250'000'000};

  // Ranges of duration 1 ns or more, sorted stably by start, each joined to the one before when it
  // starts at most `gap` after that one's end (a gap of exactly `gap` joins; with 0, touching ones).
  static std::vector<ProjectTimeRange> merge(std::vector<ProjectTimeRange> ranges, ProjectTime gap);
  // What [0, duration) holds outside `ranges` (sorted by start).
  static std::vector<ProjectTimeRange> complement(const std::vector<ProjectTimeRange>& ranges, ProjectTime duration);
  // The ranges at least `minimum` long; one of exactly `minimum` stays.
  static std::vector<ProjectTimeRange> filterMinimum(const std::vector<ProjectTimeRange>& ranges, ProjectTime minimum);
  // Runs of buckets whose level is at or below `thresholdDecibels`. No envelope (nullptr) is silence
  // over [0, duration); an envelope without peaks has none. A silence that reaches the last bucket
  // goes on to `duration`, while time behind an envelope that ends on sound counts as sound.
  static std::vector<ProjectTimeRange> silentRanges(const WaveformEnvelope* envelope, ProjectTime duration,
                                                    double thresholdDecibels);
  // Every non-empty overlap of a range of `a` with one of `b`, in `a`-major order; both lists
  // sorted and without overlaps.
  static std::vector<ProjectTimeRange> intersections(const std::vector<ProjectTimeRange>& a,
                                                     const std::vector<ProjectTimeRange>& b);
  // Each range shrunk to the 60 fps grid lines inside it (negative times count as 0), empty ones
  // dropped, the rest merged where they touch. A range only ever shrinks, so a cut made from it
  // never reaches into material it did not cover.
  static std::vector<ProjectTimeRange> normalizedRanges(const std::vector<ProjectTimeRange>& ranges);
  // Cuts to propose: each quiet range less its last `keepTail`, limited to what `retainedRanges`
  // (the source ranges the timeline still plays) hold, aligned to frames, and kept when at least
  // `minimumRemoval` long.
  static std::vector<ProjectTimeRange> recommendedCuts(const TimelineIdleAnalysis& analysis,
                                                       const std::vector<ProjectTimeRange>& retainedRanges,
                                                       ProjectTime keepTail, ProjectTime minimumRemoval);

  // The three lists for a recording of `duration`: pointer windows of every event not known to lie
  // outside the recorded source, silences at or below `silenceDecibels`, and both at once, each
  // list without spans shorter than `minimum`. A duration below 1 ns gives three empty lists.
  static TimelineIdleAnalysis analyze(const WaveformEnvelope& envelope, const std::vector<MouseEvent>& events,
                                      ProjectTime duration, ProjectTime minimum, double silenceDecibels);
};

}  // namespace vumo
