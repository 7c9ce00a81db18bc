#include "capture/x11_screen_stream.h"

#include <fmt/core.h>
#include <pthread.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <xcb/composite.h>
#include <xcb/damage.h>
#include <xcb/shm.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include "capture/capture_error.h"
#include "capture/x11_connection.h"
#include "capture/x11_source_catalogue.h"

namespace vumo {

namespace {

constexpr std::uint64_t nanosecondsPerSecond = 1'000'000'000;
// Shared memory segments the stream writes pictures into. The writer holds a few frames at a time
// (its queue, the picture it encodes, the stream's last picture for repeats); a tick that finds
// all of them held is a missed tick, never a wait.
constexpr std::size_t pooledSegments = 8;
// How often a window's position is asked for when no event announced a change.
constexpr std::uint64_t windowProbeIntervalNanoseconds = 100'000'000;

[[noreturn]] void throwCaptureFailed(const std::string& detail) {
  throw CaptureError(CaptureError::Case::screenCaptureFailed, detail);
}

// The memory of a System V shared memory segment in this process. Frames handed out point into it
// and keep it alive, so it may outlive the stream and its X connection.
class SegmentMemory {
 public:
  SegmentMemory(void* address, std::size_t size) : address_(static_cast<std::uint8_t*>(address)), size_(size) {}
  ~SegmentMemory() { shmdt(address_); }
  SegmentMemory(const SegmentMemory&) = delete;
  SegmentMemory& operator=(const SegmentMemory&) = delete;

  std::uint8_t* data() const { return address_; }
  std::size_t size() const { return size_; }

 private:
  std::uint8_t* address_;
  std::size_t size_;
};

// A segment attached both here and in the X server, which writes pictures into it with no socket
// traffic. The server's attachment is the stream's and ends with it (`detach`); the memory lives
// on in the frames that still hold it.
struct SharedMemorySegment {
  std::shared_ptr<SegmentMemory> memory;
  xcb_shm_seg_t segment = 0;

  // True when no frame refers to the memory any more.
  bool isFree() const {
    if (memory.use_count() != 1) return false;
    // Pairs with the release of the last frame's reference on another thread: its reads of the
    // pixels are over before the server writes the next picture.
    std::atomic_thread_fence(std::memory_order_acquire);
    return true;
  }

  void detach(xcb_connection_t* connection) const { xcb_shm_detach(connection, segment); }
};

SharedMemorySegment attachSegment(xcb_connection_t* connection, std::size_t bytes) {
  int id = shmget(IPC_PRIVATE, bytes, IPC_CREAT | 0600);
  if (id < 0) throwCaptureFailed(fmt::format("no shared memory segment of {} bytes", bytes));
  void* address = shmat(id, nullptr, 0);
  if (address == reinterpret_cast<void*>(-1)) {
    shmctl(id, IPC_RMID, nullptr);
    throwCaptureFailed("the shared memory segment could not be attached");
  }
  SharedMemorySegment segment;
  segment.memory = std::make_shared<SegmentMemory>(address, bytes);
  segment.segment = xcb_generate_id(connection);
  XcbReply<xcb_generic_error_t> error(
      xcb_request_check(connection, xcb_shm_attach_checked(connection, segment.segment, id, 0)));
  // Once both sides are attached the segment can be marked for removal: it goes away with the
  // last detach, even if this process dies.
  shmctl(id, IPC_RMID, nullptr);
  if (error) throwCaptureFailed("the X server cannot share memory with this program (a remote display?)");
  return segment;
}

bool intersects(const xcb_rectangle_t& a, const RectValue& b) {
  return a.x < b.x + b.width && b.x < a.x + a.width && a.y < b.y + b.height && b.y < a.y + a.height;
}

// The bits per pixel of the server's pictures of one depth; the copy below reads 32-bit pixels
// in the order B, G, R, X.
int bitsPerPixel(const xcb_setup_t* setup, int depth) {
  for (auto it = xcb_setup_pixmap_formats_iterator(setup); it.rem > 0; xcb_format_next(&it))
    if (it.data->depth == depth) return it.data->bits_per_pixel;
  return 0;
}

}  // namespace

struct X11ScreenStream::State {
  CaptureSourceDescriptor source;
  std::uint64_t framesPerSecond = 30;
  X11Connection x;
  const xcb_query_extension_reply_t* damageExtension = nullptr;
  bool isWindow = false;

  std::function<void(const VideoFrame&)> onFrame;
  StreamStoppedHandler onStopped;
  std::thread worker;
  std::mutex wakeLock;
  std::condition_variable wake;
  bool stopping = false;
  std::atomic<std::int64_t> missed{0};

