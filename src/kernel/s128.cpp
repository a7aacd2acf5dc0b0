#include "kernel/s128.h"

#include <array>
#include <charconv>
#include <cstring>

#include "utils/str_funcs.h"

namespace {

// The magnitude of -2^127, which has no positive counterpart, with its terminator.
constexpr char kMinText[] = "170141183460469231731687303715884105728";
constexpr int kMaxDigits = 39;

constexpr s128 shift_left(s128 a, int bits) {
  uint64_t hi = static_cast<uint64_t>(a.hi);
  return {a.lo << bits, static_cast<int64_t>((hi << bits) | (a.lo >> (64 - bits)))};
}

constexpr s128 times10(s128 a) { return s128_add(shift_left(a, 3), shift_left(a, 1)); }

constexpr std::array<s128, S128_POWER_COUNT> make_powers() {
  std::array<s128, S128_POWER_COUNT> table{};
  s128 ten_k{1, 0};
  for (int k = 0; k <= 38; ++k) {
    s128 entry = ten_k;
    for (int b = 0; b < 4 && 4 * k + b < S128_POWER_COUNT; ++b) {
      table[4 * k + b] = entry;
      entry = s128_add(entry, entry);
    }
    if (k < 38) ten_k = times10(ten_k);
  }
  return table;
}

constexpr std::array<s128, S128_POWER_COUNT> kPowers = make_powers();
static_assert(kPowers[152].hi == 0x4B3B4CA85A86C47A && kPowers[152].lo == 0x098A224000000000,
              "10^38");

// (2^127 - 1) / 10, the largest value that can take one more digit.
constexpr s128 kMulLimit = {0xCCCCCCCCCCCCCCCC, 0x0CCCCCCCCCCCCCCC};

// Sum of table entries for each set bit of each digit, most significant digit first.
s128 digits_to_value(const char* digits, int n) {
  s128 value{0, 0};
  for (int i = 0; i < n; ++i) {
    int k = n - 1 - i;
    unsigned d = static_cast<unsigned char>(digits[i]) & 0x0Fu;
    for (int b = 0; b < 4; ++b)
      if (d & (1u << b)) value = s128_add(value, kPowers[4 * k + b]);
  }
  return value;
}

// Decimal digits of a non-negative value by subtraction of the table entries; returns the count.
int value_to_digits(s128 v, char* out) {
  if (v.hi == 0) {
    auto r = std::to_chars(out, out + kMaxDigits, v.lo);
    return static_cast<int>(r.ptr - out);
  }
  unsigned char digit[kMaxDigits] = {};
  for (int idx = S128_POWER_COUNT - 1; idx >= 0; --idx) {
    if (s128_compare(v, kPowers[idx]) >= 0) {
      v = s128_sub(v, kPowers[idx]);
      digit[idx / 4] |= static_cast<unsigned char>(1u << (idx % 4));
    }
  }
  int n = kMaxDigits;
  while (n > 1 && digit[n - 1] == 0) --n;
  for (int i = 0; i < n; ++i) out[i] = static_cast<char>('0' + digit[n - 1 - i]);
  return n;
}

}  // namespace

const s128& s128_power(int index) { return kPowers[index]; }

int s128_from_string_ptr(const char* text, s128* result) {
  const char* p = text;
  bool negative = *p == '-';
  if (negative) ++p;
  while (*p == '0') ++p;
  int n = 0;
  while (p[n] >= '0' && p[n] <= '9') ++n;
  bool overflow = n > kMaxDigits;
  if (n == kMaxDigits) {
    // Digits and the following character against the text of 2^127 and its terminator: any
    // character after 39 equal digits compares above, which even the negative side refuses.
    int c = std::memcmp(p, kMinText, sizeof kMinText);
    overflow = negative ? c > 0 : c >= 0;
  }
  if (overflow) {
    *result = {0, 0};
    return 1;
  }
  s128 value{0, 0};
  if (n <= 19) {
    uint64_t v = 0;
    for (int i = 0; i < n; ++i) v = v * 10 + static_cast<unsigned>(p[i] - '0');
    value.lo = v;
  } else {
    value = digits_to_value(p, n);
  }
  *result = negative ? s128_neg(value) : value;
  return 0;
}

int s128_to_string_ptr(char* buffer, size_t size, const s128* value) {
  s128 v = *value;
  size_t pos = 0;
  int sign = 0;
  if (s128_is_negative(v)) {
    v = s128_neg(v);
    sign = 1;
    if (size > 1) buffer[pos++] = '-';
  }
  if (s128_is_negative(v)) {
    str_bprintf(buffer + pos, size - pos, "%s", kMinText);
    return kMaxDigits + 1;
  }
  char digits[kMaxDigits];
  int n = value_to_digits(v, digits);
  size_t room = size - pos;
  for (int i = 0; i < n && room > 1; ++i, --room) buffer[pos++] = digits[i];
  if (room > 0) buffer[pos] = 0;
  return n + sign;
}

int64_t s128_toint_ptr(const s128* value) { return static_cast<int64_t>(value->lo); }

void s128_fromint_ptr(s128* result, int64_t n) {
  result->lo = static_cast<uint64_t>(n);
  result->hi = n < 0 ? -1 : 0;
}

bool s128_mul10_add(s128* a, unsigned digit) {
  int c = s128_compare(*a, kMulLimit);
  if (c > 0 || (c == 0 && digit > 7)) return false;
  *a = s128_add(times10(*a), s128{digit, 0});
  return true;
}
