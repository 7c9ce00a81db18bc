#pragma once
// The pictures of one moment of an edited project, for a still and for whatever else shows single
// moments: the screen frame and the camera frame shown at a sequence time, and the frame of a
// video wallpaper. Seeks are exact: a reader that lands on a keyframe decodes on to the frame
// whose interval holds the time, never showing the keyframe instead.

#include <memory>
#include <optional>
#include <stop_token>

#include "media/sequence_video_reader.h"
#include "project/project_snapshot.h"
#include "shared/project_time.h"

namespace vumo {

struct ProjectFrames {
  ProjectTime sequenceTime;
  std::optional<DecodedVideoFrame> screen;      // none in a hole of the screen track
  std::optional<DecodedVideoFrame> camera;      // none without camera media or in a hole of its track
  std::optional<DecodedVideoFrame> background;  // the wallpaper's frame when the canvas shows a video
};

// Not copyable; use from one thread at a time. Asking for increasing times decodes forward.
class ProjectFrameSource {
 public:
  // Builds the composition plan and opens the movie once per video track (and the wallpaper when
  // the canvas has one). Throws what TimelineCompositionBuilder::build and MediaContainer::open
  // throw; a wallpaper that cannot be opened is left out (the canvas falls back to its colours).
  ProjectFrameSource(const ProjectSnapshot& snapshot, std::stop_token stopToken = {});
  ProjectFrameSource(ProjectFrameSource&&) noexcept;
  ProjectFrameSource& operator=(ProjectFrameSource&&) noexcept;
  ~ProjectFrameSource();

  ProjectTime sequenceDuration() const;
  // The source time the screen shows at `sequenceTime`; none outside the sequence.
  std::optional<ProjectTime> sourceTime(ProjectTime sequenceTime) const;

  // The frames of `sequenceTime`. Throws SequenceReaderError or CancelledError.
  ProjectFrames framesAt(ProjectTime sequenceTime);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace vumo
