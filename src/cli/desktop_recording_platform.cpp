#include "cli/desktop_recording_platform.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <mutex>
#include <string_view>

#include "capture/capture_error.h"
#include "capture/cropped_video_stream.h"
#include "capture/evdev_pointer_buttons.h"
#include "capture/pipewire_screen_stream.h"
#include "capture/pulse_audio_stream.h"
#include "capture/screen_cast_portal.h"
#include "capture/x11_cursor_shape_provider.h"
#include "capture/x11_pointer_stream.h"
#include "capture/x11_screen_stream.h"
#include "capture/x11_source_catalogue.h"
#include "capture/x11_window_frame.h"
#include "cli/media_module_loader.h"
#include "shared/json.h"

namespace vumo {

namespace {

const X11DisplayInfo& chosenDisplay(const X11CaptureSources& sources, const std::optional<std::string>& name) {
  if (sources.displays.empty()) throw CaptureError(CaptureError::Case::displayUnavailable);
  if (!name) return sources.displays.front();  // the whole screen
  auto found = std::find_if(sources.displays.begin(), sources.displays.end(),
                            [&](const X11DisplayInfo& display) { return display.name == *name; });
  if (found == sources.displays.end()) throw CaptureError(CaptureError::Case::sourceNotFound, "display " + *name);
  return *found;
}

VideoDeviceRequest deviceRequest(const std::string& path) {
  VideoDeviceRequest request;
  request.deviceID = path;
  return request;
}

// The portal on a Wayland session, where X11 would see only other X11 clients; X11 elsewhere.
RecordingBackend chosenBackend(const RecordSourceRequest& request) {
  if (request.backend) return *request.backend;
  const char* waylandDisplay = std::getenv("WAYLAND_DISPLAY");
  const char* sessionType = std::getenv("XDG_SESSION_TYPE");
  const bool wayland = (waylandDisplay != nullptr && *waylandDisplay != '\0') ||
                       (sessionType != nullptr && std::string_view(sessionType) == "wayland");
  return wayland ? RecordingBackend::portal : RecordingBackend::x11;
}

class DesktopRecordingPlatform : public RecordingPlatform {
 public:
  void listSources(const RecordSourceRequest& request, Json& answer) override {
    const RecordingBackend backend = chosenBackend(request);
    answer["backend"] = nameOf(backend);
    // Each kind of source is listed on its own: a machine without sound still lists its displays.
    if (backend == RecordingBackend::portal) {
      try {
        answer["portal"] = probeScreenCastPortal();
      } catch (const CaptureError& error) {
        answer["portal"] = {{"unavailable", error.what()}};
      }
      const PointerButtonAvailability clicks = pointerButtonAvailability();
      answer["portal"]["clicksAvailable"] = clicks.available;
      if (!clicks.available) answer["portal"]["clicksUnavailable"] = clicks.reason;
    } else {
      try {
        answer["x11"] = listX11CaptureSources({}, ::getpid());
      } catch (const CaptureError& error) {
        answer["x11"] = {{"displays", Json::array()}, {"windows", Json::array()}, {"unavailable", error.what()}};
      }
    }
    try {
      answer["audioSources"] = listPulseAudioSources();
    } catch (const CaptureError& error) {
      answer["audioSources"] = Json::array();
      answer["audioUnavailable"] = error.what();
    }
    Json devices = Json::array();
    for (const VideoDeviceDescription& device : module().listVideoDevices())
      devices.push_back({{"path", device.deviceID}, {"name", device.name}, {"bus", device.bus}});
    answer["videoDevices"] = std::move(devices);
  }

  CaptureSourceDescriptor resolve(const RecordSourceRequest& request, std::stop_token stop) override {
    if (request.kind == CaptureSourceKind::device) {
      device_ = module().makeVideoDeviceStream(deviceRequest(*request.devicePath));
      CaptureSourceDescriptor source;
      source.kind = CaptureSourceKind::device;
      source.title = deviceName(*request.devicePath);
      source.deviceUniqueID = *request.devicePath;
      const PixelSize size = device_->pixelSize();
      source.globalFrame = {0, 0, double(size.width), double(size.height)};
      source.initialPixelSize = size;
      return source;
    }
    backend_ = chosenBackend(request);
    if (backend_ == RecordingBackend::portal) return resolveThroughPortal(request, stop);
    if (!request.window && request.kind == CaptureSourceKind::window)
      throw CaptureError(CaptureError::Case::sourceNotFound, "a window id (see --list-sources)");
    const X11CaptureSources sources = listX11CaptureSources({}, ::getpid());
    switch (request.kind) {
      case CaptureSourceKind::window: {
        auto found = std::find_if(sources.windows.begin(), sources.windows.end(),
                                  [&](const X11WindowInfo& window) { return window.nativeID == *request.window; });
        if (found == sources.windows.end())
          throw CaptureError(CaptureError::Case::sourceNotFound, "window " + std::to_string(*request.window));
        return windowCaptureSource(*found);
      }
      case CaptureSourceKind::area: return areaCaptureSource(chosenDisplay(sources, request.display), *request.area);
      default: return displayCaptureSource(chosenDisplay(sources, request.display));
    }
  }

