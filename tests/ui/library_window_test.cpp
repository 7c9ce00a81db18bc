#include "ui/library_window.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QBuffer>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QImage>
#include <QListWidget>
#include <QMimeData>
#include <QUrl>
#include <chrono>

#include "project/project_fixtures.h"
#include "project/project_store.h"
#include "support/test_support.h"
#include "ui/application_model.h"
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

std::string redPNG(int width) {
  QImage image(width, width * 9 / 16, QImage::Format_RGB32);
  image.fill(Qt::red);
  QByteArray bytes;
  QBuffer buffer(&bytes);
  buffer.open(QIODevice::WriteOnly);
  image.save(&buffer, "PNG");
  return bytes.toStdString();
}

class LibraryWindowTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!startWidgets()) GTEST_SKIP() << "another test made a non-widget application in this process";
  }

  TemporaryDirectory home;
  ScopedEnvironmentVariable homeVariable{"HOME", home.path().string()};
  ScopedEnvironmentVariable data{"XDG_DATA_HOME", (home.path() / "data").string()};
  ScopedEnvironmentVariable cache{"XDG_CACHE_HOME", (home.path() / "cache").string()};
  ScopedEnvironmentVariable runtime{"XDG_RUNTIME_DIR", home.path().string()};
  QtMainLoop loop;
  ProjectStore store;
  std::vector<std::string> messages;
  ApplicationModel model{{nullptr, [this](const std::string& message) { messages.push_back(message); }}};

  ProjectPackage finished(ProjectStore& into, const std::string& title, std::int64_t milliseconds) {
    CaptureSourceDescriptor source = project_testing::displaySource();
    source.title = title;
    auto created = into.createProject(source, RecordingOptions{}, {1920, 1080}, std::nullopt, std::nullopt);
    writeFileAtomically(created.package.mediaPath(), "placeholder");
    created.manifest.duration = ProjectTime::fromMilliseconds(milliseconds);
    return into.finish(created.package, created.manifest);
  }

  std::unique_ptr<LibraryWindow> library() {
    return std::make_unique<LibraryWindow>(
        model, store, loop,
        [](const ProjectSnapshot&, ProjectTime, int width, std::stop_token) { return redPNG(width); });
  }
};

TEST_F(LibraryWindowTest, EachProjectShowsItsThumbnailTitleDurationAndDate) {
  finished(store, "Launch demo", 83'400);
  auto window = library();
  QListWidget* list = window->projectList();
  ASSERT_EQ(list->count(), 1);
  QListWidgetItem* item = list->item(0);
  EXPECT_TRUE(item->text().startsWith("Launch demo\n1:23 · ")) << item->text().toStdString();
  EXPECT_EQ(item->data(Qt::AccessibleTextRole).toString(), "Launch demo");
  const auto deadline = std::chrono::steady_clock::now() + 20s;
  while (item->icon().isNull() && std::chrono::steady_clock::now() < deadline)
    QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
  ASSERT_FALSE(item->icon().isNull());
  EXPECT_EQ(item->icon().pixmap(64, 36).toImage().pixelColor(10, 10), QColor(Qt::red));
  EXPECT_FALSE(window->damagedList()->isVisibleTo(window.get()));
}

TEST_F(LibraryWindowTest, DroppedPackagesAreImportedAndWhatCannotBeIsSaidOnce) {
  TemporaryDirectory other;
  ProjectStore otherStore(other.path() / "Projects");
  const ProjectPackage dropped = finished(otherStore, "From the old laptop", 3'000);
  fs::create_directories(other.path() / "empty.vumo");
  auto window = library();
  ASSERT_EQ(window->projectList()->count(), 0);

  QMimeData mime;
  mime.setUrls({QUrl::fromLocalFile(QString::fromStdString(dropped.rootPath.string())),
                QUrl::fromLocalFile(QString::fromStdString((other.path() / "empty.vumo").string())),
                QUrl::fromLocalFile(QString::fromStdString((other.path() / "notes.txt").string()))});
  QDragEnterEvent enter(QPoint(10, 10), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
  QCoreApplication::sendEvent(window.get(), &enter);
  EXPECT_TRUE(enter.isAccepted());
  QDropEvent drop(QPointF(10, 10), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
  QCoreApplication::sendEvent(window.get(), &drop);

  ASSERT_EQ(window->projectList()->count(), 1);
  EXPECT_TRUE(window->projectList()->item(0)->text().startsWith("From the old laptop\n0:03"));
  EXPECT_EQ(messages, std::vector<std::string>{(other.path() / "empty.vumo").string() +
                                               " is not a Vumo project that can be imported."});
  EXPECT_EQ(model.phase(), ApplicationPhase::library);

  QMimeData text;
  text.setText("hello");
  QDragEnterEvent refused(QPoint(10, 10), Qt::CopyAction, &text, Qt::LeftButton, Qt::NoModifier);
  refused.setAccepted(false);
  QCoreApplication::sendEvent(window.get(), &refused);
  EXPECT_FALSE(refused.isAccepted());
}

TEST_F(LibraryWindowTest, DamagedPackagesAreListedWithTheirReasonAndDeletionGoesToTheTrash) {
  const ProjectPackage broken = finished(store, "Broken", 1'000);
  fs::remove(broken.mediaPath());
  const ProjectPackage kept = finished(store, "Kept", 1'000);
  auto window = library();
  ASSERT_EQ(window->damagedList()->count(), 1);
  EXPECT_EQ(window->damagedList()->item(0)->text().toStdString(),
            broken.rootPath.filename().string() + " — The recording's media file media/recording.mov is missing.");
  EXPECT_TRUE(window->damagedList()->isVisibleTo(window.get()));

  window->renameProject(window->entries().at(0).projectID, "Kept and renamed");
  EXPECT_TRUE(window->projectList()->item(0)->text().startsWith("Kept and renamed\n"));
  window->trashProject(window->entries().at(0).projectID);
  EXPECT_EQ(window->projectList()->count(), 0);
  EXPECT_TRUE(fs::exists(home.path() / "data" / "Trash" / "files" / kept.rootPath.filename()));
  EXPECT_TRUE(messages.empty());
}

}  // namespace
}  // namespace vumo
