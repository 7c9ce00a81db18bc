#include "project/project_manifest.h"

#include "project/json_fields.h"
#include "shared/json.h"

namespace vumo {

std::string CaptureSourceDescriptor::identifier() const {
  if (kind == CaptureSourceKind::device && deviceUniqueID) return "device-" + *deviceUniqueID;
  return std::string(nameOf(kind)) + "-" + std::to_string(nativeID);
}

void to_json(Json& j, const CaptureSourceDescriptor& v) {
  j = Json{{"kind", v.kind},
           {"nativeID", v.nativeID},
           {"title", v.title},
           {"globalFrame", v.globalFrame},
           {"initialPixelSize", v.initialPixelSize}};
  json::setOptional(j, "applicationName", v.applicationName);
  json::setOptional(j, "areaSourceRect", v.areaSourceRect);
  json::setOptional(j, "pointPixelScale", v.pointPixelScale);
  json::setOptional(j, "deviceUniqueID", v.deviceUniqueID);
}

void from_json(const Json& j, CaptureSourceDescriptor& v) {
  json::requireObject(j, "source");
  v.kind = json::required<CaptureSourceKind>(j, "kind");
  v.nativeID = project_json::requiredUInt32(j, "nativeID");
  v.title = json::required<std::string>(j, "title");
  v.applicationName = json::optional<std::string>(j, "applicationName");
  v.globalFrame = json::required<RectValue>(j, "globalFrame");
  v.initialPixelSize = json::required<PixelSize>(j, "initialPixelSize");
  v.areaSourceRect = json::optional<RectValue>(j, "areaSourceRect");
  v.pointPixelScale = json::optional<double>(j, "pointPixelScale");
  v.deviceUniqueID = json::optional<std::string>(j, "deviceUniqueID");
}

void to_json(Json& j, const RecordingOptions& v) {
  j = Json{{"capturesSystemAudio", v.capturesSystemAudio},
           {"capturesMicrophone", v.capturesMicrophone},
           {"capturesWebcam", v.capturesWebcam},
           {"capturesMenuBar", v.capturesMenuBar},
           {"framesPerSecond", v.framesPerSecond}};
  json::setOptional(j, "microphoneDeviceID", v.microphoneDeviceID);
  json::setOptional(j, "webcamDeviceID", v.webcamDeviceID);
}

void from_json(const Json& j, RecordingOptions& v) {
  json::requireObject(j, "options");
  RecordingOptions defaults;
  v.capturesSystemAudio = json::valueOr(j, "capturesSystemAudio", defaults.capturesSystemAudio);
  v.capturesMicrophone = json::valueOr(j, "capturesMicrophone", defaults.capturesMicrophone);
  v.capturesWebcam = json::valueOr(j, "capturesWebcam", defaults.capturesWebcam);
  v.capturesMenuBar = json::valueOr(j, "capturesMenuBar", defaults.capturesMenuBar);
  v.microphoneDeviceID = json::optional<std::string>(j, "microphoneDeviceID");
  v.webcamDeviceID = json::optional<std::string>(j, "webcamDeviceID");
  v.framesPerSecond = json::valueOr(j, "framesPerSecond", defaults.framesPerSecond);
}

void to_json(Json& j, const MediaTrack& v) { j = Json{{"kind", v.kind}, {"trackIndex", v.trackIndex}}; }

void from_json(const Json& j, MediaTrack& v) {
  json::requireObject(j, "MediaTrack");
  v.kind = json::required<MediaTrackKind>(j, "kind");
  v.trackIndex = json::required<std::int64_t>(j, "trackIndex");
}

void to_json(Json& j, const MediaAsset& v) { j = Json{{"relativePath", v.relativePath}, {"tracks", v.tracks}}; }

void from_json(const Json& j, MediaAsset& v) {
  json::requireObject(j, "media");
  v.relativePath = json::required<std::string>(j, "relativePath");
  const Json& tracks = json::requireKey(j, "tracks");
  json::requireArray(tracks, "tracks");
  v.tracks.clear();
  for (const Json& t : tracks) v.tracks.push_back(json::as<MediaTrack>(t, "tracks"));
}

void to_json(Json& j, const MicrophoneMediaInfo& v) {
  j = Json{{"deviceName", v.deviceName}};
  json::setOptional(j, "deviceID", v.deviceID);
}

void from_json(const Json& j, MicrophoneMediaInfo& v) {
  json::requireObject(j, "microphone");
  v.deviceID = json::optional<std::string>(j, "deviceID");
  v.deviceName = json::required<std::string>(j, "deviceName");
}

void to_json(Json& j, const WebcamMediaInfo& v) {
  j = Json{{"trackIndex", v.trackIndex},
           {"deviceID", v.deviceID},
           {"deviceName", v.deviceName},
           {"pixelSize", v.pixelSize},
           {"framesPerSecond", v.framesPerSecond}};
}

void from_json(const Json& j, WebcamMediaInfo& v) {
  json::requireObject(j, "webcam");
  v.trackIndex = json::required<std::int64_t>(j, "trackIndex");
  v.deviceID = json::required<std::string>(j, "deviceID");
  v.deviceName = json::required<std::string>(j, "deviceName");
  v.pixelSize = json::required<PixelSize>(j, "pixelSize");
  v.framesPerSecond = json::required<std::int64_t>(j, "framesPerSecond");
}

void to_json(Json& j, const RecordingMetrics& v) {
  j = Json{{"videoFrames", v.videoFrames},
           {"droppedVideoFrames", v.droppedVideoFrames},
           {"systemAudioSamples", v.systemAudioSamples},
           {"microphoneSamples", v.microphoneSamples},
           {"mouseEvents", v.mouseEvents},
           {"geometryRevisions", v.geometryRevisions},
           {"maximumClockOffsetNanoseconds", v.maximumClockOffsetNanoseconds}};
  json::setOptional(j, "webcamFrames", v.webcamFrames);
  json::setOptional(j, "droppedWebcamFrames", v.droppedWebcamFrames);
  json::setOptional(j, "webcamInterruptions", v.webcamInterruptions);
  json::setOptional(j, "maximumWebcamOffsetNanoseconds", v.maximumWebcamOffsetNanoseconds);
  json::setOptional(j, "timeDiscontinuities", v.timeDiscontinuities);
  json::setOptional(j, "pauseCount", v.pauseCount);
  json::setOptional(j, "pausedDurationNanoseconds", v.pausedDurationNanoseconds);
  json::setOptional(j, "maximumAVDriftNanoseconds", v.maximumAVDriftNanoseconds);
  json::setOptional(j, "peakResidentMemoryBytes", v.peakResidentMemoryBytes);
  json::setOptional(j, "writerStatus", v.writerStatus);
}

void from_json(const Json& j, RecordingMetrics& v) {
  json::requireObject(j, "metrics");
  v.videoFrames = json::required<std::int64_t>(j, "videoFrames");
  v.droppedVideoFrames = json::required<std::int64_t>(j, "droppedVideoFrames");
  v.systemAudioSamples = json::required<std::int64_t>(j, "systemAudioSamples");
  v.microphoneSamples = json::required<std::int64_t>(j, "microphoneSamples");
  v.webcamFrames = json::optional<std::int64_t>(j, "webcamFrames");
  v.droppedWebcamFrames = json::optional<std::int64_t>(j, "droppedWebcamFrames");
  v.webcamInterruptions = json::optional<std::int64_t>(j, "webcamInterruptions");
  v.maximumWebcamOffsetNanoseconds = json::optional<std::int64_t>(j, "maximumWebcamOffsetNanoseconds");
  v.mouseEvents = json::required<std::int64_t>(j, "mouseEvents");
  v.geometryRevisions = json::required<std::int64_t>(j, "geometryRevisions");
  v.maximumClockOffsetNanoseconds = json::required<std::int64_t>(j, "maximumClockOffsetNanoseconds");
  v.timeDiscontinuities = json::optional<std::int64_t>(j, "timeDiscontinuities");
  v.pauseCount = json::optional<std::int64_t>(j, "pauseCount");
  v.pausedDurationNanoseconds = json::optional<std::int64_t>(j, "pausedDurationNanoseconds");
  v.maximumAVDriftNanoseconds = json::optional<std::int64_t>(j, "maximumAVDriftNanoseconds");
  v.peakResidentMemoryBytes = project_json::optionalUInt64(j, "peakResidentMemoryBytes");
  v.writerStatus = json::optional<std::string>(j, "writerStatus");
}

void to_json(Json& j, const ProjectManifest& v) {
  j = Json{{"version", v.version},     {"id", v.id},
           {"createdAt", v.createdAt}, {"updatedAt", v.updatedAt},
           {"state", v.state},         {"source", v.source},
           {"options", v.options},     {"encodedPixelSize", v.encodedPixelSize},
           {"duration", v.duration},   {"media", v.media},
           {"metrics", v.metrics}};
  json::setOptional(j, "microphone", v.microphone);
  json::setOptional(j, "webcam", v.webcam);
  json::setOptional(j, "cursorAssets", v.cursorAssets);
  json::setOptional(j, "failureReason", v.failureReason);
}

void from_json(const Json& j, ProjectManifest& v) {
  json::requireObject(j, "manifest");
  v.version = json::required<std::int64_t>(j, "version");
  v.id = json::required<Uuid>(j, "id");
  v.createdAt = json::required<Timestamp>(j, "createdAt");
  v.updatedAt = json::required<Timestamp>(j, "updatedAt");
  v.state = json::required<ProjectState>(j, "state");
  v.source = json::required<CaptureSourceDescriptor>(j, "source");
  v.options = json::required<RecordingOptions>(j, "options");
  v.encodedPixelSize = json::required<PixelSize>(j, "encodedPixelSize");
  v.duration = json::required<ProjectTime>(j, "duration");
  v.media = json::required<MediaAsset>(j, "media");
  v.microphone = json::optional<MicrophoneMediaInfo>(j, "microphone");
  v.webcam = json::optional<WebcamMediaInfo>(j, "webcam");
  if (const Json* assets = json::findKey(j, "cursorAssets"); assets != nullptr && !assets->is_null()) {
    json::requireArray(*assets, "cursorAssets");
    std::vector<CursorAssetDescriptor> list;
    list.reserve(assets->size());
    for (const Json& a : *assets) list.push_back(json::as<CursorAssetDescriptor>(a, "cursorAssets"));
    v.cursorAssets = std::move(list);
  } else {
    v.cursorAssets.reset();
  }
  v.metrics = json::required<RecordingMetrics>(j, "metrics");
  v.failureReason = json::optional<std::string>(j, "failureReason");
}

std::string encodeProjectManifest(const ProjectManifest& manifest) { return encodeDocument(Json(manifest)); }

ProjectManifest decodeProjectManifest(std::string_view bytes) {
  Json document = parseJson(bytes);
  return json::as<ProjectManifest>(document, "manifest");
}

}  // namespace vumo
