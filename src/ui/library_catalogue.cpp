#include "ui/library_catalogue.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <set>
#include <system_error>

#include "project/file_lock.h"
#include "project/folder_listing.h"
#include "project/package_files.h"
#include "project/project_library.h"
#include "project/project_store.h"
#include "ui/user_messages.h"

namespace vumo {

namespace fs = std::filesystem;
using package_files::endsWith;
using package_files::finishedSuffix;
using package_files::unfinishedSuffix;

namespace {

constexpr ErrorCase<LibraryError::Case> libraryCases[] = {
    {LibraryError::Case::notAProject, "notAProject", "library.error.notAProject",
     "{} is not a Vumo project that can be imported.", "validation", ErrorKind::validation},
    {LibraryError::Case::alreadyInLibrary, "alreadyInLibrary", "library.error.alreadyInLibrary",
     "The project {} is already in the library.", "validation", ErrorKind::validation},
    {LibraryError::Case::emptyTitle, "emptyTitle", "library.error.emptyTitle", "A project needs a title.", "validation",
     ErrorKind::validation},
};
static_assert(inCaseOrder(libraryCases));

std::string trimmed(const std::string& text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return {};
  const auto last = text.find_last_not_of(" \t\r\n");
  return text.substr(first, last - first + 1);
}

// A folder of its own, removed with everything in it on destruction.
class StagingFolder {
 public:
  StagingFolder() {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    fs::path base = (runtime != nullptr && runtime[0] == '/') ? fs::path(runtime) : fs::temp_directory_path();
    std::string pattern = (base / "vumo-import-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr)
      throw FileError(fmt::format("Could not create a folder in {}", base.string()));
    path_ = pattern;
  }
  ~StagingFolder() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  StagingFolder(const StagingFolder&) = delete;
  StagingFolder& operator=(const StagingFolder&) = delete;
  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

}  // namespace

const ErrorCatalogue<LibraryError::Case>& LibraryError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"LibraryError", "Library", libraryCases};
  return catalogue;
}

LibraryCatalogue::LibraryCatalogue(ProjectStore& store, FreedesktopTrash trash)
    : store_(store), trash_(std::move(trash)) {}

std::vector<LibraryEntry> LibraryCatalogue::recentProjects() const {
  std::vector<LibraryEntry> entries;
  for (const RecentProject& recent : store_.recentProjects()) {
    ProjectManifest manifest;
    try {
      manifest = store_.readManifest(ProjectPackage{recent.packagePath});
    } catch (const Error&) {
      continue;  // gone or changed since it was listed; the next listing tells
    }
    entries.push_back({manifest.id.string(), recent.sourceTitle, recent.duration, recent.updatedAt, recent});
  }
  return entries;
}

std::vector<DamagedPackage> LibraryCatalogue::damagedPackages(bool includeUnfinished) const {
  std::set<fs::path> shown;
  for (const RecentProject& recent : store_.recentProjects()) shown.insert(recent.packagePath.filename());
  std::vector<fs::path> entries = visibleEntries(store_.projectsDirectoryPath());
  std::sort(entries.begin(), entries.end());
  std::vector<DamagedPackage> damaged;
  for (const fs::path& entry : entries) {
    const std::string name = entry.filename().string();
    const bool finished = endsWith(name, finishedSuffix);
    const bool unfinished = endsWith(name, unfinishedSuffix);
    if ((!finished && !(unfinished && includeUnfinished)) || shown.contains(entry.filename())) continue;
    std::error_code error;
    if (!fs::is_directory(fs::symlink_status(entry, error))) continue;
    if (RecordingPackageLock::isHeld(entry)) continue;  // a recording still writes it
    const ProjectPackage package{entry};
    std::string reason;
    try {
      const ProjectManifest manifest = store_.readManifest(package);
      if (unfinished) {
        reason = "The recording was interrupted and could not be recovered.";
      } else if (!fs::exists(package.mediaPath(), error)) {
        reason = fmt::format("The recording's media file {} is missing.", manifest.media.relativePath);
      } else if (manifest.state == ProjectState::failed) {
        reason = manifest.failureReason ? fmt::format("The recording failed: {}", *manifest.failureReason)
                                        : std::string("The recording failed.");
      } else {
        reason = "The recording was not finished.";
      }
    } catch (const std::exception& failure) {
      reason = userMessageFor(failure);
    }
    damaged.push_back({entry, std::move(reason)});
  }
  return damaged;
}

void LibraryCatalogue::rename(const LibraryEntry& entry, const std::string& title) {
  const std::string cleaned = trimmed(title);
  if (cleaned.empty()) throw LibraryError(LibraryError::Case::emptyTitle);
  const ProjectPackage package{entry.recent.packagePath};
  ProjectManifest manifest = store_.readManifest(package);
  manifest.source.title = cleaned;
  store_.updateManifest(manifest, package);
}

fs::path LibraryCatalogue::moveToTrash(const LibraryEntry& entry) {
  const fs::path package = ProjectLibrary(store_.projectsDirectoryPath()).deletablePackage(entry.recent);
  return trash_.moveToTrash(fs::absolute(package));
}

void LibraryCatalogue::importPackage(const fs::path& droppedFolder) {
  const fs::path folder = droppedFolder.has_filename() ? droppedFolder : droppedFolder.parent_path();
  const std::string name = folder.filename().string();
  std::error_code error;
  if (!endsWith(name, finishedSuffix) || !fs::is_directory(fs::symlink_status(folder, error)))
    throw LibraryError(LibraryError::Case::notAProject, folder.string());
  try {
    (void)store_.readManifest(ProjectPackage{folder});
  } catch (const Error&) {
    throw LibraryError(LibraryError::Case::notAProject, folder.string());
  }
  if (fs::exists(fs::symlink_status(store_.projectsDirectoryPath() / name, error)))
    throw LibraryError(LibraryError::Case::alreadyInLibrary, name);
  // The store imports every package of a folder; a folder that holds just this one (as a link to
  // it) imports just this one, with all of the store's own checks.
  StagingFolder staging;
  fs::create_directory_symlink(fs::absolute(folder), staging.path() / name, error);
  if (error) throw FileError(fmt::format("Could not import {}: {}", folder.string(), error.message()));
  if (store_.importProjects(staging.path()) == 0) throw LibraryError(LibraryError::Case::alreadyInLibrary, name);
}

}  // namespace vumo
