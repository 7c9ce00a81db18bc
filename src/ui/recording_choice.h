#pragma once

// What the person chose to record, in the words `vumo record` takes: the same request goes to the
// same platform, so the application and the command line record alike.

#include "cli/recording_platform.h"
#include "project/project_manifest.h"

namespace vumo {

struct RecordingChoice {
  RecordSourceRequest source;
  RecordStreamRequest streams;
};

// The streams the recording preferences ask for.
inline RecordStreamRequest streamRequestFor(const RecordingOptions& options) {
  RecordStreamRequest request;
  request.framesPerSecond = int(options.framesPerSecond);
  request.systemAudio = options.capturesSystemAudio;
  request.microphone = options.capturesMicrophone;
  request.microphoneSource = options.microphoneDeviceID;
  request.camera = options.capturesWebcam;
  request.cameraPath = options.webcamDeviceID;
  return request;
}

}  // namespace vumo
