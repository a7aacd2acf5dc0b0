#include "kernel/datetime_text.h"

#include <array>
#include <cstring>

#include "kernel/digits.h"
#include "kernel/number_text.h"

namespace {

constexpr int kMonthLength[2][12] = {{31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31},
                                     {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31}};

// Builds one calendar table: the month (want_month) or the day of the month of each day.
constexpr std::array<uint8_t, 366> make_table(bool leap, bool want_month) {
  std::array<uint8_t, 366> table{};
  int t = 0;
  for (int m = 0; m < 12; ++m)
    for (int d = 1; d <= kMonthLength[leap][m]; ++d, ++t)
      table[t] = static_cast<uint8_t>(want_month ? m + 1 : d);
  return table;
}

constexpr int64_t kUnit[10] = {1,      10,      100,      1000,      10000,
                               100000, 1000000, 10000000, 100000000, 1000000000};

// Appends v as printf's "%0<width>lld" does: the sign counts toward the width and zeros go
// between the sign and the digits.
char* put_int(char* p, int64_t v, int width) {
  if (v >= 0 && v < 100 && width == 2) {
    put_digit_pair(p, v);
    return p + 2;
  }
  if (v >= 0 && v < 10000 && width == 4) {  // the years of most dates
    put_digit_pair(p, v / 100);
    put_digit_pair(p + 2, v % 100);
    return p + 4;
  }
  uint64_t a = static_cast<uint64_t>(v);
  if (v < 0) {
    *p++ = '-';
    a = 0 - a;
    --width;
  }
  char digits[20];
  int n = 0;
  do {
    digits[n++] = static_cast<char>('0' + a % 10);
    a /= 10;
  } while (a);
  for (int pad = width - n; pad > 0; --pad) *p++ = '0';
  while (n) *p++ = digits[--n];
  return p;
}

int clamp_f(int f) { return f < 0 ? 0 : (f > 9 ? 9 : f); }

// Room for the longest text of any printer here; shorter caller buffers get a bounded copy.
constexpr size_t kWork = 96;

struct Output {
  char* buffer;
  size_t size;
  char local[kWork];
  char* start() { return size >= kWork ? buffer : local; }
  int finish(char* end) {
    size_t length = static_cast<size_t>(end - start());
    if (start() == buffer) {
      *end = 0;
      return static_cast<int>(length);
    }
    return bounded_copy(buffer, size, local, length);
  }
};

char* put_date(char* p, int64_t day) {
  int y, m, d;
  day_to_ymd(day, &y, &m, &d);
  p = put_int(p, y, 4);
  *p++ = '-';
  p = put_int(p, m, 2);
  *p++ = '-';
  return put_int(p, d, 2);
}

// Hours, minutes, seconds and the fraction of a split time value.
struct Clock {
  int64_t hours;
  int64_t minutes;
  int64_t seconds;
  int64_t fraction;
};

// Truncating divisions, as signed integer division behaves; hours are left whole.
Clock split_time(int64_t v, int f) {
  int64_t u = kUnit[f];
  int64_t m = (v / 60) / u;
  int64_t r = v % (60 * u);
  int64_t h = m / 60;
  return {h, m - 60 * h, f ? r / u : r, f ? r % u : 0};
}

char* put_clock(char* p, const Clock& c, int f) {
  p = put_int(p, c.hours, 2);
  *p++ = ':';
  p = put_int(p, c.minutes, 2);
  *p++ = ':';
  p = put_int(p, c.seconds, 2);
  if (f > 0) {
    *p++ = '.';
    p = put_int(p, c.fraction, f);
  }
  return p;
}

}  // namespace

constinit const std::array<uint8_t, 366> kMonthOfDayCommon = make_table(false, true);
constinit const std::array<uint8_t, 366> kMonthOfDayLeap = make_table(true, true);
constinit const std::array<uint8_t, 366> kMdayOfDayCommon = make_table(false, false);
constinit const std::array<uint8_t, 366> kMdayOfDayLeap = make_table(true, false);

