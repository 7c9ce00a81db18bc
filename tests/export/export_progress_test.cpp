#include "export/export_progress.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "shared/json.h"

namespace vumo {
namespace {

using Update = ExportProgressUpdate;
using Sample = ExportTimeEstimator::Sample;

TEST(ExportProgressUpdateTest, FractionByPhase) {
  struct Case {
    std::string name;
    Update update;
    double expected;
  };
  const std::vector<Case> cases = {
      {"preparing", {ExportPhase::preparing, 0, 100}, 0},
      {"first frame", Update::rendering(0, 100), 0},
      {"half rendered", Update::rendering(50, 100), 0.45},
      {"all rendered", Update::rendering(100, 100), 0.9},
      {"more than all", Update::rendering(150, 100), 0.9},
      {"negative count", Update::rendering(-5, 100), 0},
      {"no frames", Update::rendering(5, 0), 0},
      {"negative total", Update::rendering(5, -1), 0},
      {"finalizing", {ExportPhase::finalizing, 100, 100}, 0.95},
      {"completed", {ExportPhase::completed, 100, 100}, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_DOUBLE_EQ(c.update.fraction(), c.expected);
  }
  EXPECT_EQ(Json(Update::rendering(50, 100)),
            parseJson(R"({"phase": "rendering", "completedFrames": 50, "totalFrames": 100, "fraction": 0.45})"));
}

// One update of a run of 600 frames and what the estimator says after it.
struct Step {
  double elapsedSeconds;
  std::int64_t completedFrames;
  std::optional<double> expected;
};

void expectSteps(ExportTimeEstimator& estimator, const std::vector<Step>& steps, std::int64_t totalFrames = 600) {
  for (const auto& step : steps) {
    SCOPED_TRACE(std::to_string(step.elapsedSeconds) + " s, " + std::to_string(step.completedFrames) + " frames");
    auto estimate =
        estimator.estimatedRemainingSeconds(Update::rendering(step.completedFrames, totalFrames), step.elapsedSeconds);
    ASSERT_EQ(estimate.has_value(), step.expected.has_value());
    if (estimate) {
      EXPECT_DOUBLE_EQ(*estimate, *step.expected);
    }
  }
}

TEST(ExportTimeEstimatorTest, RateOverTheLastEightSeconds) {
  ExportTimeEstimator estimator;
  expectSteps(estimator, {
                             // Nothing in the first two seconds.
                             {0, 0, std::nullopt},
                             {1, 30, std::nullopt},
                             {1.5, 30, std::nullopt},
                             // 60 frames in 2 s: 540 left at 30 frames a second.
                             {2, 60, 18},
                             {4, 120, 16},
                         });
  // The repeated count at 1.5 s added nothing.
  EXPECT_EQ(estimator.samples(), (std::vector<Sample>{{0, 0}, {1, 30}, {2, 60}, {4, 120}}));

  // At 10 s the samples before 2 s leave the window: 240 frames in 8 s.
  expectSteps(estimator, {{10, 300, 10}});
  EXPECT_EQ(estimator.samples(), (std::vector<Sample>{{2, 60}, {4, 120}, {10, 300}}));

  // A faster stretch changes the rate only as far as it fills the window: at 12 s the window
  // holds 4...12 s, 300 frames in 8 s.
  expectSteps(estimator, {{12, 420, 180.0 / 37.5}});
}

TEST(ExportTimeEstimatorTest, StalledExportLosesItsEstimateAndRecovers) {
  ExportTimeEstimator estimator;
  expectSteps(estimator, {
                             {0, 0, std::nullopt},
                             {2, 60, 18},
                             {4, 120, 16},
                             {10, 300, 10},
                             // No progress since 10 s: at 12 s the window still holds 4...10 s,
                             // 180 frames in 6 s.
                             {12, 300, 10},
                             // At 15 s only the sample of 10 s is left: no span, no estimate.
                             {15, 300, std::nullopt},
                             {18, 300, std::nullopt},
                         });
  // A sample exactly 8 seconds old stays.
  EXPECT_EQ(estimator.samples(), (std::vector<Sample>{{10, 300}}));
  expectSteps(estimator, {{18.5, 300, std::nullopt}});
  EXPECT_TRUE(estimator.samples().empty());

  expectSteps(estimator, {
                             {19, 330, std::nullopt},
                             {21, 390, 7},
                             // A count beyond the total counts as the total.
                             {23, 700, 0},
                         });
  EXPECT_EQ(estimator.samples().back(), (Sample{23, 600}));
}

TEST(ExportTimeEstimatorTest, OnlyRenderingUpdatesAtValidTimesCount) {
  struct Case {
    std::string name;
    Update update;
    double elapsedSeconds;
  };
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double infinity = std::numeric_limits<double>::infinity();
  const std::vector<Case> cases = {
      {"preparing", {ExportPhase::preparing, 0, 600}, 5},   {"finalizing", {ExportPhase::finalizing, 600, 600}, 5},
      {"completed", {ExportPhase::completed, 600, 600}, 5}, {"no frames", Update::rendering(0, 0), 5},
      {"not a number", Update::rendering(100, 600), nan},   {"infinite", Update::rendering(100, 600), infinity},
      {"negative time", Update::rendering(100, 600), -1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ExportTimeEstimator estimator;
    estimator.estimatedRemainingSeconds(Update::rendering(0, 600), 0);
    EXPECT_EQ(estimator.estimatedRemainingSeconds(c.update, c.elapsedSeconds), std::nullopt);
    EXPECT_EQ(estimator.samples(), (std::vector<Sample>{{0, 0}}));
  }

  ExportTimeEstimator estimator;
  expectSteps(estimator, {{0, 0, std::nullopt}, {2, 60, 18}});
  estimator.reset();
  EXPECT_TRUE(estimator.samples().empty());
  expectSteps(estimator, {{3, 90, std::nullopt}});
}

TEST(ExportTimeEstimatorTest, ElapsedSecondsBetweenInstants) {
  auto start = std::chrono::steady_clock::time_point{} + std::chrono::seconds(100);
  EXPECT_DOUBLE_EQ(ExportTimeEstimator::elapsedSeconds(start, start + std::chrono::milliseconds(1500)), 1.5);
  EXPECT_DOUBLE_EQ(ExportTimeEstimator::elapsedSeconds(start, start), 0);
}

TEST(ExportProgressLimiterTest, AtMostEveryFiftyMillisecondsAndAlwaysTheLastFrame) {
  std::chrono::steady_clock::time_point now{};
  ExportProgressLimiter limiter([&] { return now; });
  std::vector<Update> passed;
  auto handler = [&](const Update& update) { passed.push_back(update); };

  struct Step {
    int milliseconds;
    std::int64_t frame;
    bool passes;
  };
  const std::vector<Step> steps = {
      {0, 1, true},                                     // the first always passes
      {30, 2, false},  {49, 3, false},  {50, 4, true},  // 50 ms after the last one that passed
      {60, 5, false},  {61, 100, true},                 // the final frame
      {62, 100, true}, {100, 6, false},                 // counted from the final frame's update at 62 ms
      {112, 7, true},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(std::to_string(step.milliseconds) + " ms, frame " + std::to_string(step.frame));
    now = std::chrono::steady_clock::time_point{} + std::chrono::milliseconds(step.milliseconds);
    auto before = passed.size();
    limiter.report(step.frame, 100, handler);
    ASSERT_EQ(passed.size(), before + (step.passes ? 1 : 0));
    if (step.passes) {
      EXPECT_EQ(passed.back(), Update::rendering(step.frame, 100));
    }
  }
}

TEST(ExportDurationFormatterTest, MinutesAndSecondsThenHours) {
  struct Case {
    double seconds;
    std::string expected;
  };
  const std::vector<Case> cases = {
      {0, "0:00"},
      {0.99, "0:00"},
      {59.9, "0:59"},
      {60, "1:00"},
      {61, "1:01"},
      {605, "10:05"},
      {3599.99, "59:59"},
      {3600, "1:00:00"},
      {3661, "1:01:01"},
      {36000, "10:00:00"},
      {360000, "100:00:00"},
      {-0.5, "0:00"},
      {-3700, "0:00"},
      {std::numeric_limits<double>::quiet_NaN(), "--:--"},
      {std::numeric_limits<double>::infinity(), "--:--"},
      {-std::numeric_limits<double>::infinity(), "--:--"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.seconds));
    EXPECT_EQ(ExportDurationFormatter::string(c.seconds), c.expected);
  }
  // Far beyond any film, but still a number of hours rather than a broken conversion.
  EXPECT_NE(ExportDurationFormatter::string(1e300).find(':'), std::string::npos);
}

}  // namespace
}  // namespace vumo
