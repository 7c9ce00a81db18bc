#include "export/project_exporter.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/error.h>
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "media/libav_handles.h"
#include "media/media_container.h"
#include "media/project_frame_source.h"
#include "media/sequence_audio_reader.h"
#include "media/timeline_composition.h"
#include "media/video_encoder.h"
#include "scene/scene_evaluator.h"
#include "shared/cancellation.h"

namespace vumo {

namespace {

using Clock = std::chrono::steady_clock;
using ExporterCase = ProjectExporterError::Case;

constexpr int audioSampleRate = media_detail::aacSampleRate;
constexpr int audioChannelCount = media_detail::aacChannelCount;
// Sound is written up to this far ahead of the picture, so the muxer never waits long for either.
constexpr std::int64_t audioLeadNanoseconds = 2'000'000'000;
constexpr std::int64_t nanosecondsPerSecond = 1'000'000'000;

using namespace media_detail;

// libav's text for a code, or the bare number when libav has none.
std::string describeLibavError(int code) {
  std::string text = libavErrorText(code);
  return text.empty() ? fmt::format("error {}", code) : text;
}

[[noreturn]] void fail(ExporterCase kind, std::string_view detail = {}) { throw ProjectExporterError(kind, detail); }

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

FramePtr allocateFrame() {
  FramePtr frame(av_frame_alloc());
  if (!frame) throw std::bad_alloc();
  return frame;
}

// A hardware encoder only where opening one works (VAAPI, then NVENC); otherwise the software
// encoder, whose refusal means the settings themselves cannot be written.
VideoEncoder openVideoEncoder(const ResolvedExportConfiguration& resolved, PixelSize size, bool globalHeader,
                              bool allowHardware, const std::filesystem::path& vaapiDevice) {
  VideoEncoderSettings settings;
  settings.hevc = resolved.codec == ExportCodec::hevc;
  settings.size = size;
  settings.framesPerSecond = resolved.framesPerSecond;
  settings.bitRate = resolved.bitRate;
  settings.globalHeader = globalHeader;
  settings.allowHardware = allowHardware;
  settings.vaapiDevice = vaapiDevice;
  auto encoder = media_detail::openVideoEncoder(settings);
  if (!encoder) fail(ExporterCase::unsupportedSettings);
  return std::move(*encoder);
}

CodecContextPtr openAudioEncoder(bool globalHeader) {
  CodecContextPtr context = media_detail::openAacEncoder(globalHeader);
  if (!context) fail(ExporterCase::writerInput);
  return context;
}

// The temporary file beside the destination that becomes the film once complete; hidden, and
// named after the process so that two exports to one place never share it.
std::filesystem::path temporaryPath(const std::filesystem::path& destination) {
  return destination.parent_path() / fmt::format(".{}.{}.partial", destination.filename().string(), ::getpid());
}

// GL_RENDERER of Mesa's rasterisers that run on the processors.
bool isSoftwareRasteriser(std::string_view renderer) {
  return renderer.starts_with("llvmpipe") || renderer.starts_with("softpipe");
}

bool isQuickTime(const std::filesystem::path& destination) {
  std::string extension = destination.extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return extension == ".mov";
}

// The muxer, its streams and encoders, and the one frame of each kind being filled.
class FilmWriter {
 public:
  FilmWriter(const std::filesystem::path& file, bool quickTime, const ResolvedExportConfiguration& resolved,
             PixelSize size, bool withAudio, bool allowHardware, const std::filesystem::path& vaapiDevice)
      : size_(size) {
    AVFormatContext* raw = nullptr;
    if (avformat_alloc_output_context2(&raw, nullptr, quickTime ? "mov" : "mp4", nullptr) < 0 || raw == nullptr)
      fail(ExporterCase::start);
    format_.reset(raw);
    const bool globalHeader = (format_->oformat->flags & AVFMT_GLOBALHEADER) != 0;

    video_ = openVideoEncoder(resolved, size, globalHeader, allowHardware, vaapiDevice);
    videoStream_ = avformat_new_stream(format_.get(), nullptr);
    if (videoStream_ == nullptr || avcodec_parameters_from_context(videoStream_->codecpar, video_.context.get()) < 0)
      fail(ExporterCase::writerInput);
    videoStream_->time_base = video_.context->time_base;
    videoStream_->avg_frame_rate = video_.context->framerate;
    // The tag players on every platform expect for HEVC in MP4.
    if (resolved.codec == ExportCodec::hevc) videoStream_->codecpar->codec_tag = MKTAG('h', 'v', 'c', '1');

    if (withAudio) {
      audio_ = openAudioEncoder(globalHeader);
      audioStream_ = avformat_new_stream(format_.get(), nullptr);
      if (audioStream_ == nullptr || avcodec_parameters_from_context(audioStream_->codecpar, audio_.get()) < 0)
        fail(ExporterCase::writerInput);
      audioStream_->time_base = audio_->time_base;
      audioFrame_ = allocateFrame();
      audioFrame_->format = AV_SAMPLE_FMT_FLTP;
      audioFrame_->sample_rate = audioSampleRate;
      av_channel_layout_default(&audioFrame_->ch_layout, audioChannelCount);
      audioFrame_->nb_samples = audioFrameSamples();
      if (av_frame_get_buffer(audioFrame_.get(), 0) < 0) throw std::bad_alloc();
    }

    if (avio_open(&format_->pb, file.c_str(), AVIO_FLAG_WRITE) < 0) fail(ExporterCase::start);
    if (avformat_write_header(format_.get(), nullptr) < 0) fail(ExporterCase::start);

    videoFrame_ = newVideoFrame();

    // Area averaging takes each chroma sample as the mean of its four pixels, as the GPU's film pass
    // does, so a film is the same whichever converts it (bilinear lost about 2.5 dB on saturated
    // colours).
    scaler_.reset(sws_getContext(videoFrame_->width, videoFrame_->height, AV_PIX_FMT_RGBA, videoFrame_->width,
                                 videoFrame_->height, AV_PIX_FMT_YUV420P, SWS_AREA | SWS_FULL_CHR_H_INP, nullptr,
                                 nullptr, nullptr));
    if (!scaler_) fail(ExporterCase::render);
    // Rendered pixels are full-range R'G'B'; the film is limited-range BT.709, as it is tagged.
    const int* bt709 = sws_getCoefficients(SWS_CS_ITU709);
    sws_setColorspaceDetails(scaler_.get(), bt709, 1, bt709, 0, 0, 1 << 16, 1 << 16);
    packet_.reset(av_packet_alloc());
    if (!packet_) throw std::bad_alloc();
  }

