// The platform layer on POSIX systems: the clock through gmtime_r, pthread recursive mutexes and
// virtual memory through mmap, mprotect and madvise.
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
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

void stdout_set_binary() {}

bool stream_is_terminal(int fd) { return isatty(fd) == 1; }

namespace {

std::atomic<uint32_t> interrupts{0};
// Read in the handlers; set before they are installed.
std::atomic<InterruptNotify> interrupt_notify{nullptr};
std::atomic<InterruptNotify> broken_pipe_notify{nullptr};
static_assert(std::atomic<uint32_t>::is_always_lock_free &&
                  std::atomic<InterruptNotify>::is_always_lock_free,
              "signal handlers may only touch lock-free atomics");

void on_interrupt(int) {
  interrupts.fetch_add(1, std::memory_order_relaxed);
  if (InterruptNotify notify = interrupt_notify.load()) notify();
}

std::atomic<uint32_t> stops{0};
struct sigaction stop_disposition {};  // what SIGTSTP did before the watch
bool stops_watched = false;

void on_stop(int) { stops.fetch_add(1, std::memory_order_relaxed); }

void on_broken_pipe(int) {
  if (InterruptNotify notify = broken_pipe_notify.load()) notify();
}

// No SA_RESTART: the blocking read or wait that the signal meets returns EINTR, so that its
// caller looks at what the signal asked for.
void watch_signal(int signo, bool watch, void (*handler)(int)) {
  struct sigaction action {};
  sigemptyset(&action.sa_mask);
  action.sa_handler = watch ? handler : SIG_DFL;
  action.sa_flags = 0;
  sigaction(signo, &action, nullptr);
}

}  // namespace

void platform_watch_interrupts(bool watch, InterruptNotify notify) {
  interrupt_notify.store(watch ? notify : nullptr);
  watch_signal(SIGINT, watch, on_interrupt);
}

uint32_t platform_interrupt_count() { return interrupts.load(std::memory_order_relaxed); }

void platform_settle_interrupts() {}

void platform_watch_stops(bool watch) {
  if (watch == stops_watched) return;
  stops_watched = watch;
  if (!watch) {
    sigaction(SIGTSTP, &stop_disposition, nullptr);
    return;
  }
  struct sigaction action {};
  sigemptyset(&action.sa_mask);
  action.sa_handler = on_stop;
  // Restarted: a write to the terminal that the stop meets goes on (the waits of a program that
  // watches stops are bounded, and look at the count when they end).
  action.sa_flags = SA_RESTART;
  sigaction(SIGTSTP, &action, &stop_disposition);
  if (stop_disposition.sa_handler == SIG_IGN) sigaction(SIGTSTP, &stop_disposition, nullptr);
}

uint32_t platform_stop_count() { return stops.load(std::memory_order_relaxed); }

void platform_stop_now() {
  struct sigaction stop {};
  sigemptyset(&stop.sa_mask);
  stop.sa_handler = SIG_DFL;
  struct sigaction watched {};
  sigaction(SIGTSTP, &stop, &watched);
  raise(SIGTSTP);  // the default action: stopped here until continued
  sigaction(SIGTSTP, &watched, nullptr);
}

void platform_watch_broken_pipe(bool watch, InterruptNotify notify) {
  broken_pipe_notify.store(watch ? notify : nullptr);
  watch_signal(SIGPIPE, watch, on_broken_pipe);
}

std::FILE* platform_pipe_open(const char* command) { return popen(command, "w"); }

int platform_pipe_close(std::FILE* pipe) {
  const int status = pclose(pipe);
  if (status == -1 || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
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

// The virtual-memory primitives the shared vm_* functions of platform.cpp are built on.

namespace {
// Transparent huge pages are asked for, never required.
void hint_large(void* addr, size_t bytes, bool large) {
#ifdef MADV_HUGEPAGE
  if (large && addr) madvise(addr, bytes, MADV_HUGEPAGE);
#else
  (void)addr, (void)bytes, (void)large;
#endif
}

void* mapped_or_null(void* p) { return p == MAP_FAILED ? nullptr : p; }
}  // namespace

void* vm_os_reserve(size_t bytes, bool large) {
  void* p = mapped_or_null(
      mmap(nullptr, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
  hint_large(p, bytes, large);
  return p;
}

void* vm_os_reserve_commit(size_t bytes, bool large) {
  void* p = mapped_or_null(
      mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  hint_large(p, bytes, large);
  return p;
}

bool vm_os_commit(void* addr, size_t bytes, bool /*large*/) {
  return mprotect(addr, bytes, PROT_READ | PROT_WRITE) == 0;
}

void vm_os_decommit(void* addr, size_t bytes) {
  // Give the pages back to the system and make them inaccessible again.
  madvise(addr, bytes, MADV_DONTNEED);
  mprotect(addr, bytes, PROT_NONE);
}

void vm_os_release(void* addr, size_t reserved) { munmap(addr, reserved); }
