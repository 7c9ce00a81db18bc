#include <gtest/gtest.h>

#include <filesystem>
#include <vector>

#include "capture/synthetic_streams.h"
#include "project/chunk_reader.h"
#include "project/chunk_store.h"
#include "project/cursor_asset_store.h"
#include "recording/cursor_shape_recorder.h"
#include "recording/mouse_event_recorder.h"
#include "recording/recording_clock.h"
#include "recording/recording_control_region.h"
#include "recording/recording_errors.h"
#include "recording/recording_session.h"
#include "support/test_support.h"

namespace vumo {
namespace {

constexpr std::int64_t ms = 1'000'000;
constexpr std::int64_t s = 1'000'000'000;

TEST(RecordingLiveStatusThrottle, LetsThroughTenUpdatesASecondAndNoneWhenTimeRunsBackwards) {
  struct Row {
    std::uint64_t now;
    bool published;
  };
  const Row rows[] = {
      {5 * s, true},  // the first one always
      {5 * s + 99'999'999, false},
      {5 * s + 100 * ms, true},  // exactly 100 ms after the last one let through
      {5 * s + 150 * ms, false},
      {4 * s, false},  // backwards
      {5 * s + 200 * ms, true},
  };
  RecordingLiveStatusThrottle throttle;
  for (const Row& row : rows) EXPECT_EQ(throttle.shouldPublish(row.now), row.published) << row.now;
}

TEST(RecordingTransportState, NamesAndTerminalStates) {
  EXPECT_EQ(nameOf(RecordingTransportState::resuming), "resuming");
  EXPECT_EQ(parseName<RecordingTransportState>("discarding"), RecordingTransportState::discarding);
  for (auto [state, terminal] : {std::pair{RecordingTransportState::recording, false},
                                 {RecordingTransportState::pausing, false},
                                 {RecordingTransportState::paused, false},
                                 {RecordingTransportState::resuming, false},
                                 {RecordingTransportState::stopping, true},
                                 {RecordingTransportState::discarding, true}})
    EXPECT_EQ(isTerminal(state), terminal) << nameOf(state);
}

TEST(RecordingControlRegionStore, ConvertsABottomLeftPanelFrameToEventCoordinates) {
  RecordingControlRegionStore store;
  EXPECT_FALSE(store.contains({0, 0}));
  // A 300 x 60 panel 40 points above the bottom of a 1440 x 900 screen that lies at x 1440 in event
  // coordinates: its top edge is 900 - 100 = 800 from the top.
  store.replace(RectValue{200, 40, 300, 60}, RectValue{0, 0, 1440, 900}, RectValue{1440, 0, 1440, 900});
  EXPECT_EQ(store.region(), (RectValue{1640, 800, 300, 60}));
  EXPECT_TRUE(store.contains({1640, 800}));
  EXPECT_FALSE(store.contains({1940, 830}));  // the far edge is outside
  store.replace(std::nullopt);
  EXPECT_FALSE(store.contains({1700, 820}));
}

// A clock started at host 1 s with the first frame, and a captured window at (100, 100), 800 x 600.
struct PointerFixture {
  RecordingClock clock;
  GeometryTracker tracker{PixelSize{1600, 1200}, RectValue{0, 0, 800, 600}, SizeValue{1600, 1200}};
  RecordingControlRegionStore controlRegion;
  ScriptedPointerStream stream;
  std::vector<MouseEvent> recorded;
  MouseEventRecorder recorder{stream, clock, tracker, controlRegion,
                              [this](const MouseEvent& event) { recorded.push_back(event); }};

