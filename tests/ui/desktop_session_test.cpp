#include "support/desktop_session.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include "support/atspi_driver.h"
#include "support/desktop_session_journey.h"

namespace vumo::testing {
namespace {

using namespace std::chrono_literals;

const std::filesystem::path screenshots = std::filesystem::path(VUMO_UI_SCREENSHOT_DIR) / "desktop_session";

// Width and height from a PNG's header, so the test knows the file is the picture it asked for.
std::pair<int, int> pngSize(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  unsigned char header[24] = {};
  in.read(reinterpret_cast<char*>(header), sizeof header);
  if (!in || std::string(reinterpret_cast<char*>(header) + 1, 3) != "PNG") return {0, 0};
  auto word = [&](int at) {
    return int(header[at]) << 24 | int(header[at + 1]) << 16 | int(header[at + 2]) << 8 | header[at + 3];
  };
  return {word(16), word(20)};
}

struct ProbeCase {
  std::string name;
  DesktopSessionOptions options;
  double scale;
};

void PrintTo(const ProbeCase& probeCase, std::ostream* out) { *out << probeCase.name; }

class DesktopSessionTest : public ::testing::TestWithParam<ProbeCase> {};

// The harness end to end on a program of its own: found through the accessibility tree, pressed
// there and with the pointer at the position its geometry gives, checked for clipped controls and
// photographed; at the scale factor that Qt applies, positions must still land on the button.
TEST_P(DesktopSessionTest, DrivesAQtProgramThroughItsAccessibilityTreeAndThePointer) {
  const ProbeCase& probeCase = GetParam();
  DesktopSession session(probeCase.options);
  auto probe = session.start({VUMO_ATSPI_PROBE}, "probe");
  AtspiDriver driver(probeCase.options.scaleFactor.value_or(1.0));
  auto application = driver.waitForApplication(probe->pid());
  auto window = driver.waitForWindow(application, "Probe");
  auto button = driver.waitFor(window, {"push button", "Press Me"});
  auto label = driver.waitFor(window, {"label", "Pressed ", true});
  EXPECT_EQ(label.text(), "Pressed 0 times");

  driver.activate(button);
  EXPECT_TRUE(driver.waitUntil([&] { return label.text() == "Pressed 1 times"; }, 10s)) << label.text();

  const auto windowRect = window.extents();
  const auto buttonRect = button.extents();
  ASSERT_TRUE(windowRect && buttonRect);
  EXPECT_TRUE(windowRect->contains(*buttonRect)) << describe(*buttonRect) << " in " << describe(*windowRect);
  // Qt lays the 320-point-wide window out in device pixels: the button spans nearly all of it.
  EXPECT_NEAR(windowRect->width, 320 * probeCase.scale, 2) << describe(*windowRect);
  EXPECT_GT(buttonRect->width, windowRect->width * 8 / 10);
  const auto click =
      session.run({requireProgram("xdotool", "xdotool").string(), "mousemove", "--sync",
                   std::to_string(buttonRect->centerX()), std::to_string(buttonRect->centerY()), "click", "1"},
                  10s);
  ASSERT_EQ(click.status, 0) << click.standardError;
  EXPECT_TRUE(driver.waitUntil([&] { return label.text() == "Pressed 2 times"; }, 10s)) << label.text();
  EXPECT_EQ(driver.clippedControls(window), std::vector<std::string>{});

  const auto title = driver.waitFor(window, {"text", "Title"});
  driver.setText(title, "Cut from 1 s, 世界");
  EXPECT_TRUE(driver.waitUntil([&] { return title.text() == "Cut from 1 s, 世界"; }, 10s)) << title.text();

  const auto file = screenshots / (probeCase.name + "-window.png");
  std::filesystem::remove(file);
  saveScreenshot(session.display(), file, windowRect);
  EXPECT_EQ(pngSize(file), std::make_pair(windowRect->width, windowRect->height));
  saveScreenshot(session.display(), screenshots / (probeCase.name + "-screen.png"));
  EXPECT_EQ(pngSize(screenshots / (probeCase.name + "-screen.png")),
            std::make_pair(probeCase.options.width, probeCase.options.height));
}

INSTANTIATE_TEST_SUITE_P(Sizes, DesktopSessionTest,
                         ::testing::Values(ProbeCase{"1280x720", {1280, 720, std::nullopt}, 1.0},
                                           ProbeCase{"2560x1440-scale2", {2560, 1440, 2.0}, 2.0}),
                         [](const auto& info) {
                           std::string name = info.param.name;
                           for (auto& c : name)
                             if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
                           return name;
                         });

// A process that has ended (a zombie waiting for its parent counts as ended).
bool alive(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string pidText, command, state;
  if (!(stat >> pidText >> command >> state)) return false;
  return state != "Z" && state != "X";
}

// A SIGKILL sent to a group is delivered without waiting for each member to go, and a process
// that is not our child cannot be waited for: give the kernel a bounded moment to finish it.
bool goneWithin(pid_t pid, std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (alive(pid)) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

TEST(DesktopSession, KeepsEverythingPrivateAndEndsEverythingItStarted) {
  const char* realHome = std::getenv("HOME");
  const std::string homeBefore = realHome ? realHome : "";
  std::string display;
  pid_t stubbornPid = -1, helperPid = -1;
  {
    DesktopSession session;
    display = session.display();
    const auto environment = session.environment();
    for (const char* name :
         {"HOME", "XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME", "XDG_STATE_HOME", "XDG_RUNTIME_DIR"}) {
      ASSERT_TRUE(environment.at(name)) << name;
      EXPECT_NE(*environment.at(name), homeBefore) << name;
      EXPECT_TRUE(std::filesystem::is_directory(*environment.at(name))) << name;
      EXPECT_STREQ(std::getenv(name), environment.at(name)->c_str()) << name << " of this process";
    }
    struct stat runtime {};
    ASSERT_EQ(::stat(session.runtimeDirectory().c_str(), &runtime), 0);
    EXPECT_EQ(runtime.st_mode & 0777, 0700u);
    for (const char* name : {"WAYLAND_DISPLAY", "XDG_SESSION_TYPE"}) {
      EXPECT_EQ(environment.at(name), std::nullopt) << name;
      EXPECT_EQ(std::getenv(name), nullptr) << name;
    }
    EXPECT_EQ(environment.at("QT_QPA_PLATFORM"), "xcb");
    EXPECT_EQ(environment.at("QT_LINUX_ACCESSIBILITY_ALWAYS_ON"), "1");
    EXPECT_EQ(environment.at("DISPLAY"), display);
    EXPECT_EQ(session.accessibilityBusAddress().rfind("unix:", 0), 0u) << session.accessibilityBusAddress();
    EXPECT_EQ(session.busAddress().rfind("unix:", 0), 0u) << session.busAddress();

    // A program that ignores SIGTERM, with a helper of its own, still ends with its handle.
    const auto helperFile = session.logFolder() / "helper.pid";
    auto stubborn = session.start(
        {"/bin/sh", "-c", "trap '' TERM; sleep 300 & echo $! > " + helperFile.string() + "; wait"}, "stubborn");
    stubbornPid = stubborn->pid();
    for (int tries = 0; tries < 100 && !(std::ifstream(helperFile) >> helperPid); ++tries)
      std::this_thread::sleep_for(50ms);
    ASSERT_GT(helperPid, 0);
    stubborn.reset();
    EXPECT_FALSE(alive(stubbornPid));
    EXPECT_TRUE(goneWithin(helperPid, 5s)) << "the helper of a program that ignored SIGTERM outlived it";
  }
  EXPECT_EQ(std::getenv("HOME") ? std::string(std::getenv("HOME")) : "", homeBefore);
  EXPECT_FALSE(std::filesystem::exists("/tmp/.X11-unix/X" + display.substr(1))) << display << " still served";
}

TEST(DesktopSession, ClippedControlsAreNamed) {
  DesktopSession session;
  auto probe = session.start({VUMO_ATSPI_PROBE, "--clipped"}, "probe");
  AtspiDriver driver;
  auto window = driver.waitForWindow(driver.waitForApplication(probe->pid()), "Probe");
  driver.waitFor(window, {"push button", "Cut Off"});
  const auto clipped = driver.clippedControls(window);
  ASSERT_EQ(clipped.size(), 1u) << ::testing::PrintToString(clipped);
  EXPECT_EQ(clipped.front().rfind("push button 'Cut Off' at ", 0), 0u) << clipped.front();
  EXPECT_NE(clipped.front().find("reaches outside"), std::string::npos) << clipped.front();
}

// A step that fails says which step, what it wanted and what the tree held instead, and leaves a
// screenshot of the screen at that moment behind.
TEST(DesktopJourney, AFailedStepTellsWhereItBrokeAndShowsTheScreen) {
  DesktopJourney journey({}, screenshots / "journey");
  journey.start({VUMO_ATSPI_PROBE}, "probe");
  const auto window = journey.step("find the probe's window",
                                   [&] { return journey.driver().waitForWindow(journey.application(), "Probe"); });
  journey.step("press Press Me", [&] { journey.press(window, "Press Me"); });
  try {
    journey.step("find a button that is not there", [&] {
      return journey.driver().waitFor(window, {"push button", "Absent"}, 500ms);
    });
    FAIL() << "a missing button was found";
  } catch (const std::runtime_error& error) {
    const std::string text = error.what();
    EXPECT_EQ(text.rfind("step 3 (find a button that is not there) failed: no push button 'Absent'", 0), 0u) << text;
    EXPECT_NE(text.find("label 'Pressed 1 times'"), std::string::npos) << "the tree as it was:\n" << text;
    const auto shot = screenshots / "journey" / "failed-step-3.png";
    EXPECT_NE(text.find("screenshot: " + shot.string()), std::string::npos) << text;
    EXPECT_EQ(pngSize(shot), std::make_pair(1280, 720));
  }
}

}  // namespace
}  // namespace vumo::testing
