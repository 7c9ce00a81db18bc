#include "ui/main_window.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <atomic>
#include <chrono>
#include <fstream>
#include <thread>

#include "capture/capture_error.h"
#include "export/export_errors.h"
#include "project/project_fixtures.h"
#include "project/project_store.h"
#include "support/test_support.h"
#include "ui/export_dialog.h"
#include "ui/library_window.h"
#include "ui/preferences_store.h"
#include "ui/qt_main_loop.h"
#include "ui/user_messages.h"

namespace vumo {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::ScopedEnvironmentVariable;
using testing::TemporaryDirectory;

// Widgets without a display or a window manager.
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

void turnUntil(const std::function<bool()>& done, std::chrono::milliseconds limit = 10s) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done() && std::chrono::steady_clock::now() < deadline)
    QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
}

QPushButton* button(QWidget* root, const QString& text) {
  for (QPushButton* candidate : root->findChildren<QPushButton*>())
    if (candidate->text() == text) return candidate;
  return nullptr;
}

// A film written as the engine would: progress, then the file; or the failure it is told to give.
class FakeExporter final : public ProjectExporting {
 public:
  enum class Ending { film, failure, waitForCancel };
  explicit FakeExporter(Ending ending) : ending_(ending) {}

  ExportedFilm exportProject(const ProjectSnapshot&, const fs::path& target, const ProjectExportRequest& request,
                             std::function<void(const ProjectExportProgress&)> progress,
                             std::stop_token stop) override {
    lastRequest = request;
    progress({"preparing", 0, 0});
    progress({"rendering", 30, 60});
    if (ending_ == Ending::failure) throw ProjectExporterError(ProjectExporterError::Case::missingVideo, "");
    if (ending_ == Ending::waitForCancel) {
      while (!stop.stop_requested()) std::this_thread::sleep_for(5ms);
      throw CancelledError();
    }
    progress({"rendering", 60, 60});
    progress({"finalizing", 60, 60});
    std::ofstream(target) << "film";
    ExportedFilm film;
    film.outputPath = target;
    return film;
  }
  ProjectExportRequest lastRequest;

 private:
  Ending ending_;
};

class MainWindowTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!startWidgets()) GTEST_SKIP() << "another test made a non-widget application in this process";
  }

  TemporaryDirectory home;
  ScopedEnvironmentVariable homeVariable{"HOME", home.path().string()};
  ScopedEnvironmentVariable data{"XDG_DATA_HOME", (home.path() / "data").string()};
  ScopedEnvironmentVariable config{"XDG_CONFIG_HOME", (home.path() / "config").string()};
  ScopedEnvironmentVariable cache{"XDG_CACHE_HOME", (home.path() / "cache").string()};
  ScopedEnvironmentVariable runtime{"XDG_RUNTIME_DIR", home.path().string()};
  QtMainLoop loop;
  ProjectStore store;
  PreferencesStore preferences;
  ApplicationModel model;
  FakeExporter::Ending exportEnding = FakeExporter::Ending::film;
  std::vector<QString> shown;

  MainWindowParts parts() {
    MainWindowParts parts;
    parts.stills = [](const ProjectSnapshot&, ProjectTime, int, std::stop_token) { return std::string("png"); };
    parts.exporters = [this] { return std::make_shared<FakeExporter>(exportEnding); };
    return parts;
  }

  std::unique_ptr<MainWindow> window(MainWindowParts chosen) {
    auto made = std::make_unique<MainWindow>(model, store, preferences, loop, std::move(chosen));
    QObject::connect(made.get(), &MainWindow::messageShown, [this](const QString& text) { shown.push_back(text); });
    return made;
  }

  std::string finished(const std::string& title) {
    CaptureSourceDescriptor source = project_testing::displaySource();
    source.title = title;
    auto created = store.createProject(source, RecordingOptions{}, {1920, 1080}, std::nullopt, std::nullopt);
    writeFileAtomically(created.package.mediaPath(), "placeholder");
    created.manifest.duration = ProjectTime::fromMilliseconds(5'000);
    store.finish(created.package, created.manifest);
    return created.manifest.id.string();
  }
};

TEST_F(MainWindowTest, AFailureTheModelReportsIsShownOnceInTheBanner) {
  auto shell = window(parts());
  EXPECT_EQ(shell->windowTitle(), "Vumo");
  EXPECT_TRUE(shell->messageText().isEmpty());
  shell->show();
  model.fail(CaptureError(CaptureError::Case::displayUnavailable, ":99"));
  ASSERT_EQ(shown.size(), 1u);
  EXPECT_EQ(shown[0], "Unable to connect to the X display :99. Recording needs an X11 session (check DISPLAY).");
  EXPECT_EQ(shell->messageText(), shown[0]);
  QCoreApplication::processEvents();
  EXPECT_EQ(shown.size(), 1u) << "nothing shows it again";

  button(shell.get(), "Dismiss")->click();
  EXPECT_TRUE(shell->messageText().isEmpty());
}

