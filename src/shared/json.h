#pragma once

// The one JSON configuration of the program. nlohmann::json keeps object keys in a std::map, so
// every document comes out with sorted keys; documents are pretty printed with two spaces and
// slashes left as they are. Optionals are written by leaving the key out.

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "shared/error.h"
#include "shared/json_fwd.h"
#include "shared/name_table.h"

namespace vumo {

// Pretty printed document text, without a trailing line feed.
std::string encodeDocument(const Json& value);
// Pretty printed like encodeDocument, but a string that is not UTF-8 (a file name taken from the
// disk) has each bad byte replaced by U+FFFD instead of failing. Only for answers shown to a
// caller, never for documents that are read back.
std::string encodeForDisplay(const Json& value);
// Single-line text, used only for chunk files.
std::string encodeCompact(const Json& value);
// Escapes every '/' as "\/". Slashes only ever occur inside JSON strings, so this is safe on
// encoded text; the error envelope of the command line is written this way.
std::string escapeSlashes(std::string_view encoded);

// Parses text; malformed JSON is a DecodingError whose message gives the position and the reason
// but never quotes the text.
Json parseJson(std::string_view text);

namespace json {

// Reads a whole JSON value as T, turning the library's type errors into DecodingError.
template <class T>
T as(const Json& value, std::string_view context);

// Strict readers: a float is never silently truncated into an integer.
std::int64_t asInt64(const Json& value, std::string_view context);
double asDouble(const Json& value, std::string_view context);
bool asBool(const Json& value, std::string_view context);
std::string asString(const Json& value, std::string_view context);

const Json& requireKey(const Json& object, std::string_view key);
const Json* findKey(const Json& object, std::string_view key);
void requireObject(const Json& value, std::string_view context);
void requireArray(const Json& value, std::string_view context);

template <class T>
T required(const Json& object, std::string_view key) {
  return as<T>(requireKey(object, key), key);
}

template <class T>
std::optional<T> optional(const Json& object, std::string_view key) {
  const Json* found = findKey(object, key);
  if (found == nullptr || found->is_null()) return std::nullopt;
  return as<T>(*found, key);
}

template <class T>
T valueOr(const Json& object, std::string_view key, T fallback) {
  auto found = optional<T>(object, key);
  return found ? std::move(*found) : std::move(fallback);
}

template <class T>
void setOptional(Json& object, const char* key, const std::optional<T>& value) {
  if (value) object[key] = *value;
}

template <class T>
T as(const Json& value, std::string_view context) {
  if constexpr (std::is_same_v<T, std::int64_t>) {
    return asInt64(value, context);
  } else if constexpr (std::is_same_v<T, int>) {
    std::int64_t v = asInt64(value, context);
    if (v < INT32_MIN || v > INT32_MAX) throw DecodingError("Value out of range for key " + std::string(context));
    return static_cast<int>(v);
  } else if constexpr (std::is_same_v<T, double>) {
    return asDouble(value, context);
  } else if constexpr (std::is_same_v<T, bool>) {
    return asBool(value, context);
  } else if constexpr (std::is_same_v<T, std::string>) {
    return asString(value, context);
  } else if constexpr (NamedEnum<T>) {
    return decodeName<T>(asString(value, context));
  } else {
    try {
      return value.get<T>();
    } catch (const nlohmann::json::exception& e) {
      throw DecodingError("Invalid value for key " + std::string(context) + ": " + e.what());
    }
  }
}

}  // namespace json
}  // namespace vumo
