#pragma once

#include <filesystem>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "cli/vumo_cli.h"
#include "shared/error.h"

namespace vumo {

// A briefing that cannot be written for this recording.
class CLIPromptError : public Error {
 public:
  enum class Case { noCaptionAudio, capabilityUnavailable };

  static CLIPromptError noCaptionAudio() { return {Case::noCaptionAudio, {}}; }
  // The payload is the capability's word.
  static CLIPromptError capabilityUnavailable(std::string_view capability) {
    return {Case::capabilityUnavailable, capability};
  }
  Case kind() const noexcept { return kind_; }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  CLIPromptError(Case kind, std::string_view payload) : Error(catalogue(), kind, payload), kind_(kind) {}
  Case kind_;
};

// `vumo prompt`: the briefing the editor would copy for a local agent, for a user without the
// desktop shell. One JSON answer on standard output (or, with --text, the briefing itself), the
// command line's error envelope and statuses otherwise.
//
//   vumo prompt <id-prefix> [--preset NAME] [--capabilities a,b,...] [--instructions TEXT] ...
//   vumo prompt <id-prefix> --captions
class PromptCommand {
 public:
  // `executable` is the program the briefing's commands start; main passes the running one.
  PromptCommand(std::stop_token cancellation, VumoCLI::Streams streams, std::filesystem::path executable);

  int run(const std::vector<std::string>& arguments);

  static std::string usageText();

 private:
  std::stop_token cancellation_;
  VumoCLI::Streams streams_;
  std::filesystem::path executable_;
};

}  // namespace vumo
