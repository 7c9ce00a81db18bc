#pragma once

#include <string>
#include <vector>

#include "cli/cli_models.h"

namespace vumo {

// Turns the words after `cli` into one command. It checks syntax, bounds and the legal
// combinations of options only, so a malformed request fails before any project is touched; it
// touches no file. Throws CLIArgumentError. An `--out` path is passed on as written (absolute, or
// a bare file name); cli/output_destination.h decides where it goes.
struct CLIArgumentParser {
  static CLICommand parse(const std::vector<std::string>& arguments);
};

}  // namespace vumo
