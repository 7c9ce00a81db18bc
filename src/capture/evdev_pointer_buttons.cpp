#include "capture/evdev_pointer_buttons.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <libevdev/libevdev.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <thread>

#include "shared/files.h"

namespace vumo {

namespace {

constexpr ErrorCase<PointerDeviceError::Case> pointerDeviceErrorCases[] = {
    {PointerDeviceError::Case::inputDevicesFailed, "inputDevicesFailed", "capture.error.inputDevices",
     "The pointer devices could not be read: {}", "capture", ErrorKind::failure},
};
static_assert(inCaseOrder(pointerDeviceErrorCases));

// sysfs hands out at most a page per attribute; a bitmap of every key code is far less.
constexpr std::size_t capabilityFileBytes = 8192;
// KEY_MAX is 0x2ff: twelve 64-bit words. Anything much longer is not a capability bitmap.
constexpr std::size_t maximumBitmapWords = 64;
// Events handed to the decoder at once; a device that floods is read in several batches.
constexpr std::size_t batchEvents = 256;

constexpr unsigned typingKeysFirst = KEY_ESC;
constexpr unsigned typingKeysLast = KEY_KPDOT;

struct DecodedButton {
  unsigned code;
  MouseButton button;
};
constexpr DecodedButton decodedButtons[] = {
    {BTN_LEFT, MouseButton::left},  {BTN_RIGHT, MouseButton::right}, {BTN_MIDDLE, MouseButton::other},
    {BTN_SIDE, MouseButton::other}, {BTN_EXTRA, MouseButton::other},
};

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.remove_suffix(1);
  return text;
}

std::optional<std::uint64_t> parseHexWord(std::string_view digits) {
  if (digits.empty() || digits.size() > 16) return std::nullopt;
  std::uint64_t value = 0;
  for (char c : digits) {
    unsigned digit;
    if (c >= '0' && c <= '9')
      digit = unsigned(c - '0');
    else if (c >= 'a' && c <= 'f')
      digit = unsigned(c - 'a' + 10);
    else if (c >= 'A' && c <= 'F')
      digit = unsigned(c - 'A' + 10);
    else
      return std::nullopt;
    value = value << 4 | digit;
  }
  return value;
}

std::optional<std::string> readCapability(const std::filesystem::path& file) {
  try {
    return readFile(file, capabilityFileBytes);
  } catch (const FileError&) {
    return std::nullopt;
  }
}

// "event12" -> 12; none for a name of another kind.
std::optional<unsigned> eventNumber(std::string_view name) {
  constexpr std::string_view prefix = "event";
  if (!name.starts_with(prefix) || name.size() == prefix.size() || name.size() > prefix.size() + 6) return std::nullopt;
  unsigned number = 0;
  for (char c : name.substr(prefix.size())) {
    if (c < '0' || c > '9') return std::nullopt;
    number = number * 10 + unsigned(c - '0');
  }
  return number;
}

std::uint64_t eventNanoseconds(const input_event& event) {
  return std::uint64_t(event.input_event_sec) * 1'000'000'000ull + std::uint64_t(event.input_event_usec) * 1'000ull;
}

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const auto& word : words) {
    if (!text.empty()) text += ", ";
    text += word;
  }
  return text;
}

}  // namespace

const ErrorCatalogue<PointerDeviceError::Case>& PointerDeviceError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"PointerDeviceError", "RecordingErrors", pointerDeviceErrorCases};
  return catalogue;
}

std::optional<std::vector<std::uint64_t>> parseCapabilityBitmap(std::string_view text) {
  text = trimmed(text);
  if (text.empty()) return std::nullopt;
  std::vector<std::uint64_t> words;
  while (true) {
    auto space = text.find(' ');
    auto word = parseHexWord(text.substr(0, space));
    if (!word || words.size() == maximumBitmapWords) return std::nullopt;
    words.push_back(*word);
    if (space == std::string_view::npos) break;
    text.remove_prefix(space + 1);
  }
  std::reverse(words.begin(), words.end());
  return words;
}

