#include "utils/mem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <iostream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "utils/longjmp_ctx.h"

namespace {

// A small request in a fresh context makes a heap area of the chunk size: 16192 bytes of blocks,
// the 64-byte header, 15 bytes of alignment slack; its reservation is 16192 + 32 + 79 + 15.
constexpr uint64_t kChunkAreaMem = 16271;
constexpr uint64_t kChunkAreaVM = 16318;
constexpr uint64_t kHuge = uint64_t{1} << 50;  // more address space than any system has

// Escapes the regular-expression operators so the text matches itself as a death-test pattern
// (with both the POSIX and the simple syntax GoogleTest uses).
std::string Quote(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (std::strchr(".[]{}()\\*+?^$|", c)) out += '\\';
    out += c;
  }
  return out;
}

std::string AssertionPattern(const std::string& condition) {
  return Quote("assertion \"" + condition + "\" failed");
}

uintptr_t Addr(const void* p) { return reinterpret_cast<uintptr_t>(p); }

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

bool EndsWith(const std::string& s, const std::string& tail) {
  return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

class MemTest : public testing::Test {
 protected:
  void TearDown() override { mem_system_set_limits(0, 0); }
};
using MemDeathTest = MemTest;

TEST_F(MemTest, AccountingFollowsAllocateFreeAndDestroyUpTheTree) {
  MemContext* root = mem_context_create(nullptr, "root");
  MemContext* child = mem_context_create(root, "child");
  MemContext* leaf = mem_context_create(child, "leaf");

  void* a = mem_malloc(leaf, 100, 0);
  void* b = mem_malloc(leaf, 200, 0);  // same area
  EXPECT_EQ(leaf->curMem, kChunkAreaMem);
  EXPECT_EQ(leaf->curVM, kChunkAreaVM);
  for (MemContext* c : {leaf, child, root}) {
    EXPECT_EQ(c->totMem, kChunkAreaMem) << c->name;
    EXPECT_EQ(c->totVM, kChunkAreaVM) << c->name;
    EXPECT_EQ(c->hiMem, kChunkAreaMem) << c->name;
  }
  EXPECT_EQ(child->curMem, 0u);
  EXPECT_EQ(root->curMem, 0u);

  mem_free(leaf, a);  // the area still holds b
  EXPECT_EQ(root->totMem, kChunkAreaMem);
  mem_free(leaf, b);  // emptied: released
  for (MemContext* c : {leaf, child, root}) {
    EXPECT_EQ(c->totMem, 0u) << c->name;
    EXPECT_EQ(c->totVM, 0u) << c->name;
    EXPECT_EQ(c->hiMem, kChunkAreaMem) << c->name;  // the high-water mark stays
  }
  EXPECT_EQ(leaf->curMem, 0u);

  mem_malloc(child, 10, 0);
  mem_malloc(leaf, 10, 0);
  EXPECT_EQ(root->totMem, 2 * kChunkAreaMem);
  mem_context_destroy(leaf);
  EXPECT_EQ(child->totMem, kChunkAreaMem);
  EXPECT_EQ(root->totMem, kChunkAreaMem);
  EXPECT_EQ(child->first_child, nullptr);
  mem_context_destroy(root);  // frees child and its block too (ASan checks the rest)
}

TEST_F(MemTest, DestroyUnlinksAnyChildInConstantTime) {
  MemContext* root = mem_context_create(nullptr, "root");
  MemContext* c1 = mem_context_create(root, "c1");
  MemContext* c2 = mem_context_create(root, "c2");
  MemContext* c3 = mem_context_create(root, "c3");
  EXPECT_EQ(root->first_child, c3);  // newest first
  mem_context_destroy(c2);           // from the middle
  EXPECT_EQ(c3->next_sibling, c1);
  mem_context_destroy(c3);  // the head
  EXPECT_EQ(root->first_child, c1);
  EXPECT_EQ(c1->next_sibling, nullptr);
  mem_context_destroy(root);
}

TEST_F(MemTest, EmbeddedRecordIsNotFreedAndInheritsFromItsParent) {
  LongJmpCtx* env = longjmp_ctx_create();
  MemContext* root = mem_context_create(nullptr, "root");
  mem_context_set_exception_env(root, env);
  mem_context_set_large_reservation(root, 1 << 20);
  mem_context_set_huge_pages_off(root, true);
  MemContext storage;
  MemContext* ctx = mem_context_init(&storage, root, "embedded");
  EXPECT_EQ(ctx, &storage);
  EXPECT_EQ(ctx->self_allocated, 0);
  EXPECT_EQ(ctx->exception_env, env);
  EXPECT_EQ(ctx->large_reservation, 1 << 20);
  EXPECT_EQ(ctx->huge_pages_off, 1);
  EXPECT_EQ(ctx->thread_safety, root->thread_safety);
  EXPECT_EQ(ctx->chunk_size, kMemChunkSize);
  mem_malloc(ctx, 10, 0);
  mem_context_destroy(root);  // destroys the embedded child without freeing its storage
  longjmp_ctx_destroy(env);
}

TEST_F(MemTest, ZeroByteRequestsGiveDistinctAlignedBlocks) {
  MemContext* ctx = mem_context_create(nullptr, "zero");
  void* a = mem_malloc(ctx, 0, 0);
  void* b = mem_malloc(ctx, 0, 0);
  ASSERT_NE(a, nullptr);
  EXPECT_NE(a, b);
  EXPECT_EQ(Addr(a) % KEST_ALIGN, 0u);
  EXPECT_EQ(Addr(b) % KEST_ALIGN, 0u);
  EXPECT_EQ(Addr(b) - Addr(a), kMemBlockHeader);  // only the header
  mem_context_destroy(ctx);
}

TEST_F(MemTest, BlocksAreBumpAllocatedAndAligned) {
  MemContext* ctx = mem_context_create(nullptr, "bump");
  char* prev = static_cast<char*>(mem_malloc(ctx, 1, 0));
  for (size_t size : {1u, 15u, 16u, 17u, 100u}) {
    char* p = static_cast<char*>(mem_malloc(ctx, size, 0));
    EXPECT_EQ(Addr(p) % KEST_ALIGN, 0u) << size;
    EXPECT_EQ(mem_block_requested_size(p), size);
    prev = p;
  }
  char* last = static_cast<char*>(mem_malloc(ctx, 5, 0));
  EXPECT_EQ(last - prev, 112 + 32);  // 100 rounded to 112, then the next header
  mem_context_destroy(ctx);
}

// The general list keeps the area with the most room at its head, so a request lands where it
// fits best even after a younger area has been used up.
TEST_F(MemTest, HeadOfGeneralListHasTheMostRoom) {
  MemContext* ctx = mem_context_create(nullptr, "order");
  char* a1 = static_cast<char*>(mem_malloc(ctx, 12000, 0));  // area A, ~4.1K left
  char* b1 = static_cast<char*>(mem_malloc(ctx, 8000, 0));   // does not fit A: area B
  char* b2 = static_cast<char*>(mem_malloc(ctx, 6000, 0));   // B has more room
  EXPECT_EQ(b2, b1 + 8000 + 32);
  char* a2 = static_cast<char*>(mem_malloc(ctx, 3000, 0));  // now A has more room than B
  EXPECT_EQ(a2, a1 + 12000 + 32);
  EXPECT_EQ(ctx->curMem, 2 * kChunkAreaMem);
  mem_context_destroy(ctx);
}

TEST_F(MemTest, ReallocGrowsInPlaceWhenLastInItsArea) {
  MemContext* ctx = mem_context_create(nullptr, "realloc");
  auto* p = static_cast<char*>(mem_malloc(ctx, 40, 0));
  std::memset(p, 'x', 40);
  EXPECT_EQ(mem_realloc(ctx, p, 40), p);  // same size
  EXPECT_EQ(mem_realloc(ctx, p, 48), p);  // same aligned size
  EXPECT_EQ(mem_block_requested_size(p), 48u);
  EXPECT_EQ(mem_realloc(ctx, p, 1000), p);  // last in area, room enough
  EXPECT_EQ(std::string(p, 40), std::string(40, 'x'));
  auto* q = static_cast<char*>(mem_malloc(ctx, 16, 0));
  EXPECT_EQ(q, p + 1008 + 32);  // the grown block took its room
  mem_context_destroy(ctx);
}

TEST_F(MemTest, ReallocMovesWhenNotLastAndKeepsContentsAndZeroesTheRest) {
  MemContext* ctx = mem_context_create(nullptr, "realloc");
  auto* p = static_cast<char*>(mem_malloc(ctx, 40, KEST_MEM_KEEP_FLAG));
  std::memset(p, 'y', 40);
  mem_malloc(ctx, 16, 0);
  auto* r = static_cast<unsigned char*>(mem_realloc(ctx, p, 200));
  ASSERT_NE(static_cast<void*>(r), static_cast<void*>(p));
  EXPECT_EQ(std::string(reinterpret_cast<char*>(r), 40), std::string(40, 'y'));
  EXPECT_TRUE(std::all_of(r + 40, r + 200, [](unsigned char c) { return c == 0; }));
  EXPECT_NE(mem_realloc(ctx, nullptr, 10), nullptr);  // a null pointer allocates
  mem_context_destroy(ctx);
}

TEST_F(MemTest, ReallocOfWholeAreaBlockReleasesTheOldArea) {
  MemContext* ctx = mem_context_create(nullptr, "move");
  void* big = mem_malloc(ctx, 16000, 0);  // fills one area
  void* moved = mem_realloc(ctx, big, 20000);
  EXPECT_NE(moved, big);
  // The old area held only the moved block: it is gone; the new one has 20000 + 32 bytes.
  EXPECT_EQ(ctx->curMem, 20032u + 64 + 15);
  mem_context_destroy(ctx);
}

TEST_F(MemTest, LargeAllocationsUseDedicatedPageAreas) {
  MemContext* ctx = mem_context_create(nullptr, "large");
  auto* p = static_cast<unsigned char*>(mem_zalloc(ctx, 100000, KEST_MEM_LARGE));
  EXPECT_EQ(mem_block_area_mode(p), 1);
  EXPECT_EQ(ctx->curMem, 131072u);  // 100000 + headers, in 64 KiB granules
  EXPECT_EQ(ctx->curVM, 131072u);
  EXPECT_TRUE(std::all_of(p, p + 100000, [](unsigned char c) { return c == 0; }));
  void* small = mem_malloc(ctx, 10, 0);  // not carved from the dedicated area
  EXPECT_EQ(ctx->curMem, 131072u + kChunkAreaMem);
  mem_free(ctx, p);
  EXPECT_EQ(ctx->curMem, kChunkAreaMem);
  mem_free(ctx, small);
  EXPECT_EQ(ctx->curMem, 0u);
  mem_context_destroy(ctx);
}

TEST_F(MemTest, ExactAllocationGetsAreaOfTheNeededSize) {
  MemContext* ctx = mem_context_create(nullptr, "exact");
  void* p = mem_malloc(ctx, 100, KEST_MEM_EXACT);
  EXPECT_EQ(mem_block_area_mode(p), 0);
  EXPECT_EQ(ctx->curMem, 112u + 32 + 64 + 15);
  mem_free(ctx, p);
  EXPECT_EQ(ctx->curMem, 0u);
  mem_context_destroy(ctx);
}

TEST_F(MemTest, LargeReservationLetsADedicatedBlockGrowInPlace) {
  MemContext* ctx = mem_context_create(nullptr, "reserved-vm");
  mem_context_set_large_reservation(ctx, 1 << 20);
  auto* p = static_cast<char*>(mem_malloc(ctx, 100000, KEST_MEM_LARGE));
  EXPECT_EQ(ctx->curMem, 131072u);
  EXPECT_EQ(ctx->curVM, 1u << 20);
  std::memset(p, 'L', 100000);
  EXPECT_EQ(mem_realloc(ctx, p, 500000), p);
  EXPECT_EQ(ctx->curMem, 524288u);
  EXPECT_EQ(ctx->curVM, 1u << 20);
  EXPECT_EQ(std::string(p, 100000), std::string(100000, 'L'));
  p[499999] = 'e';  // the grown pages are writable
  // Beyond the reservation the area may move; the contents come along.
  auto* q = static_cast<char*>(mem_realloc(ctx, p, 3 << 20));
  EXPECT_EQ(std::string(q, 100000), std::string(100000, 'L'));
  EXPECT_EQ(q[499999], 'e');
  EXPECT_GE(ctx->curMem, uint64_t{3} << 20);
  EXPECT_EQ(ctx->totMem, ctx->curMem);
  mem_free(ctx, q);
  EXPECT_EQ(ctx->curMem, 0u);
  EXPECT_EQ(ctx->curVM, 0u);
  mem_context_destroy(ctx);
}

TEST_F(MemTest, AllowFailureReturnsNullForAHugeRequestAndChangesNothing) {
  MemContext* ctx = mem_context_create(nullptr, "huge");
  mem_malloc(ctx, 10, 0);
  for (uint32_t flags : {0u, KEST_MEM_LARGE, KEST_MEM_EXACT}) {
    EXPECT_EQ(mem_malloc(ctx, kHuge, KEST_MEM_ALLOWFAILURE | flags), nullptr) << flags;
    EXPECT_EQ(ctx->totMem, kChunkAreaMem);
    EXPECT_EQ(ctx->hiMem, kChunkAreaMem);
  }
  EXPECT_EQ(mem_malloc(ctx, SIZE_MAX, KEST_MEM_ALLOWFAILURE), nullptr);
  void* p = mem_malloc(ctx, 10, 0);
  EXPECT_EQ(mem_realloc(ctx, p, kHuge, KEST_MEM_ALLOWFAILURE), nullptr);
  mem_context_destroy(ctx);
}

TEST_F(MemTest, RootLimitDrawsGrantsFromTheSystemAccount) {
  mem_system_set_limits(3 * kChunkAreaMem, 0);
  MemContext* root = mem_context_create(nullptr, "granted");
  ASSERT_EQ(mem_context_set_limits(root, kChunkAreaMem, 0), 0);
  EXPECT_EQ(mem_system_account().curMem, kChunkAreaMem);
  EXPECT_EQ(mem_context_set_limits(root, 4 * kChunkAreaMem, 0), -1);  // more than the system has
  EXPECT_EQ(root->maxMem, kChunkAreaMem);
  // 16000 bytes fill a chunk area: each request makes a new one.
  EXPECT_NE(mem_malloc(root, 16000, 0), nullptr);
  EXPECT_EQ(root->maxMem, kChunkAreaMem);
  EXPECT_NE(mem_malloc(root, 16000, 0), nullptr);  // the grant grows
  EXPECT_EQ(root->maxMem, 2 * kChunkAreaMem);
  EXPECT_EQ(mem_system_account().curMem, 2 * kChunkAreaMem);
  EXPECT_NE(mem_malloc(root, 16000, 0), nullptr);
  EXPECT_EQ(mem_malloc(root, 16000, KEST_MEM_ALLOWFAILURE), nullptr);  // account exhausted
  EXPECT_EQ(root->totMem, 3 * kChunkAreaMem);
  EXPECT_EQ(root->maxMem, 3 * kChunkAreaMem);
  EXPECT_EQ(mem_system_account().curMem, 3 * kChunkAreaMem);
  EXPECT_EQ(mem_system_account().hiMem, 3 * kChunkAreaMem);
  mem_context_destroy(root);  // gives the grant back
  EXPECT_EQ(mem_system_account().curMem, 0u);
}

TEST_F(MemTest, ReservationIsChargedUpFrontAndDrawnOnLater) {
  MemContext* root = mem_context_create(nullptr, "rsv");
  MemContext* ctx = mem_context_create(root, "child");
  ASSERT_EQ(mem_context_set_limits(ctx, 40000, 0), 0);
  ASSERT_EQ(mem_context_reserve(ctx, 20000, 20000), 0);
  EXPECT_EQ(ctx->curMem, 20000u);
  EXPECT_EQ(root->totMem, 20000u);
  EXPECT_EQ(mem_context_reserve(ctx, 30000, 0), -1);  // over the child's limit
  EXPECT_EQ(ctx->mem_rsrvd, 20000u);
  void* p = mem_malloc(ctx, 10, KEST_MEM_USE_RESERVED_ONLY);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(ctx->mem_rsrvd, 20000 - kChunkAreaMem);
  EXPECT_EQ(ctx->vm_rsrvd, 20000 - kChunkAreaVM);
  EXPECT_EQ(ctx->curMem, 20000u);  // already charged
  // 16200 bytes need a new area (16319 bytes): more than is left of the reservation. Only-reserved
  // fails; reserved-first takes the rest within the limit.
  testing::internal::CaptureStderr();
  EXPECT_EQ(mem_malloc(ctx, 16200, KEST_MEM_USE_RESERVED_ONLY | KEST_MEM_ALLOWFAILURE), nullptr);
  EXPECT_NE(testing::internal::GetCapturedStderr().find(
                "Not enough memory reserved in child context for USE_RESERVED_ONLY allocation. "
                "mem_req = 16319 mem_reserved = 3729 vm_req = 16366 vm_reserved = 3682"),
            std::string::npos);
  EXPECT_EQ(ctx->curMem, 20000u);
  EXPECT_NE(mem_malloc(ctx, 16200, KEST_MEM_USE_RESERVED), nullptr);
  EXPECT_EQ(ctx->mem_rsrvd, 0u);
  EXPECT_EQ(ctx->vm_rsrvd, 0u);
  EXPECT_EQ(ctx->curMem, kChunkAreaMem + 16319);
  EXPECT_EQ(root->totMem, kChunkAreaMem + 16319);
  mem_context_destroy(root);
}

TEST_F(MemTest, OutOfMemoryJumpsToTheExceptionEnvironmentWithCode2) {
  LongJmpCtx* env = longjmp_ctx_create();
  ASSERT_NE(env, nullptr);
  MemContext* root = mem_context_create(nullptr, "jumper");
  mem_context_set_exception_env(root, env);
  MemContext* child = mem_context_create(root, "inherits");
  testing::internal::CaptureStderr();
  volatile bool returned = false;
  {
    LongJmpScope scope(env);
    if (LONGJMP_CTX_SETJMP(scope) == 0) {
      mem_malloc(child, kHuge, 0);
      returned = true;
    }
    EXPECT_TRUE(scope.jumped());
    EXPECT_EQ(scope.code(), 2);
  }
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_FALSE(returned);
  EXPECT_NE(err.find("mem_malloc: OUT OF MEMORY"), std::string::npos) << err;
  EXPECT_NE(err.find("mem_malloc: trying to allocate " + std::to_string(kHuge) +
                     " bytes in context inherits("),
            std::string::npos)
      << err;
  EXPECT_NE(err.find("with flags 0"), std::string::npos) << err;
  EXPECT_NE(err.find("Kest Server version "), std::string::npos) << err;
  EXPECT_NE(err.find("SystemContext curMem="), std::string::npos) << err;  // the dump
  EXPECT_EQ(child->totMem, 0u);
  mem_context_destroy(root);
  longjmp_ctx_destroy(env);
}

TEST_F(MemTest, DumpWritesTheSystemLineAndOneRowPerContext) {
  MemContext* root = mem_context_create(nullptr, "dumproot");
  MemContext* child = mem_context_create(root, "child_with_a_long_name");
  ASSERT_EQ(mem_context_reserve(root, 4096, 8192), 0);
  ASSERT_EQ(mem_context_set_limits(child, 1000000, 0), 0);
  mem_malloc(child, 100, 0);
  testing::internal::CaptureStderr();
  mem_context_dump("TESTDUMP");
  const std::vector<std::string> lines = Lines(testing::internal::GetCapturedStderr());
  ASSERT_GE(lines.size(), 4u);
  EXPECT_TRUE(EndsWith(lines[0],
                       "SystemContext curMem=0 curVM=0 curTrans=0 maxMem=0 maxVM=0 maxTrans=0 "
                       "hiMem=" +
                           std::to_string(mem_system_account().hiMem) +
                           " hiVM=" + std::to_string(mem_system_account().hiVM)))
      << lines[0];
  EXPECT_TRUE(EndsWith(lines[1],
                       "name                      curMem         curVM         totMem         "
                       "totVM          hiMem          hiVM         maxMem         maxVM      "
                       "mem_rsrvd      vm_rsrvd level"))
      << lines[1];
  EXPECT_TRUE(EndsWith(lines[2],
                       "dumproot                    4096          8192          20367         "
                       "24510          20367         24510              0             0           "
                       "4096          8192 0"))
      << lines[2];
  EXPECT_TRUE(EndsWith(lines[3],
                       "child_with_a_long          16271         16318          16271         "
                       "16318          16271         16318        1000000             0          "
                       "    0             0 1"))
      << lines[3];
  for (const std::string& line : lines) EXPECT_NE(line.find("TESTDUMP"), std::string::npos);
  mem_context_destroy(root);
}

TEST_F(MemTest, DestroyOfNullIsLoggedAndIgnored) {
  testing::internal::CaptureStderr();
  mem_context_destroy(nullptr);
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("ASSERTION FAILED"), std::string::npos);
  EXPECT_NE(err.find("CODE: ctx"), std::string::npos);
  EXPECT_NE(err.find("MESG: Trying to free NULL memctx"), std::string::npos);
}

