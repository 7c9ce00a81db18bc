#include "ui/settings_window.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QCheckBox>
#include <QClipboard>
#include <QComboBox>
#include <QLabel>
#include <QPushButton>
#include <QSpinBox>
#include <QTabWidget>
#include <chrono>

#include "capture/capture_error.h"
#include "project/project_fixtures.h"
#include "project/project_store.h"
#include "support/test_support.h"
#include "transcription/cloud_credential_store.h"
#include "transcription/transcription_errors.h"
#include "ui/diagnostics_page.h"
#include "ui/qt_main_loop.h"

namespace vumo {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::ScopedEnvironmentVariable;
using testing::TemporaryDirectory;

bool startWidgets() {
  static int argc = 1;
  static char name[] = "ui_tests";
  static char* argv[] = {name, nullptr};
  if (QCoreApplication::instance() == nullptr) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    new QApplication(argc, argv);
  }
  return qobject_cast<QApplication*>(QCoreApplication::instance()) != nullptr;
}

template <class Widget>
Widget* named(QWidget* root, const QString& name) {
  for (Widget* candidate : root->findChildren<Widget*>())
    if (candidate->accessibleName() == name || candidate->property("text").toString() == name) return candidate;
  return nullptr;
}

class SettingsWindowTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!startWidgets()) GTEST_SKIP() << "another test made a non-widget application in this process";
  }

  TemporaryDirectory home;
  ScopedEnvironmentVariable homeVariable{"HOME", home.path().string()};
  ScopedEnvironmentVariable data{"XDG_DATA_HOME", (home.path() / "data").string()};
  ScopedEnvironmentVariable config{"XDG_CONFIG_HOME", (home.path() / "config").string()};
  ScopedEnvironmentVariable cache{"XDG_CACHE_HOME", (home.path() / "cache").string()};
  ScopedEnvironmentVariable key{"DASHSCOPE_API_KEY", std::nullopt};
  QtMainLoop loop;
  ProjectStore store;
  PreferencesStore preferences;
  CloudCredentialStore credentials;
  std::vector<std::string> reported;

  static SettingsDevices devices() {
    return {[] {
              return std::vector<PulseAudioSourceInfo>{
                  {"alsa_output.monitor", "Monitor of Speakers", true, false},
                  {"alsa_input.usb-mic", "USB Microphone", false, true},
              };
            },
            [] {
              return std::vector<VideoDeviceDescription>{{"/dev/video0", "Integrated Camera", "usb-1"}};
            }};
  }

  std::unique_ptr<SettingsWindow> settings(SettingsDevices chosen = devices()) {
    return std::make_unique<SettingsWindow>(
        preferences, credentials, store, loop,
        [this](const std::exception& error) { reported.push_back(error.what()); }, std::move(chosen));
  }
};

TEST_F(SettingsWindowTest, PagesAreThereAndAChangeIsSavedAtOnce) {
  auto window = settings();
  EXPECT_EQ(window->windowTitle(), "Settings");
  QStringList tabs;
  for (int i = 0; i < window->pages()->count(); ++i) tabs << window->pages()->tabText(i);
  EXPECT_EQ(tabs, (QStringList{"Recording", "Shortcuts", "Cloud", "Export", "Diagnostics"}));

  QComboBox* microphone = named<QComboBox>(window.get(), "Microphone");
  ASSERT_NE(microphone, nullptr);
  QStringList microphones;
  for (int i = 0; i < microphone->count(); ++i) microphones << microphone->itemText(i);
  EXPECT_EQ(microphones, (QStringList{"Default microphone", "USB Microphone"})) << "a monitor is no microphone";

  named<QCheckBox>(window.get(), "Record camera")->setChecked(true);
  microphone->setCurrentIndex(1);
  named<QSpinBox>(window.get(), "Frames per second")->setValue(30);

  PreferencesStore again;
  const Preferences saved = again.load();
  EXPECT_TRUE(saved.recording.capturesWebcam);
  EXPECT_EQ(saved.recording.microphoneDeviceID, "alsa_input.usb-mic");
  EXPECT_EQ(saved.recording.framesPerSecond, 30);
  EXPECT_EQ(saved.startStopShortcut, "Ctrl+Shift+R");
  EXPECT_TRUE(reported.empty());
}

TEST_F(SettingsWindowTest, AChosenDeviceThatIsNotConnectedStaysChosenAndMissingListsAreSaid) {
  Preferences chosen = PreferencesStore::defaults();
  chosen.recording.webcamDeviceID = "/dev/video7";
  preferences.save(chosen);
  SettingsDevices none{[]() -> std::vector<PulseAudioSourceInfo> {
                         throw CaptureError(CaptureError::Case::audioServerUnavailable, "refused");
                       },
                       [] { return std::vector<VideoDeviceDescription>{}; }};
  auto window = settings(std::move(none));
  QComboBox* camera = named<QComboBox>(window.get(), "Camera");
  EXPECT_EQ(camera->currentText(), "/dev/video7 (not connected)");
  EXPECT_EQ(window->preferences().recording.webcamDeviceID, "/dev/video7");
  bool said = false;
  for (QLabel* label : window->findChildren<QLabel*>())
    said = said || label->text().contains(QString::fromStdString(
                       CaptureError(CaptureError::Case::audioServerUnavailable, "refused").what()));
  EXPECT_TRUE(said) << "the page says why there are no microphones";
  EXPECT_TRUE(reported.empty()) << "a missing device list is no failure to report";
}

