// concat and substr of the reference server's expressions, drained through a planned query as
// the server streams it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kernel/ltype.h"
#include "tools/refserver/cast.h"
#include "tools/refserver/parser.h"
#include "tools/refserver/query_error.h"
#include "tools/refserver/relation.h"
#include "utils/context.h"
#include "utils/kest_error.h"

namespace {

class RefServerTextFuncs : public testing::Test {
 protected:
  static void SetUpTestSuite() { types_init(); }
  void TearDown() override { query_context_destroy(ctx_); }

  // Every value of the single column `expr` over Array([i=rows]) ("NULL" for null), or the
  // error code as "error N".
  std::vector<std::string> column(const std::string& expr, int rows = 1, size_t vsize = 1024) {
    std::vector<std::string> out;
    query_context_destroy(ctx_);  // a context keeps its first error: one per query
    ctx_ = query_context_create(nullptr);
    try {
      auto rel =
          parse_query(ctx_, "Project(Array([i=" + std::to_string(rows) + "]), [v = " + expr + "])");
      auto source = build_plan(ctx_, *rel, vsize, nullptr);
      type_ = type_text(source->schema().types[0].ltype);
      Batch b;
      while (source->next(b)) {
        const Vector& v = b.columns[0];
        for (size_t i = 0; i < b.rows; ++i) out.push_back(v.is_null(i) ? "NULL" : value_text(v, i));
      }
    } catch (const QueryFailed&) {
      out = {"error " + std::to_string(ctx_->errors->code)};
    }
    return out;
  }
  std::string value(const std::string& expr) {
    auto v = column(expr);
    return v.size() == 1 ? v[0] : "<" + std::to_string(v.size()) + " values>";
  }

  QueryContext* ctx_ = nullptr;
  std::string type_;
};

TEST_F(RefServerTextFuncs, ConstantCalls) {
  const struct {
    const char* expr;
    const char* want;
  } cases[] = {
      {"concat('ab', 'cd')", "abcd"},
      {"concat(char('x'), 'yz')", "xyz"},  // a one-character char is held as a code point
      {"substr('abcdef', 2, 3)", "bcd"},
      {"substr('abcdef', 4)", "def"},
      {"substr('abcdef', 5, 10)", "ef"},
      {"substr('abcdef', 9, 2)", ""},
      {"substr('abcdef', 0, 2)", "a"},  // position 0 counts towards the length
      {"substr('abcdef', -(0, 3))", "abcdef"},
      {"substr('abcdef', -(0, 3), 6)", "ab"},
      {"substr('h\xC3\xA9llo w\xC3\xB6rld', 2, 4)", "\xC3\xA9llo"},  // code points, not bytes
      {"substr(concat('12', 'abcdefghij'), 1, 5)", "12abc"}};
  for (const auto& c : cases) {
    EXPECT_EQ(value(c.expr), c.want) << c.expr;
    EXPECT_EQ(type_, "str") << c.expr;
  }
}

TEST_F(RefServerTextFuncs, PerRowValuesAcrossVectors) {
  // The text column of the comparison benchmark: the digits of i, then letters, cut to 5..20.
  const auto v = column("substr(concat(str(i), 'abcdefghijklmnopqrst'), 1, +(5, %(i, 16)))", 40, 7);
  ASSERT_EQ(v.size(), 40u);
  for (int i = 0; i < 40; ++i) {
    const std::string full = std::to_string(i) + "abcdefghijklmnopqrst";
    EXPECT_EQ(v[i], full.substr(0, 5 + i % 16)) << i;
  }
}

TEST_F(RefServerTextFuncs, NullArgumentGivesNull) {
  EXPECT_EQ(column("concat(str(nullif(i, 1)), 'x')", 3),
            (std::vector<std::string>{"0x", "NULL", "2x"}));
  EXPECT_EQ(column("substr('abc', +(nullif(i, 0), 1), 1)", 2),
            (std::vector<std::string>{"NULL", "b"}));
}

TEST_F(RefServerTextFuncs, Refusals) {
  const struct {
    const char* expr;
    int32_t code;
  } cases[] = {{"concat('a')", KEST_ERR_ARITY},
               {"substr('a')", KEST_ERR_ARITY},
               {"concat(i, 'b')", KEST_ERR_TYPE_MISMATCH},
               {"substr('abc', '1')", KEST_ERR_TYPE_MISMATCH},
               {"substr('abc', 1, -(i, 1))", KEST_ERR_OUT_OF_RANGE}};
  for (const auto& c : cases) {
    EXPECT_EQ(value(c.expr), "error " + std::to_string(c.code)) << c.expr;
  }
}

}  // namespace
