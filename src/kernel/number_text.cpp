#include "kernel/number_text.h"

#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>

#include "kernel/digits.h"
#include "utils/str_funcs.h"

namespace {

constexpr uint64_t kPow10[20] = {1ull,
                                 10ull,
                                 100ull,
                                 1000ull,
                                 10000ull,
                                 100000ull,
                                 1000000ull,
                                 10000000ull,
                                 100000000ull,
                                 1000000000ull,
                                 10000000000ull,
                                 100000000000ull,
                                 1000000000000ull,
                                 10000000000000ull,
                                 100000000000000ull,
                                 1000000000000000ull,
                                 10000000000000000ull,
                                 100000000000000000ull,
                                 1000000000000000000ull,
                                 10000000000000000000ull};

int count_digits(uint64_t a) {
  int n = 1;
  while (n < 20 && a >= kPow10[n]) ++n;
  return n;
}

// A scaled decimal's text written backwards, ending at `end`.
void write_decimal_backwards(char* end, uint64_t a, int scale, bool negative) {
  char* p = end;
  if (scale > 0) {
    p = write_low_digits_backwards(p, a, scale);
    *--p = '.';
  }
  p = write_digits_backwards(p, a);
  if (negative) *--p = '-';
}

// Non-finite doubles keep the C library's spelling ("inf", "-nan", ...), which differs between
// runtimes; everything else is converted directly.
template <typename Convert>
int float_text(char* buffer, size_t size, double value, const char* format, Convert convert) {
  if (!std::isfinite(value)) return str_bprintf(buffer, size, format, value);
  char text[400];
  auto r = convert(text, text + sizeof text, value);
  return bounded_copy(buffer, size, text, static_cast<size_t>(r.ptr - text));
}

}  // namespace

int bounded_copy(char* buffer, size_t size, const char* text, size_t length) {
  if (length < size) {
    std::memcpy(buffer, text, length);
    buffer[length] = 0;
    return static_cast<int>(length);
  }
  if (size) {
    std::memcpy(buffer, text, size - 1);
    buffer[size - 1] = 0;
  }
  return -1;
}

int int64_to_string(char* buffer, size_t size, int64_t value) {
  if (size > 20) {  // the longest text, "-9223372036854775808", and the terminator fit
    const bool negative = value < 0;
    const uint64_t a = negative ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
    char* end = buffer + negative + decimal_digit_count(a);
    write_decimal_backwards(end, a, 0, negative);
    *end = 0;
    return static_cast<int>(end - buffer);
  }
  char text[24];
  auto r = std::to_chars(text, text + sizeof text, value);
  return bounded_copy(buffer, size, text, static_cast<size_t>(r.ptr - text));
}

int uint64_to_string(char* buffer, size_t size, uint64_t value) {
  if (size > 20) {
    auto r = std::to_chars(buffer, buffer + 20, value);
    *r.ptr = 0;
    return static_cast<int>(r.ptr - buffer);
  }
  char text[24];
  auto r = std::to_chars(text, text + sizeof text, value);
  return bounded_copy(buffer, size, text, static_cast<size_t>(r.ptr - text));
}

