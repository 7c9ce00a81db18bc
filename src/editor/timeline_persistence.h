#pragma once

// The editor's saves of the timeline: each change that should persist is written whole, in the
// order the changes were made, one at a time on a background thread, each guarded by the digest of
// what this editor last wrote or loaded. There is no timed debounce: a save starts as soon as the
// one before it has come back. A guarded write that finds another writer's bytes (the agent's
// command line, say) does not overwrite them: it asks for the external timeline to be reloaded.

#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>

#include "editor/main_loop.h"
#include "project/project_package.h"
#include "project/project_store.h"
#include "project/serial_work_queue.h"
#include "timeline/edit_timeline.h"

namespace vumo {

// Where the saves go: the one guarded write they need. Called on the save thread only, one call
// at a time.
class TimelineDocumentWriter {
 public:
  virtual ~TimelineDocumentWriter() = default;
  // Replaces the timeline if the file still has `expectedDigest`; returns the digest of the bytes
  // written. ProjectStoreError timelineDigestConflict when someone else wrote in between; any
  // other Error when the write failed.
  virtual std::string replaceTimeline(const EditTimeline& timeline, const std::string& expectedDigest) = 0;
};

// The writer over a package: the store's guarded write without history, the editor's autosave
// (the command line's commits keep the history). It owns its own store, used on the save thread
// alone.
class ProjectStoreTimelineWriter final : public TimelineDocumentWriter {
 public:
  ProjectStoreTimelineWriter(std::optional<std::filesystem::path> projectsDirectory, ProjectPackage package);
  std::string replaceTimeline(const EditTimeline& timeline, const std::string& expectedDigest) override;

 private:
  ProjectStore store_;
  ProjectPackage package_;
};

// What the saves tell the editor, on the main thread.
struct TimelinePersistenceHooks {
  // Another writer changed the file since this editor last wrote or loaded it: load theirs (the
  // external-edit reload). The reload gives the digest of the bytes it read, decodable or not,
  // to `adoptLoadedDigest`, so that the next save replaces those bytes instead of failing again.
  std::function<void()> reloadExternalTimeline;
  // A save failed for another reason: "Edits could not be saved: " and the error's text. Told once
  // for a run of failures with the same text; the next save writes the whole timeline again.
  std::function<void(const std::string& message)> showMessage;
  // A save landed; optional.
  std::function<void(const std::string& digest)> saved;
};

class TimelinePersistence {
 public:
  // `loadedDigest` is the digest of the timeline bytes the editor opened (the snapshot's). The
  // loop must outlive this object. Main thread only.
  TimelinePersistence(MainLoop& loop, std::unique_ptr<TimelineDocumentWriter> writer, std::string loadedDigest,
                      TimelinePersistenceHooks hooks);
  // Drops the saves not yet started and waits for the one being written; its answer is ignored.
  ~TimelinePersistence();
  TimelinePersistence(const TimelinePersistence&) = delete;
  TimelinePersistence& operator=(const TimelinePersistence&) = delete;

  // Queues a save of `timeline` after every save queued before it.
  void scheduleTimelinePersistence(EditTimeline timeline);

  // The digest of what this editor last wrote or loaded: what the next save expects to find, and
  // what a reload compares with to recognise the echo of the editor's own save.
  const std::string& lastKnownTimelineDigest() const;
  // After a reload: the file's digest becomes the expected one.
  void adoptLoadedDigest(std::string digest);
  // Whether `digest` is of a file this editor wrote (one of its recent saves), even one whose
  // answer has not reached the main thread yet. Any thread.
  bool isOwnSave(const std::string& digest) const;

  // Saves queued and not yet answered, the one being written included.
  std::size_t outstandingSaves() const;

  // Drops the saves not yet started; the one being written finishes, and no answer is told. For
  // closing the project; no later save is taken.
  void cancel();

 private:
  struct State;

  void startNext();
  static void finish(const std::shared_ptr<State>& state, std::optional<std::string> digest, bool conflict,
                     std::string failure);

  MainLoop& loop_;
  std::shared_ptr<State> state_;
  std::unique_ptr<TimelineDocumentWriter> writer_;
  std::stop_source stop_;
  // Last, so that it is joined before the writer it uses goes away.
  SerialWorkQueue worker_;
};

}  // namespace vumo