  const std::string& encoderName() const { return video_.name; }

  // An empty frame of the film's planes, for the GPU's conversion to fill.
  FramePtr newVideoFrame() const { return newYuvFrame(size_); }
  int audioFrameSamples() const {
    const int size = audio_ ? audio_->frame_size : 0;
    return size > 0 ? size : 1024;
  }

  // RGBA of the film's size, rows bottom first as OpenGL hands them: read upwards.
  void convert(const std::vector<std::uint8_t>& pixels) {
    if (av_frame_make_writable(videoFrame_.get()) < 0) throw std::bad_alloc();
    const int rowBytes = videoFrame_->width * 4;
    const std::uint8_t* source[] = {pixels.data() + static_cast<std::size_t>(videoFrame_->height - 1) * rowBytes};
    const int stride[] = {-rowBytes};
    sws_scale(scaler_.get(), source, stride, 0, videoFrame_->height, videoFrame_->data, videoFrame_->linesize);
  }

  // `frame`: the planes filled by the GPU; none for the last one converted.
  void writeVideo(std::int64_t index, AVFrame* frame = nullptr) {
    if (frame == nullptr) frame = videoFrame_.get();
    frame->pts = index;
    // Only the first frame must be a keyframe; the encoder places the rest by its group size.
    frame->pict_type = AV_PICTURE_TYPE_NONE;
    if (video_.hardwareFrames) {
      FramePtr surface;
      if (!uploadFrame(video_.hardwareFrames.get(), frame, surface)) fail(ExporterCase::videoRejected);
      send(video_.context.get(), videoStream_, surface.get(), ExporterCase::videoRejected);
      return;
    }
    send(video_.context.get(), videoStream_, frame, ExporterCase::videoRejected);
  }