namespace {

// 10^0 to 10^22, the scales that keep a 53-bit mantissa times 10^s below 2^127.
constexpr auto kPow10Wide = [] {
  std::array<unsigned __int128, 23> t{};
  t[0] = 1;
  for (size_t i = 1; i < t.size(); ++i) t[i] = t[i - 1] * 10;
  return t;
}();

// The digits of "%.16g" for magnitudes from 1e-7 to 1e16, where the exact value times a power of
// ten fits 128 bits: D = the value * 10^s rounded half to even, 10^15 <= D < 10^16, and the
// decimal exponent 15 - s. The general-precision path of std::to_chars costs several times
// more, and a column of doubles is common. Returns false for the values it does not cover.
bool g16_digits(double a, uint64_t* digits, int* exponent) {
  uint64_t bits;
  std::memcpy(&bits, &a, sizeof bits);
  const int biased = static_cast<int>(bits >> 52 & 0x7FF);
  if (biased == 0 || (bits >> 63) != 0) return false;  // zero, subnormal or negative
  const uint64_t m = (bits & ((uint64_t{1} << 52) - 1)) | uint64_t{1} << 52;
  const int q = biased - 1075;  // a = m * 2^q
  if (q >= 0) {                 // an integer: exact when it has at most 16 digits
    if (q > 11 || (m << q) >= kPow10[16]) return false;
    uint64_t d = m << q;
    int e = count_digits(d) - 1;
    *digits = d * kPow10[15 - e];
    *exponent = e;
    return true;
  }
  const int k = -q;
  if (k > 127) return false;
  // floor(log10(a)) is floor((q + 52) * log10(2)) or one more; 78913 / 2^18 is log10(2) closely
  // enough for these exponents (the shift floors negative products too).
  int e = ((q + 52) * 78913) >> 18;
  for (int attempt = 0; attempt < 2; ++attempt) {
    const int s = 15 - e;
    if (s < 0 || s > 22) return false;
    const unsigned __int128 n = static_cast<unsigned __int128>(m) * kPow10Wide[s];  // < 2^127
    const unsigned __int128 whole = n >> k;
    if (whole >= kPow10[16]) {
      ++e;
      continue;
    }
    if (whole < kPow10[15]) return false;  // the estimate is never above the exponent
    uint64_t d = static_cast<uint64_t>(whole);
    const unsigned __int128 rest = n - (whole << k);
    const unsigned __int128 half = static_cast<unsigned __int128>(1) << (k - 1);
    if (rest > half || (rest == half && (d & 1))) ++d;
    if (d == kPow10[16]) {
      d = kPow10[15];
      ++e;
    }
    *digits = d;
    *exponent = e;
    return true;
  }
  return false;
}

using DigitBlock = unsigned __int128;  // sixteen digit bytes, the first in the lowest byte

void store_block(char* p, DigitBlock block) { std::memcpy(p, &block, sizeof block); }

// "%.16g" of 16 significant digits and a decimal exponent: fixed notation for exponents from -4
// to 15, else d.ddde-XX; trailing zeros of the fraction dropped. The digits stay in registers and
// leave in 16-byte stores (reading back bytes just written in pieces would wait on every value),
// so `p` needs room for 40 bytes whatever the length of the result.
char* put_g16(char* p, uint64_t digits, int e) {
  const DigitBlock block = eight_digits_word(static_cast<uint32_t>(digits / 100000000)) |
                           DigitBlock{eight_digits_word(digits % 100000000)} << 64;
  // Trailing '0' digits are the top bytes of the block that equal '0'; the first digit never is.
  const DigitBlock differ =
      block ^ (DigitBlock{0x3030303030303030ull} << 64 | 0x3030303030303030ull);
  const auto top = static_cast<uint64_t>(differ >> 64);
  const int zeros = top != 0 ? std::countl_zero(top) / 8
                             : 8 + std::countl_zero(static_cast<uint64_t>(differ)) / 8;
  const int n = 16 - zeros;
  if (e >= 16 || e < -4) {
    char d[16];
    store_block(d, block);
    *p++ = d[0];
    if (n > 1) *p++ = '.';
    for (int i = 1; i < n; ++i) *p++ = d[i];
    *p++ = 'e';
    *p++ = e < 0 ? '-' : '+';
    const int x = e < 0 ? -e : e;
    *p++ = static_cast<char>('0' + x / 10);
    *p++ = static_cast<char>('0' + x % 10);
    return p;
  }
  if (e < 0) {  // "0.", -e - 1 zeros, the digits
    std::memcpy(p, "0.0000", 6);
    p += 1 - e;
    store_block(p, block);
    return p + n;
  }
  store_block(p, block);
  if (n <= e + 1) return p + e + 1;
  p[e + 1] = '.';
  store_block(p + e + 2, block >> (8 * (e + 1)));
  return p + n + 1;
}

}  // namespace

int double_to_string(char* buffer, size_t size, double value) {
  uint64_t digits;
  int exponent;
  if (g16_digits(std::fabs(value), &digits, &exponent)) {
    char text[48];
    char* const start = size >= sizeof text ? buffer : text;  // room enough: write in place
    char* p = start;
    if (std::signbit(value)) *p++ = '-';
    p = put_g16(p, digits, exponent);
    if (start == buffer) {
      *p = 0;
      return static_cast<int>(p - buffer);
    }
    return bounded_copy(buffer, size, text, static_cast<size_t>(p - text));
  }
  return float_text(buffer, size, value, "%.16g", [](char* first, char* last, double v) {
    return std::to_chars(first, last, v, std::chars_format::general, 16);
  });
}

int float_to_string(char* buffer, size_t size, float value) {
  return float_text(buffer, size, static_cast<double>(value), "%.7g",
                    [](char* first, char* last, double v) {
                      return std::to_chars(first, last, v, std::chars_format::general, 7);
                    });
}

int money_to_string(char* buffer, size_t size, double cents) {
  double amount = cents * 0.01;
  return float_text(buffer, size, amount, "$ %.2lf", [](char* first, char* last, double v) {
    first[0] = '$';
    first[1] = ' ';
    return std::to_chars(first + 2, last, v, std::chars_format::fixed, 2);
  });
}

int decimal64_to_string(char* buffer, size_t size, int64_t value, int scale) {
  bool negative = value < 0;
  uint64_t a = negative ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
  int s = scale > 0 ? scale : 0;
  uint64_t int_part = s >= 20 ? 0 : a / kPow10[s];
  size_t length =
      static_cast<size_t>(decimal_digit_count(int_part)) + (s > 0 ? s + 1 : 0) + negative;
  if (length < size) {
    write_decimal_backwards(buffer + length, a, s, negative);
    buffer[length] = 0;
    return static_cast<int>(length);
  }
  // Cut: a plain bounded copy of the first size bytes, no terminator.
  std::string text(length, '\0');
  write_decimal_backwards(text.data() + length, a, s, negative);
  std::memcpy(buffer, text.data(), size);
  return static_cast<int>(size);
}

