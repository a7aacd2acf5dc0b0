// Text of dates, times of day, timestamps and intervals, which are stored as integers in a fixed
// unit, and the readers that turn such text back into those integers.
//
// Day numbers count from day 0 = 0000-01-01 of the proleptic Gregorian calendar (year 0 is a
// leap year): 0001-01-01 is day 366, 1970-01-01 is day 719528, 9999-12-31 is day 3652424. A time
// of day, a timestamp or a day-second interval with f fractional digits counts units of 10^-f
// seconds; a year-month interval counts months.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

// Calendar tables indexed by the 0-based day of the year: month (1-12) and day of the month, for
// a common year (entry 365 unused, 0) and a leap year.
extern const std::array<uint8_t, 366> kMonthOfDayCommon;
extern const std::array<uint8_t, 366> kMonthOfDayLeap;
extern const std::array<uint8_t, 366> kMdayOfDayCommon;
extern const std::array<uint8_t, 366> kMdayOfDayLeap;

// Divisible by 4, except by 100 and not by 400; negative years follow the rule on |y|.
bool is_leap_year(int64_t year);
// 10^f for f = 0..9. REQUIRES: 0 <= f <= 9.
int64_t time_unit(int f);

// Calendar decomposition. A negative day gives -1, -1, -1. Day 0 decodes as -1-12-31, days
// 1..364 one day early within year 0, day 365 as 0000-12-31; from day 366 on every day is its
// proleptic Gregorian date.
void day_to_ymd(int64_t day, int* year, int* month, int* mday);
// Day number of a valid date of year 1 or later (the inverse of day_to_ymd there).
int64_t ymd_to_day(int year, int month, int mday);

// Printers. Each writes the bytes of the printf format named and returns what str_bprintf
// would: the length, or -1 when the text does not fit (cut text, terminated on the last byte).
// f above 9 is taken as 9.
int date_to_string(char* buffer, size_t size, int32_t day);  // "%04d-%02d-%02d"
// "%02lld:%02lld:%02lld" then ".%0*lld" when f > 0; hours are not reduced modulo 24.
int time_to_string(char* buffer, size_t size, int64_t value, int f);
// "%04d-%02d-%02d %02lld:%02lld:%02lld" then ".%0*lld" when f > 0.
int timestamp_to_string(char* buffer, size_t size, int64_t value, int f);
// "%s%lld %02lld:%02lld:%02lld" (sign, days, hours, minutes, seconds) then ".%0*lld" when f > 0.
int intervalds_to_string(char* buffer, size_t size, int64_t value, int f);
// "%s%d-%02d" of sign, years and months.
int intervalym_to_string(char* buffer, size_t size, int32_t months);

// Readers: blanks around the text are allowed; anything else outside the grammar returns false
// and leaves the result untouched. Fraction digits beyond f are dropped (truncation).
//   date        Y-M-D, year 1..9999 in 1 to 4 digits, month and day in 1 or 2 digits, a real date
//   time        H:MM:SS[.fraction], hours 0..23, minutes and seconds 0..59
//   timestamp   date, or date then ' ' or 'T' then time
//   intervalds  [-][D ]H:MM:SS[.fraction], days in 1 to 18 digits, hours 0..23, the total in the
//               signed 64-bit range
//   intervalym  [-]Y-M, years in 1 to 8 digits, months 0..11
bool date_from_string(const char* text, int32_t* day);
bool time_from_string(const char* text, int f, int64_t* value);
bool timestamp_from_string(const char* text, int f, int64_t* value);
bool intervalds_from_string(const char* text, int f, int64_t* value);
bool intervalym_from_string(const char* text, int32_t* months);
