// Memory contexts: areas, blocks, reallocation, destroy and dump. Limits and accounting are in
// mem_account.cpp.
#include "utils/mem.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <new>

#include "utils/kest_assert.h"
#include "utils/longjmp_ctx.h"
#include "utils/mem_account.h"
#include "utils/platform.h"
#include "utils/version.h"
#include "utils/znlog.h"

// An area: this header, then bump-allocated blocks. The memory of a freed block is not reused
// until the whole area is released.
struct MemArea {
  uint64_t used;      // offset of the next block's header
  uint64_t size;      // bytes usable from the area's start
  uint64_t reserved;  // address space held
  int32_t ref;        // live blocks
  int32_t mode;       // 0 heap, 1 pages, 2 huge pages
  MemArea* prev;
  MemArea* next;
  int32_t dedicated;  // on the dedicated list rather than the general one
  int32_t unused0;
  uint64_t unused1;
};
static_assert(sizeof(MemArea) == kMemAreaHeader);

using namespace mem_account;

namespace {
constexpr int32_t kBlockFreed = 0x01;
constexpr uint32_t kKeptFlags = KEST_MEM_LARGE | KEST_MEM_KEEP_FLAG;
constexpr uint64_t kGranule = 65536;
constexpr uint64_t kPageModeThreshold = 0x80000;
// Larger requests cannot be met and would overflow the size arithmetic.
constexpr uint64_t kMaxRequest = uint64_t{1} << 56;

struct MemBlock {
  MemArea* area;
  uint64_t req_size;  // as requested
  uint64_t size;      // rounded up to KEST_ALIGN
  int32_t flags;      // KEST_MEM_LARGE and KEST_MEM_KEEP_FLAG of the allocation; kBlockFreed
  int32_t unused;
};
static_assert(sizeof(MemBlock) == kMemBlockHeader);

constexpr uint64_t round_up(uint64_t n, uint64_t unit) { return (n + unit - 1) / unit * unit; }
constexpr uint64_t align16(uint64_t n) { return round_up(n, KEST_ALIGN); }
uint64_t room(const MemArea* a) { return a->size - a->used; }
MemBlock* block_of(const void* p) {
  return const_cast<MemBlock*>(static_cast<const MemBlock*>(p) - 1);
}

// ---- area lists ----

MemArea*& list_head(MemContext* ctx, const MemArea* a) {
  return a->dedicated ? ctx->dedicated : ctx->areas;
}

void list_unlink(MemContext* ctx, MemArea* a) {
  if (a->prev)
    a->prev->next = a->next;
  else
    list_head(ctx, a) = a->next;
  if (a->next) a->next->prev = a->prev;
  a->prev = a->next = nullptr;
}

void list_push(MemContext* ctx, MemArea* a) {
  MemArea*& head = list_head(ctx, a);
  a->prev = nullptr;
  a->next = head;
  if (head) head->prev = a;
  head = a;
}

// Moves `a` down its list while its successor has more free room, so that an area never has
// less room than the one behind it and the head is the best place to carve from.
void list_sink(MemContext* ctx, MemArea* a) {
  while (a->next && room(a->next) > room(a)) {
    MemArea* n = a->next;
    list_unlink(ctx, a);
    a->prev = n;
    a->next = n->next;
    if (n->next) n->next->prev = a;
    n->next = a;
  }
}

// ---- areas ----

struct AreaPlan {
  uint64_t memReq, vmReq;
  uint64_t size, reserved;
  int mode;
};

uint64_t reservation_for(const MemContext* ctx, uint64_t request, uint32_t flags, bool huge) {
  const MemSystemAccount& acc = sys().account;
  const bool large = flags & KEST_MEM_LARGE;
  const uint64_t s = std::max(request + 32, ctx->chunk_size);
  const uint64_t t = s + 64;
  uint64_t res;
  if (!large && t < kPageModeThreshold)
    res = s + 79;
  else if (huge)
    res = round_up(t, acc.huge_page_size);
  else
    res = round_up(t, kGranule);
  if (large && ctx->large_reservation != 0) {
    const uint64_t setting =
        ctx->large_reservation < 0 ? acc.maxMem : static_cast<uint64_t>(ctx->large_reservation);
    if (acc.maxVM == 0 || acc.curVM + 2 * acc.maxMem <= acc.maxVM) res = std::max(setting, res);
  }
  return res;
}

AreaPlan plan_area(const MemContext* ctx, uint64_t request, uint32_t flags) {
  const uint64_t huge_size = sys().account.huge_page_size;
  const bool large = flags & KEST_MEM_LARGE;
  AreaPlan p{};
  p.memReq = request + kMemAreaHeader;
  const bool huge = huge_size != 0 && large && p.memReq >= huge_size && !ctx->huge_pages_off;
  const uint64_t res = reservation_for(ctx, request, flags, huge);
  p.vmReq = std::max(res, p.memReq);
  p.mode = huge ? 2 : (large || res >= kPageModeThreshold) ? 1 : 0;
  switch (p.mode) {
    case 0:  // room to put the first block on a 16-byte boundary
      p.size = p.memReq + 15;
      p.reserved = p.vmReq + 15;
      break;
    case 1:
      p.size = round_up(p.memReq, kGranule);
      p.reserved = round_up(p.vmReq, kGranule);
      break;
    case 2:
      p.size = round_up(p.memReq, huge_size);
      p.reserved = round_up(p.vmReq, huge_size);
      break;
    default:
      ZN_LOG(kFacility, ZN_ERROR, "mem_area_aligned_sizes: invalid mode");
  }
  return p;
}

void* obtain_memory(AreaPlan& p) {
  size_t reserved = p.reserved;
  void* mem = nullptr;
  switch (p.mode) {
    case 0:
      mem = std::malloc(p.size);
      break;
    case 2:
      mem = vm_reserve_commit_large(p.size, &reserved);
      if (mem) break;
      ZN_LOG(kFacility, ZN_WARN,
             "mem_area_alloc: failed to allocate huge pages (errno: %d size:%dM res: %dM "
             "kesthugepagesize: %dM) retrying with normal mmap",
             errno, static_cast<int>(p.size >> 20), static_cast<int>(p.reserved >> 20),
             static_cast<int>(sys().account.huge_page_size >> 20));
      p.mode = 1;
      reserved = p.reserved;
      [[fallthrough]];
    case 1:
      mem = vm_reserve_commit(p.size, &reserved);
      break;
    default:
      ZN_LOG(kFacility, ZN_ERROR, "mem_area_alloc: invalid mode");
      return nullptr;
  }
  if (!mem) return nullptr;
  if (p.mode != 0) {
    KEST_ASSERT(kFacility, reserved >= p.size);
    p.reserved = reserved;
  }
  return mem;
}

void release_memory(MemArea* a) {
  switch (a->mode) {
    case 0:
      std::free(a);
      break;
    case 1:
    case 2:
      vm_release(a, a->reserved);
      break;
    default:
      ZN_LOG(kFacility, ZN_ERROR, "mem_area_free: invalid mode");
  }
}

// Makes a new area for `request` bytes (blocks with their headers) and puts it at the head of
// its list. Null when a limit refuses it or the system has no memory.
MemArea* extend(MemContext* ctx, uint64_t request, uint32_t flags) {
  AreaPlan p = plan_area(ctx, request, flags);
  ZN_LOG(kFacility, ZN_DEBUG, "mem_context_extend: ctx(%s)=%p memReq=%" PRIu64 " vmReq=%" PRIu64,
         name_of(ctx), static_cast<void*>(ctx), p.memReq, p.vmReq);
  if (p.mode < 0 || p.mode > 2) return nullptr;
  const Amounts req{p.size, p.reserved};
  Amounts taken, granted;
  if (!charge(ctx, req, flags, &taken, &granted)) return nullptr;
  void* mem = obtain_memory(p);
  TreeLock guard(ctx);
  if (!mem) {
    unaccount(ctx, req, taken, granted);
    return nullptr;
  }
  if (p.reserved != req.vm) account_up(ctx, 0, p.reserved - req.vm);  // the system's rounding
  raise_high_marks(ctx);
  auto* a = static_cast<MemArea*>(mem);
  const auto base = reinterpret_cast<uintptr_t>(a);
  a->used = kMemAreaHeader +
            ((KEST_ALIGN - (base + kMemAreaHeader + kMemBlockHeader) % KEST_ALIGN) % KEST_ALIGN);
  a->size = p.size;
  a->reserved = p.reserved;
  a->ref = 0;
  a->mode = p.mode;
  a->dedicated = (flags & (KEST_MEM_LARGE | KEST_MEM_EXACT)) != 0;
  list_push(ctx, a);
  return a;
}

void release_area(MemContext* ctx, MemArea* a) {
  list_unlink(ctx, a);
  {
    TreeLock guard(ctx);
    account_up(ctx, 0 - a->size, 0 - a->reserved);
  }
  release_memory(a);
}

// ---- blocks ----

void* carve(MemContext* ctx, MemArea* a, size_t size, uint64_t need, uint32_t flags) {
  auto* block = reinterpret_cast<MemBlock*>(reinterpret_cast<char*>(a) + a->used);
  a->used += need;
  a->ref += 1;
  block->area = a;
  block->req_size = size;
  block->size = need - kMemBlockHeader;
  block->flags = static_cast<int32_t>(flags & kKeptFlags);
  if (!(flags & KEST_MEM_LARGE)) list_sink(ctx, a);
  void* retval = block + 1;
  KEST_ASSERT_TEXT(kFacility, (reinterpret_cast<uintptr_t>(retval) & (KEST_ALIGN - 1)) == 0,
                   "(((ssize_t)retval) & (KEST_ALIGN - 1)) == 0");
  return retval;
}

void* try_alloc(MemContext* ctx, size_t size, uint32_t flags) {
  if (size > kMaxRequest) return nullptr;
  TreeLock whole(ctx, ctx->is_concurrent != 0);
  const uint64_t need = align16(size) + kMemBlockHeader;
  MemArea* a = nullptr;
  if (!(flags & (KEST_MEM_LARGE | KEST_MEM_EXACT)) && ctx->areas && room(ctx->areas) >= need)
    a = ctx->areas;
  else if (!(a = extend(ctx, (flags & KEST_MEM_EXACT) ? need : std::max(need, ctx->chunk_size),
                        flags)))
    return nullptr;
  return carve(ctx, a, size, need, flags);
}

// No object with a destructor may be alive here: the exception environment is entered by
// longjmp.
void* out_of_memory(MemContext* ctx, size_t size, uint32_t flags) {
  const uint64_t aligned = size > kMaxRequest ? size : align16(size);
  if (flags & KEST_MEM_ALLOWFAILURE) {
    ZN_LOG(kFacility, ZN_DEBUG,
           "mem_mallocex: allocation of %" PRIu64
           " bytes failed in context %s (%p), returning NULL",
           aligned, name_of(ctx), static_cast<void*>(ctx));
    return nullptr;
  }
  ZN_LOG(kFacility, ZN_ERROR, "mem_malloc: OUT OF MEMORY");
  ZN_LOG(kFacility, ZN_ERROR,
         "mem_malloc: trying to allocate %" PRIu64 " bytes in context %s(%p) with flags %d",
         aligned, name_of(ctx), static_cast<void*>(ctx), static_cast<int>(flags));
  ZN_LOG(kFacility, ZN_ERROR, "Kest Server version %s", version_str());
  __zn_backtrace(__FILE__, __LINE__, kFacility);
  mem_context_dump(kFacility);
  if (ctx->exception_env) longjmp_ctx_jump(ctx->exception_env, 2);
  KEST_ASSERT(kFacility, flags & KEST_MEM_ALLOWFAILURE);
  return nullptr;
}

// Grows a page area holding a single block through the platform, which may move it.
bool grow_dedicated(MemContext* ctx, MemBlock*& block, uint64_t allocsize, uint32_t flags) {
  MemArea* a = block->area;
  if (a->mode == 0 || a->ref != 1) return false;
  const uint64_t offset = reinterpret_cast<char*>(block) - reinterpret_cast<char*>(a);
  const uint64_t unit = a->mode == 2 ? sys().account.huge_page_size : kGranule;
  const AreaPlan p = plan_area(ctx, allocsize + kMemBlockHeader, flags);
  const uint64_t new_size = round_up(offset + kMemBlockHeader + allocsize, unit);
  const uint64_t new_res = std::max(a->reserved, round_up(p.vmReq, unit));
  const Amounts req{new_size - a->size, new_res - a->reserved};
  Amounts taken, granted;
  if (!charge(ctx, req, flags, &taken, &granted)) return false;
  size_t reserved = a->reserved;
  void* moved = a->mode == 2 ? vm_resize_large(a, a->size, new_size, new_res, &reserved)
                             : vm_resize(a, a->size, new_size, new_res, &reserved);
  TreeLock guard(ctx);
  if (!moved) {
    unaccount(ctx, req, taken, granted);
    return false;
  }
  account_up(ctx, 0, reserved - new_res);
  raise_high_marks(ctx);
  a = static_cast<MemArea*>(moved);
  if (a->prev)
    a->prev->next = a;
  else
    ctx->dedicated = a;
  if (a->next) a->next->prev = a;
  a->size = new_size;
  a->reserved = reserved;
  block = reinterpret_cast<MemBlock*>(reinterpret_cast<char*>(a) + offset);
  block->area = a;
  return true;
}

// Grows the block where it lies when it is last in its area and the area has (or gets) room.
bool grow_in_place(MemContext* ctx, MemBlock*& block, size_t size, uint32_t flags) {
  const uint64_t allocsize = align16(size);
  if (allocsize == block->size) {  // nothing to move, wherever the block lies
    block->req_size = size;
    return true;
  }
  MemArea* a = block->area;
  const bool last =
      reinterpret_cast<char*>(block + 1) + block->size == reinterpret_cast<char*>(a) + a->used;
  if (!last) return false;
  const uint64_t diff = allocsize - block->size;
  if (room(a) < diff && !(a->dedicated && grow_dedicated(ctx, block, allocsize, flags)))
    return false;
  a = block->area;
  a->used += diff;
  block->size = allocsize;
  block->req_size = size;
  if (!a->dedicated) list_sink(ctx, a);
  return true;
}

void* move_block(MemContext* ctx, MemBlock* old, size_t size, uint32_t flags) {
  // The copy may go beyond the reservation.
  if (flags & KEST_MEM_USE_RESERVED_ONLY)
    flags = (flags & ~KEST_MEM_USE_RESERVED_ONLY) | KEST_MEM_USE_RESERVED | KEST_MEM_REALLOC_FLAG;
  void* p = mem_malloc(ctx, size, flags);
  if (!p) return nullptr;
  MemBlock* block = block_of(p);
  block->flags = old->flags;
  std::memcpy(p, old + 1, old->req_size);
  if (block->area->mode != 1)
    std::memset(static_cast<char*>(p) + old->req_size, 0, block->size - old->req_size);
  mem_free(ctx, old + 1);
  return p;
}

// ---- destroy and dump ----

// Releases the subtree below `ctx` and its own areas, takes its totals off the ancestors and
// unlinks it from its parent. The record itself stays.
void dismantle(MemContext* ctx) {
  while (MemContext* child = ctx->first_child) {
    dismantle(child);
    if (child->self_allocated) std::free(child);
  }
  for (MemArea** list : {&ctx->areas, &ctx->dedicated}) {
    while (MemArea* a = *list) {
      *list = a->next;
      release_memory(a);
    }
  }
  for (MemContext* c = ctx->parent; c; c = c->parent) {
    c->totMem -= ctx->totMem;
    c->totVM -= ctx->totVM;
  }
  if (ctx->link_back) {
    *ctx->link_back = ctx->next_sibling;
    if (ctx->next_sibling) ctx->next_sibling->link_back = ctx->link_back;
  }
}

void destroy_root_record(MemContext* ctx) {
  {
    GlobalLock global;
    MemSystemAccount& acc = sys().account;
    acc.curMem -= ctx->maxMem;
    acc.curVM -= ctx->maxVM;
    *ctx->root_link_back = ctx->next_root;
    if (ctx->next_root) ctx->next_root->root_link_back = ctx->root_link_back;
  }
  MemThreadSafety* ts = ctx->thread_safety;
  KEST_ASSERT(kFacility, ctx->thread_safety->num_threads_running == 0);
  KEST_ASSERT(kFacility, !ctx->thread_safety->need_to_lock);
  KEST_ASSERT_TEXT(kFacility, ctx->thread_safety->lock != nullptr,
                   "ctx->thread_safety->lock != NULL");
  lock_destroy(ts->lock);
  delete ts;
}

void dump_tree(const char* facility, const MemContext* ctx, int level, bool* header_done) {
  if (!*header_done) {
    __zn_log(__FILE__, __LINE__, facility, ZN_INFO,
             "%-18s %13s %13s  %13s %13s  %13s %13s  %13s %13s  %13s %13s %s\n", "name", "curMem",
             "curVM", "totMem", "totVM", "hiMem", "hiVM", "maxMem", "maxVM", "mem_rsrvd",
             "vm_rsrvd", "level");
    *header_done = true;
  }
  auto ll = [](uint64_t v) { return static_cast<long long>(v); };
  __zn_log(__FILE__, __LINE__, facility, ZN_INFO,
           "%-18.17s %13lld %13lld  %13lld %13lld  %13lld %13lld  %13lld %13lld  %13lld %13lld "
           "%d\n",
           name_of(ctx), ll(ctx->curMem), ll(ctx->curVM), ll(ctx->totMem), ll(ctx->totVM),
           ll(ctx->hiMem), ll(ctx->hiVM), ll(ctx->maxMem), ll(ctx->maxVM), ll(ctx->mem_rsrvd),
           ll(ctx->vm_rsrvd), level);
  for (const MemContext* c = ctx->first_child; c; c = c->next_sibling)
    dump_tree(facility, c, level + 1, header_done);
}

void link_child(MemContext* parent, MemContext* ctx) {
  TreeLock guard(parent);
  ctx->next_sibling = parent->first_child;
  if (ctx->next_sibling) ctx->next_sibling->link_back = &ctx->next_sibling;
  parent->first_child = ctx;
  ctx->link_back = &parent->first_child;
}

void link_root(MemContext* ctx) {
  // No throwing allocation here: running short of memory takes the assertion below.
  auto* ts = new (std::nothrow) MemThreadSafety{0, 0, nullptr};
  if (ts) ts->lock = lock_create();
  ctx->thread_safety = ts && ts->lock ? ts : nullptr;
  ZN_LOG(kFacility, ZN_DEBUG, "allocated lock(%p) by %s",
         static_cast<void*>(ts ? ts->lock : nullptr), name_of(ctx));
  KEST_ASSERT_TEXT(kFacility, ctx->thread_safety != nullptr, "this->thread_safety != NULL");
  SystemState& s = sys();
  GlobalLock global;
  ctx->next_root = s.roots;
  if (s.roots) s.roots->root_link_back = &ctx->next_root;
  s.roots = ctx;
  ctx->root_link_back = &s.roots;
}
}  // namespace

