#include "capture/x11_global_shortcuts.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <chrono>

#include "capture/capture_error.h"
#include "support/desktop_servers.h"

namespace vumo {
namespace {

using namespace std::chrono_literals;
using testing::XvfbServer;
namespace m = shortcut_modifiers;

TEST(ShortcutSequence, ReadsQtsPortableText) {
  struct Case {
    std::string_view text;
    std::optional<ShortcutSequence> expected;
  } cases[] = {
      {"Ctrl+Shift+R", ShortcutSequence{m::control | m::shift, 'r'}},
      {"ctrl+shift+r", ShortcutSequence{m::control | m::shift, 'r'}},
      {"Shift+Ctrl+R", ShortcutSequence{m::control | m::shift, 'r'}},
      {"Alt+F9", ShortcutSequence{m::alt, 0xffc6}},
      {"F12", ShortcutSequence{0, 0xffc9}},
      {"Meta+Space", ShortcutSequence{m::super, ' '}},
      {"Control+Alt+Del", ShortcutSequence{m::control | m::alt, 0xffff}},
      {"Ctrl+Alt+PgDown", ShortcutSequence{m::control | m::alt, 0xff56}},
      {"Ctrl++", ShortcutSequence{m::control, '+'}},
      {"Ctrl+,", ShortcutSequence{m::control, ','}},
      {"Ctrl+5", ShortcutSequence{m::control, '5'}},
      {"Ctrl+Esc", ShortcutSequence{m::control, 0xff1b}},
      {"Ctrl+Shift+Print", ShortcutSequence{m::control | m::shift, 0xff61}},
      {"", std::nullopt},
      {"Ctrl+", std::nullopt},
      {"Ctrl", std::nullopt},
      {"Ctrl+Ctrl+R", std::nullopt},
      {"Hyper+R", std::nullopt},
      {"Ctrl+X, Ctrl+C", std::nullopt},
      {"Ctrl+F36", std::nullopt},
      {"Ctrl+F0", std::nullopt},
      {"Ctrl+Rr", std::nullopt},
      {"Ctrl+é", std::nullopt},
      {"+R", std::nullopt},
  };
  for (const Case& c : cases) EXPECT_EQ(parseShortcutSequence(c.text), c.expected) << c.text;
}

// Presses that arrive within a few seconds, or what came until then.
std::vector<int> waitForPresses(X11GlobalShortcuts& shortcuts, std::size_t count) {
  std::vector<int> seen;
  const auto deadline = std::chrono::steady_clock::now() + 5s;
  while (seen.size() < count && std::chrono::steady_clock::now() < deadline) {
    for (int id : shortcuts.takePresses()) seen.push_back(id);
    if (seen.size() >= count) break;
    pollfd descriptor{shortcuts.fileDescriptor(), POLLIN, 0};
    ::poll(&descriptor, 1, 50);
  }
  return seen;
}

TEST(X11GlobalShortcuts, ReportsGrabbedKeysPressedAnywhereWhateverTheLockKeys) {
  XvfbServer server;
  X11GlobalShortcuts shortcuts(server.display());
  const int startStop = shortcuts.add("Ctrl+Shift+R");
  const int pause = shortcuts.add("Ctrl+Shift+P");
  auto xdotool = [&](std::vector<std::string> words) { testing::xdotool(server.display(), words); };

  xdotool({"key", "ctrl+shift+r"});
  xdotool({"key", "ctrl+r"});  // not the combination: not reported
  xdotool({"key", "ctrl+shift+p"});
  xdotool({"key", "Caps_Lock"});
  xdotool({"key", "ctrl+shift+r"});
  xdotool({"key", "Caps_Lock", "Num_Lock"});
  xdotool({"key", "ctrl+shift+p"});
  xdotool({"key", "Num_Lock"});
  EXPECT_EQ(waitForPresses(shortcuts, 4), (std::vector<int>{startStop, pause, startStop, pause}));

  // A removed shortcut is the keyboard's again.
  shortcuts.remove(pause);
  xdotool({"key", "ctrl+shift+p"});
  xdotool({"key", "ctrl+shift+r"});
  EXPECT_EQ(waitForPresses(shortcuts, 2), std::vector<int>{startStop});
}

TEST(X11GlobalShortcuts, AKeyAnotherProgramHoldsIsAConflictAndLeavesNothingGrabbed) {
  XvfbServer server;
  auto other = std::make_unique<X11GlobalShortcuts>(server.display());
  other->add("Ctrl+Alt+R");
  X11GlobalShortcuts shortcuts(server.display());
  try {
    shortcuts.add("Ctrl+Alt+R");
    ADD_FAILURE() << "no conflict reported";
  } catch (const GlobalShortcutError& error) {
    EXPECT_EQ(error.kind(), GlobalShortcutError::Case::conflict);
    EXPECT_STREQ(error.what(),
                 "The shortcut Ctrl+Alt+R is already used by another program. Choose another one in Settings.");
  }
  // Once the other program lets go, the same key can be had.
  other.reset();
  const int id = shortcuts.add("Ctrl+Alt+R");
  testing::xdotool(server.display(), {"key", "ctrl+alt+r"});
  EXPECT_EQ(waitForPresses(shortcuts, 1), std::vector<int>{id});

  EXPECT_ERROR_CASE(shortcuts.add("Ctrl+Nothing"), GlobalShortcutError, GlobalShortcutError::Case::invalidSequence);
  EXPECT_ERROR_CASE(shortcuts.add("Ctrl+F35"), GlobalShortcutError, GlobalShortcutError::Case::keyUnavailable);
}

TEST(X11GlobalShortcuts, IsRefusedWithoutADisplay) {
  EXPECT_ERROR_CASE(X11GlobalShortcuts(":999"), CaptureError, CaptureError::Case::displayUnavailable);
}

}  // namespace
}  // namespace vumo
