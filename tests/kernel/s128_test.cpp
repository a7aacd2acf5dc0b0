#include "kernel/s128.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <string>

namespace {

std::string text_of(s128 v, size_t size = 64, int* ret = nullptr) {
  char buffer[64];
  std::memset(buffer, 'x', sizeof buffer);
  int n = s128_to_string_ptr(buffer, size, &v);
  if (ret) *ret = n;
  if (size < sizeof buffer) {
    EXPECT_EQ(buffer[size], 'x');  // nothing past the buffer
  }
  return std::string(buffer, strnlen(buffer, size));
}

TEST(S128Text, ReadEdgeCases) {
  const std::string max = "170141183460469231731687303715884105727";
  const std::string min = "-170141183460469231731687303715884105728";
  struct Case {
    std::string text;
    int overflow;
    std::string printed;  // the value read, printed back
  } cases[] = {{min, 0, min},
               {min.substr(1), 1, "0"},
               {std::string(min).append("x"), 1,
                "0"},  // equal digits and any other character compare above the terminator
               {"000123abc", 0, "123"},
               {std::string(10, '0').append(max), 0, max},  // leading zeros are not counted
               {"1000000000000000000000000000000000000000", 1, "0"}};
  for (const auto& c : cases) {
    s128 v{99, 99};
    EXPECT_EQ(s128_from_string_ptr(c.text.c_str(), &v), c.overflow) << c.text;
    EXPECT_EQ(text_of(v), c.printed) << c.text;
  }
}

TEST(S128Text, PrintReturnsTheFullLengthAndCutsToTheBuffer) {
  struct Case {
    int64_t value;  // INT64_MIN stands for -2^127
    size_t size;
    const char* text;
    int ret;
  } cases[] = {{INT64_MIN, 64, "-170141183460469231731687303715884105728", 40},
               {INT64_MIN, 8, "-170141", 40},
               {0, 64, "0", 1},
               {-12345, 0, "", 6},
               {-12345, 1, "", 6},  // no sign and no digit, only the terminator
               {-12345, 4, "-12", 6},
               {-12345, 7, "-12345", 6}};
  for (const auto& c : cases) {
    s128 v{0, INT64_MIN};
    if (c.value != INT64_MIN) s128_fromint_ptr(&v, c.value);
    int ret;
    EXPECT_EQ(text_of(v, c.size, &ret), c.text) << c.value << " size " << c.size;
    EXPECT_EQ(ret, c.ret) << c.value << " size " << c.size;
  }
}

TEST(S128Arith, MulTenAddStopsAtTheRange) {
  s128 v;
  s128_from_string_ptr("17014118346046923173168730371588410572", &v);
  s128 w = v;
  EXPECT_TRUE(s128_mul10_add(&w, 7));
  EXPECT_EQ(text_of(w), "170141183460469231731687303715884105727");
  w = v;
  EXPECT_FALSE(s128_mul10_add(&w, 8));
  w = s128_add(v, s128{1, 0});
  EXPECT_FALSE(s128_mul10_add(&w, 0));
}

#if defined(__SIZEOF_INT128__)
using u128 = unsigned __int128;

u128 native(s128 v) { return static_cast<u128>(static_cast<uint64_t>(v.hi)) << 64 | v.lo; }

std::string native_text(__int128 x) {
  u128 a = x < 0 ? -static_cast<u128>(x) : static_cast<u128>(x);
  std::string s;
  do {
    s.insert(s.begin(), static_cast<char>('0' + static_cast<int>(a % 10)));
    a /= 10;
  } while (a);
  if (x < 0) s.insert(s.begin(), '-');
  return s;
}

// Text both ways, add, subtract, compare and the 64-bit conversions against native integers, over
// magnitudes of every size.
TEST(S128Random, AgreesWithNativeIntegers) {
  unsigned seed = static_cast<unsigned>(testing::UnitTest::GetInstance()->random_seed());
  std::printf("seed %u\n", seed);
  std::mt19937_64 rng(seed);
  auto random = [&rng] {
    u128 bits = (static_cast<u128>(rng()) << 64 | rng()) >> (rng() % 128);
    return rng() & 1 ? -bits : bits;
  };
  for (int i = 0; i < 50000; ++i) {
    const u128 x = random(), y = random();
    const s128 v{static_cast<uint64_t>(x), static_cast<int64_t>(x >> 64)};
    const s128 w{static_cast<uint64_t>(y), static_cast<int64_t>(y >> 64)};
    const std::string expected = native_text(static_cast<__int128>(x));
    int ret;
    ASSERT_EQ(text_of(v, 64, &ret), expected) << "seed " << seed;
    ASSERT_EQ(ret, static_cast<int>(expected.size()));
    s128 back{1, 1};
    ASSERT_EQ(s128_from_string_ptr(expected.c_str(), &back), 0) << expected;
    ASSERT_TRUE(native(back) == x) << expected;
    ASSERT_TRUE(native(s128_add(v, w)) == x + y) << expected;
    ASSERT_TRUE(native(s128_sub(v, w)) == x - y) << expected;
    const __int128 sx = static_cast<__int128>(x), sy = static_cast<__int128>(y);
    ASSERT_EQ(s128_compare(v, w), sx < sy ? -1 : (sx > sy ? 1 : 0));
    ASSERT_EQ(s128_toint_ptr(&v), static_cast<int64_t>(x));  // high bits are dropped
    s128 n;
    s128_fromint_ptr(&n, static_cast<int64_t>(x));
    ASSERT_TRUE(native(n) == static_cast<u128>(static_cast<__int128>(static_cast<int64_t>(x))));
  }
}
#endif

}  // namespace
