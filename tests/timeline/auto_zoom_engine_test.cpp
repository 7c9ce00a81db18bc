#include "timeline/auto_zoom_engine.h"

#include <gtest/gtest.h>

#include <cstdint>

#include "support/builders.h"
#include "timeline/initial_timeline.h"
#include "timeline/timeline_effect_engine.h"
#include "timeline/timeline_validator.h"

namespace vumo {
namespace {

using namespace vumo::testing;

MouseEvent press(ProjectTime time, double x, double y, MouseButton button = MouseButton::left,
                 MousePhase phase = MousePhase::down, std::optional<bool> inside = std::nullopt) {
  MouseEvent event;
  event.time = time;
  event.normalizedPoint = {x, y};
  event.globalPoint = {x * 1920, y * 1080};
  event.localPoint = event.globalPoint;
  event.button = button;
  event.phase = phase;
  event.isInsideSource = inside;
  return event;
}

std::vector<ZoomSegment> zoomsFor(const std::vector<MouseEvent>& events, ProjectTime duration = ms(10'000)) {
  return AutoZoomEngine::standard().makeSegments(events, duration);
}

const double edge = 0.5 / 1.7;

TEST(AutoZoomEngineTest, StandardSettings) {
  AutoZoomEngine engine = AutoZoomEngine::standard();
  EXPECT_EQ(engine.clusterGap, ms(1'200));
  EXPECT_EQ(engine.clusterDistance, 0.12);
  EXPECT_EQ(engine.scale, 1.7);
  EXPECT_EQ(engine.leadIn, ms(650));
  EXPECT_EQ(engine.hold, ms(1'600));
  EXPECT_EQ(engine.zoomOut, ms(500));
}

TEST(AutoZoomEngineTest, OnlyLeftPressesCount) {
  EXPECT_TRUE(zoomsFor({}).empty());
  EXPECT_TRUE(zoomsFor({press(ms(1'000), 0.5, 0.5, MouseButton::right), press(ms(2'000), 0.5, 0.5, MouseButton::other),
                        press(ms(3'000), 0.5, 0.5, MouseButton::left, MousePhase::up),
                        press(ms(4'000), 0.5, 0.5, MouseButton::left, MousePhase::moved),
                        press(ms(5'000), 0.5, 0.5, MouseButton::left, MousePhase::dragged)})
                  .empty());
}

TEST(AutoZoomEngineTest, OneClickGivesRampHoldAndRampOut) {
  auto zooms = zoomsFor({press(ms(3'000), 0.5, 0.4)});
  ASSERT_EQ(zooms.size(), 1u);
  EXPECT_EQ(zooms[0].startTime, ms(2'350));
  EXPECT_EQ(zooms[0].focusTime, ms(3'000));
  EXPECT_EQ(zooms[0].holdEndTime, ms(4'600));
  EXPECT_EQ(zooms[0].endTime, ms(5'100));
  EXPECT_EQ(zooms[0].scale, 1.7);
  EXPECT_EQ(zooms[0].focusPoint, (PointValue{0.5, 0.4}));
}

TEST(AutoZoomEngineTest, ClicksAtTheEdgesOfTheRecording) {
  auto atStart = zoomsFor({press(ms(0), 0.5, 0.5)});
  ASSERT_EQ(atStart.size(), 1u);
  EXPECT_EQ(atStart[0].startTime, ms(0));
  EXPECT_EQ(atStart[0].focusTime, ms(0));  // no ramp in: the film starts zoomed

  auto nearEnd = zoomsFor({press(ms(9'000), 0.5, 0.5)});
  ASSERT_EQ(nearEnd.size(), 1u);
  EXPECT_EQ(nearEnd[0].holdEndTime, ms(10'000));
  EXPECT_EQ(nearEnd[0].endTime, ms(10'000));

  // The clock can stamp a click just after the last frame; the zoom still validates.
  auto late = zoomsFor({press(ms(10'300), 0.5, 0.5)});
  ASSERT_EQ(late.size(), 1u);
  EXPECT_EQ(late[0].startTime, ms(9'650));
  EXPECT_EQ(late[0].focusTime, ms(10'000));
  EXPECT_TRUE(zoomsFor({press(ms(10'700), 0.5, 0.5)}).empty());
}

TEST(AutoZoomEngineTest, ClusterGapIsInclusive) {
  auto together = zoomsFor({press(ms(1'000), 0.5, 0.5), press(ms(2'200), 0.5, 0.5)});
  ASSERT_EQ(together.size(), 1u);
  EXPECT_EQ(together[0].focusTime, ms(1'000));
  EXPECT_EQ(together[0].holdEndTime, ms(3'800));

  auto apart = zoomsFor({press(ms(1'000), 0.5, 0.5), press(ms(2'200) + ns(1), 0.5, 0.5)});
  ASSERT_EQ(apart.size(), 2u);
  EXPECT_EQ(apart[0].endTime, apart[1].startTime);
  EXPECT_EQ(apart[1].startTime, ms(1'550) + ns(1));
}

TEST(AutoZoomEngineTest, DistantClicksSplitAndTheEarlierZoomIsCutDown) {
  auto zooms = zoomsFor({press(ms(1'000), 0.4, 0.5), press(ms(1'100), 0.53, 0.5)});
  ASSERT_EQ(zooms.size(), 2u);
  EXPECT_EQ(zooms[0].startTime, ms(350));
  EXPECT_EQ(zooms[0].endTime, ms(450));
  EXPECT_EQ(zooms[0].focusTime, ms(450));
  EXPECT_EQ(zooms[0].holdEndTime, ms(450));
  EXPECT_EQ(zooms[0].focusPoint, (PointValue{0.4, 0.5}));
  EXPECT_EQ(zooms[1].startTime, ms(450));
  EXPECT_EQ(zooms[1].focusTime, ms(1'100));
  EXPECT_NE(zooms[0].id, zooms[1].id);
}

TEST(AutoZoomEngineTest, SlowDriftStaysOneClusterFocusedOnTheLastClick) {
  std::vector<MouseEvent> drift;
  for (int i = 0; i < 5; ++i) drift.push_back(press(ms(1'000 + 1'000 * i), 0.3 + 0.11 * i, 0.5));
  auto zooms = zoomsFor(drift);
  ASSERT_EQ(zooms.size(), 1u);
  EXPECT_EQ(zooms[0].focusTime, ms(1'000));
  EXPECT_EQ(zooms[0].holdEndTime, ms(6'600));
  EXPECT_DOUBLE_EQ(zooms[0].focusPoint.x, 1 - edge);  // 0.74 is clamped
}

TEST(AutoZoomEngineTest, FocusIsClampedSoTheZoomedViewStaysInTheFrame) {
  auto corner = zoomsFor({press(ms(1'000), 0, 0)});
  EXPECT_EQ(corner[0].focusPoint, (PointValue{edge, edge}));
  EXPECT_NEAR(edge, 0.2941, 1e-4);
  auto other = zoomsFor({press(ms(1'000), 1, 1)});
  EXPECT_EQ(other[0].focusPoint, (PointValue{1 - edge, 1 - edge}));

  AutoZoomEngine flat = AutoZoomEngine::standard();
  flat.scale = 1;
  EXPECT_EQ(flat.makeSegments({press(ms(1'000), 0.1, 0.9)}, ms(10'000))[0].focusPoint, (PointValue{0.5, 0.5}));
}

TEST(AutoZoomEngineTest, EventsAreOrderedByTimeFirst) {
  auto zooms = zoomsFor({press(ms(5'000), 0.8, 0.5), press(ms(1'000), 0.4, 0.5), press(ms(1'500), 0.45, 0.5)});
  ASSERT_EQ(zooms.size(), 2u);
  EXPECT_EQ(zooms[0].focusTime, ms(1'000));
  EXPECT_EQ(zooms[0].focusPoint, (PointValue{0.45, 0.5}));
  EXPECT_EQ(zooms[1].focusTime, ms(5'000));
}

TEST(AutoZoomEngineTest, ASliverLeftByShorteningIsDropped) {
  // Two far-apart clicks 5 ms apart: the first zoom would keep only 5 ms.
  auto zooms = zoomsFor({press(ms(1'000), 0.3, 0.3), press(ms(1'005), 0.7, 0.7)});
  ASSERT_EQ(zooms.size(), 1u);
  EXPECT_EQ(zooms[0].focusTime, ms(1'005));
}

TEST(AutoZoomEngineTest, WhateverTheClicksTheZoomsPassValidation) {
  std::uint64_t state = 0x9E3779B97F4A7C15ULL;
  auto next = [&state] {
    state = state * 6364136223846793005ULL + 1442695040888963407ULL;
    return static_cast<double>(state >> 11) / 9007199254740992.0;
  };
  for (int round = 0; round < 50; ++round) {
    std::vector<MouseEvent> events;
    std::int64_t time = 0;
    for (int i = 0; i < 60; ++i) {
      time += static_cast<std::int64_t>(next() * 2'000'000'000);
      events.push_back(press({time - 500'000'000}, next() * 1.2 - 0.1, next() * 1.2 - 0.1));
    }
    ProjectTime duration{std::max<std::int64_t>(time - static_cast<std::int64_t>(next() * 3e9), 1'000'000'000)};
    EditTimeline timeline = timelineOf({clip(ms(0), duration)});
    auto zooms = zoomsFor(events, duration);
    EXPECT_NO_THROW(TimelineEffectEngine::replaceZooms(timeline, zooms, duration)) << "round " << round;
  }
}

// --- The first timeline of a recording --------------------------------------------------------------

TEST(InitialTimelineTest, OneWholeClipAndDefaultsEverywhereElse) {
  EditTimeline timeline = makeInitialTimeline(ms(12'345), std::nullopt, {});
  ASSERT_EQ(timeline.segments.size(), 1u);
  EXPECT_EQ(timeline.segments[0].sourceRange, span(ms(0), ms(12'345)));
  EXPECT_TRUE(timeline.segments[0].playbackRate.isNormal());
  EXPECT_FALSE(timeline.webcamOverlay);

  EditTimeline expected = EditTimeline::empty();
  expected.segments = timeline.segments;
  EXPECT_EQ(timeline, expected);
  EXPECT_EQ(timeline.schemaVersion, 8);
  EXPECT_NO_THROW(TimelineValidator::validate(timeline, ms(12'345)));
}

TEST(InitialTimelineTest, CameraOverlayKeepsItsStyleButStartsBottomLeft) {
  WebcamOverlay chosen = WebcamOverlay::defaultValue();
  chosen.center = {0.5, 0.1};
  chosen.diameter = 0.3;
  chosen.isMirrored = false;
  chosen.aspectRatio = WebcamAspectRatio::source;
  chosen.borderWidthAt1080p = 4;
  EditTimeline timeline = makeInitialTimeline(ms(5'000), chosen, {});
  ASSERT_TRUE(timeline.webcamOverlay);
  WebcamOverlay expected = chosen;
  expected.center = {0.14, 0.8};
  EXPECT_EQ(*timeline.webcamOverlay, expected);
  EXPECT_TRUE(timeline.webcamKeyframes.empty());
  EXPECT_NO_THROW(TimelineValidator::validate(timeline, ms(5'000)));
}

TEST(InitialTimelineTest, ZoomsComeOnlyFromClicksInsideTheCapturedArea) {
  std::vector<MouseEvent> events = {
      press(ms(1'000), 0.2, 0.2, MouseButton::left, MousePhase::down, false),
      press(ms(4'000), 0.5, 0.5, MouseButton::left, MousePhase::down, std::nullopt),
      press(ms(8'000), 0.8, 0.8, MouseButton::left, MousePhase::down, true),
  };
  EditTimeline timeline = makeInitialTimeline(ms(10'000), std::nullopt, events);
  ASSERT_EQ(timeline.zooms.size(), 2u);
  EXPECT_EQ(timeline.zooms[0].focusTime, ms(4'000));
  EXPECT_EQ(timeline.zooms[1].focusTime, ms(8'000));
  EXPECT_NO_THROW(TimelineValidator::validate(timeline, ms(10'000)));
}

}  // namespace
}  // namespace vumo
