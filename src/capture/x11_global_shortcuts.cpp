#include "capture/x11_global_shortcuts.h"

#include <xcb/xcb.h>
#include <xcb/xcb_keysyms.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <map>

#include "capture/x11_connection.h"

namespace vumo {

namespace {

using Shortcut = GlobalShortcutError::Case;
constexpr ErrorCase<Shortcut> shortcutCases[] = {
    {Shortcut::invalidSequence, "invalidSequence", "shortcuts.error.invalidSequence",
     "“{}” is not a key combination that can be used as a shortcut.", "invalid_value", ErrorKind::validation},
    {Shortcut::keyUnavailable, "keyUnavailable", "shortcuts.error.keyUnavailable",
     "No key of this keyboard makes the shortcut {}.", "execution", ErrorKind::failure},
    {Shortcut::conflict, "conflict", "shortcuts.error.conflict",
     "The shortcut {} is already used by another program. Choose another one in Settings.", "execution",
     ErrorKind::failure},
};
static_assert(inCaseOrder(shortcutCases));

std::string lowered(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(), [](unsigned char c) { return std::tolower(c); });
  return result;
}

std::optional<std::uint16_t> modifierNamed(const std::string& name) {
  namespace m = shortcut_modifiers;
  if (name == "ctrl" || name == "control") return m::control;
  if (name == "shift") return m::shift;
  if (name == "alt") return m::alt;
  if (name == "meta" || name == "super") return m::super;
  return std::nullopt;
}

std::optional<std::uint32_t> keysymNamed(std::string_view text) {
  // Printable ASCII keys have the character's code as their symbol; a letter's key is its
  // lower-case one (Shift is a modifier of its own).
  if (text.size() == 1 && text[0] > 0x20 && text[0] < 0x7f)
    return std::uint32_t(std::tolower(static_cast<unsigned char>(text[0])));
  const std::string name = lowered(text);
  if (name.size() >= 2 && name[0] == 'f') {
    int number = 0;
    auto [end, error] = std::from_chars(name.data() + 1, name.data() + name.size(), number);
    if (error == std::errc() && end == name.data() + name.size() && number >= 1 && number <= 35)
      return 0xffbe + std::uint32_t(number - 1);
  }
  static const std::map<std::string, std::uint32_t, std::less<>> named = {
      {"space", 0x20},    {"return", 0xff0d},    {"enter", 0xff8d}, {"esc", 0xff1b},        {"escape", 0xff1b},
      {"tab", 0xff09},    {"backspace", 0xff08}, {"del", 0xffff},   {"delete", 0xffff},     {"ins", 0xff63},
      {"insert", 0xff63}, {"home", 0xff50},      {"end", 0xff57},   {"pgup", 0xff55},       {"pageup", 0xff55},
      {"pgdown", 0xff56}, {"pagedown", 0xff56},  {"left", 0xff51},  {"up", 0xff52},         {"right", 0xff53},
      {"down", 0xff54},   {"print", 0xff61},     {"pause", 0xff13}, {"scrolllock", 0xff14}, {"menu", 0xff67},
  };
  if (auto found = named.find(name); found != named.end()) return found->second;
  return std::nullopt;
}

constexpr std::uint32_t numLockKeysym = 0xff7f;

}  // namespace

GlobalShortcutError::GlobalShortcutError(Case kind, std::string_view sequence)
    : Error(catalogue(), kind, sequence), kind_(kind) {}

const ErrorCatalogue<GlobalShortcutError::Case>& GlobalShortcutError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"GlobalShortcutError", "GlobalShortcuts", shortcutCases};
  return catalogue;
}

std::optional<ShortcutSequence> parseShortcutSequence(std::string_view text) {
  // Qt joins the chords of a multi-key sequence with ", "; a grab is one chord.
  if (text.empty() || text.find(", ") != std::string_view::npos) return std::nullopt;
  ShortcutSequence sequence;
  std::string_view rest = text;
  for (;;) {
    // The key comes last and may itself be '+' ("Ctrl++").
    const std::size_t plus = rest.size() > 1 ? rest.find('+') : std::string_view::npos;
    if (plus == std::string_view::npos) {
      const std::optional<std::uint32_t> keysym = keysymNamed(rest);
      if (!keysym) return std::nullopt;
      sequence.keysym = *keysym;
      return sequence;
    }
    const std::optional<std::uint16_t> modifier = modifierNamed(lowered(rest.substr(0, plus)));
    if (!modifier || (sequence.modifiers & *modifier)) return std::nullopt;
    sequence.modifiers |= *modifier;
    rest = rest.substr(plus + 1);
    if (rest.empty()) return std::nullopt;
  }
}

struct X11GlobalShortcuts::State {
  struct KeySymbolsFree {
    void operator()(xcb_key_symbols_t* symbols) const { xcb_key_symbols_free(symbols); }
  };
  struct Grab {
    std::uint16_t modifiers = 0;
    std::vector<xcb_keycode_t> keycodes;
  };

  explicit State(const std::string& displayName) : x(displayName), symbols(xcb_key_symbols_alloc(x.get())) {
    lockMasks();
  }

  // Caps Lock is always Lock; Num Lock is whichever ModN its key sits on in this keyboard's map.
  void lockMasks() {
    numLock = 0;
    XcbReply<xcb_keycode_t> numLockCodes(xcb_key_symbols_get_keycode(symbols.get(), numLockKeysym));
    XcbReply<xcb_get_modifier_mapping_reply_t> mapping(
        xcb_get_modifier_mapping_reply(x.get(), xcb_get_modifier_mapping(x.get()), nullptr));
    if (!numLockCodes || !mapping) return;
    const xcb_keycode_t* codes = xcb_get_modifier_mapping_keycodes(mapping.get());
    const int perModifier = mapping->keycodes_per_modifier;
    for (int modifier = 0; modifier < 8; ++modifier)
      for (int i = 0; i < perModifier; ++i)
        for (const xcb_keycode_t* code = numLockCodes.get(); *code != XCB_NO_SYMBOL; ++code)
          if (codes[modifier * perModifier + i] == *code && *code != 0) numLock = std::uint16_t(1 << modifier);
  }

