#include "playback/project_player.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <exception>
#include <limits>
#include <mutex>
#include <stop_token>
#include <thread>

#include "playback/playback_errors.h"
#include "shared/cancellation.h"
#include "timeline/timeline_frame_grid.h"
#include "timeline/timeline_mapper.h"

namespace vumo {

namespace {

using SteadyClock = std::chrono::steady_clock;
constexpr std::uint64_t noGeneration = std::numeric_limits<std::uint64_t>::max();
// Sound is read and written in pieces of this many frames (about 21 ms).
constexpr std::int64_t audioChunkFrames = 1'024;
// While playing, the worker looks at the sound this often even when it has no frame to draw.
constexpr auto playingPoll = std::chrono::milliseconds(5);
// The end is reached this close to the sequence's end: the sound's last frame lies up to one
// sample before it.
constexpr ProjectTime endTolerance{1'000'000};

// The grid frame at or before `time`.
std::int64_t gridIndex(ProjectTime time) {
  if (time <= ProjectTime{}) return 0;
  std::int64_t index = time.nanoseconds / 1'000'000'000 * TimelineFrameGrid::framesPerSecond +
                       time.nanoseconds % 1'000'000'000 * TimelineFrameGrid::framesPerSecond / 1'000'000'000;
  while (TimelineFrameGrid::boundary(index + 1) <= time) ++index;
  while (index > 0 && TimelineFrameGrid::boundary(index) > time) --index;
  return index;
}

std::string textOf(const std::exception_ptr& failure) {
  try {
    std::rethrow_exception(failure);
  } catch (const std::exception& error) {
    return error.what();
  } catch (...) {
    return "Unknown error.";
  }
}

bool isCancellation(const std::exception_ptr& failure) {
  try {
    std::rethrow_exception(failure);
  } catch (const CancelledError&) {
    return true;
  } catch (...) {
    return false;
  }
}

}  // namespace

ProjectTime ProjectPlayer::lastFrameTime(ProjectTime duration) {
  if (duration <= ProjectTime{}) return {};
  return TimelineFrameGrid::floorBoundary(duration - ProjectTime{1});
}

// The worker thread and what the main loop and it share. Everything below `mutex` is guarded by it.
struct ProjectPlayer::Worker {
  struct QueuedFrame {
    std::uint64_t generation;
    std::shared_ptr<const PlayerFrame> frame;
  };
  struct Still {
    ProjectTime time;
    std::uint64_t generation;
    bool atPosition;
  };

  Worker(MainLoop& loop, std::shared_ptr<ProjectPreviewing> engine, std::unique_ptr<PlaybackAudioOutput> audio,
         std::shared_ptr<bool> alive, ProjectPlayer& player)
      : loop(loop), engine(std::move(engine)), audio(std::move(audio)), alive(std::move(alive)), player(player) {}

  MainLoop& loop;
  std::shared_ptr<ProjectPreviewing> engine;
  std::unique_ptr<PlaybackAudioOutput> audio;  // null: no sound
  std::shared_ptr<bool> alive;
  ProjectPlayer& player;

  std::mutex mutex;
  std::condition_variable wake;
  bool quit = false;
  std::optional<ProjectSnapshot> pendingLoad;
  std::optional<EditTimeline> pendingEdits;
  PixelSize viewSize{640, 360};
  std::uint64_t generation = 0;  // of the pictures: every change of what a frame shows
  std::uint64_t run = 0;         // of the playback runs: every play, jump, load and pause
  bool playing = false;
  ProjectTime playFrom;
  ProjectTime drawFrom;  // the first frame a run draws: the one after the picture already shown
  ProjectTime duration;
  std::optional<Still> still;
  std::deque<QueuedFrame> frames;  // drawn ahead while playing, in time order

  // The clock as the main loop last read it, for choosing the next frame to draw.
  std::atomic<std::int64_t> clockNanoseconds{0};
  // The run whose sound the output plays, once it has started.
  std::atomic<std::uint64_t> audioRun{noGeneration};

  // Set by the feeder when the output failed: it is not used again.
  std::atomic<bool> outputBroken{false};

