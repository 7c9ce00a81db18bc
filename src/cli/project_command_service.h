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
    // Its timeline and captions digests are of the bytes it decoded: every digest an answer
    // reports comes from here, so it always names the content that answer was computed from.
    ProjectSnapshot snapshot;
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

 private:
  struct MutationResult {
    EditTimeline timeline;
    std::vector<ProjectTimeRange> normalizedCuts;
    std::vector<ZoomReconciliation> zoomReconciliations;
  };
  MutationResult compute(const CLIMutation& mutation, const LoadedProject& project);

  ProjectStore& store_;
};

}  // namespace vumo
