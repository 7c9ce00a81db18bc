#include "shared/resources.h"

#include <cstdlib>
#include <system_error>

namespace vumo {

std::optional<std::filesystem::path> ResourceLocator::directory() {
  std::error_code ec;
  std::filesystem::path executable = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (ec) executable.clear();
  return forExecutable(executable);
}

std::optional<std::filesystem::path> ResourceLocator::forExecutable(const std::filesystem::path& executable) {
  if (const char* configured = std::getenv("VUMO_RESOURCE_DIR"); configured != nullptr && *configured != '\0')
    return std::filesystem::path(configured);
  if (!executable.is_absolute()) return std::nullopt;
  std::error_code ec;
  for (std::filesystem::path folder = executable.parent_path();; folder = folder.parent_path()) {
    std::filesystem::path candidate = folder / "share" / "vumo";
    if (std::filesystem::is_directory(candidate, ec)) return candidate;
    if (folder == folder.root_path()) return std::nullopt;
  }
}

}  // namespace vumo
