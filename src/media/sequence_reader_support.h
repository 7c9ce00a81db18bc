#pragma once

// The error family of the sequence readers (audio and video), shared by both so that a caller
// handles one family whichever reader failed. Free of libav, like every public header of the area.

#include <string_view>

#include "media/media_errors.h"

namespace vumo {

// A stream that the readers cannot decode, a decoder or demuxer that failed, or a conversion step
// (resampler, time stretcher, scaler) that failed. The payload names the stage and libav's text.
class SequenceReaderError : public Error {
 public:
  enum class Case { unsupportedStream, decodingFailed, conversionFailed };

  explicit SequenceReaderError(Case kind, std::string_view detail = {})
      : Error(catalogue(), kind, detail), kind_(kind) {}

  Case kind() const noexcept { return kind_; }

  static const ErrorCatalogue<Case>& catalogue() {
    static constexpr ErrorCase<Case> cases[] = {
        {Case::unsupportedStream, "unsupportedStream", "media.reader.stream",
         "The project media track cannot be decoded: {}", "execution", ErrorKind::failure},
        {Case::decodingFailed, "decodingFailed", "media.reader.decode", "The project media could not be decoded: {}",
         "execution", ErrorKind::failure},
        {Case::conversionFailed, "conversionFailed", "media.reader.convert",
         "The decoded project media could not be converted: {}", "execution", ErrorKind::failure},
    };
    static_assert(inCaseOrder(cases));
    static constexpr ErrorCatalogue<Case> catalogue{"SequenceReaderError", mediaLocalizationTable, cases};
    return catalogue;
  }

 private:
  Case kind_;
};

}  // namespace vumo
