#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "shared/json_fwd.h"

namespace vumo {

// A 128-bit identifier. Its text is the canonical 8-4-4-4-12 form in upper case; parsing accepts
// either case.
struct Uuid {
  std::array<std::uint8_t, 16> bytes{};

  static Uuid random();
  // A name-based id: the first 16 bytes of SHA-256 over the seed's bytes, with the version 5 and
  // RFC 4122 variant bits set. The same seed names the same id on every run.
  static Uuid stable(std::string_view seed);
  static std::optional<Uuid> parse(std::string_view text);
  std::string string() const;

  friend auto operator<=>(const Uuid&, const Uuid&) = default;
};

void to_json(Json& j, const Uuid& u);
void from_json(const Json& j, Uuid& u);

}  // namespace vumo

template <>
struct std::hash<vumo::Uuid> {
  std::size_t operator()(const vumo::Uuid& u) const noexcept {
    std::size_t h = 0;
    for (auto b : u.bytes) h = h * 131 + b;
    return h;
  }
};
