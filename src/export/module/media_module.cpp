// The entry point of the loadable media engine; everything else in it is the export, rendering and
// media areas as they are.

#include "media/media_module.h"

#include "export/preview_engine.h"
#include "export/project_exporter.h"
#include "media/caption_audio_exporter.h"
#include "media/media_container.h"
#include "media/recording_media_writer.h"
#include "media/video_device_stream.h"
#include "rendering/project_frame_renderer.h"
#include "rendering/rendering_context.h"
#include "rendering/rendering_errors.h"
#include "shared/error.h"
#include "shared/resources.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace {

std::shared_ptr<vumo::WaveformProviding> makeWaveformService() { return std::make_shared<vumo::WaveformService>(); }

void exportCaptionAudio(const vumo::ProjectSnapshot& snapshot, vumo::MediaTrackKind track,
                        const std::filesystem::path& target, std::stop_token stop) {
  vumo::CaptionAudioExporter::exportAudio(snapshot, track, target, std::move(stop));
}

std::shared_ptr<vumo::ProjectStillRendering> makeStillRenderer() {
  return vumo::ProjectFrameRenderer::makeForProgram();
}

// The request's words were checked by the command line; one that names no case here means the
// program and the engine disagree, which the interface version should have caught.
template <class E>
E parsed(const std::string& word) {
  if (auto value = vumo::parseName<E>(word)) return *value;
  throw std::invalid_argument("unknown export option " + word);
}

class ProgramExporter final : public vumo::ProjectExporting {
 public:
  explicit ProgramExporter(std::shared_ptr<vumo::SceneRenderer> renderer) : exporter_(std::move(renderer)) {}

  vumo::ExportedFilm exportProject(const vumo::ProjectSnapshot& snapshot, const std::filesystem::path& target,
                                   const vumo::ProjectExportRequest& request,
                                   std::function<void(const vumo::ProjectExportProgress&)> progress,
                                   std::stop_token stop) override {
    vumo::ExportConfiguration configuration;
    configuration.resolution = parsed<vumo::ExportResolution>(request.resolution);
    configuration.frameRate = parsed<vumo::ExportFrameRate>(request.frameRate);
    configuration.quality = parsed<vumo::ExportQuality>(request.quality);
    configuration.codec = parsed<vumo::ExportCodec>(request.codec);
    auto handler = [&progress](const vumo::ExportProgressUpdate& update) {
      if (progress) progress({std::string(vumo::nameOf(update.phase)), update.completedFrames, update.totalFrames});
    };
    return exporter_.exportProject(snapshot, target, configuration, handler, std::move(stop));
  }

 private:
  vumo::ProjectExporter exporter_;
};

std::shared_ptr<vumo::ProjectExporting> makeExporter() {
  const auto resources = vumo::ResourceLocator::directory();
  if (!resources) throw vumo::RenderingContextError(vumo::RenderingContextError::Case::unavailable);
  return std::make_shared<ProgramExporter>(
      std::make_shared<vumo::SceneRenderer>(vumo::RenderingContext::create(*resources)));
}

std::unique_ptr<vumo::RecordingMediaWriting> makeRecordingMediaWriter(
    const vumo::RecordingWriterConfiguration& configuration) {
  return std::make_unique<vumo::RecordingMediaWriter>(configuration);
}

std::vector<vumo::VideoDeviceDescription> listVideoDevices() { return vumo::listVideoDevices(); }

std::shared_ptr<vumo::ProjectPreviewing> makePreviewer() { return vumo::ProjectPreviewEngine::makeForProgram(); }

// The first video stream, as the wallpaper reader picks it; a file that is not a movie, or one of a
// kind this engine cannot decode, describes nothing rather than failing.
std::optional<vumo::VideoFileDescription> describeVideoFile(const std::filesystem::path& file, std::stop_token stop) {
  try {
    vumo::MediaContainer container = vumo::MediaContainer::open(file, std::move(stop));
    for (std::int64_t index = 0; index < container.streamCount(); ++index) {
      if (container.streamType(index) != vumo::MediaStreamType::video) continue;
      const AVCodecParameters* parameters = container.stream(index)->codecpar;
      const vumo::ProjectTime duration = container.streamTimeRange(index).duration;
      if (parameters->width <= 0 || parameters->height <= 0 || duration <= vumo::ProjectTime{} ||
          avcodec_find_decoder(parameters->codec_id) == nullptr)
        return std::nullopt;
      return vumo::VideoFileDescription{{parameters->width, parameters->height}, duration};
    }
  } catch (const vumo::Error&) {
  }
  return std::nullopt;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) const vumo::MediaModule* vumoMediaModule() {
  static const vumo::MediaModule module{vumo::MediaModule::currentInterfaceVersion,
                                        &makeWaveformService,
                                        &exportCaptionAudio,
                                        &makeStillRenderer,
                                        &makeExporter,
                                        &makeRecordingMediaWriter,
                                        &listVideoDevices,
                                        &vumo::makeVideoDeviceStream,
                                        &vumo::MediaProbe::inspect,
                                        &makePreviewer,
                                        &describeVideoFile};
  return &module;
}