  // Only the worker touches what follows.
  std::vector<SharedMemorySegment> segments;
  xcb_damage_damage_t damage = 0;
  bool damaged = true;
  // The root rectangle of a display or an area.
  RectValue captureRect;
  // A window: its named pixmap (none while unmapped), its border, its frame on the root.
  xcb_pixmap_t windowPixmap = XCB_NONE;
  bool pixmapStale = true;
  int borderWidth = 0;
  RectValue windowFrame;
  bool windowProbeDue = true;
  std::uint64_t lastWindowProbe = 0;

  std::shared_ptr<PixelBuffer> last;

  State(CaptureSourceDescriptor source_, int fps, const std::string& displayName)
      : source(std::move(source_)), framesPerSecond(std::uint64_t(std::max(fps, 1))), x(displayName) {
    x.requireExtension(&xcb_shm_id, "MIT-SHM");
    damageExtension = &x.requireExtension(&xcb_damage_id, "DAMAGE");
    XcbReply<xcb_damage_query_version_reply_t>(
        xcb_damage_query_version_reply(x.get(), xcb_damage_query_version(x.get(), 1, 1), nullptr));
    const xcb_setup_t* setup = xcb_get_setup(x.get());
    if (setup->image_byte_order != XCB_IMAGE_ORDER_LSB_FIRST)
      throwCaptureFailed("the X server sends pictures in most-significant-byte-first order");
    isWindow = source.kind == CaptureSourceKind::window;
    if (isWindow) {
      x.requireExtension(&xcb_composite_id, "Composite");
      XcbReply<xcb_composite_query_version_reply_t> version(
          xcb_composite_query_version_reply(x.get(), xcb_composite_query_version(x.get(), 0, 4), nullptr));
      if (!version || (version->major_version == 0 && version->minor_version < 2))
        throw CaptureError(CaptureError::Case::extensionMissing, "Composite 0.2");
      if (!probeWindow()) throw CaptureError(CaptureError::Case::windowGone);
    } else {
      if (bitsPerPixel(setup, x.screen()->root_depth) != 32)
        throwCaptureFailed(fmt::format("pictures of depth {} are not 32 bits a pixel", x.screen()->root_depth));
      PixelSize size = source.initialPixelSize;
      captureRect = RectValue{std::round(source.globalFrame.x), std::round(source.globalFrame.y), double(size.width),
                              double(size.height)};
      bool inside = captureRect.x >= 0 && captureRect.y >= 0 &&
                    captureRect.x + captureRect.width <= x.screen()->width_in_pixels &&
                    captureRect.y + captureRect.height <= x.screen()->height_in_pixels;
      if (!inside || size.width <= 0 || size.height <= 0)
        throw CaptureError(CaptureError::Case::sourceNotFound,
                           fmt::format("{} is no longer on the screen of {}", source.title, x.displayName()));
    }
  }

  xcb_drawable_t target() const { return isWindow ? xcb_drawable_t(source.nativeID) : x.root(); }

  // The window's size and position on the root; false once it no longer exists.
  bool probeWindow() {
    const std::optional<X11WindowPlacement> placement = windowPlacement(x, source.nativeID);
    if (!placement) {
      throwIfDisconnected();
      return false;
    }
    const RectValue& frame = placement->frame;
    if (frame.width != windowFrame.width || frame.height != windowFrame.height) pixmapStale = true;
    windowFrame = frame;
    borderWidth = placement->borderWidth;
    if (bitsPerPixel(xcb_get_setup(x.get()), placement->depth) != 32)
      throwCaptureFailed(fmt::format("the window's pictures of depth {} are not 32 bits a pixel", placement->depth));
    lastWindowProbe = monotonicNanoseconds();
    windowProbeDue = false;
    return true;
  }

  void setUp() {
    if (isWindow) {
      // Automatic redirection keeps the window on screen as before and gives it an off-screen
      // pixmap that other windows cannot cover.
      XcbReply<xcb_generic_error_t> error(xcb_request_check(
          x.get(), xcb_composite_redirect_window_checked(x.get(), source.nativeID, XCB_COMPOSITE_REDIRECT_AUTOMATIC)));
      if (error && !probeWindow()) throw CaptureError(CaptureError::Case::windowGone);
      std::uint32_t mask = XCB_EVENT_MASK_STRUCTURE_NOTIFY;
      xcb_change_window_attributes(x.get(), source.nativeID, XCB_CW_EVENT_MASK, &mask);
    }
    damage = xcb_generate_id(x.get());
    xcb_damage_create(x.get(), damage, target(), XCB_DAMAGE_REPORT_LEVEL_BOUNDING_BOX);
    // A new damage object reports its whole window at once. The round trip puts that report in the
    // queue before the first copy, which clears it, so it does not turn the second tick into a copy.
    x.sync();
  }

