#include "shared/json.h"

#include <fmt/format.h>

namespace vumo {

std::string encodeDocument(const Json& value) { return value.dump(2, ' ', false, Json::error_handler_t::strict); }

std::string encodeForDisplay(const Json& value) { return value.dump(2, ' ', false, Json::error_handler_t::replace); }

std::string encodeCompact(const Json& value) { return value.dump(-1, ' ', false, Json::error_handler_t::strict); }

std::string escapeSlashes(std::string_view encoded) {
  std::string out;
  out.reserve(encoded.size() + 8);
  for (char c : encoded) {
    if (c == '/') out += '\\';
    out += c;
  }
  return out;
}

namespace {

// The parser's message ends with the text it last read ("...; last read: '<text>'; expected
// ..."). That text is the document's own content, which may be private or not even UTF-8, and
// the message travels into error envelopes and logs: only the position and the reason stay.
std::string withoutReadText(std::string message) {
  constexpr std::string_view marker = "; last read: '";
  constexpr std::string_view expected = "'; expected ";
  std::size_t start = message.find(marker);
  if (start == std::string::npos) return message;
  std::size_t tail = message.rfind(expected);
  if (tail == std::string::npos || tail < start + marker.size()) return message.substr(0, start);
  return message.substr(0, start) + message.substr(tail + 1);
}

}  // namespace

Json parseJson(std::string_view text) {
  // A raw NUL can stand nowhere in JSON text, and the parser would take it for the end of input
  // and ignore whatever follows.
  if (text.find('\0') != std::string_view::npos)
    throw DecodingError("The data isn't valid JSON: it contains a NUL byte");
  try {
    return Json::parse(text.begin(), text.end());
  } catch (const nlohmann::json::exception& e) {
    throw DecodingError(fmt::format("The data isn't valid JSON: {}", withoutReadText(e.what())));
  }
}

namespace json {

namespace {
std::string describe(std::string_view context) {
  return context.empty() ? std::string("value") : "key " + std::string(context);
}
}  // namespace

std::int64_t asInt64(const Json& value, std::string_view context) {
  if (value.is_number_unsigned()) {
    auto u = value.get<std::uint64_t>();
    if (u > static_cast<std::uint64_t>(INT64_MAX)) throw DecodingError("Integer out of range for " + describe(context));
    return static_cast<std::int64_t>(u);
  }
  if (value.is_number_integer()) return value.get<std::int64_t>();
  if (value.is_number_float()) {
    // A whole number written with a fraction part ("3.0") still reads as an integer.
    // The range is checked before the conversion: converting an out-of-range double is undefined.
    double d = value.get<double>();
    if (d >= -9.2e18 && d <= 9.2e18 && d == static_cast<double>(static_cast<std::int64_t>(d)))
      return static_cast<std::int64_t>(d);
  }
  throw DecodingError("Expected an integer for " + describe(context));
}

double asDouble(const Json& value, std::string_view context) {
  if (!value.is_number()) throw DecodingError("Expected a number for " + describe(context));
  return value.get<double>();
}

bool asBool(const Json& value, std::string_view context) {
  if (!value.is_boolean()) throw DecodingError("Expected a boolean for " + describe(context));
  return value.get<bool>();
}

std::string asString(const Json& value, std::string_view context) {
  if (!value.is_string()) throw DecodingError("Expected a string for " + describe(context));
  return value.get<std::string>();
}

const Json* findKey(const Json& object, std::string_view key) {
  if (!object.is_object()) return nullptr;
  auto it = object.find(key);
  return it == object.end() ? nullptr : &*it;
}

const Json& requireKey(const Json& object, std::string_view key) {
  requireObject(object, key);
  const Json* found = findKey(object, key);
  if (found == nullptr || found->is_null()) throw DecodingError("Missing key " + std::string(key));
  return *found;
}

void requireObject(const Json& value, std::string_view context) {
  if (!value.is_object()) throw DecodingError("Expected an object around " + describe(context));
}

void requireArray(const Json& value, std::string_view context) {
  if (!value.is_array()) throw DecodingError("Expected an array for " + describe(context));
}

}  // namespace json
}  // namespace vumo
