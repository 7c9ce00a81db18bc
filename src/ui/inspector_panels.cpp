#include "ui/inspector_panels.h"

#include <fmt/core.h>

#include <QCheckBox>
#include <QColor>
#include <QColorDialog>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QScrollArea>
#include <QSignalBlocker>
#include <QSpinBox>
#include <QTabWidget>
#include <QVBoxLayout>
#include <cmath>
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
      const QString file = QFileDialog::getOpenFileName(
          this, "Import Wallpaper", QString(),
          "Pictures and videos (*.png *.jpg *.jpeg *.webp *.bmp *.gif *.mp4 *.mov *.m4v *.mkv *.webm);;All files (*)");
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

  void importWallpaper(const std::filesystem::path& file) {
    try {
      CanvasEdit canvas = session.timeline().canvas;
      canvas.image = importCanvasBackground(context.store, ProjectPackage{context.snapshot.packagePath}, file);
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
    if (!canvas.image) {
      wallpaper_->setText("No wallpaper");
    } else {
      const CanvasBackgroundImage& image = *canvas.image;
      QString text = QString(image.mediaKind == CanvasBackgroundMediaKind::video ? "Video wallpaper: %1 \u00D7 %2"
                                                                                 : "Wallpaper: %1 \u00D7 %2")
                         .arg(image.pixelSize.width)
                         .arg(image.pixelSize.height);
      if (image.duration) text += QString(", %1 s").arg(*image.duration, 0, 'f', 1);
      wallpaper_->setText(text);
    }
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
    connect(visible_, &QCheckBox::toggled, this, [this](bool on) { edit([on](CursorEdit& c) { c.isVisible = on; }); });
    size_ = row(form, "Size", spin(0.5, 3.0, 0.1, 2));
    connect(size_, &QDoubleSpinBox::valueChanged, this,
            [this](double value) { edit([value](CursorEdit& c) { c.scale = value; }); });
    clicks_ = row(form, "Show clicks", new QCheckBox());
    connect(clicks_, &QCheckBox::toggled, this,
            [this](bool on) { edit([on](CursorEdit& c) { c.showsClickEffect = on; }); });
    style_ = row(form, "Click effect", enumCombo<ClickEffectStyle>());
    connect(style_, &QComboBox::activated, this, [this] {
      if (auto style = parseName<ClickEffectStyle>(style_->currentData().toString().toStdString()))
        edit([style](CursorEdit& c) { c.clickEffectStyle = *style; });
    });
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
  // One field changed, the others as the timeline holds them (not as the controls round them).
  template <class Change>
  void edit(Change change) {
    CursorEdit cursor = session.timeline().cursor;
    change(cursor);
    session.updateCursor(cursor);
  }

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

// The frames of the catalogue that suit the recording's shape, and how the recording fills the
// frame's screen. A frame the timeline holds that does not suit (an agent may have chosen it) is
// still listed, so that the picker never shows another than the one in use.
class DeviceFramePanel final : public Panel {
 public:
  explicit DeviceFramePanel(InspectorPanels::Context& context) : Panel(context) {
    auto* form = new QFormLayout(this);
    frame_ = row(form, "Device frame", new QComboBox());
    frame_->addItem("None", QString());
    connect(frame_, &QComboBox::activated, this, [this] {
      const std::string assetID = frame_->currentData().toString().toStdString();
      if (assetID.empty()) {
        session.updateDeviceFrame(std::nullopt);
        return;
      }
      const auto& current = session.timeline().deviceFrame;
      session.updateDeviceFrame(
          DeviceFrameEdit{true, assetID, current ? current->contentMode : DeviceFrameContentMode::fit});
    });
    mode_ = row(form, "Content mode", enumCombo<DeviceFrameContentMode>());
    connect(mode_, &QComboBox::activated, this, [this] {
      const auto mode = parseName<DeviceFrameContentMode>(mode_->currentData().toString().toStdString());
      auto frame = session.timeline().deviceFrame;
      if (!mode || !frame) return;
      frame->contentMode = *mode;
      session.updateDeviceFrame(frame);
    });
    devices_ = new QLabel(this);
    devices_->setWordWrap(true);
    form->addRow(devices_);
    try {
      const DeviceFrameCatalog& catalog = DeviceFrameCatalog::bundled();
      const PixelSize source = context.snapshot.manifest.encodedPixelSize;
      const auto fitting =
          catalog.compatibleDevices(SizeValue{static_cast<double>(source.width), static_cast<double>(source.height)});
      for (const DeviceFrameDescriptor& device : fitting)
        for (const DeviceFrameVariant& variant : device.variants)
          frame_->addItem(itemName(device, variant), QString::fromStdString(variant.id));
      if (fitting.empty()) devices_->setText("No device frame fits this recording's shape.");
    } catch (const Error& error) {
      devices_->setText(QString::fromStdString(error.what()));
    }
  }

  void refresh() override {
    const auto& frame = session.timeline().deviceFrame;
    const bool shown = frame && frame->isEnabled;
    const QSignalBlocker a(frame_), b(mode_);
    if (shown && frame_->findData(QString::fromStdString(frame->assetID)) < 0) addUnlisted(frame->assetID);
    frame_->setCurrentIndex(shown ? frame_->findData(QString::fromStdString(frame->assetID)) : 0);
    mode_->setEnabled(shown);
    showChoice(mode_, frame ? frame->contentMode : DeviceFrameContentMode::fit);
  }

 private:
  static QString itemName(const DeviceFrameDescriptor& device, const DeviceFrameVariant& variant) {
    return device.variants.size() > 1 ? QString::fromStdString(device.name + " \u2014 " + variant.name)
                                      : QString::fromStdString(device.name);
  }

  void addUnlisted(const std::string& assetID) {
    QString name = QString::fromStdString(assetID);
    try {
      if (auto selection = DeviceFrameCatalog::bundled().descriptor(assetID))
        name = itemName(selection->descriptor, selection->variant);
    } catch (const Error&) {
    }
    frame_->addItem(name, QString::fromStdString(assetID));
  }

  QComboBox* frame_;
  QComboBox* mode_;
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
    shown_ = row(form, "Show captions", new QCheckBox());
    connect(shown_, &QCheckBox::toggled, this, [this](bool on) { edit([on](CaptionStyle& s) { s.isEnabled = on; }); });
    lines_ = row(form, "Lines", new QSpinBox());
    lines_->setRange(1, 2);
    lines_->setKeyboardTracking(false);
    connect(lines_, &QSpinBox::valueChanged, this,
            [this](int value) { edit([value](CaptionStyle& s) { s.maximumLines = value; }); });
    appearance_ = row(form, "Caption look", enumCombo<CaptionAppearance>());
    connect(appearance_, &QComboBox::activated, this, [this] {
      if (auto look = parseName<CaptionAppearance>(appearance_->currentData().toString().toStdString()))
        edit([look](CaptionStyle& s) { s.appearance = *look; });
    });
    fontScale_ = row(form, "Text size", spin(0.6, 1.2, 0.05, 2));
    connect(fontScale_, &QDoubleSpinBox::valueChanged, this,
            [this](double value) { edit([value](CaptionStyle& s) { s.fontScale = value; }); });
    bottom_ = row(form, "Distance from bottom", spin(0, 1, 0.01, 2));
    connect(bottom_, &QDoubleSpinBox::valueChanged, this,
            [this](double value) { edit([value](CaptionStyle& s) { s.bottomPosition = value; }); });
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
    for (QWidget* control : std::initializer_list<QWidget*>{shown_, lines_, appearance_, fontScale_, bottom_})
      control->setEnabled(captions != nullptr);
    const CaptionStyle style = captions ? captions->document().style : CaptionStyle::defaults();
    const QSignalBlocker a(shown_), b(lines_), c(fontScale_), d(bottom_);
    shown_->setChecked(style.isEnabled);
    lines_->setValue(static_cast<int>(style.maximumLines));
    showChoice(appearance_, style.appearance);
    fontScale_->setValue(style.fontScale);
    bottom_->setValue(style.bottomPosition);
  }

 private:
  template <class Change>
  void edit(Change change) {
    CaptionEditingSession* captions = context.captions();
    if (captions == nullptr) return;
    CaptionStyle style = captions->document().style;
    change(style);
    captions->updateStyle(style);
    context.edited();
  }

  QLabel* status_;
  QLineEdit* text_;
  QCheckBox* shown_;
  QSpinBox* lines_;
  QComboBox* appearance_;
  QDoubleSpinBox* fontScale_;
  QDoubleSpinBox* bottom_;
  std::optional<Uuid> shownCue_;
};

// The selected annotation's place in the frame (an arrow's: the box around its two points) and
// its look; the kind and the text as before.
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

    left_ = boundsRow(form, "Left", [](RectValue& r, double v) { r.x = v; });
    top_ = boundsRow(form, "Top", [](RectValue& r, double v) { r.y = v; });
    width_ = boundsRow(form, "Width", [](RectValue& r, double v) { r.width = v; });
    height_ = boundsRow(form, "Height", [](RectValue& r, double v) { r.height = v; });

    color_ = row(form, "Annotation colour", new QLineEdit());
    color_->setPlaceholderText("#rrggbb");
    connect(color_, &QLineEdit::editingFinished, this, [this] {
      const QColor color(color_->text().trimmed());
      if (color.isValid()) setColor(color);
    });
    auto* choose = button(QString::fromUtf8("Choose Colour\u2026"), this);
    connect(choose, &QPushButton::clicked, this, [this] {
      const AnnotationElement* selected = selectedAnnotation();
      if (selected == nullptr) return;
      const QColor color = QColorDialog::getColor(qColor(selected->color), this, "Annotation Colour");
      if (color.isValid()) setColor(color);
    });
    form->addRow(choose);
    lineWidth_ = styleSpin(form, "Line width", spin(0.001, 0.05, 0.001, 3),
                           [](AnnotationStyleEdit& s, double v) { s.lineWidth = v; });
    corner_ = styleSpin(form, "Annotation corner radius", spin(0, 1, 0.05, 2),
                        [](AnnotationStyleEdit& s, double v) { s.cornerRadius = v; });
    filled_ = styleBox(form, "Filled", [](AnnotationStyleEdit& s, bool on) { s.isFilled = on; });
    dims_ = styleBox(form, "Dim outside", [](AnnotationStyleEdit& s, bool on) { s.dimsOutside = on; });
    locks_ = styleBox(form, "Keep aspect ratio", [](AnnotationStyleEdit& s, bool on) { s.locksAspectRatio = on; });
    fontSize_ = styleSpin(form, "Font size", spin(12, 240, 2, 0), [](AnnotationStyleEdit& s, double v) {
      if (s.textStyle) s.textStyle->fontSize = v;
    });
    outline_ = styleBox(form, "Outline", [](AnnotationStyleEdit& s, bool on) {
      if (s.textStyle) s.textStyle->hasOutline = on;
    });
    outlineColor_ = row(form, "Outline colour", enumCombo<TextAnnotationOutlineColor>());
    connect(outlineColor_, &QComboBox::activated, this, [this] {
      if (auto color = parseName<TextAnnotationOutlineColor>(outlineColor_->currentData().toString().toStdString()))
        editStyle([color](AnnotationStyleEdit& s) {
          if (s.textStyle) s.textStyle->outlineColor = *color;
        });
    });

    auto* remove = button("Remove Annotation", this);
    connect(remove, &QPushButton::clicked, this, [this] { session.removeSelectedAnnotation(); });
    form->addRow(remove);
  }

  void refresh() override {
    showChoice(tool_, session.annotationTool());
    const AnnotationElement* selected = selectedAnnotation();
    const bool text = selected && selected->kind == AnnotationKind::text;
    text_->setEnabled(text);
    if (!text_->hasFocus()) {
      const QSignalBlocker block(text_);
      text_->setText(text && selected->textStyle ? QString::fromStdString(selected->textStyle->content) : QString());
      shownAnnotation_ = text ? std::optional(selected->id) : std::nullopt;
    }
    for (QWidget* control : std::initializer_list<QWidget*>{left_, top_, width_, height_, color_, lineWidth_, corner_,
                                                            filled_, dims_, locks_})
      control->setEnabled(selected != nullptr);
    for (QWidget* control : std::initializer_list<QWidget*>{fontSize_, outline_, outlineColor_})
      control->setEnabled(text);
    if (selected == nullptr) return;
    const RectValue box = boundsOf(*selected);
    const QSignalBlocker a(left_), b(top_), c(width_), d(height_), e(lineWidth_), f(corner_), g(filled_), h(dims_),
        i(locks_), j(fontSize_), k(outline_);
    left_->setValue(box.x);
    top_->setValue(box.y);
    width_->setValue(box.width);
    height_->setValue(box.height);
    if (!color_->hasFocus()) {
      const QSignalBlocker block(color_);
      color_->setText(qColor(selected->color).name());
    }
    lineWidth_->setValue(selected->lineWidth);
    corner_->setValue(selected->cornerRadius);
    filled_->setChecked(selected->isFilled);
    dims_->setChecked(selected->dimsOutside);
    locks_->setChecked(selected->locksAspectRatio);
    const TextAnnotationStyle textStyle = selected->textStyle.value_or(TextAnnotationStyle::defaultValue());
    fontSize_->setValue(textStyle.fontSize);
    outline_->setChecked(textStyle.hasOutline);
    showChoice(outlineColor_, textStyle.outlineColor);
  }

 private:
  const AnnotationElement* selectedAnnotation() const {
    for (const AnnotationElement& annotation : session.timeline().annotations)
      if (session.selectedAnnotationID() == annotation.id) return &annotation;
    return nullptr;
  }

  static RectValue boundsOf(const AnnotationElement& annotation) {
    if (annotation.bounds) return *annotation.bounds;
    if (annotation.startPoint && annotation.endPoint) {
      const PointValue& a = *annotation.startPoint;
      const PointValue& b = *annotation.endPoint;
      return RectValue{std::min(a.x, b.x), std::min(a.y, b.y), std::abs(b.x - a.x), std::abs(b.y - a.y)};
    }
    return RectValue{};
  }

  static QColor qColor(const CanvasColorValue& color) { return QColor::fromRgbF(color.red, color.green, color.blue); }

  // One side of the place changed, the others as the timeline holds them.
  template <class Change>
  QDoubleSpinBox* boundsRow(QFormLayout* form, const QString& label, Change change) {
    QDoubleSpinBox* box = row(form, label, spin(0, 1, 0.01, 3));
    connect(box, &QDoubleSpinBox::valueChanged, this, [this, change](double value) {
      const AnnotationElement* selected = selectedAnnotation();
      if (selected == nullptr) return;
      RectValue bounds = boundsOf(*selected);
      change(bounds, value);
      session.updateAnnotationBounds(selected->id, bounds);
    });
    return box;
  }

  template <class Change>
  void editStyle(Change change) {
    const AnnotationElement* selected = selectedAnnotation();
    if (selected == nullptr) return;
    AnnotationStyleEdit style = AnnotationStyleEdit::of(*selected);
    change(style);
    session.updateAnnotationStyle(selected->id, style);
  }

  template <class Change>
  QDoubleSpinBox* styleSpin(QFormLayout* form, const QString& label, QDoubleSpinBox* box, Change change) {
    row(form, label, box);
    connect(box, &QDoubleSpinBox::valueChanged, this,
            [this, change](double value) { editStyle([&](AnnotationStyleEdit& s) { change(s, value); }); });
    return box;
  }

  template <class Change>
  QCheckBox* styleBox(QFormLayout* form, const QString& label, Change change) {
    QCheckBox* box = row(form, label, new QCheckBox());
    connect(box, &QCheckBox::toggled, this,
            [this, change](bool on) { editStyle([&](AnnotationStyleEdit& s) { change(s, on); }); });
    return box;
  }

  void setColor(const QColor& color) {
    editStyle([&](AnnotationStyleEdit& s) { s.color = CanvasColorValue{color.redF(), color.greenF(), color.blueF()}; });
  }

  QComboBox* tool_;
  QLineEdit* text_;
  QDoubleSpinBox* left_;
  QDoubleSpinBox* top_;
  QDoubleSpinBox* width_;
  QDoubleSpinBox* height_;
  QLineEdit* color_;
  QDoubleSpinBox* lineWidth_;
  QDoubleSpinBox* corner_;
  QCheckBox* filled_;
  QCheckBox* dims_;
  QCheckBox* locks_;
  QDoubleSpinBox* fontSize_;
  QCheckBox* outline_;
  QComboBox* outlineColor_;
  std::optional<Uuid> shownAnnotation_;
};

}  // namespace

