#include "cli/prompt_command.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <optional>

#include "agent/agent_editing_capability.h"
#include "agent/agent_editing_requirement_composer.h"
#include "agent/agent_editing_template_store.h"
#include "agent/agent_prompt_builder.h"
#include "captions/caption_text.h"
#include "cli/cli_errors.h"
#include "cli/verb_arguments.h"
#include "project/project_store.h"
#include "shared/cancellation.h"
#include "shared/json.h"

namespace vumo {

namespace {

using PromptCase = CLIPromptError::Case;

constexpr ErrorCase<PromptCase> promptCases[] = {
    {PromptCase::noCaptionAudio, "noCaptionAudio", "cli.error.promptNoAudio",
     "项目没有可用于生成字幕的麦克风或系统声音轨。", "validation", ErrorKind::validation},
    {PromptCase::capabilityUnavailable, "capabilityUnavailable", "cli.error.promptCapability",
     "此录制无法使用所选功能：{}", "validation", ErrorKind::validation},
};
static_assert(inCaseOrder(promptCases));

template <NamedEnum E>
E parseWord(std::string_view option, std::string_view word) {
  if (auto parsed = parseName<E>(word)) return *parsed;
  throw CLIArgumentError::notOneOf(option, word, joinedNames(EnumNames<E>::table));
}

struct PromptRequest {
  std::string projectID;
  bool captions = false;
  bool text = false;
  std::vector<AgentEditingCapabilityID> capabilities;
  std::optional<AgentEditingPreset> preset;
  std::optional<std::string> instructions;
  std::optional<std::string> templateName;
  std::map<AgentEditingCapabilityID, std::string> capabilityInstructions;
  std::optional<AgentEditingAspectRatio> aspectRatio;
  std::optional<AgentEditingClickStyle> clickStyle;
  std::optional<AgentEditingWebcamShape> webcamShape;
  // The first option that shapes an editing briefing, which a captions briefing does not take.
  std::optional<std::string> editingOption;
};

std::vector<std::string> splitCommas(std::string_view text) {
  std::vector<std::string> parts;
  std::size_t start = 0;
  for (;;) {
    std::size_t comma = text.find(',', start);
    parts.emplace_back(trimmedWhitespaceAndNewlines(text.substr(start, comma - start)));
    if (comma == std::string_view::npos) return parts;
    start = comma + 1;
  }
}

PromptRequest parse(const std::vector<std::string>& arguments) {
  PromptRequest request;
  VerbArguments words(arguments, {"--capability-instruction"});
  while (words.next()) {
    const std::string& word = words.option();
    auto value = [&]() -> const std::string& { return words.value(); };
    auto editing = [&] {
      if (!request.editingOption) request.editingOption = word;
    };
    if (word == "--captions") {
      request.captions = true;
    } else if (word == "--text") {
      request.text = true;
    } else if (word == "--capabilities") {
      editing();
      for (const std::string& part : splitCommas(value())) {
        auto id = parseWord<AgentEditingCapabilityID>("--capabilities", part);
        if (std::find(request.capabilities.begin(), request.capabilities.end(), id) == request.capabilities.end())
          request.capabilities.push_back(id);
      }
    } else if (word == "--preset") {
      editing();
      request.preset = parseWord<AgentEditingPreset>(word, value());
    } else if (word == "--instructions") {
      editing();
      request.instructions = value();
    } else if (word == "--template") {
      editing();
      request.templateName = std::string(trimmedWhitespaceAndNewlines(value()));
    } else if (word == "--capability-instruction") {
      editing();
      const std::string& pair = value();
      std::size_t equals = pair.find('=');
      if (equals == std::string::npos) throw CLIArgumentError::invalidValue(word + " " + pair + "（格式：功能=说明）");
      auto id = parseWord<AgentEditingCapabilityID>(word, pair.substr(0, equals));
      request.capabilityInstructions[id] = pair.substr(equals + 1);
    } else if (word == "--aspect-ratio") {
      editing();
      request.aspectRatio = parseWord<AgentEditingAspectRatio>(word, value());
    } else if (word == "--click-style") {
      editing();
      request.clickStyle = parseWord<AgentEditingClickStyle>(word, value());
    } else if (word == "--webcam-shape") {
      editing();
      request.webcamShape = parseWord<AgentEditingWebcamShape>(word, value());
    } else {
      throw CLIArgumentError::unexpectedArgument(word);
    }
  }
  request.projectID = words.projectID();
  if (request.captions && request.editingOption) throw CLIArgumentError::unexpectedArgument(*request.editingOption);
  if (request.templateName && request.preset) throw CLIArgumentError::unexpectedArgument("--preset");
  return request;
}

const AgentEditingTemplate& findTemplate(const std::vector<AgentEditingTemplate>& templates, const std::string& name) {
  for (const auto& editingTemplate : templates)
    if (editingTemplate.name == name) return editingTemplate;
  std::string saved;
  for (const auto& editingTemplate : templates) {
    if (!saved.empty()) saved += ", ";
    saved += editingTemplate.name;
  }
  throw CLIArgumentError::invalidValue(saved.empty() ? fmt::format("--template {}（没有已保存的模板）", name)
                                                     : fmt::format("--template {}（已保存：{}）", name, saved));
}

struct EditingBriefing {
  AgentEditingRequirementDraft draft;
  std::optional<std::vector<std::string>> skippedCapabilityNames;  // with a template only
};

EditingBriefing editingBriefing(const PromptRequest& request, const ProjectSnapshot& snapshot,
                                const std::optional<AgentEditingTemplate>& editingTemplate) {
  EditingBriefing briefing;
  if (editingTemplate) {
    auto application = AgentEditingTemplateApplication::make(*editingTemplate, snapshot);
    briefing.draft = std::move(application.draft);
    briefing.skippedCapabilityNames = std::move(application.skippedCapabilityNames);
  } else {
    briefing.draft = AgentEditingRequirementComposer::draft(request.preset, snapshot);
  }
  AgentEditingRequirementDraft& draft = briefing.draft;
  // Asked for by name, a capability the recording cannot offer is refused rather than dropped.
  for (auto id : request.capabilities) {
    if (!AgentEditingCapabilityCatalog::isAvailable(id, snapshot))
      throw CLIPromptError::capabilityUnavailable(nameOf(id));
    draft.selectedCapabilities.insert(id);
  }
  for (const auto& [id, text] : request.capabilityInstructions) {
    if (!draft.selectedCapabilities.contains(id))
      throw CLIArgumentError::invalidValue(fmt::format("--capability-instruction {}（该功能未选择）", nameOf(id)));
    draft.capabilityInstructions[id] = text;
  }
  if (request.instructions) draft.additionalInstructions = *request.instructions;
  if (request.aspectRatio) draft.options.aspectRatio = *request.aspectRatio;
  if (request.clickStyle) draft.options.clickStyle = *request.clickStyle;
  if (request.webcamShape) draft.options.webcamShape = *request.webcamShape;
  return briefing;
}

// The command line spells the system's sound with a hyphen.
std::string_view commandLineTrack(MediaTrackKind kind) {
  return kind == MediaTrackKind::systemAudio ? "system-audio" : "microphone";
}

}  // namespace

const ErrorCatalogue<PromptCase>& CLIPromptError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"CLIPromptError", "CLI", promptCases};
  return catalogue;
}

