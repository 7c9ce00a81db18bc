#include "media/recording_media_writer.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/dict.h>
#include <libavutil/opt.h>
}

#include <fmt/format.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <vector>

#include "media/libav_handles.h"
#include "media/video_encoder.h"

namespace vumo {

namespace {

using namespace media_detail;
using WriterCase = RecordingMediaWriterError::Case;

constexpr ErrorCase<WriterCase> writerCases[] = {
    {WriterCase::cannotAddInput, "cannotAddInput", "recording.error.writerInput",
     "Unable to create the {} media track.", "execution", ErrorKind::failure},
    {WriterCase::startFailed, "startFailed", "recording.error.writerStart", "Unable to start the recording file: {}",
     "execution", ErrorKind::failure},
    {WriterCase::appendFailed, "appendFailed", "recording.error.writerAppend", "Unable to write recording data: {}",
     "execution", ErrorKind::failure},
    {WriterCase::finishFailed, "finishFailed", "recording.error.writerFinish",
     "Unable to finish the recording file: {}", "execution", ErrorKind::failure},
};
static_assert(inCaseOrder(writerCases));

constexpr std::int64_t nanosecondsPerSecond = 1'000'000'000;
constexpr int audioSampleRate = media_detail::aacSampleRate;
constexpr int audioChannelCount = media_detail::aacChannelCount;
constexpr std::int64_t webcamBitRate = 4'000'000;
// Video timestamps: the frames arrive at any nanosecond, not on a grid of the frame rate.
constexpr AVRational videoTimeBase{1, 90'000};
constexpr int movieTimescale = 600;
constexpr std::int64_t firstFragmentNanoseconds = nanosecondsPerSecond;
constexpr std::int64_t fragmentIntervalNanoseconds = 10 * nanosecondsPerSecond;
// An unchanged screen is not encoded again (each sample lasts until the next one), but a picture
// still goes out this often, so that fragments keep being cut on time and a reader of the growing
// file never waits long for one.
constexpr std::int64_t heartbeatNanoseconds = nanosecondsPerSecond;
// The encoder's group of pictures counts frames, which no longer stand for time once unchanged
// ones are left out: a keyframe is asked for when this much video time has passed without one.
constexpr std::int64_t keyframeIntervalNanoseconds = 2 * nanosecondsPerSecond;
// Audio whose time strays from where the samples before it end by more than this is placed
// anew: a gap becomes silence, an overlap is cut. Below it the samples run on, so that a stream's
// timestamp jitter never shows as clicks.
constexpr std::int64_t audioResyncSamples = audioSampleRate / 50;

std::string describeLibavError(int code) {
  std::string text = libavErrorText(code);
  return text.empty() ? std::string(unknownWriterError.englishText) : text;
}

FramePtr allocateFrame() {
  FramePtr frame(av_frame_alloc());
  if (!frame) throw std::bad_alloc();
  return frame;
}

// An encoder or muxer failure on the encoder thread, carried to the caller's next call.
struct EncodingFailure {
  std::string text;
};
[[noreturn]] void failEncoding(std::string text) { throw EncodingFailure{std::move(text)}; }

struct VideoItem {
  std::shared_ptr<const PixelBuffer> pixels;
  std::int64_t relativeNanoseconds = 0;
  bool changed = true;
};

struct AudioItem {
  std::vector<float> samples;
  int channels = 2;
  int sampleRate = audioSampleRate;
  std::int64_t relativeNanoseconds = 0;
};

// One H.264 track: its encoder, the frame it is fed from and the conversion into it.
struct VideoTrack {
  VideoEncoder encoder;
  AVStream* stream = nullptr;
  PixelSize size;
  FramePtr planes;
  ScalerPtr scaler;
  int scalerWidth = 0;
  int scalerHeight = 0;
  // The screen's frames come at a variable rate: a repeat is left out, and a sample lasts until the
  // next one. The movie takes a sample's duration from its packet, so each packet is held back
  // until the next one (or the next frame's time) says how long it lasts.
  bool variableRate = false;
  PacketPtr held;
  std::weak_ptr<const PixelBuffer> lastSource;  // what `planes` holds, for unchanged frames
  std::int64_t lastTimestamp = -1;              // in the encoder's time base
  std::optional<std::int64_t> lastEncodedNanoseconds;
  std::optional<std::int64_t> lastKeyTimestamp;  // in the encoder's time base
  // The time of the latest frame left out as a repeat, while no frame has been encoded after it:
  // the file's last picture is written at it when the recording ends.
  std::optional<std::int64_t> skippedNanoseconds;
};

// One AAC track: samples are brought to 48 kHz planar stereo, queued until the encoder's frame is
// full, and timed by their count from the file's start.
struct AudioTrack {
  CodecContextPtr encoder;
  AVStream* stream = nullptr;
  ResamplerPtr resampler;
  int resamplerChannels = 0;
  int resamplerRate = 0;
  AudioFifoPtr fifo;
  FramePtr frame;
  std::optional<std::int64_t> nextPosition;  // where the fifo's end lies, in samples from 0
  std::int64_t sentSamples = 0;
  std::vector<float> left, right;
};

struct TrackOffsets {
  std::optional<std::int64_t> first;
  std::optional<std::int64_t> last;
  std::int64_t drift() const { return first && last ? std::abs(*last - *first) : 0; }
};

// Where a picture of `source` goes inside `target` with its aspect kept, both sides even.
struct PlacedRect {
  int x = 0, y = 0, width = 0, height = 0;
};
PlacedRect fitted(int sourceWidth, int sourceHeight, int targetWidth, int targetHeight) {
  if (sourceWidth == targetWidth && sourceHeight == targetHeight) return {0, 0, targetWidth, targetHeight};
  const double scale = std::min(double(targetWidth) / sourceWidth, double(targetHeight) / sourceHeight);
  auto even = [](double v, int limit) { return std::clamp(static_cast<int>(std::lround(v)) & ~1, 2, limit); };
  const int width = even(sourceWidth * scale, targetWidth);
  const int height = even(sourceHeight * scale, targetHeight);
  return {((targetWidth - width) / 2) & ~1, ((targetHeight - height) / 2) & ~1, width, height};
}

void fillBlack(AVFrame& frame) {
  for (int plane = 0; plane < 3; ++plane) {
    const int rows = plane == 0 ? frame.height : (frame.height + 1) / 2;
    std::memset(frame.data[plane], plane == 0 ? 16 : 128, static_cast<std::size_t>(frame.linesize[plane]) * rows);
  }
}

}  // namespace

RecordingMediaWriterError::RecordingMediaWriterError(Case kind, std::string_view payload)
    : Error(catalogue(), kind, payload), kind_(kind) {}

const ErrorCatalogue<RecordingMediaWriterError::Case>& RecordingMediaWriterError::catalogue() {
  static const ErrorCatalogue<Case> catalogue{"RecordingMediaWriterError", recordingErrorsLocalizationTable,
                                              writerCases};
  return catalogue;
}

struct RecordingMediaWriter::State {
  RecordingWriterConfiguration configuration;
  OutputFormatPtr format;
  VideoTrack screen;
  std::optional<VideoTrack> webcam;
  std::optional<AudioTrack> systemAudio;
  std::optional<AudioTrack> microphone;
  PacketPtr packet;

