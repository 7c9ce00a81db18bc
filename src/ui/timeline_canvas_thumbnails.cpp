#include "ui/timeline_canvas_thumbnails.h"

#include <algorithm>

#include "cli/media_module_loader.h"
#include "editor/main_loop.h"
#include "media/media_module.h"
#include "media/still_image.h"
#include "project/project_snapshot.h"

namespace vumo {

// Touched on the worker thread only.
struct TimelineCanvasThumbnails::WorkerState {
  std::shared_ptr<ProjectStillRendering> renderer;
  bool unavailable = false;
};

TimelineCanvasThumbnails::TimelineCanvasThumbnails(MainLoop& loop)
    : loop_(loop), alive_(std::make_shared<bool>(true)), worker_(std::make_shared<WorkerState>()) {}

TimelineCanvasThumbnails::~TimelineCanvasThumbnails() { stop_.request_stop(); }

void TimelineCanvasThumbnails::reload(const ProjectSnapshot& snapshot, const EditTimeline& timeline,
                                      ProjectTime duration, ProjectTime spacing) {
  stop_.request_stop();
  stop_ = std::stop_source();
  thumbnails_.clear();
  if (spacing.nanoseconds <= 0 || duration.nanoseconds <= 0) return;
  auto edited = std::make_shared<ProjectSnapshot>(snapshot);
  edited->timeline = timeline;
  const std::stop_token stop = stop_.get_token();
  std::weak_ptr<bool> alive = alive_;
  for (ProjectTime time{0}; time < duration; time = time + spacing) {
    queue_.enqueue([this, alive, stop, edited, time, worker = worker_] {
      if (stop.stop_requested() || worker->unavailable) return;
      try {
        if (!worker->renderer) worker->renderer = MediaModuleLoader::load().makeStillRenderer();
        auto bytes = std::make_shared<std::string>(
            worker->renderer->render(*edited, time, thumbnailWidth, StillImageFormat::jpeg, stop));
        loop_.post([this, alive, stop, time, bytes] {
          if (alive.expired() || stop.stop_requested()) return;
          QImage image;
          if (!image.loadFromData(reinterpret_cast<const uchar*>(bytes->data()), static_cast<int>(bytes->size())))
            return;
          const auto at =
              std::lower_bound(thumbnails_.begin(), thumbnails_.end(), time,
                               [](const Thumbnail& t, ProjectTime value) { return t.sequenceTime < value; });
          thumbnails_.insert(at, Thumbnail{time, std::move(image)});
          if (changed) changed();
        });
      } catch (const std::exception&) {
        // No renderer on this machine, or a frame it cannot make (a damaged film): the clips keep
        // their plain colour. Without a renderer nothing further is tried.
        if (!worker->renderer) worker->unavailable = true;
      }
    });
  }
}

}  // namespace vumo
