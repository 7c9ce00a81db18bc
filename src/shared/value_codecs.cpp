// JSON conversions of the shared value types. They live apart from the types so that code using
// the values does not compile the JSON library.

#include <cstdint>
#include <string>

#include "shared/date.h"
#include "shared/error.h"
#include "shared/geometry.h"
#include "shared/json.h"
#include "shared/project_time.h"
#include "shared/uuid.h"

namespace vumo {

void to_json(Json& j, const ProjectTime& t) { j = Json{{"nanoseconds", t.nanoseconds}}; }

void from_json(const Json& j, ProjectTime& t) { t.nanoseconds = json::required<std::int64_t>(j, "nanoseconds"); }

void to_json(Json& j, const ProjectTimeRange& r) { j = Json{{"start", r.start}, {"duration", r.duration}}; }

void from_json(const Json& j, ProjectTimeRange& r) {
  r.start = json::required<ProjectTime>(j, "start");
  r.duration = json::required<ProjectTime>(j, "duration");
}

void to_json(Json& j, const PointValue& v) { j = Json{{"x", v.x}, {"y", v.y}}; }
void from_json(const Json& j, PointValue& v) {
  v.x = json::required<double>(j, "x");
  v.y = json::required<double>(j, "y");
}
void to_json(Json& j, const SizeValue& v) { j = Json{{"width", v.width}, {"height", v.height}}; }
void from_json(const Json& j, SizeValue& v) {
  v.width = json::required<double>(j, "width");
  v.height = json::required<double>(j, "height");
}
void to_json(Json& j, const RectValue& v) {
  j = Json{{"x", v.x}, {"y", v.y}, {"width", v.width}, {"height", v.height}};
}
void from_json(const Json& j, RectValue& v) {
  v.x = json::required<double>(j, "x");
  v.y = json::required<double>(j, "y");
  v.width = json::required<double>(j, "width");
  v.height = json::required<double>(j, "height");
}
void to_json(Json& j, const PixelSize& v) { j = Json{{"width", v.width}, {"height", v.height}}; }
void from_json(const Json& j, PixelSize& v) {
  v.width = json::required<std::int64_t>(j, "width");
  v.height = json::required<std::int64_t>(j, "height");
}

void to_json(Json& j, const Uuid& u) { j = u.string(); }

void from_json(const Json& j, Uuid& u) {
  if (!j.is_string()) throw DecodingError("Expected a UUID string");
  auto parsed = Uuid::parse(j.get_ref<const std::string&>());
  if (!parsed) throw DecodingError("Attempted to decode UUID from invalid UUID string.");
  u = *parsed;
}

void to_json(Json& j, const Timestamp& t) { j = t.iso8601(); }

void from_json(const Json& j, Timestamp& t) {
  if (!j.is_string()) throw DecodingError("Expected date string to be ISO8601-formatted.");
  auto parsed = Timestamp::parseISO8601(j.get_ref<const std::string&>());
  if (!parsed) throw DecodingError("Expected date string to be ISO8601-formatted.");
  t = *parsed;
}

}  // namespace vumo
