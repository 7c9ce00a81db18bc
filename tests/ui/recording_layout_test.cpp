#include "ui/recording_layout.h"

#include <gtest/gtest.h>

#include "support/test_support.h"

namespace vumo {
namespace {

std::string text(const std::optional<PointValue>& p) {
  return p ? "(" + std::to_string(int(p->x)) + "," + std::to_string(int(p->y)) + ")" : "hidden";
}

TEST(ControlPanelPosition, SitsOutsideWhatIsCapturedOrHides) {
  const SizeValue panel{400, 40};
  const RectValue left{0, 0, 1280, 720}, right{1280, 0, 1920, 1080};
  struct Case {
    const char* what;
    std::vector<RectValue> displays;
    RectValue captured;
    std::optional<PointValue> expected;
  } cases[] = {
      // One display, all of it recorded: nowhere to go.
      {"whole single display", {left}, left, std::nullopt},
      // Two monitors, one recorded: the top centre of the other, 16 px down.
      {"other monitor", {left, right}, left, PointValue{1280 + 760, 16}},
      {"other monitor, first listed", {left, right}, right, PointValue{440, 16}},
      // Every monitor recorded at once (the root): hidden.
      {"whole root over two monitors", {left, right}, {0, 0, 3200, 1080}, std::nullopt},
      // An area: centred below it, 16 px away.
      {"below an area", {left}, {100, 100, 600, 300}, PointValue{200, 416}},
      // An area reaching the bottom: above it.
      {"above an area", {left}, {100, 400, 600, 320}, PointValue{200, 344}},
      // Tall area leaving room only on the right: beside it, centred vertically.
      {"right of an area", {{0, 0, 1280, 720}}, {0, 0, 800, 720}, PointValue{816, 340}},
      {"left of an area", {{0, 0, 1280, 720}}, {480, 0, 800, 720}, PointValue{64, 340}},
      // Centred below, but moved inside the display where the area is at its edge.
      {"moved inside", {left}, {1000, 100, 280, 200}, PointValue{864, 316}},
      // Room beside the area narrower than panel plus margins: hidden.
      {"no room", {left}, {10, 10, 1260, 700}, std::nullopt},
      // An area of the second monitor: the first monitor is free.
      {"area on second monitor", {left, right}, {1500, 100, 300, 300}, PointValue{440, 16}},
  };
  for (const Case& c : cases)
    EXPECT_EQ(text(controlPanelPosition(c.displays, c.captured, panel)), text(c.expected)) << c.what;
}

TEST(SelectedRootArea, MapsADragToWholeRootPixelsOfItsDisplay) {
  struct Case {
    const char* what;
    PointValue start, end;
    RectValue display;
    double ratio;
    std::optional<RectValue> expected;
  } cases[] = {
      {"plain drag", {10, 20}, {110, 220}, {0, 0, 1280, 720}, 1, RectValue{10, 20, 100, 200}},
      {"dragged up and left", {110, 220}, {10, 20}, {0, 0, 1280, 720}, 1, RectValue{10, 20, 100, 200}},
      {"second monitor", {10, 20}, {110, 220}, {1280, 0, 1920, 1080}, 1, RectValue{1290, 20, 100, 200}},
      // At a scale of 2 a logical pixel is two device pixels, and the root counts device pixels.
      {"scale 2", {10, 20}, {110, 220}, {0, 0, 2560, 1440}, 2, RectValue{20, 40, 200, 400}},
      {"fractional positions round", {10.4, 20.6}, {110.5, 220.2}, {0, 0, 1280, 720}, 1, RectValue{10, 21, 101, 199}},
      {"past the edges is clamped", {-50, -50}, {2000, 2000}, {0, 0, 1280, 720}, 1, RectValue{0, 0, 1280, 720}},
      {"a click is no area", {10, 10}, {11, 11}, {0, 0, 1280, 720}, 1, std::nullopt},
      {"a line is no area", {10, 10}, {300, 11}, {0, 0, 1280, 720}, 1, std::nullopt},
      {"2 x 2 is the least", {10, 10}, {12, 12}, {0, 0, 1280, 720}, 1, RectValue{10, 10, 2, 2}},
  };
  for (const Case& c : cases) {
    const std::optional<RectValue> area = selectedRootArea(c.start, c.end, c.display, c.ratio);
    ASSERT_EQ(area.has_value(), c.expected.has_value()) << c.what;
    if (area) {
      EXPECT_EQ(area->x, c.expected->x) << c.what;
      EXPECT_EQ(area->y, c.expected->y) << c.what;
      EXPECT_EQ(area->width, c.expected->width) << c.what;
      EXPECT_EQ(area->height, c.expected->height) << c.what;
    }
  }
}

TEST(RecordingLayout, ElapsedClockAndTheHiddenPanelSentence) {
  EXPECT_EQ(elapsedClockText(ProjectTime{0}), "0:00");
  EXPECT_EQ(elapsedClockText(ProjectTime{-5}), "0:00");
  EXPECT_EQ(elapsedClockText(ProjectTime{59'999'999'999}), "0:59");
  EXPECT_EQ(elapsedClockText(ProjectTime{61'000'000'000}), "1:01");
  EXPECT_EQ(elapsedClockText(ProjectTime{3'661'000'000'000}), "1:01:01");
  EXPECT_EQ(hiddenPanelMessage("Ctrl+Shift+R", "Ctrl+Shift+P", false),
            "The recording covers every screen, so the control panel stays hidden (it would be recorded). Press "
            "Ctrl+Shift+R to stop and Ctrl+Shift+P to pause or resume.");
  EXPECT_NE(hiddenPanelMessage("", "", true).find("the start/stop shortcut"), std::string::npos);
  EXPECT_NE(hiddenPanelMessage("", "", true).find("system tray"), std::string::npos);
}

TEST(RecordingLayout, AWaylandSessionIsToldByEitherVariable) {
  struct Case {
    std::optional<std::string> waylandDisplay, sessionType;
    bool wayland;
  } cases[] = {
      {std::nullopt, std::nullopt, false},
      {"wayland-0", std::nullopt, true},
      {"", "x11", false},
      {std::nullopt, "wayland", true},
      {"", "tty", false},
  };
  for (const Case& c : cases) {
    testing::ScopedEnvironmentVariable display("WAYLAND_DISPLAY", c.waylandDisplay);
    testing::ScopedEnvironmentVariable type("XDG_SESSION_TYPE", c.sessionType);
    EXPECT_EQ(isWaylandSession(), c.wayland) << c.waylandDisplay.value_or("-") << c.sessionType.value_or("-");
  }
}

}  // namespace
}  // namespace vumo
