#include "utils/mem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <iostream>
#include <map>
#include <random>
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

// The assertion line as a death-test pattern, its regular-expression operators escaped.
std::string AssertionPattern(const std::string& condition) {
  std::string out;
  for (char c : "assertion \"" + condition + "\" failed") {
    if (std::strchr(".[]{}()\\*+?^$|", c)) out += '\\';
    out += c;
  }
  return out;
}

uintptr_t Addr(const void* p) { return reinterpret_cast<uintptr_t>(p); }

bool AllBytes(const void* p, size_t n, unsigned char v) {
  const auto* b = static_cast<const unsigned char*>(p);
  return std::all_of(b, b + n, [v](unsigned char c) { return c == v; });
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
  EXPECT_EQ(root->curMem, 0u);
  mem_free(leaf, a);  // the area still holds b
  EXPECT_EQ(root->totMem, kChunkAreaMem);
  mem_free(leaf, b);  // emptied: released all the way up
  for (MemContext* c : {leaf, child, root}) {
    EXPECT_EQ(c->totMem, 0u) << c->name;
    EXPECT_EQ(c->totVM, 0u) << c->name;
    EXPECT_EQ(c->hiMem, kChunkAreaMem) << c->name;  // the high-water mark stays
  }
  // Siblings are unlinked wherever they stand; the newest child comes first.
  MemContext* c2 = mem_context_create(root, "c2");
  MemContext* c3 = mem_context_create(root, "c3");
  mem_context_destroy(c2);
  EXPECT_EQ(c3->next_sibling, child);
  mem_malloc(child, 10, 0);
  mem_malloc(leaf, 10, 0);
  EXPECT_EQ(root->totMem, 2 * kChunkAreaMem);
  mem_context_destroy(leaf);
  EXPECT_EQ(root->totMem, kChunkAreaMem);
  EXPECT_EQ(child->first_child, nullptr);
  mem_context_destroy(root);  // frees child and its block too (ASan checks the rest)
}

TEST_F(MemTest, BlocksAreBumpAllocatedAlignedAndZeroBytesStillDistinct) {
  MemContext* ctx = mem_context_create(nullptr, "bump");
  char* prev = static_cast<char*>(mem_malloc(ctx, 0, 0));
  size_t prev_size = 0;
  // Each block follows the previous one's size rounded to 16 and its own 32-byte header.
  for (size_t size : {0u, 1u, 15u, 16u, 17u, 5u}) {
    char* p = static_cast<char*>(mem_malloc(ctx, size, 0));
    EXPECT_EQ(Addr(p) % KEST_ALIGN, 0u) << size;
    EXPECT_EQ(mem_block_requested_size(p), size);
    EXPECT_EQ(Addr(p) - Addr(prev), 32 + (prev_size + 15) / 16 * 16) << size;
    prev = p;
    prev_size = size;
  }
  mem_context_destroy(ctx);
}

TEST_F(MemTest, ReallocGrowsInPlaceWhenLastElseMovesKeepingContentsAndZeroingTheRest) {
  MemContext* ctx = mem_context_create(nullptr, "realloc");
  auto* p = static_cast<char*>(mem_malloc(ctx, 40, 0));
  std::memset(p, 'x', 40);
  EXPECT_EQ(mem_realloc(ctx, p, 40), p);  // same size
  EXPECT_EQ(mem_realloc(ctx, p, 48), p);  // same aligned size
  EXPECT_EQ(mem_realloc(ctx, p, 1000), p);
  EXPECT_EQ(mem_malloc(ctx, 16, 0), p + 1008 + 32);         // the grown block took its room
  auto* r = static_cast<char*>(mem_realloc(ctx, p, 2000));  // no longer last: moves
  ASSERT_NE(r, p);
  EXPECT_TRUE(AllBytes(r, 40, 'x'));
  EXPECT_TRUE(AllBytes(r + 1000, 1000, 0));
  EXPECT_NE(mem_realloc(ctx, nullptr, 10), nullptr);  // a null pointer allocates
  mem_context_destroy(ctx);

  ctx = mem_context_create(nullptr, "move");
  void* big = mem_malloc(ctx, 16000, 0);  // fills one area
  EXPECT_NE(mem_realloc(ctx, big, 20000), big);
  // The old area held only the moved block: it is gone; the new one has 20000 + 32 bytes.
  EXPECT_EQ(ctx->curMem, 20032u + 64 + 15);
  mem_context_destroy(ctx);
}

