#include "utils/property.h"

#include <gtest/gtest.h>

#include "utils/mem.h"

namespace {

class PropertyTest : public testing::Test {
 protected:
  void TearDown() override { mem_context_destroy(mem_); }
  MemContext* mem_ = mem_context_create(nullptr, "property_test");
};
using PropertyDeathTest = PropertyTest;

// Nodes go in front; find compares whole names and returns the newest of equal ones.
TEST_F(PropertyTest, CreateInFrontAndFindWholeNames) {
  Property* list = nullptr;
  for (const char* n : {"port", "por", "portx", "h", "", "port"})
    list = property_create(mem_, list, n, 3, PROP_TPE_LNG);
  for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(list->val[i].lng, 0);
  const std::string key = "port";  // a different pointer with the same text
  EXPECT_EQ(property_find(list, key.c_str()), list);
  EXPECT_STREQ(property_find(list, "por")->name, "por");
  EXPECT_STREQ(property_find(list, "")->name, "");
  EXPECT_EQ(property_find(list, "po"), nullptr);
  EXPECT_EQ(property_find(nullptr, "port"), nullptr);
}

TEST_F(PropertyDeathTest, TypeAndPositionMismatchesAbortWithTheirConditionText) {
  Property* list = property_create(mem_, nullptr, "n", 2, PROP_TPE_LNG);
  EXPECT_DEATH(property_set_dbl(list, 0, 1.0),
               "assertion \"p->tpe == PROP_TPE_ANY \\|\\| p->tpe == PROP_TPE_DBL\" failed");
  EXPECT_DEATH(property_set_lng(list, 2, 1), "assertion \"pos < p->cnt\" failed");
  EXPECT_DEATH(property_get_lng(list, "n", 2, 0), "assertion \"pos < prop->cnt\" failed");
}

TEST_F(PropertyTest, TypedGettersReadSlotsOrDefault) {
  Property* list = property_create(mem_, nullptr, "b", 1, PROP_TPE_BOOL);
  property_set_bool(list, 0, 1);
  list = property_create(mem_, list, "l", 2, PROP_TPE_LNG);
  property_set_lng(list, 1, -77);
  list = property_create(mem_, list, "d", 1, PROP_TPE_DBL);
  property_set_dbl(list, 0, 2.5);
  list = property_create(mem_, list, "s", 1, PROP_TPE_STR);
  property_set_str(list, 0, "text");
  list = property_create(mem_, list, "any", 1, PROP_TPE_ANY);
  property_set_lng(list, 0, 5);
  EXPECT_EQ(property_get_bool(list, "b", 0, 0), 1);
  EXPECT_EQ(property_get_lng(list, "l", 1, 0), -77);
  EXPECT_EQ(property_get_lng(list, "l", 0, 9), 0);
  EXPECT_EQ(property_get_dbl(list, "d", 0, 0.0), 2.5);
  EXPECT_STREQ(property_get_str(list, "s", 0, nullptr), "text");
  EXPECT_EQ(property_get_lng(list, "any", 0, 0), 5);  // ANY answers every typed getter
  EXPECT_EQ(property_get_bool(list, "zz", 0, 1), 1);
  EXPECT_EQ(property_get_lng(list, "zz", 0, 42), 42);
  EXPECT_EQ(property_get_dbl(list, "zz", 0, 4.5), 4.5);
  EXPECT_STREQ(property_get_str(list, "zz", 0, "dflt"), "dflt");
}

// A copy replaces the followers of the head with fresh nodes (one slot each) and hangs the tail
// after them; the original chain stays as it was.
TEST_F(PropertyTest, ListCopyReplacesFollowersAndHangsTail) {
  Property* c = property_create(mem_, nullptr, "c", 1, PROP_TPE_LNG);
  c->val[0].lng = 3;
  Property* b = property_create(mem_, c, "b", 4, PROP_TPE_STR);
  b->val[0].str = "bee";
  Property* head = property_create(mem_, b, "head", 1, PROP_TPE_LNG);
  Property* tail = property_create(mem_, nullptr, "tail", 1, PROP_TPE_LNG);
  EXPECT_EQ(property_list_copy(mem_, head, tail), head);
  Property* b2 = head->next;
  ASSERT_NE(b2, nullptr);
  EXPECT_NE(b2, b);
  EXPECT_STREQ(b2->name, "b");
  EXPECT_EQ(b2->cnt, 1u);
  EXPECT_STREQ(b2->val[0].str, "bee");
  Property* c2 = b2->next;
  ASSERT_NE(c2, nullptr);
  EXPECT_NE(c2, c);
  EXPECT_EQ(c2->val[0].lng, 3);
  EXPECT_EQ(c2->next, tail);
  EXPECT_EQ(b->next, c);
  EXPECT_EQ(c->next, nullptr);
}

}  // namespace