  // `samples` interleaved stereo frames, fewer than a full encoder frame only at the end.
  void writeAudio(const float* samples, int count, std::int64_t position) {
    if (av_frame_make_writable(audioFrame_.get()) < 0) throw std::bad_alloc();
    audioFrame_->nb_samples = count;
    auto* left = reinterpret_cast<float*>(audioFrame_->data[0]);
    auto* right = reinterpret_cast<float*>(audioFrame_->data[1]);
    for (int i = 0; i < count; ++i) {
      left[i] = samples[2 * i];
      right[i] = samples[2 * i + 1];
    }
    audioFrame_->pts = position;
    send(audio_.get(), audioStream_, audioFrame_.get(), ExporterCase::audioRejected);
  }

  void finishAudio() {
    if (audio_ && !audioFlushed_) {
      send(audio_.get(), audioStream_, nullptr, ExporterCase::audioRejected);
      audioFlushed_ = true;
    }
  }

  void finish() {
    send(video_.context.get(), videoStream_, nullptr, ExporterCase::videoRejected);
    finishAudio();
    if (av_write_trailer(format_.get()) < 0) fail(ExporterCase::writerIncomplete);
    if (avio_closep(&format_->pb) < 0) fail(ExporterCase::writerIncomplete);
  }

 private:
  void send(AVCodecContext* encoder, AVStream* stream, const AVFrame* frame, ExporterCase rejected) {
    if (int status = avcodec_send_frame(encoder, frame); status < 0) fail(rejected);
    for (;;) {
      int status = avcodec_receive_packet(encoder, packet_.get());
      if (status == AVERROR(EAGAIN) || status == AVERROR_EOF) return;
      if (status < 0) fail(rejected);
      av_packet_rescale_ts(packet_.get(), encoder->time_base, stream->time_base);
      packet_->stream_index = stream->index;
      if (int written = av_interleaved_write_frame(format_.get(), packet_.get()); written < 0)
        fail(ExporterCase::append, describeLibavError(written));
    }
  }

  PixelSize size_;
  OutputFormatPtr format_;
  VideoEncoder video_;
  AVStream* videoStream_ = nullptr;
  CodecContextPtr audio_;
  AVStream* audioStream_ = nullptr;
  bool audioFlushed_ = false;
  FramePtr videoFrame_;
  FramePtr audioFrame_;
  ScalerPtr scaler_;
  PacketPtr packet_;
};

struct RenderedFrame {
  std::int64_t index = 0;
  std::vector<std::uint8_t> rgba;  // for the conversion on the CPU, rows bottom first
  FramePtr planes;                 // or the planes converted by the GPU
};

// RGBA buffers handed back by the encoder's thread once converted, so that a frame's 8 MB (at
// 1080p) are not allocated and cleared again for every frame.
class PixelBufferPool {
 public:
  std::vector<std::uint8_t> take(std::size_t bytes) {
    {
      std::lock_guard lock(mutex_);
      if (!free_.empty()) {
        std::vector<std::uint8_t> buffer = std::move(free_.back());
        free_.pop_back();
        if (buffer.size() == bytes) return buffer;
      }
    }
    return std::vector<std::uint8_t>(bytes);
  }
  void giveBack(std::vector<std::uint8_t> buffer) {
    std::lock_guard lock(mutex_);
    if (free_.size() < 4) free_.push_back(std::move(buffer));
  }

 private:
  std::mutex mutex_;
  std::vector<std::vector<std::uint8_t>> free_;
};

PlanarFrameTarget targetOf(AVFrame& frame) {
  PlanarFrameTarget target;
  for (std::size_t plane = 0; plane < 3; ++plane) {
    target.planes[plane] = frame.data[plane];
    target.strides[plane] = frame.linesize[plane];
  }
  return target;
}

// The drawn frames on their way to the encoder: at most two wait, so memory stays bounded and the
// drawing never runs far ahead.
class RenderedFrameQueue {
 public:
  static constexpr std::size_t capacity = 2;