  // The calling thread's side.
  std::optional<std::int64_t> startPTS;
  std::optional<std::int64_t> lastVideoPTS, lastWebcamPTS, lastSystemAudioPTS, lastMicrophonePTS;
  std::int64_t videoFrames = 0, droppedVideoFrames = 0, systemAudioSamples = 0, microphoneSamples = 0;
  std::int64_t webcamFrames = 0, droppedWebcamFrames = 0;
  bool hasWrittenWebcamSample = false;
  std::int64_t maximumWebcamOffsetNanoseconds = 0;
  TrackOffsets systemOffsets, microphoneOffsets;
  std::exception_ptr terminalError;
  bool finished = false;
  bool cancelled = false;

  // Shared with the encoder thread, under `mutex`.
  std::mutex mutex;
  std::condition_variable wake;
  std::deque<VideoItem> videoQueue, webcamQueue;
  std::deque<AudioItem> systemAudioQueue, microphoneQueue;
  bool stopping = false;  // drain what is queued, flush the encoders, end
  bool discarding = false;
  bool held = false;
  bool busy = false;  // the encoder thread works on items it took
  std::condition_variable idle;
  std::optional<std::string> encoderFailure;
  std::atomic<bool> failed{false};
  std::thread encoderThread;

  // The encoder thread's own.
  std::int64_t nextFragmentNanoseconds = firstFragmentNanoseconds;

  // ---- set-up

  VideoTrack makeVideoTrack(PixelSize size, int framesPerSecond, std::int64_t bitRate,
                            const RecordingWriterText& name) {
    VideoEncoderSettings settings;
    settings.size = size;
    settings.framesPerSecond = std::max(framesPerSecond, 1);
    settings.bitRate = bitRate;
    settings.timeBase = videoTimeBase;
    settings.globalHeader = true;
    settings.realTime = true;
    settings.allowHardware = configuration.encoderPreference != "libx264";
    auto fail = [&name] { return RecordingMediaWriterError(WriterCase::cannotAddInput, name.englishText); };
    if (size.width <= 0 || size.height <= 0 || size.width % 2 != 0 || size.height % 2 != 0) throw fail();
    auto encoder = openVideoEncoder(settings);
    if (!encoder) throw fail();
    VideoTrack track;
    track.size = size;
    track.encoder = std::move(*encoder);
    track.stream = avformat_new_stream(format.get(), nullptr);
    if (track.stream == nullptr ||
        avcodec_parameters_from_context(track.stream->codecpar, track.encoder.context.get()) < 0)
      throw fail();
    track.stream->time_base = track.encoder.context->time_base;
    track.stream->avg_frame_rate = track.encoder.context->framerate;
    track.planes = newYuvFrame(size);
    return track;
  }

