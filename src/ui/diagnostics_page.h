#pragma once

// The Diagnostics page of the settings: what `vumo cli system-info` reports about this machine,
// a chosen project's `diagnostics/report.json`, and one button that copies both as a support
// report. Neither holds anything that identifies the person beyond what they choose to paste.

#include <QWidget>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

class QComboBox;
class QPlainTextEdit;
class QPushButton;

namespace vumo {

class MainLoop;
class ProjectStore;

class DiagnosticsPage : public QWidget {
  Q_OBJECT

 public:
  // What the support report holds: both texts under their headings.
  static std::string supportReport(const std::string& systemInformation, const std::string& packageName,
                                   const std::string& report);
  // The package's report as text: the file (bounded, regular files only) or a sentence saying
  // why there is none.
  static std::string reportText(const std::filesystem::path& packagePath);

  DiagnosticsPage(ProjectStore& store, MainLoop& loop, QWidget* parent = nullptr);
  ~DiagnosticsPage() override;

  QString systemInformation() const;
  QString projectReport() const;

 public slots:
  // Lists the projects again and asks for the system information (once, off the main thread).
  void refresh();
  void copySupportReport();

 private:
  void showProjectReport();

  ProjectStore& store_;
  MainLoop& loop_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  bool inspecting_ = false;
  QPlainTextEdit* system_ = nullptr;
  QComboBox* projects_ = nullptr;
  QPlainTextEdit* report_ = nullptr;
  QPushButton* copy_ = nullptr;
  std::jthread inspector_;  // joined before the page goes
};

}  // namespace vumo
