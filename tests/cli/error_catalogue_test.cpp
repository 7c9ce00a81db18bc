// Every case of every error family, as a caller sees it: key, table, command-line code and exit
// class, and the English text with a sample payload. The expected lines are the golden file; a
// change to any of them is a change to what users and agents read, and shows up here as a diff.
// Run with VUMO_UPDATE_GOLDEN=1 to rewrite the file after an intended change.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "agent/agent_editing_template_store.h"
#include "agent/edit_plan_exchange.h"
#include "agent/timeline_plan_engine.h"
#include "captions/caption_errors.h"
#include "capture/capture_error.h"
#include "capture/evdev_pointer_buttons.h"
#include "capture/x11_global_shortcuts.h"
#include "cli/cli_errors.h"
#include "cli/prompt_command.h"
#include "editor/project_timeline_watcher.h"
#include "export/export_errors.h"
#include "media/media_errors.h"
#include "media/recording_media_writer.h"
#include "media/still_image.h"
#include "media/video_device_stream.h"
#include "playback/playback_errors.h"
#include "project/project_store_error.h"
#include "recording/free_space_guard.h"
#include "recording/recording_errors.h"
#include "rendering/rendering_errors.h"
#include "timeline/device_frame_catalog.h"
#include "timeline/timeline_edit_engine.h"
#include "timeline/timeline_effect_engine.h"
#include "timeline/timeline_settings_engine.h"
#include "timeline/timeline_speed_engine.h"
#include "timeline/timeline_validation_error.h"
#include "transcription/transcription_errors.h"

#ifndef VUMO_ERROR_CATALOGUE_GOLDEN
#error "VUMO_ERROR_CATALOGUE_GOLDEN must name the golden file"
#endif

namespace vumo {
namespace {

std::string_view exitClassWord(ErrorKind kind) {
  switch (kind) {
    case ErrorKind::invalidArguments: return "invalidArguments";
    case ErrorKind::projectNotFound: return "projectNotFound";
    case ErrorKind::conflict: return "conflict";
    case ErrorKind::validation: return "validation";
    case ErrorKind::failure: return "failure";
  }
  return "?";
}

// A text that runs over several lines stays one line of the listing.
std::string oneLine(std::string text) {
  for (std::size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 2))
    text.replace(at, 1, "\\n");
  return text;
}

[[noreturn]] void unlisted() { throw std::logic_error("a case the test does not know how to build"); }

class CatalogueListing {
 public:
  // One line per row of the family's catalogue, each built from a real error of that case.
  template <class Family, class Make>
  void add(Make make) {
    const auto& catalogue = Family::catalogue();
    for (const auto& row : catalogue.cases) {
      const Family error = make(row.kind);
      if constexpr (requires { error.kind(); }) {
        EXPECT_EQ(error.kind(), row.kind) << row.name;
      }
      const Error& base = error;
      ErrorClassification classification = base.classification();
      lines_.push_back(std::string(catalogue.family) + " | " + std::string(row.name) + " | " + base.localizationKey() +
                       " | " + base.table() + " | " + classification.code + " | " +
                       std::string(exitClassWord(classification.kind)) + " | " + oneLine(base.what()));
    }
  }

  const std::vector<std::string>& lines() const { return lines_; }

