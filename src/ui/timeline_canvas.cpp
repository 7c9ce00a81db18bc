#include "ui/timeline_canvas.h"

#include <fmt/core.h>

#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QWheelEvent>
#include <algorithm>
#include <cmath>

#include "captions/caption_document.h"
#include "editor/caption_editing_session.h"
#include "editor/timeline_editing_session.h"
#include "shared/error.h"
#include "timeline/timeline_mapper.h"
#include "ui/editor_player.h"
#include "ui/timeline_canvas_thumbnails.h"

namespace vumo {

namespace {

using Geometry = TimelineCanvasGeometry;

QRectF laneRect(const TimelineLaneBand& band, double x0, double x1) {
  return QRectF(x0, band.top + 2, std::max(1.0, x1 - x0), band.height - 4);
}

// "2×", "1.5×", "0.75×": the multiplier without trailing zeros.
QString multiplierLabel(double multiplier) {
  std::string text = fmt::format("{:.2f}", multiplier);
  while (text.back() == '0') text.pop_back();
  if (text.back() == '.') text.pop_back();
  return QString::fromStdString(text) + QChar(0x00D7);
}

QString clockLabel(std::int64_t seconds) {
  return QString::fromStdString(fmt::format("{}:{:02}", seconds / 60, seconds % 60));
}

}  // namespace

struct TimelineCanvas::Drag {
  TimelineHitKind kind = TimelineHitKind::none;
  Uuid id;
  double pressX = 0;
  bool moved = false;
  // Clip trims: the clip's source edges and the timeline's layout when the drag began, so every
  // step is measured from where it started.
  ProjectTime baseSourceStart;
  ProjectTime baseSourceEnd;
  std::optional<TimelineMapper> baseMapper;
  // Whole moves: the item's start minus the source time under the pointer at the press.
  std::int64_t grabOffset = 0;
  bool captions = false;
};

TimelineCanvas::TimelineCanvas(TimelineEditingSession& session, EditorPlayer& player, QWidget* parent)
    : QWidget(parent), session_(session), player_(player) {
  setAccessibleName("Timeline");
  setMouseTracking(true);
  setFocusPolicy(Qt::StrongFocus);
  setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
  refresh();
}

TimelineCanvas::~TimelineCanvas() = default;

void TimelineCanvas::setCaptionSession(CaptionEditingSession* captions) {
  captions_ = captions;
  refresh();
}

void TimelineCanvas::setWaveform(WaveformEnvelope envelope) {
  waveform_ = std::move(envelope);
  update();
}

void TimelineCanvas::setThumbnails(const TimelineCanvasThumbnails* thumbnails) {
  thumbnails_ = thumbnails;
  update();
}

void TimelineCanvas::refresh() {
  layout_ = TimelineCanvasLayout::make(session_.timeline(), session_.sourceDuration(),
                                       captions_ != nullptr ? &captions_->document() : nullptr);
  try {
    mapper_ = std::make_shared<const TimelineMapper>(session_.timeline(), session_.sourceDuration());
  } catch (const Error&) {
    mapper_.reset();
  }
  updateGeometry();
  update();
}

QSize TimelineCanvas::sizeHint() const {
  return {static_cast<int>(std::ceil(geometry_.contentWidth(layout_.sequenceDuration))),
          static_cast<int>(Geometry::totalHeight)};
}

QSize TimelineCanvas::minimumSizeHint() const { return {200, static_cast<int>(Geometry::totalHeight)}; }

std::optional<std::int64_t> TimelineCanvas::pointerSourceTime(double x) const {
  const ProjectTime sequence = geometry_.snappedSequenceTimeForX(x, layout_.sequenceDuration);
  try {
    const TimelineMapper mapper(session_.timeline(), session_.sourceDuration());
    if (auto source = mapper.sourceTimeForSequenceBoundary(sequence)) return source->nanoseconds;
  } catch (const Error&) {
  }
  return std::nullopt;
}

// ---- Pointer -------------------------------------------------------------------------------------

void TimelineCanvas::mousePressEvent(QMouseEvent* event) {
  if (event->button() != Qt::LeftButton) return QWidget::mousePressEvent(event);
  // An edit a moment ago may not have reached the views yet: hit what is there now.
  refresh();
  const QPointF at = event->position();
  const TimelineCanvasHit hit = layout_.hitTest(geometry_, at.x(), at.y());
  auto drag = std::make_unique<Drag>();
  drag->kind = hit.kind;
  drag->pressX = at.x();
  if (hit.id) drag->id = *hit.id;
  const auto grab = [&](ProjectTime itemStart) {
    if (auto source = pointerSourceTime(at.x())) drag->grabOffset = itemStart.nanoseconds - *source;
  };

  switch (hit.kind) {
    case TimelineHitKind::none:
    case TimelineHitKind::ruler:
      player_.seek(hit.sequenceTime);
      drag->kind = TimelineHitKind::ruler;  // dragging on the ruler scrubs
      break;
    case TimelineHitKind::segment:
      player_.seek(hit.sequenceTime);
      session_.selectSegment(*hit.id);
      drag->kind = TimelineHitKind::none;
      break;
    case TimelineHitKind::segmentStart:
    case TimelineHitKind::segmentEnd: {
      session_.selectSegment(*hit.id);
      const TimelineCanvasItem* clip = layout_.clip(*hit.id);
      if (clip == nullptr) return;
      drag->baseSourceStart = clip->sourceRange.start;
      drag->baseSourceEnd = clip->sourceRange.end();
      try {
        drag->baseMapper.emplace(session_.timeline(), session_.sourceDuration());
      } catch (const Error&) {
        return;
      }
      session_.beginCoalescedEdit();
      break;
    }
    case TimelineHitKind::zoom:
    case TimelineHitKind::zoomStart:
    case TimelineHitKind::zoomEnd:
      session_.selectZoom(*hit.id);
      for (const ZoomSegment& zoom : session_.timeline().zooms)
        if (zoom.id == *hit.id) grab(zoom.startTime);
      session_.beginCoalescedEdit();
      break;
    case TimelineHitKind::annotation:
    case TimelineHitKind::annotationStart:
    case TimelineHitKind::annotationEnd:
      session_.selectAnnotation(*hit.id);
      for (const AnnotationElement& annotation : session_.timeline().annotations)
        if (annotation.id == *hit.id) grab(annotation.startTime);
      session_.beginCoalescedEdit();
      break;
    case TimelineHitKind::cue:
    case TimelineHitKind::cueStart:
    case TimelineHitKind::cueEnd:
      if (captions_ == nullptr) return;
      captions_->select(*hit.id);
      for (const CaptionCue& cue : captions_->document().cues)
        if (cue.id == *hit.id) grab(cue.start);
      drag->captions = true;
      captions_->beginCoalescedEdit();
      break;
  }
  drag_ = std::move(drag);
  update();
  emit interacted();
}

void TimelineCanvas::mouseMoveEvent(QMouseEvent* event) {
  const double x = event->position().x();
  if (drag_ && (event->buttons() & Qt::LeftButton)) {
    if (!drag_->moved && std::abs(x - drag_->pressX) < 1) return;
    drag_->moved = true;
    dragTo(x);
    return;
  }
  player_.skim(geometry_.snappedSequenceTimeForX(x, layout_.sequenceDuration));
}

void TimelineCanvas::dragTo(double x) {
  Drag& drag = *drag_;
  const auto source = pointerSourceTime(x);
  const auto moved = [&]() { return ProjectTime{std::max<std::int64_t>(0, *source + drag.grabOffset)}; };
  switch (drag.kind) {
    case TimelineHitKind::ruler: player_.seek(geometry_.snappedSequenceTimeForX(x, layout_.sequenceDuration)); break;
    case TimelineHitKind::segmentStart:
    case TimelineHitKind::segmentEnd: {
      const bool start = drag.kind == TimelineHitKind::segmentStart;
      const ProjectTime delta = geometry_.sequenceDeltaForDX(x - drag.pressX);
      const auto target = drag.baseMapper->sourceTimeByApplyingSequenceDelta(
          delta, start ? drag.baseSourceStart : drag.baseSourceEnd, drag.id);
      if (!target) break;
      const ProjectTime clamped = std::clamp(*target, ProjectTime{0}, session_.sourceDuration());
      start ? session_.trimStart(drag.id, clamped) : session_.trimEnd(drag.id, clamped);
      break;
    }
    case TimelineHitKind::zoom:
      if (source) {
        try {
          const TimelineMapper mapper(session_.timeline(), session_.sourceDuration());
          const auto mapped =
              mapper.mappedTimeForSequenceTime(geometry_.snappedSequenceTimeForX(x, layout_.sequenceDuration));
          if (mapped) session_.moveZoom(drag.id, moved(), mapped->segmentID);
        } catch (const Error&) {
        }
      }
      break;
    case TimelineHitKind::zoomStart:
      if (source) session_.updateZoomStart(drag.id, ProjectTime{*source});
      break;
    case TimelineHitKind::zoomEnd:
      if (source) session_.updateZoomEnd(drag.id, ProjectTime{*source});
      break;
    case TimelineHitKind::annotation:
      if (source) session_.moveAnnotation(drag.id, moved());
      break;
    case TimelineHitKind::annotationStart:
      if (source) session_.updateAnnotationStart(drag.id, ProjectTime{*source});
      break;
    case TimelineHitKind::annotationEnd:
      if (source) session_.updateAnnotationEnd(drag.id, ProjectTime{*source});
      break;
    case TimelineHitKind::cue:
      if (source && captions_ != nullptr) captions_->moveCue(drag.id, moved());
      break;
    case TimelineHitKind::cueStart:
      if (source && captions_ != nullptr) captions_->trimStart(drag.id, ProjectTime{*source});
      break;
    case TimelineHitKind::cueEnd:
      if (source && captions_ != nullptr) captions_->trimEnd(drag.id, ProjectTime{*source});
      break;
    case TimelineHitKind::none:
    case TimelineHitKind::segment: break;
  }
}

void TimelineCanvas::mouseReleaseEvent(QMouseEvent* event) {
  if (event->button() != Qt::LeftButton) return QWidget::mouseReleaseEvent(event);
  if (drag_ && drag_->moved) dragTo(event->position().x());
  endDrag();
}

void TimelineCanvas::endDrag() {
  if (!drag_) return;
  const std::unique_ptr<Drag> drag = std::move(drag_);
  if (drag->captions) {
    if (captions_ != nullptr) captions_->endCoalescedEdit();
  } else if (session_.isInGesture()) {
    session_.endCoalescedEdit();
  }
  update();
  emit interacted();
}

void TimelineCanvas::leaveEvent(QEvent* event) {
  player_.endSkim();
  QWidget::leaveEvent(event);
}

void TimelineCanvas::wheelEvent(QWheelEvent* event) {
  const double steps = event->angleDelta().y() / 120.0;
  if (event->modifiers() & Qt::ControlModifier) {
    geometry_.zoomAround(std::pow(1.25, steps), event->position().x());
  } else {
    const double dx = event->angleDelta().x() != 0 ? -event->angleDelta().x() / 2.0 : -steps * 60;
    const double limit = std::max(0.0, geometry_.contentWidth(layout_.sequenceDuration) - width());
    geometry_.setScrollX(std::min(limit, geometry_.scrollX() + dx));
  }
  updateGeometry();
  update();
  event->accept();
}

// ---- Painting ------------------------------------------------------------------------------------

void TimelineCanvas::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  painter.fillRect(rect(), palette().color(QPalette::Base).darker(110));
  // The lanes' bands, so an empty lane still reads as a place to drop things.
  const double endX = std::min<double>(width(), geometry_.xForSequenceTime(layout_.sequenceDuration));
  const double startX = std::max(0.0, geometry_.xForSequenceTime(ProjectTime{0}));
  for (const TimelineLaneBand* band :
       {&Geometry::clips, &Geometry::zooms, &Geometry::captions, &Geometry::annotations, &Geometry::waveform})
    painter.fillRect(QRectF(startX, band->top + 1, std::max(0.0, endX - startX), band->height - 2),
                     palette().color(QPalette::Base).darker(104));
  paintRuler(painter);
  paintItems(painter);
  paintWaveform(painter);

