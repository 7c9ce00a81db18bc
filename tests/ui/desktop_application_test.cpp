// Vumo as a person uses it, on a private desktop: the real program, driven through the
// accessibility tree as a screen reader drives it, and with real pointer and keyboard input at
// positions taken from the widgets' own geometry. Every step says what it did when it fails, with
// a screenshot of the screen at that moment; every window reached is photographed for a person to
// look at (in the build tree, tests/ui/screenshots/desktop_application/<test>/).

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "project/project_library.h"
#include "project/project_store.h"
#include "sample_project.h"
#include "support/atspi_driver.h"
#include "support/desktop_session.h"
#include "support/desktop_session_journey.h"
#include "timeline/timeline_mapper.h"
#include "ui/timeline_canvas.h"

namespace vumo::testing {
namespace {

using namespace std::chrono_literals;

const std::filesystem::path screenshotRoot = std::filesystem::path(VUMO_UI_SCREENSHOT_DIR) / "desktop_application";

std::string currentTestName() {
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string name = std::string(info->test_suite_name()) + "." + info->name();
  std::replace(name.begin(), name.end(), '/', '_');
  return name;
}

// Vumo's journey on a private desktop, its screenshots kept under the test's name.
class VumoJourney : public DesktopJourney {
 public:
  explicit VumoJourney(DesktopSessionOptions options = {})
      : DesktopJourney(options, screenshotRoot / currentTestName()) {}

  // Starts bare `vumo` and waits for its main window.
  AccessibleNode startVumo() {
    return step("start vumo and find its window \"Vumo\"", [&] {
      start({vumoBinary().string()}, "vumo");
      return driver().waitForWindow(application(), "Vumo", false, 30s);
    });
  }
};

// The project a recording made, as the store on disk holds it.
struct RecordedProject {
  ProjectPackage package;
  ProjectManifest manifest;
};

std::optional<RecordedProject> onlyProject() {
  ProjectStore store;
  const auto recent = ProjectLibrary(store.projectsDirectoryPath()).recentProjects();
  if (recent.size() != 1) return std::nullopt;
  ProjectPackage package{recent.front().packagePath};
  return RecordedProject{package, store.readManifest(package)};
}

struct StoredTimeline {
  std::string digest;
  EditTimeline timeline;
  ProjectTime sequenceDuration;
};

StoredTimeline storedTimeline(const RecordedProject& project) {
  ProjectStore store;
  StoredTimeline stored;
  stored.digest = store.timelineDigest(project.package);
  stored.timeline = store.readTimeline(project.package, project.manifest.duration, project.manifest.webcam.has_value());
  stored.sequenceDuration = TimelineMapper(stored.timeline, project.manifest.duration).sequenceDuration();
  return stored;
}

double seconds(ProjectTime time) { return double(time.nanoseconds) / 1e9; }

// One frame of the editor's 60 fps grid, in seconds: the tolerance of a pointer edit.
constexpr double gridFrame = 1.0 / 60;

bool intersects(const ScreenRect& a, const ScreenRect& b) {
  return a.x < b.x + b.width && b.x < a.x + a.width && a.y < b.y + b.height && b.y < a.y + a.height;
}

// The film an export wrote: the one regular file of the export folder that is not a partial one.
std::optional<std::filesystem::path> exportedFilm(const std::filesystem::path& folder) {
  std::error_code error;
  if (!std::filesystem::is_directory(folder, error)) return std::nullopt;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder, error)) {
    const auto name = entry.path().filename().string();
    if (entry.is_regular_file() && entry.file_size() > 0 && name.front() != '.' &&
        (entry.path().extension() == ".mp4" || entry.path().extension() == ".mov"))
      return entry.path();
  }
  return std::nullopt;
}

double filmSeconds(DesktopSession& session, const std::filesystem::path& film) {
  const auto probe = session.run({requireProgram("ffprobe", "ffmpeg").string(), "-v", "error", "-show_entries",
                                  "format=duration", "-of", "default=noprint_wrappers=1:nokey=1", film.string()},
                                 30s);
  if (probe.status != 0) throw std::runtime_error("ffprobe cannot read " + film.string() + ": " + probe.standardError);
  return std::stod(probe.standardOutput);
}

// The editor's timeline in root pixels: x of a sequence time at zoom 1 (60 pixels a second after
// the canvas's left inset), and the middle of the ruler and of the clip lane.
struct TimelinePositions {
  ScreenRect canvas;
  double scale = 1;
  int x(double secondsIntoSequence) const {
    return canvas.x + int(std::lround(
                          (TimelineCanvas::leftInset + TimelineCanvas::pixelsPerSecond * secondsIntoSequence) * scale));
  }
  int rulerY() const { return canvas.y + int(std::lround(11 * scale)); }
  int clipsY() const { return canvas.y + int(std::lround(52 * scale)); }
};

