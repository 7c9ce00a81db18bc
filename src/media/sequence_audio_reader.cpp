#include "media/sequence_audio_reader.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "media/libav_handles.h"
#include "media/sequence_reader_support.h"
#include "shared/cancellation.h"

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/channel_layout.h>
#include <libavutil/mathematics.h>
#include <libavutil/opt.h>
#include <libavutil/samplefmt.h>
}

namespace vumo {

using namespace media_detail;

namespace {

constexpr std::int64_t nanosecondsPerSecond = 1'000'000'000;
// Decoding starts this long before a piece, so that a codec whose frames overlap (AAC) has settled
// by the first sample that is kept.
constexpr std::int64_t prerollNanoseconds = 100'000'000;

struct FilterGraphDeleter {
  void operator()(AVFilterGraph* graph) const { avfilter_graph_free(&graph); }
};
struct FilterInOutDeleter {
  void operator()(AVFilterInOut* list) const { avfilter_inout_free(&list); }
};
using FilterGraphPtr = std::unique_ptr<AVFilterGraph, FilterGraphDeleter>;
using FilterInOutPtr = std::unique_ptr<AVFilterInOut, FilterInOutDeleter>;

// An AVChannelLayout that may own a custom map.
class ChannelLayout {
 public:
  ChannelLayout() = default;
  explicit ChannelLayout(const AVChannelLayout& source) {
    if (source.order == AV_CHANNEL_ORDER_UNSPEC || av_channel_layout_check(&source) == 0) {
      av_channel_layout_default(&layout_, source.nb_channels);
    } else if (av_channel_layout_copy(&layout_, &source) < 0) {
      throw std::bad_alloc();
    }
  }
  static ChannelLayout withCount(int channels) {
    ChannelLayout layout;
    av_channel_layout_default(&layout.layout_, channels);
    return layout;
  }
  ChannelLayout(ChannelLayout&& other) noexcept : layout_(other.layout_) { other.layout_ = AVChannelLayout{}; }
  ChannelLayout(const ChannelLayout&) = delete;
  ChannelLayout& operator=(const ChannelLayout&) = delete;
  ~ChannelLayout() { av_channel_layout_uninit(&layout_); }

  const AVChannelLayout* get() const { return &layout_; }
  int count() const { return layout_.nb_channels; }
  std::string description() const {
    char text[128] = {};
    av_channel_layout_describe(&layout_, text, sizeof text);
    return text;
  }

 private:
  AVChannelLayout layout_{};
};

// One audio stream of one container: its demuxer and decoder. Seeks and decodes forward.
class TrackDecoder {
 public:
  TrackDecoder(MediaContainer container, std::int64_t streamIndex)
      : container_(std::move(container)), index_(streamIndex), packet_(av_packet_alloc()), frame_(av_frame_alloc()) {
    if (!packet_ || !frame_) throw std::bad_alloc();
    if (streamIndex < 0 || streamIndex >= container_.streamCount() ||
        container_.streamType(streamIndex) != MediaStreamType::audio)
      throw SequenceReaderError(SequenceReaderError::Case::unsupportedStream,
                                fmt::format("track {} is not audio", streamIndex));
    const AVStream* stream = container_.stream(streamIndex);
    const AVCodec* codec = avcodec_find_decoder(stream->codecpar->codec_id);
    if (codec == nullptr)
      throw SequenceReaderError(SequenceReaderError::Case::unsupportedStream,
                                fmt::format("no decoder for {}", avcodec_get_name(stream->codecpar->codec_id)));
    codec_.reset(avcodec_alloc_context3(codec));
    if (!codec_) throw std::bad_alloc();
    int result = avcodec_parameters_to_context(codec_.get(), stream->codecpar);
    if (result >= 0) {
      codec_->pkt_timebase = stream->time_base;
      result = avcodec_open2(codec_.get(), codec, nullptr);
    }
    if (result < 0)
      throw SequenceReaderError(SequenceReaderError::Case::unsupportedStream, "open: " + libavErrorText(result));
    if (codec_->sample_rate <= 0 || codec_->ch_layout.nb_channels <= 0)
      throw SequenceReaderError(SequenceReaderError::Case::unsupportedStream, "no sample rate or channels");
  }

  const std::stop_token& stopToken() const { return container_.stopToken(); }
  AVRational timeBase() const { return container_.stream(index_)->time_base; }
  int sampleRate() const { return codec_->sample_rate; }