TEST_F(MemTest, LargeAndExactAllocationsUseDedicatedAreas) {
  MemContext* ctx = mem_context_create(nullptr, "large");
  void* p = mem_zalloc(ctx, 100000, KEST_MEM_LARGE);
  EXPECT_EQ(mem_block_area_mode(p), 1);
  EXPECT_EQ(ctx->curMem, 131072u);  // 100000 + headers, in 64 KiB granules
  EXPECT_EQ(ctx->curVM, 131072u);
  EXPECT_TRUE(AllBytes(p, 100000, 0));
  void* small = mem_malloc(ctx, 10, 0);  // not carved from the dedicated area
  EXPECT_EQ(ctx->curMem, 131072u + kChunkAreaMem);
  mem_free(ctx, p);
  EXPECT_EQ(ctx->curMem, kChunkAreaMem);
  mem_free(ctx, small);
  void* exact = mem_malloc(ctx, 100, KEST_MEM_EXACT);
  EXPECT_EQ(mem_block_area_mode(exact), 0);
  EXPECT_EQ(ctx->curMem, 112u + 32 + 64 + 15);
  mem_free(ctx, exact);
  EXPECT_EQ(ctx->curMem, 0u);
  mem_context_destroy(ctx);
}

TEST_F(MemTest, LargeReservationLetsADedicatedBlockGrowInPlace) {
  MemContext* ctx = mem_context_create(nullptr, "reserved-vm");
  mem_context_set_large_reservation(ctx, 1 << 20);
  auto* p = static_cast<char*>(mem_malloc(ctx, 100000, KEST_MEM_LARGE));
  EXPECT_EQ(ctx->curVM, 1u << 20);
  std::memset(p, 'L', 100000);
  EXPECT_EQ(mem_realloc(ctx, p, 500000), p);
  EXPECT_EQ(ctx->curMem, 524288u);
  EXPECT_EQ(ctx->curVM, 1u << 20);
  p[499999] = 'e';  // the grown pages are writable
  // Beyond the reservation the area may move; the contents come along.
  auto* q = static_cast<char*>(mem_realloc(ctx, p, 3 << 20));
  EXPECT_TRUE(AllBytes(q, 100000, 'L'));
  EXPECT_EQ(q[499999], 'e');
  EXPECT_GE(ctx->curMem, uint64_t{3} << 20);
  mem_free(ctx, q);
  EXPECT_EQ(ctx->curVM, 0u);
  mem_context_destroy(ctx);
}

TEST_F(MemTest, AllowFailureReturnsNullForAHugeRequestAndChangesNothing) {
  MemContext* ctx = mem_context_create(nullptr, "huge");
  void* p = mem_malloc(ctx, 10, 0);
  for (uint32_t flags : {0u, KEST_MEM_LARGE, KEST_MEM_EXACT}) {
    EXPECT_EQ(mem_malloc(ctx, kHuge, KEST_MEM_ALLOWFAILURE | flags), nullptr) << flags;
    EXPECT_EQ(ctx->totMem, kChunkAreaMem);
    EXPECT_EQ(ctx->hiMem, kChunkAreaMem);
  }
  EXPECT_EQ(mem_malloc(ctx, SIZE_MAX, KEST_MEM_ALLOWFAILURE), nullptr);
  EXPECT_EQ(mem_realloc(ctx, p, kHuge, KEST_MEM_ALLOWFAILURE), nullptr);
  mem_context_destroy(ctx);
}

TEST_F(MemTest, RootLimitDrawsGrantsFromTheSystemAccount) {
  mem_system_set_limits(3 * kChunkAreaMem, 0);
  MemContext* root = mem_context_create(nullptr, "granted");
  ASSERT_EQ(mem_context_set_limits(root, kChunkAreaMem, 0), 0);
  EXPECT_EQ(mem_context_set_limits(root, 4 * kChunkAreaMem, 0), -1);  // more than the system has
  // 16000 bytes fill a chunk area: each request makes a new one and the grant grows.
  for (int i = 0; i < 3; ++i) EXPECT_NE(mem_malloc(root, 16000, 0), nullptr) << i;
  EXPECT_EQ(mem_malloc(root, 16000, KEST_MEM_ALLOWFAILURE), nullptr);  // account exhausted
  EXPECT_EQ(root->maxMem, 3 * kChunkAreaMem);
  EXPECT_EQ(mem_system_account().curMem, 3 * kChunkAreaMem);
  mem_context_destroy(root);  // gives the grant back
  EXPECT_EQ(mem_system_account().curMem, 0u);
}

