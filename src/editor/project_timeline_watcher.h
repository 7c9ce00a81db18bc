#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <thread>

#include "editor/main_loop.h"
#include "shared/error.h"

namespace vumo {

// The edits folder of the open project could not be watched.
class ProjectTimelineWatcherError : public Error {
 public:
  enum class Case { watchDirectory };
  ProjectTimelineWatcherError() : Error(catalogue(), Case::watchDirectory) {}
  Case kind() const noexcept { return Case::watchDirectory; }
  static const ErrorCatalogue<Case>& catalogue();
};

// Tells the editor that someone (above all the agent command line, from another process) changed
// the edit documents of the open project. It watches the package's edits folder with inotify and
// reacts to the two documents landing or going (`timeline.json`, `captions.json`) and to the folder
// itself going; the store's temporary files, history and lock files do not count. A burst of
// events gives one `onChange`, 50 ms after the last event on the loop's clock.
//
// `start`, `stop` and `onChange` are on the main thread. The descriptor is read on a small
// background thread that only posts to the loop.
class ProjectTimelineWatcher {
 public:
  static constexpr std::chrono::milliseconds debounce{50};

  explicit ProjectTimelineWatcher(MainLoop& loop);
  ~ProjectTimelineWatcher();
  ProjectTimelineWatcher(const ProjectTimelineWatcher&) = delete;
  ProjectTimelineWatcher& operator=(const ProjectTimelineWatcher&) = delete;

  // Ends any running watch first, so there is never more than one. A folder that cannot be
  // watched is ProjectTimelineWatcherError, and nothing is watched then.
  void start(const std::filesystem::path& directory, std::function<void()> onChange);

  // No `onChange` follows a stop, not even one whose debounce had begun. The thread has ended and
  // the descriptors are closed when it returns.
  void stop();

  // The inotify descriptor, -1 while nothing is watched.
  int descriptor() const { return inotifyDescriptor_; }

 private:
  // The reader thread: waits on both descriptors, without a time-out, until the stop descriptor
  // is written.
  void readEvents(const std::weak_ptr<int>& token, int inotifyDescriptor, int stopDescriptor);
  void eventArrived();

  MainLoop& loop_;
  std::function<void()> onChange_;
  int inotifyDescriptor_ = -1;
  int stopDescriptor_ = -1;  // an eventfd: written once to end the thread at once
  std::thread reader_;
  std::optional<MainLoop::TimerID> reloadTimer_;
  // One per watch, dropped by `stop`: work that a reader posted for an earlier watch finds its
  // token gone and does nothing.
  std::shared_ptr<int> watchToken_;
};

}  // namespace vumo
