#pragma once

#include <functional>
#include <memory>
#include <stop_token>
#include <string>
#include <vector>

#include "cli/vumo_cli.h"
#include "media/media_module.h"

namespace vumo {

// `vumo export`: a project rendered into a film for a user without the desktop shell. Progress on
// standard error (a bar on a terminal, otherwise one line a second), one JSON answer on standard
// output at the end, the command line's error envelope and statuses otherwise.
//
//   vumo export <id-prefix> [--out FILE] [--preset P] [--resolution R] [--fps F] [--quality Q]
//               [--codec C] [--replace]
class ExportCommand {
 public:
  // Makes the exporter when the command gets that far; main passes the engine's, tests may pass
  // their own.
  using ExporterFactory = std::function<std::shared_ptr<ProjectExporting>()>;

  ExportCommand(std::stop_token cancellation, VumoCLI::Streams streams, bool progressOnTerminal,
                ExporterFactory makeExporter = {});

  int run(const std::vector<std::string>& arguments);

  static std::string usageText();

 private:
  std::stop_token cancellation_;
  VumoCLI::Streams streams_;
  bool progressOnTerminal_;
  ExporterFactory makeExporter_;
};

}  // namespace vumo
