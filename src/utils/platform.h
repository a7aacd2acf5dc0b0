// The platform layer: wall-clock time, sleeping, thread and process ids, locks, the console test,
// virtual memory and random numbers. With the socket layer of the network buffer, the only place
// that reaches the operating system.
#pragma once

#include <cstddef>
#include <cstdint>

// Seconds since 1970-01-01 00:00:00 UTC and microseconds.
struct TimeVal {
  int32_t tv_sec;
  int32_t tv_usec;
};

// Fills `tv` from the system's UTC clock (computed from the calendar fields, microseconds are the
// clock's milliseconds times 1000) and returns 0. The time-zone argument is ignored.
int gettimeofday(TimeVal* tv, void* tz);
// Seconds since the epoch for UTC calendar fields (month 1-12, day 1-31), as gettimeofday
// computes them.
int64_t utc_fields_to_seconds(int year, int month, int day, int hour, int minute, int second);
int64_t current_day_number();        // days since 0000-01-01 (1970-01-01 is 719528)
int64_t current_time_usec();         // microseconds since year 0
int64_t current_usec_since_midnight();

void sleep_ms(uint32_t milliseconds);
uint32_t current_thread_id();
int current_process_id();
// True when standard output is a character device (a console).
bool stdout_is_console();

// A recursive mutual-exclusion lock (as critical sections are). Create returns null on failure.
struct Lock;
Lock* lock_create();
void lock_destroy(Lock* lock);  // null is ignored
void lock_acquire(Lock* lock);
void lock_release(Lock* lock);

// A lock that keeps contention statistics in processor time-stamp ticks.
struct TimedLockStats {
  uint64_t acquisitions;
  uint64_t hold_min, hold_max, hold_total;
  uint64_t contended;
  uint64_t wait_min, wait_max, wait_total;
  uint64_t last_acquired;
};
struct TimedLock;
TimedLock* timed_lock_create();
void timed_lock_destroy(TimedLock* lock);
void timed_lock_acquire(TimedLock* lock);
void timed_lock_release(TimedLock* lock);
TimedLockStats timed_lock_stats(const TimedLock* lock);

// Virtual memory. Sizes are rounded up to pages; `*reserved` (in/out) is the address space to
// reserve, rounded up to the 64 KiB granularity and written back. Null on failure.
constexpr size_t kPageSize = 4096;
constexpr size_t kReserveGranularity = 65536;
size_t large_page_size();  // 0 while large pages are unavailable
void* vm_reserve_commit(size_t size, size_t* reserved);
void* vm_reserve_commit_large(size_t size, size_t* reserved);
// Grows or shrinks a region in place when possible, else moves it (copying `old_size` bytes).
void* vm_resize(void* addr, size_t old_size, size_t new_size, size_t wanted_reserve,
                size_t* reserved);
void* vm_resize_large(void* addr, size_t old_size, size_t new_size, size_t wanted_reserve,
                      size_t* reserved);
void vm_release(void* addr, size_t reserved);

int kest_random();
