#include "capture/pulse_audio_stream.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <fstream>
#include <mutex>
#include <thread>

#include "capture/capture_error.h"
#include "support/desktop_servers.h"

namespace vumo {
namespace {

using namespace std::chrono_literals;
using testing::PulseAudioServer;

TEST(PulseAudioStream, ListsTheSourcesOfTheServer) {
  PulseAudioServer server;
  auto sources = listPulseAudioSources(server.server());
  ASSERT_EQ(sources.size(), 1u);
  EXPECT_EQ(sources[0].name, "vumo_test_sink.monitor");
  EXPECT_TRUE(sources[0].isMonitor);
  EXPECT_TRUE(sources[0].isDefault);
  EXPECT_FALSE(sources[0].description.empty());
}

TEST(PulseAudioStream, AMissingServerOrSourceIsAClearError) {
  PulseAudioServer server;
  EXPECT_ERROR_CASE(PulseAudioStream(PulseAudioCapture::microphone, "no_such_microphone", server.server()),
                    CaptureError, CaptureError::Case::audioSourceMissing);
  std::string nowhere = "unix:" + (server.folder() / "no-such-socket").string();
  EXPECT_ERROR_CASE(PulseAudioStream(PulseAudioCapture::systemAudio, "", nowhere), CaptureError,
                    CaptureError::Case::audioServerUnavailable);
  EXPECT_ERROR_CASE(listPulseAudioSources(nowhere), CaptureError, CaptureError::Case::audioServerUnavailable);
  // A named source that exists is taken, monitor or not.
  EXPECT_EQ(PulseAudioStream(PulseAudioCapture::microphone, "vumo_test_sink.monitor", server.server()).sourceName(),
            "vumo_test_sink.monitor");
}

TEST(PulseAudioStream, SystemAudioDeliversWhatIsPlayedInRealTime) {
  PulseAudioServer server;
  // Half a second of a 440 Hz tone at half scale, played into the null output while recording.
  std::filesystem::path tone = server.folder() / "tone.raw";
  {
    std::ofstream out(tone, std::ios::binary);
    for (int i = 0; i < 24000; ++i) {
      float sample = 0.5f * float(std::sin(2 * M_PI * 440 * i / 48000.0));
      out.write(reinterpret_cast<const char*>(&sample), sizeof sample);
      out.write(reinterpret_cast<const char*>(&sample), sizeof sample);
    }
  }
  PulseAudioStream stream(PulseAudioCapture::systemAudio, "", server.server());
  EXPECT_EQ(stream.sourceName(), "vumo_test_sink.monitor");

  std::mutex lock;
  std::vector<AudioBuffer> buffers;
  auto framesSoFar = [&] {
    std::lock_guard guard(lock);
    std::int64_t frames = 0;
    for (const auto& buffer : buffers) frames += buffer.frameCount();
    return frames;
  };
  std::uint64_t started = monotonicNanoseconds();
  stream.start(
      [&](const AudioBuffer& buffer) {
        std::lock_guard guard(lock);
        buffers.push_back(buffer);
      },
      nullptr);
  // An idle null output renders in blocks of up to two seconds, and only takes up the short
  // blocks the recording asks for at its next block; from then on the sound comes in real time.
  for (int i = 0; i < 300 && framesSoFar() == 0; ++i) std::this_thread::sleep_for(10ms);
  std::uint64_t flowing = monotonicNanoseconds();
  std::int64_t framesAtFlowing = framesSoFar();
  ASSERT_GT(framesAtFlowing, 0) << "no sound within 3 s";
  std::thread player([&] {
    testing::ProcessLaunch launch;
    launch.words = {testing::requireProgram("pacat", "pulseaudio-utils").string(),
                    "--playback",
                    "--device=vumo_test_sink",
                    "--format=float32le",
                    "--rate=48000",
                    "--channels=2",
                    "--raw",
                    "--latency-msec=20",
                    tone.string()};
    launch.environment["PULSE_SERVER"] = server.server();
    launch.timeout = 5s;
    testing::run(launch);
  });
  std::this_thread::sleep_for(1s);
  std::int64_t framesInOneSecond = framesSoFar() - framesAtFlowing;
  double elapsedSeconds = double(monotonicNanoseconds() - flowing) / 1e9;
  player.join();
  stream.stop();
  std::uint64_t stopped = monotonicNanoseconds();

  std::lock_guard guard(lock);
  EXPECT_NEAR(double(framesInOneSecond), 48000 * elapsedSeconds, 48000 * 0.1);
  float loudest = 0;
  for (const auto& buffer : buffers) {
    EXPECT_EQ(buffer.channels, 2);
    EXPECT_EQ(buffer.sampleRate, 48000);
    EXPECT_EQ(buffer.frameCount(), 480);
    for (float sample : buffer.samples) loudest = std::max(loudest, std::abs(sample));
  }
  EXPECT_NEAR(loudest, 0.5, 0.05);
  EXPECT_GE(buffers.front().hostTimeNanoseconds + 200'000'000, started);
  EXPECT_LE(buffers.back().hostTimeNanoseconds, stopped);
  for (std::size_t i = 1; i < buffers.size(); ++i) {
    // Each buffer starts where the one before ended, give or take the server's latency estimate.
    double expected = double(buffers[i - 1].frameCount()) * 1e9 / 48000;
    double actual = double(std::int64_t(buffers[i].hostTimeNanoseconds - buffers[i - 1].hostTimeNanoseconds));
    EXPECT_NEAR(actual, expected, 5e6) << "buffer " << i;
  }
}

TEST(PulseAudioStream, AServerThatGoesAwayEndsTheStream) {
  PulseAudioServer server;
  PulseAudioStream stream(PulseAudioCapture::systemAudio, "", server.server());
  std::mutex lock;
  std::exception_ptr ended;
  stream.start([](const AudioBuffer&) {},
               [&](std::exception_ptr error) {
                 std::lock_guard guard(lock);
                 ended = error;
               });
  server.kill();
  for (int i = 0; i < 200; ++i) {
    std::this_thread::sleep_for(10ms);
    std::lock_guard guard(lock);
    if (ended) break;
  }
  std::lock_guard guard(lock);
  ASSERT_TRUE(ended);
  EXPECT_ERROR_CASE(std::rethrow_exception(ended), CaptureError, CaptureError::Case::audioCaptureFailed);
}

}  // namespace
}  // namespace vumo
