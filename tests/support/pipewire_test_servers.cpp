#include "support/pipewire_test_servers.h"

#include <pipewire/pipewire.h>
#include <spa/buffer/meta.h>
#include <spa/node/io.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>
#include <time.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace vumo::testing {

namespace {

using namespace std::chrono_literals;

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < deadline) {
    if (condition()) return true;
    std::this_thread::sleep_for(50ms);
  }
  return condition();
}

std::int64_t monotonicNow() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::int64_t(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

constexpr int cursorMetaSize(int side) {
  return int(sizeof(spa_meta_cursor) + sizeof(spa_meta_bitmap)) + side * side * 4;
}
constexpr int maximumCursorSide = 64;

}  // namespace

// ---- Servers ----

PipeWireTestServers::PipeWireTestServers(const std::string& sessionBusAddress) {
  auto pipewire = requireProgram("pipewire", "pipewire-bin");
  auto wireplumber = requireProgram("wireplumber", "wireplumber");
  const auto& root = folder_.path();
  std::filesystem::create_directories(root / "config");
  // No devices: the session manager's monitors of sound cards, cameras and Bluetooth would look
  // at the machine's hardware and buses, which a test has no business with.
  std::filesystem::create_directories(root / "config/wireplumber/main.lua.d");
  std::filesystem::create_directories(root / "config/wireplumber/bluetooth.lua.d");
  std::ofstream(root / "config/wireplumber/main.lua.d/80-vumo-test.lua")
      << "alsa_monitor.enabled = false\nv4l2_monitor.enabled = false\nlibcamera_monitor.enabled = false\n";
  std::ofstream(root / "config/wireplumber/bluetooth.lua.d/80-vumo-test.lua") << "bluez_monitor.enabled = false\n";
  std::filesystem::create_directories(root / "state");
  std::filesystem::permissions(root, std::filesystem::perms::owner_all, std::filesystem::perm_options::replace);

  busAddress_ = sessionBusAddress;
  if (busAddress_.empty()) {
    auto daemon = requireProgram("dbus-daemon", "dbus-daemon");
    busAddress_ = "unix:path=" + (root / "bus").string();
    bus_ = std::make_unique<BackgroundProcess>(
        std::vector<std::string>{daemon.string(), "--session", "--nofork", "--nopidfile", "--address=" + busAddress_},
        std::vector<std::string>{}, root / "dbus.log");
    if (!waitUntil([&] { return !bus_->running() || std::filesystem::exists(root / "bus"); }, 10s) || !bus_->running())
      throw std::runtime_error("dbus-daemon did not start; see its log in " + root.string());
  }
  for (const auto& entry : environment()) {
    auto equals = entry.find('=');
    variables_.push_back(
        std::make_unique<ScopedEnvironmentVariable>(entry.substr(0, equals), entry.substr(equals + 1)));
  }
  // Nothing of the user's session may leak in.
  for (const char* name : {"PIPEWIRE_REMOTE", "PIPEWIRE_CONFIG_DIR", "WIREPLUMBER_CONFIG_DIR"})
    variables_.push_back(std::make_unique<ScopedEnvironmentVariable>(name, std::nullopt));

  pipewire_ = std::make_unique<BackgroundProcess>(std::vector<std::string>{pipewire.string()},
                                                  std::vector<std::string>{}, root / "pipewire.log");
  if (!waitUntil([&] { return !pipewire_->running() || std::filesystem::exists(root / "pipewire-0"); }, 10s) ||
      !pipewire_->running())
    throw std::runtime_error("pipewire did not start; see its log in " + root.string());
  wireplumber_ = std::make_unique<BackgroundProcess>(std::vector<std::string>{wireplumber.string()},
                                                     std::vector<std::string>{}, root / "wireplumber.log");
  // WirePlumber is ready once it has published its default-node metadata.
  auto cli = requireProgram("pw-cli", "pipewire-bin");
  bool ready = waitUntil(
      [&] {
        if (!wireplumber_->running()) return true;
        ProcessLaunch launch;
        launch.words = {cli.string(), "ls", "Metadata"};
        launch.timeout = 5s;
        ProcessResult result = run(launch);
        return result.standardOutput.find("\"default\"") != std::string::npos;
      },
      15s);
  if (!ready || !wireplumber_->running())
    throw std::runtime_error("wireplumber did not start; see its log in " + root.string());
}

