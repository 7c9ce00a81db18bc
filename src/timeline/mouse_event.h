#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "shared/geometry.h"
#include "shared/json_fwd.h"
#include "shared/name_table.h"
#include "shared/project_time.h"

namespace vumo {

// Stored in chunk files as the case names.
enum class MouseButton { left, right, other, none };
enum class MousePhase { moved, dragged, down, up };

template <>
struct EnumNames<MouseButton> {
  static constexpr std::string_view typeName = "mouse button";
  static constexpr NameTable<MouseButton, 4> table{{
      {MouseButton::left, "left"},
      {MouseButton::right, "right"},
      {MouseButton::other, "other"},
      {MouseButton::none, "none"},
  }};
};

template <>
struct EnumNames<MousePhase> {
  static constexpr std::string_view typeName = "mouse phase";
  static constexpr NameTable<MousePhase, 4> table{{
      {MousePhase::moved, "moved"},
      {MousePhase::dragged, "dragged"},
      {MousePhase::down, "down"},
      {MousePhase::up, "up"},
  }};
};

// One pointer event as recorded: a chunked record in the package's `events/` folder.
struct MouseEvent {
  std::uint64_t rawTimestampNanoseconds = 0;  // the input system's own timestamp, kept for diagnosis
  ProjectTime time;
  PointValue globalPoint;      // global display coordinates
  PointValue localPoint;       // globalPoint less the captured frame's origin, not clamped
  PointValue normalizedPoint;  // position within the captured frame, 0...1
  std::uint32_t geometryRevision = 0;
  MouseButton button = MouseButton::none;
  MousePhase phase = MousePhase::moved;
  // Absent in records written before the field existed; those count as inside.
  std::optional<bool> isInsideSource;

  bool isVisibleInsideSource() const { return isInsideSource.value_or(true); }
  // A press of the primary button: what automatic zooms and click effects are made from.
  bool isLeftPress() const { return phase == MousePhase::down && button == MouseButton::left; }

  friend bool operator==(const MouseEvent&, const MouseEvent&) = default;
};

void to_json(Json& j, const MouseEvent& event);
void from_json(const Json& j, MouseEvent& event);

}  // namespace vumo
