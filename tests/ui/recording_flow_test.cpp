#include "ui/recording_flow.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QKeyEvent>
#include <QListWidget>
#include <QMouseEvent>
#include <QPushButton>
#include <chrono>
#include <filesystem>
#include <thread>

#include "capture/x11_global_shortcuts.h"
#include "project/project_store.h"
#include "recording/fake_media_writer.h"
#include "recording/recording_control_region.h"
#include "support/desktop_servers.h"
#include "support/test_support.h"
#include "ui/application_model.h"
#include "ui/area_selection.h"
#include "ui/control_panel.h"
#include "ui/countdown_window.h"
#include "ui/source_picker.h"

// Qt's `emit` keyword would eat the synthetic stream's member of that name.
#undef emit
#include "capture/synthetic_streams.h"
#define emit

namespace vumo {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Phase = ApplicationPhase;

// One 640x360 display of numbered frames, a writer that keeps times; a window source is missing,
// and the stream can be told to fail once it runs.
class SyntheticPlatform : public RecordingPlatform {
 public:
  struct Script {
    bool failAfterStart = false;
    bool failToOpen = false;
    std::atomic<int> platformsMade = 0;
    std::optional<RecordSourceRequest> lastRequest;  // written on the flow's worker, read after
  };
  explicit SyntheticPlatform(std::shared_ptr<Script> script) : script_(std::move(script)) { ++script_->platformsMade; }

  void listSources(const RecordSourceRequest&, Json&) override {}
  CaptureSourceDescriptor resolve(const RecordSourceRequest& request, std::stop_token) override {
    script_->lastRequest = request;
    if (request.kind == CaptureSourceKind::window) throw FileError("no such window");
    CaptureSourceDescriptor source;
    source.kind = CaptureSourceKind::display;
    source.nativeID = 1;
    source.title = "Synthetic display";
    source.globalFrame = {0, 0, 640, 360};
    source.initialPixelSize = {640, 360};
    return source;
  }
  RecordingCaptureStreams openStreams(const CaptureSourceDescriptor&, const RecordStreamRequest& request) override {
    if (script_->failToOpen) throw FileError("the display is busy");
    RecordingCaptureStreams streams;
    auto video = std::make_unique<SyntheticVideoStream>(PixelSize{640, 360}, request.framesPerSecond,
                                                        SyntheticVideoStream::Pacing::thread);
    SyntheticVideoStream* raw = video.get();
    streams.video = std::move(video);
    if (script_->failAfterStart) {
      std::thread([raw] {
        std::this_thread::sleep_for(150ms);
        raw->stopByItself(std::make_exception_ptr(FileError("the display went away")));
      }).detach();
    }
    return streams;
  }
  std::optional<RecordingMicrophoneConfiguration> microphoneConfiguration(const RecordStreamRequest&) override {
    return std::nullopt;
  }
  RecordingMediaWriterFactory writerFactory() override {
    return [log = std::make_shared<testing::FakeWriterLog>()](const RecordingWriterConfiguration& configuration) {
      return std::make_unique<testing::FakeMediaWriter>(log, configuration.url);
    };
  }
  void watchSource(const CaptureSourceDescriptor&, RecordingSessionSettings&) override {}
  MediaProbing recordingMediaProbe() override {
    return [](const fs::path&) { return std::optional<MediaProbeResult>(); };
  }

 private:
  std::shared_ptr<Script> script_;
};

// Turns Qt's loop until `done` or a generous limit, so a broken flow fails instead of hanging.
bool turnUntil(const std::function<bool()>& done, std::chrono::milliseconds limit = 10s) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!done() && std::chrono::steady_clock::now() < end) QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
  return done();
}

void turnFor(std::chrono::milliseconds time) {
  turnUntil([] { return false; }, time);
}