  AudioTrack makeAudioTrack(const RecordingWriterText& name) {
    auto fail = [&name] { return RecordingMediaWriterError(WriterCase::cannotAddInput, name.englishText); };
    AudioTrack track;
    track.encoder = media_detail::openAacEncoder(true);
    if (!track.encoder) throw fail();
    track.stream = avformat_new_stream(format.get(), nullptr);
    if (track.stream == nullptr || avcodec_parameters_from_context(track.stream->codecpar, track.encoder.get()) < 0)
      throw fail();
    track.stream->time_base = track.encoder->time_base;
    track.fifo.reset(av_audio_fifo_alloc(AV_SAMPLE_FMT_FLTP, audioChannelCount, audioSampleRate));
    if (!track.fifo) throw std::bad_alloc();
    track.frame = allocateFrame();
    track.frame->format = AV_SAMPLE_FMT_FLTP;
    track.frame->sample_rate = audioSampleRate;
    av_channel_layout_default(&track.frame->ch_layout, audioChannelCount);
    track.frame->nb_samples = track.encoder->frame_size > 0 ? track.encoder->frame_size : 1024;
    if (av_frame_get_buffer(track.frame.get(), 0) < 0) throw std::bad_alloc();
    return track;
  }

  // The file opens with the first screen frame, as the tracks' start.
  void startFile() {
    const auto& url = configuration.url;
    if (int status = avio_open(&format->pb, url.c_str(), AVIO_FLAG_WRITE); status < 0)
      throw RecordingMediaWriterError(WriterCase::startFailed, describeLibavError(status));
    AVDictionary* rawOptions = nullptr;
    av_dict_set(&rawOptions, "movflags", "empty_moov+frag_custom+default_base_moof", 0);
    av_dict_set_int(&rawOptions, "movie_timescale", movieTimescale, 0);
    const int status = avformat_write_header(format.get(), &rawOptions);
    av_dict_free(&rawOptions);
    if (status < 0) {
      avio_closep(&format->pb);
      throw RecordingMediaWriterError(WriterCase::startFailed, describeLibavError(status));
    }
    avio_flush(format->pb);
  }

  // ---- the encoder thread

  // Writes the packet held back, lasting until `nextTimestamp` (in the stream's time base) where
  // that is known, else as long as the encoder said.
  void releaseHeld(VideoTrack& track, std::optional<std::int64_t> nextTimestamp) {
    if (!track.held || track.held->data == nullptr) return;
    AVPacket& held = *track.held;
    if (nextTimestamp && held.dts != AV_NOPTS_VALUE && *nextTimestamp > held.dts)
      held.duration = *nextTimestamp - held.dts;
    const int status = av_write_frame(format.get(), &held);
    av_packet_unref(&held);
    if (status < 0) failEncoding(describeLibavError(status));
  }

  // `video`, where given, learns the time of each keyframe that comes out, whether asked for or
  // chosen by the encoder.
  void write(AVCodecContext* encoder, AVStream* stream, const AVFrame* frame, VideoTrack* video = nullptr) {
    if (int status = avcodec_send_frame(encoder, frame); status < 0) failEncoding(describeLibavError(status));
    for (;;) {
      int status = avcodec_receive_packet(encoder, packet.get());
      if (status == AVERROR(EAGAIN) || status == AVERROR_EOF) return;
      if (status < 0) failEncoding(describeLibavError(status));
      if (video != nullptr && (packet->flags & AV_PKT_FLAG_KEY) != 0 && packet->pts != AV_NOPTS_VALUE)
        video->lastKeyTimestamp = std::max(video->lastKeyTimestamp.value_or(packet->pts), packet->pts);
      av_packet_rescale_ts(packet.get(), encoder->time_base, stream->time_base);
      packet->stream_index = stream->index;
      if (video != nullptr && video->variableRate) {
        releaseHeld(*video, packet->dts);
        av_packet_move_ref(video->held.get(), packet.get());
        continue;
      }
      // Written straight into the fragment rather than through the interleaving queue: a fragment
      // closed by hand then holds every packet encoded so far, of every track.
      status = av_write_frame(format.get(), packet.get());
      av_packet_unref(packet.get());
      if (status < 0) failEncoding(describeLibavError(status));
    }
  }

