#include "timeline/timeline_effect_engine.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>

#include "support/builders.h"
#include "support/test_support.h"
#include "timeline/timeline_validator.h"

namespace vumo {
namespace {

using namespace vumo::testing;
using EffectCase = TimelineEffectError::Case;

const ProjectTime source = ms(10'000);

void expectEffectError(const std::function<void()>& action, EffectCase expected) {
  EXPECT_EQ(testing::thrownCase<TimelineEffectError>(action), expected);
}

EditTimeline withCamera() {
  EditTimeline timeline = timelineOf({clip(ms(0), ms(10'000))});
  timeline.webcamOverlay = WebcamOverlay::defaultValue();
  return timeline;
}

WebcamOverlayKeyframe keyframe(ProjectTime time, PointValue center, double diameter) {
  return {Uuid::random(), time, center, diameter};
}

// --- Validation ------------------------------------------------------------------------------------

TEST(TimelineEffectValidationTest, EachZoomRuleRejectsItsOwnFault) {
  const double edge = 0.5 / 2.0;
  struct Case {
    const char* name;
    std::function<void(ZoomSegment&)> spoil;
  };
  const std::vector<Case> cases = {
      {"negative start", [](ZoomSegment& z) { z.startTime = ms(-1); }},
      {"end beyond the source", [](ZoomSegment& z) { z.endTime = source + ns(1); }},
      {"shorter than a frame",
       [](ZoomSegment& z) {
         z.endTime = z.startTime + frame(1) - ns(1);
         z.holdEndTime = z.focusTime = z.startTime;
       }},
      {"focus before start", [](ZoomSegment& z) { z.focusTime = z.startTime - ns(1); }},
      {"hold end before focus", [](ZoomSegment& z) { z.holdEndTime = z.focusTime - ns(1); }},
      {"hold end after end", [](ZoomSegment& z) { z.holdEndTime = z.endTime + ns(1); }},
      {"scale below 1", [](ZoomSegment& z) { z.scale = 0.99; }},
      {"scale above 3", [](ZoomSegment& z) { z.scale = 3.01; }},
      {"scale not finite", [](ZoomSegment& z) { z.scale = NAN; }},
      {"focus one bit outside its clamp",
       [edge](ZoomSegment& z) {
         z.focusPoint = {std::nextafter(edge, 0.0), 0.5};
       }},
      {"scale 1 away from the centre",
       [](ZoomSegment& z) {
         z.scale = 1;
         z.focusPoint = {0.4, 0.5};
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EditTimeline timeline = timelineOf({clip(ms(0), ms(10'000))});
    ZoomSegment good = zoom(ms(1'000), ms(1'500), ms(3'000), ms(4'000), 2.0, {edge, 0.5});
    EXPECT_NO_THROW(TimelineValidator::validateEffectTracks(timelineOf({clip(ms(0), ms(10'000))}), source));
    c.spoil(good);
    timeline.zooms = {good};
    expectEffectError([&] { TimelineValidator::validateEffectTracks(timeline, source); }, EffectCase::zoomRangeInvalid);
  }
}

TEST(TimelineEffectValidationTest, ZoomsMayTouchButNotOverlapOrShareIds) {
  EditTimeline timeline = timelineOf({clip(ms(0), ms(10'000))});
  ZoomSegment first = zoom(ms(1'000), ms(1'500), ms(2'000), ms(3'000));
  ZoomSegment second = zoom(ms(3'000), ms(3'500), ms(4'000), ms(5'000));
  timeline.zooms = {second, first};  // stored order does not matter
  EXPECT_NO_THROW(TimelineValidator::validateEffectTracks(timeline, source));

  second.startTime = ms(3'000) - ns(1);
  timeline.zooms = {first, second};
  expectEffectError([&] { TimelineValidator::validateEffectTracks(timeline, source); }, EffectCase::zoomOverlap);

  ZoomSegment twin = zoom(ms(6'000), ms(6'500), ms(7'000), ms(8'000));
  twin.id = first.id;
  timeline.zooms = {first, twin};
  expectEffectError([&] { TimelineValidator::validateEffectTracks(timeline, source); }, EffectCase::zoomRangeInvalid);
}

TEST(TimelineEffectValidationTest, FullscreenSegmentsNeedACameraTwoFramesAndNoOverlap) {
  EditTimeline timeline = withCamera();
  timeline.webcamFullscreenSegments = {{Uuid::random(), ms(1'000), ms(1'000) + frame(2)}};
  EXPECT_NO_THROW(TimelineValidator::validateEffectTracks(timeline, source));

  EditTimeline noCamera = timeline;
  noCamera.webcamOverlay.reset();
  expectEffectError([&] { TimelineValidator::validateEffectTracks(noCamera, source); },
                    EffectCase::webcamFullscreenRangeInvalid);

  EditTimeline tooShort = timeline;
  tooShort.webcamFullscreenSegments[0].endTime = ms(1'000) + frame(2) - ns(1);
  expectEffectError([&] { TimelineValidator::validateEffectTracks(tooShort, source); },
                    EffectCase::webcamFullscreenRangeInvalid);

  EditTimeline beyond = timeline;
  beyond.webcamFullscreenSegments = {{Uuid::random(), ms(9'000), source + ns(1)}};
  expectEffectError([&] { TimelineValidator::validateEffectTracks(beyond, source); },
                    EffectCase::webcamFullscreenRangeInvalid);

  EditTimeline overlapping = timeline;
  overlapping.webcamFullscreenSegments.push_back({Uuid::random(), ms(1'020), ms(2'000)});
  expectEffectError([&] { TimelineValidator::validateEffectTracks(overlapping, source); },
                    EffectCase::webcamFullscreenOverlap);
}

TEST(TimelineEffectValidationTest, KeyframesMustBeInsideUniqueAndWellFormed) {
  struct Case {
    const char* name;
    std::vector<WebcamOverlayKeyframe> keyframes;
    std::optional<EffectCase> expected;
  };
  WebcamOverlayKeyframe a = keyframe(ms(1'000), {0.5, 0.5}, 0.2);
  WebcamOverlayKeyframe sameId = keyframe(ms(2'000), {0.5, 0.5}, 0.2);
  sameId.id = a.id;
  const std::vector<Case> cases = {
      {"valid", {a, keyframe(ms(0), {0, 1}, 0.1), keyframe(source - ns(1), {1, 0}, 0.4)}, std::nullopt},
      {"at the source end", {keyframe(source, {0.5, 0.5}, 0.2)}, EffectCase::keyframeOutsideSource},
      {"negative time", {keyframe(ms(-1), {0.5, 0.5}, 0.2)}, EffectCase::keyframeOutsideSource},
      {"same time, other id", {a, keyframe(ms(1'000), {0.3, 0.3}, 0.3)}, EffectCase::keyframeInvalid},
      {"same id, other time", {a, sameId}, EffectCase::keyframeInvalid},
      {"diameter too large", {keyframe(ms(1'000), {0.5, 0.5}, 0.41)}, EffectCase::keyframeInvalid},
      {"diameter not finite", {keyframe(ms(1'000), {0.5, 0.5}, NAN)}, EffectCase::keyframeInvalid},
      {"centre off the frame", {keyframe(ms(1'000), {1.01, 0.5}, 0.2)}, EffectCase::keyframeInvalid},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EditTimeline timeline = withCamera();
    timeline.webcamKeyframes = c.keyframes;
    if (c.expected)
      expectEffectError([&] { TimelineValidator::validateEffectTracks(timeline, source); }, *c.expected);
    else
      EXPECT_NO_THROW(TimelineValidator::validateEffectTracks(timeline, source));
  }
}

// --- Zoom edits ------------------------------------------------------------------------------------

TEST(TimelineEffectZoomEditTest, MovingTheStartKeepsTheRampsWhereTheyFit) {
  EditTimeline timeline = timelineOf({clip(ms(0), ms(10'000))});
  timeline.zooms = {zoom(ms(2'000), ms(2'500), ms(4'000), ms(5'000))};
  EditTimeline result = TimelineEffectEngine::updateZoomStart(timeline, timeline.zooms[0].id, ms(1'003), source);
  const ZoomSegment& z = result.zooms[0];
  EXPECT_EQ(z.startTime, ms(1'000));
  EXPECT_EQ(z.focusTime, ms(1'500));
  EXPECT_EQ(z.holdEndTime, ms(4'000));
  EXPECT_EQ(z.endTime, ms(5'000));
  EXPECT_EQ(z.id, timeline.zooms[0].id);
}

TEST(TimelineEffectZoomEditTest, ShorteningBelowTheRampsScalesThemInProportion) {
  EditTimeline timeline = timelineOf({clip(ms(0), ms(10'000))});
  timeline.zooms = {zoom(ms(1'000), ms(1'500), ms(3'000), ms(4'000))};  // lead 0.5 s, tail 1 s
  EditTimeline result = TimelineEffectEngine::updateZoomStart(timeline, timeline.zooms[0].id, ms(3'500), source);
  const ZoomSegment& z = result.zooms[0];
  EXPECT_EQ(z.startTime, ms(3'500));
  EXPECT_EQ(z.focusTime, ms(3'500) + ns(166'666'667));
  EXPECT_EQ(z.holdEndTime, ms(4'000) - ns(333'333'333));
  EXPECT_LE(z.focusTime, z.holdEndTime);

  // Pulling the start past the end stops one grid frame before it.
  EditTimeline squeezed = TimelineEffectEngine::updateZoomStart(timeline, timeline.zooms[0].id, ms(9'000), source);
  const ZoomSegment& s = squeezed.zooms[0];
  EXPECT_EQ(s.startTime, frame(239));
  EXPECT_LE(s.startTime, s.focusTime);
  EXPECT_LE(s.focusTime, s.holdEndTime);
  EXPECT_LE(s.holdEndTime, s.endTime);
}

TEST(TimelineEffectZoomEditTest, EdgesStopAtTheNeighbours) {
  EditTimeline timeline = timelineOf({clip(ms(0), ms(10'000))});
  ZoomSegment before = zoom(ms(0), ms(200), ms(400), ms(500) + ns(3));  // ends off the grid
  ZoomSegment middle = zoom(ms(2'000), ms(2'200), ms(3'000), ms(3'500));
  ZoomSegment after = zoom(ms(6'000) + ns(5), ms(6'500), ms(7'000), ms(7'500));
  timeline.zooms = {before, middle, after};

  EditTimeline earlier = TimelineEffectEngine::updateZoomStart(timeline, middle.id, ms(0), source);
  EXPECT_EQ(earlier.zooms[1].startTime, TimelineFrameGrid::ceilingBoundary(before.endTime));
  EXPECT_GT(earlier.zooms[1].startTime, before.endTime);

  EditTimeline later = TimelineEffectEngine::updateZoomEnd(timeline, middle.id, ms(9'000), source);
  EXPECT_EQ(later.zooms[1].endTime, ms(6'000));
  EXPECT_EQ(later.zooms[1].holdEndTime, ms(5'500));  // the ramp out keeps its 0.5 s

  EditTimeline last = TimelineEffectEngine::updateZoomEnd(timeline, after.id, ms(12'000), source);
  EXPECT_EQ(last.zooms[2].endTime, source);

  EditTimeline shortest = TimelineEffectEngine::updateZoomEnd(timeline, middle.id, ms(0), source);
  EXPECT_EQ(shortest.zooms[1].endTime, TimelineFrameGrid::ceilingBoundary(ms(2'000) + frame(1)));
  EXPECT_LE(shortest.zooms[1].focusTime, shortest.zooms[1].holdEndTime);

  expectEffectError([&] { TimelineEffectEngine::updateZoomEnd(timeline, Uuid::random(), ms(1'000), source); },
                    EffectCase::zoomNotFound);
}

TEST(TimelineEffectZoomEditTest, ExtremeRequestsAreClampedToTheNeighbours) {
  EditTimeline timeline = timelineOf({clip(ms(0), ms(10'000))});
  timeline.zooms = {zoom(ms(2'000), ms(2'500), ms(4'000), ms(5'000))};
  const Uuid id = timeline.zooms[0].id;
  EXPECT_EQ(TimelineEffectEngine::updateZoomStart(timeline, id, ns(INT64_MIN), source).zooms[0].startTime, ms(0));
  EXPECT_EQ(TimelineEffectEngine::updateZoomEnd(timeline, id, ns(INT64_MAX), source).zooms[0].endTime, source);

  EditTimeline camera = withCamera();
  expectEffectError(
      [&] {
        TimelineEffectEngine::addWebcamFullscreen(camera, {ms(1'000), ns(INT64_MAX)}, source);
      },
      EffectCase::webcamFullscreenRangeInvalid);
  expectEffectError(
      [&] {
        TimelineEffectEngine::addWebcamFullscreen(camera, {ns(INT64_MIN), ms(1'000)}, source);
      },
      EffectCase::webcamFullscreenRangeInvalid);
  camera = TimelineEffectEngine::addWebcamFullscreen(camera, span(ms(1'000), ms(2'000)), source);
  EXPECT_EQ(TimelineEffectEngine::updateWebcamFullscreenEnd(camera, camera.webcamFullscreenSegments[0].id,
                                                            ns(INT64_MAX), source)
                .webcamFullscreenSegments[0]
                .endTime,
            source);
}

TEST(TimelineEffectZoomEditTest, ScaleAndFocusAreClampedSoTheViewStaysInTheFrame) {
  EditTimeline timeline = timelineOf({clip(ms(0), ms(10'000))});
  timeline.zooms = {zoom(ms(1'000), ms(1'500), ms(3'000), ms(4'000), 2.0, {0.25, 0.75})};
  const Uuid id = timeline.zooms[0].id;

  EditTimeline deeper = TimelineEffectEngine::updateZoomScale(timeline, id, 5.0, source);
  EXPECT_EQ(deeper.zooms[0].scale, 3.0);
  EXPECT_EQ(deeper.zooms[0].focusPoint, (PointValue{0.25, 0.75}));

  EditTimeline shallower = TimelineEffectEngine::updateZoomScale(timeline, id, 1.25, source);
  EXPECT_EQ(shallower.zooms[0].focusPoint, (PointValue{0.4, 0.6}));

  EditTimeline none = TimelineEffectEngine::updateZoomScale(timeline, id, 0.2, source);
  EXPECT_EQ(none.zooms[0].scale, 1.0);
  EXPECT_EQ(none.zooms[0].focusPoint, (PointValue{0.5, 0.5}));

  EditTimeline corner = TimelineEffectEngine::updateZoomFocus(timeline, id, {0, 1}, source);
  EXPECT_EQ(corner.zooms[0].focusPoint, (PointValue{0.25, 0.75}));
  EXPECT_EQ(TimelineEffectEngine::constrainedFocus({0, 0}, 1.7), (PointValue{0.5 / 1.7, 0.5 / 1.7}));
}

TEST(TimelineEffectZoomEditTest, RemovingAndReplacingZooms) {
  EditTimeline timeline = timelineOf({clip(ms(0), ms(10'000))});
  ZoomSegment a = zoom(ms(1'000), ms(1'500), ms(2'000), ms(3'000));
  ZoomSegment b = zoom(ms(5'000), ms(5'500), ms(6'000), ms(7'000));
  EditTimeline replaced = TimelineEffectEngine::replaceZooms(timeline, {b, a}, source);
  ASSERT_EQ(replaced.zooms.size(), 2u);
  EXPECT_EQ(replaced.zooms[0].id, a.id);

  EXPECT_EQ(TimelineEffectEngine::removeZoom(replaced, std::int64_t{1}, source).zooms, (std::vector{a}));
  EXPECT_EQ(TimelineEffectEngine::removeZoom(replaced, a.id, source).zooms, (std::vector{b}));
  expectEffectError([&] { TimelineEffectEngine::removeZoom(replaced, std::int64_t{2}, source); },
                    EffectCase::zoomIndexInvalid);
  expectEffectError([&] { TimelineEffectEngine::removeZoom(replaced, std::int64_t{-1}, source); },
                    EffectCase::zoomIndexInvalid);
  expectEffectError([&] { TimelineEffectEngine::removeZoom(replaced, Uuid::random(), source); },
                    EffectCase::zoomNotFound);

  ZoomSegment overlapping = zoom(ms(2'500), ms(2'600), ms(2'700), ms(5'500));
  expectEffectError(
      [&] {
        TimelineEffectEngine::replaceZooms(timeline, {a, b, overlapping}, source);
      },
      EffectCase::zoomOverlap);
}

TEST(TimelineEffectZoomEditTest, SameConfigurationIgnoresIdsOnly) {
  ZoomSegment a = zoom(ms(1'000), ms(1'500), ms(2'000), ms(3'000));
  ZoomSegment renamed = a;
  renamed.id = Uuid::random();
  EXPECT_TRUE(TimelineEffectEngine::hasSameZoomConfiguration({a}, {renamed}));
  ZoomSegment refocused = a;
  refocused.focusPoint.x = 0.6;
  EXPECT_FALSE(TimelineEffectEngine::hasSameZoomConfiguration({a}, {refocused}));
  ZoomSegment held = a;
  held.holdEndTime = ms(2'001);
  EXPECT_FALSE(TimelineEffectEngine::hasSameZoomConfiguration({a}, {held}));
  EXPECT_FALSE(TimelineEffectEngine::hasSameZoomConfiguration({a}, {a, a}));
}

// --- Full-screen camera ----------------------------------------------------------------------------

TEST(TimelineEffectFullscreenTest, AddSnapsToTheGridAndKeepsTheListSorted) {
  EditTimeline timeline = withCamera();
  timeline = TimelineEffectEngine::addWebcamFullscreen(timeline, span(ms(5'004), ms(6'000)), source);
  timeline = TimelineEffectEngine::addWebcamFullscreen(timeline, span(ms(1'000), ms(2'000)), source);
  ASSERT_EQ(timeline.webcamFullscreenSegments.size(), 2u);
  EXPECT_EQ(timeline.webcamFullscreenSegments[0].startTime, ms(1'000));
  EXPECT_EQ(timeline.webcamFullscreenSegments[1].startTime, ms(5'000));

  expectEffectError([&] { TimelineEffectEngine::addWebcamFullscreen(timeline, span(ms(8'000), ms(8'020)), source); },
                    EffectCase::webcamFullscreenRangeInvalid);
  expectEffectError([&] { TimelineEffectEngine::addWebcamFullscreen(timeline, span(ms(9'000), ms(10'100)), source); },
                    EffectCase::webcamFullscreenRangeInvalid);
  expectEffectError([&] { TimelineEffectEngine::addWebcamFullscreen(timeline, span(ms(1'500), ms(3'000)), source); },
                    EffectCase::webcamFullscreenOverlap);
  EditTimeline noCamera = timelineOf({clip(ms(0), ms(10'000))});
  expectEffectError([&] { TimelineEffectEngine::addWebcamFullscreen(noCamera, span(ms(1'000), ms(2'000)), source); },
                    EffectCase::webcamFullscreenRangeInvalid);
}

TEST(TimelineEffectFullscreenTest, EdgeUpdatesStopAtNeighboursAndTwoFrames) {
  EditTimeline timeline = withCamera();
  timeline = TimelineEffectEngine::addWebcamFullscreen(timeline, span(ms(1'000), ms(2'000)), source);
  timeline = TimelineEffectEngine::addWebcamFullscreen(timeline, span(ms(4'000), ms(5'000)), source);
  const Uuid first = timeline.webcamFullscreenSegments[0].id;
  const Uuid second = timeline.webcamFullscreenSegments[1].id;

  EXPECT_EQ(TimelineEffectEngine::updateWebcamFullscreenStart(timeline, second, ms(0), source)
                .webcamFullscreenSegments[1]
                .startTime,
            ms(2'000));
  EXPECT_EQ(TimelineEffectEngine::updateWebcamFullscreenEnd(timeline, first, ms(9'000), source)
                .webcamFullscreenSegments[0]
                .endTime,
            ms(4'000));
  auto shortest =
      TimelineEffectEngine::updateWebcamFullscreenStart(timeline, first, ms(3'000), source).webcamFullscreenSegments[0];
  EXPECT_EQ(shortest.startTime,
            TimelineFrameGrid::floorBoundary(ms(2'000) - TimelineEffectEngine::minimumWebcamFullscreenDuration));
  EXPECT_GE(shortest.endTime - shortest.startTime, TimelineEffectEngine::minimumWebcamFullscreenDuration);

  EXPECT_TRUE(TimelineEffectEngine::removeWebcamFullscreen(
                  TimelineEffectEngine::removeWebcamFullscreen(timeline, first, source), second, source)
                  .webcamFullscreenSegments.empty());
  expectEffectError([&] { TimelineEffectEngine::removeWebcamFullscreen(timeline, Uuid::random(), source); },
                    EffectCase::webcamFullscreenNotFound);
  expectEffectError(
      [&] { TimelineEffectEngine::updateWebcamFullscreenEnd(timeline, Uuid::random(), ms(1'000), source); },
      EffectCase::webcamFullscreenNotFound);
}

// --- Camera overlay --------------------------------------------------------------------------------

TEST(TimelineEffectOverlayTest, WithoutABaseThereIsNoOverlay) {
  EXPECT_FALSE(
      TimelineEffectEngine::webcamOverlay(std::nullopt, {keyframe(ms(0), {0.5, 0.5}, 0.2)}, ms(0), 16.0 / 9.0));
}

TEST(TimelineEffectOverlayTest, KeyframesAreEasedWithSmoothstepAndHeldOutsideTheirSpan) {
  WebcamOverlay base = WebcamOverlay::defaultValue();
  // Given out of order on purpose.
  std::vector<WebcamOverlayKeyframe> keyframes = {keyframe(ms(3'000), {0.6, 0.5}, 0.3),
                                                  keyframe(ms(1'000), {0.2, 0.5}, 0.2)};
  auto at = [&](ProjectTime t) { return *TimelineEffectEngine::webcamOverlay(base, keyframes, t, 1.0); };

  EXPECT_EQ(at(ms(0)).center, (PointValue{0.2, 0.5}));
  EXPECT_EQ(at(ms(1'000)).diameter, 0.2);
  EXPECT_EQ(at(ms(3'000)).center, (PointValue{0.6, 0.5}));
  EXPECT_EQ(at(ms(9'000)).diameter, 0.3);

  // A quarter of the way: smoothstep(0.25) = 0.15625.
  WebcamOverlay quarter = at(ms(1'500));
  EXPECT_DOUBLE_EQ(quarter.center.x, 0.2 + 0.4 * 0.15625);
  EXPECT_DOUBLE_EQ(quarter.diameter, 0.2 + 0.1 * 0.15625);
  EXPECT_DOUBLE_EQ(at(ms(2'000)).center.x, 0.4);
  // Everything but position and size is the base's.
  EXPECT_EQ(quarter.isMirrored, base.isMirrored);
  EXPECT_EQ(quarter.cornerRadius, base.cornerRadius);
}

TEST(TimelineEffectOverlayTest, CameraStaysInsideTheOutputByItsOwnRadii) {
  WebcamOverlay base = WebcamOverlay::defaultValue();
  base.center = {1, 1};
  base.diameter = 0.4;
  struct Case {
    const char* name;
    WebcamAspectRatio camera;
    double outputAspect;
    PointValue expected;
  };
  const Case cases[] = {
      // Portrait output: the diameter is a share of the width, the shorter side.
      {"square on 9:16", WebcamAspectRatio::square, 0.5625, {1 - 0.2, 1 - 0.2 * 0.5625}},
      {"square on 16:9", WebcamAspectRatio::square, 16.0 / 9.0, {1 - 0.2 * 9.0 / 16.0, 1 - 0.2}},
      {"source shape on 16:9", WebcamAspectRatio::source, 16.0 / 9.0, {1 - 0.2, 1 - 0.2}},
      {"degenerate aspect held at 0.01", WebcamAspectRatio::square, 0.0, {1 - 0.2, 1 - 0.2 * 0.01}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    base.aspectRatio = c.camera;
    WebcamOverlay shown = *TimelineEffectEngine::webcamOverlay(base, {}, ms(0), c.outputAspect);
    EXPECT_DOUBLE_EQ(shown.center.x, c.expected.x);
    EXPECT_DOUBLE_EQ(shown.center.y, c.expected.y);
  }
  base.diameter = 0.9;
  EXPECT_EQ(TimelineEffectEngine::webcamOverlay(base, {}, ms(0), 1.0)->diameter, 0.4);
  base.diameter = 0.01;
  EXPECT_EQ(TimelineEffectEngine::webcamOverlay(base, {}, ms(0), 1.0)->diameter, 0.1);
}

TEST(TimelineEffectOverlayTest, GlobalMoveShiftsEveryKeyframeByTheSameOffset) {
  EditTimeline timeline = withCamera();
  timeline.webcamOverlay->center = {0.5, 0.5};
  timeline.webcamKeyframes = {keyframe(ms(0), {0.3, 0.5}, 0.2), keyframe(ms(2'000), {0.5, 0.5}, 0.2)};
  EditTimeline moved = TimelineEffectEngine::moveWebcamGlobally(timeline, ms(1'000), {0.5, 0.6}, 1.0, source);
  // At 1 s the camera was at x 0.4; the offset (0.1, 0.1) goes to everything.
  EXPECT_DOUBLE_EQ(moved.webcamKeyframes[0].center.x, 0.4);
  EXPECT_DOUBLE_EQ(moved.webcamKeyframes[1].center.x, 0.6);
  EXPECT_DOUBLE_EQ(moved.webcamKeyframes[1].center.y, 0.6);
  EXPECT_DOUBLE_EQ(moved.webcamOverlay->center.x, 0.6);
  WebcamOverlay shown =
      *TimelineEffectEngine::webcamOverlay(moved.webcamOverlay, moved.webcamKeyframes, ms(1'000), 1.0);
  EXPECT_DOUBLE_EQ(shown.center.x, 0.5);
  EXPECT_DOUBLE_EQ(shown.center.y, 0.6);

  // Pushed off the frame: every result is clamped on its own.
  EditTimeline pushed = TimelineEffectEngine::moveWebcamGlobally(timeline, ms(1'000), {1.5, 0.5}, 1.0, source);
  EXPECT_DOUBLE_EQ(pushed.webcamKeyframes[0].center.x, 0.9);
  EXPECT_DOUBLE_EQ(pushed.webcamKeyframes[1].center.x, 0.9);
}

TEST(TimelineEffectOverlayTest, GlobalMoveWithoutKeyframesMovesTheBaseOnly) {
  EditTimeline timeline = withCamera();
  EditTimeline moved = TimelineEffectEngine::moveWebcamGlobally(timeline, ms(1'000), {0.0, 0.3}, 1.0, source);
  EXPECT_DOUBLE_EQ(moved.webcamOverlay->center.x, 0.11);
  EXPECT_DOUBLE_EQ(moved.webcamOverlay->center.y, 0.3);
  EXPECT_TRUE(moved.webcamKeyframes.empty());

  EditTimeline noCamera = timelineOf({clip(ms(0), ms(10'000))});
  EXPECT_EQ(TimelineEffectEngine::moveWebcamGlobally(noCamera, ms(0), {0.5, 0.5}, 1.0, source), noCamera);
}

TEST(TimelineEffectOverlayTest, GlobalResizeChangesEveryKeyframeByTheSameAmountWithinLimits) {
  EditTimeline timeline = withCamera();
  timeline.webcamOverlay->diameter = 0.2;
  timeline.webcamKeyframes = {keyframe(ms(0), {0.5, 0.5}, 0.15), keyframe(ms(2'000), {0.9, 0.5}, 0.35)};
  EditTimeline resized = TimelineEffectEngine::resizeWebcamGlobally(timeline, ms(0), 0.25, 1.0, source);
  EXPECT_DOUBLE_EQ(resized.webcamKeyframes[0].diameter, 0.25);
  EXPECT_DOUBLE_EQ(resized.webcamKeyframes[1].diameter, 0.4);  // 0.45 clamped
  EXPECT_DOUBLE_EQ(resized.webcamOverlay->diameter, 0.3);
  // The larger camera no longer fits at x 0.9.
  EXPECT_DOUBLE_EQ(resized.webcamKeyframes[1].center.x, 0.8);

  EditTimeline plain = withCamera();
  EXPECT_EQ(TimelineEffectEngine::resizeWebcamGlobally(plain, ms(0), 9.0, 1.0, source).webcamOverlay->diameter, 0.4);
}

}  // namespace
}  // namespace vumo