// One application per process, on the platform the first test asked for; private folders for
// everything it writes.
void ensureApplication(const char* platform) {
  static testing::TemporaryDirectory home;
  if (QCoreApplication::instance() != nullptr) return;
  for (const char* name : {"HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME", "XDG_RUNTIME_DIR"}) {
    fs::create_directories(home.path() / name);
    ::setenv(name, (home.path() / name).c_str(), 1);
  }
  ::setenv("QT_QPA_PLATFORM", platform, 1);
  ::unsetenv("WAYLAND_DISPLAY");
  ::unsetenv("XDG_SESSION_TYPE");
  static int argc = 1;
  static char name[] = "ui_tests";
  static char* argv[] = {name, nullptr};
  new QApplication(argc, argv);
}

class RecordingFlowTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { ensureApplication("offscreen"); }

  void SetUp() override {
    if (qobject_cast<QApplication*>(QCoreApplication::instance()) == nullptr) GTEST_SKIP() << "needs widgets";
  }

  // `desktop`: the machine's own platform, as `vumo record` has it, instead of the synthetic one.
  std::unique_ptr<RecordingFlow> makeFlow(std::vector<RectValue> displays, bool globalShortcuts = false,
                                          bool desktop = false) {
    RecordingFlowSettings settings;
    if (!desktop) settings.makePlatform = [script = script_] { return std::make_unique<SyntheticPlatform>(script); };
    settings.freeSpace.probe = [this](const fs::path&) { return freeBytes_; };
    settings.countdownFrom = 2;
    settings.countdownStep = 20ms;
    settings.globalShortcuts = globalShortcuts;
    settings.preferences = PreferencesStore::defaults();
    if (!displays.empty()) settings.displays = [displays] { return displays; };
    settings.controlRegionStore = &region_;
    settings.statusInterval = 20ms;
    auto flow = std::make_unique<RecordingFlow>(model_, store_, nullptr, std::move(settings));
    QObject::connect(flow.get(), &RecordingFlow::projectRecorded,
                     [this](QString id) { recorded_.push_back(id.toStdString()); });
    return flow;
  }

  static RecordingChoice displayChoice() {
    RecordingChoice choice;
    choice.streams.framesPerSecond = 30;
    choice.streams.microphone = false;
    choice.streams.systemAudio = false;
    return choice;
  }

  std::vector<fs::path> packages() const {
    std::vector<fs::path> found;
    if (!fs::exists(store_.projectsDirectoryPath())) return found;
    for (const auto& entry : fs::directory_iterator(store_.projectsDirectoryPath())) found.push_back(entry.path());
    return found;
  }

  testing::ScopedDataHome dataHome_;
  ProjectStore store_;
  std::vector<Phase> phases_;
  std::vector<std::string> messages_;
  ApplicationModel model_{{[this](Phase phase) { phases_.push_back(phase); },
                           [this](const std::string& message) { messages_.push_back(message); }}};
  std::shared_ptr<SyntheticPlatform::Script> script_ = std::make_shared<SyntheticPlatform::Script>();
  std::optional<std::uint64_t> freeBytes_;
  RecordingControlRegionStore region_;
  std::vector<std::string> recorded_;
  const RectValue left_{0, 0, 640, 360}, right_{640, 0, 800, 600};
};

TEST_F(RecordingFlowTest, RecordsWithThePanelOnAnotherDisplayAndLandsInTheEditor) {
  auto flow = makeFlow({left_, right_});
  flow->record(displayChoice());
  ASSERT_TRUE(turnUntil([&] { return model_.phase() == Phase::recording; }));
  // The captured display is the left one: the panel goes to the top centre of the right one.
  ASSERT_TRUE(flow->controlPanelCorner());
  EXPECT_EQ(flow->controlPanelCorner()->y, 16);
  EXPECT_GE(flow->controlPanelCorner()->x, 640);
  EXPECT_TRUE(flow->countdownNote().isEmpty());
  EXPECT_TRUE(flow->controlPanel()->isVisible());
  EXPECT_TRUE(flow->isRecording());
  // The panel's rectangle is what the pointer recording leaves out.
  ASSERT_TRUE(turnUntil([&] { return region_.region().has_value(); }));
  const RectValue panel = *region_.region();
  EXPECT_TRUE(region_.contains({panel.x + 1, panel.y + 1}));
  EXPECT_FALSE(region_.contains({100, 100}));

  turnFor(300ms);
  flow->stopAndFinish();
  ASSERT_TRUE(turnUntil([&] { return model_.phase() == Phase::editing; }));
  EXPECT_EQ(phases_, (std::vector<Phase>{Phase::choosingSource, Phase::countdown, Phase::recording, Phase::finishing,
                                         Phase::editing}));
  EXPECT_TRUE(messages_.empty()) << messages_.front();
  ASSERT_EQ(recorded_.size(), 1u);
  EXPECT_EQ(model_.openProjectID(), recorded_.front());
  EXPECT_EQ(store_.project(recorded_.front()).rootPath.extension(), ".vumo");
  EXPECT_FALSE(flow->controlPanel()->isVisible());
  EXPECT_FALSE(region_.region());
  EXPECT_FALSE(flow->isRecording());
}

