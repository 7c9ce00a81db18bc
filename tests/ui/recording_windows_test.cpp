#include <gtest/gtest.h>

#include <QApplication>
#include <QKeyEvent>
#include <QLabel>
#include <QMouseEvent>
#include <QProgressBar>
#include <QPushButton>
#include <chrono>
#include <filesystem>

#include "support/test_support.h"
#include "ui/area_selection.h"
#include "ui/control_panel.h"
#include "ui/countdown_window.h"

namespace vumo {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

bool turnUntil(const std::function<bool()>& done, std::chrono::milliseconds limit = 5s) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!done() && std::chrono::steady_clock::now() < end) QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
  return done();
}

class RecordingWindowsTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    static testing::TemporaryDirectory home;
    for (const char* name : {"HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME", "XDG_DATA_HOME", "XDG_RUNTIME_DIR"}) {
      fs::create_directories(home.path() / name);
      ::setenv(name, (home.path() / name).c_str(), 1);
    }
    ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
    static int argc = 1;
    static char name[] = "ui_tests";
    static char* argv[] = {name, nullptr};
    if (QCoreApplication::instance() == nullptr) new QApplication(argc, argv);
  }
  void SetUp() override {
    if (qobject_cast<QApplication*>(QCoreApplication::instance()) == nullptr) GTEST_SKIP() << "needs widgets";
  }

  static void mouse(QWidget& widget, QEvent::Type type, QPointF at) {
    const Qt::MouseButtons held = type == QEvent::MouseButtonRelease ? Qt::NoButton : Qt::LeftButton;
    QMouseEvent event(type, at, widget.mapToGlobal(at), Qt::LeftButton, held, Qt::NoModifier);
    QCoreApplication::sendEvent(&widget, &event);
  }
  static void key(QWidget& widget, int code) {
    QKeyEvent event(QEvent::KeyPress, code, Qt::NoModifier);
    QCoreApplication::sendEvent(&widget, &event);
  }
  static void drag(QWidget& widget, QPointF from, QPointF to) {
    mouse(widget, QEvent::MouseButtonPress, from);
    mouse(widget, QEvent::MouseMove, (from + to) / 2);
    mouse(widget, QEvent::MouseMove, to);
    mouse(widget, QEvent::MouseButtonRelease, to);
  }
};

TEST_F(RecordingWindowsTest, AnAreaIsDrawnThenConfirmedOrCancelled) {
  struct Outcome {
    std::optional<RectValue> selected;
    bool cancelled = false;
  };
  auto attempt = [](const std::function<void(AreaSelection&)>& person) {
    AreaSelection area;
    Outcome outcome;
    QObject::connect(&area, &AreaSelection::selected, [&](RectValue rect) { outcome.selected = rect; });
    QObject::connect(&area, &AreaSelection::cancelled, [&] { outcome.cancelled = true; });
    area.show();
    person(area);
    return outcome;
  };
  // The offscreen display starts at the root's origin at a scale of 1: window pixels are root pixels.
  Outcome entered = attempt([](AreaSelection& a) {
    drag(a, {300, 250}, {100, 50});
    key(a, Qt::Key_Return);
  });
  ASSERT_TRUE(entered.selected);
  EXPECT_EQ(entered.selected->x, 100);
  EXPECT_EQ(entered.selected->y, 50);
  EXPECT_EQ(entered.selected->width, 200);
  EXPECT_EQ(entered.selected->height, 200);

  // A double click inside the drawn rectangle takes it as it is.
  Outcome doubleClicked = attempt([](AreaSelection& a) {
    drag(a, {10, 10}, {110, 60});
    mouse(a, QEvent::MouseButtonPress, {50, 30});
    mouse(a, QEvent::MouseButtonRelease, {50, 30});
    mouse(a, QEvent::MouseButtonDblClick, {50, 30});
  });
  ASSERT_TRUE(doubleClicked.selected);
  EXPECT_EQ(doubleClicked.selected->width, 100);
  EXPECT_EQ(doubleClicked.selected->height, 50);

  // A new drag outside replaces the first rectangle.
  Outcome redrawn = attempt([](AreaSelection& a) {
    drag(a, {10, 10}, {110, 60});
    drag(a, {200, 200}, {240, 230});
    key(a, Qt::Key_Enter);
  });
  ASSERT_TRUE(redrawn.selected);
  EXPECT_EQ(redrawn.selected->x, 200);
  EXPECT_EQ(redrawn.selected->width, 40);

  // Enter with nothing drawn does nothing; Escape cancels.
  Outcome escaped = attempt([](AreaSelection& a) {
    key(a, Qt::Key_Return);
    drag(a, {10, 10}, {11, 11});
    key(a, Qt::Key_Return);
    key(a, Qt::Key_Escape);
  });
  EXPECT_FALSE(escaped.selected);
  EXPECT_TRUE(escaped.cancelled);
}