  void convert(VideoTrack& track, const PixelBuffer& source) {
    AVFrame& planes = *track.planes;
    // The encoder may still hold the previous picture's buffer; then this one gets a new one.
    if (av_frame_make_writable(&planes) < 0) throw std::bad_alloc();
    const PlacedRect place = fitted(source.width, source.height, planes.width, planes.height);
    if (!track.scaler || track.scalerWidth != source.width || track.scalerHeight != source.height) {
      track.scaler.reset(sws_getContext(source.width, source.height, AV_PIX_FMT_BGR0, place.width, place.height,
                                        AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr, nullptr, nullptr));
      if (!track.scaler) failEncoding("the frame conversion could not be set up");
      // Captured pixels are full-range R'G'B'; the movie is limited-range BT.709, as tagged.
      const int* bt709 = sws_getCoefficients(SWS_CS_ITU709);
      sws_setColorspaceDetails(track.scaler.get(), bt709, 1, bt709, 0, 0, 1 << 16, 1 << 16);
      track.scalerWidth = source.width;
      track.scalerHeight = source.height;
    }
    if (place.width != planes.width || place.height != planes.height) fillBlack(planes);
    std::uint8_t* target[] = {planes.data[0] + place.y * planes.linesize[0] + place.x,
                              planes.data[1] + (place.y / 2) * planes.linesize[1] + place.x / 2,
                              planes.data[2] + (place.y / 2) * planes.linesize[2] + place.x / 2};
    const std::uint8_t* rows[] = {source.data()};
    const int stride[] = {source.stride};
    sws_scale(track.scaler.get(), rows, stride, 0, source.height, target, planes.linesize);
  }

  void encodeVideo(VideoTrack& track, const VideoItem& item) {
    const PixelBuffer& source = *item.pixels;
    const bool valid = source.width > 0 && source.height > 0 && source.stride >= source.width * 4 &&
                       source.size() >= static_cast<std::size_t>(source.stride) * source.height;
    if (!valid) failEncoding("a frame's pixel buffer is smaller than its size");
    const bool repeated = repeatsPicture(track, item);
    if (leftOut(track, item)) {
      track.skippedNanoseconds = item.relativeNanoseconds;
      return;
    }
    if (!repeated) {
      convert(track, source);
      track.lastSource = item.pixels;
    }
    sendPicture(track, item.relativeNanoseconds);
  }

  // An unchanged tick hands out the very buffer `planes` was made from.
  static bool repeatsPicture(const VideoTrack& track, const VideoItem& item) {
    const bool same = !track.lastSource.owner_before(item.pixels) && !item.pixels.owner_before(track.lastSource) &&
                      !track.lastSource.expired();
    return !item.changed && same;
  }

  bool leftOut(const VideoTrack& track, const VideoItem& item) const {
    return track.variableRate && repeatsPicture(track, item) && !pictureDue(track, item.relativeNanoseconds);
  }

  // A repeat still goes out as the heartbeat, or when a keyframe is due.
  bool pictureDue(const VideoTrack& track, std::int64_t relativeNanoseconds) const {
    if (!track.lastEncodedNanoseconds) return true;
    if (relativeNanoseconds - *track.lastEncodedNanoseconds >= heartbeatNanoseconds) return true;
    return keyframeDue(track, relativeNanoseconds);
  }

  bool keyframeDue(const VideoTrack& track, std::int64_t relativeNanoseconds) const {
    if (!track.lastKeyTimestamp) return false;  // the first picture is a keyframe anyway
    const std::int64_t keyNanoseconds = av_rescale_q(*track.lastKeyTimestamp, track.encoder.context->time_base,
                                                     AVRational{1, int(nanosecondsPerSecond)});
    return relativeNanoseconds - keyNanoseconds >= keyframeIntervalNanoseconds;
  }

  // Encodes what `planes` holds at the given time.
  void sendPicture(VideoTrack& track, std::int64_t relativeNanoseconds) {
    std::int64_t timestamp =
        av_rescale_q(relativeNanoseconds, AVRational{1, int(nanosecondsPerSecond)}, track.encoder.context->time_base);
    // Two frames closer than one tick of the time base: the later one moves by a tick.
    timestamp = std::max(timestamp, track.lastTimestamp + 1);
    const bool key = keyframeDue(track, relativeNanoseconds);
    track.lastTimestamp = timestamp;
    track.lastEncodedNanoseconds = relativeNanoseconds;
    track.skippedNanoseconds.reset();
    track.planes->pts = timestamp;
    track.planes->pict_type = key ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
    if (key) track.lastKeyTimestamp = timestamp;
    if (track.encoder.hardwareFrames) {
      FramePtr surface;
      if (!uploadFrame(track.encoder.hardwareFrames.get(), track.planes.get(), surface))
        failEncoding("the frame could not be handed to the hardware encoder");
      surface->pict_type = track.planes->pict_type;
      write(track.encoder.context.get(), track.stream, surface.get(), &track);
      return;
    }
    write(track.encoder.context.get(), track.stream, track.planes.get(), &track);
  }

  // The last frame appended was left out as a repeat: its picture still ends the track at its time,
  // so that the track lasts from the first frame to the last.
  void sendSkippedPicture(VideoTrack& track) {
    if (track.skippedNanoseconds) sendPicture(track, *track.skippedNanoseconds);
  }

