#pragma once

// Enumerations are stored as strings. Each keeps one table of its cases and their words, and the
// conversions both ways read that table, so a case and its word can never drift apart.

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>
#include <utility>

namespace vumo {

template <class E, std::size_t N>
using NameTable = std::array<std::pair<E, std::string_view>, N>;

// The word of `value`; the first entry's word for a value outside the table.
template <class E, std::size_t N>
constexpr std::string_view nameOf(const NameTable<E, N>& table, E value) {
  for (const auto& [candidate, name] : table)
    if (candidate == value) return name;
  return table[0].second;
}

template <class E, std::size_t N>
constexpr std::optional<E> parseName(const NameTable<E, N>& table, std::string_view text) {
  for (const auto& [candidate, name] : table)
    if (name == text) return candidate;
  return std::nullopt;
}

}  // namespace vumo
