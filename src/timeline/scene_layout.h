#pragma once

#include "shared/geometry.h"
#include "timeline/edit_timeline.h"

namespace vumo {

// Where the recording sits on the output canvas.
struct SceneLayout {
  // The screen rectangle: the source scaled to fit inside the output less `padding` (a share of
  // each output side, applied on both sides) and centred. The zero rectangle if any dimension is
  // not positive.
  static RectValue screenRect(SizeValue sourceSize, SizeValue outputSize, double padding);
};

// The recording's rectangle inside a device screen: `fit` shows all of it, `fill` covers the
// screen and is clipped by the screen's rounded shape. `screenRect` itself when the source has a
// non-positive side.
RectValue contentRect(DeviceFrameContentMode mode, SizeValue sourceSize, const RectValue& screenRect);

}  // namespace vumo
