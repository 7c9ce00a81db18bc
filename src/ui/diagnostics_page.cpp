#include "ui/diagnostics_page.h"

#include <QApplication>
#include <QClipboard>
#include <QComboBox>
#include <QLabel>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QVBoxLayout>
#include <system_error>
#include <thread>

#include "cli/system_capabilities.h"
#include "editor/main_loop.h"
#include "project/project_store.h"
#include "shared/document_limits.h"
#include "shared/files.h"
#include "shared/json.h"
#include "ui/user_messages.h"

namespace vumo {

namespace fs = std::filesystem;

std::string DiagnosticsPage::supportReport(const std::string& systemInformation, const std::string& packageName,
                                           const std::string& report) {
  std::string text = "Vumo support report\n\nSystem information:\n" + systemInformation + "\n";
  if (!packageName.empty()) text += "\nDiagnostic report of " + packageName + ":\n" + report + "\n";
  return text;
}

std::string DiagnosticsPage::reportText(const fs::path& packagePath) {
  const fs::path file = ProjectPackage{packagePath}.reportPath();
  std::error_code error;
  if (!fs::exists(fs::symlink_status(file, error))) return "This project has no diagnostic report.";
  try {
    return readFile(file, documentLimits::manifestBytes);
  } catch (const std::exception& failure) {
    return userMessageFor(failure);
  }
}

DiagnosticsPage::DiagnosticsPage(ProjectStore& store, MainLoop& loop, QWidget* parent)
    : QWidget(parent), store_(store), loop_(loop) {
  setAccessibleName(QStringLiteral("Diagnostics"));
  auto* layout = new QVBoxLayout(this);
  auto* systemLabel = new QLabel(QStringLiteral("System information:"), this);
  system_ = new QPlainTextEdit(this);
  system_->setReadOnly(true);
  system_->setAccessibleName(QStringLiteral("System information"));
  systemLabel->setBuddy(system_);
  auto* projectLabel = new QLabel(QStringLiteral("Project:"), this);
  projects_ = new QComboBox(this);
  projects_->setAccessibleName(QStringLiteral("Project"));
  projectLabel->setBuddy(projects_);
  report_ = new QPlainTextEdit(this);
  report_->setReadOnly(true);
  report_->setAccessibleName(QStringLiteral("Diagnostic report"));
  copy_ = new QPushButton(QStringLiteral("Copy Support Report"), this);
  layout->addWidget(systemLabel);
  layout->addWidget(system_, 1);
  layout->addWidget(projectLabel);
  layout->addWidget(projects_);
  layout->addWidget(report_, 1);
  layout->addWidget(copy_, 0, Qt::AlignRight);
  connect(projects_, &QComboBox::currentIndexChanged, this, &DiagnosticsPage::showProjectReport);
  connect(copy_, &QPushButton::clicked, this, &DiagnosticsPage::copySupportReport);
}

DiagnosticsPage::~DiagnosticsPage() { *alive_ = false; }

QString DiagnosticsPage::systemInformation() const { return system_->toPlainText(); }
QString DiagnosticsPage::projectReport() const { return report_->toPlainText(); }

void DiagnosticsPage::refresh() {
  const QString chosen = projects_->currentData().toString();
  projects_->blockSignals(true);
  projects_->clear();
  try {
    for (const RecentProject& recent : store_.recentProjects()) {
      const QString title = recent.sourceTitle.empty() ? QString::fromStdString(recent.packagePath.filename().string())
                                                       : QString::fromStdString(recent.sourceTitle);
      projects_->addItem(title, QString::fromStdString(recent.packagePath.string()));
    }
  } catch (const std::exception& error) {
    report_->setPlainText(QString::fromStdString(userMessageFor(error)));
  }
  const int again = projects_->findData(chosen);
  projects_->setCurrentIndex(again >= 0 ? again : (projects_->count() > 0 ? 0 : -1));
  projects_->blockSignals(false);
  showProjectReport();

  if (inspecting_ || !system_->toPlainText().isEmpty()) return;
  inspecting_ = true;
  system_->setPlainText(QStringLiteral("Looking at this computer…"));
  // It creates an OpenGL context and measures the disk: far too slow for the main thread.
  inspector_ = std::jthread([&loop = loop_, alive = alive_, this] {
    std::string text;
    try {
      text = encodeDocument(Json(SystemCapabilityInspector::inspect()));
    } catch (const std::exception& error) {
      text = userMessageFor(error);
    }
    loop.post([alive, this, text] {
      if (!*alive) return;
      inspecting_ = false;
      system_->setPlainText(QString::fromStdString(text));
    });
  });
}

void DiagnosticsPage::showProjectReport() {
  const QString path = projects_->currentData().toString();
  if (path.isEmpty()) {
    report_->setPlainText(QStringLiteral("There is no project to show a diagnostic report of."));
    return;
  }
  report_->setPlainText(QString::fromStdString(reportText(path.toStdString())));
}

void DiagnosticsPage::copySupportReport() {
  const QString path = projects_->currentData().toString();
  const std::string name = path.isEmpty() ? std::string() : fs::path(path.toStdString()).filename().string();
  const std::string text =
      supportReport(system_->toPlainText().toStdString(), name, report_->toPlainText().toStdString());
  QApplication::clipboard()->setText(QString::fromStdString(text));
}

}  // namespace vumo
