#include "editor/timeline_editing_session.h"

#include <gtest/gtest.h>

#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "editor/editor_messages.h"
#include "editor/view_update_change_queue.h"
#include "support/manual_main_loop.h"
#include "timeline/timeline_edit_engine.h"
#include "timeline/timeline_effect_error.h"
#include "timeline/timeline_frame_grid.h"
#include "timeline/timeline_settings_engine.h"
#include "timeline/timeline_speed_engine.h"
#include "timeline/timeline_validation_error.h"

namespace vumo {
namespace {

using Grid = TimelineFrameGrid;

const ProjectTime tenSeconds = ProjectTime::fromMilliseconds(10'000);
ProjectTime ms(std::int64_t milliseconds) { return ProjectTime::fromMilliseconds(milliseconds); }

// One clip over a ten-second source and a zoom over frames 60...180 (1 s to 3 s).
EditTimeline startingTimeline() {
  EditTimeline t = EditTimeline::empty();
  t.segments.push_back({Uuid::stable("clip"), {ProjectTime::zero(), tenSeconds}, TimelinePlaybackRate::normal()});
  ZoomSegment zoom;
  zoom.id = Uuid::stable("zoom");
  zoom.startTime = Grid::boundary(60);
  zoom.focusTime = Grid::boundary(90);
  zoom.holdEndTime = Grid::boundary(150);
  zoom.endTime = Grid::boundary(180);
  zoom.scale = 1.5;
  zoom.focusPoint = {0.5, 0.5};
  t.zooms.push_back(zoom);
  return t;
}

struct Notice {
  EditTimeline timeline;
  bool committed;
  bool shouldPersist;
};

struct SessionFixture {
  std::vector<Notice> notices;
  TimelineEditingSession session{
      startingTimeline(), tenSeconds, {1920, 1080}, [this](const EditTimeline& t, bool committed, bool persist) {
        notices.push_back({t, committed, persist});
      }};
  const Uuid zoomID = Uuid::stable("zoom");
  const Uuid clipID = Uuid::stable("clip");
};

TEST(TimelineEditingSession, UndoingEveryEditReturnsToTheFirstDocumentByteForByteAndRedoReturnsToTheLast) {
  SessionFixture f;
  std::vector<std::string> documents{encodeEditTimeline(f.session.timeline())};
  const std::vector<std::function<bool()>> edits{
      [&] { return f.session.split(ms(4'000)); },
      [&] { return f.session.updateZoomScale(f.zoomID, 2.25); },
      [&] { return f.session.addZoom(ms(6'000)); },
      [&] {
        return f.session.addAnnotation({ms(500), ms(2'000)}, {0.1, 0.1, 0.3, 0.2});
      },
      [&] { return f.session.updateAudio(MediaTrackKind::microphone, true, -80); },
      [&] {
        return f.session.applySettings({{"canvas.padding", "0.1"}, {"cursor.scale", "2"}});
      },
      [&] {
        f.session.select(ms(5'000));
        return f.session.rippleDeleteSelection();
      },
  };
  for (const auto& edit : edits) {
    ASSERT_TRUE(edit()) << f.session.message().value_or("");
    documents.push_back(encodeEditTimeline(f.session.timeline()));
    ASSERT_NE(documents.back(), documents[documents.size() - 2]);
  }
  EXPECT_EQ(f.session.timeline().audioMix.microphone.gainDecibels, -60);  // clamped
  EXPECT_EQ(f.session.undoCount(), edits.size());

  for (std::size_t i = edits.size(); i > 0; --i) {
    f.session.undo();
    EXPECT_EQ(encodeEditTimeline(f.session.timeline()), documents[i - 1]) << "after undo to " << i - 1;
  }
  EXPECT_FALSE(f.session.canUndo());
  for (std::size_t i = 1; i <= edits.size(); ++i) {
    f.session.redo();
    EXPECT_EQ(encodeEditTimeline(f.session.timeline()), documents[i]) << "after redo to " << i;
  }
  EXPECT_FALSE(f.session.canRedo());
  // Each edit, undo and redo is one committed change to save.
  EXPECT_EQ(f.notices.size(), 3 * edits.size());
  for (const auto& notice : f.notices) EXPECT_TRUE(notice.committed && notice.shouldPersist);
}

TEST(TimelineEditingSession, ADragOfAHundredStepsIsOneUndoStepAnnouncedAsUncommittedUntilItsEnd) {
  SessionFixture f;
  f.session.beginCoalescedEdit();
  for (int i = 1; i <= 100; ++i) ASSERT_TRUE(f.session.updateZoomEnd(f.zoomID, Grid::boundary(180 + i)));
  ASSERT_EQ(f.notices.size(), 100u);
  for (const auto& notice : f.notices) EXPECT_TRUE(!notice.committed && notice.shouldPersist);
  EXPECT_EQ(f.session.undoCount(), 0u);
  f.session.endCoalescedEdit();

  ASSERT_EQ(f.notices.size(), 101u);
  EXPECT_TRUE(f.notices.back().committed && f.notices.back().shouldPersist);
  EXPECT_EQ(f.notices.back().timeline.zooms[0].endTime, Grid::boundary(280));
  EXPECT_EQ(f.session.undoCount(), 1u);
  f.session.undo();
  EXPECT_EQ(f.session.timeline(), startingTimeline());
}

TEST(TimelineEditingSession, ADragThatReturnsToItsStartLeavesNoUndoStep) {
  SessionFixture f;
  f.session.beginCoalescedEdit();
  f.session.beginCoalescedEdit();  // a second begin keeps the first baseline
  f.session.updateZoomEnd(f.zoomID, Grid::boundary(240));
  f.session.updateZoomEnd(f.zoomID, Grid::boundary(180));
  f.session.endCoalescedEdit();
  EXPECT_EQ(f.session.timeline(), startingTimeline());
  EXPECT_EQ(f.session.undoCount(), 0u);
  ASSERT_EQ(f.notices.size(), 2u);
  EXPECT_FALSE(f.notices.back().committed);
}

TEST(TimelineEditingSession, AHundredAndOneCommitsKeepTheLastHundredAndTheFirstTimelineIsGone) {
  SessionFixture f;
  for (int i = 1; i <= 101; ++i) ASSERT_TRUE(f.session.updateZoomScale(f.zoomID, 1.0 + i * 0.01));
  EXPECT_EQ(f.session.undoCount(), 100u);
  for (int i = 0; i < 100; ++i) f.session.undo();
  EXPECT_FALSE(f.session.canUndo());
  EXPECT_DOUBLE_EQ(f.session.timeline().zooms[0].scale, 1.01);
  f.session.undo();
  EXPECT_DOUBLE_EQ(f.session.timeline().zooms[0].scale, 1.01);
  EXPECT_EQ(f.session.redoCount(), 100u);
}

TEST(TimelineEditingSession, ANewEditAfterUndoEmptiesRedo) {
  SessionFixture f;
  f.session.updateZoomScale(f.zoomID, 2);
  f.session.updateZoomScale(f.zoomID, 3);
  f.session.undo();
  EXPECT_TRUE(f.session.canRedo());
  f.session.updateZoomFocus(f.zoomID, {0.4, 0.4});
  EXPECT_FALSE(f.session.canRedo());
  f.session.redo();
  EXPECT_DOUBLE_EQ(f.session.timeline().zooms[0].scale, 2);
}

TEST(TimelineEditingSession, AnEditTheEngineRefusesChangesNothingAndShowsTheRefusal) {
  struct Case {
    std::string name;
    std::function<bool(TimelineEditingSession&)> edit;
    std::string expectedMessage;
  };
  const std::vector<Case> cases{
      {"split at a clip's first frame", [](auto& s) { return s.split(ProjectTime::zero()); },
       TimelineEditError(TimelineEditError::Case::splitAtBoundary).what()},
      {"trim of an unknown clip", [](auto& s) { return s.trimStart(Uuid::stable("none"), ms(100)); },
       TimelineEditError(TimelineEditError::Case::segmentNotFound).what()},
      {"deleting the last clip",
       [](auto& s) {
         s.selectSegment(Uuid::stable("clip"));
         return s.rippleDeleteSelection();
       },
       TimelineEditError(TimelineEditError::Case::cannotDeleteLastSegment).what()},
      {"a speed of five", [](auto& s) { return s.updatePlaybackRate(Uuid::stable("clip"), 5.0); },
       TimelineSpeedError(TimelineSpeedError::Case::invalidRate).what()},
      {"a zoom inside another", [](auto& s) { return s.addZoom(ms(2'000)); },
       TimelineEffectError(TimelineEffectError::Case::zoomOverlap).what()},
      {"an unknown setting",
       [](auto& s) {
         return s.applySettings({{"canvas.glow", "1"}});
       },
       "Unsupported setting: canvas.glow"},
  };
  for (const auto& c : cases) {
    SessionFixture f;
    f.session.updateZoomScale(f.zoomID, 2);
    const EditTimeline before = f.session.timeline();
    const std::size_t notices = f.notices.size();
    EXPECT_FALSE(c.edit(f.session)) << c.name;
    EXPECT_EQ(f.session.timeline(), before) << c.name;
    EXPECT_EQ(f.session.undoCount(), 1u) << c.name;
    EXPECT_EQ(f.notices.size(), notices) << c.name;
    EXPECT_EQ(f.session.message(), c.expectedMessage) << c.name;
    // The next edit that goes through clears the refusal.
    f.session.updateZoomScale(f.zoomID, 2.5);
    EXPECT_EQ(f.session.message(), std::nullopt) << c.name;
  }
}

TEST(TimelineEditingSession, UndoOfASplitDropsTheSelectionOfTheClipItMade) {
  struct Case {
    ProjectTime selectedAt;
    bool keptAfterUndo;
  };
  for (const Case c : {Case{ms(2'000), true}, Case{ms(6'000), false}}) {
    SessionFixture f;
    ASSERT_TRUE(f.session.split(ms(4'000)));
    f.session.select(c.selectedAt);
    ASSERT_TRUE(f.session.selectedSegmentID());
    EXPECT_EQ(*f.session.selectedSegmentID() == f.clipID, c.keptAfterUndo);
    f.session.undo();
    EXPECT_EQ(f.session.selectedSegmentID().has_value(), c.keptAfterUndo);
  }
}

TEST(TimelineEditingSession, TheFiveSelectionsExcludeEachOther) {
  SessionFixture f;
  f.session.selectZoom(f.zoomID);
  f.session.select(ms(1'000));
  EXPECT_EQ(f.session.selectedSegmentID(), f.clipID);
  EXPECT_EQ(f.session.selectedZoomID(), std::nullopt);
  f.session.select(ms(11'000));  // beyond the sequence: the selection stays
  EXPECT_EQ(f.session.selectedSegmentID(), f.clipID);
  f.session.selectAnnotation(Uuid::stable("a"));
  EXPECT_EQ(f.session.selectedSegmentID(), std::nullopt);
  f.session.selectWebcamFullscreen(Uuid::stable("w"));
  EXPECT_EQ(f.session.selectedAnnotationID(), std::nullopt);
  f.session.clearSelection();
  EXPECT_EQ(f.session.selectedWebcamFullscreenID(), std::nullopt);
}

TEST(TimelineEditingSession, AnExternalChangeDuringADragLoadsWhenTheDragEndsAndOnlyTheLastOne) {
  SessionFixture f;
  EditTimeline first = startingTimeline();
  first.motionBlurAmount = 0.2;
  EditTimeline last = startingTimeline();
  last.motionBlurAmount = 0.7;

  f.session.beginCoalescedEdit();
  f.session.updateZoomEnd(f.zoomID, Grid::boundary(200));
  EXPECT_FALSE(f.session.applyExternalTimeline(first));
  EXPECT_EQ(f.session.message(), "External edits detected. They will load after the current operation finishes.");
  EXPECT_FALSE(f.session.applyExternalTimeline(last));
  f.session.updateZoomEnd(f.zoomID, Grid::boundary(220));
  EXPECT_DOUBLE_EQ(f.session.timeline().motionBlurAmount, 0.5);
  f.session.endCoalescedEdit();

  EXPECT_EQ(f.session.timeline(), last);
  EXPECT_EQ(f.session.message(), "External edits loaded. Press Ctrl+Z to undo.");
  ASSERT_EQ(f.notices.size(), 4u);
  EXPECT_TRUE(f.notices[2].committed && f.notices[2].shouldPersist);  // the drag, folded
  EXPECT_EQ(f.notices[2].timeline.zooms[0].endTime, Grid::boundary(220));
  EXPECT_TRUE(f.notices[3].committed);
  EXPECT_FALSE(f.notices[3].shouldPersist);  // already on disk
  EXPECT_EQ(f.notices[3].timeline, last);
  // Two steps: the drag and the external change.
  f.session.undo();
  EXPECT_EQ(f.session.timeline().zooms[0].endTime, Grid::boundary(220));
  f.session.undo();
  EXPECT_EQ(f.session.timeline(), startingTimeline());
}

TEST(TimelineEditingSession, AnExternalTimelineEqualToTheOpenOneChangesNothing) {
  SessionFixture f;
  EXPECT_FALSE(f.session.applyExternalTimeline(startingTimeline()));
  EXPECT_TRUE(f.notices.empty());
  EXPECT_EQ(f.session.message(), std::nullopt);
  EXPECT_FALSE(f.session.canUndo());
}

TEST(TimelineEditingSession, AnInvalidExternalTimelineShowsWhyAndKeepsTheOpenOne) {
  SessionFixture f;
  EditTimeline external = startingTimeline();
  external.segments[0].sourceRange.duration = ms(12'000);  // beyond the source
  EXPECT_FALSE(f.session.applyExternalTimeline(external));
  EXPECT_EQ(f.session.message(), "Invalid external edits: A timeline clip extends beyond the source media.");
  EXPECT_EQ(f.session.timeline(), startingTimeline());
  EXPECT_TRUE(f.notices.empty());
  EXPECT_FALSE(f.session.canUndo());
}

TEST(TimelineEditingSession, UndoOfAnExternalChangeIsSavedLikeAnyEdit) {
  SessionFixture f;
  EditTimeline external = startingTimeline();
  external.zooms.clear();
  f.session.selectZoom(f.zoomID);
  ASSERT_TRUE(f.session.applyExternalTimeline(external));
  EXPECT_EQ(f.session.selectedZoomID(), std::nullopt);  // the zoom is gone
  f.session.undo();
  ASSERT_EQ(f.notices.size(), 2u);
  EXPECT_FALSE(f.notices[0].shouldPersist);
  EXPECT_TRUE(f.notices[1].committed && f.notices[1].shouldPersist);
  EXPECT_EQ(f.notices[1].timeline, startingTimeline());
}

TEST(TimelineEditingSession, ABurstOfFiveChangesInOneViewUpdateIsAppliedOnceWithTheLastTimeline) {
  testing::ManualMainLoop loop;
  ViewUpdateChangeQueue queue(loop);
  std::vector<EditTimeline> applied;
  TimelineEditingSession session(startingTimeline(), tenSeconds, {1920, 1080}, [&](const EditTimeline& t, bool, bool) {
    queue.enqueueLatest("timeline", [&applied, t] { applied.push_back(t); });
  });
  loop.post([&] {  // one view update
    for (int i = 1; i <= 5; ++i) session.updateZoomScale(Uuid::stable("zoom"), 1.0 + i * 0.1);
  });
  loop.runUntilIdle();
  ASSERT_EQ(applied.size(), 1u);
  EXPECT_EQ(applied[0], session.timeline());
  EXPECT_DOUBLE_EQ(applied[0].zooms[0].scale, 1.5);
}

TEST(TimelineEditingSession, EffectsAndAnnotationsEditedThroughTheSession) {
  SessionFixture f;
  // A new zoom before the existing one stops where that one starts, and is selected.
  ASSERT_TRUE(f.session.addZoom(ms(0)));
  ASSERT_EQ(f.session.timeline().zooms.size(), 2u);
  EXPECT_EQ(f.session.timeline().zooms[0].endTime, Grid::boundary(60));
  EXPECT_EQ(f.session.selectedZoomID(), f.session.timeline().zooms[0].id);
  ASSERT_TRUE(f.session.removeSelectedZoom());
  // Moving the zoom keeps its length and its ramps.
  ASSERT_TRUE(f.session.moveZoom(f.zoomID, Grid::boundary(300), f.clipID));
  const ZoomSegment moved = f.session.timeline().zooms[0];
  EXPECT_EQ(moved.startTime, Grid::boundary(300));
  EXPECT_EQ(moved.endTime - moved.startTime, Grid::boundary(180) - Grid::boundary(60));
  EXPECT_EQ(moved.focusTime - moved.startTime, Grid::boundary(90) - Grid::boundary(60));

  f.session.setAnnotationTool(AnnotationKind::text);
  ASSERT_TRUE(f.session.addAnnotation({ms(1'000), ms(1'000)}, {0.2, 0.2, 0.4, 0.1}));
  const Uuid text = *f.session.selectedAnnotationID();
  ASSERT_TRUE(f.session.updateAnnotationText(text, "你好"));
  EXPECT_EQ(f.session.timeline().annotations[0].textStyle->content, "你好");
  ASSERT_TRUE(f.session.moveAnnotation(text, ms(9'500)));  // kept inside the source
  EXPECT_EQ(f.session.timeline().annotations[0].endTime, tenSeconds);
  EXPECT_FALSE(f.session.updateAnnotationText(Uuid::stable("none"), "x"));
  ASSERT_TRUE(f.session.removeSelectedAnnotation());
  EXPECT_TRUE(f.session.timeline().annotations.empty());
  EXPECT_EQ(f.session.selectedAnnotationID(), std::nullopt);
}

// The starting timeline with three annotations one after another: a rectangle over 0...2 s, an
// arrow over 2...4 s pointing up and to the left, a text over 4...6 s.
EditTimeline annotatedTimeline() {
  EditTimeline t = startingTimeline();
  AnnotationElement rectangle;
  rectangle.id = Uuid::stable("rectangle");
  rectangle.startTime = ms(0);
  rectangle.endTime = ms(2'000);
  rectangle.bounds = RectValue{0.1, 0.1, 0.3, 0.2};
  AnnotationElement arrow;
  arrow.id = Uuid::stable("arrow");
  arrow.kind = AnnotationKind::arrow;
  arrow.startTime = ms(2'000);
  arrow.endTime = ms(4'000);
  arrow.startPoint = PointValue{0.8, 0.6};
  arrow.endPoint = PointValue{0.4, 0.2};
  arrow.zIndex = 1;
  AnnotationElement text;
  text.id = Uuid::stable("text");
  text.kind = AnnotationKind::text;
  text.startTime = ms(4'000);
  text.endTime = ms(6'000);
  text.bounds = RectValue{0.2, 0.7, 0.5, 0.1};
  text.textStyle = TextAnnotationStyle{"Hi", 48, false, TextAnnotationOutlineColor::black};
  text.zIndex = 2;
  t.annotations = {rectangle, arrow, text};
  return t;
}

// Each operation of the inspectors: one committed, saved undo step that undo takes back and redo
// brings again; the same operation with a value the engines refuse changes nothing and says why.
TEST(TimelineEditingSession, InspectorOperationsAreOneUndoStepAndARefusedValueChangesNothing) {
  const Uuid rectangle = Uuid::stable("rectangle"), arrow = Uuid::stable("arrow"), text = Uuid::stable("text");
  const std::string invalidAnnotation =
      TimelineValidationError::of(TimelineValidationError::Case::invalidAnnotation).what();
  AnnotationStyleEdit blueFilled = AnnotationStyleEdit::of(annotatedTimeline().annotations[0]);
  blueFilled.color = {0, 0.5, 1};
  blueFilled.lineWidth = 0.01;
  blueFilled.cornerRadius = 0.2;
  blueFilled.isFilled = true;
  blueFilled.dimsOutside = true;
  blueFilled.locksAspectRatio = true;
  AnnotationStyleEdit tooThick = blueFilled;
  tooThick.lineWidth = 0.5;
  AnnotationStyleEdit outlined = AnnotationStyleEdit::of(annotatedTimeline().annotations[2]);
  outlined.textStyle = TextAnnotationStyle{"not taken", 96, true, TextAnnotationOutlineColor::white};
  AnnotationStyleEdit hugeText = outlined;
  hugeText.textStyle->fontSize = 500;
  const DeviceFrameEdit display{true, "vumo-display-black", DeviceFrameContentMode::fill};
  const double nan = std::numeric_limits<double>::quiet_NaN();

  struct Case {
    std::string name;
    std::function<bool(TimelineEditingSession&)> edit;
    std::function<bool(const EditTimeline&)> changed;
    std::function<bool(TimelineEditingSession&)> refused;
    std::string refusal;
  };
  const std::vector<Case> cases{
      {"device frame", [&](auto& s) { return s.updateDeviceFrame(display); },
       [&](const EditTimeline& t) { return t.deviceFrame == display; },
       [](auto& s) {
         return s.updateDeviceFrame(DeviceFrameEdit{true, "no-such-frame", DeviceFrameContentMode::fit});
       },
       TimelineValidationError::of(TimelineValidationError::Case::invalidDeviceFrame).what()},
      {"cursor",
       [](auto& s) {
         return s.updateCursor({false, 2.5, false, ClickEffectStyle::ringAndPress});
       },
       [](const EditTimeline& t) {
         return t.cursor == CursorEdit{false, 2.5, false, ClickEffectStyle::ringAndPress};
       },
       [&](auto& s) {
         return s.updateCursor({true, nan, true, ClickEffectStyle::ring});
       },
       "Invalid value for setting: cursor.scale"},
      {"cursor scale beyond the largest",
       [](auto& s) {
         return s.updateCursor({true, 9, true, ClickEffectStyle::ring});
       },
       [](const EditTimeline& t) { return t.cursor.scale == 3.0; },
       [&](auto& s) {
         return s.updateCursor({true, -nan, true, ClickEffectStyle::ring});
       },
       "Invalid value for setting: cursor.scale"},
      {"rectangle bounds",
       [&](auto& s) {
         return s.updateAnnotationBounds(rectangle, {0.5, 0.5, 0.25, 0.25});
       },
       [](const EditTimeline& t) {
         return t.annotations[0].bounds == RectValue{0.5, 0.5, 0.25, 0.25};
       },
       [&](auto& s) {
         return s.updateAnnotationBounds(rectangle, {0.9, 0.9, 0.2, 0.2});
       },
       invalidAnnotation},
      // The arrow pointed from the bottom right to the top left, and still does.
      {"arrow bounds",
       [&](auto& s) {
         return s.updateAnnotationBounds(arrow, {0.125, 0.25, 0.25, 0.5});
       },
       [](const EditTimeline& t) {
         return t.annotations[1].startPoint == PointValue{0.375, 0.75} &&
                t.annotations[1].endPoint == PointValue{0.125, 0.25} && !t.annotations[1].bounds;
       },
       [&](auto& s) {
         return s.updateAnnotationBounds(arrow, {0.1, 0.1, 0.01, 0.01});
       },
       invalidAnnotation},
      {"annotation style", [&](auto& s) { return s.updateAnnotationStyle(rectangle, blueFilled); },
       [&](const EditTimeline& t) {
         return AnnotationStyleEdit::of(t.annotations[0]) == blueFilled && t.annotations[0].bounds &&
                t.annotations[0].startTime == ms(0);
       },
       [&](auto& s) { return s.updateAnnotationStyle(rectangle, tooThick); }, invalidAnnotation},
      // The words stay the annotation's own.
      {"text style", [&](auto& s) { return s.updateAnnotationStyle(text, outlined); },
       [](const EditTimeline& t) {
         return t.annotations[2].textStyle == TextAnnotationStyle{"Hi", 96, true, TextAnnotationOutlineColor::white};
       },
       [&](auto& s) { return s.updateAnnotationStyle(text, hugeText); }, invalidAnnotation},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<Notice> notices;
    TimelineEditingSession session(annotatedTimeline(), tenSeconds, {1920, 1080},
                                   [&](const EditTimeline& t, bool committed, bool persist) {
                                     notices.push_back({t, committed, persist});
                                   });
    const EditTimeline before = session.timeline();
    ASSERT_TRUE(c.edit(session)) << session.message().value_or("");
    const EditTimeline after = session.timeline();
    EXPECT_TRUE(c.changed(after));
    EXPECT_EQ(session.undoCount(), 1u);
    ASSERT_EQ(notices.size(), 1u);
    EXPECT_TRUE(notices[0].committed && notices[0].shouldPersist);
    EXPECT_EQ(notices[0].timeline, after);

    // The same value again is no second step.
    EXPECT_TRUE(c.edit(session));
    EXPECT_EQ(session.undoCount(), 1u);
    EXPECT_EQ(notices.size(), 1u);

    EXPECT_FALSE(c.refused(session));
    EXPECT_EQ(session.timeline(), after);
    EXPECT_EQ(session.undoCount(), 1u);
    EXPECT_EQ(notices.size(), 1u);
    EXPECT_EQ(session.message(), c.refusal);

    session.undo();
    EXPECT_EQ(session.timeline(), before);
    session.redo();
    EXPECT_EQ(session.timeline(), after);
    EXPECT_EQ(session.message(), std::nullopt);
  }
}

TEST(TimelineEditingSession, InspectorOperationsOnAnnotationsThatAreGoneOrAFrameTakenAway) {
  TimelineEditingSession session(annotatedTimeline(), tenSeconds, {1920, 1080}, [](auto&, bool, bool) {});
  EXPECT_FALSE(session.updateAnnotationBounds(Uuid::stable("none"), {0.1, 0.1, 0.2, 0.2}));
  EXPECT_FALSE(session.updateAnnotationStyle(Uuid::stable("none"), AnnotationStyleEdit{}));
  EXPECT_EQ(session.undoCount(), 0u);
  EXPECT_EQ(session.message(), std::nullopt);

  // Text style asked of a rectangle: the rest of the style is taken, the text style is not.
  AnnotationStyleEdit style = AnnotationStyleEdit::of(session.timeline().annotations[0]);
  style.textStyle = TextAnnotationStyle::defaultValue();
  style.lineWidth = 0.02;
  ASSERT_TRUE(session.updateAnnotationStyle(Uuid::stable("rectangle"), style));
  EXPECT_EQ(session.timeline().annotations[0].textStyle, std::nullopt);
  EXPECT_EQ(session.timeline().annotations[0].lineWidth, 0.02);

  ASSERT_TRUE(session.updateDeviceFrame(DeviceFrameEdit{true, "vumo-display-black", DeviceFrameContentMode::fit}));
  ASSERT_TRUE(session.updateDeviceFrame(std::nullopt));
  EXPECT_EQ(session.timeline().deviceFrame, std::nullopt);
  EXPECT_EQ(session.undoCount(), 3u);

  // A timeline of an older schema takes no device frame.
  EditTimeline older = annotatedTimeline();
  older.schemaVersion = 7;
  TimelineEditingSession old(older, tenSeconds, {1920, 1080}, [](auto&, bool, bool) {});
  EXPECT_FALSE(old.updateDeviceFrame(DeviceFrameEdit{true, "vumo-display-black", DeviceFrameContentMode::fit}));
  EXPECT_EQ(old.message(),
            TimelineValidationError::of(TimelineValidationError::Case::deviceFrameRequiresSchema8).what());
  EXPECT_EQ(old.timeline(), older);
}

TEST(EditorMessages, EveryNoticeHasItsKeyAndTheCauseFollowsThoseThatTakeOne) {
  EXPECT_EQ(editorMessage(EditorMessageID::saveTimelineFailed).key, "editor.external.saveTimeline");
  EXPECT_EQ(editorMessage(EditorMessageID::captionsExternalPending).table, "EditorCaptions");
  EXPECT_EQ(editorMessageText(EditorMessageID::externalLoadFailed, "gone"), "External edits could not be loaded: gone");
  EXPECT_EQ(editorMessageText(EditorMessageID::timelineExternalLoaded, "ignored"),
            "External edits loaded. Press Ctrl+Z to undo.");
}

}  // namespace
}  // namespace vumo
