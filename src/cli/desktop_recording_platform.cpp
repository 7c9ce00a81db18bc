#include "cli/desktop_recording_platform.h"

#include <unistd.h>

#include <algorithm>

#include "capture/capture_error.h"
#include "capture/pulse_audio_stream.h"
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

class DesktopRecordingPlatform : public RecordingPlatform {
 public:
  void listSources(Json& answer) override {
    // Each kind of source is listed on its own: a machine without sound still lists its displays.
    try {
      answer["x11"] = listX11CaptureSources({}, ::getpid());
    } catch (const CaptureError& error) {
      answer["x11"] = {{"displays", Json::array()}, {"windows", Json::array()}, {"unavailable", error.what()}};
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

  CaptureSourceDescriptor resolve(const RecordSourceRequest& request, std::stop_token) override {
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

 private:
  static const MediaModule& module() { return MediaModuleLoader::load(); }

  std::string deviceName(const std::string& path) {
    for (const VideoDeviceDescription& device : module().listVideoDevices())
      if (device.deviceID == path) return device.name;
    return path;
  }

  std::unique_ptr<VideoCaptureStream> device_;
  std::string microphoneName_;
};

}  // namespace

std::unique_ptr<RecordingPlatform> makeDesktopRecordingPlatform() {
  return std::make_unique<DesktopRecordingPlatform>();
}

}  // namespace vumo
