// `vumo record --backend portal` of a 1920x1080 screen cast at 60 frames a second for 20 s, without
// sound, as on a Wayland desktop but with everything the desktop would give brought by the
// benchmark: a session bus of its own, the tests' screen-cast portal, PipeWire and WirePlumber on a
// private runtime folder, and the tests' producer in this process, driven at 60 Hz by a thread that
// sends a new picture on every tick (its band of cells spells the tick's number, so every frame
// differs) with the pointer moving in the cursor metadata. Each tick takes a sequence number
// whether its buffer goes out or not, so a frame the producer could not hand over is a gap in
// SPA_META_Header.seq, which the recorder counts among its dropped frames.
//
// Against it, in the same run:
//   - `vumo record --backend x11` of the same picture drawn on a private Xvfb at the same rate
//     (the gradient once, the band every frame), the processor time of the same recording made
//     the other way;
//   - a bare libpipewire consumer in this process that only copies each buffer it is given, the
//     floor of what any screen-cast recorder pays for taking the pictures at all (the processor
//     time of its loop thread).
//
// For each: the frames lost (the recorder's dropped frames and any shortfall against 60 a second;
// the bare loop's gaps in the sequence numbers), processor time (the recorder's user and system
// time from wait4), and the wall time; where the recorder's time goes, by thread, on standard
// error. A smoke run (--benchmark_min_time below 0.1 s) records 2 s instead.

#include <benchmark/benchmark.h>
#include <pipewire/pipewire.h>
#include <spa/buffer/meta.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "recording/screen_painter.h"
#include "recording/thread_sampler.h"
#include "recording_reporter.h"
#include "shared/json.h"
#include "spawn_and_wait.h"
#include "support/desktop_servers.h"
#include "support/fake_screen_cast_portal.h"
#include "support/pipewire_test_servers.h"
#include "support/private_session_bus.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using vumo::bench::MeasuredRun;
using vumo::bench::Scene;
using vumo::bench::ScreenPainter;
using vumo::bench::spawnAndMeasure;
using vumo::bench::ThreadSampler;

constexpr int screenWidth = 1920;
constexpr int screenHeight = 1080;
constexpr int framesPerSecond = 60;

std::string workFolder;
std::string display;
std::uint32_t producerNode = 0;
int recordSeconds = 20;

std::int64_t expectedFrames() { return std::int64_t(recordSeconds) * framesPerSecond; }

