#include "capture/pipewire_screen_stream.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <pipewire/pipewire.h>
#include <pthread.h>
#include <spa/buffer/meta.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include "capture/capture_error.h"
#include "capture/pixel_buffer_pool.h"
#include "capture/x11_cursor_shape_provider.h"

namespace vumo {

namespace {

constexpr std::uint64_t nanosecondsPerSecond = 1'000'000'000;
// Buffers kept for reuse; the writer holds a few frames at a time.
constexpr std::size_t pooledBuffers = 8;
// How long the constructor waits for the node to be linked and to agree on a format.
constexpr auto negotiationTimeout = std::chrono::seconds(10);
// Pictures beyond this are not a screen.
constexpr int maximumSide = 16384;
// Cursor bitmaps the producer may send, as a range: a fixed size would refuse a large pointer.
constexpr int maximumCursorSide = 1024;
constexpr int preferredCursorSide = 64;

constexpr int cursorMetaSize(int width, int height) {
  return int(sizeof(spa_meta_cursor) + sizeof(spa_meta_bitmap)) + width * height * 4;
}

[[noreturn]] void throwCaptureFailed(const std::string& detail) {
  throw CaptureError(CaptureError::Case::screenCaptureFailed, detail);
}

std::exception_ptr captureFailure(const std::string& detail) {
  return std::make_exception_ptr(CaptureError(CaptureError::Case::screenCaptureFailed, detail));
}

void initialisePipeWire() {
  static std::once_flag once;
  std::call_once(once, [] { pw_init(nullptr, nullptr); });
}

struct PodBuffer {
  std::uint8_t bytes[1024];
  spa_pod_builder builder = SPA_POD_BUILDER_INIT(bytes, sizeof(bytes));
};

}  // namespace

struct PipeWireScreenStream::Shared {
  PipeWireScreenStreamConfiguration configuration;
  std::uint64_t framesPerSecond = 30;

  // PipeWire's objects; touched with the thread loop locked, or from its callbacks.
  pw_thread_loop* loop = nullptr;
  pw_context* context = nullptr;
  pw_core* core = nullptr;
  pw_registry* registry = nullptr;
  pw_stream* stream = nullptr;
  spa_hook coreListener{};
  spa_hook registryListener{};
  spa_hook streamListener{};
  bool wasConnected = false;

  // Format and end, guarded by `lock`; `changes` wakes the constructor and the ticker.
  std::mutex lock;
  std::condition_variable changes;
  bool stopping = false;
  bool hasFormat = false;
  bool streaming = false;
  spa_video_format format = SPA_VIDEO_FORMAT_UNKNOWN;
  PixelSize streamSize;
  PixelSize encodedSize;
  std::exception_ptr ended;
  bool endReported = false;

  // Delivery, guarded by `deliveryLock`: frames come from the loop thread and repeats from the
  // ticker, one at a time.
  std::mutex deliveryLock;
  std::function<void(const VideoFrame&)> onFrame;
  StreamStoppedHandler onStopped;
  bool started = false;
  PixelBufferPool pool{pooledBuffers};
  VideoFrame last;
  bool lastDelivered = false;
  std::uint64_t lastNewFrameHost = 0;  // when the last buffer with a picture was delivered
  std::optional<std::int64_t> lastPTS;
  bool lastLineUsable = false;  // whether the last picture's presentation time was its own pts
  std::optional<std::uint64_t> lastSequence;

  std::thread ticker;
  std::atomic<std::int64_t> missed{0};
  std::atomic<std::int64_t> dropped{0};
  std::atomic<std::int64_t> discontinuities{0};
  std::atomic<std::int64_t> pointerOnly{0};

  // The pointer, guarded by `pointerLock`.
  std::mutex pointerLock;
  std::function<void(const PointerEvent&)> onPointer;
  bool pointerInside = false;
  PointValue pointerGlobal;
  std::optional<PointValue> pointerPosition;  // in stream pixels
  std::vector<MouseButton> heldButtons;
  std::optional<CapturedCursorShape> shape;
  std::string lastBitmap;

