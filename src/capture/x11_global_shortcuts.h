#pragma once

// Shortcuts that work while another program has the focus: passive key grabs on the root window.
// The header shows no XCB type; the owner watches `fileDescriptor()` (a QSocketNotifier, or poll)
// and collects the presses with `takePresses()` on its own thread.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "shared/error.h"

namespace vumo {

// A shortcut that is not a key combination, or one that another program holds already. The payload
// is the shortcut's text.
class GlobalShortcutError : public Error {
 public:
  enum class Case { invalidSequence, keyUnavailable, conflict };

  GlobalShortcutError(Case kind, std::string_view sequence);

  Case kind() const noexcept { return kind_; }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  Case kind_;
};

// The modifiers as the X server counts them (its state bits), so a grab and a press compare
// directly.
namespace shortcut_modifiers {
inline constexpr std::uint16_t shift = 1 << 0;
inline constexpr std::uint16_t control = 1 << 2;
inline constexpr std::uint16_t alt = 1 << 3;    // Mod1
inline constexpr std::uint16_t super = 1 << 6;  // Mod4, Qt's "Meta"
}  // namespace shortcut_modifiers

struct ShortcutSequence {
  std::uint16_t modifiers = 0;
  std::uint32_t keysym = 0;  // the unshifted symbol: a letter's lower-case one
  friend bool operator==(const ShortcutSequence&, const ShortcutSequence&) = default;
};

// A sequence as Qt writes it in its portable text: modifiers then one key, joined by '+', e.g.
// "Ctrl+Shift+R", "Alt+F9", "Meta+Space", "Ctrl++". Names are matched without regard to case.
// None for anything else (several chords, no key, an unknown name).
std::optional<ShortcutSequence> parseShortcutSequence(std::string_view text);

class X11GlobalShortcuts {
 public:
  // An empty name means $DISPLAY. Fails with CaptureError (displayUnavailable, waylandSession):
  // on a Wayland session X11 grabs see only the keys typed into X11 windows.
  explicit X11GlobalShortcuts(const std::string& displayName = {});
  ~X11GlobalShortcuts();
  X11GlobalShortcuts(const X11GlobalShortcuts&) = delete;
  X11GlobalShortcuts& operator=(const X11GlobalShortcuts&) = delete;

  // Grabs the sequence, whatever the state of Caps Lock and Num Lock, and returns the number its
  // presses are reported by. GlobalShortcutError: invalidSequence, keyUnavailable (no key of this
  // keyboard makes it), conflict (another program grabbed it first; nothing of it stays grabbed).
  int add(std::string_view sequenceText);
  void remove(int id);

  // Readable when events wait; presses already read into the connection's queue are not signalled
  // by it, so an owner calls `takePresses` after `add` too.
  int fileDescriptor() const;
  // The shortcuts pressed since the last call, in order, without blocking. A key held down
  // reports one press, not the keyboard's repeats.
  std::vector<int> takePresses();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace vumo
