// Decimal digits two at a time: the table of the texts "00" to "99" and the small writers every
// value printer shares. Header-only, so that the per-value paths inline them.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

inline constexpr char kDigitPairs[] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";

// Writes v (below 100) as two digits at p.
inline void put_digit_pair(char* p, uint64_t v) { std::memcpy(p, kDigitPairs + 2 * v, 2); }

// The number of decimal digits of a; 1 for 0. A handful of comparisons, no loop.
inline int decimal_digit_count(uint64_t a) {
  int n = 0;
  if (a >= 10000000000000000ull) {
    n = 16;
    a /= 10000000000000000ull;
  } else if (a >= 100000000) {
    n = 8;
    a /= 100000000;
  }
  if (a < 10000) return n + (a < 100 ? (a < 10 ? 1 : 2) : (a < 1000 ? 3 : 4));
  return n + (a < 1000000 ? (a < 100000 ? 5 : 6) : (a < 10000000 ? 7 : 8));
}

// Writes the digits of a so that they end just before `end`; returns where they begin.
inline char* write_digits_backwards(char* end, uint64_t a) {
  for (; a >= 100; a /= 100) put_digit_pair(end -= 2, a % 100);
  if (a >= 10) {
    put_digit_pair(end -= 2, a);
  } else {
    *--end = static_cast<char>('0' + a);
  }
  return end;
}

// Writes exactly `count` digits of a (the lowest ones, zero-padded) so that they end just before
// `end`; returns where they begin and leaves in a what is above them.
inline char* write_low_digits_backwards(char* end, uint64_t& a, int count) {
  for (; count >= 2; count -= 2, a /= 100) put_digit_pair(end -= 2, a % 100);
  if (count == 1) {
    *--end = static_cast<char>('0' + a % 10);
    a /= 10;
  }
  return end;
}

static_assert(std::endian::native == std::endian::little, "digit words are laid out little-endian");

// v < 10^8 as eight ASCII digits, most significant first in memory, in one 64-bit word: the
// halves, quarters and single digits are split in all lanes at once by multiplications that
// divide exactly below 10^4 (by 100) and below 100 (by 10).
inline uint64_t eight_digits_word(uint32_t v) {
  uint64_t x = v / 10000 | uint64_t{v % 10000} << 32;
  const uint64_t hundreds = (x * 5243) >> 19 & 0x0000007F0000007Full;
  x = hundreds | (x - hundreds * 100) << 16;
  const uint64_t tens = (x * 103) >> 10 & 0x000F000F000F000Full;
  x = tens | (x - tens * 10) << 8;
  return x + 0x3030303030303030ull;
}

// The last `count` (1 to 8) digits of eight_digits_word(v), in its first bytes; zero bytes follow.
inline uint64_t last_digits_word(uint32_t v, int count) {
  return eight_digits_word(v) >> (8 * (8 - count));
}
