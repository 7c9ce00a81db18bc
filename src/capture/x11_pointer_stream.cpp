#include "capture/x11_pointer_stream.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <xcb/xinput.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>
#include <set>
#include <thread>

#include "capture/capture_error.h"
#include "capture/x11_connection.h"

namespace vumo {

namespace {

// How long the server may take to answer the clock probe at start.
constexpr int serverTimeProbeMilliseconds = 2000;
// How often the pointer's position is looked at for moves that made no raw event: 100 times a
// second, more often than the fastest recording takes frames.
constexpr std::uint64_t lookIntervalNanoseconds = 10'000'000;

MouseButton buttonOf(int logicalButton) {
  if (logicalButton == 1) return MouseButton::left;
  if (logicalButton == 3) return MouseButton::right;
  return MouseButton::other;
}

bool isWheel(int logicalButton) { return logicalButton >= 4 && logicalButton <= 7; }

}  // namespace

struct X11PointerStream::State {
  X11Connection x;
  std::uint8_t inputOpcode = 0;
  std::function<void(const PointerEvent&)> onEvent;
  std::thread worker;
  int wakeDescriptor = -1;

  // Only the worker touches what follows, once started.
  std::vector<std::uint8_t> buttonMap;
  std::set<int> heldButtons;  // logical numbers
  std::optional<X11ServerTimeUnwrapper> serverTime;
  std::int64_t serverToHostNanoseconds = 0;
  std::optional<PointValue> lastPosition;
  std::optional<MousePhase> lastPhase;
  std::uint64_t lastHostTime = 0;

  explicit State(const std::string& displayName) : x(displayName) {
    inputOpcode = x.requireExtension(&xcb_input_id, "XInputExtension").major_opcode;
    XcbReply<xcb_input_xi_query_version_reply_t> version(
        xcb_input_xi_query_version_reply(x.get(), xcb_input_xi_query_version(x.get(), 2, 2), nullptr));
    if (!version || version->major_version < 2 || (version->major_version == 2 && version->minor_version < 2))
      throw CaptureError(CaptureError::Case::extensionMissing, "XInputExtension 2.2");
    wakeDescriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wakeDescriptor < 0) throw CaptureError(CaptureError::Case::screenCaptureFailed, "no event descriptor");
  }
  ~State() {
    if (wakeDescriptor >= 0) close(wakeDescriptor);
  }

  // Measures the offset between the server's clock and the host's from one round trip: a property
  // change on a window of our own comes back stamped with the server's time, which is taken to
  // lie halfway between sending and receiving.
  void measureServerTime() {
    xcb_window_t probe = xcb_generate_id(x.get());
    std::uint32_t mask = XCB_EVENT_MASK_PROPERTY_CHANGE;
    xcb_create_window(x.get(), 0, probe, x.root(), -1, -1, 1, 1, 0, XCB_WINDOW_CLASS_INPUT_ONLY, XCB_COPY_FROM_PARENT,
                      XCB_CW_EVENT_MASK, &mask);
    std::uint64_t before = monotonicNanoseconds();
    xcb_change_property(x.get(), XCB_PROP_MODE_APPEND, probe, XCB_ATOM_WM_NAME, XCB_ATOM_STRING, 8, 0, "");
    xcb_flush(x.get());
    std::optional<std::uint32_t> serverMilliseconds;
    std::uint64_t after = before;
    while (!serverMilliseconds) {
      while (XcbReply<xcb_generic_event_t> event{xcb_poll_for_event(x.get())}) {
        if ((event->response_type & 0x7F) == XCB_PROPERTY_NOTIFY) {
          after = monotonicNanoseconds();
          serverMilliseconds = reinterpret_cast<xcb_property_notify_event_t*>(event.get())->time;
          break;
        }
      }
      if (serverMilliseconds) break;
      if (x.hasError() || monotonicNanoseconds() - before > serverTimeProbeMilliseconds * 1'000'000ull)
        throw CaptureError(CaptureError::Case::screenCaptureFailed, "the X server did not tell its time");
      pollfd descriptor{x.fileDescriptor(), POLLIN, 0};
      poll(&descriptor, 1, 50);
    }
    xcb_destroy_window(x.get(), probe);
    serverTime.emplace(*serverMilliseconds);
    std::uint64_t middle = before + (after - before) / 2;
    serverToHostNanoseconds = std::int64_t(middle) - std::int64_t(*serverMilliseconds) * 1'000'000;
  }