InspectorPanels::InspectorPanels(Context context, QTabWidget* tabs) : QObject(tabs) {
  // The panels keep a reference to the context, which lives as long as this object.
  auto* kept = new Context(std::move(context));
  connect(this, &QObject::destroyed, [kept] { delete kept; });
  const auto add = [&](Panel* panel, const char* title) {
    panel->setAccessibleName(title);
    // A long page scrolls, so that the editor's height never follows its longest tab.
    auto* scroller = new QScrollArea;
    scroller->setWidgetResizable(true);
    scroller->setFrameShape(QFrame::NoFrame);
    scroller->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    scroller->setAccessibleName(title);
    scroller->setWidget(panel);
    tabs->addTab(scroller, title);
    panels_.push_back(panel);
  };
  add(new ClipPanel(*kept), "Clip");
  auto* canvas = new CanvasPanel(*kept);
  importWallpaper_ = [canvas](const std::filesystem::path& file) { canvas->importWallpaper(file); };
  add(canvas, "Canvas");
  add(new CursorPanel(*kept), "Cursor");
  add(new CameraPanel(*kept), "Camera");
  add(new DeviceFramePanel(*kept), "Device Frame");
  add(new CaptionPanel(*kept), "Captions");
  add(new AnnotationPanel(*kept), "Annotations");
  refresh();
}

InspectorPanels::~InspectorPanels() = default;

void InspectorPanels::importWallpaper(const std::filesystem::path& file) { importWallpaper_(file); }

void InspectorPanels::refresh() {
  for (Panel* panel : panels_) panel->refresh();
}

}  // namespace vumo