// Record an area around a program a person works in, with the control panel outside it; stop on
// the panel; split, trim and undo on the timeline; export; find the film.
TEST(DesktopApplication, RecordsAnAreaThenSplitsTrimsUndoesAndExports) {
  VumoJourney vumo;
  auto& session = vumo.session();
  auto& driver = vumo.driver();
  const AccessibleNode mainWindow = vumo.startVumo();
  vumo.screenshot("01-library", mainWindow);

  vumo.step("the main window's class is the desktop entry's StartupWMClass", [&] {
    vumo.xdotool({"search", "--classname", "^vumo$"});
  });

  // The work being recorded: the probe program, its button clicked while the recording runs.
  auto probe = session.start({VUMO_ATSPI_PROBE}, "probe");
  struct Work {
    AccessibleNode window, button, label;
  };
  const Work work = vumo.step("start the program to record and move it to the middle of the screen", [&] {
    const auto window = driver.waitForWindow(driver.waitForApplication(probe->pid()), "Probe");
    // Where the window manager put it depends on what else is open; the area needs room around it.
    vumo.xdotool({"search", "--sync", "--onlyvisible", "--name", "^Probe$", "windowmove", "--sync", "480", "280"});
    if (!driver.waitUntil([&] { return window.extents()->x >= 480 && window.extents()->y >= 280; }, 10s))
      throw std::runtime_error("the probe stayed at " + describe(*window.extents()));
    return Work{window, driver.waitFor(window, {"push button", "Press Me"}),
                driver.waitFor(window, {"label", "Pressed ", true})};
  });
  // The area: the probe's window with a margin, in even root pixels.
  const ScreenRect probeRect = work.window.extents().value();
  const ScreenRect area{(probeRect.x - 40) / 2 * 2, (probeRect.y - 40) / 2 * 2, (probeRect.width + 80) / 2 * 2,
                        (probeRect.height + 80) / 2 * 2};

  const AccessibleNode picker = vumo.step("press Record and see the source picker \"New Recording\"", [&] {
    vumo.press(mainWindow, "Record");
    return driver.waitForWindow(vumo.application(), "New Recording");
  });
  vumo.screenshot("02-source-picker", picker);

  const AccessibleNode areaWindow = vumo.step("press \"Area…\" and see \"Select Area\" over the screen", [&] {
    vumo.press(picker, "Area…");
    return driver.waitForWindow(vumo.application(), "Select Area");
  });
  vumo.step("drag the area around the probe and confirm it with Enter", [&] {
    vumo.drag(area.x, area.y, area.x + area.width, area.y + area.height);
    vumo.screenshot("03-area-selection");
    vumo.xdotool({"key", "Return"});
  });

  const AccessibleNode panel = vumo.step("count down and show the control panel outside the area", [&] {
    const auto found = driver.waitForWindow(vumo.application(), "Recording controls", false, 30s);
    const auto panelRect = found.extents().value();
    if (intersects(panelRect, area))
      throw std::runtime_error("the panel at " + describe(panelRect) + " lies over the area " + describe(area));
    return found;
  });
  vumo.screenshot("04-recording");

  const int clicks = 3;
  vumo.step("work inside the area for 3 s: move the pointer and click the probe's button", [&] {
    vumo.xdotool({"search", "--sync", "--onlyvisible", "--name", "^Probe$", "windowactivate", "--sync"});
    const auto button = work.button.extents().value();
    for (int click = 0; click < clicks; ++click) {
      vumo.xdotool({"mousemove", "--sync", std::to_string(area.x + 10 + click * 20), std::to_string(area.y + 12)});
      std::this_thread::sleep_for(400ms);
      vumo.clickAt(button.centerX() + (click - 1) * 20, button.centerY());
      std::this_thread::sleep_for(400ms);
    }
    if (!driver.waitUntil([&] { return work.label.name() == "Pressed " + std::to_string(clicks) + " times"; }, 5s))
      throw std::runtime_error("the clicks did not reach the recorded program: it says " + work.label.name());
  });

  const AccessibleNode editor = vumo.step("press Stop on the panel and land in the editor", [&] {
    const auto stop = driver.waitFor(panel, {"push button", "Stop"}).extents().value();
    vumo.clickAt(stop.centerX(), stop.centerY());
    return vumo.waitFor({"", "Vumo Editor", true}, 90s);
  });
  vumo.screenshot("05-editor");

  const RecordedProject project = vumo.step("find the recorded project, about 3 s of the area", [&] {
    const auto found = onlyProject();
    if (!found) throw std::runtime_error("the projects folder does not hold exactly one project");
    const double duration = seconds(found->manifest.duration);
    if (duration < 2.5 || duration > 8)
      throw std::runtime_error("the recording lasts " + std::to_string(duration) + " s");
    const auto size = found->manifest.encodedPixelSize;
    if (std::abs(int(size.width) - area.width) > 2 || std::abs(int(size.height) - area.height) > 2)
      throw std::runtime_error("the film is " + std::to_string(size.width) + "x" + std::to_string(size.height) +
                               ", the area " + describe(area));
    return *found;
  });
  const StoredTimeline first = storedTimeline(project);
  EXPECT_FALSE(first.timeline.zooms.empty()) << "the first timeline zooms on the clicks";

  const TimelinePositions timeline = vumo.step("find the timeline canvas", [&] {
    const auto canvas = driver.waitFor(editor, {"", "Timeline"});
    return TimelinePositions{canvas.extents().value(), vumo.scale()};
  });

  const double splitAt = 1.0;
  const StoredTimeline split = vumo.step("click the ruler at 1 s and press Split", [&] {
    vumo.clickAt(timeline.x(splitAt), timeline.rulerY());
    vumo.press(editor, "Split");
    StoredTimeline stored;
    if (!driver.waitUntil(
            [&] {
              stored = storedTimeline(project);
              return stored.timeline.segments.size() == first.timeline.segments.size() + 1;
            },
            20s))
      throw std::runtime_error("the saved timeline has " + std::to_string(stored.timeline.segments.size()) +
                               " clips, not one more than the " + std::to_string(first.timeline.segments.size()) +
                               " it had");
    return stored;
  });
  EXPECT_NEAR(seconds(split.sequenceDuration), seconds(first.sequenceDuration), gridFrame);
  vumo.screenshot("06-split", editor);

  const double trimBy = 0.5;
  vumo.step("drag the second clip's end handle 0.5 s to the left", [&] {
    const int end = timeline.x(seconds(split.sequenceDuration)) - int(std::lround(2 * vumo.scale()));
    vumo.drag(end, timeline.clipsY(), end - int(std::lround(TimelineCanvas::pixelsPerSecond * trimBy * vumo.scale())),
              timeline.clipsY());
    StoredTimeline stored;
    const double expected = seconds(split.sequenceDuration) - trimBy;
    if (!driver.waitUntil(
            [&] {
              stored = storedTimeline(project);
              return std::abs(seconds(stored.sequenceDuration) - expected) <= gridFrame;
            },
            20s))
      throw std::runtime_error("the saved timeline lasts " + std::to_string(seconds(stored.sequenceDuration)) +
                               " s, not " + std::to_string(expected));
  });
  vumo.screenshot("07-trimmed", editor);

  vumo.step("press Undo and see the untrimmed timeline saved again", [&] {
    vumo.press(editor, "Undo");
    if (!driver.waitUntil([&] { return storedTimeline(project).digest == split.digest; }, 20s))
      throw std::runtime_error("the saved timeline is not the one before the trim");
  });

  const AccessibleNode exportWindow = vumo.step("press \"Export…\" and see the export window", [&] {
    vumo.press(editor, "Export…");
    return driver.waitForWindow(vumo.application(), "Export");
  });
  vumo.screenshot("08-export", exportWindow);

  const auto film = vumo.step("press Export and find the film in the export folder", [&] {
    vumo.press(exportWindow, "Export");
    const auto showInFolder = driver.waitFor(exportWindow, {"push button", "Show in Folder"});
    if (!driver.waitUntil([&] { return showInFolder.enabled(); }, 180s))
      throw std::runtime_error("the export did not finish within 180 s");
    const auto found = exportedFilm(session.dataHome() / "Vumo" / "Exports");
    if (!found) throw std::runtime_error("no film in " + (session.dataHome() / "Vumo" / "Exports").string());
    return *found;
  });
  vumo.screenshot("09-exported");
  EXPECT_NEAR(filmSeconds(session, film), seconds(split.sequenceDuration), 0.1);
}

