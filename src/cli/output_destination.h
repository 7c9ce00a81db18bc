#pragma once

#include <filesystem>

namespace vumo {

// Where a command's output file (`--out`) goes. The parser passes on what was written; this is
// the policy that turns it into a place on disk and makes room there.

// $XDG_DATA_HOME/Vumo/Exports: where a bare `--out` file name lands.
std::filesystem::path defaultExportsDirectory();

// An absolute path stays as it is; a bare file name lands in the exports folder. Touches nothing.
// Anything else is CLIArgumentError::invalidValue("--out").
std::filesystem::path resolvedOutputPath(const std::filesystem::path& requested);

// Resolves `requested` and checks that it may be written: an existing file (or link) is refused
// unless `replace` (CLIOutputError::outputExists), and a missing parent folder is created only
// when it is the exports folder (CLIOutputError::parentMissing otherwise). Returns the path to
// write.
std::filesystem::path prepareOutputPath(const std::filesystem::path& requested, bool replace);

}  // namespace vumo
