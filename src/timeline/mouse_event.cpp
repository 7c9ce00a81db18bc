#include "timeline/mouse_event.h"

#include <string>

#include "shared/json.h"

namespace vumo {

namespace {

std::uint64_t readUnsigned(const Json& object, std::string_view key, std::uint64_t maximum) {
  const Json& value = json::requireKey(object, key);
  if (value.is_number_unsigned()) {
    auto v = value.get<std::uint64_t>();
    if (v <= maximum) return v;
  } else if (value.is_number_integer()) {
    auto v = value.get<std::int64_t>();
    if (v >= 0 && static_cast<std::uint64_t>(v) <= maximum) return static_cast<std::uint64_t>(v);
  }
  throw DecodingError("Expected an unsigned integer in range for key " + std::string(key));
}

}  // namespace

void to_json(Json& j, const MouseEvent& event) {
  j = Json{{"rawTimestampNanoseconds", event.rawTimestampNanoseconds},
           {"time", event.time},
           {"globalPoint", event.globalPoint},
           {"localPoint", event.localPoint},
           {"normalizedPoint", event.normalizedPoint},
           {"geometryRevision", event.geometryRevision},
           {"button", event.button},
           {"phase", event.phase}};
  json::setOptional(j, "isInsideSource", event.isInsideSource);
}

void from_json(const Json& j, MouseEvent& event) {
  json::requireObject(j, "MouseEvent");
  event.rawTimestampNanoseconds = readUnsigned(j, "rawTimestampNanoseconds", UINT64_MAX);
  event.time = json::required<ProjectTime>(j, "time");
  event.globalPoint = json::required<PointValue>(j, "globalPoint");
  event.localPoint = json::required<PointValue>(j, "localPoint");
  event.normalizedPoint = json::required<PointValue>(j, "normalizedPoint");
  event.geometryRevision = static_cast<std::uint32_t>(readUnsigned(j, "geometryRevision", UINT32_MAX));
  event.button = json::required<MouseButton>(j, "button");
  event.phase = json::required<MousePhase>(j, "phase");
  event.isInsideSource = json::optional<bool>(j, "isInsideSource");
}

}  // namespace vumo