PipeWireTestServers::~PipeWireTestServers() {
  wireplumber_.reset();
  pipewire_.reset();
  bus_.reset();
}

std::vector<std::string> PipeWireTestServers::environment() const {
  const std::string root = folder_.path().string();
  return {"XDG_RUNTIME_DIR=" + root,
          "PIPEWIRE_RUNTIME_DIR=" + root,
          "HOME=" + root,
          "XDG_CONFIG_HOME=" + root + "/config",
          "XDG_STATE_HOME=" + root + "/state",
          "DBUS_SESSION_BUS_ADDRESS=" + busAddress_};
}

// ---- Pattern ----

void fillScreencastPattern(std::uint8_t* pixels, int width, int height, int stride, std::uint32_t number,
                           bool rgbOrder) {
  int band = std::max(1, height / 4);
  for (int y = 0; y < height; ++y) {
    std::uint8_t* row = pixels + std::size_t(stride) * std::size_t(y);
    for (int x = 0; x < width; ++x) {
      std::array<std::uint8_t, 4> bgra;
      if (y < band) {
        int cell = std::min(screencastPatternCells - 1, x * screencastPatternCells / width);
        bool set = (number >> (screencastPatternCells - 1 - cell)) & 1;
        std::uint8_t value = set ? 0xFF : 0x00;
        bgra = {value, value, value, 0xFF};
      } else {
        bgra = screencastPatternBackground(x, y, width, height);
      }
      std::uint8_t* pixel = row + std::size_t(x) * 4;
      pixel[0] = rgbOrder ? bgra[2] : bgra[0];
      pixel[1] = bgra[1];
      pixel[2] = rgbOrder ? bgra[0] : bgra[2];
      pixel[3] = 0x00;  // the X of BGRx: a consumer must not take it for alpha
    }
  }
}

std::array<std::uint8_t, 4> screencastPatternBackground(int x, int y, int width, int height) {
  return {std::uint8_t(x * 255 / std::max(1, width - 1)), std::uint8_t(y * 255 / std::max(1, height - 1)),
          screencastPatternRed, 0xFF};
}

std::optional<std::uint32_t> readScreencastPattern(const std::uint8_t* bgra, int width, int height, int stride) {
  if (width < screencastPatternCells || height < 4) return std::nullopt;
  int y = std::max(1, height / 4) / 2;
  std::uint32_t number = 0;
  for (int cell = 0; cell < screencastPatternCells; ++cell) {
    int x = (2 * cell + 1) * width / (2 * screencastPatternCells);
    const std::uint8_t* pixel = bgra + std::size_t(stride) * std::size_t(y) + std::size_t(x) * 4;
    int level = (pixel[0] + pixel[1] + pixel[2]) / 3;
    if (level > 96 && level < 160) return std::nullopt;  // neither black nor white: not the band
    number = (number << 1) | (level >= 160 ? 1u : 0u);
  }
  return number;
}

// ---- Producer ----

struct TestScreencastProducer::State {
  ScreencastProducerOptions options;
  pw_thread_loop* loop = nullptr;
  pw_context* context = nullptr;
  pw_core* core = nullptr;
  pw_stream* stream = nullptr;
  spa_hook listener{};

  std::mutex lock;
  std::condition_variable changes;
  pw_stream_state state = PW_STREAM_STATE_UNCONNECTED;
  std::uint64_t sequence = 0;
  bool sentAny = false;
  ScreencastCursor cursor;
  // Cycles of the graph this producer started, and those that are over.
  std::uint64_t cyclesStarted = 0;
  std::uint64_t cyclesDone = 0;

  void triggerDone() {
    {
      std::lock_guard guard(lock);
      cyclesDone += 1;
    }
    changes.notify_all();
  }

