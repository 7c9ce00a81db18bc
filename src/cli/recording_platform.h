#pragma once
// What `vumo record` needs of the machine it runs on: the sources it can see, the streams of one
// recording and the movie writer. The desktop implementation speaks X11, PulseAudio and V4L2; tests
// hand in synthetic streams.

#include <chrono>
#include <cstdint>
#include <optional>
#include <stop_token>
#include <string>

#include "project/package_lifecycle.h"
#include "project/project_manifest.h"
#include "project/project_recovery.h"
#include "recording/screen_recording_session.h"
#include "shared/geometry.h"
#include "shared/json_fwd.h"

namespace vumo {

// Which source the command line named; nothing named is the whole of the default display.
struct RecordSourceRequest {
  CaptureSourceKind kind = CaptureSourceKind::display;
  std::optional<std::string> display;  // a monitor's or display's name
  std::optional<std::uint32_t> window;
  std::optional<RectValue> area;  // pixels of the display, top-left origin
  std::optional<std::string> devicePath;
};

struct RecordStreamRequest {
  int framesPerSecond = 60;
  bool systemAudio = false;
  bool microphone = false;
  std::optional<std::string> microphoneSource;  // none: the default source
  bool camera = false;
  std::optional<std::string> cameraPath;  // none: the first camera
};

class RecordingPlatform {
 public:
  virtual ~RecordingPlatform() = default;
  // Displays, windows, audio sources and video devices, as `--list-sources` prints them.
  virtual void listSources(Json& answer) = 0;
  // Refuses what cannot be recorded here (no display, a Wayland session X11 cannot see, a missing
  // window or device) before anything is written.
  // `stop` ends a wait on the person (the desktop's own source dialog) with CancelledError.
  virtual CaptureSourceDescriptor resolve(const RecordSourceRequest& request, std::stop_token stop) = 0;
  virtual RecordingCaptureStreams openStreams(const CaptureSourceDescriptor& source,
                                              const RecordStreamRequest& request) = 0;
  virtual std::optional<RecordingMicrophoneConfiguration> microphoneConfiguration(
      const RecordStreamRequest& request) = 0;
  virtual RecordingMediaWriterFactory writerFactory() = 0;
  // The window probe and the area check of this source, where it has them.
  virtual void watchSource(const CaptureSourceDescriptor& source, RecordingSessionSettings& settings) = 0;
  // How recovery of unfinished recordings reads their movies.
  virtual MediaProbing recordingMediaProbe() = 0;
};

}  // namespace vumo