  void tearDown() {
    if (x.hasError()) return;
    if (damage) xcb_damage_destroy(x.get(), damage);
    if (windowPixmap != XCB_NONE) xcb_free_pixmap(x.get(), windowPixmap);
    windowPixmap = XCB_NONE;
    if (isWindow) {
      std::uint32_t mask = 0;
      xcb_change_window_attributes(x.get(), source.nativeID, XCB_CW_EVENT_MASK, &mask);
      xcb_composite_unredirect_window(x.get(), source.nativeID, XCB_COMPOSITE_REDIRECT_AUTOMATIC);
    }
    last.reset();
    for (const auto& segment : segments) segment.detach(x.get());
    segments.clear();
    x.sync();
  }

  // Reads what the server reported since the last tick: damage, and for a window its moves,
  // resizes, mapping and end.
  void handleEvents() {
    while (XcbReply<xcb_generic_event_t> event{xcb_poll_for_event(x.get())}) {
      std::uint8_t type = event->response_type & 0x7F;
      if (type == damageExtension->first_event + XCB_DAMAGE_NOTIFY) {
        auto* notify = reinterpret_cast<xcb_damage_notify_event_t*>(event.get());
        if (isWindow || intersects(notify->area, captureRect)) damaged = true;
      } else if (type == XCB_CONFIGURE_NOTIFY) {
        windowProbeDue = true;
      } else if (type == XCB_MAP_NOTIFY) {
        pixmapStale = true;
        damaged = true;
      } else if (type == XCB_UNMAP_NOTIFY) {
        pixmapStale = true;
      } else if (type == XCB_DESTROY_NOTIFY) {
        if (reinterpret_cast<xcb_destroy_notify_event_t*>(event.get())->window == source.nativeID)
          throw CaptureError(CaptureError::Case::windowGone);
      }
    }
    throwIfDisconnected();
  }

  void throwIfDisconnected() const {
    if (x.hasError()) throwCaptureFailed("the connection to the X server was lost");
  }

  // The window's current pixmap, named anew after a resize or a new mapping. None while the
  // window is not viewable.
  bool refreshWindowPixmap() {
    if (!pixmapStale) return windowPixmap != XCB_NONE;
    if (windowPixmap != XCB_NONE) xcb_free_pixmap(x.get(), windowPixmap);
    windowPixmap = xcb_generate_id(x.get());
    XcbReply<xcb_generic_error_t> error(
        xcb_request_check(x.get(), xcb_composite_name_window_pixmap_checked(x.get(), source.nativeID, windowPixmap)));
    pixmapStale = false;
    if (error) windowPixmap = XCB_NONE;
    damaged = true;
    return windowPixmap != XCB_NONE;
  }

  // A segment of at least `bytes` that no frame holds; nothing when all are held and the pool is
  // full. Free segments too small for the picture (a window that grew) make room for a new one.
  const SharedMemorySegment* freeSegment(std::size_t bytes) {
    for (const auto& segment : segments)
      if (segment.memory->size() >= bytes && segment.isFree()) return &segment;
    auto tooSmall = std::find_if(segments.begin(), segments.end(), [](const auto& s) { return s.isFree(); });
    if (tooSmall != segments.end()) {
      tooSmall->detach(x.get());
      segments.erase(tooSmall);
    }
    if (segments.size() >= pooledSegments) return nullptr;
    segments.push_back(attachSegment(x.get(), bytes));
    return &segments.back();
  }

  enum class Copy { done, unavailable, noFreeSegment };

  // Has the server write the source into a free segment, which becomes the frame's pixels with no
  // copy; `unavailable` when the picture cannot be had this tick (a window that is unmapped or
  // being resized).
  Copy copyPicture() {
    xcb_drawable_t drawable = x.root();
    int left = int(captureRect.x), top = int(captureRect.y);
    PixelSize size = source.initialPixelSize;
    if (isWindow) {
      if (!refreshWindowPixmap()) return Copy::unavailable;
      drawable = windowPixmap;
      left = top = borderWidth;
      size = evenPixelSize(windowFrame.width, windowFrame.height);
    }
    std::size_t bytes = std::size_t(size.width) * std::size_t(size.height) * 4;
    const SharedMemorySegment* segment = freeSegment(bytes);
    if (!segment) return Copy::noFreeSegment;
    // The damage is cleared before the copy, in the same request stream: whatever is drawn after
    // this point is reported again and copied at the next tick.
    xcb_damage_subtract(x.get(), damage, XCB_NONE, XCB_NONE);
    damaged = false;
    xcb_generic_error_t* rawError = nullptr;
    XcbReply<xcb_shm_get_image_reply_t> reply(xcb_shm_get_image_reply(
        x.get(),
        xcb_shm_get_image(x.get(), drawable, std::int16_t(left), std::int16_t(top), std::uint16_t(size.width),
                          std::uint16_t(size.height), ~0u, XCB_IMAGE_FORMAT_Z_PIXMAP, segment->segment, 0),
        &rawError));
    XcbReply<xcb_generic_error_t> error(rawError);
    if (!reply) {
      throwIfDisconnected();
      // The screen shrank under a display or an area (a monitor unplugged, a resolution change).
      if (!isWindow)
        throw CaptureError(CaptureError::Case::sourceNotFound,
                           fmt::format("{} is no longer on the screen of {}", source.title, x.displayName()));
      // A window resized between the probe and the copy: try again at the next tick.
      pixmapStale = windowProbeDue = damaged = true;
      return Copy::unavailable;
    }
    // The fourth byte of a 24-bit picture is whatever the server left there: padding, which no
    // reader looks at (a pass to set it would cost about as much as copying the picture).
    auto buffer = std::make_shared<PixelBuffer>();
    buffer->width = int(size.width);
    buffer->height = int(size.height);
    buffer->stride = int(size.width) * 4;
    buffer->external = segment->memory;
    buffer->externalData = segment->memory->data();
    buffer->externalSize = bytes;
    last = std::move(buffer);
    return Copy::done;
  }

