#include "ui/export_dialog.h"

#include <QCloseEvent>
#include <QComboBox>
#include <QDesktopServices>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QUrl>
#include <QVBoxLayout>
#include <system_error>

#include "cli/media_module_loader.h"
#include "editor/main_loop.h"
#include "export/export_progress.h"
#include "shared/error.h"
#include "shared/files.h"
#include "ui/announced_label.h"
#include "ui/application_model.h"

namespace vumo {

namespace fs = std::filesystem;

namespace {

// A person's words for the options; the values are the configuration's own.
template <class E>
void fill(QComboBox* box, std::initializer_list<std::pair<E, const char*>> choices) {
  for (const auto& [value, label] : choices) box->addItem(QString::fromUtf8(label), static_cast<int>(value));
}

template <class E>
E chosen(const QComboBox* box) {
  return static_cast<E>(box->currentData().toInt());
}

template <class E>
void choose(QComboBox* box, E value) {
  box->setCurrentIndex(box->findData(static_cast<int>(value)));
}

}  // namespace

ExportDialog::ExporterFactory ExportDialog::mediaEngineExporter() {
  return [] { return MediaModuleLoader::load().makeExporter(); };
}

std::string ExportDialog::fileNameFor(const ProjectSnapshot& snapshot) {
  std::string name;
  for (char c : snapshot.manifest.source.title) name += (c == '/' || c == '\0' || c == '\n' || c == '\r') ? '-' : c;
  if (name.empty() || name.front() == '.') name = "Vumo " + snapshot.manifest.id.string().substr(0, 8) + name;
  // Room for " 99", the extension and the engine's temporary suffix within 255 bytes; cut only
  // between UTF-8 characters.
  constexpr std::size_t limit = 180;
  if (name.size() > limit) {
    std::size_t cut = limit;
    while (cut > 0 && (static_cast<unsigned char>(name[cut]) & 0xC0) == 0x80) --cut;
    name.resize(cut);
  }
  return name + ".mp4";
}

fs::path ExportDialog::freeTarget(const fs::path& folder, const std::string& name) {
  const fs::path wanted = folder / name;
  std::error_code error;
  if (!fs::exists(fs::symlink_status(wanted, error))) return wanted;
  const std::string stem = wanted.stem().string();
  const std::string extension = wanted.extension().string();
  for (int number = 2;; ++number) {
    fs::path candidate = folder / (stem + " " + std::to_string(number) + extension);
    if (!fs::exists(fs::symlink_status(candidate, error))) return candidate;
  }
}

ExportDialog::ExportDialog(ApplicationModel& model, MainLoop& loop, ExporterFactory exporters, QWidget* parent)
    : QDialog(parent), model_(model), loop_(loop), exporters_(std::move(exporters)) {
  setWindowTitle(QStringLiteral("Export"));
  setMinimumWidth(520);
  setAccessibleName(QStringLiteral("Export"));
  auto* layout = new QVBoxLayout(this);
  auto* form = new QFormLayout;
  preset_ = new QComboBox(this);
  preset_->setAccessibleName(QStringLiteral("Preset"));
  fill<ExportPreset>(preset_, {{ExportPreset::highQuality, "High Quality"},
                               {ExportPreset::standard, "Standard"},
                               {ExportPreset::compact, "Compact"}});
  preset_->addItem(QStringLiteral("Custom"), -1);
  resolution_ = new QComboBox(this);
  resolution_->setAccessibleName(QStringLiteral("Resolution"));
  fill<ExportResolution>(resolution_, {{ExportResolution::original, "Original"},
                                       {ExportResolution::p720, "720p"},
                                       {ExportResolution::p1080, "1080p"},
                                       {ExportResolution::p1440, "1440p"},
                                       {ExportResolution::p2160, "2160p (4K)"}});
  frameRate_ = new QComboBox(this);
  frameRate_->setAccessibleName(QStringLiteral("Frame rate"));
  fill<ExportFrameRate>(
      frameRate_,
      {{ExportFrameRate::source, "Source"}, {ExportFrameRate::fps30, "30 fps"}, {ExportFrameRate::fps60, "60 fps"}});
  quality_ = new QComboBox(this);
  quality_->setAccessibleName(QStringLiteral("Quality"));
  fill<ExportQuality>(
      quality_,
      {{ExportQuality::compact, "Compact"}, {ExportQuality::standard, "Standard"}, {ExportQuality::high, "High"}});
  codec_ = new QComboBox(this);
  codec_->setAccessibleName(QStringLiteral("Codec"));
  fill<ExportCodec>(codec_, {{ExportCodec::h264, "H.264"}, {ExportCodec::hevc, "HEVC (H.265)"}});
  fileName_ = new QLineEdit(this);
  fileName_->setAccessibleName(QStringLiteral("File name"));
  form->addRow(QStringLiteral("Preset:"), preset_);
  form->addRow(QStringLiteral("Resolution:"), resolution_);
  form->addRow(QStringLiteral("Frame rate:"), frameRate_);
  form->addRow(QStringLiteral("Quality:"), quality_);
  form->addRow(QStringLiteral("Codec:"), codec_);
  form->addRow(QStringLiteral("File name:"), fileName_);
  layout->addLayout(form);

  progress_ = new QProgressBar(this);
  progress_->setAccessibleName(QStringLiteral("Export progress"));
  progress_->setRange(0, 1000);
  progress_->setValue(0);
  status_ = new QLabel(this);
  status_->setAccessibleName(QStringLiteral("Export status"));
  status_->setWordWrap(true);
  layout->addWidget(progress_);
  layout->addWidget(status_);

  auto* buttons = new QHBoxLayout;
  showInFolder_ = new QPushButton(QStringLiteral("Show in Folder"), this);
  cancel_ = new QPushButton(QStringLiteral("Cancel"), this);
  close_ = new QPushButton(QStringLiteral("Close"), this);
  export_ = new QPushButton(QStringLiteral("Export"), this);
  export_->setDefault(true);
  buttons->addWidget(showInFolder_);
  buttons->addStretch(1);
  buttons->addWidget(cancel_);
  buttons->addWidget(close_);
  buttons->addWidget(export_);
  layout->addLayout(buttons);

  choose(preset_, ExportPreset::standard);
  applyPreset();
  connect(preset_, &QComboBox::currentIndexChanged, this, &ExportDialog::applyPreset);
  for (QComboBox* option : {resolution_, frameRate_, quality_, codec_})
    connect(option, &QComboBox::activated, this, [this] {
      // An option changed by hand no longer matches a preset, unless it happens to.
      const ExportConfiguration now = configuration();
      int matching = preset_->findData(-1);
      for (ExportPreset preset : {ExportPreset::highQuality, ExportPreset::standard, ExportPreset::compact})
        if (exportPresetConfiguration(preset) == now) matching = preset_->findData(static_cast<int>(preset));
      preset_->blockSignals(true);
      preset_->setCurrentIndex(matching);
      preset_->blockSignals(false);
    });
  connect(export_, &QPushButton::clicked, this, &ExportDialog::start);
  connect(cancel_, &QPushButton::clicked, this, &ExportDialog::cancel);
  connect(close_, &QPushButton::clicked, this, &ExportDialog::close);
  connect(showInFolder_, &QPushButton::clicked, this, &ExportDialog::showInFolder);
  updateControls();
}

ExportDialog::~ExportDialog() {
  *alive_ = false;
  worker_.request_stop();
}

void ExportDialog::applyPreset() {
  const int value = preset_->currentData().toInt();
  if (value < 0) return;
  const ExportConfiguration configuration = exportPresetConfiguration(static_cast<ExportPreset>(value));
  choose(resolution_, configuration.resolution);
  choose(frameRate_, configuration.frameRate);
  choose(quality_, configuration.quality);
  choose(codec_, configuration.codec);
}

ExportConfiguration ExportDialog::configuration() const {
  return {chosen<ExportResolution>(resolution_), chosen<ExportFrameRate>(frameRate_), chosen<ExportQuality>(quality_),
          chosen<ExportCodec>(codec_)};
}

QString ExportDialog::statusText() const { return status_->text(); }

void ExportDialog::prepare(ProjectSnapshot snapshot, fs::path folder) {
  if (running_) return;
  fileName_->setText(QString::fromStdString(fileNameFor(snapshot)));
  snapshot_ = std::move(snapshot);
  folder_ = std::move(folder);
  film_.reset();
  progress_->setValue(0);
  setAnnouncedText(status_, QStringLiteral("The film goes to %1.").arg(QString::fromStdString(folder_.string())));
  updateControls();
}

void ExportDialog::updateControls() {
  const bool ready = snapshot_.has_value();
  for (QWidget* option : std::initializer_list<QWidget*>{preset_, resolution_, frameRate_, quality_, codec_, fileName_})
    option->setEnabled(!running_);
  export_->setEnabled(ready && !running_);
  cancel_->setEnabled(running_);
  close_->setEnabled(!running_);
  showInFolder_->setEnabled(film_.has_value() && !running_);
}

void ExportDialog::start() {
  if (running_ || !snapshot_) return;
  std::string name = fileName_->text().trimmed().toStdString();
  if (name.empty() || name.find('/') != std::string::npos) name = fileNameFor(*snapshot_);
  const fs::path extension = fs::path(name).extension();
  if (extension != ".mp4" && extension != ".mov") name += ".mp4";
  fs::path target;
  try {
    createDirectories(folder_);
    target = freeTarget(folder_, name);
  } catch (const std::exception& error) {
    model_.fail(error);
    return;
  }
  if (!model_.exportStarted()) return;
  running_ = true;
  film_.reset();
  progress_->setValue(0);
  setAnnouncedText(status_, QStringLiteral("Preparing…"));
  updateControls();

  const ExportConfiguration options = configuration();
  const ProjectExportRequest request{std::string(nameOf(options.resolution)), std::string(nameOf(options.frameRate)),
                                     std::string(nameOf(options.quality)), std::string(nameOf(options.codec))};
  worker_ = std::jthread([this, &loop = loop_, alive = alive_, snapshot = *snapshot_, target, request,
                          exporters = exporters_](std::stop_token stop) {
    std::optional<ExportedFilm> film;
    std::exception_ptr failure;
    try {
      const std::shared_ptr<ProjectExporting> exporter = exporters();
      film = exporter->exportProject(
          snapshot, target, request,
          [&loop, alive, this](const ProjectExportProgress& progress) {
            loop.post([alive, this, progress] {
              if (*alive) progressed(progress);
            });
          },
          stop);
    } catch (...) {
      failure = std::current_exception();
    }
    loop.post([alive, this, film, failure] {
      if (*alive) ended(film, failure);
    });
  });
}

void ExportDialog::progressed(const ProjectExportProgress& progress) {
  if (!running_) return;
  const auto phase = parseName<ExportPhase>(progress.phase).value_or(ExportPhase::rendering);
  switch (phase) {
    case ExportPhase::preparing: setAnnouncedText(status_, QStringLiteral("Preparing…")); break;
    case ExportPhase::rendering:
      setAnnouncedText(
          status_, QStringLiteral("Rendering frame %1 of %2…").arg(progress.completedFrames).arg(progress.totalFrames));
      break;
    case ExportPhase::finalizing: setAnnouncedText(status_, QStringLiteral("Finishing the file…")); break;
    case ExportPhase::completed: break;
  }
  if (progress.totalFrames > 0)
    progress_->setValue(
        static_cast<int>(std::clamp<std::int64_t>(progress.completedFrames * 1000 / progress.totalFrames, 0, 1000)));
}

void ExportDialog::ended(std::optional<ExportedFilm> film, std::exception_ptr failure) {
  if (worker_.joinable()) worker_.join();
  running_ = false;
  if (film) {
    film_ = film->outputPath;
    progress_->setValue(1000);
    setAnnouncedText(status_,
                     QStringLiteral("Exported %1.").arg(QString::fromStdString(film->outputPath.filename().string())));
    model_.exportEnded();
  } else {
    progress_->setValue(0);
    try {
      if (failure) std::rethrow_exception(failure);
    } catch (const CancelledError&) {
      setAnnouncedText(status_, QStringLiteral("The export was cancelled."));
      model_.exportEnded();
    } catch (const std::exception& error) {
      setAnnouncedText(status_, QStringLiteral("The export failed."));
      model_.fail(error);
    } catch (...) {
      setAnnouncedText(status_, QStringLiteral("The export failed."));
      model_.fail(std::runtime_error("The export failed."));
    }
  }
  updateControls();
  emit finished();
}

void ExportDialog::cancel() {
  if (!running_) return;
  setAnnouncedText(status_, QStringLiteral("Cancelling…"));
  worker_.request_stop();
}

void ExportDialog::showInFolder() {
  if (!film_) return;
  QDesktopServices::openUrl(QUrl::fromLocalFile(QString::fromStdString(film_->parent_path().string())));
}

void ExportDialog::closeEvent(QCloseEvent* event) {
  // A running export is cancelled first: closing never leaves a film half written.
  if (running_) {
    cancel();
    event->ignore();
    return;
  }
  QDialog::closeEvent(event);
}

void ExportDialog::reject() {
  if (running_) {
    cancel();
    return;
  }
  QDialog::reject();
}

}  // namespace vumo
