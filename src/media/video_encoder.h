#pragma once

// Opening the encoders the way every writer of the program wants them. Video: a hardware encoder only
// where opening one works (VAAPI on a render node, then NVENC), otherwise the software one. Shared
// by export and the recording's movie, which differ only in their settings.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "media/libav_handles.h"
#include "shared/geometry.h"

namespace vumo::media_detail {

struct VideoEncoderSettings {
  bool hevc = false;  // H.264 otherwise
  PixelSize size;     // even on both sides
  int framesPerSecond = 60;
  std::int64_t bitRate = 0;
  // Timestamps of the frames handed in; 1/framesPerSecond when left at zero.
  AVRational timeBase{0, 1};
  bool globalHeader = false;  // the container keeps the parameter sets (MP4, QuickTime)
  // Low latency and a fixed speed rather than the best picture: a recording encodes as it
  // happens and must keep up.
  bool realTime = false;
  bool allowHardware = true;
  std::filesystem::path vaapiDevice = "/dev/dri/renderD128";
};

struct VideoEncoder {
  CodecContextPtr context;
  std::string name;             // libavcodec's name of the implementation that opened
  BufferRefPtr hardwareFrames;  // VAAPI only: the surfaces each frame is uploaded to
};

// Nothing when not even the software encoder takes the settings.
std::optional<VideoEncoder> openVideoEncoder(const VideoEncoderSettings& settings);

// Copies a frame of planes into a surface of `hardwareFrames`; false when the device refuses.
bool uploadFrame(AVBufferRef* hardwareFrames, const AVFrame* frame, FramePtr& surface);

// A frame of `size` in limited-range BT.709 Y'CbCr 4:2:0, tagged so.
FramePtr newYuvFrame(PixelSize size);

// The sound of every file the program writes: AAC, 48 kHz stereo, 192 kbit/s, planar float in.
inline constexpr int aacSampleRate = 48'000;
inline constexpr int aacChannelCount = 2;
inline constexpr std::int64_t aacBitRate = 192'000;

// Nothing when the AAC encoder does not open.
CodecContextPtr openAacEncoder(bool globalHeader);

}  // namespace vumo::media_detail