  // Positions the demuxer at a packet at or before `sourceNanoseconds` (or the stream's first one).
  void seek(std::int64_t sourceNanoseconds) {
    const AVRational base = timeBase();
    std::int64_t target =
        av_rescale_q_rnd(sourceNanoseconds, AVRational{1, static_cast<int>(nanosecondsPerSecond)}, base, AV_ROUND_DOWN);
    AVFormatContext* format = container_.formatContext();
    int result = avformat_seek_file(format, static_cast<int>(index_), INT64_MIN, target, target, 0);
    // Before the stream's first packet there is nothing at or before the target: take the first.
    if (result < 0) result = avformat_seek_file(format, static_cast<int>(index_), INT64_MIN, target, INT64_MAX, 0);
    if (result < 0) throwDecoding(stopToken(), "seek", result);
    avcodec_flush_buffers(codec_.get());
    draining_ = false;
  }

  // The next decoded frame, valid until the next call; none after the stream's last.
  AVFrame* next() {
    for (;;) {
      av_frame_unref(frame_.get());
      int result = avcodec_receive_frame(codec_.get(), frame_.get());
      if (result == 0) return frame_.get();
      if (result == AVERROR_EOF) return nullptr;
      if (result != AVERROR(EAGAIN)) throwDecoding(stopToken(), "decode", result);
      feed();
    }
  }

 private:
  void feed() {
    AVFormatContext* format = container_.formatContext();
    for (;;) {
      throwIfCancelled(stopToken());
      int result = av_read_frame(format, packet_.get());
      if (result == AVERROR_EOF) {
        avcodec_send_packet(codec_.get(), nullptr);
        draining_ = true;
        return;
      }
      if (result < 0) throwDecoding(stopToken(), "read", result);
      if (packet_->stream_index != index_) {
        av_packet_unref(packet_.get());
        continue;
      }
      result = avcodec_send_packet(codec_.get(), packet_.get());
      av_packet_unref(packet_.get());
      // A damaged packet costs its own samples only; the piece is padded where they were.
      if (result == AVERROR_INVALIDDATA) continue;
      if (result < 0) throwDecoding(stopToken(), "decode", result);
      return;
    }
  }

  MediaContainer container_;
  std::int64_t index_;
  CodecContextPtr codec_;
  PacketPtr packet_;
  FramePtr frame_;
  bool draining_ = false;
};

// The output format as libav names it.
struct OutputSpec {
  OutputSpec(int rate, int channelCount) : sampleRate(rate), layout(ChannelLayout::withCount(channelCount)) {}
  int sampleRate;
  ChannelLayout layout;
  int channels() const { return layout.count(); }
};

// abuffer → stretch → abuffersink on interleaved float of the output format.
class Stretcher {
 public:
  Stretcher(const OutputSpec& output, std::int32_t ratePermille) : output_(output), frame_(av_frame_alloc()) {
    if (!frame_) throw std::bad_alloc();
    graph_.reset(avfilter_graph_alloc());
    if (!graph_) throw std::bad_alloc();
    graph_->nb_threads = 1;
    const std::string layout = output.layout.description();
    const std::string sourceArguments =
        fmt::format("time_base=1/{0}:sample_rate={0}:sample_fmt=flt:channel_layout={1}", output.sampleRate, layout);
    int result = avfilter_graph_create_filter(&source_, avfilter_get_by_name("abuffer"), "in", sourceArguments.c_str(),
                                              nullptr, graph_.get());
    if (result < 0) throwConversion("stretch source", result);
    result = avfilter_graph_create_filter(&sink_, avfilter_get_by_name("abuffersink"), "out", nullptr, nullptr,
                                          graph_.get());
    if (result < 0) throwConversion("stretch sink", result);
    const AVSampleFormat formats[] = {AV_SAMPLE_FMT_FLT, AV_SAMPLE_FMT_NONE};
    const int rates[] = {output.sampleRate, -1};
    result = av_opt_set_int_list(sink_, "sample_fmts", formats, AV_SAMPLE_FMT_NONE, AV_OPT_SEARCH_CHILDREN);
    if (result >= 0) result = av_opt_set_int_list(sink_, "sample_rates", rates, -1, AV_OPT_SEARCH_CHILDREN);
    if (result >= 0) result = av_opt_set(sink_, "ch_layouts", layout.c_str(), AV_OPT_SEARCH_CHILDREN);
    if (result < 0) throwConversion("stretch sink", result);

    // The parser's view: its "in" pad is fed by our source, its "out" pad feeds our sink.
    FilterInOutPtr outputs(avfilter_inout_alloc());
    FilterInOutPtr inputs(avfilter_inout_alloc());
    if (!outputs || !inputs) throw std::bad_alloc();
    outputs->name = av_strdup("in");
    outputs->filter_ctx = source_;
    inputs->name = av_strdup("out");
    inputs->filter_ctx = sink_;
    const std::string description =
        SequenceAudioReader::stretchFilterDescription(ratePermille, avfilter_get_by_name("rubberband") != nullptr);
    AVFilterInOut* inputList = inputs.release();
    AVFilterInOut* outputList = outputs.release();
    result = avfilter_graph_parse_ptr(graph_.get(), description.c_str(), &inputList, &outputList, nullptr);
    inputs.reset(inputList);
    outputs.reset(outputList);
    if (result < 0) throwConversion("stretch filter", result);
    result = avfilter_graph_config(graph_.get(), nullptr);
    if (result < 0) throwConversion("stretch graph", result);
  }