  explicit Shared(PipeWireScreenStreamConfiguration configuration_)
      : configuration(std::move(configuration_)),
        framesPerSecond(std::uint64_t(std::clamp(configuration.framesPerSecond, 1, 240))),
        encodedSize(configuration.encodedSize) {
    // The film's sides must be even; a size given odd loses its last row or column.
    if (encodedSize.width > 0 && encodedSize.height > 0)
      encodedSize = PixelSize{std::max<std::int64_t>(2, encodedSize.width & ~std::int64_t(1)),
                              std::max<std::int64_t>(2, encodedSize.height & ~std::int64_t(1))};
  }

  // ---- Set-up and tear-down (owner's thread) ----

  void connect() {
    initialisePipeWire();
    loop = pw_thread_loop_new("Vumo.PipeWire", nullptr);
    if (!loop) throwCaptureFailed("no PipeWire loop");
    context = pw_context_new(pw_thread_loop_get_loop(loop), nullptr, 0);
    if (!context) throwCaptureFailed("no PipeWire context");
    if (pw_thread_loop_start(loop) < 0) throwCaptureFailed("the PipeWire loop did not start");
    pw_thread_loop_lock(loop);
    try {
      connectLocked();
    } catch (...) {
      pw_thread_loop_unlock(loop);
      throw;
    }
    pw_thread_loop_unlock(loop);
  }