TEST_F(RecordingFlowTest, WithNothingOutsideTheCaptureThePanelHidesAndThePersonIsTold) {
  auto flow = makeFlow({left_});
  flow->record(displayChoice());
  ASSERT_TRUE(turnUntil([&] { return model_.phase() == Phase::countdown; }));
  EXPECT_FALSE(flow->controlPanelCorner());
  EXPECT_TRUE(flow->countdownNote().contains("control panel stays hidden")) << flow->countdownNote().toStdString();
  EXPECT_TRUE(flow->countdownWindow()->isVisible());
  ASSERT_TRUE(turnUntil([&] { return model_.phase() == Phase::recording; }));
  turnFor(100ms);
  EXPECT_FALSE(flow->controlPanel()->isVisible());
  EXPECT_FALSE(region_.region());
  flow->stopAndFinish();
  ASSERT_TRUE(turnUntil([&] { return model_.phase() == Phase::editing; }));
}

TEST_F(RecordingFlowTest, AStartThatFailsReturnsToTheLibraryWithTheErrorShownOnce) {
  struct Case {
    const char* what;
    std::function<void(RecordingChoice&)> arrange;
    std::string message;
    int platformsMade;
  } cases[] = {
      {"missing window", [](RecordingChoice& c) { c.source.kind = CaptureSourceKind::window; }, "no such window", 1},
      {"streams do not open", [this](RecordingChoice&) { script_->failToOpen = true; }, "the display is busy", 1},
      {"no room on disk", [this](RecordingChoice&) { freeBytes_ = 1000; },
       "Not enough free disk space to record. At least 1 GiB must be free in the projects folder (" +
           store_.projectsDirectoryPath().string() + ").",
       0},
  };
  for (const Case& c : cases) {
    phases_.clear();
    messages_.clear();
    script_->failToOpen = false;
    script_->platformsMade = 0;
    freeBytes_.reset();
    auto flow = makeFlow({left_, right_});
    RecordingChoice choice = displayChoice();
    c.arrange(choice);
    flow->record(choice);
    ASSERT_TRUE(turnUntil([&] { return !messages_.empty() && model_.phase() == Phase::library; })) << c.what;
    turnFor(100ms);
    EXPECT_EQ(messages_, std::vector<std::string>{c.message}) << c.what;
    EXPECT_EQ(phases_.front(), Phase::choosingSource) << c.what;
    EXPECT_EQ(phases_.back(), Phase::library) << c.what;
    EXPECT_EQ(script_->platformsMade.load(), c.platformsMade) << c.what;
    EXPECT_TRUE(packages().empty()) << c.what;
    EXPECT_FALSE(flow->isRecording()) << c.what;
  }
}

