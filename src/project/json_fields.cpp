#include "project/json_fields.h"

namespace vumo::project_json {

std::uint64_t asUInt64(const Json& value, std::string_view context) {
  if (value.is_number_unsigned()) return value.get<std::uint64_t>();
  if (value.is_number_integer()) {
    auto v = value.get<std::int64_t>();
    if (v >= 0) return static_cast<std::uint64_t>(v);
  }
  throw DecodingError("Expected an unsigned integer for key " + std::string(context));
}

std::uint32_t asUInt32(const Json& value, std::string_view context) {
  std::uint64_t v = asUInt64(value, context);
  if (v > UINT32_MAX) throw DecodingError("Value out of range for key " + std::string(context));
  return static_cast<std::uint32_t>(v);
}

std::uint64_t requiredUInt64(const Json& object, std::string_view key) {
  return asUInt64(json::requireKey(object, key), key);
}

std::uint32_t requiredUInt32(const Json& object, std::string_view key) {
  return asUInt32(json::requireKey(object, key), key);
}

std::optional<std::uint64_t> optionalUInt64(const Json& object, std::string_view key) {
  const Json* found = json::findKey(object, key);
  if (found == nullptr || found->is_null()) return std::nullopt;
  return asUInt64(*found, key);
}

}  // namespace vumo::project_json
