#include "ui/inspector_panels.h"

#include <fmt/core.h>

#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSignalBlocker>
#include <QTabWidget>
#include <QVBoxLayout>
#include <optional>

#include "captions/caption_document.h"
#include "editor/caption_editing_session.h"
#include "editor/timeline_editing_session.h"
#include "project/project_snapshot.h"
#include "project/project_store.h"
#include "shared/error.h"
#include "shared/name_table.h"
#include "timeline/device_frame_catalog.h"
#include "timeline/timeline_mapper.h"
#include "timeline/timeline_settings_engine.h"
#include "ui/background_import.h"

namespace vumo {

namespace {

QString qs(std::string_view text) { return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size())); }

// A control with its label; the label's text is also the control's accessible name.
template <class Control>
Control* row(QFormLayout* form, const QString& label, Control* control) {
  control->setAccessibleName(label);
  form->addRow(label, control);
  return control;
}

QPushButton* button(const QString& text, QWidget* parent) {
  auto* result = new QPushButton(text, parent);
  result->setAccessibleName(text);
  return result;
}

QDoubleSpinBox* spin(double minimum, double maximum, double step, int decimals) {
  auto* box = new QDoubleSpinBox();
  box->setRange(minimum, maximum);
  box->setSingleStep(step);
  box->setDecimals(decimals);
  box->setKeyboardTracking(false);  // one edit per value typed, not per digit
  return box;
}

template <class E>
QComboBox* enumCombo() {
  auto* combo = new QComboBox();
  for (const auto& [value, name] : EnumNames<E>::table) {
    if (nameOf(value) != name) continue;  // an earlier name, read but never offered
    combo->addItem(qs(name), qs(name));
  }
  return combo;
}

template <class E>
void showChoice(QComboBox* combo, E value) {
  const QSignalBlocker block(combo);
  combo->setCurrentIndex(combo->findData(qs(nameOf(value))));
}

std::string number(double value) { return fmt::format("{:.3f}", value); }

}  // namespace

// One tab: builds its controls once and shows the sessions' state on `refresh`.
struct InspectorPanels::Panel : QWidget {
  explicit Panel(InspectorPanels::Context& context) : context(context), session(context.session) {}
  virtual void refresh() = 0;

  // A `key=value` through the settings engine, as `vumo cli set` gives it.
  void set(const std::string& key, const std::string& value) { session.applySettings({{key, value}}); }

  std::optional<ProjectTime> playheadSourceTime() const {
    try {
      const TimelineMapper mapper(session.timeline(), session.sourceDuration());
      if (auto source = mapper.sourceTimeForSequenceBoundary(context.playhead())) return *source;
    } catch (const Error&) {
    }
    return std::nullopt;
  }

  InspectorPanels::Context& context;
  TimelineEditingSession& session;
};

namespace {

using Panel = InspectorPanels::Panel;

class ClipPanel final : public Panel {
 public:
  explicit ClipPanel(InspectorPanels::Context& context) : Panel(context) {
    auto* form = new QFormLayout(this);
    selection_ = new QLabel(this);
    form->addRow(selection_);
    speed_ = row(form, "Speed", spin(0.5, 4.0, 0.05, 2));
    speed_->setSuffix(QString(QChar(0x00D7)));
    connect(speed_, &QDoubleSpinBox::valueChanged, this, [this](double value) {
      if (const auto& id = session.selectedSegmentID()) session.updatePlaybackRate(*id, std::round(value * 100) / 100);
    });
    auto* remove = button("Delete Clip", this);
    connect(remove, &QPushButton::clicked, this, [this] { session.rippleDeleteSelection(); });
    form->addRow(remove);
    auto* zoom = button("Add Zoom at Playhead", this);
    connect(zoom, &QPushButton::clicked, this, [this] {
      if (auto source = playheadSourceTime()) session.addZoom(*source);
    });
    form->addRow(zoom);
    auto* removeZoom = button("Remove Zoom", this);
    connect(removeZoom, &QPushButton::clicked, this, [this] { session.removeSelectedZoom(); });
    form->addRow(removeZoom);
    zoomScale_ = row(form, "Zoom scale", spin(1.0, 4.0, 0.1, 2));
    connect(zoomScale_, &QDoubleSpinBox::valueChanged, this, [this](double value) {
      if (const auto& id = session.selectedZoomID()) session.updateZoomScale(*id, value);
    });
  }