std::string readText(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// Sends a new picture on every tick of 60 Hz while a consumer is linked. A tick that is late by more
// than a tick is skipped rather than sent in a burst: a compositor does not make up for lost time.
class ProducerDriver {
 public:
  explicit ProducerDriver(vumo::testing::TestScreencastProducer& producer) : producer_(producer) {
    thread_ = std::jthread([this](std::stop_token stop) { run(stop); });
  }

  // Ticks that took a sequence number, and those of them whose buffer could not go out.
  std::int64_t sent() const { return sent_.load(); }
  std::int64_t unsent() const { return unsent_.load(); }
  // The driving thread's processor time so far: drawing each picture into the producer's buffer.
  double cpuSeconds() const { return double(cpuNanoseconds_.load()) * 1e-9; }

 private:
  void run(std::stop_token stop) {
    const auto period = std::chrono::nanoseconds(1'000'000'000 / framesPerSecond);
    auto next = std::chrono::steady_clock::now();
    std::uint64_t sequence = 1;
    for (std::int64_t tick = 0; !stop.stop_requested(); ++tick) {
      next += period;
      const auto now = std::chrono::steady_clock::now();
      if (now > next + period) next = now;
      std::this_thread::sleep_until(next);
      if (!producer_.waitUntilStreaming(0ms)) continue;
      vumo::testing::ScreencastBuffer buffer;
      buffer.sequence = sequence++;
      buffer.number = std::uint32_t(tick + 1);
      vumo::testing::ScreencastCursor cursor;
      cursor.x = int(tick * 7 % screenWidth);
      cursor.y = int(tick * 3 % screenHeight);
      // Every buffer carries the bitmap, so that a consumer linked at any time has the pointer's image.
      cursor.bitmapColour = std::array<std::uint8_t, 4>{0, 0, 0, 0xFF};
      buffer.cursor = cursor;
      if (producer_.send(buffer)) {
        sent_.fetch_add(1);
      } else {
        unsent_.fetch_add(1);
      }
      timespec used{};
      clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
      cpuNanoseconds_ = std::int64_t(used.tv_sec) * 1'000'000'000 + used.tv_nsec;
    }
  }

  vumo::testing::TestScreencastProducer& producer_;
  std::atomic<std::int64_t> sent_{0};
  std::atomic<std::int64_t> unsent_{0};
  std::atomic<std::int64_t> cpuNanoseconds_{0};
  std::jthread thread_;
};

// The floor: a pw_stream consumer of the producer's node that copies each picture out of its
// buffer into memory of its own, and does nothing else. Its processor time is its loop thread's,
// from its first buffer to its last.
class BareCopyConsumer {
 public:
  explicit BareCopyConsumer(std::uint32_t node) {
    loop_ = pw_thread_loop_new("bare-copy", nullptr);
    context_ = pw_context_new(pw_thread_loop_get_loop(loop_), nullptr, 0);
    pw_thread_loop_start(loop_);
    pw_thread_loop_lock(loop_);
    core_ = pw_context_connect(context_, nullptr, 0);
    if (!core_) {
      pw_thread_loop_unlock(loop_);
      close();
      throw std::runtime_error("the bare consumer cannot reach PipeWire");
    }
    stream_ = pw_stream_new(core_, "bare copy",
                            pw_properties_new(PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY, "Capture",
                                              PW_KEY_MEDIA_ROLE, "Screen", nullptr));
    static const pw_stream_events events = [] {
      pw_stream_events e{};
      e.version = PW_VERSION_STREAM_EVENTS;
      e.param_changed = [](void* data, std::uint32_t id, const spa_pod* param) {
        static_cast<BareCopyConsumer*>(data)->paramChanged(id, param);
      };
      e.process = [](void* data) { static_cast<BareCopyConsumer*>(data)->process(); };
      return e;
    }();
    pw_stream_add_listener(stream_, &listener_, &events, this);
    std::uint8_t bytes[1024];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(bytes, sizeof(bytes));
    spa_rectangle size{screenWidth, screenHeight}, smallest{1, 1}, largest{8192, 8192};
    spa_fraction noRate{0, 1}, rate{framesPerSecond, 1};
    const spa_pod* params[1] = {static_cast<const spa_pod*>(spa_pod_builder_add_object(
        &builder, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat, SPA_FORMAT_mediaType, SPA_POD_Id(SPA_MEDIA_TYPE_video),
        SPA_FORMAT_mediaSubtype, SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw), SPA_FORMAT_VIDEO_format,
        SPA_POD_CHOICE_ENUM_Id(3, SPA_VIDEO_FORMAT_BGRx, SPA_VIDEO_FORMAT_BGRx, SPA_VIDEO_FORMAT_RGBx),
        SPA_FORMAT_VIDEO_size, SPA_POD_CHOICE_RANGE_Rectangle(&size, &smallest, &largest), SPA_FORMAT_VIDEO_framerate,
        SPA_POD_Fraction(&noRate), SPA_FORMAT_VIDEO_maxFramerate,
        SPA_POD_CHOICE_RANGE_Fraction(&rate, &noRate, &rate)))};
    const int result =
        pw_stream_connect(stream_, PW_DIRECTION_INPUT, node,
                          pw_stream_flags(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS), params, 1);
    pw_thread_loop_unlock(loop_);
    if (result < 0) {
      close();
      throw std::runtime_error("the bare consumer cannot connect to the producer's node");
    }
  }
  ~BareCopyConsumer() { close(); }
  BareCopyConsumer(const BareCopyConsumer&) = delete;
  BareCopyConsumer& operator=(const BareCopyConsumer&) = delete;

  // Waits until the first picture came, then for `duration`; false when none came in time.
  bool consumeFor(std::chrono::seconds duration) {
    std::unique_lock guard(lock_);
    if (!changes_.wait_for(guard, 15s, [&] { return frames_ > 0; })) return false;
    guard.unlock();
    std::this_thread::sleep_for(duration);
    return true;
  }
  // Stops taking buffers; the counts are final afterwards.
  void close() {
    if (!loop_) return;
    pw_thread_loop_lock(loop_);
    if (stream_) {
      spa_hook_remove(&listener_);
      pw_stream_destroy(stream_);
      stream_ = nullptr;
    }
    if (core_) {
      pw_core_disconnect(core_);
      core_ = nullptr;
    }
    pw_thread_loop_unlock(loop_);
    pw_thread_loop_stop(loop_);
    pw_context_destroy(context_);
    pw_thread_loop_destroy(loop_);
    loop_ = nullptr;
  }

  std::int64_t frames() const {
    std::lock_guard guard(lock_);
    return frames_;
  }
  std::int64_t sequenceGaps() const {
    std::lock_guard guard(lock_);
    return gaps_;
  }
  double cpuSeconds() const {
    std::lock_guard guard(lock_);
    return double(lastCpu_ - firstCpu_) * 1e-9;
  }

 private:
  static std::int64_t threadCpuNanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return std::int64_t(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
  }

  void paramChanged(std::uint32_t id, const spa_pod* param) {
    if (id != SPA_PARAM_Format || !param) return;
    spa_video_info_raw info{};
    if (spa_format_video_raw_parse(param, &info) < 0) return;
    const int stride = int(info.size.width) * 4;
    std::uint8_t bytes[1024];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(bytes, sizeof(bytes));
    const spa_pod* params[2] = {
        static_cast<const spa_pod*>(spa_pod_builder_add_object(
            &builder, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_buffers,
            SPA_POD_CHOICE_RANGE_Int(8, 2, 16), SPA_PARAM_BUFFERS_blocks, SPA_POD_Int(1), SPA_PARAM_BUFFERS_size,
            SPA_POD_Int(stride * int(info.size.height)), SPA_PARAM_BUFFERS_stride, SPA_POD_Int(stride),
            SPA_PARAM_BUFFERS_dataType, SPA_POD_CHOICE_FLAGS_Int((1 << SPA_DATA_MemFd) | (1 << SPA_DATA_MemPtr)))),
        static_cast<const spa_pod*>(spa_pod_builder_add_object(
            &builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type, SPA_POD_Id(SPA_META_Header),
            SPA_PARAM_META_size, SPA_POD_Int(sizeof(spa_meta_header))))};
    pw_stream_update_params(stream_, params, 2);
  }

  void process() {
    while (pw_buffer* buffer = pw_stream_dequeue_buffer(stream_)) {
      const spa_buffer* b = buffer->buffer;
      const auto* header =
          static_cast<const spa_meta_header*>(spa_buffer_find_meta_data(b, SPA_META_Header, sizeof(spa_meta_header)));
      bool copied = false;
      if (b->n_datas > 0 && b->datas[0].data && b->datas[0].chunk->size > 0) {
        const spa_data& data = b->datas[0];
        const std::uint32_t offset = std::min(data.chunk->offset, data.maxsize);
        const std::uint32_t size = std::min(data.chunk->size, data.maxsize - offset);
        copy_.resize(size);
        std::memcpy(copy_.data(), static_cast<const std::uint8_t*>(data.data) + offset, size);
        copied = true;
      }
      pw_stream_queue_buffer(stream_, buffer);
      {
        std::lock_guard guard(lock_);
        if (header) {
          if (lastSequence_ && header->seq > *lastSequence_ + 1)
            gaps_ += std::int64_t(header->seq - *lastSequence_ - 1);
          lastSequence_ = header->seq;
        }
        if (copied) {
          if (frames_ == 0) firstCpu_ = threadCpuNanoseconds();
          frames_ += 1;
        }
        lastCpu_ = threadCpuNanoseconds();
      }
      changes_.notify_all();
    }
  }

  pw_thread_loop* loop_ = nullptr;
  pw_context* context_ = nullptr;
  pw_core* core_ = nullptr;
  pw_stream* stream_ = nullptr;
  spa_hook listener_{};
  std::vector<std::uint8_t> copy_;

  mutable std::mutex lock_;
  std::condition_variable changes_;
  std::int64_t frames_ = 0;
  std::int64_t gaps_ = 0;
  std::optional<std::uint64_t> lastSequence_;
  std::int64_t firstCpu_ = 0;
  std::int64_t lastCpu_ = 0;
};

// The producer's driver, made once in main with the servers and shared by the benchmarks.
ProducerDriver* driver = nullptr;

void reportLoss(benchmark::State& state, std::int64_t frames, std::int64_t lost, std::int64_t sequenceGaps) {
  state.counters["frames"] = double(frames);
  state.counters["lost_frames"] = double(lost);
  state.counters["lost_share"] = double(lost) / double(expectedFrames());
  state.counters["seq_gaps"] = double(sequenceGaps);
}

struct RecorderOutcome {
  std::int64_t frames = 0;
  std::int64_t dropped = 0;  // the recorder's own count, gaps in the sequence numbers included
};

// One `vumo record` with the given backend; false (and the benchmark fails) when it did not succeed.
bool recordWithVumo(benchmark::State& state, const std::string& backend, const char* what) {
  ThreadSampler threads;
  const std::string output = workFolder + "/vumo-" + backend + ".json";
  const std::int64_t unsentBefore = driver->unsent();
  const double producerBefore = driver->cpuSeconds();
  const MeasuredRun run =
      spawnAndMeasure({vumo::bench::vumoExecutable(VUMO_EXECUTABLE), "record", "--backend", backend, "--fps",
                       std::to_string(framesPerSecond), "--duration", std::to_string(recordSeconds)},
                      output, [&](pid_t pid) { threads.sample(pid); });
  if (run.status != 0) {
    state.SkipWithError(("vumo record --backend " + backend + " failed").c_str());
    return false;
  }
  RecorderOutcome outcome;
  try {
    const vumo::Json answer = vumo::Json::parse(readText(output));
    outcome.frames = answer.at("videoFrames").get<std::int64_t>();
    outcome.dropped = answer.at("droppedVideoFrames").get<std::int64_t>();
  } catch (const std::exception& error) {
    state.SkipWithError(error.what());
    return false;
  }
  state.SetIterationTime(run.wallSeconds);
  state.counters[vumo::bench::processCpuCounter] = run.cpuSeconds();
  state.counters["sys_s"] = run.systemSeconds;
  // What the picture cost to make meanwhile, on the same processors (nothing when no one is linked).
  state.counters["producer_cpu_s"] = driver->cpuSeconds() - producerBefore;
  state.counters["cpu_ms_per_frame"] = outcome.frames > 0 ? run.cpuSeconds() * 1e3 / double(outcome.frames) : 0;
  // The producer's unsent ticks are the gaps the recorder saw in the sequence numbers.
  reportLoss(state, outcome.frames, std::max(outcome.dropped, expectedFrames() - outcome.frames),
             backend == "portal" ? driver->unsent() - unsentBefore : 0);
  std::fprintf(stderr, "%s: processor time by thread: %s\n", what, threads.summary().c_str());
  return true;
}

void BM_VumoRecordPortal(benchmark::State& state) {
  for (auto _ : state)
    if (!recordWithVumo(state, "portal", "vumo record --backend portal")) return;
}

void BM_VumoRecordX11SamePicture(benchmark::State& state) {
  std::unique_ptr<ScreenPainter> painter;
  try {
    painter =
        std::make_unique<ScreenPainter>(display, Scene::screencastPattern, screenWidth, screenHeight, framesPerSecond);
  } catch (const std::exception& error) {
    state.SkipWithError(error.what());
    return;
  }
  for (auto _ : state)
    if (!recordWithVumo(state, "x11", "vumo record --backend x11")) return;
}

void BM_BarePipeWireCopyLoop(benchmark::State& state) {
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    std::unique_ptr<BareCopyConsumer> consumer;
    try {
      consumer = std::make_unique<BareCopyConsumer>(producerNode);
    } catch (const std::exception& error) {
      state.SkipWithError(error.what());
      return;
    }
    if (!consumer->consumeFor(std::chrono::seconds(recordSeconds))) {
      state.SkipWithError("the bare consumer got no picture");
      return;
    }
    consumer->close();
    state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    state.counters[vumo::bench::processCpuCounter] = consumer->cpuSeconds();
    state.counters["cpu_ms_per_frame"] =
        consumer->frames() > 0 ? consumer->cpuSeconds() * 1e3 / double(consumer->frames()) : 0;
    reportLoss(state, consumer->frames(), consumer->sequenceGaps(), consumer->sequenceGaps());
  }
}

}  // namespace