  // The feeder thread keeps the output topped up from the reader of the current run, so that a
  // frame that takes long to draw never starves the speaker. It alone touches the output (start,
  // write, stop), so no sound of an earlier run can reach a later one.
  struct Feed {
    std::unique_ptr<PreviewAudioReading> reader;  // none: silence
    ProjectTime from;
    std::uint64_t run = noGeneration;
  };
  std::mutex feedMutex;
  std::condition_variable feedWake;
  std::optional<Feed> pendingFeed;  // guarded by feedMutex
  bool feederQuit = false;          // guarded by feedMutex

  std::stop_source stop;
  std::jthread thread;
  std::jthread feeder;

  void assignFeed(Feed feed) {
    {
      std::lock_guard lock(feedMutex);
      pendingFeed = std::move(feed);
    }
    feedWake.notify_all();
  }

  // Runs `work` on the main loop if the player still exists then.
  void post(std::function<void(ProjectPlayer&)> work) {
    loop.post([alive = alive, &player = player, work = std::move(work)] {
      if (*alive) work(player);
    });
  }

  void reportFailure(const std::exception_ptr& failure) {
    if (isCancellation(failure)) return;
    post([text = textOf(failure)](ProjectPlayer& player) { player.takeFailure(text); });
  }

  // Sound that fails does not stop the picture: it goes on, silent, on the main loop's clock. An
  // output that failed is not used again; a track that did not decode is tried again next run.
  void reportSoundFailure(const std::exception_ptr& failure) {
    if (isCancellation(failure)) return;
    try {
      std::rethrow_exception(failure);
    } catch (const PlaybackError&) {
      outputBroken = true;
    } catch (...) {
    }
    post([text = textOf(failure)](ProjectPlayer& player) { player.takeSoundFailure(text); });
  }