TEST_F(MemDeathTest, ShrinkingReallocAborts) {
  MemContext* ctx = mem_context_create(nullptr, "shrink");
  void* p = mem_malloc(ctx, 64, 0);
  EXPECT_DEATH(mem_realloc(ctx, p, 48), AssertionPattern("allocsize >= block->size"));
  EXPECT_EQ(mem_realloc(ctx, p, 50), p);  // 50 rounds up to 64: not smaller
  mem_context_destroy(ctx);
}

TEST_F(MemDeathTest, ChildLimitIsHard) {
  MemContext* root = mem_context_create(nullptr, "root");
  MemContext* child = mem_context_create(root, "limited");
  ASSERT_EQ(mem_context_set_limits(child, 20000, 0), 0);
  mem_malloc(child, 10, 0);
  EXPECT_DEATH(mem_malloc(child, 16200, KEST_MEM_ALLOWFAILURE),  // a second area
               AssertionPattern("IMPLIES(ctx->maxMem > 0, ctx->maxMem >= ctx->totMem)"));
  mem_context_destroy(root);
}

TEST_F(MemDeathTest, InvalidFlagsAbort) {
  MemContext* ctx = mem_context_create(nullptr, "flags");
  EXPECT_DEATH(mem_malloc(ctx, 8, 0x01),
               AssertionPattern("(flags & MEM_ALLOC_VALID_FLAGS) == flags"));
  void* p = mem_malloc(ctx, 8, 0);
  EXPECT_DEATH(mem_realloc(ctx, p, 32, KEST_MEM_LARGE),
               AssertionPattern("(flags & MEM_REALLOC_VALID_FLAGS) == flags"));
  mem_context_destroy(ctx);
}

