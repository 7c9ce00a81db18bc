// The editor window driven as a person drives it: clicks and drags on the timeline at positions
// taken from its geometry, keys and buttons, with the sessions, the ordered saves and the watcher
// behind it all real. What is checked is what lands on disk, read back through the project store.

#include "ui/editor_window.h"

#include <gtest/gtest.h>

#include <QAbstractButton>
#include <QApplication>
#include <QCheckBox>
#include <QClipboard>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QImage>
#include <QImageReader>
#include <QLineEdit>
#include <QPushButton>
#include <QSpinBox>
#include <QTabWidget>
#include <QTest>
#include <QWheelEvent>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>

#include "captions/caption_document.h"
#include "cli/media_module_loader.h"
#include "editor/caption_editing_session.h"
#include "editor/timeline_editing_session.h"
#include "project/project_store.h"
#include "sample_project.h"
#include "shared/digest.h"
#include "shared/error.h"
#include "shared/files.h"
#include "support/test_support.h"
#include "ui/agent_panel.h"
#include "ui/background_import.h"
#include "ui/editor_player.h"
#include "ui/player_view.h"
#include "ui/qt_main_loop.h"
#include "ui/timeline_canvas.h"
#include "ui/timeline_canvas_thumbnails.h"

namespace vumo {
namespace {

using namespace std::chrono_literals;

// Turns Qt's loop until `done` or a generous limit: saves and the watcher answer on other threads.
bool turnUntil(const std::function<bool()>& done, std::chrono::seconds limit = 30s) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > end) return false;
    QApplication::processEvents(QEventLoop::AllEvents, 20);
    QTest::qWait(5);
  }
  return true;
}

// Turns the loop for a while, for things that must NOT happen.
void turnFor(std::chrono::milliseconds span) {
  const auto end = std::chrono::steady_clock::now() + span;
  while (std::chrono::steady_clock::now() < end) QTest::qWait(10);
}

class EditorWindowTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    // Private folders for everything Qt and the program may touch, before Qt starts.
    static testing::TemporaryDirectory home;
    for (const char* folder : {"config", "cache", "runtime"}) std::filesystem::create_directories(home.path() / folder);
    std::filesystem::permissions(home.path() / "runtime", std::filesystem::perms::owner_all);
    setenv("QT_QPA_PLATFORM", "offscreen", 1);
    setenv("HOME", home.path().c_str(), 1);
    setenv("XDG_CONFIG_HOME", (home.path() / "config").c_str(), 1);
    setenv("XDG_CACHE_HOME", (home.path() / "cache").c_str(), 1);
    setenv("XDG_RUNTIME_DIR", (home.path() / "runtime").c_str(), 1);
    static int argc = 1;
    static char name[] = "ui_tests";
    static char* argv[] = {name, nullptr};
    if (QCoreApplication::instance() == nullptr) new QApplication(argc, argv);
  }

  void SetUp() override {
    if (qobject_cast<QApplication*>(QCoreApplication::instance()) == nullptr)
      GTEST_SKIP() << "another test of this process started Qt without widgets";
    package = makeSampleProject(store);
    manifest = store.readManifest(package);
  }

  std::unique_ptr<EditorWindow> open(std::unique_ptr<EditorPlayer> player = nullptr) {
    auto snapshot = store.loadSnapshot(package);
    auto window = player ? std::make_unique<EditorWindow>(loop, store, std::move(snapshot), std::move(player))
                         : std::make_unique<EditorWindow>(loop, store, std::move(snapshot));
    window->resize(1280, 720);
    window->show();
    QApplication::setActiveWindow(window.get());
    EXPECT_TRUE(QTest::qWaitForWindowExposed(window.get()));
    return window;
  }

  EditTimeline onDisk() { return store.readTimeline(package, manifest.duration, manifest.webcam.has_value()); }

  // The disk holds what the window shows and no save is outstanding.
  bool diskFollows(const EditorWindow& window) {
    return window.outstandingSaves() == 0 && onDisk() == window.session().timeline();
  }

  // "Hello" over source [1 s, 2 s) and "World" over [4 s, 5 s), committed as an agent would.
  CaptionDocument commitCaptions() {
    CaptionDocument captions;
    captions.sourceAudioDigest = std::string(64, 'a');
    captions.basedOnTimelineDigest = store.timelineDigest(package);
    captions.cues = {
        {Uuid::random(), ProjectTime::fromMilliseconds(1'000), ProjectTime::fromMilliseconds(2'000), "Hello", {}, {}},
        {Uuid::random(), ProjectTime::fromMilliseconds(4'000), ProjectTime::fromMilliseconds(5'000), "World", {}, {}}};
    store.commitCaptions(captions, store.captionsDigest(package), store.timelineDigest(package), package);
    return captions;
  }

  std::vector<CaptionCue> cuesOnDisk() { return store.loadSnapshot(package).captions->cues; }

  static QPushButton* buttonNamed(QWidget& root, const QString& name) {
    for (auto* button : root.findChildren<QPushButton*>())
      if (button->accessibleName() == name) return button;
    ADD_FAILURE() << "no button " << name.toStdString();
    return nullptr;
  }

  testing::ScopedDataHome dataHome;
  ProjectStore store;
  ProjectPackage package;
  ProjectManifest manifest;
  QtMainLoop loop;
};

