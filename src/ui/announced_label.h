#pragma once

// A label that names itself for assistive technology ("Message", "Export status") gives up its
// text there: Qt then reports the name and no text. Labels whose words change keep them in the
// accessible description as well, so a screen reader (and the desktop tests) can read them.

#include <QLabel>
#include <QString>

namespace vumo {

inline void setAnnouncedText(QLabel* label, const QString& text) {
  label->setText(text);
  label->setAccessibleDescription(text);
}

}  // namespace vumo