bool capabilityBitSet(std::span<const std::uint64_t> words, unsigned bit) {
  return bit / 64 < words.size() && (words[bit / 64] >> (bit % 64) & 1) != 0;
}

EvdevDeviceKind classifyEvdevDevice(std::string_view evCapabilities, std::string_view keyCapabilities) {
  auto types = parseCapabilityBitmap(evCapabilities);
  if (!types) return EvdevDeviceKind::unreadable;
  if (!capabilityBitSet(*types, EV_KEY)) return EvdevDeviceKind::notAPointer;
  auto keys = parseCapabilityBitmap(keyCapabilities);
  if (!keys) return EvdevDeviceKind::unreadable;
  for (unsigned key = typingKeysFirst; key <= typingKeysLast; ++key)
    if (capabilityBitSet(*keys, key)) return EvdevDeviceKind::keyboard;
  if (!capabilityBitSet(*keys, BTN_LEFT)) return EvdevDeviceKind::notAPointer;
  return capabilityBitSet(*keys, BTN_TOOL_FINGER) ? EvdevDeviceKind::touchpad : EvdevDeviceKind::pointer;
}

std::vector<EvdevPointerDevice> choosePointerDevices(const std::filesystem::path& inputClassFolder,
                                                     const std::filesystem::path& deviceFolder) {
  std::vector<std::pair<unsigned, EvdevPointerDevice>> found;
  std::error_code error;
  std::filesystem::directory_iterator entries(inputClassFolder, error);
  if (error) return {};
  for (const auto& entry : entries) {
    std::string name = entry.path().filename().string();
    auto number = eventNumber(name);
    if (!number) continue;
    std::filesystem::path capabilities = entry.path() / "device" / "capabilities";
    auto ev = readCapability(capabilities / "ev");
    if (!ev) continue;
    // A device with no EV_KEY may have no key file at all; it is no pointer either way.
    auto key = readCapability(capabilities / "key");
    auto kind = classifyEvdevDevice(*ev, key ? std::string_view(*key) : std::string_view());
    if (kind != EvdevDeviceKind::pointer && kind != EvdevDeviceKind::touchpad) continue;
    found.push_back({*number, {name, deviceFolder / name, kind}});
  }
  std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<EvdevPointerDevice> devices;
  for (auto& [number, device] : found) devices.push_back(std::move(device));
  return devices;
}

std::vector<PointerButtonEvent> decodePointerButtons(std::span<const input_event> events, EvdevButtonState& state) {
  std::vector<PointerButtonEvent> decoded;
  for (const auto& event : events) {
    if (event.type == EV_SYN && event.code == SYN_DROPPED) {
      ++state.droppedBatches;
      continue;
    }
    if (event.type != EV_KEY || (event.value != 0 && event.value != 1)) continue;
    for (std::size_t i = 0; i < std::size(decodedButtons); ++i) {
      if (decodedButtons[i].code != event.code) continue;
      std::uint32_t bit = 1u << i;
      bool pressed = event.value == 1;
      if (((state.held & bit) != 0) == pressed) break;
      state.held ^= bit;
      decoded.push_back({eventNanoseconds(event), decodedButtons[i].button, pressed});
      break;
    }
  }
  return decoded;
}

