// The player on the tests' own main loop against a stand-in engine that draws instantly: each
// picture names the time it was drawn for, so what is on screen is checked against the clock by
// hand. The sound output is the silent one on a clock the test moves.

#include "playback/project_player.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include "media/media_errors.h"
#include "playback/playback_audio_output.h"
#include "playback/playback_errors.h"
#include "support/builders.h"
#include "support/manual_main_loop.h"
#include "timeline/timeline_frame_grid.h"
#include "timeline/timeline_mapper.h"

namespace vumo {
namespace {

using namespace vumo::testing;
using namespace std::chrono_literals;

// Counts what the player asks of it; draws a picture of the size asked for. Rendering at or after
// `failFrom` throws as a movie that no longer decodes would.
class StandInEngine final : public ProjectPreviewing {
 public:
  ProjectTime load(const ProjectSnapshot& snapshot) override {
    std::lock_guard lock(mutex_);
    ++loads;
    if (failLoad) throw SequenceReaderError(SequenceReaderError::Case::decodingFailed, "damaged movie");
    duration_ = TimelineMapper(snapshot.timeline, snapshot.manifest.duration).sequenceDuration();
    return duration_;
  }
  void setVisualEdits(const EditTimeline& timeline) override {
    std::lock_guard lock(mutex_);
    ++visualEdits;
    lastZoomCount = timeline.zooms.size();
  }
  StillImage render(ProjectTime time, PixelSize maxSize, std::stop_token) override {
    std::lock_guard lock(mutex_);
    renders.push_back(time);
    lastMaxSize = maxSize;
    if (failFrom && time >= *failFrom)
      throw SequenceReaderError(SequenceReaderError::Case::decodingFailed, "damaged movie");
    StillImage image{static_cast<int>(maxSize.width), static_cast<int>(maxSize.height), {}};
    image.pixels.assign(static_cast<std::size_t>(image.width * image.height * 4), 255);
    return image;
  }
  std::unique_ptr<PreviewAudioReading> openAudio(ProjectTime from) override {
    std::lock_guard lock(mutex_);
    ++audioOpens;
    if (!withSound) return nullptr;
    return std::make_unique<Silence>(from, duration_);
  }

  std::size_t renderCount() {
    std::lock_guard lock(mutex_);
    return renders.size();
  }
  std::optional<ProjectTime> lastRender() {
    std::lock_guard lock(mutex_);
    if (renders.empty()) return std::nullopt;
    return renders.back();
  }

  std::mutex mutex_;
  int loads = 0;
  int visualEdits = 0;
  int audioOpens = 0;
  std::size_t lastZoomCount = 0;
  PixelSize lastMaxSize;
  std::vector<ProjectTime> renders;
  std::optional<ProjectTime> failFrom;
  bool failLoad = false;
  bool withSound = false;

 private:
  class Silence final : public PreviewAudioReading {
   public:
    Silence(ProjectTime from, ProjectTime duration)
        : left_((duration - from).nanoseconds * sampleRate / 1'000'000'000) {}
    std::int64_t read(std::span<float> into) override {
      const std::int64_t count = std::min<std::int64_t>(left_, static_cast<std::int64_t>(into.size()) / channelCount);
      std::fill(into.begin(), into.begin() + count * channelCount, 0.0f);
      left_ -= count;
      return count;
    }

   private:
    std::int64_t left_;
  };

