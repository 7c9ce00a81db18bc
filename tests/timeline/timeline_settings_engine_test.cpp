#include "timeline/timeline_settings_engine.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>

#include "support/builders.h"

namespace vumo {
namespace {

using namespace vumo::testing;
using SettingsCase = TimelineSettingsError::Case;
using Values = std::map<std::string, std::string>;

const PixelSize source1080p{1920, 1080};

EditTimeline cameraTimeline() {
  EditTimeline timeline = timelineOf({clip(ms(0), ms(10'000))});
  timeline.webcamOverlay = WebcamOverlay::defaultValue();
  return timeline;
}

EditTimeline apply(const Values& values, const EditTimeline& timeline = cameraTimeline(), bool hasWebcam = true) {
  return TimelineSettingsEngine::applying(values, timeline, hasWebcam, source1080p);
}

void expectSettingsError(const Values& values, SettingsCase expected, const std::string& key, bool hasWebcam = true) {
  try {
    apply(values, cameraTimeline(), hasWebcam);
    ADD_FAILURE() << "expected a settings error";
  } catch (const TimelineSettingsError& error) {
    EXPECT_EQ(error.kind(), expected) << error.what();
    EXPECT_EQ(error.settingKey(), key);
  }
}

TEST(TimelineSettingsEngineTest, BooleansAcceptThreeSpellingsInAnyCase) {
  struct Case {
    const char* value;
    std::optional<bool> expected;
  };
  const Case cases[] = {{"true", true}, {"TRUE", true}, {"On", true}, {"1", true}, {"false", false}, {"OFF", false},
                        {"0", false},   {"YES", {}},    {"no", {}},   {"", {}},    {" true", {}},    {"2", {}}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.value);
    EditTimeline timeline = cameraTimeline();
    timeline.cursor.isVisible = !c.expected.value_or(false);
    if (c.expected) {
      EXPECT_EQ(apply({{"cursor.show", c.value}}, timeline).cursor.isVisible, *c.expected);
    } else {
      expectSettingsError({{"cursor.show", c.value}}, SettingsCase::invalidValue, "cursor.show");
    }
  }
}

TEST(TimelineSettingsEngineTest, NumbersMustBeWholeFiniteStringsAndAreClamped) {
  struct Case {
    const char* value;
    std::optional<double> padding;
  };
  const Case cases[] = {{"0.1", 0.1}, {"5", 0.18},  {"-1", 0.0},  {"1e-2", 0.01}, {"+0.05", 0.05},
                        {"abc", {}},  {" 0.1", {}}, {"0.1 ", {}}, {"", {}},       {"nan", {}},
                        {"inf", {}},  {"0.1x", {}}, {"1,5", {}}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.value);
    if (c.padding) {
      EXPECT_DOUBLE_EQ(apply({{"canvas.padding", c.value}}).canvas.padding, *c.padding);
    } else {
      expectSettingsError({{"canvas.padding", c.value}}, SettingsCase::invalidValue, "canvas.padding");
    }
  }
}

TEST(TimelineSettingsEngineTest, InvalidValueQuotesTheKeyNotTheValue) {
  try {
    apply({{"canvas.padding", "abc"}});
    FAIL();
  } catch (const TimelineSettingsError& error) {
    EXPECT_STREQ(error.what(), "Invalid value for setting: canvas.padding");
    EXPECT_EQ(error.localizationKey(), "timeline.error.settingInvalid");
  }
}

TEST(TimelineSettingsEngineTest, EveryKeyReachesItsField) {
  Values values = {
      {"audio.microphone.gain-db", "-100"},
      {"audio.microphone.muted", "on"},
      {"audio.system.gain-db", "20"},
      {"audio.system.muted", "true"},
      {"canvas.aspect", "1:1"},
      {"canvas.background", "gradient"},
      {"canvas.padding", "0.05"},
      {"canvas.radius", "0.0234"},
      {"cursor.click-ripple", "off"},
      {"cursor.click-style", "soft-glow"},
      {"cursor.scale", "9"},
      {"cursor.show", "0"},
      {"webcam.aspect-ratio", "source"},
      {"webcam.border", "false"},
      {"webcam.border-width", "1"},
      {"webcam.corner-radius", "1.5"},
      {"webcam.diameter", "0.05"},
      {"webcam.mirror", "false"},
      {"webcam.shadow", "no-such"},
      {"webcam.show", "false"},
      {"webcam.x", "0.5"},
      {"webcam.y", "0.4"},
  };
  // One bad value spoils the batch; with it fixed, every field is set.
  expectSettingsError(values, SettingsCase::invalidValue, "webcam.shadow");
  values["webcam.shadow"] = "0";
  EditTimeline result = apply(values);

  EXPECT_EQ(result.audioMix.microphone.gainDecibels, -60);
  EXPECT_TRUE(result.audioMix.microphone.isMuted);
  EXPECT_EQ(result.audioMix.systemAudio.gainDecibels, 12);
  EXPECT_TRUE(result.audioMix.systemAudio.isMuted);
  EXPECT_EQ(result.canvas.aspectRatio, CanvasAspectRatio::square);
  EXPECT_EQ(result.canvas.padding, 0.05);
  EXPECT_DOUBLE_EQ(result.canvas.cornerRadius, 0.023);
  EXPECT_FALSE(result.cursor.showsClickEffect);
  EXPECT_EQ(result.cursor.clickEffectStyle, ClickEffectStyle::solidPulse);
  EXPECT_EQ(result.cursor.scale, 3.0);
  EXPECT_FALSE(result.cursor.isVisible);
  const WebcamOverlay& camera = *result.webcamOverlay;
  EXPECT_EQ(camera.aspectRatio, WebcamAspectRatio::source);
  EXPECT_FALSE(camera.showsBorder);
  EXPECT_EQ(camera.borderWidthAt1080p, 2);
  EXPECT_EQ(camera.cornerRadius, 1.0);
  EXPECT_EQ(camera.diameter, 0.1);
  EXPECT_FALSE(camera.isMirrored);
  EXPECT_FALSE(camera.showsShadow);
  EXPECT_FALSE(camera.isVisible);
  EXPECT_EQ(camera.center, (PointValue{0.5, 0.4}));

  std::vector<std::string> keys;
  for (const auto& entry : values) keys.push_back(entry.first);
  keys.push_back("webcam.shape");
  std::sort(keys.begin(), keys.end());
  EXPECT_EQ(TimelineSettingsEngine::supportedKeys(), keys);
}

TEST(TimelineSettingsEngineTest, AnUnknownKeyStopsTheWholeBatch) {
  expectSettingsError({{"canvas.padding", "0.1"}, {"cursor.size", "2"}}, SettingsCase::unknownKey, "cursor.size");
  // Keys run in sorted order, so the first failing key of that order is the one reported.
  expectSettingsError({{"zoom.scale", "2"}, {"canvas.padding", "x"}}, SettingsCase::invalidValue, "canvas.padding");
  expectSettingsError({{"audio", "1"}, {"canvas.padding", "x"}}, SettingsCase::unknownKey, "audio");
  try {
    apply({{"Canvas.Padding", "0.1"}});
    FAIL();
  } catch (const TimelineSettingsError& error) {
    EXPECT_STREQ(error.what(), "Unsupported setting: Canvas.Padding");
    EXPECT_EQ(error.localizationKey(), "timeline.error.settingUnsupported");
  }
}

TEST(TimelineSettingsEngineTest, LegacyShapeIsAppliedAfterCornerRadiusBecauseOfTheSortedOrder) {
  EditTimeline circle = apply({{"webcam.shape", "circle"}, {"webcam.corner-radius", "0.3"}});
  EXPECT_EQ(circle.webcamOverlay->cornerRadius, 1.0);
  EXPECT_EQ(circle.webcamOverlay->aspectRatio, WebcamAspectRatio::square);

  EditTimeline timeline = cameraTimeline();
  timeline.webcamOverlay->aspectRatio = WebcamAspectRatio::source;
  EditTimeline rounded = apply({{"webcam.shape", "rounded-rectangle"}}, timeline);
  EXPECT_EQ(rounded.webcamOverlay->cornerRadius, 0.6);
  EXPECT_EQ(rounded.webcamOverlay->aspectRatio, WebcamAspectRatio::square);
  expectSettingsError({{"webcam.shape", "square"}}, SettingsCase::invalidValue, "webcam.shape");
}

TEST(TimelineSettingsEngineTest, CameraKeysNeedACamera) {
  expectSettingsError({{"webcam.show", "true"}}, SettingsCase::webcamUnavailable, "", false);
  // Checked before the value.
  expectSettingsError({{"webcam.x", "abc"}}, SettingsCase::webcamUnavailable, "", false);
  EditTimeline noCamera = timelineOf({clip(ms(0), ms(10'000))});
  EXPECT_EQ(apply({{"cursor.scale", "2"}}, noCamera, false).cursor.scale, 2.0);
  // A camera project whose overlay was never filled in starts from the default.
  EXPECT_EQ(apply({{"webcam.mirror", "false"}}, noCamera, true).webcamOverlay->diameter,
            WebcamOverlay::defaultValue().diameter);
  EXPECT_STREQ(TimelineSettingsError::webcamUnavailable().what(), "This project has no camera track.");
}

TEST(TimelineSettingsEngineTest, ChangingTheBackgroundResetsAPresetOfTheOtherKind) {
  EditTimeline timeline = cameraTimeline();
  timeline.canvas.preset = CanvasBackgroundPreset::aurora;
  EditTimeline solid = apply({{"canvas.background", "solid"}}, timeline);
  EXPECT_EQ(solid.canvas.background, CanvasBackground::solid);
  EXPECT_EQ(solid.canvas.preset, CanvasBackgroundPreset::midnight);

  timeline.canvas.preset = CanvasBackgroundPreset::aurora;
  EXPECT_EQ(apply({{"canvas.background", "gradient"}}, timeline).canvas.preset, CanvasBackgroundPreset::aurora);
  expectSettingsError({{"canvas.background", "image"}}, SettingsCase::invalidValue, "canvas.background");
  expectSettingsError({{"canvas.aspect", "21:9"}}, SettingsCase::invalidValue, "canvas.aspect");
  expectSettingsError({{"cursor.click-style", "Ring"}}, SettingsCase::invalidValue, "cursor.click-style");
}

TEST(TimelineSettingsEngineTest, ANewAspectRatioCannotPushTheCameraOffTheOutput) {
  EditTimeline timeline = cameraTimeline();
  timeline.webcamOverlay->center = {0.95, 0.95};
  timeline.webcamOverlay->diameter = 0.4;
  EditTimeline portrait = apply({{"canvas.aspect", "9:16"}}, timeline);
  EXPECT_DOUBLE_EQ(portrait.webcamOverlay->center.x, 0.8);
  EXPECT_DOUBLE_EQ(portrait.webcamOverlay->center.y, 1 - 0.2 * 0.5625);

  // `source` takes the source's own shape: a portrait phone recording.
  EditTimeline phone = TimelineSettingsEngine::applying({{"canvas.aspect", "source"}}, timeline, true, {1080, 1920});
  EXPECT_DOUBLE_EQ(phone.webcamOverlay->center.x, 0.8);
  EXPECT_DOUBLE_EQ(TimelineSettingsEngine::outputAspectRatio(phone, {1080, 1920}), 0.5625);
  // Setting the position explicitly is clamped the same way.
  EXPECT_DOUBLE_EQ(apply({{"webcam.x", "1"}}).webcamOverlay->center.x, 1 - 0.11 * 9.0 / 16.0);
}

}  // namespace
}  // namespace vumo