  GeometryFrameMetadata metadata() const {
    GeometryFrameMetadata metadata;
    metadata.globalFrame = isWindow ? windowFrame : source.globalFrame;
    metadata.contentRect = RectValue{0, 0, metadata.globalFrame.width, metadata.globalFrame.height};
    metadata.scaleFactor = 1;
    return metadata;
  }

  // Waits until the deadline; false when the stream is stopped meanwhile.
  bool sleepUntil(std::uint64_t deadline) {
    std::unique_lock lock(wakeLock);
    auto until = std::chrono::steady_clock::time_point(std::chrono::nanoseconds(deadline));
    return !wake.wait_until(lock, until, [&] { return stopping; });
  }

  bool isStopping() {
    std::lock_guard lock(wakeLock);
    return stopping;
  }

  void run() {
    try {
      setUp();
      std::uint64_t start = monotonicNanoseconds();
      auto deadlineOf = [&](std::uint64_t tick) { return start + tick * nanosecondsPerSecond / framesPerSecond; };
      std::uint64_t tick = 0;
      while (sleepUntil(deadlineOf(tick))) {
        std::uint64_t deadline = deadlineOf(tick);
        handleEvents();
        if (isWindow &&
            (windowProbeDue || monotonicNanoseconds() - lastWindowProbe >= windowProbeIntervalNanoseconds) &&
            !probeWindow())
          throw CaptureError(CaptureError::Case::windowGone);
        bool changed = false;
        bool lost = false;
        if (damaged || !last) {
          const Copy copy = copyPicture();
          changed = copy == Copy::done;
          // Every segment is still held downstream; the damage stays, so the next tick copies.
          lost = copy == Copy::noFreeSegment;
        }
        if (last && !lost) {
          VideoFrame frame;
          frame.pixels = last;
          frame.presentationNanoseconds = std::int64_t(deadline);
          frame.displayTimeNanoseconds = deadline;
          frame.metadata = metadata();
          frame.changed = changed;
          onFrame(frame);
        } else {
          missed.fetch_add(1);
        }
        // The next tick is the first whose deadline is still ahead; those passed meanwhile are lost.
        std::uint64_t now = monotonicNanoseconds();
        std::uint64_t next = std::max(tick + 1, (now - start) * framesPerSecond / nanosecondsPerSecond + 1);
        missed.fetch_add(std::int64_t(next - tick - 1));
        tick = next;
      }
      tearDown();
    } catch (...) {
      auto error = std::current_exception();
      try {
        tearDown();
      } catch (...) {
      }
      if (!isStopping() && onStopped) onStopped(error);
    }
  }
};

X11ScreenStream::X11ScreenStream(CaptureSourceDescriptor source, int framesPerSecond, const std::string& displayName)
    : state_(std::make_unique<State>(std::move(source), framesPerSecond, displayName)) {}

X11ScreenStream::~X11ScreenStream() { stop(); }

PixelSize X11ScreenStream::pixelSize() const { return state_->source.initialPixelSize; }

void X11ScreenStream::start(std::function<void(const VideoFrame&)> onFrame, StreamStoppedHandler onStopped) {
  if (state_->worker.joinable()) return;
  state_->onFrame = std::move(onFrame);
  state_->onStopped = std::move(onStopped);
  state_->worker = std::thread([state = state_.get()] {
    pthread_setname_np(pthread_self(), "Vumo.Screen");
    state->run();
  });
}

void X11ScreenStream::stop() {
  {
    std::lock_guard lock(state_->wakeLock);
    state_->stopping = true;
  }
  state_->wake.notify_all();
  if (state_->worker.joinable()) state_->worker.join();
}

std::int64_t X11ScreenStream::missedTicks() const { return state_->missed.load(); }

}  // namespace vumo