// A whole display, where nothing lies outside for the panel: the recording is stopped with the
// global shortcut.
TEST(DesktopApplication, RecordsTheWholeDisplayStoppedByTheGlobalShortcut) {
  VumoJourney vumo;
  auto& driver = vumo.driver();
  const AccessibleNode mainWindow = vumo.startVumo();

  const AccessibleNode picker = vumo.step("press Record and see the source picker", [&] {
    vumo.press(mainWindow, "Record");
    return driver.waitForWindow(vumo.application(), "New Recording");
  });
  vumo.step("choose the entire screen and press Record", [&] {
    const auto display = driver.waitFor(picker, {"list item", "Entire screen", true});
    const auto rect = display.extents().value();
    vumo.clickAt(rect.centerX(), rect.centerY());
    vumo.screenshot("01-source-picker", picker);
    vumo.press(picker, "Record");
  });
  vumo.step("count down and record with no panel on the recorded display", [&] {
    driver.waitForWindow(vumo.application(), "Countdown", false, 10s);
    vumo.screenshot("02-countdown");
    if (!driver.waitUntil([&] { return !driver.find(vumo.application(), {"", "Countdown"}); }, 15s))
      throw std::runtime_error("the countdown did not end");
    if (auto panel = driver.find(vumo.application(), {"", "Recording controls"}))
      throw std::runtime_error("the panel shows over the recorded display: " + panel.summary());
  });
  std::this_thread::sleep_for(3s);
  vumo.screenshot("03-recording");

  vumo.step("press Ctrl+Shift+R and land in the editor", [&] {
    vumo.xdotool({"key", "ctrl+shift+r"});
    return vumo.waitFor({"", "Vumo Editor", true}, 90s);
  });
  vumo.screenshot("04-editor");

  vumo.step("find the recorded project of the whole display", [&] {
    const auto found = onlyProject();
    if (!found) throw std::runtime_error("the projects folder does not hold exactly one project");
    const double duration = seconds(found->manifest.duration);
    if (duration < 2.5 || duration > 10)
      throw std::runtime_error("the recording lasts " + std::to_string(duration) + " s");
    const auto size = found->manifest.encodedPixelSize;
    if (size.width != 1280 || size.height != 720)
      throw std::runtime_error("the film is " + std::to_string(size.width) + "x" + std::to_string(size.height));
  });
}

