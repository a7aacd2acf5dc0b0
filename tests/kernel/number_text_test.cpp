#include "kernel/number_text.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "utils/str_funcs.h"

namespace {

unsigned test_seed() {
  unsigned seed = static_cast<unsigned>(testing::UnitTest::GetInstance()->random_seed());
  std::printf("seed %u\n", seed);
  return seed;
}

// Beyond the random sample below: a negative scale, and -2^127 with all but one digit after the
// point.
TEST(Decimal, EdgesOfBothPrinters) {
  char buffer[64];
  EXPECT_EQ(decimal64_to_string(buffer, sizeof buffer, -123, -3), 4);
  EXPECT_STREQ(buffer, "-123");
  EXPECT_EQ(decimal128_to_string(buffer, sizeof buffer, s128{0, INT64_MIN}, 38), 41);
  EXPECT_STREQ(buffer, "-1.70141183460469231731687303715884105728");
}

#if defined(__SIZEOF_INT128__)
TEST(Decimal, MatchesNativeDivisionOverRandomSample) {
  using u128 = unsigned __int128;
  std::mt19937_64 rng(test_seed());
  for (int i = 0; i < 40000; ++i) {
    const u128 bits = (static_cast<u128>(rng()) << 64 | rng()) >> (rng() % 127 + 1);
    const bool negative = (rng() & 1) && bits != 0;
    const int scale = static_cast<int>(rng() % 41);
    std::string digits;  // at least scale + 1 digits, leading zeros included
    for (u128 a = bits; a || static_cast<int>(digits.size()) <= scale; a /= 10)
      digits.insert(digits.begin(), static_cast<char>('0' + static_cast<int>(a % 10)));
    std::string expected = negative ? "-" : "";
    expected.append(digits, 0, digits.size() - scale);
    if (scale) expected.append(".").append(digits, digits.size() - scale);
    const u128 stored = negative ? -bits : bits;
    const s128 v{static_cast<uint64_t>(stored), static_cast<int64_t>(stored >> 64)};
    char buffer[128];
    ASSERT_EQ(decimal128_to_string(buffer, sizeof buffer, v, scale),
              static_cast<int>(expected.size()));
    ASSERT_EQ(buffer, expected);
    if (bits >> 63) continue;  // beyond the 64-bit printer
    ASSERT_EQ(decimal64_to_string(buffer, sizeof buffer, static_cast<int64_t>(stored), scale),
              static_cast<int>(expected.size()));
    ASSERT_EQ(buffer, expected);
  }
}
#endif

TEST(DecimalDouble, TruncatesWithinSixtyFourBitsAndScalesTheDigitsOfG255Beyond) {
  struct Case {
    double value;
    int scale;
    const char* text;
    int ret;
  } cases[] = {
      {-12345.99, 2, "-123.45", 7},
      // Beyond 2^63 the terminator is counted.
      {-1e20, 2, "-1000000000000000000.00", 24},
      {9223372036854775808.0, 25, ".0000009223372036854775808", 27},
      // Past 255 digits "%.255g" turns to exponent form: only the digits before the point stay.
      {1e300, 2, ".01", 4}};
  for (const auto& c : cases) {
    char buffer[512];
    EXPECT_EQ(decimal_double_to_string(buffer, sizeof buffer, c.value, c.scale), c.ret) << c.text;
    EXPECT_STREQ(buffer, c.text);
  }
  char buffer[24];
  std::memset(buffer, 'x', sizeof buffer);
  EXPECT_EQ(decimal_double_to_string(buffer, 22, 1e20, 2), 0);
  EXPECT_EQ(decimal_double_to_string(buffer, sizeof buffer, 1e20, -1), 0);
  EXPECT_EQ(decimal_double_to_string(buffer, 23, -1e20, 2), 0);
  EXPECT_EQ(buffer[0], '-');  // the sign went out before the room was known
}

// Doubles of every kind: special values, random bit patterns, random mantissas at every binary
// exponent of the direct range (1e-8 to 1e17), exact halves at the sixteenth digit (ties go to
// even) and the edges where the digit count or the notation changes.
std::vector<double> sample_doubles(std::mt19937_64& rng) {
  const double inf = std::numeric_limits<double>::infinity();
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double tiny = std::numeric_limits<double>::denorm_min();
  std::vector<double> v = {inf, -inf, nan, -nan, tiny, -tiny, DBL_MAX, -DBL_MAX, DBL_MIN, FLT_MAX};
  const double edges[] = {0.0,
                          -0.0,
                          1e-5,
                          1e-7,
                          0.0001,
                          1e16,
                          9.9999999999999995e-8,
                          0.00009999999999999999,
                          1234567890123456.5,
                          1234567890123457.5,
                          999999999999999.95,
                          9999999999999998.0,
                          9999999999999999.0,
                          9007199254740993.0,
                          123456789012345678.0};
  v.insert(v.end(), std::begin(edges), std::end(edges));
  for (int exp2 = -28; exp2 <= 57; ++exp2) {
    for (int i = 0; i < 400; ++i) {
      const double mantissa = 1.0 + static_cast<double>(rng() >> 12) / 4503599627370496.0;
      v.push_back(std::ldexp(rng() & 1 ? mantissa : -mantissa, exp2));
    }
  }
  for (int i = 0; i < 30000; ++i) {
    const uint64_t bits = rng();
    double d;
    std::memcpy(&d, &bits, sizeof d);
    v.push_back(d);
    v.push_back(static_cast<double>(rng() % 100000000) / 7.0);
    v.push_back(static_cast<double>(static_cast<int64_t>(rng() % 2000000) - 1000000) / 100.0);
  }
  return v;
}

TEST(PlainForms, MatchPrintfOverRandomSample) {
  std::mt19937_64 rng(test_seed());
  char expected[512], got[512];
  auto same = [&](int ret) {
    if (std::strcmp(got, expected) == 0 && ret == static_cast<int>(std::strlen(expected)))
      return testing::AssertionSuccess();
    return testing::AssertionFailure() << got << " (" << ret << ") for " << expected;
  };
  for (double d : sample_doubles(rng)) {
    std::snprintf(expected, sizeof expected, "%.16g", d);
    ASSERT_TRUE(same(double_to_string(got, sizeof got, d)));
    std::snprintf(expected, sizeof expected, "$ %.2lf", d * 0.01);
    ASSERT_TRUE(same(money_to_string(got, sizeof got, d)));
    // A short buffer ends as the bounded formatter ends it.
    const size_t size = rng() % 24;
    char cut_expected[64], cut_got[64];  // the double's text, then the money's from byte 32
    std::memset(cut_expected, 'x', sizeof cut_expected);
    std::memset(cut_got, 'x', sizeof cut_got);
    ASSERT_EQ(double_to_string(cut_got, size, d), str_bprintf(cut_expected, size, "%.16g", d));
    ASSERT_EQ(money_to_string(cut_got + 32, size, d),
              str_bprintf(cut_expected + 32, size, "$ %.2lf", d * 0.01));
    ASSERT_EQ(std::memcmp(cut_got, cut_expected, sizeof cut_got), 0) << d << " size " << size;
    const uint32_t bits = static_cast<uint32_t>(rng());
    float f;
    std::memcpy(&f, &bits, sizeof f);
    for (float x : {static_cast<float>(d), f}) {
      std::snprintf(expected, sizeof expected, "%.7g", static_cast<double>(x));
      ASSERT_TRUE(same(float_to_string(got, sizeof got, x)));
    }
  }
  for (int i = 0; i < 20000; ++i) {
    const uint64_t bits = rng() >> (rng() % 64);
    std::snprintf(expected, sizeof expected, "%" PRId64, static_cast<int64_t>(bits));
    ASSERT_TRUE(same(int64_to_string(got, sizeof got, static_cast<int64_t>(bits))));
    std::snprintf(expected, sizeof expected, "%" PRIu64, bits);
    ASSERT_TRUE(same(uint64_to_string(got, sizeof got, bits)));
    const size_t size = rng() % 22;
    std::memset(got, 'x', 32);
    std::memset(expected, 'x', 32);
    ASSERT_EQ(int64_to_string(got, size, static_cast<int64_t>(bits)),
              str_bprintf(expected, size, "%" PRId64, static_cast<int64_t>(bits)));
    ASSERT_EQ(std::memcmp(got, expected, 32), 0) << bits << " size " << size;
  }
}

}  // namespace