TEST_F(MemDeathTest, OutOfMemoryWithoutEnvironmentAborts) {
  MemContext* ctx = mem_context_create(nullptr, "noenv");
  EXPECT_DEATH(mem_malloc(ctx, kHuge, 0), AssertionPattern("flags & KEST_MEM_ALLOWFAILURE"));
  EXPECT_DEATH(mem_malloc(ctx, kHuge, 0), "mem_malloc: OUT OF MEMORY");
  mem_context_destroy(ctx);
}

TEST_F(MemDeathTest, FreeingTwiceAborts) {
  MemContext* ctx = mem_context_create(nullptr, "twice");
  void* p = mem_malloc(ctx, 8, 0);
  mem_malloc(ctx, 8, 0);  // keeps the area alive
  mem_free(ctx, p);
  EXPECT_DEATH(mem_free(ctx, p), "assertion");
  mem_context_destroy(ctx);
}

TEST_F(MemDeathTest, ThreadCountsAreChecked) {
  MemContext* root = mem_context_create(nullptr, "threads");
  EXPECT_DEATH(mem_context_thread_leave(root),
               AssertionPattern("ctx->thread_safety->num_threads_running > 0"));
  mem_context_thread_enter(root);
  EXPECT_DEATH(mem_context_destroy(root),
               AssertionPattern("ctx->thread_safety->num_threads_running == 0"));
  mem_context_thread_leave(root);
  MemContext* shared = mem_context_create(root, "shared");
  mem_context_set_concurrent(shared);
  EXPECT_DEATH(mem_context_set_concurrent(shared), AssertionPattern("!ctx->is_concurrent"));
  mem_context_destroy(root);
}

