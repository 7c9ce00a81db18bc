#include "cli/vumo_cli.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "agent/timeline_plan_engine.h"
#include "cli/agent_help_catalog.h"
#include "cli/cli_argument_parser.h"
#include "cli/cli_errors.h"
#include "cli/output_destination.h"
#include "cli/project_command_service.h"
#include "cli/system_capabilities.h"
#include "project/project_store.h"
#include "shared/files.h"
#include "shared/json.h"

namespace vumo {

namespace {

// Writes everything or returns the errno that stopped it. A descriptor left non-blocking by
// whoever gave it to us is waited on rather than given up on.
int writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) {
        pollfd ready{fd, POLLOUT, 0};
        if (::poll(&ready, 1, -1) >= 0 || errno == EINTR) continue;
      }
      return errno;
    }
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return 0;
}

// Strict UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool isUTF8(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size()) {
    auto byte = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
    unsigned char lead = byte(i);
    std::size_t length;
    std::uint32_t point;
    if (lead < 0x80) {
      ++i;
      continue;
    } else if (lead >= 0xC2 && lead <= 0xDF) {
      length = 2, point = lead & 0x1Fu;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      length = 3, point = lead & 0x0Fu;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      length = 4, point = lead & 0x07u;
    } else {
      return false;
    }
    if (i + length > text.size()) return false;
    for (std::size_t k = 1; k < length; ++k) {
      if ((byte(i + k) & 0xC0u) != 0x80u) return false;
      point = (point << 6) | (byte(i + k) & 0x3Fu);
    }
    constexpr std::uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (point < smallest[length] || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) return false;
    i += length;
  }
  return true;
}

// The digest a command's answer reports for a commit it made, if it made one.
std::optional<std::string> committedDigest(const Json& answer) {
  if (!answer.is_object()) return std::nullopt;
  auto applied = answer.find("applied");
  auto digest = answer.find("resultingDigest");
  if (applied == answer.end() || !applied->is_boolean() || !applied->get<bool>()) return std::nullopt;
  if (digest == answer.end() || !digest->is_string()) return std::nullopt;
  return digest->get<std::string>();
}

}  // namespace

CLIExitCode exitCode(ErrorKind kind) {
  switch (kind) {
    case ErrorKind::invalidArguments: return CLIExitCode::invalidArguments;
    case ErrorKind::projectNotFound: return CLIExitCode::projectNotFound;
    case ErrorKind::conflict: return CLIExitCode::conflict;
    case ErrorKind::validation: return CLIExitCode::validation;
    case ErrorKind::failure: return CLIExitCode::failure;
  }
  return CLIExitCode::failure;
}

VumoCLI::Streams VumoCLI::Streams::process() {
  return {[](std::string_view bytes) {
            // An agent that reads the answer from a full disk or a closed pipe must not take the
            // status for success.
            if (int error = writeAll(STDOUT_FILENO, bytes))
              throw FileError(std::string("Could not write the answer to standard output: ") + std::strerror(error));
          },
          // Nothing is left to tell about a failure to write the error itself; the status stands.
          [](std::string_view bytes) { (void)writeAll(STDERR_FILENO, bytes); }};
}

VumoCLI::VumoCLI(std::stop_token cancellation, Streams streams)
    : cancellation_(std::move(cancellation)), streams_(std::move(streams)) {}

int VumoCLI::run(const std::vector<std::string>& arguments) {
  std::optional<std::string> landedDigest;
  try {
    for (std::size_t i = 0; i < arguments.size(); ++i) {
      // Every word may end up in an answer or an error message, which are UTF-8 JSON.
      if (!isUTF8(arguments[i])) throw CLIArgumentError::invalidValue(fmt::format("第{}个参数不是UTF-8文本", i + 1));
    }
    CLICommand command = CLIArgumentParser::parse(arguments);
    if (const auto* help = std::get_if<CLICommand::Help>(&command.value)) {
      std::string text = help->topic ? AgentHelpCatalog::text(*help->topic) : usageText();
      streams_.standardOutput(text + "\n");
      return 0;
    }
    Json answer = execute(command);
    landedDigest = committedDigest(answer);
    writeJSON(answer);
    return 0;
  } catch (const std::exception& error) {
    if (!landedDigest) return report(error);
    // The commit is on disk whatever became of its answer; a caller that retries it would only
    // meet a conflict, so the one channel left says what happened.
    writeError("execution",
               fmt::format("The commit was applied (resulting digest {}), but its answer was lost: {}", *landedDigest,
                           error.what()),
               std::nullopt);
    return static_cast<int>(CLIExitCode::failure);
  }
}

