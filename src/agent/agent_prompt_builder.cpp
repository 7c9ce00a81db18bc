#include "agent/agent_prompt_builder.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "agent/agent_editing_requirement_composer.h"
#include "project/project_snapshot.h"

namespace vumo {

namespace {

constexpr std::string_view deletedSuffix = " (deleted)";
constexpr std::string_view fallbackProgram = "vumo";

bool hasTrack(const ProjectManifest& manifest, MediaTrackKind kind) {
  return std::any_of(manifest.media.tracks.begin(), manifest.media.tracks.end(),
                     [&](const MediaTrack& track) { return track.kind == kind; });
}

std::string_view presence(bool present) { return present ? "present" : "absent"; }

// The command line spells the system's sound with a hyphen.
std::string_view commandLineTrack(MediaTrackKind kind) {
  return kind == MediaTrackKind::systemAudio ? "system-audio" : "microphone";
}

std::string identityText(const ProjectSnapshot& snapshot, std::string_view prefix) {
  return snapshot.manifest.id.string() + " (commands may use the prefix " + std::string(prefix) + ")";
}

std::string durationText(ProjectTime duration) {
  const std::int64_t seconds = std::max<std::int64_t>(0, duration.nanoseconds / 1'000'000'000);
  return fmt::format("{}:{:02}", seconds / 60, seconds % 60);
}

std::string commandPath(const std::optional<std::filesystem::path>& executable) {
  return shellQuoted((executable ? *executable : runningExecutablePath()).string());
}

bool hasCaptions(const ProjectSnapshot& snapshot) { return snapshot.captions && !snapshot.captions->cues.empty(); }

}  // namespace

ExecutableLocation ExecutableLocation::process() {
  ExecutableLocation location;
  if (const char* appImage = std::getenv("APPIMAGE")) location.appImage = appImage;
  return location;
}

std::filesystem::path runningExecutablePath(const ExecutableLocation& location) {
  if (location.appImage && !location.appImage->empty()) {
    struct stat status {};
    if (::stat(location.appImage->c_str(), &status) == 0 && S_ISREG(status.st_mode)) return *location.appImage;
  }
  std::string target(4'096, '\0');
  for (;;) {
    ssize_t length = ::readlink(location.selfLink.c_str(), target.data(), target.size());
    if (length < 0) return std::string(fallbackProgram);
    if (static_cast<std::size_t>(length) < target.size()) {
      target.resize(static_cast<std::size_t>(length));
      break;
    }
    // A target that fills the buffer may have been cut; try again with room to spare.
    if (target.size() >= (std::size_t{1} << 20)) return std::string(fallbackProgram);
    target.resize(target.size() * 2);
  }
  if (target.ends_with(deletedSuffix)) target.resize(target.size() - deletedSuffix.size());
  if (target.empty()) return std::string(fallbackProgram);
  return target;
}

std::string shellQuoted(std::string_view text) {
  std::string quoted = "'";
  for (char c : text) {
    if (c == '\'')
      quoted += "'\\''";
    else
      quoted += c;
  }
  quoted += "'";
  return quoted;
}

std::string_view CaptionAgentPrompt::sourceTitle() const {
  return sourceTrack == MediaTrackKind::systemAudio ? "System Audio" : "Microphone";
}

std::vector<CLIAgentHelpTopic> AgentPromptBuilder::helpTopics(const AgentEditingRequirementDraft& requirements) {
  std::vector<CLIAgentHelpTopic> topics = AgentEditingRequirementComposer::helpTopics(requirements);
  if (topics.empty()) topics.push_back(CLIAgentHelpTopic::workflow);
  return topics;
}

std::optional<MediaTrackKind> AgentPromptBuilder::preferredCaptionTrack(const ProjectSnapshot& snapshot) {
  if (hasTrack(snapshot.manifest, MediaTrackKind::microphone)) return MediaTrackKind::microphone;
  if (hasTrack(snapshot.manifest, MediaTrackKind::systemAudio)) return MediaTrackKind::systemAudio;
  return std::nullopt;
}

std::string AgentPromptBuilder::make(const ProjectSnapshot& snapshot, const AgentEditingRequirementDraft& requirements,
                                     const std::optional<std::filesystem::path>& executable) {
  const ProjectManifest& manifest = snapshot.manifest;
  const std::string id = manifest.id.string();
  const std::string prefix = id.substr(0, 8);
  const std::vector<CLIAgentHelpTopic> topics = helpTopics(requirements);

  std::string text =
      "Use Vumo’s built-in CLI to edit this screen recording. Vumo has no built-in model: you propose decisions, "
      "while the CLI validates and commits non-destructive changes.\n\n## Recording\n- ID: ";
  text += identityText(snapshot, prefix);
  text += "\n- Duration: " + durationText(manifest.duration);
  text += fmt::format("\n- Dimensions: {}×{}", manifest.encodedPixelSize.width, manifest.encodedPixelSize.height);
  text += "\n- Camera track: ";
  text += presence(manifest.webcam.has_value());
  text += "\n- Microphone track: ";
  text += presence(hasTrack(manifest, MediaTrackKind::microphone));
  text += "\n- System audio track: ";
  text += presence(hasTrack(manifest, MediaTrackKind::systemAudio));

  text += "\n\n## Commands\nCS=" + commandPath(executable) + "\n";
  std::string topicNames;
  for (std::size_t i = 0; i < topics.size(); ++i) {
    if (i > 0) {
      text += "\n";
      topicNames += ", ";
    }
    text += "\"$CS\" cli help ";
    text += nameOf(topics[i]);
    topicNames += nameOf(topics[i]);
  }
  text += "\n\"$CS\" cli describe " + prefix;
  text += "\n\"$CS\" cli idle " + prefix + " --min-ms 1500\n";
  if (auto track = preferredCaptionTrack(snapshot))
    text += "\"$CS\" cli captions-prepare " + prefix + " --track " + std::string(commandLineTrack(*track));
  else
    text += "# This project has no audio track for generating captions";

  text +=
      "\n\n## Mandatory Rules\n1. Never modify .vumo project files directly. Use only Vumo CLI.\n2. Preview every "
      "change before writing to disk; report its effects and warnings to me.\n3. Wait for my explicit confirmation. "
      "The agent must not confirm on my behalf.\n4. After confirmation, execute only the confirmationArguments "
      "returned by the preview. Stop on a Digest conflict and read the project again.\n5. Do not install tools or "
      "download models without the user’s explicit approval of the specific proposal. Never upload audio.\n6. The "
      "interface language does not determine the caption target language. Do not change the target language because "
      "of it.\n\nRead the ";
  text += topicNames;
  text += " help topics before handling my requirements. Do not guess commands from memory.\n\n";
  text += AgentEditingRequirementComposer::text(requirements);
  return text;
}

std::optional<CaptionAgentPrompt> AgentPromptBuilder::makeCaptions(
    const ProjectSnapshot& snapshot, CaptionAgentPromptMode mode,
    const std::optional<std::filesystem::path>& executable) {
  auto track = preferredCaptionTrack(snapshot);
  if (!track) return std::nullopt;
  CaptionAgentPrompt prompt;
  prompt.sourceTrack = *track;
  const std::string id = snapshot.manifest.id.string();
  const std::string prefix = id.substr(0, 8);
  const bool regenerates = mode == CaptionAgentPromptMode::regenerate;

  std::string& text = prompt.text;
  text = regenerates ? "Regenerate" : "Generate";
  text +=
      " captions only for this Vumo project. Do not change edits, zooms, canvas, cursor, audio, or export settings. "
      "You must be able to run Vumo CLI in a local terminal.\n\n## Project\n- ID: ";
  text += identityText(snapshot, prefix);
  text += "\n- Caption audio track: ";
  text += prompt.sourceTitle();
  text += "\n\n";
  text += regenerates ? "This project already has captions. Importing again replaces caption content and manual "
                        "highlights, but must preserve the existing global caption style."
                      : "This project has no captions yet. The app will load them automatically after import.";
  text += "\n\n## Commands\nCS=" + commandPath(executable);
  text += "\n\"$CS\" cli help captions\n\"$CS\" cli describe " + prefix;
  text += "\n\"$CS\" cli captions-prepare " + prefix + " --track " + std::string(commandLineTrack(*track)) + "\n";
  if (regenerates && hasCaptions(snapshot))
    text += "\"$CS\" cli captions-read " + prefix;
  else
    text += "# This project has no existing captions";
  text +=
      "\n\n## Mandatory Rules\n1. Work only on captions. Never modify .vumo project files directly.\n2. Do not install "
      "tools or download models without the user’s explicit approval of the specific proposal. Never upload "
      "audio.\n3. Preview captions-import and report the result to me first. The agent must not confirm on my "
      "behalf.\n4. After confirmation, execute only the confirmationArguments returned by the preview. Stop on a "
      "Digest conflict and start again.\n5. The interface language does not determine the caption target language. Do "
      "not change the target language because of it.\n\nRead the captions help first and follow all its "
      "transcription, terminology correction, highlighting, and import rules. Do not guess formats from memory.";
  return prompt;
}

}  // namespace vumo
