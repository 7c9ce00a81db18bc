#include "timeline/mouse_event.h"

#include <string>

#include "shared/json.h"

namespace vumo {

namespace {

constexpr std::string_view buttonNames[] = {"left", "right", "other", "none"};
constexpr std::string_view phaseNames[] = {"moved", "dragged", "down", "up"};

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

std::string_view toString(MouseButton button) { return buttonNames[static_cast<int>(button)]; }
std::string_view toString(MousePhase phase) { return phaseNames[static_cast<int>(phase)]; }

MouseButton mouseButtonFromString(std::string_view text) {
  for (int i = 0; i < 4; ++i)
    if (buttonNames[i] == text) return static_cast<MouseButton>(i);
  throw DecodingError("Unsupported mouse button: " + std::string(text));
}

MousePhase mousePhaseFromString(std::string_view text) {
  for (int i = 0; i < 4; ++i)
    if (phaseNames[i] == text) return static_cast<MousePhase>(i);
  throw DecodingError("Unsupported mouse phase: " + std::string(text));
}

void to_json(Json& j, MouseButton button) { j = std::string(toString(button)); }
void from_json(const Json& j, MouseButton& button) { button = mouseButtonFromString(json::asString(j, "button")); }
void to_json(Json& j, MousePhase phase) { j = std::string(toString(phase)); }
void from_json(const Json& j, MousePhase& phase) { phase = mousePhaseFromString(json::asString(j, "phase")); }

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