PointerButtonAvailability describePointerButtonAvailability(std::size_t chosenCount, std::size_t openedCount,
                                                            std::span<const EvdevOpenFailure> failures) {
  if (openedCount > 0) return {true, {}};
  if (chosenCount == 0)
    return {false,
            "Clicks are not recorded: no mouse or touchpad was found among the input devices, and touchpad taps are "
            "never seen as clicks this way."};
  std::vector<std::string> refused;
  std::vector<std::string> failed;
  for (const auto& failure : failures) {
    if (failure.permissionDenied) refused.push_back(failure.deviceName);
    failed.push_back(fmt::format("{}: {}", failure.deviceName, failure.why));
  }
  if (!refused.empty())
    return {false, fmt::format("Clicks are not recorded: this user may not read the pointer devices ({}); joining the "
                               "input group gives access but also lets this user's programs read every keyboard, and "
                               "touchpad taps are not seen as clicks even then.",
                               joined(refused))};
  return {false, fmt::format("Clicks are not recorded: the pointer devices could not be read ({}), and touchpad taps "
                             "are not seen as clicks this way either.",
                             joined(failed))};
}

struct EvdevPointerButtons::State {
  struct Device {
    EvdevPointerDevice chosen;
    int descriptor = -1;
    libevdev* decoder = nullptr;
    bool monotonicTimes = false;
    EvdevButtonState buttons;

    Device() = default;
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;
    ~Device() {
      if (decoder) libevdev_free(decoder);
      if (descriptor >= 0) ::close(descriptor);
    }
    void close() {
      if (decoder) libevdev_free(decoder);
      if (descriptor >= 0) ::close(descriptor);
      decoder = nullptr;
      descriptor = -1;
    }
  };

  std::vector<std::unique_ptr<Device>> devices;
  PointerButtonAvailability availability;
  std::function<void(const PointerButtonEvent&)> onEvent;
  std::thread worker;
  int wakeDescriptor = -1;

  ~State() {
    if (wakeDescriptor >= 0) ::close(wakeDescriptor);
  }

