#pragma once

// The user's home trash as file managers share it: a deleted project goes to
// $XDG_DATA_HOME/Trash/files with an `info/<name>.trashinfo` beside it that records where it came
// from and when, so a person can restore it from any file manager instead of losing it for good.

#include <chrono>
#include <filesystem>
#include <string>

namespace vumo {

class FreedesktopTrash {
 public:
  // $XDG_DATA_HOME/Trash (~/.local/share/Trash by default).
  static std::filesystem::path homeTrash();

  explicit FreedesktopTrash(std::filesystem::path trashFolder = homeTrash()) : folder_(std::move(trashFolder)) {}

  const std::filesystem::path& folder() const noexcept { return folder_; }

  // Moves `path` (a file or folder, absolute) into the trash and returns where it now lies. The
  // trashinfo file is made first and exclusively, which reserves the name: two programs trashing
  // at once never take the same one. A name already taken gets " 2", " 3"… before its
  // extension. A move across file systems copies and then removes. Throws FileError; on failure
  // the original stays where it was.
  std::filesystem::path moveToTrash(const std::filesystem::path& path,
                                    std::chrono::system_clock::time_point deletedAt = std::chrono::system_clock::now());

  // The trashinfo text: `Path` percent-encoded as a URL path, `DeletionDate` in local time
  // (YYYY-MM-DDThh:mm:ss).
  static std::string trashInfo(const std::filesystem::path& originalPath,
                               std::chrono::system_clock::time_point deletedAt);

 private:
  std::filesystem::path folder_;
};

}  // namespace vumo
