#include "utils/platform.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <random>
#include <thread>
#include <vector>

namespace {

// Days since 1970-01-01 by the closed-form civil calendar, independent of the year-by-year sum.
int64_t days_from_civil(int64_t y, int m, int d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const int64_t yoe = y - era * 400;
  const int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

TEST(UtcFieldsToSeconds, KnownDates) {
  struct Case {
    int y, mo, d, h, mi, s;
    int64_t want;
  };
  const Case cases[] = {
      {1970, 1, 1, 0, 0, 0, 0},
      {1972, 12, 31, 23, 59, 59, 94694399},  // end of the first leap year
      {2000, 3, 1, 0, 0, 0, 951868800},      // 2000 is a leap year (divisible by 400)
      {2038, 1, 19, 3, 14, 7, 2147483647},   // the last second a 32-bit count holds
      {2100, 3, 1, 0, 0, 0, 4107542400},     // February 2100 has 28 days
  };
  for (const Case& c : cases) {
    EXPECT_EQ(utc_fields_to_seconds(c.y, c.mo, c.d, c.h, c.mi, c.s), c.want) << c.y;
  }
}

TEST(UtcFieldsToSeconds, AgreesWithCivilCalendarOnRandomDates) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  for (int i = 0; i < 2000; ++i) {
    const int y = 1970 + static_cast<int>(rng() % 400);
    const int m = 1 + static_cast<int>(rng() % 12);
    const int d = 1 + static_cast<int>(rng() % 28);
    const int h = static_cast<int>(rng() % 24), mi = static_cast<int>(rng() % 60),
              s = static_cast<int>(rng() % 60);
    const int64_t want = days_from_civil(y, m, d) * 86400 + h * 3600 + mi * 60 + s;
    ASSERT_EQ(utc_fields_to_seconds(y, m, d, h, mi, s), want) << y << "-" << m << "-" << d;
  }
}

TEST(Clock, ReadingsAgreeWithTheSystemClock) {
  TimeVal tv{-1, -1};
  const int64_t before = static_cast<int64_t>(std::time(nullptr));
  ASSERT_EQ(gettimeofday(&tv, nullptr), 0);
  const int64_t day = current_day_number(), usec = current_time_usec();
  const int64_t midnight = current_usec_since_midnight();
  const int64_t after = static_cast<int64_t>(std::time(nullptr));
  EXPECT_GE(tv.tv_sec, before);
  EXPECT_LE(tv.tv_sec, after);
  EXPECT_GE(tv.tv_usec, 0);
  EXPECT_LT(tv.tv_usec, 1000000);
  EXPECT_EQ(tv.tv_usec % 1000, 0);  // millisecond resolution
  // Days since year 0; microseconds since year 0 divided by a day give the day number.
  EXPECT_GE(day, before / 86400 + 719528);
  EXPECT_LE(day, after / 86400 + 719528);
  EXPECT_GE(usec / 86400000000LL, day);
  EXPECT_LE(usec / 86400000000LL, day + 1);  // midnight may pass in between
  EXPECT_GE(midnight, 0);
  EXPECT_LT(midnight, 86400000000LL);
  const LocalTime t = local_time_now();
  EXPECT_GE(t.year, 2020);
  EXPECT_TRUE(t.month >= 1 && t.month <= 12 && t.day >= 1 && t.day <= 31) << t.month << t.day;
  EXPECT_TRUE(t.hour < 24 && t.minute < 60 && t.second <= 60 && t.usec < 1000000);
}

TEST(Process, IdsAndEnvironment) {
  EXPECT_GT(current_process_id(), 0);
  const uint32_t main_id = current_thread_id();
  uint32_t other_id = main_id;
  std::thread([&] { other_id = current_thread_id(); }).join();
  EXPECT_NE(other_id, main_id);
  ASSERT_EQ(platform_setenv("KEST_PLATFORM_TEST_VAR", "a value"), 0);
  EXPECT_STREQ(std::getenv("KEST_PLATFORM_TEST_VAR"), "a value");
  ASSERT_EQ(platform_setenv("KEST_PLATFORM_TEST_VAR", nullptr), 0);
  const char* gone = std::getenv("KEST_PLATFORM_TEST_VAR");
  EXPECT_TRUE(gone == nullptr || *gone == '\0');
}

TEST(Lock, IsRecursiveForItsOwnerAndExcludesOthers) {
  Lock* lock = lock_create();
  ASSERT_NE(lock, nullptr);
  lock_acquire(lock);
  EXPECT_TRUE(lock_try_acquire(lock));  // the owner may take it again
  auto other_can_take = [&] {
    bool taken = false;
    std::thread([&] {
      taken = lock_try_acquire(lock);
      if (taken) lock_release(lock);
    }).join();
    return taken;
  };
  EXPECT_FALSE(other_can_take());
  lock_release(lock);
  EXPECT_FALSE(other_can_take());  // still held once
  lock_release(lock);
  EXPECT_TRUE(other_can_take());
  lock_destroy(lock);
  lock_destroy(nullptr);
}

TEST(Lock, SerialisesIncrementsFromManyThreads) {
  Lock* lock = lock_create();
  ASSERT_NE(lock, nullptr);
  int64_t counter = 0;  // deliberately not atomic: only the lock protects it
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 20000; ++i) {
        LockGuard guard(lock);
        ++counter;
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(counter, 80000);
  lock_destroy(lock);
}

TEST(TimedLock, UncontendedUseNeverTouchesTheWaitCounters) {
  TimedLock* lock = timed_lock_create();
  ASSERT_NE(lock, nullptr);
  for (int i = 0; i < 100; ++i) {
    timed_lock_acquire(lock);
    timed_lock_release(lock);
  }
  const TimedLockStats s = timed_lock_stats(lock);
  EXPECT_EQ(s.acquisitions, 100u);
  EXPECT_EQ(s.contended, 0u);
  EXPECT_EQ(s.wait_min, std::numeric_limits<uint64_t>::max());
  EXPECT_EQ(s.wait_max, 0u);
  EXPECT_EQ(s.wait_total, 0u);
  EXPECT_LE(s.hold_min, s.hold_max);
  EXPECT_GE(s.hold_total, s.hold_max);
  timed_lock_destroy(lock);
}

// A reservation not above the size gives exactly the size rounded to pages; one above it is
// rounded to the allocation granularity.
TEST(VirtualMemory, ReserveAndCommitRoundsTheReservation) {
  struct Case {
    size_t size, reserve, want_reserved;
  };
  const Case cases[] = {
      {5000, 0, 8192},
      {65536, 65536, 65536},
      {70000, 65536, 73728},
      {5000, 100000, 131072},
  };
  for (const Case& c : cases) {
    size_t reserved = c.reserve;
    auto* p = static_cast<unsigned char*>(vm_reserve_commit(c.size, &reserved));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reserved, c.want_reserved) << "size " << c.size << " reserve " << c.reserve;
    const size_t committed = std::min(reserved, (c.size + 4095) / 4096 * 4096);
    std::memset(p, 0xAB, committed);  // all of the committed part is usable
    EXPECT_EQ(p[committed - 1], 0xAB);
    vm_release(p, reserved);
  }
}

