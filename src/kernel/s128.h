// Signed 128-bit integers held as two 64-bit words (no native 128-bit type is assumed), their
// decimal text in both directions and the conversions to and from 64-bit integers.
#pragma once

#include <cstddef>
#include <cstdint>

// Two's complement; the sign is the top bit of `hi`. Range -2^127 .. 2^127 - 1 (39 digits).
struct s128 {
  uint64_t lo;
  int64_t hi;
};

// Powers used by both text directions: entry 4k + b is 2^b * 10^k (k = 0..37, b = 0..3); entry
// 152 is 10^38.
inline constexpr int S128_POWER_COUNT = 153;
const s128& s128_power(int index);  // REQUIRES: 0 <= index < S128_POWER_COUNT

// Reads an optional '-', then decimal digits up to the first non-digit (the rest is ignored).
// Returns 0 with the value in *result, or 1 on overflow with *result = 0. An empty digit run
// reads as 0.
int s128_from_string_ptr(const char* text, s128* result);
// Writes the decimal text into buffer (cut when size is short, terminated when room is left) and
// returns the length of the full text, sign included, whether or not it fitted.
int s128_to_string_ptr(char* buffer, size_t size, const s128* value);
// The low word as a signed 64-bit integer; high bits are dropped without a check.
int64_t s128_toint_ptr(const s128* value);
// *result = n sign-extended.
void s128_fromint_ptr(s128* result, int64_t n);

// Arithmetic with wrap-around, as two's complement words behave.
constexpr s128 s128_add(s128 a, s128 b) {
  uint64_t lo = a.lo + b.lo;
  uint64_t hi = static_cast<uint64_t>(a.hi) + static_cast<uint64_t>(b.hi) + (lo < a.lo ? 1 : 0);
  return {lo, static_cast<int64_t>(hi)};
}
constexpr s128 s128_neg(s128 a) {
  uint64_t lo = ~a.lo + 1;
  uint64_t hi = ~static_cast<uint64_t>(a.hi) + (lo == 0 ? 1 : 0);
  return {lo, static_cast<int64_t>(hi)};
}
constexpr s128 s128_sub(s128 a, s128 b) { return s128_add(a, s128_neg(b)); }
constexpr bool s128_is_negative(s128 a) { return a.hi < 0; }
constexpr bool s128_equal(s128 a, s128 b) { return a.lo == b.lo && a.hi == b.hi; }
// -1, 0 or 1 as signed values compare.
constexpr int s128_compare(s128 a, s128 b) {
  if (a.hi != b.hi) return a.hi < b.hi ? -1 : 1;
  if (a.lo != b.lo) return a.lo < b.lo ? -1 : 1;
  return 0;
}

// a * 10 + digit; returns false (leaving *a unspecified) when the result leaves the signed range.
// REQUIRES: *a >= 0 and 0 <= digit <= 9.
bool s128_mul10_add(s128* a, unsigned digit);
