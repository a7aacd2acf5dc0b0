// Memory contexts: named, hierarchical arenas with accounting up the tree and optional limits,
// destroyed as a whole with their children. Blocks are 16-byte aligned behind a 32-byte header.
#pragma once

#include <cstddef>
#include <cstdint>

struct MemContext;

// Allocation flags.
constexpr uint32_t KEST_MEM_ALLOWFAILURE = 0x02;     // return null instead of the out-of-memory path
constexpr uint32_t KEST_MEM_LARGE = 0x04;            // dedicated area, may use huge pages
constexpr uint32_t KEST_MEM_EXACT = 0x08;            // dedicated area of exactly the needed size
constexpr uint32_t KEST_MEM_REALLOC_FLAG = 0x10;     // accepted by reallocation
constexpr uint32_t KEST_MEM_KEEP_FLAG = 0x20;        // kept in the block header
constexpr uint32_t KEST_MEM_USE_RESERVED = 0x40;     // take from the reservation first
constexpr uint32_t KEST_MEM_USE_RESERVED_ONLY = 0x80;
constexpr uint32_t MEM_ALLOC_VALID_FLAGS = 0xFE;
constexpr uint32_t MEM_REALLOC_VALID_FLAGS = 0xD2;
constexpr size_t KEST_ALIGN = 16;

// Creates a context. With null `storage` the record is allocated (and freed by destroy); `name`
// is not copied and must outlive the context. `parent` may be null for a root.
MemContext* mem_context_init(MemContext* storage, MemContext* parent, const char* name);
MemContext* mem_context_create(MemContext* parent, const char* name);

// Returns a 16-byte-aligned block of `size` bytes. Null only with KEST_MEM_ALLOWFAILURE; otherwise
// running out of memory logs, dumps all contexts and jumps to the context's exception
// environment (or aborts when there is none).
void* mem_malloc(MemContext* ctx, size_t size, uint32_t flags);
void* mem_zalloc(MemContext* ctx, size_t size, uint32_t flags);
// Blocks never shrink: a smaller size is an assertion failure. A null `ptr` allocates.
void* mem_realloc(MemContext* ctx, void* ptr, size_t size, uint32_t flags = 0);
void mem_free(MemContext* ctx, void* ptr);  // null is ignored
char* mem_strdup(MemContext* ctx, const char* text);

// Frees the context, its children and every block in them.
void mem_context_destroy(MemContext* ctx);

// Logs the system-wide line and a table of every context (level 2 under `facility`).
void mem_context_dump(const char* facility);

// Accounting, for callers and tests: bytes taken by this context's own areas and by the subtree.
uint64_t mem_context_cur_mem(const MemContext* ctx);
uint64_t mem_context_tot_mem(const MemContext* ctx);
const char* mem_context_name(const MemContext* ctx);
MemContext* mem_context_parent(const MemContext* ctx);
