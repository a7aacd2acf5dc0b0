#include "utils/context.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "utils/kest_error.h"

namespace {

class QueryContextTest : public testing::Test {
 protected:
  void TearDown() override { query_context_destroy(ctx_); }

  std::vector<int32_t> codes() const {
    std::vector<int32_t> out;
    for (KestError* e = ctx_->errors; e; e = e->next) out.push_back(e->code);
    return out;
  }

  QueryContext* ctx_ = query_context_create(nullptr);
};

TEST_F(QueryContextTest, AppendsInOrderWithCopiedParameters) {
  std::string column = "price";
  add_error(ctx_, "TEST", KEST_ERR_UNKNOWN_COLUMN, 1, column.c_str());
  column = "changed";
  EXPECT_EQ(add_error_ret(ctx_, "TEST", KEST_ERR_PARSE, 4, "q.txt", "3", "7", "x"), 1);
  add_error(ctx_, "TEST", KEST_ERR_CONVERSION, 3, "1x", static_cast<const char*>(nullptr), "sint");
  ASSERT_EQ(codes(), (std::vector<int32_t>{11, 10, KEST_ERR_CONVERSION}));
  KestError* first = ctx_->errors;
  EXPECT_STREQ(kest_error_text(ctx_->mem, first), "Unknown column price.");
  EXPECT_STREQ(kest_error_text(ctx_->mem, first->next),
               "Parse error in q.txt at line 3, column 7: x.");
  EXPECT_EQ(first->next->next->params[1], nullptr);  // a null parameter stays null
}

TEST_F(QueryContextTest, LeadingOkRecordIsReplacedNotAppendedTo) {
  add_error(ctx_, "TEST", KEST_OK, 0);
  add_error(ctx_, "TEST", KEST_ERR_TYPE_MISMATCH, 3, "+", "sint", "str");
  EXPECT_EQ(codes(), std::vector<int32_t>{KEST_ERR_TYPE_MISMATCH});
  // Only a leading KEST_OK is dropped: one after a real error stays.
  add_error(ctx_, "TEST", KEST_OK, 0);
  add_error(ctx_, "TEST", KEST_ERR_DIVISION_BY_ZERO, 0);
  EXPECT_EQ(codes(), (std::vector<int32_t>{KEST_ERR_TYPE_MISMATCH, KEST_OK, 21}));
}

TEST_F(QueryContextTest, NullOrSilencedContextIsLeftAlone) {
  EXPECT_EQ(add_error_ret(nullptr, "TEST", KEST_ERR_PARSE, 0), 1);
  ctx_->collect_errors = false;
  add_error(ctx_, "TEST", KEST_ERR_PARSE, 1, "q");
  EXPECT_EQ(ctx_->errors, nullptr);
}

TEST_F(QueryContextTest, ConcurrentAddsLoseNothing) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this] {
      for (int i = 0; i < 200; ++i) add_error(ctx_, "TEST", KEST_ERR_UNKNOWN_COLUMN, 1, "c");
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(codes().size(), 800u);
}

}  // namespace
