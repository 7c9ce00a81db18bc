// Films of generated movies whose every frame names itself (its grey level) and whose sound has a
// tone at known times, decoded again with libav: what each output frame shows and where the sound
// lies are checked against the edit by hand.

#include "export/project_exporter.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <iterator>

#include "media/recording_media_writer.h"
#include "media_fixtures.h"
#include "rendering/project_frame_renderer.h"
#include "rendering/rendering_context.h"
#include "shared/cancellation.h"
#include "shared/files.h"
#include "support/test_support.h"

namespace vumo {
namespace {

using namespace vumo::testing;

// What a film holds, decoded.
struct DecodedFilm {
  AVCodecID videoCodec = AV_CODEC_ID_NONE;
  int width = 0;
  int height = 0;
  double durationSeconds = 0;
  std::vector<int> centreLuma;                  // per frame, in presentation order
  std::vector<std::vector<std::uint8_t>> rgba;  // per frame, when asked for
  int audioSampleRate = 0;
  int audioChannels = 0;
  std::vector<float> audio;  // the first channel
};

DecodedFilm decodeFilm(const std::filesystem::path& path, bool keepPictures = false) {
  DecodedFilm film;
  AVFormatContext* format = nullptr;
  EXPECT_EQ(avformat_open_input(&format, path.c_str(), nullptr, nullptr), 0);
  if (format == nullptr) return film;
  EXPECT_GE(avformat_find_stream_info(format, nullptr), 0);
  film.durationSeconds = double(format->duration) / AV_TIME_BASE;
  struct Decoder {
    AVCodecContext* context = nullptr;
    int stream = -1;
  } video, audio;
  for (unsigned i = 0; i < format->nb_streams; ++i) {
    const AVCodecParameters* parameters = format->streams[i]->codecpar;
    Decoder* decoder = parameters->codec_type == AVMEDIA_TYPE_VIDEO   ? &video
                       : parameters->codec_type == AVMEDIA_TYPE_AUDIO ? &audio
                                                                      : nullptr;
    if (decoder == nullptr || decoder->stream >= 0) continue;
    decoder->stream = static_cast<int>(i);
    decoder->context = avcodec_alloc_context3(avcodec_find_decoder(parameters->codec_id));
    avcodec_parameters_to_context(decoder->context, parameters);
    EXPECT_EQ(avcodec_open2(decoder->context, avcodec_find_decoder(parameters->codec_id), nullptr), 0);
  }
  if (video.context) {
    film.videoCodec = video.context->codec_id;
    film.width = video.context->width;
    film.height = video.context->height;
  }
  if (audio.context) {
    film.audioSampleRate = audio.context->sample_rate;
    film.audioChannels = audio.context->ch_layout.nb_channels;
  }
  AVPacket* packet = av_packet_alloc();
  AVFrame* frame = av_frame_alloc();
  SwsContext* toRGBA = nullptr;
  auto drain = [&](Decoder& decoder) {
    while (avcodec_receive_frame(decoder.context, frame) == 0) {
      if (&decoder == &video) {
        film.centreLuma.push_back(frame->data[0][(frame->height / 2) * frame->linesize[0] + frame->width / 2]);
        if (keepPictures) {
          toRGBA = sws_getCachedContext(toRGBA, frame->width, frame->height, AVPixelFormat(frame->format), frame->width,
                                        frame->height, AV_PIX_FMT_RGBA, SWS_BICUBIC, nullptr, nullptr, nullptr);
          const int* bt709 = sws_getCoefficients(SWS_CS_ITU709);
          sws_setColorspaceDetails(toRGBA, bt709, 0, bt709, 1, 0, 1 << 16, 1 << 16);
          std::vector<std::uint8_t> pixels(std::size_t(frame->width) * frame->height * 4);
          std::uint8_t* planes[] = {pixels.data()};
          const int strides[] = {frame->width * 4};
          sws_scale(toRGBA, frame->data, frame->linesize, 0, frame->height, planes, strides);
          film.rgba.push_back(std::move(pixels));
        }
      } else {
        const int count = frame->nb_samples;
        if (frame->format == AV_SAMPLE_FMT_FLTP) {
          const auto* first = reinterpret_cast<const float*>(frame->data[0]);
          film.audio.insert(film.audio.end(), first, first + count);
        }
      }
      av_frame_unref(frame);
    }
  };
  while (av_read_frame(format, packet) == 0) {
    for (Decoder* decoder : {&video, &audio}) {
      if (decoder->context && packet->stream_index == decoder->stream) {
        EXPECT_EQ(avcodec_send_packet(decoder->context, packet), 0);
        drain(*decoder);
      }
    }
    av_packet_unref(packet);
  }
  for (Decoder* decoder : {&video, &audio}) {
    if (!decoder->context) continue;
    avcodec_send_packet(decoder->context, nullptr);
    drain(*decoder);
    avcodec_free_context(&decoder->context);
  }
  sws_freeContext(toRGBA);
  av_frame_free(&frame);
  av_packet_free(&packet);
  avformat_close_input(&format);
  return film;
}

double rootMeanSquare(const std::vector<float>& samples, double fromSeconds, double toSeconds, int rate) {
  const auto from = static_cast<std::size_t>(fromSeconds * rate);
  const auto to = std::min(samples.size(), static_cast<std::size_t>(toSeconds * rate));
  if (to <= from) return -1;
  double sum = 0;
  for (std::size_t i = from; i < to; ++i) sum += double(samples[i]) * samples[i];
  return std::sqrt(sum / double(to - from));
}

ExportConfiguration originalSize(ExportFrameRate rate, ExportCodec codec = ExportCodec::h264) {
  ExportConfiguration configuration;
  configuration.resolution = ExportResolution::original;
  configuration.frameRate = rate;
  configuration.codec = codec;
  return configuration;
}

std::string contents(const std::filesystem::path& path) {
  std::ifstream stream(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

class ProjectExports : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    cache_ = new TemporaryDirectory();
    cacheHome_ = new ScopedEnvironmentVariable("XDG_CACHE_HOME", cache_->path().string());
    renderer_ = new std::shared_ptr<SceneRenderer>(
        std::make_shared<SceneRenderer>(RenderingContext::create(VUMO_TEST_RESOURCE_DIR)));
  }
  static void TearDownTestSuite() {
    delete renderer_;
    delete cacheHome_;
    delete cache_;
  }

  // Nothing but the recording on the canvas: no margin, no corners, no pointer, no blur.
  static void plainCanvas(ProjectSnapshot& snapshot, PixelSize size) {
    snapshot.manifest.encodedPixelSize = size;
    snapshot.timeline.canvas.aspectRatio = CanvasAspectRatio::source;
    snapshot.timeline.canvas.padding = 0;
    snapshot.timeline.canvas.cornerRadius = 0;
    snapshot.timeline.cursor.isVisible = false;
    snapshot.timeline.cursor.showsClickEffect = false;
    snapshot.timeline.motionBlurAmount = 0;
  }

  // 66×38 grey pictures at 30 fps for 4 s, lossless; frame N has the level 16 + 6 (N mod 30), so
  // a level names the frame within each second, far enough apart to survive the film's codec.
  ProjectSnapshot numberedProject(PixelSize size = {66, 38}) {
    PackageFixture fixture;
    fixture.inputs =
        lavfiInput(fmt::format("color=c=black:s={}x{}:r=30:d=4,format=yuv420p,geq=lum=16+6*mod(N\\,30):cb=128:cr=128",
                               size.width, size.height));
    fixture.outputOptions = {"-c:v", "ffv1"};
    fixture.tracks = {{MediaTrackKind::screen, 0}};
    fixture.duration = ms(4000);
    ProjectSnapshot snapshot = makePackage(folder_.path(), fixture);
    plainCanvas(snapshot, size);
    return snapshot;
  }

  ExportedFilm exportFilm(const ProjectSnapshot& snapshot, const std::filesystem::path& destination,
                          const ExportConfiguration& configuration, std::stop_token stop = {},
                          ProjectExportOptions options = {}) {
    options.allowHardwareEncoders = false;
    ProjectExporter exporter(*renderer_);
    return exporter.exportProject(
        snapshot, destination, configuration,
        [this](const ExportProgressUpdate& update) { updates_.push_back(update); }, stop, options);
  }

  static inline TemporaryDirectory* cache_ = nullptr;
  static inline ScopedEnvironmentVariable* cacheHome_ = nullptr;
  static inline std::shared_ptr<SceneRenderer>* renderer_ = nullptr;
  TemporaryDirectory folder_;
  std::vector<ExportProgressUpdate> updates_;
};

TEST(ExportFrameCount, RoundsUpAndPlacesFramesExactly) {
  struct Row {
    std::int64_t nanoseconds;
    int rate;
    std::int64_t frames;
  };
  const Row rows[] = {
      {1'010'000'000, 30, 31}, {1'000'000'000, 30, 30}, {2'000'000'000, 60, 120}, {1, 60, 1}, {0, 30, 0},
      {999'999'999, 30, 30}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.nanoseconds);
    EXPECT_EQ(ProjectExporter::frameCount(ProjectTime{row.nanoseconds}, row.rate), row.frames);
  }
  EXPECT_EQ(ProjectExporter::frameTime(1, 30).nanoseconds, 33'333'334);
  EXPECT_EQ(ProjectExporter::frameTime(31, 30).nanoseconds, 1'033'333'334);
  EXPECT_EQ(ProjectExporter::frameTime(120, 60).nanoseconds, 2'000'000'000);
}

// Keep 0–1 s, cut 1–2 s, play 2–4 s at double speed: 2 s of film, 60 frames at 30 fps. The first
// second shows source frames 0...29, the second every other frame from 60 on (60, 62, ... 118).
// Each way of converting the frames, GPU or libswscale, gives the same film.
TEST_F(ProjectExports, EveryFrameShowsTheSourceInstantOfTheEditAtTheCodecAndSizeAskedFor) {
  struct Row {
    ExportCodec codec;
    ExportFrameConversion conversion;
  };
  for (const Row row :
       {Row{ExportCodec::h264, ExportFrameConversion::automatic},
        Row{ExportCodec::hevc, ExportFrameConversion::automatic},
        Row{ExportCodec::h264, ExportFrameConversion::gpuOverlapped},
        Row{ExportCodec::hevc, ExportFrameConversion::gpu}, Row{ExportCodec::h264, ExportFrameConversion::software}}) {
    const ExportCodec codec = row.codec;
    SCOPED_TRACE(fmt::format("{} {}", nameOf(codec), static_cast<int>(row.conversion)));
    ProjectExportOptions options;
    options.conversion = row.conversion;
    // An odd source: `original` is written one pixel smaller each way.
    ProjectSnapshot snapshot = numberedProject({67, 39});
    snapshot.timeline.segments = {clip(ms(0), ms(1000)), clip(ms(2000), ms(4000), 2000)};
    const auto destination = folder_.path() / "film.mp4";
    updates_.clear();
    const ExportedFilm result =
        exportFilm(snapshot, destination, originalSize(ExportFrameRate::fps30, codec), {}, options);

    EXPECT_EQ(result.frameCount, 60);
    EXPECT_EQ(result.outputSize, (PixelSize{66, 38}));
    ASSERT_TRUE(result.requestedOddSize);
    EXPECT_EQ(*result.requestedOddSize, (PixelSize{67, 39}));
    EXPECT_EQ(result.encoder, codec == ExportCodec::h264 ? "libx264" : "libx265");
    EXPECT_EQ(result.sizeBytes, static_cast<std::int64_t>(std::filesystem::file_size(destination)));
    ASSERT_FALSE(updates_.empty());
    EXPECT_EQ(updates_.front().phase, ExportPhase::preparing);
    EXPECT_EQ(updates_.back(), (ExportProgressUpdate{ExportPhase::completed, 60, 60}));

    const DecodedFilm film = decodeFilm(destination);
    EXPECT_EQ(film.videoCodec, codec == ExportCodec::h264 ? AV_CODEC_ID_H264 : AV_CODEC_ID_HEVC);
    EXPECT_EQ(film.width, 66);
    EXPECT_EQ(film.height, 38);
    EXPECT_NEAR(film.durationSeconds, 2.0, 1.0 / 30);
    ASSERT_EQ(film.centreLuma.size(), 60u);
    for (int index = 0; index < 60; ++index) {
      const int sourceFrame = index < 30 ? index : 60 + 2 * (index - 30);
      EXPECT_NEAR(film.centreLuma[index], 16 + 6 * (sourceFrame % 30), 2) << "output frame " << index;
    }
  }
}

TEST_F(ProjectExports, AOneHundredthOfASecondMoreIsOneFrameMore) {
  ProjectSnapshot snapshot = numberedProject();
  snapshot.timeline.segments = {clip(ms(0), ms(1010))};
  const auto destination = folder_.path() / "film.mov";
  const ExportedFilm result = exportFilm(snapshot, destination, originalSize(ExportFrameRate::fps30));
  EXPECT_EQ(result.frameCount, 31);
  EXPECT_FALSE(result.requestedOddSize);
  const DecodedFilm film = decodeFilm(destination);
  ASSERT_EQ(film.centreLuma.size(), 31u);
  EXPECT_NEAR(film.centreLuma[30], 16 + 6 * 0, 2);
}

// A recording's movie has a variable frame rate: the still stretch in the middle is written as a
// picture a second. The film still has a frame for every tick, each showing the picture of its time.
TEST_F(ProjectExports, ARecordingWithAStillStretchGivesEveryFrameItsPicture) {
  // Grey pictures at 30 fps: frames 0–9 change each tick, 10–49 repeat frame 10 unchanged, 50–59
  // change each tick again.
  auto grey = [](int frame) { return frame < 10 ? 20 + 10 * frame : frame < 50 ? 160 : 170 + 8 * (frame - 50); };
  constexpr int frames = 60;
  const std::int64_t interval = 1'000'000'000 / 30;
  PackageFixture fixture;
  fixture.inputs = lavfiInput("color=c=black:s=66x38:r=30:d=1");
  fixture.tracks = {{MediaTrackKind::screen, 0}};
  fixture.duration = ns((frames - 1) * interval);
  ProjectSnapshot snapshot = makePackage(folder_.path(), fixture);
  plainCanvas(snapshot, {66, 38});
  const auto movie = snapshot.packagePath / snapshot.manifest.media.relativePath;
  {
    RecordingWriterConfiguration configuration;
    configuration.url = movie;
    configuration.size = {66, 38};
    configuration.framesPerSecond = 30;
    configuration.encoderPreference = "libx264";
    RecordingMediaWriter writer(configuration);
    std::shared_ptr<const PixelBuffer> pixels;
    for (int frame = 0; frame < frames; ++frame) {
      const bool changed = frame < 10 || frame >= 50;
      if (changed || frame == 10) {
        auto buffer = std::make_shared<PixelBuffer>();
        buffer->width = 66;
        buffer->height = 38;
        buffer->stride = 66 * 4;
        buffer->bytes.assign(66 * 38 * 4, static_cast<std::uint8_t>(grey(frame)));
        pixels = std::move(buffer);
      }
      VideoFrame video;
      video.pixels = pixels;
      video.changed = changed || frame == 10;
      writer.appendVideo(video, frame * interval);
      writer.waitUntilEncodedForTesting();
    }
    const RecordingWriterResult written = writer.finish();
    ASSERT_EQ(written.videoFrames, frames);
    ASSERT_EQ(written.duration, fixture.duration);
  }
  const auto destination = folder_.path() / "film.mp4";
  const ExportedFilm result = exportFilm(snapshot, destination, originalSize(ExportFrameRate::fps30));
  // The recording lasts from its first frame to its last, 59 ticks: the last frame's instant is its
  // end, and the film has a frame for each tick before it.
  EXPECT_EQ(result.frameCount, frames - 1);
  const DecodedFilm film = decodeFilm(destination);
  ASSERT_EQ(film.centreLuma.size(), std::size_t(frames - 1));
  // Limited-range luma of a full-range grey g: 16 + 219 g / 255.
  for (int frame = 0; frame < frames - 1; ++frame)
    EXPECT_NEAR(film.centreLuma[frame], 16 + 219.0 * grey(frame) / 255, 3) << "frame " << frame;
}

// A 1 kHz tone in source seconds 1–2 of a 3 s recording; cutting 0.5–1 s moves it to 0.5–1.5 s.
TEST_F(ProjectExports, TheSoundLiesWhereTheEditPutsItAndAMutedTrackIsSilent) {
  AudioPackage audio;
  audio.channelExpressions = {"if(between(n,48000,95999),16000*sin(2*PI*1000*n/48000),0)",
                              "if(between(n,48000,95999),16000*sin(2*PI*1000*n/48000),0)"};
  audio.sampleCount = 3 * 48'000;
  ProjectSnapshot snapshot = makeAudioPackage(folder_.path(), audio);
  plainCanvas(snapshot, {16, 16});
  snapshot.timeline.segments = {clip(ms(0), ms(500)), clip(ms(1000), ms(3000))};

  struct Row {
    bool muted;
    double toneLevel;
  };
  for (const Row row : {Row{false, 16000.0 / 32768 / std::sqrt(2.0)}, Row{true, 0.0}}) {
    SCOPED_TRACE(row.muted);
    snapshot.timeline.audioMix.microphone.isMuted = row.muted;
    const auto destination = folder_.path() / "sound.mp4";
    const ExportedFilm result = exportFilm(snapshot, destination, originalSize(ExportFrameRate::fps30));
    EXPECT_EQ(result.frameCount, 75);
    const DecodedFilm film = decodeFilm(destination);
    EXPECT_EQ(film.audioSampleRate, 48'000);
    EXPECT_EQ(film.audioChannels, 2);
    EXPECT_NEAR(double(film.audio.size()) / 48'000, 2.5, 0.05);
    // Windows kept clear of the edges, where the encoder's transform spreads the onset.
    EXPECT_LT(rootMeanSquare(film.audio, 0.05, 0.45, 48'000), 0.01);
    EXPECT_NEAR(rootMeanSquare(film.audio, 0.6, 1.4, 48'000), row.toneLevel, 0.03);
    EXPECT_LT(rootMeanSquare(film.audio, 1.6, 2.4, 48'000), 0.01);
  }
}

// The whole scene (a margin, rounded corners, a zoom, the camera overlay) on moving gradients: a
// film frame is the still of the same instant, up to the codec's loss. The gradients' colours are
// named: left to itself the source draws new random ones on every run, and the loss of 4:2:0
// chroma depends on them.
TEST_F(ProjectExports, AFilmFrameIsTheStillOfTheSameInstant) {
  PackageFixture fixture;
  fixture.inputs = lavfiInput("gradients=s=256x144:r=30:d=2:speed=0.05:c0=teal:c1=gold:seed=11,format=yuv420p");
  const auto camera = lavfiInput("gradients=s=64x64:r=30:d=2:speed=0.1:c0=orange:c1=navy:seed=11,format=yuv420p");
  fixture.inputs.insert(fixture.inputs.end(), camera.begin(), camera.end());
  fixture.outputOptions = {"-map", "0:v", "-map", "1:v", "-c:v", "ffv1"};
  fixture.tracks = {{MediaTrackKind::screen, 0}};
  fixture.webcamTrackIndex = 1;
  fixture.duration = ms(2000);
  ProjectSnapshot snapshot = makePackage(folder_.path(), fixture);
  snapshot.manifest.encodedPixelSize = {256, 144};
  snapshot.timeline.canvas.aspectRatio = CanvasAspectRatio::source;
  snapshot.timeline.cursor.isVisible = false;
  snapshot.timeline.zooms = {zoomMs(200, 1800, 2.0, {0.3, 0.4})};
  snapshot.timeline.webcamOverlay = WebcamOverlay{};

  for (ExportFrameConversion conversion :
       {ExportFrameConversion::automatic, ExportFrameConversion::gpuOverlapped, ExportFrameConversion::software}) {
    SCOPED_TRACE(static_cast<int>(conversion));
    const auto destination = folder_.path() / "film.mp4";
    ExportConfiguration configuration = originalSize(ExportFrameRate::fps30);
    configuration.quality = ExportQuality::high;
    ProjectExportOptions options;
    options.conversion = conversion;
    exportFilm(snapshot, destination, configuration, {}, options);
    const DecodedFilm film = decodeFilm(destination, true);
    ASSERT_EQ(film.rgba.size(), 60u);

    ProjectFrameRenderer stills(*renderer_);
    for (int index : {0, 15, 45}) {
      SCOPED_TRACE(index);
      const StillImage still = stills.renderImage(snapshot, ProjectExporter::frameTime(index, 30), 256, {});
      ASSERT_EQ(still.width, 256);
      ASSERT_EQ(still.height, 144);
      EXPECT_GE(vumo::testing::colourPSNR(still.pixels, film.rgba[index]), 35.0);
    }
  }
}

// Without a VAAPI render node (none here, a regular file, a character device that is no GPU) the
// probe gives up at once and the film is written by NVENC or, where that does not open either,
// the software encoder.
TEST_F(ProjectExports, WithoutAVaapiDeviceTheFilmFallsBackToAnotherEncoder) {
  ProjectSnapshot snapshot = numberedProject();
  snapshot.timeline.segments = {clip(ms(0), ms(500))};
  const auto notADevice = folder_.path() / "renderD128";
  writeFileAtomically(notADevice, "not a device");
  for (const std::filesystem::path& device : {std::filesystem::path("/dev/dri/renderD128"), folder_.path() / "missing",
                                              notADevice, std::filesystem::path("/dev/null")}) {
    SCOPED_TRACE(device.string());
    if (device == "/dev/dri/renderD128" && std::filesystem::exists(device)) continue;
    for (ExportCodec codec : {ExportCodec::h264, ExportCodec::hevc}) {
      SCOPED_TRACE(nameOf(codec));
      ProjectExportOptions options;
      options.vaapiDevice = device;
      ProjectExporter exporter(*renderer_);
      const auto destination = folder_.path() / "film.mp4";
      const ExportedFilm result =
          exporter.exportProject(snapshot, destination, originalSize(ExportFrameRate::fps30, codec), {}, {}, options);
      const bool hevc = codec == ExportCodec::hevc;
      EXPECT_TRUE(result.encoder == (hevc ? "libx265" : "libx264") ||
                  result.encoder == (hevc ? "hevc_nvenc" : "h264_nvenc"))
          << result.encoder;
      EXPECT_EQ(result.frameCount, 15);
      const DecodedFilm film = decodeFilm(destination);
      ASSERT_EQ(film.centreLuma.size(), 15u);
      EXPECT_NEAR(film.centreLuma[3], 16 + 6 * 3, 2);
    }
  }
}

TEST_F(ProjectExports, ACancelInTheFrameLoopLeavesNoFileAndAnOldFilmUntouched) {
  ProjectSnapshot snapshot = numberedProject();
  for (bool existing : {false, true}) {
    SCOPED_TRACE(existing);
    const auto destination = folder_.path() / "film.mp4";
    if (existing) writeFileAtomically(destination, "the old film");
    std::stop_source stop;
    ProjectExportOptions options;
    options.frameWritten = [&stop](std::int64_t index) {
      if (index == 5) stop.request_stop();
    };
    EXPECT_THROW(exportFilm(snapshot, destination, originalSize(ExportFrameRate::fps30), stop.get_token(), options),
                 CancelledError);
    if (existing) {
      EXPECT_EQ(contents(destination), "the old film");
    } else {
      EXPECT_FALSE(std::filesystem::exists(destination));
    }
    // Nothing else is left beside it either: the package and at most the old film.
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder_.path()))
      names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    const std::vector<std::string> expected =
        existing ? std::vector<std::string>{"Test.vumo", "film.mp4"} : std::vector<std::string>{"Test.vumo"};
    EXPECT_EQ(names, expected);
  }
}

}  // namespace
}  // namespace vumo