TEST_F(MainWindowTest, AFailedStartReturnsToTheLibraryWithTheErrorShownOnce) {
  MainWindowParts chosen = parts();
  chosen.makeRecordingFlow = [](ApplicationModel& flowModel, ProjectStore&, QWidget*) {
    RecordingHooks hooks;
    hooks.start = [&flowModel] {
      flowModel.chooseSource();
      flowModel.beginCountdown();
      flowModel.fail(CaptureError(CaptureError::Case::displayUnavailable, ":99"));
    };
    return hooks;
  };
  auto shell = window(std::move(chosen));
  button(shell.get(), "Record")->click();
  EXPECT_EQ(model.phase(), ApplicationPhase::library);
  EXPECT_EQ(shown, std::vector<QString>{
                       "Unable to connect to the X display :99. Recording needs an X11 session (check DISPLAY)."});
}

TEST_F(MainWindowTest, WithoutARecordingFlowRecordSaysSoOnce) {
  auto shell = window(parts());
  button(shell.get(), "Record")->click();
  EXPECT_EQ(model.phase(), ApplicationPhase::library);
  EXPECT_EQ(shown, std::vector<QString>{"Recording is not available in this build of Vumo."});
}

TEST_F(MainWindowTest, AProjectOpensInTheEditorAndClosingReturnsToTheLibrary) {
  const std::string id = finished("Launch demo");
  auto shell = window(parts());
  ASSERT_EQ(shell->library().entries().size(), 1u);
  emit shell->library().openRequested(QString::fromStdString(id));
  EXPECT_EQ(model.phase(), ApplicationPhase::editing);
  ASSERT_NE(shell->editor(), nullptr);
  EXPECT_EQ(shell->windowTitle(), "Vumo Editor — Launch demo");

  button(shell->editor(), "Close")->click();
  EXPECT_EQ(model.phase(), ApplicationPhase::library);
  EXPECT_EQ(shell->editor(), nullptr);
  EXPECT_EQ(shell->windowTitle(), "Vumo");
  EXPECT_TRUE(shown.empty());
}

TEST_F(MainWindowTest, AProjectThatCannotBeOpenedLeavesTheLibraryShownWithItsErrorOnce) {
  const std::string id = finished("Broken");
  const ProjectPackage package = store.project(id);
  writeFileAtomically(package.timelinePath(), "{\"schemaVersion\": ");
  std::string expected;
  try {
    store.loadSnapshot(package);
  } catch (const std::exception& error) {
    expected = userMessageFor(error);
  }
  ASSERT_FALSE(expected.empty());

  auto shell = window(parts());
  emit shell->library().openRequested(QString::fromStdString(id));
  EXPECT_EQ(model.phase(), ApplicationPhase::library);
  EXPECT_EQ(shell->editor(), nullptr);
  EXPECT_EQ(shown, std::vector<QString>{QString::fromStdString(expected)});
}

TEST_F(MainWindowTest, ADamagedPreferencesFileIsSaidOnceAtStart) {
  fs::create_directories(home.path() / "config" / "Vumo");
  std::ofstream(home.path() / "config" / "Vumo" / "preferences.json") << "{";
  auto shell = window(parts());
  // Said while the window was made, before anyone could listen: the banner holds it.
  EXPECT_NE(shell->messageText().indexOf("the defaults are used"), -1) << shell->messageText().toStdString();
  EXPECT_TRUE(fs::exists(home.path() / "config" / "Vumo" / "preferences.json.bad"));
  shell->showSettings();
  EXPECT_TRUE(shown.empty()) << "the settings read the defaults without saying it again";
}

