#include "support/atspi_driver.h"

#include <atspi/atspi.h>
#include <png.h>
#include <xcb/xcb.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace vumo::testing {

namespace {

using namespace std::chrono_literals;

// Owns a string that libatspi hands out.
std::string takeString(gchar* text) {
  std::string value = text ? text : "";
  g_free(text);
  return value;
}

// Errors of a call to a node that has gone are routine (windows close while a test walks them).
class CallError {
 public:
  ~CallError() { g_clear_error(&error_); }
  GError** out() { return &error_; }
  bool failed() const { return error_ != nullptr; }
  std::string message() const { return error_ ? error_->message : ""; }

 private:
  GError* error_ = nullptr;
};

// Device-independent pixels of Qt's bridge to the screen's pixels; one driver lives at a time.
double coordinateScale = 1.0;

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return char(std::tolower(c)); });
  return text;
}

bool matches(const AccessibleNode& node, const NodeQuery& query) {
  if (!query.role.empty() && node.roleName() != query.role) return false;
  const std::string name = node.name();
  if (query.namePrefix ? name.rfind(query.name, 0) != 0 : name != query.name) return false;
  return !query.showingOnly || node.showing();
}

bool hasState(AtspiAccessible* node, AtspiStateType state) {
  if (!node) return false;
  AtspiStateSet* states = atspi_accessible_get_state_set(node);
  if (!states) return false;
  const bool has = atspi_state_set_contains(states, state);
  g_object_unref(states);
  return has;
}

// The roles a person reads or operates; containers (panels, fillers, scroll panes, viewports) may
// legitimately reach past what shows of them.
const std::set<std::string>& controlRoles() {
  static const std::set<std::string> roles{
      "push button",     "toggle button", "check box",  "radio button",  "combo box", "spin button", "slider",
      "label",           "text",          "entry",      "password text", "page tab",  "menu item",   "check menu item",
      "radio menu item", "progress bar",  "scroll bar", "heading",       "link",      "icon",        "image",
      "canvas",          "static",        "button",
  };
  return roles;
}

}  // namespace

std::string describe(const ScreenRect& rect) {
  std::ostringstream text;
  text << rect.x << "," << rect.y << " " << rect.width << "x" << rect.height;
  return text.str();
}

AccessibleNode::AccessibleNode(AtspiAccessible* adopted) : node_(adopted) {}

AccessibleNode::AccessibleNode(const AccessibleNode& other) : node_(other.node_) {
  if (node_) g_object_ref(node_);
}

AccessibleNode& AccessibleNode::operator=(const AccessibleNode& other) {
  if (this != &other) {
    if (other.node_) g_object_ref(other.node_);
    if (node_) g_object_unref(node_);
    node_ = other.node_;
  }
  return *this;
}

AccessibleNode::~AccessibleNode() {
  if (node_) g_object_unref(node_);
}

std::string AccessibleNode::name() const {
  if (!node_) return {};
  CallError error;
  return takeString(atspi_accessible_get_name(node_, error.out()));
}

std::string AccessibleNode::roleName() const {
  if (!node_) return {};
  CallError error;
  return takeString(atspi_accessible_get_role_name(node_, error.out()));
}

std::string AccessibleNode::description() const {
  if (!node_) return {};
  CallError error;
  return takeString(atspi_accessible_get_description(node_, error.out()));
}

pid_t AccessibleNode::processID() const {
  if (!node_) return -1;
  CallError error;
  const guint pid = atspi_accessible_get_process_id(node_, error.out());
  return error.failed() ? -1 : pid_t(pid);
}

bool AccessibleNode::showing() const { return hasState(node_, ATSPI_STATE_SHOWING); }
bool AccessibleNode::visible() const { return hasState(node_, ATSPI_STATE_VISIBLE); }
bool AccessibleNode::enabled() const { return hasState(node_, ATSPI_STATE_ENABLED); }
bool AccessibleNode::checked() const {
  return hasState(node_, ATSPI_STATE_CHECKED) || hasState(node_, ATSPI_STATE_PRESSED);
}

