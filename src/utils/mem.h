// Memory contexts: named, hierarchical arenas. A context hands out 16-byte-aligned blocks (each
// behind a 32-byte header) by bump allocation from larger areas, counts what it and its
// descendants take, enforces optional limits, can draw on memory reserved beforehand, and is
// destroyed as a whole with its children. Messages go to the logger under "MEMCONTEXT".
//
// Lifetimes: a block lives until it is freed, reallocated away, or its context is destroyed. A
// context must not outlive its parent (destroying the parent destroys it). The name is not copied
// and must outlive the context.
//
// Threads: a context is used by one thread at a time unless it is marked concurrent. Several
// threads may work in different contexts of one tree once they announce themselves with
// mem_context_thread_enter: extension, accounting, linking and destroy then run under the tree's
// lock.
#pragma once

#include <cstddef>
#include <cstdint>

struct Lock;
struct LongJmpCtx;
struct MemArea;

// Allocation flags.
constexpr uint32_t KEST_MEM_ALLOWFAILURE = 0x02;  // return null instead of the out-of-memory path
constexpr uint32_t KEST_MEM_LARGE = 0x04;         // dedicated area, may use huge pages
constexpr uint32_t KEST_MEM_EXACT = 0x08;         // dedicated area of exactly the needed size
constexpr uint32_t KEST_MEM_REALLOC_FLAG = 0x10;  // accepted by reallocation
constexpr uint32_t KEST_MEM_KEEP_FLAG = 0x20;     // kept in the block header
constexpr uint32_t KEST_MEM_USE_RESERVED = 0x40;  // take from the reservation first
constexpr uint32_t KEST_MEM_USE_RESERVED_ONLY = 0x80;
constexpr uint32_t MEM_ALLOC_VALID_FLAGS = 0xFE;
constexpr uint32_t MEM_REALLOC_VALID_FLAGS = 0xD2;
constexpr size_t KEST_ALIGN = 16;

constexpr uint64_t kMemChunkSize = 16192;  // least size of a general area
constexpr size_t kMemAreaHeader = 64;
constexpr size_t kMemBlockHeader = 32;

// Shared by a root and all its descendants.
struct MemThreadSafety {
  int32_t num_threads_running;  // threads announced with mem_context_thread_enter
  int32_t need_to_lock;         // set while more than one thread runs in the tree
  Lock* lock;
};

// The record may be embedded in the caller's own structure (pass it as `storage` to
// mem_context_init); fields are read-only for callers.
struct MemContext {
  MemContext* parent;
  MemContext* first_child;
  MemContext* next_sibling;
  MemContext** link_back;     // the pointer that points at this context
  LongJmpCtx* exception_env;  // where running out of memory jumps (code 2); may be null
  uint64_t curMem, curVM;     // this context's own areas
  uint64_t totMem, totVM;     // this context and all its descendants
  uint64_t hiMem, hiVM;       // high-water marks of totMem and totVM
  uint64_t maxMem, maxVM;     // limits, 0 for none; a root's limits are a system-wide grant
  uint64_t mem_rsrvd, vm_rsrvd;
  MemArea* areas;      // general list: the head has the most free room
  MemArea* dedicated;  // areas of KEST_MEM_LARGE / KEST_MEM_EXACT allocations
  const char* name;
  uint64_t chunk_size;
  MemThreadSafety* thread_safety;
  int32_t is_concurrent;
  int32_t self_allocated;
  int32_t huge_pages_off;
  int64_t large_reservation;  // address space for a large area; < 0: the system-wide maxMem
  MemContext* next_root;      // roots only: the global list
  MemContext** root_link_back;
};

// Creates a context. With null `storage` the record is allocated (and freed by destroy). The
// exception environment, huge-pages-off setting and large-reservation size come from `parent`,
// which may be null for a root.
MemContext* mem_context_init(MemContext* storage, MemContext* parent, const char* name);
MemContext* mem_context_create(MemContext* parent, const char* name);