  void refresh() override {
    const auto& id = session.selectedSegmentID();
    const TimelineSegment* segment = nullptr;
    for (const TimelineSegment& candidate : session.timeline().segments)
      if (id && candidate.id == *id) segment = &candidate;
    selection_->setText(segment ? "Selected clip" : "Click a clip on the timeline to select it.");
    speed_->setEnabled(segment != nullptr);
    if (segment) {
      const QSignalBlocker block(speed_);
      speed_->setValue(segment->playbackRate.multiplier());
    }
    const ZoomSegment* zoom = nullptr;
    for (const ZoomSegment& candidate : session.timeline().zooms)
      if (session.selectedZoomID() == candidate.id) zoom = &candidate;
    zoomScale_->setEnabled(zoom != nullptr);
    if (zoom) {
      const QSignalBlocker block(zoomScale_);
      zoomScale_->setValue(zoom->scale);
    }
  }

 private:
  QLabel* selection_;
  QDoubleSpinBox* speed_;
  QDoubleSpinBox* zoomScale_;
};

class CanvasPanel final : public Panel {
 public:
  explicit CanvasPanel(InspectorPanels::Context& context) : Panel(context) {
    auto* form = new QFormLayout(this);
    aspect_ = row(form, "Aspect ratio", enumCombo<CanvasAspectRatio>());
    connect(aspect_, &QComboBox::activated, this,
            [this] { set("canvas.aspect", aspect_->currentData().toString().toStdString()); });
    background_ = row(form, "Background", enumCombo<CanvasBackground>());
    connect(background_, &QComboBox::activated, this,
            [this] { set("canvas.background", background_->currentData().toString().toStdString()); });
    preset_ = row(form, "Colour", enumCombo<CanvasBackgroundPreset>());
    connect(preset_, &QComboBox::activated, this, [this] {
      const auto preset = parseName<CanvasBackgroundPreset>(preset_->currentData().toString().toStdString());
      if (!preset) return;
      CanvasEdit canvas = session.timeline().canvas;
      canvas.preset = *preset;
      canvas.background = presetBackground(*preset);
      canvas.image.reset();
      session.updateCanvas(canvas);
    });
    padding_ = row(form, "Padding", spin(0, 0.18, 0.01, 3));
    connect(padding_, &QDoubleSpinBox::valueChanged, this,
            [this](double value) { set("canvas.padding", number(value)); });
    radius_ = row(form, "Corner radius", spin(0, 0.08, 0.005, 3));
    connect(radius_, &QDoubleSpinBox::valueChanged, this,
            [this](double value) { set("canvas.radius", number(value)); });
    wallpaper_ = new QLabel(this);
    form->addRow(wallpaper_);
    auto* import = button(QString::fromUtf8("Import Wallpaper\u2026"), this);
    connect(import, &QPushButton::clicked, this, [this] {
      const QString file = QFileDialog::getOpenFileName(this, "Import Wallpaper", QString(),
                                                        "Pictures (*.png *.jpg *.jpeg *.webp *.bmp *.gif)");
      if (!file.isEmpty()) importWallpaper(file.toStdString());
    });
    form->addRow(import);
    auto* remove = button("Remove Wallpaper", this);
    connect(remove, &QPushButton::clicked, this, [this] {
      CanvasEdit canvas = session.timeline().canvas;
      canvas.image.reset();
      session.updateCanvas(canvas);
    });
    form->addRow(remove);
  }

  void importWallpaper(const std::string& file) {
    try {
      CanvasEdit canvas = session.timeline().canvas;
      canvas.image = importCanvasBackgroundImage(context.store, ProjectPackage{context.snapshot.packagePath}, file);
      session.updateCanvas(canvas);
    } catch (const Error& error) {
      context.showFailure(error.what());
    }
  }

  void refresh() override {
    const CanvasEdit& canvas = session.timeline().canvas;
    showChoice(aspect_, canvas.aspectRatio);
    showChoice(background_, canvas.background);
    showChoice(preset_, canvas.preset);
    const QSignalBlocker blockPadding(padding_), blockRadius(radius_);
    padding_->setValue(canvas.padding);
    radius_->setValue(canvas.cornerRadius);
    wallpaper_->setText(
        canvas.image
            ? QString("Wallpaper: %1 \u00D7 %2").arg(canvas.image->pixelSize.width).arg(canvas.image->pixelSize.height)
            : QString("No wallpaper"));
  }