  void encodeAudio(AudioTrack& track, const AudioItem& item) {
    const int channels = item.channels;
    if (channels <= 0 || item.sampleRate <= 0) return;
    const int inputCount = static_cast<int>(item.samples.size() / static_cast<std::size_t>(channels));
    if (inputCount == 0) return;
    if (!track.resampler || track.resamplerChannels != channels || track.resamplerRate != item.sampleRate) {
      AVChannelLayout input{}, output{};
      av_channel_layout_default(&input, channels);
      av_channel_layout_default(&output, audioChannelCount);
      SwrContext* raw = nullptr;
      if (swr_alloc_set_opts2(&raw, &output, AV_SAMPLE_FMT_FLTP, audioSampleRate, &input, AV_SAMPLE_FMT_FLT,
                              item.sampleRate, 0, nullptr) < 0 ||
          raw == nullptr)
        failEncoding("the audio conversion could not be set up");
      track.resampler.reset(raw);
      if (swr_init(raw) < 0) failEncoding("the audio conversion could not be set up");
      track.resamplerChannels = channels;
      track.resamplerRate = item.sampleRate;
    }
    const int capacity = swr_get_out_samples(track.resampler.get(), inputCount);
    if (capacity <= 0) return;
    track.left.resize(static_cast<std::size_t>(capacity));
    track.right.resize(static_cast<std::size_t>(capacity));
    std::uint8_t* output[] = {reinterpret_cast<std::uint8_t*>(track.left.data()),
                              reinterpret_cast<std::uint8_t*>(track.right.data())};
    const std::uint8_t* input[] = {reinterpret_cast<const std::uint8_t*>(item.samples.data())};
    const int produced = swr_convert(track.resampler.get(), output, capacity, input, inputCount);
    if (produced < 0) failEncoding(describeLibavError(produced));

    // The first sample's place in the track, which starts with the file: what lies before the
    // first buffer is silence, and what lies before the file is cut.
    // The encoder's priming samples come first in the track and decode as sound; the samples
    // handed in are placed after them, so that a decoded sample's index is its time in the file.
    const std::int64_t position =
        av_rescale(item.relativeNanoseconds, audioSampleRate, nanosecondsPerSecond) - track.encoder->initial_padding;
    std::int64_t expected = track.nextPosition.value_or(0);
    std::int64_t skip = 0;
    if (!track.nextPosition || std::abs(position - expected) > audioResyncSamples) {
      if (position > expected) {
        pushSilence(track, position - expected);
        expected = position;
      } else {
        skip = expected - position;
      }
    }
    if (skip < produced) {
      float* planes[] = {track.left.data() + skip, track.right.data() + skip};
      const int count = produced - static_cast<int>(skip);
      if (av_audio_fifo_write(track.fifo.get(), reinterpret_cast<void**>(planes), count) < count)
        throw std::bad_alloc();
      expected += count;
    }
    track.nextPosition = expected;
    drainAudio(track, false);
  }

  void pushSilence(AudioTrack& track, std::int64_t count) {
    std::vector<float> zeros(static_cast<std::size_t>(std::min<std::int64_t>(count, audioSampleRate)), 0.0f);
    while (count > 0) {
      const int chunk = static_cast<int>(std::min<std::int64_t>(count, std::int64_t(zeros.size())));
      float* planes[] = {zeros.data(), zeros.data()};
      if (av_audio_fifo_write(track.fifo.get(), reinterpret_cast<void**>(planes), chunk) < chunk)
        throw std::bad_alloc();
      count -= chunk;
    }
  }

  // Encodes every full frame of the fifo; at the end the short rest too.
  void drainAudio(AudioTrack& track, bool last) {
    const int frameSize = track.encoder->frame_size > 0 ? track.encoder->frame_size : 1024;
    for (;;) {
      const int available = av_audio_fifo_size(track.fifo.get());
      if (available == 0 || (available < frameSize && !last)) return;
      const int count = std::min(available, frameSize);
      if (av_frame_make_writable(track.frame.get()) < 0) throw std::bad_alloc();
      track.frame->nb_samples = count;
      if (av_audio_fifo_read(track.fifo.get(), reinterpret_cast<void**>(track.frame->data), count) < count)
        failEncoding("the audio queue could not be read");
      // Less the priming, which the encoder takes off again: the first packet is at 0.
      track.frame->pts = track.sentSamples + track.encoder->initial_padding;
      track.sentSamples += count;
      write(track.encoder.get(), track.stream, track.frame.get());
    }
  }

  // Closes the fragment being written and pushes the file to the disk, once the video reaches the
  // next boundary.
  void cutFragmentIfDue(std::int64_t relativeNanoseconds) {
    if (relativeNanoseconds < nextFragmentNanoseconds) return;
    // The fragment's last picture lasts until the frame that starts the next one.
    releaseHeld(screen,
                av_rescale_q(relativeNanoseconds, AVRational{1, int(nanosecondsPerSecond)}, screen.stream->time_base));
    cutFragment();
    while (nextFragmentNanoseconds <= relativeNanoseconds) nextFragmentNanoseconds += fragmentIntervalNanoseconds;
  }
  void cutFragment() {
    if (int status = av_write_frame(format.get(), nullptr); status < 0) failEncoding(describeLibavError(status));
    avio_flush(format->pb);
    if (format->pb->error < 0) failEncoding(describeLibavError(format->pb->error));
  }

