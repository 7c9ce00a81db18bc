#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <stop_token>
#include <vector>

#include "project/media_probe.h"
#include "project/package_lifecycle.h"
#include "project/project_manifest.h"
#include "project/project_package.h"
#include "shared/project_time.h"

namespace vumo {

// An unfinished package whose media can still be played: what recovery offers.
struct RecoverableProject {
  ProjectPackage package;
  ProjectManifest manifest;
  ProjectTime mediaDuration;
};

// What recovery asks of a media file. The command line hands in the media engine's probe, so that
// FFmpeg stays out of the executable; others use MediaProbe::inspect itself.
using MediaProbing = std::function<std::optional<MediaProbeResult>(const std::filesystem::path&)>;

// Recordings that a crash interrupted: finding the ones worth offering, and completing one from
// what its media and chunks hold.
class ProjectRecovery {
 public:
  // The recovered package is finished through `lifecycle`. `stop` is checked between chunk files.
  ProjectRecovery(std::filesystem::path projectsDirectory, PackageLifecycle& lifecycle, std::stop_token stop = {})
      : projectsDirectory_(std::move(projectsDirectory)), lifecycle_(lifecycle), stop_(std::move(stop)) {}

  // `.vumo.tmp` packages with a readable manifest and media with a video track and a positive
  // duration. Others are left alone.
  std::vector<RecoverableProject> recoverableProjects() const { return recoverableProjects(&MediaProbe::inspect); }
  std::vector<RecoverableProject> recoverableProjects(const MediaProbing& probe) const;
  // Completes an interrupted recording from what its chunks hold and renames it to `.vumo`.
  // Temporaries that killed writers left of the package's documents go too, once they are older
  // than unguardedWriteGrace (a writer of that package may still be alive). Returns the final
  // package.
  ProjectPackage markRecovered(const ProjectPackage& package, ProjectTime duration);

 private:
  std::filesystem::path projectsDirectory_;
  PackageLifecycle& lifecycle_;
  std::stop_token stop_;
};

}  // namespace vumo
