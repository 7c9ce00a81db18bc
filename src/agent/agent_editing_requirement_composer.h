#pragma once

#include <optional>
#include <string>
#include <vector>

#include "agent/agent_editing_capability.h"
#include "agent/agent_help_topic.h"

namespace vumo {

struct ProjectSnapshot;

// Turns what the user asked for into the "requirements" block of an agent's briefing (Markdown).
// Stateless.
struct AgentEditingRequirementComposer {
  // The preset's capabilities that this recording can offer, with no instructions and the
  // options at 16:9, solid pulse and rounded rectangle. Without a preset nothing is selected.
  static AgentEditingRequirementDraft draft(std::optional<AgentEditingPreset> preset, const ProjectSnapshot& snapshot);

  // The help topics the selected capabilities rely on, each once, in the topics' own order.
  static std::vector<CLIAgentHelpTopic> helpTopics(const AgentEditingRequirementDraft& draft);

  // The capability's instruction with the options filled in.
  static std::string instruction(AgentEditingCapabilityID id, const AgentEditingRequirementOptions& options);

  static std::string text(const AgentEditingRequirementDraft& draft);
};

}  // namespace vumo