  void runLoop();
  void feedLoop();
};

void ProjectPlayer::Worker::feedLoop() {
  std::unique_ptr<PreviewAudioReading> reader;
  bool running = false;  // the output plays a run
  bool ended = false;    // its reader has nothing more
  std::vector<float> samples(static_cast<std::size_t>(audioChunkFrames * PlaybackAudioOutput::channelCount));
  std::unique_lock lock(feedMutex);
  while (!feederQuit) {
    if (pendingFeed) {
      Feed feed = std::move(*pendingFeed);
      pendingFeed.reset();
      lock.unlock();
      audioRun = noGeneration;
      if (running) audio->stop();
      running = false;
      ended = false;
      reader = std::move(feed.reader);
      if (reader && !outputBroken) {
        try {
          audio->start(feed.from);
          running = true;
          audioRun = feed.run;
        } catch (...) {
          reportSoundFailure(std::current_exception());
        }
      }
      lock.lock();
      continue;
    }
    if (running && !ended) {
      lock.unlock();
      try {
        // Whatever the output takes, however little: a sound server asks for more only once what
        // it asked for has come.
        for (std::int64_t writable; (writable = audio->writableFrames()) > 0;) {
          const auto frames = static_cast<std::size_t>(std::min(writable, audioChunkFrames));
          const std::int64_t count =
              reader->read(std::span<float>(samples).first(frames * PlaybackAudioOutput::channelCount));
          if (count == 0) {
            ended = true;
            break;
          }
          audio->write(std::span<const float>(samples).first(static_cast<std::size_t>(count) *
                                                             PlaybackAudioOutput::channelCount));
        }
      } catch (...) {
        ended = true;
        audioRun = noGeneration;
        reportSoundFailure(std::current_exception());
      }
      lock.lock();
      feedWake.wait_for(lock, playingPoll, [this] { return feederQuit || pendingFeed.has_value(); });
      continue;
    }
    feedWake.wait(lock, [this] { return feederQuit || pendingFeed.has_value(); });
  }
  lock.unlock();
  reader.reset();
  if (running) audio->stop();
}

void ProjectPlayer::Worker::runLoop() {
  std::uint64_t audioStartedRun = noGeneration;  // the run whose sound was opened, even if it had none
  std::uint64_t failedGeneration = noGeneration;
  std::uint64_t drawingGeneration = noGeneration;
  ProjectTime nextTime;
  auto renderEstimate = SteadyClock::duration::zero();

  std::unique_lock lock(mutex);
  while (!quit) {
    if (pendingLoad) {
      ProjectSnapshot snapshot = std::move(*pendingLoad);
      pendingLoad.reset();
      const std::uint64_t loadGeneration = generation;
      lock.unlock();
      try {
        const ProjectTime loaded = engine->load(snapshot);
        post([loaded](ProjectPlayer& player) { player.takeDuration(loaded); });
      } catch (...) {
        reportFailure(std::current_exception());
        failedGeneration = loadGeneration;
      }
      lock.lock();
      continue;
    }
    if (pendingEdits) {
      EditTimeline timeline = std::move(*pendingEdits);
      pendingEdits.reset();
      lock.unlock();
      try {
        engine->setVisualEdits(timeline);
      } catch (...) {
        reportFailure(std::current_exception());
      }
      lock.lock();
      continue;
    }

    // The sound follows the run: stopped when the run it plays is over, opened for a new one (the
    // engine is used from this thread only; its reader then goes to the feeder).
    if (audioStartedRun != noGeneration && (!playing || audioStartedRun != run)) {
      audioStartedRun = noGeneration;
      assignFeed({});
      continue;
    }
    if (playing && audio && !outputBroken && audioStartedRun == noGeneration && failedGeneration != generation) {
      const std::uint64_t startedRun = run;
      const ProjectTime from = playFrom;
      audioStartedRun = startedRun;
      lock.unlock();
      std::unique_ptr<PreviewAudioReading> reader;
      try {
        reader = engine->openAudio(from);
      } catch (...) {
        reportSoundFailure(std::current_exception());
      }
      if (reader) assignFeed({std::move(reader), from, startedRun});
      lock.lock();
      continue;
    }

    if (playing && failedGeneration != generation) {
      if (drawingGeneration != generation) {
        drawingGeneration = generation;
        nextTime = std::max(drawFrom, ProjectTime{clockNanoseconds.load()});
        nextTime = TimelineFrameGrid::ceilingBoundary(nextTime);
      }
      const ProjectTime last = lastFrameTime(duration);
      if (frames.size() < framesAhead && nextTime <= last) {
        // Drawn for the moment it will be ready: a renderer slower than the film skips frames
        // rather than falling behind the sound.
        const auto lead = std::chrono::duration_cast<std::chrono::nanoseconds>(renderEstimate).count();
        ProjectTime time = std::max(nextTime, ProjectTime{clockNanoseconds.load() + lead});
        time = std::min(TimelineFrameGrid::ceilingBoundary(time), last);
        const std::uint64_t frameGeneration = generation;
        const PixelSize size = viewSize;
        lock.unlock();
        const auto began = SteadyClock::now();
        std::shared_ptr<PlayerFrame> frame;
        try {
          StillImage image = engine->render(time, size, stop.get_token());
          frame =
              std::make_shared<PlayerFrame>(PlayerFrame{{image.width, image.height}, std::move(image.pixels), time});
        } catch (...) {
          reportFailure(std::current_exception());
        }
        renderEstimate = SteadyClock::now() - began;
        lock.lock();
        if (!frame) {
          failedGeneration = frameGeneration;
        } else if (frameGeneration == generation) {
          frames.push_back({frameGeneration, std::move(frame)});
          nextTime = TimelineFrameGrid::boundary(gridIndex(time) + 1);
        }
        continue;
      }
    }

    if (still) {
      const Still request = *still;
      still.reset();
      const PixelSize size = viewSize;
      lock.unlock();
      try {
        StillImage image = engine->render(request.time, size, stop.get_token());
        auto frame = std::make_shared<const PlayerFrame>(
            PlayerFrame{{image.width, image.height}, std::move(image.pixels), request.time});
        post([frame, request](ProjectPlayer& player) {
          player.takeFrame(frame, request.generation, request.atPosition);
        });
      } catch (...) {
        reportFailure(std::current_exception());
      }
      lock.lock();
      continue;
    }

    if (playing) {
      wake.wait_for(lock, playingPoll);
    } else {
      wake.wait(lock);
    }
  }
}

ProjectPlayer::ProjectPlayer(MainLoop& loop, std::shared_ptr<ProjectPreviewing> engine,
                             std::unique_ptr<PlaybackAudioOutput> audio, Observer observer)
    : loop_(loop), observer_(std::move(observer)), alive_(std::make_shared<bool>(true)) {
  worker_ = std::make_unique<Worker>(loop, std::move(engine), std::move(audio), alive_, *this);
  worker_->thread = std::jthread([worker = worker_.get()] { worker->runLoop(); });
  if (worker_->audio) worker_->feeder = std::jthread([worker = worker_.get()] { worker->feedLoop(); });
}

ProjectPlayer::~ProjectPlayer() {
  *alive_ = false;
  if (tickScheduled_) loop_.cancel(tickTimer_);
  {
    std::lock_guard lock(worker_->mutex);
    worker_->quit = true;
  }
  worker_->stop.request_stop();
  worker_->wake.notify_all();
  worker_->thread.join();
  if (worker_->feeder.joinable()) {
    {
      std::lock_guard lock(worker_->feedMutex);
      worker_->feederQuit = true;
    }
    worker_->feedWake.notify_all();
    worker_->feeder.join();
  }
}

void ProjectPlayer::load(const ProjectSnapshot& snapshot) {
  if (playing_) stopPlaying(std::nullopt);
  errorText_.reset();
  snapshot_ = snapshot;
  try {
    duration_ = TimelineMapper(snapshot.timeline, snapshot.manifest.duration).sequenceDuration();
  } catch (const std::exception&) {
    // The engine's load fails the same way and reports it.
    duration_ = {};
  }
  position_ = {};
  skimTime_.reset();
  currentFrame_.reset();
  positionFrame_.reset();
  ++generation_;
  ++run_;
  {
    std::lock_guard lock(worker_->mutex);
    worker_->pendingLoad = snapshot;
    worker_->pendingEdits.reset();
    worker_->generation = generation_;
    worker_->run = run_;
    worker_->playing = false;
    worker_->duration = duration_;
    worker_->frames.clear();
    worker_->still = Worker::Still{ProjectTime{}, generation_, true};
  }
  worker_->wake.notify_all();
  notifyState();
  if (observer_.frameChanged) observer_.frameChanged();
}

void ProjectPlayer::applyTimeline(const EditTimeline& timeline) {
  if (!snapshot_) return;
  const bool rebuild =
      timeline.segments != snapshot_->timeline.segments || timeline.audioMix != snapshot_->timeline.audioMix;
  snapshot_->timeline = timeline;
  positionFrame_.reset();
  ++generation_;
  if (rebuild) {
    const bool wasPlaying = playing_;
    if (wasPlaying) position_ = std::min(clockTime(), duration_);
    try {
      duration_ = TimelineMapper(timeline, snapshot_->manifest.duration).sequenceDuration();
    } catch (const std::exception&) {
      duration_ = {};
    }
    position_ = std::min(position_, duration_);
    ++run_;
    playFrom_ = position_;
    playStartedAt_ = loop_.now();
    lastClock_ = position_;
  }
  {
    std::lock_guard lock(worker_->mutex);
    if (rebuild) {
      worker_->pendingLoad = *snapshot_;
      worker_->pendingEdits.reset();
      worker_->run = run_;
      worker_->playFrom = position_;
      worker_->drawFrom = position_;
      worker_->duration = duration_;
      worker_->clockNanoseconds = position_.nanoseconds;
    } else {
      worker_->pendingEdits = timeline;
    }
    worker_->generation = generation_;
    worker_->frames.clear();
    if (!playing_) {
      const bool skimming = skimTime_.has_value();
      worker_->still = Worker::Still{lastFrameTimeOr(skimming ? *skimTime_ : position_), generation_, !skimming};
    }
  }
  worker_->wake.notify_all();
  if (rebuild) notifyState();
}

void ProjectPlayer::setViewSize(PixelSize devicePixels) {
  devicePixels.width = std::max<std::int64_t>(2, devicePixels.width);
  devicePixels.height = std::max<std::int64_t>(2, devicePixels.height);
  {
    std::lock_guard lock(worker_->mutex);
    if (worker_->viewSize == devicePixels) return;
    worker_->viewSize = devicePixels;
  }
  positionFrame_.reset();
  if (!playing_) requestStill(skimTime_.value_or(position_), !skimTime_.has_value());
}

void ProjectPlayer::play() {
  if (playing_ || !snapshot_ || errorText_) return;
  if (position_ >= lastFrameTime(duration_)) position_ = {};
  skimTime_.reset();
  playing_ = true;
  startPlaying();
  notifyState();
}

void ProjectPlayer::pause() {
  if (!playing_) return;
  stopPlaying(std::nullopt);
  notifyState();
}

void ProjectPlayer::togglePlayback() {
  if (playing_) {
    pause();
  } else {
    play();
  }
}

void ProjectPlayer::seek(ProjectTime sequenceTime) {
  if (!snapshot_) return;
  position_ = std::clamp(sequenceTime, ProjectTime{}, duration_);
  skimTime_.reset();
  positionFrame_.reset();
  if (playing_) {
    startPlaying();
  } else {
    requestStill(position_, true);
  }
  notifyState();
}

void ProjectPlayer::skim(ProjectTime sequenceTime) {
  if (playing_ || !snapshot_) return;
  skimTime_ = std::clamp(sequenceTime, ProjectTime{}, duration_);
  requestStill(*skimTime_, false);
}

void ProjectPlayer::endSkim() {
  if (!skimTime_) return;
  skimTime_.reset();
  if (positionFrame_ && !playing_) {
    ++generation_;  // a skim picture still being drawn is not shown any more
    {
      std::lock_guard lock(worker_->mutex);
      worker_->generation = generation_;
      worker_->still.reset();
    }
    currentFrame_ = positionFrame_;
    if (observer_.frameChanged) observer_.frameChanged();
  } else if (!playing_) {
    requestStill(position_, true);
  }
}

void ProjectPlayer::stepFrames(int frames) {
  if (!snapshot_) return;
  if (playing_) stopPlaying(std::nullopt);
  skimTime_.reset();
  std::int64_t index = gridIndex(position_);
  // From between two grid lines, one step back lands on the line before.
  if (frames < 0 && TimelineFrameGrid::boundary(index) < position_) ++index;
  const std::int64_t last = gridIndex(lastFrameTime(duration_));
  position_ = TimelineFrameGrid::boundary(std::clamp<std::int64_t>(index + frames, 0, last));
  positionFrame_.reset();
  requestStill(position_, true);
  notifyState();
}

ProjectTime ProjectPlayer::lastFrameTimeOr(ProjectTime time) const {
  return std::clamp(time, ProjectTime{}, lastFrameTime(duration_));
}

void ProjectPlayer::startPlaying() {
  // The picture of the position is on screen already when it lies on the grid.
  ProjectTime drawFrom = position_;
  if (positionFrame_ && positionFrame_->sequenceTime == position_)
    drawFrom = TimelineFrameGrid::boundary(gridIndex(position_) + 1);
  ++generation_;
  ++run_;
  playFrom_ = position_;
  playStartedAt_ = loop_.now();
  lastClock_ = position_;
  {
    std::lock_guard lock(worker_->mutex);
    worker_->generation = generation_;
    worker_->run = run_;
    worker_->playing = true;
    worker_->playFrom = position_;
    worker_->drawFrom = drawFrom;
    worker_->duration = duration_;
    worker_->clockNanoseconds = position_.nanoseconds;
    worker_->still.reset();
    worker_->frames.clear();
  }
  worker_->wake.notify_all();
  scheduleTick();
}

void ProjectPlayer::stopPlaying(std::optional<ProjectTime> position) {
  position_ = position.value_or(std::min(clockTime(), duration_));
  playing_ = false;
  if (tickScheduled_) {
    loop_.cancel(tickTimer_);
    tickScheduled_ = false;
  }
  ++generation_;
  ++run_;
  {
    std::lock_guard lock(worker_->mutex);
    worker_->generation = generation_;
    worker_->run = run_;
    worker_->playing = false;
    worker_->frames.clear();
  }
  worker_->wake.notify_all();
  // The picture shown stays: it is the position's, up to the frame that was about to follow.
  positionFrame_ = currentFrame_;
}

void ProjectPlayer::requestStill(ProjectTime time, bool atPosition) {
  ++generation_;
  {
    std::lock_guard lock(worker_->mutex);
    worker_->generation = generation_;
    worker_->still = Worker::Still{lastFrameTimeOr(time), generation_, atPosition};
  }
  worker_->wake.notify_all();
}

void ProjectPlayer::scheduleTick() {
  if (tickScheduled_) return;
  tickScheduled_ = true;
  tickTimer_ = loop_.schedule(tickInterval, [this] {
    tickScheduled_ = false;
    tick();
  });
}

ProjectTime ProjectPlayer::clockTime() {
  ProjectTime time;
  if (worker_->audio && worker_->audioRun.load() == run_) {
    time = worker_->audio->playedTime().value_or(playFrom_);
  } else {
    time = playFrom_ +
           ProjectTime{std::chrono::duration_cast<std::chrono::nanoseconds>(loop_.now() - playStartedAt_).count()};
  }
  lastClock_ = std::max(lastClock_, time);
  return lastClock_;
}

void ProjectPlayer::tick() {
  if (!playing_) return;
  const ProjectTime clock = clockTime();
  std::shared_ptr<const PlayerFrame> due;
  bool popped = false;
  {
    std::lock_guard lock(worker_->mutex);
    auto& frames = worker_->frames;
    while (!frames.empty() &&
           (frames.front().generation != generation_ || frames.front().frame->sequenceTime <= clock)) {
      if (frames.front().generation == generation_) due = frames.front().frame;
      frames.pop_front();
      popped = true;
    }
    worker_->clockNanoseconds = clock.nanoseconds;
  }
  if (popped) worker_->wake.notify_all();
  position_ = std::min(clock, duration_);
  if (due) {
    currentFrame_ = due;
    if (observer_.frameChanged) observer_.frameChanged();
  }
  if (clock + endTolerance >= duration_) {
    stopPlaying(duration_);
    // A slow renderer may not have delivered the last frame when the clock runs out; the end of
    // the film must still show it.
    const ProjectTime last = lastFrameTime(duration_);
    if (!currentFrame_ || currentFrame_->sequenceTime != last) requestStill(last, true);
    notifyState();
    return;
  }
  scheduleTick();
}

void ProjectPlayer::takeFrame(std::shared_ptr<const PlayerFrame> frame, std::uint64_t generation, bool atPosition) {
  if (generation != generation_ || playing_) return;
  currentFrame_ = frame;
  if (atPosition) positionFrame_ = frame;
  if (observer_.frameChanged) observer_.frameChanged();
}

void ProjectPlayer::takeDuration(ProjectTime duration) {
  if (duration == duration_) return;
  duration_ = duration;
  position_ = std::min(position_, duration_);
  {
    std::lock_guard lock(worker_->mutex);
    worker_->duration = duration_;
  }
  notifyState();
}

void ProjectPlayer::takeFailure(const std::string& text) {
  if (errorText_) return;
  errorText_ = text;
  if (playing_) stopPlaying(std::nullopt);
  notifyState();
  if (observer_.failed) observer_.failed(text);
}

std::size_t ProjectPlayer::framesQueued() const {
  std::lock_guard lock(worker_->mutex);
  return worker_->frames.size();
}

void ProjectPlayer::takeSoundFailure(const std::string& text) {
  if (soundFailureShown_) return;
  soundFailureShown_ = true;
  if (observer_.failed) observer_.failed(text);
}

void ProjectPlayer::notifyState() {
  if (observer_.stateChanged) observer_.stateChanged();
}

std::shared_ptr<ProjectPreviewing> loadPreviewEngine(const MediaModule& module) {
  if (module.interfaceVersion != MediaModule::currentInterfaceVersion || module.makePreviewer == nullptr)
    throw PlaybackError(PlaybackError::Case::engineUnavailable, "the media engine was built for another version");
  return module.makePreviewer();
}

}  // namespace vumo