// The sample is a 12 s film in one clip: at zoom 1, second s lies at x = 16 + 60 s.
TEST_F(EditorWindowTest, SplitAtThePlayheadThenTrimAHandleThenUndoAndTheDiskFollows) {
  auto window = open();
  const EditTimeline original = window->session().timeline();
  ASSERT_EQ(original.segments.size(), 1u);
  TimelineCanvas& canvas = window->timelineCanvas();
  ASSERT_EQ(canvas.accessibleName(), "Timeline");
  const auto x = [&](std::int64_t milliseconds) {
    return static_cast<int>(TimelineCanvas::leftInset + milliseconds * TimelineCanvas::pixelsPerSecond / 1000);
  };
  const int rulerY = static_cast<int>(TimelineCanvasGeometry::ruler.top + 5);
  const int clipY = static_cast<int>(TimelineCanvasGeometry::clips.top + TimelineCanvasGeometry::clips.height / 2);

  // A click on the ruler at 6 s moves the playhead there; S splits there.
  QTest::mouseClick(&canvas, Qt::LeftButton, {}, QPoint(x(6'000), rulerY));
  EXPECT_EQ(window->player().currentTime(), ProjectTime::fromMilliseconds(6'000));
  QTest::keyClick(window.get(), Qt::Key_S);
  ASSERT_EQ(window->session().timeline().segments.size(), 2u);
  const TimelineSegment first = window->session().timeline().segments[0];
  EXPECT_EQ(first.sourceRange.end(), ProjectTime::fromMilliseconds(6'000));
  // A click straight after the split, before the views have caught up, hits the new clip.
  QTest::mouseClick(&canvas, Qt::LeftButton, {}, QPoint(x(8'000), clipY));
  EXPECT_EQ(window->session().selectedSegmentID(), window->session().timeline().segments[1].id);
  QTest::mouseClick(&canvas, Qt::LeftButton, {}, QPoint(x(6'000), rulerY));
  ASSERT_TRUE(turnUntil([&] { return diskFollows(*window); }));
  const EditTimeline afterSplit = onDisk();

  // The first clip's end handle, one pixel inside it, dragged a second to the left.
  const QPoint grab(x(6'000) - 1, clipY);
  QTest::mousePress(&canvas, Qt::LeftButton, {}, grab);
  for (int step = 1; step <= 6; ++step) QTest::mouseMove(&canvas, grab - QPoint(10 * step, 0));
  QTest::mouseRelease(&canvas, Qt::LeftButton, {}, grab - QPoint(60, 0));
  const auto& trimmed = window->session().timeline();
  ASSERT_EQ(trimmed.segments.size(), 2u);
  EXPECT_EQ(trimmed.segments[0].sourceRange.end(), ProjectTime::fromMilliseconds(5'000));
  EXPECT_EQ(trimmed.segments[1].sourceRange.start, ProjectTime::fromMilliseconds(6'000));
  EXPECT_EQ(window->session().undoCount(), 2u) << "the drag is one undo step";
  ASSERT_TRUE(turnUntil([&] { return diskFollows(*window); }));
  EXPECT_EQ(onDisk().segments[0].sourceRange.end(), ProjectTime::fromMilliseconds(5'000));

  // Ctrl+Z undoes the trim, the Undo button the split; each time the disk follows.
  QTest::keyClick(window.get(), Qt::Key_Z, Qt::ControlModifier);
  EXPECT_EQ(window->session().timeline(), afterSplit);
  ASSERT_TRUE(turnUntil([&] { return diskFollows(*window); }));
  EXPECT_EQ(onDisk(), afterSplit);
  QTest::mouseClick(buttonNamed(*window, "Undo"), Qt::LeftButton);
  EXPECT_EQ(window->session().timeline(), original);
  ASSERT_TRUE(turnUntil([&] { return diskFollows(*window); }));
  EXPECT_EQ(onDisk(), original);

  // And Ctrl+Shift+Z brings the split back.
  QTest::keyClick(window.get(), Qt::Key_Z, Qt::ControlModifier | Qt::ShiftModifier);
  EXPECT_EQ(window->session().timeline(), afterSplit);
  ASSERT_TRUE(turnUntil([&] { return diskFollows(*window); }));
  EXPECT_TRUE(window->messageText().isEmpty()) << window->messageText().toStdString();
}

TEST_F(EditorWindowTest, ArrowsStepOneFrameAndThePlainKeysBelongToTheTimeline) {
  auto window = open();
  QTest::keyClick(window.get(), Qt::Key_Right);
  QTest::keyClick(window.get(), Qt::Key_Right);
  EXPECT_EQ(window->player().currentTime(), ProjectTime{33'333'333});
  QTest::keyClick(window.get(), Qt::Key_Left);
  EXPECT_EQ(window->player().currentTime(), ProjectTime{16'666'666});
  QTest::keyClick(window.get(), Qt::Key_Left);
  QTest::keyClick(window.get(), Qt::Key_Left);
  EXPECT_EQ(window->player().currentTime(), ProjectTime{0}) << "never before the start";

  // Space plays and pauses, where the preview engine runs on this machine; the button follows.
  if (!window->player().errorText()) {
    QTest::keyClick(window.get(), Qt::Key_Space);
    EXPECT_TRUE(window->player().isPlaying());
    EXPECT_NE(buttonNamed(*window, "Pause"), nullptr);
    QTest::keyClick(window.get(), Qt::Key_Space);
    EXPECT_FALSE(window->player().isPlaying());
    EXPECT_NE(buttonNamed(*window, "Play"), nullptr);
  }

  // In an inspector the keys are the control's own: Space ticks the box that has the focus.
  auto* tabs = window->findChild<QTabWidget*>();
  ASSERT_NE(tabs, nullptr);
  for (int i = 0; i < tabs->count(); ++i)
    if (tabs->tabText(i) == "Cursor") tabs->setCurrentIndex(i);
  QCheckBox* shown = nullptr;
  for (auto* box : window->findChildren<QCheckBox*>())
    if (box->accessibleName() == "Show cursor") shown = box;
  ASSERT_NE(shown, nullptr);
  shown->setFocus();
  ASSERT_TRUE(turnUntil([&] { return shown->hasFocus(); }));
  QTest::keyClick(shown, Qt::Key_Space);
  EXPECT_FALSE(window->player().isPlaying());
  EXPECT_FALSE(window->session().timeline().cursor.isVisible);
  EXPECT_EQ(window->session().undoCount(), 1u);
}

TEST_F(EditorWindowTest, HoverOverTheTimelineSkimsAndLeavingReturnsToThePlayhead) {
  auto window = open();
  TimelineCanvas& canvas = window->timelineCanvas();
  const int clipY = static_cast<int>(TimelineCanvasGeometry::clips.top + 10);
  QTest::mouseMove(&canvas, QPoint(TimelineCanvas::leftInset + 180, clipY));  // 3 s
  EXPECT_EQ(window->player().skimTime(), ProjectTime::fromMilliseconds(3'000));
  EXPECT_EQ(window->player().currentTime(), ProjectTime{0});
  QEvent leave(QEvent::Leave);
  QApplication::sendEvent(&canvas, &leave);
  EXPECT_EQ(window->player().skimTime(), std::nullopt);
  EXPECT_EQ(window->player().currentTime(), ProjectTime{0});
  EXPECT_EQ(window->session().undoCount(), 0u);
}

// Off the main thread, through the media engine: the envelope from the waveform cache, and a
// picture for each thumbnail's width of the 12 s film (96 px at 60 px a second: 1.6 s apart).
TEST_F(EditorWindowTest, TheWaveformAndThumbnailLanesFillFromTheMediaEngine) {
  auto window = open();
  EXPECT_TRUE(turnUntil([&] { return window->timelineCanvas().hasWaveform(); }, 60s));
  const auto* thumbnails = window->timelineCanvas().thumbnails();
  ASSERT_NE(thumbnails, nullptr);
  ASSERT_TRUE(turnUntil([&] { return thumbnails->thumbnails().size() == 8; }, 120s))
      << thumbnails->thumbnails().size() << " thumbnails";
  EXPECT_EQ(thumbnails->thumbnails()[1].sequenceTime, ProjectTime{1'600'000'000});
  EXPECT_EQ(thumbnails->thumbnails()[0].image.width(), TimelineCanvasThumbnails::thumbnailWidth);
}

TEST_F(EditorWindowTest, CtrlWheelZoomsTheTimelineAroundThePointer) {
  auto window = open();
  TimelineCanvas& canvas = window->timelineCanvas();
  const QPointF at(TimelineCanvas::leftInset + 120, TimelineCanvasGeometry::clips.top + 10);  // 2 s
  QWheelEvent zoomIn(at, canvas.mapToGlobal(at), QPoint(), QPoint(0, 120), Qt::NoButton, Qt::ControlModifier,
                     Qt::NoScrollPhase, false);
  QApplication::sendEvent(&canvas, &zoomIn);
  EXPECT_DOUBLE_EQ(canvas.geometry().zoom(), 1.25);
  EXPECT_NEAR(canvas.geometry().xForSequenceTime(ProjectTime::fromMilliseconds(2'000)), at.x(), 1e-9);
  QWheelEvent scroll(at, canvas.mapToGlobal(at), QPoint(), QPoint(0, -120), Qt::NoButton, Qt::NoModifier,
                     Qt::NoScrollPhase, false);
  QApplication::sendEvent(&canvas, &scroll);
  EXPECT_DOUBLE_EQ(canvas.geometry().zoom(), 1.25) << "a plain wheel scrolls";
}

// Captions have their own history; a cue dragged on the caption lane is one step of it, saved, and
// the latest step of either history is the one Ctrl+Z takes back.
TEST_F(EditorWindowTest, ACueDraggedOnTheCaptionLaneIsOneStepOfItsOwnHistory) {
  const CaptionDocument captions = commitCaptions();
  auto window = open();
  ASSERT_NE(window->captionSession(), nullptr);

  TimelineCanvas& canvas = window->timelineCanvas();
  const int cueY = static_cast<int>(TimelineCanvasGeometry::captions.top + TimelineCanvasGeometry::captions.height / 2);
  const QPoint grab(TimelineCanvas::leftInset + 90, cueY);  // 1.5 s, inside "Hello"
  QTest::mousePress(&canvas, Qt::LeftButton, {}, grab);
  for (int step = 1; step <= 3; ++step) QTest::mouseMove(&canvas, grab + QPoint(10 * step, 0));
  QTest::mouseRelease(&canvas, Qt::LeftButton, {}, grab + QPoint(30, 0));
  const auto& moved = window->captionSession()->document().cues;
  EXPECT_EQ(moved[0].start, ProjectTime::fromMilliseconds(1'500));
  EXPECT_EQ(moved[0].end, ProjectTime::fromMilliseconds(2'500));
  EXPECT_EQ(window->captionSession()->undoCount(), 1u);
  EXPECT_EQ(window->session().undoCount(), 0u);
  ASSERT_TRUE(turnUntil([&] { return window->outstandingSaves() == 0 && cuesOnDisk() == moved; }));

  QTest::keyClick(window.get(), Qt::Key_Z, Qt::ControlModifier);
  EXPECT_EQ(window->captionSession()->document().cues, captions.cues);
  ASSERT_TRUE(turnUntil([&] { return cuesOnDisk() == captions.cues; }));
}

TEST_F(EditorWindowTest, AnAgentsCommitIsOneUndoStepAndUndoWritesTheEarlierTimelineBack) {
  auto window = open();
  const EditTimeline before = window->session().timeline();
  turnFor(300ms);  // the watcher settles

  // What `vumo cli set ... --apply --expect <digest>` does, from outside the window's sessions.
  EditTimeline external = before;
  external.canvas.padding = 0.12;
  external.segments[0].sourceRange.duration = ProjectTime::fromMilliseconds(9'000);
  store.commitTimeline(external, store.timelineDigest(package), std::nullopt, package);

  ASSERT_TRUE(turnUntil([&] { return window->session().timeline() == external; }));
  EXPECT_EQ(window->messageText(), "External edits loaded. Press Ctrl+Z to undo.");
  EXPECT_EQ(window->session().undoCount(), 1u);
  turnFor(300ms);  // nothing more arrives, and the editor does not write the agent's file again
  EXPECT_EQ(window->session().undoCount(), 1u);
  EXPECT_EQ(onDisk(), external);

  QTest::keyClick(window.get(), Qt::Key_Z, Qt::ControlModifier);
  EXPECT_EQ(window->session().timeline(), before);
  ASSERT_TRUE(turnUntil([&] { return diskFollows(*window); }));
  EXPECT_EQ(onDisk(), before);
  EXPECT_EQ(window->session().undoCount(), 0u);
  EXPECT_TRUE(window->messageText().isEmpty()) << window->messageText().toStdString();
}

TEST_F(EditorWindowTest, TheCaptionInspectorEditsTheSelectedCueAndAddsOneAtThePlayhead) {
  commitCaptions();
  auto window = open();
  auto* tabs = window->findChild<QTabWidget*>();
  for (int i = 0; i < tabs->count(); ++i)
    if (tabs->tabText(i) == "Captions") tabs->setCurrentIndex(i);
  QLineEdit* field = nullptr;
  for (auto* edit : window->findChildren<QLineEdit*>())
    if (edit->accessibleName() == "Caption text") field = edit;
  ASSERT_NE(field, nullptr);

  // A click on "World" (source 4...5 s plays at 4...5 s) selects it and fills the field.
  const int cueY = static_cast<int>(TimelineCanvasGeometry::captions.top + 8);
  QTest::mouseClick(&window->timelineCanvas(), Qt::LeftButton, {}, QPoint(TimelineCanvas::leftInset + 270, cueY));
  ASSERT_TRUE(turnUntil([&] { return field->text() == "World"; }));
  field->setFocus();
  field->selectAll();
  QTest::keyClicks(field, "Earth");
  QTest::keyClick(field, Qt::Key_Return);
  EXPECT_EQ(window->captionSession()->document().cues[1].text, "Earth");
  EXPECT_EQ(window->captionSession()->document().cues[0].text, "Hello");
  EXPECT_EQ(window->captionSession()->undoCount(), 1u);
  ASSERT_TRUE(turnUntil([&] { return window->outstandingSaves() == 0 && cuesOnDisk()[1].text == "Earth"; }));

  // At the playhead (6 s), two seconds long, selected, with the field ready for its words.
  QTest::mouseClick(&window->timelineCanvas(), Qt::LeftButton, {},
                    QPoint(TimelineCanvas::leftInset + 360, static_cast<int>(TimelineCanvasGeometry::ruler.top + 5)));
  QTest::mouseClick(buttonNamed(*window, "Add Caption"), Qt::LeftButton);
  const auto& cues = window->captionSession()->document().cues;
  ASSERT_EQ(cues.size(), 3u);
  EXPECT_EQ(cues[2].start, ProjectTime::fromMilliseconds(6'000));
  EXPECT_EQ(cues[2].end, ProjectTime::fromMilliseconds(8'000));
  EXPECT_EQ(window->captionSession()->selectedCueID(), cues[2].id);
  EXPECT_TRUE(field->hasFocus());
  QTest::keyClicks(field, "Third");
  QTest::keyClick(field, Qt::Key_Return);
  EXPECT_EQ(window->captionSession()->document().cues[2].text, "Third");
  ASSERT_TRUE(turnUntil([&] { return window->outstandingSaves() == 0 && cuesOnDisk().size() == 3; }));
  EXPECT_EQ(window->session().undoCount(), 0u) << "captions keep their own history";
}

TEST_F(EditorWindowTest, AZoomDraggedOnItsLaneMovesAsOneUndoStep) {
  auto window = open();
  const EditTimeline before = window->session().timeline();
  ASSERT_FALSE(before.zooms.empty());
  const ZoomSegment zoom = before.zooms.front();
  const TimelineCanvasItem* piece = nullptr;
  for (const auto& item : window->timelineCanvas().layout().items)
    if (item.id == zoom.id) piece = &item;
  ASSERT_NE(piece, nullptr);
  const TimelineCanvasGeometry& geometry = window->timelineCanvas().geometry();
  const double middle =
      (geometry.xForSequenceTime(piece->sequenceRange.start) + geometry.xForSequenceTime(piece->sequenceRange.end())) /
      2;
  const QPoint grab(static_cast<int>(middle),
                    static_cast<int>(TimelineCanvasGeometry::zooms.top + TimelineCanvasGeometry::zooms.height / 2));

  TimelineCanvas& canvas = window->timelineCanvas();
  QTest::mousePress(&canvas, Qt::LeftButton, {}, grab);
  for (int step = 1; step <= 3; ++step) QTest::mouseMove(&canvas, grab + QPoint(10 * step, 0));
  QTest::mouseRelease(&canvas, Qt::LeftButton, {}, grab + QPoint(30, 0));
  const ZoomSegment& moved = window->session().timeline().zooms.front();
  EXPECT_EQ(moved.id, zoom.id);
  EXPECT_EQ(moved.startTime - zoom.startTime, ProjectTime::fromMilliseconds(500)) << "30 px at 60 px a second";
  EXPECT_EQ(moved.endTime - moved.startTime, zoom.endTime - zoom.startTime);
  EXPECT_EQ(window->session().selectedZoomID(), zoom.id);
  EXPECT_EQ(window->session().undoCount(), 1u);
  ASSERT_TRUE(turnUntil([&] { return diskFollows(*window); }));
}

// Every inspector edits through the session: one undo step each, saved, and undone by Undo.
TEST_F(EditorWindowTest, InspectorEditsAreUndoableStepsThatReachTheDisk) {
  auto window = open();
  const auto control = [&](const QString& name) {
    for (auto* widget : window->findChildren<QWidget*>())
      if (widget->accessibleName() == name) return widget;
    ADD_FAILURE() << "no control " << name.toStdString();
    return static_cast<QWidget*>(nullptr);
  };
  struct Case {
    const char* what;
    std::function<void()> act;
    std::function<bool(const EditTimeline&)> changed;
  };
  const std::vector<Case> cases{
      {"speed",
       [&] {
         // The clip is selected from the timeline, then its speed set.
         QTest::mouseClick(
             &window->timelineCanvas(), Qt::LeftButton, {},
             QPoint(TimelineCanvas::leftInset + 100, static_cast<int>(TimelineCanvasGeometry::clips.top + 10)));
         qobject_cast<QDoubleSpinBox*>(control("Speed"))->setValue(2);
       },
       [](const EditTimeline& t) { return t.segments[0].playbackRate.permille == 2000; }},
      {"padding", [&] { qobject_cast<QDoubleSpinBox*>(control("Padding"))->setValue(0.1); },
       [](const EditTimeline& t) { return t.canvas.padding == 0.1; }},
      {"corner radius", [&] { qobject_cast<QDoubleSpinBox*>(control("Corner radius"))->setValue(0.05); },
       [](const EditTimeline& t) { return t.canvas.cornerRadius == 0.05; }},
      {"aspect ratio", [&] { QTest::keyClick(control("Aspect ratio"), Qt::Key_Down); },
       [](const EditTimeline& t) { return t.canvas.aspectRatio != CanvasEdit{}.aspectRatio; }},
      {"cursor shown", [&] { qobject_cast<QCheckBox*>(control("Show cursor"))->click(); },
       [](const EditTimeline& t) { return !t.cursor.isVisible; }},
      {"cursor size", [&] { qobject_cast<QDoubleSpinBox*>(control("Size"))->setValue(2); },
       [](const EditTimeline& t) { return t.cursor.scale == 2; }},
      {"annotation", [&] { QTest::mouseClick(qobject_cast<QPushButton*>(control("Add Annotation")), Qt::LeftButton); },
       [](const EditTimeline& t) { return t.annotations.size() == 1; }},
      {"zoom",
       [&] {
         // At 10 s, after the recording's own zooms.
         QTest::mouseClick(
             &window->timelineCanvas(), Qt::LeftButton, {},
             QPoint(TimelineCanvas::leftInset + 600, static_cast<int>(TimelineCanvasGeometry::ruler.top)));
         QTest::mouseClick(qobject_cast<QPushButton*>(control("Add Zoom at Playhead")), Qt::LeftButton);
       },
       [&](const EditTimeline& t) { return t.zooms.size() == window->snapshot().timeline.zooms.size() + 1; }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const EditTimeline before = window->session().timeline();
    c.act();
    EXPECT_TRUE(c.changed(window->session().timeline()));
    EXPECT_EQ(window->session().undoCount(), 1u);
    ASSERT_TRUE(turnUntil([&] { return diskFollows(*window); }));
    EXPECT_TRUE(c.changed(onDisk()));
    window->undo();
    EXPECT_EQ(window->session().timeline(), before);
    ASSERT_TRUE(turnUntil([&] { return diskFollows(*window); }));
    turnFor(50ms);  // the inspectors show the undone state again before the next edit
  }
}

// The controls that set the device frame, the cursor's click effect, an annotation's place and
// look and the captions' style: each is one undo step of its history, saved, and Undo takes it
// back. Some need something first (a frame to fill, an annotation to restyle), made through the
// inspectors too.
TEST_F(EditorWindowTest, EveryStyleControlOfTheInspectorsIsOneUndoStepThatReachesTheDisk) {
  commitCaptions();
  auto window = open();
  const auto control = [&](const QString& name) {
    for (auto* widget : window->findChildren<QWidget*>())
      if (widget->accessibleName() == name) return widget;
    ADD_FAILURE() << "no control " << name.toStdString();
    return static_cast<QWidget*>(nullptr);
  };
  const auto spinTo = [&](const char* name, double value) {
    return [&control, name, value] { qobject_cast<QDoubleSpinBox*>(control(name))->setValue(value); };
  };
  const auto keyOn = [&](const char* name, Qt::Key key) {
    return [&control, name, key] { QTest::keyClick(control(name), key); };
  };
  const auto click = [&](const char* name) {
    return [&control, name] { qobject_cast<QAbstractButton*>(control(name))->click(); };
  };
  const auto addAnnotation = [&](AnnotationKind kind) {
    return [&control, kind] {
      auto* tool = qobject_cast<QComboBox*>(control("Kind"));
      tool->setCurrentIndex(tool->findData(QString::fromStdString(std::string(nameOf(kind)))));
      emit tool->activated(tool->currentIndex());
      QTest::mouseClick(qobject_cast<QPushButton*>(control("Add Annotation")), Qt::LeftButton);
    };
  };
  const auto selected = [&](const EditTimeline& t) -> const AnnotationElement* {
    for (const auto& annotation : t.annotations)
      if (annotation.id == window->session().selectedAnnotationID()) return &annotation;
    return nullptr;
  };
  const auto style = [&] { return store.loadSnapshot(package).captions->style; };

  struct Case {
    const char* what;
    std::function<void()> prepare;
    std::function<void()> act;
    std::function<bool(const EditTimeline&)> changed;  // none: a caption style case
    std::function<bool(const CaptionStyle&)> styled = {};
  };
  const std::vector<Case> cases{
      {"device frame",
       {},
       keyOn("Device frame", Qt::Key_Down),
       [](const EditTimeline& t) {
         return t.deviceFrame == DeviceFrameEdit{true, "vumo-display-black", DeviceFrameContentMode::fit};
       }},
      {"content mode", keyOn("Device frame", Qt::Key_Down), keyOn("Content mode", Qt::Key_Down),
       [](const EditTimeline& t) {
         return t.deviceFrame && t.deviceFrame->contentMode == DeviceFrameContentMode::fill;
       }},
      {"no device frame",
       {},
       keyOn("Device frame", Qt::Key_Up),
       [](const EditTimeline& t) { return !t.deviceFrame.has_value(); }},
      {"click effect",
       {},
       keyOn("Click effect", Qt::Key_Down),
       [](const EditTimeline& t) { return t.cursor.clickEffectStyle == ClickEffectStyle::ringAndPress; }},
      {"clicks shown", {}, click("Show clicks"), [](const EditTimeline& t) { return !t.cursor.showsClickEffect; }},
      {"annotation left", addAnnotation(AnnotationKind::rectangle), spinTo("Left", 0.5),
       [&](const EditTimeline& t) {
         return selected(t) && selected(t)->bounds == RectValue{0.5, 0.35, 0.3, 0.3};
       }},
      {"annotation height",
       {},
       spinTo("Height", 0.2),
       [&](const EditTimeline& t) { return selected(t) && selected(t)->bounds->height == 0.2; }},
      {"line width",
       {},
       spinTo("Line width", 0.012),
       [&](const EditTimeline& t) { return selected(t) && selected(t)->lineWidth == 0.012; }},
      {"annotation corner radius",
       {},
       spinTo("Annotation corner radius", 0.25),
       [&](const EditTimeline& t) { return selected(t) && selected(t)->cornerRadius == 0.25; }},
      {"filled", {}, click("Filled"), [&](const EditTimeline& t) { return selected(t) && selected(t)->isFilled; }},
      {"dim outside",
       {},
       click("Dim outside"),
       [&](const EditTimeline& t) { return selected(t) && selected(t)->dimsOutside; }},
      {"aspect ratio kept",
       {},
       click("Keep aspect ratio"),
       [&](const EditTimeline& t) { return selected(t) && selected(t)->locksAspectRatio; }},
      {"annotation colour",
       {},
       [&] {
         auto* field = qobject_cast<QLineEdit*>(control("Annotation colour"));
         field->setFocus();
         field->selectAll();
         QTest::keyClicks(field, "#0000ff");
         QTest::keyClick(field, Qt::Key_Return);
         field->clearFocus();  // so that the field shows the undone colour again
       },
       [&](const EditTimeline& t) {
         return selected(t) && selected(t)->color == CanvasColorValue{0, 0, 1};
       }},
      // An arrow's box: its points move with it and it keeps pointing down and to the right.
      {"arrow width", addAnnotation(AnnotationKind::arrow), spinTo("Width", 0.1),
       [&](const EditTimeline& t) {
         const auto near = [](std::optional<PointValue> p, PointValue q) {
           return p && std::abs(p->x - q.x) < 1e-9 && std::abs(p->y - q.y) < 1e-9;
         };
         return selected(t) && near(selected(t)->startPoint, {0.35, 0.35}) && near(selected(t)->endPoint, {0.45, 0.65});
       }},
      {"font size", addAnnotation(AnnotationKind::text), spinTo("Font size", 96),
       [&](const EditTimeline& t) { return selected(t) && selected(t)->textStyle->fontSize == 96; }},
      {"outline",
       {},
       click("Outline"),
       [&](const EditTimeline& t) { return selected(t) && selected(t)->textStyle->hasOutline; }},
      {"outline colour",
       {},
       keyOn("Outline colour", Qt::Key_Down),
       [&](const EditTimeline& t) {
         return selected(t) && selected(t)->textStyle->outlineColor == TextAnnotationOutlineColor::white;
       }},
      {"captions shown", {}, click("Show captions"), {}, [](const CaptionStyle& s) { return !s.isEnabled; }},
      {"caption lines",
       {},
       [&] { qobject_cast<QSpinBox*>(control("Lines"))->setValue(1); },
       {},
       [](const CaptionStyle& s) { return s.maximumLines == 1; }},
      {"caption look",
       {},
       keyOn("Caption look", Qt::Key_Down),
       {},
       [](const CaptionStyle& s) { return s.appearance == CaptionAppearance::whiteWithBlackOutline; }},
      {"caption size", {}, spinTo("Text size", 0.8), {}, [](const CaptionStyle& s) { return s.fontScale == 0.8; }},
      {"caption place",
       {},
       spinTo("Distance from bottom", 0.25),
       {},
       [](const CaptionStyle& s) { return s.bottomPosition == 0.25; }},
  };
  // The annotation tab in front, where the colour field can take the focus.
  auto* tabs = window->findChild<QTabWidget*>();
  for (int i = 0; i < tabs->count(); ++i)
    if (tabs->tabText(i) == "Annotations") tabs->setCurrentIndex(i);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    if (c.prepare) c.prepare();
    ASSERT_TRUE(turnUntil([&] { return diskFollows(*window) && window->outstandingSaves() == 0; }));
    turnFor(50ms);  // the inspectors show the prepared state
    const EditTimeline before = window->session().timeline();
    const std::size_t steps = window->session().undoCount();
    const CaptionDocument captionsBefore = window->captionSession()->document();
    const std::size_t captionSteps = window->captionSession()->undoCount();
    c.act();
    if (c.changed) {
      EXPECT_TRUE(c.changed(window->session().timeline())) << window->messageText().toStdString();
      EXPECT_EQ(window->session().undoCount(), steps + 1);
      ASSERT_TRUE(turnUntil([&] { return diskFollows(*window); }));
      EXPECT_TRUE(c.changed(onDisk()));
    } else {
      EXPECT_TRUE(c.styled(window->captionSession()->document().style)) << window->messageText().toStdString();
      EXPECT_EQ(window->captionSession()->undoCount(), captionSteps + 1);
      EXPECT_EQ(window->session().timeline(), before);
      ASSERT_TRUE(turnUntil([&] { return window->outstandingSaves() == 0 && c.styled(style()); }));
    }
    window->undo();
    EXPECT_EQ(window->session().timeline(), before);
    EXPECT_EQ(window->captionSession()->document(), captionsBefore);
    ASSERT_TRUE(turnUntil([&] { return diskFollows(*window); }));
    ASSERT_TRUE(turnUntil([&] { return style() == captionsBefore.style; }));
    turnFor(50ms);  // the inspectors show the undone state again before the next edit
  }

  // A place outside the frame is refused: nothing changes, nothing is saved, and the window says why.
  const EditTimeline before = window->session().timeline();
  const std::size_t steps = window->session().undoCount();
  qobject_cast<QDoubleSpinBox*>(control("Left"))->setValue(0.9);
  EXPECT_EQ(window->session().timeline(), before);
  EXPECT_EQ(window->session().undoCount(), steps);
  ASSERT_TRUE(turnUntil([&] { return !window->messageText().isEmpty(); }));
  EXPECT_EQ(window->messageText().toStdString(), "Annotation timing, geometry, or styling is invalid.");
  EXPECT_EQ(onDisk(), before);
}

// A movie chosen as wallpaper is stored as it is, under the digest of its bytes, with the size and
// length the media engine reads from it; a picture stays a picture, and a file that is neither is
// refused before anything is written.
TEST_F(EditorWindowTest, AnImportedVideoWallpaperIsStoredWithItsSizeAndLength) {
  testing::TemporaryDirectory folder;
  const auto movie = folder.path() / "wallpaper.mp4";
  std::filesystem::copy_file(package.mediaPath(), movie);

  const CanvasBackgroundImage video = importCanvasBackgroundVideo(store, package, movie, MediaModuleLoader::load());
  EXPECT_EQ(video.mediaKind, CanvasBackgroundMediaKind::video);
  EXPECT_EQ(video.pixelSize, (PixelSize{640, 360}));
  ASSERT_TRUE(video.duration.has_value());
  EXPECT_NEAR(*video.duration, 12.0, 0.05);
  EXPECT_EQ(video.relativePath, "assets/backgrounds/" + video.id + ".mov");
  EXPECT_EQ(video.source, CanvasBackgroundImageSource::uploaded);
  EXPECT_EQ(readFile(package.rootPath / video.relativePath, 1 << 26), readFile(movie, 1 << 26));
  EXPECT_EQ(sha256Hex(readFile(movie, 1 << 26)), video.id);
  EXPECT_EQ(importCanvasBackground(store, package, movie), video) << "told apart by content";

  // Through the canvas inspector: the wallpaper is one undo step, saved; the snapshot loads it.
  auto window = open();
  window->importWallpaper(movie);
  EXPECT_EQ(window->session().timeline().canvas.image, video);
  EXPECT_EQ(window->session().undoCount(), 1u);
  ASSERT_TRUE(turnUntil([&] { return diskFollows(*window); }));
  EXPECT_EQ(store.loadSnapshot(package).timeline.canvas.image, video);
  window->undo();
  ASSERT_TRUE(turnUntil([&] { return diskFollows(*window); }));
  EXPECT_EQ(onDisk().canvas.image, std::nullopt);
  window->importWallpaper(folder.path() / "missing.mp4");
  EXPECT_FALSE(window->messageText().isEmpty());
  EXPECT_EQ(window->session().undoCount(), 0u);

  QImage picture(64, 48, QImage::Format_RGB32);
  picture.fill(Qt::blue);
  const auto png = folder.path() / "still.mov";  // a picture, whatever its name says
  ASSERT_TRUE(picture.save(QString::fromStdString(png.string()), "PNG"));
  const CanvasBackgroundImage still = importCanvasBackground(store, package, png);
  EXPECT_EQ(still.mediaKind, CanvasBackgroundMediaKind::image);
  EXPECT_EQ(still.pixelSize, (PixelSize{64, 48}));

  const auto text = folder.path() / "notes.mp4";
  writeFileAtomically(text, std::string(4096, 'x'));
  for (const auto& hostile : {text, folder.path(), folder.path() / "missing.mp4"}) {
    SCOPED_TRACE(hostile.string());
    EXPECT_THROW(importCanvasBackground(store, package, hostile), FileError);
    EXPECT_THROW(importCanvasBackgroundVideo(store, package, hostile, MediaModuleLoader::load()), FileError);
  }
  std::size_t files = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(package.canvasBackgroundsDirectory()))
    ++files;
  EXPECT_EQ(files, 2u);
}

// A chosen picture lands in the package as JPEG under the digest of its bytes, and a timeline that
// names it loads with it; anything that is not a picture is refused before anything is written.
TEST_F(EditorWindowTest, AnImportedWallpaperIsStoredInThePackageAndLoadsWithTheTimeline) {
  testing::TemporaryDirectory folder;
  QImage picture(320, 200, QImage::Format_RGB32);
  picture.fill(QColor(200, 30, 30));
  const auto png = folder.path() / "wallpaper.png";
  ASSERT_TRUE(picture.save(QString::fromStdString(png.string()), "PNG"));

  const CanvasBackgroundImage image = importCanvasBackgroundImage(store, package, png);
  EXPECT_EQ(image.pixelSize, (PixelSize{320, 200}));
  EXPECT_EQ(image.relativePath, "assets/backgrounds/" + image.id + ".jpg");
  EXPECT_EQ(image.mediaKind, CanvasBackgroundMediaKind::image);
  EXPECT_EQ(image.source, CanvasBackgroundImageSource::uploaded);
  const auto stored = package.rootPath / image.relativePath;
  EXPECT_EQ(sha256Hex(readFile(stored, 1 << 24)), image.id);
  QImageReader reader(QString::fromStdString(stored.string()));
  EXPECT_EQ(reader.format(), "jpeg");
  EXPECT_EQ(reader.size(), QSize(320, 200));

  EditTimeline timeline = store.loadSnapshot(package).timeline;
  timeline.canvas.image = image;
  store.commitTimeline(timeline, store.timelineDigest(package), std::nullopt, package);
  const auto snapshot = store.loadSnapshot(package);
  ASSERT_EQ(snapshot.canvasBackgroundAssets.size(), 1u);
  EXPECT_EQ(snapshot.canvasBackgroundAssets[0].descriptor, image);

  const auto text = folder.path() / "notes.png";
  writeFileAtomically(text, "not a picture");
  for (const auto& hostile : {text, folder.path(), folder.path() / "missing.png"}) {
    SCOPED_TRACE(hostile.string());
    EXPECT_THROW(importCanvasBackgroundImage(store, package, hostile), FileError);
  }
  std::size_t files = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(package.canvasBackgroundsDirectory()))
    ++files;
  EXPECT_EQ(files, 1u);
}

// Closing right after an edit (as quitting does) keeps it: the window waits for its saves.
TEST_F(EditorWindowTest, ClosingRightAfterEditsKeepsThemOnDisk) {
  commitCaptions();
  auto window = open();
  QTest::mouseClick(&window->timelineCanvas(), Qt::LeftButton, {},
                    QPoint(TimelineCanvas::leftInset + 240, static_cast<int>(TimelineCanvasGeometry::ruler.top)));
  QTest::keyClick(window.get(), Qt::Key_S);  // at 4 s
  const EditTimeline split = window->session().timeline();
  ASSERT_EQ(split.segments.size(), 2u);
  // "Hello" dragged half a second later.
  const QPoint grab(TimelineCanvas::leftInset + 90, static_cast<int>(TimelineCanvasGeometry::captions.top + 8));
  QTest::mousePress(&window->timelineCanvas(), Qt::LeftButton, {}, grab);
  QTest::mouseMove(&window->timelineCanvas(), grab + QPoint(30, 0));
  QTest::mouseRelease(&window->timelineCanvas(), Qt::LeftButton, {}, grab + QPoint(30, 0));
  const std::vector<CaptionCue> moved = window->captionSession()->document().cues;
  ASSERT_EQ(moved[0].start, ProjectTime::fromMilliseconds(1'500));
  EXPECT_FALSE(window->savesSettled());

  bool finished = false;
  window->finishSaves([&] { finished = true; });
  ASSERT_TRUE(turnUntil([&] { return finished; }));
  EXPECT_TRUE(window->savesSettled());
  window.reset();
  EXPECT_EQ(onDisk(), split);
  EXPECT_EQ(cuesOnDisk(), moved);
}

// A player of the test's own, to see what the window tells a player.
class RecordingPlayer final : public EditorPlayer {
 public:
  struct Log {
    int loads = 0;
    std::vector<EditTimeline> applied;
    std::optional<PixelSize> viewSize;
  };
  explicit RecordingPlayer(Log& log) : log_(log) {}
  void setObserver(Observer observer) override { observer_ = std::move(observer); }
  void load(const ProjectSnapshot&) override { ++log_.loads; }
  void applyTimeline(const EditTimeline& timeline) override { log_.applied.push_back(timeline); }
  void setViewSize(PixelSize size) override { log_.viewSize = size; }
  void play() override {}
  void pause() override {}
  void togglePlayback() override {}
  void seek(ProjectTime time) override { time_ = time; }
  void skim(ProjectTime) override {}
  void endSkim() override {}
  void stepFrames(int) override {}
  ProjectTime currentTime() const override { return time_; }
  std::optional<ProjectTime> skimTime() const override { return std::nullopt; }
  ProjectTime duration() const override { return ProjectTime::fromMilliseconds(12'000); }
  bool isPlaying() const override { return false; }
  std::optional<EditorPlayerFrame> currentFrame() const override { return std::nullopt; }
  std::optional<std::string> errorText() const override { return std::nullopt; }

 private:
  Log& log_;
  Observer observer_;
  ProjectTime time_;
};

// The player hears of a burst of edits once, with the latest timeline, and always knows the size
// of the picture's area in device pixels.
TEST_F(EditorWindowTest, ThePlayerGetsTheLatestTimelineOfABurstAndTheViewsSizeInDevicePixels) {
  RecordingPlayer::Log log;
  auto window = open(std::make_unique<RecordingPlayer>(log));
  EXPECT_EQ(log.loads, 1);
  ASSERT_TRUE(turnUntil([&] { return log.viewSize.has_value(); }));
  const QWidget& view = window->playerView();
  const double ratio = view.devicePixelRatioF();
  EXPECT_EQ(*log.viewSize, (PixelSize{std::lround(view.width() * ratio), std::lround(view.height() * ratio)}));
  window->resize(1000, 700);
  ASSERT_TRUE(turnUntil([&] { return log.viewSize->width == std::lround(view.width() * ratio); }));

  for (std::int64_t at : {3'000, 6'000, 9'000}) {
    window->player().seek(ProjectTime::fromMilliseconds(at));
    window->splitAtPlayhead();
  }
  ASSERT_EQ(window->session().timeline().segments.size(), 4u);
  ASSERT_TRUE(turnUntil([&] { return diskFollows(*window); }));
  ASSERT_EQ(log.applied.size(), 1u) << "three edits within one turn of the loop";
  EXPECT_EQ(log.applied.back(), window->session().timeline());
}

TEST_F(EditorWindowTest, ADamagedFilmShowsAnErrorAndTheEditorGoesOn) {
  writeFileAtomically(package.mediaPath(), std::string(4096, '\x5a'));
  auto window = open();
  turnFor(500ms);
  EXPECT_FALSE(window->playerView().shownErrorText().isEmpty());
  EXPECT_FALSE(window->timelineCanvas().hasWaveform());
  QTest::mouseClick(buttonNamed(*window, "Split"), Qt::LeftButton);  // at 0: refused, nothing breaks
  QTest::keyClick(window.get(), Qt::Key_Right);
  QTest::keyClick(window.get(), Qt::Key_S);
  EXPECT_EQ(window->session().timeline().segments.size(), 2u);
  ASSERT_TRUE(turnUntil([&] { return diskFollows(*window); }));
}

TEST_F(EditorWindowTest, EveryButtonHasANameAndTheToolbarIsComplete) {
  auto window = open();
  for (auto* button : window->findChildren<QAbstractButton*>()) {
    SCOPED_TRACE(button->metaObject()->className());
    EXPECT_FALSE(button->text().isEmpty() && button->accessibleName().isEmpty());
  }
  // The other controls take their names from their labels; the fields inside a spin box or a
  // list are parts of those, not controls of their own.
  std::vector<QWidget*> controls;
  for (auto* w : window->findChildren<QAbstractSpinBox*>()) controls.push_back(w);
  for (auto* w : window->findChildren<QComboBox*>()) controls.push_back(w);
  for (auto* w : window->findChildren<QLineEdit*>())
    if (!qobject_cast<QAbstractSpinBox*>(w->parentWidget()) && !qobject_cast<QComboBox*>(w->parentWidget()))
      controls.push_back(w);
  EXPECT_GT(controls.size(), 10u);
  for (QWidget* control : controls)
    EXPECT_FALSE(control->accessibleName().isEmpty()) << control->metaObject()->className();
  for (const char* name : {"Play", "Split", "Undo", "Redo", "Export\u2026", "Close"})
    EXPECT_NE(buttonNamed(*window, QString::fromUtf8(name)), nullptr);
  EXPECT_TRUE(window->windowTitle().startsWith(QString::fromUtf8("Vumo Editor \u2014 ")));

  int exports = 0, closes = 0;
  QObject::connect(window.get(), &EditorWindow::exportRequested, [&] { ++exports; });
  QObject::connect(window.get(), &EditorWindow::closeRequested, [&] { ++closes; });
  QTest::mouseClick(buttonNamed(*window, QString::fromUtf8("Export\u2026")), Qt::LeftButton);
  QTest::mouseClick(buttonNamed(*window, "Close"), Qt::LeftButton);
  EXPECT_EQ(exports, 1);
  EXPECT_EQ(closes, 1);
}

TEST_F(EditorWindowTest, TheAgentTabShowsAndCopiesTheBriefingThatThePromptCommandPrints) {
  auto window = open();
  auto* panel = window->findChild<AgentPanel*>();
  ASSERT_NE(panel, nullptr);
  panel->reload();
  const std::string shown = panel->briefing().toStdString();
  ASSERT_FALSE(shown.empty());

  auto printed =
      testing::runVumo({"prompt", manifest.id.string(), "--text"}, {{"XDG_DATA_HOME", dataHome.path().string()}});
  ASSERT_EQ(printed.status, 0) << printed.standardError;
  // The briefing names the program that runs the commands: here the test, there `vumo`.
  const auto withoutProgram = [](std::string text, const std::string& program) {
    for (std::size_t at; (at = text.find(program)) != std::string::npos;) text.replace(at, program.size(), "<vumo>");
    while (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
  };
  EXPECT_EQ(withoutProgram(shown, std::filesystem::read_symlink("/proc/self/exe").string()),
            withoutProgram(printed.standardOutput, testing::vumoBinary().string()));

  QTest::mouseClick(buttonNamed(*panel, "Copy"), Qt::LeftButton);
  EXPECT_EQ(QApplication::clipboard()->text().toStdString(), shown);
}

}  // namespace
}  // namespace vumo
