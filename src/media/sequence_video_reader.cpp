#include "media/sequence_video_reader.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "media/libav_handles.h"
#include "media/sequence_reader_support.h"
#include "shared/cancellation.h"

extern "C" {
#include <libavutil/mathematics.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

namespace vumo {

using namespace media_detail;

namespace {

constexpr std::int64_t nanosecondsPerSecond = 1'000'000'000;
// Without an index to say where the keyframes are, decoding forward beats seeking up to this far.
constexpr std::int64_t forwardDecodeLimitNanoseconds = 2 * nanosecondsPerSecond;

// A decoded frame with its presentation time in the stream's ticks and in nanoseconds.
struct TimedFrame {
  std::shared_ptr<AVFrame> frame;
  std::int64_t ticks = 0;
  std::int64_t nanoseconds = 0;
};

VideoColorMatrix matrixOf(AVColorSpace space) {
  switch (space) {
    case AVCOL_SPC_BT470BG:
    case AVCOL_SPC_SMPTE170M:
    case AVCOL_SPC_FCC: return VideoColorMatrix::bt601;
    case AVCOL_SPC_BT2020_NCL:
    case AVCOL_SPC_BT2020_CL: return VideoColorMatrix::bt2020;
    default: return VideoColorMatrix::bt709;
  }
}

int swscaleColorspaceOf(VideoColorMatrix matrix) {
  switch (matrix) {
    case VideoColorMatrix::bt601: return SWS_CS_ITU601;
    case VideoColorMatrix::bt2020: return SWS_CS_BT2020;
    case VideoColorMatrix::bt709: break;
  }
  return SWS_CS_ITU709;
}

bool isFullRange(const AVFrame& frame) {
  const auto format = static_cast<AVPixelFormat>(frame.format);
  return frame.color_range == AVCOL_RANGE_JPEG || format == AV_PIX_FMT_YUVJ420P || format == AV_PIX_FMT_YUVJ422P ||
         format == AV_PIX_FMT_YUVJ444P || format == AV_PIX_FMT_YUVJ440P || format == AV_PIX_FMT_YUVJ411P;
}

}  // namespace

struct SequenceVideoReader::State {
  State(MediaContainer c, CompositionTrack t) : container(std::move(c)), track(std::move(t)) {}

  MediaContainer container;
  CompositionTrack track;
  int index = 0;
  AVRational timeBase{1, 1};
  CodecContextPtr codec;
  PacketPtr packet;
  std::int64_t seekCount = 0;

  std::optional<TimedFrame> current;
  std::optional<TimedFrame> next;  // none once the stream has ended
  // The lowest source time `current` answers for: its own time, or an earlier one that a seek
  // landed after (before the stream's first frame).
  std::int64_t currentCoversFrom = 0;
  std::optional<DecodedVideoFrame> currentPicture;  // `current` as delivered, once converted

  ScalerPtr scaler;

  const std::stop_token& stopToken() const { return container.stopToken(); }

  void position(std::int64_t sourceNanoseconds);
  void seekTo(std::int64_t sourceNanoseconds);
  void seekDemuxer(std::int64_t sourceNanoseconds);
  std::optional<std::int64_t> keyframeTicksAtOrBefore(std::int64_t ticks) const;
  std::optional<TimedFrame> decodeNext(const std::optional<TimedFrame>& previous);
  void feed();
  DecodedVideoFrame picture(const TimedFrame& timed);
  std::shared_ptr<AVFrame> toYuv420p(const AVFrame& source, VideoColorMatrix matrix, bool fullRange);
};

SequenceVideoReader::SequenceVideoReader(MediaContainer container, CompositionTrack track)
    : state_(std::make_unique<State>(std::move(container), std::move(track))) {
  State& state = *state_;
  const std::int64_t index = state.track.streamIndex;
  if (index < 0 || index >= state.container.streamCount() ||
      state.container.streamType(index) != MediaStreamType::video)
    throw SequenceReaderError(SequenceReaderError::Case::unsupportedStream,
                              fmt::format("track {} is not video", index));
  state.index = static_cast<int>(index);
  const AVStream* stream = state.container.stream(index);
  state.timeBase = stream->time_base;
  if (state.timeBase.num <= 0 || state.timeBase.den <= 0)
    throw SequenceReaderError(SequenceReaderError::Case::unsupportedStream, "no time base");
  const AVCodec* codec = avcodec_find_decoder(stream->codecpar->codec_id);
  if (codec == nullptr)
    throw SequenceReaderError(SequenceReaderError::Case::unsupportedStream,
                              fmt::format("no decoder for {}", avcodec_get_name(stream->codecpar->codec_id)));
  state.codec.reset(avcodec_alloc_context3(codec));
  state.packet.reset(av_packet_alloc());
  if (!state.codec || !state.packet) throw std::bad_alloc();
  int result = avcodec_parameters_to_context(state.codec.get(), stream->codecpar);
  if (result >= 0) {
    state.codec->pkt_timebase = stream->time_base;
    state.codec->thread_count = 0;
    result = avcodec_open2(state.codec.get(), codec, nullptr);
  }
  if (result < 0)
    throw SequenceReaderError(SequenceReaderError::Case::unsupportedStream, "open: " + libavErrorText(result));
  std::sort(state.track.pieces.begin(), state.track.pieces.end(),
            [](const CompositionPiece& a, const CompositionPiece& b) { return a.sequenceStart < b.sequenceStart; });
}

SequenceVideoReader::SequenceVideoReader(SequenceVideoReader&&) noexcept = default;
SequenceVideoReader& SequenceVideoReader::operator=(SequenceVideoReader&&) noexcept = default;
SequenceVideoReader::~SequenceVideoReader() = default;

std::int64_t SequenceVideoReader::seekCount() const { return state_->seekCount; }

std::optional<DecodedVideoFrame> SequenceVideoReader::frameAt(ProjectTime sequenceTime) {
  State& state = *state_;
  throwIfCancelled(state.stopToken());
  const std::vector<CompositionPiece>& pieces = state.track.pieces;
  auto after =
      std::upper_bound(pieces.begin(), pieces.end(), sequenceTime,
                       [](ProjectTime time, const CompositionPiece& piece) { return time < piece.sequenceStart; });
  if (after == pieces.begin()) return std::nullopt;
  const CompositionPiece& piece = *std::prev(after);
  if (sequenceTime >= piece.sequenceEnd() || piece.sourceRange.duration.nanoseconds <= 0) return std::nullopt;

  const std::int64_t offset = (sequenceTime - piece.sequenceStart).nanoseconds;
  const std::int64_t clipStart = piece.sourceRange.start.nanoseconds;
  const std::int64_t clipEnd = piece.sourceRange.end().nanoseconds;
  // The piece's sequence end is rounded up, so its last nanosecond may map just past the source.
  const std::int64_t source = std::min(clipEnd - 1, clipStart + mulDivFloor(offset, piece.ratePermille, 1000));

  state.position(source);
  if (!state.current) return std::nullopt;
  if (!state.currentPicture) state.currentPicture = state.picture(*state.current);
  DecodedVideoFrame frame = *state.currentPicture;
  frame.sequenceTime = sequenceTime;
  return frame;
}

void SequenceVideoReader::State::position(std::int64_t sourceNanoseconds) {
  bool seek = !current || sourceNanoseconds < currentCoversFrom;
  if (!seek && next && sourceNanoseconds >= next->nanoseconds) {
    const std::int64_t ticks = av_rescale_q_rnd(
        sourceNanoseconds, AVRational{1, static_cast<int>(nanosecondsPerSecond)}, timeBase, AV_ROUND_DOWN);
    // A keyframe beyond the next frame can be reached without decoding what lies between.
    if (std::optional<std::int64_t> keyframe = keyframeTicksAtOrBefore(ticks))
      seek = *keyframe > next->ticks;
    else
      seek = sourceNanoseconds - next->nanoseconds > forwardDecodeLimitNanoseconds;
  }
  if (seek) seekTo(sourceNanoseconds);
  std::int64_t decoded = 0;
  while (next && next->nanoseconds <= sourceNanoseconds) {
    if (++decoded % 16 == 0) throwIfCancelled(stopToken());
    current = std::move(next);
    currentCoversFrom = current->nanoseconds;
    currentPicture.reset();
    next = decodeNext(current);
  }
}

void SequenceVideoReader::State::seekTo(std::int64_t sourceNanoseconds) {
  // A keyframe may follow pictures that show earlier and lean on the group before it (an open
  // group of pictures); those are not decodable after a seek, so the first picture can come out
  // later than the time asked for. Then the reader seeks further back, each time twice as far,
  // until a picture at or before the time comes first or the seek has reached the stream's start.
  const std::int64_t streamStart = container.streamTimeRange(index).start.nanoseconds;
  ++seekCount;
  std::int64_t backoff = 0;
  for (;;) {
    const std::int64_t target = sourceNanoseconds - backoff;
    seekDemuxer(target);
    current = decodeNext(std::nullopt);
    next = current ? decodeNext(current) : std::nullopt;
    if (!current || current->nanoseconds <= sourceNanoseconds || target <= streamStart) break;
    backoff = backoff == 0 ? nanosecondsPerSecond : backoff * 2;
  }
  currentPicture.reset();
  if (current) currentCoversFrom = std::min(current->nanoseconds, sourceNanoseconds);
}

void SequenceVideoReader::State::seekDemuxer(std::int64_t sourceNanoseconds) {
  const std::int64_t ticks = av_rescale_q_rnd(sourceNanoseconds, AVRational{1, static_cast<int>(nanosecondsPerSecond)},
                                              timeBase, AV_ROUND_DOWN);
  AVFormatContext* format = container.formatContext();
  int result = avformat_seek_file(format, index, INT64_MIN, ticks, ticks, 0);
  // Before the first keyframe there is nothing at or before the target: take the first one after.
  if (result < 0) result = avformat_seek_file(format, index, INT64_MIN, ticks, INT64_MAX, 0);
  if (result < 0) throwDecoding(stopToken(), "seek", result);
  avcodec_flush_buffers(codec.get());
}

std::optional<std::int64_t> SequenceVideoReader::State::keyframeTicksAtOrBefore(std::int64_t ticks) const {
  AVStream* stream = container.stream(index);
  if (avformat_index_get_entries_count(stream) <= 0) return std::nullopt;
  const int entry = av_index_search_timestamp(stream, ticks, AVSEEK_FLAG_BACKWARD);
  if (entry < 0) return std::nullopt;
  const AVIndexEntry* found = avformat_index_get_entry(stream, entry);
  if (found == nullptr) return std::nullopt;
  return found->timestamp;
}

std::optional<TimedFrame> SequenceVideoReader::State::decodeNext(const std::optional<TimedFrame>& previous) {
  std::shared_ptr<AVFrame> frame(av_frame_alloc(), FrameDeleter{});
  if (!frame) throw std::bad_alloc();
  for (;;) {
    int result = avcodec_receive_frame(codec.get(), frame.get());
    if (result == 0) break;
    if (result == AVERROR_EOF) return std::nullopt;
    if (result != AVERROR(EAGAIN)) throwDecoding(stopToken(), "decode", result);
    feed();
  }
  TimedFrame timed{frame, frame->best_effort_timestamp, 0};
  if (timed.ticks == AV_NOPTS_VALUE) {
    // A frame without a time follows its predecessor by one frame interval.
    AVRational rate = container.stream(index)->avg_frame_rate;
    if (rate.num <= 0 || rate.den <= 0) rate = AVRational{25, 1};
    const std::int64_t step = std::max<std::int64_t>(1, av_rescale_q(1, av_inv_q(rate), timeBase));
    timed.ticks = previous ? previous->ticks + step : 0;
  }
  timed.nanoseconds = nanosecondsFromStreamTime(timed.ticks, timeBase.num, timeBase.den).value_or(0);
  return timed;
}

void SequenceVideoReader::State::feed() {
  AVFormatContext* format = container.formatContext();
  for (;;) {
    throwIfCancelled(stopToken());
    int result = av_read_frame(format, packet.get());
    if (result == AVERROR_EOF) {
      avcodec_send_packet(codec.get(), nullptr);
      return;
    }
    if (result < 0) throwDecoding(stopToken(), "read", result);
    if (packet->stream_index != index) {
      av_packet_unref(packet.get());
      continue;
    }
    result = avcodec_send_packet(codec.get(), packet.get());
    av_packet_unref(packet.get());
    // A damaged packet loses its own picture; the previous one stays on screen.
    if (result == AVERROR_INVALIDDATA) continue;
    if (result < 0) throwDecoding(stopToken(), "decode", result);
    return;
  }
}

DecodedVideoFrame SequenceVideoReader::State::picture(const TimedFrame& timed) {
  const AVFrame& decoded = *timed.frame;
  if (decoded.width <= 0 || decoded.height <= 0)
    throw SequenceReaderError(SequenceReaderError::Case::decodingFailed, "a frame without a size");
  DecodedVideoFrame frame;
  frame.width = decoded.width;
  frame.height = decoded.height;
  frame.matrix = matrixOf(decoded.colorspace);
  frame.range = isFullRange(decoded) ? VideoColorRange::full : VideoColorRange::limited;
  frame.sourceTime = ProjectTime{timed.nanoseconds};

  std::shared_ptr<AVFrame> planes = timed.frame;
  switch (static_cast<AVPixelFormat>(decoded.format)) {
    case AV_PIX_FMT_YUV420P:
    case AV_PIX_FMT_YUVJ420P: frame.layout = VideoPixelLayout::yuv420p; break;
    case AV_PIX_FMT_NV12: frame.layout = VideoPixelLayout::nv12; break;
    default:
      planes = toYuv420p(decoded, frame.matrix, frame.range == VideoColorRange::full);
      frame.layout = VideoPixelLayout::yuv420p;
      // What was RGB is now Y'CbCr of the default kind.
      if ((av_pix_fmt_desc_get(static_cast<AVPixelFormat>(decoded.format))->flags & AV_PIX_FMT_FLAG_RGB) != 0) {
        frame.matrix = VideoColorMatrix::bt709;
        frame.range = VideoColorRange::limited;
      }
      break;
  }
  frame.planeCount = frame.layout == VideoPixelLayout::nv12 ? 2 : 3;
  for (int plane = 0; plane < frame.planeCount; ++plane) {
    frame.planes[static_cast<std::size_t>(plane)] = planes->data[plane];
    frame.strides[static_cast<std::size_t>(plane)] = planes->linesize[plane];
  }
  frame.frame = std::move(planes);
  return frame;
}

std::shared_ptr<AVFrame> SequenceVideoReader::State::toYuv420p(const AVFrame& source, VideoColorMatrix matrix,
                                                               bool fullRange) {
  const auto format = static_cast<AVPixelFormat>(source.format);
  const AVPixFmtDescriptor* descriptor = av_pix_fmt_desc_get(format);
  if (descriptor == nullptr || (descriptor->flags & (AV_PIX_FMT_FLAG_HWACCEL | AV_PIX_FMT_FLAG_BITSTREAM)) != 0)
    throw SequenceReaderError(SequenceReaderError::Case::conversionFailed,
                              fmt::format("unsupported pixel format {}", descriptor ? descriptor->name : "none"));
  const bool rgb = (descriptor->flags & (AV_PIX_FMT_FLAG_RGB | AV_PIX_FMT_FLAG_PAL)) != 0;
  scaler.reset(sws_getCachedContext(scaler.release(), source.width, source.height, format, source.width, source.height,
                                    AV_PIX_FMT_YUV420P, SWS_BILINEAR | SWS_ACCURATE_RND, nullptr, nullptr, nullptr));
  if (!scaler) throwConversion("scaler", AVERROR(EINVAL));
  // Y'CbCr keeps its matrix and range; only the chroma is resampled. RGB becomes limited BT.709.
  const int* sourceCoefficients = sws_getCoefficients(swscaleColorspaceOf(matrix));
  const int* targetCoefficients = rgb ? sws_getCoefficients(SWS_CS_ITU709) : sourceCoefficients;
  sws_setColorspaceDetails(scaler.get(), sourceCoefficients, (rgb || fullRange) ? 1 : 0, targetCoefficients,
                           (!rgb && fullRange) ? 1 : 0, 0, 1 << 16, 1 << 16);

  std::shared_ptr<AVFrame> converted(av_frame_alloc(), FrameDeleter{});
  if (!converted) throw std::bad_alloc();
  converted->format = AV_PIX_FMT_YUV420P;
  converted->width = source.width;
  converted->height = source.height;
  int result = av_frame_get_buffer(converted.get(), 0);
  if (result < 0) throwConversion("scaler buffer", result);
  result = av_frame_copy_props(converted.get(), &source);
  if (result < 0) throwConversion("scaler buffer", result);
  result =
      sws_scale(scaler.get(), source.data, source.linesize, 0, source.height, converted->data, converted->linesize);
  if (result < 0) throwConversion("scale", result);
  return converted;
}

}  // namespace vumo
