#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "captions/caption_document.h"
#include "project/diagnostic_report.h"
#include "project/guarded_document_commits.h"
#include "project/package_files.h"
#include "project/package_lifecycle.h"
#include "project/project_library.h"
#include "project/project_manifest.h"
#include "project/project_package.h"
#include "project/project_recovery.h"
#include "project/project_snapshot.h"
#include "project/project_snapshot_loader.h"
#include "project/project_store_error.h"
#include "shared/project_time.h"
#include "timeline/edit_timeline.h"

namespace vumo {

// The one owner of every read and write of package documents, and the one that callers use: it
// hands each call to the part that does that job (PackageLifecycle, GuardedDocumentCommits,
// ProjectLibrary, ProjectRecovery, ProjectSnapshotLoader), whose headers state the contracts.
//
// Editor, recorder and command line may use stores in separate processes on the same project at
// once: guarded writes state the digest of the document they started from and succeed only if the
// file still has it, checked under the document's lock. A stale writer fails with a conflict;
// nothing is ever merged. Every document is replaced atomically, so readers take no lock and
// always see a whole file.
//
// One store handles one call at a time: it is not meant to be shared between threads.
class ProjectStore {
 public:
  static constexpr const char* zeroByteDigest = package_files::zeroByteDigest;

  // `rootDirectory` replaces the default $XDG_DATA_HOME/Vumo/Projects; it is created with its
  // parents (a failure is a FileError). `stop` is watched while a commit waits for its locks and
  // while large documents and chunks are read, never once a commit has begun to write.
  explicit ProjectStore(std::optional<std::filesystem::path> rootDirectory = std::nullopt, std::stop_token stop = {});
  ProjectStore(const ProjectStore&) = delete;
  ProjectStore& operator=(const ProjectStore&) = delete;

  const std::filesystem::path& projectsDirectoryPath() const { return projectsDirectory_; }
  static std::filesystem::path defaultProjectsDirectory();

  // ---- Package lifecycle (PackageLifecycle) --------------------------------------------------

  CreatedProject createProject(const CaptureSourceDescriptor& source, const RecordingOptions& options,
                               PixelSize encodedPixelSize,
                               const std::optional<RecordingMicrophoneConfiguration>& microphone,
                               const std::optional<RecordingWebcamConfiguration>& webcam) {
    return lifecycle_.createProject(source, options, encodedPixelSize, microphone, webcam);
  }
  void updateManifest(const ProjectManifest& manifest, const ProjectPackage& package) {
    lifecycle_.updateManifest(manifest, package);
  }
  ProjectPackage finish(const ProjectPackage& package, ProjectManifest& manifest) {
    return lifecycle_.finish(package, manifest);
  }
  void markFailed(const ProjectPackage& package, ProjectManifest& manifest, const std::string& reason) {
    lifecycle_.markFailed(package, manifest, reason);
  }
  ProjectManifest readManifest(const ProjectPackage& package) const { return lifecycle_.readManifest(package); }
  void writeReport(const DiagnosticReport& report, const ProjectPackage& package) {
    lifecycle_.writeReport(report, package);
  }
  void writeCanvasBackgroundAsset(const CanvasBackgroundAssetPayload& payload, const ProjectPackage& package) {
    lifecycle_.writeCanvasBackgroundAsset(payload, package);
  }

  // ---- Timeline (GuardedDocumentCommits) -----------------------------------------------------

  std::string timelineDigest(const ProjectPackage& package) const { return documents_.timelineDigest(package); }
  EditTimeline readTimeline(const ProjectPackage& package, ProjectTime sourceDuration, bool hasWebcam) const {
    return documents_.readTimelineState(package, sourceDuration, hasWebcam).timeline;
  }
  TimelineState readTimelineState(const ProjectPackage& package, ProjectTime sourceDuration, bool hasWebcam) const {
    return documents_.readTimelineState(package, sourceDuration, hasWebcam);
  }
  void writeTimeline(const EditTimeline& timeline, const ProjectPackage& package) {
    documents_.writeTimeline(timeline, package);
  }
  TimelineCommit commitTimeline(const EditTimeline& timeline, const std::string& expectedDigest,
                                const std::optional<std::string>& expectedCaptionsDigest,
                                const ProjectPackage& package) {
    return documents_.commitTimeline(timeline, expectedDigest, expectedCaptionsDigest, package);
  }
  std::string writeTimeline(const EditTimeline& timeline, const std::string& expectedDigest,
                            const ProjectPackage& package) {
    return documents_.writeTimeline(timeline, expectedDigest, package);
  }
  std::vector<TimelineHistoryEntry> timelineHistory(const ProjectPackage& package) const {
    return documents_.timelineHistory(package);
  }
  EditTimeline historyTimeline(std::int64_t index, const ProjectPackage& package, ProjectTime sourceDuration,
                               bool hasWebcam) const {
    return documents_.historyTimeline(index, package, sourceDuration, hasWebcam);
  }
  void preserveTimelineMigrationBackups(const EditTimeline& timeline, const ProjectPackage& package) {
    documents_.preserveTimelineMigrationBackups(timeline, package);
  }

  // ---- Captions (GuardedDocumentCommits) -----------------------------------------------------

  std::string captionsDigest(const ProjectPackage& package) const { return documents_.captionsDigest(package); }
  CaptionsState captionsState(const ProjectPackage& package) const { return documents_.captionsState(package); }
  std::string commitCaptions(const CaptionDocument& document, const std::string& expectedCaptionsDigest,
                             const std::string& expectedTimelineDigest, const ProjectPackage& package) {
    return documents_.commitCaptions(document, expectedCaptionsDigest, expectedTimelineDigest, package);
  }
  std::string writeCaptions(const CaptionDocument& document, const std::string& expectedDigest,
                            const ProjectPackage& package) {
    return documents_.writeCaptions(document, expectedDigest, package);
  }

  // ---- Loading (ProjectSnapshotLoader) -------------------------------------------------------

  ProjectSnapshot loadSnapshot(const ProjectPackage& package) const { return snapshots_.load(package); }

  // ---- Finding and removing (ProjectLibrary) -------------------------------------------------

  std::vector<RecentProject> recentProjects() const { return library_.recentProjects(); }
  ProjectPackage project(const std::string& matchingIDPrefix) const { return library_.project(matchingIDPrefix); }
  void deleteProject(const RecentProject& recent) { library_.deleteProject(recent); }
  void discardRecording(const ProjectPackage& package) { library_.discardRecording(package); }
  std::size_t cleanupDiscardedRecordings() { return library_.cleanupDiscardedRecordings(); }
  std::size_t importProjects(const std::filesystem::path& folder) { return library_.importProjects(folder); }

  // ---- Recovery (ProjectRecovery) ------------------------------------------------------------

  std::vector<RecoverableProject> recoverableProjects() const { return recovery_.recoverableProjects(); }
  std::vector<RecoverableProject> recoverableProjects(const MediaProbing& probe) const {
    return recovery_.recoverableProjects(probe);
  }
  ProjectPackage markRecovered(const ProjectPackage& package, ProjectTime duration) {
    return recovery_.markRecovered(package, duration);
  }

 private:
  // Declared in the order they are built: the later parts borrow the earlier ones.
  std::filesystem::path projectsDirectory_;
  std::stop_token stop_;
  GuardedDocumentCommits documents_;
  PackageLifecycle lifecycle_;
  ProjectLibrary library_;
  ProjectRecovery recovery_;
  ProjectSnapshotLoader snapshots_;
};

}  // namespace vumo
