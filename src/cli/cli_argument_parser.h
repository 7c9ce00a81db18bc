#pragma once

#include <string>
#include <vector>

#include "cli/cli_models.h"

namespace vumo {

// Turns the words after `cli` into one command. It checks syntax, bounds and the legal
// combinations of options only, so a malformed request fails before any project is touched.
// Throws CLIArgumentError; the one file-system step (locating the exports folder for a bare
// `--out` name) can throw FileError.
struct CLIArgumentParser {
  static CLICommand parse(const std::vector<std::string>& arguments);
};

// user application support / Vumo / Exports: where a bare `--out` file name lands.
std::filesystem::path defaultExportsDirectory();

}  // namespace vumo