Json VumoCLI::execute(const CLICommand& command) {
  // Every command but help gets the store, so the projects folder exists after any command.
  ProjectStore store(std::nullopt, cancellation_);
  ProjectCommandService service(store, cancellation_);
  return std::visit(
      [&](const auto& request) -> Json {
        using T = std::decay_t<decltype(request)>;
        if constexpr (std::is_same_v<T, CLICommand::SystemInfo>) {
          return SystemCapabilityInspector::inspect();
        } else if constexpr (std::is_same_v<T, CLICommand::List>) {
          return service.list();
        } else if constexpr (std::is_same_v<T, CLICommand::Describe>) {
          return service.describe(request.projectID);
        } else if constexpr (std::is_same_v<T, CLICommand::History>) {
          return service.history(request.projectID);
        } else if constexpr (std::is_same_v<T, CLICommand::CaptionsRead>) {
          return service.readCaptions(request.projectID);
        } else if constexpr (std::is_same_v<T, CLICommand::Mutate>) {
          return service.mutate(request.request);
        } else if constexpr (std::is_same_v<T, CLICommand::EditPlanPrepare>) {
          return service.prepareEditPlan(request.projectID);
        } else if constexpr (std::is_same_v<T, CLICommand::EditPlan>) {
          return service.executeEditPlan(request.request);
        } else if constexpr (std::is_same_v<T, CLICommand::Frame>) {
          return service.frame(request);
        } else if constexpr (std::is_same_v<T, CLICommand::Idle>) {
          return service.idle(request);
        } else if constexpr (std::is_same_v<T, CLICommand::CaptionsPrepare>) {
          return service.prepareCaptions(request.projectID, request.track);
        } else if constexpr (std::is_same_v<T, CLICommand::CaptionsGenerate>) {
          return service.generateBailianCaptions(request.projectID, request.track);
        } else if constexpr (std::is_same_v<T, CLICommand::CaptionsImport>) {
          return service.importCaptions(request.request);
        } else {
          static_assert(std::is_same_v<T, CLICommand::Help>, "every command needs a dispatch");
          throw CLIUnavailableError("Help");  // answered before any store exists
        }
      },
      command.value);
}

int VumoCLI::report(const std::exception& error) const {
  if (dynamic_cast<const CancelledError*>(&error) != nullptr) {
    writeError("cancelled", "命令已取消。", std::nullopt);
    return cancelledStatus;
  }
  CLIClassification classification = classify(error);
  writeError(classification.code, error.what(), validationDetails(error));
  return static_cast<int>(classification.exitCode);
}

void VumoCLI::writeJSON(const Json& value) const { streams_.standardOutput(encodeForDisplay(value) + "\n"); }

void VumoCLI::writeError(const std::string& code, const std::string& message,
                         const std::optional<CLIValidationDetails>& details) const {
  std::string encoded;
  try {
    encoded = escapeSlashes(encodeForDisplay(CLIErrorResponse{1, code, message, details}));
  } catch (const std::exception&) {
    return;  // an envelope that cannot be encoded is not printed; the status stands
  }
  streams_.standardError(encoded + "\n");
}

CLIClassification VumoCLI::classify(const std::exception& error) {
  if (const auto* known = dynamic_cast<const Error*>(&error)) {
    ErrorClassification c = known->classification();
    return {c.code, exitCode(c.kind)};
  }
  return {"execution", CLIExitCode::failure};
}

std::optional<CLIValidationDetails> VumoCLI::validationDetails(const std::exception& error) {
  const auto* plan = dynamic_cast<const TimelinePlanError*>(&error);
  if (plan == nullptr || plan->kind() != TimelinePlanError::Case::zoomOutsideRetainedContent) return std::nullopt;
  CLIValidationDetails details;
  details.requestedRange = CLIRange::from(plan->range());
  if (plan->zoomID()) details.zoomID = plan->zoomID()->string();
  for (const auto& cut : plan->normalizedCuts()) details.normalizedCuts.push_back(CLIRange::from(cut));
  return details;
}

std::string VumoCLI::usageText() {
  return "Vumo Headless Agent剪辑命令。除帮助外统一输出JSON；修改命令默认只预演。\n"
         "\n"
         "Agent使用说明：\n"
         "  help workflow|edit-plan|captions|settings|output\n"
         "\n"
         "读：\n"
         "  system-info\n"
         "  list\n"
         "  describe <id-prefix>\n"
         "  idle <id-prefix> [--track microphone|system-audio] [--min-ms 1500] [--silence-db -42]\n"
         "       [--keep-tail-ms 500] [--min-removal-ms 150]\n"
         "  history <id-prefix>\n"
         "  captions-read <id-prefix>\n"
         "  captions-prepare <id-prefix> [--track microphone|system-audio]\n"
         "  captions-generate <id-prefix> [--track auto|microphone|system-audio]\n"
         "  edit-plan-prepare <id-prefix>\n"
         "\n"
         "改：\n"
         "  captions-import <id-prefix> --job UUID [--align-audio]\n"
         "      [--apply --expect-timeline digest --expect-captions digest]\n"
         "  edit-plan-preview <id-prefix> --job UUID\n"
         "      [--apply --expect-timeline digest --expect-captions digest --expect-plan digest]\n"
         "  cut <id-prefix> --range start,end [--source] [--apply --expect digest]\n"
         "  speed-set <id-prefix> --range start,end --rate 2.0 [--source] [--apply --expect digest]\n"
         "  zoom-add <id-prefix> --range start,end [--source] [--level 1.8] [--at x,y]\n"
         "  zoom-rm <id-prefix> (--index N | --all)\n"
         "  zoom-regen <id-prefix>\n"
         "  set <id-prefix> key=value ...\n"
         "  restore <id-prefix> --index N\n"
         "\n"
         "出：\n"
         "  frame <id-prefix> --ms 5000 --out frame.jpg [--width 1280] [--replace]\n"
         "\n"
         "时间范围单位为毫秒，默认成片Sequence Time；--source切换到Source Project Time。\n"
         "相对--out文件名写入$XDG_DATA_HOME/Vumo/Exports；绝对路径需已有写入权限。\n"
         "单项提交必须提供--apply与--expect；Edit Plan只执行预演返回的三Digest确认参数。";
}

}  // namespace vumo
