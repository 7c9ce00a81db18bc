#include "timeline/annotation_track_assignment.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>

#include "support/builders.h"

namespace vumo {
namespace {

using namespace vumo::testing;

AnnotationElement at(std::int64_t startMs, std::int64_t endMs, std::int64_t track, std::int64_t z = 0) {
  AnnotationElement a = rectangle(ms(startMs), ms(endMs), z);
  a.trackIndex = track;
  return a;
}

std::vector<std::int64_t> lanes(const std::vector<AnnotationElement>& annotations) {
  std::vector<std::int64_t> result;
  for (const auto& a : AnnotationTrackAssignment::reflow(annotations)) result.push_back(a.trackIndex);
  return result;
}

TEST(AnnotationTrackAssignment, LaneChoices) {
  struct Case {
    const char* name;
    std::vector<AnnotationElement> input;
    std::vector<std::int64_t> expected;
  };
  const Case cases[] = {
      {"nothing", {}, {}},
      {"sequential ones share lane 0", {at(0, 100, 0), at(100, 200, 0), at(300, 400, 0)}, {0, 0, 0}},
      {"overlapping ones stack", {at(0, 100, 0), at(50, 150, 0), at(60, 70, 0)}, {0, 1, 2}},
      {"a free preferred lane is kept", {at(0, 100, 0), at(200, 300, 1), at(200, 300, 0)}, {0, 1, 0}},
      {"a busy preferred lane falls back to the lowest free one",
       {at(0, 100, 0), at(10, 50, 0), at(60, 90, 0)},
       {0, 1, 1}},
      {"with no free lane a new one opens", {at(0, 100, 0), at(10, 50, 0), at(20, 90, 1)}, {0, 1, 2}},
      {"a preferred lane that does not exist yet", {at(0, 100, 7)}, {0}},
      {"negative lanes prefer lane 0", {at(0, 100, -4), at(200, 300, -1)}, {0, 0}},
      {"an end meeting a start frees the lane", {at(0, 100, 1), at(100, 200, 1)}, {0, 0}},
      {"input order is kept", {at(500, 600, 0), at(0, 1000, 0)}, {1, 0}},
  };
  for (const auto& c : cases) EXPECT_EQ(lanes(c.input), c.expected) << c.name;
}

TEST(AnnotationTrackAssignment, SortsEqualStartsByEndThenLaneThenID) {
  // Same start: the one ending first is placed first and gets lane 0.
  EXPECT_EQ(lanes({at(0, 300, 0), at(0, 100, 0)}), (std::vector<std::int64_t>{1, 0}));
  // Same start and end: the lower requested lane goes first.
  EXPECT_EQ(lanes({at(0, 100, 1), at(0, 100, 0)}), (std::vector<std::int64_t>{1, 0}));
  // All equal: the UUID text decides.
  AnnotationElement a = at(0, 100, 0), b = at(0, 100, 0);
  a.id = *Uuid::parse("B0000000-0000-0000-0000-000000000000");
  b.id = *Uuid::parse("A0000000-0000-0000-0000-000000000000");
  EXPECT_EQ(lanes({a, b}), (std::vector<std::int64_t>{1, 0}));
}

TEST(AnnotationTrackAssignment, TouchesOnlyTheLane) {
  std::vector<AnnotationElement> input = {at(0, 100, 3, 9), at(50, 150, 2, 4)};
  input[0].isFilled = true;
  auto output = AnnotationTrackAssignment::reflow(input);
  for (std::size_t i = 0; i < input.size(); ++i) {
    AnnotationElement expected = input[i];
    expected.trackIndex = output[i].trackIndex;
    EXPECT_EQ(output[i], expected);
  }
}

TEST(AnnotationTrackAssignment, IsStableUnderASecondReflow) {
  std::vector<AnnotationElement> input;
  for (int i = 0; i < 40; ++i)
    input.push_back(at((i * 37) % 500, (i * 37) % 500 + 50 + (i * 13) % 200, (i * 7) % 5, i));
  auto once = AnnotationTrackAssignment::reflow(input);
  EXPECT_EQ(AnnotationTrackAssignment::reflow(once), once);
  // No two annotations in one lane overlap.
  for (std::size_t i = 0; i < once.size(); ++i)
    for (std::size_t j = i + 1; j < once.size(); ++j)
      if (once[i].trackIndex == once[j].trackIndex) {
        EXPECT_TRUE(once[i].endTime <= once[j].startTime || once[j].endTime <= once[i].startTime) << i << " " << j;
      }
}

// The lane rule spelled out directly: scan every lane for each annotation.
std::vector<std::int64_t> referenceLanes(const std::vector<AnnotationElement>& input) {
  std::vector<const AnnotationElement*> sorted;
  for (const auto& a : input) sorted.push_back(&a);
  std::sort(sorted.begin(), sorted.end(), [](const AnnotationElement* a, const AnnotationElement* b) {
    return std::tie(a->startTime, a->endTime, a->trackIndex, a->id) <
           std::tie(b->startTime, b->endTime, b->trackIndex, b->id);
  });
  std::vector<ProjectTime> ends;
  std::map<Uuid, std::int64_t> lane;
  for (const AnnotationElement* a : sorted) {
    std::size_t preferred = static_cast<std::size_t>(std::max<std::int64_t>(a->trackIndex, 0));
    std::size_t chosen = ends.size();
    if (preferred < ends.size() && ends[preferred] <= a->startTime) {
      chosen = preferred;
    } else {
      for (std::size_t i = 0; i < ends.size(); ++i)
        if (ends[i] <= a->startTime) {
          chosen = i;
          break;
        }
    }
    if (chosen == ends.size())
      ends.push_back(a->endTime);
    else
      ends[chosen] = a->endTime;
    lane[a->id] = static_cast<std::int64_t>(chosen);
  }
  std::vector<std::int64_t> result;
  for (const auto& a : input) result.push_back(lane[a.id]);
  return result;
}

TEST(AnnotationTrackAssignment, MatchesTheLaneRuleOnRandomInputsIncludingInvalidTimes) {
  std::mt19937_64 random(99);
  auto integer = [&](std::int64_t low, std::int64_t high) {
    return std::uniform_int_distribution<std::int64_t>(low, high)(random);
  };
  for (int round = 0; round < 300; ++round) {
    std::vector<AnnotationElement> input;
    for (std::int64_t n = integer(0, 60); n > 0; --n) {
      std::int64_t start = integer(0, 40) * 50;
      // Mostly ordinary; sometimes empty or reversed, which a reflow must still place somewhere.
      std::int64_t end = start + integer(-2, 12) * 50;
      input.push_back(at(start, end, integer(-2, 10)));
    }
    ASSERT_EQ(lanes(input), referenceLanes(input)) << "round " << round;
  }
}

}  // namespace
}  // namespace vumo
