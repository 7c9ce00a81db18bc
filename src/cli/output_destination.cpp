#include "cli/output_destination.h"

#include <system_error>

#include "cli/cli_errors.h"
#include "shared/files.h"

namespace vumo {

namespace fs = std::filesystem;

fs::path defaultExportsDirectory() { return vumoSupportDirectory() / "Exports"; }

fs::path resolvedOutputPath(const fs::path& requested) {
  if (requested.is_absolute()) return requested;
  const std::string name = requested.native();
  if (name.empty() || name.find('/') != std::string::npos || name == "." || name == "..")
    throw CLIArgumentError::invalidValue("--out");
  return defaultExportsDirectory() / name;
}

fs::path prepareOutputPath(const fs::path& requested, bool replace) {
  fs::path path = resolvedOutputPath(requested);
  std::error_code ignored;
  if (fs::exists(fs::symlink_status(path, ignored)) && !replace) throw CLIOutputError::outputExists(path.string());
  fs::path parent = path.parent_path();
  if (fs::exists(parent, ignored)) return path;
  fs::path exports = defaultExportsDirectory();
  if (parent.lexically_normal() != exports.lexically_normal()) throw CLIOutputError::parentMissing(parent.string());
  createDirectories(exports);
  return path;
}

}  // namespace vumo
