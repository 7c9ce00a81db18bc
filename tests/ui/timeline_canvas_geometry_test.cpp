#include "ui/timeline_canvas_geometry.h"

#include <gtest/gtest.h>

#include "captions/caption_document.h"
#include "support/builders.h"

namespace vumo {
namespace {

using namespace vumo::testing;

TEST(TimelineCanvasGeometry, TimeAndPixelsAtZoomAndScroll) {
  struct Case {
    double zoom, scroll;
    std::int64_t milliseconds;
    double x;
  };
  // x = 16 + seconds * 60 * zoom - scroll
  for (const Case& c : std::vector<Case>{{1, 0, 0, 16},
                                         {1, 0, 1'000, 76},
                                         {1, 0, 2'500, 166},
                                         {2, 0, 1'000, 136},
                                         {0.5, 0, 4'000, 136},
                                         {1, 30, 1'000, 46},
                                         {2, 100, 3'000, 276}}) {
    SCOPED_TRACE(::testing::Message() << "zoom " << c.zoom << " scroll " << c.scroll << " at " << c.milliseconds);
    const TimelineCanvasGeometry geometry(c.zoom, c.scroll);
    EXPECT_DOUBLE_EQ(geometry.xForSequenceTime(ms(c.milliseconds)), c.x);
    EXPECT_EQ(geometry.sequenceTimeForX(c.x), ms(c.milliseconds));
  }
}

TEST(TimelineCanvasGeometry, PointsSnapToTheSixtyFramesGridInsideTheSequence) {
  const TimelineCanvasGeometry geometry;
  const ProjectTime duration = ms(7'000);
  struct Case {
    double x;
    ProjectTime expected;
  };
  for (const Case& c : std::vector<Case>{
           {16, ns(0)},
           {0, ns(0)},                // left of the inset
           {17, ns(16'666'666)},      // one pixel is one frame at zoom 1
           {16.4, ns(0)},             // less than half a frame
           {16.6, ns(16'666'666)},    // more than half a frame
           {46, ns(500'000'000)},     // frame 30
           {100, ns(1'400'000'000)},  // frame 84
           {436, duration},           // the end
           {900, duration},           // beyond it
       }) {
    SCOPED_TRACE(c.x);
    EXPECT_EQ(geometry.snappedSequenceTimeForX(c.x, duration), c.expected);
  }
}

TEST(TimelineCanvasGeometry, MovesAreWholeFrames) {
  struct Case {
    double zoom, dx;
    ProjectTime expected;
  };
  for (const Case& c : std::vector<Case>{{1, 60, ms(1'000)},
                                         {1, -30, ns(-500'000'000)},
                                         {1, 0.4, ns(0)},
                                         {1, 1, ns(16'666'666)},
                                         {2, 60, ns(500'000'000)},
                                         {0.5, -60, ms(-2'000)}}) {
    SCOPED_TRACE(::testing::Message() << c.zoom << " " << c.dx);
    EXPECT_EQ(TimelineCanvasGeometry(c.zoom).sequenceDeltaForDX(c.dx), c.expected);
  }
}

TEST(TimelineCanvasGeometry, ZoomKeepsTheTimeUnderTheAnchorAndStaysWithinItsLimits) {
  TimelineCanvasGeometry geometry;
  geometry.zoomAround(2, 136);  // 2 s lies under x 136
  EXPECT_DOUBLE_EQ(geometry.zoom(), 2);
  EXPECT_DOUBLE_EQ(geometry.xForSequenceTime(ms(2'000)), 136);
  geometry.zoomAround(1000, 136);
  EXPECT_DOUBLE_EQ(geometry.zoom(), TimelineCanvasGeometry::maximumZoom);
  geometry.zoomAround(1e-9, 136);
  EXPECT_DOUBLE_EQ(geometry.zoom(), TimelineCanvasGeometry::minimumZoom);
  EXPECT_GE(geometry.scrollX(), 0) << "zooming out never scrolls before the start";
}

TEST(TimelineCanvasGeometry, LanesFromTopToBottom) {
  struct Case {
    double y;
    std::optional<TimelineLane> lane;
  };
  for (const Case& c : std::vector<Case>{{0, TimelineLane::ruler},
                                         {21.9, TimelineLane::ruler},
                                         {23, std::nullopt},
                                         {24, TimelineLane::clips},
                                         {79, TimelineLane::clips},
                                         {95, TimelineLane::zooms},
                                         {121, TimelineLane::captions},
                                         {147, TimelineLane::annotations},
                                         {180, TimelineLane::waveform},
                                         {-1, std::nullopt},
                                         {400, std::nullopt}}) {
    SCOPED_TRACE(c.y);
    EXPECT_EQ(TimelineCanvasGeometry::laneAt(c.y), c.lane);
  }
}

// A 10 s source cut at 4 s, the second clip at twice the speed: clip A plays [0, 4 s) at x 16...256,
// clip B the source [4 s, 10 s) in 3 s of sequence at x 256...436. Zoom 2, the cue and the
// annotation are in source time and land where the clips play them.
TEST(TimelineCanvasLayout, HitsHandlesBeforeBodiesInEveryLane) {
  EditTimeline timeline = EditTimeline::empty();
  const TimelineSegment a = clip(ms(0), ms(4'000));
  const TimelineSegment b = clip(ms(4'000), ms(10'000), 2000);
  timeline.segments = {a, b};
  const ZoomSegment zoom1 = zoomMs(1'000, 3'000);  // x 76...196
  const ZoomSegment zoom2 = zoomMs(5'000, 7'000);  // sequence 4.5...5.5 s: x 286...346
  timeline.zooms = {zoom1, zoom2};
  const AnnotationElement note = rectangle(ms(2'000), ms(3'000), 0);  // x 136...196
  timeline.annotations = {note};
  CaptionDocument captions;
  const CaptionCue cue{Uuid::random(), ms(6'000), ms(8'000), "Hello", {}, {}};  // sequence 5...6 s: x 316...376
  captions.cues = {cue};

  const auto layout = TimelineCanvasLayout::make(timeline, ms(10'000), &captions);
  ASSERT_EQ(layout.sequenceDuration, ms(7'000));
  ASSERT_NE(layout.clip(b.id), nullptr);
  EXPECT_EQ(layout.clip(b.id)->sequenceRange, rangeMs(4'000, 7'000));

  using K = TimelineHitKind;
  struct Case {
    double x, y;
    K kind;
    std::optional<Uuid> id;
  };
  const TimelineCanvasGeometry geometry;
  for (const Case& c : std::vector<Case>{
           {100, 52, K::segment, a.id},       {18, 52, K::segmentStart, a.id},
           {254, 52, K::segmentEnd, a.id},  // the cut: the side the point lies in wins
           {256, 52, K::segmentStart, b.id},  {258, 52, K::segmentStart, b.id},
           {300, 52, K::segment, b.id},       {439, 52, K::segmentEnd, b.id},  // just past the end, still within reach
           {500, 52, K::none, std::nullopt},  {136, 95, K::zoom, zoom1.id},
           {78, 95, K::zoomStart, zoom1.id},  {290, 95, K::zoomStart, zoom2.id},
           {316, 95, K::zoom, zoom2.id},      {346, 121, K::cue, cue.id},
           {374, 121, K::cueEnd, cue.id},     {166, 147, K::annotation, note.id},
           {250, 147, K::none, std::nullopt}, {100, 10, K::ruler, std::nullopt},
           {100, 180, K::none, std::nullopt},  // the waveform is not an item
           {100, 300, K::none, std::nullopt},
       }) {
    SCOPED_TRACE(::testing::Message() << "x " << c.x << " y " << c.y);
    const TimelineCanvasHit hit = layout.hitTest(geometry, c.x, c.y);
    EXPECT_EQ(hit.kind, c.kind);
    EXPECT_EQ(hit.id, c.id);
  }
  EXPECT_EQ(layout.hitTest(geometry, 100, 10).sequenceTime, ns(1'400'000'000));
  EXPECT_EQ(layout.hitTest(geometry, 500, 52).sequenceTime, ms(7'000));
}

TEST(TimelineCanvasLayout, ARefusedTimelineLaysOutEmpty) {
  EditTimeline timeline = timelineWith({{0, 4'000}});
  const auto layout = TimelineCanvasLayout::make(timeline, ms(2'000), nullptr);  // clips past the source
  EXPECT_TRUE(layout.items.empty());
  EXPECT_EQ(layout.hitTest(TimelineCanvasGeometry(), 100, 52).kind, TimelineHitKind::none);
}

}  // namespace
}  // namespace vumo
