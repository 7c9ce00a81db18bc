#include "scene/cursor_interpolator.h"

#include <gtest/gtest.h>

#include <optional>
#include <vector>

#include "support/builders.h"

namespace vumo {
namespace {

using namespace vumo::testing;

MouseEvent at(std::int64_t milliseconds, PointValue point, std::optional<bool> inside = std::nullopt) {
  return press(milliseconds, point, MouseButton::none, inside, MousePhase::moved);
}

// Four samples spaced 100, 100 and 200 ms apart, so the tangents of every segment are scaled.
std::vector<MouseEvent> fourSamples() {
  return {at(0, {0.2, 0.2}), at(100, {0.4, 0.6}), at(200, {0.6, 0.4}), at(400, {0.8, 0.8})};
}

void expectPoint(PointValue actual, PointValue expected, const char* name) {
  EXPECT_NEAR(actual.x, expected.x, 1e-12) << name;
  EXPECT_NEAR(actual.y, expected.y, 1e-12) << name;
}

TEST(CursorInterpolatorTest, CurvePassesThroughTheSamplesWithScaledTangents) {
  // Each expected value is h00 p1 + h10 m1 + h01 p2 + h11 m2 at u = 0.5 (h = 1/2, 1/8, 1/2, -1/8),
  // with m1 = (p2 - p0) d / (t2 - t0) and m2 = (p3 - p1) d / (t3 - t1).
  struct Case {
    const char* name;
    std::int64_t milliseconds;
    PointValue expected;
  };
  const Case cases[] = {
      {"before the first sample sits on it", -10, {0.2, 0.2}},
      {"on the first sample", 0, {0.2, 0.2}},
      // p0 = p1: m1 = (0.2, 0.4), m2 = (0.4, 0.2) x 100/200.
      {"first segment", 50, {0.3, 0.4375}},
      {"on an inner sample", 100, {0.4, 0.6}},
      // m1 = (p2 - p0) x 100/200 = (0.2, 0.1); m2 = (p3 - p1) x 100/300 = (0.4, 0.2) / 3.
      {"inner segment", 150, {0.2 + 0.025 + 0.3 - 0.125 * 0.4 / 3, 0.3 + 0.0125 + 0.2 - 0.125 * 0.2 / 3}},
      // p3 = p2: m1 = (0.4, 0.2) x 200/300, m2 = (0.2, 0.4) x 200/200.
      {"last segment", 300, {0.3 + 0.125 * 0.8 / 3 + 0.4 - 0.025, 0.2 + 0.125 * 0.4 / 3 + 0.4 - 0.05}},
      {"on the last sample", 400, {0.8, 0.8}},
      {"after the last sample", 10'000, {0.8, 0.8}},
  };
  const CursorInterpolator sorted(fourSamples());
  std::vector<MouseEvent> shuffled = fourSamples();
  std::swap(shuffled[0], shuffled[3]);
  std::swap(shuffled[1], shuffled[2]);
  const CursorInterpolator unsorted(shuffled);
  for (const Case& c : cases) {
    expectPoint(sorted.position(ms(c.milliseconds)), c.expected, c.name);
    expectPoint(unsorted.position(ms(c.milliseconds)), c.expected, c.name);
  }
}

TEST(CursorInterpolatorTest, FewSamples) {
  EXPECT_EQ(CursorInterpolator().position(ms(5)), (PointValue{0.5, 0.5}));
  const CursorInterpolator one({at(1'000, {0.1, 0.9})});
  for (std::int64_t t : {0, 1'000, 5'000}) EXPECT_EQ(one.position(ms(t)), (PointValue{0.1, 0.9})) << t;
}

TEST(CursorInterpolatorTest, OvershootIsClampedToTheSource) {
  // x stays at 0 and then rises to 1: unclamped, the curve dips to -1/8 x 1/2 = -0.0625 halfway
  // through the first segment; y mirrors it above 1.
  const CursorInterpolator cursor({at(0, {0, 1}), at(100, {0, 1}), at(200, {1, 0}), at(300, {1, 0})});
  EXPECT_EQ(cursor.position(ms(50)), (PointValue{0, 1}));
  // Halfway between the two middle samples the curve is symmetric: exactly the midpoint.
  expectPoint(cursor.position(ms(150)), {0.5, 0.5}, "middle");
  EXPECT_EQ(cursor.position(ms(250)), (PointValue{1, 0}));
}

TEST(CursorInterpolatorTest, SamplesWithEqualTimesKeepTheirStoredOrder) {
  // The later stored of two equal times is the one in force from then on.
  const CursorInterpolator cursor({at(0, {0, 0}), at(100, {0.2, 0.2}), at(100, {0.8, 0.8}), at(200, {1, 1})});
  EXPECT_EQ(cursor.position(ms(100)), (PointValue{0.8, 0.8}));
  for (std::int64_t t : {1, 50, 99, 101, 150, 199}) {
    PointValue p = cursor.position(ms(t));
    EXPECT_TRUE(p.x >= 0 && p.x <= 1 && p.y >= 0 && p.y <= 1) << t;
  }
  // Between the equal pair and the next sample: p0 = (0.2, 0.2) at 100 ms, p1 = (0.8, 0.8),
  // p2 = p3 = (1, 1); d = 100 ms, m1 = 0.8 x 100/100, m2 = 0.2 x 100/100.
  expectPoint(cursor.position(ms(150)), {0.4 + 0.1 + 0.5 - 0.025, 0.4 + 0.1 + 0.5 - 0.025}, "after the pair");

  // Two samples at one time only: nothing to divide by. At that very time the first sample
  // answers, as at any time up to the first; after it the last one.
  const CursorInterpolator pair({at(100, {0.2, 0.2}), at(100, {0.6, 0.6})});
  EXPECT_EQ(pair.position(ms(50)), (PointValue{0.2, 0.2}));
  EXPECT_EQ(pair.position(ms(100)), (PointValue{0.2, 0.2}));
  EXPECT_EQ(pair.position(ms(100) + ns(1)), (PointValue{0.6, 0.6}));
}

TEST(CursorInterpolatorTest, VisibilityFollowsTheNewestSampleAtOrBefore) {
  const CursorInterpolator cursor(
      {at(100, {0.5, 0.5}, false), at(200, {0.5, 0.5}), at(300, {0.5, 0.5}, false), at(400, {0.5, 0.5}, true)});
  struct Case {
    std::int64_t milliseconds;
    bool visible;
  };
  // Before the first sample the first one answers; an absent flag counts as inside.
  for (const Case& c : {Case{0, false}, Case{100, false}, Case{199, false}, Case{200, true}, Case{299, true},
                        Case{300, false}, Case{400, true}, Case{9'000, true}})
    EXPECT_EQ(cursor.isVisible(ms(c.milliseconds)), c.visible) << c.milliseconds;
  EXPECT_FALSE(CursorInterpolator().isVisible(ms(0)));
  EXPECT_TRUE(CursorInterpolator({at(100, {0.5, 0.5})}).isVisible(ms(0)));
}

}  // namespace
}  // namespace vumo
