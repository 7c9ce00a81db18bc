#pragma once

#include <optional>
#include <string>
#include <vector>

#include "agent/edit_plan_exchange.h"
#include "agent/timeline_plan_engine.h"
#include "captions/caption_document.h"
#include "cli/cli_models.h"
#include "cli/cli_responses.h"
#include "project/project_store.h"

namespace vumo {

// The one owner of the preview-and-commit protocol. Every mutation is computed in full from the
// project as it stands; a preview writes nothing, and a commit repeats the computation and
// writes only through the store's digest-guarded commit. The program never merges.
// One call at a time; the store is borrowed.
class ProjectCommandService {
 public:
  explicit ProjectCommandService(ProjectStore& store) : store_(store) {}
  ProjectCommandService(const ProjectCommandService&) = delete;
  ProjectCommandService& operator=(const ProjectCommandService&) = delete;

  struct LoadedProject {
    ProjectPackage package;
    ProjectSnapshot snapshot;
    std::string digest;  // of edits/timeline.json as read after the snapshot
  };

  // The first step of every command that reads a whole project.
  LoadedProject load(const std::string& projectID);

  std::vector<CLIProjectSummary> list();
  CLIProjectDescription describe(const std::string& projectID);
  CLIHistoryResponse history(const std::string& projectID);
  CLICaptionReadResponse readCaptions(const std::string& projectID);
  CLIMutationResponse mutate(const CLIMutationRequest& request);
  CLIEditPlanPreparationResponse prepareEditPlan(const std::string& projectID);
  CLIEditPlanResponse executeEditPlan(const CLIEditPlanRequest& request);

  // The words that, after `vumo cli`, commit exactly the previewed mutation.
  static std::vector<std::string> confirmationArguments(const CLIMutation& mutation, const std::string& projectID,
                                                        const std::string& digest);

  // Captions are final only against retained material: every millisecond of every cue must lie
  // in a clip. Fails with CaptionValidationError(cueCrossesRemovedContent).
  static void validateCaptionCoverage(const CaptionDocument& document, const EditTimeline& timeline,
                                      ProjectTime sourceDuration);

  struct CaptionImpact {
    std::vector<std::string> removed;
    std::vector<std::string> split;
    std::vector<CLICaptionImpactDescription> impacts;
  };
  // How a change of the timeline meets the cues. Only reports; an unknown impact (a timeline that
  // cannot be mapped) is reported as none.
  static CaptionImpact captionImpact(const std::optional<CaptionDocument>& document, const EditTimeline& originalTimeline,
                                     const EditTimeline& resultingTimeline,
                                     const std::vector<ProjectTimeRange>& normalizedCuts, ProjectTime sourceDuration);

 private:
  struct MutationResult {
    EditTimeline timeline;
    std::vector<ProjectTimeRange> normalizedCuts;
    std::vector<ZoomReconciliation> zoomReconciliations;
  };
  MutationResult compute(const CLIMutation& mutation, const LoadedProject& project);
  std::string currentTimelineDigest(const ProjectPackage& package) const;

  ProjectStore& store_;
};

}  // namespace vumo