  void flushEncoders() {
    if (format->pb == nullptr) return;  // no screen frame ever came: there is no file
    write(screen.encoder.context.get(), screen.stream, nullptr, &screen);
    releaseHeld(screen, std::nullopt);
    if (webcam) write(webcam->encoder.context.get(), webcam->stream, nullptr);
    for (AudioTrack* track : {systemAudio ? &*systemAudio : nullptr, microphone ? &*microphone : nullptr}) {
      if (track == nullptr) continue;
      drainAudio(*track, true);
      write(track->encoder.get(), track->stream, nullptr);
    }
  }

  void runEncoder() {
    bool flushed = false;
    for (;;) {
      std::optional<VideoItem> video, camera;
      std::vector<std::pair<AudioTrack*, AudioItem>> sound;
      bool finishing = false;
      {
        std::unique_lock lock(mutex);
        wake.wait(lock, [this] {
          const bool work =
              !videoQueue.empty() || !webcamQueue.empty() || !systemAudioQueue.empty() || !microphoneQueue.empty();
          return discarding || (!held && (work || stopping));
        });
        if (discarding || encoderFailure) return;
        // Sound first: it is cheap, and its queues must never fill while a picture encodes.
        while (!systemAudioQueue.empty()) {
          sound.emplace_back(&*systemAudio, std::move(systemAudioQueue.front()));
          systemAudioQueue.pop_front();
        }
        while (!microphoneQueue.empty()) {
          sound.emplace_back(&*microphone, std::move(microphoneQueue.front()));
          microphoneQueue.pop_front();
        }
        if (!videoQueue.empty()) {
          video = std::move(videoQueue.front());
          videoQueue.pop_front();
        }
        if (!webcamQueue.empty()) {
          camera = std::move(webcamQueue.front());
          webcamQueue.pop_front();
        }
        busy = true;
        finishing = stopping && videoQueue.empty() && webcamQueue.empty() && systemAudioQueue.empty() &&
                    microphoneQueue.empty();
      }
      try {
        for (auto& [track, item] : sound) encodeAudio(*track, item);
        if (video) {
          // Fragments are cut on pictures that go out; the heartbeat keeps them coming.
          if (!leftOut(screen, *video)) cutFragmentIfDue(video->relativeNanoseconds);
          encodeVideo(screen, *video);
        }
        if (camera) encodeVideo(*webcam, *camera);
        if (finishing && !flushed) {
          if (format->pb != nullptr) sendSkippedPicture(screen);
          flushEncoders();
          flushed = true;
          return;
        }
        {
          std::lock_guard lock(mutex);
          busy = false;
        }
        idle.notify_all();
      } catch (const EncodingFailure& failure) {
        recordFailure(failure.text);
        return;
      } catch (const std::exception& error) {
        recordFailure(error.what());
        return;
      }
    }
  }

  void recordFailure(std::string text) {
    {
      std::lock_guard lock(mutex);
      encoderFailure = std::move(text);
      failed = true;
      busy = false;
      videoQueue.clear();
      webcamQueue.clear();
      systemAudioQueue.clear();
      microphoneQueue.clear();
    }
    idle.notify_all();
  }

  void stopEncoder(bool discard) {
    {
      std::lock_guard lock(mutex);
      stopping = true;
      if (discard) discarding = true;
      held = false;
    }
    wake.notify_all();
    if (encoderThread.joinable()) encoderThread.join();
  }

  // ---- the calling thread

  // True when the item was queued; false when the queue is full.
  template <class Item>
  bool enqueue(std::deque<Item>& queue, std::size_t capacity, Item item) {
    {
      std::lock_guard lock(mutex);
      if (encoderFailure || queue.size() >= capacity) return false;
      queue.push_back(std::move(item));
    }
    wake.notify_one();
    return true;
  }

  void throwIfTerminal() const {
    if (terminalError) std::rethrow_exception(terminalError);
  }

  // The writer's failed state is latched the first time a call sees it.
  void latchEncoderFailure() {
    if (!failed.load()) return;
    std::string text;
    {
      std::lock_guard lock(mutex);
      text = encoderFailure.value_or(std::string(unknownWriterError.englishText));
    }
    terminalError = std::make_exception_ptr(RecordingMediaWriterError(WriterCase::appendFailed, text));
    std::rethrow_exception(terminalError);
  }

