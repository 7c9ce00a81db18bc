#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

#include "capture/capture_streams.h"
#include "project/geometry_sample.h"
#include "shared/geometry.h"
#include "shared/json_fwd.h"
#include "shared/project_time.h"

namespace vumo {

// A presentation time of the video on the host timebase, in nanoseconds. None is a time that is
// not a number (a stream that could not tell); wherever it enters arithmetic it counts as 0 ns.
using VideoTimestamp = std::optional<std::int64_t>;

// How host time and video time stood against each other at one moment of the recording.
struct ClockAnchor {
  ProjectTime projectTime;
  std::int64_t videoPTSNanoseconds = 0;  // the absolute video time, not the elapsed time
  std::uint64_t hostTimeNanoseconds = 0;
  // Video-derived project time less host-derived project time: positive when video runs ahead.
  std::int64_t offsetNanoseconds = 0;

  friend bool operator==(const ClockAnchor&, const ClockAnchor&) = default;
};

void to_json(Json& j, const ClockAnchor& anchor);
void from_json(const Json& j, ClockAnchor& anchor);

// The one timeline of a recording. Project time 0 is the first video frame that reaches the
// writer; video times map onto it directly, host times (pointer events, cursor probes, camera
// frames) through an anchor that is set at start and at each resume. Host time is re-anchored over
// a pause, never stretched, so the pause vanishes from both mappings alike.
//
// Shared by the capture thread (start, resume, observe, diagnostic anchors), the pointer thread
// and the cursor sampler (host mappings); every operation takes the one lock and calls nothing
// out while holding it.
class RecordingClock {
 public:
  RecordingClock() = default;
  RecordingClock(const RecordingClock&) = delete;
  RecordingClock& operator=(const RecordingClock&) = delete;

  // The first call wins; later ones change nothing.
  void start(VideoTimestamp videoPTS, std::uint64_t displayTimeHostUnits);
  // Host times map to nothing until `resume`; video times still map. A session also pauses the
  // clock when it begins to stop or discard, so pointer and cursor timing end at once.
  void pause();
  // Re-anchors host time at `videoPTS`, which already lies on the paused-out output timeline. No
  // effect on a clock that never started.
  void resume(VideoTimestamp videoPTS, std::uint64_t displayTimeHostUnits);
  bool isStarted() const;

  std::optional<ProjectTime> projectTimeForVideoPTS(VideoTimestamp videoPTS) const;
  // May be negative for an instant before the anchor: callers that need a time within the
  // recording test for that themselves.
  std::optional<ProjectTime> projectTimeForHostTimeNanoseconds(std::uint64_t hostNanoseconds) const;
  // Pointer events carry host nanoseconds already: the same mapping.
  std::optional<ProjectTime> projectTimeForPointerTimestamp(std::uint64_t timestampNanoseconds) const {
    return projectTimeForHostTimeNanoseconds(timestampNanoseconds);
  }
  VideoTimestamp videoPTS(ProjectTime time) const;

  // Whether video and host time disagreed since the previous frame: either stood still or ran
  // backwards, or they differ by more than 50 ms. Only counted, never acted on.
  bool observe(VideoTimestamp videoPTS, std::uint64_t displayTimeHostUnits);
  // An anchor every 10 s of project time, for the largest clock offset of the metrics.
  std::optional<ClockAnchor> recordDiagnosticAnchor(VideoTimestamp videoPTS, std::uint64_t displayTimeHostUnits);
  std::vector<ClockAnchor> anchors() const;

  static std::int64_t nanoseconds(VideoTimestamp time) { return time.value_or(0); }
  // The host timebase is nanoseconds already (CLOCK_MONOTONIC).
  static std::uint64_t hostUnitsToNanoseconds(std::uint64_t units) { return units; }

  static constexpr std::int64_t discontinuityThresholdNanoseconds = 50'000'000;
  static constexpr std::int64_t diagnosticAnchorIntervalNanoseconds = 10'000'000'000;

 private:
  ClockAnchor makeAnchorUnlocked(VideoTimestamp videoPTS, std::uint64_t hostNanoseconds) const;
  std::int64_t elapsedUnlocked(VideoTimestamp videoPTS) const;

  mutable std::mutex lock_;
  bool started_ = false;
  VideoTimestamp videoStartPTS_;
  std::optional<std::uint64_t> hostAnchorNanoseconds_;
  ProjectTime projectAnchorTime_;
  bool acceptsHostTime_ = false;
  ProjectTime lastDiagnosticTime_;
  std::optional<std::int64_t> lastObservedVideoNanoseconds_;
  std::optional<std::uint64_t> lastObservedHostNanoseconds_;
  std::vector<ClockAnchor> anchors_;
};

// Numbers the capture geometry of a recording: each frame's metadata becomes a `GeometrySample`
// when it differs from the one in force, so every pointer event can name the geometry it was
// recorded under. Written by the capture thread, read by the pointer thread; guards itself.
class GeometryTracker {
 public:
  GeometryTracker(PixelSize encodedPixelSize, RectValue fallbackGlobalFrame, SizeValue fallbackSourceContentSize);
  GeometryTracker(const GeometryTracker&) = delete;
  GeometryTracker& operator=(const GeometryTracker&) = delete;

  // The new sample, or none when the frame repeats the geometry in force (no revision is used).
  std::optional<GeometrySample> update(ProjectTime time, const GeometryFrameMetadata& metadata);
  std::optional<GeometrySample> current() const;

  // Where content of `sourceSize` lies when fitted into the encoded frame, centred; the whole
  // frame for a source without area.
  static RectValue aspectFit(SizeValue sourceSize, PixelSize encodedSize);

 private:
  mutable std::mutex lock_;
  PixelSize encodedPixelSize_;
  RectValue fallbackGlobalFrame_;
  SizeValue fallbackSourceContentSize_;
  std::optional<GeometrySample> currentValue_;
  std::uint32_t nextRevision_ = 0;
};

}  // namespace vumo