namespace {

// From day 366 (1 January of year 1) on, day numbers count the days since 1 January of a year 0
// that was a leap year, as in the proleptic Gregorian calendar. There the date follows from a
// few multiplications in a calendar that starts on 1 March (so that the leap day ends a year);
// the constants turn divisions by 146097, 1461 and 153 into multiplications and shifts. Exact
// while 4 * (day - 60) + 3 fits 32 bits.
constexpr int64_t kFastDayEnd = (int64_t{1} << 30) - 1;

void fast_day_to_ymd(int64_t day, int* year, int* month, int* mday) {
  const auto n = static_cast<uint32_t>(day - 60);  // days since 1 March of year 0
  const uint32_t n1 = 4 * n + 3;
  const uint32_t century = n1 / 146097;
  const uint32_t n2 = (n1 % 146097) | 3;
  const uint64_t p2 = uint64_t{2939745} * n2;
  const auto year_of_century = static_cast<uint32_t>(p2 >> 32);
  const auto day_of_year = static_cast<uint32_t>(p2) / 2939745 / 4;
  const uint32_t n3 = 2141 * day_of_year + 197913;
  const uint32_t m = n3 >> 16;
  const bool january_or_february = day_of_year >= 306;
  *year = static_cast<int>(100 * century + year_of_century + january_or_february);
  *month = static_cast<int>(january_or_february ? m - 12 : m);
  *mday = static_cast<int>((n3 & 0xFFFF) / 2141 + 1);
}

}  // namespace

bool is_leap_year(int64_t year) { return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0); }

int64_t time_unit(int f) { return kUnit[f]; }

void day_to_ymd(int64_t day, int* year, int* month, int* mday) {
  if (day >= 366 && day < kFastDayEnd) return fast_day_to_ymd(day, year, month, mday);
  if (day < 0) {
    *year = *month = *mday = -1;
    return;
  }
  // The estimate's leap-day count truncates toward zero at y = 0, which shifts year 0 and gives
  // day 0 to year -1. From day 366 on any estimate not below the true year ends on the same date;
  // day * 400 / 146097 + 1 is one, and needs at most one step back.
  int64_t y = day < 366 ? day / 365 : day * 400 / 146097 + 1;
  int64_t t = day - 1 - 365 * y - ((y - 1) / 4 - (y - 1) / 100 + (y - 1) / 400);
  while (t < 0) {
    --y;
    t += is_leap_year(y) ? 366 : 365;
  }
  bool leap = is_leap_year(y);
  *year = static_cast<int>(y);
  *month = (leap ? kMonthOfDayLeap : kMonthOfDayCommon)[static_cast<size_t>(t)];
  *mday = (leap ? kMdayOfDayLeap : kMdayOfDayCommon)[static_cast<size_t>(t)];
}

int64_t ymd_to_day(int year, int month, int mday) {
  int64_t y = year;
  int64_t day = 365 * y + (y - 1) / 4 - (y - 1) / 100 + (y - 1) / 400 + 1;
  bool leap = is_leap_year(y);
  for (int m = 1; m < month; ++m) day += kMonthLength[leap][m - 1];
  return day + mday - 1;
}

int date_to_string(char* buffer, size_t size, int32_t day) {
  Output out{buffer, size, {}};
  return out.finish(put_date(out.start(), day));
}

int time_to_string(char* buffer, size_t size, int64_t value, int f) {
  f = clamp_f(f);
  Output out{buffer, size, {}};
  return out.finish(put_clock(out.start(), split_time(value, f), f));
}

int timestamp_to_string(char* buffer, size_t size, int64_t value, int f) {
  f = clamp_f(f);
  Clock c = split_time(value, f);
  int64_t days = c.hours / 24;
  c.hours -= 24 * days;
  Output out{buffer, size, {}};
  char* p = put_date(out.start(), days);
  *p++ = ' ';
  return out.finish(put_clock(p, c, f));
}

int intervalds_to_string(char* buffer, size_t size, int64_t value, int f) {
  f = clamp_f(f);
  // The magnitude is split unsigned so that the most negative value has one too.
  uint64_t a = value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
  uint64_t u = static_cast<uint64_t>(kUnit[f]);
  uint64_t m = (a / 60) / u;
  uint64_t r = a % (60 * u);
  uint64_t h = m / 60;
  uint64_t days = h / 24;
  Clock c{static_cast<int64_t>(h - 24 * days), static_cast<int64_t>(m - 60 * h),
          static_cast<int64_t>(f ? r / u : r), static_cast<int64_t>(f ? r % u : 0)};
  Output out{buffer, size, {}};
  char* p = out.start();
  if (value < 0) *p++ = '-';
  p = put_int(p, static_cast<int64_t>(days), 0);
  *p++ = ' ';
  return out.finish(put_clock(p, c, f));
}

int intervalym_to_string(char* buffer, size_t size, int32_t months) {
  int64_t a = months < 0 ? -static_cast<int64_t>(months) : months;
  int64_t years = a / 12;
  Output out{buffer, size, {}};
  char* p = out.start();
  if (months < 0) *p++ = '-';
  p = put_int(p, years, 0);
  *p++ = '-';
  return out.finish(put_int(p, a - 12 * years, 2));
}

