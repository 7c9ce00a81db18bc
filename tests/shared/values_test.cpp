#include <gtest/gtest.h>

#include "shared/date.h"
#include "shared/geometry.h"
#include "shared/json.h"
#include "shared/project_time.h"
#include "shared/uuid.h"

namespace vumo {
namespace {

ProjectTimeRange range(std::int64_t start, std::int64_t duration) { return {{start}, {duration}}; }

TEST(ProjectTimeTest, CliMillisecondsTruncateTowardZero) {
  EXPECT_EQ(ProjectTime{999'999}.cliMilliseconds(), 0);
  EXPECT_EQ(ProjectTime{1'999'999}.cliMilliseconds(), 1);
  EXPECT_EQ(ProjectTime{-1'999'999}.cliMilliseconds(), -1);
  EXPECT_EQ(ProjectTime::fromMilliseconds(5).nanoseconds, 5'000'000);
}

TEST(ProjectTimeTest, RangeContainsStartButNotEnd) {
  EXPECT_TRUE(range(10, 5).contains({10}));
  EXPECT_TRUE(range(10, 5).contains({14}));
  EXPECT_FALSE(range(10, 5).contains({15}));
  EXPECT_FALSE(range(10, 5).contains({9}));
  EXPECT_FALSE(range(10, 0).contains({10}));
}

TEST(ProjectTimeTest, IntersectionOfTouchingRangesIsEmpty) {
  EXPECT_FALSE(range(0, 5).intersection(range(5, 3)));
  EXPECT_EQ(range(0, 5).intersection(range(4, 3)), range(4, 1));
  EXPECT_EQ(range(0, 10).intersection(range(2, 3)), range(2, 3));
}

TEST(ProjectTimeTest, JsonFormIsAnObjectWithNanoseconds) {
  Json encoded = ProjectTimeRange{{1'500'000'000}, {7}};
  EXPECT_EQ(encodeCompact(encoded), R"({"duration":{"nanoseconds":7},"start":{"nanoseconds":1500000000}})");
  EXPECT_EQ(Json::parse(R"({"nanoseconds":-3})").get<ProjectTime>().nanoseconds, -3);
  EXPECT_THROW(Json::parse(R"({"seconds":3})").get<ProjectTime>(), DecodingError);
  EXPECT_THROW(Json::parse("3").get<ProjectTime>(), DecodingError);
  EXPECT_THROW(Json::parse(R"({"nanoseconds":1.5})").get<ProjectTime>(), DecodingError);
  EXPECT_THROW(Json::parse(R"({"nanoseconds":9223372036854775808})").get<ProjectTime>(), DecodingError);
}

TEST(ProjectTimeDeathTest, OverflowStopsTheProcess) {
  ProjectTime big{INT64_MAX};
  EXPECT_DEATH((void)(big + ProjectTime{1}), "overflow");
  EXPECT_DEATH((void)ProjectTime::fromMilliseconds(INT64_MAX / 10), "overflow");
  EXPECT_DEATH((void)(ProjectTime{INT64_MIN} - ProjectTime{1}), "overflow");
}

TEST(GeometryTest, ConstrainedSizesAreEvenAndNeverEnlarged) {
  EXPECT_EQ(PixelSize::constrained(1921, 1081, 4000), (PixelSize{1920, 1080}));
  EXPECT_EQ(PixelSize::constrained(1, 1, 4000), (PixelSize{2, 2}));
  EXPECT_EQ(PixelSize::constrained(3840, 2160, 1920), (PixelSize{1920, 1080}));
  // The scaled side is floored in floating point: 1000/3001 * 3001 lands just below 1000.
  EXPECT_EQ(PixelSize::constrained(1000, 3001, 1000), (PixelSize{332, 998}));
}

TEST(GeometryTest, RecommendedBitRateFollowsTheAnchors) {
  EXPECT_EQ((PixelSize{1280, 720}).recommendedBitRate(), 12'000'000);
  EXPECT_EQ((PixelSize{1920, 1080}).recommendedBitRate(), 12'000'000);
  EXPECT_EQ((PixelSize{2560, 1440}).recommendedBitRate(), 24'000'000);
  EXPECT_EQ((PixelSize{3840, 2160}).recommendedBitRate(), 50'000'000);
  EXPECT_EQ((PixelSize{7680, 4320}).recommendedBitRate(), 50'000'000);
  // Halfway between the first two anchors.
  EXPECT_EQ((PixelSize{2880000, 1}).recommendedBitRate(), 18'000'000);
}

TEST(GeometryTest, ClampedKeepsPointsOnTheUnitSquare) {
  EXPECT_EQ((PointValue{-0.5, 1.5}).clamped(), (PointValue{0, 1}));
  EXPECT_EQ((PointValue{0.25, 0.75}).clamped(), (PointValue{0.25, 0.75}));
}

TEST(GeometryTest, EveryKeyIsRequiredWhenDecoding) {
  EXPECT_THROW(Json::parse(R"({"x":1})").get<PointValue>(), DecodingError);
  EXPECT_THROW(Json::parse(R"({"x":1,"y":2,"width":3})").get<RectValue>(), DecodingError);
  EXPECT_EQ(Json::parse(R"({"width":3,"height":4})").get<PixelSize>(), (PixelSize{3, 4}));
}

TEST(UuidTest, TextIsUpperCaseAndParsingAcceptsEitherCase) {
  auto u = Uuid::parse("0f8fad5b-d9cb-469f-a165-70867728950e");
  ASSERT_TRUE(u);
  EXPECT_EQ(u->string(), "0F8FAD5B-D9CB-469F-A165-70867728950E");
  EXPECT_EQ(Uuid::parse(u->string()), u);
  EXPECT_FALSE(Uuid::parse("0f8fad5b-d9cb-469f-a165-70867728950"));
  EXPECT_FALSE(Uuid::parse("0f8fad5bxd9cb-469f-a165-70867728950e"));
  EXPECT_NE(Uuid::random(), Uuid::random());
}

TEST(UuidTest, StableIdIsSHA256WithVersionAndVariantBits) {
  // SHA-256("abc") begins ba7816bf 8f01cfea 414140de 5dae2223.
  EXPECT_EQ(Uuid::stable("abc").string(), "BA7816BF-8F01-5FEA-8141-40DE5DAE2223");
  EXPECT_NE(Uuid::stable("abd"), Uuid::stable("abc"));
}

TEST(TimestampTest, RoundTripsAtWholeSeconds) {
  auto t = Timestamp::parseISO8601("2026-11-21T23:22:49Z");
  ASSERT_TRUE(t);
  EXPECT_EQ(t->iso8601(), "2026-11-21T23:22:49Z");
  EXPECT_EQ(Timestamp::parseISO8601("2026-11-22T07:22:49.250+08:00"), t);
  EXPECT_FALSE(Timestamp::parseISO8601("2026-11-21 23:22:49"));
  EXPECT_FALSE(Timestamp::parseISO8601("2026-02-30T00:00:00Z"));
}

}  // namespace
}  // namespace vumo
