#include "editor/caption_editing_session.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <limits>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "captions/caption_fixtures.h"
#include "loop_waiting.h"
#include "project/project_store_error.h"
#include "support/manual_main_loop.h"
#include "support/test_support.h"

namespace vumo {
namespace {

using testing::cueId;
using testing::kSourceDuration;
using testing::makeCue;
using testing::makeDocument;
using testing::makeWord;
using testing::ms;

// Multiples of 50 ms lie on the 60 fps grid the engine snaps to.
CaptionDocument baseDocument() {
  return makeDocument({
      makeCue(1, 1000, 2000, "Hello big world",
              {makeWord(1000, 1400, "Hello"), makeWord(1400, 1700, "big"), makeWord(1700, 2000, "world")},
              {{"big", 1}}),
      makeCue(2, 3000, 4000, "cat cat", {}, {{"cat", 2}}),
      makeCue(3, 6000, 7000, "third"),
  });
}

struct Change {
  bool committed;
  bool shouldPersist;
  friend bool operator==(const Change&, const Change&) = default;
};

// A session on the base document that records what it announces.
struct Recorded {
  std::vector<Change> changes;
  std::vector<CaptionDocument> documents;
  CaptionEditingSession session{baseDocument().validated(kSourceDuration), kSourceDuration,
                                [this](const CaptionDocument& document, bool committed, bool shouldPersist) {
                                  changes.push_back({committed, shouldPersist});
                                  documents.push_back(document);
                                }};
  const CaptionCue& cue(int number) const { return *session.document().findCue(cueId(number)); }
};

const CaptionDocument kBase = baseDocument().validated(kSourceDuration);

TEST(CaptionEditingSessionTest, AnAddedCueIsSelectedAndAsksForFocusUntilItsOwnFieldTakesIt) {
  Recorded r;
  ASSERT_TRUE(r.session.addCue(makeCue(9, 8000, 9000, "new"), true));
  EXPECT_EQ(r.session.selectedCueID(), cueId(9));
  EXPECT_EQ(r.session.selectedCue()->text, "new");
  r.session.consumeTextFocusRequest(cueId(3));
  EXPECT_EQ(r.session.textFocusRequestCueID(), cueId(9));
  r.session.consumeTextFocusRequest(cueId(9));
  EXPECT_FALSE(r.session.textFocusRequestCueID());
  EXPECT_EQ(r.changes, (std::vector<Change>{{true, true}}));

  // Undo takes the cue away, and the selection with it; redo brings the cue back, not the selection.
  r.session.undo();
  EXPECT_EQ(r.session.document(), kBase);
  EXPECT_FALSE(r.session.selectedCueID());
  EXPECT_TRUE(r.session.canRedo());
  r.session.redo();
  EXPECT_EQ(r.session.document().cues.size(), 4u);
  EXPECT_EQ(r.changes, (std::vector<Change>{{true, true}, {true, true}, {true, true}}));
}

TEST(CaptionEditingSessionTest, RemovingTheSelectedCueClearsTheSelectionAndUndoBringsTheCueBack) {
  Recorded r;
  EXPECT_FALSE(r.session.removeSelectedCue());
  EXPECT_TRUE(r.changes.empty());

  r.session.select(cueId(2));
  ASSERT_TRUE(r.session.removeSelectedCue());
  EXPECT_FALSE(r.session.selectedCueID());
  EXPECT_EQ(r.session.document().findCue(cueId(2)), nullptr);
  r.session.undo();
  EXPECT_EQ(r.session.document(), kBase);
  EXPECT_EQ(r.cue(2).highlights, (std::vector<CaptionHighlight>{{"cat", 2}}));
}

TEST(CaptionEditingSessionTest, PanelEditsAreOneStepEachAndARefusedEditKeepsTheDocument) {
  Recorded r;
  // New text: words and highlights belonged to the old one.
  ASSERT_TRUE(r.session.updateText(cueId(1), "Hello small world"));
  EXPECT_TRUE(r.cue(1).words.empty());
  EXPECT_TRUE(r.cue(1).highlights.empty());

  // The whole sentence cannot be a highlight: the person's selection is at fault.
  EXPECT_FALSE(r.session.addHighlight(cueId(3), {"third", 1}));
  EXPECT_EQ(*r.session.message(), "Select a continuous range of words in the caption text.");
  EXPECT_EQ(r.session.undoCount(), 1u);

  ASSERT_TRUE(r.session.replaceHighlight(cueId(2), {"cat", 2}, {"cat", 1}));
  EXPECT_FALSE(r.session.message()) << "a successful edit clears the message";
  EXPECT_EQ(r.cue(2).highlights, (std::vector<CaptionHighlight>{{"cat", 1}}));
  EXPECT_FALSE(r.session.replaceHighlight(cueId(2), {"cat", 1}, {"cat", 3}));
  EXPECT_EQ(*r.session.message(), "Select a continuous range of words in the caption text.");
  EXPECT_FALSE(r.session.replaceHighlight(cueId(7), {"cat", 1}, {"cat", 2}));
  EXPECT_EQ(*r.session.message(), "The selected caption could not be found.");

  ASSERT_TRUE(r.session.removeHighlight(cueId(2), {"cat", 1}));
  EXPECT_TRUE(r.cue(2).highlights.empty());
  // Removing what is not there is no change and no step.
  ASSERT_TRUE(r.session.removeHighlight(cueId(2), {"cat", 1}));
  EXPECT_EQ(r.session.undoCount(), 3u);

  // Undo walks back through each edit; a new edit after undo drops what could be redone.
  r.session.undo();
  r.session.undo();
  EXPECT_EQ(r.cue(2).highlights, (std::vector<CaptionHighlight>{{"cat", 2}}));
  EXPECT_EQ(r.session.redoCount(), 2u);
  ASSERT_TRUE(r.session.clearHighlights(cueId(2)));
  EXPECT_FALSE(r.session.canRedo());
}

// The style comes in its normal form, as the renderer expects it; a value that is already there
// after that is no step at all.
TEST(CaptionEditingSessionTest, AStyleIsOneStepInItsNormalFormAndUndoAndRedoFollow) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  struct Case {
    std::string name;
    CaptionStyle asked;
    CaptionStyle expected;
    std::size_t steps;
  };
  const std::vector<Case> cases{
      {"within the limits",
       {false, 1, CaptionAppearance::whiteWithBlackOutline, 0.8, 0.2},
       {false, 1, CaptionAppearance::whiteWithBlackOutline, 0.8, 0.2},
       1},
      {"rounded to hundredths, lines at most two",
       {true, 5, CaptionAppearance::blackWithWhiteOutline, 1.156, 0.456},
       {true, 2, CaptionAppearance::blackWithWhiteOutline, 1.16, 0.46},
       1},
      {"below every limit",
       {true, 0, CaptionAppearance::whiteOnBlack, 0.1, -1},
       {true, 1, CaptionAppearance::whiteOnBlack, 0.6, 0.0},
       1},
      {"not a number falls back to the default",
       {true, 1, CaptionAppearance::whiteOnBlack, nan, nan},
       {true, 1, CaptionAppearance::whiteOnBlack, 1.0, 0.08},
       1},
      {"the current style once rounded",
       {true, 2, CaptionAppearance::whiteOnBlack, 1.004, 0.0849},
       CaptionStyle::defaults(),
       0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Recorded r;
    ASSERT_EQ(r.session.document().style, CaptionStyle::defaults());
    ASSERT_TRUE(r.session.updateStyle(c.asked));
    EXPECT_EQ(r.session.document().style, c.expected);
    EXPECT_EQ(r.session.document().cues, kBase.cues) << "the cues are untouched";
    EXPECT_EQ(r.session.undoCount(), c.steps);
    ASSERT_EQ(r.changes.size(), c.steps);
    if (c.steps == 0) continue;
    EXPECT_EQ(r.changes[0], (Change{true, true}));
    EXPECT_EQ(r.documents[0].style, c.expected);
    r.session.undo();
    EXPECT_EQ(r.session.document(), kBase);
    r.session.redo();
    EXPECT_EQ(r.session.document().style, c.expected);
  }
}

TEST(CaptionEditingSessionTest, UndoKeepsTheLatestHundredSteps) {
  Recorded r;
  for (int step = 1; step <= 101; ++step) ASSERT_TRUE(r.session.updateText(cueId(3), "take " + std::to_string(step)));
  EXPECT_EQ(r.session.undoCount(), 100u);
  while (r.session.canUndo()) r.session.undo();
  // The oldest step that is left is the first edit's result, not the document the session began with.
  EXPECT_EQ(r.cue(3).text, "take 1");
  EXPECT_EQ(r.session.redoCount(), 100u);
}

TEST(CaptionEditingSessionTest, ADragOfFiftyStepsIsOneUndoStepMeasuredFromWhereItBegan) {
  Recorded r;
  r.session.beginCoalescedEdit();
  for (int step = 0; step < 50; ++step) ASSERT_TRUE(r.session.moveCue(cueId(1), ms(1050 + 50 * (step % 20))));
  // Into the neighbour: that step fails and the cue stays where the last valid step put it.
  EXPECT_FALSE(r.session.moveCue(cueId(1), ms(2500)));
  EXPECT_EQ(*r.session.message(), "Captions cannot overlap neighboring captions.");
  EXPECT_EQ(r.cue(1).start, ms(1500));
  r.session.beginCoalescedEdit();  // a second begin keeps the first baseline
  r.session.endCoalescedEdit();

  EXPECT_EQ(r.changes.size(), 51u);
  EXPECT_EQ(std::count(r.changes.begin(), r.changes.end(), Change{false, true}), 50);
  EXPECT_EQ(r.changes.back(), (Change{true, true}));
  EXPECT_EQ(r.session.undoCount(), 1u);
  EXPECT_EQ(r.cue(1).start, ms(1500));
  EXPECT_EQ(r.cue(1).end, ms(2500));
  EXPECT_EQ(r.cue(1).words.front().start, ms(1500)) << "words move with the cue";
  r.session.undo();
  EXPECT_EQ(r.session.document(), kBase);

  // A trim in and back out again: the second step starts from the gesture's baseline, so the word
  // the first step dropped ("big" starts at 1.4 s) is there again.
  r.session.beginCoalescedEdit();
  ASSERT_TRUE(r.session.trimStart(cueId(1), ms(1500)));
  EXPECT_EQ(r.cue(1).words.size(), 1u);
  ASSERT_TRUE(r.session.trimStart(cueId(1), ms(1350)));
  r.session.endCoalescedEdit();
  ASSERT_EQ(r.cue(1).words.size(), 2u);
  EXPECT_EQ(r.cue(1).words[0].text, "big");
  EXPECT_EQ(r.session.undoCount(), 1u);

  // A drag that returns to where it began leaves no step.
  r.session.beginCoalescedEdit();
  ASSERT_TRUE(r.session.trimEnd(cueId(3), ms(7500)));
  ASSERT_TRUE(r.session.trimEnd(cueId(3), ms(7000)));
  r.session.endCoalescedEdit();
  EXPECT_EQ(r.session.undoCount(), 1u);
}

TEST(CaptionEditingSessionTest, ExternalDocumentsLoadAsOneUndoableStepAndWaitForAGesture) {
  CaptionDocument first = kBase;
  first.cues[2].text = "from the agent";
  CaptionDocument second = first;
  second.cues.pop_back();  // removes cue 3

  Recorded r;
  r.session.select(cueId(3));
  r.session.applyExternalDocument(kBase);
  EXPECT_FALSE(r.session.message()) << "an equal document is nothing";
  EXPECT_TRUE(r.changes.empty());

  r.session.beginCoalescedEdit();
  ASSERT_TRUE(r.session.trimEnd(cueId(2), ms(4500)));
  r.session.applyExternalDocument(first);
  r.session.applyExternalDocument(second);
  EXPECT_EQ(*r.session.message(), "External captions detected. They will load after the current operation finishes.");
  EXPECT_EQ(r.cue(2).end, ms(4500)) << "nothing loads during the gesture";
  r.session.endCoalescedEdit();

  // The gesture is folded first, then only the later document loads, without being saved again.
  EXPECT_EQ(r.changes, (std::vector<Change>{{false, true}, {true, true}, {true, false}}));
  EXPECT_EQ(r.session.document(), second);
  EXPECT_EQ(*r.session.message(), "External captions loaded. Press Ctrl+Z to undo.");
  EXPECT_FALSE(r.session.selectedCueID()) << "the selected cue is gone";
  EXPECT_EQ(r.session.undoCount(), 2u);

  // Undo of the external change is an ordinary edit, saved over the external file.
  r.session.undo();
  EXPECT_EQ(r.cue(2).end, ms(4500));
  EXPECT_EQ(r.changes.back(), (Change{true, true}));
  EXPECT_FALSE(r.session.message());
}

TEST(CaptionEditingSessionTest, AnInvalidExternalDocumentIsReportedAndTheOpenOneStays) {
  CaptionDocument overlapping = kBase;
  overlapping.cues[1].start = ms(1500);
  Recorded r;
  r.session.applyExternalDocument(overlapping);
  EXPECT_EQ(*r.session.message(), "Invalid external captions: Caption text, ordering, or timing is invalid.");
  EXPECT_EQ(r.session.document(), kBase);
  EXPECT_FALSE(r.session.canUndo());
  EXPECT_TRUE(r.changes.empty());
}

// ---- Saves -----------------------------------------------------------------------------------

struct Commit {
  std::string firstCueText;
  std::string expectedCaptionsDigest;
  std::string expectedTimelineDigest;
  friend bool operator==(const Commit&, const Commit&) = default;
};

// A store whose commits wait until the test opens the gate, then answer "saved-1", "saved-2", ...
// or throw what the test asked for.
class GatedStore final : public CaptionSaveStore {
 public:
  std::string commitCaptions(const CaptionDocument& document, const std::string& expectedCaptionsDigest,
                             const std::string& expectedTimelineDigest) override {
    std::unique_lock lock(mutex_);
    opened_.wait(lock, [&] { return open_; });
    commits_.push_back({document.cues.front().text, expectedCaptionsDigest, expectedTimelineDigest});
    if (failure_) std::rethrow_exception(failure_);
    return "saved-" + std::to_string(commits_.size());
  }
  void open() {
    std::lock_guard lock(mutex_);
    open_ = true;
    opened_.notify_all();
  }
  void failWith(std::exception_ptr failure) {
    std::lock_guard lock(mutex_);
    failure_ = std::move(failure);
  }
  std::vector<Commit> commits() {
    std::lock_guard lock(mutex_);
    return commits_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable opened_;
  bool open_ = false;
  std::exception_ptr failure_;
  std::vector<Commit> commits_;
};

CaptionDocument withFirstText(std::string text) {
  CaptionDocument document = kBase;
  document.cues.front().text = std::move(text);
  return document;
}

struct SaveFixture {
  testing::ManualMainLoop loop;
  std::shared_ptr<GatedStore> store = std::make_shared<GatedStore>();
  std::string timelineDigest = "timeline-0";
  int reloads = 0;
  std::vector<std::string> failures;
  CaptionSaveChain chain{loop, store, "captions-0",
                         CaptionSaveChain::Hooks{[this] { return timelineDigest; }, [this] { ++reloads; },
                                                 [this](std::string message) { failures.push_back(message); }}};