TEST_F(RecordingWindowsTest, TheCountdownCountsDownOrIsCancelled) {
  CountdownWindow countdown;
  QLabel* number = nullptr;
  for (QLabel* label : countdown.findChildren<QLabel*>())
    if (label->accessibleName() == "Seconds until recording") number = label;
  ASSERT_NE(number, nullptr);
  std::vector<QString> seen;
  int finished = 0, cancelled = 0;
  QObject::connect(&countdown, &CountdownWindow::finished, [&] { ++finished; });
  QObject::connect(&countdown, &CountdownWindow::cancelled, [&] { ++cancelled; });
  countdown.show();
  countdown.start(3, 30ms);
  seen.push_back(number->text());
  ASSERT_TRUE(turnUntil([&] {
    if (seen.back() != number->text()) seen.push_back(number->text());
    return finished > 0;
  }));
  EXPECT_EQ(seen, (std::vector<QString>{"3", "2", "1"}));
  EXPECT_FALSE(countdown.isVisible());

  countdown.show();
  countdown.start(3, 30ms);
  key(countdown, Qt::Key_Escape);
  turnUntil([] { return false; }, 200ms);
  EXPECT_EQ(finished, 1);
  EXPECT_EQ(cancelled, 1);
  EXPECT_FALSE(countdown.isVisible());

  // "Cancel" does the same.
  countdown.show();
  countdown.start(3, 30ms);
  for (QPushButton* button : countdown.findChildren<QPushButton*>())
    if (button->text() == "Cancel") button->click();
  turnUntil([] { return false; }, 200ms);
  EXPECT_EQ(finished, 1);
  EXPECT_EQ(cancelled, 2);
}

TEST_F(RecordingWindowsTest, ThePanelNamesEveryControlAndReportsWhereItIs) {
  ControlPanel panel;
  std::map<QString, QPushButton*> buttons;
  for (QPushButton* button : panel.findChildren<QPushButton*>()) buttons[button->text()] = button;
  for (const char* name : {"Pause", "Stop", "Restart", "Discard"}) ASSERT_TRUE(buttons.count(name)) << name;
  QProgressBar* level = panel.findChild<QProgressBar*>();
  ASSERT_NE(level, nullptr);
  EXPECT_EQ(level->accessibleName(), "Microphone level");
  std::vector<std::string> asked;
  QObject::connect(&panel, &ControlPanel::pauseToggled, [&] { asked.push_back("pause"); });
  QObject::connect(&panel, &ControlPanel::stopRequested, [&] { asked.push_back("stop"); });
  QObject::connect(&panel, &ControlPanel::restartRequested, [&] { asked.push_back("restart"); });
  QObject::connect(&panel, &ControlPanel::discardRequested, [&] { asked.push_back("discard"); });
  for (const char* name : {"Pause", "Stop", "Restart", "Discard"}) buttons[name]->click();
  EXPECT_EQ(asked, (std::vector<std::string>{"pause", "stop", "restart", "discard"}));
  panel.setPaused(true);
  EXPECT_EQ(buttons["Pause"]->text(), "Resume");
  EXPECT_EQ(buttons["Pause"]->accessibleName(), "Resume");
  panel.setMicrophoneLevel(0.42);
  EXPECT_EQ(level->value(), 42);
  panel.setMicrophoneLevel(std::nullopt);
  EXPECT_EQ(level->value(), 0);
  EXPECT_FALSE(level->isEnabled());

  std::vector<std::optional<RectValue>> regions;
  QObject::connect(&panel, &ControlPanel::regionChanged,
                   [&](std::optional<RectValue> region) { regions.push_back(region); });
  EXPECT_FALSE(panel.rootRectangle());
  panel.placeAt({300, 40});
  panel.show();
  ASSERT_TRUE(turnUntil([&] { return !regions.empty() && regions.back(); }));
  EXPECT_EQ(regions.back()->x, 300);
  EXPECT_EQ(regions.back()->y, 40);
  EXPECT_EQ(regions.back()->width, panel.width());
  panel.hide();
  EXPECT_FALSE(regions.back());
}

}  // namespace
}  // namespace vumo
