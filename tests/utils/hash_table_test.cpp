#include "utils/hash_table.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

struct TableDeleter {
  void operator()(HashTable* t) const { hash_table_destroy(t); }
};
using TablePtr = std::unique_ptr<HashTable, TableDeleter>;

TablePtr slng_table(size_t value_size = sizeof(int64_t), MemContext* ctx = nullptr) {
  return TablePtr(hash_table_create_with_slng_keys(value_size, ctx));
}

// The value stored under `key`, or a marker no test stores.
constexpr int64_t kAbsent = INT64_MIN;
int64_t find(const TablePtr& t, int64_t key) {
  const void* v = hash_table_find(t.get(), &key);
  return v ? *static_cast<const int64_t*>(v) : kAbsent;
}

void insert(const TablePtr& t, int64_t key, int64_t value) {
  ASSERT_EQ(hash_table_insert(t.get(), &key, &value), 0);
}

HashTableDeleted erase(const TablePtr& t, int64_t key) { return hash_table_delete(t.get(), &key); }

// Counts the entries reachable from the buckets, and checks each sits in its key's bucket.
int64_t reachable_entries(const HashTable* t) {
  int64_t n = 0;
  for (int64_t b = 0; b < t->bucket_count; ++b) {
    for (int64_t s = t->buckets[b]; s != -1;) {
      const unsigned char* e = t->entries + s * t->entry_size;
      EXPECT_LT(s, t->capacity);
      EXPECT_EQ(static_cast<int64_t>(t->hash(e) & (t->bucket_count - 1)), b);
      std::memcpy(&s, e + t->entry_size - sizeof(int64_t), sizeof s);
      ++n;
    }
  }
  return n;
}

TEST(HashTable, The33rdInsertDoublesStorageAndBuckets) {
  TablePtr t = slng_table();
  EXPECT_EQ(find(t, 7), kAbsent);
  for (int64_t k = 0; k < 32; ++k) insert(t, k * 1000, k);
  EXPECT_EQ(t->capacity, 32);
  EXPECT_EQ(t->bucket_count, 16);
  insert(t, 32000, 32);
  EXPECT_EQ(t->capacity, 64);
  EXPECT_EQ(t->bucket_count, 32);
  EXPECT_EQ(reachable_entries(t.get()), 33);
  for (int64_t k = 0; k <= 32; ++k) EXPECT_EQ(find(t, k * 1000), k);
}

TEST(HashTable, DuplicateKeysKeepBothAndFindReturnsTheNewest) {
  TablePtr t = slng_table();
  insert(t, 5, 1);
  insert(t, 5, 2);
  EXPECT_EQ(find(t, 5), 2);
  for (int64_t k = 100; k < 140; ++k) insert(t, k, k);  // growth must not reorder the chain
  EXPECT_EQ(find(t, 5), 2);
  const HashTableDeleted d = erase(t, 5);
  ASSERT_NE(d.value, nullptr);
  EXPECT_EQ(*static_cast<int64_t*>(d.value), 2);
  EXPECT_EQ(find(t, 5), 1);
}

TEST(HashTable, FreedSlotsAreReusedNewestFirstAndAbsentKeysChangeNothing) {
  TablePtr t = slng_table();
  for (int64_t k = 0; k < 10; ++k) insert(t, k, k * 10);
  const HashTableDeleted absent = erase(t, 99);
  EXPECT_TRUE(absent.key == nullptr && absent.value == nullptr && t->free_head == -1);
  auto* d3 = static_cast<int64_t*>(erase(t, 3).value);
  const HashTableDeleted d7 = erase(t, 7);
  ASSERT_TRUE(d3 && d7.key && d7.value);
  EXPECT_EQ(*static_cast<int64_t*>(d7.key), 7);
  EXPECT_EQ(*static_cast<int64_t*>(d7.value), 70);  // still readable after the delete
  insert(t, 100, 1);
  EXPECT_EQ(*static_cast<int64_t*>(d7.value), 1);  // slot of 7, freed last
  insert(t, 101, 2);
  EXPECT_EQ(*d3, 2);
  const int64_t value = 3;
  insert(t, 102, value);  // free list exhausted: the next unused slot
  EXPECT_EQ(std::memcmp(t->entries + 10 * t->entry_size + t->key_size, &value, 8), 0);
}