  RecordingCaptureStreams openStreams(const CaptureSourceDescriptor& source,
                                      const RecordStreamRequest& request) override {
    RecordingCaptureStreams streams;
    if (source.kind == CaptureSourceKind::device) {
      streams.video = std::move(device_);
    } else if (backend_ == RecordingBackend::portal) {
      openPortalStreams(streams);
    } else {
      streams.video = std::make_unique<X11ScreenStream>(source, request.framesPerSecond);
      streams.pointer = std::make_unique<X11PointerStream>();
      streams.cursorShapes = std::make_unique<X11CursorShapeProvider>();
    }
    if (request.systemAudio) streams.systemAudio = std::make_unique<PulseAudioStream>(PulseAudioCapture::systemAudio);
    if (request.microphone) {
      auto microphone =
          std::make_unique<PulseAudioStream>(PulseAudioCapture::microphone, request.microphoneSource.value_or(""));
      microphoneName_ = microphone->sourceName();
      streams.microphone = std::move(microphone);
    }
    if (request.camera) {
      std::string path = request.cameraPath.value_or("");
      if (path.empty()) {
        const std::vector<VideoDeviceDescription> devices = module().listVideoDevices();
        if (devices.empty()) throw CaptureError(CaptureError::Case::sourceNotFound, "no camera is connected");
        path = devices.front().deviceID;
      }
      streams.camera = module().makeVideoDeviceStream(deviceRequest(path));
      streams.cameraConfiguration = WebcamCaptureConfiguration{path, deviceName(path), streams.camera->pixelSize(), 30};
    }
    return streams;
  }

  std::optional<RecordingMicrophoneConfiguration> microphoneConfiguration(const RecordStreamRequest& request) override {
    if (!request.microphone) return std::nullopt;
    std::string name = microphoneName_;
    try {
      for (const PulseAudioSourceInfo& info : listPulseAudioSources())
        if (info.name == microphoneName_) name = info.description;
    } catch (const CaptureError&) {
    }
    return RecordingMicrophoneConfiguration{request.microphoneSource, name};
  }

  RecordingMediaWriterFactory writerFactory() override {
    return [](const RecordingWriterConfiguration& configuration) {
      return MediaModuleLoader::load().makeRecordingMediaWriter(configuration);
    };
  }

  void watchSource(const CaptureSourceDescriptor& source, RecordingSessionSettings& settings) override {
    // A screen cast follows its window and monitor itself, and its end is the portal's to tell.
    if (backend_ == RecordingBackend::portal || source.kind == CaptureSourceKind::device) return;
    if (source.kind == CaptureSourceKind::window) {
      settings.windowFrameProbe = [probe = std::make_shared<X11WindowFrameProbe>(source.nativeID)] {
        return (*probe)();
      };
    }
    if (source.areaSourceRect) {
      // The display the area was drawn on must still be there, at least as large as it was.
      settings.areaSourceCheck = [source] {
        const X11CaptureSources sources = listX11CaptureSources({}, ::getpid());
        return std::any_of(sources.displays.begin(), sources.displays.end(), [&](const X11DisplayInfo& display) {
          return display.nativeID == source.nativeID &&
                 display.frame.x == source.globalFrame.x - source.areaSourceRect->x &&
                 display.frame.y == source.globalFrame.y - source.areaSourceRect->y &&
                 source.areaSourceRect->x + source.areaSourceRect->width <= display.frame.width &&
                 source.areaSourceRect->y + source.areaSourceRect->height <= display.frame.height;
        });
      };
    }
  }

  MediaProbing recordingMediaProbe() override { return module().probeRecordingMedia; }

  std::vector<std::string> recordingNotes() const override { return notes_; }

  void onSourceEnded(std::function<void()> handler) override {
    std::lock_guard guard(sourceEndedLock_);
    sourceEnded_ = std::move(handler);
  }

