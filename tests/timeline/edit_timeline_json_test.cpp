#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>

#include "shared/files.h"
#include "shared/json.h"
#include "support/builders.h"
#include "support/test_support.h"
#include "timeline/timeline_validator.h"

namespace vumo {
namespace {

using namespace vumo::testing;

const char* const segmentA = "11111111-1111-1111-1111-111111111111";

std::string segmentJson(const std::string& extra = "") {
  return std::string(R"({"id":")") + segmentA +
         R"(","sourceRange":{"start":{"nanoseconds":0},"duration":{"nanoseconds":1000000000}})" + extra + "}";
}

std::string decodingMessage(const std::string& text) {
  try {
    decodeEditTimeline(text);
  } catch (const DecodingError& error) {
    return error.what();
  }
  return "(decoded)";
}

// Two items of every kind that commands address by id.
EditTimeline documentWithEveryAddressableKind() {
  EditTimeline timeline = timelineOf({clip(ms(0), ms(1'000)), clip(ms(2'000), ms(3'000))});
  timeline.zooms = {{Uuid::random(), ms(0), ms(100), ms(200), ms(300)},
                    {Uuid::random(), ms(400), ms(500), ms(600), ms(700)}};
  timeline.annotations = {rectangle(ms(0), ms(100), 0), rectangle(ms(200), ms(300), 1)};
  timeline.webcamOverlay = WebcamOverlay::defaultValue();
  timeline.webcamFullscreenSegments = {{Uuid::random(), ms(0), ms(100)}, {Uuid::random(), ms(200), ms(300)}};
  timeline.webcamKeyframes = {{Uuid::random(), ms(0), {0.5, 0.5}, 0.2}, {Uuid::random(), ms(100), {0.5, 0.5}, 0.2}};
  return timeline;
}

TEST(EditTimelineDecoding, ItemsOfOneKindSharingAnIdAreRefusedNamingTheId) {
  struct Row {
    const char* kind;
    std::function<Uuid(EditTimeline&)> share;  // gives the second item the first one's id
  };
  const Row rows[] = {
      {"clips", [](EditTimeline& t) { return t.segments[1].id = t.segments[0].id; }},
      {"zooms", [](EditTimeline& t) { return t.zooms[1].id = t.zooms[0].id; }},
      {"annotations", [](EditTimeline& t) { return t.annotations[1].id = t.annotations[0].id; }},
      {"full-screen camera segments",
       [](EditTimeline& t) { return t.webcamFullscreenSegments[1].id = t.webcamFullscreenSegments[0].id; }},
      {"camera keyframes", [](EditTimeline& t) { return t.webcamKeyframes[1].id = t.webcamKeyframes[0].id; }},
  };
  ASSERT_NO_THROW(decodeEditTimeline(encodeEditTimeline(documentWithEveryAddressableKind())));
  for (const Row& row : rows) {
    EditTimeline timeline = documentWithEveryAddressableKind();
    const Uuid shared = row.share(timeline);
    const std::string text = encodeEditTimeline(timeline);
    try {
      decodeEditTimeline(text);
      ADD_FAILURE() << row.kind << " sharing an id decoded";
    } catch (const TimelineValidationError& error) {
      EXPECT_EQ(error.kind(), TimelineValidationError::Case::duplicateID) << row.kind;
      EXPECT_EQ(error.id(), shared) << row.kind;
    }
  }
}

TEST(EditTimelineDecoding, IdsNeedOnlyBeUniqueWithinTheirKind) {
  EditTimeline timeline = documentWithEveryAddressableKind();
  const Uuid id = timeline.segments[0].id;
  timeline.zooms[0].id = id;
  timeline.annotations[0].id = id;
  timeline.webcamFullscreenSegments[0].id = id;
  timeline.webcamKeyframes[0].id = id;
  EXPECT_EQ(decodeEditTimeline(encodeEditTimeline(timeline)), timeline);
}

TEST(EditTimelineDecoding, AnEmptyObjectIsASchema1DocumentWithAllDefaults) {
  EditTimeline t = decodeEditTimeline("{}");
  EXPECT_EQ(t.schemaVersion, 1);
  EXPECT_TRUE(t.segments.empty());
  EXPECT_EQ(t.motionBlurAmount, 0.5);
  EXPECT_EQ(t.canvas, CanvasEdit::defaultValue());
  EXPECT_EQ(t.cursor, CursorEdit::defaultValue());
  EXPECT_EQ(t.audioMix, AudioMixEdit{});
  EXPECT_FALSE(t.webcamOverlay);
  EXPECT_FALSE(t.deviceFrame);
}

TEST(EditTimelineDecoding, AnOldCanvasWithoutCornerRadiusGetsTheLegacyRadius) {
  EditTimeline t = decodeEditTimeline(R"({"canvas":{}})");
  EXPECT_EQ(t.canvas.cornerRadius, 0.035);
  EXPECT_EQ(CanvasEdit::defaultValue().cornerRadius, 0.015);
  EXPECT_EQ(t.canvas.padding, 0.08);
  EXPECT_EQ(t.canvas.aspectRatio, CanvasAspectRatio::landscape16x9);
  EXPECT_EQ(t.canvas.preset, CanvasBackgroundPreset::midnightViolet);
}

TEST(EditTimelineDecoding, AMissingPresetFollowsTheBackground) {
  EXPECT_EQ(decodeEditTimeline(R"({"canvas":{"background":"solid"}})").canvas.preset, CanvasBackgroundPreset::midnight);
  EXPECT_EQ(decodeEditTimeline(R"({"canvas":{"background":"gradient"}})").canvas.preset,
            CanvasBackgroundPreset::midnightViolet);
  EXPECT_EQ(decodeEditTimeline(R"({"canvas":{"preset":"warm-gray","aspectRatio":"4:3"}})").canvas.preset,
            CanvasBackgroundPreset::warmGray);
  EXPECT_EQ(decodeEditTimeline(R"({"canvas":{"aspectRatio":"4:3"}})").canvas.aspectRatio,
            CanvasAspectRatio::portrait4x3);
}

TEST(EditTimelineDecoding, PlaybackRatesMustBeExactHundredths) {
  struct Case {
    const char* multiplier;
    std::optional<std::int32_t> permille;
  };
  const Case cases[] = {
      {"1.01", 1010},
      {"0.5", 500},
      {"4", 4000},
      {"4.0", 4000},
      {"1", 1000},
      {"2.37", 2370},
      {"1.0000000001", 1000},   // within 1e-6 of a whole permille
      {"1.005", std::nullopt},  // a whole permille, but not a multiple of ten
      {"0.499", std::nullopt},
      {"0.49", std::nullopt},
      {"4.01", std::nullopt},
      {"1.0001", std::nullopt},
      {"-1", std::nullopt},
      {"0", std::nullopt},
      {"1e308", std::nullopt},
      {"\"1.5\"", std::nullopt},
      {"true", std::nullopt},
  };
  for (const auto& c : cases) {
    std::string document = R"({"segments":[)" + segmentJson(std::string(R"(,"playbackRate":)") + c.multiplier) + "]}";
    if (c.permille) {
      EXPECT_EQ(decodeEditTimeline(document).segments.at(0).playbackRate.permille, *c.permille) << c.multiplier;
    } else {
      EXPECT_EQ(decodingMessage(document),
                "Playback speed must be a finite value from 0.50 to 4.00 in increments of 0.01.")
          << c.multiplier;
    }
  }
  EXPECT_TRUE(decodeEditTimeline(R"({"segments":[)" + segmentJson() + "]}").segments[0].playbackRate.isNormal());
}

TEST(EditTimelineDecoding, ClickEffectStylesIncludingTheLegacySoftGlow) {
  auto style = [](const char* name) {
    return decodeEditTimeline(std::string(R"({"cursor":{"clickEffectStyle":")") + name + "\"}}")
        .cursor.clickEffectStyle;
  };
  EXPECT_EQ(style("soft-glow"), ClickEffectStyle::solidPulse);
  EXPECT_EQ(style("solid-pulse"), ClickEffectStyle::solidPulse);
  EXPECT_EQ(style("ring-and-press"), ClickEffectStyle::ringAndPress);
  EXPECT_EQ(decodingMessage(R"({"cursor":{"clickEffectStyle":"sparkle"}})"), "Unsupported click effect style: sparkle");
  // Other cursor keys keep their defaults.
  EditTimeline t = decodeEditTimeline(R"({"cursor":{"scale":2}})");
  EXPECT_EQ(t.cursor.scale, 2);
  EXPECT_TRUE(t.cursor.isVisible);
  EXPECT_EQ(t.cursor.clickEffectStyle, ClickEffectStyle::ring);
  // The legacy name is read but never written.
  EXPECT_THAT(encodeEditTimeline(decodeEditTimeline(R"({"cursor":{"clickEffectStyle":"soft-glow"}})")),
              ::testing::HasSubstr("\"solid-pulse\""));
}

TEST(EditTimelineDecoding, CameraOverlayShapesOfOlderDocuments) {
  const std::string base = R"("isVisible":true,"center":{"x":0.5,"y":0.5},"diameter":0.3,"isMirrored":false)";
  auto overlay = [&](const std::string& extra) {
    return *decodeEditTimeline(R"({"webcamOverlay":{)" + base + extra + "}}").webcamOverlay;
  };
  struct Case {
    const char* name;
    std::string extra;
    WebcamAspectRatio aspect;
    double cornerRadius;
  };
  const Case cases[] = {
      {"no shape at all is a circle", "", WebcamAspectRatio::square, 1.0},
      {"legacy circle", R"(,"shape":"circle")", WebcamAspectRatio::square, 1.0},
      {"legacy rounded rectangle", R"(,"shape":"roundedRectangle")", WebcamAspectRatio::square, 0.6},
      {"legacy shape ignores a corner radius", R"(,"shape":"circle","cornerRadius":0.2)", WebcamAspectRatio::square,
       1.0},
      {"aspect without radius", R"(,"aspectRatio":"source")", WebcamAspectRatio::source, 0.6},
      {"aspect wins over shape", R"(,"aspectRatio":"square","shape":"circle","cornerRadius":0.25)",
       WebcamAspectRatio::square, 0.25},
      {"radius clamped high", R"(,"aspectRatio":"source","cornerRadius":1.7)", WebcamAspectRatio::source, 1.0},
      {"radius clamped low", R"(,"aspectRatio":"source","cornerRadius":-3)", WebcamAspectRatio::source, 0.0},
  };
  for (const auto& c : cases) {
    WebcamOverlay o = overlay(c.extra);
    EXPECT_EQ(o.aspectRatio, c.aspect) << c.name;
    EXPECT_EQ(o.cornerRadius, c.cornerRadius) << c.name;
    EXPECT_TRUE(o.showsBorder) << c.name;
    EXPECT_TRUE(o.showsShadow) << c.name;
    EXPECT_EQ(o.borderWidthAt1080p, 10) << c.name;
  }
  EXPECT_EQ(overlay(R"(,"borderWidthAt1080p":30)").borderWidthAt1080p, 20);
  EXPECT_EQ(overlay(R"(,"borderWidthAt1080p":0.5)").borderWidthAt1080p, 2);
  EXPECT_FALSE(overlay(R"(,"showsBorder":false,"showsShadow":false)").showsBorder);
  EXPECT_THAT(decodingMessage(R"({"webcamOverlay":{)" + base + R"(,"shape":"hexagon"}})"),
              ::testing::HasSubstr("hexagon"));
  EXPECT_THAT(decodingMessage(R"({"webcamOverlay":{"isVisible":true}})"), ::testing::HasSubstr("center"));

  std::string written =
      encodeEditTimeline(decodeEditTimeline(R"({"webcamOverlay":{)" + base + R"(,"shape":"circle"}})"));
  EXPECT_THAT(written, ::testing::Not(::testing::HasSubstr("\"shape\"")));
  EXPECT_THAT(written, ::testing::HasSubstr("\"aspectRatio\": \"square\""));
}

TEST(EditTimelineDecoding, TrackElementsWithoutIDsGetFreshOnes) {
  EditTimeline t = decodeEditTimeline(R"({
    "zooms": [
      {"startTime":{"nanoseconds":0},"focusTime":{"nanoseconds":1},"holdEndTime":{"nanoseconds":2},
       "endTime":{"nanoseconds":3},"focusPoint":{"x":0.5,"y":0.5},"scale":1},
      {"startTime":{"nanoseconds":5},"focusTime":{"nanoseconds":6},"holdEndTime":{"nanoseconds":7},
       "endTime":{"nanoseconds":8},"focusPoint":{"x":0.5,"y":0.5},"scale":1}],
    "webcamKeyframes": [{"time":{"nanoseconds":0},"center":{"x":0.1,"y":0.2},"diameter":0.2}],
    "webcamFullscreenSegments": [{"startTime":{"nanoseconds":0},"endTime":{"nanoseconds":9}}],
    "annotations": [{"startTime":{"nanoseconds":0},"endTime":{"nanoseconds":9},"kind":"circle"}]
  })");
  ASSERT_EQ(t.zooms.size(), 2u);
  EXPECT_NE(t.zooms[0].id, t.zooms[1].id);
  EXPECT_NE(t.zooms[0].id, Uuid{});
  EXPECT_NE(t.webcamKeyframes.at(0).id, Uuid{});
  EXPECT_NE(t.webcamFullscreenSegments.at(0).id, Uuid{});
  EXPECT_NE(t.annotations.at(0).id, Uuid{});
}

TEST(EditTimelineDecoding, AnnotationDefaultsAndTheDefaultTextStyle) {
  EditTimeline t = decodeEditTimeline(R"({"annotations":[
    {"startTime":{"nanoseconds":0},"endTime":{"nanoseconds":9},"kind":"text"},
    {"startTime":{"nanoseconds":0},"endTime":{"nanoseconds":9},"kind":"mosaic","textStyle":{"content":"x","fontSize":20,"hasOutline":true}}
  ]})");
  const AnnotationElement& text = t.annotations.at(0);
  ASSERT_TRUE(text.textStyle);
  EXPECT_EQ(text.textStyle->content, "Text");
  EXPECT_EQ(text.textStyle->fontSize, 48);
  EXPECT_FALSE(text.textStyle->hasOutline);
  EXPECT_EQ(text.textStyle->outlineColor, TextAnnotationOutlineColor::black);
  EXPECT_EQ(text.color, (CanvasColorValue{0.96, 0.45, 0.16}));
  EXPECT_EQ(text.lineWidth, 0.006);
  EXPECT_EQ(text.cornerRadius, 0);
  EXPECT_FALSE(text.isFilled || text.dimsOutside || text.locksAspectRatio);
  EXPECT_EQ(text.zIndex, 0);
  EXPECT_EQ(text.trackIndex, 0);
  EXPECT_FALSE(text.bounds || text.startPoint || text.endPoint);
  // A style on another kind is kept as written.
  EXPECT_EQ(t.annotations.at(1).textStyle->content, "x");
}

TEST(EditTimelineDecoding, OddDocumentsFailWithAClearMessage) {
  struct Case {
    const char* name;
    std::string text;
    const char* mentions;
  };
  const Case cases[] = {
      {"not JSON", "{\"segments\": [", "JSON"},
      {"an array", "[]", "object"},
      {"a string", "\"timeline\"", "object"},
      {"segments not an array", R"({"segments":{}})", "array"},
      {"a clip that is a number", R"({"segments":[5]})", "object"},
      {"a clip without id",
       R"({"segments":[{"sourceRange":{"start":{"nanoseconds":0},"duration":{"nanoseconds":1}}}]})", "id"},
      {"a malformed UUID",
       R"({"segments":[{"id":"nope","sourceRange":{"start":{"nanoseconds":0},"duration":{"nanoseconds":1}}}]})",
       "UUID"},
      {"time as a bare number",
       R"({"segments":[{"id":"11111111-1111-1111-1111-111111111111","sourceRange":{"start":0,"duration":1}}]})",
       "object"},
      {"fractional nanoseconds",
       R"({"segments":[{"id":"11111111-1111-1111-1111-111111111111","sourceRange":{"start":{"nanoseconds":0.5},"duration":{"nanoseconds":1}}}]})",
       "integer"},
      {"nanoseconds beyond 64 bits",
       R"({"segments":[{"id":"11111111-1111-1111-1111-111111111111","sourceRange":{"start":{"nanoseconds":9223372036854775808},"duration":{"nanoseconds":1}}}]})",
       "range"},
      {"fractional schema", R"({"schemaVersion":2.5})", "integer"},
      {"schema as text", R"({"schemaVersion":"8"})", "integer"},
      {"audio mix with one track", R"({"audioMix":{"systemAudio":{"isMuted":false,"gainDecibels":0}}})", "microphone"},
      {"unknown aspect", R"({"canvas":{"aspectRatio":"21:9"}})", "21:9"},
      {"unknown preset", R"({"canvas":{"preset":"neon"}})", "neon"},
      {"unknown annotation kind",
       R"({"annotations":[{"startTime":{"nanoseconds":0},"endTime":{"nanoseconds":9},"kind":"star"}]})", "star"},
      {"device frame without asset", R"({"deviceFrame":{"isEnabled":true}})", "assetID"},
      {"boolean as number", R"({"cursor":{"isVisible":1}})", "boolean"},
  };
  for (const auto& c : cases) {
    EXPECT_THAT(decodingMessage(c.text), ::testing::HasSubstr(c.mentions)) << c.name;
  }
}

TEST(EditTimelineDecoding, NullOptionalsReadAsMissingAndUnknownKeysAreIgnored) {
  EditTimeline t = decodeEditTimeline(
      R"({"schemaVersion":8,"deviceFrame":null,"webcamOverlay":null,"zooms":null,"futureFeature":{"x":1},"motionBlurAmount":null})");
  EXPECT_FALSE(t.deviceFrame);
  EXPECT_FALSE(t.webcamOverlay);
  EXPECT_TRUE(t.zooms.empty());
  EXPECT_EQ(t.motionBlurAmount, 0.5);
}

TEST(EditTimelineEncoding, WritesEveryRequiredKeyAndLeavesAbsentOptionalsOut) {
  EditTimeline t = timelineOf({clip(ms(0), ms(1'000), 1500)});
  Json written = parseJson(encodeEditTimeline(t));
  for (const char* key : {"schemaVersion", "segments", "motionBlurAmount", "canvas", "cursor", "webcamKeyframes",
                          "webcamFullscreenSegments", "audioMix", "zooms", "annotations"})
    EXPECT_TRUE(written.contains(key)) << key;
  EXPECT_FALSE(written.contains("deviceFrame"));
  EXPECT_FALSE(written.contains("webcamOverlay"));
  EXPECT_FALSE(written["canvas"].contains("image"));
  EXPECT_EQ(written["segments"][0]["playbackRate"], 1.5);
  EXPECT_EQ(written["segments"][0]["sourceRange"]["duration"]["nanoseconds"], 1'000'000'000);

  AnnotationElement a = arrow(ms(0), ms(100), 0);
  t.annotations = {a};
  written = parseJson(encodeEditTimeline(t));
  EXPECT_FALSE(written["annotations"][0].contains("bounds"));
  EXPECT_FALSE(written["annotations"][0].contains("textStyle"));
  EXPECT_TRUE(written["annotations"][0].contains("startPoint"));

  t.canvas.image = CanvasBackgroundImage{
      "wall",       "backgrounds/wall.png",           {1920, 1080}, CanvasBackgroundImageSource::uploaded,
      std::nullopt, CanvasBackgroundMediaKind::image, std::nullopt};
  written = parseJson(encodeEditTimeline(t));
  EXPECT_EQ(written["canvas"]["image"]["mediaKind"], "image");
  EXPECT_FALSE(written["canvas"]["image"].contains("selectionID"));
  EXPECT_FALSE(written["canvas"]["image"].contains("duration"));
}

TEST(EditTimelineEncoding, IsPrettyPrintedWithSortedKeys) {
  std::string text = encodeEditTimeline(EditTimeline::empty());
  EXPECT_EQ(text.rfind("{\n  \"annotations\": [],\n  \"audioMix\": {", 0), 0u) << text.substr(0, 80);
  EXPECT_LT(text.find("\"schemaVersion\": 8"), text.find("\"segments\""));
}

TEST(EditTimelineEncoding, EveryEnumerationHasItsKebabCaseString) {
  EXPECT_EQ(nameOf(CanvasAspectRatio::portrait3x4), "3:4");
  EXPECT_EQ(nameOf(CanvasAspectRatio::square), "1:1");
  EXPECT_EQ(nameOf(CanvasBackgroundPreset::forestGradient), "forest-gradient");
  EXPECT_EQ(nameOf(CanvasBackgroundPreset::warmGray), "warm-gray");
  EXPECT_EQ(nameOf(CanvasBackgroundImageSource::bundledLandscape), "bundled-landscape");
  EXPECT_EQ(nameOf(ClickEffectStyle::ringAndPress), "ring-and-press");
  for (CanvasBackgroundPreset preset : allCanvasBackgroundPresets())
    EXPECT_EQ(parseName<CanvasBackgroundPreset>(nameOf(preset)), preset);
}

TEST(CanvasBackgroundPreset, TwelveGradientsThenTwelveSolidsWithEqualColours) {
  const auto& all = allCanvasBackgroundPresets();
  for (std::size_t i = 0; i < all.size(); ++i) {
    auto colours = presetColors(all[i]);
    if (i < 12) {
      EXPECT_EQ(presetBackground(all[i]), CanvasBackground::gradient) << i;
      EXPECT_NE(colours.start, colours.end) << i;
    } else {
      EXPECT_EQ(presetBackground(all[i]), CanvasBackground::solid) << i;
      EXPECT_EQ(colours.start, colours.end) << i;
    }
  }
  EXPECT_EQ(presetColors(CanvasBackgroundPreset::aurora).end, CanvasColorValue::fromRGB8(139, 92, 246));
  EXPECT_EQ(presetColors(CanvasBackgroundPreset::lime).start, (CanvasColorValue{132 / 255.0, 204 / 255.0, 22 / 255.0}));
}

TEST(CanvasAspectRatio, OutputAspects) {
  EXPECT_EQ(outputAspectRatio(CanvasAspectRatio::portrait4x3, 2.0), 4.0 / 3.0);
  EXPECT_EQ(outputAspectRatio(CanvasAspectRatio::portrait3x4, 2.0), 0.75);
  EXPECT_EQ(outputAspectRatio(CanvasAspectRatio::portrait9x16, 2.0), 0.5625);
  EXPECT_EQ(outputAspectRatio(CanvasAspectRatio::source, 2.0), 2.0);
}

// ---------------------------------------------------------------------------------------------
// normalized

TEST(EditTimelineNormalized, ASchema3DocumentGetsAWholeSourceClipAndSchema8) {
  EditTimeline t = decodeEditTimeline(R"({"schemaVersion": 3})").normalized(ms(12'000), false);
  EXPECT_EQ(t.schemaVersion, 8);
  ASSERT_EQ(t.segments.size(), 1u);
  EXPECT_EQ(t.segments[0].sourceRange, (ProjectTimeRange{ms(0), ms(12'000)}));
  EXPECT_TRUE(t.segments[0].playbackRate.isNormal());
  EXPECT_NO_THROW(TimelineValidator::validate(t, ms(12'000)));
}

TEST(EditTimelineNormalized, AnEmptySourceStaysEmptyAndFailsValidation) {
  EditTimeline t = EditTimeline::empty().normalized(ns(0), false);
  EXPECT_TRUE(t.segments.empty());
  EXPECT_ERROR_CASE(TimelineValidator::validate(t, ns(0)), TimelineValidationError,
                    TimelineValidationError::Case::empty);
  EXPECT_EQ(EditTimeline::empty().normalized(ns(1), false).segments.size(), 1u);
}

TEST(EditTimelineNormalized, DiscardsWhatTheStoredSchemaDidNotHave) {
  auto full = [](std::int64_t version) {
    EditTimeline t = timelineOf({clip(ms(0), ms(10'000))});
    t.schemaVersion = version;
    t.webcamFullscreenSegments = {{Uuid::random(), ms(0), ms(1'000)}};
    t.motionBlurAmount = 0.9;
    t.annotations = {rectangle(ms(0), ms(100), 0)};
    t.deviceFrame = DeviceFrameEdit{true, "vumo-laptop-space-gray", DeviceFrameContentMode::fit};
    return t.normalized(ms(10'000), true);
  };
  struct Row {
    std::int64_t version;
    bool fullscreen, blur, annotations, frame;
    std::int64_t resultVersion;
  };
  const Row rows[] = {
      {-3, false, false, false, false, 8}, {1, false, false, false, false, 8}, {4, false, false, false, false, 8},
      {5, true, false, false, false, 8},   {6, true, true, false, false, 8},   {7, true, true, true, false, 8},
      {8, true, true, true, true, 8},      {9, true, true, true, true, 9},
  };
  for (const auto& row : rows) {
    EditTimeline t = full(row.version);
    EXPECT_EQ(!t.webcamFullscreenSegments.empty(), row.fullscreen) << row.version;
    EXPECT_EQ(t.motionBlurAmount == 0.9, row.blur) << row.version;
    EXPECT_EQ(!t.annotations.empty(), row.annotations) << row.version;
    EXPECT_EQ(t.deviceFrame.has_value(), row.frame) << row.version;
    EXPECT_EQ(t.schemaVersion, row.resultVersion) << row.version;
  }
}

TEST(EditTimelineNormalized, FitsTheCameraOverlayToTheRecording) {
  EditTimeline t = timelineOf({clip(ms(0), ms(10'000))});
  t.webcamKeyframes = {{Uuid::random(), ms(5'000), {0.5, 0.5}, 0.2}};
  EditTimeline without = t.normalized(ms(10'000), false);
  EXPECT_FALSE(without.webcamOverlay);
  EXPECT_TRUE(without.webcamKeyframes.empty());

  EditTimeline with = t.normalized(ms(10'000), true);
  EXPECT_EQ(with.webcamOverlay, WebcamOverlay::defaultValue());
  EXPECT_EQ(with.webcamKeyframes.size(), 1u);

  WebcamOverlay custom = WebcamOverlay::newRecording();
  t.webcamOverlay = custom;
  EXPECT_EQ(t.normalized(ms(10'000), true).webcamOverlay, custom);
}

TEST(EditTimelineNormalized, DropsKeyframesOutsideTheSourceAndSortsTheTracks) {
  EditTimeline t = timelineOf({clip(ms(0), ms(10'000))});
  t.webcamOverlay = WebcamOverlay::defaultValue();
  Uuid a = Uuid::random(), b = Uuid::random();
  t.webcamKeyframes = {{Uuid::random(), ms(10'000), {0.5, 0.5}, 0.2},
                       {b, ms(7'000), {0.5, 0.5}, 0.2},
                       {Uuid::random(), ns(-1), {0.5, 0.5}, 0.2},
                       {a, ms(0), {0.5, 0.5}, 0.2}};
  t.zooms = {{Uuid::random(), ms(5'000), ms(5'000), ms(6'000), ms(6'000), {0.5, 0.5}, 1},
             {Uuid::random(), ms(1'000), ms(1'000), ms(2'000), ms(2'000), {0.5, 0.5}, 1}};
  t.webcamFullscreenSegments = {{Uuid::random(), ms(3'000), ms(4'000)}, {Uuid::random(), ms(1'000), ms(2'000)}};
  EditTimeline n = t.normalized(ms(10'000), true);
  ASSERT_EQ(n.webcamKeyframes.size(), 2u);
  EXPECT_EQ(n.webcamKeyframes[0].id, a);
  EXPECT_EQ(n.webcamKeyframes[1].id, b);
  EXPECT_EQ(n.zooms[0].startTime, ms(1'000));
  EXPECT_EQ(n.webcamFullscreenSegments[0].startTime, ms(1'000));
}

TEST(EditTimelineNormalized, ReflowsAnnotationsThenSortsByZIndexStartAndID) {
  EditTimeline t = timelineOf({clip(ms(0), ms(10'000))});
  AnnotationElement top = rectangle(ms(0), ms(1'000), 5);
  AnnotationElement bottom = rectangle(ms(500), ms(1'500), 1);
  bottom.trackIndex = 3;  // lane 3 does not exist: it moves to the lowest free lane
  t.annotations = {top, bottom};
  EditTimeline n = t.normalized(ms(10'000), false);
  ASSERT_EQ(n.annotations.size(), 2u);
  EXPECT_EQ(n.annotations[0].id, bottom.id);
  EXPECT_EQ(n.annotations[1].id, top.id);
  EXPECT_EQ(n.annotations[1].trackIndex, 0);
  EXPECT_EQ(n.annotations[0].trackIndex, 1);

  // Equal zIndex (invalid, but normalising must still be deterministic): start, then UUID text.
  AnnotationElement x = rectangle(ms(100), ms(200), 2), y = rectangle(ms(100), ms(200), 2);
  x.id = *Uuid::parse("0000000A-0000-0000-0000-000000000000");
  y.id = *Uuid::parse("00000009-0000-0000-0000-000000000000");
  t.annotations = {x, y};
  n = t.normalized(ms(10'000), false);
  EXPECT_EQ(n.annotations[0].id, y.id);
}

TEST(EditTimelineNormalized, RepairsPresetsAndClampsSettings) {
  EditTimeline t = timelineOf({clip(ms(0), ms(10'000))});
  t.canvas.background = CanvasBackground::solid;
  t.canvas.preset = CanvasBackgroundPreset::aurora;
  t.canvas.padding = 0.5;
  t.canvas.cornerRadius = -1;
  t.cursor.scale = 9;
  t.audioMix.systemAudio.gainDecibels = -100;
  t.audioMix.microphone.gainDecibels = 40;
  EditTimeline n = t.normalized(ms(10'000), false);
  EXPECT_EQ(n.canvas.preset, CanvasBackgroundPreset::midnight);
  EXPECT_EQ(n.canvas.padding, 0.18);
  EXPECT_EQ(n.canvas.cornerRadius, 0);
  EXPECT_EQ(n.cursor.scale, 3);
  EXPECT_EQ(n.audioMix.systemAudio.gainDecibels, -60);
  EXPECT_EQ(n.audioMix.microphone.gainDecibels, 12);

  t.canvas.background = CanvasBackground::gradient;
  t.canvas.preset = CanvasBackgroundPreset::snow;
  t.cursor.scale = 0.1;
  n = t.normalized(ms(10'000), false);
  EXPECT_EQ(n.canvas.preset, CanvasBackgroundPreset::midnightViolet);
  EXPECT_EQ(n.cursor.scale, 0.5);
}

TEST(EditTimelineNormalized, IsIdempotentOnAnAlreadyNormalTimeline) {
  EditTimeline t =
      decodeEditTimeline(R"({"schemaVersion": 2, "canvas": {"padding": 0.3}})").normalized(ms(5'000), true);
  EXPECT_EQ(t.normalized(ms(5'000), true), t);
}

}  // namespace
}  // namespace vumo

namespace vumo {
namespace {

using namespace vumo::testing;

// An input the decoder fuzzer once stopped on (its corpus, which CTest replays through the target).
std::filesystem::path fuzzCorpus() {
  const char* root = std::getenv("VUMO_SOURCE_DIR");
  return std::filesystem::path(root != nullptr ? root : VUMO_TEST_SOURCE_DIR) / "fuzz/corpus/timeline_decoder";
}

TEST(EditTimelineFuzzRegression, DuplicateAnnotationIDsAreRefusedOnReading) {
  try {
    decodeEditTimeline(readFile(fuzzCorpus() / "duplicate-annotation-ids.json", SIZE_MAX));
    FAIL() << "duplicate annotation ids decoded";
  } catch (const TimelineValidationError& error) {
    EXPECT_EQ(error.kind(), TimelineValidationError::Case::duplicateID);
    EXPECT_EQ(error.id(), Uuid::parse("81363A4A-5BCD-4DA8-B59A-BC1524259EBB"));
  }
}

TEST(EditTimelineFuzzRegression, DuplicateAnnotationIDsInMemoryNormaliseAndAreRefused) {
  // The same document built in memory, where no reading stands guard: normalising (which notes
  // lanes by id) must still finish, and the validator refuses the document whatever the lanes
  // came out as.
  EditTimeline timeline =
      json::as<EditTimeline>(parseJson(readFile(fuzzCorpus() / "duplicate-annotation-ids.json", SIZE_MAX)), "timeline");
  for (int pass = 0; pass < 3; ++pass) {
    timeline = timeline.normalized(ms(60'000), true);
    EXPECT_ERROR_CASE(TimelineValidator::validate(timeline, ms(60'000)), TimelineValidationError,
                      TimelineValidationError::Case::invalidAnnotation);
  }
}

}  // namespace
}  // namespace vumo