TEST_F(RecordingFlowTest, TheAreaDrawnAfterThePickerIsWhatIsRecordedAndEscapeThereCancels) {
  auto flow = makeFlow({left_, right_});
  auto openAreaSelection = [&]() -> AreaSelection* {
    flow->start();
    EXPECT_EQ(model_.phase(), Phase::choosingSource);
    for (QPushButton* button : flow->sourcePicker()->findChildren<QPushButton*>())
      if (button->text() == "Area…") button->click();
    AreaSelection* found = nullptr;
    turnUntil([&] {
      for (QWidget* window : QApplication::topLevelWidgets())
        if (auto* area = qobject_cast<AreaSelection*>(window); area && area->isVisible()) found = area;
      return found != nullptr;
    });
    return found;
  };
  auto send = [](QWidget* to, QEvent::Type type, QPointF at) {
    QMouseEvent event(type, at, at, Qt::LeftButton, type == QEvent::MouseButtonRelease ? Qt::NoButton : Qt::LeftButton,
                      Qt::NoModifier);
    QCoreApplication::sendEvent(to, &event);
  };
  auto press = [](QWidget* to, int key) {
    QKeyEvent event(QEvent::KeyPress, key, Qt::NoModifier);
    QCoreApplication::sendEvent(to, &event);
  };

  AreaSelection* area = openAreaSelection();
  ASSERT_NE(area, nullptr);
  EXPECT_EQ(flow->sourcePicker(), nullptr);
  press(area, Qt::Key_Escape);
  ASSERT_TRUE(turnUntil([&] { return model_.phase() == Phase::library; }));

  area = openAreaSelection();
  ASSERT_NE(area, nullptr);
  send(area, QEvent::MouseButtonPress, {40, 30});
  send(area, QEvent::MouseMove, {240, 130});
  send(area, QEvent::MouseButtonRelease, {240, 130});
  press(area, Qt::Key_Return);
  ASSERT_TRUE(turnUntil([&] { return model_.phase() == Phase::recording; }));
  ASSERT_TRUE(script_->lastRequest);
  EXPECT_EQ(script_->lastRequest->kind, CaptureSourceKind::area);
  ASSERT_TRUE(script_->lastRequest->area);
  EXPECT_EQ(script_->lastRequest->area->x, 40);
  EXPECT_EQ(script_->lastRequest->area->y, 30);
  EXPECT_EQ(script_->lastRequest->area->width, 200);
  EXPECT_EQ(script_->lastRequest->area->height, 100);
  EXPECT_FALSE(script_->lastRequest->display);
  turnFor(300ms);
  flow->stopAndFinish();
  ASSERT_TRUE(turnUntil([&] { return model_.phase() == Phase::editing; }));
}

TEST_F(RecordingFlowTest, AFailureWhileRecordingEndsInTheLibraryOnceAndKeepsTheFailedPackage) {
  script_->failAfterStart = true;
  auto flow = makeFlow({left_, right_});
  flow->record(displayChoice());
  ASSERT_TRUE(turnUntil([&] { return !messages_.empty(); }));
  turnFor(200ms);
  EXPECT_EQ(model_.phase(), Phase::library);
  EXPECT_EQ(messages_, std::vector<std::string>{"the display went away"});
  EXPECT_EQ(phases_, (std::vector<Phase>{Phase::choosingSource, Phase::countdown, Phase::recording, Phase::finishing,
                                         Phase::library}));
  ASSERT_EQ(packages().size(), 1u);
  EXPECT_EQ(packages().front().extension(), ".tmp");
  EXPECT_FALSE(flow->controlPanel()->isVisible());
}

