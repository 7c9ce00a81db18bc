#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "project/project_manifest.h"
#include "shared/date.h"
#include "shared/json_fwd.h"
#include "shared/project_time.h"
#include "shared/uuid.h"

namespace vumo {

// `diagnostics/report.json`: what support needs to know about how a recording went, without
// opening the media. A summary of the manifest, whether the package was recovered after a crash,
// and the notes the recording collected (camera interruptions, fallbacks).
struct DiagnosticReport {
  static constexpr std::int64_t currentVersion = 1;

  std::int64_t version = currentVersion;
  Timestamp generatedAt;
  Uuid projectID;
  ProjectState state = ProjectState::recording;
  CaptureSourceKind sourceKind = CaptureSourceKind::display;
  std::string sourceIdentifier;  // CaptureSourceDescriptor::identifier()
  PixelSize encodedPixelSize;
  ProjectTime duration;
  std::int64_t framesPerSecond = 60;
  bool hasMicrophone = false;
  bool hasWebcam = false;
  RecordingMetrics metrics;
  std::optional<std::string> failureReason;
  bool recovered = false;
  std::vector<std::string> notes;

  static DiagnosticReport make(const ProjectManifest& manifest, bool recovered, std::vector<std::string> notes);

  friend bool operator==(const DiagnosticReport&, const DiagnosticReport&) = default;
};

void to_json(Json& j, const DiagnosticReport& report);
void from_json(const Json& j, DiagnosticReport& report);
std::string encodeDiagnosticReport(const DiagnosticReport& report);
DiagnosticReport decodeDiagnosticReport(std::string_view bytes);

}  // namespace vumo
