#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <stop_token>
#include <string>
#include <utility>
#include <vector>

#include "captions/caption_document.h"
#include "project/diagnostic_report.h"
#include "project/project_manifest.h"
#include "project/project_package.h"
#include "project/project_snapshot.h"
#include "project/project_store_error.h"
#include "shared/project_time.h"
#include "timeline/edit_timeline.h"

namespace vumo {

// The microphone a recording was started with; it goes into the manifest as it is.
struct RecordingMicrophoneConfiguration {
  std::optional<std::string> deviceID;
  std::string deviceName;
};

// The camera a recording was started with. Its track number is given by the store.
struct RecordingWebcamConfiguration {
  std::string deviceID;
  std::string deviceName;
  PixelSize pixelSize;
  std::int64_t framesPerSecond = 30;
};

struct CreatedProject {
  ProjectPackage package;
  ProjectManifest manifest;
};

// An unfinished package whose media can still be played: what recovery offers.
struct RecoverableProject {
  ProjectPackage package;
  ProjectManifest manifest;
  ProjectTime mediaDuration;
};

struct TimelineState {
  EditTimeline timeline;  // normalised and validated
  std::string digest;     // of the bytes the timeline was decoded from
};

struct CaptionsState {
  std::optional<CaptionDocument> document;  // decoded, not validated; none without a file
  std::string digest;
};

struct TimelineHistoryEntry {
  std::filesystem::path path;
  std::string digest;
  friend bool operator==(const TimelineHistoryEntry&, const TimelineHistoryEntry&) = default;
};

// The one owner of every read and write of package documents. Editor, recorder and command line
// may use stores in separate processes on the same project at once: guarded writes state the
// digest of the document they started from and succeed only if the file still has it, checked
// under `flock` on `edits/.timeline.lock` (then `edits/.captions.lock`, always in that order).
// A stale writer fails with a conflict; nothing is ever merged. Every document is replaced
// atomically, so readers take no lock and always see a whole file.
//
// One store handles one call at a time: it is not meant to be shared between threads.
class ProjectStore {
 public:
  static constexpr const char* zeroByteDigest = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

  // `rootDirectory` replaces the default $XDG_DATA_HOME/Vumo/Projects; it is created with its
  // parents (a failure is a FileError). `stop` is watched while a commit waits for its locks and
  // while large documents are read, never once a commit has begun to write.
  explicit ProjectStore(std::optional<std::filesystem::path> rootDirectory = std::nullopt,
                        std::stop_token stop = {});
  ProjectStore(const ProjectStore&) = delete;
  ProjectStore& operator=(const ProjectStore&) = delete;

  const std::filesystem::path& projectsDirectoryPath() const { return projectsDirectory_; }
  static std::filesystem::path defaultProjectsDirectory();

  // ---- Package lifecycle ------------------------------------------------------------------

  // A new `<UUID>.vumo.tmp` package in state "recording": the nine folders, the manifest and the
  // first timeline. Tracks are numbered screen 0, camera 1 when configured, then system audio and
  // microphone when the options capture them. A device source starts with the catalogue's frame
  // for a device of its size, when there is one.
  CreatedProject createProject(const CaptureSourceDescriptor& source, const RecordingOptions& options,
                               PixelSize encodedPixelSize,
                               const std::optional<RecordingMicrophoneConfiguration>& microphone,
                               const std::optional<RecordingWebcamConfiguration>& webcam);
  void updateManifest(const ProjectManifest& manifest, const ProjectPackage& package);
  // Marks the manifest completed (updating the caller's copy), writes it, and renames the package
  // to `<UUID>.vumo`, replacing whatever had that name. Returns the final package.
  ProjectPackage finish(const ProjectPackage& package, ProjectManifest& manifest);
  // Marks the manifest failed with a reason (updating the caller's copy) and writes it; the
  // package keeps its `.vumo.tmp` name.
  void markFailed(const ProjectPackage& package, ProjectManifest& manifest, const std::string& reason);
  ProjectManifest readManifest(const ProjectPackage& package) const;
  void writeReport(const DiagnosticReport& report, const ProjectPackage& package);
  // Imports one canvas background into `assets/backgrounds/`. The id must be lower-case hex and
  // the path "assets/backgrounds/<id>.jpg" (".mov" for a video), else invalidProjectLocation. A
  // file already there whose SHA-256 is the id is kept.
  void writeCanvasBackgroundAsset(const CanvasBackgroundAssetPayload& payload, const ProjectPackage& package);

  // ---- Timeline ------------------------------------------------------------------------------

