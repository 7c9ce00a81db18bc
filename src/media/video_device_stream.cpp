#include "media/video_device_stream.h"

extern "C" {
#include <libavdevice/avdevice.h>
#include <libavutil/dict.h>
#include <libavutil/imgutils.h>
}

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <thread>

#include "media/libav_handles.h"

namespace vumo {

namespace {

using namespace media_detail;
using DeviceCase = VideoDeviceError::Case;

constexpr ErrorCase<DeviceCase> deviceCases[] = {
    {DeviceCase::notFound, "notFound", "recording.error.videoDeviceMissing", "The video device {} is not connected.",
     "execution", ErrorKind::failure},
    {DeviceCase::cannotOpen, "cannotOpen", "recording.error.videoDeviceOpen",
     "The video device could not be opened: {}", "execution", ErrorKind::failure},
};
static_assert(inCaseOrder(deviceCases));

constexpr std::int64_t clockWindowNanoseconds = 10'000'000'000;
// A non-blocking device with no frame ready is asked again after this long: short against a
// frame interval, long enough not to spin.
constexpr auto pollInterval = std::chrono::milliseconds(2);
// Buffers handed out that the stream reuses once nobody holds them any more.
constexpr std::size_t bufferPoolSize = 4;

std::int64_t clockNanoseconds(clockid_t clock) {
  timespec now{};
  ::clock_gettime(clock, &now);
  return std::int64_t(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

// The number after "video", or none for another name.
std::optional<int> videoNodeNumber(const std::string& name) {
  constexpr std::string_view prefix = "video";
  if (!name.starts_with(prefix) || name.size() == prefix.size() || name.size() > prefix.size() + 6) return std::nullopt;
  int number = 0;
  for (char c : name.substr(prefix.size())) {
    if (c < '0' || c > '9') return std::nullopt;
    number = number * 10 + (c - '0');
  }
  return number;
}

std::string fixedString(const __u8* bytes, std::size_t size) {
  const auto* text = reinterpret_cast<const char*>(bytes);
  return std::string(text, strnlen(text, size));
}

std::once_flag devicesRegistered;

class DeviceStream final : public VideoCaptureStream {
 public:
  explicit DeviceStream(const VideoDeviceRequest& request) : deviceID_(request.deviceID) {
    std::call_once(devicesRegistered, [] { avdevice_register_all(); });
    const AVInputFormat* format = av_find_input_format(request.inputFormat.c_str());
    if (format == nullptr) throw VideoDeviceError(DeviceCase::cannotOpen, request.inputFormat + ": no such input");
    const bool v4l2 = request.inputFormat == "video4linux2" || request.inputFormat == "v4l2";
    if (v4l2) {
      struct stat information {};
      if (::stat(request.deviceID.c_str(), &information) != 0 || !S_ISCHR(information.st_mode))
        throw VideoDeviceError(DeviceCase::notFound, request.deviceID);
    }
    AVDictionary* options = nullptr;
    if (request.size)
      av_dict_set(&options, "video_size", fmt::format("{}x{}", request.size->width, request.size->height).c_str(), 0);
    if (request.framesPerSecond) av_dict_set_int(&options, "framerate", *request.framesPerSecond, 0);
    AVFormatContext* raw = avformat_alloc_context();
    if (raw == nullptr) throw std::bad_alloc();
    // Never blocks in a read, so that `stop` is never held up by a device that went quiet.
    raw->flags |= AVFMT_FLAG_NONBLOCK;
    const int opened = avformat_open_input(&raw, request.deviceID.c_str(), format, &options);
    av_dict_free(&options);
    if (opened < 0) throw VideoDeviceError(DeviceCase::cannotOpen, describe(opened));
    input_.reset(raw);
    if (int status = avformat_find_stream_info(input_.get(), nullptr); status < 0)
      throw VideoDeviceError(DeviceCase::cannotOpen, describe(status));
    const AVCodec* codec = nullptr;
    streamIndex_ = av_find_best_stream(input_.get(), AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
    if (streamIndex_ < 0 || codec == nullptr)
      throw VideoDeviceError(DeviceCase::cannotOpen,
                             describe(streamIndex_ < 0 ? streamIndex_ : AVERROR_DECODER_NOT_FOUND));
    decoder_.reset(avcodec_alloc_context3(codec));
    if (!decoder_) throw std::bad_alloc();
    const AVStream* stream = input_->streams[streamIndex_];
    if (avcodec_parameters_to_context(decoder_.get(), stream->codecpar) < 0 ||
        avcodec_open2(decoder_.get(), codec, nullptr) < 0)
      throw VideoDeviceError(DeviceCase::cannotOpen, describe(AVERROR_DECODER_NOT_FOUND));
    timeBase_ = stream->time_base;
    size_ = {stream->codecpar->width, stream->codecpar->height};
    if (size_.width <= 0 || size_.height <= 0)
      throw VideoDeviceError(DeviceCase::cannotOpen, describe(AVERROR_INVALIDDATA));
  }

  ~DeviceStream() override { stop(); }

  PixelSize pixelSize() const override { return size_; }

  void start(std::function<void(const VideoFrame&)> onFrame, StreamStoppedHandler onStopped) override {
    if (thread_.joinable()) return;
    stopRequested_ = false;
    thread_ = std::thread(
        [this, onFrame = std::move(onFrame), onStopped = std::move(onStopped)] { run(onFrame, onStopped); });
  }

  void stop() override {
    stopRequested_ = true;
    if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) thread_.join();
  }

  std::int64_t missedTicks() const override { return missed_.load(); }

 private:
  std::string describe(int code) const {
    std::string text = libavErrorText(code);
    return fmt::format("{}: {}", deviceID_, text.empty() ? fmt::format("error {}", code) : text);
  }

  void run(const std::function<void(const VideoFrame&)>& onFrame, const StreamStoppedHandler& onStopped) {
    PacketPtr packet(av_packet_alloc());
    FramePtr frame(av_frame_alloc());
    if (!packet || !frame) {
      if (onStopped) onStopped(std::make_exception_ptr(std::bad_alloc()));
      return;
    }
    while (!stopRequested_) {
      const int status = av_read_frame(input_.get(), packet.get());
      if (status == AVERROR(EAGAIN)) {
        std::this_thread::sleep_for(pollInterval);
        continue;
      }
      if (status < 0) {
        // The device went away (or a test's source ended): the stream ends by itself.
        if (onStopped && !stopRequested_)
          onStopped(std::make_exception_ptr(VideoDeviceError(DeviceCase::cannotOpen, describe(status))));
        return;
      }
      const std::int64_t readTime = clockNanoseconds(CLOCK_MONOTONIC);
      if (packet->stream_index != streamIndex_) {
        av_packet_unref(packet.get());
        continue;
      }
      std::int64_t stamp = readTime;
      if (packet->pts != AV_NOPTS_VALUE) {
        const std::int64_t deviceNanoseconds = av_rescale_q(packet->pts, timeBase_, AVRational{1, 1'000'000'000});
        stamp = deviceTimestampOnHostTimebase(deviceNanoseconds, readTime, clockNanoseconds(CLOCK_REALTIME));
      }
      const int sent = avcodec_send_packet(decoder_.get(), packet.get());
      av_packet_unref(packet.get());
      if (sent < 0) {
        missed_ += 1;
        continue;
      }
      while (!stopRequested_ && avcodec_receive_frame(decoder_.get(), frame.get()) >= 0) {
        auto pixels = convert(*frame);
        av_frame_unref(frame.get());
        if (!pixels) {
          missed_ += 1;
          continue;
        }
        VideoFrame delivered;
        delivered.pixels = std::move(pixels);
        delivered.presentationNanoseconds = stamp;
        delivered.displayTimeNanoseconds = static_cast<std::uint64_t>(stamp);
        onFrame(delivered);
      }
    }
  }

  // BGRA of the frame in a buffer nobody else holds; none when the conversion fails.
  std::shared_ptr<const PixelBuffer> convert(const AVFrame& frame) {
    if (frame.width != size_.width || frame.height != size_.height) return nullptr;
    scaler_.reset(sws_getCachedContext(scaler_.release(), frame.width, frame.height, AVPixelFormat(frame.format),
                                       frame.width, frame.height, AV_PIX_FMT_BGRA, SWS_BILINEAR, nullptr, nullptr,
                                       nullptr));
    if (!scaler_) return nullptr;
    std::shared_ptr<PixelBuffer> buffer;
    for (auto& candidate : pool_)
      if (candidate.use_count() == 1) {
        buffer = candidate;
        break;
      }
    if (!buffer) {
      buffer = std::make_shared<PixelBuffer>();
      buffer->width = frame.width;
      buffer->height = frame.height;
      buffer->stride = frame.width * 4;
      buffer->bytes.resize(static_cast<std::size_t>(buffer->stride) * frame.height);
      if (pool_.size() < bufferPoolSize) pool_.push_back(buffer);
    }
    std::uint8_t* target[] = {buffer->bytes.data()};
    const int stride[] = {buffer->stride};
    if (sws_scale(scaler_.get(), frame.data, frame.linesize, 0, frame.height, target, stride) != frame.height)
      return nullptr;
    return buffer;
  }

  std::string deviceID_;
  InputFormatPtr input_;
  CodecContextPtr decoder_;
  int streamIndex_ = -1;
  AVRational timeBase_{1, 1'000'000};
  PixelSize size_;
  ScalerPtr scaler_;
  std::vector<std::shared_ptr<PixelBuffer>> pool_;
  std::atomic<bool> stopRequested_{false};
  std::atomic<std::int64_t> missed_{0};
  std::thread thread_;
};

}  // namespace

VideoDeviceError::VideoDeviceError(Case kind, std::string_view detail)
    : Error(catalogue(), kind, detail), kind_(kind) {}

const ErrorCatalogue<VideoDeviceError::Case>& VideoDeviceError::catalogue() {
  static const ErrorCatalogue<Case> catalogue{"VideoDeviceError", "RecordingErrors", deviceCases};
  return catalogue;
}

std::vector<VideoDeviceDescription> listVideoDevices(const std::filesystem::path& folder) {
  std::vector<std::pair<int, VideoDeviceDescription>> found;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
    const auto number = videoNodeNumber(entry.path().filename().string());
    if (!number) continue;
    struct stat information {};
    if (::stat(entry.path().c_str(), &information) != 0 || !S_ISCHR(information.st_mode)) continue;
    const int descriptor = ::open(entry.path().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0) continue;
    v4l2_capability capability{};
    const int queried = ::ioctl(descriptor, VIDIOC_QUERYCAP, &capability);
    ::close(descriptor);
    if (queried != 0) continue;
    // The node's own abilities where the driver tells them apart from the whole card's: a camera
    // has a second node for metadata only.
    const std::uint32_t abilities =
        (capability.capabilities & V4L2_CAP_DEVICE_CAPS) != 0 ? capability.device_caps : capability.capabilities;
    if ((abilities & (V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_VIDEO_CAPTURE_MPLANE)) == 0) continue;
    found.push_back({*number,
                     {entry.path().string(), fixedString(capability.card, sizeof capability.card),
                      fixedString(capability.bus_info, sizeof capability.bus_info)}});
  }
  std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<VideoDeviceDescription> devices;
  for (auto& [number, description] : found) devices.push_back(std::move(description));
  return devices;
}

std::unique_ptr<VideoCaptureStream> makeVideoDeviceStream(const VideoDeviceRequest& request) {
  av_log_set_level(AV_LOG_QUIET);
  return std::make_unique<DeviceStream>(request);
}

std::int64_t deviceTimestampOnHostTimebase(std::int64_t deviceNanoseconds, std::int64_t monotonicNow,
                                           std::int64_t realtimeNow) {
  if (std::abs(deviceNanoseconds - monotonicNow) <= clockWindowNanoseconds) return deviceNanoseconds;
  if (std::abs(deviceNanoseconds - realtimeNow) <= clockWindowNanoseconds)
    return deviceNanoseconds - (realtimeNow - monotonicNow);
  return monotonicNow;
}

}  // namespace vumo
