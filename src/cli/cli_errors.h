#pragma once

#include <string>

#include "shared/error.h"

namespace vumo {

// A command line that did not parse. The command line's own messages are fixed Chinese texts.
class CLIArgumentError : public Error {
 public:
  enum class Case { unknownCommand, missingValue, invalidValue, unexpectedArgument, missingCommand };

  static CLIArgumentError unknownCommand(const std::string& word) { return {Case::unknownCommand, "未知命令：" + word}; }
  static CLIArgumentError missingValue(const std::string& name) { return {Case::missingValue, "缺少参数：" + name}; }
  static CLIArgumentError invalidValue(const std::string& name) { return {Case::invalidValue, "参数无效：" + name}; }
  static CLIArgumentError unexpectedArgument(const std::string& word) {
    return {Case::unexpectedArgument, "无法识别参数：" + word};
  }
  static CLIArgumentError missingCommand() { return {Case::missingCommand, "缺少命令。"}; }

  Case kind() const { return kind_; }
  ErrorClassification classification() const override { return {"invalid_arguments", ErrorKind::invalidArguments}; }

 private:
  CLIArgumentError(Case kind, const std::string& message) : Error("cli.error.arguments", "CLI", message), kind_(kind) {}
  Case kind_;
};

// The `--out` path of `frame` cannot be written. Reported as "execution", like any file failure.
class CLIOutputError : public Error {
 public:
  enum class Case { outputExists, parentMissing };

  static CLIOutputError outputExists(const std::string& path) {
    return {Case::outputExists, "输出已存在，使用--replace才能覆盖：" + path};
  }
  static CLIOutputError parentMissing(const std::string& path) {
    return {Case::parentMissing, "输出目录不存在：" + path};
  }
  Case kind() const { return kind_; }

 private:
  CLIOutputError(Case kind, const std::string& message) : Error("cli.error.output", "CLI", message), kind_(kind) {}
  Case kind_;
};

// A command whose service this build does not have. It parses fully and then ends here, so an
// agent gets a clear "execution" answer instead of a made-up result.
class CLIUnavailableError : public Error {
 public:
  explicit CLIUnavailableError(const std::string& capability)
      : Error("cli.error.unavailable", "CLI", capability + " is not available in this build of Vumo.") {}
};

}  // namespace vumo
