#include "timeline/mouse_event.h"

#include <gtest/gtest.h>

#include "shared/json.h"

namespace vumo {
namespace {

constexpr const char* recorded = R"({
  "button": "left", "geometryRevision": 4294967295, "globalPoint": {"x": 100.5, "y": 200.0},
  "isInsideSource": false, "localPoint": {"x": -4.0, "y": 12.0}, "normalizedPoint": {"x": 0.0, "y": 0.25},
  "phase": "down", "rawTimestampNanoseconds": 18446744073709551615, "time": {"nanoseconds": 1500}
})";

TEST(MouseEventTest, ChunkRecordRoundTripsWithFullUnsignedRanges) {
  MouseEvent event = parseJson(recorded).get<MouseEvent>();
  EXPECT_EQ(event.rawTimestampNanoseconds, UINT64_MAX);
  EXPECT_EQ(event.geometryRevision, UINT32_MAX);
  EXPECT_EQ(event.time, ProjectTime{1500});
  EXPECT_EQ(event.localPoint, (PointValue{-4, 12}));
  EXPECT_EQ(event.button, MouseButton::left);
  EXPECT_EQ(event.phase, MousePhase::down);
  EXPECT_EQ(event.isInsideSource, false);
  EXPECT_FALSE(event.isVisibleInsideSource());
  EXPECT_EQ(Json(event).get<MouseEvent>(), event);
  EXPECT_EQ(encodeCompact(Json(event)), encodeCompact(parseJson(recorded)));
}

TEST(MouseEventTest, OlderRecordsWithoutInsideFlagCountAsInsideAndWriteNoKey) {
  Json old = parseJson(recorded);
  old.erase("isInsideSource");
  MouseEvent event = old.get<MouseEvent>();
  EXPECT_FALSE(event.isInsideSource.has_value());
  EXPECT_TRUE(event.isVisibleInsideSource());
  EXPECT_FALSE(Json(event).contains("isInsideSource"));
}

TEST(MouseEventTest, MalformedRecordsAreDecodingErrors) {
  struct Case {
    const char* key;
    Json value;
  };
  const Case cases[] = {
      {"button", "middle"},
      {"phase", "Down"},
      {"geometryRevision", 4294967296ULL},
      {"geometryRevision", -1},
      {"rawTimestampNanoseconds", -5},
      {"rawTimestampNanoseconds", 1.5},
      {"time", 12},
      {"normalizedPoint", Json::array({0, 0})},
      {"isInsideSource", "yes"},
  };
  for (const Case& c : cases) {
    Json document = parseJson(recorded);
    document[c.key] = c.value;
    EXPECT_THROW(document.get<MouseEvent>(), DecodingError) << c.key << " = " << c.value.dump();
  }
  Json missing = parseJson(recorded);
  missing.erase("localPoint");
  EXPECT_THROW(missing.get<MouseEvent>(), DecodingError);
}

TEST(MouseEventTest, EnumerationsUseTheirCaseNames) {
  for (auto button : {MouseButton::left, MouseButton::right, MouseButton::other, MouseButton::none})
    EXPECT_EQ(Json(button).get<MouseButton>(), button);
  for (auto phase : {MousePhase::moved, MousePhase::dragged, MousePhase::down, MousePhase::up})
    EXPECT_EQ(Json(phase).get<MousePhase>(), phase);
  EXPECT_EQ(Json(MousePhase::dragged), Json("dragged"));
  EXPECT_EQ(Json(MouseButton::other), Json("other"));
}

}  // namespace
}  // namespace vumo
