#include "recording/recording_clock.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "shared/json.h"

namespace vumo {
namespace {

constexpr std::int64_t ms = 1'000'000;
constexpr std::int64_t s = 1'000'000'000;

std::optional<std::int64_t> hostTime(const RecordingClock& clock, std::int64_t host) {
  auto t = clock.projectTimeForHostTimeNanoseconds(std::uint64_t(host));
  if (!t) return std::nullopt;
  return t->nanoseconds;
}

std::optional<std::int64_t> videoTime(const RecordingClock& clock, VideoTimestamp pts) {
  auto t = clock.projectTimeForVideoPTS(pts);
  if (!t) return std::nullopt;
  return t->nanoseconds;
}

TEST(RecordingClock, MapsHostAndVideoTimeThroughStartPauseAndResume) {
  RecordingClock clock;
  EXPECT_FALSE(clock.isStarted());
  EXPECT_EQ(hostTime(clock, 5 * s), std::nullopt);
  EXPECT_EQ(videoTime(clock, 1 * s), std::nullopt);
  EXPECT_EQ(clock.videoPTS(ProjectTime{0}), std::nullopt);

  clock.start(1 * s, 5 * s);
  clock.start(2 * s, 6 * s);  // the first start stays
  EXPECT_TRUE(clock.isStarted());
  EXPECT_EQ(hostTime(clock, 5 * s + 100 * ms), 100 * ms);
  EXPECT_EQ(hostTime(clock, 5 * s - 5 * ms), -5 * ms);  // before the anchor: negative, not filtered
  EXPECT_EQ(videoTime(clock, 1 * s + 500 * ms), 500 * ms);
  EXPECT_EQ(clock.videoPTS(ProjectTime{250 * ms}), 1 * s + 250 * ms);
  ASSERT_EQ(clock.anchors().size(), 1u);
  EXPECT_EQ(clock.anchors()[0], (ClockAnchor{ProjectTime{0}, 1 * s, 5 * s, 0}));

  clock.pause();
  EXPECT_EQ(hostTime(clock, 5 * s + 200 * ms), std::nullopt);
  EXPECT_EQ(videoTime(clock, 1 * s + 700 * ms), 700 * ms);  // video time still maps while held

  // An hour later the output timeline goes on at 600 ms: the hour vanishes from host time too.
  clock.resume(1 * s + 600 * ms, 3605 * s);
  EXPECT_EQ(hostTime(clock, 3605 * s + 50 * ms), 650 * ms);
  ASSERT_EQ(clock.anchors().size(), 2u);
  EXPECT_EQ(clock.anchors()[1], (ClockAnchor{ProjectTime{600 * ms}, 1 * s + 600 * ms, 3605 * s, 0}));
}

TEST(RecordingClock, ResumeWithoutStartLeavesTheClockNotStarted) {
  RecordingClock clock;
  clock.resume(1 * s, 1 * s);
  EXPECT_FALSE(clock.isStarted());
  EXPECT_EQ(hostTime(clock, 2 * s), std::nullopt);
  EXPECT_TRUE(clock.anchors().empty());
}

TEST(RecordingClock, HostValuesBeyondTheSignedRangeAreClamped) {
  RecordingClock clock;
  clock.start(0, 0);
  auto t = clock.projectTimeForHostTimeNanoseconds(std::numeric_limits<std::uint64_t>::max());
  ASSERT_TRUE(t);
  EXPECT_EQ(t->nanoseconds, std::numeric_limits<std::int64_t>::max());
}

TEST(RecordingClock, DiagnosticAnchorsEveryTenSecondsOfProjectTime) {
  RecordingClock clock;
  EXPECT_EQ(clock.recordDiagnosticAnchor(20 * s, 20 * s), std::nullopt);  // not started
  clock.start(1 * s, 5 * s);
  struct Row {
    std::int64_t elapsed;
    std::int64_t hostElapsed;
    std::optional<std::int64_t> offset;  // none: no anchor
  };
  const Row rows[] = {
      {9 * s, 9 * s, std::nullopt},
      {10 * s, 10 * s + 3 * ms, -3 * ms},  // exactly at 10 s; the host ran 3 ms ahead
      {10 * s + 16 * ms, 10 * s + 16 * ms, std::nullopt},
      {20 * s - 1, 20 * s, std::nullopt},
      {20 * s, 20 * s - 7 * ms, 7 * ms},  // ten seconds after the previous anchor, not every frame after
      {25 * s, 25 * s, std::nullopt},
  };
  for (const Row& row : rows) {
    auto anchor = clock.recordDiagnosticAnchor(1 * s + row.elapsed, std::uint64_t(5 * s + row.hostElapsed));
    ASSERT_EQ(anchor.has_value(), row.offset.has_value()) << row.elapsed;
    if (!anchor) continue;
    EXPECT_EQ(anchor->offsetNanoseconds, *row.offset);
    EXPECT_EQ(anchor->projectTime.nanoseconds, row.elapsed);
    EXPECT_EQ(anchor->videoPTSNanoseconds, 1 * s + row.elapsed);
  }
  EXPECT_EQ(clock.anchors().size(), 3u);
}

TEST(RecordingClock, ObserveFlagsClocksThatStallRunBackwardsOrDisagree) {
  struct Row {
    const char* name;
    VideoTimestamp video;
    std::int64_t host;
    bool discontinuity;
  };
  // Every row follows a clock started at video 1 s, host 1 s.
  const Row rows[] = {
      {"one steady frame", 1 * s + 16 * ms, 1 * s + 16 * ms, false},
      {"equal video times", 1 * s, 1 * s + 16 * ms, true},
      {"host stood still", 1 * s + 16 * ms, 1 * s, true},
      {"host ran backwards", 1 * s + 16 * ms, 1 * s - 1, true},
      {"60 ms of host, 5 ms of video", 1 * s + 5 * ms, 1 * s + 60 * ms, true},
      {"exactly 50 ms apart", 1 * s + 10 * ms, 1 * s + 60 * ms, false},
      {"50 ms and one nanosecond apart", 1 * s + 10 * ms, 1 * s + 60 * ms + 1, true},
      {"video not a number after a real time", std::nullopt, 1 * s + 16 * ms, true},
  };
  for (const Row& row : rows) {
    RecordingClock clock;
    clock.start(1 * s, 1 * s);
    EXPECT_EQ(clock.observe(row.video, std::uint64_t(row.host)), row.discontinuity) << row.name;
  }
}

TEST(RecordingClock, ObserveAfterAPauseComparesWithTheResume) {
  RecordingClock clock;
  clock.start(1 * s, 1 * s);
  EXPECT_FALSE(clock.observe(1 * s + 16 * ms, 1 * s + 16 * ms));
  clock.pause();
  EXPECT_FALSE(clock.observe(1 * s + 33 * ms, 2 * s));  // nothing to compare with while held
  clock.pause();
  clock.resume(1 * s + 33 * ms, 3601 * s);
  // Against the values before the pause the host would have jumped an hour.
  EXPECT_FALSE(clock.observe(1 * s + 50 * ms, 3601 * s + 17 * ms));
  EXPECT_TRUE(clock.observe(1 * s + 50 * ms, 3601 * s + 34 * ms));
}

TEST(RecordingClock, AnchorJsonKeys) {
  Json j = ClockAnchor{ProjectTime{5}, 6, 7, -8};
  EXPECT_EQ(j.dump(), R"({"hostTimeNanoseconds":7,"offsetNanoseconds":-8,"projectTime":{"nanoseconds":5},)"
                      R"("videoPTSNanoseconds":6})");
  EXPECT_EQ(j.get<ClockAnchor>(), (ClockAnchor{ProjectTime{5}, 6, 7, -8}));
}

// ---- GeometryTracker ---------------------------------------------------------------------------

constexpr PixelSize encoded{1920, 1080};
constexpr RectValue fallbackFrame{0, 0, 1440, 900};
constexpr SizeValue fallbackContent{1920, 1080};

TEST(GeometryTracker, NumbersEachChangeOfGeometryOnce) {
  GeometryTracker tracker(encoded, fallbackFrame, fallbackContent);
  EXPECT_EQ(tracker.current(), std::nullopt);
  const double inf = std::numeric_limits<double>::infinity();
  struct Row {
    const char* name;
    GeometryFrameMetadata metadata;
    std::optional<std::uint32_t> revision;  // none: no new sample
    RectValue frame;
    SizeValue content;
    RectValue contentRect;
  };
  const Row rows[] = {
      {"first frame",
       {{100, 50, 1280, 720}, {0, 0, 1280, 720}, 1.5},
       1,
       {100, 50, 1280, 720},
       {1920, 1080},
       {0, 0, 1920, 1080}},
      {"the same again", {{100, 50, 1280, 720}, {0, 0, 1280, 720}, 1.5}, std::nullopt, {}, {}, {}},
      {"moved",
       {{300, 50, 1280, 720}, {0, 0, 1280, 720}, 1.5},
       2,
       {300, 50, 1280, 720},
       {1920, 1080},
       {0, 0, 1920, 1080}},
      {"square content",
       {{300, 50, 1280, 720}, {0, 0, 720, 720}, 1.5},
       3,
       {300, 50, 1280, 720},
       {1080, 1080},
       {420, 0, 1080, 1080}},
      {"scale 1",
       {{300, 50, 1280, 720}, {0, 0, 1280, 720}, 1.0},
       4,
       {300, 50, 1280, 720},
       {1280, 720},
       {0, 0, 1920, 1080}},
      // Below 1 the pixels stay those of scale 1, but the reported scale changed.
      {"scale 0.5",
       {{300, 50, 1280, 720}, {0, 0, 1280, 720}, 0.5},
       5,
       {300, 50, 1280, 720},
       {1280, 720},
       {0, 0, 1920, 1080}},
      {"nothing known", {{}, {}, 1.0}, 6, fallbackFrame, fallbackContent, {0, 0, 1920, 1080}},
      {"infinite rectangles", {{-inf, -inf, inf, inf}, {0, 0, inf, 10}, 1.0}, std::nullopt, {}, {}, {}},
  };
  for (const Row& row : rows) {
    auto sample = tracker.update(ProjectTime{std::int64_t(row.revision.value_or(0)) * 100}, row.metadata);
    ASSERT_EQ(sample.has_value(), row.revision.has_value()) << row.name;
    if (!sample) continue;
    EXPECT_EQ(sample->revision, *row.revision) << row.name;
    EXPECT_EQ(sample->globalWindowFrame, row.frame) << row.name;
    EXPECT_EQ(sample->sourceContentSize, row.content) << row.name;
    EXPECT_EQ(sample->contentRectInEncodedFrame, row.contentRect) << row.name;
    EXPECT_EQ(sample->scaleFactor, row.metadata.scaleFactor) << row.name;
    EXPECT_EQ(sample->encodedPixelSize, encoded) << row.name;
    EXPECT_EQ(tracker.current(), sample) << row.name;
  }
}

TEST(GeometryTracker, AspectFitCentresTheSourceOrTakesTheWholeFrame) {
  struct Row {
    SizeValue source;
    RectValue fitted;
  };
  const Row rows[] = {
      {{1920, 1080}, {0, 0, 1920, 1080}}, {{1440, 1080}, {240, 0, 1440, 1080}}, {{1920, 540}, {0, 270, 1920, 540}},
      {{0, 100}, {0, 0, 1920, 1080}},     {{100, -1}, {0, 0, 1920, 1080}},
  };
  for (const Row& row : rows)
    EXPECT_EQ(GeometryTracker::aspectFit(row.source, encoded), row.fitted)
        << row.source.width << "x" << row.source.height;
}

TEST(GeometrySample, PointsOutsideTheFrameClampOnlyWhenNormalized) {
  GeometrySample sample;
  sample.globalWindowFrame = {100, 200, 400, 300};
  EXPECT_EQ(sample.localPoint({50, 600}), (PointValue{-50, 400}));
  EXPECT_EQ(sample.normalizedPoint({50, 600}), (PointValue{0, 1}));
  EXPECT_EQ(sample.normalizedPoint({300, 350}), (PointValue{0.5, 0.5}));
}

}  // namespace
}  // namespace vumo