MemContext* mem_context_init(MemContext* storage, MemContext* parent, const char* name) {
  MemContext* ctx = storage;
  if (!ctx) {
    ctx = static_cast<MemContext*>(std::calloc(1, sizeof(MemContext)));
    if (!ctx) {
      ZN_LOG(kFacility, ZN_ERROR,
             "mem_context_init: failed to allocate memory for a new memcontext");
      if (parent && parent->exception_env) longjmp_ctx_jump(parent->exception_env, 2);
      KEST_ASSERT(kFacility, parent && parent->exception_env);
    }
  } else {
    *ctx = MemContext{};
  }
  ctx->self_allocated = storage == nullptr;
  ctx->parent = parent;
  ctx->name = name;
  ctx->chunk_size = kMemChunkSize;
  if (parent) {
    ctx->exception_env = parent->exception_env;
    ctx->thread_safety = parent->thread_safety;
    ctx->huge_pages_off = parent->huge_pages_off;
    ctx->large_reservation = parent->large_reservation;
    link_child(parent, ctx);
  } else {
    link_root(ctx);
  }
  ZN_LOG(kFacility, ZN_DEBUG, "mem_context_init: this(%s)=%p, parent(%s)=%p, chunksize=%" PRIu64,
         name_of(ctx), static_cast<void*>(ctx), name_of(parent), static_cast<void*>(parent),
         ctx->chunk_size);
  return ctx;
}