TEST_F(MemTest, ReservationIsChargedUpFrontAndDrawnOnLater) {
  MemContext* root = mem_context_create(nullptr, "rsv");
  MemContext* ctx = mem_context_create(root, "child");
  ASSERT_EQ(mem_context_set_limits(ctx, 40000, 0), 0);
  ASSERT_EQ(mem_context_reserve(ctx, 20000, 20000), 0);
  EXPECT_EQ(root->totMem, 20000u);
  EXPECT_EQ(mem_context_reserve(ctx, 30000, 0), -1);  // over the child's limit
  ASSERT_NE(mem_malloc(ctx, 10, KEST_MEM_USE_RESERVED_ONLY), nullptr);
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
  EXPECT_NE(mem_malloc(ctx, 16200, KEST_MEM_USE_RESERVED), nullptr);
  EXPECT_EQ(ctx->mem_rsrvd, 0u);
  EXPECT_EQ(root->totMem, kChunkAreaMem + 16319);
  mem_context_destroy(root);
}

// The embedded child inherits the environment; destroying the root leaves its storage alone.
TEST_F(MemTest, OutOfMemoryJumpsToTheInheritedExceptionEnvironmentWithCode2) {
  LongJmpCtx* env = longjmp_ctx_create();
  MemContext* root = mem_context_create(nullptr, "jumper");
  mem_context_set_exception_env(root, env);
  MemContext storage;
  MemContext* child = mem_context_init(&storage, root, "inherits");
  ASSERT_EQ(child, &storage);
  testing::internal::CaptureStderr();
  {
    LongJmpScope scope(env);
    if (LONGJMP_CTX_SETJMP(scope) == 0) {
      mem_malloc(child, kHuge, 0);
      ADD_FAILURE() << "mem_malloc returned";
    }
    EXPECT_EQ(scope.code(), 2);
  }
  const std::string err = testing::internal::GetCapturedStderr();
  const std::string parts[] = {
      "mem_malloc: OUT OF MEMORY", "Kest Server version ", "SystemContext curMem=",
      "mem_malloc: trying to allocate " + std::to_string(kHuge) + " bytes in context inherits("};
  for (const std::string& part : parts) EXPECT_NE(err.find(part), std::string::npos) << err;
  EXPECT_EQ(child->totMem, 0u);
  mem_malloc(child, 10, 0);
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
  const std::string err = testing::internal::GetCapturedStderr();
  const MemSystemAccount sys = mem_system_account();
  const std::string lines[] = {
      "SystemContext curMem=0 curVM=0 curTrans=0 maxMem=0 maxVM=0 maxTrans=0 hiMem=" +
          std::to_string(sys.hiMem) + " hiVM=" + std::to_string(sys.hiVM) + "\n",
      "TESTDUMP:name                      curMem         curVM         totMem         totVM      "
      "    hiMem          hiVM         maxMem         maxVM      mem_rsrvd      vm_rsrvd level\n",
      "TESTDUMP:dumproot                    4096          8192          20367         24510       "
      "   20367         24510              0             0           4096          8192 0\n",
      "TESTDUMP:child_with_a_long          16271         16318          16271         16318       "
      "   16271         16318        1000000             0              0             0 1\n"};
  for (const std::string& line : lines) EXPECT_NE(err.find(line), std::string::npos) << line;
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

TEST_F(MemDeathTest, BrokenInvariantsAbortWithTheirConditionText) {
  MemContext* root = mem_context_create(nullptr, "root");
  void* p = mem_malloc(root, 64, 0);
  EXPECT_DEATH(mem_realloc(root, p, 48), AssertionPattern("allocsize >= block->size"));
  EXPECT_EQ(mem_realloc(root, p, 50), p);  // 50 rounds up to 64: not smaller
  EXPECT_DEATH(mem_malloc(root, 8, 0x01),
               AssertionPattern("(flags & MEM_ALLOC_VALID_FLAGS) == flags"));
  EXPECT_DEATH(mem_realloc(root, p, 80, KEST_MEM_LARGE),
               AssertionPattern("(flags & MEM_REALLOC_VALID_FLAGS) == flags"));
  EXPECT_DEATH(mem_malloc(root, kHuge, 0), AssertionPattern("flags & KEST_MEM_ALLOWFAILURE"));
  void* q = mem_malloc(root, 8, 0);
  mem_free(root, q);  // p keeps the area alive
  EXPECT_DEATH(mem_free(root, q), "assertion");

  MemContext* child = mem_context_create(root, "limited");
  ASSERT_EQ(mem_context_set_limits(child, 20000, 0), 0);
  mem_malloc(child, 10, 0);
  EXPECT_DEATH(mem_malloc(child, 16200, KEST_MEM_ALLOWFAILURE),  // a second area
               AssertionPattern("IMPLIES(ctx->maxMem > 0, ctx->maxMem >= ctx->totMem)"));

  EXPECT_DEATH(mem_context_thread_leave(root),
               AssertionPattern("ctx->thread_safety->num_threads_running > 0"));
  mem_context_thread_enter(root);
  EXPECT_DEATH(mem_context_destroy(root),
               AssertionPattern("ctx->thread_safety->num_threads_running == 0"));
  mem_context_thread_leave(root);
  mem_context_set_concurrent(child);
  EXPECT_DEATH(mem_context_set_concurrent(child), AssertionPattern("!ctx->is_concurrent"));
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
      std::vector<std::pair<MemContext*, void*>> live;
      for (int i = 0; i < 4000; ++i) {
        MemContext* c = i % 2 ? shared : own[t];
        live.emplace_back(c, mem_malloc(c, 50 + i % 700, 0));
        if (i % 3 == 0) {
          mem_free(live.back().first, live.back().second);
          live.pop_back();
        }
      }
      for (auto [c, p] : live) mem_free(c, p);
      mem_context_thread_leave(root);
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(root->totMem, 0u);
  EXPECT_EQ(root->totVM, 0u);
  EXPECT_GT(root->hiMem, 0u);
  mem_context_destroy(root);
}

// Many allocations, frees and reallocations in a tree of contexts, checked against a plain model
// of the live blocks: contents survive, blocks do not overlap, totals add up.
TEST_F(MemTest, RandomizedAgainstAModel) {
  const unsigned seed = std::random_device{}();
  std::cout << "RandomizedAgainstAModel seed=" << seed << std::endl;
  SCOPED_TRACE("seed=" + std::to_string(seed));
  std::mt19937 rng(seed);
  std::vector<MemContext*> ctxs{mem_context_create(nullptr, "r")};
  for (int i = 0; i < 5; ++i) ctxs.push_back(mem_context_create(ctxs[rng() % ctxs.size()], "n"));
  struct Live {
    size_t ctx, size;
    unsigned char fill;
  };
  std::map<unsigned char*, Live> live;
  auto check_all = [&] {
    unsigned char* end_prev = nullptr;
    for (const auto& [p, b] : live) {
      ASSERT_GE(p, end_prev) << "overlap";
      ASSERT_EQ(Addr(p) % KEST_ALIGN, 0u);
      ASSERT_TRUE(AllBytes(p, b.size, b.fill));
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
    return r < 70 ? rng() % 200 : r < 98 ? rng() % 6000 : 20000 + rng() % 100000;
  };
  for (int step = 0; step < 4000; ++step) {
    const unsigned op = rng() % 10;
    const auto v = static_cast<unsigned char>(rng());
    if (op < 5 || live.empty()) {
      const size_t c = rng() % ctxs.size(), size = pick_size();
      const uint32_t flags = rng() % 8 == 0 ? KEST_MEM_LARGE : rng() % 8 == 0 ? KEST_MEM_EXACT : 0;
      auto* p = static_cast<unsigned char*>(op == 0 ? mem_zalloc(ctxs[c], size, flags)
                                                    : mem_malloc(ctxs[c], size, flags));
      ASSERT_NE(p, nullptr);
      ASSERT_TRUE(op != 0 || AllBytes(p, size, 0));
      std::memset(p, v, size);
      live[p] = Live{c, size, v};
      continue;
    }
    auto it = std::next(live.begin(), static_cast<long>(rng() % live.size()));
    const Live b = it->second;
    unsigned char* p = it->first;
    live.erase(it);
    if (op < 8) {
      mem_free(ctxs[b.ctx], p);
    } else {
      const size_t size = b.size + pick_size();
      auto* q = static_cast<unsigned char*>(mem_realloc(ctxs[b.ctx], p, size));
      ASSERT_TRUE(AllBytes(q, b.size, b.fill));
      std::memset(q, v, size);
      live[q] = Live{b.ctx, size, v};
    }
    if (step % 250 == 0) {
      ASSERT_NO_FATAL_FAILURE(check_all());
    }
  }
  ASSERT_NO_FATAL_FAILURE(check_all());
  for (const auto& [p, b] : live) mem_free(ctxs[b.ctx], p);
  for (MemContext* c : ctxs) EXPECT_EQ(c->totVM, 0u) << c->name;
  mem_context_destroy(ctxs[0]);
}

}  // namespace
