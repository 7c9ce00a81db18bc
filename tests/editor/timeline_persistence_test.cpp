#include "editor/timeline_persistence.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "editor/timeline_editing_session.h"
#include "editor/view_update_change_queue.h"
#include "project/project_fixtures.h"
#include "project/project_store_error.h"
#include "shared/files.h"
#include "support/manual_main_loop.h"

namespace vumo {
namespace {

using project_testing::timelineWithBlur;

// The tests' loop, which also lets a test wait for the save thread to post its answer. The wait
// is bounded so that a save that never answers fails the test instead of hanging it.
class AnsweringLoop final : public MainLoop {
 public:
  void post(Work work) override {
    inner_.post(std::move(work));
    std::lock_guard lock(mutex_);
    ++posted_;
    posted.notify_all();
  }
  TimerID schedule(Clock::duration delay, Work work) override { return inner_.schedule(delay, std::move(work)); }
  void cancel(TimerID timer) override { inner_.cancel(timer); }
  Clock::time_point now() const override { return inner_.now(); }

  // Turns the loop until `done` holds, waiting for the save thread's posts in between.
  bool turnUntil(const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    for (;;) {
      std::size_t seen;
      {
        std::lock_guard lock(mutex_);
        seen = posted_;
      }
      inner_.runUntilIdle();
      if (done()) return true;
      std::unique_lock lock(mutex_);
      if (!posted.wait_until(lock, deadline, [&] { return posted_ != seen; })) return false;
    }
  }

 private:
  testing::ManualMainLoop inner_;
  std::mutex mutex_;
  std::condition_variable posted;
  std::size_t posted_ = 0;
};

// A store stand-in that holds every write until the test releases it, and answers each with the
// next scripted outcome: a digest, a conflict or another failure.
class HeldWriter final : public TimelineDocumentWriter {
 public:
  struct Call {
    double blur;
    std::string expectedDigest;
  };
  enum class Outcome { write, conflict, fail };

  std::string replaceTimeline(const EditTimeline& timeline, const std::string& expectedDigest) override {
    std::unique_lock lock(mutex_);
    calls_.push_back({timeline.motionBlurAmount, expectedDigest});
    changed_.notify_all();
    changed_.wait(lock, [&] { return released_ >= calls_.size(); });
    const Outcome outcome = outcomes_.empty() ? Outcome::write : outcomes_.front();
    if (!outcomes_.empty()) outcomes_.pop_front();
    if (outcome == Outcome::conflict) throw ProjectStoreError::timelineDigestConflict(expectedDigest, "theirs");
    if (outcome == Outcome::fail) throw FileError("The disk is full.");
    return "digest " + std::to_string(calls_.size());
  }

  void script(std::vector<Outcome> outcomes) {
    std::lock_guard lock(mutex_);
    outcomes_.assign(outcomes.begin(), outcomes.end());
  }
  // Waits (bounded) until `count` writes have begun.
  bool waitForCalls(std::size_t count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20), [&] { return calls_.size() >= count; });
  }
  void releaseOne() {
    std::lock_guard lock(mutex_);
    ++released_;
    changed_.notify_all();
  }
  void releaseAll() {
    std::lock_guard lock(mutex_);
    released_ = 1'000'000;
    changed_.notify_all();
  }
  std::vector<Call> calls() {
    std::lock_guard lock(mutex_);
    return calls_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Call> calls_;
  std::deque<Outcome> outcomes_;
  std::size_t released_ = 0;
};

struct PersistenceFixture {
  AnsweringLoop loop;
  HeldWriter* writer = nullptr;
  std::vector<std::string> messages;
  int reloads = 0;
  std::unique_ptr<TimelinePersistence> persistence;