 private:
  CaptureSourceDescriptor resolveThroughPortal(const RecordSourceRequest& request, std::stop_token stop) {
    portal_ = std::make_unique<ScreenCastPortal>(ScreenCastPortalOptions{}, [this] {
      std::lock_guard guard(sourceEndedLock_);
      if (sourceEnded_) sourceEnded_();
    });
    ScreenCastRequest ask;
    ask.sourceType =
        request.kind == CaptureSourceKind::window ? ScreenCastSourceType::window : ScreenCastSourceType::monitor;
    ask.useStoredToken = !request.chooseSource;
    grant_ = portal_->start(ask, stop);
    if (grant_.streams.empty()) throw CaptureError(CaptureError::Case::portalFailed, "no stream was shared");
    const ScreenCastStream& shared = grant_.streams.front();

    PipeWireScreenStreamConfiguration configuration;
    configuration.remoteFileDescriptor = grant_.pipeWireRemote.get();
    configuration.nodeID = shared.nodeID;
    configuration.framesPerSecond = request.framesPerSecond;
    if (shared.position && shared.size)
      configuration.logicalFrame =
          RectValue{shared.position->x, shared.position->y, shared.size->width, shared.size->height};
    screenCast_ = std::make_unique<PipeWireScreenStream>(configuration);
    const PixelSize pixels = screenCast_->pixelSize();
    const RectValue frame =
        configuration.logicalFrame.value_or(RectValue{0, 0, double(pixels.width), double(pixels.height)});

    CaptureSourceDescriptor source;
    source.nativeID = shared.nodeID;
    source.globalFrame = frame;
    source.initialPixelSize = evenPixelSize(double(pixels.width), double(pixels.height));
    source.pointPixelScale = frame.width > 0 ? double(pixels.width) / frame.width : 1.0;
    source.kind = request.kind == CaptureSourceKind::window ? CaptureSourceKind::window : CaptureSourceKind::display;
    source.title = request.kind == CaptureSourceKind::window ? "Shared window" : "Shared screen";
    if (request.kind == CaptureSourceKind::area) {
      const RectValue& area = *request.area;
      if (area.x + area.width > pixels.width || area.y + area.height > pixels.height)
        throw CaptureError(CaptureError::Case::areaOutsideDisplay,
                           std::to_string(pixels.width) + "x" + std::to_string(pixels.height));
      const double scale = *source.pointPixelScale;
      source.kind = CaptureSourceKind::area;
      source.title = "Shared screen area";
      source.areaSourceRect = RectValue{area.x / scale, area.y / scale, area.width / scale, area.height / scale};
      source.globalFrame =
          RectValue{frame.x + area.x / scale, frame.y + area.y / scale, area.width / scale, area.height / scale};
      source.initialPixelSize = evenPixelSize(area.width, area.height);
      cropArea_ = area;
    }
    return source;
  }

  void openPortalStreams(RecordingCaptureStreams& streams) {
    PipeWireScreenStream& cast = *screenCast_;
    if (grant_.cursorMode == ScreenCastCursorMode::metadata) {
      auto buttons = std::make_unique<EvdevPointerButtons>(choosePointerDevices());
      if (!buttons->availability().available) notes_.push_back(buttons->availability().reason);
      streams.pointer = cast.pointerEvents(std::move(buttons));
      streams.cursorShapes = cast.cursorShapes();
    } else {
      notes_.push_back(
          "This desktop's screen-cast portal cannot send the pointer apart from the picture, so it is recorded "
          "in the picture: there are no pointer samples, no clicks and no automatic zooms.");
    }
    streams.video = std::move(screenCast_);
    if (cropArea_) streams.video = makeCroppedVideoStream(std::move(streams.video), *cropArea_);
  }

  static const MediaModule& module() { return MediaModuleLoader::load(); }

  std::string deviceName(const std::string& path) {
    for (const VideoDeviceDescription& device : module().listVideoDevices())
      if (device.deviceID == path) return device.name;
    return path;
  }

  std::unique_ptr<VideoCaptureStream> device_;
  std::string microphoneName_;
  RecordingBackend backend_ = RecordingBackend::x11;
  std::unique_ptr<ScreenCastPortal> portal_;
  ScreenCastGrant grant_;
  std::unique_ptr<PipeWireScreenStream> screenCast_;
  std::optional<RectValue> cropArea_;
  std::vector<std::string> notes_;
  std::mutex sourceEndedLock_;
  std::function<void()> sourceEnded_;
};

}  // namespace

std::unique_ptr<RecordingPlatform> makeDesktopRecordingPlatform() {
  return std::make_unique<DesktopRecordingPlatform>();
}

}  // namespace vumo