std::optional<ScreenRect> AccessibleNode::extents() const {
  if (!node_) return std::nullopt;
  AtspiComponent* component = atspi_accessible_get_component_iface(node_);
  if (!component) return std::nullopt;
  CallError error;
  AtspiRect* rect = atspi_component_get_extents(component, ATSPI_COORD_TYPE_SCREEN, error.out());
  g_object_unref(component);
  if (!rect) return std::nullopt;
  auto scaled = [](int value) { return int(std::lround(value * coordinateScale)); };
  ScreenRect value{scaled(rect->x), scaled(rect->y), scaled(rect->width), scaled(rect->height)};
  g_free(rect);
  return value;
}

std::string AccessibleNode::text() const {
  if (!node_) return {};
  if (AtspiText* text = atspi_accessible_get_text_iface(node_)) {
    CallError error;
    std::string value = takeString(atspi_text_get_text(text, 0, -1, error.out()));
    g_object_unref(text);
    if (!error.failed()) return value;
  }
  return name();
}

std::vector<AccessibleNode> AccessibleNode::children() const {
  std::vector<AccessibleNode> nodes;
  if (!node_) return nodes;
  CallError error;
  const gint count = atspi_accessible_get_child_count(node_, error.out());
  for (gint index = 0; index < count; ++index) {
    CallError childError;
    if (AtspiAccessible* child = atspi_accessible_get_child_at_index(node_, index, childError.out()))
      nodes.emplace_back(child);
  }
  return nodes;
}

AccessibleNode AccessibleNode::parent() const {
  if (!node_) return {};
  CallError error;
  return AccessibleNode(atspi_accessible_get_parent(node_, error.out()));
}

std::vector<std::string> AccessibleNode::actionNames() const {
  std::vector<std::string> names;
  if (!node_) return names;
  AtspiAction* action = atspi_accessible_get_action_iface(node_);
  if (!action) return names;
  CallError error;
  const gint count = atspi_action_get_n_actions(action, error.out());
  for (gint index = 0; index < count; ++index) {
    CallError nameError;
    names.push_back(takeString(atspi_action_get_action_name(action, index, nameError.out())));
  }
  g_object_unref(action);
  return names;
}

std::string AccessibleNode::summary() const {
  std::string text = roleName() + " '" + name() + "'";
  if (auto rect = extents()) text += " at " + describe(*rect);
  if (!showing()) text += " (not showing)";
  return text;
}

AtspiDriver::AtspiDriver(double qtScaleFactor) {
  // libatspi keeps its connection and the desktop it found for the life of the process and cannot
  // connect again after atspi_exit, so a second desktop in one process would see an empty tree.
  static bool connectedBefore = false;
  if (connectedBefore)
    throw std::runtime_error(
        "the accessibility client connects once per process: run each desktop test in a process of its own "
        "(ctest does; by hand, one test at a time with --gtest_filter)");
  connectedBefore = true;
  coordinateScale = qtScaleFactor;
  // A client that answers slowly fails the call after the limit instead of hanging the test; the
  // first calls to an application that is still starting get longer.
  atspi_set_timeout(3000, 15000);
  if (atspi_init() > 1) throw std::runtime_error("libatspi could not connect to the accessibility bus");
}

AtspiDriver::~AtspiDriver() {
  atspi_exit();
  coordinateScale = 1.0;
}

void AtspiDriver::turnEvents() {
  for (int turns = 0; turns < 200 && g_main_context_iteration(nullptr, FALSE); ++turns) {
  }
}

bool AtspiDriver::waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (true) {
    turnEvents();
    if (condition()) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(100ms);
  }
}

namespace {

// The applications on the desktop, read afresh: the client's cache follows the tree through
// events, and a test that polls would otherwise read what was there before.
std::vector<AccessibleNode> applications() {
  AccessibleNode desktop(atspi_get_desktop(0));
  atspi_accessible_clear_cache(desktop.raw());
  std::vector<AccessibleNode> found = desktop.children();
  for (auto& application : found)
    atspi_accessible_set_cache_mask(application.raw(), AtspiCache(ATSPI_CACHE_ROLE | ATSPI_CACHE_INTERFACES));
  return found;
}

std::string applicationList() {
  std::string names;
  for (const auto& application : applications())
    names += " '" + application.name() + "' (pid " + std::to_string(application.processID()) + ")";
  return names.empty() ? " none" : names;
}

}  // namespace

