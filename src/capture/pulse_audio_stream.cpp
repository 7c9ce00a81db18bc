#include "capture/pulse_audio_stream.h"

#include <fmt/core.h>
#include <pulse/pulseaudio.h>

#include <cstring>
#include <optional>

#include "capture/capture_error.h"
#include "shared/json.h"

namespace vumo {

namespace {

constexpr int sampleRate = 48000;
constexpr int channelCount = 2;
constexpr std::size_t framesPerBuffer = 480;  // 10 ms
constexpr std::size_t bytesPerFrame = channelCount * sizeof(float);
// How long the server may take to answer one request before it counts as gone.
constexpr pa_usec_t answerTimeoutMicroseconds = 5'000'000;

void signalLoop(pa_threaded_mainloop* loop) { pa_threaded_mainloop_signal(loop, 0); }

// A client of the server: the threaded main loop and the context on it. Every call into the
// context holds the loop's lock, which `Locked` takes for one scope.
class PulseConnection {
 public:
  class Locked {
   public:
    explicit Locked(pa_threaded_mainloop* loop) : loop_(loop) { pa_threaded_mainloop_lock(loop_); }
    ~Locked() { pa_threaded_mainloop_unlock(loop_); }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;

   private:
    pa_threaded_mainloop* loop_;
  };

  explicit PulseConnection(const std::string& server) {
    loop_ = pa_threaded_mainloop_new();
    if (!loop_ || pa_threaded_mainloop_start(loop_) < 0) {
      if (loop_) pa_threaded_mainloop_free(loop_);
      throw CaptureError(CaptureError::Case::audioServerUnavailable, "its client loop could not start");
    }
    std::string failure;
    {
      Locked locked(loop_);
      context_ = pa_context_new(pa_threaded_mainloop_get_api(loop_), "Vumo");
      pa_context_set_state_callback(
          context_, [](pa_context*, void* loop) { signalLoop(static_cast<pa_threaded_mainloop*>(loop)); }, loop_);
      bool connected =
          pa_context_connect(context_, server.empty() ? nullptr : server.c_str(), PA_CONTEXT_NOAUTOSPAWN, nullptr) >= 0;
      if (connected) {
        waitUntil([&] {
          auto state = pa_context_get_state(context_);
          return state == PA_CONTEXT_READY || !PA_CONTEXT_IS_GOOD(state);
        });
        connected = pa_context_get_state(context_) == PA_CONTEXT_READY;
      }
      if (!connected) failure = pa_strerror(pa_context_errno(context_));
    }
    if (!failure.empty()) {
      close();
      throw CaptureError(CaptureError::Case::audioServerUnavailable,
                         server.empty() ? failure : fmt::format("{} ({})", failure, server));
    }
  }

  ~PulseConnection() { close(); }
  PulseConnection(const PulseConnection&) = delete;
  PulseConnection& operator=(const PulseConnection&) = delete;

  pa_threaded_mainloop* loop() const { return loop_; }
  pa_context* context() const { return context_; }

  // Waits, with the lock held, until `done` holds or the answer time has passed; false then.
  template <class Done>
  bool waitUntil(Done done) {
    bool expired = false;
    struct Timer {
      pa_threaded_mainloop* loop;
      bool* expired;
    } timer{loop_, &expired};
    pa_time_event* event = pa_context_rttime_new(
        context_, pa_rtclock_now() + answerTimeoutMicroseconds,
        [](pa_mainloop_api*, pa_time_event*, const struct timeval*, void* data) {
          auto* t = static_cast<Timer*>(data);
          *t->expired = true;
          signalLoop(t->loop);
        },
        &timer);
    while (!done() && !expired) pa_threaded_mainloop_wait(loop_);
    pa_threaded_mainloop_get_api(loop_)->time_free(event);
    return done();
  }

  // Runs one introspection request to its end; false when the server did not answer in time.
  bool finish(pa_operation* operation) {
    if (!operation) return false;
    bool answered = waitUntil([&] { return pa_operation_get_state(operation) != PA_OPERATION_RUNNING; });
    if (!answered) pa_operation_cancel(operation);
    pa_operation_unref(operation);
    return answered;
  }

  struct ServerDefaults {
    std::string sink;
    std::string source;
  };

  ServerDefaults defaults() {
    struct Answer {
      pa_threaded_mainloop* loop;
      ServerDefaults values;
    } answer{loop_, {}};
    bool answered = finish(pa_context_get_server_info(
        context_,
        [](pa_context*, const pa_server_info* info, void* data) {
          auto* a = static_cast<Answer*>(data);
          if (info && info->default_sink_name) a->values.sink = info->default_sink_name;
          if (info && info->default_source_name) a->values.source = info->default_source_name;
          signalLoop(a->loop);
        },
        &answer));
    if (!answered) throw CaptureError(CaptureError::Case::audioServerUnavailable, "the server did not answer");
    return answer.values;
  }

