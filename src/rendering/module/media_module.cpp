// The entry point of the loadable media engine; everything else in it is the media and rendering
// areas as they are.

#include "media/media_module.h"

#include "media/caption_audio_exporter.h"
#include "rendering/project_frame_renderer.h"

namespace {

std::shared_ptr<vumo::WaveformProviding> makeWaveformService() { return std::make_shared<vumo::WaveformService>(); }

void exportCaptionAudio(const vumo::ProjectSnapshot& snapshot, vumo::MediaTrackKind track,
                        const std::filesystem::path& target, std::stop_token stop) {
  vumo::CaptionAudioExporter::exportAudio(snapshot, track, target, std::move(stop));
}

std::shared_ptr<vumo::ProjectStillRendering> makeStillRenderer() {
  return vumo::ProjectFrameRenderer::makeForProgram();
}

}  // namespace

extern "C" __attribute__((visibility("default"))) const vumo::MediaModule* vumoMediaModule() {
  static const vumo::MediaModule module{vumo::MediaModule::currentInterfaceVersion, &makeWaveformService,
                                        &exportCaptionAudio, &makeStillRenderer};
  return &module;
}
