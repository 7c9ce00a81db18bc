#include "ui/source_picker.h"

#include <unistd.h>

#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QImage>
#include <QLabel>
#include <QListWidget>
#include <QPixmap>
#include <QPushButton>
#include <QScreen>
#include <QVBoxLayout>
#include <atomic>
#include <chrono>

#include "capture/capture_streams.h"
#include "capture/pulse_audio_stream.h"
#include "capture/x11_source_catalogue.h"
#include "cli/media_module_loader.h"
#include "media/media_module.h"
#include "ui/recording_layout.h"

namespace vumo {

namespace {

constexpr int sourceRole = Qt::UserRole;
constexpr int kindRole = Qt::UserRole + 1;
const QSize thumbnailSize(160, 100);

// A small picture of a window as it is on screen now.
QIcon windowThumbnail(std::uint32_t window) {
  QScreen* screen = QGuiApplication::primaryScreen();
  if (screen == nullptr || QGuiApplication::platformName() != "xcb") return {};
  const QPixmap picture = screen->grabWindow(WId(window));
  if (picture.isNull()) return {};
  return QIcon(picture.scaled(thumbnailSize, Qt::KeepAspectRatio, Qt::SmoothTransformation));
}

QString sizeText(const RectValue& frame) {
  return QString("%1 × %2").arg(qint64(frame.width)).arg(qint64(frame.height));
}

}  // namespace

SourcePicker::SourcePicker(const RecordingOptions& defaults, QWidget* parent) : QDialog(parent) {
  setWindowTitle("New Recording");
  setAccessibleName("New Recording");
  wayland_ = isWaylandSession();
  auto* layout = new QVBoxLayout(this);

  problem_ = new QLabel(this);
  problem_->setWordWrap(true);
  problem_->setAccessibleName("Sources problem");
  problem_->hide();

  auto* sourceButtons = new QHBoxLayout;
  if (wayland_) {
    // The desktop's own dialog picks the monitor or window: X11 sees nothing but its own clients
    // here, and would record black.
    auto* display = new QPushButton("Display…", this);
    auto* window = new QPushButton("Window…", this);
    connect(display, &QPushButton::clicked, this, [this] { requestPortal(CaptureSourceKind::display); });
    connect(window, &QPushButton::clicked, this, [this] { requestPortal(CaptureSourceKind::window); });
    sourceButtons->addWidget(display);
    sourceButtons->addWidget(window);
    auto* note = new QLabel(
        "On this Wayland desktop, the desktop asks which display or window to share. Drawing an area needs an X11 "
        "session.",
        this);
    note->setWordWrap(true);
    layout->addWidget(note);
  } else {
    sources_ = new QListWidget(this);
    sources_->setAccessibleName("Sources");
    sources_->setIconSize(thumbnailSize);
    sources_->setMinimumHeight(240);
    layout->addWidget(sources_);
    listSources();
  }
  auto* area = new QPushButton("Area…", this);
  area->setEnabled(!wayland_);
  connect(area, &QPushButton::clicked, this, [this] {
    RecordingChoice chosen = choice();
    chosen.source.kind = CaptureSourceKind::area;
    chosen.source.display.reset();
    chosen.source.window.reset();
    stopPreview();
    emit areaRequested(chosen);
  });
  sourceButtons->addWidget(area);
  sourceButtons->addStretch();
  layout->addLayout(sourceButtons);
  layout->addWidget(problem_);

  auto* form = new QFormLayout;
  systemAudio_ = new QCheckBox("System audio", this);
  systemAudio_->setChecked(defaults.capturesSystemAudio);
  form->addRow(systemAudio_);
  microphone_ = new QCheckBox("Microphone", this);
  microphone_->setChecked(defaults.capturesMicrophone);
  microphones_ = new QComboBox(this);
  microphones_->setAccessibleName("Microphone device");
  form->addRow(microphone_, microphones_);
  camera_ = new QCheckBox("Camera", this);
  camera_->setChecked(defaults.capturesWebcam);
  cameras_ = new QComboBox(this);
  cameras_->setAccessibleName("Camera device");
  form->addRow(camera_, cameras_);
  cameraPreview_ = new QLabel("No camera", this);
  cameraPreview_->setAccessibleName("Camera preview");
  cameraPreview_->setAlignment(Qt::AlignCenter);
  cameraPreview_->setFixedSize(thumbnailSize);
  form->addRow(QString(), cameraPreview_);
  framesPerSecond_ = new QComboBox(this);
  framesPerSecond_->setAccessibleName("Frames per second");
  for (int rate : {24, 30, 60}) framesPerSecond_->addItem(QString::number(rate), rate);
  const int rateIndex = framesPerSecond_->findData(int(defaults.framesPerSecond));
  if (rateIndex < 0)
    framesPerSecond_->addItem(QString::number(defaults.framesPerSecond), int(defaults.framesPerSecond));
  framesPerSecond_->setCurrentIndex(rateIndex < 0 ? framesPerSecond_->count() - 1 : rateIndex);
  form->addRow("Frames per second", framesPerSecond_);
  layout->addLayout(form);
  listDevices(defaults);

  auto* buttons = new QDialogButtonBox(this);
  record_ = buttons->addButton("Record", QDialogButtonBox::AcceptRole);
  buttons->addButton("Cancel", QDialogButtonBox::RejectRole);
  record_->setEnabled(!wayland_ && sources_ && sources_->count() > 0);
  record_->setVisible(!wayland_);
  layout->addWidget(buttons);
  connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
  connect(record_, &QPushButton::clicked, this, [this] {
    stopPreview();
    emit recordRequested(choice());
  });
  if (sources_)
    connect(sources_, &QListWidget::itemDoubleClicked, this, [this] {
      stopPreview();
      emit recordRequested(choice());
    });
  connect(camera_, &QCheckBox::toggled, this, &SourcePicker::previewCamera);
  connect(cameras_, &QComboBox::currentIndexChanged, this, &SourcePicker::previewCamera);
  connect(microphone_, &QCheckBox::toggled, microphones_, &QWidget::setEnabled);
  microphones_->setEnabled(microphone_->isChecked());
  previewCamera();
}

SourcePicker::~SourcePicker() { stopPreview(); }

void SourcePicker::listSources() {
  try {
    const X11CaptureSources sources = listX11CaptureSources({}, ::getpid());
    const bool monitors = sources.displays.size() > 2;
    for (const X11DisplayInfo& display : sources.displays) {
      const QString name =
          display.wholeScreen ? (monitors ? "All displays" : "Entire screen") : QString::fromStdString(display.name);
      auto* item = new QListWidgetItem(QString("%1 (%2)").arg(name, sizeText(display.frame)), sources_);
      item->setData(sourceRole, QString::fromStdString(display.name));
      item->setData(kindRole, int(CaptureSourceKind::display));
    }
    for (const X11WindowInfo& window : sources.windows) {
      auto* item = new QListWidgetItem(windowThumbnail(window.nativeID),
                                       QString::fromStdString(window.title.empty() ? "Untitled window" : window.title),
                                       sources_);
      item->setData(sourceRole, QVariant::fromValue(qulonglong(window.nativeID)));
      item->setData(kindRole, int(CaptureSourceKind::window));
      item->setToolTip(sizeText(window.frame));
    }
    if (sources_->count() > 0) sources_->setCurrentRow(0);
  } catch (const std::exception& error) {
    problem_->setText(QString::fromStdString(error.what()));
    problem_->show();
  }
}

void SourcePicker::listDevices(const RecordingOptions& defaults) {
  microphones_->addItem("Default microphone", QString());
  try {
    for (const PulseAudioSourceInfo& source : listPulseAudioSources()) {
      if (source.isMonitor) continue;
      microphones_->addItem(QString::fromStdString(source.description), QString::fromStdString(source.name));
    }
  } catch (const std::exception&) {
    // No sound server: the default stays, and recording says what is wrong if it is asked for.
  }
  if (defaults.microphoneDeviceID) {
    const int index = microphones_->findData(QString::fromStdString(*defaults.microphoneDeviceID));
    if (index >= 0) microphones_->setCurrentIndex(index);
  }
  try {
    for (const VideoDeviceDescription& device : MediaModuleLoader::load().listVideoDevices())
      cameras_->addItem(QString::fromStdString(device.name), QString::fromStdString(device.deviceID));
  } catch (const std::exception&) {
    // Without the media engine there is no camera to offer.
  }
  if (defaults.webcamDeviceID) {
    const int index = cameras_->findData(QString::fromStdString(*defaults.webcamDeviceID));
    if (index >= 0) cameras_->setCurrentIndex(index);
  }
  if (cameras_->count() == 0) {
    camera_->setChecked(false);
    camera_->setEnabled(false);
    cameras_->setEnabled(false);
  }
}

RecordingChoice SourcePicker::choice() const {
  RecordingChoice chosen;
  if (sources_ && sources_->currentItem()) {
    const QListWidgetItem* item = sources_->currentItem();
    chosen.source.kind = CaptureSourceKind(item->data(kindRole).toInt());
    if (chosen.source.kind == CaptureSourceKind::window)
      chosen.source.window = std::uint32_t(item->data(sourceRole).toULongLong());
    else
      chosen.source.display = item->data(sourceRole).toString().toStdString();
  }
  chosen.streams.framesPerSecond = framesPerSecond_->currentData().toInt();
  chosen.source.framesPerSecond = chosen.streams.framesPerSecond;
  chosen.streams.systemAudio = systemAudio_->isChecked();
  chosen.streams.microphone = microphone_->isChecked();
  const QString microphone = microphones_->currentData().toString();
  if (!microphone.isEmpty()) chosen.streams.microphoneSource = microphone.toStdString();
  chosen.streams.camera = camera_->isChecked() && cameras_->count() > 0;
  if (chosen.streams.camera) chosen.streams.cameraPath = cameras_->currentData().toString().toStdString();
  return chosen;
}

void SourcePicker::requestPortal(CaptureSourceKind kind) {
  RecordingChoice chosen = choice();
  chosen.source.backend = RecordingBackend::portal;
  chosen.source.kind = kind;
  chosen.source.chooseSource = true;
  stopPreview();
  emit recordRequested(chosen);
}

void SourcePicker::previewCamera() {
  stopPreview();
  if (!camera_->isChecked() || cameras_->count() == 0) {
    cameraPreview_->setPixmap({});
    cameraPreview_->setText("No camera");
    return;
  }
  try {
    VideoDeviceRequest request;
    request.deviceID = cameras_->currentData().toString().toStdString();
    preview_ = MediaModuleLoader::load().makeVideoDeviceStream(request);
    auto lastShown = std::make_shared<std::atomic<std::int64_t>>(0);
    preview_->start(
        [this, lastShown](const VideoFrame& frame) {
          // A dozen pictures a second is plenty for a preview of this size.
          const std::int64_t now = std::chrono::steady_clock::now().time_since_epoch() / std::chrono::milliseconds(1);
          if (!frame.pixels || now - lastShown->load() < 80) return;
          lastShown->store(now);
          const PixelBuffer& pixels = *frame.pixels;
          // BGRA bytes are Qt's ARGB32 words on this little-endian machine.
          QImage image(pixels.bytes.data(), pixels.width, pixels.height, pixels.stride, QImage::Format_ARGB32);
          QImage scaled = image.scaled(thumbnailSize, Qt::KeepAspectRatio, Qt::SmoothTransformation);
          QMetaObject::invokeMethod(
              cameraPreview_, [label = cameraPreview_, scaled] { label->setPixmap(QPixmap::fromImage(scaled)); },
              Qt::QueuedConnection);
        },
        [](std::exception_ptr) {});
    cameraPreview_->setText(QString());
  } catch (const std::exception& error) {
    preview_.reset();
    cameraPreview_->setText(QString::fromStdString(error.what()));
  }
}

void SourcePicker::stopPreview() {
  if (!preview_) return;
  try {
    preview_->stop();
  } catch (const std::exception&) {
  }
  preview_.reset();
}

void SourcePicker::hideEvent(QHideEvent* event) {
  stopPreview();
  QDialog::hideEvent(event);
}

}  // namespace vumo
