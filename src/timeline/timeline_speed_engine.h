#pragma once

#include <vector>

#include "shared/error.h"
#include "shared/project_time.h"
#include "timeline/edit_timeline.h"

namespace vumo {

// Failures of playback-speed changes.
class TimelineSpeedError : public Error {
 public:
  enum class Case {
    invalidRate,
    invalidRange,
    rangeOutsideRetainedContent,
    conflictingRanges,
    noChange,
  };

  explicit TimelineSpeedError(Case kind);
  Case kind() const noexcept { return kind_; }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  Case kind_;
};

// One requested speed: a source range and the rate it should play at.
struct TimelineSpeedChange {
  ProjectTimeRange range;
  TimelinePlaybackRate rate;

  friend bool operator==(const TimelineSpeedChange&, const TimelineSpeedChange&) = default;
};

struct TimelineSpeedApplication {
  EditTimeline timeline;
  // What was actually applied, snapped and merged; the plan preview reports these.
  std::vector<TimelineSpeedChange> normalizedChanges;
};

// Gives retained source ranges another playback rate by splitting clips on the frame grid and
// setting the rate of the middle pieces. Works in source time; sequence positions follow from
// the mapper. Every result has passed validation.
struct TimelineSpeedEngine {
  // Snaps every change to the grid, sorts by start and merges overlapping or touching changes of
  // the same rate. Overlapping changes of different rates are conflictingRanges.
  static std::vector<TimelineSpeedChange> normalized(const std::vector<TimelineSpeedChange>& changes);

  // Sets `rate` on the source range, which must lie wholly within retained content. Remainders
  // under a frame at either side of a clip are taken along. The first piece of each clip keeps
  // its id.
  static EditTimeline settingRate(TimelinePlaybackRate rate, const ProjectTimeRange& range,
                                  const EditTimeline& timeline, ProjectTime sourceDuration);

  // Normalises, then sets each change in order. No changes leave the timeline as it is.
  static TimelineSpeedApplication applying(const std::vector<TimelineSpeedChange>& changes,
                                           const EditTimeline& timeline, ProjectTime sourceDuration);
};

}  // namespace vumo
