#include "utils/hash_table.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "utils/mem.h"

namespace {
constexpr int64_t kInitialCapacity = 32;
constexpr int64_t kInitialBuckets = 16;
constexpr size_t kKeySize = 8;

void* table_alloc(MemContext* ctx, size_t bytes, uint32_t flags) {
  return ctx ? mem_malloc(ctx, bytes, KEST_MEM_ALLOWFAILURE | flags) : std::malloc(bytes);
}

void table_free(MemContext* ctx, void* p) {
  if (ctx) {
    mem_free(ctx, p);
  } else {
    std::free(p);
  }
}

unsigned char* entry_at(const HashTable* t, int64_t slot) {
  return t->entries + static_cast<size_t>(slot) * t->entry_size;
}

// The next index sits at the end of an entry, after the key and the (padded) value.
int64_t& next_of(const HashTable* t, int64_t slot) {
  return *reinterpret_cast<int64_t*>(entry_at(t, slot) + t->entry_size - sizeof(int64_t));
}

int64_t bucket_of(const HashTable* t, const void* key, int64_t bucket_count) {
  return static_cast<int64_t>(t->hash(key) & static_cast<uint64_t>(bucket_count - 1));
}

uint64_t slng_key_hash(const void* key) {
  int64_t x;
  std::memcpy(&x, key, sizeof x);
  return hash_table_slng_hash(x);
}

int slng_key_equal(const void* a, const void* b) { return std::memcmp(a, b, kKeySize) == 0; }

const char* string_key(const void* key) {
  const char* s;
  std::memcpy(&s, key, sizeof s);
  return s;
}

uint64_t string_key_hash(const void* key) { return hash_table_string_hash(string_key(key)); }

int string_key_equal(const void* a, const void* b) {
  const char* x = string_key(a);
  const char* y = string_key(b);
  if (!x || !y) return x == y;
  return std::strcmp(x, y) == 0;
}

HashTable* create(size_t value_size, MemContext* ctx, uint64_t (*hash)(const void*),
                  int (*equal)(const void*, const void*)) {
  auto* t = static_cast<HashTable*>(table_alloc(ctx, sizeof(HashTable), 0));
  if (!t) return nullptr;
  const size_t padded_value = (value_size + 7) / 8 * 8;
  *t = HashTable{ctx,
                 nullptr,
                 kInitialCapacity,
                 nullptr,
                 kInitialBuckets,
                 kKeySize,
                 value_size,
                 kKeySize + padded_value + sizeof(int64_t),
                 0,
                 -1,
                 hash,
                 equal};
  t->entries = static_cast<unsigned char*>(
      table_alloc(ctx, t->entry_size * static_cast<size_t>(kInitialCapacity), 0));
  t->buckets =
      static_cast<int64_t*>(table_alloc(ctx, sizeof(int64_t) * kInitialBuckets, KEST_MEM_EXACT));
  if (!t->entries || !t->buckets) {
    hash_table_destroy(t);
    return nullptr;
  }
  for (int64_t b = 0; b < kInitialBuckets; ++b) t->buckets[b] = -1;
  return t;
}

// Rebuilds every chain into `n` new buckets. Entries keep their relative order within a chain,
// so the newest of equal keys stays first. Returns false (table unchanged) when allocation fails.
bool rehash(HashTable* t, int64_t n) {
  auto* buckets = static_cast<int64_t*>(
      table_alloc(t->ctx, sizeof(int64_t) * static_cast<size_t>(n), KEST_MEM_EXACT));
  if (!buckets) return false;
  std::vector<int64_t> tails(static_cast<size_t>(n), -1);
  for (int64_t b = 0; b < n; ++b) buckets[b] = -1;
  for (int64_t b = 0; b < t->bucket_count; ++b) {
    for (int64_t slot = t->buckets[b]; slot != -1;) {
      const int64_t next = next_of(t, slot);
      const int64_t nb = bucket_of(t, entry_at(t, slot), n);
      next_of(t, slot) = -1;
      if (tails[static_cast<size_t>(nb)] == -1) {
        buckets[nb] = slot;
      } else {
        next_of(t, tails[static_cast<size_t>(nb)]) = slot;
      }
      tails[static_cast<size_t>(nb)] = slot;
      slot = next;
    }
  }
  table_free(t->ctx, t->buckets);
  t->buckets = buckets;
  t->bucket_count = n;
  return true;
}

bool grow(HashTable* t) {
  const int64_t cap = t->capacity * 2;
  auto* entries =
      static_cast<unsigned char*>(table_alloc(t->ctx, t->entry_size * static_cast<size_t>(cap), 0));
  if (!entries) return false;
  std::memcpy(entries, t->entries, t->entry_size * static_cast<size_t>(t->capacity));
  unsigned char* old = t->entries;
  t->entries = entries;
  if (!rehash(t, t->bucket_count * 2)) {
    t->entries = old;
    table_free(t->ctx, entries);
    return false;
  }
  table_free(t->ctx, old);
  t->capacity = cap;
  return true;
}

// Halves the storage: entries in slots at or above the new capacity move into free slots below
// it (the most recently freed first), the free list keeps only slots below it, and the chains are
// rebuilt into half the buckets. Skipped when allocation fails: the table stays as it was.
void shrink(HashTable* t) {
  const int64_t cap = t->capacity / 2;
  auto* entries =
      static_cast<unsigned char*>(table_alloc(t->ctx, t->entry_size * static_cast<size_t>(cap), 0));
  if (!entries) return;
  std::vector<int64_t> low_free;
  for (int64_t s = t->free_head; s != -1; s = next_of(t, s)) {
    if (s < cap) low_free.push_back(s);
  }
  // Fewer than cap / 2 entries are in use, so the free slots below cap always suffice.
  size_t used_free = 0;
  for (int64_t b = 0; b < t->bucket_count; ++b) {
    for (int64_t* link = &t->buckets[b]; *link != -1; link = &next_of(t, *link)) {
      if (*link < cap) continue;
      const int64_t to = low_free[used_free++];
      std::memcpy(entry_at(t, to), entry_at(t, *link), t->entry_size);
      *link = to;
    }
  }
  std::memcpy(entries, t->entries, t->entry_size * static_cast<size_t>(cap));
  table_free(t->ctx, t->entries);
  t->entries = entries;
  t->capacity = cap;
  t->free_head = -1;
  for (size_t i = low_free.size(); i-- > used_free;) {
    next_of(t, low_free[i]) = t->free_head;
    t->free_head = low_free[i];
  }
  rehash(t, t->bucket_count / 2);
}
}  // namespace

