// The briefing a user hands to a local agent: the requirements text of a selection, and the whole
// prompts with the commands that start this very program. Expected texts are written out in
// full, so any change to what an agent reads shows up here.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "agent/agent_editing_requirement_composer.h"
#include "agent/agent_prompt_builder.h"
#include "project/project_snapshot.h"
#include "support/test_support.h"

namespace vumo {
namespace {

using ID = AgentEditingCapabilityID;
using Topic = CLIAgentHelpTopic;

const char* kProject = "0A1B2C3D-4E5F-4061-8273-94A5B6C7D8E9";

struct Tracks {
  bool microphone = true;
  bool systemAudio = true;
  bool camera = false;
  bool captions = false;
};

ProjectSnapshot recording(Tracks tracks) {
  ProjectSnapshot snapshot;
  snapshot.manifest.id = *Uuid::parse(kProject);
  snapshot.manifest.duration = ProjectTime::fromMilliseconds(125'900);  // 2:05, the fraction dropped
  snapshot.manifest.encodedPixelSize = {1920, 1080};
  snapshot.manifest.media.tracks.push_back({MediaTrackKind::screen, 0});
  if (tracks.systemAudio) snapshot.manifest.media.tracks.push_back({MediaTrackKind::systemAudio, 1});
  if (tracks.microphone) snapshot.manifest.media.tracks.push_back({MediaTrackKind::microphone, 2});
  if (tracks.camera) snapshot.manifest.webcam = WebcamMediaInfo{0, "cam", "Camera", {640, 480}, 30};
  if (tracks.captions) {
    CaptionDocument captions;
    captions.cues.push_back(CaptionCue{
        Uuid::random(), ProjectTime::fromMilliseconds(0), ProjectTime::fromMilliseconds(1'000), "Hello", {}, {}});
    snapshot.captions = captions;
  }
  return snapshot;
}

AgentEditingRequirementDraft selecting(std::set<ID> capabilities, std::optional<AgentEditingPreset> preset = {},
                                       std::string additional = {}) {
  AgentEditingRequirementDraft draft;
  draft.preset = preset;
  draft.selectedCapabilities = std::move(capabilities);
  draft.additionalInstructions = std::move(additional);
  return draft;
}

const std::string kEmpty =
    "## My Editing Requirements\nFirst analyze the recording’s content and structure. Propose a conservative editing "
    "plan with reasons, but do not make any changes yet.";
const std::string kExecutionOrder = R"txt(

Execution order:
1. Use existing captions to analyze structure. If there are no captions and semantic editing truly requires them, run captions-prepare for a temporary transcript, but do not run captions-import.
2. Preview and confirm all cuts and speed changes, then commit the Timeline.
3. Run describe and captions-prepare again. Generate, preview, and confirm final captions only with a new task bound to the final Timeline Digest.
4. If the Timeline changes after captions-prepare, discard the old caption task and restart from step 3.)txt";
const std::string kOverallClosing =
    "\n\nOverall instructions apply to every feature; specific instructions refine only their own feature. Stop and "
    "ask if they conflict. Neither may override the safety rules.";
const std::string kConservativeGoal = R"txt(## Editing Goal

Preset: Conservative Review
Analyze first and avoid committing structural edits without clear evidence.

Preset guidance: Return analysis and a conservative preview plan first. Do not propose structural edits unless the evidence is explicit.

)txt";

// ---------------------------------------------------------------------------------------------
// Requirements

TEST(AgentEditingRequirementComposer, TextOfEachKindOfSelection) {
  AgentEditingRequirementDraft specific = selecting({ID::highlightKeywords, ID::removePauses, ID::addZooms});
  specific.capabilityInstructions[ID::removePauses] = "  Keep the intro.\n";
  specific.capabilityInstructions[ID::addZooms] = " \t\n ";  // only white space: no line
  specific.capabilityInstructions[ID::removeWaiting] = "not selected, never shown";

  AgentEditingRequirementDraft options =
      selecting({ID::styleCursor, ID::setAspectRatio, ID::emphasizeClicks, ID::styleWebcam});
  options.options = {AgentEditingAspectRatio::portrait, AgentEditingClickStyle::ringAndPress,
                     AgentEditingWebcamShape::circle};
  AgentEditingRequirementDraft sourceRatio = selecting({ID::setAspectRatio});
  sourceRatio.options.aspectRatio = AgentEditingAspectRatio::source;

  struct Case {
    const char* name;
    AgentEditingRequirementDraft draft;
    std::string expected;
  };
  const std::vector<Case> cases = {
      {"nothing at all", {}, kEmpty},
      {"only white space added", selecting({}, {}, " \n "), kEmpty},
      {"a preset without ticks", selecting({}, AgentEditingPreset::conservative), kConservativeGoal + kEmpty},
      {"a preset without ticks but with overall instructions",
       selecting({}, AgentEditingPreset::conservative, "  Be brief. "),
       kConservativeGoal +
           "## My Editing Requirements\n\nSelected features:\n- Follow the overall instructions without expanding the "
           "scope of changes on your own.\n\nOverall instructions:\nBe brief." +
           kOverallClosing},
      {"overall instructions alone", selecting({}, {}, "Be brief."),
       "## My Editing Requirements\n\nSelected features:\n- Follow the overall instructions without expanding the "
       "scope of changes on your own.\n\nOverall instructions:\nBe brief." +
           kOverallClosing},
      {"catalogue order, trimmed specific instructions, cuts with captions", specific,
       "## My Editing Requirements\n\nSelected features:\n- Remove obvious long pauses that clearly carry no "
       "information. Keep uncertain content.\n  Specific instructions: Keep the intro.\n- Add moderate, "
       "non-overlapping zooms to emphasize key actions.\n- After structural edits are confirmed and committed, read "
       "the final captions. Generate them first if absent, then sparingly highlight key concepts, steps, numbers, "
       "and warnings." +
           kExecutionOrder},
      {"captions alone have no execution order", selecting({ID::correctTerminology, ID::prepareCaptions}),
       "## My Editing Requirements\n\nSelected features:\n- Generate or regenerate final captions only after all "
       "structural edits are confirmed and committed. Preserve the existing global caption style.\n- After "
       "structural edits are confirmed and committed, read the final captions. Generate them first if absent, then "
       "conservatively correct technical terms using the full context."},
      {"options filled in", options,
       "## My Editing Requirements\n\nSelected features:\n- Enable subtle click feedback using the Ring and Press "
       "style.\n- Set the project aspect ratio to 9:16 and check the composition.\n- Set the camera overlay to "
       "Circle, combining 1:1 or the original aspect ratio with rounded corners. Keep the border and shadow "
       "subtle.\n- Improve cursor visibility and size, using Ring and Press for click effects."},
      {"the source ratio by its title", sourceRatio,
       "## My Editing Requirements\n\nSelected features:\n- Set the project aspect ratio to Source Aspect Ratio and "
       "check the composition."},
      {"a speed change with captions and overall instructions",
       selecting({ID::adjustPlaybackSpeed, ID::prepareCaptions}, {}, "Keep it short."),
       "## My Editing Requirements\n\nSelected features:\n- Use the specific instructions to plan which content to "
       "speed up, slow down, or keep at original speed. Explain each segment’s range, speed, and reason.\n- "
       "Generate or regenerate final captions only after all structural edits are confirmed and committed. "
       "Preserve the existing global caption style." +
           kExecutionOrder + "\n\nOverall instructions:\nKeep it short." + kOverallClosing},
  };
  for (const auto& c : cases) EXPECT_EQ(AgentEditingRequirementComposer::text(c.draft), c.expected) << c.name;
}

TEST(AgentEditingRequirementComposer, HelpTopicsComeOnceEachInTheTopicsOrder) {
  struct Case {
    std::set<ID> selected;
    std::vector<Topic> expected;
  };
  const std::vector<Case> cases = {
      {{}, {}},
      {{ID::styleCursor, ID::removeRepetition, ID::removePauses}, {Topic::workflow, Topic::captions, Topic::settings}},
      {{ID::highlightKeywords, ID::addZooms, ID::speedUpWaiting, ID::correctTerminology},
       {Topic::editPlan, Topic::captions}},
  };
  for (const auto& c : cases) EXPECT_EQ(AgentEditingRequirementComposer::helpTopics(selecting(c.selected)), c.expected);
}

TEST(AgentEditingRequirementComposer, APresetDraftKeepsWhatTheRecordingOffers) {
  struct Case {
    AgentEditingPreset preset;
    Tracks tracks;
    std::set<ID> expected;
  };
  const std::vector<Case> cases = {
      {AgentEditingPreset::talkingHead, {}, {ID::removePauses, ID::removeRepetition, ID::prepareCaptions}},
      {AgentEditingPreset::talkingHead, {.microphone = false, .systemAudio = false}, {ID::removePauses}},
      {AgentEditingPreset::talkingHead,
       {.microphone = false, .systemAudio = false, .captions = true},
       {ID::removePauses, ID::removeRepetition}},
      {AgentEditingPreset::tutorial,
       {.microphone = false},
       {ID::speedUpWaiting, ID::prepareCaptions, ID::highlightKeywords}},
      {AgentEditingPreset::conservative, {}, {}},
  };
  for (const auto& c : cases) {
    AgentEditingRequirementDraft draft = AgentEditingRequirementComposer::draft(c.preset, recording(c.tracks));
    EXPECT_EQ(draft.preset, c.preset);
    EXPECT_EQ(draft.selectedCapabilities, c.expected) << nameOf(c.preset);
    EXPECT_TRUE(draft.capabilityInstructions.empty());
    EXPECT_EQ(draft.options,
              (AgentEditingRequirementOptions{AgentEditingAspectRatio::landscape, AgentEditingClickStyle::solidPulse,
                                              AgentEditingWebcamShape::roundedRectangle}));
  }
  EXPECT_FALSE(AgentEditingCapabilityCatalog::isAvailable(ID::styleWebcam, recording({})));
  EXPECT_TRUE(AgentEditingCapabilityCatalog::isAvailable(ID::styleWebcam, recording({.camera = true})));
}

TEST(AgentEditingCapabilityCatalog, ListsTheFourteenInTheirOrderWithTheirWords) {
  const std::vector<std::string> words = {
      "remove-pauses",      "remove-repetition", "remove-waiting",   "speed-up-waiting", "adjust-playback-speed",
      "add-zooms",          "regenerate-zooms",  "emphasize-clicks", "prepare-captions", "correct-terminology",
      "highlight-keywords", "set-aspect-ratio",  "style-webcam",     "style-cursor"};
  ASSERT_EQ(AgentEditingCapabilityCatalog::definitions.size(), words.size());
  for (std::size_t i = 0; i < words.size(); ++i) {
    const auto& definition = AgentEditingCapabilityCatalog::definitions[i];
    EXPECT_EQ(nameOf(definition.id), words[i]);
    EXPECT_EQ(parseName<ID>(words[i]), definition.id);
    EXPECT_NE(definition.group, AgentEditingCapabilityGroup::delivery);
  }
}

// ---------------------------------------------------------------------------------------------
// Prompts

const std::string kEditingRules = R"txt(

## Mandatory Rules
1. Never modify .vumo project files directly. Use only Vumo CLI.
2. Preview every change before writing to disk; report its effects and warnings to me.
3. Wait for my explicit confirmation. The agent must not confirm on my behalf.
4. After confirmation, execute only the confirmationArguments returned by the preview. Stop on a Digest conflict and read the project again.
5. Do not install tools or download models without the user’s explicit approval of the specific proposal. Never upload audio.
6. The interface language does not determine the caption target language. Do not change the target language because of it.

Read the )txt";

std::string editingHeader(std::string_view camera, std::string_view microphone, std::string_view systemAudio) {
  return "Use Vumo’s built-in CLI to edit this screen recording. Vumo has no built-in model: you propose decisions, "
         "while the CLI validates and commits non-destructive changes.\n\n## Recording\n- ID: "
         "0A1B2C3D-4E5F-4061-8273-94A5B6C7D8E9 (commands may use the prefix 0A1B2C3D)\n- Duration: 2:05\n- "
         "Dimensions: 1920×1080\n- Camera track: " +
         std::string(camera) + "\n- Microphone track: " + std::string(microphone) +
         "\n- System audio track: " + std::string(systemAudio);
}

TEST(AgentPromptBuilder, TheEditingPromptOfAPresetWithAQuotedPath) {
  ProjectSnapshot snapshot = recording({});
  AgentEditingRequirementDraft draft = AgentEditingRequirementComposer::draft(AgentEditingPreset::tutorial, snapshot);
  const std::string expected =
      editingHeader("absent", "present", "present") + R"txt(

## Commands
CS='/opt/Vu'\''mo tools/vumo'
"$CS" cli help edit-plan
"$CS" cli help captions
"$CS" cli describe 0A1B2C3D
"$CS" cli idle 0A1B2C3D --min-ms 1500
"$CS" cli captions-prepare 0A1B2C3D --track microphone)txt" +
      kEditingRules +
      R"txt(edit-plan, captions help topics before handling my requirements. Do not guess commands from memory.

## Editing Goal

Preset: Tutorial Video
Keep useful actions, remove empty waiting, and explain the changes.

Preset guidance: Remove only waits with no content value. Keep waits that show the process, and propose a speed change for those instead of deleting them.

## My Editing Requirements

Selected features:
- Keep idle waits that help show the process. Propose speed changes for each segment based on its length and context.
- Generate or regenerate final captions only after all structural edits are confirmed and committed. Preserve the existing global caption style.
- After structural edits are confirmed and committed, read the final captions. Generate them first if absent, then sparingly highlight key concepts, steps, numbers, and warnings.)txt" +
      kExecutionOrder;
  EXPECT_EQ(AgentPromptBuilder::make(snapshot, draft, std::filesystem::path("/opt/Vu'mo tools/vumo")), expected);
}

TEST(AgentPromptBuilder, TheCaptionCommandFollowsTheAudioTracks) {
  struct Case {
    Tracks tracks;
    std::string header;
    std::string captionLine;
  };
  const std::vector<Case> cases = {
      {{.microphone = false, .camera = true},
       editingHeader("present", "absent", "present"),
       "\"$CS\" cli captions-prepare 0A1B2C3D --track system-audio"},
      {{.microphone = false, .systemAudio = false},
       editingHeader("absent", "absent", "absent"),
       "# This project has no audio track for generating captions"},
  };
  for (const auto& c : cases) {
    // Nothing selected: the workflow topic still stands in the commands and the reading list.
    const std::string expected = c.header +
                                 "\n\n## Commands\nCS='/usr/bin/vumo'\n\"$CS\" cli help workflow\n\"$CS\" cli describe "
                                 "0A1B2C3D\n\"$CS\" cli idle 0A1B2C3D --min-ms 1500\n" +
                                 c.captionLine + kEditingRules +
                                 "workflow help topics before handling my requirements. Do not guess commands from "
                                 "memory.\n\n" +
                                 kEmpty;
    EXPECT_EQ(AgentPromptBuilder::make(recording(c.tracks), {}, std::filesystem::path("/usr/bin/vumo")), expected);
  }
}

const std::string kCaptionRules = R"txt(

## Mandatory Rules
1. Work only on captions. Never modify .vumo project files directly.
2. Do not install tools or download models without the user’s explicit approval of the specific proposal. Never upload audio.
3. Preview captions-import and report the result to me first. The agent must not confirm on my behalf.
4. After confirmation, execute only the confirmationArguments returned by the preview. Stop on a Digest conflict and start again.
5. The interface language does not determine the caption target language. Do not change the target language because of it.

Read the captions help first and follow all its transcription, terminology correction, highlighting, and import rules. Do not guess formats from memory.)txt";