  // Waits for room; false once the queue was abandoned (the encoder failed or stopped).
  bool push(RenderedFrame frame) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return abandoned_ || frames_.size() < capacity; });
    if (abandoned_) return false;
    frames_.push_back(std::move(frame));
    changed_.notify_all();
    return true;
  }
  // The next frame; none once the queue is closed and empty, or abandoned.
  std::optional<RenderedFrame> pop() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return abandoned_ || closed_ || !frames_.empty(); });
    if (abandoned_ || frames_.empty()) return std::nullopt;
    RenderedFrame frame = std::move(frames_.front());
    frames_.pop_front();
    changed_.notify_all();
    return frame;
  }
  // No more frames come; those waiting are still taken.
  void close() {
    std::lock_guard lock(mutex_);
    closed_ = true;
    changed_.notify_all();
  }
  // Drops what waits and releases both sides.
  void abandon() {
    std::lock_guard lock(mutex_);
    abandoned_ = true;
    frames_.clear();
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<RenderedFrame> frames_;
  bool closed_ = false;
  bool abandoned_ = false;
};

// Removes the temporary file unless the film was completed and renamed.
class TemporaryFile {
 public:
  explicit TemporaryFile(std::filesystem::path path) : path_(std::move(path)) {}
  ~TemporaryFile() {
    if (!path_.empty()) {
      std::error_code ignored;
      std::filesystem::remove(path_, ignored);
    }
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  const std::filesystem::path& path() const { return path_; }
  void renameTo(const std::filesystem::path& destination) {
    std::error_code error;
    std::filesystem::rename(path_, destination, error);
    if (error) fail(ExporterCase::writerIncomplete);
    path_.clear();
  }

 private:
  std::filesystem::path path_;
};

}  // namespace

ProjectExporter::ProjectExporter(std::shared_ptr<SceneRenderer> renderer) : renderer_(std::move(renderer)) {}

std::int64_t ProjectExporter::frameCount(ProjectTime sequenceDuration, int framesPerSecond) {
  if (sequenceDuration.nanoseconds <= 0 || framesPerSecond <= 0) return 0;
  // duration × rate never overflows here: 2^63 ns is 292 years and the rate is at most 60.
  const std::int64_t scaled = sequenceDuration.nanoseconds * framesPerSecond;
  return scaled / nanosecondsPerSecond + (scaled % nanosecondsPerSecond != 0 ? 1 : 0);
}

ProjectTime ProjectExporter::frameTime(std::int64_t index, int framesPerSecond) {
  const std::int64_t remainder = index % framesPerSecond * nanosecondsPerSecond;
  return ProjectTime{index / framesPerSecond * nanosecondsPerSecond + remainder / framesPerSecond +
                     (remainder % framesPerSecond != 0 ? 1 : 0)};
}

