#pragma once

// Strict readers for the unsigned fields of package documents. nlohmann would happily convert a
// negative number into a huge unsigned one, which is how a corrupt manifest turns into nonsense
// counters instead of a decoding error. Written as integers; a number with a fraction part is
// refused, as the pointer event reader does.

#include <cstdint>
#include <optional>
#include <string_view>

#include "shared/json.h"

namespace vumo::project_json {

std::uint64_t asUInt64(const Json& value, std::string_view context);
std::uint32_t asUInt32(const Json& value, std::string_view context);

std::uint64_t requiredUInt64(const Json& object, std::string_view key);
std::uint32_t requiredUInt32(const Json& object, std::string_view key);
std::optional<std::uint64_t> optionalUInt64(const Json& object, std::string_view key);

}  // namespace vumo::project_json