// Makes the sample project in the session's projects folder before Vumo starts, and opens it from
// the library; returns the editor.
AccessibleNode openSampleProject(VumoJourney& vumo, const AccessibleNode& mainWindow) {
  return vumo.step("open the sample project from the library", [&] {
    const auto item = vumo.driver().waitFor(mainWindow, {"list item", "Sample recording"});
    const auto rect = item.extents().value();
    vumo.clickAt(rect.centerX(), rect.centerY());
    vumo.press(mainWindow, "Open");
    return vumo.waitFor({"", "Vumo Editor", true}, 60s);
  });
}

// An agent commits an edit from the command line while the editor is open: it shows as one undo
// step with the sessions' message, and Undo in the window writes the earlier timeline back.
TEST(DesktopApplication, AnAgentsCommitShowsInTheOpenEditorAsOneUndoStep) {
  VumoJourney vumo;
  auto& session = vumo.session();
  auto& driver = vumo.driver();
  const RecordedProject project = vumo.step("make the sample project", [&] {
    ProjectStore store;
    makeSampleProject(store);
    return onlyProject().value();
  });
  const AccessibleNode mainWindow = vumo.startVumo();
  const AccessibleNode editor = openSampleProject(vumo, mainWindow);
  vumo.screenshot("01-editor");
  const StoredTimeline before = storedTimeline(project);

  vumo.step("an agent cuts 1.0 s to 2.5 s with vumo cli", [&] {
    const auto cut = session.run({vumoBinary().string(), "cli", "cut", project.manifest.id.string(), "--range",
                                  "1000,2500", "--apply", "--expect", before.digest},
                                 60s);
    if (cut.status != 0) throw std::runtime_error("vumo cli cut failed: " + cut.standardError);
  });
  const StoredTimeline agents = storedTimeline(project);
  ASSERT_NE(agents.digest, before.digest);
  EXPECT_NEAR(seconds(agents.sequenceDuration), seconds(before.sequenceDuration) - 1.5, gridFrame);

  vumo.step("see \"External edits loaded. Press Ctrl+Z to undo.\" in the editor", [&] {
    const std::string message = "External edits loaded. Press Ctrl+Z to undo.";
    AccessibleNode notice;
    if (!driver.waitUntil(
            [&] {
              notice = driver.find(editor, {"label", "Notice"});
              return notice && notice.description() == message;
            },
            60s))
      throw std::runtime_error("the editor's notice says '" + (notice ? notice.description() : std::string()) + "'");
  });
  vumo.screenshot("02-external-edits", editor);
  EXPECT_EQ(storedTimeline(project).digest, agents.digest) << "loading the agent's edit wrote nothing back";

  vumo.step("press Undo and see the timeline before the agent's cut written back", [&] {
    vumo.press(editor, "Undo");
    if (!driver.waitUntil([&] { return storedTimeline(project).digest == before.digest; }, 60s))
      throw std::runtime_error("the saved timeline is still not the one before the agent's cut");
  });
  vumo.step("see the notice go once the edit is undone", [&] {
    if (!driver.waitUntil([&] { return !driver.find(editor, {"label", "Notice"}); }, 20s))
      throw std::runtime_error("the notice still shows");
  });
  vumo.screenshot("03-undone", editor);
}

