#include "cli/cli_responses.h"

#include "shared/json.h"

namespace vumo {

void to_json(Json& j, const CLIProjectSummary& v) {
  j = Json{{"id", v.id},
           {"title", v.title},
           {"packagePath", v.packagePath},
           {"durationMilliseconds", v.durationMilliseconds},
           {"hasWebcam", v.hasWebcam},
           {"updatedAt", v.updatedAt}};
}

void to_json(Json& j, const CLISegmentDescription& v) {
  j = Json{{"id", v.id},
           {"sourceStartMilliseconds", v.sourceStartMilliseconds},
           {"sourceEndMilliseconds", v.sourceEndMilliseconds},
           {"sequenceStartMilliseconds", v.sequenceStartMilliseconds},
           {"sequenceEndMilliseconds", v.sequenceEndMilliseconds},
           {"playbackRate", v.playbackRate}};
}

void to_json(Json& j, const CLIZoomDescription& v) {
  j = Json{{"index", v.index},
           {"id", v.id},
           {"sourceStartMilliseconds", v.sourceStartMilliseconds},
           {"sourceEndMilliseconds", v.sourceEndMilliseconds},
           {"focusX", v.focusX},
           {"focusY", v.focusY},
           {"scale", v.scale}};
}

void to_json(Json& j, const CLISpeedDescription& v) {
  j = Json{{"sourceStartMilliseconds", v.sourceStartMilliseconds},
           {"sourceEndMilliseconds", v.sourceEndMilliseconds},
           {"playbackRate", v.playbackRate}};
}

void to_json(Json& j, const CLISpanDescription& v) {
  j = Json{{"sourceStartMilliseconds", v.sourceStartMilliseconds},
           {"sourceEndMilliseconds", v.sourceEndMilliseconds},
           {"sequenceRanges", v.sequenceRanges}};
}

void to_json(Json& j, const CLIProjectDescription& v) {
  j = Json{{"protocolVersion", v.protocolVersion},
           {"id", v.id},
           {"packagePath", v.packagePath},
           {"manifestVersion", v.manifestVersion},
           {"timelineSchema", v.timelineSchema},
           {"state", v.state},
           {"sourceWidth", v.sourceWidth},
           {"sourceHeight", v.sourceHeight},
           {"sourceDurationMilliseconds", v.sourceDurationMilliseconds},
           {"sequenceDurationMilliseconds", v.sequenceDurationMilliseconds},
           {"segments", v.segments},
           {"zooms", v.zooms},
           {"canvas", v.canvas},
           {"cursor", v.cursor},
           {"audio", v.audio},
           {"tracks", v.tracks},
           {"clickMilliseconds", v.clickMilliseconds},
           {"captionCueCount", v.captionCueCount},
           {"timelineDigest", v.timelineDigest}};
  json::setOptional(j, "webcam", v.webcam);
  json::setOptional(j, "captionLanguage", v.captionLanguage);
}

void to_json(Json& j, const CLIHistoryEntry& v) {
  j = Json{{"index", v.index}, {"fileName", v.fileName}, {"timelineDigest", v.timelineDigest}};
}

void to_json(Json& j, const CLIHistoryResponse& v) {
  j = Json{{"protocolVersion", v.protocolVersion}, {"projectID", v.projectID}, {"entries", v.entries}};
}

void to_json(Json& j, const CLITimelineSummary& v) {
  j = Json{{"sequenceDurationMilliseconds", v.sequenceDurationMilliseconds},
           {"segmentCount", v.segmentCount},
           {"speedSegmentCount", v.speedSegmentCount},
           {"zoomCount", v.zoomCount},
           {"canvas", v.canvas},
           {"cursor", v.cursor},
           {"audio", v.audio}};
  json::setOptional(j, "webcam", v.webcam);
}

void to_json(Json& j, const CLIZoomReconciliationDescription& v) {
  j = Json{{"zoomID", v.zoomID},
           {"originalRange", v.originalRange},
           {"action", v.action},
           {"resultingRanges", v.resultingRanges}};
}

void to_json(Json& j, const CLIMutationResponse& v) {
  j = Json{{"protocolVersion", v.protocolVersion},
           {"applied", v.applied},
           {"projectID", v.projectID},
           {"timelineDigest", v.timelineDigest},
           {"before", v.before},
           {"after", v.after},
           {"normalizedCuts", v.normalizedCuts},
           {"zoomReconciliations", v.zoomReconciliations},
           {"warnings", v.warnings}};
  json::setOptional(j, "resultingDigest", v.resultingDigest);
  json::setOptional(j, "confirmationArguments", v.confirmationArguments);
}

void to_json(Json& j, const CLICaptionWordDescription& v) {
  j = Json{{"startMilliseconds", v.startMilliseconds}, {"endMilliseconds", v.endMilliseconds}, {"text", v.text}};
}

void to_json(Json& j, const CLICaptionHighlightDescription& v) {
  j = Json{{"text", v.text}, {"occurrence", v.occurrence}};
}

void to_json(Json& j, const CLICaptionCueDescription& v) {
  j = Json{{"id", v.id},
           {"sourceStartMilliseconds", v.sourceStartMilliseconds},
           {"sourceEndMilliseconds", v.sourceEndMilliseconds},
           {"sequenceRanges", v.sequenceRanges},
           {"text", v.text},
           {"words", v.words},
           {"highlights", v.highlights}};
}

void to_json(Json& j, const CLICaptionReadResponse& v) {
  j = Json{{"protocolVersion", v.protocolVersion}, {"projectID", v.projectID},           {"timeDomain", v.timeDomain},
           {"timelineDigest", v.timelineDigest},   {"captionsDigest", v.captionsDigest}, {"cues", v.cues}};
  json::setOptional(j, "language", v.language);
  json::setOptional(j, "sourceTrack", v.sourceTrack);
  json::setOptional(j, "hint", v.hint);
}

void to_json(Json& j, const CLIIdleResponse& v) {
  j = Json{{"protocolVersion", v.protocolVersion},
           {"projectID", v.projectID},
           {"unit", v.unit},
           {"analyzedTrack", v.analyzedTrack},
           {"analysisMethod", v.analysisMethod},
           {"bucketMilliseconds", v.bucketMilliseconds},
           {"minimumDurationMilliseconds", v.minimumDurationMilliseconds},
           {"silenceThresholdDecibels", v.silenceThresholdDecibels},
           {"estimatedNoiseFloorDecibels", v.estimatedNoiseFloorDecibels},
           {"recommendedSilenceDecibels", v.recommendedSilenceDecibels},
           {"keepTailMilliseconds", v.keepTailMilliseconds},
           {"minimumRemovalMilliseconds", v.minimumRemovalMilliseconds},
           {"recommendedCuts", v.recommendedCuts},
           {"idleSpans", v.idleSpans},
           {"silenceSpans", v.silenceSpans},
           {"quietSpans", v.quietSpans},
           {"suggestedRate", v.suggestedRate},
           {"hint", v.hint}};
}

void to_json(Json& j, const CLICaptionTimingAdjustmentDescription& v) {
  j = Json{{"cueIndex", v.cueIndex},
           {"originalRange", v.originalRange},
           {"adjustedRange", v.adjustedRange},
           {"action", v.action}};
}

void to_json(Json& j, const CLICaptionAudioAlignmentDescription& v) {
  j = Json{{"analyzedTrack", v.analyzedTrack},
           {"analysisMethod", v.analysisMethod},
           {"bucketMilliseconds", v.bucketMilliseconds},
           {"estimatedNoiseFloorDecibels", v.estimatedNoiseFloorDecibels},
           {"activityThresholdDecibels", v.activityThresholdDecibels},
           {"adjustments", v.adjustments}};
}

void to_json(Json& j, const CLICaptionImportResponse& v) {
  j = Json{{"protocolVersion", v.protocolVersion},
           {"applied", v.applied},
           {"projectID", v.projectID},
           {"cueCount", v.cueCount},
           {"wordTimingCount", v.wordTimingCount},
           {"highlightedCueCount", v.highlightedCueCount},
           {"highlightCount", v.highlightCount},
           {"timelineDigest", v.timelineDigest},
           {"captionsDigest", v.captionsDigest},
           {"warnings", v.warnings}};
  json::setOptional(j, "resultingDigest", v.resultingDigest);
  json::setOptional(j, "audioAlignment", v.audioAlignment);
  json::setOptional(j, "confirmationArguments", v.confirmationArguments);
}

void to_json(Json& j, const CLICaptionPreparationResponse& v) {
  j = Json{{"protocolVersion", v.protocolVersion},
           {"projectID", v.projectID},
           {"jobID", v.jobID},
           {"audioPath", v.audioPath},
           {"resultPath", v.resultPath},
           {"sourceTrack", v.sourceTrack},
           {"timeDomain", v.timeDomain},
           {"timelineDigest", v.timelineDigest},
           {"captionFormatExample", v.captionFormatExample},
           {"instructions", v.instructions}};
}

void to_json(Json& j, const CLICaptionGenerationResponse& v) {
  j = Json{{"protocolVersion", v.protocolVersion},
           {"projectID", v.projectID},
           {"jobID", v.jobID},
           {"sourceTrack", v.sourceTrack},
           {"cueCount", v.cueCount},
           {"wordTimingCount", v.wordTimingCount},
           {"timelineDigest", v.timelineDigest},
           {"captionsDigest", v.captionsDigest},
           {"resultPath", v.resultPath},
           {"confirmationArguments", v.confirmationArguments}};
}

}  // namespace vumo

