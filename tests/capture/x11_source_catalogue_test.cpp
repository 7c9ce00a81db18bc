#include "capture/x11_source_catalogue.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "capture/capture_error.h"
#include "capture/x11_connection.h"
#include "shared/json.h"
#include "support/desktop_servers.h"

namespace vumo {
namespace {

using testing::TestX11Client;
using testing::XvfbServer;

TEST(X11SourceCatalogue, FrameSizesAreWholeEvenAndNeverLarger) {
  struct Case {
    double width, height;
    PixelSize expected;
  } cases[] = {
      {1280, 720, {1280, 720}}, {321, 201, {320, 200}}, {320.9, 199.5, {320, 198}}, {1, 0, {2, 2}}, {3, 2, {2, 2}},
  };
  for (const auto& c : cases) EXPECT_EQ(evenPixelSize(c.width, c.height), c.expected) << c.width << "x" << c.height;
}

TEST(X11SourceCatalogue, AnAreaLiesInsideItsDisplay) {
  X11DisplayInfo monitor{77, "HDMI-1", RectValue{1920, 0, 1280, 720}, false, false};
  auto area = areaCaptureSource(monitor, RectValue{100, 50, 301, 201});
  EXPECT_EQ(area.kind, CaptureSourceKind::area);
  EXPECT_EQ(area.nativeID, 77u);
  EXPECT_EQ(area.globalFrame, (RectValue{2020, 50, 301, 201}));
  EXPECT_EQ(area.areaSourceRect, (RectValue{100, 50, 301, 201}));
  EXPECT_EQ(area.initialPixelSize, (PixelSize{300, 200}));
  EXPECT_EQ(areaCaptureSource(monitor, RectValue{0, 0, 1280, 720}).globalFrame, monitor.frame);

  RectValue refused[] = {
      {-1, 0, 100, 100},   // left of the display
      {1200, 0, 81, 100},  // past its right edge
      {0, 700, 100, 21},   // past its bottom edge
      {10, 10, 1, 100},    // too thin to encode
      {10, 10, 100, 0},    // empty
      {std::numeric_limits<double>::quiet_NaN(), 0, 10, 10},
  };
  for (const auto& rect : refused)
    EXPECT_ERROR_CASE(areaCaptureSource(monitor, rect), CaptureError, CaptureError::Case::areaOutsideDisplay)
        << rect.x << "," << rect.y << " " << rect.width << "x" << rect.height;
}

TEST(X11SourceCatalogue, OnlyXwaylandUnderWaylandIsRefused) {
  struct Case {
    const char* sessionType;
    const char* waylandDisplay;
    bool xwayland;
    bool seesWholeScreen;
  } cases[] = {
      {"x11", "", false, true},
      {"wayland", "wayland-0", true, false},
      {"", "wayland-0", true, false},         // the variable alone tells a Wayland session
      {"wayland", "", true, false},           // and so does the session type alone
      {"wayland", "wayland-0", false, true},  // a nested X server (Xvfb, Xephyr) is whole in itself
      {"x11", "", true, true},                // Xwayland outside a Wayland session: nothing is hidden
  };
  for (const auto& c : cases)
    EXPECT_EQ(x11SeesWholeScreen(c.sessionType, c.waylandDisplay, c.xwayland), c.seesWholeScreen)
        << c.sessionType << " / " << c.waylandDisplay << " / " << c.xwayland;
}

TEST(X11SourceCatalogue, SourcesAreDocumentsWithAbsentValuesLeftOut) {
  X11CaptureSources sources;
  sources.displays.push_back({1234, "screen", RectValue{0, 0, 1280, 720}, true, true});
  sources.windows.push_back({77, "Notes", std::nullopt, std::nullopt, RectValue{10, 20, 300, 200}});
  sources.windows.push_back({78, "Term", "XTerm", 4242, RectValue{0, 0, 2, 2}});
  Json expected = parseJson(R"({
    "displays": [{"frame": {"height": 720, "width": 1280, "x": 0, "y": 0}, "name": "screen", "nativeID": 1234,
                  "primary": true, "wholeScreen": true}],
    "windows": [
      {"frame": {"height": 200, "width": 300, "x": 10, "y": 20}, "nativeID": 77, "title": "Notes"},
      {"applicationName": "XTerm", "frame": {"height": 2, "width": 2, "x": 0, "y": 0}, "nativeID": 78,
       "processID": 4242, "title": "Term"}
    ]})");
  EXPECT_EQ(Json(sources), expected);
}

TEST(X11SourceCatalogue, NoDisplayIsAClearError) {
  EXPECT_ERROR_CASE(X11Connection(":999"), CaptureError, CaptureError::Case::displayUnavailable);
  try {
    X11Connection connection(":999");
  } catch (const CaptureError& error) {
    EXPECT_EQ(error.message(),
              "Unable to connect to the X display :999. Recording needs an X11 session (check DISPLAY).");
    EXPECT_EQ(error.localizationKey(), "capture.error.noDisplay");
  }
}

const X11WindowInfo* findWindow(const X11CaptureSources& sources, std::uint32_t id) {
  auto it =
      std::find_if(sources.windows.begin(), sources.windows.end(), [&](const auto& w) { return w.nativeID == id; });
  return it == sources.windows.end() ? nullptr : &*it;
}

TEST(X11SourceCatalogue, ListsTheScreenAndTheWindowsOfOtherPrograms) {
  XvfbServer server;
  TestX11Client client(server.display());
  auto editor = client.createWindow(100, 50, 321, 201, 0xFFFFFF, "Notes — ünïcode");
  auto ownPanel = client.createWindow(500, 50, 100, 100, 0x000000, "Recording panel");
  client.setCardinalProperty(ownPanel, "_NET_WM_PID", std::uint32_t(getpid()));
  auto other = client.createWindow(700, 400, 200, 100, 0x00FF00, "");
  client.setLatin1Property(other, XCB_ATOM_WM_NAME, "caf\xe9");
  client.setLatin1Property(other, XCB_ATOM_WM_CLASS, std::string("term\0XTerm\0", 11));
  client.setCardinalProperty(other, "_NET_WM_PID", 4242);

  // With no window manager the titled top-level windows stand in for its list.
  auto sources = listX11CaptureSources(server.display(), getpid());
  ASSERT_FALSE(sources.displays.empty());
  const auto& screen = sources.displays.front();
  EXPECT_TRUE(screen.wholeScreen);
  EXPECT_EQ(screen.nativeID, client.root());
  EXPECT_EQ(screen.frame, (RectValue{0, 0, 1280, 720}));
  for (std::size_t i = 1; i < sources.displays.size(); ++i) EXPECT_FALSE(sources.displays[i].wholeScreen);

  const auto* listed = findWindow(sources, editor);
  ASSERT_NE(listed, nullptr);
  EXPECT_EQ(listed->title, "Notes — ünïcode");
  EXPECT_EQ(listed->frame, (RectValue{100, 50, 321, 201}));
  EXPECT_EQ(findWindow(sources, ownPanel), nullptr);
  ASSERT_NE(findWindow(sources, other), nullptr);
  EXPECT_EQ(findWindow(sources, other)->title, "café");
  EXPECT_EQ(findWindow(sources, other)->applicationName, "XTerm");
  EXPECT_EQ(findWindow(sources, other)->processID, 4242);

  auto source = windowCaptureSource(*listed);
  EXPECT_EQ(source.kind, CaptureSourceKind::window);
  EXPECT_EQ(source.nativeID, editor);
  EXPECT_EQ(source.initialPixelSize, (PixelSize{320, 200}));
  EXPECT_EQ(source.globalFrame, listed->frame);
  EXPECT_EQ(displayCaptureSource(screen).initialPixelSize, (PixelSize{1280, 720}));

  // A window manager's list is taken as it is, in its order, untitled windows included.
  auto untitled = client.createWindow(10, 10, 50, 40, 0x0000FF, "");
  client.setWindowListProperty(client.root(), "_NET_CLIENT_LIST", {untitled, other, ownPanel});
  sources = listX11CaptureSources(server.display(), getpid());
  ASSERT_EQ(sources.windows.size(), 2u);
  EXPECT_EQ(sources.windows[0].nativeID, untitled);
  EXPECT_EQ(sources.windows[0].title, "");
  EXPECT_EQ(sources.windows[1].nativeID, other);
}

}  // namespace
}  // namespace vumo
