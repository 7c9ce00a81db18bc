#pragma once

// What a user can ask a local agent to do with a recording: a fixed catalogue of editing
// capabilities, the presets that tick a few of them, and the options some of them need. The
// program holds no model; these only shape the briefing the user hands to the agent.

#include <array>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "agent/agent_help_topic.h"
#include "shared/name_table.h"

namespace vumo {

struct ProjectSnapshot;

// The order of the cases is the order of the catalogue, which is also the order in which a
// briefing lists them, whatever order the user ticked them in.
enum class AgentEditingCapabilityID {
  removePauses,
  removeRepetition,
  removeWaiting,
  speedUpWaiting,
  adjustPlaybackSpeed,
  addZooms,
  regenerateZooms,
  emphasizeClicks,
  prepareCaptions,
  correctTerminology,
  highlightKeywords,
  setAspectRatio,
  styleWebcam,
  styleCursor,
};

template <>
struct EnumNames<AgentEditingCapabilityID> {
  static constexpr std::string_view typeName = "editing capability";
  static constexpr NameTable<AgentEditingCapabilityID, 14> table{{
      {AgentEditingCapabilityID::removePauses, "remove-pauses"},
      {AgentEditingCapabilityID::removeRepetition, "remove-repetition"},
      {AgentEditingCapabilityID::removeWaiting, "remove-waiting"},
      {AgentEditingCapabilityID::speedUpWaiting, "speed-up-waiting"},
      {AgentEditingCapabilityID::adjustPlaybackSpeed, "adjust-playback-speed"},
      {AgentEditingCapabilityID::addZooms, "add-zooms"},
      {AgentEditingCapabilityID::regenerateZooms, "regenerate-zooms"},
      {AgentEditingCapabilityID::emphasizeClicks, "emphasize-clicks"},
      {AgentEditingCapabilityID::prepareCaptions, "prepare-captions"},
      {AgentEditingCapabilityID::correctTerminology, "correct-terminology"},
      {AgentEditingCapabilityID::highlightKeywords, "highlight-keywords"},
      {AgentEditingCapabilityID::setAspectRatio, "set-aspect-ratio"},
      {AgentEditingCapabilityID::styleWebcam, "style-webcam"},
      {AgentEditingCapabilityID::styleCursor, "style-cursor"},
  }};
};

// How the editor groups the capabilities on screen. No capability belongs to `delivery`; it heads
// the part of the view where the user reviews what the agent proposes.
enum class AgentEditingCapabilityGroup { content, focus, captions, appearance, delivery };

template <>
struct EnumNames<AgentEditingCapabilityGroup> {
  static constexpr std::string_view typeName = "editing capability group";
  static constexpr NameTable<AgentEditingCapabilityGroup, 5> table{{
      {AgentEditingCapabilityGroup::content, "content"},
      {AgentEditingCapabilityGroup::focus, "focus"},
      {AgentEditingCapabilityGroup::captions, "captions"},
      {AgentEditingCapabilityGroup::appearance, "appearance"},
      {AgentEditingCapabilityGroup::delivery, "delivery"},
  }};
};

std::string_view agentEditingCapabilityGroupTitle(AgentEditingCapabilityGroup group);

struct AgentEditingCapabilityDefinition {
  AgentEditingCapabilityID id;
  AgentEditingCapabilityGroup group;
  std::string_view title;
  std::string_view detail;
  CLIAgentHelpTopic helpTopic;
  // What the user types into the capability's own instruction field, as an example.
  std::string_view example;
};

struct AgentEditingCapabilityCatalog {
  static const std::array<AgentEditingCapabilityDefinition, 14> definitions;

  static const AgentEditingCapabilityDefinition& definition(AgentEditingCapabilityID id);

