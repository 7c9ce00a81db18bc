#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "cli/cli_models.h"
#include "shared/error.h"
#include "shared/json_fwd.h"

namespace vumo {

// Process exit statuses of the command line. 1 is never used; 130 (a cancelled command) lies
// outside the enumeration.
enum class CLIExitCode {
  success = 0,
  invalidArguments = 2,
  projectNotFound = 3,
  conflict = 4,
  validation = 5,
  failure = 6
};
constexpr int cancelledStatus = 130;

CLIExitCode exitCode(ErrorKind kind);

struct CLIClassification {
  std::string code;
  CLIExitCode exitCode = CLIExitCode::failure;
};

// The headless driver: one parsed command, one service call, one JSON answer on standard output
// or one error envelope on standard error, and a status. It never throws.
class VumoCLI {
 public:
  // Where the two streams go; tests capture them, the program writes each unbuffered. A failure to
  // write the answer (a full disk, a closed pipe) throws and the command fails with status 6, even
  // after a commit, whose error message then names the digest it left; standard error has no one
  // left to tell.
  struct Streams {
    std::function<void(std::string_view)> standardOutput;
    std::function<void(std::string_view)> standardError;
    static Streams process();
  };

  explicit VumoCLI(std::stop_token cancellation = {}, Streams streams = Streams::process());
  VumoCLI(const VumoCLI&) = delete;
  VumoCLI& operator=(const VumoCLI&) = delete;

  int run(const std::vector<std::string>& arguments);

  // Text that is not UTF-8 (a file name from the disk) is shown with U+FFFD in place of each bad
  // byte. Throws what the standard output stream throws: the process's own, a FileError when the
  // answer cannot be written whole.
  void writeJSON(const Json& value) const;
  void writeError(const std::string& code, const std::string& message,
                  const std::optional<CLIValidationDetails>& details) const;

  static CLIClassification classify(const std::exception& error);
  static std::optional<CLIValidationDetails> validationDetails(const std::exception& error);
  static std::string usageText();

  // The error path: writes the envelope for `error` and returns its status (130 for a cancelled
  // command).
  int report(const std::exception& error) const;

 private:
  Json execute(const CLICommand& command);

  std::stop_token cancellation_;
  Streams streams_;
};

}  // namespace vumo
