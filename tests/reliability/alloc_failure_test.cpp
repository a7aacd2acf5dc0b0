// Allocation failure over the receive path and the splitter: the Nth allocation fails, for
// N = 1, 2, ... up to the number of allocations the operation makes. Each run must end in the
// specified out-of-memory path (an assertion report, then abort) or a clean return that leaves
// nothing allocated; never a crash, never a leak.
//
// Mechanism: this program replaces malloc, calloc, realloc and free (glibc lets a program
// interpose them and exports the originals as __libc_*). The replacement counts and fails only
// on the thread that armed it, and only while armed, so the test framework is never touched.
// Memory contexts take their small areas from malloc, so they fail here too. Each run is a
// death-test child, since the specified path ends the process. Sanitizer builds keep their own
// allocator, and other C runtimes do not allow the interposition: there the test is skipped.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "fuzz/support/receive_harness.h"
#include "tools/standalone_client/split_query.h"

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

namespace {

struct AllocShim {
  bool armed = false;
  long fail_at = 0;  // 0: count only
  long count = 0;    // allocation attempts while armed
  long live = 0;     // allocations minus frees while armed
};
thread_local AllocShim shim;

}  // namespace

#ifdef KEST_ALLOC_SHIM
namespace {

// True when this attempt is the one to fail.
bool take_attempt() {
  if (!shim.armed) return false;
  return ++shim.count == shim.fail_at;
}

}  // namespace

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* ptr, size_t size);
void __libc_free(void* ptr);

void* malloc(size_t size) {
  if (take_attempt()) return nullptr;
  void* p = __libc_malloc(size);
  if (p && shim.armed) ++shim.live;
  return p;
}
void* calloc(size_t count, size_t size) {
  if (take_attempt()) return nullptr;
  void* p = __libc_calloc(count, size);
  if (p && shim.armed) ++shim.live;
  return p;
}
void* realloc(void* ptr, size_t size) {
  if (take_attempt()) return nullptr;
  void* p = __libc_realloc(ptr, size);
  if (p && !ptr && shim.armed) ++shim.live;
  return p;
}
void free(void* ptr) {
  if (ptr && shim.armed) --shim.live;
  __libc_free(ptr);
}
}
#endif

namespace {

using Operation = void (*)();

#ifdef KEST_ALLOC_SHIM
// Runs `op` armed to fail attempt `fail_at` (0: none); returns the attempts it made and, in
// `live`, what it left allocated.
long run_armed(Operation op, long fail_at, long* live) {
  shim = AllocShim{true, fail_at, 0, 0};
  op();
  shim.armed = false;
  *live = shim.live;
  return shim.count;
}

// The death-test child: a clean return must leave nothing behind. An exception escaping the
// client (a C++ allocation that throws instead of taking the out-of-memory path) is a failure.
[[noreturn]] void child(Operation op, long fail_at) {
  long live = 0;
  try {
    run_armed(op, fail_at, &live);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "ALLOC-RUN: exception escaped: %s\n", e.what());
    std::_Exit(3);
  }
  std::fprintf(stderr, live == 0 ? "ALLOC-RUN: clean\n" : "ALLOC-RUN: leak of %ld blocks\n", live);
  std::fflush(stderr);
  std::_Exit(live == 0 ? 0 : 1);
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
  long live = 0;
  const long attempts = run_armed(op, 0, &live);
  ASSERT_EQ(live, 0) << "the operation leaks even without failures";
  ASSERT_GT(attempts, 3);
  for (long n = 1; n <= attempts; ++n)
    EXPECT_EXIT(child(op, n), clean_exit_or_abort,
                "ALLOC-RUN: clean|assertion \".*\" failed|OUT OF MEMORY")
        << "allocation " << n << " of " << attempts;
#endif
}

std::string be32(uint32_t v) { return {char(v >> 24), char(v >> 16), char(v >> 8), char(v)}; }
std::string frame(const std::string& body) { return be32(uint32_t(body.size() + 4)) + body; }

// The client's side of one query after sending it, as run_query does, with the printer on a
// temporary file. Only client code allocates between arming and disarming: the peer has
// written the whole stream into the socket beforehand.
void receive_stream(const std::string& stream, int mode) {
  int32_t client = -1, peer = -1;
  shim.armed = false;
  const bool connected = kest_fuzz::loopback_pair(&client, &peer);
  if (connected) kest_fuzz::play_peer(peer, stream, {false, 0});
  shim.armed = true;
  if (!connected) return;
  std::FILE* out = std::tmpfile();
  ClientConnection conn{};
  NetBufferInit(&conn.netbuf, client);
  if (out != nullptr && NetBufferRecv(&conn.netbuf) == 1) {
    QueryAck ack;
    print_results = 0;
    receive_ack(&conn.netbuf, &ack);
    if (ack.is_error) {
      free_error(ack.error);
    } else {
      conn.vector_size = ack.vector_size;
      queryres.printer = printer_open(out, ack.column_count, queryres.name, queryres.type,
                                      queryres.ltype, queryres.isconst, mode);
      print_results = 1;
      while (receive_data(&conn) > 0) {
      }
      print_results = 0;
      printer_close(queryres.printer);
      queryres.printer = nullptr;
    }
  }
  queryres_free();
  NetBufferClose(&conn.netbuf);
  if (out != nullptr) std::fclose(out);
}

// An int and a varchar column, two data messages and the end, printed as a unicode table.
void receive_result() {
  static const std::string stream =
      frame(be32(0) + be32(2) + be32(4) + "\x01i" + "\x01s" + be32(0) +
            "\x03"
            "int" +
            "\x04sint" + be32(0) + "\x0bvarchar(10)" + "\x03str") +
      frame(be32(0) + be32(2) + be32(7) + be32(8) + "\x02hi" + std::string(1, '\0')) +
      frame(be32(0) + be32(1) + be32(9) +
            "\x03"
            "abc") +
      frame(be32(0) + be32(0));
  receive_stream(stream, OUTPUT_UNICODE);
}

// An acknowledgement carrying an error record with two parameters.
void receive_error_ack() {
  static const std::string stream =
      frame(be32(0xFFFFFFFFu) + be32(3) + be32(2) + "\x05table" + "\x02t1");
  receive_stream(stream, OUTPUT_ASCII);
}

constexpr const char* kScript =
    "Array([i=0]);\n# a comment\nselect('x;y', "
    "<<<END_OF_A_LONG_BODY\nbody;\nEND_OF_A_LONG_BODY\n);\n  last";

void split_string() {
  QuerySplitter* qs = query_splitter_create_string(kScript);
  if (qs == nullptr) return;
  while (query_splitter_next(qs) != nullptr) {
  }
  query_splitter_free(qs);
}

void split_file() {
  std::FILE* f = std::tmpfile();
  if (f == nullptr) return;
  std::fputs(kScript, f);
  std::rewind(f);
  if (QuerySplitter* qs = query_splitter_create_file(f)) {
    while (query_splitter_next(qs) != nullptr) {
    }
    query_splitter_free(qs);
  }
  std::fclose(f);
}

TEST(AllocFailureDeathTest, ReceivingAResultTable) {
  kest_fuzz::fuzz_init();
  fail_each_allocation(receive_result);
}

TEST(AllocFailureDeathTest, ReceivingAnErrorAcknowledgement) {
  kest_fuzz::fuzz_init();
  fail_each_allocation(receive_error_ack);
}

TEST(AllocFailureDeathTest, SplittingAString) { fail_each_allocation(split_string); }

TEST(AllocFailureDeathTest, SplittingAFile) { fail_each_allocation(split_file); }

}  // namespace
