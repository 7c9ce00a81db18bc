#include "shared/date.h"

#include <fmt/format.h>

#include <cctype>
#include <cstdio>

namespace vumo {

Timestamp Timestamp::now() {
  return {std::chrono::time_point_cast<std::chrono::seconds>(std::chrono::system_clock::now())};
}

std::string Timestamp::iso8601() const {
  using namespace std::chrono;
  auto days = floor<std::chrono::days>(value);
  year_month_day ymd{days};
  hh_mm_ss<seconds> time{value - days};
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", static_cast<int>(ymd.year()),
                     static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()), time.hours().count(),
                     time.minutes().count(), time.seconds().count());
}

std::optional<Timestamp> Timestamp::parseISO8601(std::string_view text) {
  using namespace std::chrono;
  auto digits = [&](std::size_t at, std::size_t count, int& out) {
    if (at + count > text.size()) return false;
    out = 0;
    for (std::size_t i = at; i < at + count; ++i) {
      if (!std::isdigit(static_cast<unsigned char>(text[i]))) return false;
      out = out * 10 + (text[i] - '0');
    }
    return true;
  };
  int y, mo, d, h, mi, s;
  if (text.size() < 20 || !digits(0, 4, y) || text[4] != '-' || !digits(5, 2, mo) || text[7] != '-' ||
      !digits(8, 2, d) || text[10] != 'T' || !digits(11, 2, h) || text[13] != ':' || !digits(14, 2, mi) ||
      text[16] != ':' || !digits(17, 2, s))
    return std::nullopt;
  std::size_t at = 19;
  if (at < text.size() && text[at] == '.') {
    ++at;
    std::size_t begin = at;
    while (at < text.size() && std::isdigit(static_cast<unsigned char>(text[at]))) ++at;
    if (at == begin) return std::nullopt;
  }
  int offsetSeconds = 0;
  if (at < text.size() && text[at] == 'Z') {
    ++at;
  } else if (at < text.size() && (text[at] == '+' || text[at] == '-')) {
    int oh, om;
    if (!digits(at + 1, 2, oh) || at + 3 >= text.size() || text[at + 3] != ':' || !digits(at + 4, 2, om))
      return std::nullopt;
    offsetSeconds = (oh * 3600 + om * 60) * (text[at] == '-' ? -1 : 1);
    at += 6;
  } else {
    return std::nullopt;
  }
  if (at != text.size()) return std::nullopt;
  year_month_day ymd{year{y}, month{static_cast<unsigned>(mo)}, day{static_cast<unsigned>(d)}};
  if (!ymd.ok() || h > 23 || mi > 59 || s > 60) return std::nullopt;
  sys_seconds t = sys_days{ymd} + hours{h} + minutes{mi} + seconds{s} - seconds{offsetSeconds};
  return Timestamp{t};
}

}  // namespace vumo
