#include "project/stale_temporaries.h"

#include <string>
#include <system_error>

#include "shared/files.h"

namespace vumo {

namespace fs = std::filesystem;

std::size_t removeStaleTemporaries(const fs::path& folder, const std::function<bool(std::string_view)>& owns,
                                   std::chrono::seconds minimumAge) {
  std::size_t removed = 0;
  std::error_code error;
  fs::directory_iterator it(folder, error);
  const auto now = fs::file_time_type::clock::now();
  for (; !error && it != fs::directory_iterator(); it.increment(error)) {
    std::string name = it->path().filename().string();
    auto target = atomicWriteTarget(name);
    if (!target || !owns(*target)) continue;
    std::error_code ignored;
    if (!it->is_regular_file(ignored) || it->is_symlink(ignored)) continue;
    auto modified = fs::last_write_time(it->path(), ignored);
    if (ignored || now - modified < minimumAge) continue;
    if (fs::remove(it->path(), ignored)) ++removed;
  }
  return removed;
}

}  // namespace vumo
