// The platform layer: wall-clock time, sleeping, thread and process ids, locks, the console and
// terminal tests, interrupts and stops, pipes to commands, virtual memory and random numbers. With
// the socket layer of the network buffer, the only place that reaches the operating system.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

// The separator of path components when the runtime joins a directory and a file name.
#ifdef _WIN32
inline constexpr char kPathSeparator = '\\';
#else
inline constexpr char kPathSeparator = '/';
#endif

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
int64_t current_day_number();  // days since 0000-01-01 (1970-01-01 is 719528)
int64_t current_time_usec();   // microseconds since year 0
int64_t current_usec_since_midnight();

// Local calendar time of the wall clock now, as the platform's time-zone rules give it.
struct LocalTime {
  int year, month, day;  // month 1-12, day 1-31
  int hour, minute, second;
  int64_t usec;  // microseconds within the second
};
LocalTime local_time_now();

void sleep_ms(uint32_t milliseconds);
uint32_t current_thread_id();
int current_process_id();
// True when standard output is a character device (a console).
bool stdout_is_console();
// Standard output writes its bytes as given from here on: on Windows no line feed becomes CR LF
// (binary mode); elsewhere there is nothing to change.
void stdout_set_binary();
// True when the standard stream `fd` (0 input, 1 output, 2 error) is an interactive terminal: a
// console on Windows, a tty elsewhere. Unlike the console test above, the null device, files and
// pipes are not terminals.
bool stream_is_terminal(int fd);

// Interrupts from the terminal (Ctrl-C; on Windows Ctrl-Break too). While watched they no longer
// end the process: each one adds to a count and calls `notify` (when not null), which runs in a
// signal handler or, on Windows, on a thread of the console's: it may only set flags. A blocking
// read or wait of the process is interrupted by one (it is not restarted). Not watched again:
// the system's default comes back.
using InterruptNotify = void (*)();
void platform_watch_interrupts(bool watch, InterruptNotify notify);
// Interrupts seen while watched, since the process started.
uint32_t platform_interrupt_count();
// Gives an interrupt that ended a read the time to be counted before the reader looks: on
// Windows the console's handler runs on a thread of its own, which may count the interrupt only
// after the read it ended has returned (as if the input had ended); elsewhere the count is
// already made when the read returns, and this returns at once.
void platform_settle_interrupts();
// Stops from the terminal (Ctrl-Z), for a program that keeps the terminal in a mode of its own.
// While watched a stop only adds to a count; the program puts the terminal back as the user's
// shell expects it and then stops with platform_stop_now. A read or write that a stop meets goes
// on; a wait for input (poll) ends early. Not watched again: the disposition the process had
// before comes back. A stop that the process ignored stays ignored. Windows has no stops: the
// count stays 0.
void platform_watch_stops(bool watch);
uint32_t platform_stop_count();
// Stops the process as a stop from the terminal would, until it is continued (at once, with
// nothing done, where stops are not possible: Windows, or a process group that no shell
// controls).
void platform_stop_now();
// A write to a pipe whose reader has gone: while watched it calls `notify` (as above) and the
// write fails, instead of the process ending (POSIX SIGPIPE). Windows has nothing to watch.
void platform_watch_broken_pipe(bool watch, InterruptNotify notify);
// A command line run by the system's shell with a pipe to its standard input (text written to
// the stream reaches it), or null; closed with platform_pipe_close, which waits for the command
// to end and returns its status (-1 when it cannot be told).
std::FILE* platform_pipe_open(const char* command);
int platform_pipe_close(std::FILE* pipe);

// A recursive mutual-exclusion lock (as critical sections are). Create returns null on failure.
struct Lock;
Lock* lock_create();
void lock_destroy(Lock* lock);  // null is ignored
void lock_acquire(Lock* lock);
void lock_release(Lock* lock);
// Takes the lock only when that needs no waiting; true when it was taken.
bool lock_try_acquire(Lock* lock);

// Holds a Lock for one scope; a null lock is not taken.
class LockGuard {
 public:
  explicit LockGuard(Lock* lock) : lock_(lock) {
    if (lock_) lock_acquire(lock_);
  }
  ~LockGuard() {
    if (lock_) lock_release(lock_);
  }
  LockGuard(const LockGuard&) = delete;
  LockGuard& operator=(const LockGuard&) = delete;

 private:
  Lock* lock_;
};

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
// A snapshot of the counters; read it while holding the lock for a consistent view.
TimedLockStats timed_lock_stats(const TimedLock* lock);
// The time-stamp counter the statistics are kept in (the processor's on x86, else a steady clock).
uint64_t tick_counter();

// Virtual memory. Sizes are rounded up to pages; `*reserved` (in/out) is the address space to
// reserve, rounded up to the 64 KiB granularity and written back. Null on failure.
// vm_reserve_commit: when `*reserved` exceeds the size, that much address space is reserved and
// only the first `size` bytes are usable; otherwise (or when the reservation fails) exactly the
// rounded size is reserved and committed and `*reserved` is set to it.
// Large pages are never enabled by this layer: large_page_size() stays 0 and the large forms use
// the normal page size (on Linux they ask for transparent huge pages).
constexpr size_t kPageSize = 4096;
constexpr size_t kReserveGranularity = 65536;
size_t large_page_size();  // 0 while large pages are unavailable
void* vm_reserve_commit(size_t size, size_t* reserved);
void* vm_reserve_commit_large(size_t size, size_t* reserved);
// Grows or shrinks a region in place when possible (within its reservation, when the pages can
// be committed), else moves it (copying `old_size` bytes, releasing the old region; the new one
// reserves the larger of the new size and `wanted_reserve`) and returns the new address; null
// when even moving failed (the old region is then untouched). `*reserved` is written back as the
// region's actual reservation. Pass the last written-back value to vm_release.
void* vm_resize(void* addr, size_t old_size, size_t new_size, size_t wanted_reserve,
                size_t* reserved);
void* vm_resize_large(void* addr, size_t old_size, size_t new_size, size_t wanted_reserve,
                      size_t* reserved);
void vm_release(void* addr, size_t reserved);

// The operating system's side of virtual memory, defined once per system (platform_posix.cpp,
// platform_win.cpp). The vm_* functions above are built on them in platform.cpp; nothing else
// calls them. Addresses and sizes are whole pages.
void* vm_os_reserve(size_t bytes, bool large);            // address space only, inaccessible
void* vm_os_reserve_commit(size_t bytes, bool large);     // reserved and usable at once
bool vm_os_commit(void* addr, size_t bytes, bool large);  // reserved pages made usable
void vm_os_decommit(void* addr, size_t bytes);            // pages given back, addresses kept
void vm_os_release(void* addr, size_t reserved);          // the whole region from its start

// The runtime library's pseudo-random number (rand).
int kest_random();

// Sets (or, with a null value, removes) an environment variable of this process; 0 on success.
int platform_setenv(const char* name, const char* value);