AccessibleNode AtspiDriver::waitForApplication(pid_t pid, std::chrono::milliseconds timeout) {
  AccessibleNode found;
  waitUntil(
      [&] {
        for (auto& application : applications())
          if (application.processID() == pid) found = application;
        return bool(found);
      },
      timeout);
  if (!found)
    throw std::runtime_error("no application of process " + std::to_string(pid) +
                             " joined the accessibility tree; there are:" + applicationList());
  return found;
}

AccessibleNode AtspiDriver::waitForApplication(const std::string& name, std::chrono::milliseconds timeout) {
  AccessibleNode found;
  waitUntil(
      [&] {
        for (auto& application : applications())
          if (application.name() == name) found = application;
        return bool(found);
      },
      timeout);
  if (!found)
    throw std::runtime_error("no application '" + name +
                             "' joined the accessibility tree; there are:" + applicationList());
  return found;
}

AccessibleNode AtspiDriver::find(const AccessibleNode& root, const NodeQuery& query) {
  std::vector<AccessibleNode> pending = root.children();
  std::reverse(pending.begin(), pending.end());
  // Bounded, so a tree that keeps growing (or loops) cannot keep the walk going forever.
  for (int visited = 0; !pending.empty() && visited < 20000; ++visited) {
    AccessibleNode node = pending.back();
    pending.pop_back();
    if (matches(node, query)) return node;
    if (query.showingOnly && !node.showing()) continue;
    auto children = node.children();
    pending.insert(pending.end(), children.rbegin(), children.rend());
  }
  return {};
}

std::vector<AccessibleNode> AtspiDriver::findAll(const AccessibleNode& root, const NodeQuery& query) {
  std::vector<AccessibleNode> found;
  for (const auto& info : descendants(root))
    if (info.depth > 0 && matches(info.node, query)) found.push_back(info.node);
  return found;
}

AccessibleNode AtspiDriver::waitFor(const AccessibleNode& root, const NodeQuery& query,
                                    std::chrono::milliseconds timeout) {
  AccessibleNode found;
  waitUntil(
      [&] {
        found = find(root, query);
        return bool(found);
      },
      timeout);
  if (!found)
    throw std::runtime_error("no " + (query.role.empty() ? std::string("node") : query.role) + " '" + query.name +
                             (query.namePrefix ? "…'" : "'") + " showed within " + std::to_string(timeout.count()) +
                             " ms under " + root.summary() + ":\n" + dump(root));
  return found;
}

AccessibleNode AtspiDriver::waitForWindow(const AccessibleNode& application, const std::string& name, bool namePrefix,
                                          std::chrono::milliseconds timeout) {
  AccessibleNode found;
  waitUntil(
      [&] {
        for (auto& window : application.children()) {
          const std::string windowName = window.name();
          if ((namePrefix ? windowName.rfind(name, 0) == 0 : windowName == name) && window.showing()) found = window;
        }
        return bool(found);
      },
      timeout);
  if (!found) {
    std::string windows;
    for (auto& window : application.children()) windows += "\n  " + window.summary();
    throw std::runtime_error("no window '" + name + (namePrefix ? "…'" : "'") + " showed within " +
                             std::to_string(timeout.count()) + " ms; the application has:" + windows);
  }
  return found;
}

void AtspiDriver::doAction(const AccessibleNode& node, const std::string& actionName) {
  AtspiAction* action = atspi_accessible_get_action_iface(node.raw());
  if (!action) throw std::runtime_error(node.summary() + " has no actions");
  CallError error;
  const gint count = atspi_action_get_n_actions(action, error.out());
  gint chosen = -1;
  for (gint index = 0; index < count && chosen < 0; ++index) {
    CallError nameError;
    if (lower(takeString(atspi_action_get_action_name(action, index, nameError.out()))) == lower(actionName))
      chosen = index;
  }
  bool done = false;
  CallError doError;
  if (chosen >= 0) done = atspi_action_do_action(action, chosen, doError.out());
  g_object_unref(action);
  if (chosen < 0) throw std::runtime_error(node.summary() + " has no action '" + actionName + "'");
  if (!done)
    throw std::runtime_error("action '" + actionName + "' of " + node.summary() + " failed: " + doError.message());
  turnEvents();
}