// One recording of each: 20 s apiece already averages over 1,200 frames.
BENCHMARK(BM_BarePipeWireCopyLoop)->Unit(benchmark::kSecond)->Iterations(1)->Repetitions(1)->UseManualTime();
BENCHMARK(BM_VumoRecordPortal)->Unit(benchmark::kSecond)->Iterations(1)->Repetitions(1)->UseManualTime();
BENCHMARK(BM_VumoRecordX11SamePicture)->Unit(benchmark::kSecond)->Iterations(1)->Repetitions(1)->UseManualTime();

int main(int argc, char** argv) {
  char pattern[] = "/tmp/vumo-portal-recording-bench-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) return 1;
  workFolder = pattern;
  for (const char* variable : {"XDG_DATA_HOME", "XDG_CACHE_HOME", "XDG_CONFIG_HOME", "HOME"})
    ::setenv(variable, (workFolder + "/" + variable).c_str(), 1);
  // The backends are named on the command line; nothing of a desktop this runs in may leak in.
  for (const char* variable : {"WAYLAND_DISPLAY", "XDG_SESSION_TYPE"}) ::unsetenv(variable);
  if (vumo::bench::isSmokeRun(argc, argv)) recordSeconds = 2;
  int status = 1;
  {
    std::unique_ptr<vumo::testing::XvfbServer> xvfb;
    std::unique_ptr<vumo::testing::PrivateSessionBus> bus;
    std::unique_ptr<vumo::testing::PipeWireTestServers> servers;
    std::unique_ptr<vumo::testing::TestScreencastProducer> producer;
    std::unique_ptr<vumo::testing::FakeScreenCastPortal> portal;
    std::unique_ptr<ProducerDriver> producerDriver;
    try {
      xvfb = std::make_unique<vumo::testing::XvfbServer>(screenWidth, screenHeight);
      bus = std::make_unique<vumo::testing::PrivateSessionBus>();
      servers = std::make_unique<vumo::testing::PipeWireTestServers>(bus->address());
      vumo::testing::ScreencastProducerOptions options;
      options.width = screenWidth;
      options.height = screenHeight;
      options.framesPerSecond = framesPerSecond;
      producer = std::make_unique<vumo::testing::TestScreencastProducer>(options);
      producerNode = producer->nodeID();
      vumo::testing::FakeScreenCastPortalOptions portalOptions;
      portalOptions.pipeWireSocket = servers->runtimeFolder() / "pipewire-0";
      portalOptions.streams = {{producerNode, std::pair{0, 0}, std::pair{screenWidth, screenHeight}, 1}};
      portal = std::make_unique<vumo::testing::FakeScreenCastPortal>(bus->address(), portalOptions);
      producerDriver = std::make_unique<ProducerDriver>(*producer);
    } catch (const std::exception& error) {
      std::fprintf(stderr, "cannot prepare the portal recording benchmark: %s\n", error.what());
      return 1;
    }
    driver = producerDriver.get();
    display = xvfb->display();
    ::setenv("DISPLAY", display.c_str(), 1);
    using vumo::bench::Clock;
    auto ratio = [](std::string label, std::string numerator, std::string denominator, Clock clock,
                    std::string counter = {}, double floor = 0) {
      vumo::bench::Ratio made{std::move(label), std::move(numerator), std::move(denominator)};
      made.clock = clock;
      made.counter = std::move(counter);
      made.floor = floor;
      return made;
    };
    status = vumo::bench::runAndCompare(
        argc, argv,
        {ratio("processor time, vumo record --backend portal / --backend x11, same picture", "BM_VumoRecordPortal",
               "BM_VumoRecordX11SamePicture", Clock::process),
         ratio("processor time per frame kept, portal / x11", "BM_VumoRecordPortal", "BM_VumoRecordX11SamePicture",
               Clock::counter, "cpu_ms_per_frame"),
         ratio("processor time, vumo record --backend portal / bare copy loop (floor)", "BM_VumoRecordPortal",
               "BM_BarePipeWireCopyLoop", Clock::process),
         ratio("lost frames, portal / max(1 %, bare copy loop's share)", "BM_VumoRecordPortal",
               "BM_BarePipeWireCopyLoop", Clock::counter, "lost_share", 0.01)});
    driver = nullptr;
  }
  std::error_code ignored;
  fs::remove_all(workFolder, ignored);
  return status;
}
