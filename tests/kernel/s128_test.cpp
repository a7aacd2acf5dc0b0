#include "kernel/s128.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <string>

namespace {

constexpr const char* kMinMagnitude = "170141183460469231731687303715884105728";

std::string text_of(s128 v, size_t size = 64, int* ret = nullptr) {
  char buffer[64];
  std::memset(buffer, 'x', sizeof buffer);
  int n = s128_to_string_ptr(buffer, size, &v);
  if (ret) *ret = n;
  return std::string(buffer, strnlen(buffer, size));
}

s128 read(const char* text, int* overflow = nullptr) {
  s128 v{99, 99};
  int r = s128_from_string_ptr(text, &v);
  if (overflow) *overflow = r;
  return v;
}

TEST(S128Power, TableEntriesAreTwoToBTimesTenToK) {
  // 2^b * 10^k read back through the text reader of the power's decimal digits.
  for (int idx = 0; idx < S128_POWER_COUNT; ++idx) {
    int k = idx / 4, b = idx % 4;
    std::string digits = std::to_string(1 << b);
    digits.append(static_cast<size_t>(k), '0');
    const s128& p = s128_power(idx);
    EXPECT_EQ(text_of(p), digits) << idx;
  }
}

TEST(S128Text, EdgeCases) {
  int overflow;
  std::string min_text = "-";
  min_text.append(kMinMagnitude);
  s128 v = read(min_text.c_str(), &overflow);
  EXPECT_EQ(overflow, 0);
  EXPECT_EQ(v.hi, INT64_MIN);
  EXPECT_EQ(v.lo, 0u);
  int ret;
  EXPECT_EQ(text_of(v, 64, &ret), min_text);
  EXPECT_EQ(ret, 40);

  v = read(kMinMagnitude, &overflow);
  EXPECT_EQ(overflow, 1);
  EXPECT_TRUE(s128_equal(v, s128{0, 0}));

  // Equal digits followed by any other character compare above the terminator.
  std::string followed = min_text;
  followed.push_back('x');
  v = read(followed.c_str(), &overflow);
  EXPECT_EQ(overflow, 1);
  v = read("170141183460469231731687303715884105727", &overflow);
  EXPECT_EQ(overflow, 0);
  EXPECT_EQ(text_of(v), "170141183460469231731687303715884105727");

  v = read("000123abc", &overflow);
  EXPECT_EQ(overflow, 0);
  EXPECT_EQ(s128_toint_ptr(&v), 123);
  v = read("-0", &overflow);
  EXPECT_EQ(overflow, 0);
  EXPECT_TRUE(s128_equal(v, s128{0, 0}));
  v = read("", &overflow);
  EXPECT_EQ(overflow, 0);
  EXPECT_TRUE(s128_equal(v, s128{0, 0}));

  // Leading zeros do not count toward the 39 digits.
  std::string padded(10, '0');
  padded.append("123456789012345678901234567890123456789");
  v = read(padded.c_str(), &overflow);
  EXPECT_EQ(overflow, 0);
  EXPECT_EQ(text_of(v), "123456789012345678901234567890123456789");
  v = read("1000000000000000000000000000000000000000", &overflow);
  EXPECT_EQ(overflow, 1);
  v = read("999999999999999999999999999999999999999", &overflow);
  EXPECT_EQ(overflow, 1);

  EXPECT_EQ(text_of(s128{0, 0}, 64, &ret), "0");
  EXPECT_EQ(ret, 1);
  EXPECT_EQ(text_of(s128{~0ull, -1}, 64, &ret), "-1");
  EXPECT_EQ(ret, 2);
}

TEST(S128Text, ShortBuffers) {
  s128 v;
  s128_fromint_ptr(&v, -12345);
  char buffer[8];
  std::memset(buffer, 'x', sizeof buffer);
  EXPECT_EQ(s128_to_string_ptr(buffer, 1, &v), 6);
  EXPECT_EQ(buffer[0], 0);
  EXPECT_EQ(buffer[1], 'x');
  std::memset(buffer, 'x', sizeof buffer);
  EXPECT_EQ(s128_to_string_ptr(buffer, 4, &v), 6);
  EXPECT_STREQ(buffer, "-12");
  std::memset(buffer, 'x', sizeof buffer);
  EXPECT_EQ(s128_to_string_ptr(buffer, 0, &v), 6);
  EXPECT_EQ(buffer[0], 'x');
  s128 min{0, INT64_MIN};
  std::memset(buffer, 'x', sizeof buffer);
  EXPECT_EQ(s128_to_string_ptr(buffer, sizeof buffer, &min), 40);
  EXPECT_STREQ(buffer, "-170141");
  // Exactly enough room for the text and its terminator.
  std::memset(buffer, 'x', sizeof buffer);
  EXPECT_EQ(s128_to_string_ptr(buffer, 7, &v), 6);
  EXPECT_STREQ(buffer, "-12345");
}

TEST(S128Int, ConversionsWithSixtyFourBits) {
  const int64_t values[] = {0, 1, -1, INT64_MAX, INT64_MIN, 42, -4200000000000};
  for (int64_t n : values) {
    s128 v;
    s128_fromint_ptr(&v, n);
    EXPECT_EQ(v.hi, n < 0 ? -1 : 0);
    EXPECT_EQ(s128_toint_ptr(&v), n);
    EXPECT_EQ(text_of(v), std::to_string(n));
  }
  s128 wide{5, 7};  // high bits are dropped without a check
  EXPECT_EQ(s128_toint_ptr(&wide), 5);
}

TEST(S128Arith, MulTenAddStopsAtTheRange) {
  s128 v = read("17014118346046923173168730371588410572");
  s128 w = v;
  EXPECT_TRUE(s128_mul10_add(&w, 7));
  EXPECT_EQ(text_of(w), "170141183460469231731687303715884105727");
  w = v;
  EXPECT_FALSE(s128_mul10_add(&w, 8));
  w = s128_add(v, s128{1, 0});
  EXPECT_FALSE(s128_mul10_add(&w, 0));
}

#if defined(__SIZEOF_INT128__)
__int128 native(s128 v) {
  return static_cast<__int128>((static_cast<unsigned __int128>(static_cast<uint64_t>(v.hi)) << 64) |
                               v.lo);
}

std::string native_text(__int128 x) {
  bool negative = x < 0;
  unsigned __int128 a = negative ? -static_cast<unsigned __int128>(x) : x;
  std::string s;
  do {
    s.insert(s.begin(), static_cast<char>('0' + static_cast<int>(a % 10)));
    a /= 10;
  } while (a);
  if (negative) s.insert(s.begin(), '-');
  return s;
}

TEST(S128Random, RoundTripsAgainstNativeIntegers) {
  unsigned seed = static_cast<unsigned>(testing::UnitTest::GetInstance()->random_seed());
  std::printf("seed %u\n", seed);
  std::mt19937_64 rng(seed);
  for (int i = 0; i < 50000; ++i) {
    // Magnitudes of every size: shift a random pattern right by a random amount.
    int shift = static_cast<int>(rng() % 128);
    unsigned __int128 bits = (static_cast<unsigned __int128>(rng()) << 64) | rng();
    __int128 x = static_cast<__int128>(bits >> shift);
    if (rng() & 1) x = -x;
    s128 v{static_cast<uint64_t>(x), static_cast<int64_t>(static_cast<unsigned __int128>(x) >> 64)};
    std::string expected = native_text(x);
    int ret;
    ASSERT_EQ(text_of(v, 64, &ret), expected) << "seed " << seed;
    ASSERT_EQ(ret, static_cast<int>(expected.size()));
    int overflow;
    s128 back = read(expected.c_str(), &overflow);
    ASSERT_EQ(overflow, 0) << expected;
    ASSERT_TRUE(native(back) == x) << expected;

    __int128 y = static_cast<__int128>(((static_cast<unsigned __int128>(rng()) << 64) | rng()) >>
                                       (rng() % 128));
    s128 w{static_cast<uint64_t>(y), static_cast<int64_t>(static_cast<unsigned __int128>(y) >> 64)};
    ASSERT_TRUE(native(s128_add(v, w)) == static_cast<__int128>(static_cast<unsigned __int128>(x) +
                                                                static_cast<unsigned __int128>(y)));
    ASSERT_TRUE(native(s128_sub(v, w)) == static_cast<__int128>(static_cast<unsigned __int128>(x) -
                                                                static_cast<unsigned __int128>(y)));
    ASSERT_EQ(s128_compare(v, w), x < y ? -1 : (x > y ? 1 : 0));
  }
}
#endif

}  // namespace
