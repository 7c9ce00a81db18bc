#include "project/diagnostic_report.h"

#include "shared/json.h"

namespace vumo {

DiagnosticReport DiagnosticReport::make(const ProjectManifest& manifest, bool recovered,
                                        std::vector<std::string> notes) {
  DiagnosticReport report;
  report.generatedAt = Timestamp::now();
  report.projectID = manifest.id;
  report.state = manifest.state;
  report.sourceKind = manifest.source.kind;
  report.sourceIdentifier = manifest.source.identifier();
  report.encodedPixelSize = manifest.encodedPixelSize;
  report.duration = manifest.duration;
  report.framesPerSecond = manifest.options.framesPerSecond;
  report.hasMicrophone = manifest.microphone.has_value();
  report.hasWebcam = manifest.webcam.has_value();
  report.metrics = manifest.metrics;
  report.failureReason = manifest.failureReason;
  report.recovered = recovered;
  report.notes = std::move(notes);
  return report;
}

void to_json(Json& j, const DiagnosticReport& r) {
  j = Json{{"version", r.version},
           {"generatedAt", r.generatedAt},
           {"projectID", r.projectID},
           {"state", r.state},
           {"sourceKind", r.sourceKind},
           {"sourceIdentifier", r.sourceIdentifier},
           {"encodedPixelSize", r.encodedPixelSize},
           {"duration", r.duration},
           {"framesPerSecond", r.framesPerSecond},
           {"hasMicrophone", r.hasMicrophone},
           {"hasWebcam", r.hasWebcam},
           {"metrics", r.metrics},
           {"recovered", r.recovered},
           {"notes", r.notes}};
  json::setOptional(j, "failureReason", r.failureReason);
}

void from_json(const Json& j, DiagnosticReport& r) {
  json::requireObject(j, "DiagnosticReport");
  r.version = json::required<std::int64_t>(j, "version");
  r.generatedAt = json::required<Timestamp>(j, "generatedAt");
  r.projectID = json::required<Uuid>(j, "projectID");
  r.state = json::required<ProjectState>(j, "state");
  r.sourceKind = json::required<CaptureSourceKind>(j, "sourceKind");
  r.sourceIdentifier = json::required<std::string>(j, "sourceIdentifier");
  r.encodedPixelSize = json::required<PixelSize>(j, "encodedPixelSize");
  r.duration = json::required<ProjectTime>(j, "duration");
  r.framesPerSecond = json::required<std::int64_t>(j, "framesPerSecond");
  r.hasMicrophone = json::required<bool>(j, "hasMicrophone");
  r.hasWebcam = json::required<bool>(j, "hasWebcam");
  r.metrics = json::required<RecordingMetrics>(j, "metrics");
  r.failureReason = json::optional<std::string>(j, "failureReason");
  r.recovered = json::required<bool>(j, "recovered");
  const Json& notes = json::requireKey(j, "notes");
  json::requireArray(notes, "notes");
  r.notes.clear();
  for (const Json& note : notes) r.notes.push_back(json::asString(note, "notes"));
}

std::string encodeDiagnosticReport(const DiagnosticReport& report) { return encodeDocument(Json(report)); }

DiagnosticReport decodeDiagnosticReport(std::string_view bytes) {
  return json::as<DiagnosticReport>(parseJson(bytes), "DiagnosticReport");
}

}  // namespace vumo
