// The platform layer on POSIX systems: the clock through gmtime_r, pthread recursive mutexes and
// virtual memory through mmap, mprotect and madvise.
#ifndef _WIN32

#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "utils/platform.h"

int gettimeofday(TimeVal* tv, void* /*tz*/) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  struct tm fields {};
  gmtime_r(&now.tv_sec, &fields);
  tv->tv_sec = static_cast<int32_t>(utc_fields_to_seconds(fields.tm_year + 1900, fields.tm_mon + 1,
                                                          fields.tm_mday, fields.tm_hour,
                                                          fields.tm_min, fields.tm_sec));
  // The clock is read at millisecond resolution, as on every platform the runtime supports.
  tv->tv_usec = static_cast<int32_t>(now.tv_nsec / 1000000 * 1000);
  return 0;
}

LocalTime local_time_now() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  struct tm fields {};
  localtime_r(&now.tv_sec, &fields);
  return LocalTime{fields.tm_year + 1900, fields.tm_mon + 1, fields.tm_mday,    fields.tm_hour,
                   fields.tm_min,         fields.tm_sec,     now.tv_nsec / 1000};
}

void sleep_ms(uint32_t milliseconds) {
  timespec want{static_cast<time_t>(milliseconds / 1000),
                static_cast<long>(milliseconds % 1000) * 1000000L};
  while (nanosleep(&want, &want) != 0 && errno == EINTR) {
  }
}

uint32_t current_thread_id() { return static_cast<uint32_t>(syscall(SYS_gettid)); }

int current_process_id() { return static_cast<int>(getpid()); }

bool stdout_is_console() {
  struct stat st {};
  return fstat(1, &st) == 0 && S_ISCHR(st.st_mode);
}

int platform_setenv(const char* name, const char* value) {
  return value ? setenv(name, value, 1) : unsetenv(name);
}

struct Lock {
  pthread_mutex_t mutex;
};

Lock* lock_create() {
  auto* lock = new (std::nothrow) Lock;
  if (!lock) return nullptr;
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  const int rc = pthread_mutex_init(&lock->mutex, &attr);
  pthread_mutexattr_destroy(&attr);
  if (rc != 0) {
    delete lock;
    return nullptr;
  }
  return lock;
}

void lock_destroy(Lock* lock) {
  if (!lock) return;
  pthread_mutex_destroy(&lock->mutex);
  delete lock;
}

void lock_acquire(Lock* lock) { pthread_mutex_lock(&lock->mutex); }
void lock_release(Lock* lock) { pthread_mutex_unlock(&lock->mutex); }
bool lock_try_acquire(Lock* lock) { return pthread_mutex_trylock(&lock->mutex) == 0; }

namespace {
size_t round_up(size_t n, size_t unit) { return (n + unit - 1) / unit * unit; }

void* map_reserved(size_t bytes) {
  void* p = mmap(nullptr, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  return p == MAP_FAILED ? nullptr : p;
}

void* map_committed(size_t bytes) {
  void* p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return p == MAP_FAILED ? nullptr : p;
}

void hint_large(void* addr, size_t bytes, bool large) {
#ifdef MADV_HUGEPAGE
  if (large && addr) madvise(addr, bytes, MADV_HUGEPAGE);
#else
  (void)addr, (void)bytes, (void)large;
#endif
}

void* reserve_commit(size_t size, size_t* reserved, bool large) {
  const size_t page = kPageSize;
  size = round_up(size, page);
  size_t r = round_up(round_up(*reserved, kReserveGranularity), page);
  if (r > size) {
    if (void* p = map_reserved(r)) {
      if (mprotect(p, size, PROT_READ | PROT_WRITE) == 0) {
        *reserved = r;
        hint_large(p, r, large);
        return p;
      }
      munmap(p, r);
    }
  }
  void* p = map_committed(size);
  if (!p) return nullptr;
  *reserved = size;
  hint_large(p, size, large);
  return p;
}

void* resize(void* addr, size_t old_size, size_t new_size, size_t wanted, size_t* reserved,
             bool large) {
  const size_t page = kPageSize;
  old_size = round_up(old_size, page);
  new_size = round_up(new_size, page);
  wanted = round_up(wanted, page);
  const size_t r = round_up(*reserved, page);
  auto* base = static_cast<char*>(addr);
  if (new_size <= r) {
    if (new_size < old_size) {
      // Give the pages back to the system and make them inaccessible again.
      madvise(base + new_size, old_size - new_size, MADV_DONTNEED);
      mprotect(base + new_size, old_size - new_size, PROT_NONE);
    } else if (new_size > old_size &&
               mprotect(base + old_size, new_size - old_size, PROT_READ | PROT_WRITE) != 0) {
      return nullptr;
    }
    *reserved = r;
    return addr;
  }
  size_t new_reserved = std::max(new_size, wanted);
  void* moved = reserve_commit(new_size, &new_reserved, large);
  if (!moved) return nullptr;
  std::memcpy(moved, addr, std::min(old_size, new_size));
  munmap(addr, r);
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
  if (addr) munmap(addr, round_up(reserved, kPageSize));
}

#endif  // !_WIN32
