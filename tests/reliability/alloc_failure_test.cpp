// Allocation failure over the receive path and the splitter: the Nth allocation fails, for
// N = 1, 2, ... up to the number of allocations the operation makes. Each run must end in the
// specified out-of-memory path (an assertion report, then abort) or a clean return that leaves
// nothing allocated; never a crash, never a leak.
//
// This program replaces malloc, calloc, realloc and free (glibc exports the originals as
// __libc_*); the replacement counts and fails only on the thread that armed it, while armed.
// Each run is a death-test child. Sanitizer builds and other C runtimes skip the test.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "fuzz/support/receive_harness.h"
#include "support/scripted_peer.h"
#include "tools/standalone_client/split_query.h"
#include "utils/netbuffer_socket.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KEST_UNDER_ASAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define KEST_UNDER_ASAN 1
#endif
#if defined(__GLIBC__) && !defined(KEST_UNDER_ASAN)
#define KEST_ALLOC_SHIM 1
#endif

struct AllocShim {
  bool armed = false;
  long fail_at = 0;  // 0: count only
  long count = 0;    // allocation attempts while armed
  long live = 0;     // allocations minus frees while armed
};
#ifdef KEST_ALLOC_SHIM
static thread_local AllocShim shim;

// True when this attempt is the one to fail.
static bool fail_attempt() { return shim.armed && ++shim.count == shim.fail_at; }
static void* counted(void* p) {
  if (p && shim.armed) ++shim.live;
  return p;
}

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* ptr, size_t size);
void __libc_free(void* ptr);

void* malloc(size_t size) { return fail_attempt() ? nullptr : counted(__libc_malloc(size)); }
void* calloc(size_t n, size_t size) {
  return fail_attempt() ? nullptr : counted(__libc_calloc(n, size));
}
void* realloc(void* ptr, size_t size) {
  if (fail_attempt()) return nullptr;
  void* p = __libc_realloc(ptr, size);
  return ptr ? p : counted(p);
}
void free(void* ptr) {
  if (ptr && shim.armed) --shim.live;
  __libc_free(ptr);
}
}
#endif

namespace {

using namespace kest_test;
using Operation = void (*)();

#ifdef KEST_ALLOC_SHIM
// Runs `op` armed to fail attempt `fail_at` (0: none); returns the attempts it made. What it
// left allocated stays in shim.live.
long run_armed(Operation op, long fail_at) {
  shim = AllocShim{true, fail_at, 0, 0};
  op();
  shim.armed = false;
  return shim.count;
}

// The death-test child: a clean return must leave nothing behind. An exception escaping the
// client (a C++ allocation that throws instead of taking the out-of-memory path) is a failure.
[[noreturn]] void child(Operation op, long fail_at) {
  try {
    run_armed(op, fail_at);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "ALLOC-RUN: exception escaped: %s\n", e.what());
    std::_Exit(3);
  }
  std::fprintf(stderr, "ALLOC-RUN: %s, %ld blocks left\n", shim.live ? "leak" : "clean", shim.live);
  std::_Exit(shim.live == 0 ? 0 : 1);
}

bool clean_exit_or_abort(int status) {
  return testing::ExitedWithCode(0)(status) || testing::KilledBySignal(SIGABRT)(status);
}

#endif

// Every failure point of `op`, each in its own child.
void fail_each_allocation(Operation op) {
#ifndef KEST_ALLOC_SHIM
  (void)op;
  GTEST_SKIP() << "malloc cannot be replaced in this build (sanitizer or non-glibc runtime)";
#else
  GTEST_FLAG_SET(death_test_style, "fast");
  op();  // first use sets up what lives for the process (logger, type registry, listener)
  const long attempts = run_armed(op, 0);
  ASSERT_EQ(shim.live, 0) << "the operation leaks even without failures";
  ASSERT_GT(attempts, 3);
  for (long n = 1; n <= attempts; ++n)
    EXPECT_EXIT(child(op, n), clean_exit_or_abort,
                "ALLOC-RUN: clean|assertion \".*\" failed|OUT OF MEMORY")
        << "allocation " << n << " of " << attempts;
#endif
}

// The client's side of one query after sending it, loaded from bytes, with the printer on a
// temporary file.
void receive_stream(const std::string& stream, OutputMode mode) {
  std::FILE* out = std::tmpfile();
  if (out == nullptr) return;
  NetBuffer nb{};
  NetBufferInit(&nb, kNetNoSocket);
  kest_fuzz::Feed feed(stream, false, 0);
  kest_fuzz::receive_answer(&nb, &feed, out, mode, nullptr);
  NetBufferClose(&nb);
  std::fclose(out);
}

// Made before the runs: the stream's own allocations are not the client's.
const std::string& two_columns() {
  static const std::string stream = ack(4, {{"i", "int", "sint"}, {"s", "varchar(10)", "str"}}) +
                                    data(2, be32(7) + be32(8) + var("hi") + var("")) +
                                    data(1, be32(9) + var("abc")) + data(0);
  return stream;
}

constexpr const char* kScript =
    "Array([i=0]);\n# a comment\nselect('x;y', "
    "<<<END_OF_A_LONG_BODY\nbody;\nEND_OF_A_LONG_BODY\n);\n  last";

void drain(QuerySplitter* qs) {
  while (qs != nullptr && query_splitter_next(qs) != nullptr) {
  }
  if (qs != nullptr) query_splitter_free(qs);
}

TEST(AllocFailureDeathTest, EveryAllocationOfReceptionAndSplitting) {
  kest_fuzz::fuzz_init();
  const struct {
    const char* name;
    Operation op;
  } ops[] = {
      // An int and a varchar column, two data messages and the end, as a unicode table and as
      // json lines (whose printer works out its keys before it prints).
      {"result table", [] { receive_stream(two_columns(), OutputMode::kUnicode); }},
      {"result json", [] { receive_stream(two_columns(), OutputMode::kJson); }},
      {"error acknowledgement",
       [] {
         static const std::string stream = error_record(3, {"table", "t1"});
         receive_stream(stream, OutputMode::kAscii);
       }},
      {"splitting a string", [] { drain(query_splitter_create_string(kScript)); }},
      {"splitting a file",  // the text grows byte by byte inside the scanner's reads
       [] {
         std::FILE* f = std::tmpfile();
         if (f == nullptr) return;
         std::fputs(kScript, f);
         std::rewind(f);
         drain(query_splitter_create_file(f));
         std::fclose(f);
       }},
  };
  for (const auto& [name, op] : ops) {
    SCOPED_TRACE(name);
    fail_each_allocation(op);
  }
}

}  // namespace
