#pragma once

// Drives applications through the accessibility tree (AT-SPI), as a screen reader does: finds
// windows and controls by role and accessible name, does their actions, reads and writes their
// text and reads their geometry on the screen, so that pointer input can go to positions taken
// from the widgets themselves. Every wait has a limit; a control that never shows fails the test
// with what the tree held instead.

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

typedef struct _AtspiAccessible AtspiAccessible;

namespace vumo::testing {

// A rectangle in root-window pixels of the X screen.
struct ScreenRect {
  int x = 0, y = 0, width = 0, height = 0;

  bool empty() const { return width <= 0 || height <= 0; }
  bool contains(const ScreenRect& other) const {
    return other.x >= x && other.y >= y && other.x + other.width <= x + width && other.y + other.height <= y + height;
  }
  int centerX() const { return x + width / 2; }
  int centerY() const { return y + height / 2; }
  friend bool operator==(const ScreenRect&, const ScreenRect&) = default;
};

std::string describe(const ScreenRect& rect);

// One node of the tree, held by reference (the node's object stays alive while a copy exists).
class AccessibleNode {
 public:
  AccessibleNode() = default;
  explicit AccessibleNode(AtspiAccessible* adopted);  // takes over one reference
  AccessibleNode(const AccessibleNode& other);
  AccessibleNode& operator=(const AccessibleNode& other);
  ~AccessibleNode();

  explicit operator bool() const { return node_ != nullptr; }
  AtspiAccessible* raw() const { return node_; }

  // Each call asks the application over the bus; a node that has gone answers empty values.
  std::string name() const;
  std::string roleName() const;  // AT-SPI's role names: "push button", "frame", "label", ...
  std::string description() const;
  pid_t processID() const;
  bool showing() const;  // on the screen: visible, in a showing window, not scrolled out
  bool visible() const;
  bool enabled() const;
  bool checked() const;
  std::optional<ScreenRect> extents() const;
  // The text of a text node (a label, a line edit), else its name.
  std::string text() const;
  std::vector<AccessibleNode> children() const;
  AccessibleNode parent() const;
  std::vector<std::string> actionNames() const;
  // "role 'name' at x,y wxh", for messages.
  std::string summary() const;

 private:
  AtspiAccessible* node_ = nullptr;
};

// What to look for: a role name (empty for any), and an accessible name, matched whole or as the
// name's beginning.
struct NodeQuery {
  std::string role;
  std::string name;
  bool namePrefix = false;
  bool showingOnly = true;  // hidden widgets stay in the tree; a person cannot reach them
};

struct DescendantInfo {
  AccessibleNode node;
  int depth = 0;
  std::string role, name;
  bool showing = false, visible = false;
  std::optional<ScreenRect> extents;
};

class AtspiDriver {
 public:
  // Connects to the accessibility bus of this process's session bus and display. Qt's bridge gives
  // geometry in device-independent pixels; `qtScaleFactor` (the programs' QT_SCALE_FACTOR) turns it
  // into the screen's pixels, where pointer input and screenshots work. One driver per process:
  // libatspi cannot connect a second time, so a second driver throws.
  explicit AtspiDriver(double qtScaleFactor = 1.0);
  ~AtspiDriver();
  AtspiDriver(const AtspiDriver&) = delete;
  AtspiDriver& operator=(const AtspiDriver&) = delete;

  // The application whose process is `pid` (or whose name is `name`) once it has joined the tree.
  AccessibleNode waitForApplication(pid_t pid, std::chrono::milliseconds timeout = std::chrono::seconds(30));
  AccessibleNode waitForApplication(const std::string& name,
                                    std::chrono::milliseconds timeout = std::chrono::seconds(30));

  // The first node under `root` (depth first, root excluded) that matches, once there is one.
  AccessibleNode waitFor(const AccessibleNode& root, const NodeQuery& query,
                         std::chrono::milliseconds timeout = std::chrono::seconds(20));
  // The same, at once; an empty node when nothing matches.
  AccessibleNode find(const AccessibleNode& root, const NodeQuery& query);
  std::vector<AccessibleNode> findAll(const AccessibleNode& root, const NodeQuery& query);
  // A top-level window of the application (any window role) whose name is `name` or begins with it.
  AccessibleNode waitForWindow(const AccessibleNode& application, const std::string& name, bool namePrefix = false,
                               std::chrono::milliseconds timeout = std::chrono::seconds(20));
  // Waits until `condition` holds, turning the accessibility client's events meanwhile.
  bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout);

  // Does the node's default action ("Press", "Click", "Toggle", else its first one).
  void activate(const AccessibleNode& node);
  void doAction(const AccessibleNode& node, const std::string& actionName);
  void setText(const AccessibleNode& node, const std::string& text);
  void grabFocus(const AccessibleNode& node);

  // Every node under `root` with its geometry, root first.
  std::vector<DescendantInfo> descendants(const AccessibleNode& root);
  // The controls under `window` that a person could not see whole: showing and visible, but with
  // no size or reaching outside the window (content of a scroll pane may lie beyond it, as long as
  // the pane does not). Empty when nothing is clipped.
  std::vector<std::string> clippedControls(const AccessibleNode& window);
  // The tree under `root` as indented lines, for failure messages.
  std::string dump(const AccessibleNode& root, int maxDepth = 12);

 private:
  void turnEvents();
};

// Saves the screen's picture (or the part of it within `area`) as a PNG: what a person looking
// at the display sees, windows and decorations included.
void saveScreenshot(const std::string& display, const std::filesystem::path& file,
                    const std::optional<ScreenRect>& area = std::nullopt);

}  // namespace vumo::testing
