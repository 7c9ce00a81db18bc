#include "media/audio_stream_reader.h"

#include "shared/cancellation.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
}

namespace vumo::media_detail {

namespace {

// A layout libav knows only by its channel count gets the usual one for that count, which the
// resampler can mix.
AVChannelLayout usableLayout(const AVChannelLayout& layout) {
  AVChannelLayout result{};
  if (layout.order == AV_CHANNEL_ORDER_UNSPEC)
    av_channel_layout_default(&result, layout.nb_channels);
  else
    av_channel_layout_copy(&result, &layout);
  return result;
}

}  // namespace

AudioStreamReader::AudioStreamReader(const MediaContainer& container, std::int64_t streamIndex, int outputRate,
                                     int outputChannels)
    : container_(container),
      stream_(container.stream(streamIndex)),
      outputRate_(outputRate),
      outputChannels_(outputChannels) {
  AVFormatContext* format = container.formatContext();
  for (unsigned i = 0; i < format->nb_streams; ++i)
    format->streams[i]->discard = static_cast<std::int64_t>(i) == streamIndex ? AVDISCARD_DEFAULT : AVDISCARD_ALL;

  const AVCodec* codec = avcodec_find_decoder(stream_->codecpar->codec_id);
  if (codec == nullptr) throw AudioReadFailure(AudioReadFailure::Stage::noDecoder, "no decoder for the codec");
  decoder_.reset(avcodec_alloc_context3(codec));
  packet_.reset(av_packet_alloc());
  frame_.reset(av_frame_alloc());
  if (!decoder_ || !packet_ || !frame_) throw std::bad_alloc();
  if (int result = avcodec_parameters_to_context(decoder_.get(), stream_->codecpar); result < 0)
    throw AudioReadFailure(AudioReadFailure::Stage::noDecoder, libavErrorText(result));
  decoder_->pkt_timebase = stream_->time_base;
  if (int result = avcodec_open2(decoder_.get(), codec, nullptr); result < 0)
    throw AudioReadFailure(AudioReadFailure::Stage::notStarted, libavErrorText(result));
}

AudioStreamReader::~AudioStreamReader() { av_channel_layout_uninit(&resamplerInputLayout_); }

void AudioStreamReader::failReading(int code) const {
  throwIfCancelled(container_.stopToken());
  throw AudioReadFailure(AudioReadFailure::Stage::reading, libavErrorText(code));
}

void AudioStreamReader::configureResampler(const AVFrame& frame) {
  if (frame.ch_layout.nb_channels <= 0) throw AudioReadFailure(AudioReadFailure::Stage::reading, {});
  AVChannelLayout input = usableLayout(frame.ch_layout);
  if (resampler_ && av_channel_layout_compare(&input, &resamplerInputLayout_) == 0 &&
      frame.sample_rate == resamplerInputRate_ && frame.format == resamplerInputFormat_) {
    av_channel_layout_uninit(&input);
    return;
  }
  av_channel_layout_uninit(&resamplerInputLayout_);
  resamplerInputLayout_ = input;
  resamplerInputRate_ = frame.sample_rate;
  resamplerInputFormat_ = frame.format;
  resamplerOutputChannels_ = outputChannels_ > 0 ? outputChannels_ : input.nb_channels;
  AVChannelLayout output{};
  av_channel_layout_default(&output, resamplerOutputChannels_);
  SwrContext* resampler = nullptr;
  int result = swr_alloc_set_opts2(&resampler, &output, AV_SAMPLE_FMT_S16, outputRate_, &input,
                                   static_cast<AVSampleFormat>(frame.format), frame.sample_rate, 0, nullptr);
  av_channel_layout_uninit(&output);
  resampler_.reset(resampler);
  if (result >= 0) result = swr_init(resampler);
  if (result < 0) throw AudioReadFailure(AudioReadFailure::Stage::notStarted, libavErrorText(result));
}

bool AudioStreamReader::convert(const AVFrame* frame, PcmBuffer& buffer) {
  if (frame != nullptr) configureResampler(*frame);
  const int inputSamples = frame != nullptr ? frame->nb_samples : 0;
  const int room = swr_get_out_samples(resampler_.get(), inputSamples);
  if (room < 0) failReading(room);
  const std::size_t needed = static_cast<std::size_t>(room) * static_cast<std::size_t>(resamplerOutputChannels_);
  // Grows to the largest frame once; later frames reuse it.
  if (output_.size() < needed) output_.resize(needed);
  // Samples still inside the resampler come out first, so this buffer starts that much earlier.
  const std::int64_t delayNanoseconds = swr_get_delay(resampler_.get(), 1'000'000'000);
  auto* out = reinterpret_cast<std::uint8_t*>(output_.data());
  const int produced =
      swr_convert(resampler_.get(), &out, room,
                  frame != nullptr ? const_cast<const std::uint8_t**>(frame->extended_data) : nullptr, inputSamples);
  if (produced < 0) failReading(produced);
  buffer.samples = output_.data();
  buffer.sampleCount = static_cast<std::size_t>(produced) * static_cast<std::size_t>(resamplerOutputChannels_);
  buffer.channels = resamplerOutputChannels_;
  buffer.presentationNanoseconds.reset();
  if (frame != nullptr) {
    if (auto time =
            nanosecondsFromStreamTime(frame->best_effort_timestamp, stream_->time_base.num, stream_->time_base.den))
      buffer.presentationNanoseconds = *time - delayNanoseconds;
  }
  return true;
}

bool AudioStreamReader::next(PcmBuffer& buffer) {
  AVFormatContext* format = container_.formatContext();
  while (!decoderDrained_) {
    int result = avcodec_receive_frame(decoder_.get(), frame_.get());
    if (result == 0) {
      convert(frame_.get(), buffer);
      av_frame_unref(frame_.get());
      return true;
    }
    if (result == AVERROR_EOF) {
      decoderDrained_ = true;
      break;
    }
    // A damaged frame is left out, as a damaged packet is below: a recovered recording still has
    // a waveform for the rest.
    if (result == AVERROR_INVALIDDATA) continue;
    if (result != AVERROR(EAGAIN)) failReading(result);

    result = av_read_frame(format, packet_.get());
    if (result == AVERROR_EOF) {
      throwIfCancelled(container_.stopToken());
      demuxerEnded_ = true;
      avcodec_send_packet(decoder_.get(), nullptr);
      continue;
    }
    if (result < 0) failReading(result);
    if (packet_->stream_index != stream_->index) {
      av_packet_unref(packet_.get());
      continue;
    }
    result = avcodec_send_packet(decoder_.get(), packet_.get());
    av_packet_unref(packet_.get());
    if (result < 0 && result != AVERROR_INVALIDDATA && result != AVERROR(EAGAIN)) failReading(result);
  }
  if (!resamplerFlushed_ && resampler_) {
    resamplerFlushed_ = true;
    convert(nullptr, buffer);
    if (buffer.sampleCount > 0) return true;
  }
  return false;
}

}  // namespace vumo::media_detail