struct ScreenCase {
  std::string name;
  DesktopSessionOptions options;
};

void PrintTo(const ScreenCase& screenCase, std::ostream* out) { *out << screenCase.name; }

class DesktopApplicationScreens : public ::testing::TestWithParam<ScreenCase> {};

// Every control of every window reached shows whole: inside its window, with a size; and every
// window lies on the screen. Tabbed pages are each looked at.
TEST_P(DesktopApplicationScreens, NothingIsClipped) {
  const DesktopSessionOptions options = GetParam().options;
  VumoJourney vumo(options);
  auto& driver = vumo.driver();
  vumo.step("make the sample project", [&] {
    ProjectStore store;
    makeSampleProject(store);
  });
  const AccessibleNode mainWindow = vumo.startVumo();
  const ScreenRect screen{0, 0, options.width, options.height};
  const auto expectWhole = [&](const AccessibleNode& window, const std::string& name) {
    const auto rect = window.extents();
    // Openbox may place a window's frame partly off the screen only when it is larger than it.
    EXPECT_TRUE(rect && screen.contains(*rect)) << name << " at " << (rect ? describe(*rect) : "nowhere");
    vumo.screenshot(name, window);
    EXPECT_EQ(driver.clippedControls(window), std::vector<std::string>{}) << name << ":\n" << driver.dump(window);
  };
  // Each page of each tab list under `window`, shown in turn.
  const auto expectEveryPageWhole = [&](const AccessibleNode& window, const std::string& name) {
    expectWhole(window, name);
    for (const auto& tab : driver.findAll(window, {"page tab", "", true})) {
      const std::string page = tab.name();
      vumo.step("show the page " + page + " of " + name, [&] { driver.activate(tab); });
      driver.waitUntil([&] { return tab.checked() || driver.find(window, {"page tab", page}).checked(); }, 2s);
      std::string fileName = name + "-" + page;
      std::replace_if(
          fileName.begin(), fileName.end(), [](char c) { return !std::isalnum((unsigned char)c) && c != '-'; }, '_');
      expectWhole(window, fileName);
    }
  };
  expectWhole(mainWindow, "library");

  const AccessibleNode settings = vumo.step("press Settings… and see the settings", [&] {
    vumo.press(mainWindow, "Settings…");
    return driver.waitForWindow(vumo.application(), "Settings");
  });
  expectEveryPageWhole(settings, "settings");
  vumo.step("close the settings", [&] {
    vumo.press(settings, "Close");
    if (!driver.waitUntil([&] { return !driver.find(vumo.application(), {"", "Settings"}); }, 10s))
      throw std::runtime_error("the settings stayed");
  });

  const AccessibleNode picker = vumo.step("press Record and see the source picker", [&] {
    vumo.press(mainWindow, "Record");
    return driver.waitForWindow(vumo.application(), "New Recording");
  });
  expectWhole(picker, "source-picker");
  vumo.step("cancel the source picker", [&] {
    vumo.press(picker, "Cancel");
    if (!driver.waitUntil([&] { return !driver.find(vumo.application(), {"", "New Recording"}); }, 10s))
      throw std::runtime_error("the picker stayed");
  });

  const AccessibleNode editor = openSampleProject(vumo, mainWindow);
  // The editor may be a window of its own or the main window's content; the window that holds it
  // is what must not clip.
  AccessibleNode editorWindow = editor;
  for (AccessibleNode up = editor.parent(); up && up.roleName() != "application"; up = up.parent()) editorWindow = up;
  expectEveryPageWhole(editorWindow, "editor");

  const AccessibleNode exportWindow = vumo.step("press \"Export…\" and see the export window", [&] {
    vumo.press(editor, "Export…");
    return driver.waitForWindow(vumo.application(), "Export");
  });
  expectWhole(exportWindow, "export");
}

INSTANTIATE_TEST_SUITE_P(Sizes, DesktopApplicationScreens,
                         ::testing::Values(ScreenCase{"1280x720", {1280, 720, std::nullopt}},
                                           ScreenCase{"2560x1440_scale2", {2560, 1440, 2.0}}),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace vumo::testing
