#pragma once

#include <string>

#include "shared/geometry.h"
#include "shared/json_fwd.h"
#include "shared/project_time.h"

namespace vumo {

// "From this time on, the pointer looks like this asset." A chunked record.
struct CursorShapeSample {
  ProjectTime time;
  std::string assetID;
  friend bool operator==(const CursorShapeSample&, const CursorShapeSample&) = default;
};

// One stored cursor image. The id is the SHA-256 of the image and its geometry, so the same shape
// is stored once however often the pointer takes it on. Sizes and hot spot are in points.
struct CursorAssetDescriptor {
  std::string id;
  std::string relativePath;  // "cursor/assets/<id>.png", relative to the package
  SizeValue logicalSize;
  PointValue hotSpot;
  friend bool operator==(const CursorAssetDescriptor&, const CursorAssetDescriptor&) = default;
};

void to_json(Json& j, const CursorShapeSample& v);
void from_json(const Json& j, CursorShapeSample& v);
void to_json(Json& j, const CursorAssetDescriptor& v);
void from_json(const Json& j, CursorAssetDescriptor& v);

}  // namespace vumo
