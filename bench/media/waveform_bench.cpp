// Waveform of a one-hour recording (two AAC tracks, 48 kHz stereo, bursts of tone and pauses like
// speech, and a tiny 1 fps screen track), with the cache removed before every run. The baseline
// decodes and resamples the same track to 48 kHz 16-bit with bare libav calls and keeps one running
// sum, so the ratio is what the service costs beyond the decoding it cannot avoid.

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libswresample/swresample.h>
}

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "media/waveform_cache.h"
#include "media/waveform_service.h"
#include "recording_reporter.h"
#include "shared/files.h"

namespace {

namespace fs = std::filesystem;
using namespace vumo;

constexpr int seconds = 3600;

void generateRecording(const fs::path& movie) {
  const fs::path partial = movie.parent_path() / "partial.mov";
  // Bursts of 1.5 to 3 s of tone with pauses between them; the two tracks keep different rhythms.
  const std::string command = std::string("'") + VUMO_FFMPEG_PROGRAM +
                              "' -hide_banner -loglevel error -nostdin -y"
                              " -f lavfi -i color=c=gray:s=64x36:r=1:d=" +
                              std::to_string(seconds) +
                              " -f lavfi -i \"sine=f=220:r=48000:d=" + std::to_string(seconds) +
                              ",volume='0.5*gt(sin(2*PI*t/4.1)\\,-0.2)':eval=frame\""
                              " -f lavfi -i \"sine=f=330:r=48000:d=" +
                              std::to_string(seconds) +
                              ",volume='0.3*gt(sin(2*PI*t/6.7)\\,0.1)':eval=frame\""
                              " -map 0:v -map 1:a -map 2:a -c:v mjpeg -c:a aac -b:a 128k -ac 2 '" +
                              partial.string() + "'";
  std::fprintf(stderr, "Generating the one-hour recording once (%s)...\n", movie.c_str());
  if (std::system(command.c_str()) != 0) {
    std::fprintf(stderr, "ffmpeg failed\n");
    std::exit(1);
  }
  fs::rename(partial, movie);
}

const ProjectSnapshot& recording() {
  static const ProjectSnapshot snapshot = [] {
    ProjectSnapshot s;
    s.packagePath = fs::path(VUMO_BENCH_MEDIA_DIR) / "Waveform.vumo";
    s.manifest.duration = ProjectTime{static_cast<std::int64_t>(seconds) * 1'000'000'000};
    s.manifest.media.tracks = {
        {MediaTrackKind::screen, 0}, {MediaTrackKind::systemAudio, 1}, {MediaTrackKind::microphone, 2}};
    createDirectories(s.packagePath / "media");
    const fs::path movie = s.packagePath / s.manifest.media.relativePath;
    if (!fs::exists(movie)) generateRecording(movie);
    return s;
  }();
  return snapshot;
}

void BM_WaveformEnvelope(benchmark::State& state) {
  const ProjectSnapshot& snapshot = recording();
  WaveformService service;
  for (auto _ : state) {
    state.PauseTiming();
    fs::remove(WaveformCache::path(snapshot, MediaTrackKind::systemAudio));
    state.ResumeTiming();
    WaveformEnvelope envelope = service.envelope(MediaTrackKind::systemAudio, snapshot, {}, {});
    benchmark::DoNotOptimize(envelope.peaks.data());
    if (envelope.peaks.size() < static_cast<std::size_t>(seconds) * 50 - 1) state.SkipWithError("short envelope");
  }
}

void BM_BareDecode(benchmark::State& state) {
  const fs::path movie = recording().packagePath / recording().manifest.media.relativePath;
  for (auto _ : state) {
    AVFormatContext* format = nullptr;
    if (avformat_open_input(&format, movie.c_str(), nullptr, nullptr) < 0 ||
        avformat_find_stream_info(format, nullptr) < 0) {
      state.SkipWithError("open");
      return;
    }
    AVStream* stream = format->streams[1];
    for (unsigned i = 0; i < format->nb_streams; ++i)
      format->streams[i]->discard = i == 1 ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
    const AVCodec* codec = avcodec_find_decoder(stream->codecpar->codec_id);
    AVCodecContext* decoder = avcodec_alloc_context3(codec);
    avcodec_parameters_to_context(decoder, stream->codecpar);
    avcodec_open2(decoder, codec, nullptr);
    SwrContext* resampler = nullptr;
    swr_alloc_set_opts2(&resampler, &decoder->ch_layout, AV_SAMPLE_FMT_S16, 48'000, &decoder->ch_layout,
                        decoder->sample_fmt, decoder->sample_rate, 0, nullptr);
    swr_init(resampler);
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    std::vector<std::int16_t> output(8192 * 2);
    std::int64_t sum = 0;
    auto drain = [&] {
      while (avcodec_receive_frame(decoder, frame) == 0) {
        auto* out = reinterpret_cast<std::uint8_t*>(output.data());
        int produced = swr_convert(resampler, &out, 8192, const_cast<const std::uint8_t**>(frame->extended_data),
                                   frame->nb_samples);
        for (int i = 0; i < produced * 2; ++i) sum += output[static_cast<std::size_t>(i)];
        av_frame_unref(frame);
      }
    };
    while (av_read_frame(format, packet) >= 0) {
      if (packet->stream_index == 1) avcodec_send_packet(decoder, packet);
      av_packet_unref(packet);
      drain();
    }
    avcodec_send_packet(decoder, nullptr);
    drain();
    benchmark::DoNotOptimize(sum);
    av_frame_free(&frame);
    av_packet_free(&packet);
    swr_free(&resampler);
    avcodec_free_context(&decoder);
    avformat_close_input(&format);
  }
}

BENCHMARK(BM_WaveformEnvelope)->Unit(benchmark::kSecond)->Iterations(1);
BENCHMARK(BM_BareDecode)->Unit(benchmark::kSecond)->Iterations(1);

}  // namespace

int main(int argc, char** argv) {
  return vumo::bench::runAndCompare(
      argc, argv,
      {{"waveform envelope / bare decode and resample (target <= 1.2)", "BM_WaveformEnvelope", "BM_BareDecode"}},
      [] { recording(); });
}
