#include "kernel/datetime_text.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <string>

#include "utils/str_funcs.h"

namespace {

// An independent proleptic Gregorian decomposition: era arithmetic from 1970-01-01, which is
// day 719528 of the day numbering.
void civil_from_days(int64_t day, int64_t* y, int* m, int* d) {
  int64_t z = day - 719528 + 719468;
  int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  int64_t doe = z - era * 146097;
  int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  int64_t mp = (5 * doy + 2) / 153;
  *d = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  *m = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  *y = yoe + era * 400 + (*m <= 2);
}

TEST(Calendar, EveryDayFromYearOneMatchesTheProlepticCalendar) {
  int64_t ey;
  int em, ed;
  for (int64_t day = 366; day <= 3652425; ++day) {
    int y, m, d;
    day_to_ymd(day, &y, &m, &d);
    civil_from_days(day, &ey, &em, &ed);
    ASSERT_TRUE(y == ey && m == em && d == ed) << day << ": " << y << "-" << m << "-" << d;
    ASSERT_EQ(ymd_to_day(y, m, d), day);
  }
}

TEST(Calendar, StartOfTheRangeAndLeapRule) {
  // Days 1 to 364 come out one day early: December 30 of year 0 never appears.
  struct Case {
    int64_t day;
    int y, m, d;
  } cases[] = {{0, -1, 12, 31},  {1, 0, 1, 1},   {60, 0, 2, 29},  {364, 0, 12, 29},
               {365, 0, 12, 31}, {366, 1, 1, 1}, {-1, -1, -1, -1}};
  for (const auto& c : cases) {
    int y, m, d;
    day_to_ymd(c.day, &y, &m, &d);
    EXPECT_TRUE(y == c.y && m == c.m && d == c.d) << c.day << ": " << y << "-" << m << "-" << d;
  }
  for (int64_t y : {0, 4, 2000, -4, -400}) EXPECT_TRUE(is_leap_year(y)) << y;
  for (int64_t y : {1, 1900, -1, -100}) EXPECT_FALSE(is_leap_year(y)) << y;
}

enum Kind { kDate, kTime, kTimestamp, kIntervalDs, kIntervalYm };

std::string text(Kind kind, int64_t v, int f = 0) {
  char buffer[128];
  const size_t size = sizeof buffer;
  int n = kind == kDate         ? date_to_string(buffer, size, static_cast<int32_t>(v))
          : kind == kTime       ? time_to_string(buffer, size, v, f)
          : kind == kTimestamp  ? timestamp_to_string(buffer, size, v, f)
          : kind == kIntervalDs ? intervalds_to_string(buffer, size, v, f)
                                : intervalym_to_string(buffer, size, static_cast<int32_t>(v));
  EXPECT_EQ(n, static_cast<int>(std::strlen(buffer)));
  return buffer;
}

TEST(DateTimeText, Examples) {
  struct Case {
    Kind kind;
    int64_t value;
    int f;
    const char* text;
  } cases[] = {{kDate, 3652425, 0, "10000-01-01"},
               {kTime, 90061, 0, "25:01:01"},
               {kTimestamp, 0, 0, "-001-12-31 00:00:00"},
               {kIntervalDs, -90061, 0, "-1 01:01:01"},
               {kIntervalDs, INT64_MIN, 0, "-106751991167300 15:30:08"},
               {kIntervalYm, INT32_MIN, 0, "-178956970-08"}};
  for (const auto& c : cases) EXPECT_EQ(text(c.kind, c.value, c.f), c.text) << c.value;
}

// The reference: each printer's printf format over fields split as the printers split.
std::string reference(Kind kind, int64_t v, int f) {
  const int64_t u = time_unit(f), a = kind == kIntervalDs && v < 0 ? -v : v;
  const long long m = (a / 60) / u, r = a % (60 * u), h = m / 60, days = h / 24;
  const long long hour = kind == kTime ? h : h - 24 * days;
  char b[128];
  int n = 0;
  if (kind == kTimestamp) {
    int y, mo, d;
    day_to_ymd(days, &y, &mo, &d);
    n = std::snprintf(b, sizeof b, "%04d-%02d-%02d ", y, mo, d);
  } else if (kind == kIntervalDs) {
    n = std::snprintf(b, sizeof b, "%s%lld ", v < 0 ? "-" : "", days);
  }
  if (f == 0)
    std::snprintf(b + n, sizeof b - n, "%02lld:%02lld:%02lld", hour, m - 60 * h, r);
  else
    std::snprintf(b + n, sizeof b - n, "%02lld:%02lld:%02lld.%0*lld", hour, m - 60 * h,
                  static_cast<long long>(r / u), f, static_cast<long long>(r % u));
  return b;
}

TEST(DateTimeText, MatchesPrintfOverRandomSample) {
  const unsigned seed = static_cast<unsigned>(testing::UnitTest::GetInstance()->random_seed());
  std::printf("seed %u\n", seed);
  std::mt19937_64 rng(seed);
  for (int i = 0; i < 30000; ++i) {
    const int f = static_cast<int>(rng() % 10), ft = f > 6 ? 6 : f;
    int64_t v = static_cast<int64_t>(rng() >> (rng() % 64));
    if (rng() % 4 == 0) v = -v;
    if (v == INT64_MIN) v = 0;
    ASSERT_EQ(text(kTime, v, f), reference(kTime, v, f)) << v << " f " << f;
    ASSERT_EQ(text(kIntervalDs, v, f), reference(kIntervalDs, v, f)) << v << " f " << f;
    const int64_t ts = static_cast<int64_t>(rng() % (3652425ull * 86400)) * time_unit(ft) +
                       static_cast<int64_t>(rng() % static_cast<uint64_t>(time_unit(ft)));
    const std::string ts_text = reference(kTimestamp, ts, ft);
    ASSERT_EQ(text(kTimestamp, ts, ft), ts_text) << ts;
    // A short buffer ends as the bounded formatter ends it.
    const size_t size = rng() % 30;
    char expected[32], got[32];
    std::memset(expected, 'x', sizeof expected);
    std::memset(got, 'x', sizeof got);
    ASSERT_EQ(timestamp_to_string(got, size, ts, ft),
              str_bprintf(expected, size, "%s", ts_text.c_str()));
    ASSERT_EQ(std::memcmp(got, expected, sizeof got), 0) << ts_text << " size " << size;
    const int32_t n = static_cast<int32_t>(rng());
    int y, m, d;
    day_to_ymd(n, &y, &m, &d);
    char b[64];
    std::snprintf(b, sizeof b, "%04d-%02d-%02d", y, m, d);
    ASSERT_EQ(text(kDate, n), b) << n;
    const int64_t a = n < 0 ? -static_cast<int64_t>(n) : n;
    std::snprintf(b, sizeof b, "%s%d-%02d", n < 0 ? "-" : "", static_cast<int>(a / 12),
                  static_cast<int>(a % 12));
    ASSERT_EQ(text(kIntervalYm, n), b) << n;
  }
}

}  // namespace
