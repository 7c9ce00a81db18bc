#include "timeline/timeline_frame_grid.h"

#include <algorithm>
#include <cmath>

#include "shared/checked_math.h"

namespace vumo {

namespace {

constexpr std::int64_t nanosecondsPerSecond = 1'000'000'000;
constexpr std::int64_t fps = TimelineFrameGrid::framesPerSecond;

// floor(frame * 1e9 / 60) truncating toward zero, computed without forming frame * 1e9, so that
// every frame whose boundary fits in 64 bits is reachable.
std::int64_t boundaryNanoseconds(std::int64_t frame) {
  std::int64_t whole = frame / fps;
  std::int64_t rest = frame % fps;
  return checkedAdd(checkedMul(whole, nanosecondsPerSecond), rest * nanosecondsPerSecond / fps);
}

// floor(t * 60 / 1e9) for t >= 0, again without the wide product.
std::int64_t frameAtOrBefore(std::int64_t nanoseconds) {
  return nanoseconds / nanosecondsPerSecond * fps + nanoseconds % nanosecondsPerSecond * fps / nanosecondsPerSecond;
}

}  // namespace

ProjectTime TimelineFrameGrid::boundary(std::int64_t frame) { return {boundaryNanoseconds(frame)}; }

ProjectTime TimelineFrameGrid::nearestBoundary(ProjectTime time) {
  // The frame number is found in floating point (std::round rounds half away from zero); the
  // boundary itself is integer arithmetic, so a grid time maps to itself exactly.
  double frame = std::round(static_cast<double>(time.nanoseconds) * 60.0 / 1e9);
  return {boundaryNanoseconds(checkedInt64(frame))};
}

ProjectTime TimelineFrameGrid::ceilingBoundary(ProjectTime time) {
  std::int64_t k = frameAtOrBefore(std::max<std::int64_t>(time.nanoseconds, 0));
  std::int64_t candidate = boundaryNanoseconds(k);
  if (candidate >= time.nanoseconds) return {candidate};
  return {boundaryNanoseconds(checkedAdd(k, 1))};
}

ProjectTime TimelineFrameGrid::floorBoundary(ProjectTime time) {
  return {boundaryNanoseconds(frameAtOrBefore(std::max<std::int64_t>(time.nanoseconds, 0)))};
}

}  // namespace vumo
