#include "utils/longjmp_ctx.h"

#include <gtest/gtest.h>

#include "utils/platform.h"

namespace {

class LongJmpCtxTest : public testing::Test {
 protected:
  void TearDown() override { longjmp_ctx_destroy(ljc_); }
  LongJmpCtx* ljc_ = longjmp_ctx_create();
};
using LongJmpCtxDeathTest = LongJmpCtxTest;

// Called from a deeper frame, as the memory contexts do.
[[noreturn]] void fail_deep(LongJmpCtx* ljc, int code, int depth) {
  if (depth == 0) longjmp_ctx_jump(ljc, code);
  fail_deep(ljc, code, depth - 1);
}

TEST_F(LongJmpCtxTest, NestedScopesCatchInnermostFirstAndLeaveNoNodeBehind) {
  volatile int outer_caught = 0, inner_caught = 0;
  {
    LongJmpScope outer(ljc_);
    if (LONGJMP_CTX_SETJMP(outer) == 0) {
      {
        LongJmpScope inner(ljc_);
        if (LONGJMP_CTX_SETJMP(inner) == 0) fail_deep(ljc_, 3, 5);
        inner_caught = inner.code();
      }
      EXPECT_EQ(ljc_->nodes, &outer.node());
      fail_deep(ljc_, 4, 1);  // the inner node is gone: the outer one catches
    } else {
      outer_caught = outer.code();
    }
  }
  EXPECT_EQ(inner_caught, 3);
  EXPECT_EQ(outer_caught, 4);
  EXPECT_EQ(ljc_->nodes, nullptr);
}

// The node is armed inside the death statement: a forked child runs under its own thread id.
TEST_F(LongJmpCtxDeathTest, SecondJumpThroughOneNodeAborts) {
  auto jump_twice = [this] {
    LongJmpScope scope(ljc_);
    if (LONGJMP_CTX_SETJMP(scope) == 0) fail_deep(ljc_, 1, 0);
    longjmp_ctx_jump(ljc_, 1);
  };
  EXPECT_DEATH(jump_twice(), "assertion \"ljc->jumped == FALSE\" failed");
}

// Only a node of the calling thread catches its jump.
TEST_F(LongJmpCtxDeathTest, JumpWithoutNodeForThisThreadAborts) {
  auto jump_from_elsewhere = [this] {
    LongJmpScope scope(ljc_);
    scope.node().thread_id = current_thread_id() + 1;  // as if another thread had registered
    if (LONGJMP_CTX_SETJMP(scope) == 0) longjmp_ctx_jump(ljc_, 2);
  };
  EXPECT_DEATH(jump_from_elsewhere(), "assertion \"ljc != NULL\" failed");
}

}  // namespace