 private:
  QComboBox* aspect_;
  QComboBox* background_;
  QComboBox* preset_;
  QDoubleSpinBox* padding_;
  QDoubleSpinBox* radius_;
  QLabel* wallpaper_;
};

class CursorPanel final : public Panel {
 public:
  explicit CursorPanel(InspectorPanels::Context& context) : Panel(context) {
    auto* form = new QFormLayout(this);
    visible_ = row(form, "Show cursor", new QCheckBox());
    connect(visible_, &QCheckBox::toggled, this, [this](bool on) { set("cursor.show", on ? "true" : "false"); });
    size_ = row(form, "Size", spin(0.5, 3.0, 0.1, 2));
    connect(size_, &QDoubleSpinBox::valueChanged, this, [this](double value) { set("cursor.scale", number(value)); });
    clicks_ = row(form, "Show clicks", new QCheckBox());
    connect(clicks_, &QCheckBox::toggled, this, [this](bool on) { set("cursor.click-ripple", on ? "true" : "false"); });
    style_ = row(form, "Click effect", enumCombo<ClickEffectStyle>());
    connect(style_, &QComboBox::activated, this,
            [this] { set("cursor.click-style", style_->currentData().toString().toStdString()); });
  }

  void refresh() override {
    const CursorEdit& cursor = session.timeline().cursor;
    const QSignalBlocker a(visible_), b(size_), c(clicks_);
    visible_->setChecked(cursor.isVisible);
    size_->setValue(cursor.scale);
    clicks_->setChecked(cursor.showsClickEffect);
    showChoice(style_, cursor.clickEffectStyle);
  }

 private:
  QCheckBox* visible_;
  QDoubleSpinBox* size_;
  QCheckBox* clicks_;
  QComboBox* style_;
};

class CameraPanel final : public Panel {
 public:
  explicit CameraPanel(InspectorPanels::Context& context) : Panel(context) {
    auto* form = new QFormLayout(this);
    absent_ = new QLabel("This project has no camera track.", this);
    form->addRow(absent_);
    visible_ = row(form, "Show camera", new QCheckBox());
    connect(visible_, &QCheckBox::toggled, this, [this](bool on) { set("webcam.show", on ? "true" : "false"); });
    diameter_ = row(form, "Camera size", spin(0.05, 1.0, 0.01, 2));
    connect(diameter_, &QDoubleSpinBox::valueChanged, this,
            [this](double value) { set("webcam.diameter", number(value)); });
    mirror_ = row(form, "Mirror", new QCheckBox());
    connect(mirror_, &QCheckBox::toggled, this, [this](bool on) { set("webcam.mirror", on ? "true" : "false"); });
    shape_ = row(form, "Shape", enumCombo<WebcamAspectRatio>());
    connect(shape_, &QComboBox::activated, this,
            [this] { set("webcam.aspect-ratio", shape_->currentData().toString().toStdString()); });
    corner_ = row(form, "Roundness", spin(0, 1, 0.05, 2));
    connect(corner_, &QDoubleSpinBox::valueChanged, this,
            [this](double value) { set("webcam.corner-radius", number(value)); });
    border_ = row(form, "Border", new QCheckBox());
    connect(border_, &QCheckBox::toggled, this, [this](bool on) { set("webcam.border", on ? "true" : "false"); });
    shadow_ = row(form, "Shadow", new QCheckBox());
    connect(shadow_, &QCheckBox::toggled, this, [this](bool on) { set("webcam.shadow", on ? "true" : "false"); });
  }

  void refresh() override {
    const auto& overlay = session.timeline().webcamOverlay;
    absent_->setVisible(!overlay);
    for (QWidget* control :
         std::initializer_list<QWidget*>{visible_, diameter_, mirror_, shape_, corner_, border_, shadow_})
      control->setEnabled(overlay.has_value());
    if (!overlay) return;
    const QSignalBlocker a(visible_), b(diameter_), c(mirror_), d(corner_), e(border_), f(shadow_);
    visible_->setChecked(overlay->isVisible);
    diameter_->setValue(overlay->diameter);
    mirror_->setChecked(overlay->isMirrored);
    showChoice(shape_, overlay->aspectRatio);
    corner_->setValue(overlay->cornerRadius);
    border_->setChecked(overlay->showsBorder);
    shadow_->setChecked(overlay->showsShadow);
  }