  std::array<std::uint16_t, 4> lockCombinations() const {
    return {0, XCB_MOD_MASK_LOCK, numLock, std::uint16_t(XCB_MOD_MASK_LOCK | numLock)};
  }

  void ungrab(const Grab& grab) {
    for (xcb_keycode_t code : grab.keycodes)
      for (std::uint16_t locks : lockCombinations())
        xcb_ungrab_key(x.get(), code, x.root(), std::uint16_t(grab.modifiers | locks));
    xcb_flush(x.get());
  }

  X11Connection x;
  std::unique_ptr<xcb_key_symbols_t, KeySymbolsFree> symbols;
  std::uint16_t numLock = 0;
  std::map<int, Grab> grabs;
  int nextID = 1;
  // The time of each key's last release: the keyboard's auto-repeat sends a release and a press
  // with the same time.
  std::map<xcb_keycode_t, xcb_timestamp_t> releases;
};

X11GlobalShortcuts::X11GlobalShortcuts(const std::string& displayName) : state_(std::make_unique<State>(displayName)) {}

X11GlobalShortcuts::~X11GlobalShortcuts() {
  for (const auto& [id, grab] : state_->grabs) state_->ungrab(grab);
  // The keys are free once this returns, not at some later point of the server's choosing: a
  // program that grabs them next must not find them still held.
  if (!state_->grabs.empty() && !state_->x.hasError()) state_->x.sync();
}

int X11GlobalShortcuts::add(std::string_view sequenceText) {
  const std::optional<ShortcutSequence> sequence = parseShortcutSequence(sequenceText);
  if (!sequence) throw GlobalShortcutError(GlobalShortcutError::Case::invalidSequence, sequenceText);
  State& s = *state_;
  State::Grab grab{sequence->modifiers, {}};
  XcbReply<xcb_keycode_t> codes(xcb_key_symbols_get_keycode(s.symbols.get(), sequence->keysym));
  for (const xcb_keycode_t* code = codes.get(); code && *code != XCB_NO_SYMBOL; ++code)
    if (std::find(grab.keycodes.begin(), grab.keycodes.end(), *code) == grab.keycodes.end())
      grab.keycodes.push_back(*code);
  if (grab.keycodes.empty()) throw GlobalShortcutError(GlobalShortcutError::Case::keyUnavailable, sequenceText);

  std::vector<xcb_void_cookie_t> cookies;
  for (xcb_keycode_t code : grab.keycodes)
    for (std::uint16_t locks : s.lockCombinations())
      cookies.push_back(xcb_grab_key_checked(s.x.get(), 1, s.x.root(), std::uint16_t(grab.modifiers | locks), code,
                                             XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC));
  bool refused = false;
  for (xcb_void_cookie_t cookie : cookies) {
    // BadAccess is the server's word for "another client grabbed this first".
    if (XcbReply<xcb_generic_error_t> error{xcb_request_check(s.x.get(), cookie)}) refused = true;
  }
  if (refused) {
    // Grabs that did succeed would keep the key from the program that has it.
    s.ungrab(grab);
    s.x.sync();
    throw GlobalShortcutError(GlobalShortcutError::Case::conflict, sequenceText);
  }
  const int id = s.nextID++;
  s.grabs.emplace(id, std::move(grab));
  return id;
}

void X11GlobalShortcuts::remove(int id) {
  auto found = state_->grabs.find(id);
  if (found == state_->grabs.end()) return;
  state_->ungrab(found->second);
  state_->x.sync();
  state_->grabs.erase(found);
}

int X11GlobalShortcuts::fileDescriptor() const { return state_->x.fileDescriptor(); }

std::vector<int> X11GlobalShortcuts::takePresses() {
  State& s = *state_;
  std::vector<int> pressed;
  // Modifiers that take part in matching: the lock keys and the pointer buttons do not.
  const std::uint16_t relevant = std::uint16_t((XCB_MOD_MASK_SHIFT | XCB_MOD_MASK_CONTROL | XCB_MOD_MASK_1 |
                                                XCB_MOD_MASK_2 | XCB_MOD_MASK_3 | XCB_MOD_MASK_4 | XCB_MOD_MASK_5) &
                                               ~s.numLock);
  while (XcbReply<xcb_generic_event_t> event{xcb_poll_for_event(s.x.get())}) {
    const std::uint8_t type = event->response_type & 0x7f;
    if (type == XCB_KEY_RELEASE) {
      const auto* release = reinterpret_cast<const xcb_key_release_event_t*>(event.get());
      s.releases[release->detail] = release->time;
    } else if (type == XCB_KEY_PRESS) {
      const auto* press = reinterpret_cast<const xcb_key_press_event_t*>(event.get());
      auto released = s.releases.find(press->detail);
      if (released != s.releases.end() && released->second == press->time) continue;
      for (const auto& [id, grab] : s.grabs)
        if ((press->state & relevant) == grab.modifiers &&
            std::find(grab.keycodes.begin(), grab.keycodes.end(), press->detail) != grab.keycodes.end())
          pressed.push_back(id);
    } else if (type == XCB_MAPPING_NOTIFY) {
      auto* mapping = reinterpret_cast<xcb_mapping_notify_event_t*>(event.get());
      xcb_refresh_keyboard_mapping(s.symbols.get(), mapping);
      s.lockMasks();
    }
  }
  return pressed;
}

}  // namespace vumo