 private:
  std::vector<std::string> lines_;
};

std::vector<std::string> everyCase() {
  CatalogueListing listing;
  listing.add<DecodingError>([](auto) { return DecodingError("Expected a string for key kind"); });
  listing.add<FileError>([](auto) { return FileError("Could not read /tmp/sample.json: No such file or directory"); });
  listing.add<UnicodeTextError>([](auto kind) { return UnicodeTextError(kind, "U_ILLEGAL_ARGUMENT_ERROR"); });

  listing.add<TimelineValidationError>([](auto kind) {
    return kind == TimelineValidationError::Case::unsupportedSchema ? TimelineValidationError::unsupportedSchema(12)
                                                                    : TimelineValidationError::of(kind);
  });
  listing.add<TimelineEditError>([](auto kind) { return TimelineEditError(kind); });
  listing.add<TimelineSpeedError>([](auto kind) { return TimelineSpeedError(kind); });
  listing.add<TimelineEffectError>([](auto kind) { return TimelineEffectError(kind); });
  listing.add<TimelineSettingsError>([](TimelineSettingsError::Case kind) {
    switch (kind) {
      case TimelineSettingsError::Case::unknownKey: return TimelineSettingsError::unknownKey("canvas.sparkle");
      case TimelineSettingsError::Case::invalidValue: return TimelineSettingsError::invalidValue("canvas.padding");
      case TimelineSettingsError::Case::webcamUnavailable: return TimelineSettingsError::webcamUnavailable();
    }
    unlisted();
  });
  listing.add<DeviceFrameCatalogError>([](DeviceFrameCatalogError::Case kind) {
    switch (kind) {
      case DeviceFrameCatalogError::Case::missingAsset: return DeviceFrameCatalogError::missingAsset("phone/frame.png");
      case DeviceFrameCatalogError::Case::missingCatalog: return DeviceFrameCatalogError::missingCatalog();
      case DeviceFrameCatalogError::Case::invalidCatalog:
        return DeviceFrameCatalogError::invalidCatalog("device phone has no variants");
    }
    unlisted();
  });

  listing.add<CaptionValidationError>([](auto kind) { return CaptionValidationError(kind); });
  listing.add<CaptionEditingError>([](auto kind) { return CaptionEditingError(kind); });

  listing.add<ProjectStoreError>([](ProjectStoreError::Case kind) {
    using Case = ProjectStoreError::Case;
    switch (kind) {
      case Case::projectNotFound: return ProjectStoreError::projectNotFound("3F2A");
      case Case::ambiguousProjectPrefix: return ProjectStoreError::ambiguousProjectPrefix("3F");
      case Case::timelineDigestConflict: return ProjectStoreError::timelineDigestConflict("old", "new");
      case Case::historyNotFound: return ProjectStoreError::historyNotFound(7);
      case Case::captionsDigestConflict: return ProjectStoreError::captionsDigestConflict("old", "new");
      case Case::invalidProjectLocation: return ProjectStoreError::invalidProjectLocation();
      case Case::timelineLockUnavailable: return ProjectStoreError::timelineLockUnavailable();
    }
    unlisted();
  });

  listing.add<EditPlanValidationError>([](auto kind) { return EditPlanValidationError(kind); });
  listing.add<TimelinePlanError>([](TimelinePlanError::Case kind) {
    using Case = TimelinePlanError::Case;
    switch (kind) {
      case Case::zoomOutsideRetainedContent: return TimelinePlanError::zoomOutsideRetainedContent({}, std::nullopt, {});
      case Case::empty: return TimelinePlanError::empty();
      case Case::tooManyOperations: return TimelinePlanError::tooManyOperations();
      case Case::cutOutsideRetainedContent: return TimelinePlanError::cutOutsideRetainedContent();
    }
    unlisted();
  });

  listing.add<CLIArgumentError>([](CLIArgumentError::Case kind) {
    using Case = CLIArgumentError::Case;
    switch (kind) {
      case Case::unknownCommand: return CLIArgumentError::unknownCommand("frobnicate");
      case Case::missingValue: return CLIArgumentError::missingValue("--id");
      case Case::invalidValue: return CLIArgumentError::invalidValue("--track");
      case Case::unexpectedArgument: return CLIArgumentError::unexpectedArgument("--loud");
      case Case::missingCommand: return CLIArgumentError::missingCommand();
    }
    unlisted();
  });
  listing.add<CLIOutputError>([](CLIOutputError::Case kind) {
    switch (kind) {
      case CLIOutputError::Case::outputExists: return CLIOutputError::outputExists("/tmp/frame.png");
      case CLIOutputError::Case::parentMissing: return CLIOutputError::parentMissing("/tmp/missing");
    }
    unlisted();
  });
  listing.add<CLIIdleError>([](CLIIdleError::Case kind) {
    return kind == CLIIdleError::Case::noAudioTrack ? CLIIdleError::noAudioTrack()
                                                    : CLIIdleError::audioTrackUnavailable("systemAudio");
  });
  listing.add<CLIUnavailableError>([](auto) { return CLIUnavailableError("Export"); });
  listing.add<CLIPromptError>([](CLIPromptError::Case kind) {
    return kind == CLIPromptError::Case::noCaptionAudio ? CLIPromptError::noCaptionAudio()
                                                        : CLIPromptError::capabilityUnavailable("style-webcam");
  });
  listing.add<AgentEditingTemplateStoreError>([](AgentEditingTemplateStoreError::Case kind) {
    return kind == AgentEditingTemplateStoreError::Case::unsupportedSchema
               ? AgentEditingTemplateStoreError::unsupportedSchema(2)
               : AgentEditingTemplateStoreError(kind);
  });
  listing.add<ProjectTimelineWatcherError>([](auto) { return ProjectTimelineWatcherError(); });
  listing.add<MediaModuleError>(
      [](auto) { return MediaModuleError::unavailable("no lib/vumo folder beside the program"); });

  listing.add<MediaContainerError>([](auto kind) { return MediaContainerError(kind, "Invalid data found"); });
  listing.add<TimelineCompositionError>([](TimelineCompositionError::Case kind) {
    using Case = TimelineCompositionError::Case;
    switch (kind) {
      case Case::missingScreenDescription: return TimelineCompositionError::missingScreenDescription();
      case Case::mediaTypeMismatch: return TimelineCompositionError::mediaTypeMismatch(1, "video");
      case Case::missingTrack: return TimelineCompositionError::missingTrack(3);
      case Case::cannotCreateTrack: return TimelineCompositionError::cannotCreateTrack("audio");
      case Case::durationMismatch: return TimelineCompositionError::durationMismatch();
    }
    unlisted();
  });
  listing.add<WaveformServiceError>(
      [](auto kind) { return WaveformServiceError(kind, "The media reader did not finish"); });
  listing.add<SequenceReaderError>([](auto kind) { return SequenceReaderError(kind, "Invalid data found"); });
  listing.add<StillImageError>([](auto kind) { return StillImageError(kind, "40000x40000 pixels"); });
  listing.add<RenderingContextError>([](auto kind) { return RenderingContextError(kind, "1282"); });
  listing.add<SceneRendererError>([](auto kind) { return SceneRendererError(kind); });
  listing.add<ProjectFrameRendererError>([](auto kind) { return ProjectFrameRendererError(kind, "12"); });
  listing.add<ExportConfigurationError>([](auto kind) { return ExportConfigurationError(kind); });
  listing.add<ProjectExporterError>([](auto kind) { return ProjectExporterError(kind, "Broken pipe"); });
  listing.add<ScreenRecordingSessionError>([](auto kind) { return ScreenRecordingSessionError(kind); });
  listing.add<MouseEventRecorderError>([](auto kind) { return MouseEventRecorderError(kind); });
  listing.add<RecordingMediaWriterError>([](RecordingMediaWriterError::Case kind) {
    return RecordingMediaWriterError(
        kind, kind == RecordingMediaWriterError::Case::cannotAddInput ? "microphone" : "No space left on device");
  });
  listing.add<CaptureError>([](auto kind) { return CaptureError(kind, ":99"); });
  listing.add<PointerDeviceError>([](auto kind) { return PointerDeviceError(kind, "Too many open files"); });
  listing.add<VideoDeviceError>([](auto kind) { return VideoDeviceError(kind, "/dev/video4"); });
  listing.add<CaptionAudioExporterError>([](CaptionAudioExporterError::Case kind) {
    return kind == CaptionAudioExporterError::Case::missingTrack
               ? CaptionAudioExporterError::missingTrack(MediaTrackKind::microphone)
               : CaptionAudioExporterError(kind);
  });
  listing.add<CaptionTranscriptionError>([](CaptionTranscriptionError::Case kind) {
    using Case = CaptionTranscriptionError::Case;
    const char* detail = R"({"header":{"event":"task-failed","error_code":"InvalidApiKey"}})";
    switch (kind) {
      case Case::invalidResponse: return CaptionTranscriptionError::invalidResponse(detail);
      case Case::missingTimestamps: return CaptionTranscriptionError::missingTimestamps("");
      case Case::requestFailed: return CaptionTranscriptionError::requestFailed(detail);
      case Case::missingTrack: return CaptionTranscriptionError::missingTrack();
    }
    unlisted();
  });
  listing.add<CloudCredentialError>([](auto kind) { return CloudCredentialError(kind); });
  listing.add<RecordingStorageError>(
      [](auto kind) { return RecordingStorageError(kind, "/home/ada/.local/share/Vumo/Projects"); });
  listing.add<GlobalShortcutError>([](auto kind) { return GlobalShortcutError(kind, "Ctrl+Shift+R"); });
  listing.add<PlaybackError>([](auto kind) { return PlaybackError(kind, "Connection refused"); });
  return listing.lines();
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// A line diff by longest common subsequence: "-" for an expected line that is missing, "+" for
// an actual line that is not expected.
std::string diff(const std::vector<std::string>& expected, const std::vector<std::string>& actual) {
  const std::size_t n = expected.size(), m = actual.size();
  std::vector<std::vector<std::size_t>> common(n + 1, std::vector<std::size_t>(m + 1, 0));
  for (std::size_t i = n; i-- > 0;)
    for (std::size_t j = m; j-- > 0;)
      common[i][j] = expected[i] == actual[j] ? common[i + 1][j + 1] + 1 : std::max(common[i + 1][j], common[i][j + 1]);
  std::string out;
  std::size_t i = 0, j = 0;
  while (i < n || j < m) {
    if (i < n && j < m && expected[i] == actual[j]) {
      ++i;
      ++j;
    } else if (i < n && (j == m || common[i + 1][j] >= common[i][j + 1])) {
      out += "- " + expected[i++] + "\n";
    } else {
      out += "+ " + actual[j++] + "\n";
    }
  }
  return out;
}

TEST(ErrorCatalogue, EveryCaseOfEveryFamilyMatchesTheGoldenFile) {
  const std::string path = VUMO_ERROR_CATALOGUE_GOLDEN;
  std::vector<std::string> actual = everyCase();

  if (std::getenv("VUMO_UPDATE_GOLDEN") != nullptr) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    for (const auto& line : actual) out << line << "\n";
    ASSERT_TRUE(out.good()) << path;
  }

  std::ifstream in(path, std::ios::binary);
  ASSERT_TRUE(in.good()) << "cannot read " << path;
  std::stringstream text;
  text << in.rdbuf();
  std::vector<std::string> expected = linesOf(text.str());
  EXPECT_TRUE(expected == actual) << "The error catalogue differs from " << path << ":\n" << diff(expected, actual);
}

}  // namespace
}  // namespace vumo