MemContext* mem_context_create(MemContext* parent, const char* name) {
  return mem_context_init(nullptr, parent, name);
}

void* mem_malloc(MemContext* ctx, size_t size, uint32_t flags) {
  KEST_ASSERT(kFacility, (flags & MEM_ALLOC_VALID_FLAGS) == flags);
  if (void* p = try_alloc(ctx, size, flags)) return p;
  return out_of_memory(ctx, size, flags);
}

void* mem_zalloc(MemContext* ctx, size_t size, uint32_t flags) {
  void* p = mem_malloc(ctx, size, flags);
  if (p && block_of(p)->area->mode != 1) std::memset(p, 0, size);
  return p;
}

void* mem_realloc(MemContext* ctx, void* ptr, size_t size, uint32_t flags) {
  KEST_ASSERT(kFacility, (flags & MEM_REALLOC_VALID_FLAGS) == flags);
  if (!ptr) return mem_malloc(ctx, size, flags);
  if (size > kMaxRequest) return out_of_memory(ctx, size, flags);
  MemBlock* block = block_of(ptr);
  const uint64_t allocsize = align16(size);
  KEST_ASSERT(kFacility, allocsize >= block->size);
  flags |= static_cast<uint32_t>(block->flags) & kKeptFlags;
  {
    TreeLock whole(ctx, ctx->is_concurrent != 0);
    if (grow_in_place(ctx, block, size, flags)) return block + 1;
  }
  return move_block(ctx, block, size, flags);
}

