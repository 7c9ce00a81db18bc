// The smallest Qt Widgets program the desktop harness drives in its own test: a window "Probe"
// with a button "Press Me", a label that counts the presses (so a test can tell a press that
// arrived, through the accessibility tree or the pointer, from one that did not) and a text field
// "Title". Given
// --clipped, a second button "Cut Off" reaches past the window's right edge, for the check that
// finds controls a person cannot see whole.

#include <QApplication>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>
#include <QWidget>
#include <cstring>

int main(int argc, char** argv) {
  QApplication application(argc, argv);
  QApplication::setApplicationName("atspi-probe");
  QWidget window;
  window.setWindowTitle("Probe");
  window.setAccessibleName("Probe");
  auto* layout = new QVBoxLayout(&window);
  auto* button = new QPushButton("Press Me", &window);
  auto* label = new QLabel("Pressed 0 times", &window);
  layout->addWidget(button);
  layout->addWidget(label);
  auto* title = new QLineEdit(&window);
  title->setAccessibleName("Title");
  layout->addWidget(title);
  int presses = 0;
  QObject::connect(button, &QPushButton::clicked, [&] {
    ++presses;
    label->setText(QString("Pressed %1 times").arg(presses));
  });
  window.resize(320, 160);
  if (argc > 1 && std::strcmp(argv[1], "--clipped") == 0) {
    // Outside the layout, so nothing moves it back inside.
    auto* cutOff = new QPushButton("Cut Off", &window);
    cutOff->setGeometry(280, 4, 100, 24);
  }
  window.show();
  return application.exec();
}
