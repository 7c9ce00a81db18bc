#include "project/geometry_sample.h"

#include "project/json_fields.h"
#include "shared/json.h"

namespace vumo {

PointValue GeometrySample::localPoint(PointValue global) const {
  return {global.x - globalWindowFrame.x, global.y - globalWindowFrame.y};
}

PointValue GeometrySample::normalizedPoint(PointValue global) const {
  const RectValue& f = globalWindowFrame;
  if (!(f.width > 0) || !(f.height > 0)) return {0, 0};
  return PointValue{(global.x - f.x) / f.width, (global.y - f.y) / f.height}.clamped();
}

void to_json(Json& j, const GeometrySample& v) {
  j = Json{{"time", v.time},
           {"revision", v.revision},
           {"globalWindowFrame", v.globalWindowFrame},
           {"sourceContentSize", v.sourceContentSize},
           {"encodedPixelSize", v.encodedPixelSize},
           {"contentRectInEncodedFrame", v.contentRectInEncodedFrame},
           {"scaleFactor", v.scaleFactor}};
}

void from_json(const Json& j, GeometrySample& v) {
  json::requireObject(j, "GeometrySample");
  v.time = json::required<ProjectTime>(j, "time");
  v.revision = project_json::requiredUInt32(j, "revision");
  v.globalWindowFrame = json::required<RectValue>(j, "globalWindowFrame");
  v.sourceContentSize = json::required<SizeValue>(j, "sourceContentSize");
  v.encodedPixelSize = json::required<PixelSize>(j, "encodedPixelSize");
  v.contentRectInEncodedFrame = json::required<RectValue>(j, "contentRectInEncodedFrame");
  v.scaleFactor = json::required<double>(j, "scaleFactor");
}

}  // namespace vumo
