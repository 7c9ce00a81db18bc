#include "export/export_errors.h"

namespace vumo {

namespace {

constexpr std::string_view mediaTable = "Media";

using Configuration = ExportConfigurationError::Case;
constexpr ErrorCase<Configuration> configurationCases[] = {
    {Configuration::originalResolutionRequiresSourceAspect, "originalResolutionRequiresSourceAspect",
     "export.error.originalRequiresSource", "Original resolution requires the source aspect ratio.", "validation",
     ErrorKind::validation},
};
static_assert(inCaseOrder(configurationCases));

using Exporter = ProjectExporterError::Case;
constexpr ErrorCase<Exporter> exporterCases[] = {
    {Exporter::missingVideo, "missingVideo", "export.error.missingVideo", "The project has no screen video track.",
     "execution", ErrorKind::failure},
    {Exporter::readerOutput, "readerOutput", "export.error.readerOutput", "Unable to read the project media tracks.",
     "execution", ErrorKind::failure},
    {Exporter::writerInput, "writerInput", "export.error.writerInput", "Unable to create export media tracks.",
     "execution", ErrorKind::failure},
    {Exporter::start, "start", "export.error.start", "Unable to start offline export.", "execution",
     ErrorKind::failure},
    {Exporter::unsupportedSettings, "unsupportedSettings", "export.error.unsupportedSettings",
     "This device does not support the selected export settings.", "execution", ErrorKind::failure},
    {Exporter::bufferPool, "bufferPool", "export.error.bufferPool", "Unable to create the export pixel buffer pool.",
     "execution", ErrorKind::failure},
    {Exporter::bufferAllocation, "bufferAllocation", "export.error.bufferAllocation",
     "Unable to allocate an export pixel buffer. Error code: {}", "execution", ErrorKind::failure},
    {Exporter::render, "render", "export.error.render", "OpenGL offline rendering failed.", "execution",
     ErrorKind::failure},
    {Exporter::append, "append", "export.error.append", "Unable to write an export frame: {}", "execution",
     ErrorKind::failure},
    {Exporter::writerStopped, "writerStopped", "export.error.writerStopped", "The media writer stopped", "execution",
     ErrorKind::failure},
    {Exporter::writerIncomplete, "writerIncomplete", "export.error.writerIncomplete", "The media writer did not finish",
     "execution", ErrorKind::failure},
    {Exporter::videoRejected, "videoRejected", "export.error.videoRejected", "Video frame rejected", "execution",
     ErrorKind::failure},
    {Exporter::audioRejected, "audioRejected", "export.error.audioRejected", "Audio frame rejected", "execution",
     ErrorKind::failure},
};
static_assert(inCaseOrder(exporterCases));

}  // namespace

ExportConfigurationError::ExportConfigurationError(Case kind) : Error(catalogue(), kind), kind_(kind) {}

const ErrorCatalogue<ExportConfigurationError::Case>& ExportConfigurationError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"ExportConfigurationError", mediaTable, configurationCases};
  return catalogue;
}

ProjectExporterError::ProjectExporterError(Case kind, std::string_view detail)
    : Error(catalogue(), kind, detail), kind_(kind) {}

const ErrorCatalogue<ProjectExporterError::Case>& ProjectExporterError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"ProjectExporterError", mediaTable, exporterCases};
  return catalogue;
}

}  // namespace vumo
