#pragma once

// Thumbnails of the library's projects: the edited film's frame at one second, rendered by the
// media engine on a thread of its own (a GPU context and a project load take far longer than a
// frame of the window), cached as PNG files in $XDG_CACHE_HOME/Vumo/Thumbnails under the
// project's id and timeline digest, so an edit makes a new one and an unchanged project never
// renders again. Results come back on the main loop. Qt-free.

#include <condition_variable>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>
#include <thread>

#include "editor/main_loop.h"
#include "project/project_snapshot.h"
#include "shared/project_time.h"

namespace vumo {

class LibraryThumbnails {
 public:
  static constexpr int width = 320;
  static constexpr std::int64_t stillMilliseconds = 1000;

  // The encoded PNG of `snapshot` at `sequenceTime`, `width` pixels wide. Called on the worker
  // thread only, so a renderer it keeps is made and used on that one thread.
  using StillRender =
      std::function<std::string(const ProjectSnapshot& snapshot, ProjectTime sequenceTime, int width, std::stop_token)>;

  struct Result {
    std::filesystem::path packagePath;
    std::optional<std::filesystem::path> image;  // the cached PNG
    std::optional<std::string> error;            // worded for a person, when there is none
  };

  // $XDG_CACHE_HOME/Vumo/Thumbnails (~/.cache by default).
  static std::filesystem::path defaultCacheFolder();
  // The still renderer of the media engine, loaded on first use.
  static StillRender mediaEngineStills();
  // `<project id>-<timeline digest>.png`: the digest alone would give two recordings with the
  // same untouched timeline the same picture.
  static std::filesystem::path cacheFile(const std::filesystem::path& folder, const ProjectSnapshot& snapshot);
  // One second into the film, or its start when it is shorter.
  static ProjectTime stillTime(const ProjectSnapshot& snapshot);

  // Projects are loaded from `projectsDirectory` by a store of the worker's own.
  LibraryThumbnails(MainLoop& loop, std::filesystem::path projectsDirectory, StillRender render = mediaEngineStills(),
                    std::filesystem::path cacheFolder = defaultCacheFolder());
  // Stops the worker (a render in progress sees its stop token) and drops what was not delivered.
  ~LibraryThumbnails();
  LibraryThumbnails(const LibraryThumbnails&) = delete;
  LibraryThumbnails& operator=(const LibraryThumbnails&) = delete;

  // Main thread. `done` runs later on the main loop, never after this object is gone.
  void request(std::filesystem::path packagePath, std::function<void(const Result&)> done);

 private:
  struct Job {
    std::filesystem::path packagePath;
    std::function<void(const Result&)> done;
  };
  void work(std::stop_token stop);
  Result make(const std::filesystem::path& packagePath, std::stop_token stop);

  MainLoop& loop_;
  std::filesystem::path projectsDirectory_;
  StillRender render_;
  std::filesystem::path cacheFolder_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  std::mutex mutex_;
  std::condition_variable_any wake_;
  std::deque<Job> jobs_;
  std::jthread worker_;  // last: started once everything it uses exists
};

}  // namespace vumo
