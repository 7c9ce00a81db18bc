#include "project/media_probe.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
#include <libavutil/log.h>
}

#include <cmath>
#include <limits>

namespace vumo {

namespace {

// Owns an opened input; avformat_close_input also frees the context.
class InputFormatContext {
 public:
  InputFormatContext() = default;
  ~InputFormatContext() {
    if (context_ != nullptr) avformat_close_input(&context_);
  }
  InputFormatContext(const InputFormatContext&) = delete;
  InputFormatContext& operator=(const InputFormatContext&) = delete;

  bool open(const std::filesystem::path& path) {
    return avformat_open_input(&context_, path.c_str(), nullptr, nullptr) == 0;
  }
  AVFormatContext* get() const { return context_; }

 private:
  AVFormatContext* context_ = nullptr;
};

std::optional<ProjectTime> nanosecondsFrom(std::int64_t value, AVRational timeBase) {
  if (value == AV_NOPTS_VALUE || value <= 0 || timeBase.num <= 0 || timeBase.den <= 0) return std::nullopt;
  std::int64_t ns = av_rescale_q_rnd(value, timeBase, AVRational{1, 1'000'000'000},
                                     static_cast<AVRounding>(AV_ROUND_NEAR_INF | AV_ROUND_PASS_MINMAX));
  if (ns <= 0 || ns == std::numeric_limits<std::int64_t>::max()) return std::nullopt;
  return ProjectTime{ns};
}

}  // namespace

std::optional<MediaProbeResult> MediaProbe::inspect(const std::filesystem::path& media) {
  std::error_code error;
  if (!std::filesystem::is_regular_file(media, error) || std::filesystem::file_size(media, error) == 0 || error)
    return std::nullopt;
  // A damaged recording is the expected case here; libav's complaints about it are noise.
  av_log_set_level(AV_LOG_QUIET);
  InputFormatContext input;
  if (!input.open(media)) return std::nullopt;
  if (avformat_find_stream_info(input.get(), nullptr) < 0) return std::nullopt;

  MediaProbeResult result;
  std::optional<ProjectTime> longestStream;
  for (unsigned i = 0; i < input.get()->nb_streams; ++i) {
    const AVStream* stream = input.get()->streams[i];
    if (stream->codecpar->codec_type == AVMEDIA_TYPE_VIDEO && (stream->disposition & AV_DISPOSITION_ATTACHED_PIC) == 0)
      result.hasVideoTrack = true;
    if (auto d = nanosecondsFrom(stream->duration, stream->time_base); d && (!longestStream || *d > *longestStream))
      longestStream = d;
  }
  result.duration = nanosecondsFrom(input.get()->duration, AVRational{1, AV_TIME_BASE});
  if (!result.duration) result.duration = longestStream;
  return result;
}

}  // namespace vumo
