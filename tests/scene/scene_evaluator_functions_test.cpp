#include <gtest/gtest.h>

#include <vector>

#include "scene/scene_evaluator.h"
#include "support/builders.h"

namespace vumo {
namespace {

using namespace vumo::testing;

// springProgress worked out from the spring s(x) = 1 - exp(-8.889 x)(cos 3.1427x + 2.8284 sin 3.1427x)
// as s(T p) / s(T), T the ramp in seconds.
constexpr double spring150of300 = 0.5331085043082676;
constexpr double spring300of600 = 0.8094438392618607;
constexpr double spring150of600 = 0.4315213944704323;
constexpr double spring10of300 = 0.00523568889025894;

std::int64_t nsOf(std::int64_t milliseconds) { return milliseconds * 1'000'000; }

void expectCamera(const CameraState& actual, PointValue center, double scale, const char* name) {
  EXPECT_NEAR(actual.center.x, center.x, 1e-12) << name;
  EXPECT_NEAR(actual.center.y, center.y, 1e-12) << name;
  EXPECT_NEAR(actual.scale, scale, 1e-12) << name;
}

TEST(SpringProgressTest, SettlesExactlyOnOneAndScalesWithTheRampLength) {
  struct Case {
    const char* name;
    std::int64_t elapsed;
    std::int64_t duration;
    double expected;
  };
  const Case cases[] = {
      {"start", 0, nsOf(300), 0},
      {"before the start", -5, nsOf(300), 0},
      {"end", nsOf(300), nsOf(300), 1},
      {"after the end", nsOf(900), nsOf(300), 1},
      {"half of one second", nsOf(500), nsOf(1'000), 0.9666567605538194},
      {"half of 300 ms", nsOf(150), nsOf(300), spring150of300},
      {"half of 100 ms", nsOf(50), nsOf(100), 0.3322494405398639},
      {"a ramp too short to show the curve is linear", 1, 2, 0.5},
      {"no ramp at all is complete", 0, 0, 1},
  };
  for (const Case& c : cases)
    EXPECT_NEAR(SceneEvaluator::springProgress(c.elapsed, c.duration), c.expected, 1e-12) << c.name;
  // Runs in absolute seconds: halfway through a long ramp the spring has nearly settled, halfway
  // through a short one it has barely started.
  EXPECT_GT(SceneEvaluator::springProgress(nsOf(1'000), nsOf(2'000)),
            SceneEvaluator::springProgress(nsOf(50), nsOf(100)) + 0.5);
}

TEST(CameraStateTest, RampsInHoldsAndReturnsToIdentityAtTheEnd) {
  const std::vector<ZoomSegment> zooms = {zoom(ms(1'000), ms(1'300), ms(2'700), ms(3'000), 2.0, {0.3, 0.4})};
  const double q = spring150of300;
  struct Case {
    const char* name;
    std::int64_t milliseconds;
    PointValue center;
    double scale;
  };
  const Case cases[] = {
      {"before", 999, {0.5, 0.5}, 1},
      {"start", 1'000, {0.5, 0.5}, 1},
      {"ramp in", 1'150, {0.5 - 0.2 * q, 0.5 - 0.1 * q}, 1 + q},
      {"focus", 1'300, {0.3, 0.4}, 2},
      {"hold", 2'000, {0.3, 0.4}, 2},
      {"hold end", 2'700, {0.3, 0.4}, 2},
      {"ramp out", 2'850, {0.3 + 0.2 * q, 0.4 + 0.1 * q}, 2 - q},
      {"end is outside", 3'000, {0.5, 0.5}, 1},
  };
  for (const Case& c : cases)
    expectCamera(SceneEvaluator::cameraState(ms(c.milliseconds), zooms), c.center, c.scale, c.name);
  EXPECT_EQ(SceneEvaluator::cameraState(ms(5), {}), CameraState::identity());
}

TEST(CameraStateTest, TouchingZoomsPanDirectlyWithoutPassingIdentity) {
  const std::vector<ZoomSegment> zooms = {zoom(ms(0), ms(300), ms(700), ms(1'000), 2.0, {0.3, 0.3}),
                                          zoom(ms(1'000), ms(1'300), ms(1'700), ms(2'000), 3.0, {0.7, 0.7})};
  // The pan runs from the first hold's end (700 ms) to the second focus (1300 ms).
  const double r = spring300of600;
  const double s = spring150of600;
  struct Case {
    const char* name;
    std::int64_t milliseconds;
    PointValue center;
    double scale;
  };
  const Case cases[] = {
      {"first hold end", 700, {0.3, 0.3}, 2},
      {"pan inside the first", 850, {0.3 + 0.4 * s, 0.3 + 0.4 * s}, 2 + s},
      {"seam", 1'000, {0.3 + 0.4 * r, 0.3 + 0.4 * r}, 2 + r},
      {"second focus", 1'300, {0.7, 0.7}, 3},
      {"second ramps out alone", 2'000, {0.5, 0.5}, 1},
  };
  for (const Case& c : cases)
    expectCamera(SceneEvaluator::cameraState(ms(c.milliseconds), zooms), c.center, c.scale, c.name);
  for (std::int64_t t = 700; t <= 1'300; t += 10) EXPECT_GE(SceneEvaluator::cameraState(ms(t), zooms).scale, 2.0) << t;

  // Ramps of no length on both sides of the seam: the second target at once.
  const std::vector<ZoomSegment> abrupt = {zoom(ms(0), ms(0), ms(1'000), ms(1'000), 2.0, {0.3, 0.3}),
                                           zoom(ms(1'000), ms(1'000), ms(2'000), ms(2'000), 3.0, {0.7, 0.7})};
  expectCamera(SceneEvaluator::cameraState(ms(1'000), abrupt), {0.7, 0.7}, 3, "abrupt seam");
}

TEST(CameraStateTest, ZoomWithoutRampInReachesItsTargetOneNanosecondLater) {
  const std::vector<ZoomSegment> zooms = {zoom(ms(1'000), ms(1'000), ms(2'000), ms(2'300), 2.5, {0.4, 0.6})};
  expectCamera(SceneEvaluator::cameraState(ms(1'000), zooms), {0.5, 0.5}, 1, "at the start");
  expectCamera(SceneEvaluator::cameraState(ms(1'000) + ns(1), zooms), {0.4, 0.6}, 2.5, "1 ns later");
}

TEST(MotionBlurShutterTest, RisesToOneFrameAtHalfAndTo100MillisecondsAtOne) {
  struct Case {
    double amount;
    std::int64_t shutter;
  };
  // 0.25 and 0.75 land on halves (8,333,333.5 and 58,333,333.5): rounded away from zero.
  for (const Case& c : {Case{-1, 0}, Case{0, 0}, Case{0.25, 8'333'334}, Case{0.5, 16'666'667}, Case{0.75, 58'333'334},
                        Case{1, 100'000'000}, Case{2, 100'000'000}})
    EXPECT_EQ(SceneEvaluator::motionBlurShutterNanoseconds(c.amount), c.shutter) << c.amount;
}

TEST(WebcamFullscreenProgressTest, RampsInAndOutUnlessANeighbourTouches) {
  auto segment = [](std::int64_t start, std::int64_t end) {
    return WebcamFullscreenSegment{Uuid::random(), ms(start), ms(end)};
  };
  const std::int64_t transition = SceneEvaluator::webcamFullscreenTransitionNanoseconds;
  const double q = spring150of300;
  // Half of 200 ms: the ramp of a 400 ms segment is its half.
  const double h = 0.42866497128184927;
  struct Case {
    const char* name;
    std::vector<WebcamFullscreenSegment> segments;
    std::int64_t milliseconds;
    double expected;
  };
  const std::vector<WebcamFullscreenSegment> one = {segment(1'000, 3'000)};
  const std::vector<WebcamFullscreenSegment> pair = {segment(1'000, 2'000), segment(2'000, 3'000)};
  const std::vector<WebcamFullscreenSegment> unsortedPair = {segment(2'000, 3'000), segment(1'000, 2'000)};
  const std::vector<WebcamFullscreenSegment> three = {segment(0, 1'000), segment(1'000, 2'000), segment(2'000, 3'000)};
  const Case cases[] = {
      {"none", {}, 1'000, 0},
      {"before", one, 999, 0},
      {"start", one, 1'000, 0},
      {"ramp in", one, 1'150, q},
      {"ramp done", one, 1'300, 1},
      {"ramp out begins", one, 2'700, 1},
      {"ramp out", one, 2'850, 1 - q},
      {"end is outside", one, 3'000, 0},
      {"short segment ramps over its half", {segment(0, 400)}, 100, h},
      {"short segment peaks at its middle", {segment(0, 400)}, 200, 1},
      {"short segment ramps out", {segment(0, 400)}, 300, 1 - h},
      {"pair ramps in", pair, 1'150, q},
      {"pair stays up before the seam", pair, 1'999, 1},
      {"pair stays up at the seam", pair, 2'000, 1},
      {"pair stays up after the seam", pair, 2'100, 1},
      {"pair ramps out", pair, 2'850, 1 - q},
      {"unsorted pair at the seam", unsortedPair, 1'900, 1},
      {"unsorted pair ramps in", unsortedPair, 1'150, q},
      {"three: middle start", three, 1'000, 1},
      {"three: middle", three, 1'010, 1},
      {"three: middle end", three, 1'999, 1},
      {"three: first ramps in", three, 150, q},
  };
  for (const Case& c : cases)
    EXPECT_NEAR(SceneEvaluator::webcamFullscreenProgress(ms(c.milliseconds), c.segments, transition), c.expected, 1e-12)
        << c.name;
}

TEST(WebcamZoomScaleTest, ShrinksToEightyPercentInStepWithTheCamera) {
  const std::vector<ZoomSegment> single = {zoom(ms(1'000), ms(1'300), ms(2'700), ms(3'000), 2.0)};
  const std::vector<ZoomSegment> flat = {zoom(ms(1'000), ms(1'300), ms(2'700), ms(3'000), 1.0)};
  // Touching: 2x then 3x, and 1x then 2x.
  const std::vector<ZoomSegment> bothZoomed = {zoom(ms(0), ms(300), ms(700), ms(1'000), 2.0),
                                               zoom(ms(1'000), ms(1'300), ms(1'700), ms(2'000), 3.0)};
  const std::vector<ZoomSegment> fromFlat = {zoom(ms(0), ms(300), ms(700), ms(1'000), 1.0),
                                             zoom(ms(1'000), ms(1'300), ms(1'700), ms(2'000), 2.0)};
  auto camera = [](double scale) { return CameraState{{0.5, 0.5}, scale}; };
  struct Case {
    const char* name;
    const std::vector<ZoomSegment>* zooms;
    std::int64_t milliseconds;
    double cameraScale;
    double expected;
  };
  const Case cases[] = {
      {"no zoom", &single, 500, 1, 1},
      {"fully zoomed", &single, 2'000, 2, 0.8},
      {"halfway", &single, 1'150, 1.5, 0.9},
      {"not yet moved", &single, 1'000, 1, 1},
      {"camera beyond the zoom", &single, 2'000, 3, 0.8},
      {"zoom of scale 1", &flat, 2'000, 1, 1},
      {"pan between zoomed views stays small", &bothZoomed, 1'000, 2.4, 0.8},
      {"pan leaving the first", &bothZoomed, 800, 2.1, 0.8},
      // The larger of the two scales (2) sets the measure: p = 0.5.
      {"pan from an unzoomed view", &fromFlat, 1'100, 1.5, 0.9},
      {"pan towards a zoomed view", &fromFlat, 800, 1.5, 0.9},
      // Within the first zoom before its hold ends, the first zoom alone counts: scale 1 gives 1.
      {"unzoomed part before the pan", &fromFlat, 500, 1.5, 1},
  };
  for (const Case& c : cases)
    EXPECT_NEAR(SceneEvaluator::webcamZoomScale(ms(c.milliseconds), *c.zooms, camera(c.cameraScale)), c.expected, 1e-12)
        << c.name;
}

TEST(ScreenStateTest, ContentRectangleOfTheNewestSampleAsShareOfTheEncodedFrame) {
  auto sample = [](std::int64_t milliseconds, PixelSize encoded, RectValue content) {
    GeometrySample g;
    g.time = ms(milliseconds);
    g.encodedPixelSize = encoded;
    g.contentRectInEncodedFrame = content;
    return g;
  };
  const std::vector<GeometrySample> geometry = {sample(1'000, {2'000, 1'000}, {100, 50, 1'800, 900}),
                                                sample(2'000, {0, 1'000}, {0, 0, 10, 10}),
                                                sample(3'000, {1'000, 500}, {0, 100, 1'000, 300})};
  struct Case {
    std::int64_t milliseconds;
    RectValue expected;
  };
  for (const Case& c : {Case{999, {0, 0, 1, 1}}, Case{1'000, {0.05, 0.05, 0.9, 0.9}},
                        Case{1'999, {0.05, 0.05, 0.9, 0.9}}, Case{2'000, {0, 0, 1, 1}}, Case{3'000, {0, 0.2, 1, 0.6}}})
    EXPECT_EQ(SceneEvaluator::screenState(ms(c.milliseconds), geometry).sourceRect, c.expected) << c.milliseconds;
  EXPECT_EQ(SceneEvaluator::screenState(ms(0), {}), ScreenState::fullFrame());
}

}  // namespace
}  // namespace vumo
