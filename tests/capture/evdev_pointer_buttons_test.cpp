#include "capture/evdev_pointer_buttons.h"

#include <gtest/gtest.h>
#include <libevdev/libevdev-uinput.h>
#include <libevdev/libevdev.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <fstream>
#include <mutex>
#include <thread>

#include "support/test_support.h"

namespace vumo {
namespace {

using namespace std::chrono_literals;
using testing::TemporaryDirectory;

// Capability texts as the kernel writes them on a 64-bit machine (highest word first).
constexpr const char* mouseKeys = "ffff0000 0 0 0 0\n";       // BTN_LEFT..BTN_TASK and beyond
constexpr const char* touchpadKeys = "6420 30000 0 0 0 0\n";  // BTN_LEFT, BTN_RIGHT, BTN_TOOL_FINGER, taps
constexpr const char* keyboardKeys =
    "1000000000007 ff9f207ac14057ff febeffdfffefffff fffffffffffffffe\n";  // KEY_ESC onwards
constexpr const char* keyboardWithPointerKeys = "70000 0 0 0 fffffffffffffffe\n";

TEST(EvdevPointerButtons, ParsesCapabilityBitmaps) {
  struct Case {
    const char* text;
    std::optional<std::vector<std::uint64_t>> words;  // lowest first
  };
  Case cases[] = {
      {"0\n", std::vector<std::uint64_t>{0}},
      {"17\n", std::vector<std::uint64_t>{0x17}},
      {"ffff0000 0 0 0 0\n", std::vector<std::uint64_t>{0, 0, 0, 0, 0xffff0000}},
      {"1 FFFFFFFFFFFFFFFF", std::vector<std::uint64_t>{0xffffffffffffffff, 1}},
      {"", std::nullopt},
      {" \n", std::nullopt},
      {"1  2\n", std::nullopt},               // an empty word
      {"x1\n", std::nullopt},                 // not hexadecimal
      {"-1\n", std::nullopt},                 //
      {"10000000000000000\n", std::nullopt},  // seventeen digits: wider than a word
      {"1\n2\n", std::nullopt},               // lines, not words
  };
  for (const auto& c : cases) EXPECT_EQ(parseCapabilityBitmap(c.text), c.words) << c.text;

  std::string tooMany = "1";
  for (int i = 0; i < 64; ++i) tooMany += " 0";
  EXPECT_EQ(parseCapabilityBitmap(tooMany), std::nullopt);

  std::vector<std::uint64_t> words{0x8000'0000'0000'0000, 0x1};
  EXPECT_TRUE(capabilityBitSet(words, 63));
  EXPECT_TRUE(capabilityBitSet(words, 64));
  EXPECT_FALSE(capabilityBitSet(words, 62));
  EXPECT_FALSE(capabilityBitSet(words, 65));
  EXPECT_FALSE(capabilityBitSet(words, 128));  // past the end
}

TEST(EvdevPointerButtons, TellsPointersFromKeyboardsByTheirCapabilities) {
  struct Case {
    const char* what;
    const char* ev;
    const char* key;
    EvdevDeviceKind kind;
  };
  Case cases[] = {
      {"a mouse", "17\n", mouseKeys, EvdevDeviceKind::pointer},
      {"a touchpad", "b\n", touchpadKeys, EvdevDeviceKind::touchpad},
      {"a keyboard", "120013\n", keyboardKeys, EvdevDeviceKind::keyboard},
      {"a keyboard with a built-in pointer", "120017\n", keyboardWithPointerKeys, EvdevDeviceKind::keyboard},
      {"a mouse with Enter alone", "17\n", "ffff0000 0 0 0 10000000\n", EvdevDeviceKind::keyboard},
      {"a mouse with Space alone", "17\n", "ffff0000 0 0 0 200000000000000\n", EvdevDeviceKind::keyboard},
      {"a mouse with volume keys", "17\n", "ffff0000 0 0 e000000000000 0\n", EvdevDeviceKind::pointer},
      {"a touch screen", "b\n", "400 0 0 0 0 0\n", EvdevDeviceKind::notAPointer},
      {"a power button", "3\n", "10000000000000 0\n", EvdevDeviceKind::notAPointer},
      {"an accelerometer, no key file", "9\n", "", EvdevDeviceKind::notAPointer},
      {"a right button but no left", "17\n", "20000 0 0 0 0\n", EvdevDeviceKind::notAPointer},
      {"EV_KEY missing though keys are listed", "15\n", mouseKeys, EvdevDeviceKind::notAPointer},
      {"garbage types", "hello\n", mouseKeys, EvdevDeviceKind::unreadable},
      {"keys missing", "17\n", "", EvdevDeviceKind::unreadable},
      {"garbage keys", "17\n", "ffff0000 0 0 0 0 zz\n", EvdevDeviceKind::unreadable},
  };
  for (const auto& c : cases) EXPECT_EQ(classifyEvdevDevice(c.ev, c.key), c.kind) << c.what;
}

input_event inputEvent(std::int64_t seconds, std::int64_t microseconds, unsigned type, unsigned code, int value) {
  input_event event{};
  event.input_event_sec = seconds;
  event.input_event_usec = microseconds;
  event.type = type;
  event.code = code;
  event.value = value;
  return event;
}

input_event key(std::int64_t seconds, std::int64_t microseconds, unsigned code, int value) {
  return inputEvent(seconds, microseconds, EV_KEY, code, value);
}
input_event report(std::int64_t seconds, std::int64_t microseconds) {
  return inputEvent(seconds, microseconds, EV_SYN, SYN_REPORT, 0);
}
input_event dropped(std::int64_t seconds, std::int64_t microseconds) {
  return inputEvent(seconds, microseconds, EV_SYN, SYN_DROPPED, 0);
}

struct Button {
  std::uint64_t time;
  MouseButton button;
  bool pressed;
  friend bool operator==(const Button&, const Button&) = default;
};

std::ostream& operator<<(std::ostream& out, const Button& b) {
  return out << "(" << b.time << " button " << int(b.button) << (b.pressed ? " down)" : " up)");
}

TEST(EvdevPointerButtons, DecodesPressesAndReleases) {
  constexpr auto left = MouseButton::left;
  constexpr auto right = MouseButton::right;
  constexpr auto other = MouseButton::other;
  struct Case {
    const char* what;
    std::uint32_t heldBefore;
    std::vector<input_event> events;
    std::vector<Button> expected;
    std::uint32_t heldAfter;
    std::int64_t droppedBatches;
  };
  Case cases[] = {
      {"a left click",
       0,
       {key(1, 1, BTN_LEFT, 1), report(1, 1), key(1, 250'000, BTN_LEFT, 0), report(1, 250'000)},
       {{1'000'001'000, left, true}, {1'250'000'000, left, false}},
       0,
       0},
      {"right, and middle, side and extra as other",
       0,
       {key(2, 0, BTN_RIGHT, 1), key(2, 10, BTN_MIDDLE, 1), key(2, 20, BTN_SIDE, 1), key(2, 30, BTN_EXTRA, 1),
        key(2, 40, BTN_EXTRA, 0), report(2, 40)},
       {{2'000'000'000, right, true},
        {2'000'010'000, other, true},
        {2'000'020'000, other, true},
        {2'000'030'000, other, true},
        {2'000'040'000, other, false}},
       0b01110,
       0},
      {"autorepeat is no click",
       0,
       {key(3, 0, BTN_LEFT, 1), key(3, 500'000, BTN_LEFT, 2), key(3, 600'000, BTN_LEFT, 2), key(4, 0, BTN_LEFT, 0)},
       {{3'000'000'000, left, true}, {4'000'000'000, left, false}},
       0,
       0},
      {"other keys, other types and other buttons are ignored",
       0,
       {key(5, 0, BTN_TOUCH, 1), key(5, 0, BTN_TOOL_FINGER, 1), key(5, 0, KEY_A, 1), key(5, 0, BTN_FORWARD, 1),
        key(5, 0, BTN_TASK, 1), inputEvent(5, 0, EV_REL, BTN_LEFT, 1), inputEvent(5, 0, EV_MSC, MSC_SCAN, 0x90001),
        report(5, 0)},
       {},
       0,
       0},
      {"a press while held and a release of a button not held change nothing",
       0b00001,
       {key(6, 0, BTN_LEFT, 1), key(6, 1, BTN_RIGHT, 0)},
       {},
       0b00001,
       0},
      {"a release lost in a drop comes from the resync",
       0b00001,
       {dropped(7, 0), key(7, 5, BTN_LEFT, 0), report(7, 5)},
       {{7'000'005'000, left, false}},
       0,
       1},
      {"a drop that changed nothing gives nothing",
       0b00010,
       {dropped(8, 0), key(8, 5, BTN_RIGHT, 1), report(8, 5), dropped(8, 9), report(8, 9)},
       {},
       0b00010,
       2},
  };
  for (const auto& c : cases) {
    EvdevButtonState state{c.heldBefore, 0};
    std::vector<Button> seen;
    for (const auto& event : decodePointerButtons(c.events, state))
      seen.push_back({event.hostTimeNanoseconds, event.button, event.pressed});
    EXPECT_EQ(seen, c.expected) << c.what;
    EXPECT_EQ(state.held, c.heldAfter) << c.what;
    EXPECT_EQ(state.droppedBatches, c.droppedBatches) << c.what;
  }
}

void writeText(const std::filesystem::path& file, std::string_view text) {
  std::filesystem::create_directories(file.parent_path());
  std::ofstream(file) << text;
}

// An input class folder as sysfs lays it out: <root>/eventN/device/capabilities/{ev,key}.
void addDevice(const std::filesystem::path& root, const std::string& name, std::string_view ev,
               std::optional<std::string_view> key) {
  auto capabilities = root / name / "device" / "capabilities";
  writeText(capabilities / "ev", ev);
  if (key) writeText(capabilities / "key", *key);
}

TEST(EvdevPointerButtons, ChoosesPointersFromSysfsWithoutOpeningOthers) {
  TemporaryDirectory sysfs;
  auto root = sysfs.path() / "class" / "input";
  addDevice(root, "event3", "17\n", mouseKeys);
  addDevice(root, "event10", "b\n", touchpadKeys);
  addDevice(root, "event2", "120013\n", keyboardKeys);
  addDevice(root, "event4", "120017\n", keyboardWithPointerKeys);
  addDevice(root, "event5", "zz\n", mouseKeys);
  addDevice(root, "event7", "9\n", std::nullopt);
  addDevice(root, "mouse0", "17\n", mouseKeys);  // the legacy node of the same mouse
  addDevice(root, "input5", "17\n", mouseKeys);
  addDevice(root, "event", "17\n", mouseKeys);
  addDevice(root, "event8x", "17\n", mouseKeys);
  // A planted FIFO is refused without a hang.
  std::filesystem::create_directories(root / "event9" / "device" / "capabilities");
  ASSERT_EQ(::mkfifo((root / "event9" / "device" / "capabilities" / "ev").c_str(), 0600), 0);
  writeText(root / "event9" / "device" / "capabilities" / "key", mouseKeys);

  auto devices = choosePointerDevices(root, "/fake/dev/input");
  ASSERT_EQ(devices.size(), 2u);
  EXPECT_EQ(devices[0].name, "event3");
  EXPECT_EQ(devices[0].deviceNode, std::filesystem::path("/fake/dev/input/event3"));
  EXPECT_EQ(devices[0].kind, EvdevDeviceKind::pointer);
  EXPECT_EQ(devices[1].name, "event10");  // in the order of numbers, not of names
  EXPECT_EQ(devices[1].deviceNode, std::filesystem::path("/fake/dev/input/event10"));
  EXPECT_EQ(devices[1].kind, EvdevDeviceKind::touchpad);

  EXPECT_TRUE(choosePointerDevices(sysfs.path() / "missing", "/dev/input").empty());
}

TEST(EvdevPointerButtons, SaysInOneSentenceWhyClicksAreMissing) {
  struct Case {
    const char* what;
    std::size_t chosen;
    std::size_t opened;
    std::vector<EvdevOpenFailure> failures;
    PointerButtonAvailability expected;
  };
  Case cases[] = {
      {"one of two opened", 2, 1, {{"event3", "Permission denied", true}}, {true, ""}},
      {"no pointer at all",
       0,
       0,
       {},
       {false,
        "Clicks are not recorded: no mouse or touchpad was found among the input devices, and touchpad taps are "
        "never seen as clicks this way."}},
      {"refused to this user",
       3,
       0,
       {{"event3", "Permission denied", true},
        {"event5", "No such device", false},
        {"event9",
         "Operation not "
         "permitted",
         true}},
       {false,
        "Clicks are not recorded: this user may not read the pointer devices (event3, event9); joining the input "
        "group gives access but also lets this user's programs read every keyboard, and touchpad taps are not seen "
        "as clicks even then."}},
      {"failed otherwise",
       2,
       0,
       {{"event3", "not a character device", false}, {"event5", "not an input device", false}},
       {false,
        "Clicks are not recorded: the pointer devices could not be read (event3: not a character device, event5: "
        "not an input device), and touchpad taps are not seen as clicks this way either."}},
  };
  for (const auto& c : cases) {
    auto availability = describePointerButtonAvailability(c.chosen, c.opened, c.failures);
    EXPECT_EQ(availability.available, c.expected.available) << c.what;
    EXPECT_EQ(availability.reason, c.expected.reason) << c.what;
  }
}

TEST(EvdevPointerButtons, GoesOnWithoutClicksWhereNoChosenDeviceIsReadable) {
  TemporaryDirectory tree;
  auto root = tree.path() / "class" / "input";
  auto nodes = tree.path() / "dev" / "input";
  addDevice(root, "event3", "17\n", mouseKeys);
  addDevice(root, "event4", "17\n", mouseKeys);
  addDevice(root, "event5", "17\n", mouseKeys);
  addDevice(root, "event6", "120013\n", keyboardKeys);
  std::filesystem::create_directories(nodes);
  // event3 has no node; event4's is a plain file; event5's is a character device that is no input
  // device. event6 is a keyboard whose node must never be opened: it is a FIFO, which would
  // block an open without O_NONBLOCK and show up in the report if it were tried.
  writeText(nodes / "event4", "not a device");
  std::filesystem::create_symlink("/dev/null", nodes / "event5");
  ASSERT_EQ(::mkfifo((nodes / "event6").c_str(), 0600), 0);

  EvdevPointerButtons source(choosePointerDevices(root, nodes));
  EXPECT_FALSE(source.availability().available);
  EXPECT_EQ(source.availability().reason,
            "Clicks are not recorded: the pointer devices could not be read (event3: No such file or directory, "
            "event4: not a character device, event5: not an input device), and touchpad taps are not seen as "
            "clicks this way either.");
  EXPECT_TRUE(source.openedDevices().empty());
  // With nothing to read, the source starts and stops without a thread and delivers nothing.
  bool delivered = false;
  source.start([&](const PointerButtonEvent&) { delivered = true; });
  source.stop();
  EXPECT_FALSE(delivered);

  EXPECT_EQ(pointerButtonAvailability(root, nodes).reason, source.availability().reason);
  EXPECT_FALSE(pointerButtonAvailability(tree.path() / "nothing", nodes).available);
}

// A pointer made through uinput, found through the real sysfs, read through its real node.
TEST(EvdevPointerButtons, ReadsClicksOfARealPointerDevice) {
  if (::access("/dev/uinput", W_OK) != 0)
    GTEST_SKIP() << "/dev/uinput is missing or not writable here, so no pointer device can be made for the test";

  std::unique_ptr<libevdev, decltype(&libevdev_free)> description(libevdev_new(), libevdev_free);
  libevdev_set_name(description.get(), "Vumo test pointer");
  libevdev_enable_event_type(description.get(), EV_REL);
  libevdev_enable_event_code(description.get(), EV_REL, REL_X, nullptr);
  libevdev_enable_event_code(description.get(), EV_REL, REL_Y, nullptr);
  libevdev_enable_event_type(description.get(), EV_KEY);
  libevdev_enable_event_code(description.get(), EV_KEY, BTN_LEFT, nullptr);
  libevdev_enable_event_code(description.get(), EV_KEY, BTN_RIGHT, nullptr);
  libevdev_uinput* created = nullptr;
  int status = libevdev_uinput_create_from_device(description.get(), LIBEVDEV_UINPUT_OPEN_MANAGED, &created);
  ASSERT_EQ(status, 0) << "uinput refused the device: " << std::strerror(-status);
  std::unique_ptr<libevdev_uinput, decltype(&libevdev_uinput_destroy)> pointer(created, libevdev_uinput_destroy);

  // The kernel announces the device in sysfs and devtmpfs makes its node; both take a moment.
  std::vector<EvdevPointerDevice> mine;
  const char* node = nullptr;
  for (auto deadline = std::chrono::steady_clock::now() + 3s; std::chrono::steady_clock::now() < deadline;
       std::this_thread::sleep_for(20ms)) {
    node = libevdev_uinput_get_devnode(pointer.get());
    if (!node || !std::filesystem::exists(node)) continue;
    for (const auto& device : choosePointerDevices())
      if (device.deviceNode == node) mine.push_back(device);
    if (!mine.empty()) break;
  }
  if (!node || !std::filesystem::exists(node))
    GTEST_SKIP() << "the device was made but no node appeared under /dev/input (no devtmpfs here)";
  ASSERT_EQ(mine.size(), 1u) << node << " was not chosen as a pointer";
  EXPECT_EQ(mine[0].kind, EvdevDeviceKind::pointer);

  EvdevPointerButtons source(mine);
  ASSERT_TRUE(source.availability().available) << source.availability().reason;
  std::mutex lock;
  std::condition_variable arrived;
  std::vector<PointerButtonEvent> events;
  source.start([&](const PointerButtonEvent& event) {
    std::lock_guard guard(lock);
    events.push_back(event);
    arrived.notify_all();
  });

  auto send = [&](unsigned type, unsigned code, int value) {
    ASSERT_EQ(libevdev_uinput_write_event(pointer.get(), type, code, value), 0);
  };
  std::uint64_t before = monotonicNanoseconds();
  send(EV_REL, REL_X, 5);
  send(EV_SYN, SYN_REPORT, 0);
  send(EV_KEY, BTN_LEFT, 1);
  send(EV_SYN, SYN_REPORT, 0);
  std::this_thread::sleep_for(30ms);
  std::uint64_t middle = monotonicNanoseconds();
  send(EV_KEY, BTN_LEFT, 0);
  send(EV_SYN, SYN_REPORT, 0);
  send(EV_KEY, BTN_RIGHT, 1);
  send(EV_SYN, SYN_REPORT, 0);
  send(EV_KEY, BTN_RIGHT, 0);
  send(EV_SYN, SYN_REPORT, 0);
  {
    std::unique_lock guard(lock);
    arrived.wait_for(guard, 3s, [&] { return events.size() >= 4; });
  }
  source.stop();
  std::uint64_t after = monotonicNanoseconds();

  ASSERT_EQ(events.size(), 4u);
  std::vector<std::pair<MouseButton, bool>> seen;
  for (const auto& event : events) seen.push_back({event.button, event.pressed});
  EXPECT_EQ(seen, (std::vector<std::pair<MouseButton, bool>>{{MouseButton::left, true},
                                                             {MouseButton::left, false},
                                                             {MouseButton::right, true},
                                                             {MouseButton::right, false}}));
  // Stamped by the kernel on the host timebase when each event was written.
  EXPECT_GE(events[0].hostTimeNanoseconds, before);
  EXPECT_LE(events[0].hostTimeNanoseconds, middle);
  EXPECT_GE(events[1].hostTimeNanoseconds, middle);
  for (std::size_t i = 1; i < events.size(); ++i)
    EXPECT_GE(events[i].hostTimeNanoseconds, events[i - 1].hostTimeNanoseconds);
  EXPECT_LE(events.back().hostTimeNanoseconds, after);
}

}  // namespace
}  // namespace vumo