  // Digest of `edits/timeline.json` as it is on disk; of zero bytes when there is no file.
  std::string timelineDigest(const ProjectPackage& package) const;
  // Decoded, normalised and validated; the default timeline when there is no file. Never writes.
  EditTimeline readTimeline(const ProjectPackage& package, ProjectTime sourceDuration, bool hasWebcam) const;
  TimelineState readTimelineState(const ProjectPackage& package, ProjectTime sourceDuration, bool hasWebcam) const;
  // Unguarded write for recording and recovery: migration backups, then the atomic write.
  void writeTimeline(const EditTimeline& timeline, const ProjectPackage& package);
  // Guarded replace with history: fails with timelineDigestConflict (or captionsDigestConflict
  // when a captions digest is named) and then changes nothing. Returns warnings (a failed
  // history trim).
  std::vector<std::string> commitTimeline(const EditTimeline& timeline, const std::string& expectedDigest,
                                          const std::optional<std::string>& expectedCaptionsDigest,
                                          const ProjectPackage& package);
  // Guarded replace without history (the editor's autosave). Returns the new digest.
  std::string writeTimeline(const EditTimeline& timeline, const std::string& expectedDigest,
                            const ProjectPackage& package);
  // Commits ordered by time, newest first (index 0), each with the digest of its bytes.
  std::vector<TimelineHistoryEntry> timelineHistory(const ProjectPackage& package) const;
  // The history entry at `index`, decoded, normalised and validated; historyNotFound otherwise.
  EditTimeline historyTimeline(std::int64_t index, const ProjectPackage& package, ProjectTime sourceDuration,
                               bool hasWebcam) const;
  // Before a timeline of a newer schema replaces an older file, keeps the older bytes once as
  // `timeline.pre-schemaN.json` for each schema N it crosses (3 to 8). Never overwrites one.
  void preserveTimelineMigrationBackups(const EditTimeline& timeline, const ProjectPackage& package);

  // ---- Captions ------------------------------------------------------------------------------

  // Of zero bytes when there is no captions file; an existing file must decode as a document.
  std::string captionsDigest(const ProjectPackage& package) const;
  CaptionsState captionsState(const ProjectPackage& package) const;
  // Guarded by both digests, with history. The document is validated against the manifest's
  // duration and written in its normal form. Returns the new captions digest.
  std::string commitCaptions(const CaptionDocument& document, const std::string& expectedCaptionsDigest,
                             const std::string& expectedTimelineDigest, const ProjectPackage& package);
  // Guarded by the captions digest only, without history.
  std::string writeCaptions(const CaptionDocument& document, const std::string& expectedDigest,
                            const ProjectPackage& package);

  // ---- Finding, loading, removing --------------------------------------------------------------

  // Finished projects (completed or recovered) with media and a readable manifest, newest first.
  std::vector<RecentProject> recentProjects() const;
  // Case-insensitive prefix of the id's text (with hyphens) among recentProjects().
  ProjectPackage project(const std::string& matchingIDPrefix) const;
  ProjectSnapshot loadSnapshot(const ProjectPackage& package) const;
  // Only a `.vumo` folder directly in the projects folder; invalidProjectLocation otherwise.
  void deleteProject(const RecentProject& recent);
  // Only a `<UUID>.vumo.tmp` folder directly in the projects folder. Renamed out of sight first,
  // so a crash halfway never leaves something that looks like a project.
  void discardRecording(const ProjectPackage& package);
  // Finishes discards that a crash interrupted. Returns how many were removed.
  std::size_t cleanupDiscardedRecordings();
  // Copies `.vumo` and `.vumo.tmp` packages of an earlier installation that are not here yet.
  // Returns the number copied; the originals stay.
  std::size_t importProjects(const std::filesystem::path& folder);

  // ---- Recovery --------------------------------------------------------------------------------

  // `.vumo.tmp` packages with a readable manifest and media with a video track and a positive
  // duration. Others are left alone.
  std::vector<RecoverableProject> recoverableProjects() const;
  // Completes an interrupted recording from what its chunks hold and renames it to `.vumo`.
  // Returns the final package.
  ProjectPackage markRecovered(const ProjectPackage& package, ProjectTime duration);

 private:
  std::pair<std::string, std::vector<std::string>> replaceTimeline(
      const EditTimeline& timeline, const std::string& expectedDigest,
      const std::optional<std::string>& expectedCaptionsDigest, bool preservesHistory, const ProjectPackage& package);
  ProjectPackage renameToFinal(const ProjectPackage& package);
  bool isDirectlyInProjectsFolder(const std::filesystem::path& path) const;

  std::filesystem::path projectsDirectory_;
  std::stop_token stop_;
};

}  // namespace vumo