 private:
  QLabel* absent_;
  QCheckBox* visible_;
  QDoubleSpinBox* diameter_;
  QCheckBox* mirror_;
  QComboBox* shape_;
  QDoubleSpinBox* corner_;
  QCheckBox* border_;
  QCheckBox* shadow_;
};

// The catalogue and the frame the timeline holds. Choosing a frame needs an operation of the
// editing session that does not exist yet, so the tab shows and does not change.
class DeviceFramePanel final : public Panel {
 public:
  explicit DeviceFramePanel(InspectorPanels::Context& context) : Panel(context) {
    auto* layout = new QVBoxLayout(this);
    current_ = new QLabel(this);
    current_->setWordWrap(true);
    layout->addWidget(current_);
    devices_ = new QLabel(this);
    devices_->setWordWrap(true);
    layout->addWidget(devices_);
    layout->addStretch(1);
    try {
      const DeviceFrameCatalog& catalog = DeviceFrameCatalog::bundled();
      const PixelSize source = context.snapshot.manifest.encodedPixelSize;
      QStringList names;
      for (const DeviceFrameDescriptor& device :
           catalog.compatibleDevices(SizeValue{static_cast<double>(source.width), static_cast<double>(source.height)}))
        names << QString::fromStdString(device.name);
      devices_->setText(names.isEmpty() ? "No device frame fits this recording's shape."
                                        : "Frames that fit this recording: " + names.join(", "));
    } catch (const Error& error) {
      devices_->setText(QString::fromStdString(error.what()));
    }
  }

  void refresh() override {
    const auto& frame = session.timeline().deviceFrame;
    current_->setText(frame && frame->isEnabled ? "Device frame: " + QString::fromStdString(frame->assetID)
                                                : QString("No device frame"));
  }

