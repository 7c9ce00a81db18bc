#include "recording/recording_clock.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "shared/checked_math.h"
#include "shared/json.h"

namespace vumo {

namespace {

// Host values enter signed arithmetic clamped to the largest signed value.
std::int64_t clamped(std::uint64_t host) {
  constexpr auto largest = std::uint64_t(std::numeric_limits<std::int64_t>::max());
  return std::int64_t(std::min(host, largest));
}

// The difference of two video times as a time difference would have it: a time that is not a
// number makes the difference not a number, which counts as 0.
std::int64_t difference(VideoTimestamp later, VideoTimestamp earlier) {
  if (!later || !earlier) return 0;
  return checkedSub(*later, *earlier);
}

}  // namespace

void to_json(Json& j, const ClockAnchor& anchor) {
  j = Json{{"projectTime", anchor.projectTime},
           {"videoPTSNanoseconds", anchor.videoPTSNanoseconds},
           {"hostTimeNanoseconds", anchor.hostTimeNanoseconds},
           {"offsetNanoseconds", anchor.offsetNanoseconds}};
}

void from_json(const Json& j, ClockAnchor& anchor) {
  json::requireObject(j, "ClockAnchor");
  anchor.projectTime = json::required<ProjectTime>(j, "projectTime");
  anchor.videoPTSNanoseconds = json::required<std::int64_t>(j, "videoPTSNanoseconds");
  anchor.hostTimeNanoseconds = json::required<std::uint64_t>(j, "hostTimeNanoseconds");
  anchor.offsetNanoseconds = json::required<std::int64_t>(j, "offsetNanoseconds");
}

void RecordingClock::start(VideoTimestamp videoPTS, std::uint64_t displayTimeHostUnits) {
  std::lock_guard guard(lock_);
  if (started_) return;
  std::uint64_t h = hostUnitsToNanoseconds(displayTimeHostUnits);
  started_ = true;
  videoStartPTS_ = videoPTS;
  hostAnchorNanoseconds_ = h;
  projectAnchorTime_ = ProjectTime::zero();
  acceptsHostTime_ = true;
  lastObservedVideoNanoseconds_ = nanoseconds(videoPTS);
  lastObservedHostNanoseconds_ = h;
  anchors_ = {makeAnchorUnlocked(videoPTS, h)};
}

void RecordingClock::pause() {
  std::lock_guard guard(lock_);
  acceptsHostTime_ = false;
  lastObservedVideoNanoseconds_.reset();
  lastObservedHostNanoseconds_.reset();
}

void RecordingClock::resume(VideoTimestamp videoPTS, std::uint64_t displayTimeHostUnits) {
  std::lock_guard guard(lock_);
  if (!started_) return;
  std::int64_t elapsed = elapsedUnlocked(videoPTS);
  std::uint64_t h = hostUnitsToNanoseconds(displayTimeHostUnits);
  projectAnchorTime_ = ProjectTime{elapsed};
  hostAnchorNanoseconds_ = h;
  acceptsHostTime_ = true;
  lastObservedVideoNanoseconds_ = nanoseconds(videoPTS);
  lastObservedHostNanoseconds_ = h;
  anchors_.push_back(makeAnchorUnlocked(videoPTS, h));
}

bool RecordingClock::isStarted() const {
  std::lock_guard guard(lock_);
  return started_;
}

std::int64_t RecordingClock::elapsedUnlocked(VideoTimestamp videoPTS) const {
  return difference(videoPTS, videoStartPTS_);
}

ClockAnchor RecordingClock::makeAnchorUnlocked(VideoTimestamp videoPTS, std::uint64_t hostNanoseconds) const {
  std::int64_t videoProject = started_ ? elapsedUnlocked(videoPTS) : 0;
  std::int64_t hostDelta =
      hostAnchorNanoseconds_ ? checkedSub(clamped(hostNanoseconds), clamped(*hostAnchorNanoseconds_)) : 0;
  std::int64_t hostProject = checkedAdd(projectAnchorTime_.nanoseconds, hostDelta);
  return ClockAnchor{ProjectTime{videoProject}, nanoseconds(videoPTS), hostNanoseconds,
                     checkedSub(videoProject, hostProject)};
}

std::optional<ProjectTime> RecordingClock::projectTimeForVideoPTS(VideoTimestamp videoPTS) const {
  std::lock_guard guard(lock_);
  if (!started_) return std::nullopt;
  return ProjectTime{elapsedUnlocked(videoPTS)};
}

std::optional<ProjectTime> RecordingClock::projectTimeForHostTimeNanoseconds(std::uint64_t hostNanoseconds) const {
  std::lock_guard guard(lock_);
  if (!acceptsHostTime_ || !hostAnchorNanoseconds_) return std::nullopt;
  return ProjectTime{checkedAdd(projectAnchorTime_.nanoseconds,
                                checkedSub(clamped(hostNanoseconds), clamped(*hostAnchorNanoseconds_)))};
}

VideoTimestamp RecordingClock::videoPTS(ProjectTime time) const {
  std::lock_guard guard(lock_);
  if (!started_ || !videoStartPTS_) return std::nullopt;
  return checkedAdd(*videoStartPTS_, time.nanoseconds);
}

bool RecordingClock::observe(VideoTimestamp videoPTS, std::uint64_t displayTimeHostUnits) {
  std::lock_guard guard(lock_);
  std::int64_t v = nanoseconds(videoPTS);
  std::uint64_t h = hostUnitsToNanoseconds(displayTimeHostUnits);
  bool discontinuity = false;
  if (lastObservedVideoNanoseconds_ && lastObservedHostNanoseconds_) {
    std::int64_t dv = checkedSub(v, *lastObservedVideoNanoseconds_);
    std::int64_t dh = checkedSub(clamped(h), clamped(*lastObservedHostNanoseconds_));
    if (dv <= 0 || dh <= 0) {
      discontinuity = true;
    } else {
      std::int64_t disagreement = checkedSub(dv, dh);
      discontinuity = (disagreement < 0 ? -disagreement : disagreement) > discontinuityThresholdNanoseconds;
    }
  }
  lastObservedVideoNanoseconds_ = v;
  lastObservedHostNanoseconds_ = h;
  return discontinuity;
}

std::optional<ClockAnchor> RecordingClock::recordDiagnosticAnchor(VideoTimestamp videoPTS,
                                                                  std::uint64_t displayTimeHostUnits) {
  std::lock_guard guard(lock_);
  if (!started_) return std::nullopt;
  std::int64_t t = elapsedUnlocked(videoPTS);
  if (checkedSub(t, lastDiagnosticTime_.nanoseconds) < diagnosticAnchorIntervalNanoseconds) return std::nullopt;
  ClockAnchor anchor = makeAnchorUnlocked(videoPTS, hostUnitsToNanoseconds(displayTimeHostUnits));
  anchors_.push_back(anchor);
  lastDiagnosticTime_ = ProjectTime{t};
  return anchor;
}

std::vector<ClockAnchor> RecordingClock::anchors() const {
  std::lock_guard guard(lock_);
  return anchors_;
}

// ---- GeometryTracker ---------------------------------------------------------------------------

namespace {

// Positive and finite: the null and the infinite rectangle of the window system are neither.
bool isUsable(const RectValue& r) {
  return std::isfinite(r.x) && std::isfinite(r.y) && std::isfinite(r.width) && std::isfinite(r.height) && r.width > 0 &&
         r.height > 0;
}

}  // namespace

GeometryTracker::GeometryTracker(PixelSize encodedPixelSize, RectValue fallbackGlobalFrame,
                                 SizeValue fallbackSourceContentSize)
    : encodedPixelSize_(encodedPixelSize),
      fallbackGlobalFrame_(fallbackGlobalFrame),
      fallbackSourceContentSize_(fallbackSourceContentSize) {}

std::optional<GeometrySample> GeometryTracker::update(ProjectTime time, const GeometryFrameMetadata& metadata) {
  std::lock_guard guard(lock_);
  RectValue frame = isUsable(metadata.globalFrame) ? metadata.globalFrame : fallbackGlobalFrame_;
  double pixelScale = std::max(metadata.scaleFactor, 1.0);
  SizeValue content = isUsable(metadata.contentRect)
                          ? SizeValue{metadata.contentRect.width * pixelScale, metadata.contentRect.height * pixelScale}
                          : fallbackSourceContentSize_;
  RectValue contentRect = aspectFit(content, encodedPixelSize_);
  // The reported scale, not the clamped one, decides: a change of scale is a change of geometry.
  if (currentValue_ && currentValue_->globalWindowFrame == frame && currentValue_->sourceContentSize == content &&
      currentValue_->contentRectInEncodedFrame == contentRect && currentValue_->scaleFactor == metadata.scaleFactor)
    return std::nullopt;
  nextRevision_ += 1;
  currentValue_ =
      GeometrySample{time, nextRevision_, frame, content, encodedPixelSize_, contentRect, metadata.scaleFactor};
  return currentValue_;
}

std::optional<GeometrySample> GeometryTracker::current() const {
  std::lock_guard guard(lock_);
  return currentValue_;
}

RectValue GeometryTracker::aspectFit(SizeValue sourceSize, PixelSize encodedSize) {
  double encodedWidth = double(encodedSize.width);
  double encodedHeight = double(encodedSize.height);
  if (!(sourceSize.width > 0) || !(sourceSize.height > 0)) return {0, 0, encodedWidth, encodedHeight};
  double scale = std::min(encodedWidth / sourceSize.width, encodedHeight / sourceSize.height);
  double width = sourceSize.width * scale;
  double height = sourceSize.height * scale;
  return {(encodedWidth - width) * 0.5, (encodedHeight - height) * 0.5, width, height};
}

}  // namespace vumo
