#include "shared/uuid.h"

#include <uuid/uuid.h>

#include "shared/digest.h"

namespace vumo {

Uuid Uuid::random() {
  Uuid u;
  uuid_generate_random(u.bytes.data());
  return u;
}

Uuid Uuid::stable(std::string_view seed) {
  std::string hex = sha256Hex(seed);
  Uuid id;
  auto nibble = [](char c) { return static_cast<std::uint8_t>(c <= '9' ? c - '0' : c - 'a' + 10); };
  for (std::size_t i = 0; i < id.bytes.size(); ++i)
    id.bytes[i] = static_cast<std::uint8_t>(nibble(hex[2 * i]) << 4 | nibble(hex[2 * i + 1]));
  id.bytes[6] = static_cast<std::uint8_t>((id.bytes[6] & 0x0F) | 0x50);
  id.bytes[8] = static_cast<std::uint8_t>((id.bytes[8] & 0x3F) | 0x80);
  return id;
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

}  // namespace vumo
