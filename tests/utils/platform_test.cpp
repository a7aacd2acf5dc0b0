#include "utils/platform.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <limits>
#include <random>
#include <string>
#include <thread>

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
  EXPECT_EQ(utc_fields_to_seconds(2000, 3, 1, 0, 0, 0), 951868800);   // 2000 is a leap year
  EXPECT_EQ(utc_fields_to_seconds(2100, 3, 1, 0, 0, 0), 4107542400);  // February 2100 has 28 days
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

TEST(Clock, GettimeofdayAgreesWithTheSystemClock) {
  TimeVal tv{-1, -1};
  const int64_t before = static_cast<int64_t>(std::time(nullptr));
  ASSERT_EQ(gettimeofday(&tv, nullptr), 0);
  const int64_t after = static_cast<int64_t>(std::time(nullptr));
  EXPECT_TRUE(tv.tv_sec >= before && tv.tv_sec <= after) << tv.tv_sec;
  EXPECT_TRUE(tv.tv_usec >= 0 && tv.tv_usec < 1000000) << tv.tv_usec;
  EXPECT_EQ(tv.tv_usec % 1000, 0);  // millisecond resolution
}

TEST(Lock, IsRecursiveForItsOwnerAndExcludesOthers) {
  Lock* lock = lock_create();
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
}

// A reservation not above the size gives exactly the size rounded to pages; one above it is
// rounded to the allocation granularity.
TEST(VirtualMemory, ReserveAndCommitRoundsTheReservation) {
  const size_t cases[][3] = {// size, reservation asked, reservation made
                             {5000, 0, 8192},
                             {65536, 65536, 65536},
                             {70000, 65536, 73728},
                             {5000, 100000, 131072}};
  for (const auto& [size, reserve, want_reserved] : cases) {
    size_t reserved = reserve;
    auto* p = static_cast<unsigned char*>(vm_reserve_commit(size, &reserved));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reserved, want_reserved) << "size " << size << " reserve " << reserve;
    const size_t committed = std::min(reserved, (size + 4095) / 4096 * 4096);
    std::memset(p, 0xAB, committed);  // all of the committed part is usable
    vm_release(p, reserved);
  }
}

TEST(VirtualMemory, ResizeGrowsInPlaceWithinTheReservationAndMovesBeyondIt) {
  size_t reserved = 1 << 20;
  auto* p = static_cast<unsigned char*>(vm_reserve_commit(4096, &reserved));
  ASSERT_NE(p, nullptr);
  for (int i = 0; i < 4096; ++i) p[i] = static_cast<unsigned char>(i * 7);
  ASSERT_EQ(vm_resize(p, 4096, 200000, 0, &reserved), p);  // inside the reservation
  EXPECT_EQ(reserved, size_t{1} << 20);                    // which is written back
  std::memset(p + 4096, 2, 200000 - 4096);
  ASSERT_EQ(vm_resize(p, 200000, 8192, 0, &reserved), p);
  auto* moved = static_cast<unsigned char*>(vm_resize(p, 8192, 3u << 20, 4u << 20, &reserved));
  ASSERT_NE(moved, nullptr);
  EXPECT_EQ(reserved, size_t{4} << 20);  // the wanted reservation
  for (int i = 0; i < 4096; ++i) ASSERT_EQ(moved[i], static_cast<unsigned char>(i * 7)) << i;
  std::memset(moved, 3, 3u << 20);
  vm_release(moved, reserved);
}

// The counters of a lock nobody waits for: every acquisition counted, no wait recorded.
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

// Files and the null device are no terminals, although the null device is a character device
// (and so a console to stdout_is_console).
TEST(Terminal, FilesAndTheNullDeviceAreNoTerminals) {
  std::FILE* file = std::tmpfile();
  ASSERT_NE(file, nullptr);
  EXPECT_FALSE(stream_is_terminal(fileno(file)));
  std::fclose(file);
  const bool windows = kPathSeparator == '\\';
  std::FILE* null_device = std::fopen(windows ? "NUL" : "/dev/null", "wb");
  ASSERT_NE(null_device, nullptr);
  EXPECT_FALSE(stream_is_terminal(fileno(null_device)));
  std::fclose(null_device);
}