TEST(HashTable, DeleteShrinksBeforeSearchingAndMovesHighEntriesDown) {
  TablePtr t = slng_table();
  for (int64_t k = 0; k <= 64; ++k) insert(t, k, k);  // capacity 128
  ASSERT_EQ(t->capacity, 128);
  // Keep only keys living in high slots, so each shrink must move entries down.
  for (int64_t k = 0; k < 45; ++k) ASSERT_NE(erase(t, k).value, nullptr);
  ASSERT_EQ(t->capacity, 64);  // halved when a delete began with fewer than 32 entries
  for (int64_t k = 45; k < 50; ++k) ASSERT_NE(erase(t, k).value, nullptr);
  ASSERT_EQ(t->capacity, 64);  // each of those deletes began with at least 16 entries
  erase(t, 999);               // absent, yet 15 < 64 / 4: shrinks to 32
  EXPECT_EQ(t->capacity, 32);
  EXPECT_EQ(t->bucket_count, 16);
  EXPECT_EQ(reachable_entries(t.get()), 15);
  for (int64_t k = 50; k <= 64; ++k) EXPECT_EQ(find(t, k), k);
  erase(t, 999);  // capacity 32 never shrinks
  EXPECT_EQ(t->capacity, 32);
  // The free list holds exactly the 17 unused slots below 32: 17 inserts fit, the 18th grows.
  for (int64_t k = 200; k < 217; ++k) insert(t, k, k);
  EXPECT_EQ(t->capacity, 32);
  insert(t, 300, 300);
  EXPECT_EQ(t->capacity, 64);
  EXPECT_EQ(reachable_entries(t.get()), 33);
}

TEST(HashTable, RandomOperationsMatchAnUnorderedMap) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937_64 rng(seed);
  TablePtr t = slng_table();
  std::unordered_map<int64_t, int64_t> model;
  for (int round = 0; round < 4; ++round) {
    // Grow to a few thousand entries, then drain most of them, to exercise growth and shrinking.
    const bool filling = round % 2 == 0;
    for (int op = 0; op < 6000; ++op) {
      const int64_t key = static_cast<int64_t>(rng() % 4096) - 2048 +
                          (rng() % 2 ? 0 : int64_t{0x76543210} << 32);  // high words mix too
      const bool do_insert = filling ? rng() % 4 != 0 : rng() % 4 == 0;
      if (do_insert && !model.count(key)) {
        const auto value = static_cast<int64_t>(rng());
        insert(t, key, value);
        model[key] = value;
      } else if (!do_insert) {
        const HashTableDeleted d = erase(t, key);
        ASSERT_EQ(d.value != nullptr, model.erase(key) == 1) << "key " << key;
      }
      ASSERT_EQ(t->count, static_cast<int64_t>(model.size()));
    }
    ASSERT_EQ(reachable_entries(t.get()), t->count);
    for (const auto& [k, v] : model) ASSERT_EQ(find(t, k), v) << k;
    EXPECT_GE(t->capacity, t->count);
    EXPECT_EQ(t->capacity, t->bucket_count * 2);
  }
}

// String keys compare by text, not by pointer, and a null key is a key of its own.
TEST(HashTable, StringKeysCompareTextsAndAllowNull) {
  TablePtr t(hash_table_create_with_string_keys(sizeof(int)));
  std::string a1 = "alpha", a2 = "alpha";
  const char* keys[] = {a1.c_str(), nullptr, a2.c_str(), ""};
  const int values[] = {1, 3};
  for (int i = 0; i < 2; ++i) ASSERT_EQ(hash_table_insert(t.get(), &keys[i], &values[i]), 0);
  EXPECT_EQ(*static_cast<int*>(hash_table_find(t.get(), &keys[2])), 1);  // same text, other pointer
  EXPECT_EQ(*static_cast<int*>(hash_table_find(t.get(), &keys[1])), 3);
  EXPECT_EQ(hash_table_find(t.get(), &keys[3]), nullptr);
  EXPECT_NE(hash_table_delete(t.get(), &keys[1]).key, nullptr);
  EXPECT_EQ(hash_table_find(t.get(), &keys[1]), nullptr);
}

}  // namespace