  void connectLocked() {
    if (configuration.remoteFileDescriptor >= 0) {
      int fd = fcntl(configuration.remoteFileDescriptor, F_DUPFD_CLOEXEC, 3);
      if (fd < 0) throwCaptureFailed("the PipeWire remote of the screen cast cannot be used");
      core = pw_context_connect_fd(context, fd, nullptr, 0);
    } else {
      core = pw_context_connect(context, nullptr, 0);
    }
    if (!core) throwCaptureFailed(fmt::format("PipeWire cannot be reached: {}", std::strerror(errno)));

    static const pw_core_events coreEvents = [] {
      pw_core_events events{};
      events.version = PW_VERSION_CORE_EVENTS;
      events.error = [](void* data, std::uint32_t id, int, int res, const char* message) {
        if (id == PW_ID_CORE && res == -EPIPE)
          static_cast<Shared*>(data)->end(captureFailure("the connection to PipeWire was lost"));
        else if (id == PW_ID_CORE)
          static_cast<Shared*>(data)->end(captureFailure(fmt::format("PipeWire failed: {}", message ? message : "")));
      };
      return events;
    }();
    pw_core_add_listener(core, &coreListener, &coreEvents, this);

    // The node's removal is the surest sign that the desktop stopped sharing, whatever the
    // session manager does with the link.
    registry = pw_core_get_registry(core, PW_VERSION_REGISTRY, 0);
    static const pw_registry_events registryEvents = [] {
      pw_registry_events events{};
      events.version = PW_VERSION_REGISTRY_EVENTS;
      events.global_remove = [](void* data, std::uint32_t id) {
        auto* self = static_cast<Shared*>(data);
        if (id == self->configuration.nodeID)
          self->end(captureFailure("the screen-cast stream ended (the desktop stopped sharing)"));
      };
      return events;
    }();
    pw_registry_add_listener(registry, &registryListener, &registryEvents, this);

    pw_properties* properties =
        pw_properties_new(PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY, "Capture", PW_KEY_MEDIA_ROLE, "Screen",
                          PW_KEY_NODE_DONT_RECONNECT, "true", nullptr);
    stream = pw_stream_new(core, "Vumo screen", properties);
    if (!stream) throwCaptureFailed("no PipeWire stream");
    static const pw_stream_events streamEvents = [] {
      pw_stream_events events{};
      events.version = PW_VERSION_STREAM_EVENTS;
      events.state_changed = [](void* data, pw_stream_state, pw_stream_state state, const char* error) {
        static_cast<Shared*>(data)->stateChanged(state, error);
      };
      events.param_changed = [](void* data, std::uint32_t id, const spa_pod* param) {
        static_cast<Shared*>(data)->paramChanged(id, param);
      };
      events.process = [](void* data) { static_cast<Shared*>(data)->process(); };
      return events;
    }();
    pw_stream_add_listener(stream, &streamListener, &streamEvents, this);

    PodBuffer pod;
    const spa_pod* params[1];
    spa_rectangle defaultSize{1920, 1080}, minimumSize{1, 1}, maximumSize{maximumSide, maximumSide};
    spa_fraction noRate{0, 1}, maximumRate{std::uint32_t(framesPerSecond), 1};
    params[0] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
        &pod.builder, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat, SPA_FORMAT_mediaType,
        SPA_POD_Id(SPA_MEDIA_TYPE_video), SPA_FORMAT_mediaSubtype, SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw),
        SPA_FORMAT_VIDEO_format,
        SPA_POD_CHOICE_ENUM_Id(5, SPA_VIDEO_FORMAT_BGRx, SPA_VIDEO_FORMAT_BGRx, SPA_VIDEO_FORMAT_BGRA,
                               SPA_VIDEO_FORMAT_RGBx, SPA_VIDEO_FORMAT_RGBA),
        SPA_FORMAT_VIDEO_size, SPA_POD_CHOICE_RANGE_Rectangle(&defaultSize, &minimumSize, &maximumSize),
        SPA_FORMAT_VIDEO_framerate, SPA_POD_Fraction(&noRate), SPA_FORMAT_VIDEO_maxFramerate,
        SPA_POD_CHOICE_RANGE_Fraction(&maximumRate, &noRate, &maximumRate)));
    if (pw_stream_connect(stream, PW_DIRECTION_INPUT, configuration.nodeID,
                          pw_stream_flags(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS), params, 1) < 0)
      throwCaptureFailed(fmt::format("the screen-cast node {} cannot be connected", configuration.nodeID));
  }

  // Buffers the producer sends before this stream runs would be lost, so the stream is not
  // handed out before then.
  void waitUntilStreaming() {
    std::unique_lock guard(lock);
    if (!changes.wait_for(guard, negotiationTimeout, [&] { return (hasFormat && streaming) || ended; }))
      throwCaptureFailed(fmt::format("the screen-cast node {} sent no picture format", configuration.nodeID));
    if (ended) std::rethrow_exception(ended);
  }

  void disconnect() {
    if (!loop) return;
    pw_thread_loop_lock(loop);
    if (stream) {
      spa_hook_remove(&streamListener);
      pw_stream_destroy(stream);
      stream = nullptr;
    }
    if (registry) {
      spa_hook_remove(&registryListener);
      pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry));
      registry = nullptr;
    }
    if (core) {
      spa_hook_remove(&coreListener);
      pw_core_disconnect(core);
      core = nullptr;
    }
    pw_thread_loop_unlock(loop);
    pw_thread_loop_stop(loop);
    if (context) pw_context_destroy(context);
    context = nullptr;
    pw_thread_loop_destroy(loop);
    loop = nullptr;
  }

  // ---- The loop thread ----

  void stateChanged(pw_stream_state state, const char* error) {
    if (state == PW_STREAM_STATE_STREAMING || state == PW_STREAM_STATE_PAUSED) wasConnected = true;
    if (state == PW_STREAM_STATE_STREAMING) {
      {
        std::lock_guard guard(lock);
        streaming = true;
      }
      changes.notify_all();
    }
    if (state == PW_STREAM_STATE_ERROR)
      end(captureFailure(fmt::format("the screen-cast stream failed: {}", error ? error : "unknown error")));
    else if (state == PW_STREAM_STATE_UNCONNECTED && wasConnected)
      end(captureFailure("the screen-cast stream was disconnected"));
  }

  void paramChanged(std::uint32_t id, const spa_pod* param) {
    if (id != SPA_PARAM_Format || !param) return;
    std::uint32_t mediaType = 0, mediaSubtype = 0;
    if (spa_format_parse(param, &mediaType, &mediaSubtype) < 0 || mediaType != SPA_MEDIA_TYPE_video ||
        mediaSubtype != SPA_MEDIA_SUBTYPE_raw)
      return;
    spa_video_info_raw info{};
    if (spa_format_video_raw_parse(param, &info) < 0) return;
    int width = int(info.size.width), height = int(info.size.height);
    if (width <= 0 || height <= 0 || width > maximumSide || height > maximumSide) {
      end(captureFailure(fmt::format("the screen-cast stream offered a picture of {} x {}", width, height)));
      return;
    }
    {
      std::lock_guard guard(lock);
      format = info.format;
      streamSize = PixelSize{width, height};
      if (encodedSize.width <= 0 || encodedSize.height <= 0)
        encodedSize = PixelSize{std::max<std::int64_t>(2, width & ~1), std::max<std::int64_t>(2, height & ~1)};
      hasFormat = true;
    }
    changes.notify_all();

    PodBuffer pod;
    const spa_pod* params[4];
    int stride = width * 4;
    params[0] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
        &pod.builder, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_buffers,
        SPA_POD_CHOICE_RANGE_Int(8, 2, 16), SPA_PARAM_BUFFERS_blocks, SPA_POD_Int(1), SPA_PARAM_BUFFERS_size,
        SPA_POD_Int(stride * height), SPA_PARAM_BUFFERS_stride, SPA_POD_Int(stride), SPA_PARAM_BUFFERS_dataType,
        SPA_POD_CHOICE_FLAGS_Int((1 << SPA_DATA_MemFd) | (1 << SPA_DATA_MemPtr))));
    params[1] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
        &pod.builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type, SPA_POD_Id(SPA_META_Header),
        SPA_PARAM_META_size, SPA_POD_Int(sizeof(spa_meta_header))));
    params[2] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
        &pod.builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type, SPA_POD_Id(SPA_META_VideoCrop),
        SPA_PARAM_META_size, SPA_POD_Int(sizeof(spa_meta_region))));
    params[3] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
        &pod.builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type, SPA_POD_Id(SPA_META_Cursor),
        SPA_PARAM_META_size,
        SPA_POD_CHOICE_RANGE_Int(cursorMetaSize(preferredCursorSide, preferredCursorSide), cursorMetaSize(1, 1),
                                 cursorMetaSize(maximumCursorSide, maximumCursorSide))));
    pw_stream_update_params(stream, params, 4);
  }

  void process() {
    while (pw_buffer* buffer = pw_stream_dequeue_buffer(stream)) {
      std::uint64_t host = monotonicNanoseconds();
      try {
        handleBuffer(buffer->buffer, host);
      } catch (const std::bad_alloc&) {
        missed.fetch_add(1);
      }
      pw_stream_queue_buffer(stream, buffer);
    }
  }

  void handleBuffer(spa_buffer* buffer, std::uint64_t host) {
    auto* header =
        static_cast<spa_meta_header*>(spa_buffer_find_meta_data(buffer, SPA_META_Header, sizeof(spa_meta_header)));
    if (header) countSequence(header->seq);
    if (spa_meta* meta = spa_buffer_find_meta(buffer, SPA_META_Cursor)) handleCursor(*meta, host);
    if (buffer->n_datas < 1) return;
    const spa_data& data = buffer->datas[0];
    bool corrupted =
        (data.chunk->flags & SPA_CHUNK_FLAG_CORRUPTED) || (header && (header->flags & SPA_META_HEADER_FLAG_CORRUPTED));
    if (data.chunk->size == 0 || corrupted) {
      pointerOnly.fetch_add(1);
      return;
    }
    // Only shared memory is asked for; anything else cannot be read here.
    if (!data.data) {
      missed.fetch_add(1);
      return;
    }
    auto pixels = copyPicture(buffer, data);
    if (!pixels) {
      missed.fetch_add(1);
      return;
    }
    deliverNewFrame(std::move(pixels), header ? std::optional<std::int64_t>(header->pts) : std::nullopt, host);
  }

  void countSequence(std::uint64_t sequence) {
    std::lock_guard guard(deliveryLock);
    if (lastSequence && sequence > *lastSequence + 1)
      dropped.fetch_add(std::int64_t(std::min<std::uint64_t>(sequence - *lastSequence - 1, 1u << 30)));
    lastSequence = sequence;
  }

  std::shared_ptr<PixelBuffer> copyPicture(spa_buffer* buffer, const spa_data& data) {
    spa_video_format pixelFormat;
    PixelSize size;
    {
      std::lock_guard guard(lock);
      pixelFormat = format;
      size = streamSize;
    }
    int left = 0, top = 0, width = int(size.width), height = int(size.height);
    if (auto* crop = static_cast<spa_meta_region*>(
            spa_buffer_find_meta_data(buffer, SPA_META_VideoCrop, sizeof(spa_meta_region)));
        crop && spa_meta_region_is_valid(crop)) {
      const spa_region& region = crop->region;
      if (region.position.x >= 0 && region.position.y >= 0 &&
          std::int64_t(region.position.x) + region.size.width <= size.width &&
          std::int64_t(region.position.y) + region.size.height <= size.height) {
        left = region.position.x;
        top = region.position.y;
        width = int(region.size.width);
        height = int(region.size.height);
      }
    }
    if (width <= 0 || height <= 0) return nullptr;
    std::int64_t stride = data.chunk->stride != 0 ? data.chunk->stride : std::int64_t(size.width) * 4;
    if (stride < std::int64_t(size.width) * 4) return nullptr;
    std::uint64_t offset = data.chunk->offset % std::max<std::uint32_t>(data.maxsize, 1);
    std::uint64_t end =
        offset + std::uint64_t(stride) * std::uint64_t(top + height - 1) + std::uint64_t(left + width) * 4;
    if (end > data.maxsize) return nullptr;

    auto pixels = pool.acquire(width, height);
    const auto* source = static_cast<const std::uint8_t*>(data.data) + offset;
    bool swizzle = pixelFormat == SPA_VIDEO_FORMAT_RGBx || pixelFormat == SPA_VIDEO_FORMAT_RGBA;
    bool opaque = pixelFormat == SPA_VIDEO_FORMAT_RGBx || pixelFormat == SPA_VIDEO_FORMAT_BGRx;
    for (int row = 0; row < height; ++row) {
      const auto* from =
          reinterpret_cast<const std::uint32_t*>(source + std::size_t(stride) * std::size_t(top + row)) + left;
      auto* to = reinterpret_cast<std::uint32_t*>(pixels->bytes.data() + std::size_t(pixels->stride) * row);
      if (swizzle) {
        for (int x = 0; x < width; ++x) {
          std::uint32_t p = from[x];
          to[x] = (p & 0xFF00FF00u) | ((p & 0xFFu) << 16) | ((p >> 16) & 0xFFu);
        }
      } else {
        std::memcpy(to, from, std::size_t(width) * 4);
      }
      // The fourth byte of an x format is whatever the producer left there.
      if (opaque)
        for (int x = 0; x < width; ++x) to[x] |= 0xFF000000u;
    }
    return pixels;
  }

  GeometryFrameMetadata metadataFor(int width) {
    GeometryFrameMetadata metadata;
    RectValue frame = globalFrame();
    metadata.globalFrame = frame;
    metadata.contentRect = RectValue{0, 0, frame.width, frame.height};
    metadata.scaleFactor = frame.width > 0 ? double(width) / frame.width : 1;
    return metadata;
  }

  RectValue globalFrame() {
    if (configuration.logicalFrame && configuration.logicalFrame->width > 0 && configuration.logicalFrame->height > 0)
      return *configuration.logicalFrame;
    std::lock_guard guard(lock);
    return RectValue{0, 0, double(streamSize.width), double(streamSize.height)};
  }

  void deliverNewFrame(std::shared_ptr<PixelBuffer> pixels, std::optional<std::int64_t> pts, std::uint64_t host) {
    GeometryFrameMetadata metadata = metadataFor(pixels->width);
    std::lock_guard guard(deliveryLock);
    std::int64_t presentation = std::int64_t(host);
    const bool usable = pts && *pts > 0 && (!lastPTS || *pts > *lastPTS);
    if (usable) {
      presentation = *pts;
      lastPTS = pts;
    } else {
      discontinuities.fetch_add(1);
    }
    // A repeat on the producer's time line may have been stamped later than this picture's own
    // time (the producer's latency shrank, or this one was late): the picture still follows, just
    // after the repeat, rather than arriving out of order for the writer to throw away.
    if (usable && lastDelivered && !last.changed && lastLineUsable && presentation <= last.presentationNanoseconds)
      presentation = last.presentationNanoseconds + 1;
    lastLineUsable = usable;
    last.pixels = std::move(pixels);
    last.presentationNanoseconds = presentation;
    last.displayTimeNanoseconds = host;
    last.metadata = metadata;
    last.changed = true;
    lastDelivered = false;
    if (!started || stopping || isEnded()) return;
    lastNewFrameHost = host;
    lastDelivered = true;
    onFrame(last);
  }

  bool isEnded() {
    std::lock_guard guard(lock);
    return bool(ended);
  }

  // The first failure ends the stream; later ones say nothing new.
  void end(std::exception_ptr error) {
    {
      std::lock_guard guard(lock);
      if (ended || stopping) return;
      ended = error;
    }
    changes.notify_all();
  }

  // ---- The ticker ----

  bool sleepUntil(std::uint64_t deadline) {
    std::unique_lock guard(lock);
    auto until = std::chrono::steady_clock::time_point(std::chrono::nanoseconds(deadline));
    return !changes.wait_until(guard, until, [&] { return stopping || ended; });
  }

  void reportEnd() {
    std::exception_ptr error;
    {
      std::lock_guard guard(lock);
      if (stopping || endReported || !ended) return;
      endReported = true;
      error = ended;
    }
    std::lock_guard guard(deliveryLock);
    if (!stopping && onStopped) onStopped(error);
  }

  void runTicker() {
    std::uint64_t start = monotonicNanoseconds();
    std::uint64_t period = nanosecondsPerSecond / framesPerSecond;
    auto deadlineOf = [&](std::uint64_t tick) { return start + tick * nanosecondsPerSecond / framesPerSecond; };
    std::uint64_t tick = 0;
    while (sleepUntil(deadlineOf(tick))) {
      std::uint64_t deadline = deadlineOf(tick);
      {
        std::lock_guard guard(deliveryLock);
        if (stopping) break;
        if (!last.pixels) {
          missed.fetch_add(1);
        } else if (!lastDelivered) {
          // A picture that came before the start: it appears at this tick, on its own time line.
          deliverAt(deadline, true);
        } else if (lastNewFrameHost + period <= deadline) {
          deliverAt(deadline, false);
        }
      }
      std::uint64_t now = monotonicNanoseconds();
      std::uint64_t next = std::max(tick + 1, (now - start) * framesPerSecond / nanosecondsPerSecond + 1);
      missed.fetch_add(std::int64_t(next - tick - 1));
      tick = next;
    }
    reportEnd();
  }

  // With `deliveryLock` held. The frame keeps the offset between its presentation and host times.
  void deliverAt(std::uint64_t deadline, bool changed) {
    std::int64_t offset = last.presentationNanoseconds - std::int64_t(last.displayTimeNanoseconds);
    last.presentationNanoseconds = std::int64_t(deadline) + offset;
    last.displayTimeNanoseconds = deadline;
    last.changed = changed;
    if (changed) lastNewFrameHost = deadline;
    lastDelivered = true;
    onFrame(last);
  }

  // ---- The pointer ----

  void handleCursor(const spa_meta& meta, std::uint64_t host) {
    if (meta.size < sizeof(spa_meta_cursor) || !meta.data) return;
    const auto* cursor = static_cast<const spa_meta_cursor*>(meta.data);
    std::lock_guard guard(pointerLock);
    if (cursor->id == 0) {
      pointerInside = false;
      return;
    }
    if (cursor->bitmap_offset >= sizeof(spa_meta_cursor) &&
        std::uint64_t(cursor->bitmap_offset) + sizeof(spa_meta_bitmap) <= meta.size) {
      const auto* bitmap =
          reinterpret_cast<const spa_meta_bitmap*>(static_cast<const std::uint8_t*>(meta.data) + cursor->bitmap_offset);
      readBitmap(*bitmap, meta.size - cursor->bitmap_offset, cursor->hotspot);
    }
    PointValue position{double(cursor->position.x), double(cursor->position.y)};
    bool moved = !pointerInside || !pointerPosition || *pointerPosition != position;
    pointerInside = true;
    pointerPosition = position;
    RectValue frame = globalFrame();
    double scale = 1;
    {
      std::lock_guard formatGuard(lock);
      if (frame.width > 0 && streamSize.width > 0) scale = double(streamSize.width) / frame.width;
    }
    pointerGlobal = PointValue{frame.x + position.x / scale, frame.y + position.y / scale};
    if (!moved || !onPointer) return;
    PointerEvent event;
    event.hostTimeNanoseconds = host;
    event.rawTimestampNanoseconds = host;
    event.globalPoint = pointerGlobal;
    if (!heldButtons.empty()) {
      event.phase = MousePhase::dragged;
      event.button = heldButton();
    }
    onPointer(event);
  }

  MouseButton heldButton() const {
    for (MouseButton button : {MouseButton::left, MouseButton::right, MouseButton::other})
      if (std::find(heldButtons.begin(), heldButtons.end(), button) != heldButtons.end()) return button;
    return MouseButton::none;
  }

  // With `pointerLock` held. `available` is what the meta holds from the bitmap on.
  void readBitmap(const spa_meta_bitmap& bitmap, std::uint64_t available, spa_point hotspot) {
    if (!spa_meta_bitmap_is_valid(&bitmap)) return;
    int width = int(bitmap.size.width), height = int(bitmap.size.height);
    if (bitmap.offset == 0 || width <= 0 || height <= 0 || width > maximumCursorSide || height > maximumCursorSide) {
      return;
    }
    bool swizzle = bitmap.format == SPA_VIDEO_FORMAT_RGBA;
    if (!swizzle && bitmap.format != SPA_VIDEO_FORMAT_BGRA) return;
    std::int64_t stride = bitmap.stride > 0 ? bitmap.stride : std::int64_t(width) * 4;
    if (stride < std::int64_t(width) * 4 || bitmap.offset < sizeof(spa_meta_bitmap)) return;
    if (std::uint64_t(bitmap.offset) + std::uint64_t(stride) * std::uint64_t(height - 1) + std::uint64_t(width) * 4 >
        available)
      return;
    const auto* source = reinterpret_cast<const std::uint8_t*>(&bitmap) + bitmap.offset;
    // Compositors premultiply their pointer images; the PNG encoder divides the alpha out.
    std::vector<std::uint32_t> argb(std::size_t(width) * std::size_t(height));
    for (int row = 0; row < height; ++row) {
      const auto* from = reinterpret_cast<const std::uint32_t*>(source + std::size_t(stride) * std::size_t(row));
      for (int x = 0; x < width; ++x) {
        std::uint32_t p = from[x];
        if (swizzle) p = (p & 0xFF00FF00u) | ((p & 0xFFu) << 16) | ((p >> 16) & 0xFFu);
        argb[std::size_t(row) * std::size_t(width) + std::size_t(x)] = p;
      }
    }
    std::string key(reinterpret_cast<const char*>(argb.data()), argb.size() * 4);
    key += fmt::format("{}x{}@{},{}", width, height, hotspot.x, hotspot.y);
    if (key == lastBitmap) return;
    lastBitmap = std::move(key);
    std::string png = encodePremultipliedARGBAsPNG(argb.data(), width, height);
    if (png.empty()) return;
    shape = CapturedCursorShape{std::move(png), SizeValue{double(width), double(height)},
                                PointValue{double(hotspot.x), double(hotspot.y)}};
  }

  void buttonChanged(const PointerButtonEvent& button) {
    std::lock_guard guard(pointerLock);
    auto held = std::find(heldButtons.begin(), heldButtons.end(), button.button);
    if (button.pressed && held == heldButtons.end()) heldButtons.push_back(button.button);
    if (!button.pressed && held != heldButtons.end()) heldButtons.erase(held);
    if (!onPointer || !pointerPosition) return;
    PointerEvent event;
    event.hostTimeNanoseconds = button.hostTimeNanoseconds;
    event.rawTimestampNanoseconds = button.hostTimeNanoseconds;
    event.globalPoint = pointerGlobal;
    event.button = button.button;
    event.phase = button.pressed ? MousePhase::down : MousePhase::up;
    onPointer(event);
  }
};

