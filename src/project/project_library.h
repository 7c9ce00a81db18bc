#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

#include "project/project_package.h"
#include "project/project_snapshot.h"

namespace vumo {

// The packages of the projects folder as a collection: listing, lookup by id prefix, deletion,
// discarding unfinished recordings, and importing an earlier installation's packages. It acts
// only on what lies directly in its folder.
//
// A package that cannot be shown (no media, a manifest that is missing, broken, too large or not
// a regular file) is left out of every listing and left alone; listing never blocks on one.
class ProjectLibrary {
 public:
  explicit ProjectLibrary(std::filesystem::path projectsDirectory) : projectsDirectory_(std::move(projectsDirectory)) {}

  // Finished projects (completed or recovered) with media and a readable manifest, newest first.
  std::vector<RecentProject> recentProjects() const;
  // Case-insensitive prefix of the id's text (with hyphens) among recentProjects().
  ProjectPackage project(const std::string& matchingIDPrefix) const;
  // Only a `.vumo` folder directly in the projects folder; invalidProjectLocation otherwise.
  void deleteProject(const RecentProject& recent);
  // The folder deleteProject would remove, after the same checks, for a caller that disposes of
  // it another way (the desktop moves it to the trash).
  std::filesystem::path deletablePackage(const RecentProject& recent) const;
  // Only a `<UUID>.vumo.tmp` folder directly in the projects folder. Renamed out of sight first,
  // so a crash halfway never leaves something that looks like a project.
  void discardRecording(const ProjectPackage& package);
  // Finishes discards that a crash interrupted. Returns how many were removed.
  std::size_t cleanupDiscardedRecordings();
  // Copies `.vumo` and `.vumo.tmp` packages of an earlier installation that are not here yet.
  // Returns the number copied; the originals stay.
  std::size_t importProjects(const std::filesystem::path& folder);

 private:
  bool isDirectlyInProjectsFolder(const std::filesystem::path& path) const;

  std::filesystem::path projectsDirectory_;
};

}  // namespace vumo
