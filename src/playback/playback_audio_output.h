#pragma once
// Where the player's sound goes. The sequence's sound is already on the sequence timeline (speed
// changes stretched by the engine), so a run that starts at sequence time `from` is heard at
// `from` plus the frames written, less what is still queued in front of the speaker. That heard
// time is the player's clock while there is sound, so picture and sound cannot drift apart.
//
// Every member may be called from any thread; an implementation serialises them itself. The
// player writes from its worker thread and reads the heard time on the main loop.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>

#include "shared/project_time.h"

namespace vumo {

class PlaybackAudioOutput {
 public:
  static constexpr int sampleRate = 48'000;
  static constexpr int channelCount = 2;

  virtual ~PlaybackAudioOutput() = default;

  // Drops whatever is queued and begins a new run whose first frame written is sequence time
  // `from`.
  virtual void start(ProjectTime from) = 0;
  // Frames that write() takes now without waiting. Throws PlaybackError::audioOutputFailed once
  // the output has failed.
  virtual std::int64_t writableFrames() = 0;
  // Queues interleaved 32-bit float frames (at most writableFrames()). Throws
  // PlaybackError::audioOutputFailed.
  virtual void write(std::span<const float> samples) = 0;
  // Frames written since start().
  virtual std::int64_t framesWritten() = 0;
  // How long until a frame written now is heard: what is queued in the server and the device.
  virtual ProjectTime latency() = 0;
  // The frames written less those still queued, read at one instant.
  virtual std::int64_t playedFrames() = 0;
  // Silences at once, dropping what is queued; a new run needs start().
  virtual void stop() = 0;

  // The sequence time heard now: the run's start plus the frames written less the latency, never
  // before the start; none outside a run.
  std::optional<ProjectTime> playedTime();

 protected:
  // Kept by start() and stop() of the implementations through beginRun() and endRun().
  void beginRun(ProjectTime from);
  void endRun();

 private:
  std::mutex runMutex_;
  std::optional<ProjectTime> runStart_;
};

// An output that plays into nothing at the pace of a clock, as a device would: what is written
// drains at `sampleRate` frames per second of `clock`, up to `bufferDuration` may wait, and when
// nothing is queued the heard position stops (an underrun) until more is written. For tests (with
// a clock moved by hand) and for machines without a sound server.
class SilentAudioOutput final : public PlaybackAudioOutput {
 public:
  using Clock = std::chrono::steady_clock;

  // `clock` must be callable from any thread.
  explicit SilentAudioOutput(std::function<Clock::time_point()> clock = &Clock::now,
                             ProjectTime bufferDuration = ProjectTime::fromMilliseconds(200));

  void start(ProjectTime from) override;
  std::int64_t writableFrames() override;
  void write(std::span<const float> samples) override;
  std::int64_t framesWritten() override;
  ProjectTime latency() override;
  std::int64_t playedFrames() override;
  void stop() override;

 private:
  // Drains what the clock says has been played since the last call. Needs mutex_.
  void drain();

  std::function<Clock::time_point()> clock_;
  std::int64_t capacityFrames_;
  std::mutex mutex_;
  bool running_ = false;
  std::int64_t written_ = 0;
  std::int64_t played_ = 0;
  // The clock's time at the last drain; the remainder under one frame carries over in nanoseconds.
  Clock::time_point drainedAt_{};
  std::int64_t carryNanoseconds_ = 0;
};

}  // namespace vumo