  std::vector<PulseAudioSourceInfo> sources() {
    struct Answer {
      pa_threaded_mainloop* loop;
      std::vector<PulseAudioSourceInfo> values;
    } answer{loop_, {}};
    bool answered = finish(pa_context_get_source_info_list(
        context_,
        [](pa_context*, const pa_source_info* info, int end, void* data) {
          auto* a = static_cast<Answer*>(data);
          if (!end && info)
            a->values.push_back({info->name ? info->name : "", info->description ? info->description : "",
                                 info->monitor_of_sink != PA_INVALID_INDEX, false});
          if (end) signalLoop(a->loop);
        },
        &answer));
    if (!answered) throw CaptureError(CaptureError::Case::audioServerUnavailable, "the server did not answer");
    return answer.values;
  }

  // The monitor source of an output; nothing when there is no such output.
  std::optional<std::string> monitorOfSink(const std::string& sink) {
    struct Answer {
      pa_threaded_mainloop* loop;
      std::optional<std::string> monitor;
    } answer{loop_, {}};
    finish(pa_context_get_sink_info_by_name(
        context_, sink.c_str(),
        [](pa_context*, const pa_sink_info* info, int end, void* data) {
          auto* a = static_cast<Answer*>(data);
          if (!end && info && info->monitor_source_name) a->monitor = info->monitor_source_name;
          if (end) signalLoop(a->loop);
        },
        &answer));
    return answer.monitor;
  }

