#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "capture/capture_streams.h"
#include "project/package_lifecycle.h"
#include "project/project_manifest.h"
#include "recording/recording_control_region.h"
#include "recording/recording_media_writing.h"
#include "recording/recording_session.h"
#include "shared/geometry.h"
#include "timeline/edit_timeline.h"

namespace vumo {

class ProjectStore;
class RecordingSessionCore;

// The streams one recording takes in; the session owns them from construction on and starts and
// stops them itself.
struct RecordingCaptureStreams {
  std::unique_ptr<VideoCaptureStream> video;  // required: the screen, or the device
  // Given when the options capture system audio or the microphone; the writer has a track for
  // each option that is on, whether or not a stream feeds it.
  std::unique_ptr<AudioCaptureStream> systemAudio;
  std::unique_ptr<AudioCaptureStream> microphone;
  // Screen sources only; without them no pointer events or cursor shapes are recorded.
  std::unique_ptr<PointerEventStream> pointer;
  std::unique_ptr<CursorShapeProvider> cursorShapes;
  // A camera stream and its configuration come together. Its frames carry host times.
  std::unique_ptr<VideoCaptureStream> camera;
  std::optional<WebcamCaptureConfiguration> cameraConfiguration;
};

// Makes the movie writer once the package exists (the real one opens an FFmpeg muxer; tests hand
// in a fake). It may throw; the session's constructor then throws it.
using RecordingMediaWriterFactory =
    std::function<std::unique_ptr<RecordingMediaWriting>(const RecordingWriterConfiguration&)>;

struct RecordingSessionSettings {
  // The writer's encoder choice, passed through ("auto" or "libx264").
  std::string encoderPreference = "auto";
  // A window source's current frame in global coordinates, none when the window is gone; probed
  // at most 10 times a second of recording. Without it the source's own frame stands.
  std::function<std::optional<RectValue>()> windowFrameProbe;
  // For an area source: whether the display still contains the area at the recorded scale. Run
  // every `areaCheckInterval` on a thread of its own; false (or a throw) ends the recording with
  // sourceRectBecameInvalid (or what was thrown).
  std::function<bool()> areaSourceCheck;
  std::chrono::milliseconds areaCheckInterval{1000};
  // Every live status update, throttled to 10 a second except for transport changes. Any thread.
  std::function<void(const RecordingLiveStatus&)> liveStatusHandler;
  // The text of the first fatal error, once, from any thread (a stream's, the capture thread, the
  // monitor). The owner answers with `fail` from its own thread, never from inside the handler.
  std::function<void(const std::string&)> failureHandler;
  // Screen frames waiting for the capture thread beyond this many are dropped and counted: a
  // stalled writer shows up as drops, never as a blocked capture.
  std::size_t maximumPendingFrames = 5;
  std::chrono::milliseconds cursorProbeInterval{34};
  // None: the process-wide store.
  RecordingControlRegionStore* controlRegionStore = nullptr;
  // The camera overlay chosen before the recording; `WebcamOverlay::newRecording()` when none.
  std::optional<WebcamOverlay> webcamOverlay;
  // What the platform already knows this recording lacks (no clicks, a pointer drawn into the
  // picture): the first notes of the diagnostic report.
  std::vector<std::string> notes;
};

// One recording of a display, a window or an area, from the first frame to the finished package.
//
// Threads: the owner calls the RecordingSession operations from one thread. Every stream delivers
// on its own thread and hands its samples to the session's capture thread, which retimes them
// over pauses, places them on the recording's clock and appends them to the writer and the chunk
// stores. Pointer events are placed on the pointer stream's thread, cursor shapes are probed by a
// sampling thread every 34 ms, an area source is checked once a second by a thread of its own.
// Every failure on any of them ends up in one latched slot: the owner hears the first one through
// `failureHandler`, and `stop` throws the latest.
class ScreenRecordingSession : public RecordingSession {
 public:
  // `project` is the package that `store.createProject` made for this recording, with the source
  // and options in its manifest; a source of kind `device` is recorded as DeviceRecordingSession
  // says. The store must outlive the session and is used on the owner's
  // thread only (stop, discard, fail).
  ScreenRecordingSession(ProjectStore& store, CreatedProject project, RecordingCaptureStreams streams,
                         const RecordingMediaWriterFactory& writerFactory, RecordingSessionSettings settings = {});
  // Dropped without stop, discard or fail, it stops the streams and leaves the package as a crash
  // would, for recovery.
  ~ScreenRecordingSession() override;

  // Creates the package (encoded at the video stream's size) and the session over it; a session
  // that cannot be made (the writer did not open) takes the new package away again.
  static std::unique_ptr<ScreenRecordingSession> create(
      ProjectStore& store, const CaptureSourceDescriptor& source, const RecordingOptions& options,
      RecordingCaptureStreams streams, const RecordingMediaWriterFactory& writerFactory,
      RecordingSessionSettings settings = {},
      const std::optional<RecordingMicrophoneConfiguration>& microphone = std::nullopt);

  void start() override;
  void pause() override;
  void resume() override;
  RecordingSessionResult stop() override;
  void discard() override;
  void fail(const std::string& reason) noexcept override;

  // The interface may move the camera overlay while recording; the first timeline takes it.
  void setWebcamOverlay(const std::optional<WebcamOverlay>& overlay);
  // Returns once every sample delivered so far has been handled by the capture thread.
  void drainCaptureQueue();
  RecordingLiveStatus liveStatus() const;
  RecordingMetrics metrics() const;
  // Whether a frame has reached the writer: before it, ending the recording leaves nothing worth
  // keeping.
  bool hasFirstFrame() const;
  // Frames given to the writer so far (the writer may still drop some when it is behind).
  std::int64_t framesHandedOver() const;
  std::vector<std::string> diagnosticNotes() const;
  const ProjectPackage& package() const;

 protected:
  explicit ScreenRecordingSession(std::unique_ptr<RecordingSessionCore> core);

 private:
  std::unique_ptr<RecordingSessionCore> core_;
};

// A recording of a USB phone or tablet: the same session over the device's video stream. The
// geometry is the device's pixel size; there are no pointer events and no cursor shapes.
class DeviceRecordingSession final : public ScreenRecordingSession {
 public:
  // The manifest's source must be of kind `device`; `streams.pointer` and `streams.cursorShapes`
  // stay unused.
  DeviceRecordingSession(ProjectStore& store, CreatedProject project, RecordingCaptureStreams streams,
                         const RecordingMediaWriterFactory& writerFactory, RecordingSessionSettings settings = {});
};

}  // namespace vumo
