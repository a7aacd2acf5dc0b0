// Interim memory contexts: one heap allocation per block, tracked per context so destroy frees
// everything. Accounting counts block sizes. The area-based allocator replaces this file.
#include "utils/mem.h"

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <unordered_set>

#include "utils/kest_assert.h"
#include "utils/znlog.h"

namespace {
constexpr const char* kFacility = "MEMCONTEXT";
struct BlockHeader {
  size_t size;
  size_t pad[3];
};
static_assert(sizeof(BlockHeader) == 32);
}  // namespace

struct MemContext {
  MemContext* parent = nullptr;
  const char* name = nullptr;
  bool self_allocated = false;
  uint64_t cur_mem = 0;
  uint64_t tot_mem = 0;
  std::unordered_set<MemContext*> children;
  std::unordered_set<BlockHeader*> blocks;
};

MemContext* mem_context_init(MemContext* storage, MemContext* parent, const char* name) {
  MemContext* ctx = storage ? new (storage) MemContext : new MemContext;
  ctx->self_allocated = storage == nullptr;
  ctx->parent = parent;
  ctx->name = name;
  if (parent) parent->children.insert(ctx);
  return ctx;
}

MemContext* mem_context_create(MemContext* parent, const char* name) {
  return mem_context_init(nullptr, parent, name);
}

static void account(MemContext* ctx, int64_t delta) {
  ctx->cur_mem += delta;
  for (MemContext* c = ctx; c; c = c->parent) c->tot_mem += delta;
}

void* mem_malloc(MemContext* ctx, size_t size, uint32_t flags) {
  KEST_ASSERT(kFacility, (flags & MEM_ALLOC_VALID_FLAGS) == flags);
  size_t aligned = (size + 15) & ~size_t{15};
  auto* h = static_cast<BlockHeader*>(std::aligned_alloc(16, aligned + sizeof(BlockHeader)));
  if (!h) {
    KEST_ASSERT(kFacility, flags & KEST_MEM_ALLOWFAILURE);
    return nullptr;
  }
  h->size = aligned;
  ctx->blocks.insert(h);
  account(ctx, static_cast<int64_t>(aligned + sizeof(BlockHeader)));
  return h + 1;
}

void* mem_zalloc(MemContext* ctx, size_t size, uint32_t flags) {
  void* p = mem_malloc(ctx, size, flags);
  if (p) std::memset(p, 0, size);
  return p;
}

void mem_free(MemContext* ctx, void* ptr) {
  if (!ptr) return;
  auto* h = static_cast<BlockHeader*>(ptr) - 1;
  ctx->blocks.erase(h);
  account(ctx, -static_cast<int64_t>(h->size + sizeof(BlockHeader)));
  std::free(h);
}

void* mem_realloc(MemContext* ctx, void* ptr, size_t size, uint32_t flags) {
  if (!ptr) return mem_malloc(ctx, size, flags & ~KEST_MEM_REALLOC_FLAG);
  auto* h = static_cast<BlockHeader*>(ptr) - 1;
  size_t aligned = (size + 15) & ~size_t{15};
  KEST_ASSERT(kFacility, aligned >= h->size);
  if (aligned == h->size) return ptr;
  void* p = mem_malloc(ctx, size, flags & (KEST_MEM_ALLOWFAILURE));
  if (!p) return nullptr;
  std::memcpy(p, ptr, h->size);
  mem_free(ctx, ptr);
  return p;
}

char* mem_strdup(MemContext* ctx, const char* text) {
  size_t n = std::strlen(text) + 1;
  auto* p = static_cast<char*>(mem_malloc(ctx, n, 0));
  std::memcpy(p, text, n);
  return p;
}

void mem_context_destroy(MemContext* ctx) {
  while (!ctx->children.empty()) mem_context_destroy(*ctx->children.begin());
  for (BlockHeader* h : ctx->blocks) std::free(h);
  for (MemContext* c = ctx->parent; c; c = c->parent) c->tot_mem -= ctx->tot_mem;
  if (ctx->parent) ctx->parent->children.erase(ctx);
  const bool self = ctx->self_allocated;
  ctx->~MemContext();
  if (self) ::operator delete(ctx);
}

void mem_context_dump(const char*) {}

uint64_t mem_context_cur_mem(const MemContext* ctx) { return ctx->cur_mem; }
uint64_t mem_context_tot_mem(const MemContext* ctx) { return ctx->tot_mem; }
const char* mem_context_name(const MemContext* ctx) { return ctx->name; }
MemContext* mem_context_parent(const MemContext* ctx) { return ctx->parent; }