TEST_F(RecordingFlowTest, CountdownCancelDiscardAndRestart) {
  auto flow = makeFlow({left_, right_});
  // Cancelled countdown: back to the library, nothing on disk.
  flow->record(displayChoice());
  ASSERT_TRUE(turnUntil([&] { return model_.phase() == Phase::countdown; }));
  flow->countdownWindow()->cancel();
  EXPECT_EQ(model_.phase(), Phase::library);
  turnFor(150ms);
  EXPECT_EQ(model_.phase(), Phase::library);
  EXPECT_TRUE(packages().empty());

  // Stop during the countdown (SIGTERM): the same.
  flow->record(displayChoice());
  ASSERT_TRUE(turnUntil([&] { return model_.phase() == Phase::countdown; }));
  flow->stopAndFinish();
  turnFor(150ms);
  EXPECT_EQ(model_.phase(), Phase::library);
  EXPECT_TRUE(packages().empty());

  // Discard: the package goes.
  flow->record(displayChoice());
  ASSERT_TRUE(turnUntil([&] { return model_.phase() == Phase::recording; }));
  turnFor(200ms);
  ASSERT_EQ(packages().size(), 1u);
  flow->discard();
  ASSERT_TRUE(turnUntil([&] { return model_.phase() == Phase::library && !flow->isRecording(); }));
  turnFor(100ms);
  EXPECT_TRUE(packages().empty());

  // Restart: the first take goes, a new countdown, a second take that is kept.
  phases_.clear();
  flow->record(displayChoice());
  ASSERT_TRUE(turnUntil([&] { return model_.phase() == Phase::recording; }));
  turnFor(200ms);
  flow->restart();
  ASSERT_TRUE(turnUntil([&] { return model_.phase() == Phase::countdown; }));
  ASSERT_TRUE(turnUntil([&] { return model_.phase() == Phase::recording; }));
  turnFor(200ms);
  flow->togglePause();
  EXPECT_TRUE(flow->isPaused());
  EXPECT_NE(flow->controlPanel()->findChild<QPushButton*>(QString(), Qt::FindDirectChildrenOnly), nullptr);
  bool resumeShown = false;
  for (QPushButton* button : flow->controlPanel()->findChildren<QPushButton*>())
    resumeShown = resumeShown || button->text() == "Resume";
  EXPECT_TRUE(resumeShown);
  flow->togglePause();
  flow->stopAndFinish();
  ASSERT_TRUE(turnUntil([&] { return model_.phase() == Phase::editing; }));
  EXPECT_EQ(phases_, (std::vector<Phase>{Phase::choosingSource, Phase::countdown, Phase::recording, Phase::library,
                                         Phase::choosingSource, Phase::countdown, Phase::recording, Phase::finishing,
                                         Phase::editing}));
  ASSERT_EQ(recorded_.size(), 1u);
  EXPECT_EQ(packages(), std::vector<fs::path>{store_.project(recorded_.front()).rootPath});
  EXPECT_TRUE(messages_.empty());
}

TEST_F(RecordingFlowTest, ARecordingThatRunsShortOfSpaceIsFinishedAndKept) {
  freeBytes_ = 5'000'000'000;
  auto flow = makeFlow({left_, right_});
  flow->record(displayChoice());
  ASSERT_TRUE(turnUntil([&] { return model_.phase() == Phase::recording; }));
  turnFor(300ms);
  freeBytes_ = 100'000'000;
  ASSERT_TRUE(turnUntil([&] { return model_.phase() == Phase::editing; }, 5s));
  ASSERT_EQ(recorded_.size(), 1u);
  EXPECT_TRUE(messages_.empty());
}

TEST_F(RecordingFlowTest, DestroyingTheFlowFinishesARunningRecording) {
  auto flow = makeFlow({left_, right_});
  flow->record(displayChoice());
  ASSERT_TRUE(turnUntil([&] { return model_.phase() == Phase::recording; }));
  turnFor(300ms);
  flow.reset();
  ASSERT_EQ(packages().size(), 1u);
  EXPECT_EQ(packages().front().extension(), ".vumo");
}

// On a real X server: the shortcuts are key grabs, the panel's rectangle is read back from the
// server.
class RecordingFlowOnX11Test : public RecordingFlowTest {
 protected:
  static testing::XvfbServer& server() {
    static testing::XvfbServer server;
    return server;
  }
  static void SetUpTestSuite() {
    ::setenv("DISPLAY", server().display().c_str(), 1);
    ensureApplication("xcb");
  }
  void SetUp() override {
    if (QGuiApplication::platformName() != "xcb") GTEST_SKIP() << "another test made the application offscreen";
  }
  void key(const std::string& keys) { testing::xdotool(server().display(), {"key", keys}); }
};

