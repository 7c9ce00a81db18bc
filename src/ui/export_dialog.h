#pragma once

// The "Export" window: a preset or the four options of an export, the film's name in the export
// folder, and a progress bar while the media engine writes it on a thread of its own. "Cancel"
// stops it (the engine removes the partial file), "Show in Folder" opens the folder when the film
// is done; a failure goes to the model, which shows it once and returns to the editor.

#include <QDialog>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <thread>

#include "export/export_configuration.h"
#include "media/media_module.h"

class QComboBox;
class QLabel;
class QLineEdit;
class QProgressBar;
class QPushButton;

namespace vumo {

class ApplicationModel;
class MainLoop;

class ExportDialog : public QDialog {
  Q_OBJECT

 public:
  // Makes the exporter on the export's own thread (its GPU context lives there).
  using ExporterFactory = std::function<std::shared_ptr<ProjectExporting>()>;
  static ExporterFactory mediaEngineExporter();

  // The film's file name: the title with what a file name cannot hold replaced, `.mp4`.
  static std::string fileNameFor(const ProjectSnapshot& snapshot);
  // `folder/name`, or `folder/<stem> 2.mp4`… when that is taken: an export never replaces a film.
  static std::filesystem::path freeTarget(const std::filesystem::path& folder, const std::string& name);

  ExportDialog(ApplicationModel& model, MainLoop& loop, ExporterFactory exporters = mediaEngineExporter(),
               QWidget* parent = nullptr);
  ~ExportDialog() override;

  // Shows the options for `snapshot`, whose film goes to `folder`.
  void prepare(ProjectSnapshot snapshot, std::filesystem::path folder);

  bool isRunning() const { return running_; }
  const std::optional<std::filesystem::path>& exportedFilm() const { return film_; }
  ExportConfiguration configuration() const;
  QString statusText() const;
  QProgressBar* progressBar() const { return progress_; }

 public slots:
  void start();
  // Stops a running export; the engine removes what it had written.
  void cancel();
  void showInFolder();

 signals:
  // The export ended: written, cancelled or failed.
  void finished();

 protected:
  void closeEvent(QCloseEvent* event) override;
  void reject() override;

 private:
  void applyPreset();
  void progressed(const ProjectExportProgress& progress);
  void ended(std::optional<ExportedFilm> film, std::exception_ptr failure);
  void updateControls();

  ApplicationModel& model_;
  MainLoop& loop_;
  ExporterFactory exporters_;
  std::optional<ProjectSnapshot> snapshot_;
  std::filesystem::path folder_;
  std::optional<std::filesystem::path> film_;
  bool running_ = false;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);

  QComboBox* preset_ = nullptr;
  QComboBox* resolution_ = nullptr;
  QComboBox* frameRate_ = nullptr;
  QComboBox* quality_ = nullptr;
  QComboBox* codec_ = nullptr;
  QLineEdit* fileName_ = nullptr;
  QProgressBar* progress_ = nullptr;
  QLabel* status_ = nullptr;
  QPushButton* export_ = nullptr;
  QPushButton* cancel_ = nullptr;
  QPushButton* showInFolder_ = nullptr;
  QPushButton* close_ = nullptr;
  std::jthread worker_;  // last: joined before anything it uses goes
};

}  // namespace vumo