  ProjectTime duration_;
};

ProjectSnapshot tenSecondProject() {
  ProjectSnapshot snapshot;
  snapshot.manifest.duration = ms(10'000);
  snapshot.manifest.encodedPixelSize = {1280, 720};
  snapshot.timeline = timelineWith({{0, 10'000}});
  return snapshot;
}

// A clock for the sound output that the test moves with the main loop's.
struct TestClock {
  std::atomic<std::int64_t> nanoseconds{0};
  SilentAudioOutput::Clock::time_point now() const {
    return SilentAudioOutput::Clock::time_point(std::chrono::nanoseconds(nanoseconds.load()));
  }
};

class ProjectPlayerTest : public ::testing::Test {
 protected:
  void makePlayer(bool withSound = false, double soundClockRate = 1.0) {
    soundClockRate_ = soundClockRate;
    std::unique_ptr<PlaybackAudioOutput> output;
    if (withSound) {
      engine_->withSound = true;
      auto silent = std::make_unique<SilentAudioOutput>([this] { return soundClock_.now(); });
      sound_ = silent.get();
      output = std::move(silent);
    }
    ProjectPlayer::Observer observer;
    observer.frameChanged = [this] {
      if (auto frame = player_->currentFrame()) shownTimes_.push_back(frame->sequenceTime);
    };
    observer.stateChanged = [this] { ++stateChanges_; };
    observer.failed = [this](const std::string& text) { failures_.push_back(text); };
    player_ = std::make_unique<ProjectPlayer>(loop_, engine_, std::move(output), observer);
  }

  // Turns the loop until `done` holds, giving the worker thread real time; false after 5 s.
  bool turnUntil(const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    while (std::chrono::steady_clock::now() < deadline) {
      loop_.runUntilIdle();
      if (done()) return true;
      std::this_thread::sleep_for(200us);
    }
    return false;
  }

  // Lets the worker draw every frame it may draw ahead, and top up the sound.
  void settle() {
    turnUntil([this] {
      const bool framesDone = !player_->isPlaying() || player_->framesQueued() == ProjectPlayer::framesAhead ||
                              (player_->currentTime() + ms(100) >= ProjectPlayer::lastFrameTime(player_->duration()) &&
                               engine_->lastRender() == ProjectPlayer::lastFrameTime(player_->duration()));
      // The run has started and the output is full (until the sound's end is near).
      const bool soundDone = sound_ == nullptr || !player_->isPlaying() ||
                             (sound_->playedTime() && sound_->writableFrames() == 0) ||
                             player_->currentTime() + ms(300) >= player_->duration();
      return framesDone && soundDone;
    });
  }

  // Moves both clocks by `span` in the player's own ticks, letting the worker keep up after each.
  void play(MainLoop::Clock::duration span) {
    const auto step = ProjectPlayer::tickInterval;
    for (MainLoop::Clock::duration done{}; done < span; done += step) {
      settle();
      soundClock_.nanoseconds += static_cast<std::int64_t>(
          double(std::chrono::duration_cast<std::chrono::nanoseconds>(step).count()) * soundClockRate_);
      loop_.advance(step);
    }
    settle();
  }

  void loadAndShowFirstFrame(const ProjectSnapshot& snapshot = tenSecondProject()) {
    player_->load(snapshot);
    ASSERT_TRUE(turnUntil([this] { return player_->currentFrame() != nullptr; }));
  }

  ManualMainLoop loop_;
  TestClock soundClock_;
  double soundClockRate_ = 1.0;
  std::shared_ptr<StandInEngine> engine_ = std::make_shared<StandInEngine>();
  SilentAudioOutput* sound_ = nullptr;
  std::unique_ptr<ProjectPlayer> player_;
  std::vector<ProjectTime> shownTimes_;
  int stateChanges_ = 0;
  std::vector<std::string> failures_;
};

TEST_F(ProjectPlayerTest, PlaysOnTheMainLoopsClockWithoutSoundAndPausesWhereItIs) {
  makePlayer();
  loadAndShowFirstFrame();
  EXPECT_EQ(player_->duration(), ms(10'000));
  EXPECT_EQ(player_->currentFrame()->sequenceTime, ms(0));

  player_->play();
  EXPECT_TRUE(player_->isPlaying());
  play(500ms);
  EXPECT_EQ(player_->currentTime(), ms(500));
  // The picture is the latest grid frame the clock has reached: frame 30 lies at exactly 0.5 s.
  EXPECT_EQ(player_->currentFrame()->sequenceTime, frame(30));
  for (std::size_t i = 1; i < shownTimes_.size(); ++i) EXPECT_GT(shownTimes_[i], shownTimes_[i - 1]);
  EXPECT_GE(shownTimes_.size(), 25u);

  player_->pause();
  EXPECT_FALSE(player_->isPlaying());
  const ProjectTime pausedAt = player_->currentTime();
  const std::size_t shown = shownTimes_.size();
  play(200ms);
  EXPECT_EQ(player_->currentTime(), pausedAt);
  EXPECT_EQ(shownTimes_.size(), shown);

  player_->togglePlayback();
  EXPECT_TRUE(player_->isPlaying());
  play(100ms);
  EXPECT_EQ(player_->currentTime(), pausedAt + ms(100));
}

TEST_F(ProjectPlayerTest, StopsAtTheEndAndPlaysAgainFromTheStart) {
  makePlayer();
  ProjectSnapshot snapshot = tenSecondProject();
  snapshot.timeline = timelineWith({{0, 300}});
  loadAndShowFirstFrame(snapshot);
  player_->play();
  play(400ms);
  EXPECT_FALSE(player_->isPlaying());
  EXPECT_EQ(player_->currentTime(), ms(300));
  // The last frame may still be on its way from the worker when the clock reaches the end.
  EXPECT_TRUE(turnUntil([this] {
    return player_->currentFrame()->sequenceTime == ProjectPlayer::lastFrameTime(ms(300));
  })) << "shows "
      << player_->currentFrame()->sequenceTime.nanoseconds << " ns, not the last frame";
  EXPECT_EQ(ProjectPlayer::lastFrameTime(ms(300)), frame(17));

  player_->play();
  EXPECT_TRUE(player_->isPlaying());
  play(100ms);
  EXPECT_EQ(player_->currentTime(), ms(100));
}

TEST_F(ProjectPlayerTest, SeeksShowTheNewPositionAndPlaybackGoesOnFromThere) {
  makePlayer();
  loadAndShowFirstFrame();
  player_->seek(ms(4'000));
  ASSERT_TRUE(turnUntil([this] { return player_->currentFrame()->sequenceTime == ms(4'000); }));
  EXPECT_EQ(player_->currentTime(), ms(4'000));

  player_->seek(ms(60'000));
  EXPECT_EQ(player_->currentTime(), ms(10'000));
  ASSERT_TRUE(turnUntil([this] { return player_->currentFrame()->sequenceTime == frame(599); }));

  player_->seek(ms(2'000));
  player_->play();
  play(100ms);
  player_->seek(ms(7'000));
  EXPECT_TRUE(player_->isPlaying());
  play(100ms);
  EXPECT_EQ(player_->currentTime(), ms(7'100));
  EXPECT_EQ(player_->currentFrame()->sequenceTime, frame(426));  // 7.1 s
}

TEST_F(ProjectPlayerTest, StepsMoveByWholeFramesOfTheGrid) {
  makePlayer();
  loadAndShowFirstFrame();
  struct Row {
    ProjectTime from;
    int frames;
    ProjectTime expected;
  };
  const Row rows[] = {
      {ms(0), 1, frame(1)},        {frame(1), -1, ms(0)},      {ms(0), -1, ms(0)},
      {ms(25), -1, frame(1)},      {ms(25), 1, frame(2)},      {ms(1'000), 60, frame(120)},
      {ms(10'000), 1, frame(599)}, {ms(9'990), 5, frame(599)}, {frame(3), -10, ms(0)},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(::testing::Message() << row.from.nanoseconds << " by " << row.frames);
    player_->seek(row.from);
    player_->stepFrames(row.frames);
    EXPECT_EQ(player_->currentTime(), row.expected);
    ASSERT_TRUE(turnUntil([&] { return player_->currentFrame()->sequenceTime == row.expected; }));
  }

  player_->seek(ms(0));
  player_->play();
  play(100ms);
  player_->stepFrames(1);
  EXPECT_FALSE(player_->isPlaying());
  EXPECT_EQ(player_->currentTime(), frame(7));
}

TEST_F(ProjectPlayerTest, SkimShowsAnotherTimeWithoutMovingThePosition) {
  makePlayer();
  loadAndShowFirstFrame();
  player_->seek(ms(1'000));
  ASSERT_TRUE(turnUntil([this] { return player_->currentFrame()->sequenceTime == ms(1'000); }));

  player_->skim(ms(6'000));
  ASSERT_TRUE(turnUntil([this] { return player_->currentFrame()->sequenceTime == ms(6'000); }));
  EXPECT_EQ(player_->currentTime(), ms(1'000));
  EXPECT_EQ(player_->skimTime(), ms(6'000));

  const std::size_t renders = engine_->renderCount();
  player_->endSkim();
  EXPECT_EQ(player_->currentFrame()->sequenceTime, ms(1'000));
  EXPECT_FALSE(player_->skimTime());
  loop_.runUntilIdle();
  EXPECT_EQ(engine_->renderCount(), renders);  // the position's picture was kept

  player_->play();
  player_->skim(ms(8'000));
  EXPECT_FALSE(player_->skimTime());
  play(50ms);
  EXPECT_LT(player_->currentFrame()->sequenceTime, ms(2'000));
}

TEST_F(ProjectPlayerTest, OnlyClipsAndTheAudioMixRebuildTheComposition) {
  makePlayer();
  const ProjectSnapshot snapshot = tenSecondProject();
  loadAndShowFirstFrame(snapshot);
  ASSERT_EQ(engine_->loads, 1);
  struct Row {
    const char* change;
    std::function<void(EditTimeline&)> apply;
    int loads;
    ProjectTime duration;
  };
  const Row rows[] = {
      {"a zoom", [](EditTimeline& t) { t.zooms = {zoomMs(1'000, 3'000)}; }, 1, ms(10'000)},
      {"the cursor", [](EditTimeline& t) { t.cursor.isVisible = !t.cursor.isVisible; }, 1, ms(10'000)},
      {"the canvas", [](EditTimeline& t) { t.canvas.aspectRatio = CanvasAspectRatio::square; }, 1, ms(10'000)},
      {"a trim", [](EditTimeline& t) { t.segments[0].sourceRange = rangeMs(0, 8'000); }, 2, ms(8'000)},
      {"a speed", [](EditTimeline& t) { t.segments[0].playbackRate = TimelinePlaybackRate{2'000}; }, 3, ms(4'000)},
      {"a muted microphone", [](EditTimeline& t) { t.audioMix.microphone.isMuted = true; }, 4, ms(4'000)},
      {"the system audio's gain", [](EditTimeline& t) { t.audioMix.systemAudio.gainDecibels = -6; }, 5, ms(4'000)},
      {"the same timeline", [](EditTimeline&) {}, 5, ms(4'000)},
  };
  EditTimeline timeline = snapshot.timeline;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.change);
    row.apply(timeline);
    const std::size_t renders = engine_->renderCount();
    player_->applyTimeline(timeline);
    EXPECT_EQ(player_->duration(), row.duration);
    // The next picture is drawn with the new edits.
    ASSERT_TRUE(turnUntil([&] { return engine_->renderCount() > renders; }));
    std::lock_guard lock(engine_->mutex_);
    EXPECT_EQ(engine_->loads, row.loads);
  }
  EXPECT_EQ(engine_->lastZoomCount, 1u);
  EXPECT_EQ(engine_->visualEdits, 4);  // the look-only changes and the unchanged timeline
}

TEST_F(ProjectPlayerTest, EditsWhilePlayingKeepPlayingFromWhereTheyAre) {
  makePlayer(true);
  const ProjectSnapshot snapshot = tenSecondProject();
  loadAndShowFirstFrame(snapshot);
  player_->seek(ms(1'000));
  player_->play();
  play(200ms);
  EditTimeline timeline = snapshot.timeline;
  timeline.zooms = {zoomMs(0, 5'000)};
  player_->applyTimeline(timeline);  // the look only: the sound plays on
  play(100ms);
  EXPECT_EQ(engine_->audioOpens, 1);
  EXPECT_NEAR(double(player_->currentTime().nanoseconds), 1'300e6, 10e6);

  timeline.segments[0].sourceRange = rangeMs(0, 6'000);
  player_->applyTimeline(timeline);  // a trim: a new composition, and its sound from the position
  EXPECT_TRUE(player_->isPlaying());
  ASSERT_TRUE(turnUntil([this] { return sound_->playedTime() >= ms(1'300); }));
  play(100ms);
  EXPECT_TRUE(player_->isPlaying());
  EXPECT_EQ(player_->duration(), ms(6'000));
  EXPECT_EQ(engine_->loads, 2);
  EXPECT_EQ(engine_->audioOpens, 2);
  EXPECT_NEAR(double(player_->currentTime().nanoseconds), 1'400e6, 10e6);
}

TEST_F(ProjectPlayerTest, FramesAreDrawnForTheViewSize) {
  makePlayer();
  loadAndShowFirstFrame();
  player_->setViewSize({1600, 900});
  ASSERT_TRUE(turnUntil([this] { return player_->currentFrame()->size == PixelSize{1600, 900}; }));
  player_->play();
  play(50ms);
  std::lock_guard lock(engine_->mutex_);
  EXPECT_EQ(engine_->lastMaxSize, (PixelSize{1600, 900}));
}

TEST_F(ProjectPlayerTest, AFailureOfTheEngineIsShownOnceAndStopsPlayback) {
  makePlayer();
  loadAndShowFirstFrame();
  engine_->failFrom = ms(1'000);
  player_->play();
  play(1'500ms);
  const std::string text = SequenceReaderError(SequenceReaderError::Case::decodingFailed, "damaged movie").what();
  ASSERT_EQ(failures_, std::vector<std::string>{text});
  EXPECT_EQ(player_->errorText(), text);
  EXPECT_FALSE(player_->isPlaying());
  EXPECT_LE(player_->currentTime(), ms(1'100));

  player_->seek(ms(5'000));
  player_->play();
  EXPECT_FALSE(player_->isPlaying());
  turnUntil([this] { return engine_->lastRender() == ms(5'000); });
  loop_.runUntilIdle();
  EXPECT_EQ(failures_.size(), 1u);

  engine_->failFrom.reset();
  engine_->failLoad = true;
  player_->load(tenSecondProject());
  EXPECT_FALSE(player_->errorText());
  ASSERT_TRUE(turnUntil([this] { return player_->errorText().has_value(); }));
  EXPECT_EQ(failures_.size(), 2u);

  engine_->failLoad = false;
  player_->load(tenSecondProject());
  ASSERT_TRUE(turnUntil([this] { return player_->currentFrame() != nullptr; }));
  EXPECT_FALSE(player_->errorText());
}

TEST_F(ProjectPlayerTest, WithSoundThePictureFollowsWhatIsHeard) {
  // The sound's clock runs twice as fast as the main loop's: the picture follows the sound.
  makePlayer(true, 2.0);
  loadAndShowFirstFrame();
  player_->play();
  play(300ms);
  ASSERT_NE(sound_->playedTime(), std::nullopt);
  EXPECT_EQ(player_->currentTime(), *sound_->playedTime());
  EXPECT_NEAR(double(player_->currentTime().nanoseconds), 600e6, 10e6);
  const ProjectTime shown = player_->currentFrame()->sequenceTime;
  EXPECT_LE(shown, player_->currentTime());
  EXPECT_GT(shown + TimelineFrameGrid::minimumDuration + ms(5), player_->currentTime());
  EXPECT_EQ(engine_->audioOpens, 1);

  // A jump starts the sound over from the new position; a pause silences it.
  player_->seek(ms(5'000));
  ASSERT_TRUE(turnUntil([this] { return sound_->playedTime() >= ms(5'000); }));
  play(100ms);
  EXPECT_EQ(engine_->audioOpens, 2);
  EXPECT_NEAR(double(player_->currentTime().nanoseconds), 5'200e6, 10e6);
  player_->pause();
  ASSERT_TRUE(turnUntil([this] { return !sound_->playedTime(); }));
}

// An output whose server goes away after the first write.
class VanishingOutput final : public PlaybackAudioOutput {
 public:
  void start(ProjectTime from) override { beginRun(from); }
  std::int64_t writableFrames() override {
    if (written_ > 0) throw PlaybackError(PlaybackError::Case::audioOutputFailed, "Connection terminated");
    return 1'024;
  }
  void write(std::span<const float> samples) override { written_ += std::int64_t(samples.size()) / channelCount; }
  std::int64_t framesWritten() override { return written_; }
  ProjectTime latency() override { return {}; }
  std::int64_t playedFrames() override { return 0; }
  void stop() override { endRun(); }

 private:
  std::atomic<std::int64_t> written_{0};
};

TEST_F(ProjectPlayerTest, WhenTheSoundFailsThePictureGoesOnAndTheFailureIsToldOnce) {
  engine_->withSound = true;
  ProjectPlayer::Observer observer;
  observer.failed = [this](const std::string& text) { failures_.push_back(text); };
  player_ = std::make_unique<ProjectPlayer>(loop_, engine_, std::make_unique<VanishingOutput>(), observer);
  loadAndShowFirstFrame();
  player_->play();
  ASSERT_TRUE(turnUntil([this] { return !failures_.empty(); }));
  play(200ms);
  EXPECT_TRUE(player_->isPlaying());
  EXPECT_FALSE(player_->errorText());
  const std::string text = PlaybackError(PlaybackError::Case::audioOutputFailed, "Connection terminated").what();
  EXPECT_EQ(failures_, std::vector<std::string>{text});
  // On the main loop's clock from there on: at least the 200 ms that passed on it.
  EXPECT_GE(player_->currentTime(), ms(190));

  player_->seek(ms(3'000));
  play(100ms);
  EXPECT_EQ(engine_->audioOpens, 1);  // a broken output is not used again
  EXPECT_EQ(failures_.size(), 1u);
  EXPECT_EQ(player_->currentTime(), ms(3'100));
}

TEST_F(ProjectPlayerTest, ASilentOutputDrainsAtItsClocksPaceAndStallsWhenStarved) {
  TestClock clock;
  SilentAudioOutput output([&clock] { return clock.now(); }, ms(100));
  EXPECT_FALSE(output.playedTime());
  output.start(ms(2'000));
  EXPECT_EQ(output.writableFrames(), 4'800);
  const std::vector<float> samples(4'800 * 2, 0.0f);
  output.write(samples);
  EXPECT_EQ(output.writableFrames(), 0);
  EXPECT_EQ(output.latency(), ms(100));
  EXPECT_EQ(output.playedTime(), ms(2'000));
  clock.nanoseconds += 40'000'000;
  EXPECT_EQ(output.playedTime(), ms(2'040));
  EXPECT_EQ(output.latency(), ms(60));
  EXPECT_EQ(output.writableFrames(), 1'920);
  clock.nanoseconds += 500'000'000;  // starved: nothing more to play
  EXPECT_EQ(output.playedTime(), ms(2'100));
  output.write(std::span<const float>(samples.data(), 480 * 2));
  clock.nanoseconds += 5'000'000;
  EXPECT_EQ(output.playedTime(), ms(2'105));
  output.stop();
  EXPECT_FALSE(output.playedTime());
}

}  // namespace
}  // namespace vumo