int decimal128_to_string(char* buffer, size_t size, s128 value, int scale) {
  if (scale <= 0) return s128_to_string_ptr(buffer, size, &value);
  char work[64];
  s128_to_string_ptr(work, sizeof work, &value);
  const char* digits = work;
  size_t pos = 0;
  int sign = 0;
  if (*digits == '-') {
    sign = 1;
    ++digits;
    if (size > 1) buffer[pos++] = '-';
  }
  int n = static_cast<int>(std::strlen(digits));
  int w = n > scale + 1 ? n : scale + 1;
  auto put = [&](char c) {
    if (pos + 1 < size) buffer[pos++] = c;
  };
  for (int p = w - 1; p >= 0; --p) {
    put(p >= n ? '0' : digits[n - 1 - p]);
    if (p == scale) put('.');
  }
  if (size) buffer[pos < size ? pos : size - 1] = 0;
  return w + 1 + sign;
}

int decimal_double_to_string(char* buffer, size_t size, double value, int scale) {
  if (value > -9223372036854775808.0 && value < 9223372036854775808.0)
    return decimal64_to_string(buffer, size, static_cast<int64_t>(value), scale);
  char text[512];
  std::snprintf(text, sizeof text, "%.255g", value);
  const char* digits = text;
  size_t pos = 0;
  if (*digits == '-') {
    ++digits;
    if (size) buffer[pos++] = '-';
  }
  int n = 0;
  while (digits[n] && digits[n] != '.') ++n;
  size_t room = size - pos;
  int needed = (n > scale ? n : scale) + (scale >= 1 ? 1 : 0);
  if (scale < 0 || room <= static_cast<size_t>(needed)) return 0;
  if (scale > n) {
    buffer[pos++] = '.';
    for (int i = 0; i < scale - n; ++i) buffer[pos++] = '0';
    std::memcpy(buffer + pos, digits, static_cast<size_t>(n));
    pos += static_cast<size_t>(n);
  } else {
    std::memcpy(buffer + pos, digits, static_cast<size_t>(n - scale));
    pos += static_cast<size_t>(n - scale);
    if (scale > 0) {
      buffer[pos++] = '.';
      std::memcpy(buffer + pos, digits + n - scale, static_cast<size_t>(scale));
      pos += static_cast<size_t>(scale);
    }
  }
  buffer[pos] = 0;
  return static_cast<int>(pos) + 1;
}

NumberRead decimal_from_string(const char* text, int precision, int scale, s128* result) {
  const char* p = text;
  while (*p == ' ' || *p == '\t') ++p;
  bool negative = *p == '-';
  if (*p == '-' || *p == '+') ++p;
  s128 value{0, 0};
  int int_digits = 0;  // significant digits before the point
  int digits_seen = 0;
  bool overflow = false;
  for (; *p >= '0' && *p <= '9'; ++p, ++digits_seen) {
    if (int_digits == 0 && *p == '0') continue;
    ++int_digits;
    overflow = overflow || !s128_mul10_add(&value, static_cast<unsigned>(*p - '0'));
  }
  int frac_taken = 0;
  bool round_up = false;
  if (*p == '.') {
    for (++p; *p >= '0' && *p <= '9'; ++p, ++digits_seen) {
      if (frac_taken < scale) {
        overflow = overflow || !s128_mul10_add(&value, static_cast<unsigned>(*p - '0'));
        ++frac_taken;
      } else if (frac_taken++ == scale) {
        round_up = *p >= '5';
      }
    }
  }
  while (*p == ' ' || *p == '\t') ++p;
  if (digits_seen == 0 || *p != 0) return NumberRead::not_a_number;
  for (; frac_taken < scale; ++frac_taken) overflow = overflow || !s128_mul10_add(&value, 0);
  if (round_up) value = s128_add(value, s128{1, 0});
  if (precision < 0 || int_digits + scale > precision) overflow = true;
  if (!overflow && precision <= 38 && s128_compare(value, s128_power(4 * precision)) >= 0)
    overflow = true;  // rounding carried into one more digit
  if (overflow || s128_is_negative(value)) {
    *result = {0, 0};
    return NumberRead::overflow;
  }
  *result = negative ? s128_neg(value) : value;
  return NumberRead::ok;
}

NumberRead money_from_string(const char* text, double* cents) {
  const char* p = text;
  while (*p == ' ' || *p == '\t' || *p == '$') ++p;
  double x = 0;
  if (std::sscanf(p, "%lf", &x) != 1) {
    *cents = 0;
    return NumberRead::not_a_number;
  }
  *cents = x >= 0 ? std::floor(x * 100 + 0.5) : std::ceil(x * 100 - 0.5);
  return NumberRead::ok;
}