  void readButtonMap() {
    XcbReply<xcb_get_pointer_mapping_reply_t> mapping(
        xcb_get_pointer_mapping_reply(x.get(), xcb_get_pointer_mapping(x.get()), nullptr));
    buttonMap.clear();
    if (!mapping) return;
    const std::uint8_t* map = xcb_get_pointer_mapping_map(mapping.get());
    buttonMap.assign(map, map + xcb_get_pointer_mapping_map_length(mapping.get()));
  }

  // The logical button of a physical one; 0 for a button switched off in the map.
  int logicalButton(std::uint32_t physical) const {
    if (physical >= 1 && physical <= buttonMap.size()) return buttonMap[physical - 1];
    return int(physical);
  }

  void selectRawEvents() {
    struct {
      xcb_input_event_mask_t head;
      std::uint32_t bits;
    } mask{};
    mask.head.deviceid = XCB_INPUT_DEVICE_ALL_MASTER;
    mask.head.mask_len = 1;
    mask.bits = XCB_INPUT_XI_EVENT_MASK_RAW_MOTION | XCB_INPUT_XI_EVENT_MASK_RAW_BUTTON_PRESS |
                XCB_INPUT_XI_EVENT_MASK_RAW_BUTTON_RELEASE;
    XcbReply<xcb_generic_error_t> error(
        xcb_request_check(x.get(), xcb_input_xi_select_events_checked(x.get(), x.root(), 1, &mask.head)));
    if (error) throw CaptureError(CaptureError::Case::extensionMissing, "XInputExtension raw events");
    // Mapping changes are announced to every client; the map is read again when one comes.
  }

  std::optional<PointValue> pointerPosition() {
    XcbReply<xcb_query_pointer_reply_t> pointer(
        xcb_query_pointer_reply(x.get(), xcb_query_pointer(x.get(), x.root()), nullptr));
    if (!pointer) return std::nullopt;
    return PointValue{double(pointer->root_x), double(pointer->root_y)};
  }

  void deliver(std::uint32_t serverMilliseconds, MouseButton button, MousePhase phase) {
    auto position = pointerPosition();
    if (!position) return;
    // Raw motion also comes when the pointer is held at a screen edge; that is no movement.
    bool isMove = phase == MousePhase::moved || phase == MousePhase::dragged;
    if (isMove && lastPosition == position && lastPhase == phase) return;
    std::int64_t unwrapped = serverTime->unwrap(serverMilliseconds);
    emit(unwrapped * 1'000'000, *position, button, phase);
  }

  // Where the server makes no raw motion (a pointer moved by XTEST, as remote desktops do, or
  // warped by an application), the position is looked at a few times a frame instead.
  void lookForUnreportedMove() {
    auto position = pointerPosition();
    if (!position || position == lastPosition) return;
    std::int64_t serverNanoseconds = std::int64_t(monotonicNanoseconds()) - serverToHostNanoseconds;
    if (heldButtons.empty())
      emit(serverNanoseconds, *position, MouseButton::none, MousePhase::moved);
    else
      emit(serverNanoseconds, *position, heldButton(), MousePhase::dragged);
  }

  void emit(std::int64_t serverNanoseconds, PointValue position, MouseButton button, MousePhase phase) {
    PointerEvent event;
    event.rawTimestampNanoseconds = std::uint64_t(std::max<std::int64_t>(serverNanoseconds, 0));
    // Server milliseconds and looked-up positions interleave; the host times never run backwards.
    event.hostTimeNanoseconds =
        std::max(lastHostTime, std::uint64_t(std::max<std::int64_t>(serverNanoseconds + serverToHostNanoseconds, 0)));
    event.globalPoint = position;
    event.button = button;
    event.phase = phase;
    lastPosition = position;
    lastPhase = phase;
    lastHostTime = event.hostTimeNanoseconds;
    onEvent(event);
  }

