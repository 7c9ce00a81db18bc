#include "ui/library_thumbnails.h"

#include <algorithm>
#include <cstdlib>
#include <system_error>

#include "cli/media_module_loader.h"
#include "project/project_store.h"
#include "shared/files.h"
#include "timeline/timeline_mapper.h"
#include "ui/user_messages.h"

namespace vumo {

namespace fs = std::filesystem;

fs::path LibraryThumbnails::defaultCacheFolder() {
  const char* xdg = std::getenv("XDG_CACHE_HOME");
  fs::path base;
  if (xdg != nullptr && xdg[0] == '/') {
    base = xdg;
  } else {
    const char* home = std::getenv("HOME");
    base = fs::path((home != nullptr && home[0] != 0) ? home : "/") / ".cache";
  }
  return base / "Vumo" / "Thumbnails";
}

LibraryThumbnails::StillRender LibraryThumbnails::mediaEngineStills() {
  std::shared_ptr<ProjectStillRendering> renderer;
  return [renderer](const ProjectSnapshot& snapshot, ProjectTime at, int pixels, std::stop_token stop) mutable {
    if (!renderer) renderer = MediaModuleLoader::load().makeStillRenderer();
    return renderer->render(snapshot, at, pixels, StillImageFormat::png, stop);
  };
}

fs::path LibraryThumbnails::cacheFile(const fs::path& folder, const ProjectSnapshot& snapshot) {
  return folder / (snapshot.manifest.id.string() + "-" + snapshot.timelineDigest + ".png");
}

ProjectTime LibraryThumbnails::stillTime(const ProjectSnapshot& snapshot) {
  const ProjectTime wanted = ProjectTime::fromMilliseconds(stillMilliseconds);
  const ProjectTime length = TimelineMapper(snapshot.timeline, snapshot.manifest.duration).sequenceDuration();
  return wanted < length ? wanted : ProjectTime::zero();
}

LibraryThumbnails::LibraryThumbnails(MainLoop& loop, fs::path projectsDirectory, StillRender render,
                                     fs::path cacheFolder)
    : loop_(loop),
      projectsDirectory_(std::move(projectsDirectory)),
      render_(std::move(render)),
      cacheFolder_(std::move(cacheFolder)),
      worker_([this](std::stop_token stop) { work(stop); }) {}

LibraryThumbnails::~LibraryThumbnails() {
  *alive_ = false;
  worker_.request_stop();
  wake_.notify_all();
  if (worker_.joinable()) worker_.join();
}

void LibraryThumbnails::request(fs::path packagePath, std::function<void(const Result&)> done) {
  {
    std::lock_guard lock(mutex_);
    jobs_.push_back({std::move(packagePath), std::move(done)});
  }
  wake_.notify_one();
}

void LibraryThumbnails::work(std::stop_token stop) {
  for (;;) {
    Job job;
    {
      std::unique_lock lock(mutex_);
      if (!wake_.wait(lock, stop, [this] { return !jobs_.empty(); })) return;
      job = std::move(jobs_.front());
      jobs_.pop_front();
    }
    Result result = make(job.packagePath, stop);
    if (stop.stop_requested()) return;
    loop_.post([alive = alive_, done = std::move(job.done), result = std::move(result)] {
      if (*alive && done) done(result);
    });
  }
}

LibraryThumbnails::Result LibraryThumbnails::make(const fs::path& packagePath, std::stop_token stop) {
  Result result{packagePath, std::nullopt, std::nullopt};
  try {
    // The store is not shared between threads: the worker reads through one of its own.
    ProjectStore store(projectsDirectory_, stop);
    const ProjectSnapshot snapshot = store.loadSnapshot(ProjectPackage{packagePath});
    const fs::path file = cacheFile(cacheFolder_, snapshot);
    std::error_code error;
    if (fs::is_regular_file(fs::symlink_status(file, error))) {
      result.image = file;
      return result;
    }
    const std::string png = render_(snapshot, stillTime(snapshot), width, stop);
    createDirectories(cacheFolder_);
    writeFileAtomically(file, png);
    result.image = file;
  } catch (const std::exception& failure) {
    result.error = userMessageFor(failure);
  }
  return result;
}

}  // namespace vumo
