#include "ui/application_model.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "agent/agent_editing_template_store.h"
#include "agent/edit_plan_exchange.h"
#include "agent/timeline_plan_engine.h"
#include "captions/caption_errors.h"
#include "capture/capture_error.h"
#include "capture/evdev_pointer_buttons.h"
#include "cli/cli_errors.h"
#include "cli/prompt_command.h"
#include "editor/project_timeline_watcher.h"
#include "export/export_errors.h"
#include "media/media_errors.h"
#include "media/recording_media_writer.h"
#include "media/still_image.h"
#include "media/video_device_stream.h"
#include "project/project_store_error.h"
#include "recording/recording_errors.h"
#include "rendering/rendering_errors.h"
#include "shared/error.h"
#include "timeline/device_frame_catalog.h"
#include "timeline/timeline_edit_engine.h"
#include "timeline/timeline_effect_engine.h"
#include "timeline/timeline_settings_engine.h"
#include "timeline/timeline_speed_engine.h"
#include "timeline/timeline_validation_error.h"
#include "transcription/transcription_errors.h"
#include "ui/library_catalogue.h"
#include "ui/user_messages.h"

namespace vumo {
namespace {

using Phase = ApplicationPhase;

// What the views saw: every phase change and every message, in order.
struct Recorder {
  std::vector<Phase> phases;
  std::vector<std::string> messages;

