#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace vumo {

// Arithmetic on times and sizes never wraps: leaving the signed 64-bit range is a programming
// fault (callers validate their inputs first), so the process stops rather than compute nonsense.
[[noreturn]] inline void arithmeticFault(const char* operation) {
  std::fprintf(stderr, "vumo: fatal: 64-bit %s overflow\n", operation);
  std::abort();
}

inline std::int64_t checkedAdd(std::int64_t a, std::int64_t b) {
  std::int64_t r;
  if (__builtin_add_overflow(a, b, &r)) arithmeticFault("addition");
  return r;
}

inline std::int64_t checkedSub(std::int64_t a, std::int64_t b) {
  std::int64_t r;
  if (__builtin_sub_overflow(a, b, &r)) arithmeticFault("subtraction");
  return r;
}

inline std::int64_t checkedMul(std::int64_t a, std::int64_t b) {
  std::int64_t r;
  if (__builtin_mul_overflow(a, b, &r)) arithmeticFault("multiplication");
  return r;
}

// Non-aborting variants for code that reports overflow as a typed error instead.
inline bool tryAdd(std::int64_t a, std::int64_t b, std::int64_t& r) { return !__builtin_add_overflow(a, b, &r); }
inline bool trySub(std::int64_t a, std::int64_t b, std::int64_t& r) { return !__builtin_sub_overflow(a, b, &r); }
inline bool tryMul(std::int64_t a, std::int64_t b, std::int64_t& r) { return !__builtin_mul_overflow(a, b, &r); }

// Conversion from floating point that stops the process on a non-finite or out-of-range value.
std::int64_t checkedInt64(double value);

}  // namespace vumo
