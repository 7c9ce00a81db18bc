#include "project/project_store.h"

#include "shared/files.h"

namespace vumo {

std::filesystem::path ProjectStore::defaultProjectsDirectory() { return vumoSupportDirectory() / "Projects"; }

ProjectStore::ProjectStore(std::optional<std::filesystem::path> rootDirectory, std::stop_token stop)
    : projectsDirectory_(package_files::standardized(rootDirectory ? *rootDirectory : defaultProjectsDirectory())),
      stop_(std::move(stop)),
      documents_(stop_),
      lifecycle_(projectsDirectory_, documents_),
      library_(projectsDirectory_),
      recovery_(projectsDirectory_, lifecycle_, stop_),
      snapshots_(stop_) {
  createDirectories(projectsDirectory_);
}

}  // namespace vumo
