#pragma once

#include <mutex>
#include <optional>

#include "shared/geometry.h"

namespace vumo {

// Where the recording's own control panel lies, in the top-left global coordinates of pointer
// events, so that clicks on it never reach the film. One per process: the panel writes it, the
// pointer thread reads it.
class RecordingControlRegionStore {
 public:
  static RecordingControlRegionStore& shared();

  RecordingControlRegionStore() = default;
  RecordingControlRegionStore(const RecordingControlRegionStore&) = delete;
  RecordingControlRegionStore& operator=(const RecordingControlRegionStore&) = delete;

  // X11 reports panel frames with a top-left origin already: they are stored as they are. None
  // clears the region.
  void replace(std::optional<RectValue> region);
  // For a window system with a bottom-left origin: the panel's frame and its screen's frame in
  // those coordinates, and the same screen's frame in event coordinates.
  void replace(RectValue bottomLeftFrame, RectValue bottomLeftScreenFrame, RectValue topLeftDisplayFrame);
  std::optional<RectValue> region() const;
  // Edges as the window system has it: the minimum edges belong to the rectangle, the maximum
  // edges do not.
  bool contains(PointValue point) const;

 private:
  mutable std::mutex lock_;
  std::optional<RectValue> region_;
};

bool rectangleContains(const RectValue& rect, PointValue point);

}  // namespace vumo
