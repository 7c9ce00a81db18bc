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
