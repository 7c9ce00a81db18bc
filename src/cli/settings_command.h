#pragma once

#include <functional>
#include <stop_token>
#include <string>
#include <vector>

#include "cli/vumo_cli.h"

namespace vumo {

// `vumo settings`: the settings a user without the desktop shell needs, for scripts. One JSON
// answer on standard output, the command line's error envelope and statuses otherwise.
//
//   vumo settings bailian-key            reads the key from standard input and saves it
//   vumo settings bailian-key --remove   deletes the saved key
//
// The key is never taken from the command line, where every user of the machine can read it in
// the process list, and never printed.
class SettingsCommand {
 public:
  // Reads standard input up to its end or the first line break, at most `limit` bytes (more is an
  // error); ends with CancelledError when `cancellation` is requested while waiting.
  using InputReader = std::function<std::string(std::size_t limit, std::stop_token cancellation)>;

  SettingsCommand(std::stop_token cancellation, VumoCLI::Streams streams, InputReader input);

  int run(const std::vector<std::string>& arguments);

  static std::string usageText();
  // The process's standard input; on a terminal the typed key is not echoed.
  static std::string readStandardInput(std::size_t limit, std::stop_token cancellation);

 private:
  std::stop_token cancellation_;
  VumoCLI::Streams streams_;
  InputReader input_;
};

}  // namespace vumo
