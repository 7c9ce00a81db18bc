#include "project/folder_listing.h"

#include <fmt/format.h>

#include <algorithm>
#include <system_error>

#include "shared/error.h"
#include "shared/files.h"

namespace vumo {

std::vector<std::filesystem::path> visibleFilesWithExtension(const std::filesystem::path& folder,
                                                             const char* extension) {
  std::vector<std::filesystem::path> files;
  std::error_code error;
  if (!std::filesystem::exists(folder, error)) return files;
  std::filesystem::directory_iterator it(folder, error);
  for (; !error && it != std::filesystem::directory_iterator(); it.increment(error)) {
    const auto& path = it->path();
    std::string name = path.filename().string();
    if (name.empty() || name[0] == '.' || path.extension() != extension) continue;
    files.push_back(path);
  }
  if (error) {
    std::string text = fmt::format("Could not list {}: {}", folder.string(), error.message());
    if (isSystemFailure(error.value())) throw SystemFileError(text);
    throw FileError(text);
  }
  std::sort(files.begin(), files.end(),
            [](const auto& a, const auto& b) { return a.filename().native() < b.filename().native(); });
  return files;
}

std::vector<std::filesystem::path> visibleEntries(const std::filesystem::path& folder) {
  std::vector<std::filesystem::path> entries;
  std::error_code error;
  std::filesystem::directory_iterator it(folder, error);
  for (; !error && it != std::filesystem::directory_iterator(); it.increment(error)) {
    std::string name = it->path().filename().string();
    if (!name.empty() && name[0] != '.') entries.push_back(it->path());
  }
  // A folder the system could not list (no descriptor left, a failing disk) is not an empty one:
  // taking it for one would report a library without projects.
  if (error && isSystemFailure(error.value()))
    throw SystemFileError(fmt::format("Could not list {}: {}", folder.string(), error.message()));
  return entries;
}

}  // namespace vumo
