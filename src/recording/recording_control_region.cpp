#include "recording/recording_control_region.h"

namespace vumo {

bool rectangleContains(const RectValue& rect, PointValue point) {
  if (!(rect.width > 0) || !(rect.height > 0)) return false;
  return point.x >= rect.x && point.x < rect.x + rect.width && point.y >= rect.y && point.y < rect.y + rect.height;
}

RecordingControlRegionStore& RecordingControlRegionStore::shared() {
  static RecordingControlRegionStore store;
  return store;
}

void RecordingControlRegionStore::replace(std::optional<RectValue> region) {
  std::lock_guard guard(lock_);
  region_ = region;
}

void RecordingControlRegionStore::replace(RectValue bottomLeftFrame, RectValue bottomLeftScreenFrame,
                                          RectValue topLeftDisplayFrame) {
  double bottomOffset = bottomLeftFrame.y - bottomLeftScreenFrame.y;
  double topOffset = bottomLeftFrame.y + bottomLeftFrame.height - bottomLeftScreenFrame.y;
  double x = topLeftDisplayFrame.x + bottomLeftFrame.x - bottomLeftScreenFrame.x;
  double y = topLeftDisplayFrame.y + topLeftDisplayFrame.height - topOffset;
  replace(RectValue{x, y, bottomLeftFrame.width, topOffset - bottomOffset});
}

std::optional<RectValue> RecordingControlRegionStore::region() const {
  std::lock_guard guard(lock_);
  return region_;
}

bool RecordingControlRegionStore::contains(PointValue point) const {
  std::lock_guard guard(lock_);
  return region_ && rectangleContains(*region_, point);
}

}  // namespace vumo