  PersistenceFixture() {
    auto held = std::make_unique<HeldWriter>();
    writer = held.get();
    persistence = std::make_unique<TimelinePersistence>(
        loop, std::move(held), "loaded",
        TimelinePersistenceHooks{[this] { ++reloads; },
                                 [this](const std::string& message) { messages.push_back(message); }, nullptr});
  }
  ~PersistenceFixture() {
    writer->releaseAll();
    persistence.reset();
  }
  bool settle() {
    writer->releaseAll();
    return loop.turnUntil([&] { return persistence->outstandingSaves() == 0; });
  }
};

TEST(TimelinePersistence, SavesUnderASlowStoreAreWrittenOneAfterAnotherInTheirOrder) {
  PersistenceFixture f;
  for (double blur : {0.1, 0.2, 0.3}) f.persistence->scheduleTimelinePersistence(timelineWithBlur(blur));
  ASSERT_TRUE(f.writer->waitForCalls(1));
  EXPECT_EQ(f.persistence->outstandingSaves(), 3u);

  f.writer->releaseOne();
  // The second write waits for the first one's answer to reach the main thread.
  EXPECT_EQ(f.writer->calls().size(), 1u);
  ASSERT_TRUE(f.loop.turnUntil([&] { return f.persistence->lastKnownTimelineDigest() == "digest 1"; }));
  ASSERT_TRUE(f.writer->waitForCalls(2));
  ASSERT_TRUE(f.settle());

  const auto calls = f.writer->calls();
  ASSERT_EQ(calls.size(), 3u);
  EXPECT_DOUBLE_EQ(calls[0].blur, 0.1);
  EXPECT_DOUBLE_EQ(calls[1].blur, 0.2);
  EXPECT_DOUBLE_EQ(calls[2].blur, 0.3);
  // Each write expects what the one before it wrote.
  EXPECT_EQ(calls[0].expectedDigest, "loaded");
  EXPECT_EQ(calls[1].expectedDigest, "digest 1");
  EXPECT_EQ(calls[2].expectedDigest, "digest 2");
  EXPECT_EQ(f.persistence->lastKnownTimelineDigest(), "digest 3");
  EXPECT_TRUE(f.messages.empty());
}

TEST(TimelinePersistence, AFailedSaveIsToldOnceAndTheNextSaveWritesTheWholeTimeline) {
  PersistenceFixture f;
  f.writer->script({HeldWriter::Outcome::fail, HeldWriter::Outcome::fail, HeldWriter::Outcome::write});
  for (double blur : {0.1, 0.2, 0.3}) f.persistence->scheduleTimelinePersistence(timelineWithBlur(blur));
  ASSERT_TRUE(f.settle());
  EXPECT_EQ(f.messages, (std::vector<std::string>{"Edits could not be saved: The disk is full."}));
  const auto calls = f.writer->calls();
  ASSERT_EQ(calls.size(), 3u);
  EXPECT_EQ(calls[2].expectedDigest, "loaded");  // nothing landed before it
  EXPECT_DOUBLE_EQ(calls[2].blur, 0.3);
  EXPECT_EQ(f.persistence->lastKnownTimelineDigest(), "digest 3");
  EXPECT_EQ(f.reloads, 0);
}

TEST(TimelinePersistence, AConflictAsksForTheReloadInsteadOfAMessage) {
  PersistenceFixture f;
  f.writer->script({HeldWriter::Outcome::conflict});
  f.persistence->scheduleTimelinePersistence(timelineWithBlur(0.1));
  ASSERT_TRUE(f.settle());
  EXPECT_EQ(f.reloads, 1);
  EXPECT_TRUE(f.messages.empty());
  EXPECT_EQ(f.persistence->lastKnownTimelineDigest(), "loaded");
  // The reload hands over the digest it read; the next save expects it.
  f.persistence->adoptLoadedDigest("theirs");
  f.persistence->scheduleTimelinePersistence(timelineWithBlur(0.2));
  ASSERT_TRUE(f.settle());
  EXPECT_EQ(f.writer->calls().back().expectedDigest, "theirs");
}

TEST(TimelinePersistence, SavesNotYetStartedAreDroppedOnCancel) {
  PersistenceFixture f;
  for (double blur : {0.1, 0.2}) f.persistence->scheduleTimelinePersistence(timelineWithBlur(blur));
  ASSERT_TRUE(f.writer->waitForCalls(1));
  f.persistence->cancel();
  f.persistence->scheduleTimelinePersistence(timelineWithBlur(0.3));
  f.writer->releaseAll();
  ASSERT_TRUE(f.loop.turnUntil([&] { return f.persistence->outstandingSaves() == 0; }));
  ASSERT_EQ(f.writer->calls().size(), 1u);
  EXPECT_EQ(f.persistence->lastKnownTimelineDigest(), "loaded");  // its answer is not taken
}

// The editor end to end on a real project: session, change queue, saves, and a reload that reads
// the file the way the external-edit watcher's reload does.
struct EditorOnProject {
  project_testing::StoreFixture fixture;
  ProjectPackage package = fixture.finishedProject();
  const ProjectTime duration = ProjectTime::fromMilliseconds(10'000);
  AnsweringLoop loop;
  ViewUpdateChangeQueue queue{loop};
  std::vector<std::string> messages;
  std::unique_ptr<TimelinePersistence> persistence;
  std::unique_ptr<TimelineEditingSession> session;

  EditorOnProject() {
    const TimelineState loaded = fixture.store.readTimelineState(package, duration, false);
    persistence = std::make_unique<TimelinePersistence>(
        loop, std::make_unique<ProjectStoreTimelineWriter>(fixture.store.projectsDirectoryPath(), package),
        loaded.digest,
        TimelinePersistenceHooks{[this] { reload(); },
                                 [this](const std::string& message) { messages.push_back(message); }, nullptr});
    session =
        std::make_unique<TimelineEditingSession>(loaded.timeline, duration, PixelSize{1920, 1080},
                                                 [this](const EditTimeline& timeline, bool, bool shouldPersist) {
                                                   queue.enqueueLatest("timeline", [this, timeline, shouldPersist] {
                                                     if (shouldPersist)
                                                       persistence->scheduleTimelinePersistence(timeline);
                                                   });
                                                 });
  }

  void reload() {
    const std::string digest = fixture.store.timelineDigest(package);
    if (digest == persistence->lastKnownTimelineDigest()) return;  // the echo of our own save
    persistence->adoptLoadedDigest(digest);
    try {
      session->applyExternalTimeline(fixture.store.readTimeline(package, duration, false));
    } catch (const Error& error) {
      messages.push_back(error.what());
    }
  }
  bool settle() {
    return loop.turnUntil([&] { return queue.pendingCount() == 0 && persistence->outstandingSaves() == 0; });
  }
  EditTimeline onDisk() { return decodeEditTimeline(readFile(package.timelinePath(), 1 << 24)); }
};

TEST(TimelinePersistence, EditsReachTheProjectAndAnExternalCommitCanBeUndoneOnDisk) {
  EditorOnProject e;
  const EditTimeline opened = e.session->timeline();
  ASSERT_TRUE(e.session->split(ProjectTime::fromMilliseconds(4'000)));
  ASSERT_TRUE(e.settle());
  EXPECT_EQ(e.onDisk(), e.session->timeline());
  EXPECT_EQ(e.persistence->lastKnownTimelineDigest(), e.fixture.store.timelineDigest(e.package));
  e.reload();  // the echo of that save
  EXPECT_FALSE(e.session->canRedo());
  EXPECT_EQ(e.session->undoCount(), 1u);

  // The agent commits; the watcher's reload loads it as one undo step.
  const EditTimeline beforeAgent = e.session->timeline();
  EditTimeline agent = beforeAgent;
  agent.motionBlurAmount = 0.9;
  e.fixture.store.commitTimeline(agent, e.persistence->lastKnownTimelineDigest(), std::nullopt, e.package);
  e.reload();
  ASSERT_TRUE(e.settle());
  EXPECT_EQ(e.session->timeline(), agent);
  EXPECT_EQ(e.onDisk(), agent);

  // Undo writes the timeline before the agent's commit back over it.
  e.session->undo();
  ASSERT_TRUE(e.settle());
  EXPECT_EQ(e.onDisk(), beforeAgent);
  e.session->undo();
  ASSERT_TRUE(e.settle());
  EXPECT_EQ(e.onDisk(), opened);
  EXPECT_TRUE(e.messages.empty());
}

TEST(TimelinePersistence, ASaveThatFindsAnotherWritersBytesReloadsThemInsteadOfOverwriting) {
  EditorOnProject e;
  EditTimeline agent = e.session->timeline();
  agent.motionBlurAmount = 0.1;
  // Written behind the editor's back, with no watcher to tell it.
  e.fixture.store.commitTimeline(agent, e.persistence->lastKnownTimelineDigest(), std::nullopt, e.package);
  ASSERT_TRUE(e.session->applySettings({{"cursor.scale", "2"}}));
  ASSERT_TRUE(e.settle());
  EXPECT_EQ(e.onDisk(), agent);
  EXPECT_EQ(e.session->timeline(), agent);
  EXPECT_EQ(e.session->message(), "External edits loaded. Press Ctrl+Z to undo.");
  // The user's edit is one undo away and saves over the agent's when taken back.
  e.session->undo();
  ASSERT_TRUE(e.settle());
  EXPECT_DOUBLE_EQ(e.onDisk().cursor.scale, 2);
}

TEST(TimelinePersistence, AnInvalidExternalFileIsReportedAndTheNextSaveOverwritesIt) {
  EditorOnProject e;
  EditTimeline invalid = e.session->timeline();
  invalid.zooms.push_back({Uuid::random(),
                           ProjectTime::zero(),
                           ProjectTime::zero(),
                           ProjectTime::fromMilliseconds(500),
                           ProjectTime::fromMilliseconds(500),
                           {0.5, 0.5},
                           5.0});
  writeFileAtomically(e.package.timelinePath(), encodeEditTimeline(invalid));
  e.reload();
  ASSERT_EQ(e.messages.size(), 1u);
  ASSERT_TRUE(e.session->applySettings({{"canvas.padding", "0.1"}}));
  ASSERT_TRUE(e.settle());
  EXPECT_EQ(e.onDisk(), e.session->timeline());
  EXPECT_EQ(e.messages.size(), 1u);
}

}  // namespace
}  // namespace vumo
