#pragma once

// Enumerations stored as strings. Each one specialises EnumNames next to its declaration: one
// table of its cases and their words, and the name a reader knows the type by. Every conversion
// reads that table — words in both directions and JSON through nlohmann's serializer — so a case
// and its word cannot drift apart, no codec converts an enumeration by hand, and a word that names
// no case always fails with the same message.
//
//   template <> struct EnumNames<Colour> {
//     static constexpr std::string_view typeName = "colour";
//     static constexpr NameTable<Colour, 2> table{{{Colour::red, "red"}, {Colour::blue, "blue"}}};
//   };
//
// A case may have several words (an older spelling that documents still hold); the first one is
// the one written.

#include <array>
#include <concepts>
#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace vumo {

template <class E, std::size_t N>
using NameTable = std::array<std::pair<E, std::string_view>, N>;

template <class E>
struct EnumNames;

template <class E>
concept NamedEnum = std::is_enum_v<E> && requires {
  { EnumNames<E>::typeName } -> std::convertible_to<std::string_view>;
  { EnumNames<E>::table.front().first } -> std::convertible_to<E>;
};

// The word written for `value`.
template <NamedEnum E>
constexpr std::string_view nameOf(E value) {
  for (const auto& [candidate, name] : EnumNames<E>::table)
    if (candidate == value) return name;
  return EnumNames<E>::table.front().second;
}

// The case `word` names; none for a word of no case.
template <NamedEnum E>
constexpr std::optional<E> parseName(std::string_view word) {
  for (const auto& [candidate, name] : EnumNames<E>::table)
    if (name == word) return candidate;
  return std::nullopt;
}

// DecodingError "Unsupported <type name>: <word>".
[[noreturn]] void throwUnknownName(std::string_view typeName, std::string_view word);
// DecodingError for a JSON value that is not a string where a word was expected.
[[noreturn]] void throwNameNotAString(std::string_view typeName);

// The case `word` names, or the one error of a word that names none.
template <NamedEnum E>
E decodeName(std::string_view word) {
  if (auto parsed = parseName<E>(word)) return *parsed;
  throwUnknownName(EnumNames<E>::typeName, word);
}

// Every word of `table`, in order, joined by ", ": what a message lists as the accepted choices.
template <class E, std::size_t N>
std::string joinedNames(const NameTable<E, N>& table) {
  std::string words;
  for (const auto& [value, word] : table) {
    if (!words.empty()) words += ", ";
    words += word;
  }
  return words;
}

}  // namespace vumo

// A named enumeration is its word in JSON. Bound to the JSON type only where it is used, so this
// header needs no more of nlohmann than its forward declarations.
namespace nlohmann {

template <class E>
requires vumo::NamedEnum<E>
struct adl_serializer<E, void> {
  template <class BasicJson>
  static void to_json(BasicJson& j, E value) {
    j = typename BasicJson::string_t(vumo::nameOf(value));
  }

  template <class BasicJson>
  static void from_json(const BasicJson& j, E& value) {
    if (!j.is_string()) vumo::throwNameNotAString(vumo::EnumNames<E>::typeName);
    value = vumo::decodeName<E>(j.template get_ref<const typename BasicJson::string_t&>());
  }
};

}  // namespace nlohmann