  void push(const float* samples, std::int64_t frames, std::vector<float>& into) {
    FramePtr input(av_frame_alloc());
    if (!input) throw std::bad_alloc();
    input->format = AV_SAMPLE_FMT_FLT;
    input->sample_rate = output_.sampleRate;
    input->nb_samples = static_cast<int>(frames);
    input->pts = pushed_;
    if (av_channel_layout_copy(&input->ch_layout, output_.layout.get()) < 0) throw std::bad_alloc();
    int result = av_frame_get_buffer(input.get(), 0);
    if (result < 0) throwConversion("stretch buffer", result);
    if (samples != nullptr) {
      std::memcpy(input->data[0], samples, static_cast<std::size_t>(frames * output_.channels()) * sizeof(float));
    } else {
      std::memset(input->data[0], 0, static_cast<std::size_t>(frames * output_.channels()) * sizeof(float));
    }
    pushed_ += frames;
    result = av_buffersrc_add_frame_flags(source_, input.get(), 0);
    if (result < 0) throwConversion("stretch input", result);
    drain(into);
  }

  // The stretcher holds back a window of sound; a stretch of silence pushes the real end through
  // before the end of input is signalled. What it adds beyond the piece is cut off.
  void finish(std::vector<float>& into) {
    push(nullptr, output_.sampleRate / 4, into);
    int result = av_buffersrc_add_frame_flags(source_, nullptr, 0);
    if (result < 0) throwConversion("stretch input", result);
    drain(into);
  }

 private:
  void drain(std::vector<float>& into) {
    for (;;) {
      int result = av_buffersink_get_frame(sink_, frame_.get());
      if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) return;
      if (result < 0) throwConversion("stretch output", result);
      const auto* samples = reinterpret_cast<const float*>(frame_->data[0]);
      into.insert(into.end(), samples, samples + static_cast<std::ptrdiff_t>(frame_->nb_samples) * output_.channels());
      av_frame_unref(frame_.get());
    }
  }

  const OutputSpec& output_;
  FilterGraphPtr graph_;
  AVFilterContext* source_ = nullptr;  // owned by the graph
  AVFilterContext* sink_ = nullptr;    // owned by the graph
  FramePtr frame_;
  std::int64_t pushed_ = 0;
};

// The sound of one piece from a given frame into it: the source range decoded, cut to the samples
// from the piece's source time on, resampled, stretched, and delivered as exactly the piece's frame
// count.
class PieceSound {
 public:
  PieceSound(TrackDecoder& decoder, const CompositionPiece& piece, std::int64_t offsetFrames, const OutputSpec& output)
      : decoder_(decoder), output_(output) {
    const std::int64_t rate = piece.ratePermille;
    const std::int64_t sourceOffset =
        mulDivFloor(offsetFrames, nanosecondsPerSecond * rate, std::int64_t{output.sampleRate} * 1000);
    const std::int64_t sourceStart = piece.sourceRange.start.nanoseconds + sourceOffset;
    const std::int64_t sourceRate = decoder.sampleRate();
    firstSample_ = mulDivCeil(sourceStart, sourceRate, nanosecondsPerSecond);
    endSample_ = mulDivCeil(piece.sourceRange.end().nanoseconds, sourceRate, nanosecondsPerSecond);
    if (rate != 1000) stretcher_.emplace(output_, piece.ratePermille);
    decoder_.seek(sourceStart - prerollNanoseconds);
  }

