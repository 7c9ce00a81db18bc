#include "agent/agent_editing_capability.h"

#include <algorithm>
#include <stdexcept>

#include "project/project_snapshot.h"

namespace vumo {

namespace {

using ID = AgentEditingCapabilityID;
using Group = AgentEditingCapabilityGroup;
using Topic = CLIAgentHelpTopic;

bool hasTrack(const ProjectManifest& manifest, MediaTrackKind kind) {
  return std::any_of(manifest.media.tracks.begin(), manifest.media.tracks.end(),
                     [&](const MediaTrack& track) { return track.kind == kind; });
}

bool hasAudioTrack(const ProjectSnapshot& snapshot) {
  return hasTrack(snapshot.manifest, MediaTrackKind::microphone) ||
         hasTrack(snapshot.manifest, MediaTrackKind::systemAudio);
}

}  // namespace

const std::array<AgentEditingCapabilityDefinition, 14> AgentEditingCapabilityCatalog::definitions{{
    {ID::removePauses, Group::content, "Remove Long Pauses", "Remove long pauses with no information", Topic::workflow,
     "Example: Remove only pauses over 2 seconds; keep natural pauses between sentences."},
    {ID::removeRepetition, Group::content, "Remove Repetition and Slips", "Judge conservatively using caption context",
     Topic::captions, "Example: Remove only clear repetition; keep any wording you are unsure about."},
    {ID::removeWaiting, Group::content, "Remove Idle Waiting", "Remove only waiting with no content value",
     Topic::workflow, "Example: Remove only waits over 3 seconds with no visual changes."},
    {ID::speedUpWaiting, Group::content, "Speed Up Idle Waiting", "Keep the process, shorten the wait", Topic::editPlan,
     "Example: Use 2x for short waits and up to 4x for waits over 5 seconds."},
    {ID::adjustPlaybackSpeed, Group::content, "Adjust Playback Speed", "Specify ranges, speeds, and what to preserve",
     Topic::editPlan, "Example: Installation at 3x, code explanations at original speed, and conclusions at 0.8x."},
    {ID::addZooms, Group::focus, "Zoom In on Key Actions", "Gently emphasize important clicks and areas",
     Topic::editPlan, "Example: Emphasize key buttons and final results, not ordinary pointer movement."},
    {ID::regenerateZooms, Group::focus, "Regenerate All Auto Zooms", "Clear existing zooms and plan them again",
     Topic::editPlan, "Example: Use fewer zooms and keep only key actions."},
    {ID::emphasizeClicks, Group::focus, "Emphasize Clicks", "Use subtle click feedback", Topic::settings,
     "Example: Emphasize only clicks on primary action buttons."},
    {ID::prepareCaptions, Group::captions, "Generate Captions", "Create or replace from available audio",
     Topic::captions, "Example: Prefer microphone audio and preserve the existing caption style."},
    {ID::correctTerminology, Group::captions, "Correct Technical Terms", "Correct errors using the full transcript",
     Topic::captions, "Example: Pay special attention to Qt, OpenGL, and X11."},
    {ID::highlightKeywords, Group::captions, "Highlight Keywords", "Highlight key concepts and steps sparingly",
     Topic::captions, "Example: Highlight only action names, key numbers, and final conclusions."},
    {ID::setAspectRatio, Group::appearance, "Adjust Aspect Ratio", "Reframe the project and check the preview",
     Topic::settings, "Example: Use 9:16 and keep the camera overlay clear of the subject."},
    {ID::styleWebcam, Group::appearance, "Style the Camera", "Set shape, border, and shadow", Topic::settings,
     "Example: Keep the original aspect ratio with moderate corners and a subtle border."},
    {ID::styleCursor, Group::appearance, "Style the Cursor", "Set size and click effects", Topic::settings,
     "Example: Enlarge the cursor moderately and show a solid pulse only on clicks."},
}};

const AgentEditingCapabilityDefinition& AgentEditingCapabilityCatalog::definition(AgentEditingCapabilityID id) {
  // The table is in the order of the enumeration; a row out of place is a programmer error.
  const auto& row = definitions.at(static_cast<std::size_t>(id));
  if (row.id != id) throw std::logic_error("editing capability catalogue out of order");
  return row;
}

bool AgentEditingCapabilityCatalog::isAvailable(AgentEditingCapabilityID id, const ProjectSnapshot& snapshot) {
  switch (definition(id).group) {
    case Group::captions: return hasAudioTrack(snapshot);
    default: break;
  }
  switch (id) {
    case ID::removeRepetition:
      return hasAudioTrack(snapshot) || (snapshot.captions && !snapshot.captions->cues.empty());
    case ID::styleWebcam: return snapshot.manifest.webcam.has_value();
    default: return true;
  }
}

std::string_view agentEditingCapabilityGroupTitle(AgentEditingCapabilityGroup group) {
  switch (group) {
    case Group::content: return "Content and Pacing";
    case Group::focus: return "Zoom and Focus";
    case Group::captions: return "Captions";
    case Group::appearance: return "Appearance";
    case Group::delivery: return "Review and Confirm";
  }
  return "";
}

const AgentEditingPresetDefinition& agentEditingPresetDefinition(AgentEditingPreset preset) {
  static const std::array<AgentEditingPresetDefinition, 3> presets{{
      {AgentEditingPreset::talkingHead,
       "Talking-Head Video",
       "Clean up clear mistakes, repeats, and empty pauses.",
       "Remove only high-confidence restarts, repetitions, slips, or pauses with no information. Keep uncertain "
       "wording and complete explanations.",
       {ID::removePauses, ID::removeRepetition, ID::prepareCaptions}},
      {AgentEditingPreset::tutorial,
       "Tutorial Video",
       "Keep useful actions, remove empty waiting, and explain the changes.",
       "Remove only waits with no content value. Keep waits that show the process, and propose a speed change for "
       "those instead of deleting them.",
       {ID::speedUpWaiting, ID::prepareCaptions, ID::highlightKeywords}},
      {AgentEditingPreset::conservative,
       "Conservative Review",
       "Analyze first and avoid committing structural edits without clear evidence.",
       "Return analysis and a conservative preview plan first. Do not propose structural edits unless the evidence "
       "is explicit.",
       {}},
  }};
  return presets.at(static_cast<std::size_t>(preset));
}

std::string_view agentEditingTitle(AgentEditingAspectRatio ratio) {
  return ratio == AgentEditingAspectRatio::source ? "Source Aspect Ratio" : nameOf(ratio);
}

std::string_view agentEditingTitle(AgentEditingClickStyle style) {
  switch (style) {
    case AgentEditingClickStyle::solidPulse: return "Solid Pulse";
    case AgentEditingClickStyle::ring: return "Ring";
    case AgentEditingClickStyle::ringAndPress: return "Ring and Press";
  }
  return "";
}

std::string_view agentEditingTitle(AgentEditingWebcamShape shape) {
  switch (shape) {
    case AgentEditingWebcamShape::circle: return "Circle";
    case AgentEditingWebcamShape::roundedRectangle: return "Rounded Rectangle";
  }
  return "";
}

}  // namespace vumo
