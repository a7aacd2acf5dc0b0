// The platform layer on Windows: the system clock's calendar fields, critical sections and the
// VirtualAlloc family.
#include <fcntl.h>
#include <io.h>
#include <process.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <windows.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "utils/platform.h"

int gettimeofday(TimeVal* tv, void* /*tz*/) {
  SYSTEMTIME now;
  GetSystemTime(&now);
  tv->tv_sec = static_cast<int32_t>(
      utc_fields_to_seconds(now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond));
  tv->tv_usec = static_cast<int32_t>(now.wMilliseconds) * 1000;
  return 0;
}

LocalTime local_time_now() {
  SYSTEMTIME now;
  GetLocalTime(&now);
  return LocalTime{now.wYear,
                   now.wMonth,
                   now.wDay,
                   now.wHour,
                   now.wMinute,
                   now.wSecond,
                   int64_t{now.wMilliseconds} * 1000};
}

void sleep_ms(uint32_t milliseconds) { Sleep(milliseconds); }

uint32_t current_thread_id() { return static_cast<uint32_t>(GetCurrentThreadId()); }

int current_process_id() { return _getpid(); }

bool stdout_is_console() {
  struct _stat64i32 st;
  return _fstat64i32(1, &st) == 0 && (st.st_mode & _S_IFCHR) != 0;
}

void stdout_set_binary() {
  std::fflush(stdout);
  _setmode(1, _O_BINARY);
}

bool stream_is_terminal(int fd) {
  // A console handle answers GetConsoleMode; a file, a pipe or NUL does not.
  const HANDLE handle = reinterpret_cast<HANDLE>(_get_osfhandle(fd));
  DWORD mode = 0;
  return handle != INVALID_HANDLE_VALUE && GetConsoleMode(handle, &mode) != 0;
}

namespace {

std::atomic<uint32_t> interrupts{0};
std::atomic<InterruptNotify> interrupt_notify{nullptr};

// Runs on a thread the console starts for the event. TRUE: handled, the process goes on.
BOOL WINAPI on_console_event(DWORD event) {
  if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) return FALSE;
  interrupts.fetch_add(1);
  if (InterruptNotify notify = interrupt_notify.load()) notify();
  return TRUE;
}

}  // namespace

void platform_watch_interrupts(bool watch, InterruptNotify notify) {
  interrupt_notify.store(watch ? notify : nullptr);
  SetConsoleCtrlHandler(on_console_event, watch ? TRUE : FALSE);
}

uint32_t platform_interrupt_count() { return interrupts.load(); }

// The handler thread is started by the console when the event arrives; a few scheduler ticks
// are enough for it to count.
void platform_settle_interrupts() { Sleep(50); }

// A console has no stops.
void platform_watch_stops(bool) {}
uint32_t platform_stop_count() { return 0; }
void platform_stop_now() {}

// A write to a pipe whose reader has gone only fails here; there is no signal to watch.
void platform_watch_broken_pipe(bool, InterruptNotify) {}

std::FILE* platform_pipe_open(const char* command) { return _popen(command, "w"); }

int platform_pipe_close(std::FILE* pipe) { return _pclose(pipe); }

int platform_setenv(const char* name, const char* value) {
  return _putenv_s(name, value ? value : "");
}

struct Lock {
  CRITICAL_SECTION section;
};

Lock* lock_create() {
  auto* lock = new (std::nothrow) Lock;
  if (!lock) return nullptr;
  InitializeCriticalSection(&lock->section);
  return lock;
}

void lock_destroy(Lock* lock) {
  if (!lock) return;
  DeleteCriticalSection(&lock->section);
  delete lock;
}

void lock_acquire(Lock* lock) { EnterCriticalSection(&lock->section); }
void lock_release(Lock* lock) { LeaveCriticalSection(&lock->section); }
bool lock_try_acquire(Lock* lock) { return TryEnterCriticalSection(&lock->section) != 0; }

// The virtual-memory primitives the shared vm_* functions of platform.cpp are built on.

namespace {
// Small regions are placed from the top of the address space down, away from the heap's growth.
constexpr size_t kTopDownBelow = 1000000;

DWORD large_flag(bool large) { return large && large_page_size() ? MEM_LARGE_PAGES : 0; }
DWORD placement_flags(size_t reservation, bool large) {
  return (reservation < kTopDownBelow ? MEM_TOP_DOWN : 0) | large_flag(large);
}
}  // namespace

void* vm_os_reserve(size_t bytes, bool large) {
  return VirtualAlloc(nullptr, bytes, MEM_RESERVE | placement_flags(bytes, large), PAGE_NOACCESS);
}

void* vm_os_reserve_commit(size_t bytes, bool large) {
  return VirtualAlloc(nullptr, bytes, MEM_RESERVE | MEM_COMMIT | placement_flags(bytes, large),
                      PAGE_READWRITE);
}

bool vm_os_commit(void* addr, size_t bytes, bool large) {
  return VirtualAlloc(addr, bytes, MEM_COMMIT | large_flag(large), PAGE_READWRITE) == addr;
}

void vm_os_decommit(void* addr, size_t bytes) { VirtualFree(addr, bytes, MEM_DECOMMIT); }

void vm_os_release(void* addr, size_t /*reserved*/) { VirtualFree(addr, 0, MEM_RELEASE); }
