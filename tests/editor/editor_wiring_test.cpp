// The editor's models wired as the desktop shell wires them: the session announces a change, the
// change queue applies the latest, the save chain writes it, the watcher sees the folder change and
// the reloader hands what is on disk back to the session. What the user sees: their own saves never
// come back as edits, and an agent's commit from another process is one step to undo.

#include <gtest/gtest.h>

#include <optional>
#include <thread>

#include "editor/external_edit_reloader.h"
#include "editor/project_timeline_watcher.h"
#include "editor/timeline_editing_session.h"
#include "editor/timeline_persistence.h"
#include "editor/view_update_change_queue.h"
#include "loop_waiting.h"
#include "project/project_store.h"
#include "sample_project.h"
#include "shared/files.h"
#include "shared/json.h"
#include "support/manual_main_loop.h"
#include "support/test_support.h"

namespace vumo {
namespace {

using namespace std::chrono_literals;

struct OpenProject {
  explicit OpenProject(const testing::ScopedDataHome& home)
      : package(makeSampleProject(store)),
        manifest(store.readManifest(package)),
        session(store.loadSnapshot(package).timeline, manifest.duration, manifest.encodedPixelSize,
                [this](const EditTimeline& timeline, bool, bool shouldPersist) {
                  queue.enqueueLatest(std::string("timeline"), [this, timeline, shouldPersist] {
                    if (shouldPersist) saves.scheduleTimelinePersistence(timeline);
                  });
                }),
        saves(loop, std::make_unique<ProjectStoreTimelineWriter>(std::nullopt, package), store.timelineDigest(package),
              {.reloadExternalTimeline = [this] { reloader.reload(); },
               .showMessage = [this](const std::string& text) { errors.push_back(text); },
               .saved = {}}),
        reloader(package, manifest.duration, manifest.webcam.has_value(),
                 {.applyTimeline = [this](const EditTimeline& timeline) { session.applyExternalTimeline(timeline); },
                  .timelineSaves = [this] { return &saves; },
                  .reportError = [this](std::string text) { errors.push_back(text); }}) {
    (void)home;
    EXPECT_TRUE(reloader.startWatching(watcher));
  }

  testing::ManualMainLoop loop;
  ProjectStore store;
  ProjectPackage package;
  ProjectManifest manifest;
  ViewUpdateChangeQueue queue{loop};
  TimelineEditingSession session;
  TimelinePersistence saves;
  ProjectTimelineWatcher watcher{loop};
  ExternalEditReloader reloader;
  std::vector<std::string> errors;
};

// Turns the loop and moves its clock past the debounce, until nothing is left to happen: the
// watcher's events arrive on the reader thread whenever the kernel delivers them.
void quiesce(testing::ManualMainLoop& loop, TimelinePersistence& saves) {
  for (int round = 0; round < 20; ++round) {
    ASSERT_TRUE(testing::turnUntil(loop, [&] { return saves.outstandingSaves() == 0; }));
    std::this_thread::sleep_for(20ms);  // lets the kernel's events reach the reader thread
    loop.runUntilIdle();
    loop.advance(60ms);
    if (loop.pendingTimers() == 0 && saves.outstandingSaves() == 0 && loop.runUntilIdle() == 0) return;
  }
}

TEST(EditorWiring, OwnSavesStayQuietAndAnAgentsCommitIsOneUndoStep) {
  testing::ScopedDataHome home;
  OpenProject project(home);
  auto& session = project.session;

  // The user splits a clip: saved, and the echo of that save changes nothing.
  ASSERT_TRUE(session.split(ProjectTime::fromMilliseconds(6'000)));
  quiesce(project.loop, project.saves);
  EXPECT_EQ(session.undoCount(), 1u);
  EXPECT_FALSE(session.message()) << *session.message();
  EXPECT_EQ(readFile(project.package.timelinePath(), SIZE_MAX), encodeEditTimeline(session.timeline()));
  const std::string userDigest = project.store.timelineDigest(project.package);

  // The agent cuts from another process, expecting what the editor saved.
  auto cut = testing::runVumo(
      {"cli", "cut", project.manifest.id.string(), "--range", "1000,2500", "--apply", "--expect", userDigest},
      {{"XDG_DATA_HOME", home.path().string()}});
  ASSERT_EQ(cut.status, 0) << cut.standardError;
  ASSERT_TRUE(testing::turnUntil(project.loop, [&] { return project.loop.pendingTimers() > 0; }));
  quiesce(project.loop, project.saves);
  EXPECT_EQ(session.undoCount(), 2u);
  EXPECT_EQ(session.message(), "External edits loaded. Press Ctrl+Z to undo.");
  EXPECT_EQ(encodeEditTimeline(session.timeline()), readFile(project.package.timelinePath(), SIZE_MAX));
  EXPECT_TRUE(project.errors.empty()) << project.errors.front();

  // Undoing it writes the user's timeline back over the agent's file, and that echo too is quiet.
  session.undo();
  quiesce(project.loop, project.saves);
  EXPECT_EQ(project.store.timelineDigest(project.package), userDigest);
  EXPECT_EQ(session.undoCount(), 1u);
  EXPECT_EQ(session.redoCount(), 1u);
  EXPECT_TRUE(project.errors.empty()) << project.errors.front();
}

}  // namespace
}  // namespace vumo
