#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "project/cursor_records.h"
#include "shared/date.h"
#include "shared/geometry.h"
#include "shared/json_fwd.h"
#include "shared/media_track_kind.h"
#include "shared/name_table.h"
#include "shared/project_time.h"
#include "shared/uuid.h"

namespace vumo {

// recording -> finalizing -> completed, or -> failed; an unfinished package found later becomes
// recovered. Only completed and recovered projects are listed.
enum class ProjectState { recording, finalizing, completed, recovered, failed };

template <>
struct EnumNames<ProjectState> {
  static constexpr std::string_view typeName = "project state";
  static constexpr NameTable<ProjectState, 5> table{{
      {ProjectState::recording, "recording"},
      {ProjectState::finalizing, "finalizing"},
      {ProjectState::completed, "completed"},
      {ProjectState::recovered, "recovered"},
      {ProjectState::failed, "failed"},
  }};
};

enum class CaptureSourceKind { display, window, area, device };

template <>
struct EnumNames<CaptureSourceKind> {
  static constexpr std::string_view typeName = "capture source kind";
  static constexpr NameTable<CaptureSourceKind, 4> table{{
      {CaptureSourceKind::display, "display"},
      {CaptureSourceKind::window, "window"},
      {CaptureSourceKind::area, "area"},
      {CaptureSourceKind::device, "device"},
  }};
};

// What was recorded.
struct CaptureSourceDescriptor {
  CaptureSourceKind kind = CaptureSourceKind::display;
  std::uint32_t nativeID = 0;  // the X11 id of the display or window
  std::string title;
  std::optional<std::string> applicationName;
  RectValue globalFrame;
  PixelSize initialPixelSize;
  std::optional<RectValue> areaSourceRect;
  std::optional<double> pointPixelScale;
  std::optional<std::string> deviceUniqueID;

  // "display-12", "window-7", "area-1", "device-<unique id>"; a device without a unique id falls
  // back to the kind word form.
  std::string identifier() const;

  friend bool operator==(const CaptureSourceDescriptor&, const CaptureSourceDescriptor&) = default;
};

// How it was recorded. Every key may be missing in the file and then takes the default here.
struct RecordingOptions {
  bool capturesSystemAudio = true;
  bool capturesMicrophone = true;
  bool capturesWebcam = false;
  bool capturesMenuBar = true;
  std::optional<std::string> microphoneDeviceID;
  std::optional<std::string> webcamDeviceID;
  std::int64_t framesPerSecond = 60;

  friend bool operator==(const RecordingOptions&, const RecordingOptions&) = default;
};

struct MediaTrack {
  MediaTrackKind kind = MediaTrackKind::screen;
  std::int64_t trackIndex = 0;  // ordinal among the tracks of the media file
  friend bool operator==(const MediaTrack&, const MediaTrack&) = default;
};

struct MediaAsset {
  std::string relativePath = "media/recording.mov";
  std::vector<MediaTrack> tracks;
  friend bool operator==(const MediaAsset&, const MediaAsset&) = default;
};

struct MicrophoneMediaInfo {
  std::optional<std::string> deviceID;
  std::string deviceName;
  friend bool operator==(const MicrophoneMediaInfo&, const MicrophoneMediaInfo&) = default;
};

struct WebcamMediaInfo {
  std::int64_t trackIndex = 0;
  std::string deviceID;
  std::string deviceName;
  PixelSize pixelSize;
  std::int64_t framesPerSecond = 0;
  friend bool operator==(const WebcamMediaInfo&, const WebcamMediaInfo&) = default;
};

struct RecordingMetrics {
  std::int64_t videoFrames = 0;
  std::int64_t droppedVideoFrames = 0;
  std::int64_t systemAudioSamples = 0;
  std::int64_t microphoneSamples = 0;
  std::optional<std::int64_t> webcamFrames;
  std::optional<std::int64_t> droppedWebcamFrames;
  std::optional<std::int64_t> webcamInterruptions;
  std::optional<std::int64_t> maximumWebcamOffsetNanoseconds;
  std::int64_t mouseEvents = 0;
  std::int64_t geometryRevisions = 0;
  std::int64_t maximumClockOffsetNanoseconds = 0;
  std::optional<std::int64_t> timeDiscontinuities;
  std::optional<std::int64_t> pauseCount;
  std::optional<std::int64_t> pausedDurationNanoseconds;
  std::optional<std::int64_t> maximumAVDriftNanoseconds;
  std::optional<std::uint64_t> peakResidentMemoryBytes;
  std::optional<std::string> writerStatus;

  friend bool operator==(const RecordingMetrics&, const RecordingMetrics&) = default;
};

// manifest.json of a package.
struct ProjectManifest {
  static constexpr std::int64_t currentVersion = 4;

  std::int64_t version = currentVersion;
  Uuid id;
  Timestamp createdAt;
  Timestamp updatedAt;
  ProjectState state = ProjectState::recording;
  CaptureSourceDescriptor source;
  RecordingOptions options;
  PixelSize encodedPixelSize;
  ProjectTime duration;  // source duration; 0 until finished
  MediaAsset media;
  std::optional<MicrophoneMediaInfo> microphone;
  std::optional<WebcamMediaInfo> webcam;
  std::optional<std::vector<CursorAssetDescriptor>> cursorAssets;
  RecordingMetrics metrics;
  std::optional<std::string> failureReason;

  friend bool operator==(const ProjectManifest&, const ProjectManifest&) = default;
};

// Document text (pretty, sorted keys) and its strict reading; a bad document is a DecodingError.
std::string encodeProjectManifest(const ProjectManifest& manifest);
ProjectManifest decodeProjectManifest(std::string_view bytes);

void to_json(Json& j, const CaptureSourceDescriptor& v);
void from_json(const Json& j, CaptureSourceDescriptor& v);
void to_json(Json& j, const RecordingOptions& v);
void from_json(const Json& j, RecordingOptions& v);
void to_json(Json& j, const MediaTrack& v);
void from_json(const Json& j, MediaTrack& v);
void to_json(Json& j, const MediaAsset& v);
void from_json(const Json& j, MediaAsset& v);
void to_json(Json& j, const MicrophoneMediaInfo& v);
void from_json(const Json& j, MicrophoneMediaInfo& v);
void to_json(Json& j, const WebcamMediaInfo& v);
void from_json(const Json& j, WebcamMediaInfo& v);
void to_json(Json& j, const RecordingMetrics& v);
void from_json(const Json& j, RecordingMetrics& v);
void to_json(Json& j, const ProjectManifest& v);
void from_json(const Json& j, ProjectManifest& v);

}  // namespace vumo
