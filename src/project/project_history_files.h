#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

#include "shared/uuid.h"

namespace vumo {

// File names and retention of the history folders of a package. Names sort by time, so the
// folder listing in name order is the commit order; the UUID keeps two commits within one
// millisecond apart.
struct ProjectHistoryFiles {
  static constexpr std::size_t retainedCount = 20;

  // "2026-01-02T03-04-05.678Z-<UUID>.json": UTC with milliseconds, ':' replaced by '-'.
  static std::string timelineFileName(std::chrono::system_clock::time_point now, const Uuid& id);
  // "<seconds since 1970 as the shortest text of a double>-<UUID>.json".
  static std::string captionFileName(std::chrono::system_clock::time_point now, const Uuid& id);

  // The visible `.json` files of a folder sorted by name, ascending. A missing folder is empty; a
  // folder that cannot be listed is a FileError.
  static std::vector<std::filesystem::path> list(const std::filesystem::path& folder);

  // Deletes the oldest files (by name) until `keep` remain. The first failure stops and throws.
  static void trim(const std::filesystem::path& folder, std::size_t keep = retainedCount);
};

}  // namespace vumo
