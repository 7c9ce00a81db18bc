#include "ui/agent_panel.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QLabel>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QVBoxLayout>

#include "agent/agent_prompt_builder.h"
#include "cli/prompt_command.h"
#include "shared/json.h"

namespace vumo {

AgentPanel::AgentPanel(std::string projectID, QWidget* parent) : QWidget(parent), projectID_(std::move(projectID)) {
  setAccessibleName("Agent");
  auto* layout = new QVBoxLayout(this);
  auto* intro = new QLabel("Give this briefing to a local agent. Its edits appear here as steps you can undo.", this);
  intro->setWordWrap(true);
  layout->addWidget(intro);
  text_ = new QPlainTextEdit(this);
  text_->setReadOnly(true);
  text_->setAccessibleName("Agent briefing");
  layout->addWidget(text_, 1);
  copy_ = new QPushButton("Copy", this);
  copy_->setAccessibleName("Copy");
  layout->addWidget(copy_);
  connect(copy_, &QPushButton::clicked, this, [this] { copyBriefing(); });
}

void AgentPanel::showEvent(QShowEvent* event) {
  QWidget::showEvent(event);
  if (!loaded_) reload();
}

void AgentPanel::reload() {
  loaded_ = true;
  // The command's own path, so the panel and `vumo prompt` can never word the briefing apart.
  std::string out, err;
  PromptCommand command(
      {}, VumoCLI::Streams{[&](std::string_view text) { out += text; }, [&](std::string_view text) { err += text; }},
      runningExecutablePath());
  const int status = command.run({projectID_, "--text"});
  if (status == 0) {
    while (!out.empty() && out.back() == '\n') out.pop_back();
    text_->setPlainText(QString::fromStdString(out));
    copy_->setEnabled(true);
    return;
  }
  // The command's error envelope carries the failure's words.
  std::string message = err;
  try {
    const Json envelope = Json::parse(err);
    if (envelope.is_object() && envelope.contains("message") && envelope["message"].is_string())
      message = envelope["message"].get<std::string>();
  } catch (const std::exception&) {
  }
  text_->setPlainText(QString::fromStdString("The briefing could not be written: " + message));
  copy_->setEnabled(false);
}

QString AgentPanel::briefing() const { return copy_->isEnabled() ? text_->toPlainText() : QString(); }

void AgentPanel::copyBriefing() {
  if (!loaded_) reload();
  if (copy_->isEnabled()) QGuiApplication::clipboard()->setText(text_->toPlainText());
}

}  // namespace vumo