  void appendAudio(const AudioBuffer& buffer, std::int64_t pts, std::optional<AudioTrack>& track,
                   std::deque<AudioItem>& queue, std::optional<std::int64_t>& lastPTS, std::int64_t& count,
                   TrackOffsets& offsets) {
    if (lastPTS && pts <= *lastPTS) return;
    if (!startPTS || !track) return;
    AudioItem item{buffer.samples, buffer.channels, buffer.sampleRate, pts - *startPTS};
    if (!enqueue(queue, audioQueueCapacity, std::move(item))) return;
    lastPTS = pts;
    count += 1;
    if (lastVideoPTS) {
      const std::int64_t offset = pts - *lastVideoPTS;
      if (!offsets.first) offsets.first = offset;
      offsets.last = offset;
    }
  }
};

RecordingMediaWriter::RecordingMediaWriter(const RecordingWriterConfiguration& configuration)
    : state_(std::make_unique<State>()) {
  State& s = *state_;
  s.configuration = configuration;
  // Encoders that cannot open (a hardware one without its driver) and x264's statistics would
  // otherwise talk over the recorder's own status line; failures reach the caller as errors.
  av_log_set_level(AV_LOG_QUIET);
  std::error_code error;
  std::filesystem::remove(configuration.url, error);
  if (error) throw FileError(fmt::format("Could not remove {}: {}", configuration.url.string(), error.message()));

  AVFormatContext* raw = nullptr;
  if (avformat_alloc_output_context2(&raw, nullptr, "mov", configuration.url.c_str()) < 0 || raw == nullptr)
    throw RecordingMediaWriterError(WriterCase::cannotAddInput, screenTrackName.englishText);
  s.format.reset(raw);
  s.screen = s.makeVideoTrack(configuration.size, configuration.framesPerSecond,
                              configuration.size.recommendedBitRate(), screenTrackName);
  s.screen.variableRate = true;
  s.screen.held.reset(av_packet_alloc());
  if (!s.screen.held) throw std::bad_alloc();
  if (configuration.webcam)
    s.webcam = s.makeVideoTrack(configuration.webcam->pixelSize, configuration.webcam->framesPerSecond, webcamBitRate,
                                cameraTrackName);
  if (configuration.capturesSystemAudio) s.systemAudio = s.makeAudioTrack(systemAudioTrackName);
  if (configuration.capturesMicrophone) s.microphone = s.makeAudioTrack(microphoneTrackName);
  s.packet.reset(av_packet_alloc());
  if (!s.packet) throw std::bad_alloc();
  s.encoderThread = std::thread([&s] {
    // Named, so that a look at the process's threads tells the conversion and encoding from the
    // capture; the encoder's own slice threads were started by the caller and carry its name.
    pthread_setname_np(pthread_self(), "Vumo.Encoder");
    s.runEncoder();
  });
}

RecordingMediaWriter::~RecordingMediaWriter() {
  State& s = *state_;
  if (!s.encoderThread.joinable()) return;
  // Dropped without finish: what is queued is lost, but what is encoded still goes to the disk as
  // one more fragment, for recovery to find.
  s.stopEncoder(true);
  if (s.startPTS && !s.failed.load() && !s.cancelled && !s.finished) {
    try {
      s.releaseHeld(s.screen, std::nullopt);  // the last picture encoded, with the encoder's duration
    } catch (const EncodingFailure&) {
    }
    if (av_write_frame(s.format.get(), nullptr) >= 0) avio_flush(s.format->pb);
  }
}

void RecordingMediaWriter::appendVideo(const VideoFrame& frame, std::int64_t outputPresentationNanoseconds) {
  State& s = *state_;
  s.throwIfTerminal();
  const std::int64_t pts = outputPresentationNanoseconds;
  if (!s.startPTS) {
    s.startFile();
    s.startPTS = pts;
  }
  if (!frame.pixels) throw RecordingMediaWriterError(WriterCase::appendFailed, screenFrameRejected.englishText);
  // A frame at or before the last one cannot follow it in the track; a busy encoder is not waited
  // for. Both are drops.
  if ((s.lastVideoPTS && pts <= *s.lastVideoPTS) || pts < *s.startPTS ||
      !s.enqueue(s.videoQueue, videoQueueCapacity, VideoItem{frame.pixels, pts - *s.startPTS, frame.changed})) {
    s.droppedVideoFrames += 1;
  } else {
    s.videoFrames += 1;
    s.lastVideoPTS = pts;
  }
  s.latchEncoderFailure();
}

void RecordingMediaWriter::appendAudio(const AudioBuffer& buffer, RecordingStreamType type,
                                       std::int64_t outputPresentationNanoseconds) {
  State& s = *state_;
  s.throwIfTerminal();
  switch (type) {
    case RecordingStreamType::screen:
      throw RecordingMediaWriterError(WriterCase::appendFailed, screenFrameRejected.englishText);
    case RecordingStreamType::systemAudio:
      s.appendAudio(buffer, outputPresentationNanoseconds, s.systemAudio, s.systemAudioQueue, s.lastSystemAudioPTS,
                    s.systemAudioSamples, s.systemOffsets);
      break;
    case RecordingStreamType::microphone:
      s.appendAudio(buffer, outputPresentationNanoseconds, s.microphone, s.microphoneQueue, s.lastMicrophonePTS,
                    s.microphoneSamples, s.microphoneOffsets);
      break;
  }
  s.latchEncoderFailure();
}

void RecordingMediaWriter::appendWebcam(const VideoFrame& frame, std::int64_t outputPresentationNanoseconds) {
  State& s = *state_;
  s.throwIfTerminal();
  auto hasRoom = [&s](std::size_t items) {
    std::lock_guard lock(s.mutex);
    return !s.encoderFailure && s.webcamQueue.size() + items <= webcamQueueCapacity;
  };
  if (!s.startPTS || !s.webcam || !frame.pixels || !hasRoom(1)) {
    s.droppedWebcamFrames += 1;
    return;
  }
  const std::int64_t pts = outputPresentationNanoseconds;
  if ((s.lastWebcamPTS && pts <= *s.lastWebcamPTS) || pts < *s.startPTS) {
    s.droppedWebcamFrames += 1;
    return;
  }
  // The camera track starts with the screen track: its first picture is shown from the file's
  // start until its own time.
  if (!s.hasWrittenWebcamSample && pts > *s.startPTS) {
    if (!s.enqueue(s.webcamQueue, webcamQueueCapacity, VideoItem{frame.pixels, 0, true})) {
      s.terminalError = std::make_exception_ptr(
          RecordingMediaWriterError(WriterCase::appendFailed, cameraFirstFrameFailed.englishText));
      std::rethrow_exception(s.terminalError);
    }
    s.hasWrittenWebcamSample = true;
  }
  if (!s.enqueue(s.webcamQueue, webcamQueueCapacity, VideoItem{frame.pixels, pts - *s.startPTS, frame.changed})) {
    s.droppedWebcamFrames += 1;
    return;
  }
  s.hasWrittenWebcamSample = true;
  s.lastWebcamPTS = pts;
  s.webcamFrames += 1;
  if (s.lastVideoPTS)
    s.maximumWebcamOffsetNanoseconds = std::max(s.maximumWebcamOffsetNanoseconds, std::abs(pts - *s.lastVideoPTS));
}

RecordingWriterResult RecordingMediaWriter::finish() {
  State& s = *state_;
  if (s.cancelled) std::rethrow_exception(s.terminalError);
  if (s.finished) throw RecordingMediaWriterError(WriterCase::finishFailed, unknownWriterError.englishText);
  s.stopEncoder(false);
  s.finished = true;
  if (s.failed.load()) {
    std::lock_guard lock(s.mutex);
    throw RecordingMediaWriterError(WriterCase::finishFailed,
                                    s.encoderFailure.value_or(std::string(unknownWriterError.englishText)));
  }
  if (s.startPTS) {
    if (int status = av_write_trailer(s.format.get()); status < 0)
      throw RecordingMediaWriterError(WriterCase::finishFailed, describeLibavError(status));
    if (int status = avio_closep(&s.format->pb); status < 0)
      throw RecordingMediaWriterError(WriterCase::finishFailed, describeLibavError(status));
  }
  RecordingWriterResult result;
  result.duration = ProjectTime{s.startPTS && s.lastVideoPTS ? *s.lastVideoPTS - *s.startPTS : 0};
  result.videoFrames = s.videoFrames;
  result.droppedVideoFrames = s.droppedVideoFrames;
  result.systemAudioSamples = s.systemAudioSamples;
  result.microphoneSamples = s.microphoneSamples;
  result.webcamFrames = s.webcamFrames;
  result.droppedWebcamFrames = s.droppedWebcamFrames;
  result.maximumWebcamOffsetNanoseconds = s.maximumWebcamOffsetNanoseconds;
  result.maximumAVDriftNanoseconds = std::max(s.systemOffsets.drift(), s.microphoneOffsets.drift());
  return result;
}

void RecordingMediaWriter::cancel() {
  State& s = *state_;
  if (s.finished || s.cancelled) return;
  s.cancelled = true;
  s.terminalError = std::make_exception_ptr(CancelledError());
  s.stopEncoder(true);
  // A cancelled recording is thrown away: its partial file goes with it.
  if (s.format->pb != nullptr) avio_closep(&s.format->pb);
  std::error_code ignored;
  if (s.startPTS) std::filesystem::remove(s.configuration.url, ignored);
}

std::string RecordingMediaWriter::videoEncoderName() const { return state_->screen.encoder.name; }

void RecordingMediaWriter::waitUntilEncodedForTesting() {
  State& s = *state_;
  std::unique_lock lock(s.mutex);
  s.idle.wait(lock, [&s] {
    return s.encoderFailure || s.discarding || s.stopping ||
           (!s.busy && s.videoQueue.empty() && s.webcamQueue.empty() && s.systemAudioQueue.empty() &&
            s.microphoneQueue.empty());
  });
}

void RecordingMediaWriter::holdEncoderForTesting(bool held) {
  {
    std::lock_guard lock(state_->mutex);
    state_->held = held;
  }
  state_->wake.notify_all();
}

}  // namespace vumo