  // Writes the next `frames` frames of the piece into `into`: silence where the source ran out.
  void render(float* into, std::int64_t frames) {
    const int channels = output_.channels();
    while (!finished_ && available() < frames) decodeMore();
    const std::int64_t delivered = std::min(frames, available());
    std::copy_n(pending_.begin() + static_cast<std::ptrdiff_t>(consumed_), delivered * channels, into);
    std::fill_n(into + delivered * channels, (frames - delivered) * channels, 0.0F);
    consumed_ += static_cast<std::size_t>(delivered * channels);
    // Keep the buffer from growing over a long piece.
    if (consumed_ > 65'536 && consumed_ * 2 > pending_.size()) {
      pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(consumed_));
      consumed_ = 0;
    }
  }

 private:
  std::int64_t available() const {
    return static_cast<std::int64_t>((pending_.size() - consumed_) / static_cast<std::size_t>(output_.channels()));
  }

  void decodeMore() {
    AVFrame* frame = sourceOver_ ? nullptr : decoder_.next();
    if (frame == nullptr || frame->nb_samples <= 0) {
      if (frame == nullptr) finish();
      return;
    }
    const int frameRate = frame->sample_rate > 0 ? frame->sample_rate : decoder_.sampleRate();
    std::int64_t start = nextSample_;
    if (frame->best_effort_timestamp != AV_NOPTS_VALUE)
      start = av_rescale_q_rnd(frame->best_effort_timestamp, decoder_.timeBase(), AVRational{1, frameRate},
                               AV_ROUND_NEAR_INF);
    nextSample_ = start + frame->nb_samples;
    if (start >= endSample_) {
      finish();
      return;
    }
    const std::int64_t keepFrom = std::max(start, firstSample_);
    const std::int64_t keepTo = std::min(nextSample_, endSample_);
    if (keepFrom < keepTo) convert(frame, static_cast<int>(keepFrom - start), static_cast<int>(keepTo - keepFrom));
    if (nextSample_ >= endSample_) finish();
  }

  void convert(const AVFrame* frame, int offset, int count) {
    if (resampler_ && (frame->format != configuredFormat_ || frame->sample_rate != configuredRate_ ||
                       frame->ch_layout.nb_channels != configuredChannels_)) {
      // The stream changed its format: what the resampler holds is finished in the old one.
      resample(nullptr, 0);
      resampler_.reset();
    }
    if (!resampler_) configure(frame);
    const auto format = static_cast<AVSampleFormat>(frame->format);
    const int bytes = av_get_bytes_per_sample(format);
    const int sourceChannels = frame->ch_layout.nb_channels;
    std::vector<const std::uint8_t*> planes;
    if (av_sample_fmt_is_planar(format) != 0) {
      for (int c = 0; c < sourceChannels; ++c) planes.push_back(frame->extended_data[c] + offset * bytes);
    } else {
      planes.push_back(frame->extended_data[0] + static_cast<std::ptrdiff_t>(offset) * bytes * sourceChannels);
    }
    resample(planes.data(), count);
  }

  void resample(const std::uint8_t** planes, int count) {
    const int capacity = swr_get_out_samples(resampler_.get(), count);
    if (capacity < 0) throwConversion("resample", capacity);
    converted_.resize(static_cast<std::size_t>(capacity) * static_cast<std::size_t>(output_.channels()));
    auto* out = reinterpret_cast<std::uint8_t*>(converted_.data());
    const int produced = swr_convert(resampler_.get(), &out, capacity, planes, count);
    if (produced < 0) throwConversion("resample", produced);
    deliver(converted_.data(), produced);
  }

  void deliver(const float* samples, std::int64_t frames) {
    if (frames <= 0) return;
    if (stretcher_) {
      stretcher_->push(samples, frames, pending_);
    } else {
      pending_.insert(pending_.end(), samples, samples + frames * output_.channels());
    }
  }