TEST_F(RecordingFlowOnX11Test, TheShortcutsStartPauseAndStopAndThePanelIsLeftOutWhereTheServerHasIt) {
  // The synthetic display is the top-left 640x360 of the 1280x720 screen: the panel goes below it.
  auto flow = makeFlow({}, true);
  key("ctrl+shift+r");
  ASSERT_TRUE(turnUntil([&] { return model_.phase() == Phase::choosingSource; }));
  ASSERT_NE(flow->sourcePicker(), nullptr);
  flow->record(displayChoice());
  ASSERT_TRUE(turnUntil([&] { return model_.phase() == Phase::recording; }));
  ASSERT_TRUE(flow->controlPanelCorner());
  const PointValue corner = *flow->controlPanelCorner();
  EXPECT_EQ(corner.y, 360 + 16);
  ASSERT_TRUE(turnUntil([&] { return region_.region() && region_.region()->x == corner.x; }))
      << (region_.region() ? region_.region()->x : -1);
  EXPECT_EQ(region_.region()->y, corner.y);
  EXPECT_TRUE(region_.contains({corner.x + 5, corner.y + 5}));

  key("ctrl+shift+p");
  ASSERT_TRUE(turnUntil([&] { return flow->isPaused(); }));
  key("ctrl+shift+p");
  ASSERT_TRUE(turnUntil([&] { return !flow->isPaused(); }));
  key("ctrl+shift+r");
  ASSERT_TRUE(turnUntil([&] { return model_.phase() == Phase::editing; }));
  EXPECT_EQ(recorded_.size(), 1u);
  EXPECT_TRUE(messages_.empty());
}

TEST_F(RecordingFlowOnX11Test, AShortcutAnotherProgramHoldsIsReportedOnce) {
  X11GlobalShortcuts otherProgram(server().display());
  otherProgram.add("Ctrl+Shift+P");
  auto flow = makeFlow({}, true);
  std::vector<std::string> conflicts;
  flow->onShortcutConflict([&](const std::string& text) { conflicts.push_back(text); });
  turnUntil([&] { return !messages_.empty(); });
  turnUntil([] { return false; }, 200ms);
  EXPECT_EQ(messages_, std::vector<std::string>{"The shortcut Ctrl+Shift+P is already used by another program. "
                                                "Choose another one in Settings."});
  EXPECT_EQ(conflicts, messages_);
  // The other shortcut works all the same.
  key("ctrl+shift+r");
  ASSERT_TRUE(turnUntil([&] { return model_.phase() == Phase::choosingSource; }));
}

TEST_F(RecordingFlowOnX11Test, ThePickerListsDisplaysAndTitledWindowsAndSaysWhatWasChosen) {
  testing::TestX11Client client(server().display());
  const xcb_window_t window = client.createWindow(700, 100, 320, 200, 0x3366cc, "Quarterly report");
  client.setWindowListProperty(client.root(), "_NET_CLIENT_LIST", {window});
  client.sync();

  RecordingOptions defaults;
  defaults.framesPerSecond = 30;
  defaults.capturesSystemAudio = false;
  defaults.capturesMicrophone = true;
  SourcePicker picker(defaults);
  auto* sources = picker.findChild<QListWidget*>();
  ASSERT_NE(sources, nullptr);
  EXPECT_EQ(sources->accessibleName(), "Sources");
  std::vector<std::string> texts;
  for (int row = 0; row < sources->count(); ++row) texts.push_back(sources->item(row)->text().toStdString());
  ASSERT_GE(texts.size(), 2u);
  EXPECT_EQ(texts.front(), "Entire screen (1280 × 720)");
  EXPECT_EQ(texts.back(), "Quarterly report");
  // The window's item carries a small picture of it.
  EXPECT_FALSE(sources->item(sources->count() - 1)->icon().isNull());

  // The whole screen is chosen first; the streams follow the defaults.
  RecordingChoice first = picker.choice();
  EXPECT_EQ(first.source.kind, CaptureSourceKind::display);
  EXPECT_EQ(first.source.display, "screen");
  EXPECT_EQ(first.streams.framesPerSecond, 30);
  EXPECT_FALSE(first.streams.systemAudio);
  EXPECT_TRUE(first.streams.microphone);
  EXPECT_FALSE(first.streams.camera);

  std::optional<RecordingChoice> requested;
  QObject::connect(&picker, &SourcePicker::recordRequested, [&](RecordingChoice c) { requested = c; });
  sources->setCurrentRow(sources->count() - 1);
  for (QCheckBox* box : picker.findChildren<QCheckBox*>())
    if (box->text() == "System audio") box->setChecked(true);
  for (QPushButton* button : picker.findChildren<QPushButton*>())
    if (button->text() == "Record") button->click();
  ASSERT_TRUE(requested);
  EXPECT_EQ(requested->source.kind, CaptureSourceKind::window);
  EXPECT_EQ(requested->source.window, window);
  EXPECT_TRUE(requested->streams.systemAudio);
}

