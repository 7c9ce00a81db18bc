#pragma once

// The "Agent" tab: the briefing a person hands to a local agent for this project (the very text
// `vumo prompt <id> --text` prints) and a button that copies it.

#include <QWidget>
#include <string>

class QPlainTextEdit;
class QPushButton;

namespace vumo {

class AgentPanel final : public QWidget {
  Q_OBJECT

 public:
  explicit AgentPanel(std::string projectID, QWidget* parent = nullptr);

  // Writes the briefing anew (the project may have changed since it was shown).
  void reload();
  QString briefing() const;
  void copyBriefing();

 protected:
  void showEvent(QShowEvent* event) override;

 private:
  std::string projectID_;
  QPlainTextEdit* text_ = nullptr;
  QPushButton* copy_ = nullptr;
  bool loaded_ = false;
};

}  // namespace vumo
