#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vumo::testing {

// A fresh folder under the system temporary folder, removed with everything in it on destruction.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// Sets (or, given none, removes) one environment variable for the lifetime of the object.
class ScopedEnvironmentVariable {
 public:
  ScopedEnvironmentVariable(std::string name, const std::optional<std::string>& value);
  ~ScopedEnvironmentVariable();
  ScopedEnvironmentVariable(const ScopedEnvironmentVariable&) = delete;
  ScopedEnvironmentVariable& operator=(const ScopedEnvironmentVariable&) = delete;

 private:
  std::string name_;
  std::optional<std::string> previous_;
};

// Points XDG_DATA_HOME at a temporary folder for the lifetime of the object, so nothing a test
// does reaches the real home folder.
class ScopedDataHome {
 public:
  ScopedDataHome() : variable_("XDG_DATA_HOME", folder_.path().string()) {}
  const std::filesystem::path& path() const { return folder_.path(); }

 private:
  TemporaryDirectory folder_;
  ScopedEnvironmentVariable variable_;
};

struct ProcessResult {
  int status = -1;        // exit status, or 128 + signal
  bool timedOut = false;  // killed after ProcessLaunch::timeout
  std::string standardOutput;
  std::string standardError;
};

// One program run: the one way tests start processes. Standard input is `standardInput` (empty by
// default) followed by its end; a run that outlives its timeout is killed, so a hang fails the test
// instead of hanging the suite.
struct ProcessLaunch {
  std::vector<std::string> words;  // words[0] is the program's path
  // Added to this process's environment; a variable given none is removed.
  std::map<std::string, std::optional<std::string>> environment;
  std::filesystem::path workingDirectory;  // by default the test's own
  std::string standardInput;
  // Where standard output goes: a pipe that is read, an existing file, or a pipe whose reader has
  // gone before the first byte is written.
  enum class Output { pipe, file, closedPipe } output = Output::pipe;
  std::filesystem::path outputFile;  // with Output::file
  std::chrono::milliseconds timeout = std::chrono::seconds(60);
  std::function<void(int pid)> whileRunning;  // called once the process has started
};

ProcessResult run(const ProcessLaunch& launch);

// This process's environment as `NAME=value` entries with `changes` applied (a variable given none
// is removed), for a program about to be started.
std::vector<std::string> environmentWith(const std::map<std::string, std::optional<std::string>>& changes);

// Runs a program with the given arguments and extra environment in the given working folder.
ProcessResult runProgram(const std::filesystem::path& program, const std::vector<std::string>& arguments,
                         const std::map<std::string, std::optional<std::string>>& environment = {},
                         const std::filesystem::path& workingDirectory = {});

// Runs the built `vumo` executable (path from $VUMO_BINARY) as `runProgram` does.
ProcessResult runVumo(const std::vector<std::string>& arguments,
                      const std::map<std::string, std::string>& environment = {});

std::filesystem::path vumoBinary();

// The case of the `ErrorType` that `statement` throws, or none when it throws nothing. Any other
// exception goes through, so the test fails naming it.
template <class ErrorType, class Statement>
auto thrownCase(Statement&& statement) -> std::optional<decltype(std::declval<const ErrorType&>().kind())> {
  try {
    std::forward<Statement>(statement)();
  } catch (const ErrorType& error) {
    return error.kind();
  }
  return std::nullopt;
}

// Peak signal-to-noise ratio in dB of two RGBA8 pictures of the same size over their colour
// channels (alpha left out); 99 for identical pictures.
double colourPSNR(const std::vector<std::uint8_t>& a, const std::vector<std::uint8_t>& b);

}  // namespace vumo::testing

// Expects `statement` to throw an `ErrorType` of case `expectedCase`:
//   EXPECT_ERROR_CASE(engine.split(t, at), TimelineEditError, TimelineEditError::Case::outsideClip);
#define EXPECT_ERROR_CASE(statement, ErrorType, expectedCase)                                                \
  EXPECT_EQ(::vumo::testing::thrownCase<ErrorType>([&] { (void)(statement); }), std::optional(expectedCase)) \
      << "from: " #statement
