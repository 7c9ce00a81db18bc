#include "cli/vumo_cli.h"

#include <unistd.h>

#include <cerrno>
#include <type_traits>

#include "agent/timeline_plan_engine.h"
#include "cli/agent_help_catalog.h"
#include "cli/cli_argument_parser.h"
#include "cli/cli_errors.h"
#include "cli/output_destination.h"
#include "cli/project_command_service.h"
#include "cli/system_capability_inspector.h"
#include "project/project_store.h"
#include "shared/files.h"
#include "shared/json.h"

namespace vumo {

namespace {

void writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return;
    }
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
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
  return {[](std::string_view bytes) { writeAll(STDOUT_FILENO, bytes); },
          [](std::string_view bytes) { writeAll(STDERR_FILENO, bytes); }};
}

VumoCLI::VumoCLI(std::stop_token cancellation, Streams streams)
    : cancellation_(std::move(cancellation)), streams_(std::move(streams)) {}

int VumoCLI::run(const std::vector<std::string>& arguments) {
  try {
    CLICommand command = CLIArgumentParser::parse(arguments);
    if (const auto* help = std::get_if<CLICommand::Help>(&command.value)) {
      std::string text = help->topic ? AgentHelpCatalog::text(*help->topic) : usageText();
      streams_.standardOutput(text + "\n");
      return 0;
    }
    writeJSON(execute(command));
    return 0;
  } catch (const std::exception& error) {
    return report(error);
  }
}

Json VumoCLI::execute(const CLICommand& command) {
  // Every command but help gets the store, so the projects folder exists after any command.
  ProjectStore store;
  ProjectCommandService service(store);
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
          prepareOutputPath(request.outputPath, request.replace);
          service.load(request.projectID);
          throw CLIUnavailableError("Rendering a frame");
        } else if constexpr (std::is_same_v<T, CLICommand::Idle>) {
          throw CLIUnavailableError("Idle analysis");
        } else if constexpr (std::is_same_v<T, CLICommand::CaptionsPrepare>) {
          throw CLIUnavailableError("Caption preparation");
        } else if constexpr (std::is_same_v<T, CLICommand::CaptionsGenerate>) {
          throw CLIUnavailableError("Cloud caption generation");
        } else if constexpr (std::is_same_v<T, CLICommand::CaptionsImport>) {
          throw CLIUnavailableError("Caption import");
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

void VumoCLI::writeJSON(const Json& value) const {
  std::string encoded;
  try {
    encoded = encodeDocument(value) + "\n";
  } catch (const nlohmann::json::exception& e) {
    throw DecodingError(std::string("The answer could not be encoded: ") + e.what());
  }
  streams_.standardOutput(encoded);
}

void VumoCLI::writeError(const std::string& code, const std::string& message,
                         const std::optional<CLIValidationDetails>& details) const {
  std::string encoded;
  try {
    encoded = escapeSlashes(encodeDocument(CLIErrorResponse{1, code, message, details}));
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
