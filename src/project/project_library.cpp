#include "project/project_library.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <system_error>

#include "project/folder_listing.h"
#include "project/package_files.h"
#include "project/project_store_error.h"
#include "shared/error.h"
#include "shared/files.h"
#include "shared/uuid.h"

namespace vumo {

namespace fs = std::filesystem;
using namespace package_files;

namespace {

std::string uppercased(std::string text) {
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

}  // namespace

std::vector<RecentProject> ProjectLibrary::recentProjects() const {
  std::vector<RecentProject> projects;
  for (const fs::path& entry : visibleEntries(projectsDirectory_)) {
    if (entry.extension() != finishedSuffix || !isDirectory(entry)) continue;
    ProjectPackage package{entry};
    std::error_code error;
    if (!fs::exists(package.mediaPath(), error)) continue;
    ProjectManifest manifest;
    try {
      manifest = readManifest(package);
    } catch (const SystemFileError&) {
      throw;  // the file may be fine; an answer without it would be wrong
    } catch (const Error&) {
      continue;  // not a project we can show; left alone
    }
    if (manifest.state != ProjectState::completed && manifest.state != ProjectState::recovered) continue;
    projects.push_back({entry, manifest.createdAt, manifest.updatedAt, manifest.state, manifest.source.kind,
                        manifest.source.title, manifest.duration, manifest.webcam.has_value()});
  }
  std::sort(projects.begin(), projects.end(), [](const RecentProject& a, const RecentProject& b) {
    if (a.updatedAt != b.updatedAt) return a.updatedAt > b.updatedAt;
    return a.packagePath.filename().native() < b.packagePath.filename().native();
  });
  return projects;
}

ProjectPackage ProjectLibrary::project(const std::string& matchingIDPrefix) const {
  std::string prefix = uppercased(matchingIDPrefix);
  std::vector<ProjectPackage> matches;
  for (const RecentProject& recent : recentProjects()) {
    ProjectPackage package{recent.packagePath};
    std::string id;
    try {
      id = readManifest(package).id.string();
    } catch (const SystemFileError&) {
      throw;  // the file may be fine; an answer without it would be wrong
    } catch (const Error&) {
      continue;
    }
    if (id.compare(0, prefix.size(), prefix) == 0) matches.push_back(package);
  }
  if (matches.empty()) throw ProjectStoreError::projectNotFound(matchingIDPrefix);
  if (matches.size() > 1) throw ProjectStoreError::ambiguousProjectPrefix(matchingIDPrefix);
  return matches.front();
}

bool ProjectLibrary::isDirectlyInProjectsFolder(const fs::path& path) const {
  std::string name = path.filename().string();
  if (name.empty() || name == "." || name == "..") return false;
  return resolvedFolder(path.parent_path()) == resolvedFolder(projectsDirectory_);
}

fs::path ProjectLibrary::deletablePackage(const RecentProject& recent) const {
  fs::path path = standardized(recent.packagePath);
  if (path.extension() != finishedSuffix || !isDirectlyInProjectsFolder(path))
    throw ProjectStoreError::invalidProjectLocation();
  return path;
}

void ProjectLibrary::deleteProject(const RecentProject& recent) { removeAllOrThrow(deletablePackage(recent)); }

void ProjectLibrary::discardRecording(const ProjectPackage& package) {
  fs::path path = standardized(package.rootPath);
  std::string name = path.filename().string();
  std::error_code error;
  bool isLink = fs::is_symlink(fs::symlink_status(path, error));
  if (!endsWith(name, unfinishedSuffix) || isLink || !isDirectlyInProjectsFolder(path))
    throw ProjectStoreError::invalidProjectLocation();
  std::string base = name.substr(0, name.size() - unfinishedSuffix.size());
  if (!Uuid::parse(base)) throw ProjectStoreError::invalidProjectLocation();

  // Out of every listing's sight first; the removal may then fail or be cut short by a crash,
  // and cleanupDiscardedRecordings finishes it.
  fs::path discarding = path.parent_path() / (base + std::string(discardingSuffix));
  if (fs::exists(fs::symlink_status(discarding, error))) removeAllOrThrow(discarding);
  renameOrThrow(path, discarding);
  fs::remove_all(discarding, error);
}

std::size_t ProjectLibrary::cleanupDiscardedRecordings() {
  std::size_t removed = 0;
  for (const fs::path& entry : visibleEntries(projectsDirectory_)) {
    std::string name = entry.filename().string();
    if (!endsWith(name, discardingSuffix)) continue;
    if (!Uuid::parse(name.substr(0, name.size() - discardingSuffix.size()))) continue;
    std::error_code error;
    fs::remove_all(entry, error);
    if (!error) ++removed;
  }
  return removed;
}

std::size_t ProjectLibrary::importProjects(const fs::path& folder) {
  std::size_t copied = 0;
  std::vector<fs::path> entries = visibleEntries(folder);
  std::sort(entries.begin(), entries.end());
  for (const fs::path& entry : entries) {
    std::string name = entry.filename().string();
    if (!(endsWith(name, finishedSuffix) || endsWith(name, unfinishedSuffix)) || !isDirectory(entry)) continue;
    fs::path target = projectsDirectory_ / name;
    std::error_code error;
    if (fs::exists(fs::symlink_status(target, error))) continue;
    // Copied under a name no listing shows as a finished project, then moved into place in one
    // step, so an interrupted copy never looks like a project.
    fs::path staging = projectsDirectory_ / (name + ".tmp");
    removeAllOrThrow(staging);
    fs::copy(entry, staging, fs::copy_options::recursive, error);
    if (error) {
      fs::remove_all(staging, error);
      throw FileError(fmt::format("Could not copy {}: {}", entry.string(), error.message()));
    }
    renameOrThrow(staging, target);
    ++copied;
  }
  return copied;
}

}  // namespace vumo
