#include "agent/agent_editing_requirement_composer.h"

#include <algorithm>
#include <string_view>

#include "captions/caption_text.h"
#include "project/project_snapshot.h"

namespace vumo {

namespace {

using ID = AgentEditingCapabilityID;

// Cuts and speed changes reshape the timeline that final captions must be bound to, so when both
// kinds are asked for the agent is told to finish the structure first.
constexpr ID structuralCapabilities[] = {ID::removePauses, ID::removeRepetition, ID::removeWaiting, ID::speedUpWaiting,
                                         ID::adjustPlaybackSpeed};
constexpr ID captionCapabilities[] = {ID::prepareCaptions, ID::correctTerminology, ID::highlightKeywords};

template <std::size_t N>
bool selectsAny(const AgentEditingRequirementDraft& draft, const ID (&ids)[N]) {
  return std::any_of(std::begin(ids), std::end(ids), [&](ID id) { return draft.selectedCapabilities.contains(id); });
}

constexpr std::string_view emptyText =
    "## My Editing Requirements\nFirst analyze the recording’s content and structure. Propose a conservative editing "
    "plan with reasons, but do not make any changes yet.";
constexpr std::string_view additionalOnlyLine =
    "- Follow the overall instructions without expanding the scope of changes on your own.";
constexpr std::string_view executionOrder =
    "\n\nExecution order:\n1. Use existing captions to analyze structure. If there are no captions and semantic "
    "editing truly requires them, run captions-prepare for a temporary transcript, but do not run "
    "captions-import.\n2. Preview and confirm all cuts and speed changes, then commit the Timeline.\n3. Run describe "
    "and captions-prepare again. Generate, preview, and confirm final captions only with a new task bound to the "
    "final Timeline Digest.\n4. If the Timeline changes after captions-prepare, discard the old caption task and "
    "restart from step 3.";
constexpr std::string_view additionalClosing =
    "\n\nOverall instructions apply to every feature; specific instructions refine only their own feature. Stop and "
    "ask if they conflict. Neither may override the safety rules.";

}  // namespace

AgentEditingRequirementDraft AgentEditingRequirementComposer::draft(std::optional<AgentEditingPreset> preset,
                                                                    const ProjectSnapshot& snapshot) {
  AgentEditingRequirementDraft draft;
  draft.preset = preset;
  draft.options = {AgentEditingAspectRatio::landscape, AgentEditingClickStyle::solidPulse,
                   AgentEditingWebcamShape::roundedRectangle};
  if (!preset) return draft;
  for (ID id : agentEditingPresetDefinition(*preset).capabilities)
    if (AgentEditingCapabilityCatalog::isAvailable(id, snapshot)) draft.selectedCapabilities.insert(id);
  return draft;
}

std::vector<CLIAgentHelpTopic> AgentEditingRequirementComposer::helpTopics(const AgentEditingRequirementDraft& draft) {
  std::vector<CLIAgentHelpTopic> topics;
  for (const auto& [topic, word] : EnumNames<CLIAgentHelpTopic>::table) {
    bool needed = std::any_of(draft.selectedCapabilities.begin(), draft.selectedCapabilities.end(),
                              [&](ID id) { return AgentEditingCapabilityCatalog::definition(id).helpTopic == topic; });
    if (needed) topics.push_back(topic);
  }
  return topics;
}

std::string AgentEditingRequirementComposer::instruction(AgentEditingCapabilityID id,
                                                         const AgentEditingRequirementOptions& options) {
  switch (id) {
    case ID::removePauses:
      return "Remove obvious long pauses that clearly carry no information. Keep uncertain content.";
    case ID::removeRepetition:
      return "Read existing captions first. If none exist, create only a temporary transcript without importing it "
             "into the project. Use the full context to conservatively remove clear repetition and slips of the "
             "tongue.";
    case ID::removeWaiting: return "Remove idle waiting segments that clearly have no content value.";
    case ID::speedUpWaiting:
      return "Keep idle waits that help show the process. Propose speed changes for each segment based on its length "
             "and context.";
    case ID::adjustPlaybackSpeed:
      return "Use the specific instructions to plan which content to speed up, slow down, or keep at original speed. "
             "Explain each segment’s range, speed, and reason.";
    case ID::addZooms: return "Add moderate, non-overlapping zooms to emphasize key actions.";
    case ID::regenerateZooms: return "Clear existing Auto Zoom segments and regenerate them around key actions.";
    case ID::emphasizeClicks:
      return "Enable subtle click feedback using the " + std::string(agentEditingTitle(options.clickStyle)) + " style.";
    case ID::prepareCaptions:
      return "Generate or regenerate final captions only after all structural edits are confirmed and committed. "
             "Preserve the existing global caption style.";
    case ID::correctTerminology:
      return "After structural edits are confirmed and committed, read the final captions. Generate them first if "
             "absent, then conservatively correct technical terms using the full context.";
    case ID::highlightKeywords:
      return "After structural edits are confirmed and committed, read the final captions. Generate them first if "
             "absent, then sparingly highlight key concepts, steps, numbers, and warnings.";
    case ID::setAspectRatio:
      return "Set the project aspect ratio to " + std::string(agentEditingTitle(options.aspectRatio)) +
             " and check the composition.";
    case ID::styleWebcam:
      return "Set the camera overlay to " + std::string(agentEditingTitle(options.webcamShape)) +
             ", combining 1:1 or the original aspect ratio with rounded corners. Keep the border and shadow subtle.";
    case ID::styleCursor:
      return "Improve cursor visibility and size, using " + std::string(agentEditingTitle(options.clickStyle)) +
             " for click effects.";
  }
  return {};
}

std::string AgentEditingRequirementComposer::text(const AgentEditingRequirementDraft& draft) {
  std::vector<std::string> lines;
  for (const auto& definition : AgentEditingCapabilityCatalog::definitions) {
    if (!draft.selectedCapabilities.contains(definition.id)) continue;
    std::string line = "- " + instruction(definition.id, draft.options);
    if (auto found = draft.capabilityInstructions.find(definition.id); found != draft.capabilityInstructions.end()) {
      std::string_view specific = trimmedWhitespaceAndNewlines(found->second);
      if (!specific.empty()) line += "\n  Specific instructions: " + std::string(specific);
    }
    lines.push_back(std::move(line));
  }
  const std::string_view additional = trimmedWhitespaceAndNewlines(draft.additionalInstructions);
  if (lines.empty()) {
    if (additional.empty() && !draft.preset) return std::string(emptyText);
    if (!additional.empty()) lines.emplace_back(additionalOnlyLine);
  }

  std::string text;
  if (draft.preset) {
    const auto& preset = agentEditingPresetDefinition(*draft.preset);
    text += "## Editing Goal\n\nPreset: ";
    text += preset.title;
    text += "\n";
    text += preset.detail;
    text += "\n\nPreset guidance: ";
    text += preset.guidance;
    text += "\n\n";
    // A preset with nothing ticked and nothing added still asks for the conservative analysis.
    if (lines.empty()) return text + std::string(emptyText);
  }
  text += "## My Editing Requirements\n\nSelected features:\n";
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (i > 0) text += "\n";
    text += lines[i];
  }
  if (selectsAny(draft, structuralCapabilities) && selectsAny(draft, captionCapabilities)) text += executionOrder;
  if (!additional.empty()) {
    text += "\n\nOverall instructions:\n";
    text += additional;
    text += additionalClosing;
  }
  return text;
}

}  // namespace vumo
