#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "agent/edit_plan_exchange.h"
#include "agent/timeline_plan_engine.h"
#include "captions/caption_document.h"
#include "cli/cli_models.h"
#include "cli/cli_responses.h"
#include "project/project_store.h"
#include "transcription/caption_transcription_service.h"

namespace vumo {

// The one owner of the preview-and-commit protocol. Every mutation is computed in full from the
// project as it stands; a preview writes nothing, and a commit repeats the computation and
// writes only through the store's digest-guarded commit. The program never merges.
// One call at a time; the store is borrowed.
class WaveformProviding;
class ProjectStillRendering;

class ProjectCommandService {
 public:
  // The media work behind the analysis and caption commands. Each member left empty gets the real
  // one, which reads the package's movie (and, for generation, talks to the cloud service); tests
  // hand in their own.
  struct MediaServices {
    std::shared_ptr<WaveformProviding> waveforms;
    std::function<void(const ProjectSnapshot&, MediaTrackKind, const std::filesystem::path&, std::stop_token)>
        exportCaptionAudio;
    std::function<CaptionGenerationResult(const ProjectSnapshot&, CaptionTrackSelection, std::stop_token)>
        generateCaptions;
    // Sets up the GPU context and the renderer (the engine's, on first use).
    std::function<std::shared_ptr<ProjectStillRendering>()> makeStillRenderer;
  };

  // `cancellation` ends long media work (decoding, export, transcription) at its next check.
  explicit ProjectCommandService(ProjectStore& store, std::stop_token cancellation = {}, MediaServices media = {});
  ~ProjectCommandService();
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
  CLIIdleResponse idle(const CLICommand::Idle& request);
  CLICaptionPreparationResponse prepareCaptions(const std::string& projectID, MediaTrackKind track);
  CLICaptionImportResponse importCaptions(const CLICaptionImportRequest& request);
  CLICaptionGenerationResponse generateBailianCaptions(const std::string& projectID, CaptionTrackSelection track);
  CLIMutationResponse mutate(const CLIMutationRequest& request);
  CLIEditPlanPreparationResponse prepareEditPlan(const std::string& projectID);
  CLIEditPlanResponse executeEditPlan(const CLIEditPlanRequest& request);
  // The output is prepared before the project is looked up; the extension is checked only after
  // the project and the GPU are ready; the picture replaces the output in one atomic step.
  CLIOutputResponse frame(const CLICommand::Frame& request);

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
  std::stop_token cancellation_;
  MediaServices media_;
};

}  // namespace vumo
