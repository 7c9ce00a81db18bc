#include "cli/cli_models.h"

#include "shared/json.h"
#include "shared/name_table.h"

namespace vumo {

ProjectTimeRange CLIRange::projectTimeRange() const {
  return ProjectTimeRange::fromStartEnd(ProjectTime::fromMilliseconds(startMilliseconds),
                                        ProjectTime::fromMilliseconds(endMilliseconds));
}

CLIRange CLIRange::from(const ProjectTimeRange& range) {
  return {range.start.cliMilliseconds(), range.end().cliMilliseconds()};
}

void to_json(Json& j, const CLIRange& r) {
  j = Json{{"startMilliseconds", r.startMilliseconds}, {"endMilliseconds", r.endMilliseconds}};
}

void from_json(const Json& j, CLIRange& r) {
  r.startMilliseconds = json::required<std::int64_t>(j, "startMilliseconds");
  r.endMilliseconds = json::required<std::int64_t>(j, "endMilliseconds");
}

namespace {

constexpr NameTable<CLIAgentHelpTopic, 5> helpTopicWords{{
    {CLIAgentHelpTopic::workflow, "workflow"},
    {CLIAgentHelpTopic::editPlan, "edit-plan"},
    {CLIAgentHelpTopic::captions, "captions"},
    {CLIAgentHelpTopic::settings, "settings"},
    {CLIAgentHelpTopic::output, "output"},
}};

constexpr NameTable<CaptionTrackSelection, 3> trackSelectionWords{{
    {CaptionTrackSelection::automatic, "auto"},
    {CaptionTrackSelection::microphone, "microphone"},
    {CaptionTrackSelection::systemAudio, "system-audio"},
}};

}  // namespace

std::string_view word(CLIAgentHelpTopic topic) { return nameOf(helpTopicWords, topic); }

std::optional<CLIAgentHelpTopic> helpTopicFromWord(std::string_view text) { return parseName(helpTopicWords, text); }

std::string_view rawValue(CaptionTrackSelection selection) { return nameOf(trackSelectionWords, selection); }

std::optional<CaptionTrackSelection> captionTrackSelectionFromRawValue(std::string_view text) {
  return parseName(trackSelectionWords, text);
}

void to_json(Json& j, const CLIValidationDetails& d) {
  j = Json{{"operation", d.operation}, {"requestedRange", d.requestedRange}, {"normalizedCuts", d.normalizedCuts}};
  json::setOptional(j, "zoomID", d.zoomID);
}

void to_json(Json& j, const CLIErrorResponse& r) {
  j = Json{{"protocolVersion", r.protocolVersion}, {"error", r.error}, {"message", r.message}};
  json::setOptional(j, "details", r.details);
}

void to_json(Json& j, const CLIOutputResponse& r) {
  j = Json{{"protocolVersion", r.protocolVersion}, {"projectID", r.projectID}, {"outputPath", r.outputPath}};
}

void to_json(Json& j, const CLISystemInfoResponse& r) {
  j = Json{{"protocolVersion", r.protocolVersion},
           {"architecture", r.architecture},
           {"chip", r.chip},
           {"logicalCoreCount", r.logicalCoreCount},
           {"memoryBytes", r.memoryBytes},
           {"operatingSystemVersion", r.operatingSystemVersion},
           {"supportsMetal", r.supportsMetal},
           {"availableDiskBytes", r.availableDiskBytes},
           {"privacyNote", r.privacyNote}};
}

}  // namespace vumo
