#pragma once

#include <cstdint>

#include "shared/geometry.h"
#include "shared/json_fwd.h"
#include "shared/project_time.h"

namespace vumo {

// The capture geometry in force from `time` on; pointer events name the revision they were
// recorded under, so a later reader can place them even after the source moved or resized.
struct GeometrySample {
  ProjectTime time;
  std::uint32_t revision = 0;           // 1 for the first sample of a recording
  RectValue globalWindowFrame;          // points, global display coordinates, top-left origin
  SizeValue sourceContentSize;          // pixels
  PixelSize encodedPixelSize;           // the fixed size of the encoded video
  RectValue contentRectInEncodedFrame;  // pixels
  double scaleFactor = 1;               // pixels per point as the stream reported it

  // The point relative to the frame's origin, not clamped.
  PointValue localPoint(PointValue global) const;
  // The point as a share of the frame, each coordinate clamped to 0...1; (0, 0) for an empty frame.
  PointValue normalizedPoint(PointValue global) const;

  friend bool operator==(const GeometrySample&, const GeometrySample&) = default;
};

void to_json(Json& j, const GeometrySample& v);
void from_json(const Json& j, GeometrySample& v);

}  // namespace vumo