  // Whether the capability makes sense for this recording: the caption capabilities need an audio
  // track to transcribe, removing repetition needs captions or such a track to read what was said,
  // and styling the camera needs a camera track. Everything else works on any recording.
  static bool isAvailable(AgentEditingCapabilityID id, const ProjectSnapshot& snapshot);
};

enum class AgentEditingPreset { talkingHead, tutorial, conservative };

template <>
struct EnumNames<AgentEditingPreset> {
  static constexpr std::string_view typeName = "editing preset";
  static constexpr NameTable<AgentEditingPreset, 3> table{{
      {AgentEditingPreset::talkingHead, "talking-head"},
      {AgentEditingPreset::tutorial, "tutorial"},
      {AgentEditingPreset::conservative, "conservative"},
  }};
};

struct AgentEditingPresetDefinition {
  AgentEditingPreset preset;
  std::string_view title;
  std::string_view detail;
  std::string_view guidance;
  std::set<AgentEditingCapabilityID> capabilities;
};

const AgentEditingPresetDefinition& agentEditingPresetDefinition(AgentEditingPreset preset);

// The title of a ratio is its word, except the source's own.
enum class AgentEditingAspectRatio { source, square, landscape, portrait, portraitFourThree, portraitThreeFour };

template <>
struct EnumNames<AgentEditingAspectRatio> {
  static constexpr std::string_view typeName = "aspect ratio";
  static constexpr NameTable<AgentEditingAspectRatio, 6> table{{
      {AgentEditingAspectRatio::source, "source"},
      {AgentEditingAspectRatio::square, "1:1"},
      {AgentEditingAspectRatio::landscape, "16:9"},
      {AgentEditingAspectRatio::portrait, "9:16"},
      {AgentEditingAspectRatio::portraitFourThree, "4:3"},
      {AgentEditingAspectRatio::portraitThreeFour, "3:4"},
  }};
};

enum class AgentEditingClickStyle { solidPulse, ring, ringAndPress };

template <>
struct EnumNames<AgentEditingClickStyle> {
  static constexpr std::string_view typeName = "click style";
  static constexpr NameTable<AgentEditingClickStyle, 3> table{{
      {AgentEditingClickStyle::solidPulse, "solid-pulse"},
      {AgentEditingClickStyle::ring, "ring"},
      {AgentEditingClickStyle::ringAndPress, "ring-and-press"},
  }};
};

enum class AgentEditingWebcamShape { circle, roundedRectangle };

template <>
struct EnumNames<AgentEditingWebcamShape> {
  static constexpr std::string_view typeName = "webcam shape";
  static constexpr NameTable<AgentEditingWebcamShape, 2> table{{
      {AgentEditingWebcamShape::circle, "circle"},
      {AgentEditingWebcamShape::roundedRectangle, "rounded-rectangle"},
  }};
};

std::string_view agentEditingTitle(AgentEditingAspectRatio ratio);
std::string_view agentEditingTitle(AgentEditingClickStyle style);
std::string_view agentEditingTitle(AgentEditingWebcamShape shape);

struct AgentEditingRequirementOptions {
  AgentEditingAspectRatio aspectRatio = AgentEditingAspectRatio::landscape;
  AgentEditingClickStyle clickStyle = AgentEditingClickStyle::solidPulse;
  AgentEditingWebcamShape webcamShape = AgentEditingWebcamShape::roundedRectangle;
  friend bool operator==(const AgentEditingRequirementOptions&, const AgentEditingRequirementOptions&) = default;
};

// What the user asked for, before it becomes text.
struct AgentEditingRequirementDraft {
  std::optional<AgentEditingPreset> preset;
  std::set<AgentEditingCapabilityID> selectedCapabilities;
  // Per capability; only those of selected capabilities reach the text.
  std::map<AgentEditingCapabilityID, std::string> capabilityInstructions;
  AgentEditingRequirementOptions options;
  std::string additionalInstructions;
  friend bool operator==(const AgentEditingRequirementDraft&, const AgentEditingRequirementDraft&) = default;
};

}  // namespace vumo