namespace {

// A cursor over reader input.
struct Reader {
  const char* p;

  static bool is_digit(char c) { return c >= '0' && c <= '9'; }
  void blanks() {
    while (*p == ' ' || *p == '\t') ++p;
  }
  bool lit(char c) {
    if (*p != c) return false;
    ++p;
    return true;
  }
  // min to max digits, and no digit right after them.
  bool digits(int min, int max, int64_t* v) {
    int n = 0;
    int64_t x = 0;
    for (; n < max && is_digit(*p); ++n, ++p) x = x * 10 + (*p - '0');
    if (n < min || is_digit(*p)) return false;
    *v = x;
    return true;
  }
  bool at_end() {
    blanks();
    return *p == 0;
  }
};

bool read_date(Reader& r, int64_t* day) {
  int64_t y, m, d;
  if (!r.digits(1, 4, &y) || !r.lit('-') || !r.digits(1, 2, &m) || !r.lit('-') ||
      !r.digits(1, 2, &d))
    return false;
  if (y < 1 || m < 1 || m > 12 || d < 1 || d > kMonthLength[is_leap_year(y)][m - 1]) return false;
  *day = ymd_to_day(static_cast<int>(y), static_cast<int>(m), static_cast<int>(d));
  return true;
}

// H:MM:SS[.fraction] in units of 10^-f seconds; fraction digits past f are dropped.
bool read_clock(Reader& r, int f, int64_t* value) {
  int64_t h, m, s;
  if (!r.digits(1, 2, &h) || !r.lit(':') || !r.digits(2, 2, &m) || !r.lit(':') ||
      !r.digits(2, 2, &s))
    return false;
  if (h > 23 || m > 59 || s > 59) return false;
  int64_t fraction = 0;
  int n = 0;
  if (r.lit('.')) {
    if (!Reader::is_digit(*r.p)) return false;
    for (; Reader::is_digit(*r.p); ++r.p, ++n)
      if (n < f) fraction = fraction * 10 + (*r.p - '0');
  }
  for (; n < f; ++n) fraction *= 10;
  *value = ((h * 60 + m) * 60 + s) * kUnit[f] + fraction;
  return true;
}

// Largest day count whose whole days, plus a day's worth of units, fit in 64 bits.
int64_t max_days(int f) { return INT64_MAX / (86400 * kUnit[f]) - 1; }

}  // namespace

bool date_from_string(const char* text, int32_t* day) {
  Reader r{text};
  r.blanks();
  int64_t d;
  if (!read_date(r, &d) || !r.at_end()) return false;
  *day = static_cast<int32_t>(d);
  return true;
}

bool time_from_string(const char* text, int f, int64_t* value) {
  f = clamp_f(f);
  Reader r{text};
  r.blanks();
  int64_t v;
  if (!read_clock(r, f, &v) || !r.at_end()) return false;
  *value = v;
  return true;
}

bool timestamp_from_string(const char* text, int f, int64_t* value) {
  f = clamp_f(f);
  Reader r{text};
  r.blanks();
  int64_t day, clock = 0;
  if (!read_date(r, &day) || day > max_days(f)) return false;
  const char* after_date = r.p;
  if (!r.at_end()) {
    r.p = after_date;
    if (!r.lit('T')) {
      if (*r.p != ' ' && *r.p != '\t') return false;
      r.blanks();
    }
    if (!read_clock(r, f, &clock) || !r.at_end()) return false;
  }
  *value = day * 86400 * kUnit[f] + clock;
  return true;
}

bool intervalds_from_string(const char* text, int f, int64_t* value) {
  f = clamp_f(f);
  Reader r{text};
  r.blanks();
  bool negative = r.lit('-');
  int64_t days = 0, clock;
  const char* start = r.p;
  if (!r.digits(1, 18, &days) || (*r.p != ' ' && *r.p != '\t')) {
    r.p = start;
    days = 0;
  }
  r.blanks();
  if (days > max_days(f) || !read_clock(r, f, &clock) || !r.at_end()) return false;
  int64_t v = days * 86400 * kUnit[f] + clock;
  *value = negative ? -v : v;
  return true;
}

bool intervalym_from_string(const char* text, int32_t* months) {
  Reader r{text};
  r.blanks();
  bool negative = r.lit('-');
  int64_t y, m;
  if (!r.digits(1, 8, &y) || !r.lit('-') || !r.digits(1, 2, &m) || m > 11 || !r.at_end())
    return false;
  int64_t v = y * 12 + m;
  *months = static_cast<int32_t>(negative ? -v : v);
  return true;
}
