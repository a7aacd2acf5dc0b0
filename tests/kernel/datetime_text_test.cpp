#include "kernel/datetime_text.h"

#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>

#include "utils/str_funcs.h"

namespace {

unsigned test_seed() {
  unsigned seed = static_cast<unsigned>(testing::UnitTest::GetInstance()->random_seed());
  std::printf("seed %u\n", seed);
  return seed;
}

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

TEST(Calendar, StartOfTheRange) {
  struct Case {
    int64_t day;
    int y, m, d;
  } cases[] = {
      {0, -1, 12, 31}, {1, 0, 1, 1},         {59, 0, 2, 28},
      {60, 0, 2, 29},  {364, 0, 12, 30 - 1}, {365, 0, 12, 31},
      {366, 1, 1, 1},  {-1, -1, -1, -1},     {-100000, -1, -1, -1},
  };
  for (const auto& c : cases) {
    int y, m, d;
    day_to_ymd(c.day, &y, &m, &d);
    EXPECT_EQ(y, c.y) << c.day;
    EXPECT_EQ(m, c.m) << c.day;
    EXPECT_EQ(d, c.d) << c.day;
  }
  // Days 1 to 364 come out one day early: December 30 of year 0 never appears.
  for (int64_t day = 0; day <= 365; ++day) {
    int y, m, d;
    day_to_ymd(day, &y, &m, &d);
    EXPECT_FALSE(y == 0 && m == 12 && d == 30) << day;
  }
}

TEST(Calendar, TablesAndLeapRule) {
  EXPECT_EQ(kMonthOfDayLeap[59], 2);
  EXPECT_EQ(kMdayOfDayLeap[59], 29);
  EXPECT_EQ(kMonthOfDayCommon[59], 3);
  EXPECT_EQ(kMdayOfDayCommon[59], 1);
  EXPECT_EQ(kMonthOfDayCommon[364], 12);
  EXPECT_EQ(kMdayOfDayCommon[364], 31);
  EXPECT_EQ(kMdayOfDayLeap[365], 31);
  const int64_t leap[] = {0, 4, 400, 2000, 2024, -4, -400};
  const int64_t common[] = {1, 100, 1900, 2023, -1, -100, -1900};
  for (int64_t y : leap) EXPECT_TRUE(is_leap_year(y)) << y;
  for (int64_t y : common) EXPECT_FALSE(is_leap_year(y)) << y;
}

std::string date(int32_t day) {
  char buffer[64];
  int n = date_to_string(buffer, sizeof buffer, day);
  EXPECT_EQ(n, static_cast<int>(std::strlen(buffer)));
  return buffer;
}

using Printer = int (*)(char*, size_t, int64_t, int);

std::string text(Printer printer, int64_t v, int f) {
  char buffer[128];
  int n = printer(buffer, sizeof buffer, v, f);
  EXPECT_EQ(n, static_cast<int>(std::strlen(buffer)));
  return buffer;
}

std::string ym(int32_t months) {
  char buffer[64];
  int n = intervalym_to_string(buffer, sizeof buffer, months);
  EXPECT_EQ(n, static_cast<int>(std::strlen(buffer)));
  return buffer;
}

TEST(DateTimeText, Examples) {
  EXPECT_EQ(date(719528), "1970-01-01");
  EXPECT_EQ(date(3652424), "9999-12-31");
  EXPECT_EQ(date(3652425), "10000-01-01");
  EXPECT_EQ(date(366), "0001-01-01");
  EXPECT_EQ(date(0), "-001-12-31");
  EXPECT_EQ(date(-5), "-001--1--1");
  EXPECT_EQ(text(time_to_string, 0, 0), "00:00:00");
  EXPECT_EQ(text(time_to_string, 90061, 0), "25:01:01");
  EXPECT_EQ(text(time_to_string, 45296789, 3), "12:34:56.789");
  EXPECT_EQ(text(time_to_string, 5, 6), "00:00:00.000005");
  EXPECT_EQ(text(time_to_string, 86399999999999, 9), "23:59:59.999999999");
  EXPECT_EQ(text(time_to_string, -1, 0), "00:00:-1");
  EXPECT_EQ(text(time_to_string, -1, 3), "00:00:00.-01");
  EXPECT_EQ(text(timestamp_to_string, 0, 0), "-001-12-31 00:00:00");
  EXPECT_EQ(text(timestamp_to_string, 719528LL * 86400 * 1000 + 1, 3), "1970-01-01 00:00:00.001");
  EXPECT_EQ(text(intervalds_to_string, -90061, 0), "-1 01:01:01");
  EXPECT_EQ(text(intervalds_to_string, 0, 0), "0 00:00:00");
  EXPECT_EQ(text(intervalds_to_string, 864000000015, 2), "100000 00:00:00.15");
  EXPECT_EQ(text(intervalds_to_string, INT64_MIN, 0), "-106751991167300 15:30:08");
  EXPECT_EQ(ym(0), "0-00");
  EXPECT_EQ(ym(-1), "-0-01");
  EXPECT_EQ(ym(14), "1-02");
  EXPECT_EQ(ym(-14), "-1-02");
  EXPECT_EQ(ym(INT32_MIN), "-178956970-08");
}

// The reference: the printf format of each printer over fields split as the printers split.
struct Fields {
  int64_t h, mi, s, frac;
};

Fields split(int64_t v, int64_t u, int f) {
  int64_t m = (v / 60) / u, r = v % (60 * u), h = m / 60;
  return {h, m - 60 * h, f ? r / u : r, f ? r % u : 0};
}

std::string reference_time(int64_t v, int f) {
  Fields x = split(v, time_unit(f), f);
  char b[128];
  if (f == 0)
    std::snprintf(b, sizeof b, "%02lld:%02lld:%02lld", (long long)x.h, (long long)x.mi,
                  (long long)x.s);
  else
    std::snprintf(b, sizeof b, "%02lld:%02lld:%02lld.%0*lld", (long long)x.h, (long long)x.mi,
                  (long long)x.s, f, (long long)x.frac);
  return b;
}

std::string reference_timestamp(int64_t v, int f) {
  Fields x = split(v, time_unit(f), f);
  int64_t d = x.h / 24;
  int y, m, dd;
  day_to_ymd(d, &y, &m, &dd);
  char b[128];
  if (f == 0)
    std::snprintf(b, sizeof b, "%04d-%02d-%02d %02lld:%02lld:%02lld", y, m, dd,
                  (long long)(x.h - 24 * d), (long long)x.mi, (long long)x.s);
  else
    std::snprintf(b, sizeof b, "%04d-%02d-%02d %02lld:%02lld:%02lld.%0*lld", y, m, dd,
                  (long long)(x.h - 24 * d), (long long)x.mi, (long long)x.s, f, (long long)x.frac);
  return b;
}

std::string reference_intervalds(int64_t v, int f) {
  Fields x = split(v < 0 ? -v : v, time_unit(f), f);
  int64_t d = x.h / 24;
  char b[128];
  const char* sign = v < 0 ? "-" : "";
  if (f == 0)
    std::snprintf(b, sizeof b, "%s%lld %02lld:%02lld:%02lld", sign, (long long)d,
                  (long long)(x.h - 24 * d), (long long)x.mi, (long long)x.s);
  else
    std::snprintf(b, sizeof b, "%s%lld %02lld:%02lld:%02lld.%0*lld", sign, (long long)d,
                  (long long)(x.h - 24 * d), (long long)x.mi, (long long)x.s, f, (long long)x.frac);
  return b;
}

TEST(DateTimeText, MatchesPrintfOverRandomSample) {
  std::mt19937_64 rng(test_seed());
  for (int i = 0; i < 30000; ++i) {
    int f = static_cast<int>(rng() % 10);
    int64_t v = static_cast<int64_t>(rng() >> (rng() % 64));
    if (rng() % 4 == 0) v = -v;
    if (v == INT64_MIN) v = 0;
    ASSERT_EQ(text(time_to_string, v, f), reference_time(v, f)) << v << " f " << f;
    ASSERT_EQ(text(intervalds_to_string, v, f), reference_intervalds(v, f)) << v << " f " << f;
    int ft = f > 6 ? 6 : f;
    int64_t ts = static_cast<int64_t>(rng() % (3652425ull * 86400)) * time_unit(ft) +
                 static_cast<int64_t>(rng() % static_cast<uint64_t>(time_unit(ft)));
    ASSERT_EQ(text(timestamp_to_string, ts, ft), reference_timestamp(ts, ft)) << ts;
    int32_t day = static_cast<int32_t>(rng());
    int y, m, d;
    day_to_ymd(day, &y, &m, &d);
    char b[64];
    std::snprintf(b, sizeof b, "%04d-%02d-%02d", y, m, d);
    ASSERT_EQ(date(day), b) << day;
    int32_t months = static_cast<int32_t>(rng());
    int64_t a = months < 0 ? -static_cast<int64_t>(months) : months;
    std::snprintf(b, sizeof b, "%s%d-%02d", months < 0 ? "-" : "", static_cast<int>(a / 12),
                  static_cast<int>(a % 12));
    ASSERT_EQ(ym(months), b) << months;
  }
}

TEST(DateTimeText, ShortBuffersBehaveAsTheBoundedFormatter) {
  for (size_t size = 0; size < 30; ++size) {
    char expected[32], got[32];
    std::memset(expected, 'x', sizeof expected);
    std::memset(got, 'x', sizeof got);
    int e = str_bprintf(expected, size, "%s", "1970-01-01 00:00:00.001");
    EXPECT_EQ(timestamp_to_string(got, size, 719528LL * 86400 * 1000 + 1, 3), e) << size;
    EXPECT_EQ(std::memcmp(got, expected, sizeof got), 0) << size;
  }
}

TEST(DateTimeReaders, RoundTripEveryFormat) {
  int32_t day;
  ASSERT_TRUE(date_from_string(" 1970-01-01 ", &day));
  EXPECT_EQ(day, 719528);
  ASSERT_TRUE(date_from_string("1-1-1", &day));
  EXPECT_EQ(day, 366);
  ASSERT_TRUE(date_from_string("9999-12-31", &day));
  EXPECT_EQ(day, 3652424);
  int64_t v;
  ASSERT_TRUE(time_from_string("12:34:56.789", 3, &v));
  EXPECT_EQ(v, 45296789);
  ASSERT_TRUE(time_from_string("00:00:00.000005", 6, &v));
  EXPECT_EQ(v, 5);
  ASSERT_TRUE(time_from_string("1:02:03.9", 0, &v));
  EXPECT_EQ(v, 3723);
  ASSERT_TRUE(timestamp_from_string("1970-01-01 00:00:01.5", 1, &v));
  EXPECT_EQ(v, (719528LL * 86400 + 1) * 10 + 5);
  ASSERT_TRUE(intervalds_from_string("-1 01:01:01", 0, &v));
  EXPECT_EQ(v, -90061);
  ASSERT_TRUE(intervalds_from_string("-01:01:01", 0, &v));
  EXPECT_EQ(v, -3661);
  int32_t months;
  ASSERT_TRUE(intervalym_from_string("-1-02", &months));
  EXPECT_EQ(months, -14);

  std::mt19937_64 rng(test_seed());
  for (int i = 0; i < 5000; ++i) {
    int f = static_cast<int>(rng() % 7);
    int64_t ts = static_cast<int64_t>(366 + rng() % (3652425ull - 366)) * 86400 * time_unit(f) +
                 static_cast<int64_t>(rng() % (86400ull * static_cast<uint64_t>(time_unit(f))));
    ASSERT_TRUE(timestamp_from_string(text(timestamp_to_string, ts, f).c_str(), f, &v));
    ASSERT_EQ(v, ts);
    int64_t iv = static_cast<int64_t>(rng() % (1ull << 50)) * (rng() & 1 ? -1 : 1);
    ASSERT_TRUE(intervalds_from_string(text(intervalds_to_string, iv, f).c_str(), f, &v));
    ASSERT_EQ(v, iv);
  }
}

TEST(DateTimeReaders, RefuseEverythingElse) {
  const char* dates[] = {"",           "today",        "2023-02-29",  "2023-13-01",
                         "2023-00-10", "2023-01-00",   "0-01-01",     "12345-01-01",
                         "2023/01/01", "2023-01-01 x", "-2023-01-01", "2023-001-01",
                         "2023-1"};
  int32_t day = 77;
  for (const char* t : dates) EXPECT_FALSE(date_from_string(t, &day)) << t;
  EXPECT_EQ(day, 77);
  const char* times[] = {"",          "24:00:00",   "12:5:00", "12:00:60", "12:00",
                         "12:00:00.", "12:00:00.x", "am",      "-1:00:00", "123:00:00"};
  int64_t v = 77;
  for (const char* t : times) EXPECT_FALSE(time_from_string(t, 3, &v)) << t;
  const char* stamps[] = {"2023-01-01 25:00:00", "2023-01-01x12:00:00", "2023-01-01T", "12:00:00"};
  for (const char* t : stamps) EXPECT_FALSE(timestamp_from_string(t, 3, &v)) << t;
  EXPECT_FALSE(timestamp_from_string("9999-12-31 00:00:00", 9, &v));  // past 64 bits
  const char* intervals[] = {"1 24:00:00", "1234567890123456789 00:00:00", "- 1 00:00:00", "1 day",
                             "--1 00:00:00"};
  for (const char* t : intervals) EXPECT_FALSE(intervalds_from_string(t, 0, &v)) << t;
  EXPECT_FALSE(intervalds_from_string("200000 00:00:00", 9, &v));  // past 64 bits
  EXPECT_EQ(v, 77);
  const char* yms[] = {"1-12", "1", "-", "1-", "123456789-01", "1-02-03"};
  int32_t months = 77;
  for (const char* t : yms) EXPECT_FALSE(intervalym_from_string(t, &months)) << t;
  EXPECT_EQ(months, 77);
}

}  // namespace