TEST_F(MemTest, ThreadsInOneTreeKeepTheAccountsRight) {
  MemContext* root = mem_context_create(nullptr, "mt");
  MemContext* shared = mem_context_create(root, "shared");
  mem_context_set_concurrent(shared);
  constexpr int kThreads = 4;
  std::vector<MemContext*> own(kThreads);
  for (auto& c : own) c = mem_context_create(root, "own");
  // Every thread announces itself before any starts working, so that the tree is locked from
  // the first allocation on.
  std::atomic<int> entered{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      mem_context_thread_enter(root);
      entered.fetch_add(1);
      while (entered.load() < kThreads) std::this_thread::yield();
      std::vector<void*> mine, common;
      for (int i = 0; i < 2000; ++i) {
        mine.push_back(mem_malloc(own[t], 100 + i % 700, 0));
        common.push_back(mem_malloc(shared, 50 + i % 300, 0));
        if (i % 3 == 0) {
          mem_free(own[t], mine.back());
          mine.pop_back();
          mem_free(shared, common.back());
          common.pop_back();
        }
      }
      for (void* p : mine) mem_free(own[t], p);
      for (void* p : common) mem_free(shared, p);
      mem_context_thread_leave(root);
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(root->totMem, 0u);
  EXPECT_EQ(root->totVM, 0u);
  EXPECT_GT(root->hiMem, 0u);
  EXPECT_EQ(root->thread_safety->num_threads_running, 0);
  mem_context_destroy(root);
}

// Many allocations, frees and reallocations in a tree of contexts, checked against a plain model
// of the live blocks: contents survive, blocks do not overlap, totals add up.
TEST_F(MemTest, RandomizedAgainstAModel) {
  const unsigned seed = std::random_device{}();
  std::cout << "RandomizedAgainstAModel seed=" << seed << std::endl;
  SCOPED_TRACE("seed=" + std::to_string(seed));
  std::mt19937 rng(seed);

  MemContext* root = mem_context_create(nullptr, "r");
  std::vector<MemContext*> ctxs{root};
  for (int i = 0; i < 5; ++i) ctxs.push_back(mem_context_create(ctxs[rng() % ctxs.size()], "n"));
  struct Live {
    size_t ctx;
    size_t size;
    unsigned char fill;
  };
  std::map<unsigned char*, Live> live;
  auto fill = [](unsigned char* p, size_t n, unsigned char v) { std::memset(p, v, n); };
  auto check_all = [&] {
    unsigned char* end_prev = nullptr;
    for (const auto& entry : live) {
      unsigned char* p = entry.first;
      const Live& b = entry.second;
      ASSERT_GE(p, end_prev) << "overlap";
      ASSERT_EQ(Addr(p) % KEST_ALIGN, 0u);
      ASSERT_TRUE(std::all_of(p, p + b.size, [&](unsigned char c) { return c == b.fill; }));
      end_prev = p + b.size;
    }
    for (MemContext* c : ctxs) {
      uint64_t sum = c->curMem;
      for (MemContext* k = c->first_child; k; k = k->next_sibling) sum += k->totMem;
      ASSERT_EQ(c->totMem, sum) << c->name;
      ASSERT_GE(c->hiMem, c->totMem);
    }
  };
  auto pick_size = [&]() -> size_t {
    const unsigned r = rng() % 100;
    if (r < 70) return rng() % 200;
    if (r < 98) return rng() % 6000;
    return 20000 + rng() % 100000;
  };
  for (int step = 0; step < 4000; ++step) {
    const unsigned op = rng() % 10;
    const unsigned char v = static_cast<unsigned char>(rng());
    if (op < 5 || live.empty()) {
      const size_t c = rng() % ctxs.size();
      const size_t size = pick_size();
      const uint32_t flags = rng() % 8 == 0 ? KEST_MEM_LARGE : rng() % 8 == 0 ? KEST_MEM_EXACT : 0;
      auto* p = static_cast<unsigned char*>(op == 0 ? mem_zalloc(ctxs[c], size, flags)
                                                    : mem_malloc(ctxs[c], size, flags));
      ASSERT_NE(p, nullptr);
      if (op == 0) {
        ASSERT_TRUE(std::all_of(p, p + size, [](unsigned char x) { return x == 0; }));
      }
      fill(p, size, v);
      live[p] = Live{c, size, v};
    } else {
      auto it = live.begin();
      std::advance(it, rng() % live.size());
      const Live b = it->second;
      unsigned char* p = it->first;
      live.erase(it);
      if (op < 8) {
        mem_free(ctxs[b.ctx], p);
      } else {
        const size_t size = b.size + pick_size();
        auto* q = static_cast<unsigned char*>(mem_realloc(ctxs[b.ctx], p, size));
        ASSERT_TRUE(std::all_of(q, q + b.size, [&](unsigned char x) { return x == b.fill; }));
        fill(q, size, v);
        live[q] = Live{b.ctx, size, v};
      }
    }
    if (step % 250 == 0) {
      ASSERT_NO_FATAL_FAILURE(check_all());
    }
  }
  ASSERT_NO_FATAL_FAILURE(check_all());
  for (const auto& [p, b] : live) mem_free(ctxs[b.ctx], p);
  for (MemContext* c : ctxs) {
    EXPECT_EQ(c->curMem, 0u) << c->name;
    EXPECT_EQ(c->totVM, 0u) << c->name;
  }
  mem_context_destroy(root);
}

}  // namespace
