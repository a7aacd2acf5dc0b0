// A chained hash table with fixed-size keys and values, stored in one entry array with a free
// list of deleted slots. Keys are 8 bytes: a 64-bit signed integer, or a pointer to a
// NUL-terminated string (the table stores the pointer, not the text: the text must outlive the
// entry). Not locked: its users lock.
#pragma once

#include <cstddef>
#include <cstdint>

struct MemContext;

struct HashTable {
  MemContext* ctx;         // null: the plain heap
  unsigned char* entries;  // `capacity` entries of `entry_size` bytes: key, value, next index
  int64_t capacity;
  int64_t* buckets;      // entry indices, -1 for an empty bucket
  int64_t bucket_count;  // a power of two
  size_t key_size;
  size_t value_size;
  size_t entry_size;
  int64_t count;
  int64_t free_head;  // -1 when empty; deleted slots chained through their next index
  uint64_t (*hash)(const void* key);
  int (*equal)(const void* a, const void* b);
};

// Tables with 64-bit signed integer keys, or with string keys (the string hash is 64-bit FNV-1a;
// null keys are allowed, equal only to null). Storage for 32 entries and 16 buckets; allocated in
// `ctx`, or on the heap when it is null (`ctx` must then outlive the table). Null when allocation
// fails.
HashTable* hash_table_create_with_slng_keys(size_t value_size, MemContext* ctx = nullptr);
HashTable* hash_table_create_with_string_keys(size_t value_size, MemContext* ctx = nullptr);

// Copies the key (the 8 bytes at `key`) and `value_size` bytes from `value` into a slot: the most
// recently freed one, else the next unused one. Grows to twice the entries and buckets when full.
// No check for an existing equal key: both entries are kept and find returns the newer one.
// Returns 0, or -1 when growing failed (the table is then unchanged).
int hash_table_insert(HashTable* table, const void* key, const void* value);

// The stored value of the newest entry with an equal key, or null. Valid until the next insert or
// delete on the table.
void* hash_table_find(const HashTable* table, const void* key);

struct HashTableDeleted {
  void* key;    // the removed entry's key bytes, null when the key was absent
  void* value;  // its value bytes, null when the key was absent
};
// Removes the newest entry with an equal key. First, when the capacity is above 32 and fewer than
// a quarter of it is used, the table shrinks to half (whether or not the key is present). The
// returned bytes stay readable until the next insert or delete on the table.
HashTableDeleted hash_table_delete(HashTable* table, const void* key);

void hash_table_destroy(HashTable* table);  // null is ignored

// The hash of a 64-bit key and of a string key, as the tables use them.
uint64_t hash_table_slng_hash(int64_t key);
uint64_t hash_table_string_hash(const char* text);