void mem_free(MemContext* ctx, void* ptr) {
  if (!ptr) return;
  TreeLock whole(ctx, ctx->is_concurrent != 0);
  MemBlock* block = block_of(ptr);
  MemArea* area = block->area;
  KEST_ASSERT(kFacility, area->ref > 0);
  KEST_ASSERT(kFacility, (block->flags & kBlockFreed) == 0);
  block->flags |= kBlockFreed;
  if (--area->ref == 0) release_area(ctx, area);
}

char* mem_strdup(MemContext* ctx, const char* text) {
  const size_t n = std::strlen(text) + 1;
  auto* p = static_cast<char*>(mem_malloc(ctx, n, 0));
  std::memcpy(p, text, n);
  return p;
}

void mem_context_destroy(MemContext* ctx) {
  if (!ctx) {
    ZN_LOG(kFacility, ZN_ERROR, "ASSERTION FAILED");
    ZN_LOG(kFacility, ZN_ERROR, "CODE: %s", "ctx");
    ZN_LOG(kFacility, ZN_ERROR, "MESG: Trying to free NULL memctx");
    return;
  }
  ZN_LOG(kFacility, ZN_DEBUG, "mem_context_remove: removing ctx %p (%s)", static_cast<void*>(ctx),
         name_of(ctx));
  {
    TreeLock guard(ctx);
    dismantle(ctx);
  }
  if (!ctx->parent) destroy_root_record(ctx);
  if (ctx->self_allocated) std::free(ctx);
}

