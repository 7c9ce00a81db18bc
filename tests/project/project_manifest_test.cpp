#include "project/project_manifest.h"

#include <gtest/gtest.h>

#include <functional>

#include "project/diagnostic_report.h"
#include "project/project_package.h"
#include "project/project_store_error.h"
#include "shared/error.h"
#include "shared/json.h"

namespace vumo {
namespace {

ProjectManifest fullManifest() {
  ProjectManifest m;
  m.id = *Uuid::parse("AB12CD34-0000-4000-8000-000000000001");
  m.createdAt = *Timestamp::parseISO8601("2026-01-02T03:04:05Z");
  m.updatedAt = *Timestamp::parseISO8601("2026-01-02T03:09:05Z");
  m.state = ProjectState::completed;
  m.source.kind = CaptureSourceKind::window;
  m.source.nativeID = 4'000'000'000u;
  m.source.title = "Terminal";
  m.source.applicationName = "xterm";
  m.source.globalFrame = {10, 20, 800, 600};
  m.source.initialPixelSize = {1600, 1200};
  m.source.pointPixelScale = 2;
  m.options.microphoneDeviceID = "mic-1";
  m.options.framesPerSecond = 30;
  m.encodedPixelSize = {1600, 1200};
  m.duration = ProjectTime::fromMilliseconds(12'345);
  m.media.tracks = {{MediaTrackKind::screen, 0}, {MediaTrackKind::systemAudio, 2}, {MediaTrackKind::microphone, 3}};
  m.microphone = MicrophoneMediaInfo{std::nullopt, "USB Microphone"};
  m.webcam = WebcamMediaInfo{1, "cam-1", "Webcam", {1280, 720}, 30};
  m.cursorAssets = std::vector<CursorAssetDescriptor>{
      {std::string(64, 'a'), "cursor/assets/" + std::string(64, 'a') + ".png", {16, 24}, {1, 2}}};
  m.metrics.videoFrames = 740;
  m.metrics.mouseEvents = 12;
  m.metrics.maximumClockOffsetNanoseconds = -5;
  m.metrics.peakResidentMemoryBytes = 18'000'000'000'000'000'000ull;
  m.metrics.writerStatus = "completed";
  return m;
}

Json minimalManifestJson() {
  return parseJson(R"({
    "version": 4, "id": "AB12CD34-0000-4000-8000-000000000001",
    "createdAt": "2026-01-02T03:04:05Z", "updatedAt": "2026-01-02T03:04:05Z", "state": "recording",
    "source": {"kind": "display", "nativeID": 1, "title": "Display",
               "globalFrame": {"x": 0, "y": 0, "width": 100, "height": 50},
               "initialPixelSize": {"width": 200, "height": 100}},
    "options": {}, "encodedPixelSize": {"width": 200, "height": 100}, "duration": {"nanoseconds": 0},
    "media": {"relativePath": "media/recording.mov", "tracks": [{"kind": "screen", "trackIndex": 0}]},
    "metrics": {"videoFrames": 0, "droppedVideoFrames": 0, "systemAudioSamples": 0, "microphoneSamples": 0,
                "mouseEvents": 0, "geometryRevisions": 0, "maximumClockOffsetNanoseconds": 0}
  })");
}

TEST(ProjectManifest, RoundTripsEveryFieldAndWritesSortedPrettyJson) {
  ProjectManifest m = fullManifest();
  std::string text = encodeProjectManifest(m);
  EXPECT_EQ(decodeProjectManifest(text), m);
  EXPECT_EQ(text.substr(0, 4), "{\n  ");
  EXPECT_LT(text.find("\"createdAt\""), text.find("\"duration\""));
  EXPECT_NE(text.find("\"createdAt\": \"2026-01-02T03:04:05Z\""), std::string::npos);
  EXPECT_EQ(encodeProjectManifest(decodeProjectManifest(text)), text);
}

TEST(ProjectManifest, MinimalDocumentTakesTheRecordingOptionDefaults) {
  ProjectManifest m = json::as<ProjectManifest>(minimalManifestJson(), "");
  EXPECT_EQ(m.options, RecordingOptions{});
  EXPECT_TRUE(m.options.capturesSystemAudio);
  EXPECT_TRUE(m.options.capturesMicrophone);
  EXPECT_FALSE(m.options.capturesWebcam);
  EXPECT_TRUE(m.options.capturesMenuBar);
  EXPECT_EQ(m.options.framesPerSecond, 60);
  EXPECT_FALSE(m.cursorAssets.has_value());
}

TEST(ProjectManifest, AbsentOptionalsAreLeftOutNotWrittenAsNull) {
  ProjectManifest m = json::as<ProjectManifest>(minimalManifestJson(), "");
  Json written = parseJson(encodeProjectManifest(m));
  for (const char* key : {"microphone", "webcam", "cursorAssets", "failureReason"})
    EXPECT_FALSE(written.contains(key)) << key;
  for (const char* key : {"applicationName", "areaSourceRect", "pointPixelScale", "deviceUniqueID"})
    EXPECT_FALSE(written["source"].contains(key)) << key;
  for (const char* key : {"webcamFrames", "pauseCount", "peakResidentMemoryBytes", "writerStatus"})
    EXPECT_FALSE(written["metrics"].contains(key)) << key;
  EXPECT_FALSE(written["options"].contains("microphoneDeviceID"));
}

TEST(ProjectManifest, RequiredKeysAndBadValuesFailToDecode) {
  struct Case {
    const char* name;
    std::function<void(Json&)> damage;
  };
  const Case cases[] = {
      {"no options", [](Json& j) { j.erase("options"); }},
      {"no id", [](Json& j) { j.erase("id"); }},
      {"no metrics", [](Json& j) { j.erase("metrics"); }},
      {"null state", [](Json& j) { j["state"] = nullptr; }},
      {"unknown state", [](Json& j) { j["state"] = "paused"; }},
      {"bad date", [](Json& j) { j["createdAt"] = "yesterday"; }},
      {"negative native id", [](Json& j) { j["source"]["nativeID"] = -1; }},
      {"native id above 32 bits", [](Json& j) { j["source"]["nativeID"] = 4294967296ll; }},
      {"fractional frame count", [](Json& j) { j["metrics"]["videoFrames"] = 1.5; }},
      {"negative peak memory", [](Json& j) { j["metrics"]["peakResidentMemoryBytes"] = -1; }},
      {"unknown track kind", [](Json& j) { j["media"]["tracks"][0]["kind"] = "camera"; }},
      {"tracks not an array", [](Json& j) { j["media"]["tracks"] = Json::object(); }},
      {"options not an object", [](Json& j) { j["options"] = 1; }},
      {"webcam without size",
       [](Json& j) {
         j["webcam"] = Json{{"trackIndex", 1}, {"deviceID", "c"}, {"deviceName", "C"}, {"framesPerSecond", 30}};
       }},
      {"cursor asset without hot spot",
       [](Json& j) {
         j["cursorAssets"] =
             Json::array({Json{{"id", "a"}, {"relativePath", "p"}, {"logicalSize", {{"width", 1}, {"height", 1}}}}});
       }},
  };
  for (const auto& c : cases) {
    Json j = minimalManifestJson();
    c.damage(j);
    EXPECT_THROW(decodeProjectManifest(j.dump()), DecodingError) << c.name;
  }
  EXPECT_THROW(decodeProjectManifest("{"), DecodingError);
}

TEST(ProjectManifest, ASourceIdentifierNamesItsKindAndId) {
  CaptureSourceDescriptor s;
  s.nativeID = 42;
  s.kind = CaptureSourceKind::display;
  EXPECT_EQ(s.identifier(), "display-42");
  s.kind = CaptureSourceKind::window;
  EXPECT_EQ(s.identifier(), "window-42");
  s.kind = CaptureSourceKind::area;
  EXPECT_EQ(s.identifier(), "area-42");
  s.kind = CaptureSourceKind::device;
  EXPECT_EQ(s.identifier(), "device-42");
  s.deviceUniqueID = "00008110-ABC";
  EXPECT_EQ(s.identifier(), "device-00008110-ABC");
}

TEST(ProjectPackage, DerivesEveryPathFromTheRoot) {
  ProjectPackage p{"/p/X.vumo"};
  EXPECT_EQ(p.manifestPath(), "/p/X.vumo/manifest.json");
  EXPECT_EQ(p.mediaPath(), "/p/X.vumo/media/recording.mov");
  EXPECT_EQ(p.mouseEventsDirectory(), "/p/X.vumo/events");
  EXPECT_EQ(p.geometryDirectory(), "/p/X.vumo/geometry");
  EXPECT_EQ(p.cursorEventsDirectory(), "/p/X.vumo/cursor/events");
  EXPECT_EQ(p.cursorAssetsDirectory(), "/p/X.vumo/cursor/assets");
  EXPECT_EQ(p.timelinePath(), "/p/X.vumo/edits/timeline.json");
  EXPECT_EQ(p.timelineLockPath(), "/p/X.vumo/edits/.timeline.lock");
  EXPECT_EQ(p.timelineHistoryDirectory(), "/p/X.vumo/edits/history");
  EXPECT_EQ(p.preSchema3TimelineBackupPath(), "/p/X.vumo/edits/timeline.pre-schema3.json");
  EXPECT_EQ(p.preSchema8TimelineBackupPath(), "/p/X.vumo/edits/timeline.pre-schema8.json");
  EXPECT_EQ(p.captionsPath(), "/p/X.vumo/edits/captions.json");
  EXPECT_EQ(p.captionsLockPath(), "/p/X.vumo/edits/.captions.lock");
  EXPECT_EQ(p.captionsHistoryDirectory(), "/p/X.vumo/edits/caption-history");
  EXPECT_EQ(p.canvasBackgroundsDirectory(), "/p/X.vumo/assets/backgrounds");
  EXPECT_EQ(p.reportPath(), "/p/X.vumo/diagnostics/report.json");
  EXPECT_EQ(p.waveformCacheDirectory(), "/p/X.vumo/cache/waveform");
}

TEST(ProjectStoreError, ConflictsKeepBothDigests) {
  // Keys, texts and classification of every case are in the golden error catalogue.
  auto conflict = ProjectStoreError::timelineDigestConflict("old", "new");
  EXPECT_EQ(conflict.expectedDigest(), "old");
  EXPECT_EQ(conflict.actualDigest(), "new");
}

TEST(DiagnosticReport, SummarisesTheManifestAndRoundTrips) {
  ProjectManifest m = fullManifest();
  m.failureReason = "disk full";
  DiagnosticReport report = DiagnosticReport::make(m, true, {"camera disconnected"});
  EXPECT_EQ(report.projectID, m.id);
  EXPECT_EQ(report.sourceIdentifier, "window-4000000000");
  EXPECT_TRUE(report.hasWebcam);
  EXPECT_TRUE(report.recovered);
  EXPECT_EQ(report.failureReason, "disk full");
  EXPECT_EQ(decodeDiagnosticReport(encodeDiagnosticReport(report)), report);
}

}  // namespace
}  // namespace vumo