  void fill(spa_buffer* b, const ScreencastBuffer& plan) {
    std::uint64_t sequenceNumber;
    {
      std::lock_guard guard(lock);
      sequenceNumber = plan.sequence.value_or(sentAny ? sequence + 1 : 1);
      sequence = sequenceNumber;
      sentAny = true;
    }
    if (auto* header =
            static_cast<spa_meta_header*>(spa_buffer_find_meta_data(b, SPA_META_Header, sizeof(spa_meta_header)))) {
      header->flags = plan.corrupted ? SPA_META_HEADER_FLAG_CORRUPTED : 0;
      header->offset = 0;
      header->pts = plan.pts.value_or(monotonicNow());
      header->dts_offset = 0;
      header->seq = sequenceNumber;
    }
    if (auto* crop =
            static_cast<spa_meta_region*>(spa_buffer_find_meta_data(b, SPA_META_VideoCrop, sizeof(spa_meta_region)))) {
      if (plan.crop) {
        crop->region.position = spa_point{(*plan.crop)[0], (*plan.crop)[1]};
        crop->region.size = spa_rectangle{std::uint32_t((*plan.crop)[2]), std::uint32_t((*plan.crop)[3])};
      } else {
        crop->region = spa_region{};
      }
    }
    writeCursor(b, plan.cursor);
    spa_data& data = b->datas[0];
    int stride = options.width * 4;
    data.chunk->offset = 0;
    data.chunk->stride = stride;
    data.chunk->flags = plan.corrupted ? SPA_CHUNK_FLAG_CORRUPTED : SPA_CHUNK_FLAG_NONE;
    if (plan.picture && data.data && data.maxsize >= std::uint32_t(stride * options.height)) {
      fillScreencastPattern(static_cast<std::uint8_t*>(data.data), options.width, options.height, stride,
                            plan.number.value_or(std::uint32_t(sequenceNumber)), options.rgbOrder);
      data.chunk->size = std::uint32_t(stride * options.height);
    } else {
      data.chunk->size = 0;
    }
  }

  void stateChanged(pw_stream_state next) {
    {
      std::lock_guard guard(lock);
      state = next;
    }
    changes.notify_all();
  }

  void paramChanged(std::uint32_t id, const spa_pod* param) {
    if (id != SPA_PARAM_Format || !param) return;
    std::uint8_t bytes[1024];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(bytes, sizeof(bytes));
    const spa_pod* params[4];
    int stride = options.width * 4;
    std::uint32_t count = 0;
    params[count++] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
        &builder, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_buffers,
        SPA_POD_CHOICE_RANGE_Int(8, 2, 16), SPA_PARAM_BUFFERS_blocks, SPA_POD_Int(1), SPA_PARAM_BUFFERS_size,
        SPA_POD_Int(stride * options.height), SPA_PARAM_BUFFERS_stride, SPA_POD_Int(stride), SPA_PARAM_BUFFERS_dataType,
        SPA_POD_CHOICE_FLAGS_Int(1 << SPA_DATA_MemFd)));
    params[count++] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
        &builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type, SPA_POD_Id(SPA_META_Header),
        SPA_PARAM_META_size, SPA_POD_Int(sizeof(spa_meta_header))));
    params[count++] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
        &builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type, SPA_POD_Id(SPA_META_VideoCrop),
        SPA_PARAM_META_size, SPA_POD_Int(sizeof(spa_meta_region))));
    if (options.cursorMetadata)
      params[count++] = static_cast<const spa_pod*>(
          spa_pod_builder_add_object(&builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type,
                                     SPA_POD_Id(SPA_META_Cursor), SPA_PARAM_META_size,
                                     SPA_POD_CHOICE_RANGE_Int(cursorMetaSize(maximumCursorSide), cursorMetaSize(1),
                                                              cursorMetaSize(maximumCursorSide))));
    pw_stream_update_params(stream, params, count);
  }

  void writeCursor(spa_buffer* buffer, const std::optional<ScreencastCursor>& change) {
    spa_meta* meta = spa_buffer_find_meta(buffer, SPA_META_Cursor);
    if (!meta || meta->size < sizeof(spa_meta_cursor)) return;
    if (change) cursor = *change;
    auto* out = static_cast<spa_meta_cursor*>(meta->data);
    out->id = cursor.id;
    out->flags = 0;
    out->position = spa_point{cursor.x, cursor.y};
    out->hotspot = spa_point{cursor.hotX, cursor.hotY};
    out->bitmap_offset = 0;
    int side = std::min(cursor.bitmapSide, maximumCursorSide);
    if (!change || !change->bitmapColour || std::uint64_t(cursorMetaSize(side)) > meta->size) return;
    out->bitmap_offset = sizeof(spa_meta_cursor);
    auto* bitmap = SPA_PTROFF(out, out->bitmap_offset, spa_meta_bitmap);
    bitmap->format = change->bitmapAsRGBA ? SPA_VIDEO_FORMAT_RGBA : SPA_VIDEO_FORMAT_BGRA;
    bitmap->size = spa_rectangle{std::uint32_t(side), std::uint32_t(side)};
    bitmap->stride = side * 4;
    bitmap->offset = sizeof(spa_meta_bitmap);
    auto* pixels = SPA_PTROFF(bitmap, bitmap->offset, std::uint8_t);
    const auto& c = *change->bitmapColour;
    for (int i = 0; i < side * side; ++i) {
      pixels[i * 4 + 0] = change->bitmapAsRGBA ? c[2] : c[0];
      pixels[i * 4 + 1] = c[1];
      pixels[i * 4 + 2] = change->bitmapAsRGBA ? c[0] : c[2];
      pixels[i * 4 + 3] = c[3];
    }
  }
};