TEST_F(MainWindowTest, AnExportRunsWithProgressAndEndsInTheEditorWhateverHappens) {
  const std::string id = finished("Tour");
  struct Case {
    FakeExporter::Ending ending;
    std::vector<QString> messages;
    const char* status;
  };
  const Case cases[] = {
      {FakeExporter::Ending::film, {}, "Exported Tour.mp4."},
      {FakeExporter::Ending::failure, {"The project has no screen video track."}, "The export failed."},
      {FakeExporter::Ending::waitForCancel, {}, "The export was cancelled."},
  };
  auto shell = window(parts());
  emit shell->library().openRequested(QString::fromStdString(id));
  ASSERT_NE(shell->editor(), nullptr);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.status);
    shown.clear();
    exportEnding = c.ending;
    button(shell->editor(), "Export…")->click();
    ExportDialog& dialog = shell->exportDialog();
    EXPECT_EQ(dialog.windowTitle(), "Export");
    dialog.start();
    EXPECT_EQ(model.phase(), ApplicationPhase::exporting);
    EXPECT_TRUE(dialog.isRunning());
    if (c.ending == FakeExporter::Ending::waitForCancel) {
      turnUntil([&] { return dialog.progressBar()->value() == 500; });
      button(&dialog, "Cancel")->click();
    }
    turnUntil([&] { return !dialog.isRunning(); });
    EXPECT_EQ(model.phase(), ApplicationPhase::editing);
    EXPECT_EQ(shown, c.messages);
    EXPECT_EQ(dialog.statusText(), c.status);
    if (c.ending == FakeExporter::Ending::film) {
      EXPECT_EQ(dialog.exportedFilm(), home.path() / "data" / "Vumo" / "Exports" / "Tour.mp4");
      EXPECT_EQ(dialog.progressBar()->value(), 1000);
      EXPECT_TRUE(button(&dialog, "Show in Folder")->isEnabled());
    } else {
      EXPECT_FALSE(dialog.exportedFilm());
      EXPECT_FALSE(button(&dialog, "Show in Folder")->isEnabled());
    }
  }
  // A second film of the same project never replaces the first.
  exportEnding = FakeExporter::Ending::film;
  button(shell->editor(), "Export…")->click();
  shell->exportDialog().start();
  turnUntil([&] { return !shell->exportDialog().isRunning(); });
  EXPECT_EQ(shell->exportDialog().exportedFilm(), home.path() / "data" / "Vumo" / "Exports" / "Tour 2.mp4");
}

TEST_F(MainWindowTest, QuittingCancelsARunningExportAndWaitsForTheEditorsSaves) {
  const std::string id = finished("Tour");
  bool savesAsked = false;
  MainWindowParts chosen = parts();
  chosen.finishEditorSaves = [&](QWidget*, std::function<void()> done) {
    savesAsked = true;
    done();
  };
  auto shell = window(std::move(chosen));
  emit shell->library().openRequested(QString::fromStdString(id));
  exportEnding = FakeExporter::Ending::waitForCancel;
  shell->showExport();
  shell->exportDialog().start();
  ASSERT_TRUE(shell->exportDialog().isRunning());
  bool done = false;
  shell->prepareToQuit([&] { done = true; });
  turnUntil([&] { return done; });
  EXPECT_TRUE(done);
  EXPECT_FALSE(shell->exportDialog().isRunning());
  EXPECT_TRUE(savesAsked);
  EXPECT_EQ(shell->exportDialog().statusText(), "The export was cancelled.");
  EXPECT_TRUE(shown.empty());
}

TEST_F(MainWindowTest, QuittingFinishesARunningRecordingFirst) {
  bool finishing = false;
  MainWindowParts chosen = parts();
  chosen.makeRecordingFlow = [&](ApplicationModel& flowModel, ProjectStore&, QWidget*) {
    RecordingHooks hooks;
    hooks.start = [&flowModel] {
      flowModel.chooseSource();
      flowModel.beginCountdown();
      flowModel.recordingStarted();
    };
    hooks.stopAndFinish = [&] {
      finishing = true;
      flowModel.stopRecording();
      // The package is finished later, on the loop, as the real flow does.
      loop.schedule(50ms, [&flowModel] { flowModel.recordingDiscarded(); });
    };
    hooks.isRecording = [&flowModel] { return flowModel.phase() == ApplicationPhase::recording; };
    return hooks;
  };
  auto shell = window(std::move(chosen));
  shell->show();
  button(shell.get(), "Record")->click();
  ASSERT_EQ(model.phase(), ApplicationPhase::recording);
  EXPECT_FALSE(shell->isVisible()) << "the window is not in the film";
  bool done = false;
  shell->prepareToQuit([&] { done = true; });
  EXPECT_TRUE(finishing);
  EXPECT_FALSE(done) << "not before the package is finished";
  turnUntil([&] { return done; });
  EXPECT_TRUE(done);
  EXPECT_EQ(model.phase(), ApplicationPhase::library);
  EXPECT_TRUE(shell->isVisible()) << "back once the recording is done";
}

}  // namespace
}  // namespace vumo
