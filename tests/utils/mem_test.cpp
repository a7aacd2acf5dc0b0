#include "utils/mem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <string>

#include "utils/longjmp_ctx.h"

namespace {

// A small request in a fresh context makes a heap area of the chunk size: 16192 bytes of blocks,
// the 64-byte header, 15 bytes of alignment slack (its reservation, 16318, shows in the dump).
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

template <typename F>
std::string Logged(F&& f) {
  testing::internal::CaptureStderr();
  f();
  return testing::internal::GetCapturedStderr();
}

TEST(MemTest, AccountingFollowsAllocateFreeAndDestroyUpTheTree) {
  MemContext* root = mem_context_create(nullptr, "root");
  MemContext* child = mem_context_create(root, "child");
  MemContext* leaf = mem_context_create(child, "leaf");
  void* a = mem_malloc(leaf, 100, 0);
  void* b = mem_malloc(leaf, 200, 0);  // same area
  EXPECT_EQ(leaf->curMem, kChunkAreaMem);
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
  mem_context_destroy(leaf);
  EXPECT_EQ(root->totMem, kChunkAreaMem);
  EXPECT_EQ(child->first_child, nullptr);
  mem_context_destroy(root);  // frees child and its block too (ASan checks the rest)
}

TEST(MemTest, BlocksAreBumpAllocatedAlignedAndZeroBytesStillDistinct) {
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

TEST(MemTest, ReallocGrowsInPlaceWhenLastElseMovesKeepingContentsAndZeroingTheRest) {
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
}

// The embedded child inherits the environment; destroying the root leaves its storage alone.
// A root's limit is a grant from the system account: it grows area by area up to the limit and
// goes back when the root is destroyed.
TEST(MemTest, RootLimitDrawsGrantsFromTheSystemAccount) {
  mem_system_set_limits(3 * kChunkAreaMem, 0);
  MemContext* root = mem_context_create(nullptr, "granted");
  ASSERT_EQ(mem_context_set_limits(root, kChunkAreaMem, 0), 0);
  EXPECT_EQ(mem_context_set_limits(root, 4 * kChunkAreaMem, 0), -1);  // more than the system has
  // 16000 bytes fill a chunk area: each request makes a new one and the grant grows.
  for (int i = 0; i < 3; ++i) EXPECT_NE(mem_malloc(root, 16000, 0), nullptr) << i;
  EXPECT_EQ(mem_malloc(root, 16000, KEST_MEM_ALLOWFAILURE), nullptr);  // account exhausted
  EXPECT_EQ(root->maxMem, 3 * kChunkAreaMem);
  EXPECT_EQ(mem_system_account().curMem, 3 * kChunkAreaMem);
  mem_context_destroy(root);
  EXPECT_EQ(mem_system_account().curMem, 0u);
  mem_system_set_limits(0, 0);
}

// A reservation is charged up the tree at once; reserved-only allocations draw on it and fail
// (with the logged figures) when it runs short, reserved-first ones go on within the limit.
TEST(MemTest, ReservationIsChargedUpFrontAndDrawnOnLater) {
  MemContext* root = mem_context_create(nullptr, "rsv");
  MemContext* ctx = mem_context_create(root, "child");
  ASSERT_EQ(mem_context_set_limits(ctx, 40000, 0), 0);
  ASSERT_EQ(mem_context_reserve(ctx, 20000, 20000), 0);
  EXPECT_EQ(root->totMem, 20000u);
  EXPECT_EQ(mem_context_reserve(ctx, 30000, 0), -1);  // over the child's limit
  ASSERT_NE(mem_malloc(ctx, 10, KEST_MEM_USE_RESERVED_ONLY), nullptr);
  EXPECT_EQ(ctx->mem_rsrvd, 20000 - kChunkAreaMem);
  EXPECT_EQ(ctx->vm_rsrvd, 20000 - kChunkAreaVM);
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

TEST(MemTest, OutOfMemoryJumpsToTheInheritedExceptionEnvironmentWithCode2) {
  LongJmpCtx* env = longjmp_ctx_create();
  MemContext* root = mem_context_create(nullptr, "jumper");
  mem_context_set_exception_env(root, env);
  MemContext storage;
  MemContext* child = mem_context_init(&storage, root, "inherits");
  const std::string err = Logged([&] {
    LongJmpScope scope(env);
    if (LONGJMP_CTX_SETJMP(scope) == 0) {
      mem_malloc(child, kHuge, 0);
      ADD_FAILURE() << "mem_malloc returned";
    }
    EXPECT_EQ(scope.code(), 2);
  });
  const std::string parts[] = {
      "mem_malloc: OUT OF MEMORY", "Kest Server version ", "SystemContext curMem=",
      "mem_malloc: trying to allocate " + std::to_string(kHuge) + " bytes in context inherits("};
  for (const std::string& part : parts) EXPECT_NE(err.find(part), std::string::npos) << err;
  EXPECT_EQ(child->totMem, 0u);
  mem_context_destroy(root);
  longjmp_ctx_destroy(env);
}

TEST(MemTest, DumpWritesTheSystemLineAndOneRowPerContext) {
  MemContext* root = mem_context_create(nullptr, "dumproot");
  MemContext* child = mem_context_create(root, "child_with_a_long_name");
  ASSERT_EQ(mem_context_reserve(root, 4096, 8192), 0);
  ASSERT_EQ(mem_context_set_limits(child, 1000000, 0), 0);
  mem_malloc(child, 100, 0);
  const std::string err = Logged([] { mem_context_dump("TESTDUMP"); });
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

TEST(MemTest, DestroyOfNullIsLoggedAndIgnored) {
  const std::string err = Logged([] { mem_context_destroy(nullptr); });
  for (const char* part : {"ASSERTION FAILED", "CODE: ctx", "MESG: Trying to free NULL memctx"})
    EXPECT_NE(err.find(part), std::string::npos) << part;
}

TEST(MemDeathTest, BrokenInvariantsAbortWithTheirConditionText) {
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

// Many allocations, frees and reallocations, dedicated areas among them, in a tree of contexts,
// checked against a plain model of the live blocks: contents survive, blocks do not overlap,
// totals add up, and everything freed is given back.
TEST(MemTest, RandomizedAgainstAModel) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed=" + std::to_string(seed));
  std::mt19937 rng(seed);
  MemContext* root = mem_context_create(nullptr, "r");
  MemContext* child = mem_context_create(root, "c");
  MemContext* ctxs[] = {root, child, mem_context_create(child, "g"), mem_context_create(root, "s")};
  std::map<unsigned char*, std::pair<MemContext*, std::string>> live;  // contents by block
  auto pick_size = [&]() -> size_t {
    const unsigned r = rng() % 100;
    return r < 70 ? rng() % 200 : r < 98 ? rng() % 6000 : 20000 + rng() % 100000;
  };
  for (int step = 1; step <= 4000; ++step) {
    const unsigned op = rng() % 10;
    std::string fill(pick_size(), static_cast<char>(rng()));
    MemContext* ctx = ctxs[rng() % 4];
    void* p = nullptr;
    if (op < 5 || live.empty()) {
      const uint32_t flags = rng() % 8 == 0 ? KEST_MEM_LARGE : rng() % 8 == 0 ? KEST_MEM_EXACT : 0;
      p = mem_zalloc(ctx, fill.size(), flags);
      ASSERT_TRUE(AllBytes(p, fill.size(), 0));
    } else {
      auto it = std::next(live.begin(), static_cast<long>(rng() % live.size()));
      const auto [old, block] = *it;
      live.erase(it);
      ctx = block.first;
      if (op < 8) {
        mem_free(ctx, old);
        continue;
      }
      fill = block.second + fill;
      p = mem_realloc(ctx, old, fill.size());
      ASSERT_EQ(std::memcmp(p, block.second.data(), block.second.size()), 0);
    }
    std::memcpy(p, fill.data(), fill.size());
    live[static_cast<unsigned char*>(p)] = {ctx, fill};
    if (step % 250 != 0) continue;
    unsigned char* end_prev = nullptr;
    for (const auto& [q, block] : live) {
      ASSERT_GE(q, end_prev) << "overlap";
      ASSERT_EQ(std::memcmp(q, block.second.data(), block.second.size()), 0);
      end_prev = q + block.second.size();
    }
    for (MemContext* c : ctxs) {
      uint64_t sum = c->curMem;
      for (MemContext* k = c->first_child; k; k = k->next_sibling) sum += k->totMem;
      ASSERT_EQ(c->totMem, sum) << c->name;
    }
  }
  for (const auto& [q, block] : live) mem_free(block.first, q);
  EXPECT_EQ(root->totVM, 0u);
  mem_context_destroy(root);
}

}  // namespace