ExportedFilm ProjectExporter::exportProject(const ProjectSnapshot& snapshot, const std::filesystem::path& destination,
                                            const ExportConfiguration& configuration, const ProgressHandler& progress,
                                            std::stop_token stop, const ProjectExportOptions& options) {
  auto report = [&](const ExportProgressUpdate& update) {
    if (progress) progress(update);
  };
  report(ExportProgressUpdate{ExportPhase::preparing, 0, 0});
  throwIfCancelled(stop);

  const CanvasEdit canvas = options.canvas.value_or(snapshot.timeline.canvas);
  const ResolvedExportConfiguration resolved =
      configuration.resolved(snapshot.manifest.encodedPixelSize, canvas.aspectRatio);
  // Y'CbCr 4:2:0 has no odd sizes: an odd original is written one pixel smaller.
  PixelSize outputSize = resolved.outputSize;
  std::optional<PixelSize> requestedOddSize;
  if (outputSize.width % 2 != 0 || outputSize.height % 2 != 0) {
    requestedOddSize = outputSize;
    outputSize = {std::max<std::int64_t>(2, outputSize.width & ~std::int64_t{1}),
                  std::max<std::int64_t>(2, outputSize.height & ~std::int64_t{1})};
  }

  renderer_->registerProjectAssets(snapshot);
  ProjectFrameSource frameSource(snapshot, stop);
  const TimelineCompositionPlan plan = TimelineCompositionBuilder::build(snapshot, stop);
  if (plan.screen.pieces.empty()) fail(ExporterCase::missingVideo);
  std::optional<SequenceAudioReader> audio;
  if (!plan.audioTracks.empty())
    audio.emplace(MediaContainer::open(snapshot, stop), plan, AudioOutputFormat{audioSampleRate, audioChannelCount});

  const SceneEvaluator evaluator(snapshot, options.canvas);
  const TimelineVisualEdits edits = TimelineVisualEdits::from(snapshot.timeline, options.canvas, options.webcamOverlay);
  const CaptionDocument* captions = snapshot.captions ? &*snapshot.captions : nullptr;

  const int framesPerSecond = resolved.framesPerSecond;
  const std::int64_t totalFrames = frameCount(frameSource.sequenceDuration(), framesPerSecond);

  TemporaryFile temporary(temporaryPath(destination));
  std::optional<FilmWriter> writer;
  writer.emplace(temporary.path(), isQuickTime(destination), resolved, outputSize, audio.has_value(),
                 options.allowHardwareEncoders, options.vaapiDevice);

  ExportStageTimes times;
  std::vector<float> audioBuffer(static_cast<std::size_t>(writer->audioFrameSamples()) * audioChannelCount);
  std::int64_t audioPosition = 0;
  bool audioFinished = !audio;
  // Sound up to `until` (sequence nanoseconds), or all that is left.
  auto writeAudioUntil = [&](std::optional<std::int64_t> until) {
    const auto start = Clock::now();
    while (!audioFinished) {
      if (until && audioPosition * nanosecondsPerSecond / audioSampleRate > *until) break;
      throwIfCancelled(stop);
      const std::int64_t count = audio->read(audioBuffer);
      if (count == 0) {
        writer->finishAudio();
        audioFinished = true;
        break;
      }
      writer->writeAudio(audioBuffer.data(), static_cast<int>(count), audioPosition);
      audioPosition += count;
    }
    times.audioSeconds += secondsSince(start);
  };

  // Drawing and encoding overlap: this thread decodes, evaluates and draws while the encoder's
  // thread converts, encodes and writes the frame before, with at most two drawn frames waiting
  // between them. Each output frame is made exactly as it would be one after the other.
  RenderedFrameQueue queue;
  PixelBufferPool pixelBuffers;
  std::exception_ptr encoderFailure;
  std::jthread encoderThread([&] {
    try {
      ExportProgressLimiter limiter;
      while (std::optional<RenderedFrame> rendered = queue.pop()) {
        writeAudioUntil(frameTime(rendered->index, framesPerSecond).nanoseconds + audioLeadNanoseconds);
        auto start = Clock::now();
        if (!rendered->planes) {
          writer->convert(rendered->rgba);
          pixelBuffers.giveBack(std::move(rendered->rgba));
          times.conversionSeconds += secondsSince(start);
          start = Clock::now();
        }
        writer->writeVideo(rendered->index, rendered->planes.get());
        times.encodeSeconds += secondsSince(start);
        limiter.report(rendered->index + 1, totalFrames, [&](const ExportProgressUpdate& update) { report(update); });
        if (options.frameWritten) options.frameWritten(rendered->index);
      }
    } catch (...) {
      encoderFailure = std::current_exception();
      queue.abandon();
    }
  });
  {
    // However this block is left, the encoder's thread stops before what it uses goes away, and no
    // frame of this film stays begun in the renderer.
    struct StopEncoder {
      RenderedFrameQueue& queue;
      std::jthread& thread;
      SceneRenderer& renderer;
      ~StopEncoder() {
        queue.abandon();
        if (thread.joinable()) thread.join();
        renderer.discardFramesInFlight();
      }
    } stopEncoder{queue, encoderThread, *renderer_};
    ExportFrameConversion conversion = options.conversion;
    if (conversion == ExportFrameConversion::automatic)
      conversion = isSoftwareRasteriser(renderer_->context()->rendererName()) ? ExportFrameConversion::software
                                                                              : ExportFrameConversion::gpuOverlapped;
    const bool gpuConversion = conversion != ExportFrameConversion::software;
    const bool overlapped = conversion != ExportFrameConversion::gpu;
    // With the overlap, frame N is read back once frame N + 1 has been sent to the GPU, so the GPU
    // draws while the pixels before are copied out. False once the encoder's side is gone.
    auto finishFrame = [&](std::int64_t index) {
      const auto start = Clock::now();
      RenderedFrame rendered{index, {}, nullptr};
      if (gpuConversion) {
        rendered.planes = writer->newVideoFrame();
        renderer_->finishPlanarFrame(targetOf(*rendered.planes));
      } else {
        rendered.rgba = pixelBuffers.take(static_cast<std::size_t>(outputSize.width * outputSize.height * 4));
        renderer_->finishRgbaFrame(rendered.rgba.data());
      }
      times.readbackSeconds += secondsSince(start);
      return queue.push(std::move(rendered));
    };
    std::int64_t begun = -1;  // the frame begun and not yet read back, if any
    bool abandoned = false;
    for (std::int64_t index = 0; index < totalFrames && !abandoned; ++index) {
      throwIfCancelled(stop);
      const ProjectTime outputTime = frameTime(index, framesPerSecond);

      auto start = Clock::now();
      ProjectFrames frames = frameSource.framesAt(outputTime);
      times.decodeSeconds += secondsSince(start);

      start = Clock::now();
      const auto sourceTime = frameSource.sourceTime(outputTime);
      if (!sourceTime) fail(ExporterCase::render);
      const SceneState scene = evaluator.evaluate(*sourceTime, edits, captions);
      SceneFrames sceneFrames;
      sceneFrames.sourceSize = snapshot.manifest.encodedPixelSize;
      sceneFrames.screen = std::move(frames.screen);
      sceneFrames.webcam = std::move(frames.camera);
      sceneFrames.backgroundVideo = std::move(frames.background);
      if (gpuConversion) {
        renderer_->beginPlanarFrame(scene, sceneFrames, outputSize);
      } else {
        renderer_->beginRgbaFrame(scene, sceneFrames, outputSize);
      }
      times.renderSeconds += secondsSince(start);
      if (begun >= 0 && !finishFrame(begun)) abandoned = true;
      begun = -1;
      if (overlapped) {
        begun = index;
      } else if (!abandoned && !finishFrame(index)) {
        abandoned = true;
      }
    }
    if (begun >= 0 && !abandoned) finishFrame(begun);
    queue.close();
    encoderThread.join();
  }
  if (encoderFailure) std::rethrow_exception(encoderFailure);

  throwIfCancelled(stop);
  report(ExportProgressUpdate{ExportPhase::finalizing, totalFrames, totalFrames});
  writeAudioUntil(std::nullopt);
  const std::string encoder = writer->encoderName();
  const auto start = Clock::now();
  writer->finish();
  times.encodeSeconds += secondsSince(start);
  writer.reset();
  throwIfCancelled(stop);
  temporary.renameTo(destination);

  ExportedFilm film;
  film.outputPath = destination;
  std::error_code error;
  film.sizeBytes = static_cast<std::int64_t>(std::filesystem::file_size(destination, error));
  film.frameCount = totalFrames;
  film.framesPerSecond = framesPerSecond;
  film.duration = frameTime(totalFrames, framesPerSecond);
  film.outputSize = outputSize;
  film.requestedOddSize = requestedOddSize;
  film.encoder = encoder;
  if (options.stageTimes) *options.stageTimes = times;
  report(ExportProgressUpdate{ExportPhase::completed, totalFrames, totalFrames});
  return film;
}

}  // namespace vumo