void AtspiDriver::activate(const AccessibleNode& node) {
  const auto names = node.actionNames();
  for (const char* preferred : {"press", "click", "activate", "toggle", "jump"})
    for (const auto& name : names)
      if (lower(name) == preferred) return doAction(node, name);
  if (names.empty()) throw std::runtime_error(node.summary() + " has no actions");
  doAction(node, names.front());
}

void AtspiDriver::setText(const AccessibleNode& node, const std::string& text) {
  AtspiEditableText* editable = atspi_accessible_get_editable_text_iface(node.raw());
  if (!editable) throw std::runtime_error(node.summary() + " is not editable text");
  CallError error;
  const bool done = atspi_editable_text_set_text_contents(editable, text.c_str(), error.out());
  g_object_unref(editable);
  if (!done) throw std::runtime_error("could not set the text of " + node.summary() + ": " + error.message());
  turnEvents();
}

void AtspiDriver::grabFocus(const AccessibleNode& node) {
  AtspiComponent* component = atspi_accessible_get_component_iface(node.raw());
  if (!component) throw std::runtime_error(node.summary() + " cannot take the focus");
  CallError error;
  atspi_component_grab_focus(component, error.out());
  g_object_unref(component);
  turnEvents();
}

std::vector<DescendantInfo> AtspiDriver::descendants(const AccessibleNode& root) {
  std::vector<DescendantInfo> nodes;
  std::vector<std::pair<AccessibleNode, int>> pending{{root, 0}};
  while (!pending.empty() && nodes.size() < 20000) {
    auto [node, depth] = pending.back();
    pending.pop_back();
    DescendantInfo info;
    info.node = node;
    info.depth = depth;
    info.role = node.roleName();
    info.name = node.name();
    info.showing = node.showing();
    info.visible = node.visible();
    info.extents = node.extents();
    nodes.push_back(info);
    auto children = node.children();
    for (auto child = children.rbegin(); child != children.rend(); ++child) pending.emplace_back(*child, depth + 1);
  }
  return nodes;
}

std::vector<std::string> AtspiDriver::clippedControls(const AccessibleNode& window) {
  std::vector<std::string> clipped;
  const auto windowRect = window.extents();
  if (!windowRect || windowRect->empty()) return {"the window " + window.summary() + " has no size"};
  // Content of a scroll pane may lie beyond the window: a person scrolls to it. It still needs a
  // size, and the pane itself must lie inside.
  std::vector<std::pair<AccessibleNode, bool>> pending;
  for (auto& child : window.children()) pending.emplace_back(child, false);
  for (std::size_t visited = 0; !pending.empty() && visited < 20000; ++visited) {
    auto [node, scrolled] = pending.back();
    pending.pop_back();
    if (!node.showing() || !node.visible()) continue;
    const std::string role = node.roleName();
    const std::string name = node.name();
    const auto rect = node.extents();
    // Labels without text are spacers of layouts; a person misses nothing there.
    const bool blankLabel = role == "label" && name.empty() && node.text().empty();
    if (controlRoles().count(role) && !blankLabel) {
      if (!rect || rect->empty())
        clipped.push_back(role + " '" + name + "' has no size");
      else if (!scrolled && !windowRect->contains(*rect))
        clipped.push_back(role + " '" + name + "' at " + describe(*rect) + " reaches outside " + describe(*windowRect));
    }
    const bool pane = role == "scroll pane" || role == "viewport";
    if (pane && !scrolled && rect && !windowRect->contains(*rect))
      clipped.push_back(role + " '" + name + "' at " + describe(*rect) + " reaches outside " + describe(*windowRect));
    for (auto& child : node.children()) pending.emplace_back(child, scrolled || pane);
  }
  return clipped;
}

std::string AtspiDriver::dump(const AccessibleNode& root, int maxDepth) {
  std::string text;
  for (const auto& info : descendants(root)) {
    if (info.depth > maxDepth) continue;
    text += std::string(std::size_t(info.depth) * 2, ' ') + info.role + " '" + info.name + "'";
    if (info.extents) text += " " + describe(*info.extents);
    if (!info.showing) text += " (not showing)";
    text += "\n";
  }
  return text;
}