 private:
  void close() {
    if (!loop_) return;
    {
      Locked locked(loop_);
      if (context_) {
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
};

}  // namespace

void to_json(Json& j, const PulseAudioSourceInfo& v) {
  j = Json{{"name", v.name}, {"description", v.description}, {"isMonitor", v.isMonitor}, {"isDefault", v.isDefault}};
}

std::vector<PulseAudioSourceInfo> listPulseAudioSources(const std::string& server) {
  PulseConnection connection(server);
  PulseConnection::Locked locked(connection.loop());
  auto defaults = connection.defaults();
  auto sources = connection.sources();
  for (auto& source : sources) source.isDefault = source.name == defaults.source;
  return sources;
}

struct PulseAudioStream::State {
  PulseConnection connection;
  std::string source;

  // Guarded by the loop's lock from here on.
  pa_stream* stream = nullptr;
  std::function<void(const AudioBuffer&)> onBuffer;
  StreamStoppedHandler onStopped;
  bool stopping = false;
  bool reportedEnd = false;
  AudioBuffer pending;

  State(PulseAudioCapture what, const std::string& sourceName, const std::string& server) : connection(server) {
    PulseConnection::Locked locked(connection.loop());
    auto defaults = connection.defaults();
    if (what == PulseAudioCapture::systemAudio) {
      auto monitor = defaults.sink.empty() ? std::nullopt : connection.monitorOfSink(defaults.sink);
      if (!monitor)
        throw CaptureError(CaptureError::Case::audioSourceMissing,
                           defaults.sink.empty() ? "the system has no default output" : defaults.sink + ".monitor");
      source = *monitor;
    } else {
      source = sourceName.empty() ? defaults.source : sourceName;
      auto sources = connection.sources();
      bool found = std::any_of(sources.begin(), sources.end(), [&](const auto& s) { return s.name == source; });
      if (source.empty() || !found)
        throw CaptureError(CaptureError::Case::audioSourceMissing,
                           source.empty() ? "the system has no default microphone" : source);
    }
    pending.channels = channelCount;
    pending.sampleRate = sampleRate;
  }

  void reportEnd(const std::string& reason) {
    if (stopping || reportedEnd || !onStopped) return;
    reportedEnd = true;
    onStopped(std::make_exception_ptr(CaptureError(CaptureError::Case::audioCaptureFailed, reason)));
  }

  void emitFullBuffers() {
    std::size_t samplesPerBuffer = framesPerBuffer * channelCount;
    while (pending.samples.size() >= samplesPerBuffer) {
      AudioBuffer buffer;
      buffer.channels = channelCount;
      buffer.sampleRate = sampleRate;
      buffer.hostTimeNanoseconds = pending.hostTimeNanoseconds;
      buffer.samples.assign(pending.samples.begin(), pending.samples.begin() + std::ptrdiff_t(samplesPerBuffer));
      pending.samples.erase(pending.samples.begin(), pending.samples.begin() + std::ptrdiff_t(samplesPerBuffer));
      pending.hostTimeNanoseconds += framesPerBuffer * 1'000'000'000ull / sampleRate;
      onBuffer(buffer);
    }
  }

  // On the client's thread with the lock held.
  void read() {
    std::uint64_t now = monotonicNanoseconds();
    pa_usec_t latency = 0;
    int negative = 0;
    // The latency is the age of the oldest sample not yet read, which is the next one peeked.
    std::uint64_t latencyNanoseconds =
        pa_stream_get_latency(stream, &latency, &negative) == 0 && !negative ? latency * 1000 : 0;
    std::uint64_t firstSampleTime = now > latencyNanoseconds ? now - latencyNanoseconds : 0;
    std::uint64_t framesRead = 0;
    while (pa_stream_readable_size(stream) > 0) {
      const void* data = nullptr;
      std::size_t bytes = 0;
      if (pa_stream_peek(stream, &data, &bytes) < 0 || bytes == 0) break;
      std::uint64_t frames = bytes / bytesPerFrame;
      if (data) {
        if (pending.samples.empty())
          pending.hostTimeNanoseconds = firstSampleTime + framesRead * 1'000'000'000ull / sampleRate;
        auto* samples = static_cast<const float*>(data);
        pending.samples.insert(pending.samples.end(), samples, samples + frames * channelCount);
        emitFullBuffers();
      } else {
        // A hole in the stream (an overrun): what was pending cannot be continued in time.
        pending.samples.clear();
      }
      pa_stream_drop(stream);
      framesRead += frames;
    }
  }

  void start() {
    pa_sample_spec format{PA_SAMPLE_FLOAT32LE, sampleRate, channelCount};
    pa_channel_map map;
    pa_channel_map_init_stereo(&map);
    stream = pa_stream_new(connection.context(), "Vumo recording", &format, &map);
    if (!stream)
      throw CaptureError(CaptureError::Case::audioCaptureFailed, pa_strerror(pa_context_errno(connection.context())));
    pa_stream_set_state_callback(
        stream,
        [](pa_stream* s, void* data) {
          auto* state = static_cast<State*>(data);
          signalLoop(state->connection.loop());
          if (!PA_STREAM_IS_GOOD(pa_stream_get_state(s)))
            state->reportEnd(pa_strerror(pa_context_errno(state->connection.context())));
        },
        this);
    pa_stream_set_read_callback(
        stream, [](pa_stream*, std::size_t, void* data) { static_cast<State*>(data)->read(); }, this);
    pa_buffer_attr attributes{};
    attributes.maxlength = std::uint32_t(-1);
    attributes.tlength = std::uint32_t(-1);
    attributes.prebuf = std::uint32_t(-1);
    attributes.minreq = std::uint32_t(-1);
    attributes.fragsize = std::uint32_t(framesPerBuffer * bytesPerFrame);
    auto flags =
        pa_stream_flags_t(PA_STREAM_ADJUST_LATENCY | PA_STREAM_AUTO_TIMING_UPDATE | PA_STREAM_INTERPOLATE_TIMING);
    bool ready = pa_stream_connect_record(stream, source.c_str(), &attributes, flags) >= 0 && connection.waitUntil([&] {
      auto state = pa_stream_get_state(stream);
      return state == PA_STREAM_READY || !PA_STREAM_IS_GOOD(state);
    }) && pa_stream_get_state(stream) == PA_STREAM_READY;
    if (!ready) {
      std::string reason = pa_strerror(pa_context_errno(connection.context()));
      stopping = true;
      release();
      throw CaptureError(CaptureError::Case::audioCaptureFailed, fmt::format("{} ({})", reason, source));
    }
  }

  void release() {
    if (!stream) return;
    pa_stream_set_state_callback(stream, nullptr, nullptr);
    pa_stream_set_read_callback(stream, nullptr, nullptr);
    pa_stream_disconnect(stream);
    pa_stream_unref(stream);
    stream = nullptr;
  }
};

PulseAudioStream::PulseAudioStream(PulseAudioCapture what, const std::string& sourceName, const std::string& server)
    : state_(std::make_unique<State>(what, sourceName, server)) {}

PulseAudioStream::~PulseAudioStream() { stop(); }

const std::string& PulseAudioStream::sourceName() const { return state_->source; }

void PulseAudioStream::start(std::function<void(const AudioBuffer&)> onBuffer, StreamStoppedHandler onStopped) {
  PulseConnection::Locked locked(state_->connection.loop());
  if (state_->stream || state_->stopping) return;
  state_->onBuffer = std::move(onBuffer);
  state_->onStopped = std::move(onStopped);
  state_->start();
  // A server that goes away ends the context, not always the stream.
  pa_context_set_state_callback(
      state_->connection.context(),
      [](pa_context* context, void* data) {
        auto* state = static_cast<State*>(data);
        signalLoop(state->connection.loop());
        if (!PA_CONTEXT_IS_GOOD(pa_context_get_state(context)))
          state->reportEnd(pa_strerror(pa_context_errno(context)));
      },
      state_.get());
}

void PulseAudioStream::stop() {
  PulseConnection::Locked locked(state_->connection.loop());
  state_->stopping = true;
  state_->release();
  pa_context_set_state_callback(
      state_->connection.context(),
      [](pa_context*, void* loop) { signalLoop(static_cast<pa_threaded_mainloop*>(loop)); }, state_->connection.loop());
}

}  // namespace vumo