  bool waitForCommits(std::size_t count) {
    return testing::turnUntil(loop, [&] { return store->commits().size() >= count; });
  }
};

TEST(CaptionSaveChainTest, SavesBehindASlowStoreRunInOrderEachGuardedByTheDigestBeforeIt) {
  SaveFixture f;
  for (int save = 1; save <= 3; ++save) {
    f.timelineDigest = "timeline-" + std::to_string(save);
    f.chain.save(withFirstText("take " + std::to_string(save)));
  }
  EXPECT_EQ(f.chain.savedDigest(), "captions-0");
  f.store->open();
  ASSERT_TRUE(testing::turnUntil(f.loop, [&] { return f.chain.savedDigest() == "saved-3"; }));
  EXPECT_EQ(f.store->commits(), (std::vector<Commit>{{"take 1", "captions-0", "timeline-1"},
                                                     {"take 2", "saved-1", "timeline-2"},
                                                     {"take 3", "saved-2", "timeline-3"}}));
  EXPECT_TRUE(f.failures.empty());
  EXPECT_EQ(f.reloads, 0);
  EXPECT_TRUE(f.chain.isOwnSave("saved-2"));
  EXPECT_FALSE(f.chain.isOwnSave("captions-0"));
}

TEST(CaptionSaveChainTest, FailedSavesShowTheirMessageOnceUntilASaveSucceeds) {
  SaveFixture f;
  f.store->open();
  f.store->failWith(std::make_exception_ptr(FileError("No space left on device: captions.json")));
  for (int save = 1; save <= 3; ++save) f.chain.save(withFirstText("take " + std::to_string(save)));
  ASSERT_TRUE(f.waitForCommits(3));
  // Answers come back in order, so once the fourth save's success is in, so are the failures.
  f.store->failWith(nullptr);
  f.chain.save(withFirstText("take 4"));
  ASSERT_TRUE(testing::turnUntil(f.loop, [&] { return f.chain.savedDigest() == "saved-4"; }));
  EXPECT_EQ(f.failures,
            (std::vector<std::string>{"Captions could not be saved: No space left on device: captions.json"}));

  f.store->failWith(std::make_exception_ptr(FileError("Read-only file system: captions.json")));
  f.chain.save(withFirstText("take 5"));
  ASSERT_TRUE(testing::turnUntil(f.loop, [&] { return f.failures.size() == 2; }));
  EXPECT_EQ(f.failures.back(), "Captions could not be saved: Read-only file system: captions.json");
  const auto commits = f.store->commits();
  for (int failed = 0; failed < 3; ++failed) EXPECT_EQ(commits[failed].expectedCaptionsDigest, "captions-0");
  EXPECT_EQ(commits[4].expectedCaptionsDigest, "saved-4");
  EXPECT_EQ(f.reloads, 0);
}

TEST(CaptionSaveChainTest, AConflictAsksForAReloadAndTheNextSaveExpectsWhatIsOnDisk) {
  SaveFixture f;
  f.store->open();
  f.store->failWith(
      std::make_exception_ptr(ProjectStoreError::captionsDigestConflict("captions-0", "written-by-agent")));
  f.chain.save(withFirstText("mine"));
  ASSERT_TRUE(testing::turnUntil(f.loop, [&] { return f.reloads == 1; }));
  EXPECT_TRUE(f.failures.empty());

  f.store->failWith(nullptr);
  f.chain.save(withFirstText("after the reload"));
  ASSERT_TRUE(f.waitForCommits(2));
  EXPECT_EQ(f.store->commits().back().expectedCaptionsDigest, "written-by-agent");
}

TEST(CaptionSaveChainTest, ADigestReadFromDiskIsFollowedUnlessItIsTheChainsOwnSave) {
  SaveFixture f;
  f.store->open();
  f.chain.save(withFirstText("one"));
  f.chain.save(withFirstText("two"));
  // A reload that read the file between the two saves: its echo must not send the chain back.
  f.chain.noteDiskDigest("saved-1");
  f.chain.save(withFirstText("three"));
  // Then someone else writes, and a reload reads it.
  f.chain.noteDiskDigest("agent-digest");
  f.chain.save(withFirstText("four"));
  ASSERT_TRUE(f.waitForCommits(4));
  const auto commits = f.store->commits();
  EXPECT_EQ(commits[2].expectedCaptionsDigest, "saved-2");
  EXPECT_EQ(commits[3].expectedCaptionsDigest, "agent-digest");
}

}  // namespace
}  // namespace vumo