namespace {

struct XcbConnection {
  xcb_connection_t* connection;
  explicit XcbConnection(const std::string& display) : connection(xcb_connect(display.c_str(), nullptr)) {}
  ~XcbConnection() { xcb_disconnect(connection); }
};

struct PngFile {
  std::FILE* file = nullptr;
  png_structp png = nullptr;
  png_infop info = nullptr;
  ~PngFile() {
    if (png) png_destroy_write_struct(&png, info ? &info : nullptr);
    if (file) std::fclose(file);
  }
};

}  // namespace

void saveScreenshot(const std::string& display, const std::filesystem::path& file,
                    const std::optional<ScreenRect>& area) {
  XcbConnection x(display);
  if (xcb_connection_has_error(x.connection)) throw std::runtime_error("cannot connect to " + display);
  const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(x.connection)).data;
  ScreenRect whole{0, 0, screen->width_in_pixels, screen->height_in_pixels};
  ScreenRect rect = whole;
  if (area) {
    // Only what lies on the screen can be read back.
    const int left = std::max(area->x, 0), top = std::max(area->y, 0);
    const int right = std::min(area->x + area->width, whole.width);
    const int bottom = std::min(area->y + area->height, whole.height);
    rect = {left, top, right - left, bottom - top};
  }
  if (rect.empty()) throw std::runtime_error("nothing of " + describe(area.value_or(whole)) + " is on the screen");
  // Whole-plane ZPixmap from a 24-bit root: 32 bits a pixel, blue first (Xvfb's little-endian
  // TrueColor), the same layout every X server of these tests gives.
  xcb_generic_error_t* error = nullptr;
  std::unique_ptr<xcb_get_image_reply_t, decltype(&std::free)> image(
      xcb_get_image_reply(
          x.connection,
          xcb_get_image(x.connection, XCB_IMAGE_FORMAT_Z_PIXMAP, screen->root, std::int16_t(rect.x),
                        std::int16_t(rect.y), std::uint16_t(rect.width), std::uint16_t(rect.height), ~0u),
          &error),
      &std::free);
  std::free(error);
  if (!image) throw std::runtime_error("the X server did not give the picture of " + describe(rect));
  const std::uint8_t* pixels = xcb_get_image_data(image.get());
  const std::size_t length = std::size_t(xcb_get_image_data_length(image.get()));
  const std::size_t stride = length / std::size_t(rect.height);
  if (image->depth != 24 || stride < std::size_t(rect.width) * 4)
    throw std::runtime_error("the screen's picture has depth " + std::to_string(image->depth) +
                             "; screenshots read 24-bit screens");

  std::filesystem::create_directories(file.parent_path());
  PngFile out;
  out.file = std::fopen(file.c_str(), "wb");
  if (!out.file) throw std::runtime_error("cannot write " + file.string());
  out.png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  out.info = out.png ? png_create_info_struct(out.png) : nullptr;
  if (!out.info) throw std::runtime_error("libpng could not start");
  // Made before libpng may jump back here, so no object is skipped over.
  std::vector<png_byte> row(std::size_t(rect.width) * 3);
  if (setjmp(png_jmpbuf(out.png))) throw std::runtime_error("libpng could not write " + file.string());
  png_init_io(out.png, out.file);
  png_set_IHDR(out.png, out.info, png_uint_32(rect.width), png_uint_32(rect.height), 8, PNG_COLOR_TYPE_RGB,
               PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_write_info(out.png, out.info);
  for (int y = 0; y < rect.height; ++y) {
    const std::uint8_t* source = pixels + std::size_t(y) * stride;
    for (int x = 0; x < rect.width; ++x) {
      row[std::size_t(x) * 3 + 0] = source[x * 4 + 2];
      row[std::size_t(x) * 3 + 1] = source[x * 4 + 1];
      row[std::size_t(x) * 3 + 2] = source[x * 4 + 0];
    }
    png_write_row(out.png, row.data());
  }
  png_write_end(out.png, nullptr);
}

}  // namespace vumo::testing
