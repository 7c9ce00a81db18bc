#include "playback/pulse_audio_output.h"

#include <pulse/pulseaudio.h>

#include <algorithm>
#include <functional>
#include <string>

#include "playback/playback_errors.h"

namespace vumo {

namespace {

constexpr pa_usec_t answerTimeoutMicroseconds = 3'000'000;
// Queued in the server: long enough that a slow frame on a software rasteriser never starves the
// speaker between two top-ups, and the heard position subtracts it anyway.
constexpr pa_usec_t targetLatencyMicroseconds = 250'000;
constexpr pa_usec_t prebufferMicroseconds = 40'000;
constexpr std::int64_t frameBytes = sizeof(float) * PlaybackAudioOutput::channelCount;

class PulseAudioOutput final : public PlaybackAudioOutput {
 public:
  PulseAudioOutput() {
    loop_ = pa_threaded_mainloop_new();
    if (loop_ == nullptr) throw PlaybackError(PlaybackError::Case::audioOutputUnavailable, "no main loop");
    if (pa_threaded_mainloop_start(loop_) < 0) {
      pa_threaded_mainloop_free(loop_);
      throw PlaybackError(PlaybackError::Case::audioOutputUnavailable, "no main loop");
    }
    try {
      connect();
    } catch (...) {
      close();
      throw;
    }
  }

  ~PulseAudioOutput() override { close(); }

  void start(ProjectTime from) override {
    {
      Locked lock(loop_);
      flushLocked();
      written_ = 0;
      running_ = true;
    }
    beginRun(from);
  }

  std::int64_t writableFrames() override {
    Locked lock(loop_);
    if (!running_) return 0;
    if (!streamGood()) throw PlaybackError(PlaybackError::Case::audioOutputFailed, failureText());
    const std::size_t bytes = pa_stream_writable_size(stream_);
    return bytes == static_cast<std::size_t>(-1) ? 0 : static_cast<std::int64_t>(bytes) / frameBytes;
  }

  void write(std::span<const float> samples) override {
    Locked lock(loop_);
    if (!running_) return;
    if (!streamGood()) throw PlaybackError(PlaybackError::Case::audioOutputFailed, failureText());
    const std::size_t bytes = samples.size() / channelCount * frameBytes;
    if (pa_stream_write(stream_, samples.data(), bytes, nullptr, 0, PA_SEEK_RELATIVE) < 0)
      throw PlaybackError(PlaybackError::Case::audioOutputFailed, failureText());
    written_ += static_cast<std::int64_t>(bytes) / frameBytes;
  }

  std::int64_t framesWritten() override {
    Locked lock(loop_);
    return written_;
  }

  ProjectTime latency() override {
    Locked lock(loop_);
    return latencyLocked();
  }

  std::int64_t playedFrames() override {
    Locked lock(loop_);
    const std::int64_t queued = latencyLocked().nanoseconds * sampleRate / 1'000'000'000;
    return std::max<std::int64_t>(0, written_ - queued);
  }

  void stop() override {
    {
      Locked lock(loop_);
      running_ = false;
      flushLocked();
    }
    endRun();
  }

 private:
  struct Locked {
    explicit Locked(pa_threaded_mainloop* loop) : loop_(loop) { pa_threaded_mainloop_lock(loop_); }
    ~Locked() { pa_threaded_mainloop_unlock(loop_); }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;
    pa_threaded_mainloop* loop_;
  };

  static void signal(void* loop) { pa_threaded_mainloop_signal(static_cast<pa_threaded_mainloop*>(loop), 0); }

  // Waits on the loop (its lock held) until `done` or the answer time-out; false on the time-out.
  bool waitUntil(const std::function<bool()>& done) {
    bool expired = false;
    struct Expiry {
      bool* expired;
      pa_threaded_mainloop* loop;
    } expiry{&expired, loop_};
    pa_time_event* event = pa_context_rttime_new(
        context_, pa_rtclock_now() + answerTimeoutMicroseconds,
        [](pa_mainloop_api*, pa_time_event*, const struct timeval*, void* data) {
          auto* e = static_cast<Expiry*>(data);
          *e->expired = true;
          pa_threaded_mainloop_signal(e->loop, 0);
        },
        &expiry);
    while (!done() && !expired) pa_threaded_mainloop_wait(loop_);
    if (event != nullptr) pa_threaded_mainloop_get_api(loop_)->time_free(event);
    return done();
  }