  MouseButton heldButton() const {
    if (heldButtons.count(1)) return MouseButton::left;
    if (heldButtons.count(3)) return MouseButton::right;
    return MouseButton::other;
  }

  void handle(const xcb_generic_event_t* event) {
    std::uint8_t type = event->response_type & 0x7F;
    if (type == XCB_MAPPING_NOTIFY) {
      if (reinterpret_cast<const xcb_mapping_notify_event_t*>(event)->request == XCB_MAPPING_POINTER) readButtonMap();
      return;
    }
    if (type != XCB_GE_GENERIC) return;
    auto* generic = reinterpret_cast<const xcb_ge_generic_event_t*>(event);
    if (generic->extension != inputOpcode) return;
    if (generic->event_type == XCB_INPUT_RAW_MOTION) {
      auto* motion = reinterpret_cast<const xcb_input_raw_motion_event_t*>(event);
      if (heldButtons.empty())
        deliver(motion->time, MouseButton::none, MousePhase::moved);
      else
        deliver(motion->time, heldButton(), MousePhase::dragged);
    } else if (generic->event_type == XCB_INPUT_RAW_BUTTON_PRESS ||
               generic->event_type == XCB_INPUT_RAW_BUTTON_RELEASE) {
      auto* press = reinterpret_cast<const xcb_input_raw_button_press_event_t*>(event);
      int button = logicalButton(press->detail);
      if (button == 0 || isWheel(button)) return;
      bool down = generic->event_type == XCB_INPUT_RAW_BUTTON_PRESS;
      if (down)
        heldButtons.insert(button);
      else
        heldButtons.erase(button);
      deliver(press->time, buttonOf(button), down ? MousePhase::down : MousePhase::up);
    }
  }

  void run() {
    lastPosition = pointerPosition();
    std::array<pollfd, 2> descriptors{pollfd{x.fileDescriptor(), POLLIN, 0}, pollfd{wakeDescriptor, POLLIN, 0}};
    std::uint64_t nextLook = monotonicNanoseconds();
    while (!x.hasError()) {
      while (XcbReply<xcb_generic_event_t> event{xcb_poll_for_event(x.get())}) handle(event.get());
      if (std::uint64_t now = monotonicNanoseconds(); now >= nextLook) {
        lookForUnreportedMove();
        nextLook = now + lookIntervalNanoseconds;
        continue;  // the look may have queued events
      }
      xcb_flush(x.get());
      std::uint64_t now = monotonicNanoseconds();
      int timeout = now >= nextLook ? 0 : int((nextLook - now + 999'999) / 1'000'000);
      if (poll(descriptors.data(), descriptors.size(), timeout) < 0 && errno != EINTR) break;
      if (descriptors[1].revents & POLLIN) break;
    }
  }
};

X11PointerStream::X11PointerStream(const std::string& displayName) : state_(std::make_unique<State>(displayName)) {}

X11PointerStream::~X11PointerStream() { stop(); }

void X11PointerStream::start(std::function<void(const PointerEvent&)> onEvent) {
  if (state_->worker.joinable()) return;
  state_->onEvent = std::move(onEvent);
  state_->measureServerTime();
  state_->readButtonMap();
  state_->selectRawEvents();
  state_->worker = std::thread([state = state_.get()] {
    pthread_setname_np(pthread_self(), "Vumo.Pointer");
    state->run();
  });
}

void X11PointerStream::stop() {
  if (!state_->worker.joinable()) return;
  std::uint64_t one = 1;
  [[maybe_unused]] auto written = write(state_->wakeDescriptor, &one, sizeof one);
  state_->worker.join();
}

}  // namespace vumo
