#include "media/media_errors.h"

#include <fmt/format.h>

namespace vumo {

namespace {

using Container = MediaContainerError::Case;
constexpr ErrorCase<Container> containerCases[] = {
    {Container::notRegularFile, "notRegularFile", "media.container.notRegular",
     "The project media is not a regular file.", "execution", ErrorKind::failure},
    {Container::cannotOpen, "cannotOpen", "media.container.open", "The project media could not be opened: {}",
     "execution", ErrorKind::failure},
};
static_assert(inCaseOrder(containerCases));

using Composition = TimelineCompositionError::Case;
constexpr ErrorCase<Composition> compositionCases[] = {
    {Composition::missingScreenDescription, "missingScreenDescription", "media.track.noScreen",
     "The manifest has no screen track description.", "execution", ErrorKind::failure},
    {Composition::mediaTypeMismatch, "mediaTypeMismatch", "media.track.type",
     "Project media track {} has the wrong type; expected {}", "execution", ErrorKind::failure},
    {Composition::missingTrack, "missingTrack", "media.track.missing",
     "Project media is missing track {} specified in the manifest.", "execution", ErrorKind::failure},
    {Composition::cannotCreateTrack, "cannotCreateTrack", "media.composition.track",
     "Could not create a {} composition track.", "execution", ErrorKind::failure},
    {Composition::durationMismatch, "durationMismatch", "media.composition.duration",
     "The composition duration does not match TimelineMapper.", "execution", ErrorKind::failure},
};
static_assert(inCaseOrder(compositionCases));

using Waveform = WaveformServiceError::Case;
constexpr ErrorCase<Waveform> waveformCases[] = {
    {Waveform::unsupportedTrack, "unsupportedTrack", "media.waveform.unsupported",
     "The selected track is not an audio track that supports waveforms.", "execution", ErrorKind::failure},
    {Waveform::cannotReadTrack, "cannotReadTrack", "media.waveform.cannotRead", "The audio track could not be read.",
     "execution", ErrorKind::failure},
    {Waveform::invalidCache, "invalidCache", "media.waveform.cache", "The waveform cache format is invalid.",
     "execution", ErrorKind::failure},
    {Waveform::readerFailed, "readerFailed", "media.waveform.failed", "Waveform decoding failed: {}", "execution",
     ErrorKind::failure},
};
static_assert(inCaseOrder(waveformCases));

using Captions = CaptionAudioExporterError::Case;
constexpr ErrorCase<Captions> captionCases[] = {
    {Captions::missingTrack, "missingTrack", "media.captions.missingTrack",
     "The project has no {} audio track available for captions.", "execution", ErrorKind::failure},
    {Captions::cannotRead, "cannotRead", "media.captions.cannotRead", "The caption source audio could not be read.",
     "execution", ErrorKind::failure},
    {Captions::cannotWrite, "cannotWrite", "media.captions.cannotWrite", "The caption source WAV could not be created.",
     "execution", ErrorKind::failure},
    {Captions::cannotStart, "cannotStart", "media.captions.cannotStart", "Caption audio export could not start.",
     "execution", ErrorKind::failure},
};
static_assert(inCaseOrder(captionCases));

}  // namespace

MediaContainerError::MediaContainerError(Case kind, std::string_view detail)
    : Error(catalogue(), kind, detail), kind_(kind) {}

const ErrorCatalogue<MediaContainerError::Case>& MediaContainerError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"MediaContainerError", mediaLocalizationTable, containerCases};
  return catalogue;
}

TimelineCompositionError::TimelineCompositionError(Case kind, std::string text, std::int64_t trackIndex)
    : Error(catalogue(), kind), kind_(kind), text_(std::move(text)), trackIndex_(trackIndex) {}

TimelineCompositionError TimelineCompositionError::missingScreenDescription() {
  return {Case::missingScreenDescription, std::string(catalogue()[Case::missingScreenDescription].englishText)};
}

TimelineCompositionError TimelineCompositionError::mediaTypeMismatch(std::int64_t index,
                                                                     std::string_view expectedType) {
  return {Case::mediaTypeMismatch,
          fmt::format("Project media track {} has the wrong type; expected {}", index, expectedType), index};
}

TimelineCompositionError TimelineCompositionError::missingTrack(std::int64_t index) {
  return {Case::missingTrack, fmt::format("Project media is missing track {} specified in the manifest.", index),
          index};
}

TimelineCompositionError TimelineCompositionError::cannotCreateTrack(std::string_view type) {
  return {Case::cannotCreateTrack, fmt::format("Could not create a {} composition track.", type)};
}

TimelineCompositionError TimelineCompositionError::durationMismatch() {
  return {Case::durationMismatch, std::string(catalogue()[Case::durationMismatch].englishText)};
}

const ErrorCatalogue<TimelineCompositionError::Case>& TimelineCompositionError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"TimelineCompositionError", mediaLocalizationTable, compositionCases};
  return catalogue;
}

WaveformServiceError::WaveformServiceError(Case kind, std::string_view readerText)
    : Error(catalogue(), kind, readerText), kind_(kind) {}

const ErrorCatalogue<WaveformServiceError::Case>& WaveformServiceError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"WaveformServiceError", mediaLocalizationTable, waveformCases};
  return catalogue;
}

CaptionAudioExporterError::CaptionAudioExporterError(Case kind) : Error(catalogue(), kind), kind_(kind) {}

CaptionAudioExporterError::CaptionAudioExporterError(Case kind, std::string_view payload)
    : Error(catalogue(), kind, payload), kind_(kind) {}

CaptionAudioExporterError CaptionAudioExporterError::missingTrack(MediaTrackKind kind) {
  return {Case::missingTrack, nameOf(kind)};
}

const ErrorCatalogue<CaptionAudioExporterError::Case>& CaptionAudioExporterError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"CaptionAudioExporterError", mediaLocalizationTable, captionCases};
  return catalogue;
}

namespace {

using Reader = SequenceReaderError::Case;
constexpr ErrorCase<Reader> readerCases[] = {
    {Reader::unsupportedStream, "unsupportedStream", "media.reader.stream",
     "The project media track cannot be decoded: {}", "execution", ErrorKind::failure},
    {Reader::decodingFailed, "decodingFailed", "media.reader.decode", "The project media could not be decoded: {}",
     "execution", ErrorKind::failure},
    {Reader::conversionFailed, "conversionFailed", "media.reader.convert",
     "The decoded project media could not be converted: {}", "execution", ErrorKind::failure},
};
static_assert(inCaseOrder(readerCases));

}  // namespace

SequenceReaderError::SequenceReaderError(Case kind, std::string_view detail)
    : Error(catalogue(), kind, detail), kind_(kind) {}

const ErrorCatalogue<SequenceReaderError::Case>& SequenceReaderError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"SequenceReaderError", mediaLocalizationTable, readerCases};
  return catalogue;
}

}  // namespace vumo
