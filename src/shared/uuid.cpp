#include "shared/uuid.h"

#include <uuid/uuid.h>

namespace vumo {

Uuid Uuid::random() {
  Uuid u;
  uuid_generate_random(u.bytes.data());
  return u;
}

std::optional<Uuid> Uuid::parse(std::string_view text) {
  if (text.size() != 36) return std::nullopt;
  char buffer[37];
  for (std::size_t i = 0; i < 36; ++i) {
    char c = text[i];
    bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? c != '-' : !std::isxdigit(static_cast<unsigned char>(c))) return std::nullopt;
    buffer[i] = c;
  }
  buffer[36] = 0;
  Uuid u;
  if (uuid_parse(buffer, u.bytes.data()) != 0) return std::nullopt;
  return u;
}

std::string Uuid::string() const {
  char buffer[37];
  uuid_unparse_upper(bytes.data(), buffer);
  return buffer;
}

void to_json(Json& j, const Uuid& u) { j = u.string(); }

void from_json(const Json& j, Uuid& u) {
  if (!j.is_string()) throw DecodingError("Expected a UUID string");
  auto parsed = Uuid::parse(j.get_ref<const std::string&>());
  if (!parsed) throw DecodingError("Attempted to decode UUID from invalid UUID string.");
  u = *parsed;
}

}  // namespace vumo
