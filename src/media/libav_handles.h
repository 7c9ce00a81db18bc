#pragma once

// Owners of the libav objects of the media area and of export, which writes films with the same
// library. Nothing outside this header calls a libav free function, so an early return or an
// exception can neither leak a frame nor leave a decoder open. Not for the areas that do not link
// libav.

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/error.h>
#include <libavutil/frame.h>
#include <libavutil/mem.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include <memory>
#include <string>

namespace vumo::media_detail {

struct CodecContextDeleter {
  void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct FrameDeleter {
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct PacketDeleter {
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct ResamplerDeleter {
  void operator()(SwrContext* resampler) const { swr_free(&resampler); }
};
// A custom I/O context: its buffer belongs to libav (it may have been replaced), so both go here.
struct IOContextDeleter {
  void operator()(AVIOContext* io) const {
    av_freep(&io->buffer);
    avio_context_free(&io);
  }
};
// An input opened by avformat_open_input; closing it frees the context too.
struct InputFormatDeleter {
  void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};
struct AVBufferDeleter {
  void operator()(void* memory) const { av_free(memory); }
};
struct BufferRefDeleter {
  void operator()(AVBufferRef* buffer) const { av_buffer_unref(&buffer); }
};
struct AudioFifoDeleter {
  void operator()(AVAudioFifo* fifo) const { av_audio_fifo_free(fifo); }
};
struct ScalerDeleter {
  void operator()(SwsContext* scaler) const { sws_freeContext(scaler); }
};
// An output whose file may still be open: closing it here is what lets a partial file be removed.
struct OutputFormatDeleter {
  void operator()(AVFormatContext* context) const {
    if (context->pb != nullptr && !(context->oformat->flags & AVFMT_NOFILE)) avio_closep(&context->pb);
    avformat_free_context(context);
  }
};

using CodecContextPtr = std::unique_ptr<AVCodecContext, CodecContextDeleter>;
using FramePtr = std::unique_ptr<AVFrame, FrameDeleter>;
using PacketPtr = std::unique_ptr<AVPacket, PacketDeleter>;
using ResamplerPtr = std::unique_ptr<SwrContext, ResamplerDeleter>;
using IOContextPtr = std::unique_ptr<AVIOContext, IOContextDeleter>;
using InputFormatPtr = std::unique_ptr<AVFormatContext, InputFormatDeleter>;
using AVBufferPtr = std::unique_ptr<std::uint8_t, AVBufferDeleter>;
using BufferRefPtr = std::unique_ptr<AVBufferRef, BufferRefDeleter>;
using AudioFifoPtr = std::unique_ptr<AVAudioFifo, AudioFifoDeleter>;
using ScalerPtr = std::unique_ptr<SwsContext, ScalerDeleter>;
using OutputFormatPtr = std::unique_ptr<AVFormatContext, OutputFormatDeleter>;

// av_strerror's text for a libav error code; empty when libav has none for it, so that the
// caller can say what it knows instead.
inline std::string libavErrorText(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  if (av_strerror(code, text, sizeof text) != 0) return {};
  return text;
}

}  // namespace vumo::media_detail
