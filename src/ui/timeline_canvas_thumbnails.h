#pragma once

// Pictures of the film along the clip lane, rendered by the media engine's still renderer on one
// background thread (its GPU context stays on that thread) and handed to the main loop one by one.
// A new request drops what the previous one had not rendered yet.

#include <QImage>
#include <functional>
#include <memory>
#include <stop_token>
#include <vector>

#include "project/serial_work_queue.h"
#include "shared/project_time.h"

namespace vumo {

class MainLoop;
struct EditTimeline;
struct ProjectSnapshot;

class TimelineCanvasThumbnails {
 public:
  // Pixels; even, as the renderer wants.
  static constexpr int thumbnailWidth = 96;

  struct Thumbnail {
    ProjectTime sequenceTime;
    QImage image;
  };

  explicit TimelineCanvasThumbnails(MainLoop& loop);
  ~TimelineCanvasThumbnails();
  TimelineCanvasThumbnails(const TimelineCanvasThumbnails&) = delete;
  TimelineCanvasThumbnails& operator=(const TimelineCanvasThumbnails&) = delete;

  // Renders `snapshot` with `timeline` every `spacing` of sequence time from 0 to `duration`.
  void reload(const ProjectSnapshot& snapshot, const EditTimeline& timeline, ProjectTime duration, ProjectTime spacing);

  // In sequence order; those not yet rendered are missing.
  const std::vector<Thumbnail>& thumbnails() const { return thumbnails_; }

  // After each thumbnail that arrives. Main loop.
  std::function<void()> changed;

 private:
  struct WorkerState;

  MainLoop& loop_;
  std::stop_source stop_;
  std::shared_ptr<bool> alive_;
  std::shared_ptr<WorkerState> worker_;
  std::vector<Thumbnail> thumbnails_;
  SerialWorkQueue queue_;  // last: joined first, while the rest still exists
};

}  // namespace vumo
