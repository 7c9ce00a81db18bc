// The sound output against a private PulseAudio server with a null sink, which plays at the pace
// of a real device, and against no server at all.

#include "playback/pulse_audio_output.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

#include "playback/playback_errors.h"
#include "support/desktop_servers.h"
#include "support/test_support.h"

namespace vumo {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

TEST(PulseAudioOutput, WithoutAServerItFailsAtOnce) {
  testing::TemporaryDirectory folder;
  testing::ScopedEnvironmentVariable home("HOME", folder.path().string());
  testing::ScopedEnvironmentVariable runtime("XDG_RUNTIME_DIR", folder.path().string());
  testing::ScopedEnvironmentVariable server("PULSE_SERVER", "unix:" + (folder.path() / "none").string());
  const auto began = Clock::now();
  try {
    makePulseAudioOutput();
    FAIL() << "an output without a server";
  } catch (const PlaybackError& error) {
    EXPECT_EQ(error.kind(), PlaybackError::Case::audioOutputUnavailable);
  }
  EXPECT_LT(Clock::now() - began, 5s);
}

TEST(PulseAudioOutput, TheHeardPositionAdvancesWithTheDeviceBehindWhatWasWritten) {
  testing::PulseAudioServer server;
  std::unique_ptr<PlaybackAudioOutput> output = makePulseAudioOutput();
  EXPECT_FALSE(output->playedTime());
  output->start(ProjectTime::fromMilliseconds(1'000));
  EXPECT_EQ(output->playedTime(), ProjectTime::fromMilliseconds(1'000));

  std::vector<float> samples(2 * 1'024, 0.25f);
  const auto began = Clock::now();
  while (Clock::now() - began < 600ms) {
    // Whatever the server asks for, however little: it asks for more only once that has come.
    for (std::int64_t writable; (writable = output->writableFrames()) > 0;)
      output->write(
          std::span<const float>(samples).first(static_cast<std::size_t>(std::min<std::int64_t>(writable, 1'024)) * 2));
    std::this_thread::sleep_for(5ms);
  }
  const ProjectTime heard = *output->playedTime() - ProjectTime::fromMilliseconds(1'000);
  const ProjectTime written{output->framesWritten() * 1'000'000'000 / PlaybackAudioOutput::sampleRate};
  // What was written is heard after the latency, and the device plays at its own pace (a busy
  // machine may starve the server for a while, so only the bounds are sure).
  EXPECT_LE(output->latency(), ProjectTime::fromMilliseconds(500));
  EXPECT_GT(heard, ProjectTime{});
  EXPECT_LE(heard, ProjectTime::fromMilliseconds(650));
  EXPECT_GE(written, heard);

  output->stop();
  EXPECT_FALSE(output->playedTime());
  output->start({});
  EXPECT_EQ(output->playedTime(), ProjectTime{});

  // A server that goes away costs an error or silence, never a wait.
  server.kill();
  const auto killedAt = Clock::now();
  try {
    for (int i = 0; i < 50; ++i) {
      if (output->writableFrames() >= 1'024) output->write(samples);
      std::this_thread::sleep_for(2ms);
    }
  } catch (const PlaybackError& error) {
    EXPECT_EQ(error.kind(), PlaybackError::Case::audioOutputFailed);
  }
  output->stop();
  EXPECT_LT(Clock::now() - killedAt, 5s);
}

}  // namespace
}  // namespace vumo