uint64_t hash_table_slng_hash(int64_t x) {
  const uint64_t a = static_cast<uint64_t>(x >> 32) * 2971215073ULL;
  const uint64_t b = static_cast<uint64_t>(x) * 1442968193ULL;
  const uint64_t ab = a ^ b;
  return static_cast<uint64_t>(static_cast<int64_t>(ab) >> 32) ^ ab;
}

uint64_t hash_table_string_hash(const char* text) {
  if (!text) return 0;
  uint64_t h = 14695981039346656037ULL;
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p; ++p) {
    h = (h ^ *p) * 1099511628211ULL;
  }
  return h;
}

HashTable* hash_table_create_with_slng_keys(size_t value_size, MemContext* ctx) {
  return create(value_size, ctx, slng_key_hash, slng_key_equal);
}

HashTable* hash_table_create_with_string_keys(size_t value_size, MemContext* ctx) {
  return create(value_size, ctx, string_key_hash, string_key_equal);
}

int hash_table_insert(HashTable* t, const void* key, const void* value) {
  if (t->count == t->capacity && !grow(t)) return -1;
  int64_t slot = t->free_head;
  if (slot != -1) {
    t->free_head = next_of(t, slot);
  } else {
    slot = t->count;
  }
  unsigned char* e = entry_at(t, slot);
  std::memcpy(e, key, t->key_size);
  if (t->value_size) std::memcpy(e + t->key_size, value, t->value_size);
  const int64_t b = bucket_of(t, key, t->bucket_count);
  next_of(t, slot) = t->buckets[b];
  t->buckets[b] = slot;
  ++t->count;
  return 0;
}

void* hash_table_find(const HashTable* t, const void* key) {
  for (int64_t s = t->buckets[bucket_of(t, key, t->bucket_count)]; s != -1; s = next_of(t, s)) {
    if (t->equal(entry_at(t, s), key)) return entry_at(t, s) + t->key_size;
  }
  return nullptr;
}

HashTableDeleted hash_table_delete(HashTable* t, const void* key) {
  if (t->capacity > kInitialCapacity && t->count < t->capacity / 4) shrink(t);
  for (int64_t* link = &t->buckets[bucket_of(t, key, t->bucket_count)]; *link != -1;
       link = &next_of(t, *link)) {
    const int64_t s = *link;
    if (!t->equal(entry_at(t, s), key)) continue;
    *link = next_of(t, s);
    next_of(t, s) = t->free_head;
    t->free_head = s;
    --t->count;
    return {entry_at(t, s), entry_at(t, s) + t->key_size};
  }
  return {nullptr, nullptr};
}

void hash_table_destroy(HashTable* t) {
  if (!t) return;
  table_free(t->ctx, t->entries);
  table_free(t->ctx, t->buckets);
  table_free(t->ctx, t);
}
