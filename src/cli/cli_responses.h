#pragma once

// Answers of the read and edit commands. Times are whole milliseconds so an agent never meets the
// nanoseconds of the documents. Keys come out sorted; optionals are left out.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "agent/caption_exchange.h"
#include "agent/edit_plan_exchange.h"
#include "cli/cli_models.h"
#include "shared/date.h"
#include "shared/json_fwd.h"
#include "timeline/edit_timeline.h"

namespace vumo {

struct CLIProjectSummary {
  std::string id;
  std::string title;
  std::string packagePath;
  std::int64_t durationMilliseconds = 0;
  bool hasWebcam = false;
  Timestamp updatedAt;
};
void to_json(Json& j, const CLIProjectSummary& v);

struct CLISegmentDescription {
  std::string id;
  std::int64_t sourceStartMilliseconds = 0;
  std::int64_t sourceEndMilliseconds = 0;
  std::int64_t sequenceStartMilliseconds = 0;
  std::int64_t sequenceEndMilliseconds = 0;
  double playbackRate = 1;
};
void to_json(Json& j, const CLISegmentDescription& v);

struct CLIZoomDescription {
  std::int64_t index = 0;
  std::string id;
  std::int64_t sourceStartMilliseconds = 0;
  std::int64_t sourceEndMilliseconds = 0;
  double focusX = 0.5;
  double focusY = 0.5;
  double scale = 1;
};
void to_json(Json& j, const CLIZoomDescription& v);

struct CLISpeedDescription {
  std::int64_t sourceStartMilliseconds = 0;
  std::int64_t sourceEndMilliseconds = 0;
  double playbackRate = 1;
};
void to_json(Json& j, const CLISpeedDescription& v);

struct CLISpanDescription {
  std::int64_t sourceStartMilliseconds = 0;
  std::int64_t sourceEndMilliseconds = 0;
  std::vector<CLIRange> sequenceRanges;
};
void to_json(Json& j, const CLISpanDescription& v);

struct CLIProjectDescription {
  int protocolVersion = 1;
  std::string id;
  std::string packagePath;
  std::int64_t manifestVersion = 0;
  std::int64_t timelineSchema = 0;
  std::string state;
  std::int64_t sourceWidth = 0;
  std::int64_t sourceHeight = 0;
  std::int64_t sourceDurationMilliseconds = 0;
  std::int64_t sequenceDurationMilliseconds = 0;
  std::vector<CLISegmentDescription> segments;
  std::vector<CLIZoomDescription> zooms;
  CanvasEdit canvas;
  CursorEdit cursor;
  AudioMixEdit audio;
  std::optional<WebcamOverlay> webcam;
  std::map<std::string, bool> tracks;
  std::vector<std::int64_t> clickMilliseconds;
  std::int64_t captionCueCount = 0;
  std::optional<std::string> captionLanguage;
  std::string timelineDigest;
};
void to_json(Json& j, const CLIProjectDescription& v);

struct CLIHistoryEntry {
  std::int64_t index = 0;
  std::string fileName;
  std::string timelineDigest;
};
void to_json(Json& j, const CLIHistoryEntry& v);

struct CLIHistoryResponse {
  int protocolVersion = 1;
  std::string projectID;
  std::vector<CLIHistoryEntry> entries;
};
void to_json(Json& j, const CLIHistoryResponse& v);

struct CLITimelineSummary {
  std::int64_t sequenceDurationMilliseconds = 0;
  std::int64_t segmentCount = 0;
  std::int64_t speedSegmentCount = 0;
  std::int64_t zoomCount = 0;
  CanvasEdit canvas;
  CursorEdit cursor;
  std::optional<WebcamOverlay> webcam;
  AudioMixEdit audio;
};
void to_json(Json& j, const CLITimelineSummary& v);

struct CLIZoomReconciliationDescription {
  std::string zoomID;
  CLIRange originalRange;
  std::string action;
  std::vector<CLIRange> resultingRanges;
};
void to_json(Json& j, const CLIZoomReconciliationDescription& v);

struct CLIMutationResponse {
  int protocolVersion = 1;
  bool applied = false;
  std::string projectID;
  std::string timelineDigest;
  std::optional<std::string> resultingDigest;
  CLITimelineSummary before;
  CLITimelineSummary after;
  std::vector<CLIRange> normalizedCuts;
  std::vector<CLIZoomReconciliationDescription> zoomReconciliations;
  std::vector<std::string> warnings;
  std::optional<std::vector<std::string>> confirmationArguments;
};
void to_json(Json& j, const CLIMutationResponse& v);

struct CLICaptionWordDescription {
  std::int64_t startMilliseconds = 0;
  std::int64_t endMilliseconds = 0;
  std::string text;
};
void to_json(Json& j, const CLICaptionWordDescription& v);

struct CLICaptionHighlightDescription {
  std::string text;
  std::int64_t occurrence = 1;
};
void to_json(Json& j, const CLICaptionHighlightDescription& v);

struct CLICaptionCueDescription {
  std::string id;
  std::int64_t sourceStartMilliseconds = 0;
  std::int64_t sourceEndMilliseconds = 0;
  std::vector<CLIRange> sequenceRanges;
  std::string text;
  std::vector<CLICaptionWordDescription> words;
  std::vector<CLICaptionHighlightDescription> highlights;
};
void to_json(Json& j, const CLICaptionCueDescription& v);

struct CLICaptionReadResponse {
  int protocolVersion = 1;
  std::string projectID;
  std::string timeDomain = "source milliseconds";
  std::string timelineDigest;
  std::string captionsDigest;
  std::optional<std::string> language;
  std::optional<std::string> sourceTrack;
  std::vector<CLICaptionCueDescription> cues;
  std::optional<std::string> hint;
};
void to_json(Json& j, const CLICaptionReadResponse& v);

struct CLIIdleResponse {
  int protocolVersion = 1;
  std::string projectID;
  std::string unit = "source milliseconds";
  std::string analyzedTrack;  // the command line's word: "microphone" or "system-audio"
  std::string analysisMethod = "peak-dBFS";
  std::int64_t bucketMilliseconds = 20;
  std::int64_t minimumDurationMilliseconds = 0;
  double silenceThresholdDecibels = 0;
  double estimatedNoiseFloorDecibels = 0;
  double recommendedSilenceDecibels = 0;
  std::int64_t keepTailMilliseconds = 0;
  std::int64_t minimumRemovalMilliseconds = 0;
  std::vector<CLIRange> recommendedCuts;
  std::vector<CLISpanDescription> idleSpans;
  std::vector<CLISpanDescription> silenceSpans;
  std::vector<CLISpanDescription> quietSpans;
  std::int64_t suggestedRate = 3;
  std::string hint = "有声桶不会并入静默；recommendedCuts只来自无声且无鼠标操作的quietSpans；修改前仍必须预演。";
};
void to_json(Json& j, const CLIIdleResponse& v);

struct CLICaptionTimingAdjustmentDescription {
  std::int64_t cueIndex = 0;
  CLIRange originalRange;
  CLIRange adjustedRange;
  std::string action;
};
void to_json(Json& j, const CLICaptionTimingAdjustmentDescription& v);

struct CLICaptionAudioAlignmentDescription {
  std::string analyzedTrack;  // the manifest's word: "systemAudio" or "microphone"
  std::string analysisMethod = "adaptive-peak-dBFS";
  std::int64_t bucketMilliseconds = 20;
  double estimatedNoiseFloorDecibels = 0;
  double activityThresholdDecibels = 0;
  std::vector<CLICaptionTimingAdjustmentDescription> adjustments;
};
void to_json(Json& j, const CLICaptionAudioAlignmentDescription& v);

struct CLICaptionImportResponse {
  int protocolVersion = 1;
  bool applied = false;
  std::string projectID;
  std::int64_t cueCount = 0;
  std::int64_t wordTimingCount = 0;
  std::int64_t highlightedCueCount = 0;
  std::int64_t highlightCount = 0;
  std::string timelineDigest;
  std::string captionsDigest;
  std::optional<std::string> resultingDigest;
  std::optional<CLICaptionAudioAlignmentDescription> audioAlignment;
  std::vector<std::string> warnings;
  std::optional<std::vector<std::string>> confirmationArguments;
};
void to_json(Json& j, const CLICaptionImportResponse& v);

struct CLICaptionPreparationResponse {
  int protocolVersion = 1;
  std::string projectID;
  std::string jobID;
  std::string audioPath;
  std::string resultPath;
  std::string sourceTrack;
  std::string timeDomain = "source milliseconds";
  std::string timelineDigest;
  CaptionExchangeDocument captionFormatExample;
  std::vector<std::string> instructions;
};
void to_json(Json& j, const CLICaptionPreparationResponse& v);

struct CLICaptionGenerationResponse {
  int protocolVersion = 1;
  std::string projectID;
  std::string jobID;
  std::string sourceTrack;
  std::int64_t cueCount = 0;
  std::int64_t wordTimingCount = 0;
  std::string timelineDigest;
  std::string captionsDigest;
  std::string resultPath;
  std::vector<std::string> confirmationArguments;
};
void to_json(Json& j, const CLICaptionGenerationResponse& v);

}  // namespace vumo

