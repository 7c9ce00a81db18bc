#pragma once

// Where things are on the timeline canvas, without Qt: the mapping between sequence time and
// horizontal pixels at a zoom and scroll, the lanes from top to bottom, and what lies under a
// point. The canvas paints and hit-tests through this alone, so a click in a test lands where a
// person's click would.

#include <optional>
#include <vector>

#include "shared/project_time.h"
#include "shared/uuid.h"
#include "timeline/edit_timeline.h"

namespace vumo {

struct CaptionDocument;

enum class TimelineLane { ruler, clips, zooms, captions, annotations, waveform };

// A lane's vertical band in widget pixels, the top included and the bottom excluded.
struct TimelineLaneBand {
  TimelineLane lane;
  double top = 0;
  double height = 0;
  bool contains(double y) const { return y >= top && y < top + height; }
};

// What a point on the canvas touches. The `...Start`/`...End` kinds are the trim handles at an
// item's edges; a handle wins over the body it sits on.
enum class TimelineHitKind {
  none,
  ruler,
  segment,
  segmentStart,
  segmentEnd,
  zoom,
  zoomStart,
  zoomEnd,
  cue,
  cueStart,
  cueEnd,
  annotation,
  annotationStart,
  annotationEnd,
};

struct TimelineCanvasHit {
  TimelineHitKind kind = TimelineHitKind::none;
  std::optional<Uuid> id;
  // The snapped sequence time under the point.
  ProjectTime sequenceTime;
  friend bool operator==(const TimelineCanvasHit&, const TimelineCanvasHit&) = default;
};

class TimelineCanvasGeometry {
 public:
  // Pixels left of sequence time zero, so the first clip's start handle can be grabbed.
  static constexpr int leftInset = 16;
  // At zoom 1, one second of sequence time is this many pixels wide.
  static constexpr double pixelsPerSecond = 60;
  static constexpr double minimumZoom = 0.125;
  static constexpr double maximumZoom = 16;
  // How far from an item's edge (either side) a press grabs the handle.
  static constexpr double handleReach = 5;

  // The lanes, top to bottom.
  static constexpr TimelineLaneBand ruler{TimelineLane::ruler, 0, 22};
  static constexpr TimelineLaneBand clips{TimelineLane::clips, 24, 56};
  static constexpr TimelineLaneBand zooms{TimelineLane::zooms, 84, 22};
  static constexpr TimelineLaneBand captions{TimelineLane::captions, 110, 22};
  static constexpr TimelineLaneBand annotations{TimelineLane::annotations, 136, 22};
  static constexpr TimelineLaneBand waveform{TimelineLane::waveform, 162, 40};
  static constexpr double totalHeight = 206;

  explicit TimelineCanvasGeometry(double zoom = 1, double scrollX = 0);

  double zoom() const { return zoom_; }
  double scrollX() const { return scrollX_; }
  double pixelsPerSecondAtZoom() const { return pixelsPerSecond * zoom_; }
  // Clamped to the zoom limits.
  void setZoom(double zoom);
  void setScrollX(double scrollX) { scrollX_ = scrollX < 0 ? 0 : scrollX; }
  // Zooms by `factor` keeping the time under `anchorX` where it is.
  void zoomAround(double factor, double anchorX);

  double xForSequenceTime(ProjectTime sequenceTime) const;
  // Exact (unsnapped, unclamped) time under `x`.
  ProjectTime sequenceTimeForX(double x) const;
  // The 60 fps grid line nearest to `x`, kept inside [0, duration].
  ProjectTime snappedSequenceTimeForX(double x, ProjectTime duration) const;
  // The sequence time a horizontal move of `dx` pixels stands for, snapped to whole grid frames.
  ProjectTime sequenceDeltaForDX(double dx) const;
  // Width the whole sequence needs, the inset on both sides included.
  double contentWidth(ProjectTime duration) const;

  static std::optional<TimelineLane> laneAt(double y);
  static const TimelineLaneBand& band(TimelineLane lane);

 private:
  double zoom_;
  double scrollX_;
};

// One drawn piece: a clip, or the part of a zoom, cue or annotation that some clip plays. Items
// in source time that span a cut are drawn as one piece per clip that shows them.
struct TimelineCanvasItem {
  TimelineLane lane = TimelineLane::clips;
  Uuid id;
  ProjectTimeRange sequenceRange;
  ProjectTimeRange sourceRange;       // the whole item's source range
  TimelinePlaybackRate playbackRate;  // clips only
  friend bool operator==(const TimelineCanvasItem&, const TimelineCanvasItem&) = default;
};

// The pieces of one timeline (and caption document), laid out in sequence time by the timeline
// mapper. A timeline the mapper refuses lays out as empty.
struct TimelineCanvasLayout {
  ProjectTime sequenceDuration;
  std::vector<TimelineCanvasItem> items;

  static TimelineCanvasLayout make(const EditTimeline& timeline, ProjectTime sourceDuration,
                                   const CaptionDocument* captions);

  // Handles first (the nearest edge within reach), then bodies; the ruler and empty lane space
  // answer with the time alone.
  TimelineCanvasHit hitTest(const TimelineCanvasGeometry& geometry, double x, double y) const;

  // The clip piece of `id`, if laid out.
  const TimelineCanvasItem* clip(const Uuid& id) const;
};

}  // namespace vumo
