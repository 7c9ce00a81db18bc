#include "playback/playback_audio_output.h"

#include <algorithm>

namespace vumo {

namespace {

constexpr std::int64_t nanosecondsPerSecond = 1'000'000'000;

}  // namespace

std::optional<ProjectTime> PlaybackAudioOutput::playedTime() {
  std::optional<ProjectTime> from;
  {
    std::lock_guard lock(runMutex_);
    from = runStart_;
  }
  if (!from) return std::nullopt;
  return *from + ProjectTime{std::max<std::int64_t>(0, playedFrames()) * nanosecondsPerSecond / sampleRate};
}

void PlaybackAudioOutput::beginRun(ProjectTime from) {
  std::lock_guard lock(runMutex_);
  runStart_ = from;
}

void PlaybackAudioOutput::endRun() {
  std::lock_guard lock(runMutex_);
  runStart_.reset();
}

SilentAudioOutput::SilentAudioOutput(std::function<Clock::time_point()> clock, ProjectTime bufferDuration)
    : clock_(std::move(clock)),
      capacityFrames_(std::max<std::int64_t>(1, bufferDuration.nanoseconds * sampleRate / nanosecondsPerSecond)) {}

void SilentAudioOutput::drain() {
  const Clock::time_point now = clock_();
  if (!running_ || now <= drainedAt_) return;
  const std::int64_t elapsed =
      std::chrono::duration_cast<std::chrono::nanoseconds>(now - drainedAt_).count() + carryNanoseconds_;
  drainedAt_ = now;
  const std::int64_t due = elapsed * sampleRate / nanosecondsPerSecond;
  const std::int64_t queued = written_ - played_;
  if (due >= queued) {
    // An underrun: the device plays silence, and the time it spends doing so is not carried.
    played_ = written_;
    carryNanoseconds_ = 0;
  } else {
    played_ += due;
    carryNanoseconds_ = elapsed - due * nanosecondsPerSecond / sampleRate;
  }
}

void SilentAudioOutput::start(ProjectTime from) {
  {
    std::lock_guard lock(mutex_);
    running_ = true;
    written_ = 0;
    played_ = 0;
    carryNanoseconds_ = 0;
    drainedAt_ = clock_();
  }
  beginRun(from);
}

std::int64_t SilentAudioOutput::writableFrames() {
  std::lock_guard lock(mutex_);
  drain();
  return running_ ? capacityFrames_ - (written_ - played_) : 0;
}

void SilentAudioOutput::write(std::span<const float> samples) {
  std::lock_guard lock(mutex_);
  if (!running_) return;
  drain();
  // A device that was idle starts playing with the first frame queued, not before.
  if (written_ == played_) {
    drainedAt_ = clock_();
    carryNanoseconds_ = 0;
  }
  written_ += static_cast<std::int64_t>(samples.size()) / channelCount;
}

std::int64_t SilentAudioOutput::framesWritten() {
  std::lock_guard lock(mutex_);
  return written_;
}

ProjectTime SilentAudioOutput::latency() {
  std::lock_guard lock(mutex_);
  drain();
  return ProjectTime{(written_ - played_) * nanosecondsPerSecond / sampleRate};
}

std::int64_t SilentAudioOutput::playedFrames() {
  std::lock_guard lock(mutex_);
  drain();
  return played_;
}

void SilentAudioOutput::stop() {
  {
    std::lock_guard lock(mutex_);
    running_ = false;
    played_ = written_;
  }
  endRun();
}

}  // namespace vumo
