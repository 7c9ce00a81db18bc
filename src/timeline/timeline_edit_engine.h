#pragma once

#include <vector>

#include "shared/error.h"
#include "shared/project_time.h"
#include "shared/uuid.h"
#include "timeline/edit_timeline.h"

namespace vumo {

// Failures of clip edits: split, trim, ripple delete and source-range removal.
class TimelineEditError : public Error {
 public:
  enum class Case {
    noSegmentAtPlayhead,
    splitAtBoundary,
    segmentNotFound,
    trimOutsideHandles,
    cannotDeleteLastSegment,
    invalidRange,
  };

  explicit TimelineEditError(Case kind);
  Case kind() const noexcept { return kind_; }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  Case kind_;
};

class TimelineMapper;

// Changes the list of retained clips. Every result lies on the 60 fps grid and has passed
// validation; the input is never modified. Zooms, camera keyframes and full-screen segments keep
// their source times. Errors of the validator and the mapper pass through unchanged.
struct TimelineEditEngine {
  // Splits the clip under the playhead (sequence time) at the nearest grid line; the left half
  // keeps the clip's id.
  static EditTimeline split(const EditTimeline& timeline, ProjectTime sequenceTime, ProjectTime sourceDuration);
  // Moves a clip's start (source time), at most back to the end of the clip before it.
  static EditTimeline trimStart(const EditTimeline& timeline, const Uuid& segmentID, ProjectTime sourceTime,
                                ProjectTime sourceDuration);
  // Moves a clip's end (source time), at most up to the start of the clip after it.
  static EditTimeline trimEnd(const EditTimeline& timeline, const Uuid& segmentID, ProjectTime sourceTime,
                              ProjectTime sourceDuration);
  // Removes a clip; the clips after it close up.
  static EditTimeline rippleDelete(const EditTimeline& timeline, const Uuid& segmentID, ProjectTime sourceDuration);
  // Cuts source ranges out of the retained content. Pieces shorter than a frame go too; a cut
  // that changes nothing is invalidRange.
  static EditTimeline removeSourceRanges(const EditTimeline& timeline, const std::vector<ProjectTimeRange>& ranges,
                                         ProjectTime sourceDuration);

  // Drops the annotations of which nothing is retained any more (kept whole otherwise, with
  // their times) and reflows the lanes of the rest.
  static std::vector<AnnotationElement> removingOrphanedAnnotations(const std::vector<AnnotationElement>& annotations,
                                                                    const TimelineMapper& mapper);
};

}  // namespace vumo
