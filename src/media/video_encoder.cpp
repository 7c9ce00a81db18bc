#include "media/video_encoder.h"

extern "C" {
#include <libavutil/hwcontext.h>
#include <libavutil/opt.h>
}

#include <sys/stat.h>

#include <new>
#include <string_view>

namespace vumo::media_detail {

namespace {

FramePtr allocateFrame() {
  FramePtr frame(av_frame_alloc());
  if (!frame) throw std::bad_alloc();
  return frame;
}

// The settings for one codec implementation; none when the implementation refuses them (or, for
// a hardware one, when there is no device behind it).
CodecContextPtr openContext(const AVCodec* codec, const VideoEncoderSettings& settings,
                            AVBufferRef* hardwareFrames = nullptr) {
  CodecContextPtr context(avcodec_alloc_context3(codec));
  if (!context) return nullptr;
  context->width = static_cast<int>(settings.size.width);
  context->height = static_cast<int>(settings.size.height);
  context->time_base = settings.timeBase.num > 0 ? settings.timeBase : AVRational{1, settings.framesPerSecond};
  context->framerate = AVRational{settings.framesPerSecond, 1};
  context->sample_aspect_ratio = AVRational{1, 1};
  context->pix_fmt = AV_PIX_FMT_YUV420P;
  if (hardwareFrames != nullptr) {
    context->pix_fmt = AV_PIX_FMT_VAAPI;
    context->hw_frames_ctx = av_buffer_ref(hardwareFrames);
    if (context->hw_frames_ctx == nullptr) return nullptr;
  }
  context->bit_rate = settings.bitRate;
  // A keyframe at least every 2 seconds, so seeking in a player never decodes far; no B-frames,
  // so decode order is presentation order.
  context->gop_size = 2 * settings.framesPerSecond;
  context->max_b_frames = 0;
  context->color_primaries = AVCOL_PRI_BT709;
  context->color_trc = AVCOL_TRC_BT709;
  context->colorspace = AVCOL_SPC_BT709;
  context->color_range = AVCOL_RANGE_MPEG;
  context->thread_count = 0;
  if (settings.globalHeader) context->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  const std::string_view name = codec->name;
  if (name == "libx264") {
    av_opt_set(context->priv_data, "preset", "veryfast", 0);
    av_opt_set(context->priv_data, "profile", "high", 0);
    // Frame threads would hold a frame per thread before the first packet comes out; a recording
    // wants each frame written as soon as it is encoded.
    if (settings.realTime) av_opt_set(context->priv_data, "tune", "zerolatency", 0);
  } else if (name == "libx265") {
    av_opt_set(context->priv_data, "preset", "veryfast", 0);
    av_opt_set(context->priv_data, "profile", "main", 0);
    av_opt_set(context->priv_data, "x265-params", "log-level=error:bframes=0", 0);
  } else {
    av_opt_set(context->priv_data, "profile", settings.hevc ? "main" : "high", 0);
    if (settings.realTime && name.ends_with("_nvenc")) {
      av_opt_set(context->priv_data, "tune", "ll", 0);
      av_opt_set(context->priv_data, "zerolatency", "1", 0);
    }
  }
  if (avcodec_open2(context.get(), codec, nullptr) < 0) return nullptr;
  return context;
}

// A VAAPI encoder on the render node, or none. A path that is not a character device is refused
// before libva is asked, so a machine without one pays nothing; a device whose surfaces do not take
// the planes is refused at once too, rather than on the first frame.
std::optional<VideoEncoder> openVaapiEncoder(const VideoEncoderSettings& settings) {
  struct stat information {};
  const auto& device = settings.vaapiDevice;
  if (device.empty() || ::stat(device.c_str(), &information) != 0 || !S_ISCHR(information.st_mode)) return std::nullopt;
  const AVCodec* codec = avcodec_find_encoder_by_name(settings.hevc ? "hevc_vaapi" : "h264_vaapi");
  if (codec == nullptr) return std::nullopt;
  AVBufferRef* rawDevice = nullptr;
  if (av_hwdevice_ctx_create(&rawDevice, AV_HWDEVICE_TYPE_VAAPI, device.c_str(), nullptr, 0) < 0 ||
      rawDevice == nullptr)
    return std::nullopt;
  const BufferRefPtr deviceContext(rawDevice);
  BufferRefPtr frames(av_hwframe_ctx_alloc(deviceContext.get()));
  if (!frames) return std::nullopt;
  auto* framesContext = reinterpret_cast<AVHWFramesContext*>(frames->data);
  framesContext->format = AV_PIX_FMT_VAAPI;
  framesContext->sw_format = AV_PIX_FMT_NV12;
  framesContext->width = static_cast<int>(settings.size.width);
  framesContext->height = static_cast<int>(settings.size.height);
  framesContext->initial_pool_size = 16;
  if (av_hwframe_ctx_init(frames.get()) < 0) return std::nullopt;

  FramePtr probe = newYuvFrame(settings.size);
  FramePtr surface;
  if (!uploadFrame(frames.get(), probe.get(), surface)) return std::nullopt;
  surface.reset();

  auto context = openContext(codec, settings, frames.get());
  if (!context) return std::nullopt;
  return VideoEncoder{std::move(context), codec->name, std::move(frames)};
}

}  // namespace

std::optional<VideoEncoder> openVideoEncoder(const VideoEncoderSettings& settings) {
  if (settings.allowHardware) {
    if (auto encoder = openVaapiEncoder(settings)) return encoder;
    if (const AVCodec* codec = avcodec_find_encoder_by_name(settings.hevc ? "hevc_nvenc" : "h264_nvenc")) {
      if (auto context = openContext(codec, settings)) return VideoEncoder{std::move(context), codec->name, nullptr};
    }
  }
  const AVCodec* codec = avcodec_find_encoder_by_name(settings.hevc ? "libx265" : "libx264");
  if (codec == nullptr) return std::nullopt;
  auto context = openContext(codec, settings);
  if (!context) return std::nullopt;
  return VideoEncoder{std::move(context), codec->name, nullptr};
}

bool uploadFrame(AVBufferRef* hardwareFrames, const AVFrame* frame, FramePtr& surface) {
  surface = allocateFrame();
  if (av_hwframe_get_buffer(hardwareFrames, surface.get(), 0) < 0) return false;
  if (av_hwframe_transfer_data(surface.get(), frame, 0) < 0) return false;
  return av_frame_copy_props(surface.get(), frame) >= 0;
}

FramePtr newYuvFrame(PixelSize size) {
  FramePtr frame = allocateFrame();
  frame->format = AV_PIX_FMT_YUV420P;
  frame->width = static_cast<int>(size.width);
  frame->height = static_cast<int>(size.height);
  frame->color_primaries = AVCOL_PRI_BT709;
  frame->color_trc = AVCOL_TRC_BT709;
  frame->colorspace = AVCOL_SPC_BT709;
  frame->color_range = AVCOL_RANGE_MPEG;
  if (av_frame_get_buffer(frame.get(), 0) < 0) throw std::bad_alloc();
  return frame;
}

CodecContextPtr openAacEncoder(bool globalHeader) {
  const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_AAC);
  if (codec == nullptr) return nullptr;
  CodecContextPtr context(avcodec_alloc_context3(codec));
  if (!context) return nullptr;
  context->sample_rate = aacSampleRate;
  context->sample_fmt = AV_SAMPLE_FMT_FLTP;
  av_channel_layout_default(&context->ch_layout, aacChannelCount);
  context->bit_rate = aacBitRate;
  context->time_base = AVRational{1, aacSampleRate};
  if (globalHeader) context->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  if (avcodec_open2(context.get(), codec, nullptr) < 0) return nullptr;
  return context;
}

}  // namespace vumo::media_detail
