#include "ui/editor_player.h"

#include <algorithm>

#include "project/project_snapshot.h"
#include "shared/error.h"
#include "timeline/timeline_frame_grid.h"
#include "timeline/timeline_mapper.h"

namespace vumo {

TimelineClockPlayer::TimelineClockPlayer(std::string reason) : reason_(std::move(reason)) {}

void TimelineClockPlayer::load(const ProjectSnapshot& snapshot) {
  sourceDuration_ = snapshot.manifest.duration;
  applyTimeline(snapshot.timeline);
}

void TimelineClockPlayer::applyTimeline(const EditTimeline& timeline) {
  try {
    duration_ = TimelineMapper(timeline, sourceDuration_).sequenceDuration();
  } catch (const Error&) {
    duration_ = ProjectTime{0};
  }
  if (time_ > duration_) moveTo(duration_);
}

void TimelineClockPlayer::seek(ProjectTime sequenceTime) {
  skimTime_.reset();
  moveTo(sequenceTime);
}

void TimelineClockPlayer::skim(ProjectTime sequenceTime) {
  skimTime_ = std::clamp(sequenceTime, ProjectTime{0}, duration_);
  if (observer_.stateChanged) observer_.stateChanged();
}

void TimelineClockPlayer::endSkim() {
  if (!skimTime_) return;
  skimTime_.reset();
  if (observer_.stateChanged) observer_.stateChanged();
}

void TimelineClockPlayer::stepFrames(int frames) {
  const std::int64_t frame =
      TimelineFrameGrid::nearestBoundary(time_).nanoseconds == time_.nanoseconds
          ? (time_.nanoseconds * TimelineFrameGrid::framesPerSecond + 999'999'999) / 1'000'000'000
          : time_.nanoseconds * TimelineFrameGrid::framesPerSecond / 1'000'000'000;
  moveTo(TimelineFrameGrid::boundary(std::max<std::int64_t>(0, frame + frames)));
}

void TimelineClockPlayer::moveTo(ProjectTime time) {
  time_ = std::clamp(time, ProjectTime{0}, duration_);
  if (observer_.stateChanged) observer_.stateChanged();
}

}  // namespace vumo
