#pragma once

// The error families of the media area. All of them are execution failures of the command line and
// keep their texts in the localisation table `Media`.

#include <cstdint>
#include <string>
#include <string_view>

#include "shared/error.h"
#include "shared/media_track_kind.h"

namespace vumo {

inline constexpr std::string_view mediaLocalizationTable = "Media";

// The package's movie could not be opened as media: it is not a regular file, or libavformat
// refused it. The payload of `cannotOpen` names the stage and libav's text.
class MediaContainerError : public Error {
 public:
  enum class Case { notRegularFile, cannotOpen };

  explicit MediaContainerError(Case kind, std::string_view detail = {});

  Case kind() const noexcept { return kind_; }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  Case kind_;
};

// Which track of the movie is which, and whether a composition plan agrees with the timeline.
class TimelineCompositionError : public Error {
 public:
  enum class Case { missingScreenDescription, mediaTypeMismatch, missingTrack, cannotCreateTrack, durationMismatch };

  static TimelineCompositionError missingScreenDescription();
  // `expectedType` is libav's word for the media type ("video", "audio").
  static TimelineCompositionError mediaTypeMismatch(std::int64_t index, std::string_view expectedType);
  static TimelineCompositionError missingTrack(std::int64_t index);
  static TimelineCompositionError cannotCreateTrack(std::string_view type);
  static TimelineCompositionError durationMismatch();

  Case kind() const noexcept { return kind_; }
  // The track index of `mediaTypeMismatch` and `missingTrack`, else -1.
  std::int64_t trackIndex() const noexcept { return trackIndex_; }
  // The text with every payload in place (mediaTypeMismatch has two).
  const char* what() const noexcept override { return text_.c_str(); }

  static const ErrorCatalogue<Case>& catalogue();

 private:
  TimelineCompositionError(Case kind, std::string text, std::int64_t trackIndex = -1);

  Case kind_;
  std::string text_;
  std::int64_t trackIndex_;
};

class WaveformServiceError : public Error {
 public:
  enum class Case { unsupportedTrack, cannotReadTrack, invalidCache, readerFailed };

  // `readerText` is the payload of `readerFailed` only.
  explicit WaveformServiceError(Case kind, std::string_view readerText = {});

  Case kind() const noexcept { return kind_; }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  Case kind_;
};

// What `readerFailed` says when the decoder itself gave no text.
struct MediaReaderText {
  std::string_view key;
  std::string_view englishText;
};
inline constexpr MediaReaderText readerDidNotStart{"media.reader.start", "The media reader could not start"};
inline constexpr MediaReaderText readerBufferNotContiguous{"media.reader.pcm", "The PCM buffer is not contiguous"};
inline constexpr MediaReaderText readerDidNotFinish{"media.reader.incomplete", "The media reader did not finish"};

class CaptionAudioExporterError : public Error {
 public:
  enum class Case { missingTrack, cannotRead, cannotWrite, cannotStart };

  static CaptionAudioExporterError missingTrack(MediaTrackKind kind);
  explicit CaptionAudioExporterError(Case kind);

  Case kind() const noexcept { return kind_; }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  CaptionAudioExporterError(Case kind, std::string_view payload);
  Case kind_;
};

// A stream that the sequence readers (audio and video) cannot decode, a decoder or demuxer that
// failed, or a conversion step (resampler, time stretcher, scaler) that failed. One family for
// both readers, so a caller handles one whichever failed; the payload names the stage and libav's
// text.
class SequenceReaderError : public Error {
 public:
  enum class Case { unsupportedStream, decodingFailed, conversionFailed };

  explicit SequenceReaderError(Case kind, std::string_view detail = {});

  Case kind() const noexcept { return kind_; }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  Case kind_;
};

}  // namespace vumo
