#include "cli/recording_start.h"

#include "project/project_store.h"

namespace vumo {

RecordingOptions recordingOptions(const RecordStreamRequest& request) {
  RecordingOptions options;
  options.capturesSystemAudio = request.systemAudio;
  options.capturesMicrophone = request.microphone;
  options.capturesWebcam = request.camera;
  options.capturesMenuBar = true;
  options.microphoneDeviceID = request.microphoneSource;
  options.webcamDeviceID = request.cameraPath;
  options.framesPerSecond = request.framesPerSecond;
  return options;
}

StartedRecording startRecording(RecordingPlatform& platform, ProjectStore& store, const CaptureSourceDescriptor& source,
                                const RecordStreamRequest& request, RecordingSessionSettings settings) {
  platform.watchSource(source, settings);
  RecordingCaptureStreams streams = platform.openStreams(source, request);
  StartedRecording started;
  started.notes = platform.recordingNotes();
  settings.notes = started.notes;
  started.session = ScreenRecordingSession::create(store, source, recordingOptions(request), std::move(streams),
                                                   platform.writerFactory(), std::move(settings),
                                                   platform.microphoneConfiguration(request));
  try {
    started.session->start();
  } catch (...) {
    started.session->discard();
    throw;
  }
  return started;
}

}  // namespace vumo