 private:
  QLabel* current_;
  QLabel* devices_;
};

class CaptionPanel final : public Panel {
 public:
  explicit CaptionPanel(InspectorPanels::Context& context) : Panel(context) {
    auto* form = new QFormLayout(this);
    status_ = new QLabel(this);
    status_->setWordWrap(true);
    form->addRow(status_);
    text_ = row(form, "Caption text", new QLineEdit());
    connect(text_, &QLineEdit::editingFinished, this, [this] {
      CaptionEditingSession* captions = this->context.captions();
      if (captions == nullptr || !shownCue_) return;
      captions->updateText(*shownCue_, text_->text().toStdString());
      this->context.edited();
    });
    auto* add = button("Add Caption", this);
    connect(add, &QPushButton::clicked, this, [this] {
      CaptionEditingSession* captions = this->context.captions();
      const auto start = playheadSourceTime();
      if (captions == nullptr || !start) return;
      const ProjectTime end = std::min(session.sourceDuration(), *start + ProjectTime::fromMilliseconds(2'000));
      if (captions->addCue(CaptionCue{Uuid::random(), *start, end, "Caption", {}, {}}, true)) {
        shownCue_ = captions->selectedCueID();
        text_->setEnabled(true);
        text_->setText("Caption");
        text_->setFocus();
        text_->selectAll();
        captions->consumeTextFocusRequest(*captions->selectedCueID());
      }
      this->context.edited();
    });
    form->addRow(add);
    auto* remove = button("Remove Caption", this);
    connect(remove, &QPushButton::clicked, this, [this] {
      if (CaptionEditingSession* captions = this->context.captions()) captions->removeSelectedCue();
      this->context.edited();
    });
    form->addRow(remove);
    style_ = new QLabel(this);
    style_->setWordWrap(true);
    form->addRow(style_);
  }

  void refresh() override {
    CaptionEditingSession* captions = context.captions();
    const CaptionCue* cue = captions ? captions->selectedCue() : nullptr;
    status_->setText(!captions ? "This project has no captions yet. An agent can write them (see the Agent tab)."
                     : cue     ? "Selected caption"
                               : "Click a caption on the timeline to edit it.");
    text_->setEnabled(cue != nullptr);
    // The field keeps what is being typed, and names the cue it was filled for: typing finished
    // after another cue was selected still changes the cue the text belongs to.
    if (!text_->hasFocus()) {
      const QSignalBlocker block(text_);
      text_->setText(cue ? QString::fromStdString(cue->text) : QString());
      shownCue_ = cue ? std::optional(cue->id) : std::nullopt;
    }
    if (captions) {
      const CaptionStyle& style = captions->document().style;
      style_->setText(QString("Style: %1, %2 lines, size %3, %4 from the bottom")
                          .arg(qs(nameOf(style.appearance)))
                          .arg(style.maximumLines)
                          .arg(style.fontScale)
                          .arg(style.bottomPosition));
    } else {
      style_->clear();
    }
  }

 private:
  QLabel* status_;
  QLineEdit* text_;
  QLabel* style_;
  std::optional<Uuid> shownCue_;
};

class AnnotationPanel final : public Panel {
 public:
  explicit AnnotationPanel(InspectorPanels::Context& context) : Panel(context) {
    auto* form = new QFormLayout(this);
    tool_ = row(form, "Kind", enumCombo<AnnotationKind>());
    connect(tool_, &QComboBox::activated, this, [this] {
      if (auto kind = parseName<AnnotationKind>(tool_->currentData().toString().toStdString()))
        session.setAnnotationTool(*kind);
    });
    auto* add = button("Add Annotation", this);
    connect(add, &QPushButton::clicked, this, [this] {
      const auto start = playheadSourceTime();
      if (!start) return;
      // Three seconds in the middle of the frame; the handles and the inspector take it from there.
      const ProjectTime end = std::min(session.sourceDuration(), *start + ProjectTime::fromMilliseconds(3'000));
      session.addAnnotation(ProjectTimeRange::fromStartEnd(*start, end), RectValue{0.35, 0.35, 0.3, 0.3});
    });
    form->addRow(add);
    text_ = row(form, "Annotation text", new QLineEdit());
    connect(text_, &QLineEdit::editingFinished, this, [this] {
      if (shownAnnotation_) session.updateAnnotationText(*shownAnnotation_, text_->text().toStdString());
    });
    auto* remove = button("Remove Annotation", this);
    connect(remove, &QPushButton::clicked, this, [this] { session.removeSelectedAnnotation(); });
    form->addRow(remove);
  }

  void refresh() override {
    showChoice(tool_, session.annotationTool());
    const AnnotationElement* selected = nullptr;
    for (const AnnotationElement& annotation : session.timeline().annotations)
      if (session.selectedAnnotationID() == annotation.id) selected = &annotation;
    const bool text = selected && selected->kind == AnnotationKind::text;
    text_->setEnabled(text);
    if (!text_->hasFocus()) {
      const QSignalBlocker block(text_);
      text_->setText(text && selected->textStyle ? QString::fromStdString(selected->textStyle->content) : QString());
      shownAnnotation_ = text ? std::optional(selected->id) : std::nullopt;
    }
  }

 private:
  QComboBox* tool_;
  QLineEdit* text_;
  std::optional<Uuid> shownAnnotation_;
};

}  // namespace

InspectorPanels::InspectorPanels(Context context, QTabWidget* tabs) : QObject(tabs) {
  // The panels keep a reference to the context, which lives as long as this object.
  auto* kept = new Context(std::move(context));
  connect(this, &QObject::destroyed, [kept] { delete kept; });
  const auto add = [&](Panel* panel, const char* title) {
    panel->setAccessibleName(title);
    tabs->addTab(panel, title);
    panels_.push_back(panel);
  };
  add(new ClipPanel(*kept), "Clip");
  add(new CanvasPanel(*kept), "Canvas");
  add(new CursorPanel(*kept), "Cursor");
  add(new CameraPanel(*kept), "Camera");
  add(new DeviceFramePanel(*kept), "Device Frame");
  add(new CaptionPanel(*kept), "Captions");
  add(new AnnotationPanel(*kept), "Annotations");
  refresh();
}

InspectorPanels::~InspectorPanels() = default;

void InspectorPanels::refresh() {
  for (Panel* panel : panels_) panel->refresh();
}

}  // namespace vumo
