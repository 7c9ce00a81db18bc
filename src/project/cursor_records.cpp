#include "project/cursor_records.h"

#include "shared/json.h"

namespace vumo {

void to_json(Json& j, const CursorShapeSample& v) { j = Json{{"time", v.time}, {"assetID", v.assetID}}; }

void from_json(const Json& j, CursorShapeSample& v) {
  json::requireObject(j, "CursorShapeSample");
  v.time = json::required<ProjectTime>(j, "time");
  v.assetID = json::required<std::string>(j, "assetID");
}

void to_json(Json& j, const CursorAssetDescriptor& v) {
  j = Json{{"id", v.id}, {"relativePath", v.relativePath}, {"logicalSize", v.logicalSize}, {"hotSpot", v.hotSpot}};
}

void from_json(const Json& j, CursorAssetDescriptor& v) {
  json::requireObject(j, "CursorAssetDescriptor");
  v.id = json::required<std::string>(j, "id");
  v.relativePath = json::required<std::string>(j, "relativePath");
  v.logicalSize = json::required<SizeValue>(j, "logicalSize");
  v.hotSpot = json::required<PointValue>(j, "hotSpot");
}

}  // namespace vumo
