#pragma once
// What `vumo record` needs of the machine it runs on: the sources it can see, the streams of one
// recording and the movie writer. The desktop implementation speaks X11, PulseAudio and V4L2; tests
// hand in synthetic streams.

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "project/package_lifecycle.h"
#include "project/project_manifest.h"
#include "project/project_recovery.h"
#include "recording/screen_recording_session.h"
#include "shared/geometry.h"
#include "shared/json_fwd.h"
#include "shared/name_table.h"

namespace vumo {

// How the screen is seen: X11 directly, or the desktop's screen-cast portal and PipeWire (the only
// way on a Wayland session).
enum class RecordingBackend { x11, portal };

template <>
struct EnumNames<RecordingBackend> {
  static constexpr std::string_view typeName = "recording backend";
  static constexpr NameTable<RecordingBackend, 2> table{
      {{RecordingBackend::x11, "x11"}, {RecordingBackend::portal, "portal"}}};
};

// Which source the command line named; nothing named is the whole of the default display.
struct RecordSourceRequest {
  // None: the portal on a Wayland session, X11 otherwise.
  std::optional<RecordingBackend> backend;
  // Asks the desktop's dialog again instead of the source it remembers (portal only).
  bool chooseSource = false;
  CaptureSourceKind kind = CaptureSourceKind::display;
  std::optional<std::string> display;   // a monitor's or display's name
  std::optional<std::uint32_t> window;  // none with the portal, whose dialog picks the window
  std::optional<RectValue> area;        // pixels of the display, top-left origin
  std::optional<std::string> devicePath;
  // The rate a screen cast is asked for, which the portal's stream is opened with.
  int framesPerSecond = 60;
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
  virtual void listSources(const RecordSourceRequest& request, Json& answer) = 0;
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
  // Sentences about what this recording lacks (no clicks, a pointer drawn into the picture), for
  // the status line, the answer and the diagnostic report; known once the streams are open.
  virtual std::vector<std::string> recordingNotes() const { return {}; }
  // Called from any thread when the source ends by the desktop's doing (the person pressed "stop
  // sharing"): the recording is finished as on Ctrl-C.
  virtual void onSourceEnded(std::function<void()> handler) { (void)handler; }
};

}  // namespace vumo