  void configure(const AVFrame* frame) {
    ChannelLayout sourceLayout(frame->ch_layout);
    SwrContext* context = nullptr;
    // This libswresample takes the layouts as mutable though it only reads them.
    int result = swr_alloc_set_opts2(&context, const_cast<AVChannelLayout*>(output_.layout.get()), AV_SAMPLE_FMT_FLT,
                                     output_.sampleRate, const_cast<AVChannelLayout*>(sourceLayout.get()),
                                     static_cast<AVSampleFormat>(frame->format),
                                     frame->sample_rate > 0 ? frame->sample_rate : decoder_.sampleRate(), 0, nullptr);
    if (result < 0) throwConversion("resampler", result);
    resampler_.reset(context);
    if (sourceLayout.count() == 1) {
      // A mono microphone is heard at its recorded level on every speaker, not 3 dB down.
      std::vector<double> matrix(static_cast<std::size_t>(output_.channels()), 1.0);
      result = swr_set_matrix(context, matrix.data(), 1);
      if (result < 0) throwConversion("resampler", result);
    }
    result = swr_init(context);
    if (result < 0) throwConversion("resampler", result);
    configuredFormat_ = frame->format;
    configuredRate_ = frame->sample_rate;
    configuredChannels_ = sourceLayout.count();
  }

  void finish() {
    if (finished_) return;
    sourceOver_ = true;
    if (resampler_) resample(nullptr, 0);
    if (stretcher_) stretcher_->finish(pending_);
    finished_ = true;
  }

  TrackDecoder& decoder_;
  const OutputSpec& output_;
  std::int64_t firstSample_ = 0;  // in source samples: the first one kept
  std::int64_t endSample_ = 0;    // the first one no longer kept
  std::int64_t nextSample_ = 0;   // where a frame without a timestamp starts
  ResamplerPtr resampler_;
  int configuredFormat_ = -1;
  int configuredRate_ = 0;
  int configuredChannels_ = 0;
  std::optional<Stretcher> stretcher_;
  std::vector<float> converted_;
  std::vector<float> pending_;  // output frames not yet delivered, from `consumed_` on
  std::size_t consumed_ = 0;
  bool sourceOver_ = false;
  bool finished_ = false;
};

// A piece as frames of the output.
struct PieceSpan {
  CompositionPiece piece;
  std::int64_t firstFrame = 0;
  std::int64_t endFrame = 0;
};

struct TrackCursor {
  std::unique_ptr<TrackDecoder> decoder;
  std::vector<PieceSpan> spans;
  float volume = 1.0F;
  // The piece being played, and the frame its sound continues at.
  std::unique_ptr<PieceSound> sound;
  std::size_t soundSpan = 0;
  std::int64_t soundPosition = -1;
};

}  // namespace

struct SequenceAudioReader::State {
  State(AudioOutputFormat f, std::stop_token token)
      : format(f), output(f.sampleRate, f.channelCount), stopToken(std::move(token)) {}

  AudioOutputFormat format;
  OutputSpec output;
  std::int64_t frameCount = 0;
  std::int64_t position = 0;
  std::stop_token stopToken;
  std::optional<MediaContainer> unusedContainer;  // kept when the plan has no audio
  std::vector<TrackCursor> tracks;
  std::vector<float> scratch;

  void mix(TrackCursor& track, float* into, std::int64_t from, std::int64_t count);
};

void SequenceAudioReader::State::mix(TrackCursor& track, float* into, std::int64_t from, std::int64_t count) {
  const int channels = format.channelCount;
  const std::int64_t end = from + count;
  std::int64_t p = from;
  auto span = std::upper_bound(track.spans.begin(), track.spans.end(), p,
                               [](std::int64_t frame, const PieceSpan& s) { return frame < s.endFrame; });
  for (; span != track.spans.end() && span->firstFrame < end; ++span) {
    p = std::max(p, span->firstFrame);
    const auto index = static_cast<std::size_t>(span - track.spans.begin());
    if (!track.sound || track.soundSpan != index || track.soundPosition != p) {
      throwIfCancelled(stopToken);
      track.sound.reset();
      track.sound = std::make_unique<PieceSound>(*track.decoder, span->piece, p - span->firstFrame, output);
      track.soundSpan = index;
    }
    const std::int64_t frames = std::min(end, span->endFrame) - p;
    scratch.resize(static_cast<std::size_t>(frames * channels));
    track.sound->render(scratch.data(), frames);
    float* target = into + (p - from) * channels;
    for (std::int64_t i = 0; i < frames * channels; ++i)
      target[i] += track.volume * scratch[static_cast<std::size_t>(i)];
    p += frames;
    track.soundPosition = p;
    if (p == span->endFrame) track.sound.reset();
  }
}

