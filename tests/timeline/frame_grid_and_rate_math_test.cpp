#include <gtest/gtest.h>

#include <limits>

#include "support/builders.h"
#include "timeline/timeline_frame_grid.h"
#include "timeline/timeline_rate_math.h"

namespace vumo {
namespace {

constexpr std::int64_t frame = 16'666'666;  // floor(1e9 / 60)

using testing::ns;

TEST(TimelineFrameGrid, NearestBoundaryRoundsHalfAwayFromZeroOnTheFrameNumber) {
  struct Case {
    std::int64_t input;
    std::int64_t expected;
  };
  const Case cases[] = {
      {0, 0},
      {8'333'333, 0},               // just below half a frame
      {8'333'334, frame},           // just above half a frame
      {frame, frame},               // a grid value maps to itself
      {2 * frame + 1, 33'333'333},  // frame 2 is floor(2e9 / 60), not 2 * floor(1e9 / 60)
      {1'000'000'000, 1'000'000'000},
      {1'008'333'334, 1'016'666'666},
      {-8'333'333, 0},
      {-8'333'334, -frame},  // frame -1, truncated toward zero
  };
  for (const auto& c : cases) EXPECT_EQ(TimelineFrameGrid::nearestBoundary(ns(c.input)), ns(c.expected)) << c.input;
}

TEST(TimelineFrameGrid, CeilingBoundaryIsTheFirstGridValueAtOrAfter) {
  struct Case {
    std::int64_t input;
    std::int64_t expected;
  };
  const Case cases[] = {
      {-5, 0},
      {0, 0},
      {1, frame},
      {frame, frame},
      {frame + 1, 33'333'333},
      {33'333'333, 33'333'333},
      {33'333'334, 50'000'000},
      {999'999'999, 1'000'000'000},
  };
  for (const auto& c : cases) EXPECT_EQ(TimelineFrameGrid::ceilingBoundary(ns(c.input)), ns(c.expected)) << c.input;
}

TEST(TimelineFrameGrid, FloorBoundaryRoundsTheFrameCountDown) {
  EXPECT_EQ(TimelineFrameGrid::floorBoundary(ns(frame - 1)), ns(0));
  EXPECT_EQ(TimelineFrameGrid::floorBoundary(ns(frame)), ns(0));  // 16,666,666 is frame 0.99999996
  EXPECT_EQ(TimelineFrameGrid::floorBoundary(ns(frame + 1)), ns(frame));
  EXPECT_EQ(TimelineFrameGrid::floorBoundary(ns(50'000'000)), ns(50'000'000));  // frame 3 is exact
  EXPECT_EQ(TimelineFrameGrid::floorBoundary(ns(-1)), ns(0));
}

TEST(TimelineFrameGrid, GridValuesAreFixedPointsOfNearestAndCeiling) {
  for (std::int64_t k = 0; k < 100'000; k += 7) {
    ProjectTime grid = TimelineFrameGrid::boundary(k);
    ASSERT_EQ(TimelineFrameGrid::nearestBoundary(grid), grid) << k;
    ASSERT_EQ(TimelineFrameGrid::ceilingBoundary(grid), grid) << k;
    // Only every third line is an exact nanosecond; the others lie just below their frame.
    ASSERT_EQ(TimelineFrameGrid::floorBoundary(grid), TimelineFrameGrid::boundary(k % 3 == 0 ? k : k - 1)) << k;
    ASSERT_EQ(TimelineFrameGrid::ceilingBoundary(grid + ns(1)), TimelineFrameGrid::boundary(k + 1)) << k;
  }
}

TEST(TimelineFrameGrid, LongRecordingsStayExact) {
  // Ten hours in: the boundary arithmetic must not lose nanoseconds to a wide product.
  const std::int64_t tenHoursFrames = 60LL * 60 * 60 * 10;
  EXPECT_EQ(TimelineFrameGrid::boundary(tenHoursFrames), ns(36'000'000'000'000));
  EXPECT_EQ(TimelineFrameGrid::ceilingBoundary(ns(36'000'000'000'001)), ns(36'000'016'666'666));
  // Far beyond any recording the frame count still does not overflow.
  const std::int64_t max = std::numeric_limits<std::int64_t>::max();
  const std::int64_t floor = TimelineFrameGrid::floorBoundary(ns(max)).nanoseconds;
  EXPECT_LE(floor, max);
  EXPECT_GT(floor, max - frame - 1);
}

using R = TimelineRateRounding;

TimelinePlaybackRate rate(std::int32_t permille) { return TimelinePlaybackRate{permille}; }

TEST(TimelineRateMath, SequenceToSourceUsesTheStatedBiases) {
  struct Case {
    std::int64_t sequence;
    std::int32_t permille;
    R rounding;
    std::int64_t expected;
  };
  const Case cases[] = {
      // 1 ns at 1.5x is 1.5 ns of source.
      {1, 1500, R::down, 1},         {1, 1500, R::up, 2},
      {1, 1500, R::nearest, 2},  // half rounds up
      {3, 1010, R::down, 3},     // 3.03
      {3, 1010, R::up, 4},           {3, 1010, R::nearest, 3},
      {1'000, 1500, R::down, 1'500},                                   // exact: all roundings agree
      {1'000, 1500, R::up, 1'500},   {1'999, 500, R::nearest, 1'000},  // 999.5
      {1'999, 500, R::down, 999},
  };
  for (const auto& c : cases)
    EXPECT_EQ(TimelineRateMath::sourceNanoseconds(c.sequence, rate(c.permille), c.rounding), c.expected)
        << c.sequence << " @" << c.permille << " mode " << static_cast<int>(c.rounding);
}

TEST(TimelineRateMath, SourceToSequenceUsesTheStatedBiases) {
  struct Case {
    std::int64_t source;
    std::int32_t permille;
    R rounding;
    std::int64_t expected;
  };
  const Case cases[] = {
      {3, 500, R::nearest, 6},   // half speed doubles the length
      {2, 4000, R::nearest, 1},  // 0.5 rounds up: (2000 + 2000) / 4000
      {2, 4000, R::down, 0},
      {2, 4000, R::up, 1},
      {1, 3000, R::nearest, 0},  // 0.333
      {1, 3000, R::up, 1},
      {10, 1500, R::down, 6},  // 6.67
      {10, 1500, R::nearest, 7},
      {10, 1500, R::up, 7},
      {15, 1500, R::up, 10},  // exact
      {16'666'666, 2000, R::nearest, 8'333'333},
  };
  for (const auto& c : cases)
    EXPECT_EQ(TimelineRateMath::sequenceNanoseconds(c.source, rate(c.permille), c.rounding), c.expected)
        << c.source << " @" << c.permille << " mode " << static_cast<int>(c.rounding);
}

TEST(TimelineRateMath, NegativeTimesRatesBelowOneAndOverflowGiveNone) {
  EXPECT_EQ(TimelineRateMath::sourceNanoseconds(-1, rate(1000), R::nearest), std::nullopt);
  EXPECT_EQ(TimelineRateMath::sequenceNanoseconds(-1, rate(1000), R::nearest), std::nullopt);
  EXPECT_EQ(TimelineRateMath::sourceNanoseconds(5, rate(0), R::nearest), std::nullopt);
  EXPECT_EQ(TimelineRateMath::sequenceNanoseconds(5, rate(0), R::nearest), std::nullopt);
  const std::int64_t max = std::numeric_limits<std::int64_t>::max();
  EXPECT_EQ(TimelineRateMath::sourceNanoseconds(max, rate(4000), R::down), std::nullopt);
  EXPECT_EQ(TimelineRateMath::sequenceNanoseconds(max, rate(500), R::down), std::nullopt);
  // At normal speed the largest value maps to itself: the split keeps every product in range.
  EXPECT_EQ(TimelineRateMath::sequenceNanoseconds(max, rate(1000), R::nearest), max);
  EXPECT_EQ(TimelineRateMath::sourceNanoseconds(max, rate(1000), R::up), max);
}

TEST(TimelineRateMath, ManyHoursAtOddRatesMatchWideArithmetic) {
  // Checks the split formulas against 128-bit arithmetic over long durations.
  const std::int32_t rates[] = {500, 730, 1000, 1010, 1990, 3330, 4000};
  for (std::int64_t d = 7; d < 200LL * 3600 * 1'000'000'000; d = d * 3 + 12345) {
    for (std::int32_t r : rates) {
      __int128 wide = static_cast<__int128>(d) * 1000;
      EXPECT_EQ(TimelineRateMath::sequenceNanoseconds(d, rate(r), R::down), static_cast<std::int64_t>(wide / r));
      EXPECT_EQ(TimelineRateMath::sequenceNanoseconds(d, rate(r), R::up),
                static_cast<std::int64_t>((wide + r - 1) / r));
      EXPECT_EQ(TimelineRateMath::sequenceNanoseconds(d, rate(r), R::nearest),
                static_cast<std::int64_t>((wide + r / 2) / r));
      __int128 source = static_cast<__int128>(d) * r;
      EXPECT_EQ(TimelineRateMath::sourceNanoseconds(d, rate(r), R::down), static_cast<std::int64_t>(source / 1000));
      EXPECT_EQ(TimelineRateMath::sourceNanoseconds(d, rate(r), R::up),
                static_cast<std::int64_t>((source + 999) / 1000));
      EXPECT_EQ(TimelineRateMath::sourceNanoseconds(d, rate(r), R::nearest),
                static_cast<std::int64_t>((source + 500) / 1000));
    }
  }
}

}  // namespace
}  // namespace vumo