TEST(AgentPromptBuilder, CaptionPromptsByModeAndTrack) {
  const std::string project =
      " captions only for this Vumo project. Do not change edits, zooms, canvas, cursor, audio, or export settings. "
      "You "
      "must be able to run Vumo CLI in a local terminal.\n\n## Project\n- ID: 0A1B2C3D-4E5F-4061-8273-94A5B6C7D8E9 "
      "(commands may use the prefix 0A1B2C3D)\n- Caption audio track: ";
  const std::string replaces =
      "This project already has captions. Importing again replaces caption content and manual highlights, but must "
      "preserve the existing global caption style.";
  const std::string first = "This project has no captions yet. The app will load them automatically after import.";
  const std::string commands =
      "\n\n## Commands\nCS='/usr/bin/vumo'\n\"$CS\" cli help captions\n\"$CS\" cli describe "
      "0A1B2C3D\n\"$CS\" cli captions-prepare 0A1B2C3D --track ";
  struct Case {
    Tracks tracks;
    CaptionAgentPromptMode mode;
    MediaTrackKind track;
    std::string expected;
  };
  const std::vector<Case> cases = {
      {{},
       CaptionAgentPromptMode::generate,
       MediaTrackKind::microphone,
       "Generate" + project + "Microphone\n\n" + first + commands +
           "microphone\n# This project has no existing captions" + kCaptionRules},
      {{.microphone = false, .captions = true},
       CaptionAgentPromptMode::regenerate,
       MediaTrackKind::systemAudio,
       "Regenerate" + project + "System Audio\n\n" + replaces + commands +
           "system-audio\n\"$CS\" cli captions-read 0A1B2C3D" + kCaptionRules},
  };
  for (const auto& c : cases) {
    auto prompt = AgentPromptBuilder::makeCaptions(recording(c.tracks), c.mode, std::filesystem::path("/usr/bin/vumo"));
    ASSERT_TRUE(prompt.has_value());
    EXPECT_EQ(prompt->sourceTrack, c.track);
    EXPECT_EQ(prompt->text, c.expected);
  }
  EXPECT_FALSE(AgentPromptBuilder::makeCaptions(recording({.microphone = false, .systemAudio = false}),
                                                CaptionAgentPromptMode::generate,
                                                std::filesystem::path("/usr/bin/vumo"))
                   .has_value());
}

