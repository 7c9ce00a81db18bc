#pragma once

// The library as the desktop shows it: the finished projects of the store with what a person
// reads in a list (title, duration, date), the packages the store leaves out because they cannot
// be shown, with the reason, and the few changes a person makes from the list. Every check and
// every write goes through ProjectStore; this only words and arranges. Qt-free.

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "project/project_snapshot.h"
#include "shared/date.h"
#include "shared/error.h"
#include "shared/project_time.h"
#include "ui/library_trash.h"

namespace vumo {

class ProjectStore;

// What a person can do wrong from the library.
class LibraryError : public Error {
 public:
  enum class Case { notAProject, alreadyInLibrary, emptyTitle };
  explicit LibraryError(Case kind, std::string_view detail = {}) : Error(catalogue(), kind, detail), kind_(kind) {}
  Case kind() const noexcept { return kind_; }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  Case kind_;
};

struct LibraryEntry {
  std::string projectID;
  std::string title;  // the source's title as the manifest holds it; may be empty
  ProjectTime duration;
  Timestamp updatedAt;
  RecentProject recent;  // what the store listed, for its own checks
};

// A package in the projects folder that the list leaves out, and why.
struct DamagedPackage {
  std::filesystem::path packagePath;
  std::string error;  // worded for a person
};

class LibraryCatalogue {
 public:
  // Borrows the store (main thread only, like the store itself).
  explicit LibraryCatalogue(ProjectStore& store, FreedesktopTrash trash = FreedesktopTrash());

  // The store's recentProjects(), newest first.
  std::vector<LibraryEntry> recentProjects() const;

  // `.vumo` packages that recentProjects() leaves out (no media, a manifest that cannot be read,
  // a recording that failed) and `.vumo.tmp` packages that recovery could not complete, each with
  // its reason, by path. A package whose recording is live is not damaged and is not listed.
  // Without `includeUnfinished` the `.vumo.tmp` packages are left out: until start-up recovery
  // has run, they may still be recovered.
  std::vector<DamagedPackage> damagedPackages(bool includeUnfinished = true) const;

  // Writes the title into the manifest; a title of white space only is LibraryError::emptyTitle.
  void rename(const LibraryEntry& entry, const std::string& title);

  // The store's checks of deleteProject, then the package moves to the trash rather than being
  // removed for good. Returns where it now lies.
  std::filesystem::path moveToTrash(const LibraryEntry& entry);

  // A `.vumo` folder dropped on the window: copied in through the store's import. Not a readable
  // project package is LibraryError::notAProject, a package the library holds already
  // LibraryError::alreadyInLibrary.
  void importPackage(const std::filesystem::path& droppedFolder);

 private:
  ProjectStore& store_;
  FreedesktopTrash trash_;
};

}  // namespace vumo
