// The platform layer on Windows: the system clock's calendar fields, critical sections and the
// VirtualAlloc family.
#ifdef _WIN32

#include <process.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <windows.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
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

namespace {
constexpr size_t kTopDownBelow = 1000000;

size_t round_up(size_t n, size_t unit) { return (n + unit - 1) / unit * unit; }

size_t page_of(bool large) {
  const size_t lp = large_page_size();
  return large && lp ? lp : kPageSize;
}

DWORD extra_flags(size_t reservation, bool large) {
  DWORD flags = reservation < kTopDownBelow ? MEM_TOP_DOWN : 0;
  if (large && large_page_size()) flags |= MEM_LARGE_PAGES;
  return flags;
}

void* reserve_commit(size_t size, size_t* reserved, bool large) {
  const size_t page = page_of(large);
  size = round_up(size, page);
  size_t r = round_up(round_up(*reserved, kReserveGranularity), page);
  const DWORD extra = extra_flags(r, large);
  *reserved = r;
  if (r > size) {
    if (void* p = VirtualAlloc(nullptr, r, MEM_RESERVE | extra, PAGE_NOACCESS)) {
      if (VirtualAlloc(p, size, MEM_COMMIT | extra, PAGE_READWRITE)) return p;
      VirtualFree(p, 0, MEM_RELEASE);
    }
  }
  *reserved = size;
  return VirtualAlloc(nullptr, size, MEM_RESERVE | MEM_COMMIT | extra, PAGE_READWRITE);
}

void* resize(void* addr, size_t old_size, size_t new_size, size_t wanted, size_t* reserved,
             bool large) {
  const size_t page = page_of(large);
  old_size = round_up(old_size, page);
  new_size = round_up(new_size, page);
  wanted = round_up(wanted, page);
  size_t r = std::max(round_up(*reserved, page), new_size);
  auto* base = static_cast<char*>(addr);
  void* result = addr;
  if (new_size < old_size) {
    VirtualFree(base + new_size, old_size - new_size, MEM_DECOMMIT);
  } else if (new_size > old_size) {
    void* grown = VirtualAlloc(addr, new_size, MEM_COMMIT | extra_flags(r, large), PAGE_READWRITE);
    if (grown != addr) {
      size_t new_reserved = std::max(new_size, wanted);
      result = reserve_commit(new_size, &new_reserved, large);
      if (!result) return nullptr;
      std::memcpy(result, addr, old_size);
      VirtualFree(addr, 0, MEM_RELEASE);
    }
  }
  *reserved = std::max(new_size, wanted);
  return result;
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

void vm_release(void* addr, size_t /*reserved*/) {
  if (addr) VirtualFree(addr, 0, MEM_RELEASE);
}

#endif  // _WIN32