  if (const auto skim = player_.skimTime()) {
    const double skimX = geometry_.xForSequenceTime(*skim);
    painter.setPen(QPen(QColor(230, 60, 60, 110), 1));
    painter.drawLine(QPointF(skimX, 0), QPointF(skimX, Geometry::totalHeight));
  }
  const double x = geometry_.xForSequenceTime(player_.currentTime());
  painter.setPen(QPen(QColor(230, 60, 60), 2));
  painter.drawLine(QPointF(x, 0), QPointF(x, Geometry::totalHeight));
}

void TimelineCanvas::paintRuler(QPainter& painter) {
  const TimelineLaneBand& band = Geometry::ruler;
  painter.fillRect(QRectF(0, band.top, width(), band.height), palette().color(QPalette::Window));
  // A labelled tick every 1, 2, 5, 10, 30 or 60 seconds, whichever first leaves room for a label.
  std::int64_t step = 1;
  for (const std::int64_t candidate : {1, 2, 5, 10, 30, 60, 120, 300}) {
    step = candidate;
    if (candidate * geometry_.pixelsPerSecondAtZoom() >= 48) break;
  }
  const std::int64_t lastSecond = layout_.sequenceDuration.nanoseconds / 1'000'000'000;
  painter.setPen(palette().color(QPalette::WindowText));
  for (std::int64_t second = 0; second <= lastSecond; second += step) {
    const double x = geometry_.xForSequenceTime(ProjectTime{second * 1'000'000'000});
    if (x < -60 || x > width() + 60) continue;
    painter.drawLine(QPointF(x, band.top + band.height - 6), QPointF(x, band.top + band.height));
    painter.drawText(QRectF(x + 2, band.top, 60, band.height - 4), Qt::AlignLeft | Qt::AlignVCenter,
                     clockLabel(second));
  }
}

void TimelineCanvas::paintItems(QPainter& painter) {
  const TimelineEditingSession& session = session_;
  for (const TimelineCanvasItem& item : layout_.items) {
    const double x0 = geometry_.xForSequenceTime(item.sequenceRange.start);
    const double x1 = geometry_.xForSequenceTime(item.sequenceRange.end());
    if (x1 < 0 || x0 > width()) continue;
    const TimelineLaneBand& band = Geometry::band(item.lane);
    const QRectF box = laneRect(band, x0 + 1, x1 - 1);
    QColor fill;
    QString label;
    bool selected = false;
    switch (item.lane) {
      case TimelineLane::clips:
        fill = QColor(64, 110, 200);
        selected = session.selectedSegmentID() == item.id;
        if (!item.playbackRate.isNormal()) label = multiplierLabel(item.playbackRate.multiplier());
        break;
      case TimelineLane::zooms:
        fill = QColor(150, 90, 200);
        selected = session.selectedZoomID() == item.id;
        for (const ZoomSegment& zoom : session.timeline().zooms)
          if (zoom.id == item.id) label = "Zoom " + multiplierLabel(zoom.scale);
        break;
      case TimelineLane::captions:
        fill = QColor(60, 150, 110);
        if (captions_ != nullptr) {
          selected = captions_->selectedCueID() == item.id;
          for (const CaptionCue& cue : captions_->document().cues)
            if (cue.id == item.id) label = QString::fromStdString(cue.text);
        }
        break;
      case TimelineLane::annotations:
        fill = QColor(210, 130, 50);
        selected = session.selectedAnnotationID() == item.id;
        for (const AnnotationElement& annotation : session.timeline().annotations)
          if (annotation.id == item.id)
            label = annotation.kind == AnnotationKind::text && annotation.textStyle
                        ? QString::fromStdString(annotation.textStyle->content)
                        : QString::fromUtf8(nameOf(annotation.kind).data(), nameOf(annotation.kind).size());
        break;
      default: break;
    }
    painter.setPen(selected ? QPen(QColor(255, 210, 60), 2) : QPen(fill.darker(140), 1));
    painter.setBrush(fill);
    painter.drawRoundedRect(box, 4, 4);
    if (item.lane == TimelineLane::clips && thumbnails_ != nullptr) paintThumbnails(painter, box, item);
    if (item.lane == TimelineLane::clips) {
      // The trim handles.
      painter.setBrush(QColor(255, 255, 255, selected ? 220 : 120));
      painter.setPen(Qt::NoPen);
      painter.drawRect(QRectF(box.left(), box.top() + 8, 3, box.height() - 16));
      painter.drawRect(QRectF(box.right() - 3, box.top() + 8, 3, box.height() - 16));
    }
    if (!label.isEmpty() && box.width() > 16) {
      painter.setPen(Qt::white);
      const QRectF text = box.adjusted(6, 0, -6, 0);
      painter.drawText(text, Qt::AlignLeft | Qt::AlignVCenter,
                       painter.fontMetrics().elidedText(label, Qt::ElideRight, static_cast<int>(text.width())));
    }
  }
}

void TimelineCanvas::paintThumbnails(QPainter& painter, const QRectF& box, const TimelineCanvasItem& clip) {
  const auto& thumbnails = thumbnails_->thumbnails();
  painter.save();
  QPainterPath rounded;
  rounded.addRoundedRect(box.adjusted(1, 1, -1, -1), 4, 4);
  painter.setClipPath(rounded);
  painter.setOpacity(0.85);
  for (std::size_t i = 0; i < thumbnails.size(); ++i) {
    const auto& thumbnail = thumbnails[i];
    // Each picture covers its own time until the next one's, within the clip it shows.
    const ProjectTime end = i + 1 < thumbnails.size() ? thumbnails[i + 1].sequenceTime : layout_.sequenceDuration;
    if (end <= clip.sequenceRange.start || thumbnail.sequenceTime >= clip.sequenceRange.end()) continue;
    const double x0 = std::max(box.left(), geometry_.xForSequenceTime(thumbnail.sequenceTime));
    const double x1 = std::min(box.right(), geometry_.xForSequenceTime(end));
    if (x1 <= x0 || thumbnail.image.isNull()) continue;
    const double height = box.height();
    const double width = height * thumbnail.image.width() / std::max(1, thumbnail.image.height());
    painter.save();
    painter.setClipRect(QRectF(x0, box.top(), x1 - x0, height), Qt::IntersectClip);
    painter.drawImage(QRectF(x0, box.top(), width, height), thumbnail.image);
    painter.restore();
  }
  painter.restore();
}

void TimelineCanvas::paintWaveform(QPainter& painter) {
  const TimelineLaneBand& band = Geometry::waveform;
  if (!waveform_ || waveform_->peaks.empty() || !mapper_) return;
  const TimelineMapper* mapper = mapper_.get();
  const double middle = band.top + band.height / 2;
  const double half = band.height / 2 - 2;
  painter.setPen(QPen(QColor(120, 200, 160), 1));
  const double firstX = std::max(0.0, geometry_.xForSequenceTime(ProjectTime{0}));
  const double lastX = std::min<double>(width(), geometry_.xForSequenceTime(layout_.sequenceDuration));
  for (double x = firstX; x < lastX; x += 1) {
    const auto mapped = mapper->mappedTimeForSequenceTime(geometry_.sequenceTimeForX(x));
    if (!mapped) continue;
    const auto bucket = static_cast<std::size_t>(mapped->sourceTime.nanoseconds / WaveformEnvelope::bucketNanoseconds);
    if (bucket >= waveform_->peaks.size()) continue;
    // Levels in decibels over the lowest 60 dB: speech and a faint hiss both stay readable.
    const double level = std::clamp((peakLevelDecibels(waveform_->peaks[bucket]) + 60) / 60, 0.0, 1.0);
    const double reach = std::max(0.5, half * level);
    painter.drawLine(QPointF(x, middle - reach), QPointF(x, middle + reach));
  }
}

}  // namespace vumo