TestScreencastProducer::TestScreencastProducer(ScreencastProducerOptions options) : state_(std::make_unique<State>()) {
  static std::once_flag once;
  std::call_once(once, [] { pw_init(nullptr, nullptr); });
  State& s = *state_;
  s.options = options;
  s.loop = pw_thread_loop_new("test-producer", nullptr);
  s.context = pw_context_new(pw_thread_loop_get_loop(s.loop), nullptr, 0);
  pw_thread_loop_start(s.loop);
  pw_thread_loop_lock(s.loop);
  s.core = pw_context_connect(s.context, nullptr, 0);
  if (!s.core) {
    pw_thread_loop_unlock(s.loop);
    throw std::runtime_error("the test producer cannot reach PipeWire");
  }
  s.stream = pw_stream_new(s.core, options.name.c_str(),
                           pw_properties_new(PW_KEY_MEDIA_CLASS, "Video/Source", PW_KEY_MEDIA_TYPE, "Video",
                                             PW_KEY_MEDIA_CATEGORY, "Source", PW_KEY_MEDIA_ROLE, "Screen", nullptr));
  static const pw_stream_events events = [] {
    pw_stream_events e{};
    e.version = PW_VERSION_STREAM_EVENTS;
    e.state_changed = [](void* data, pw_stream_state, pw_stream_state state, const char*) {
      static_cast<State*>(data)->stateChanged(state);
    };
    e.param_changed = [](void* data, std::uint32_t id, const spa_pod* param) {
      static_cast<State*>(data)->paramChanged(id, param);
    };
    e.trigger_done = [](void* data) { static_cast<State*>(data)->triggerDone(); };
    return e;
  }();
  pw_stream_add_listener(s.stream, &s.listener, &events, &s);
  std::uint8_t bytes[1024];
  spa_pod_builder builder = SPA_POD_BUILDER_INIT(bytes, sizeof(bytes));
  spa_rectangle size{std::uint32_t(options.width), std::uint32_t(options.height)};
  spa_fraction noRate{0, 1}, rate{std::uint32_t(options.framesPerSecond), 1};
  const spa_pod* params[1] = {static_cast<const spa_pod*>(spa_pod_builder_add_object(
      &builder, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat, SPA_FORMAT_mediaType, SPA_POD_Id(SPA_MEDIA_TYPE_video),
      SPA_FORMAT_mediaSubtype, SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw), SPA_FORMAT_VIDEO_format,
      SPA_POD_Id(options.rgbOrder ? SPA_VIDEO_FORMAT_RGBx : SPA_VIDEO_FORMAT_BGRx), SPA_FORMAT_VIDEO_size,
      SPA_POD_Rectangle(&size), SPA_FORMAT_VIDEO_framerate, SPA_POD_Fraction(&noRate), SPA_FORMAT_VIDEO_maxFramerate,
      SPA_POD_CHOICE_RANGE_Fraction(&rate, &noRate, &rate)))};
  int result = pw_stream_connect(s.stream, PW_DIRECTION_OUTPUT, PW_ID_ANY,
                                 pw_stream_flags(PW_STREAM_FLAG_DRIVER | PW_STREAM_FLAG_MAP_BUFFERS), params, 1);
  pw_thread_loop_unlock(s.loop);
  if (result < 0) throw std::runtime_error("the test producer's stream cannot connect");
}