void mem_context_dump(const char* facility) {
  const MemSystemAccount a = mem_system_account();
  __zn_log(__FILE__, __LINE__, facility, ZN_INFO,
           "SystemContext curMem=%" PRIu64 " curVM=%" PRIu64 " curTrans=%" PRIu64 " maxMem=%" PRIu64
           " maxVM=%" PRIu64 " maxTrans=%" PRIu64 " hiMem=%" PRIu64 " hiVM=%" PRIu64,
           a.curMem, a.curVM, a.curTrans, a.maxMem, a.maxVM, a.maxTrans, a.hiMem, a.hiVM);
  GlobalLock global;
  bool header_done = false;
  for (const MemContext* root = sys().roots; root; root = root->next_root)
    dump_tree(facility, root, 0, &header_done);
}

uint64_t mem_context_cur_mem(const MemContext* ctx) { return ctx->curMem; }
uint64_t mem_context_tot_mem(const MemContext* ctx) { return ctx->totMem; }
const char* mem_context_name(const MemContext* ctx) { return ctx->name; }
MemContext* mem_context_parent(const MemContext* ctx) { return ctx->parent; }

size_t mem_block_requested_size(const void* ptr) { return block_of(ptr)->req_size; }
int mem_block_area_mode(const void* ptr) { return block_of(ptr)->area->mode; }

void mem_context_set_exception_env(MemContext* ctx, LongJmpCtx* env) { ctx->exception_env = env; }
void mem_context_set_large_reservation(MemContext* ctx, int64_t bytes) {
  ctx->large_reservation = bytes;
}
void mem_context_set_huge_pages_off(MemContext* ctx, bool off) { ctx->huge_pages_off = off; }
