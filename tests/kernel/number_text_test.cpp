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

#include "utils/str_funcs.h"

namespace {

unsigned test_seed() {
  unsigned seed = static_cast<unsigned>(testing::UnitTest::GetInstance()->random_seed());
  std::printf("seed %u\n", seed);
  return seed;
}

std::string dec64(int64_t v, int scale, int* ret = nullptr) {
  char buffer[512];
  int n = decimal64_to_string(buffer, sizeof buffer, v, scale);
  if (ret) *ret = n;
  return buffer;
}

std::string dec128(s128 v, int scale, int* ret = nullptr, size_t size = 128) {
  char buffer[128];
  std::memset(buffer, 'x', sizeof buffer);
  int n = decimal128_to_string(buffer, size, v, scale);
  if (ret) *ret = n;
  return size ? std::string(buffer) : std::string();
}

s128 s(int64_t n) {
  s128 v;
  s128_fromint_ptr(&v, n);
  return v;
}

TEST(Decimal64, Examples) {
  struct Case {
    int64_t value;
    int scale;
    const char* text;
  } cases[] = {
      {5, 2, "0.05"},
      {-5, 2, "-0.05"},
      {12345, 2, "123.45"},
      {7, 0, "7"},
      {0, 3, "0.000"},
      {-1, 1, "-0.1"},
      {0, 0, "0"},
      {-7, 0, "-7"},
      {INT64_MAX, 4, "922337203685477.5807"},
      {INT64_MAX, 19, "0.9223372036854775807"},
      {123, 22, "0.0000000000000000000123"},
      {-123, -3, "-123"},
  };
  for (const auto& c : cases) {
    int ret;
    EXPECT_EQ(dec64(c.value, c.scale, &ret), c.text) << c.value << "," << c.scale;
    EXPECT_EQ(ret, static_cast<int>(std::strlen(c.text)));
  }
}

TEST(Decimal64, ShortBufferIsAPlainCutCopy) {
  char buffer[8];
  std::memset(buffer, 'x', sizeof buffer);
  EXPECT_EQ(decimal64_to_string(buffer, 4, -12345, 2), 4);
  EXPECT_EQ(std::string(buffer, 5), "-123x");
  std::memset(buffer, 'x', sizeof buffer);
  EXPECT_EQ(decimal64_to_string(buffer, 7, -12345, 2), 7);
  EXPECT_EQ(std::string(buffer, 8), "-123.45x");
  std::memset(buffer, 'x', sizeof buffer);
  EXPECT_EQ(decimal64_to_string(buffer, 8, -12345, 2), 7);
  EXPECT_STREQ(buffer, "-123.45");
}

TEST(Decimal64, MatchesPrintfOverRandomSample) {
  std::mt19937_64 rng(test_seed());
  for (int i = 0; i < 20000; ++i) {
    int64_t v = static_cast<int64_t>(rng() >> (rng() % 64));
    if (rng() & 1) v = -v;
    int scale = static_cast<int>(rng() % 19);
    uint64_t a = v < 0 ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
    uint64_t unit = 1;
    for (int k = 0; k < scale; ++k) unit *= 10;
    char expected[64];
    if (scale)
      std::snprintf(expected, sizeof expected, "%s%" PRIu64 ".%0*" PRIu64, v < 0 ? "-" : "",
                    a / unit, scale, a % unit);
    else
      std::snprintf(expected, sizeof expected, "%" PRId64, v);
    ASSERT_EQ(dec64(v, scale), expected);
  }
}

TEST(Decimal128, Examples) {
  int ret;
  EXPECT_EQ(dec128(s(5), 3, &ret), "0.005");
  EXPECT_EQ(ret, 5);
  EXPECT_EQ(dec128(s(-5), 3, &ret), "-0.005");
  EXPECT_EQ(ret, 6);
  EXPECT_EQ(dec128(s(-12345), 0, &ret), "-12345");
  EXPECT_EQ(ret, 6);
  EXPECT_EQ(dec128(s(12345), 2, &ret), "123.45");
  EXPECT_EQ(ret, 6);
  EXPECT_EQ(dec128(s(0), 1, &ret), "0.0");
  s128 min{0, INT64_MIN};
  EXPECT_EQ(dec128(min, 38, &ret), "-1.70141183460469231731687303715884105728");
  EXPECT_EQ(ret, 41);
}

TEST(Decimal128, CutTextIsTerminatedAndTheFullLengthReturned) {
  int ret;
  EXPECT_EQ(dec128(s(-12345), 2, &ret, 5), "-123");
  EXPECT_EQ(ret, 7);
  EXPECT_EQ(dec128(s(-12345), 2, &ret, 1), "");
  EXPECT_EQ(ret, 7);
  EXPECT_EQ(dec128(s(12345), 2, &ret, 7), "123.45");
  EXPECT_EQ(ret, 6);
}

#if defined(__SIZEOF_INT128__)
TEST(Decimal128, MatchesNativeDivisionOverRandomSample) {
  std::mt19937_64 rng(test_seed());
  for (int i = 0; i < 20000; ++i) {
    unsigned __int128 bits =
        ((static_cast<unsigned __int128>(rng()) << 64) | rng()) >> (rng() % 127 + 1);
    __int128 x = static_cast<__int128>(bits);
    bool negative = rng() & 1;
    int scale = static_cast<int>(rng() % 40) + 1;
    unsigned __int128 unit = 1;
    for (int k = 0; k < scale && k < 38; ++k) unit *= 10;
    std::string int_part, frac;
    unsigned __int128 ip = scale <= 38 ? bits / unit : 0, fp = scale <= 38 ? bits % unit : bits;
    do {
      int_part.insert(int_part.begin(), static_cast<char>('0' + static_cast<int>(ip % 10)));
      ip /= 10;
    } while (ip);
    for (int k = 0; k < scale; ++k) {
      frac.insert(frac.begin(), static_cast<char>('0' + static_cast<int>(fp % 10)));
      fp /= 10;
    }
    std::string expected = negative ? "-" : "";
    expected.append(int_part).append(".").append(frac);
    __int128 signed_value = negative ? -x : x;
    s128 v{static_cast<uint64_t>(signed_value),
           static_cast<int64_t>(static_cast<unsigned __int128>(signed_value) >> 64)};
    if (negative && x == 0) expected.erase(0, 1);
    int ret;
    ASSERT_EQ(dec128(v, scale, &ret), expected);
    ASSERT_EQ(ret, static_cast<int>(expected.size()));
  }
}
#endif

TEST(DecimalDouble, WithinSixtyFourBitsTruncatesAndPrintsAsInteger) {
  char buffer[64];
  EXPECT_EQ(decimal_double_to_string(buffer, sizeof buffer, 12345.0, 2), 6);
  EXPECT_STREQ(buffer, "123.45");
  EXPECT_EQ(decimal_double_to_string(buffer, sizeof buffer, -12345.99, 2), 7);
  EXPECT_STREQ(buffer, "-123.45");
  EXPECT_EQ(decimal_double_to_string(buffer, sizeof buffer, -0.0, 1), 3);
  EXPECT_STREQ(buffer, "0.0");
}

TEST(DecimalDouble, BeyondSixtyFourBitsScalesTheDigitsOfG255) {
  struct Case {
    double value;
    int scale;
    const char* text;
    int ret;
  } cases[] = {
      {1e20, 2, "1000000000000000000.00", 23},
      {-1e20, 2, "-1000000000000000000.00", 24},
      {1e20, 0, "100000000000000000000", 22},
      {9223372036854775808.0, 25, ".0000009223372036854775808", 27},
      // Past 255 digits "%.255g" turns to exponent form: only the digits before the point stay.
      {1e300, 2, ".01", 4},
  };
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

// Doubles of every kind: random bit patterns, and values close to where the formats switch.
std::vector<double> sample_doubles(std::mt19937_64& rng, int count) {
  std::vector<double> v = {0.0,
                           -0.0,
                           std::numeric_limits<double>::infinity(),
                           -std::numeric_limits<double>::infinity(),
                           std::numeric_limits<double>::quiet_NaN(),
                           -std::numeric_limits<double>::quiet_NaN(),
                           DBL_MAX,
                           -DBL_MAX,
                           DBL_MIN,
                           std::numeric_limits<double>::denorm_min(),
                           -std::numeric_limits<double>::denorm_min(),
                           0.1,
                           1e16,
                           9999999999999999.0,
                           1e-5,
                           0.0001,
                           123456789012345678.0,
                           0.005,
                           0.015,
                           1.005,
                           2.675,
                           FLT_MAX,
                           FLT_MIN};
  for (int i = 0; i < count; ++i) {
    uint64_t bits = rng();
    double d;
    std::memcpy(&d, &bits, sizeof d);
    v.push_back(d);
    v.push_back(
        std::ldexp(static_cast<double>(rng() % 100000000), static_cast<int>(rng() % 80) - 40));
    v.push_back(static_cast<double>(static_cast<int64_t>(rng() % 2000000) - 1000000) / 100.0);
  }
  return v;
}

TEST(PlainFloats, MatchPrintfOverRandomSample) {
  std::mt19937_64 rng(test_seed());
  for (double d : sample_doubles(rng, 30000)) {
    char expected[512], got[512];
    std::snprintf(expected, sizeof expected, "%.16g", d);
    ASSERT_EQ(double_to_string(got, sizeof got, d), static_cast<int>(std::strlen(expected)));
    ASSERT_STREQ(got, expected);
    float f = static_cast<float>(d);
    std::snprintf(expected, sizeof expected, "%.7g", static_cast<double>(f));
    ASSERT_EQ(float_to_string(got, sizeof got, f), static_cast<int>(std::strlen(expected)));
    ASSERT_STREQ(got, expected);
    std::snprintf(expected, sizeof expected, "$ %.2lf", d * 0.01);
    ASSERT_EQ(money_to_string(got, sizeof got, d), static_cast<int>(std::strlen(expected)));
    ASSERT_STREQ(got, expected);
  }
}

// Doubles from 1e-8 to 1e17 take a direct path: random mantissas at every binary exponent of
// that range, exact halves at the sixteenth digit (ties go to even), and the edges where the
// digit count or the notation changes.
TEST(PlainFloats, DirectRangeMatchesPrintf) {
  std::vector<double> v = {1234567890123456.5,
                           1234567890123457.5,
                           -1234567890123456.5,
                           999999999999999.95,
                           9999999999999998.0,
                           9999999999999999.0,
                           1e15,
                           1e16,
                           4503599627370496.0,
                           9007199254740993.0,
                           0.0001,
                           0.00009999999999999999,
                           1e-5,
                           1e-7,
                           9.9999999999999995e-8,
                           1.0 / 7,
                           142856.7142857143,
                           0.5,
                           1.0,
                           2.0,
                           10.0};
  std::mt19937_64 rng(test_seed());
  for (int exp2 = -28; exp2 <= 57; ++exp2) {
    for (int i = 0; i < 400; ++i) {
      const double mantissa = 1.0 + static_cast<double>(rng() >> 12) / 4503599627370496.0;
      v.push_back(std::ldexp(rng() & 1 ? mantissa : -mantissa, exp2));
    }
  }
  for (int i = 0; i < 20000; ++i) v.push_back(static_cast<double>(rng() % 100000000) / 7.0);
  for (double d : v) {
    char expected[64], got[64];
    std::snprintf(expected, sizeof expected, "%.16g", d);
    ASSERT_EQ(double_to_string(got, sizeof got, d), static_cast<int>(std::strlen(expected)))
        << expected;
    ASSERT_STREQ(got, expected);
  }
}

TEST(PlainFloats, RandomFloatBitPatterns) {
  std::mt19937_64 rng(test_seed());
  for (int i = 0; i < 50000; ++i) {
    uint32_t bits = static_cast<uint32_t>(rng());
    float f;
    std::memcpy(&f, &bits, sizeof f);
    char expected[64], got[64];
    std::snprintf(expected, sizeof expected, "%.7g", static_cast<double>(f));
    float_to_string(got, sizeof got, f);
    ASSERT_STREQ(got, expected);
  }
}

TEST(PlainIntegers, MatchPrintfAtTheExtremes) {
  const int64_t values[] = {0,         -1,        1,         INT8_MIN,  INT8_MAX,
                            INT16_MIN, INT32_MIN, INT32_MAX, INT64_MIN, INT64_MAX};
  for (int64_t v : values) {
    char expected[32], got[32];
    std::snprintf(expected, sizeof expected, "%" PRId64, v);
    EXPECT_EQ(int64_to_string(got, sizeof got, v), static_cast<int>(std::strlen(expected)));
    EXPECT_STREQ(got, expected);
    std::snprintf(expected, sizeof expected, "%" PRIu64, static_cast<uint64_t>(v));
    EXPECT_EQ(uint64_to_string(got, sizeof got, static_cast<uint64_t>(v)),
              static_cast<int>(std::strlen(expected)));
    EXPECT_STREQ(got, expected);
  }
}

// Every plain printer ends a short buffer the way the bounded formatter does.
TEST(PlainForms, ShortBuffersBehaveAsTheBoundedFormatter) {
  for (size_t size = 0; size < 24; ++size) {
    char expected[32], got[32];
    std::memset(expected, 'x', sizeof expected);
    std::memset(got, 'x', sizeof got);
    int e = str_bprintf(expected, size, "%" PRId64, INT64_MIN);
    EXPECT_EQ(int64_to_string(got, size, INT64_MIN), e) << size;
    EXPECT_EQ(std::memcmp(got, expected, sizeof got), 0) << size;
    std::memset(expected, 'x', sizeof expected);
    std::memset(got, 'x', sizeof got);
    e = str_bprintf(expected, size, "%.16g", -1.2345678901234567e-300);
    EXPECT_EQ(double_to_string(got, size, -1.2345678901234567e-300), e) << size;
    EXPECT_EQ(std::memcmp(got, expected, sizeof got), 0) << size;
    std::memset(expected, 'x', sizeof expected);
    std::memset(got, 'x', sizeof got);
    e = str_bprintf(expected, size, "$ %.2lf", -123456.0 * 0.01);
    EXPECT_EQ(money_to_string(got, size, -123456.0), e) << size;
    EXPECT_EQ(std::memcmp(got, expected, sizeof got), 0) << size;
  }
}

TEST(DecimalReader, Texts) {
  struct Case {
    const char* text;
    int precision, scale;
    NumberRead outcome;
    const char* value;  // printed back with the same scale
  } cases[] = {
      {"123.45", 5, 2, NumberRead::ok, "123.45"},
      {" -0.5 ", 3, 2, NumberRead::ok, "-0.50"},
      {"+7", 1, 0, NumberRead::ok, "7"},
      {"007", 1, 0, NumberRead::ok, "7"},
      {".25", 2, 2, NumberRead::ok, "0.25"},
      {"5.", 1, 0, NumberRead::ok, "5"},
      {"1.005", 5, 2, NumberRead::ok, "1.01"},
      {"-1.005", 5, 2, NumberRead::ok, "-1.01"},
      {"1.0049999", 5, 2, NumberRead::ok, "1.00"},
      {"-0.001", 5, 2, NumberRead::ok, "0.00"},
      {"99999999999999999999999999999999999999", 38, 0, NumberRead::ok,
       "99999999999999999999999999999999999999"},
      {"1234.5", 5, 2, NumberRead::overflow, ""},
      {"999.995", 5, 2, NumberRead::overflow, ""},
      {"1000000000000000000000000000000000000000", 40, 0, NumberRead::overflow, ""},
      {"100000000000000000000000000000000000000", 38, 0, NumberRead::overflow, ""},
      {"170141183460469231731687303715884105727", 39, 0, NumberRead::ok,
       "170141183460469231731687303715884105727"},
      {"170141183460469231731687303715884105728", 39, 0, NumberRead::overflow, ""},
      {"", 5, 2, NumberRead::not_a_number, ""},
      {".", 5, 2, NumberRead::not_a_number, ""},
      {"-", 5, 2, NumberRead::not_a_number, ""},
      {"1e5", 5, 2, NumberRead::not_a_number, ""},
      {"1.2.3", 5, 2, NumberRead::not_a_number, ""},
      {"12 3", 5, 2, NumberRead::not_a_number, ""},
  };
  for (const auto& c : cases) {
    s128 v{1, 1};
    EXPECT_EQ(decimal_from_string(c.text, c.precision, c.scale, &v), c.outcome) << c.text;
    if (c.outcome == NumberRead::ok) {
      EXPECT_EQ(dec128(v, c.scale), c.value) << c.text;
    }
  }
}

TEST(MoneyReader, Texts) {
  struct Case {
    const char* text;
    NumberRead outcome;
    double cents;
  } cases[] = {
      {"12.345", NumberRead::ok, 1235},   {"$12.34", NumberRead::ok, 1234},
      {" $ $5", NumberRead::ok, 500},     {"-0.125", NumberRead::ok, -13},
      {"-0.124", NumberRead::ok, -12},    {"0.005", NumberRead::ok, 1},
      {"3 dollars", NumberRead::ok, 300}, {"dollars", NumberRead::not_a_number, 0},
      {"", NumberRead::not_a_number, 0},  {"$", NumberRead::not_a_number, 0},
  };
  for (const auto& c : cases) {
    double cents = -99;
    EXPECT_EQ(money_from_string(c.text, &cents), c.outcome) << c.text;
    EXPECT_EQ(cents, c.cents) << c.text;
  }
}

}  // namespace