SequenceAudioReader::SequenceAudioReader(MediaContainer container, const TimelineCompositionPlan& plan,
                                         AudioOutputFormat format) {
  if (format.sampleRate < 8'000 || format.sampleRate > 384'000)
    throw std::invalid_argument("audio output sample rate out of range");
  if (format.channelCount < 1 || format.channelCount > 8)
    throw std::invalid_argument("audio output channel count out of range");
  state_ = std::make_unique<State>(format, container.stopToken());
  State& state = *state_;
  state.frameCount = mulDivFloor(plan.sequenceDuration.nanoseconds, format.sampleRate, nanosecondsPerSecond);
  if (state.frameCount < 0) state.frameCount = 0;

  const std::filesystem::path moviePath = container.path();
  std::optional<MediaContainer> first(std::move(container));
  for (const CompositionTrack& track : plan.audioTracks) {
    TrackCursor cursor;
    MediaContainer source = first ? std::move(*first) : MediaContainer::open(moviePath, state.stopToken);
    first.reset();
    cursor.decoder = std::make_unique<TrackDecoder>(std::move(source), track.streamIndex);
    if (plan.audioMix) {
      for (const AudioMixInput& input : *plan.audioMix)
        if (input.streamIndex == track.streamIndex) cursor.volume = static_cast<float>(input.volume);
    }
    std::int64_t previousEnd = 0;
    for (const CompositionPiece& piece : track.pieces) {
      const std::int64_t firstFrame =
          std::max(previousEnd, mulDivFloor(piece.sequenceStart.nanoseconds, format.sampleRate, nanosecondsPerSecond));
      const std::int64_t endFrame = std::min(
          state.frameCount, mulDivFloor(piece.sequenceEnd().nanoseconds, format.sampleRate, nanosecondsPerSecond));
      if (firstFrame >= endFrame || piece.ratePermille <= 0) continue;
      cursor.spans.push_back({piece, firstFrame, endFrame});
      previousEnd = endFrame;
    }
    state.tracks.push_back(std::move(cursor));
  }
  if (first) state.unusedContainer = std::move(first);
}

SequenceAudioReader::SequenceAudioReader(SequenceAudioReader&&) noexcept = default;
SequenceAudioReader& SequenceAudioReader::operator=(SequenceAudioReader&&) noexcept = default;
SequenceAudioReader::~SequenceAudioReader() = default;

const AudioOutputFormat& SequenceAudioReader::format() const { return state_->format; }
std::int64_t SequenceAudioReader::frameCount() const { return state_->frameCount; }
std::int64_t SequenceAudioReader::position() const { return state_->position; }

std::int64_t SequenceAudioReader::read(std::span<float> into) {
  State& state = *state_;
  throwIfCancelled(state.stopToken);
  const int channels = state.format.channelCount;
  const std::int64_t frames =
      std::min(static_cast<std::int64_t>(into.size()) / channels, state.frameCount - state.position);
  if (frames <= 0) return 0;
  float* out = into.data();
  std::fill_n(out, frames * channels, 0.0F);
  for (TrackCursor& track : state.tracks) {
    // A silent track is not decoded at all; its piece restarts where the next read needs it.
    if (track.volume == 0.0F) continue;
    state.mix(track, out, state.position, frames);
  }
  for (std::int64_t i = 0; i < frames * channels; ++i) out[i] = std::clamp(out[i], -1.0F, 1.0F);
  state.position += frames;
  return frames;
}

void SequenceAudioReader::seek(ProjectTime sequenceTime) {
  State& state = *state_;
  const std::int64_t frame = mulDivFloor(sequenceTime.nanoseconds, state.format.sampleRate, nanosecondsPerSecond);
  state.position = std::clamp<std::int64_t>(frame, 0, state.frameCount);
}

std::string SequenceAudioReader::stretchFilterDescription(std::int32_t ratePermille, bool rubberbandAvailable) {
  if (rubberbandAvailable) return fmt::format("rubberband=tempo={}", ratePermille / 1000.0);
  // Older atempo builds accept 0.5...2 only.
  std::string chain;
  std::int64_t numerator = ratePermille;
  std::int64_t denominator = 1000;
  while (numerator > 2 * denominator) {
    chain += "atempo=2,";
    denominator *= 2;
  }
  while (2 * numerator < denominator) {
    chain += "atempo=0.5,";
    numerator *= 2;
  }
  return chain + fmt::format("atempo={}", static_cast<double>(numerator) / static_cast<double>(denominator));
}

}  // namespace vumo
