// The portable half of the platform layer: calendar arithmetic, derived clocks, the tick counter,
// the timed lock, which is built on the plain lock, and virtual memory, which is built on the
// primitives of the per-system files.
#include "utils/platform.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

#if defined(__x86_64__) || defined(__i386__)
#include <x86intrin.h>
#endif

namespace {
constexpr int64_t kDaysYear0To1970 = 719528;
constexpr int64_t kSecondsYear0To1970 = 62167219200;
constexpr int64_t kSecondsPerDay = 86400;

constexpr bool is_leap_year(int year) {
  return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

constexpr int days_in_month(int year, int month) {
  constexpr int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && is_leap_year(year) ? 29 : kDays[month - 1];
}
}  // namespace

int64_t utc_fields_to_seconds(int year, int month, int day, int hour, int minute, int second) {
  int64_t days = 0;
  for (int y = 1970; y < year; ++y) days += is_leap_year(y) ? 366 : 365;
  for (int m = 1; m < month && m <= 12; ++m) days += days_in_month(year, m);
  days += day - 1;
  return ((days * 24 + hour) * 60 + minute) * 60 + second;
}

int64_t current_day_number() {
  TimeVal tv;
  gettimeofday(&tv, nullptr);
  return tv.tv_sec / kSecondsPerDay + kDaysYear0To1970;
}

int64_t current_time_usec() {
  TimeVal tv;
  gettimeofday(&tv, nullptr);
  return (int64_t{tv.tv_sec} + kSecondsYear0To1970) * 1000000 + tv.tv_usec;
}

int64_t current_usec_since_midnight() {
  TimeVal tv;
  gettimeofday(&tv, nullptr);
  return (int64_t{tv.tv_sec} % kSecondsPerDay) * 1000000 + tv.tv_usec;
}

int kest_random() { return std::rand(); }

uint64_t tick_counter() {
#if defined(__x86_64__) || defined(__i386__)
  return __rdtsc();
#else
  return static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
#endif
}

struct TimedLock {
  Lock* lock = nullptr;
  TimedLockStats stats{};
};

TimedLock* timed_lock_create() {
  auto* t = new (std::nothrow) TimedLock;
  if (!t) return nullptr;
  t->lock = lock_create();
  if (!t->lock) {
    delete t;
    return nullptr;
  }
  t->stats.hold_min = std::numeric_limits<uint64_t>::max();
  t->stats.wait_min = std::numeric_limits<uint64_t>::max();
  return t;
}

void timed_lock_destroy(TimedLock* lock) {
  if (!lock) return;
  lock_destroy(lock->lock);
  delete lock;
}

void timed_lock_acquire(TimedLock* lock) {
  const uint64_t start = tick_counter();
  if (!lock_try_acquire(lock->lock)) {
    lock_acquire(lock->lock);
    const uint64_t waited = tick_counter() - start;
    TimedLockStats& s = lock->stats;
    ++s.contended;
    if (waited < s.wait_min) s.wait_min = waited;
    if (waited > s.wait_max) s.wait_max = waited;
    s.wait_total += waited;
  }
  ++lock->stats.acquisitions;
  lock->stats.last_acquired = tick_counter();
}

void timed_lock_release(TimedLock* lock) {
  TimedLockStats& s = lock->stats;
  const uint64_t held = tick_counter() - s.last_acquired;
  if (held < s.hold_min) s.hold_min = held;
  if (held > s.hold_max) s.hold_max = held;
  s.hold_total += held;
  lock_release(lock->lock);
}

TimedLockStats timed_lock_stats(const TimedLock* lock) { return lock->stats; }

namespace {
size_t round_up(size_t n, size_t unit) { return (n + unit - 1) / unit * unit; }

size_t page_of(bool large) {
  const size_t lp = large_page_size();
  return large && lp ? lp : kPageSize;
}

void* reserve_commit(size_t size, size_t* reserved, bool large) {
  const size_t page = page_of(large);
  size = round_up(size, page);
  const size_t r = round_up(round_up(*reserved, kReserveGranularity), page);
  if (r > size) {
    if (void* p = vm_os_reserve(r, large)) {
      if (vm_os_commit(p, size, large)) {
        *reserved = r;
        return p;
      }
      vm_os_release(p, r);
    }
  }
  void* p = vm_os_reserve_commit(size, large);
  if (p) *reserved = size;
  return p;
}

void* resize(void* addr, size_t old_size, size_t new_size, size_t wanted, size_t* reserved,
             bool large) {
  const size_t page = page_of(large);
  old_size = round_up(old_size, page);
  new_size = round_up(new_size, page);
  wanted = round_up(wanted, page);
  const size_t r = round_up(*reserved, page);
  auto* base = static_cast<char*>(addr);
  if (new_size < old_size) vm_os_decommit(base + new_size, old_size - new_size);
  if (new_size <= old_size ||
      (new_size <= r && vm_os_commit(base + old_size, new_size - old_size, large))) {
    *reserved = r;
    return addr;
  }
  size_t new_reserved = std::max(new_size, wanted);
  void* moved = reserve_commit(new_size, &new_reserved, large);
  if (!moved) return nullptr;
  std::memcpy(moved, addr, old_size);
  vm_os_release(addr, r);
  *reserved = new_reserved;
  return moved;
}
}  // namespace

size_t large_page_size() { return 0; }

void* vm_reserve_commit(size_t size, size_t* reserved) {
  return reserve_commit(size, reserved, false);
}

void* vm_reserve_commit_large(size_t size, size_t* reserved) {
  return reserve_commit(size, reserved, true);
}

void* vm_resize(void* addr, size_t old_size, size_t new_size, size_t wanted_reserve,
                size_t* reserved) {
  return resize(addr, old_size, new_size, wanted_reserve, reserved, false);
}

void* vm_resize_large(void* addr, size_t old_size, size_t new_size, size_t wanted_reserve,
                      size_t* reserved) {
  return resize(addr, old_size, new_size, wanted_reserve, reserved, true);
}

void vm_release(void* addr, size_t reserved) {
  if (addr) vm_os_release(addr, round_up(reserved, kPageSize));
}