TEST(VirtualMemory, ResizeGrowsInPlaceWithinTheReservationAndMovesBeyondIt) {
  size_t reserved = 1 << 20;
  auto* p = static_cast<unsigned char*>(vm_reserve_commit(4096, &reserved));
  ASSERT_NE(p, nullptr);
  ASSERT_EQ(reserved, size_t{1} << 20);
  for (int i = 0; i < 4096; ++i) p[i] = static_cast<unsigned char>(i * 7);

  auto* grown = static_cast<unsigned char*>(vm_resize(p, 4096, 200000, 0, &reserved));
  ASSERT_EQ(grown, p);  // inside the reservation, which is written back
  EXPECT_EQ(reserved, size_t{1} << 20);
  std::memset(grown + 4096, 2, 200000 - 4096);

  auto* shrunk = static_cast<unsigned char*>(vm_resize(grown, 200000, 8192, 0, &reserved));
  ASSERT_EQ(shrunk, p);
  EXPECT_EQ(shrunk[4095], static_cast<unsigned char>(4095 * 7));

  size_t want = 4u << 20;
  auto* moved = static_cast<unsigned char*>(vm_resize(shrunk, 8192, 3u << 20, want, &reserved));
  ASSERT_NE(moved, nullptr);
  EXPECT_EQ(reserved, size_t{4} << 20);  // the wanted reservation
  for (int i = 0; i < 4096; ++i) ASSERT_EQ(moved[i], static_cast<unsigned char>(i * 7)) << i;
  std::memset(moved, 3, 3u << 20);
  vm_release(moved, reserved);
}

// Without large pages the large forms behave as the plain ones.
TEST(VirtualMemory, LargeFormsWorkWithoutLargePages) {
  EXPECT_EQ(large_page_size(), 0u);
  size_t reserved = 0;
  auto* p = static_cast<unsigned char*>(vm_reserve_commit_large(10000, &reserved));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(reserved, 12288u);
  std::memset(p, 5, reserved);
  auto* q = static_cast<unsigned char*>(vm_resize_large(p, 10000, 100000, 0, &reserved));
  ASSERT_NE(q, nullptr);
  EXPECT_EQ(q[9999], 5);
  std::memset(q, 6, 100000);
  vm_release(q, reserved);
}

}  // namespace
