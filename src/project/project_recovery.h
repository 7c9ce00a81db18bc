#pragma once

#include <filesystem>
#include <stop_token>
#include <vector>

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

// Recordings that a crash interrupted: finding the ones worth offering, and completing one from
// what its media and chunks hold.
class ProjectRecovery {
 public:
  // The recovered package is finished through `lifecycle`. `stop` is checked between chunk files.
  ProjectRecovery(std::filesystem::path projectsDirectory, PackageLifecycle& lifecycle, std::stop_token stop = {})
      : projectsDirectory_(std::move(projectsDirectory)), lifecycle_(lifecycle), stop_(std::move(stop)) {}

  // `.vumo.tmp` packages with a readable manifest and media with a video track and a positive
  // duration. Others are left alone.
  std::vector<RecoverableProject> recoverableProjects() const;
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
