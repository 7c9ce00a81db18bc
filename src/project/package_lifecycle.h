#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "project/diagnostic_report.h"
#include "project/guarded_document_commits.h"
#include "project/project_manifest.h"
#include "project/project_package.h"
#include "project/project_snapshot.h"

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

// A package from its first folder to its final name: the manifest, the diagnostic report and the
// imported canvas backgrounds. These are replaced atomically and without a lock: they are the
// recorder's (and recovery's), not documents that editors race to change.
class PackageLifecycle {
 public:
  // The first timeline of a package is written through `documents`.
  PackageLifecycle(std::filesystem::path projectsDirectory, GuardedDocumentCommits& documents)
      : projectsDirectory_(std::move(projectsDirectory)), documents_(documents) {}

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
  // to `<UUID>.vumo`. Returns the final package.
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
  // Renames the package to `<UUID>.vumo`, replacing whatever had that name.
  ProjectPackage renameToFinal(const ProjectPackage& package);

 private:
  std::filesystem::path projectsDirectory_;
  GuardedDocumentCommits& documents_;
};

}  // namespace vumo