TestScreencastProducer::~TestScreencastProducer() {
  disconnect();
  State& s = *state_;
  pw_thread_loop_stop(s.loop);
  pw_context_destroy(s.context);
  pw_thread_loop_destroy(s.loop);
}

void TestScreencastProducer::disconnect() {
  State& s = *state_;
  pw_thread_loop_lock(s.loop);
  if (s.stream) {
    spa_hook_remove(&s.listener);
    pw_stream_destroy(s.stream);
    s.stream = nullptr;
  }
  if (s.core) {
    pw_core_disconnect(s.core);
    s.core = nullptr;
  }
  pw_thread_loop_unlock(s.loop);
}

std::uint32_t TestScreencastProducer::nodeID() {
  State& s = *state_;
  {
    std::unique_lock guard(s.lock);
    if (!s.changes.wait_for(guard, 10s,
                            [&] {
                              return s.state == PW_STREAM_STATE_PAUSED || s.state == PW_STREAM_STATE_STREAMING ||
                                     s.state == PW_STREAM_STATE_ERROR;
                            }) ||
        s.state == PW_STREAM_STATE_ERROR)
      throw std::runtime_error("the test producer's node was not registered");
  }
  pw_thread_loop_lock(s.loop);
  std::uint32_t id = s.stream ? pw_stream_get_node_id(s.stream) : SPA_ID_INVALID;
  pw_thread_loop_unlock(s.loop);
  return id;
}

bool TestScreencastProducer::waitUntilStreaming(std::chrono::milliseconds timeout) {
  State& s = *state_;
  std::unique_lock guard(s.lock);
  return s.changes.wait_for(guard, timeout, [&] { return s.state == PW_STREAM_STATE_STREAMING; });
}

std::uint64_t TestScreencastProducer::lastSequence() const {
  std::lock_guard guard(state_->lock);
  return state_->sequence;
}

bool TestScreencastProducer::send(const ScreencastBuffer& plan) {
  State& s = *state_;
  // One buffer a cycle of the graph, and the next only once the cycle that carried the previous
  // one is over: a buffer queued meanwhile would overwrite the one still in the port.
  pw_thread_loop_lock(s.loop);
  pw_buffer* buffer = s.stream ? pw_stream_dequeue_buffer(s.stream) : nullptr;
  if (!buffer) {
    pw_thread_loop_unlock(s.loop);
    return false;
  }
  s.fill(buffer->buffer, plan);
  std::uint64_t cycle;
  {
    std::lock_guard guard(s.lock);
    cycle = ++s.cyclesStarted;
  }
  pw_stream_queue_buffer(s.stream, buffer);
  pw_stream_trigger_process(s.stream);
  pw_thread_loop_unlock(s.loop);
  std::unique_lock guard(s.lock);
  s.changes.wait_for(guard, 1s, [&] { return s.cyclesDone >= cycle; });
  s.cyclesDone = std::max(s.cyclesDone, cycle);
  return true;
}

}  // namespace vumo::testing
