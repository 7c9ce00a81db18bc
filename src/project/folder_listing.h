#pragma once

#include <filesystem>
#include <vector>

namespace vumo {

// The visible (not dot-prefixed) entries of a folder whose extension is `extension` (".json"),
// sorted by file name. A missing folder is empty; one that cannot be listed is a FileError.
// Atomic writes stage their bytes in hidden files, so a half-written document is never listed.
std::vector<std::filesystem::path> visibleFilesWithExtension(const std::filesystem::path& folder,
                                                             const char* extension);

// Every visible entry of a folder, unsorted; a missing or unlistable folder is empty, except when
// the system failed to list it (see isSystemFailure): that is a SystemFileError.
std::vector<std::filesystem::path> visibleEntries(const std::filesystem::path& folder);

}  // namespace vumo
