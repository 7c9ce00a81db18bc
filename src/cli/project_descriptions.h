#pragma once

#include <string>
#include <vector>

#include "cli/cli_responses.h"
#include "project/project_manifest.h"
#include "project/project_package.h"
#include "project/project_store.h"
#include "timeline/timeline_mapper.h"

namespace vumo {

// Pure functions from what the store read to the records an agent reads.
struct ProjectInspector {
  static CLIProjectSummary summary(const ProjectManifest& manifest, const ProjectPackage& package);
  static CLIProjectDescription describe(const ProjectSnapshot& snapshot, const std::string& digest);
  static CLITimelineSummary timelineSummary(const EditTimeline& timeline, ProjectTime sourceDuration);
  static std::vector<CLISegmentDescription> segmentDescriptions(const TimelineMapper& mapper);
  // Sorted by start; the index is what `zoom-rm --index` takes.
  static std::vector<CLIZoomDescription> zoomDescriptions(const EditTimeline& timeline);
  static CLICaptionCueDescription cueDescription(const CaptionCue& cue, const TimelineMapper& mapper);
  // Source spans with where each still plays; a span wholly in a cut has no sequence ranges.
  static std::vector<CLISpanDescription> spanDescriptions(const std::vector<ProjectTimeRange>& spans,
                                                          const TimelineMapper& mapper);
  // Zooms in the order that the descriptions number them.
  static std::vector<ZoomSegment> zoomsByStart(const EditTimeline& timeline);
};

}  // namespace vumo
