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

}  // namespace