namespace {

class PipeWirePointerEvents : public PointerEventStream {
 public:
  PipeWirePointerEvents(std::shared_ptr<PipeWireScreenStream::Shared> shared,
                        std::unique_ptr<PointerButtonSource> buttons)
      : shared_(std::move(shared)), buttons_(std::move(buttons)) {}
  ~PipeWirePointerEvents() override { stop(); }

  void start(std::function<void(const PointerEvent&)> onEvent) override {
    {
      std::lock_guard guard(shared_->pointerLock);
      shared_->onPointer = std::move(onEvent);
    }
    if (buttons_ && !buttonsStarted_) {
      buttons_->start([shared = shared_.get()](const PointerButtonEvent& event) { shared->buttonChanged(event); });
      buttonsStarted_ = true;
    }
  }

  void stop() override {
    if (buttons_ && buttonsStarted_) buttons_->stop();
    buttonsStarted_ = false;
    std::lock_guard guard(shared_->pointerLock);
    shared_->onPointer = nullptr;
  }

 private:
  std::shared_ptr<PipeWireScreenStream::Shared> shared_;
  std::unique_ptr<PointerButtonSource> buttons_;
  bool buttonsStarted_ = false;
};

class PipeWireCursorShapes : public CursorShapeProvider {
 public:
  explicit PipeWireCursorShapes(std::shared_ptr<PipeWireScreenStream::Shared> shared) : shared_(std::move(shared)) {}
  std::optional<CapturedCursorShape> captureCurrentCursor() override {
    std::lock_guard guard(shared_->pointerLock);
    return shared_->shape;
  }

