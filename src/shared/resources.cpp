#include "shared/resources.h"

#include <cstdlib>
#include <system_error>

namespace vumo {

namespace {

std::filesystem::path runningExecutable() {
  std::error_code ec;
  std::filesystem::path executable = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (ec) executable.clear();
  return executable;
}

// The environment `variable` when set and not empty; else the first `<folder>/<relative>` that is a directory, for
// the executable's folder and each folder above it.
std::optional<std::filesystem::path> besideExecutable(const std::filesystem::path& executable, const char* variable,
                                                      const std::filesystem::path& relative) {
  if (const char* configured = std::getenv(variable); configured != nullptr && *configured != '\0')
    return std::filesystem::path(configured);
  if (!executable.is_absolute()) return std::nullopt;
  std::error_code ec;
  for (std::filesystem::path folder = executable.parent_path();; folder = folder.parent_path()) {
    std::filesystem::path candidate = folder / relative;
    if (std::filesystem::is_directory(candidate, ec)) return candidate;
    if (folder == folder.root_path()) return std::nullopt;
  }
}

}  // namespace

std::optional<std::filesystem::path> ResourceLocator::directory() { return forExecutable(runningExecutable()); }

std::optional<std::filesystem::path> ResourceLocator::forExecutable(const std::filesystem::path& executable) {
  return besideExecutable(executable, "VUMO_RESOURCE_DIR", std::filesystem::path("share") / "vumo");
}

std::optional<std::filesystem::path> ResourceLocator::moduleDirectory() {
  return modulesForExecutable(runningExecutable());
}

std::optional<std::filesystem::path> ResourceLocator::modulesForExecutable(const std::filesystem::path& executable) {
  return besideExecutable(executable, "VUMO_MODULE_DIR", std::filesystem::path("lib") / "vumo");
}

}  // namespace vumo
