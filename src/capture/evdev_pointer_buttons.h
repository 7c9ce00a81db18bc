#pragma once

#include <linux/input.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "capture/capture_streams.h"
#include "shared/error.h"

namespace vumo {

// Clicks read straight from the kernel's input devices, for desktops that give a recorder the
// pointer's position but not its buttons (a Wayland compositor's screen cast). Only pointer
// devices are ever opened: they are chosen from what sysfs says of each device before any device
// node is touched, so a keyboard, and with it what the person types, is never read.
//
// What this sees is what the device reports: the buttons of a mouse and the physical press of a
// clickpad. A tap on a touchpad is no button event at all (the desktop's input stack makes it a
// click from the touches), so taps are not recorded as clicks.

// The default places of the devices' descriptions and of their nodes.
inline const std::filesystem::path defaultInputClassFolder = "/sys/class/input";
inline const std::filesystem::path defaultInputDeviceFolder = "/dev/input";

// A capability bitmap as sysfs writes it: words in hexadecimal separated by spaces, the highest
// word first, each as wide as the kernel's `long` (64 bits here). Returns the words lowest first,
// or none for text that is not such a bitmap.
std::optional<std::vector<std::uint64_t>> parseCapabilityBitmap(std::string_view text);

// Whether bit `bit` is set in a bitmap of parseCapabilityBitmap.
bool capabilityBitSet(std::span<const std::uint64_t> words, unsigned bit);

enum class EvdevDeviceKind {
  pointer,      // pointer buttons, no keyboard keys: a mouse, a trackball, a pointing stick
  touchpad,     // the same with finger tools: its buttons are seen, its taps are not
  keyboard,     // has keys that type (letters, digits, Enter, Space), whatever else it has
  notAPointer,  // no left button: a touch screen, a tablet, a joystick, a power button
  unreadable,   // the capabilities are missing or are not bitmaps
};

// What a device is, from the texts of its `capabilities/ev` and `capabilities/key` files. A
// pointer has EV_KEY with BTN_LEFT at least; any key of the typing block (KEY_ESC to KEY_KPDOT:
// the letters, the digits, Enter, Space and the keypad) makes it a keyboard, so a keyboard with a
// built-in pointer is refused.
EvdevDeviceKind classifyEvdevDevice(std::string_view evCapabilities, std::string_view keyCapabilities);

struct EvdevPointerDevice {
  std::string name;                  // "event7"
  std::filesystem::path deviceNode;  // "/dev/input/event7"
  EvdevDeviceKind kind = EvdevDeviceKind::pointer;
};

// The pointers and touchpads among `<inputClassFolder>/event*`, in the order of their numbers,
// each with its node in `deviceFolder`. Reads only the small regular files of sysfs; a folder that
// cannot be listed gives none.
std::vector<EvdevPointerDevice> choosePointerDevices(
    const std::filesystem::path& inputClassFolder = defaultInputClassFolder,
    const std::filesystem::path& deviceFolder = defaultInputDeviceFolder);

// What one device's decoder remembers between batches of events.
struct EvdevButtonState {
  std::uint32_t held = 0;           // one bit per decoded button, in the order of decodedButtons
  std::int64_t droppedBatches = 0;  // SYN_DROPPED seen: the kernel's queue ran over
};

// Presses and releases of BTN_LEFT (left), BTN_RIGHT (right), BTN_MIDDLE, BTN_SIDE and BTN_EXTRA
// (other) in a run of events as libevdev hands them out, stamped with the event's own time (the
// device's clock is CLOCK_MONOTONIC, the host timebase). Autorepeat (value 2) and every other
// code are ignored. A value that matches what is already held is no change: after SYN_DROPPED
// libevdev reports the device's state afresh, and only the buttons whose state moved while events
// were lost come out.
std::vector<PointerButtonEvent> decodePointerButtons(std::span<const input_event> events, EvdevButtonState& state);

// Whether clicks can be recorded, and in one sentence why not.
struct PointerButtonAvailability {
  bool available = false;
  std::string reason;  // empty when available
};

// Why one chosen device could not be used.
struct EvdevOpenFailure {
  std::string deviceName;         // "event7"
  std::string why;                // "Permission denied", "not a character device"
  bool permissionDenied = false;  // the user may not read it: the one a person can remedy
};

// The report after opening `chosenCount` devices, of which `openedCount` opened and the rest
// failed as `failures` says. The sentence of a refused permission names the input group, which
// gives access to pointers and keyboards alike, since the person must know what they give away.
PointerButtonAvailability describePointerButtonAvailability(std::size_t chosenCount, std::size_t openedCount,
                                                            std::span<const EvdevOpenFailure> failures);

// Failures of the system while reading the pointer devices (no descriptor left for the wake-up).
// A device that cannot be read is no error: the recording goes on without its clicks.
class PointerDeviceError : public Error {
 public:
  enum class Case { inputDevicesFailed };
  explicit PointerDeviceError(Case kind, std::string_view detail = {})
      : Error(catalogue(), kind, detail), kind_(kind) {}
  Case kind() const noexcept { return kind_; }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  Case kind_;
};

// The chosen devices' buttons. Each device node is opened read-only and non-blocking, and only if
// it is a character device that libevdev takes as an input device with a left button and no
// typing keys (the sysfs choice is checked again on the open device, in case the number was
// reused meanwhile). Devices that cannot be opened are left out; with none left, `start` delivers
// nothing and `availability` says why. Never grabs a device: the desktop sees every event as
// before.
class EvdevPointerButtons : public PointerButtonSource {
 public:
  explicit EvdevPointerButtons(const std::vector<EvdevPointerDevice>& devices);
  ~EvdevPointerButtons() override;
  EvdevPointerButtons(const EvdevPointerButtons&) = delete;
  EvdevPointerButtons& operator=(const EvdevPointerButtons&) = delete;

  const PointerButtonAvailability& availability() const;
  // The nodes that were opened.
  std::vector<std::filesystem::path> openedDevices() const;

  // The handler runs on the source's own thread. A device that goes away (unplugged) is left out
  // from then on. Fails with PointerDeviceError when the thread cannot be set up.
  void start(std::function<void(const PointerButtonEvent&)> onEvent) override;
  void stop() override;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// Whether clicks can be recorded here, by opening (and closing again) the chosen devices: what a
// listing of sources reports without starting anything.
PointerButtonAvailability pointerButtonAvailability(
    const std::filesystem::path& inputClassFolder = defaultInputClassFolder,
    const std::filesystem::path& deviceFolder = defaultInputDeviceFolder);

}  // namespace vumo