TEST(AgentPromptBuilder, QuotedPathsStayOneShellWord) {
  testing::TemporaryDirectory folder;
  for (std::string path : {"/usr/bin/vumo", "/home/o'neil/My Apps/vumo", "/tmp/'''", "/tmp/$HOME `x` \"y\""}) {
    std::filesystem::path script = folder.path() / "echo.sh";
    std::ofstream(script) << "printf '%s' " << shellQuoted(path) << "\n";
    auto result = testing::runProgram("/bin/sh", {script.string()});
    EXPECT_EQ(result.standardOutput, path);
  }
}

TEST(RunningExecutablePath, FollowsTheLinkDropsDeletedAndPrefersAnAppImage) {
  testing::TemporaryDirectory folder;
  const auto link = [&](const std::string& name, const std::string& target) {
    std::filesystem::path path = folder.path() / name;
    std::filesystem::create_symlink(target, path);
    return path;
  };
  const std::filesystem::path appImage = folder.path() / "Vumo-x86_64.AppImage";
  std::ofstream(appImage) << "ELF";
  const std::filesystem::path installed = link("exe", "/opt/vumo/bin/vumo");
  const std::filesystem::path replaced = link("replaced", "/opt/vumo/bin/vumo (deleted)");

  struct Case {
    const char* name;
    ExecutableLocation location;
    std::filesystem::path expected;
  };
  const std::vector<Case> cases = {
      {"the link's target", {installed, std::nullopt}, "/opt/vumo/bin/vumo"},
      {"a replaced executable", {replaced, std::nullopt}, "/opt/vumo/bin/vumo"},
      {"an AppImage", {replaced, appImage.string()}, appImage},
      {"an empty APPIMAGE", {installed, ""}, "/opt/vumo/bin/vumo"},
      {"an AppImage that is gone", {installed, (folder.path() / "gone.AppImage").string()}, "/opt/vumo/bin/vumo"},
      {"an APPIMAGE naming a folder", {installed, folder.path().string()}, "/opt/vumo/bin/vumo"},
      {"no link to read", {folder.path() / "missing", std::nullopt}, "vumo"},
  };
  for (const auto& c : cases) EXPECT_EQ(runningExecutablePath(c.location), c.expected) << c.name;

  // This test program itself, as the kernel names it.
  EXPECT_EQ(runningExecutablePath({"/proc/self/exe", std::nullopt}), std::filesystem::canonical("/proc/self/exe"));
}

}  // namespace
}  // namespace vumo