TEST_F(RecordingFlowTest, OnAWaylandSessionThePickerLeavesTheChoiceToTheDesktopsDialog) {
  testing::ScopedEnvironmentVariable wayland("WAYLAND_DISPLAY", "wayland-0");
  SourcePicker picker(PreferencesStore::defaults().recording);
  EXPECT_EQ(picker.findChild<QListWidget*>(), nullptr);
  std::map<QString, QPushButton*> buttons;
  for (QPushButton* button : picker.findChildren<QPushButton*>()) buttons[button->text()] = button;
  ASSERT_TRUE(buttons.count("Display…") && buttons.count("Window…") && buttons.count("Area…"));
  EXPECT_FALSE(buttons["Area…"]->isEnabled());
  std::vector<RecordingChoice> requested;
  QObject::connect(&picker, &SourcePicker::recordRequested, [&](RecordingChoice c) { requested.push_back(c); });
  buttons["Display…"]->click();
  buttons["Window…"]->click();
  ASSERT_EQ(requested.size(), 2u);
  for (const RecordingChoice& c : requested) {
    EXPECT_EQ(c.source.backend, RecordingBackend::portal);
    EXPECT_TRUE(c.source.chooseSource);
    EXPECT_FALSE(c.source.window);
  }
  EXPECT_EQ(requested[0].source.kind, CaptureSourceKind::display);
  EXPECT_EQ(requested[1].source.kind, CaptureSourceKind::window);
}

TEST_F(RecordingFlowOnX11Test, RecordsAnAreaOfTheScreenAndLeavesTheClicksOnThePanelOut) {
  auto flow = makeFlow({}, false, true);
  RecordingChoice choice = displayChoice();
  choice.source.kind = CaptureSourceKind::area;
  choice.source.area = RectValue{0, 0, 640, 360};
  flow->record(choice);
  ASSERT_TRUE(turnUntil([&] { return model_.phase() == Phase::recording || !messages_.empty(); }))
      << "phase " << nameOf(model_.phase());
  ASSERT_TRUE(messages_.empty()) << messages_.front();
  ASSERT_TRUE(flow->controlPanelCorner());
  const PointValue corner = *flow->controlPanelCorner();
  ASSERT_TRUE(turnUntil([&] { return region_.region() && region_.region()->x == corner.x; }));
  turnFor(300ms);
  auto xdotool = [&](std::vector<std::string> words) { testing::xdotool(server().display(), words); };
  xdotool({"mousemove", "200", "150", "click", "1"});
  turnFor(100ms);
  // The panel's clock, not a button: the click changes nothing but must not reach the film.
  xdotool({"mousemove", std::to_string(int(corner.x) + 12), std::to_string(int(corner.y) + 12), "click", "1"});
  turnFor(100ms);
  xdotool({"mousemove", "300", "200", "click", "1"});
  turnFor(300ms);
  flow->stopAndFinish();
  ASSERT_TRUE(turnUntil([&] { return model_.phase() != Phase::finishing && model_.phase() != Phase::recording; }, 30s));
  ASSERT_EQ(model_.phase(), Phase::editing) << (messages_.empty() ? "" : messages_.front());
  const ProjectSnapshot snapshot = store_.loadSnapshot(store_.project(recorded_.at(0)));
  EXPECT_EQ(snapshot.manifest.source.kind, CaptureSourceKind::area);
  std::vector<PointValue> presses;
  for (const MouseEvent& event : snapshot.mouseEvents)
    if (event.phase == MousePhase::down) presses.push_back(event.globalPoint);
  EXPECT_EQ(presses, (std::vector<PointValue>{{200, 150}, {300, 200}}));
}

}  // namespace
}  // namespace vumo