  PointerFixture() {
    controlRegion.replace(RectValue{1000, 0, 200, 100});
    recorder.start();
  }
  void startClockAndGeometry() {
    clock.start(1 * s, 1 * s);
    tracker.update(ProjectTime{0}, GeometryFrameMetadata{{100, 100, 800, 600}, {0, 0, 800, 600}, 2});
  }
  void send(PointValue point, std::int64_t host, MousePhase phase = MousePhase::down) {
    stream.send(PointerEvent{std::uint64_t(host), std::uint64_t(host) + 7, point, MouseButton::left, phase});
  }
};

TEST(MouseEventRecorder, PlacesEventsOnTheTimelineAndTheCapturedFrame) {
  PointerFixture f;
  f.startClockAndGeometry();
  f.send({500, 400}, 1 * s + 250 * ms);
  f.send({999, 50}, 1 * s + 300 * ms, MousePhase::moved);  // beside the panel, outside the window
  f.send({1000, 50}, 1 * s + 310 * ms);                    // on the panel's edge: dropped
  f.send({1100, 99}, 1 * s + 320 * ms);                    // on the panel: dropped
  f.send({100, 100}, 1 * s - 5 * ms, MousePhase::up);      // before the anchor, after the start
  ASSERT_EQ(f.recorded.size(), 3u);

  MouseEvent expected;
  expected.rawTimestampNanoseconds = 1 * s + 250 * ms + 7;
  expected.time = ProjectTime{250 * ms};
  expected.globalPoint = {500, 400};
  expected.localPoint = {400, 300};
  expected.normalizedPoint = {0.5, 0.5};
  expected.geometryRevision = 1;
  expected.button = MouseButton::left;
  expected.phase = MousePhase::down;
  expected.isInsideSource = true;
  EXPECT_EQ(f.recorded[0], expected);

  EXPECT_EQ(f.recorded[1].localPoint, (PointValue{899, -50}));
  EXPECT_EQ(f.recorded[1].normalizedPoint, (PointValue{1, 0}));
  EXPECT_EQ(f.recorded[1].isInsideSource, false);
  EXPECT_EQ(f.recorded[1].phase, MousePhase::moved);

  EXPECT_EQ(f.recorded[2].time, ProjectTime{-5 * ms});
  EXPECT_EQ(f.recorded[2].isInsideSource, true);
}

TEST(MouseEventRecorder, DropsEventsWithoutATimeOrAGeometry) {
  PointerFixture f;
  f.send({500, 400}, 1 * s);  // clock not started
  f.clock.start(1 * s, 1 * s);
  f.send({500, 400}, 1 * s + 10 * ms);  // no geometry yet
  EXPECT_TRUE(f.recorded.empty());
  f.tracker.update(ProjectTime{0}, GeometryFrameMetadata{{100, 100, 800, 600}, {0, 0, 800, 600}, 1});

  f.clock.pause();
  f.send({500, 400}, 1 * s + 20 * ms, MousePhase::down);  // the press while paused is lost
  f.clock.resume(1 * s + 30 * ms, 9 * s);
  f.send({500, 400}, 9 * s + 5 * ms, MousePhase::up);  // the release after resume is kept
  ASSERT_EQ(f.recorded.size(), 1u);
  EXPECT_EQ(f.recorded[0].phase, MousePhase::up);
  EXPECT_EQ(f.recorded[0].time, ProjectTime{35 * ms});

  f.recorder.stop();
  EXPECT_FALSE(f.stream.isRunning());
  f.recorder.handle(PointerEvent{9 * s + 6 * ms, 0, {500, 400}, MouseButton::left, MousePhase::down});
  EXPECT_EQ(f.recorded.size(), 1u);
}

TEST(MouseEventRecorder, AStreamThatCannotStartIsTheEventTapError) {
  RecordingClock clock;
  GeometryTracker tracker{PixelSize{2, 2}, RectValue{}, SizeValue{}};
  RecordingControlRegionStore region;
  ScriptedPointerStream stream;
  stream.failNextStart(std::make_exception_ptr(std::runtime_error("no XInput2")));
  MouseEventRecorder recorder(stream, clock, tracker, region, [](const MouseEvent&) {});
  EXPECT_ERROR_CASE(recorder.start(), MouseEventRecorderError, MouseEventRecorderError::Case::eventTapUnavailable);
  try {
    recorder.start();  // the failure was for one start only
  } catch (...) {
    ADD_FAILURE() << "second start failed";
  }
  EXPECT_TRUE(stream.isRunning());
}

// ---- Cursor shapes ------------------------------------------------------------------------------

struct CursorFixture {
  testing::TemporaryDirectory folder;
  ScriptedCursorProvider provider;
  CursorAssetStore assets{folder.path() / "cursor" / "assets"};
  ChunkStore<CursorShapeSample> samples{folder.path() / "cursor" / "events", standardChunkMaximumCount,
                                        standardChunkMaximumSpan,
                                        [](const CursorShapeSample& sample) { return sample.time; }};
  std::vector<std::string> notes;
  std::vector<std::exception_ptr> failures;
  CursorShapeRecorder recorder{provider, assets, samples, [this](const std::string& n) { notes.push_back(n); },
                               [this](std::exception_ptr e) { failures.push_back(e); }};