std::atomic<int> notified{0};
void count_notice() { notified.fetch_add(1); }

// While watched an interrupt is counted and noticed, and the process goes on. (On Windows the
// console delivers the event; there is no console to send one from here.)
TEST(Interrupts, AreCountedAndNoticedWhileWatched) {
  if (kPathSeparator == '\\') GTEST_SKIP() << "console events need a console";
  notified = 0;
  const uint32_t before = platform_interrupt_count();
  platform_watch_interrupts(true, count_notice);
  std::raise(SIGINT);
  std::raise(SIGINT);
  platform_watch_interrupts(false, nullptr);
  EXPECT_EQ(platform_interrupt_count() - before, 2u);
  EXPECT_EQ(notified.load(), 2);
}

// While watched a stop from the terminal is only counted and the process goes on (it stops
// itself once the terminal is put back); a stop the process ignored stays ignored.
TEST(Stops, AreCountedWhileWatchedAndAnIgnoredStopStaysIgnored) {
#ifdef SIGTSTP
  const uint32_t before = platform_stop_count();
  platform_watch_stops(true);
  std::raise(SIGTSTP);
  platform_watch_stops(false);
  EXPECT_EQ(platform_stop_count() - before, 1u);
  std::signal(SIGTSTP, SIG_IGN);
  platform_watch_stops(true);
  std::raise(SIGTSTP);
  platform_watch_stops(false);
  EXPECT_EQ(platform_stop_count() - before, 1u);
  EXPECT_EQ(std::signal(SIGTSTP, SIG_DFL), SIG_IGN);
#else
  GTEST_SKIP() << "no stops from a terminal here";
#endif
}

TEST(Pipes, TheCommandsStatusAndWhatItRead) {
  std::FILE* pipe = platform_pipe_open("exit 3");
  ASSERT_NE(pipe, nullptr);
  EXPECT_EQ(platform_pipe_close(pipe), 3);
  if (kPathSeparator == '\\') return;  // the rest speaks the POSIX shell
  const std::string path = testing::TempDir() + "kest_pipe_test.txt";
  pipe = platform_pipe_open(("cat > '" + path + "'").c_str());
  ASSERT_NE(pipe, nullptr);
  std::fputs("rows\nas they come\n", pipe);
  EXPECT_EQ(platform_pipe_close(pipe), 0);
  std::FILE* file = std::fopen(path.c_str(), "rb");
  ASSERT_NE(file, nullptr);
  char text[64] = {};
  EXPECT_EQ(std::fread(text, 1, sizeof text - 1, file), 18u);
  std::fclose(file);
  std::remove(path.c_str());
  EXPECT_STREQ(text, "rows\nas they come\n");
}

// A reader that has gone fails the writes and is noticed, instead of ending the process.
TEST(Pipes, AReaderThatWentIsNoticed) {
  if (kPathSeparator == '\\') GTEST_SKIP() << "no broken-pipe signal on Windows";
  notified = 0;
  platform_watch_broken_pipe(true, count_notice);
  std::FILE* pipe = platform_pipe_open("exit 0");
  ASSERT_NE(pipe, nullptr);
  const std::string block(1 << 16, 'x');
  bool failed = false;
  // The reader may not have gone yet when the first blocks leave: each write waits for it.
  for (int i = 0; i < 64 && !failed; ++i)
    failed =
        std::fwrite(block.data(), 1, block.size(), pipe) != block.size() || std::fflush(pipe) != 0;
  platform_pipe_close(pipe);
  platform_watch_broken_pipe(false, nullptr);
  EXPECT_TRUE(failed);
  EXPECT_GE(notified.load(), 1);
}

}  // namespace