 private:
  std::shared_ptr<PipeWireScreenStream::Shared> shared_;
};

}  // namespace

PipeWireScreenStream::PipeWireScreenStream(PipeWireScreenStreamConfiguration configuration)
    : shared_(std::make_shared<Shared>(std::move(configuration))) {
  try {
    shared_->connect();
    shared_->waitUntilStreaming();
  } catch (...) {
    shared_->disconnect();
    throw;
  }
}

PipeWireScreenStream::~PipeWireScreenStream() {
  stop();
  shared_->disconnect();
}

PixelSize PipeWireScreenStream::pixelSize() const {
  std::lock_guard guard(shared_->lock);
  return shared_->encodedSize;
}

void PipeWireScreenStream::start(std::function<void(const VideoFrame&)> onFrame, StreamStoppedHandler onStopped) {
  if (shared_->ticker.joinable()) return;
  {
    std::lock_guard guard(shared_->deliveryLock);
    shared_->onFrame = std::move(onFrame);
    shared_->onStopped = std::move(onStopped);
    shared_->started = true;
  }
  shared_->ticker = std::thread([shared = shared_.get()] {
    pthread_setname_np(pthread_self(), "Vumo.Screen");
    shared->runTicker();
  });
}

void PipeWireScreenStream::stop() {
  {
    std::scoped_lock guard(shared_->deliveryLock, shared_->lock);
    shared_->stopping = true;
  }
  shared_->changes.notify_all();
  if (shared_->ticker.joinable()) shared_->ticker.join();
}

std::int64_t PipeWireScreenStream::missedTicks() const { return shared_->missed.load() + shared_->dropped.load(); }
std::int64_t PipeWireScreenStream::droppedFrames() const { return shared_->dropped.load(); }
std::int64_t PipeWireScreenStream::timeDiscontinuities() const { return shared_->discontinuities.load(); }
std::int64_t PipeWireScreenStream::pointerOnlyBuffers() const { return shared_->pointerOnly.load(); }

std::unique_ptr<PointerEventStream> PipeWireScreenStream::pointerEvents(std::unique_ptr<PointerButtonSource> buttons) {
  return std::make_unique<PipeWirePointerEvents>(shared_, std::move(buttons));
}

std::unique_ptr<CursorShapeProvider> PipeWireScreenStream::cursorShapes() {
  return std::make_unique<PipeWireCursorShapes>(shared_);
}

}  // namespace vumo
