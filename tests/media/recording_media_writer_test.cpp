#include "media/recording_media_writer.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>
#include <thread>

#include "shared/files.h"
#include "shared/json.h"
#include "support/test_support.h"

namespace vumo {
namespace {

using namespace vumo::testing;

constexpr std::int64_t second = 1'000'000'000;
// Where the recording's output timeline happens to be when the first frame comes.
constexpr std::int64_t t0 = 5 * second;

std::shared_ptr<const PixelBuffer> solid(int width, int height, std::uint8_t blue, std::uint8_t green,
                                         std::uint8_t red) {
  auto buffer = std::make_shared<PixelBuffer>();
  buffer->width = width;
  buffer->height = height;
  buffer->stride = width * 4 + 16;  // rows with padding, as capture buffers have
  buffer->bytes.assign(static_cast<std::size_t>(buffer->stride) * height, 0);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      std::uint8_t* pixel = buffer->bytes.data() + y * buffer->stride + x * 4;
      pixel[0] = blue;
      pixel[1] = green;
      pixel[2] = red;
      pixel[3] = 255;
    }
  return buffer;
}

VideoFrame frameOf(std::shared_ptr<const PixelBuffer> pixels, bool changed = true) {
  VideoFrame frame;
  frame.pixels = std::move(pixels);
  frame.changed = changed;
  return frame;
}

// 10 ms of a 440 Hz tone (or silence) in 48 kHz stereo.
AudioBuffer audioBuffer(double amplitude = 0.5) {
  AudioBuffer buffer;
  buffer.samples.resize(2 * 480);
  for (int i = 0; i < 480; ++i) {
    const float value = static_cast<float>(amplitude * std::sin(2 * M_PI * 440 * i / 48'000.0));
    buffer.samples[2 * i] = value;
    buffer.samples[2 * i + 1] = value;
  }
  return buffer;
}

RecordingWriterConfiguration configurationFor(const std::filesystem::path& url) {
  RecordingWriterConfiguration configuration;
  configuration.url = url;
  configuration.size = {320, 240};
  configuration.framesPerSecond = 30;
  configuration.encoderPreference = "libx264";
  return configuration;
}

Json probe(const std::filesystem::path& movie) {
  const auto result = runProgram(VUMO_FFPROBE_PROGRAM, {"-v", "error", "-count_packets", "-show_streams",
                                                        "-show_format", "-of", "json", movie.string()});
  EXPECT_EQ(result.status, 0) << result.standardError;
  return Json::parse(result.standardOutput);
}

// Presentation times of one stream's packets, in seconds, in file order.
std::vector<double> packetTimes(const std::filesystem::path& movie, int stream) {
  const auto result =
      runProgram(VUMO_FFPROBE_PROGRAM, {"-v", "error", "-select_streams", std::to_string(stream), "-show_entries",
                                        "packet=pts_time", "-of", "json", movie.string()});
  EXPECT_EQ(result.status, 0) << result.standardError;
  std::vector<double> times;
  const Json document = Json::parse(result.standardOutput);
  for (const auto& packet : document.at("packets"))
    times.push_back(std::stod(packet.at("pts_time").get<std::string>()));
  return times;
}

struct PacketInfo {
  double time = 0;
  bool key = false;
};

// One video stream's packets with their keyframe flag, in file order.
std::vector<PacketInfo> packetInfos(const std::filesystem::path& movie, int stream) {
  const auto result =
      runProgram(VUMO_FFPROBE_PROGRAM, {"-v", "error", "-select_streams", std::to_string(stream), "-show_entries",
                                        "packet=pts_time,flags", "-of", "json", movie.string()});
  EXPECT_EQ(result.status, 0) << result.standardError;
  std::vector<PacketInfo> packets;
  const Json document = Json::parse(result.standardOutput);
  for (const auto& packet : document.at("packets"))
    packets.push_back({std::stod(packet.at("pts_time").get<std::string>()),
                       packet.at("flags").get<std::string>().find('K') != std::string::npos});
  return packets;
}

// The luma plane of every decoded frame of one video stream, as coded (limited range).
std::vector<std::vector<std::uint8_t>> decodedLuma(const std::filesystem::path& movie, int stream, int width,
                                                   int height) {
  TemporaryDirectory folder;
  const auto raw = folder.path() / "planes.yuv";
  const auto result =
      runProgram(VUMO_FFMPEG_PROGRAM, {"-v", "error", "-i", movie.string(), "-map", fmt::format("0:{}", stream),
                                       "-vsync", "passthrough", "-f", "rawvideo", "-pix_fmt", "yuv420p", raw.string()});
  EXPECT_EQ(result.status, 0) << result.standardError;
  std::ifstream in(raw, std::ios::binary);
  std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const std::size_t lumaBytes = static_cast<std::size_t>(width) * height;
  const std::size_t frameBytes = lumaBytes * 3 / 2;
  std::vector<std::vector<std::uint8_t>> frames;
  for (std::size_t at = 0; at + frameBytes <= bytes.size(); at += frameBytes)
    frames.emplace_back(bytes.begin() + at, bytes.begin() + at + lumaBytes);
  return frames;
}

// The decoded samples of one sound stream, its left channel.
std::vector<float> decodedSound(const std::filesystem::path& movie, int stream) {
  TemporaryDirectory folder;
  const auto raw = folder.path() / "sound.f32";
  const auto result =
      runProgram(VUMO_FFMPEG_PROGRAM, {"-v", "error", "-i", movie.string(), "-map", fmt::format("0:{}", stream), "-f",
                                       "f32le", "-ac", "1", raw.string()});
  EXPECT_EQ(result.status, 0) << result.standardError;
  const std::string bytes = readFile(raw, 64 * 1024 * 1024);
  std::vector<float> samples(bytes.size() / sizeof(float));
  std::memcpy(samples.data(), bytes.data(), samples.size() * sizeof(float));
  return samples;
}

double meanOfRows(const std::vector<std::uint8_t>& luma, int width, int firstRow, int endRow) {
  double sum = 0;
  for (int y = firstRow; y < endRow; ++y)
    for (int x = 0; x < width; ++x) sum += luma[y * width + x];
  return sum / (double(width) * (endRow - firstRow));
}

// The movie header's timescale: `mvhd`, version 0, is followed by version and flags, two dates and
// then the timescale, all 32-bit big-endian.
std::uint32_t movieTimescale(const std::filesystem::path& movie) {
  const std::string bytes = readFile(movie, 64 * 1024 * 1024);
  const auto at = bytes.find("mvhd");
  if (at == std::string::npos || at + 16 > bytes.size()) return 0;
  std::uint32_t value = 0;
  for (int i = 0; i < 4; ++i) value = (value << 8) | static_cast<unsigned char>(bytes[at + 16 + i]);
  return value;
}

std::size_t countOf(const std::string& haystack, std::string_view needle) {
  std::size_t count = 0;
  for (auto at = haystack.find(needle); at != std::string::npos; at = haystack.find(needle, at + 1)) ++count;
  return count;
}

TEST(RecordingMediaWriter, WritesEveryTrackInOrderAndKeepsTheirRules) {
  TemporaryDirectory folder;
  const auto url = folder.path() / "recording.mov";
  writeFileAtomically(url, "an older recording");
  auto configuration = configurationFor(url);
  configuration.capturesSystemAudio = true;
  configuration.capturesMicrophone = true;
  configuration.webcam = WebcamCaptureConfiguration{"video0", "Camera", {160, 120}, 15};
  RecordingMediaWriter writer(configuration);
  EXPECT_EQ(writer.videoEncoderName(), "libx264");

  // Sound and camera before the first screen frame start nothing and are not counted as samples.
  for (int i = 0; i < 5; ++i) writer.appendAudio(audioBuffer(), RecordingStreamType::systemAudio, t0 - second + i);
  writer.appendWebcam(frameOf(solid(160, 120, 0, 0, 255)), t0 - second);

  // Two seconds at 30 fps of red, green and blue in turn; every frame after a colour change
  // repeats the buffer unchanged.
  const std::shared_ptr<const PixelBuffer> colours[] = {solid(320, 240, 0, 0, 255), solid(320, 240, 0, 255, 0),
                                                        solid(320, 240, 255, 0, 0)};
  constexpr int frames = 61;
  const std::int64_t interval = second / 30;
  std::int64_t nextAudio = t0, nextCamera = t0 + 300'000'000;
  for (int i = 0; i < frames; ++i) {
    const std::int64_t pts = t0 + i * interval;
    writer.appendVideo(frameOf(colours[(i / 2) % 3], i % 2 == 0), pts);
    for (; nextAudio < pts + interval; nextAudio += 10'000'000) {
      writer.appendAudio(audioBuffer(), RecordingStreamType::systemAudio, nextAudio);
      // The microphone starts half a second in.
      if (nextAudio >= t0 + second / 2) writer.appendAudio(audioBuffer(), RecordingStreamType::microphone, nextAudio);
    }
    if (nextCamera <= pts) {
      writer.appendWebcam(frameOf(solid(160, 120, 0, 0, 255)), nextCamera);
      nextCamera += second / 15;
    }
    writer.waitUntilEncodedForTesting();
  }
  // Sound that goes backwards, and a camera frame that does, are ignored.
  writer.appendAudio(audioBuffer(), RecordingStreamType::systemAudio, nextAudio - 20'000'000);
  writer.appendWebcam(frameOf(solid(160, 120, 0, 0, 255)), nextCamera - second / 15 - 1);

  const RecordingWriterResult result = writer.finish();
  EXPECT_EQ(result.duration.nanoseconds, (frames - 1) * interval);
  EXPECT_EQ(result.videoFrames, frames);
  EXPECT_EQ(result.droppedVideoFrames, 0);
  const std::int64_t soundBuffers = (nextAudio - t0) / 10'000'000;
  EXPECT_EQ(result.systemAudioSamples, soundBuffers);
  EXPECT_EQ(result.microphoneSamples, soundBuffers - 50);
  // Camera frames at 0.3 s, 0.3667 s, ... up to 2.0 s; the one before the start and the one that
  // went backwards are dropped.
  const std::int64_t cameraFrames = (2 * second - 300'000'000) / (second / 15) + 1;
  EXPECT_EQ(result.webcamFrames, cameraFrames);
  EXPECT_EQ(result.droppedWebcamFrames, 2);
  EXPECT_LT(result.maximumWebcamOffsetNanoseconds, interval);
  // Both sound tracks keep to the picture within a buffer's length.
  // Drift: each track's last offset from the picture less its first. The system audio's first
  // buffer comes at the first frame (0) and its last 30,000,020 ns after the last frame
  // (2,030,000,000 - 60 * 33,333,333); the microphone's first 5 ns after frame 15.
  EXPECT_EQ(result.maximumAVDriftNanoseconds, 30'000'020);

  const Json info = probe(url);
  const auto& streams = info.at("streams");
  ASSERT_EQ(streams.size(), 4u);
  struct Expected {
    const char* type;
    const char* codec;
    int width, height;
  };
  const Expected expected[] = {
      {"video", "h264", 320, 240}, {"video", "h264", 160, 120}, {"audio", "aac", 0, 0}, {"audio", "aac", 0, 0}};
  for (std::size_t i = 0; i < 4; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(streams[i].at("codec_type"), expected[i].type);
    EXPECT_EQ(streams[i].at("codec_name"), expected[i].codec);
    if (expected[i].width > 0) {
      EXPECT_EQ(streams[i].at("width"), expected[i].width);
      EXPECT_EQ(streams[i].at("height"), expected[i].height);
      EXPECT_EQ(streams[i].at("profile"), "High");
      EXPECT_EQ(streams[i].at("color_range"), "tv");
      EXPECT_EQ(streams[i].at("color_space"), "bt709");
      EXPECT_EQ(streams[i].at("color_primaries"), "bt709");
      EXPECT_EQ(streams[i].at("color_transfer"), "bt709");
    } else {
      EXPECT_EQ(streams[i].at("sample_rate"), "48000");
      EXPECT_EQ(streams[i].at("channels"), 2);
      if (i == 2) {  // the microphone's half second of silence costs it far fewer bits
        EXPECT_NEAR(std::stod(streams[i].at("bit_rate").get<std::string>()), 192'000, 20'000);
      }
    }
  }
  // Each repeat follows its change by one tick, well inside the heartbeat: only the changes are
  // encoded, one picture lasting two ticks.
  const int encoded = (frames + 1) / 2;
  EXPECT_EQ(std::stoi(streams[0].at("nb_read_packets").get<std::string>()), encoded);
  EXPECT_EQ(movieTimescale(url), 600u);
  const std::string bytes = readFile(url, 64 * 1024 * 1024);
  EXPECT_GE(countOf(bytes, "moof"), 2u) << "a fragment after the first second, and the rest at the end";

  const auto screenTimes = packetTimes(url, 0);
  ASSERT_EQ(screenTimes.size(), std::size_t(encoded));
  EXPECT_DOUBLE_EQ(screenTimes.front(), 0);
  EXPECT_NEAR(screenTimes.back(), (frames - 1) * interval / 1e9, 1 / 90'000.0);
  // The camera's first frame is placed at the start, then its real one at 0.3 s.
  const auto cameraTimes = packetTimes(url, 1);
  ASSERT_EQ(cameraTimes.size(), std::size_t(cameraFrames + 1));
  EXPECT_DOUBLE_EQ(cameraTimes[0], 0);
  EXPECT_NEAR(cameraTimes[1], 0.3, 1 / 90'000.0);
  // No sound before the picture; both tracks run to the end of it.
  for (int stream : {2, 3}) {
    const auto times = packetTimes(url, stream);
    ASSERT_FALSE(times.empty());
    EXPECT_GE(*std::min_element(times.begin(), times.end()), 0) << stream;
    EXPECT_NEAR(times.back(), 2.0, 0.05) << stream;
  }

  // The microphone's tone is heard from 0.5 s of the file on, not before, and not later.
  const auto microphone = decodedSound(url, 3);
  const auto heard = std::find_if(microphone.begin(), microphone.end(), [](float v) { return std::fabs(v) > 0.01f; });
  ASSERT_NE(heard, microphone.end());
  EXPECT_NEAR(double(heard - microphone.begin()), 24'001, 128);

  // The colours arrive as limited-range BT.709 luma: red 63, green 173, blue 32.
  const auto luma = decodedLuma(url, 0, 320, 240);
  ASSERT_EQ(luma.size(), std::size_t(encoded));
  const double levels[] = {63, 173, 32};
  for (int i = 0; i < encoded; ++i) EXPECT_NEAR(meanOfRows(luma[i], 320, 0, 240), levels[i % 3], 3) << i;
}

// A still screen: red for five seconds, then green for one, each picture handed in once as a change
// and then repeated unchanged at every tick of 30 fps.
TEST(RecordingMediaWriter, AStillScreenCostsAHeartbeatASecondAndKeepsItsTimes) {
  TemporaryDirectory folder;
  const auto url = folder.path() / "recording.mov";
  RecordingMediaWriter writer(configurationFor(url));
  const auto red = solid(320, 240, 0, 0, 255);
  const auto green = solid(320, 240, 0, 255, 0);
  constexpr int frames = 180;
  constexpr int greenFrom = 150;
  const std::int64_t interval = second / 30;
  for (int i = 0; i < frames; ++i) {
    writer.appendVideo(frameOf(i < greenFrom ? red : green, i == 0 || i == greenFrom), t0 + i * interval);
    writer.waitUntilEncodedForTesting();
  }
  const auto result = writer.finish();
  EXPECT_EQ(result.videoFrames, frames) << "every frame handed in counts, encoded or not";
  EXPECT_EQ(result.droppedVideoFrames, 0);
  EXPECT_EQ(result.duration.nanoseconds, (frames - 1) * interval);

  // Encoded: the first frame; the heartbeat at the first tick a second or more after the last
  // picture (31: 1.0333 s; 92); a keyframe due two seconds after the last (61: 2.0333 s; 122:
  // 4.0667 s), which comes before the heartbeat; the change at 150; and the last frame, at finish.
  const int expectedFrames[] = {0, 31, 61, 92, 122, 150, 179};
  const auto packets = packetInfos(url, 0);
  ASSERT_EQ(packets.size(), std::size(expectedFrames));
  for (std::size_t k = 0; k < packets.size(); ++k)
    EXPECT_NEAR(packets[k].time, expectedFrames[k] * interval / 1e9, 1 / 90'000.0) << k;
  // No wait longer than the heartbeat and a tick; no keyframe further than two seconds and a tick
  // from the one before.
  const double tick = interval / 1e9;
  double lastKey = 0;
  ASSERT_TRUE(packets.front().key);
  for (std::size_t k = 1; k < packets.size(); ++k) {
    EXPECT_LE(packets[k].time - packets[k - 1].time, 1 + tick + 1e-6) << k;
    if (!packets[k].key) continue;
    EXPECT_LE(packets[k].time - lastKey, 2 + tick + 1e-6) << k;
    lastKey = packets[k].time;
  }
  EXPECT_LE(packets.back().time - lastKey, 2 + tick + 1e-6);

  // The track lasts from the first frame to the last; the movie's duration agrees.
  const Json info = probe(url);
  EXPECT_NEAR(std::stod(info.at("format").at("duration").get<std::string>()), (frames - 1) * tick, 0.05);
  // Fragments are still cut: after the first second, and the rest at the end.
  EXPECT_GE(countOf(readFile(url, 64 * 1024 * 1024), "moof"), 2u);

  // The pictures: red until the change, green from it on.
  const auto luma = decodedLuma(url, 0, 320, 240);
  ASSERT_EQ(luma.size(), std::size(expectedFrames));
  for (std::size_t k = 0; k < luma.size(); ++k)
    EXPECT_NEAR(meanOfRows(luma[k], 320, 0, 240), expectedFrames[k] < greenFrom ? 63 : 173, 3) << k;
}

// A frame that comes as a change is encoded even when it carries the buffer before it, and a new
// buffer is encoded even when it is marked unchanged: only the two together are a repeat.
TEST(RecordingMediaWriter, OnlyTheSameBufferUnchangedIsARepeat) {
  TemporaryDirectory folder;
  const auto url = folder.path() / "recording.mov";
  RecordingMediaWriter writer(configurationFor(url));
  const auto red = solid(320, 240, 0, 0, 255);
  const std::int64_t interval = second / 30;
  struct Frame {
    std::shared_ptr<const PixelBuffer> pixels;
    bool changed;
  };
  const Frame frames[] = {{red, true},
                          {red, true},                          // the same buffer, drawn again
                          {red, false},                         // a repeat
                          {solid(320, 240, 0, 255, 0), false},  // a new buffer
                          {solid(320, 240, 255, 0, 0), true}};  // a change, the last frame
  for (std::size_t i = 0; i < std::size(frames); ++i) {
    writer.appendVideo(frameOf(frames[i].pixels, frames[i].changed), t0 + std::int64_t(i) * interval);
    writer.waitUntilEncodedForTesting();
  }
  const auto result = writer.finish();
  EXPECT_EQ(result.videoFrames, 5);
  const auto times = packetTimes(url, 0);
  ASSERT_EQ(times.size(), 4u);
  const int expectedFrames[] = {0, 1, 3, 4};
  for (std::size_t k = 0; k < times.size(); ++k)
    EXPECT_NEAR(times[k], expectedFrames[k] * interval / 1e9, 1 / 90'000.0);
  const auto luma = decodedLuma(url, 0, 320, 240);
  ASSERT_EQ(luma.size(), 4u);
  EXPECT_NEAR(meanOfRows(luma[2], 320, 0, 240), 173, 3);
  EXPECT_NEAR(meanOfRows(luma[3], 320, 0, 240), 32, 3);
}

TEST(RecordingMediaWriter, ScalesAResizedWindowIntoTheMovieWithBlackBorders) {
  TemporaryDirectory folder;
  const auto url = folder.path() / "recording.mov";
  RecordingMediaWriter writer(configurationFor(url));
  // 160×60 is wider than 320×240: it fills the width at 320×120, centred between 60 rows of black.
  writer.appendVideo(frameOf(solid(160, 60, 255, 255, 255)), t0);
  writer.appendVideo(frameOf(solid(320, 240, 255, 255, 255)), t0 + second / 30);
  const auto result = writer.finish();
  EXPECT_EQ(result.videoFrames, 2);
  const auto luma = decodedLuma(url, 0, 320, 240);
  ASSERT_EQ(luma.size(), 2u);
  EXPECT_NEAR(meanOfRows(luma[0], 320, 0, 56), 16, 2);
  EXPECT_NEAR(meanOfRows(luma[0], 320, 64, 176), 235, 2);
  EXPECT_NEAR(meanOfRows(luma[0], 320, 184, 240), 16, 2);
  EXPECT_NEAR(meanOfRows(luma[1], 320, 0, 240), 235, 2);
}

TEST(RecordingMediaWriter, EdgeCasesOfTheCountsAndTheDuration) {
  struct Case {
    const char* name;
    std::vector<std::int64_t> cameraTimes;  // relative to the first screen frame
    std::int64_t expectedCameraPackets;
    std::int64_t expectedWebcamFrames;
    std::int64_t expectedDroppedWebcamFrames;
  };
  const Case cases[] = {
      {"a camera frame at exactly the start is not doubled", {0}, 1, 1, 0},
      {"a camera frame later than the start is doubled at the start", {300'000'000}, 2, 1, 0},
      {"a camera frame before the start is dropped", {-1, 300'000'000}, 2, 1, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TemporaryDirectory folder;
    const auto url = folder.path() / "recording.mov";
    auto configuration = configurationFor(url);
    configuration.webcam = WebcamCaptureConfiguration{"video0", "Camera", {160, 120}, 30};
    RecordingMediaWriter writer(configuration);
    writer.appendVideo(frameOf(solid(320, 240, 0, 0, 0)), t0);
    for (std::int64_t time : c.cameraTimes) writer.appendWebcam(frameOf(solid(160, 120, 0, 0, 0)), t0 + time);
    const auto result = writer.finish();
    EXPECT_EQ(result.duration.nanoseconds, 0) << "one frame has no length";
    EXPECT_EQ(result.webcamFrames, c.expectedWebcamFrames);
    EXPECT_EQ(result.droppedWebcamFrames, c.expectedDroppedWebcamFrames);
    EXPECT_EQ(packetTimes(url, 1).size(), std::size_t(c.expectedCameraPackets));
  }
}

TEST(RecordingMediaWriter, WithoutAScreenFrameThereIsNoFileAndNothingCounted) {
  TemporaryDirectory folder;
  const auto url = folder.path() / "recording.mov";
  writeFileAtomically(url, "an older recording");
  auto configuration = configurationFor(url);
  configuration.capturesSystemAudio = true;
  configuration.webcam = WebcamCaptureConfiguration{"video0", "Camera", {160, 120}, 30};
  RecordingMediaWriter writer(configuration);
  EXPECT_FALSE(std::filesystem::exists(url)) << "the older file is gone at once";
  writer.appendAudio(audioBuffer(), RecordingStreamType::systemAudio, t0);
  writer.appendWebcam(frameOf(solid(160, 120, 0, 0, 0)), t0);
  const auto result = writer.finish();
  EXPECT_EQ(result.videoFrames, 0);
  EXPECT_EQ(result.systemAudioSamples, 0);
  EXPECT_EQ(result.droppedWebcamFrames, 1);
  EXPECT_EQ(result.duration.nanoseconds, 0);
  EXPECT_FALSE(std::filesystem::exists(url));
}

// Whatever encoder the machine offers (VAAPI, NVENC, or the software one where neither opens)
// writes a movie that decodes.
TEST(RecordingMediaWriter, TheMachinesOwnEncoderWritesADecodableMovie) {
  TemporaryDirectory folder;
  const auto url = folder.path() / "recording.mov";
  auto configuration = configurationFor(url);
  configuration.encoderPreference = "auto";
  RecordingMediaWriter writer(configuration);
  const std::string name = writer.videoEncoderName();
  EXPECT_TRUE(name == "h264_vaapi" || name == "h264_nvenc" || name == "libx264") << name;
  for (int i = 0; i < 10; ++i) {
    writer.appendVideo(frameOf(solid(320, 240, 0, 0, 255)), t0 + i * (second / 30));
    writer.waitUntilEncodedForTesting();
  }
  const auto result = writer.finish();
  EXPECT_EQ(result.videoFrames, 10);
  const auto luma = decodedLuma(url, 0, 320, 240);
  ASSERT_EQ(luma.size(), 10u) << name;
  EXPECT_NEAR(meanOfRows(luma[9], 320, 0, 240), 63, 4) << name;
}

TEST(RecordingMediaWriter, RecommendedBitRates) {
  const struct {
    PixelSize size;
    std::int64_t bitRate;
  } cases[] = {
      {{1920, 1080}, 12'000'000}, {{2560, 1440}, 24'000'000},
      {{3840, 2160}, 50'000'000}, {{2000, 1500}, 18'892'857},  // 3,000,000 pixels
      {{640, 480}, 12'000'000},   {{7680, 4320}, 50'000'000},
  };
  for (const auto& c : cases) EXPECT_EQ(c.size.recommendedBitRate(), c.bitRate) << c.size.width;
}

TEST(RecordingMediaWriter, ABusyEncoderCostsDroppedFramesNotAWait) {
  TemporaryDirectory folder;
  const auto url = folder.path() / "recording.mov";
  RecordingMediaWriter writer(configurationFor(url));
  writer.holdEncoderForTesting(true);
  const auto started = std::chrono::steady_clock::now();
  const auto pixels = solid(320, 240, 0, 0, 255);
  for (int i = 0; i < 10; ++i) writer.appendVideo(frameOf(pixels), t0 + i * (second / 30));
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(500));
  writer.holdEncoderForTesting(false);
  const auto result = writer.finish();
  EXPECT_EQ(result.videoFrames, std::int64_t(RecordingMediaWriter::videoQueueCapacity));
  EXPECT_EQ(result.droppedVideoFrames, 10 - std::int64_t(RecordingMediaWriter::videoQueueCapacity));
  EXPECT_EQ(packetTimes(url, 0).size(), RecordingMediaWriter::videoQueueCapacity);
  // The duration ends at the last frame that was kept.
  EXPECT_EQ(result.duration.nanoseconds, std::int64_t(RecordingMediaWriter::videoQueueCapacity - 1) * (second / 30));
}

TEST(RecordingMediaWriter, CancelLatchesAndRemovesThePartialFile) {
  TemporaryDirectory folder;
  const auto url = folder.path() / "recording.mov";
  auto configuration = configurationFor(url);
  configuration.capturesMicrophone = true;
  RecordingMediaWriter writer(configuration);
  writer.appendVideo(frameOf(solid(320, 240, 0, 0, 255)), t0);
  writer.cancel();
  EXPECT_FALSE(std::filesystem::exists(url));
  EXPECT_THROW(writer.appendVideo(frameOf(solid(320, 240, 0, 0, 255)), t0 + second), CancelledError);
  EXPECT_THROW(writer.appendAudio(audioBuffer(), RecordingStreamType::microphone, t0 + second), CancelledError);
  EXPECT_THROW(writer.appendWebcam(frameOf(solid(320, 240, 0, 0, 255)), t0 + second), CancelledError);
  EXPECT_THROW(writer.finish(), CancelledError);
  EXPECT_FALSE(std::filesystem::exists(url));
}

TEST(RecordingMediaWriter, RefusesAnOddSizeAsTheScreenTrack) {
  TemporaryDirectory folder;
  auto configuration = configurationFor(folder.path() / "recording.mov");
  configuration.size = {321, 240};
  try {
    RecordingMediaWriter writer(configuration);
    FAIL() << "an odd size was accepted";
  } catch (const RecordingMediaWriterError& error) {
    EXPECT_EQ(error.kind(), RecordingMediaWriterError::Case::cannotAddInput);
    EXPECT_STREQ(error.what(), "Unable to create the screen media track.");
    EXPECT_EQ(error.localizationKey(), "recording.error.writerInput");
    EXPECT_EQ(error.table(), "RecordingErrors");
  }
}

// A recording killed without finishing keeps what its fragments hold: here the first second.
TEST(RecordingMediaWriter, AKilledRecordingStaysReadableUpToItsLastFragment) {
  TemporaryDirectory folder;
  const auto url = folder.path() / "recording.mov";
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    try {
      auto configuration = configurationFor(url);
      configuration.capturesSystemAudio = true;
      RecordingMediaWriter writer(configuration);
      // A screen that changes every tick, so that every tick is encoded.
      const auto pixels = solid(320, 240, 0, 255, 0);
      for (int i = 0; i <= 90; ++i) {
        const std::int64_t pts = t0 + i * (second / 30);
        writer.appendVideo(frameOf(pixels, true), pts);
        for (int k = 0; k < 3; ++k)
          writer.appendAudio(audioBuffer(), RecordingStreamType::systemAudio, pts + k * 11'111'111);
        writer.waitUntilEncodedForTesting();
      }
      ::kill(::getpid(), SIGKILL);
    } catch (...) {
    }
    ::_exit(3);
  }
  int status = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (::waitpid(child, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      ::kill(child, SIGKILL);
      ::waitpid(child, &status, 0);
      FAIL() << "the writing process did not end";
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_TRUE(WIFSIGNALED(status)) << "the writing process failed before it was killed";

  const auto times = packetTimes(url, 0);
  ASSERT_GE(times.size(), 30u);
  EXPECT_DOUBLE_EQ(times.front(), 0);
  EXPECT_NEAR(times[29], 29 / 30.0, 1 / 90'000.0);
  EXPECT_FALSE(packetTimes(url, 1).empty());
  EXPECT_EQ(decodedLuma(url, 0, 320, 240).size(), times.size());
}

}  // namespace
}  // namespace vumo
