#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "shared/json_fwd.h"

namespace vumo {

// Wall-clock instants of documents. They are written in ISO 8601 at whole seconds in UTC
// ("2026-11-21T23:22:49Z"), so a document read and written again keeps its bytes.
struct Timestamp {
  std::chrono::sys_seconds value{};

  static Timestamp now();
  std::string iso8601() const;
  // Accepts "Z" or a "+hh:mm"/"-hh:mm" offset and an optional fraction, which is dropped.
  static std::optional<Timestamp> parseISO8601(std::string_view text);

  friend auto operator<=>(const Timestamp&, const Timestamp&) = default;
};

void to_json(Json& j, const Timestamp& t);
void from_json(const Json& j, Timestamp& t);

}  // namespace vumo