// Returns a 16-byte-aligned block of `size` bytes (0 is allowed and still gives a distinct
// block). Null only with KEST_MEM_ALLOWFAILURE; otherwise running out of memory logs, dumps all
// contexts and jumps to the context's exception environment with code 2, or aborts when there
// is none. A limit on a non-root context is hard: exceeding it is an assertion failure.
void* mem_malloc(MemContext* ctx, size_t size, uint32_t flags);
// As mem_malloc, with the requested bytes zeroed.
void* mem_zalloc(MemContext* ctx, size_t size, uint32_t flags);
// Blocks never shrink: a smaller aligned size is an assertion failure. A null `ptr` allocates.
// The block grows in place when it is last in its area and the area has room (or its dedicated
// area can grow); otherwise it moves, and the old pointer dies. Flags: MEM_REALLOC_VALID_FLAGS.
void* mem_realloc(MemContext* ctx, void* ptr, size_t size, uint32_t flags = 0);
// Null is ignored. `ptr` must come from `ctx`. An area whose last block is freed is released.
void mem_free(MemContext* ctx, void* ptr);
char* mem_strdup(MemContext* ctx, const char* text);

// Frees the context, its children and every block in them; a root gives its grant back to the
// system-wide account. A null context is logged and ignored.
void mem_context_destroy(MemContext* ctx);

// Logs the system-wide line and a table of every context (level 2 under `facility`).
void mem_context_dump(const char* facility);

// Accounting, for callers and tests.
uint64_t mem_context_cur_mem(const MemContext* ctx);
uint64_t mem_context_tot_mem(const MemContext* ctx);
const char* mem_context_name(const MemContext* ctx);
MemContext* mem_context_parent(const MemContext* ctx);

// Requested size of a live block, and the mode of the area holding it (0 heap, 1 pages, 2 huge
// pages; blocks in page areas are fresh from the system, hence zero).
size_t mem_block_requested_size(const void* ptr);
int mem_block_area_mode(const void* ptr);

// Settings (not used by the client). A limit on a root is drawn from the system-wide account:
// returns -1, changing nothing, when the account cannot grant it or when a limit lies below what
// the context already holds; 0 otherwise.
int mem_context_set_limits(MemContext* ctx, uint64_t max_mem, uint64_t max_vm);
// Reserves memory in advance: the amounts pass the limit checks now and are accounted at once
// (curMem/curVM and the totals grow); allocations with KEST_MEM_USE_RESERVED(_ONLY) then draw on
// the reservation without further checks. Returns -1, changing nothing, when a limit refuses it.
int mem_context_reserve(MemContext* ctx, uint64_t mem, uint64_t vm);
void mem_context_set_exception_env(MemContext* ctx, LongJmpCtx* env);
void mem_context_set_large_reservation(MemContext* ctx, int64_t bytes);
void mem_context_set_huge_pages_off(MemContext* ctx, bool off);
// A concurrent context may be shared by threads: every operation on it takes the tree's lock.
void mem_context_set_concurrent(MemContext* ctx);
// A thread announces that it works in (a context of) this tree, and leaves it again.
void mem_context_thread_enter(MemContext* ctx);
void mem_context_thread_leave(MemContext* ctx);

// The system-wide account. curMem/curVM count what has been granted to roots with limits;
// maxMem/maxVM bound the grants, 0 meaning unlimited (the default). curTrans/maxTrans are kept
// for the dump only.
struct MemSystemAccount {
  uint64_t curMem, curVM, curTrans;
  uint64_t maxMem, maxVM, maxTrans;
  uint64_t hiMem, hiVM;
  uint64_t huge_page_size;  // 0 when huge pages are unavailable
};
MemSystemAccount mem_system_account();
void mem_system_set_limits(uint64_t max_mem, uint64_t max_vm);