  ApplicationModel::Observer observer() {
    return {[this](Phase phase) { phases.push_back(phase); },
            [this](const std::string& message) { messages.push_back(message); }};
  }
};

// The shortest way from the library to each phase, through the model's own transitions.
void driveTo(ApplicationModel& model, Phase target) {
  auto step = [](bool moved) { ASSERT_TRUE(moved); };
  switch (target) {
    case Phase::library: return;
    case Phase::choosingSource: step(model.chooseSource()); return;
    case Phase::countdown:
      step(model.chooseSource());
      step(model.beginCountdown());
      return;
    case Phase::recording:
      driveTo(model, Phase::countdown);
      step(model.recordingStarted());
      return;
    case Phase::finishing:
      driveTo(model, Phase::recording);
      step(model.stopRecording());
      return;
    case Phase::editing: step(model.openProject("3F2A")); return;
    case Phase::exporting:
      step(model.openProject("3F2A"));
      step(model.exportStarted());
      return;
  }
}

struct Action {
  const char* name;
  std::function<bool(ApplicationModel&)> apply;
};

const std::vector<Action>& everyAction() {
  static const std::vector<Action> actions = {
      {"chooseSource", [](ApplicationModel& m) { return m.chooseSource(); }},
      {"cancel", [](ApplicationModel& m) { return m.cancel(); }},
      {"beginCountdown", [](ApplicationModel& m) { return m.beginCountdown(); }},
      {"recordingStarted", [](ApplicationModel& m) { return m.recordingStarted(); }},
      {"stopRecording", [](ApplicationModel& m) { return m.stopRecording(); }},
      {"recordingFinished", [](ApplicationModel& m) { return m.recordingFinished("9C1D"); }},
      {"recordingDiscarded", [](ApplicationModel& m) { return m.recordingDiscarded(); }},
      {"openProject", [](ApplicationModel& m) { return m.openProject("9C1D"); }},
      {"closeEditor", [](ApplicationModel& m) { return m.closeEditor(); }},
      {"exportStarted", [](ApplicationModel& m) { return m.exportStarted(); }},
      {"exportEnded", [](ApplicationModel& m) { return m.exportEnded(); }},
  };
  return actions;
}

const std::vector<Phase> everyPhase = {Phase::library,   Phase::choosingSource, Phase::countdown, Phase::recording,
                                       Phase::finishing, Phase::editing,        Phase::exporting};

// Every transition the application allows; every other pair of phase and request is refused.
const std::map<std::pair<Phase, std::string>, Phase> allowed = {
    {{Phase::library, "chooseSource"}, Phase::choosingSource},
    {{Phase::library, "openProject"}, Phase::editing},
    {{Phase::choosingSource, "cancel"}, Phase::library},
    {{Phase::choosingSource, "beginCountdown"}, Phase::countdown},
    {{Phase::countdown, "cancel"}, Phase::library},
    {{Phase::countdown, "recordingStarted"}, Phase::recording},
    {{Phase::recording, "stopRecording"}, Phase::finishing},
    {{Phase::recording, "recordingFinished"}, Phase::editing},
    {{Phase::recording, "recordingDiscarded"}, Phase::library},
    {{Phase::finishing, "recordingFinished"}, Phase::editing},
    {{Phase::finishing, "recordingDiscarded"}, Phase::library},
    {{Phase::editing, "closeEditor"}, Phase::library},
    {{Phase::editing, "exportStarted"}, Phase::exporting},
    {{Phase::exporting, "exportEnded"}, Phase::editing},
};

TEST(ApplicationModel, StartsInTheLibraryWithNoProject) {
  ApplicationModel model;
  EXPECT_EQ(model.phase(), Phase::library);
  EXPECT_FALSE(model.openProjectID());
}

TEST(ApplicationModel, EveryRequestInEveryPhaseMovesOnlyAsAllowedAndTellsTheViewsOnce) {
  for (Phase from : everyPhase) {
    for (const auto& action : everyAction()) {
      SCOPED_TRACE(std::string(nameOf(from)) + " + " + action.name);
      Recorder views;
      ApplicationModel model(views.observer());
      driveTo(model, from);
      ASSERT_EQ(model.phase(), from);
      const auto before = model.openProjectID();
      views.phases.clear();

      const bool moved = action.apply(model);

      auto expected = allowed.find({from, action.name});
      if (expected == allowed.end()) {
        EXPECT_FALSE(moved);
        EXPECT_EQ(model.phase(), from);
        EXPECT_EQ(model.openProjectID(), before);
        EXPECT_TRUE(views.phases.empty());
      } else {
        EXPECT_TRUE(moved);
        EXPECT_EQ(model.phase(), expected->second);
        EXPECT_EQ(views.phases, std::vector<Phase>{expected->second});
      }
      EXPECT_TRUE(views.messages.empty());
    }
  }
}

TEST(ApplicationModel, TheOpenProjectIsTheOneRecordedOrOpenedAndLeavesWithTheEditor) {
  ApplicationModel model;
  driveTo(model, Phase::finishing);
  EXPECT_FALSE(model.openProjectID());
  ASSERT_TRUE(model.recordingFinished("9C1D"));
  EXPECT_EQ(model.openProjectID(), "9C1D");
  ASSERT_TRUE(model.exportStarted());
  EXPECT_EQ(model.openProjectID(), "9C1D") << "the export is of the project the editor shows";
  ASSERT_TRUE(model.exportEnded());
  ASSERT_TRUE(model.closeEditor());
  EXPECT_FALSE(model.openProjectID());
  ASSERT_TRUE(model.openProject("3F2A"));
  EXPECT_EQ(model.openProjectID(), "3F2A");
  EXPECT_FALSE(model.openProject("9C1D")) << "one editor at a time";
  EXPECT_EQ(model.openProjectID(), "3F2A");
}

TEST(ApplicationModel, AFailureInEachPhaseLandsWhereAPersonCanGoOnAndIsShownOnce) {
  struct Case {
    Phase from;
    Phase to;
    bool keepsProject;
  };
  const Case cases[] = {
      {Phase::library, Phase::library, false},
      {Phase::choosingSource, Phase::library, false},  // the source picker could not list sources
      {Phase::countdown, Phase::library, false},       // a failed start
      {Phase::recording, Phase::library, false},
      {Phase::finishing, Phase::library, false},
      {Phase::editing, Phase::editing, true},
      {Phase::exporting, Phase::editing, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(nameOf(c.from)));
    Recorder views;
    ApplicationModel model(views.observer());
    driveTo(model, c.from);
    views.phases.clear();

    EXPECT_TRUE(model.fail(ProjectStoreError::timelineLockUnavailable()));

    EXPECT_EQ(model.phase(), c.to);
    EXPECT_EQ(views.phases, c.from == c.to ? std::vector<Phase>{} : std::vector<Phase>{c.to});
    ASSERT_EQ(views.messages.size(), 1u);
    EXPECT_EQ(views.messages[0], ProjectStoreError::timelineLockUnavailable().what());
    EXPECT_EQ(model.openProjectID().has_value(), c.keepsProject);
  }
}

TEST(ApplicationModel, AFailedStartReturnsToTheLibraryAndTheNextStartIsAllowed) {
  Recorder views;
  ApplicationModel model(views.observer());
  driveTo(model, Phase::countdown);
  views.phases.clear();
  model.fail(CaptureError(CaptureError::Case::displayUnavailable, ":99"));
  EXPECT_EQ(views.phases, std::vector<Phase>{Phase::library});
  EXPECT_EQ(views.messages,
            std::vector<std::string>{
                "Unable to connect to the X display :99. Recording needs an X11 session (check DISPLAY)."});
  EXPECT_TRUE(model.chooseSource());
  EXPECT_EQ(views.messages.size(), 1u) << "an earlier failure is not shown again";
}

TEST(ApplicationModel, EveryObserverFollowsThePhaseAndAnObserverMayDriveTheModelFurther) {
  Recorder window;
  std::vector<Phase> flow;
  ApplicationModel model(window.observer());
  // The recording flow starts the countdown as soon as the source is chosen, from inside the
  // notification; both views must see both phases in order.
  model.addObserver({[&](Phase phase) {
                       flow.push_back(phase);
                       if (phase == Phase::choosingSource) model.beginCountdown();
                     },
                     nullptr});
  ASSERT_TRUE(model.chooseSource());
  EXPECT_EQ(model.phase(), Phase::countdown);
  EXPECT_EQ(window.phases, (std::vector<Phase>{Phase::choosingSource, Phase::countdown}));
  EXPECT_EQ(flow, (std::vector<Phase>{Phase::choosingSource, Phase::countdown}));
  model.fail(std::runtime_error("The camera went away."));
  EXPECT_EQ(window.messages, std::vector<std::string>{"The camera went away."}) << "the flow shows no messages";
}

TEST(ApplicationModel, PhasesHaveTheirWords) {
  const std::pair<Phase, const char*> words[] = {
      {Phase::library, "library"},     {Phase::choosingSource, "choosing-source"},
      {Phase::countdown, "countdown"}, {Phase::recording, "recording"},
      {Phase::finishing, "finishing"}, {Phase::editing, "editing"},
      {Phase::exporting, "exporting"},
  };
  for (const auto& [phase, word] : words) {
    EXPECT_EQ(nameOf(phase), word);
    EXPECT_EQ(parseName<Phase>(word), phase);
  }
}

// One error of each family of the program, failing a recording that runs: each reaches the person
// once, as its catalogue's English text.
TEST(ApplicationModel, AnErrorOfEachFamilyIsShownOnceInItsCatalogueWords) {
  struct Injected {
    const char* family;
    std::function<void()> raise;
    const char* message;
  };
  const Injected families[] = {
      {"DecodingError", [] { throw DecodingError("Expected a string for key kind"); },
       "Expected a string for key kind"},
      {"FileError", [] { throw FileError("Could not read /tmp/sample.json: No such file or directory"); },
       "Could not read /tmp/sample.json: No such file or directory"},
      {"UnicodeTextError",
       [] { throw UnicodeTextError(UnicodeTextError::Case::unreadable, "U_ILLEGAL_ARGUMENT_ERROR"); },
       "Caption text could not be read as Unicode (U_ILLEGAL_ARGUMENT_ERROR)."},
      {"TimelineValidationError", [] { throw TimelineValidationError::unsupportedSchema(12); },
       "Timeline Schema 12 is not supported."},
      {"TimelineEditError", [] { throw TimelineEditError(TimelineEditError::Case::noSegmentAtPlayhead); },
       "The playhead is not within a clip that can be split."},
      {"TimelineSpeedError", [] { throw TimelineSpeedError(TimelineSpeedError::Case::invalidRate); },
       "Playback speed must be a finite value from 0.50 to 4.00 in increments of 0.01."},
      {"TimelineEffectError", [] { throw TimelineEffectError(TimelineEffectError::Case::zoomNotFound); },
       "The selected Auto Zoom segment could not be found."},
      {"TimelineSettingsError", [] { throw TimelineSettingsError::unknownKey("canvas.sparkle"); },
       "Unsupported setting: canvas.sparkle"},
      {"DeviceFrameCatalogError", [] { throw DeviceFrameCatalogError::missingAsset("phone/frame.png"); },
       "The device frame image phone/frame.png is missing."},
      {"CaptionValidationError", [] { throw CaptionValidationError(CaptionValidationError::Case::unsupportedSchema); },
       "This caption format version is not supported."},
      {"CaptionEditingError", [] { throw CaptionEditingError(CaptionEditingError::Case::cueNotFound); },
       "The selected caption could not be found."},
      {"ProjectStoreError", [] { throw ProjectStoreError::projectNotFound("3F2A"); }, "Project not found: 3F2A"},
      {"EditPlanValidationError", [] { throw EditPlanValidationError(EditPlanValidationError::Case::invalidDocument); },
       "Edit Plan Schema 1/2/3文档无效。"},
      {"TimelinePlanError", [] { throw TimelinePlanError::zoomOutsideRetainedContent({}, std::nullopt, {}); },
       "The entire zoom range must fit within content retained after cutting."},
      {"CLIArgumentError", [] { throw CLIArgumentError::unknownCommand("frobnicate"); }, "未知命令：frobnicate"},
      {"CLIOutputError", [] { throw CLIOutputError::outputExists("/tmp/frame.png"); },
       "输出已存在，使用--replace才能覆盖：/tmp/frame.png"},
      {"CLIIdleError", [] { throw CLIIdleError::audioTrackUnavailable("systemAudio"); },
       "项目不包含所选静默分析音轨：systemAudio"},
      {"CLIUnavailableError", [] { throw CLIUnavailableError("Export"); },
       "Export is not available in this build of Vumo."},
      {"CLIPromptError", [] { throw CLIPromptError::noCaptionAudio(); },
       "项目没有可用于生成字幕的麦克风或系统声音轨。"},
      {"AgentEditingTemplateStoreError", [] { throw AgentEditingTemplateStoreError::unsupportedSchema(2); },
       "Unsupported template file version: 2"},
      {"ProjectTimelineWatcherError", [] { throw ProjectTimelineWatcherError(); },
       "The project editing folder could not be monitored."},
      {"MediaModuleError", [] { throw MediaModuleError::unavailable("no lib/vumo folder beside the program"); },
       "The media component of Vumo could not be loaded: no lib/vumo folder beside the program"},
      {"MediaContainerError",
       [] { throw MediaContainerError(MediaContainerError::Case::notRegularFile, "Invalid data found"); },
       "The project media is not a regular file."},
      {"TimelineCompositionError", [] { throw TimelineCompositionError::missingScreenDescription(); },
       "The manifest has no screen track description."},
      {"WaveformServiceError",
       [] {
         throw WaveformServiceError(WaveformServiceError::Case::unsupportedTrack, "The media reader did not finish");
       },
       "The selected track is not an audio track that supports waveforms."},
      {"SequenceReaderError",
       [] { throw SequenceReaderError(SequenceReaderError::Case::unsupportedStream, "Invalid data found"); },
       "The project media track cannot be decoded: Invalid data found"},
      {"StillImageError", [] { throw StillImageError(StillImageError::Case::unsupportedFormat, "40000x40000 pixels"); },
       "The image is neither a PNG nor a JPEG file."},
      {"RenderingContextError", [] { throw RenderingContextError(RenderingContextError::Case::unavailable, "1282"); },
       "This computer could not create the required OpenGL rendering pipeline."},
      {"SceneRendererError", [] { throw SceneRendererError(SceneRendererError::Case::encoderUnavailable); },
       "An OpenGL render command encoder could not be created."},
      {"ProjectFrameRendererError",
       [] { throw ProjectFrameRendererError(ProjectFrameRendererError::Case::command, "12"); },
       "An OpenGL command buffer could not be created for the frame."},
      {"ExportConfigurationError",
       [] { throw ExportConfigurationError(ExportConfigurationError::Case::originalResolutionRequiresSourceAspect); },
       "Original resolution requires the source aspect ratio."},
      {"ProjectExporterError",
       [] { throw ProjectExporterError(ProjectExporterError::Case::missingVideo, "Broken pipe"); },
       "The project has no screen video track."},
      {"ScreenRecordingSessionError",
       [] { throw ScreenRecordingSessionError(ScreenRecordingSessionError::Case::invalidFrameMetadata); },
       "X11 returned invalid frame metadata."},
      {"MouseEventRecorderError",
       [] { throw MouseEventRecorderError(MouseEventRecorderError::Case::eventTapUnavailable); },
       "Unable to monitor mouse events. Check that the X server offers the XInput2 extension."},
      {"RecordingMediaWriterError",
       [] { throw RecordingMediaWriterError(RecordingMediaWriterError::Case::cannotAddInput, "microphone"); },
       "Unable to create the microphone media track."},
      {"CaptureError", [] { throw CaptureError(CaptureError::Case::displayUnavailable, ":99"); },
       "Unable to connect to the X display :99. Recording needs an X11 session (check DISPLAY)."},
      {"PointerDeviceError",
       [] { throw PointerDeviceError(PointerDeviceError::Case::inputDevicesFailed, "Too many open files"); },
       "The pointer devices could not be read: Too many open files"},
      {"VideoDeviceError", [] { throw VideoDeviceError(VideoDeviceError::Case::notFound, "/dev/video4"); },
       "The video device /dev/video4 is not connected."},
      {"CaptionAudioExporterError", [] { throw CaptionAudioExporterError::missingTrack(MediaTrackKind::microphone); },
       "The project has no microphone audio track available for captions."},
      {"CaptionTranscriptionError", [] { throw CaptionTranscriptionError::missingTrack(); },
       "No selected audio track is available for captions."},
      {"CloudCredentialError", [] { throw CloudCredentialError(CloudCredentialError::Case::missing); },
       "Add an Alibaba Cloud Bailian API key first."},
      {"LibraryError", [] { throw LibraryError(LibraryError::Case::alreadyInLibrary, "3F2A.vumo"); },
       "The project 3F2A.vumo is already in the library."},
  };
  for (const auto& injected : families) {
    SCOPED_TRACE(injected.family);
    Recorder views;
    ApplicationModel model(views.observer());
    driveTo(model, Phase::recording);
    try {
      injected.raise();
      ADD_FAILURE() << "nothing thrown";
    } catch (const std::exception& error) {
      ASSERT_NE(dynamic_cast<const Error*>(&error), nullptr) << "not an error family of the program";
      model.fail(error);
      EXPECT_EQ(views.messages, std::vector<std::string>{injected.message});
    }
    EXPECT_EQ(model.phase(), Phase::library);
  }
}

TEST(UserMessages, ExceptionsFromOutsideTheFamiliesStillReadAsSentences) {
  struct Case {
    std::function<void()> raise;
    std::string message;
  };
  const Case cases[] = {
      {[] { throw CancelledError(); }, "The operation was cancelled."},
      {[] { throw std::bad_alloc(); }, "There is not enough memory to finish this."},
      {[] { throw std::runtime_error("The camera went away."); }, "The camera went away."},
      {[] { throw std::runtime_error(""); }, "Something went wrong."},
  };
  for (const auto& c : cases) {
    try {
      c.raise();
    } catch (const std::exception& error) {
      EXPECT_EQ(userMessageFor(error), c.message);
    }
  }
}

}  // namespace
}  // namespace vumo