PromptCommand::PromptCommand(std::stop_token cancellation, VumoCLI::Streams streams, std::filesystem::path executable)
    : cancellation_(std::move(cancellation)), streams_(std::move(streams)), executable_(std::move(executable)) {}

std::string PromptCommand::usageText() {
  return "usage: vumo prompt <id-prefix> [options]\n"
         "\n"
         "Prints the briefing for a local AI agent that the editor would copy: what the recording is,\n"
         "the commands with the path of this program, the rules, and the requirements chosen here.\n"
         "\n"
         "  --preset NAME                     talking-head, tutorial or conservative\n"
         "  --capabilities a,b,...            capabilities to ask for, e.g. remove-pauses,add-zooms\n"
         "  --capability-instruction ID=TEXT  specific instructions for a selected capability (repeatable)\n"
         "  --instructions TEXT               overall instructions\n"
         "  --template NAME                   start from a saved template instead of a preset\n"
         "  --aspect-ratio R                  source, 1:1, 16:9, 9:16, 4:3 or 3:4 (for set-aspect-ratio)\n"
         "  --click-style S                   solid-pulse, ring or ring-and-press\n"
         "  --webcam-shape S                  circle or rounded-rectangle (for style-webcam)\n"
         "  --captions                        a briefing for captions only (takes none of the above)\n"
         "  --text                            print the briefing alone instead of JSON, for a pipe\n"
         "  --help                            this text\n"
         "\n"
         "Capabilities: " +
         joinedNames(EnumNames<AgentEditingCapabilityID>::table) + ".";
}

