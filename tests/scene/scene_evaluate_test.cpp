#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "scene/scene_evaluator.h"
#include "shared/json.h"
#include "support/builders.h"

namespace vumo {
namespace {

using namespace vumo::testing;

constexpr double spring150of300 = 0.5331085043082676;  // see the spring's own tests

MouseEvent moveTo(std::int64_t milliseconds, PointValue point, std::optional<bool> inside = std::nullopt) {
  return press(milliseconds, point, MouseButton::none, inside, MousePhase::moved);
}

// A 1920 x 1080 recording with a camera, the pointer resting at (0.2, 0.3).
ProjectSnapshot recording() {
  ProjectSnapshot snapshot;
  snapshot.manifest.encodedPixelSize = {1'920, 1'080};
  snapshot.manifest.webcam = WebcamMediaInfo{};
  snapshot.mouseEvents = {moveTo(0, {0.2, 0.3}), moveTo(2'000, {0.2, 0.3})};
  snapshot.timeline = EditTimeline::empty();
  return snapshot;
}

// Zoomed 2x onto (0.4, 0.4) and holding from 300 ms to 5 s.
ZoomSegment longHold() { return zoom(ms(0), ms(300), ms(5'000), ms(5'300), 2.0, {0.4, 0.4}); }

TimelineVisualEdits editsWith(std::vector<ZoomSegment> zooms) {
  TimelineVisualEdits edits = TimelineVisualEdits::from(EditTimeline::empty());
  edits.zooms = std::move(zooms);
  return edits;
}

TEST(TimelineVisualEditsTest, OverridesReplaceOnlyWhatTheyName) {
  EditTimeline timeline = EditTimeline::empty();
  timeline.canvas.padding = 0.12;
  timeline.webcamOverlay = WebcamOverlay::defaultValue();
  timeline.motionBlurAmount = 0.3;
  timeline.zooms = {longHold()};
  timeline.annotations = {rectangle(ms(0), ms(100), 0)};
  timeline.deviceFrame = DeviceFrameEdit{true, "phone", DeviceFrameContentMode::fill};

  const TimelineVisualEdits plain = TimelineVisualEdits::from(timeline);
  EXPECT_EQ(plain.canvas, timeline.canvas);
  EXPECT_EQ(plain.webcamOverlay, timeline.webcamOverlay);
  EXPECT_EQ(plain.zooms, timeline.zooms);
  EXPECT_EQ(plain.annotations, timeline.annotations);
  EXPECT_EQ(plain.deviceFrame, timeline.deviceFrame);
  EXPECT_EQ(plain.motionBlurAmount, 0.3);

  CanvasEdit square;
  square.aspectRatio = CanvasAspectRatio::square;
  const TimelineVisualEdits overridden = TimelineVisualEdits::from(
      timeline, square, std::optional<std::optional<WebcamOverlay>>(std::in_place, std::nullopt));
  EXPECT_EQ(overridden.canvas, square);
  EXPECT_FALSE(overridden.webcamOverlay.has_value());
  EXPECT_EQ(overridden.zooms, timeline.zooms);

  const WebcamOverlay moved = WebcamOverlay::newRecording();
  EXPECT_EQ(TimelineVisualEdits::from(timeline, std::nullopt, std::optional<WebcamOverlay>(moved)).webcamOverlay,
            moved);
}

TEST(SceneEvaluatorTest, RecordedDataOfTheSnapshot) {
  ProjectSnapshot snapshot = recording();
  snapshot.timeline.canvas.padding = 0.1;
  snapshot.mouseEvents = {press(300, {0.1, 0.1}),
                          moveTo(100, {0.5, 0.5}),
                          press(200, {0.2, 0.2}),
                          press(250, {0.3, 0.3}, MouseButton::left, false),
                          press(260, {0.3, 0.3}, MouseButton::right),
                          press(270, {0.3, 0.3}, MouseButton::left, true, MousePhase::up)};
  const SceneEvaluator evaluator(snapshot);
  EXPECT_EQ(evaluator.sourceSize(), (PixelSize{1'920, 1'080}));
  EXPECT_TRUE(evaluator.hasWebcam());
  EXPECT_EQ(evaluator.defaultVisualEdits().canvas.padding, 0.1);
  EXPECT_EQ(evaluator.cursor().samples().size(), 6u);
  // Left presses inside the source, in stored order.
  ASSERT_EQ(evaluator.clicks().size(), 2u);
  EXPECT_EQ(evaluator.clicks()[0].time, ms(300));
  EXPECT_EQ(evaluator.clicks()[1].time, ms(200));

  snapshot.manifest.webcam.reset();
  CanvasEdit square;
  square.aspectRatio = CanvasAspectRatio::square;
  const SceneEvaluator withoutCamera(snapshot, square);
  EXPECT_FALSE(withoutCamera.hasWebcam());
  EXPECT_EQ(withoutCamera.evaluate(ms(0)).canvas, square);
}

TEST(SceneEvaluatorTest, CameraCursorAndMotionBlur) {
  const SceneEvaluator evaluator(recording());
  TimelineVisualEdits edits = editsWith({longHold()});
  edits.cursor.scale = 1.5;

  // Holding: the cursor is drawn through the camera, and nothing moved during the shutter.
  const SceneState holding = evaluator.evaluate(ms(1'000), edits, nullptr);
  EXPECT_EQ(holding.time, ms(1'000));
  EXPECT_EQ(holding.camera, (CameraState{{0.4, 0.4}, 2}));
  EXPECT_FALSE(holding.motionBlurCamera.has_value());
  EXPECT_EQ(holding.cursor.sourcePosition, (PointValue{0.2, 0.3}));
  EXPECT_NEAR(holding.cursor.outputPosition.x, 2 * (0.2 - 0.4) + 0.5, 1e-12);
  EXPECT_NEAR(holding.cursor.outputPosition.y, 2 * (0.3 - 0.4) + 0.5, 1e-12);
  EXPECT_TRUE(holding.cursor.visible);
  EXPECT_EQ(holding.cursor.scale, 1.5);

  // Ramping in: the camera one shutter earlier, 16,666,667 ns at the default amount of 0.5.
  const SceneState ramping = evaluator.evaluate(ms(150), edits, nullptr);
  ASSERT_TRUE(ramping.motionBlurCamera.has_value());
  EXPECT_EQ(*ramping.motionBlurCamera, SceneEvaluator::cameraState(ms(150) - ns(16'666'667), edits.zooms));
  edits.motionBlurAmount = 0;
  EXPECT_FALSE(evaluator.evaluate(ms(150), edits, nullptr).motionBlurCamera.has_value());

  // Early in the recording the shutter opens at 0, not before it.
  TimelineVisualEdits early = editsWith({zoom(ms(-200), ms(300), ms(1'000), ms(1'300), 2.0, {0.4, 0.4})});
  early.motionBlurAmount = 1;
  const SceneState start = evaluator.evaluate(ms(10), early, nullptr);
  ASSERT_TRUE(start.motionBlurCamera.has_value());
  EXPECT_EQ(*start.motionBlurCamera, SceneEvaluator::cameraState(ms(0), early.zooms));
  EXPECT_NE(*start.motionBlurCamera, SceneEvaluator::cameraState(ms(-90), early.zooms));

  edits.cursor.isVisible = false;
  EXPECT_FALSE(evaluator.evaluate(ms(1'000), edits, nullptr).cursor.visible);
}

TEST(SceneEvaluatorTest, CursorVisibilityShapeAndScreen) {
  ProjectSnapshot snapshot = recording();
  snapshot.mouseEvents = {moveTo(0, {0.2, 0.3}), moveTo(2'500, {1, 0.3}, false)};
  snapshot.cursorShapeSamples = {{ms(1'500), "b"}, {ms(500), "a"}};
  snapshot.cursorAssets = {{{"a", "cursor/assets/a.png", {32, 32}, {4, 5}}, "png"}};
  GeometrySample full;
  full.encodedPixelSize = {1'920, 1'080};
  full.contentRectInEncodedFrame = {0, 0, 1'920, 1'080};
  GeometrySample letterboxed = full;
  letterboxed.time = ms(2'000);
  letterboxed.encodedPixelSize = {1'000, 500};
  letterboxed.contentRectInEncodedFrame = {0, 100, 1'000, 300};
  snapshot.geometry = {letterboxed, full};
  const SceneEvaluator evaluator(snapshot);
  const TimelineVisualEdits edits = editsWith({});

  const SceneState before = evaluator.evaluate(ms(400), edits, nullptr);
  EXPECT_FALSE(before.cursor.assetID.has_value());
  EXPECT_FALSE(before.cursor.logicalSize.has_value());
  EXPECT_EQ(before.screen, ScreenState::fullFrame());

  const SceneState known = evaluator.evaluate(ms(500), edits, nullptr);
  EXPECT_EQ(known.cursor.assetID, "a");
  EXPECT_EQ(known.cursor.logicalSize, (SizeValue{32, 32}));
  EXPECT_EQ(known.cursor.hotSpot, (PointValue{4, 5}));

  // A shape without a stored image keeps its id, but no geometry.
  const SceneState unknown = evaluator.evaluate(ms(1'600), edits, nullptr);
  EXPECT_EQ(unknown.cursor.assetID, "b");
  EXPECT_FALSE(unknown.cursor.logicalSize.has_value());
  EXPECT_FALSE(unknown.cursor.hotSpot.has_value());

  const SceneState outside = evaluator.evaluate(ms(2'600), edits, nullptr);
  EXPECT_FALSE(outside.cursor.visible);
  EXPECT_EQ(outside.screen.sourceRect, (RectValue{0, 0.2, 1, 0.6}));
}

TEST(SceneEvaluatorTest, CameraOverlayShrinksWhileZoomedUnlessFullScreen) {
  const SceneEvaluator evaluator(recording());
  TimelineVisualEdits edits = editsWith({longHold()});
  edits.webcamOverlay = WebcamOverlay::defaultValue();
  edits.webcamFullscreenSegments = {{Uuid::random(), ms(2'000), ms(4'000)}};
  const double q = spring150of300;
  struct Case {
    const char* name;
    std::int64_t milliseconds;
    double diameter;
    double fullscreenProgress;
  };
  const Case cases[] = {
      {"zoomed", 1'000, 0.22 * 0.8, 0},
      {"going full screen", 2'150, 0.22 * ((1 - q) * -0.2 + 1), q},
      {"full screen", 3'000, 0.22, 1},
      {"neither", 6'000, 0.22, 0},
  };
  for (const Case& c : cases) {
    const SceneState state = evaluator.evaluate(ms(c.milliseconds), edits, nullptr);
    ASSERT_TRUE(state.webcam.has_value()) << c.name;
    EXPECT_NEAR(state.webcam->diameter, c.diameter, 1e-12) << c.name;
    EXPECT_NEAR(state.webcam->fullscreenProgress, c.fullscreenProgress, 1e-12) << c.name;
  }
  const WebcamState shown = *evaluator.evaluate(ms(6'000), edits, nullptr).webcam;
  EXPECT_EQ(shown.center, (PointValue{0.86, 0.8}));
  EXPECT_TRUE(shown.isMirrored);
  EXPECT_TRUE(shown.visible);
  EXPECT_EQ(shown.aspectRatio, WebcamAspectRatio::square);
  EXPECT_EQ(shown.cornerRadius, 1.0);
  EXPECT_TRUE(shown.showsBorder);
  EXPECT_EQ(shown.borderWidthAt1080p, 10);
  EXPECT_TRUE(shown.showsShadow);

  // No overlay, or no camera media: no camera in the scene.
  TimelineVisualEdits withoutOverlay = edits;
  withoutOverlay.webcamOverlay.reset();
  EXPECT_FALSE(evaluator.evaluate(ms(1'000), withoutOverlay, nullptr).webcam.has_value());
  ProjectSnapshot noCamera = recording();
  noCamera.manifest.webcam.reset();
  EXPECT_FALSE(SceneEvaluator(noCamera).evaluate(ms(1'000), edits, nullptr).webcam.has_value());
}

TEST(SceneEvaluatorTest, CameraOverlayValuesAreClampedAndKeptInsideTheOutput) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  struct Case {
    const char* name;
    double cornerRadius;
    double borderWidth;
    double expectedCorner;
    double expectedBorder;
  };
  const Case cases[] = {
      {"in range", 0.3, 6, 0.3, 6},
      {"below", -1, 1, 0, 2},
      {"above", 2, 50, 1, 20},
      {"not numbers", nan, nan, 0.6, 10},
  };
  const SceneEvaluator evaluator(recording());
  for (const Case& c : cases) {
    TimelineVisualEdits edits = editsWith({});
    edits.webcamOverlay = WebcamOverlay::defaultValue();
    edits.webcamOverlay->cornerRadius = c.cornerRadius;
    edits.webcamOverlay->borderWidthAt1080p = c.borderWidth;
    const WebcamState webcam = *evaluator.evaluate(ms(0), edits, nullptr).webcam;
    EXPECT_EQ(webcam.cornerRadius, c.expectedCorner) << c.name;
    EXPECT_EQ(webcam.borderWidthAt1080p, c.expectedBorder) << c.name;
  }

  // A 0.2 square camera at the right edge keeps half its width inside: 0.1 of a square output,
  // 0.1 x 9/16 of a 16:9 one. The source's own shape decides when the canvas follows the source.
  TimelineVisualEdits edits = editsWith({});
  edits.canvas.aspectRatio = CanvasAspectRatio::source;
  edits.webcamOverlay = WebcamOverlay::defaultValue();
  edits.webcamOverlay->center = {0.95, 0.5};
  edits.webcamOverlay->diameter = 0.2;
  ProjectSnapshot squareSource = recording();
  squareSource.manifest.encodedPixelSize = {1'000, 1'000};
  EXPECT_NEAR(SceneEvaluator(squareSource).evaluate(ms(0), edits, nullptr).webcam->center.x, 0.9, 1e-12);
  EXPECT_NEAR(evaluator.evaluate(ms(0), edits, nullptr).webcam->center.x, 1 - 0.1 * 9 / 16, 1e-12);
}

TEST(SceneEvaluatorTest, ClickEffectLastsByStyleAndFollowsTheCamera) {
  ProjectSnapshot snapshot = recording();
  snapshot.mouseEvents = {moveTo(0, {0.5, 0.5}), press(1'000, {0.3, 0.4}),
                          // Not clicks: another button, outside the source, a release.
                          press(1'050, {0.9, 0.9}, MouseButton::right),
                          press(1'060, {0.9, 0.9}, MouseButton::left, false),
                          press(1'070, {0.9, 0.9}, MouseButton::left, std::nullopt, MousePhase::up),
                          press(3'000, {0.6, 0.6}), press(3'100, {0.7, 0.7})};
  const SceneEvaluator evaluator(snapshot);
  struct Case {
    const char* name;
    ClickEffectStyle style;
    std::int64_t milliseconds;
    std::optional<double> progress;  // none: no effect
    PointValue source;               // the click's own point
  };
  const Case cases[] = {
      {"before the click", ClickEffectStyle::solidPulse, 999, std::nullopt, {}},
      {"at the click", ClickEffectStyle::solidPulse, 1'000, 0.0, {0.3, 0.4}},
      {"other events are no clicks", ClickEffectStyle::solidPulse, 1'075, 75.0 / 350, {0.3, 0.4}},
      {"pulse halfway", ClickEffectStyle::solidPulse, 1'175, 0.5, {0.3, 0.4}},
      {"pulse 350 ms old", ClickEffectStyle::solidPulse, 1'350, 1.0, {0.3, 0.4}},
      {"pulse 351 ms old", ClickEffectStyle::solidPulse, 1'351, std::nullopt, {}},
      {"ring 500 ms old", ClickEffectStyle::ring, 1'500, 1.0, {0.3, 0.4}},
      {"ring 501 ms old", ClickEffectStyle::ring, 1'501, std::nullopt, {}},
      {"ring and press halfway", ClickEffectStyle::ringAndPress, 1'250, 0.5, {0.3, 0.4}},
      {"the newer click wins", ClickEffectStyle::solidPulse, 3'200, 100.0 / 350, {0.7, 0.7}},
  };
  for (const Case& c : cases) {
    TimelineVisualEdits edits = editsWith({longHold()});
    edits.cursor.clickEffectStyle = c.style;
    const SceneState state = evaluator.evaluate(ms(c.milliseconds), edits, nullptr);
    ASSERT_EQ(state.clickEffect.has_value(), c.progress.has_value()) << c.name;
    if (!c.progress) continue;
    EXPECT_NEAR(state.clickEffect->progress, *c.progress, 1e-12) << c.name;
    EXPECT_EQ(state.clickEffect->style, c.style) << c.name;
    // Through the held camera: 2 x (p - 0.4) + 0.5.
    EXPECT_NEAR(state.clickEffect->position.x, 2 * (c.source.x - 0.4) + 0.5, 1e-12) << c.name;
    EXPECT_NEAR(state.clickEffect->position.y, 2 * (c.source.y - 0.4) + 0.5, 1e-12) << c.name;
  }
  TimelineVisualEdits off = editsWith({});
  off.cursor.showsClickEffect = false;
  EXPECT_FALSE(evaluator.evaluate(ms(1'100), off, nullptr).clickEffect.has_value());
}

TEST(SceneEvaluatorTest, AnnotationsFromStartToBeforeEndInDrawingOrder) {
  const Uuid low = *Uuid::parse("00000000-0000-4000-8000-000000000001");
  const Uuid high = *Uuid::parse("FFFFFFFF-0000-4000-8000-000000000001");
  AnnotationElement top = rectangle(ms(1'000), ms(2'000), 2);
  AnnotationElement tiedHigh = rectangle(ms(1'000), ms(2'000), 1);
  tiedHigh.id = high;
  AnnotationElement tiedLow = arrow(ms(1'000), ms(2'000), 1);
  tiedLow.id = low;
  AnnotationElement later = text(ms(2'000), ms(3'000), 0);
  TimelineVisualEdits edits = editsWith({});
  edits.annotations = {top, tiedHigh, tiedLow, later};
  const SceneEvaluator evaluator(recording());
  struct Case {
    ProjectTime time;
    std::vector<AnnotationElement> expected;
  };
  const Case cases[] = {
      {ms(999), {}},
      {ms(1'000), {tiedLow, tiedHigh, top}},
      {ms(2'000) - ns(1), {tiedLow, tiedHigh, top}},
      {ms(2'000), {later}},
      {ms(3'000), {}},
  };
  for (const Case& c : cases)
    EXPECT_EQ(evaluator.evaluate(c.time, edits, nullptr).annotations, c.expected) << c.time.nanoseconds;
}

TEST(SceneEvaluatorTest, CaptionOfTheCueHoldingTheTime) {
  CaptionDocument captions;
  captions.style.appearance = CaptionAppearance::blackWithWhiteOutline;
  captions.style.maximumLines = 1;
  captions.style.fontScale = 1.2;
  captions.style.bottomPosition = 0.1;
  const CaptionCue one{Uuid::random(), ms(1'000), ms(2'000), "one word", {}, {{"word", 1}}};
  const CaptionCue two{Uuid::random(), ms(2'000), ms(3'000), "two", {}, {}};
  captions.cues = {one, two};
  ProjectSnapshot snapshot = recording();
  snapshot.captions = captions;
  const SceneEvaluator evaluator(snapshot);
  const TimelineVisualEdits edits = editsWith({});

  struct Case {
    std::int64_t milliseconds;
    const CaptionCue* expected;
  };
  for (const Case& c : {Case{999, nullptr}, Case{1'000, &one}, Case{1'999, &one}, Case{2'000, &two}, Case{2'999, &two},
                        Case{3'000, nullptr}}) {
    const std::optional<CaptionState> caption = evaluator.evaluate(ms(c.milliseconds), edits, &captions).caption;
    ASSERT_EQ(caption.has_value(), c.expected != nullptr) << c.milliseconds;
    if (!caption) continue;
    EXPECT_EQ(*caption, (CaptionState{c.expected->id, c.expected->text, c.expected->highlights,
                                      CaptionAppearance::blackWithWhiteOutline, 1, 1.2, 0.1}))
        << c.milliseconds;
  }
  // The snapshot's own document serves the short form.
  EXPECT_EQ(evaluator.evaluate(ms(1'500)).caption->text, "one word");
  EXPECT_FALSE(evaluator.evaluate(ms(1'500), edits, nullptr).caption.has_value());
  captions.style.isEnabled = false;
  EXPECT_FALSE(evaluator.evaluate(ms(1'500), edits, &captions).caption.has_value());
}

std::set<std::string> keysOf(const Json& object) {
  std::set<std::string> keys;
  for (const auto& [key, value] : object.items()) keys.insert(key);
  return keys;
}

TEST(SceneStateJsonTest, NamesEveryPartAndLeavesAbsentOnesOut) {
  const SceneState bare;
  Json minimal = bare;
  EXPECT_EQ(keysOf(minimal), (std::set<std::string>{"time", "camera", "screen", "cursor", "canvas", "annotations"}));
  EXPECT_EQ(keysOf(minimal["cursor"]), (std::set<std::string>{"sourcePosition", "outputPosition", "visible", "scale"}));

  SceneState full;
  full.time = ms(1'500);
  full.camera = {{0.4, 0.4}, 2};
  full.motionBlurCamera = CameraState{{0.45, 0.45}, 1.5};
  full.cursor.assetID = "a";
  full.cursor.logicalSize = SizeValue{32, 32};
  full.cursor.hotSpot = PointValue{4, 5};
  full.deviceFrame = DeviceFrameEdit{true, "phone", DeviceFrameContentMode::fit};
  full.webcam = WebcamState{};
  full.clickEffect = ClickEffectState{{0.3, 0.5}, 0.5, ClickEffectStyle::ringAndPress};
  full.annotations = {rectangle(ms(1'000), ms(2'000), 0)};
  full.caption = CaptionState{Uuid::random(), "text", {{"text", 1}}, CaptionAppearance::whiteOnBlack, 2, 1, 0.08};
  Json j = full;
  EXPECT_EQ(keysOf(j), (std::set<std::string>{"time", "camera", "motionBlurCamera", "screen", "cursor", "canvas",
                                              "deviceFrame", "webcam", "clickEffect", "annotations", "caption"}));
  EXPECT_EQ(j["time"], (Json{{"nanoseconds", 1'500'000'000}}));
  EXPECT_EQ(j["camera"], (Json{{"center", {{"x", 0.4}, {"y", 0.4}}}, {"scale", 2.0}}));
  EXPECT_EQ(j["screen"], (Json{{"sourceRect", {{"x", 0.0}, {"y", 0.0}, {"width", 1.0}, {"height", 1.0}}}}));
  EXPECT_EQ(keysOf(j["cursor"]), (std::set<std::string>{"sourcePosition", "outputPosition", "visible", "scale",
                                                        "assetID", "logicalSize", "hotSpot"}));
  EXPECT_EQ(keysOf(j["webcam"]),
            (std::set<std::string>{"center", "diameter", "isMirrored", "visible", "aspectRatio", "cornerRadius",
                                   "showsBorder", "borderWidthAt1080p", "showsShadow", "fullscreenProgress"}));
  EXPECT_EQ(j["clickEffect"]["style"], "ring-and-press");
  EXPECT_EQ(keysOf(j["clickEffect"]), (std::set<std::string>{"position", "progress", "style"}));
  EXPECT_EQ(keysOf(j["caption"]), (std::set<std::string>{"cueID", "text", "highlights", "appearance", "maximumLines",
                                                         "fontScale", "bottomPosition"}));
  EXPECT_EQ(j["caption"]["cueID"], full.caption->cueID.string());
  EXPECT_EQ(j["canvas"]["aspectRatio"], "16:9");
  EXPECT_EQ(j["annotations"][0]["kind"], "rectangle");
}

}  // namespace
}  // namespace vumo