namespace vumo {

struct CLICaptionImpactDescription {
  std::string cueID;
  std::string kind;  // "fully-removed", "word-timing-overlap" or "cue-timing-overlap"
  std::vector<CLIRange> affectedCutRanges;
  bool hasWordTimings = false;
  friend bool operator==(const CLICaptionImpactDescription&, const CLICaptionImpactDescription&) = default;
};
void to_json(Json& j, const CLICaptionImpactDescription& v);

// One operation of the plan as the agent wrote it, with its position.
struct CLIEditPlanOperationDescription {
  std::int64_t index = 0;
  EditPlanOperation operation;
};
void to_json(Json& j, const CLIEditPlanOperationDescription& v);

struct CLIEditPlanPreparationResponse {
  int protocolVersion = 1;
  std::string projectID;
  std::string jobID;
  std::string planPath;
  std::string timeDomain = "source milliseconds";
  std::string timelineDigest;
  std::string captionsDigest;
  EditPlanExchangeDocument example;
  std::vector<std::string> instructions;
};
void to_json(Json& j, const CLIEditPlanPreparationResponse& v);

struct CLIEditPlanResponse {
  int protocolVersion = 1;
  bool applied = false;
  std::string projectID;
  std::string jobID;
  std::string timelineDigest;
  std::string captionsDigest;
  std::string planDigest;
  std::optional<std::string> resultingDigest;
  CLITimelineSummary before;
  CLITimelineSummary after;
  std::vector<CLIEditPlanOperationDescription> operations;
  std::vector<CLIRange> normalizedCuts;
  std::vector<CLISpeedDescription> normalizedSpeedChanges;
  std::vector<CLIZoomReconciliationDescription> zoomReconciliations;
  std::vector<CLICaptionImpactDescription> captionImpacts;
  std::vector<std::string> fullyRemovedCaptionIDs;
  std::vector<std::string> splitCaptionIDs;
  std::vector<std::string> warnings;
  std::optional<std::vector<std::string>> confirmationArguments;
};
void to_json(Json& j, const CLIEditPlanResponse& v);

}  // namespace vumo
