#include "cli/settings_command.h"

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "cli/cli_errors.h"
#include "shared/cancellation.h"
#include "shared/error.h"
#include "shared/json.h"
#include "transcription/cloud_credential_store.h"

namespace vumo {

namespace {

// A pasted key is one line; anything near this size is not a key at all.
constexpr std::size_t keyInputLimit = 4'096;

// Echo off while a person types the key, restored on every way out.
class HiddenTerminalInput {
 public:
  explicit HiddenTerminalInput(int fd) : fd_(fd) {
    if (!::isatty(fd) || ::tcgetattr(fd, &saved_) != 0) return;
    termios quiet = saved_;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    active_ = ::tcsetattr(fd, TCSAFLUSH, &quiet) == 0;
  }
  ~HiddenTerminalInput() {
    if (active_) ::tcsetattr(fd_, TCSAFLUSH, &saved_);
  }
  HiddenTerminalInput(const HiddenTerminalInput&) = delete;
  HiddenTerminalInput& operator=(const HiddenTerminalInput&) = delete;

 private:
  int fd_;
  termios saved_{};
  bool active_ = false;
};

}  // namespace

SettingsCommand::SettingsCommand(std::stop_token cancellation, VumoCLI::Streams streams, InputReader input)
    : cancellation_(std::move(cancellation)), streams_(std::move(streams)), input_(std::move(input)) {}

std::string SettingsCommand::usageText() {
  return "usage: vumo settings bailian-key [--remove]\n"
         "\n"
         "  bailian-key           read an Alibaba Cloud Bailian API key from standard input (one line)\n"
         "                        and save it for captions-generate, readable by this user only\n"
         "  bailian-key --remove  delete the saved key\n"
         "  --help                this text\n"
         "\n"
         "The key is never taken from the command line. When DASHSCOPE_API_KEY is set and not empty\n"
         "it is used instead of the saved key.";
}

std::string SettingsCommand::readStandardInput(std::size_t limit, std::stop_token cancellation) {
  // A person at a terminal is asked; a script that pipes the key in is not.
  const bool typed = ::isatty(STDIN_FILENO) == 1;
  if (typed) {
    constexpr std::string_view prompt = "Alibaba Cloud Bailian API key (not shown): ";
    (void)!::write(STDERR_FILENO, prompt.data(), prompt.size());
  }
  struct EndOfPrompt {
    bool typed;
    ~EndOfPrompt() {
      if (typed) (void)!::write(STDERR_FILENO, "\n", 1);
    }
  } endOfPrompt{typed};
  HiddenTerminalInput hidden(STDIN_FILENO);
  std::string bytes;
  char buffer[512];
  for (;;) {
    throwIfCancelled(cancellation);
    // Short waits, so that Ctrl-C (seen by the signal watcher, not by this read) ends it at once.
    pollfd ready{STDIN_FILENO, POLLIN, 0};
    int polled = ::poll(&ready, 1, 50);
    if (polled < 0) {
      if (errno == EINTR) continue;
      throw FileError(std::string("Could not read standard input: ") + std::strerror(errno));
    }
    if (polled == 0) continue;
    ssize_t n = ::read(STDIN_FILENO, buffer, sizeof buffer);
    if (n < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      throw FileError(std::string("Could not read standard input: ") + std::strerror(errno));
    }
    if (n == 0) return bytes;
    bytes.append(buffer, static_cast<std::size_t>(n));
    if (auto line = bytes.find('\n'); line != std::string::npos) return bytes.substr(0, line);
    if (bytes.size() > limit) throw CLIArgumentError::invalidValue("standard input (one line with the key)");
  }
}

int SettingsCommand::run(const std::vector<std::string>& arguments) {
  VumoCLI reporter(cancellation_, streams_);
  try {
    if (arguments.empty() || arguments.front() == "--help" || arguments.front() == "-h" ||
        arguments.front() == "help") {
      if (arguments.empty()) throw CLIArgumentError::missingCommand();
      streams_.standardOutput(usageText() + "\n");
      return 0;
    }
    if (arguments.front() != "bailian-key") throw CLIArgumentError::unknownCommand(arguments.front());
    bool removes = false;
    for (std::size_t i = 1; i < arguments.size(); ++i) {
      if (arguments[i] == "--remove" && !removes) {
        removes = true;
      } else if (arguments[i] == "--help" || arguments[i] == "-h") {
        streams_.standardOutput(usageText() + "\n");
        return 0;
      } else {
        // Not echoed: a stray word here is most likely the key itself.
        throw CLIArgumentError::invalidValue("bailian-key只从标准输入读取密钥，只接受--remove");
      }
    }

    CloudCredentialStore store;
    Json answer = {{"protocolVersion", 1}, {"setting", "bailian-key"}, {"path", store.filePath().string()}};
    if (removes) {
      store.deleteBailianAPIKey();
      answer["action"] = "removed";
    } else {
      std::string key = input_(keyInputLimit, cancellation_);
      store.saveBailianAPIKey(key);
      answer["action"] = "saved";
    }
    const bool overridden = CloudCredentialStore::environmentKeyOverrides();
    answer["environmentOverrides"] = overridden;
    if (overridden)
      answer["note"] = "DASHSCOPE_API_KEY is set in the environment; it is used instead of the saved key.";
    reporter.writeJSON(answer);
    return 0;
  } catch (const std::exception& error) {
    return reporter.report(error);
  }
}

}  // namespace vumo