  void connect() {
    Locked lock(loop_);
    context_ = pa_context_new(pa_threaded_mainloop_get_api(loop_), "Vumo");
    if (context_ == nullptr) throw PlaybackError(PlaybackError::Case::audioOutputUnavailable, "no context");
    pa_context_set_state_callback(
        context_, [](pa_context*, void* loop) { signal(loop); }, loop_);
    if (pa_context_connect(context_, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0)
      throw PlaybackError(PlaybackError::Case::audioOutputUnavailable, failureText());
    const bool ready = waitUntil([this] {
      const pa_context_state_t state = pa_context_get_state(context_);
      return state == PA_CONTEXT_READY || !PA_CONTEXT_IS_GOOD(state);
    });
    if (!ready || pa_context_get_state(context_) != PA_CONTEXT_READY)
      throw PlaybackError(PlaybackError::Case::audioOutputUnavailable,
                          ready ? failureText() : std::string("the sound server did not answer"));

    const pa_sample_spec format{PA_SAMPLE_FLOAT32LE, static_cast<std::uint32_t>(sampleRate),
                                static_cast<std::uint8_t>(channelCount)};
    pa_channel_map map;
    pa_channel_map_init_stereo(&map);
    stream_ = pa_stream_new(context_, "Vumo preview", &format, &map);
    if (stream_ == nullptr) throw PlaybackError(PlaybackError::Case::audioOutputUnavailable, failureText());
    pa_stream_set_state_callback(
        stream_, [](pa_stream*, void* loop) { signal(loop); }, loop_);
    pa_buffer_attr buffer{};
    buffer.maxlength = static_cast<std::uint32_t>(-1);
    buffer.tlength = static_cast<std::uint32_t>(pa_usec_to_bytes(targetLatencyMicroseconds, &format));
    buffer.prebuf = static_cast<std::uint32_t>(pa_usec_to_bytes(prebufferMicroseconds, &format));
    buffer.minreq = static_cast<std::uint32_t>(-1);
    buffer.fragsize = static_cast<std::uint32_t>(-1);
    const auto flags = static_cast<pa_stream_flags_t>(PA_STREAM_INTERPOLATE_TIMING | PA_STREAM_AUTO_TIMING_UPDATE);
    if (pa_stream_connect_playback(stream_, nullptr, &buffer, flags, nullptr, nullptr) < 0)
      throw PlaybackError(PlaybackError::Case::audioOutputUnavailable, failureText());
    const bool streamReady = waitUntil([this] {
      const pa_stream_state_t state = pa_stream_get_state(stream_);
      return state == PA_STREAM_READY || !PA_STREAM_IS_GOOD(state);
    });
    if (!streamReady || pa_stream_get_state(stream_) != PA_STREAM_READY)
      throw PlaybackError(PlaybackError::Case::audioOutputUnavailable,
                          streamReady ? failureText() : std::string("the sound server did not answer"));
  }

  bool streamGood() const {
    return stream_ != nullptr && pa_stream_get_state(stream_) == PA_STREAM_READY &&
           pa_context_get_state(context_) == PA_CONTEXT_READY;
  }

  std::string failureText() const { return pa_strerror(pa_context_errno(context_)); }

  // Before the server has timing information, nothing has been heard.
  ProjectTime latencyLocked() {
    const ProjectTime everything{written_ * 1'000'000'000 / sampleRate};
    if (!streamGood()) return everything;
    pa_usec_t microseconds = 0;
    int negative = 0;
    if (pa_stream_get_latency(stream_, &microseconds, &negative) < 0) return everything;
    if (negative) return {};
    return std::min(everything, ProjectTime{static_cast<std::int64_t>(microseconds) * 1'000});
  }

  void flushLocked() {
    if (!streamGood()) return;
    pa_operation* operation = pa_stream_flush(
        stream_, [](pa_stream*, int, void* loop) { signal(loop); }, loop_);
    if (operation == nullptr) return;
    if (!waitUntil([operation] { return pa_operation_get_state(operation) != PA_OPERATION_RUNNING; }))
      pa_operation_cancel(operation);
    pa_operation_unref(operation);
  }

  void close() {
    if (loop_ == nullptr) return;
    {
      Locked lock(loop_);
      if (stream_ != nullptr) {
        pa_stream_set_state_callback(stream_, nullptr, nullptr);
        pa_stream_disconnect(stream_);
        pa_stream_unref(stream_);
        stream_ = nullptr;
      }
      if (context_ != nullptr) {
        pa_context_set_state_callback(context_, nullptr, nullptr);
        pa_context_disconnect(context_);
        pa_context_unref(context_);
        context_ = nullptr;
      }
    }
    pa_threaded_mainloop_stop(loop_);
    pa_threaded_mainloop_free(loop_);
    loop_ = nullptr;
  }

  pa_threaded_mainloop* loop_ = nullptr;
  pa_context* context_ = nullptr;
  pa_stream* stream_ = nullptr;
  bool running_ = false;
  std::int64_t written_ = 0;  // since the run's start
};

}  // namespace

std::unique_ptr<PlaybackAudioOutput> makePulseAudioOutput() { return std::make_unique<PulseAudioOutput>(); }

std::unique_ptr<PlaybackAudioOutput> makeSilentAudioOutput() { return std::make_unique<SilentAudioOutput>(); }

}  // namespace vumo
