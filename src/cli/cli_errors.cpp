#include "cli/cli_errors.h"

namespace vumo {

namespace {

using Argument = CLIArgumentError::Case;
using Output = CLIOutputError::Case;

constexpr ErrorCase<Argument> argumentCases[] = {
    {Argument::unknownCommand, "unknownCommand", "cli.error.arguments", "未知命令：{}", "invalid_arguments",
     ErrorKind::invalidArguments},
    {Argument::missingValue, "missingValue", "cli.error.arguments", "缺少参数：{}", "invalid_arguments",
     ErrorKind::invalidArguments},
    {Argument::invalidValue, "invalidValue", "cli.error.arguments", "参数无效：{}", "invalid_arguments",
     ErrorKind::invalidArguments},
    {Argument::unexpectedArgument, "unexpectedArgument", "cli.error.arguments", "无法识别参数：{}", "invalid_arguments",
     ErrorKind::invalidArguments},
    {Argument::missingCommand, "missingCommand", "cli.error.arguments", "缺少命令。", "invalid_arguments",
     ErrorKind::invalidArguments},
};
static_assert(inCaseOrder(argumentCases));

constexpr ErrorCase<Output> outputCases[] = {
    {Output::outputExists, "outputExists", "cli.error.output", "输出已存在，使用--replace才能覆盖：{}", "execution",
     ErrorKind::failure},
    {Output::parentMissing, "parentMissing", "cli.error.output", "输出目录不存在：{}", "execution", ErrorKind::failure},
};
static_assert(inCaseOrder(outputCases));

constexpr ErrorCase<CLIIdleError::Case> idleCases[] = {
    {CLIIdleError::Case::audioTrackUnavailable, "audioTrackUnavailable", "cli.error.idleTrack",
     "项目不包含所选静默分析音轨：{}", "validation", ErrorKind::validation},
    {CLIIdleError::Case::noAudioTrack, "noAudioTrack", "cli.error.idleNoAudio",
     "项目没有可用于静默分析的麦克风或系统声音轨。", "validation", ErrorKind::validation},
};
static_assert(inCaseOrder(idleCases));

constexpr ErrorCase<MediaModuleError::Case> moduleCases[] = {
    {MediaModuleError::Case::unavailable, "unavailable", "media.module.unavailable",
     "The media component of Vumo could not be loaded: {}", "execution", ErrorKind::failure},
};
static_assert(inCaseOrder(moduleCases));

constexpr ErrorCase<CLIUnavailableError::Case> unavailableCases[] = {
    {CLIUnavailableError::Case::unavailable, "unavailable", "cli.error.unavailable",
     "{} is not available in this build of Vumo.", "execution", ErrorKind::failure},
};
static_assert(inCaseOrder(unavailableCases));

}  // namespace

const ErrorCatalogue<Argument>& CLIArgumentError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"CLIArgumentError", "CLI", argumentCases};
  return catalogue;
}

const ErrorCatalogue<Output>& CLIOutputError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"CLIOutputError", "CLI", outputCases};
  return catalogue;
}

const ErrorCatalogue<CLIIdleError::Case>& CLIIdleError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"CLIIdleError", "CLI", idleCases};
  return catalogue;
}

const ErrorCatalogue<MediaModuleError::Case>& MediaModuleError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"MediaModuleError", "Media", moduleCases};
  return catalogue;
}

const ErrorCatalogue<CLIUnavailableError::Case>& CLIUnavailableError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"CLIUnavailableError", "CLI", unavailableCases};
  return catalogue;
}

}  // namespace vumo