  std::vector<CursorShapeSample> written() {
    samples.flush();
    return ChunkReader().readCursorShapeSamples(folder.path() / "cursor" / "events");
  }
  std::size_t files(const char* extension) {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder.path() / "cursor" / "assets"))
      if (entry.path().extension() == extension) ++count;
    return count;
  }
};

TEST(CursorShapeRecorder, WritesOneSamplePerChangeOfShapeAndEachShapeOnce) {
  CursorFixture f;
  const auto arrow = ScriptedCursorProvider::arrow();
  const auto text = ScriptedCursorProvider::text();
  struct Step {
    std::int64_t time;
    CapturedCursorShape shape;
  };
  const Step steps[] = {{0, arrow}, {40 * ms, arrow}, {80 * ms, text}, {120 * ms, arrow}, {160 * ms, arrow}};
  for (const Step& step : steps) {
    f.provider.setShape(step.shape);
    f.recorder.recordCursorShape(ProjectTime{step.time});
  }
  std::string arrowID = CursorAssetStore::assetID(arrow.pngData, arrow.logicalSize, arrow.hotSpot);
  std::string textID = CursorAssetStore::assetID(text.pngData, text.logicalSize, text.hotSpot);
  EXPECT_EQ(f.written(),
            (std::vector<CursorShapeSample>{
                {ProjectTime{0}, arrowID}, {ProjectTime{80 * ms}, textID}, {ProjectTime{120 * ms}, arrowID}}));
  EXPECT_EQ(f.files(".png"), 2u);
  EXPECT_EQ(f.files(".json"), 2u);
  EXPECT_TRUE(f.notes.empty());
  EXPECT_TRUE(f.failures.empty());
}

TEST(CursorShapeRecorder, ProbesAtMostThirtyTimesASecondOfProjectTime) {
  CursorFixture f;
  f.provider.setShape(ScriptedCursorProvider::arrow());
  struct Row {
    std::int64_t time;
    std::int64_t probesAfter;
  };
  const Row rows[] = {
      {1 * s, 1},
      {1 * s + 33'333'332, 1},  // one nanosecond short
      {1 * s + 33'333'333, 2},
      {1 * s + 66'666'665, 2},  // measured from the last probe that ran
      {1 * s + 66'666'666, 3},
  };
  for (const Row& row : rows) {
    f.recorder.recordCursorShape(ProjectTime{row.time});
    EXPECT_EQ(f.provider.probes(), row.probesAfter) << row.time;
  }
}

TEST(CursorShapeRecorder, AMissingCursorIsOneNoteAndNoSample) {
  CursorFixture f;
  f.recorder.recordCursorShape(ProjectTime{0});
  f.recorder.recordCursorShape(ProjectTime{100 * ms});
  EXPECT_EQ(f.provider.probes(), 2);
  EXPECT_EQ(f.notes,
            std::vector<std::string>{
                "System cursor shapes are unavailable. Recording and rendering use the arrow cursor instead."});
  EXPECT_TRUE(f.written().empty());
}

TEST(RecordingErrors, KeysAndTexts) {
  struct Row {
    const Error& error;
    const char* key;
    const char* text;
  };
  using Case = ScreenRecordingSessionError::Case;
  const ScreenRecordingSessionError metadata(Case::invalidFrameMetadata), noFrames(Case::noVideoFrames),
      geometry(Case::sourceRectBecameInvalid), retiming(Case::sampleRetimingFailed);
  const MouseEventRecorderError tap(MouseEventRecorderError::Case::eventTapUnavailable);
  const Row rows[] = {
      {metadata, "recording.error.invalidFrameMetadata", "X11 returned invalid frame metadata."},
      {noFrames, "recording.error.noScreenFrames", "No valid screen frames were received during recording."},
      {geometry, "recording.error.captureGeometryChanged",
       "Cropped recording stopped because the display resolution, scaling, or connection changed."},
      {retiming, "recording.error.sampleRetiming", "Unable to adjust recording timestamps for paused intervals."},
      {tap, "recording.error.mouseEventTap",
       "Unable to monitor mouse events. Check that the X server offers the XInput2 extension."},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(row.error.localizationKey(), row.key);
    EXPECT_EQ(row.error.message(), row.text);
    EXPECT_EQ(row.error.table(), "RecordingErrors");
  }
}

}  // namespace
}  // namespace vumo