TEST_F(SettingsWindowTest, TheShortcutsPageSaysWhatWorksOnThisDesktop) {
  struct Case {
    std::optional<std::string> wayland;
    std::optional<std::string> session;
    ShortcutReach reach;
  };
  const Case cases[] = {
      {std::nullopt, std::nullopt, ShortcutReach::x11KeyGrabs},
      {std::nullopt, "x11", ShortcutReach::x11KeyGrabs},
      {"wayland-0", std::nullopt, ShortcutReach::waylandPortal},
      {std::nullopt, "wayland", ShortcutReach::waylandPortal},
  };
  for (const auto& c : cases) {
    ScopedEnvironmentVariable wayland("WAYLAND_DISPLAY", c.wayland);
    ScopedEnvironmentVariable session("XDG_SESSION_TYPE", c.session);
    EXPECT_EQ(SettingsWindow::shortcutReachOfThisSession(), c.reach);
  }
  EXPECT_NE(SettingsWindow::shortcutReachText(ShortcutReach::waylandPortal).indexOf("only while Vumo has focus"), -1);
  EXPECT_NE(SettingsWindow::shortcutReachText(ShortcutReach::x11KeyGrabs).indexOf("work everywhere"), -1);

  auto window = settings();
  window->reportShortcutConflict("Ctrl+Shift+R is taken by another program.");
  EXPECT_EQ(window->shortcutStatus(), "Ctrl+Shift+R is taken by another program.");
}

TEST_F(SettingsWindowTest, TheBailianKeyIsStoredThroughTheCredentialStoreAndNeverShownWhole) {
  auto window = settings();
  EXPECT_EQ(window->cloudKeyText(), "No key is saved.");
  window->saveCloudKey("  sk-0123456789abcdef  ");
  EXPECT_EQ(credentials.loadBailianAPIKey(), "sk-0123456789abcdef");
  EXPECT_EQ(window->cloudKeyText(), "Saved key: ••••cdef");
  for (QWidget* widget : window->findChildren<QWidget*>())
    EXPECT_EQ(widget->property("text").toString().indexOf("0123456789"), -1) << "shown whole";

  window->saveCloudKey("sk-\nbroken");
  ASSERT_EQ(reported.size(), 1u);
  EXPECT_EQ(reported[0], CloudCredentialError(CloudCredentialError::Case::invalid).what());
  EXPECT_EQ(credentials.loadBailianAPIKey(), "sk-0123456789abcdef") << "a refused key changes nothing";

  window->removeCloudKey();
  EXPECT_EQ(window->cloudKeyText(), "No key is saved.");
  EXPECT_FALSE(fs::exists(credentials.filePath()));

  ScopedEnvironmentVariable environment("DASHSCOPE_API_KEY", "sk-fromtheenvironment");
  window->reload();
  EXPECT_EQ(window->cloudKeyText(), "Key from DASHSCOPE_API_KEY: ••••ment (it takes precedence over a saved key)");
}

TEST_F(SettingsWindowTest, DiagnosticsShowSystemInformationAndAProjectsReportAndCopyBoth) {
  CaptureSourceDescriptor source = project_testing::displaySource();
  source.title = "With report";
  auto created = store.createProject(source, RecordingOptions{}, {1920, 1080}, std::nullopt, std::nullopt);
  writeFileAtomically(created.package.mediaPath(), "placeholder");
  created.manifest.duration = ProjectTime::fromMilliseconds(2'000);
  const ProjectPackage package = store.finish(created.package, created.manifest);
  EXPECT_EQ(DiagnosticsPage::reportText(package.rootPath), "This project has no diagnostic report.");
  const std::string report = "{\n  \"droppedFrames\": 3\n}";
  fs::create_directories(package.diagnosticsDirectory());
  writeFileAtomically(package.reportPath(), report);
  EXPECT_EQ(DiagnosticsPage::reportText(package.rootPath), report);

  auto window = settings();
  window->pages()->setCurrentWidget(window->diagnostics());
  DiagnosticsPage& page = *window->diagnostics();
  const auto deadline = std::chrono::steady_clock::now() + 30s;
  while (!page.systemInformation().contains("protocolVersion") && std::chrono::steady_clock::now() < deadline)
    QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
  EXPECT_TRUE(page.systemInformation().contains("\"logicalCoreCount\"")) << page.systemInformation().toStdString();
  EXPECT_EQ(page.projectReport().toStdString(), report);

  page.copySupportReport();
  const std::string copied = QApplication::clipboard()->text().toStdString();
  EXPECT_EQ(copied, DiagnosticsPage::supportReport(page.systemInformation().toStdString(),
                                                   package.rootPath.filename().string(), report));
  EXPECT_EQ(copied.rfind("Vumo support report\n\nSystem information:\n{", 0), 0u) << copied;
  EXPECT_NE(copied.find("Diagnostic report of " + package.rootPath.filename().string() + ":\n{"), std::string::npos);
}

}  // namespace
}  // namespace vumo
