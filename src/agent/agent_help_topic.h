#pragma once

#include <string_view>

#include "shared/name_table.h"

namespace vumo {

// The topics of `vumo cli help <topic>`. The briefing an agent is handed names the topics it must
// read, so the words live here, below both the briefing and the command line that prints them.
// Their order is the order in which a briefing lists them.
enum class CLIAgentHelpTopic { workflow, editPlan, captions, settings, output };

template <>
struct EnumNames<CLIAgentHelpTopic> {
  static constexpr std::string_view typeName = "help topic";
  static constexpr NameTable<CLIAgentHelpTopic, 5> table{{
      {CLIAgentHelpTopic::workflow, "workflow"},
      {CLIAgentHelpTopic::editPlan, "edit-plan"},
      {CLIAgentHelpTopic::captions, "captions"},
      {CLIAgentHelpTopic::settings, "settings"},
      {CLIAgentHelpTopic::output, "output"},
  }};
};

}  // namespace vumo
