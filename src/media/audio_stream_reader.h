#pragma once

// Decodes one audio stream of a MediaContainer to interleaved signed 16-bit PCM at a chosen rate,
// one buffer per decoded frame. Private to the media area.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "media/libav_handles.h"
#include "media/media_container.h"

namespace vumo::media_detail {

// Why reading stopped. The readers of this area turn it into their own error family.
class AudioReadFailure : public std::runtime_error {
 public:
  enum class Stage {
    noDecoder,   // no decoder for the stream's codec, or its parameters are unusable
    notStarted,  // the decoder or the resampler refused to open
    reading,     // demuxing, decoding or resampling failed on the way
  };
  // `libavText` may be empty when libav had no words for it.
  AudioReadFailure(Stage stage, std::string libavText)
      : std::runtime_error(libavText), stage_(stage), libavText_(std::move(libavText)) {}
  Stage stage() const { return stage_; }
  const std::string& libavText() const { return libavText_; }

 private:
  Stage stage_;
  std::string libavText_;
};

struct PcmBuffer {
  const std::int16_t* samples = nullptr;  // interleaved, channels together; valid until the next read
  std::size_t sampleCount = 0;            // all channels counted
  int channels = 0;
  // Of the buffer's first sample frame, rounded half away from zero; none when the stream gave no
  // time for it.
  std::optional<std::int64_t> presentationNanoseconds;
};

class AudioStreamReader {
 public:
  // `outputChannels` 0 keeps each frame's channel count; 1 mixes down to mono. Every other stream
  // of the container is set to be discarded, so the demuxer skips their packets: one reader per
  // container at a time. Throws AudioReadFailure (noDecoder, notStarted).
  AudioStreamReader(const MediaContainer& container, std::int64_t streamIndex, int outputRate, int outputChannels);
  ~AudioStreamReader();
  AudioStreamReader(const AudioStreamReader&) = delete;
  AudioStreamReader& operator=(const AudioStreamReader&) = delete;

  // The next buffer; false at the end of the stream. Buffers may be empty. Throws
  // AudioReadFailure (reading), or CancelledError when the container's stop token ended a read.
  bool next(PcmBuffer& buffer);

 private:
  void configureResampler(const AVFrame& frame);
  bool convert(const AVFrame* frame, PcmBuffer& buffer);
  [[noreturn]] void failReading(int code) const;

  const MediaContainer& container_;
  AVStream* stream_;
  int outputRate_;
  int outputChannels_;
  CodecContextPtr decoder_;
  PacketPtr packet_;
  FramePtr frame_;
  ResamplerPtr resampler_;
  AVChannelLayout resamplerInputLayout_{};
  int resamplerInputRate_ = 0;
  int resamplerInputFormat_ = -1;
  int resamplerOutputChannels_ = 0;
  std::vector<std::int16_t> output_;
  bool demuxerEnded_ = false;
  bool decoderDrained_ = false;
  bool resamplerFlushed_ = false;
};

}  // namespace vumo::media_detail