int PromptCommand::run(const std::vector<std::string>& arguments) {
  VumoCLI reporter(cancellation_, streams_);
  try {
    for (const std::string& word : arguments) {
      if (word == "--help" || word == "-h") {
        streams_.standardOutput(usageText() + "\n");
        return 0;
      }
    }
    if (arguments.empty()) throw CLIArgumentError::missingValue("<id-prefix>");
    const PromptRequest request = parse(arguments);

    std::optional<AgentEditingTemplate> editingTemplate;
    if (request.templateName) {
      AgentEditingTemplateStore templates;
      editingTemplate = findTemplate(templates.load(), *request.templateName);
    }
    throwIfCancelled(cancellation_);
    ProjectStore store(std::nullopt, cancellation_);
    ProjectPackage package = store.project(request.projectID);
    ProjectSnapshot snapshot = store.loadSnapshot(package);
    throwIfCancelled(cancellation_);

    Json answer = {
        {"protocolVersion", 1}, {"projectID", snapshot.manifest.id.string()}, {"executablePath", executable_.string()}};
    std::string prompt;
    if (request.captions) {
      const bool regenerates = snapshot.captions && !snapshot.captions->cues.empty();
      auto captions = AgentPromptBuilder::makeCaptions(
          snapshot, regenerates ? CaptionAgentPromptMode::regenerate : CaptionAgentPromptMode::generate, executable_);
      if (!captions) throw CLIPromptError::noCaptionAudio();
      prompt = std::move(captions->text);
      answer["mode"] = "captions";
      answer["captionMode"] = regenerates ? "regenerate" : "generate";
      answer["sourceTrack"] = commandLineTrack(captions->sourceTrack);
    } else {
      EditingBriefing briefing = editingBriefing(request, snapshot, editingTemplate);
      prompt = AgentPromptBuilder::make(snapshot, briefing.draft, executable_);
      answer["mode"] = "editing";
      Json capabilities = Json::array();
      for (const auto& definition : AgentEditingCapabilityCatalog::definitions)
        if (briefing.draft.selectedCapabilities.contains(definition.id)) capabilities.push_back(nameOf(definition.id));
      answer["capabilities"] = std::move(capabilities);
      answer["helpTopics"] = AgentPromptBuilder::helpTopics(briefing.draft);
      if (briefing.draft.preset) answer["preset"] = *briefing.draft.preset;
      if (editingTemplate) {
        answer["template"] = editingTemplate->name;
        const auto& skipped = *briefing.skippedCapabilityNames;
        answer["skippedCapabilities"] = skipped;
        if (!skipped.empty()) {
          std::string note(agentEditingTemplateSkippedText);
          for (std::size_t i = 0; i < skipped.size(); ++i) note += (i > 0 ? ", " : "") + skipped[i];
          answer["note"] = std::move(note);
        }
      }
    }
    if (request.text) {
      streams_.standardOutput(prompt + "\n");
    } else {
      answer["prompt"] = std::move(prompt);
      reporter.writeJSON(answer);
    }
    return 0;
  } catch (const std::exception& error) {
    return reporter.report(error);
  }
}

}  // namespace vumo
