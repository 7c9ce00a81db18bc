#pragma once

#include <string>

#include "cli/cli_models.h"

namespace vumo {

// The fixed texts that the command line prints for agents. They are the contract with the
// agent: workflow, prohibitions and the exact commands. Nothing in them is computed.
struct AgentHelpCatalog {
  static std::string text(CLIAgentHelpTopic topic);
};

}  // namespace vumo
