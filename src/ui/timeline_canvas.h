#pragma once

// The editor's timeline: clips with their speed, trim handles, zooms, captions, annotations, the
// waveform, the ruler and the playhead, painted by hand and driven by the pointer. Every edit goes
// through the editing sessions (a drag is one gesture there, so one undo step); where things are
// comes from TimelineCanvasGeometry, so tests and the screen agree on every pixel.

#include <QWidget>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "analysis/waveform_envelope.h"
#include "ui/timeline_canvas_geometry.h"

namespace vumo {

class CaptionEditingSession;
class EditorPlayer;
class TimelineCanvasThumbnails;
class TimelineEditingSession;

class TimelineCanvas final : public QWidget {
  Q_OBJECT

 public:
  // Pixels left of sequence time zero.
  static constexpr int leftInset = TimelineCanvasGeometry::leftInset;
  // Pixels per second of sequence time at zoom 1.
  static constexpr double pixelsPerSecond = TimelineCanvasGeometry::pixelsPerSecond;

  TimelineCanvas(TimelineEditingSession& session, EditorPlayer& player, QWidget* parent = nullptr);
  ~TimelineCanvas() override;

  // The caption session, or none while the project has no captions.
  void setCaptionSession(CaptionEditingSession* captions);
  // The envelope the waveform lane draws (source time, 20 ms a peak).
  void setWaveform(WaveformEnvelope envelope);
  bool hasWaveform() const { return waveform_.has_value(); }
  // Pictures along the clips, or none; borrowed.
  void setThumbnails(const TimelineCanvasThumbnails* thumbnails);
  const TimelineCanvasThumbnails* thumbnails() const { return thumbnails_; }

  // The timeline or the captions changed: lay out again and repaint.
  void refresh();
  // The playhead moved: repaint.
  void playheadMoved() { update(); }

  const TimelineCanvasGeometry& geometry() const { return geometry_; }
  const TimelineCanvasLayout& layout() const { return layout_; }

  QSize sizeHint() const override;

 signals:
  // A press or a drag's end may have changed a selection or a document that has no hook of its own
  // (the caption session's).
  void interacted();

 public:
  QSize minimumSizeHint() const override;

 protected:
  void paintEvent(QPaintEvent* event) override;
  void mousePressEvent(QMouseEvent* event) override;
  void mouseMoveEvent(QMouseEvent* event) override;
  void mouseReleaseEvent(QMouseEvent* event) override;
  void leaveEvent(QEvent* event) override;
  void wheelEvent(QWheelEvent* event) override;

 private:
  struct Drag;

  void dragTo(double x);
  void endDrag();
  std::optional<std::int64_t> pointerSourceTime(double x) const;
  void paintRuler(class QPainter& painter);
  void paintItems(class QPainter& painter);
  void paintWaveform(class QPainter& painter);
  void paintThumbnails(class QPainter& painter, const QRectF& box, const TimelineCanvasItem& clip);

  TimelineEditingSession& session_;
  EditorPlayer& player_;
  CaptionEditingSession* captions_ = nullptr;
  TimelineCanvasGeometry geometry_;
  TimelineCanvasLayout layout_;
  // The mapper of the timeline laid out last, for painting; none for a timeline it refuses.
  std::shared_ptr<const class TimelineMapper> mapper_;
  std::optional<WaveformEnvelope> waveform_;
  const TimelineCanvasThumbnails* thumbnails_ = nullptr;
  std::unique_ptr<Drag> drag_;
};

}  // namespace vumo