namespace vumo {

void to_json(Json& j, const CLICaptionImpactDescription& v) {
  j = Json{{"cueID", v.cueID},
           {"kind", v.kind},
           {"affectedCutRanges", v.affectedCutRanges},
           {"hasWordTimings", v.hasWordTimings}};
}

void to_json(Json& j, const CLIEditPlanOperationDescription& v) {
  j = v.operation;
  j["index"] = v.index;
}

void to_json(Json& j, const CLIEditPlanPreparationResponse& v) {
  j = Json{{"protocolVersion", v.protocolVersion},
           {"projectID", v.projectID},
           {"jobID", v.jobID},
           {"planPath", v.planPath},
           {"timeDomain", v.timeDomain},
           {"timelineDigest", v.timelineDigest},
           {"captionsDigest", v.captionsDigest},
           {"example", v.example},
           {"instructions", v.instructions}};
}

void to_json(Json& j, const CLIEditPlanResponse& v) {
  j = Json{{"protocolVersion", v.protocolVersion},
           {"applied", v.applied},
           {"projectID", v.projectID},
           {"jobID", v.jobID},
           {"timelineDigest", v.timelineDigest},
           {"captionsDigest", v.captionsDigest},
           {"planDigest", v.planDigest},
           {"before", v.before},
           {"after", v.after},
           {"operations", v.operations},
           {"normalizedCuts", v.normalizedCuts},
           {"normalizedSpeedChanges", v.normalizedSpeedChanges},
           {"zoomReconciliations", v.zoomReconciliations},
           {"captionImpacts", v.captionImpacts},
           {"fullyRemovedCaptionIDs", v.fullyRemovedCaptionIDs},
           {"splitCaptionIDs", v.splitCaptionIDs},
           {"warnings", v.warnings}};
  json::setOptional(j, "resultingDigest", v.resultingDigest);
  json::setOptional(j, "confirmationArguments", v.confirmationArguments);
}

}  // namespace vumo
