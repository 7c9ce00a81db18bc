#include "timeline/timeline_validator.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <string>

#include "support/builders.h"
#include "support/test_support.h"
#include "timeline/timeline_effect_engine.h"

namespace vumo {
namespace {

using namespace vumo::testing;
using Case = TimelineValidationError::Case;

const ProjectTime source = ms(10'000);
const std::int64_t frame = TimelineFrameGrid::minimumDuration.nanoseconds;
const double nan = std::numeric_limits<double>::quiet_NaN();

EditTimeline base() { return timelineOf({clip(ms(0), ms(4'000)), clip(ms(5'000), ms(10'000))}); }

std::optional<Case> failureOf(const EditTimeline& timeline, ProjectTime sourceDuration = source) {
  return testing::thrownCase<TimelineValidationError>([&] { TimelineValidator::validate(timeline, sourceDuration); });
}

struct Mutation {
  const char* name;
  std::function<void(EditTimeline&)> change;
  std::optional<Case> expected;  // none: the document is valid
  ProjectTime sourceDuration = source;
};

void expectAll(const std::vector<Mutation>& mutations) {
  for (const auto& mutation : mutations) {
    EditTimeline timeline = base();
    mutation.change(timeline);
    const EditTimeline before = timeline;
    EXPECT_EQ(failureOf(timeline, mutation.sourceDuration), mutation.expected) << mutation.name;
    if (!std::isnan(timeline.motionBlurAmount)) {
      EXPECT_EQ(timeline, before) << mutation.name << ": validation must not repair";
    }
  }
}

TEST(TimelineValidator, DocumentLevelChecksComeFirstInTheirStatedOrder) {
  expectAll({
      {"a valid document", [](EditTimeline&) {}, std::nullopt},
      {"schema 9", [](EditTimeline& t) { t.schemaVersion = 9; }, Case::unsupportedSchema},
      {"schema 9 beats an empty clip list",
       [](EditTimeline& t) {
         t.schemaVersion = 9;
         t.segments.clear();
       },
       Case::unsupportedSchema},
      {"schema 0 is not refused by the version check", [](EditTimeline& t) { t.schemaVersion = 0; }, std::nullopt},
      {"no clips", [](EditTimeline& t) { t.segments.clear(); }, Case::empty},
      {"no clips beats bad motion blur",
       [](EditTimeline& t) {
         t.segments.clear();
         t.motionBlurAmount = 2;
       },
       Case::empty},
      {"motion blur above 1", [](EditTimeline& t) { t.motionBlurAmount = 1.0001; }, Case::invalidMotionBlurAmount},
      {"motion blur below 0", [](EditTimeline& t) { t.motionBlurAmount = -0.01; }, Case::invalidMotionBlurAmount},
      {"motion blur NaN", [](EditTimeline& t) { t.motionBlurAmount = nan; }, Case::invalidMotionBlurAmount},
      {"motion blur at both ends", [](EditTimeline& t) { t.motionBlurAmount = 1; }, std::nullopt},
  });
}

TEST(TimelineValidator, DeviceFramesNeedSchema8AndAnAssetTheCatalogueKnows) {
  expectAll({
      {"known variant",
       [](EditTimeline& t) {
         t.deviceFrame = DeviceFrameEdit{true, "vumo-phone-slim-silver", DeviceFrameContentMode::fill};
       },
       std::nullopt},
      {"legacy id",
       [](EditTimeline& t) {
         t.deviceFrame = DeviceFrameEdit{true, "phone-slim", DeviceFrameContentMode::fit};
       },
       std::nullopt},
      {"disabled but unknown",
       [](EditTimeline& t) {
         t.deviceFrame = DeviceFrameEdit{false, "no-such-phone", DeviceFrameContentMode::fit};
       },
       Case::invalidDeviceFrame},
      {"schema 7",
       [](EditTimeline& t) {
         t.schemaVersion = 7;
         t.deviceFrame = DeviceFrameEdit{true, "vumo-laptop-space-gray", DeviceFrameContentMode::fit};
       },
       Case::deviceFrameRequiresSchema8},
      {"frame checks come before clip checks",
       [](EditTimeline& t) {
         t.deviceFrame = DeviceFrameEdit{true, "", DeviceFrameContentMode::fit};
         t.segments[0].sourceRange.start = ms(-1);
       },
       Case::invalidDeviceFrame},
  });
}

TEST(TimelineValidator, EveryClipFailureIsReportedWithTheClipsID) {
  expectAll({
      {"negative start", [](EditTimeline& t) { t.segments[0].sourceRange.start = ns(-1); }, Case::rangeOutsideSource},
      {"zero duration", [](EditTimeline& t) { t.segments[0].sourceRange.duration = ns(0); }, Case::rangeOutsideSource},
      {"end past the source", [](EditTimeline& t) { t.segments[1].sourceRange.duration = ms(5'000) + ns(1); },
       Case::rangeOutsideSource},
      {"end overflows 64 bits",
       [](EditTimeline& t) { t.segments[1].sourceRange.duration = ns(std::numeric_limits<std::int64_t>::max()); },
       Case::rangeOutsideSource},
      {"end exactly at the source end", [](EditTimeline& t) { t.segments[1].sourceRange.duration = ms(5'000); },
       std::nullopt},
      {"one nanosecond short of a frame", [](EditTimeline& t) { t.segments[0].sourceRange.duration = ns(frame - 1); },
       Case::segmentTooShort},
      {"exactly one frame at normal speed", [](EditTimeline& t) { t.segments[0].sourceRange.duration = ns(frame); },
       std::nullopt},
      {"rate below 0.5", [](EditTimeline& t) { t.segments[0].playbackRate.permille = 490; }, Case::invalidPlaybackRate},
      {"rate above 4", [](EditTimeline& t) { t.segments[0].playbackRate.permille = 4010; }, Case::invalidPlaybackRate},
      {"rate off the 0.01 step", [](EditTimeline& t) { t.segments[0].playbackRate.permille = 1005; },
       Case::invalidPlaybackRate},
      {"changed rate in schema 3",
       [](EditTimeline& t) {
         t.schemaVersion = 3;
         t.segments[1].playbackRate.permille = 1500;
       },
       Case::playbackRateRequiresSchema4},
      {"changed rate in schema 4",
       [](EditTimeline& t) {
         t.schemaVersion = 4;
         t.segments[1].playbackRate.permille = 1500;
       },
       std::nullopt},
      {"one frame at double speed",
       [](EditTimeline& t) {
         t.segments[0].sourceRange.duration = ns(frame);
         t.segments[0].playbackRate.permille = 2000;
       },
       Case::sequenceSegmentTooShort},
      {"two frames at double speed",
       [](EditTimeline& t) {
         t.segments[0].sourceRange.duration = ns(2 * frame);
         t.segments[0].playbackRate.permille = 2000;
       },
       std::nullopt},
      {"clips out of order", [](EditTimeline& t) { std::swap(t.segments[0], t.segments[1]); },
       Case::segmentsOutOfOrder},
      {"overlapping clips", [](EditTimeline& t) { t.segments[1].sourceRange.start = ms(4'000) - ns(1); },
       Case::overlappingSegments},
      {"touching clips", [](EditTimeline& t) { t.segments[1].sourceRange.start = ms(4'000); }, std::nullopt},
      {"two clips sharing an id", [](EditTimeline& t) { t.segments[1].id = t.segments[0].id; }, Case::duplicateID},
  });
}

TEST(TimelineValidator, ClipFailuresNameTheOffendingClip) {
  EditTimeline timeline = base();
  timeline.segments[1].sourceRange.start = ms(3'000);
  try {
    TimelineValidator::validate(timeline, source);
    FAIL() << "overlap accepted";
  } catch (const TimelineValidationError& error) {
    EXPECT_EQ(error.kind(), Case::overlappingSegments);
    EXPECT_EQ(error.id(), timeline.segments[1].id);
  }
}

TEST(TimelineValidator, SequenceLengthBeyond64BitsIsAnOverflowNotACrash) {
  const std::int64_t max = std::numeric_limits<std::int64_t>::max();
  // One clip whose slowed-down length alone does not fit.
  EditTimeline single = timelineOf({clip(ns(0), ns(max / 2 + 1'000), 500)});
  EXPECT_EQ(failureOf(single, ns(max)), Case::sequenceDurationOverflow);
  // Two clips that fit each on its own but not together.
  EditTimeline pair =
      timelineOf({clip(ns(0), ns(max / 4), 500), clip(ns(max / 4), ns(max / 4 + max / 4 + 10'000), 500)});
  EXPECT_EQ(failureOf(pair, ns(max)), Case::sequenceDurationOverflow);
}

TEST(TimelineValidator, EffectTrackFailuresPassThroughUnchanged) {
  EditTimeline timeline = base();
  ZoomSegment zoom{Uuid::random(), ms(1'000), ms(1'200), ms(1'800), ms(2'000), {0.5, 0.5}, 5.0};
  timeline.zooms.push_back(zoom);
  EXPECT_THROW(TimelineValidator::validate(timeline, source), TimelineEffectError);
  // ...but only after the clips have passed.
  timeline.segments.clear();
  EXPECT_EQ(failureOf(timeline), Case::empty);
}

TEST(TimelineValidator, AnnotationsNeedSchema7) {
  expectAll({
      {"schema 6 with an annotation",
       [](EditTimeline& t) {
         t.schemaVersion = 6;
         t.annotations.push_back(rectangle(ms(0), ms(100), 0));
       },
       Case::annotationsRequireSchema7},
      {"schema 6 with an invalid annotation still reports the schema",
       [](EditTimeline& t) {
         t.schemaVersion = 6;
         t.annotations.push_back(rectangle(ms(100), ms(0), 0));
       },
       Case::annotationsRequireSchema7},
      {"schema 7",
       [](EditTimeline& t) {
         t.schemaVersion = 7;
         t.annotations.push_back(rectangle(ms(0), ms(100), 0));
       },
       std::nullopt},
  });
}

TEST(TimelineValidator, EachAnnotationRuleRejectsItsOwnFault) {
  using A = AnnotationElement;
  struct AnnotationCase {
    const char* name;
    std::function<A()> make;
    bool valid;
  };
  auto rect = [] { return rectangle(ms(1'000), ms(2'000), 7); };
  auto with = [&](std::function<void(A&)> change, std::function<A()> maker) {
    return [=] {
      A a = maker();
      change(a);
      return a;
    };
  };
  auto combining = [](int clusters) {
    std::string s;
    for (int i = 0; i < clusters; ++i) s += "e\xCC\x81";  // e + combining acute: one cluster, two code points
    return s;
  };
  std::function<A()> arrowMaker = [] { return arrow(ms(1'000), ms(2'000), 7); };
  std::function<A()> textMaker = [] { return text(ms(1'000), ms(2'000), 7); };
  const AnnotationCase cases[] = {
      {"plain rectangle", rect, true},
      {"plain arrow", arrowMaker, true},
      {"plain text", textMaker, true},
      {"negative zIndex", with([](A& a) { a.zIndex = -1; }, rect), false},
      {"negative trackIndex", with([](A& a) { a.trackIndex = -1; }, rect), false},
      {"negative start", with([](A& a) { a.startTime = ns(-1); }, rect), false},
      {"start at end", with([](A& a) { a.endTime = a.startTime; }, rect), false},
      {"end past the source", with([](A& a) { a.endTime = source + ns(1); }, rect), false},
      {"end at the source end", with([](A& a) { a.endTime = source; }, rect), true},
      {"shorter than a frame", with([](A& a) { a.endTime = a.startTime + ns(frame - 1); }, rect), false},
      {"exactly a frame", with([](A& a) { a.endTime = a.startTime + ns(frame); }, rect), true},
      {"text without style", with([](A& a) { a.textStyle.reset(); }, textMaker), false},
      {"font 11.99", with([](A& a) { a.textStyle->fontSize = 11.99; }, textMaker), false},
      {"font 240", with([](A& a) { a.textStyle->fontSize = 240; }, textMaker), true},
      {"font 240.01", with([](A& a) { a.textStyle->fontSize = 240.01; }, textMaker), false},
      {"font NaN", with([](A& a) { a.textStyle->fontSize = nan; }, textMaker), false},
      {"2000 clusters of 4000 code points", with([&](A& a) { a.textStyle->content = combining(2000); }, textMaker),
       true},
      {"2001 clusters", with([&](A& a) { a.textStyle->content = combining(2001); }, textMaker), false},
      {"2000 ASCII letters", with([](A& a) { a.textStyle->content = std::string(2000, 'x'); }, textMaker), true},
      {"2001 ASCII letters", with([](A& a) { a.textStyle->content = std::string(2001, 'x'); }, textMaker), false},
      {"2000 CR LF pairs",
       with(
           [](A& a) {
             a.textStyle->content.clear();
             for (int i = 0; i < 2000; ++i) a.textStyle->content += "\r\n";
           },
           textMaker),
       true},
      {"style on a rectangle is not checked",
       with(
           [](A& a) {
             a.textStyle = TextAnnotationStyle{"", 1, false, TextAnnotationOutlineColor::black};
           },
           rect),
       true},
      {"corner radius above 1", with([](A& a) { a.cornerRadius = 1.01; }, rect), false},
      {"corner radius negative", with([](A& a) { a.cornerRadius = -0.01; }, rect), false},
      {"line width too thin", with([](A& a) { a.lineWidth = 0.0009; }, rect), false},
      {"line width too thick", with([](A& a) { a.lineWidth = 0.051; }, rect), false},
      {"line width at both limits", with([](A& a) { a.lineWidth = 0.05; }, rect), true},
      {"colour above 1", with([](A& a) { a.color.green = 1.01; }, rect), false},
      {"colour NaN", with([](A& a) { a.color.blue = nan; }, rect), false},
      {"arrow with bounds",
       with(
           [](A& a) {
             a.bounds = RectValue{0, 0, 0.5, 0.5};
           },
           arrowMaker),
       false},
      {"arrow without end", with([](A& a) { a.endPoint.reset(); }, arrowMaker), false},
      {"arrow point outside", with([](A& a) { a.endPoint->x = 1.01; }, arrowMaker), false},
      {"arrow too short",
       with(
           [](A& a) {
             a.endPoint = PointValue{a.startPoint->x + 0.0199, a.startPoint->y};
           },
           arrowMaker),
       false},
      {"arrow just long enough",
       with(
           [](A& a) {
             a.startPoint = PointValue{0.5, 0.5};
             a.endPoint = PointValue{0.5, 0.52};
           },
           arrowMaker),
       true},
      {"rectangle with a point",
       with(
           [](A& a) {
             a.startPoint = PointValue{0.1, 0.1};
           },
           rect),
       false},
      {"rectangle without bounds", with([](A& a) { a.bounds.reset(); }, rect), false},
      {"bounds too narrow", with([](A& a) { a.bounds->width = 0.0199; }, rect), false},
      {"bounds past the right edge",
       with(
           [](A& a) {
             a.bounds = RectValue{0.8, 0, 0.21, 0.5};
           },
           rect),
       false},
      {"bounds touching both edges",
       with(
           [](A& a) {
             a.bounds = RectValue{0.75, 0.5, 0.25, 0.5};
           },
           rect),
       true},
      {"bounds negative y", with([](A& a) { a.bounds->y = -0.001; }, rect), false},
      {"bounds NaN", with([](A& a) { a.bounds->height = nan; }, rect), false},
      {"bounds infinite", with([](A& a) { a.bounds->x = -std::numeric_limits<double>::infinity(); }, rect), false},
  };
  for (const auto& c : cases) {
    EditTimeline timeline = base();
    timeline.annotations = {rectangle(ms(0), ms(500), 1), c.make()};
    auto failure = failureOf(timeline);
    if (c.valid) {
      EXPECT_EQ(failure, std::nullopt) << c.name;
    } else {
      EXPECT_EQ(failure, Case::invalidAnnotation) << c.name;
    }
  }
}

TEST(TimelineValidator, AnnotationIdentityRules) {
  EditTimeline sameZ = base();
  sameZ.annotations = {rectangle(ms(0), ms(100), 3), rectangle(ms(9'000), ms(9'500), 3)};
  EXPECT_EQ(failureOf(sameZ), Case::invalidAnnotation) << "equal zIndex, far apart in time";

  EditTimeline sameID = base();
  sameID.annotations = {rectangle(ms(0), ms(100), 1), rectangle(ms(200), ms(300), 2)};
  sameID.annotations[1].id = sameID.annotations[0].id;
  try {
    TimelineValidator::validate(sameID, source);
    FAIL() << "duplicate id accepted";
  } catch (const TimelineValidationError& error) {
    EXPECT_EQ(error.kind(), Case::invalidAnnotation);
    EXPECT_EQ(error.id(), sameID.annotations[0].id);
  }
}

TEST(TimelineValidator, AnnotationCountLimits) {
  EditTimeline many = base();
  for (int i = 0; i < 500; ++i) many.annotations.push_back(rectangle(ms(i * 20), ms(i * 20 + 20), i));
  EXPECT_EQ(failureOf(many), std::nullopt) << "500 is allowed";
  many.annotations.push_back(rectangle(ms(0), ms(20), 500));
  EXPECT_EQ(failureOf(many), Case::tooManyAnnotations);
  many.annotations.back().endTime = ms(-5);  // the count is checked before any single annotation
  EXPECT_EQ(failureOf(many), Case::tooManyAnnotations);
}

TEST(TimelineValidator, AtMostSixteenAnnotationsAtOnce) {
  auto sixteenRunning = [] {
    EditTimeline timeline = base();
    for (int i = 0; i < 16; ++i) timeline.annotations.push_back(rectangle(ms(1'000), ms(2'000), i));
    return timeline;
  };
  EXPECT_EQ(failureOf(sixteenRunning()), std::nullopt);

  EditTimeline meeting = sixteenRunning();
  meeting.annotations.push_back(rectangle(ms(2'000), ms(3'000), 16));
  EXPECT_EQ(failureOf(meeting), std::nullopt) << "an end and a start at one instant do not overlap";

  EditTimeline overlapping = sixteenRunning();
  overlapping.annotations.push_back(rectangle(ms(2'000) - ns(1), ms(3'000), 16));
  EXPECT_EQ(failureOf(overlapping), Case::tooManySimultaneousAnnotations);

  EditTimeline staggered = base();  // never more than 16 at once although 32 in all
  for (int i = 0; i < 32; ++i) staggered.annotations.push_back(rectangle(ms(i * 100), ms(i * 100 + 1'600), i));
  EXPECT_EQ(failureOf(staggered), std::nullopt);
  staggered.annotations[16].startTime = ms(1'599);
  EXPECT_EQ(failureOf(staggered), Case::tooManySimultaneousAnnotations);
}

TEST(TimelineValidationError, TheUnsupportedSchemaCaseKeepsTheRefusedVersion) {
  // Keys, texts and classification of every case are in the golden error catalogue.
  EXPECT_EQ(TimelineValidationError::unsupportedSchema(12).schemaVersion(), 12);
}

}  // namespace
}  // namespace vumo