  // Why a device cannot be used, or nothing once it is open and checked.
  std::optional<EvdevOpenFailure> open(const EvdevPointerDevice& chosen) {
    auto failure = [&](std::string why, bool permissionDenied = false) {
      return EvdevOpenFailure{chosen.name, std::move(why), permissionDenied};
    };
    auto device = std::make_unique<Device>();
    device->chosen = chosen;
    device->descriptor = ::open(chosen.deviceNode.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (device->descriptor < 0) {
      int error = errno;
      return failure(std::strerror(error), error == EACCES || error == EPERM);
    }
    struct stat status {};
    if (::fstat(device->descriptor, &status) != 0 || !S_ISCHR(status.st_mode)) return failure("not a character device");
    if (libevdev_new_from_fd(device->descriptor, &device->decoder) < 0) {
      device->decoder = nullptr;
      return failure("not an input device");
    }
    if (!libevdev_has_event_code(device->decoder, EV_KEY, BTN_LEFT)) return failure("no left button");
    for (unsigned key = typingKeysFirst; key <= typingKeysLast; ++key)
      if (libevdev_has_event_code(device->decoder, EV_KEY, key)) return failure("a keyboard");
    // Without the monotonic clock the kernel stamps events in wall-clock time, which is not the
    // host timebase; such a device is stamped when it is read instead.
    device->monotonicTimes = libevdev_set_clock_id(device->decoder, CLOCK_MONOTONIC) == 0;
    devices.push_back(std::move(device));
    return std::nullopt;
  }

  void deliver(Device& device, const std::vector<input_event>& batch) {
    for (auto event : decodePointerButtons(batch, device.buttons)) {
      if (!device.monotonicTimes) event.hostTimeNanoseconds = monotonicNanoseconds();
      onEvent(event);
    }
  }

  // Reads what the device has queued; false once the device has gone.
  bool read(Device& device) {
    std::vector<input_event> batch;
    batch.reserve(batchEvents);
    bool present = true;
    for (;;) {
      input_event event{};
      int status = libevdev_next_event(device.decoder, LIBEVDEV_READ_FLAG_NORMAL, &event);
      if (status == LIBEVDEV_READ_STATUS_SUCCESS) {
        batch.push_back(event);
      } else if (status == LIBEVDEV_READ_STATUS_SYNC) {
        // The kernel's queue ran over: libevdev reads the device's state again and hands out the
        // differences, which the decoder takes as changes against what it holds.
        batch.push_back(event);
        while ((status = libevdev_next_event(device.decoder, LIBEVDEV_READ_FLAG_SYNC, &event)) ==
               LIBEVDEV_READ_STATUS_SYNC)
          batch.push_back(event);
        if (status != -EAGAIN) present = false;
      } else if (status == -EAGAIN || status == -EINTR) {
        break;
      } else {
        present = false;
      }
      if (!present) break;
      if (batch.size() >= batchEvents) {
        deliver(device, batch);
        batch.clear();
      }
    }
    deliver(device, batch);
    return present;
  }

  void run() {
    std::vector<pollfd> descriptors;
    std::vector<Device*> polled;
    for (;;) {
      descriptors.assign(1, pollfd{wakeDescriptor, POLLIN, 0});
      polled.clear();
      for (auto& device : devices) {
        if (device->descriptor < 0) continue;
        descriptors.push_back({device->descriptor, POLLIN, 0});
        polled.push_back(device.get());
      }
      if (::poll(descriptors.data(), descriptors.size(), -1) < 0) {
        if (errno == EINTR) continue;
        return;
      }
      if (descriptors[0].revents != 0) return;
      for (std::size_t i = 0; i < polled.size(); ++i) {
        short events = descriptors[i + 1].revents;
        if (events == 0) continue;
        bool present = (events & POLLIN) ? read(*polled[i]) : false;
        if (!present || (events & (POLLERR | POLLHUP | POLLNVAL))) polled[i]->close();
      }
    }
  }
};

EvdevPointerButtons::EvdevPointerButtons(const std::vector<EvdevPointerDevice>& devices)
    : state_(std::make_unique<State>()) {
  std::vector<EvdevOpenFailure> failures;
  for (const auto& device : devices)
    if (auto failure = state_->open(device)) failures.push_back(std::move(*failure));
  state_->availability = describePointerButtonAvailability(devices.size(), state_->devices.size(), failures);
}

EvdevPointerButtons::~EvdevPointerButtons() { stop(); }

const PointerButtonAvailability& EvdevPointerButtons::availability() const { return state_->availability; }

std::vector<std::filesystem::path> EvdevPointerButtons::openedDevices() const {
  std::vector<std::filesystem::path> nodes;
  for (const auto& device : state_->devices) nodes.push_back(device->chosen.deviceNode);
  return nodes;
}

void EvdevPointerButtons::start(std::function<void(const PointerButtonEvent&)> onEvent) {
  if (state_->worker.joinable() || state_->devices.empty()) return;
  if (state_->wakeDescriptor < 0) {
    state_->wakeDescriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (state_->wakeDescriptor < 0)
      throw PointerDeviceError(PointerDeviceError::Case::inputDevicesFailed, std::strerror(errno));
  } else {
    std::uint64_t pending = 0;
    [[maybe_unused]] auto drained = ::read(state_->wakeDescriptor, &pending, sizeof pending);
  }
  state_->onEvent = std::move(onEvent);
  try {
    state_->worker = std::thread([state = state_.get()] {
      pthread_setname_np(pthread_self(), "Vumo.Buttons");
      state->run();
    });
  } catch (const std::system_error& error) {
    throw PointerDeviceError(PointerDeviceError::Case::inputDevicesFailed, error.what());
  }
}

void EvdevPointerButtons::stop() {
  if (!state_->worker.joinable()) return;
  std::uint64_t one = 1;
  [[maybe_unused]] auto written = ::write(state_->wakeDescriptor, &one, sizeof one);
  state_->worker.join();
}

PointerButtonAvailability pointerButtonAvailability(const std::filesystem::path& inputClassFolder,
                                                    const std::filesystem::path& deviceFolder) {
  return EvdevPointerButtons(choosePointerDevices(inputClassFolder, deviceFolder)).availability();
}

}  // namespace vumo
