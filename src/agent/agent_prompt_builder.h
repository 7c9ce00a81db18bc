#pragma once

// The briefing a user pastes into a local agent: what the recording is, the exact commands with
// the path of this very program, the rules the agent must keep, and what the user asked for.

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/agent_editing_capability.h"
#include "agent/agent_help_topic.h"
#include "shared/media_track_kind.h"

namespace vumo {

struct ProjectSnapshot;

// Where the running program lives, as the commands of a briefing must name it. The kernel's link
// to the executable gains " (deleted)" once the file was replaced (by an update while the program
// runs); an AppImage runs from a mount that disappears with the process, so the AppImage file
// itself, named by $APPIMAGE, is the program a later shell can start.
struct ExecutableLocation {
  std::filesystem::path selfLink = "/proc/self/exe";
  std::optional<std::string> appImage;  // the value of $APPIMAGE, if set

  // This process: /proc/self/exe and its environment.
  static ExecutableLocation process();
};

// $APPIMAGE when it names an existing regular file; otherwise the target of `selfLink` without a
// trailing " (deleted)"; "vumo" (found on the PATH) when the link cannot be read.
std::filesystem::path runningExecutablePath(const ExecutableLocation& location = ExecutableLocation::process());

// A path as one word of a POSIX shell: in single quotes, each "'" written as '\''.
std::string shellQuoted(std::string_view text);

enum class CaptionAgentPromptMode { generate, regenerate };

struct CaptionAgentPrompt {
  std::string text;
  MediaTrackKind sourceTrack = MediaTrackKind::microphone;
  // "Microphone" or "System Audio".
  std::string_view sourceTitle() const;
};

struct AgentPromptBuilder {
  // The general editing briefing. `requirements` is the composer's draft for this project. Without
  // an executable the running program's path is used.
  static std::string make(const ProjectSnapshot& snapshot, const AgentEditingRequirementDraft& requirements,
                          const std::optional<std::filesystem::path>& executable = std::nullopt);

  // A briefing for captions alone; none when the recording has no audio track to transcribe.
  static std::optional<CaptionAgentPrompt> makeCaptions(
      const ProjectSnapshot& snapshot, CaptionAgentPromptMode mode,
      const std::optional<std::filesystem::path>& executable = std::nullopt);

  // The help topics the editing briefing tells the agent to read: those of the requirements, or
  // the workflow alone when nothing is selected, since the agent is then still asked to analyse.
  static std::vector<CLIAgentHelpTopic> helpTopics(const AgentEditingRequirementDraft& requirements);

  // The microphone if the recording has one, else the system audio, else none.
  static std::optional<MediaTrackKind> preferredCaptionTrack(const ProjectSnapshot& snapshot);
};

}  // namespace vumo
