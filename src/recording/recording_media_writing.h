#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "capture/capture_streams.h"
#include "shared/geometry.h"
#include "shared/project_time.h"

namespace vumo {

enum class RecordingStreamType { screen, systemAudio, microphone };

struct WebcamCaptureConfiguration {
  std::string deviceID;
  std::string deviceName;
  PixelSize pixelSize;
  int framesPerSecond = 30;
};

struct RecordingWriterConfiguration {
  std::filesystem::path url;  // the package's movie; an existing file is replaced
  PixelSize size;             // the screen's encoded size, even on both sides
  int framesPerSecond = 60;
  bool capturesSystemAudio = false;
  bool capturesMicrophone = false;
  std::optional<WebcamCaptureConfiguration> webcam;
  // "auto" probes VAAPI, then NVENC, then takes libx264; "libx264" forces software encoding.
  std::string encoderPreference = "auto";
};

struct RecordingWriterResult {
  ProjectTime duration;
  std::int64_t videoFrames = 0;
  std::int64_t droppedVideoFrames = 0;
  std::int64_t systemAudioSamples = 0;
  std::int64_t microphoneSamples = 0;
  std::int64_t webcamFrames = 0;
  std::int64_t droppedWebcamFrames = 0;
  std::int64_t maximumWebcamOffsetNanoseconds = 0;
  std::int64_t maximumAVDriftNanoseconds = 0;
};

// The movie of one recording, written as it happens. Every sample arrives already placed on the
// paused-out output timeline (`outputPresentationNanoseconds`, on the host timebase like the
// frame's own time). No call blocks on the encoder: a busy encoder costs a dropped, counted
// frame. Calls come from one thread (the session's capture thread); `finish` and `cancel` after
// that thread has been drained.
class RecordingMediaWriting {
 public:
  virtual ~RecordingMediaWriting() = default;
  virtual void appendVideo(const VideoFrame& frame, std::int64_t outputPresentationNanoseconds) = 0;
  virtual void appendAudio(const AudioBuffer& buffer, RecordingStreamType type,
                           std::int64_t outputPresentationNanoseconds) = 0;
  virtual void appendWebcam(const VideoFrame& frame, std::int64_t outputPresentationNanoseconds) = 0;
  virtual RecordingWriterResult finish() = 0;
  virtual void cancel() = 0;
  // The video encoder that opened ("h264_vaapi", "h264_nvenc", "libx264"), for the diagnostic report.
  virtual std::string videoEncoderName() const = 0;
};

}  // namespace vumo
