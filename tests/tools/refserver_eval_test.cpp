// The reference server's parser, expressions and relations, without sockets: a query is parsed,
// planned and drained vector by vector, and each value is checked by the text the client would
// print for it.
#include <gtest/gtest.h>

#include <memory>
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

struct Result {
  std::vector<std::string> names;
  std::vector<std::string> types;      // logical type text
  std::vector<std::string> physicals;  // physical type name
  std::vector<bool> nullable, constant;
  std::vector<std::vector<std::string>> rows;
  std::vector<size_t> vector_rows;  // rows per vector
  int32_t error = 0;                // code of the first error, 0 when none
  std::vector<std::string> params;
};

class RefServerEval : public testing::Test {
 protected:
  static void SetUpTestSuite() { types_init(); }
  void SetUp() override { ctx_ = query_context_create(nullptr); }
  void TearDown() override { query_context_destroy(ctx_); }

  Result run(const std::string& query, size_t vector_size = 1024, size_t max_vectors = 1000) {
    Result r;
    try {
      auto rel = parse_query(ctx_, query);
      auto source = build_plan(ctx_, *rel, vector_size, nullptr);
      const Schema& s = source->schema();
      for (size_t c = 0; c < s.names.size(); ++c) {
        r.names.push_back(s.names[c]);
        r.types.push_back(type_text(s.types[c].ltype));
        r.physicals.push_back(physical_of(s.types[c])->name);
        r.nullable.push_back(s.types[c].nullable);
        r.constant.push_back(s.constants[c] != nullptr);
      }
      Batch b;
      while (r.vector_rows.size() < max_vectors && source->next(b)) {
        r.vector_rows.push_back(b.rows);
        for (size_t i = 0; i < b.rows; ++i) {
          std::vector<std::string> row;
          for (const Vector& v : b.columns) row.push_back(v.is_null(i) ? "NULL" : value_text(v, i));
          r.rows.push_back(row);
        }
      }
    } catch (const QueryFailed&) {
      EXPECT_NE(ctx_->errors, nullptr);
      r.error = ctx_->errors->code;
      for (int32_t i = 0; i < ctx_->errors->num_err_params; ++i)
        r.params.push_back(ctx_->errors->params[i]);
    }
    return r;
  }

  // The single value of a one-row, one-column query.
  std::string value(const std::string& expr) {
    Result r = run("Project(Array([i=1]), [v = " + expr + "])");
    EXPECT_EQ(r.error, 0) << expr << (r.params.empty() ? "" : ": " + r.params.back());
    return r.rows.empty() ? "<error>" : r.rows[0][0];
  }

  QueryContext* ctx_ = nullptr;
};

TEST_F(RefServerEval, ArrayCountsFromZeroLastDimensionFastest) {
  Result r = run("Array([i=2, j=3])");
  ASSERT_EQ(r.error, 0);
  EXPECT_EQ(r.names, (std::vector<std::string>{"i", "j"}));
  EXPECT_EQ(r.types, (std::vector<std::string>{"sint", "sint"}));
  const std::vector<std::vector<std::string>> expected = {{"0", "0"}, {"0", "1"}, {"0", "2"},
                                                          {"1", "0"}, {"1", "1"}, {"1", "2"}};
  EXPECT_EQ(r.rows, expected);
  // A dimension beyond sint is slng.
  r = run("Array([i=3000000000, j=2])", 4, 1);
  ASSERT_EQ(r.error, 0);
  EXPECT_EQ(r.types, (std::vector<std::string>{"slng", "sint"}));
  EXPECT_EQ(r.rows, (std::vector<std::vector<std::string>>{
                        {"0", "0"}, {"0", "1"}, {"1", "0"}, {"1", "1"}}));
}

TEST_F(RefServerEval, VectorsNeverExceedTheVectorSize) {
  Result r = run("Array([i=10])", 4);
  EXPECT_EQ(r.vector_rows, (std::vector<size_t>{4, 4, 2}));
  // A filter keeps fewer rows per vector, and skips vectors left empty.
  r = run("Select(Array([i=10]), >=(i, 6))", 4);
  EXPECT_EQ(r.vector_rows, (std::vector<size_t>{2, 2}));
  EXPECT_EQ(r.rows.front()[0], "6");
  EXPECT_EQ(run("Array([i=0])").rows.size(), 0u);
}

TEST_F(RefServerEval, EveryLogicalTypeHasItsPhysicalType) {
  const struct {
    const char* expr;
    const char* type;
    const char* physical;
    const char* text;
  } cases[] = {{"bool('true')", "bool", "uchr", "true"},
               {"schr('-5')", "schr", "schr", "-5"},
               {"ulng('18000000000000000000')", "ulng", "ulng", "18000000000000000000"},
               {"s128('-170141183460469231731687303715884105728')", "s128", "s128",
                "-170141183460469231731687303715884105728"},
               {"decimal('-1234.5678')", "decimal(8,4)", "sint", "-1234.5678"},
               {"decimal('12.34', 30, 3)", "decimal(30,3)", "s128", "12.340"},
               {"asdbl(decimal('12.34', 10, 2))", "decimal(10,2)", "dbl", "12.34"},
               {"flt('0.5')", "flt", "flt", "0.5"},
               {"money('123.45')", "money", "dbl", "$ 123.45"},
               {"char('\\u20ac')", "char(1)", "sint", "\xE2\x82\xAC"},
               {"char('abc')", "char(3)", "str", "abc"},
               {"date('2024-02-29')", "date", "sint", "2024-02-29"},
               {"time('12:34:56.789', 3)", "time(3)", "sint", "12:34:56.789"},
               {"time('12:34:56.5', 6)", "time(6)", "slng", "12:34:56.500000"},
               {"timestamp('2024-02-29 01:02:03')", "timestamp", "slng", "2024-02-29 01:02:03"},
               {"intervalds('1 01:01:01')", "intervalds", "slng", "1 01:01:01"},
               {"intervalym('1-2')", "intervalym", "sint", "1-02"}};
  for (const auto& c : cases) {
    Result r = run(std::string("Project(Array([i=1]), [v = ") + c.expr + "])");
    ASSERT_EQ(r.error, 0) << c.expr;
    EXPECT_EQ(r.types[0], c.type) << c.expr;
    EXPECT_EQ(r.physicals[0], c.physical) << c.expr;
    EXPECT_TRUE(r.constant[0]) << c.expr;
    EXPECT_EQ(r.rows[0][0], c.text) << c.expr;
  }
}

TEST_F(RefServerEval, Arithmetic) {
  const struct {
    const char* expr;
    const char* text;
  } cases[] = {
      {"+(2, 3)", "5"},
      {"*(sint('-4'), 3)", "-12"},
      {"/(7, 2)", "3"},
      {"/(-(7), 2)", "-3"},
      {"-(5)", "-5"},
      {"+(1.25, 1)", "2.25"},
      {"-(0.1, 1.25)", "-1.15"},
      {"+(dbl('0.5'), 1)", "1.5"},
      {"+(2147483648, 1)", "2147483649"},  // a literal beyond sint is slng
  };
  for (const auto& c : cases) EXPECT_EQ(value(c.expr), c.text) << c.expr;
}

TEST_F(RefServerEval, ComparisonsAndLogic) {
  const struct {
    const char* expr;
    const char* text;
  } cases[] = {{"==(1, 1)", "true"},
               {">=(dbl('2.5'), 2.5)", "true"},
               {"<('abc', 'abd')", "true"},
               {"&&(true, false)", "false"},
               {"&&(false, ==(nullif(1, 1), 1))", "false"},
               {"||(true, ==(nullif(1, 1), 1))", "true"}};
  for (const auto& c : cases) EXPECT_EQ(value(c.expr), c.text) << c.expr;
  EXPECT_EQ(value("&&(true, ==(nullif(1, 1), 1))"), "NULL");
}

TEST_F(RefServerEval, NullifMakesNullableColumns) {
  Result r = run("Project(Array([i=3]), [n = nullif(i, 1), c = 7])");
  ASSERT_EQ(r.error, 0);
  EXPECT_EQ(r.nullable, (std::vector<bool>{true, false}));
  EXPECT_EQ(r.constant, (std::vector<bool>{false, true}));
  const std::vector<std::vector<std::string>> expected = {{"0", "7"}, {"NULL", "7"}, {"2", "7"}};
  EXPECT_EQ(r.rows, expected);
}

TEST_F(RefServerEval, CastsOfColumns) {
  Result r =
      run("Project(Array([i=2]), [s = str(i), d = dbl(i), m = money(i), e = decimal(i, 5, 2), "
          "b = bool(i), t = date(+(i, 719528))])");
  ASSERT_EQ(r.error, 0) << r.params.back();
  const std::vector<std::vector<std::string>> expected = {
      {"0", "0", "$ 0.00", "0.00", "false", "1970-01-01"},
      {"1", "1", "$ 1.00", "1.00", "true", "1970-01-02"}};
  EXPECT_EQ(r.rows, expected);
}

TEST_F(RefServerEval, ProjectionOfProjectionKeepsConstants) {
  Result r = run("Select(Project(Array([i=4]), [i, k = 'x']), ==(k, 'x'))");
  ASSERT_EQ(r.error, 0);
  EXPECT_EQ(r.constant, (std::vector<bool>{false, true}));
  EXPECT_EQ(r.rows.size(), 4u);
}

TEST_F(RefServerEval, ErrorsNameTheirCause) {
  const struct {
    const char* query;
    int32_t code;
    std::vector<std::string> params;
  } cases[] = {
      {"Array([i=3)", KEST_ERR_PARSE, {"query", "1", "11", "expected ']', found ')'"}},
      {"Array([i=3])\n  x",
       KEST_ERR_PARSE,
       {"query", "2", "3", "expected end of query, found 'x'"}},
      {"Sort(Array([i=1]))", 13, {"Sort"}},
      {"Project(Array([i=1]), [x = j])", KEST_ERR_UNKNOWN_COLUMN, {"j"}},
      {"Project(Array([i=1]), [x = frob(i)])", KEST_ERR_UNKNOWN_OPERATOR, {"frob"}},
      {"Project(Array([i=1]), [x = +(i, 'a')])", KEST_ERR_TYPE_MISMATCH, {"+", "a number", "str"}},
      {"Select(Array([i=1]), i)", KEST_ERR_TYPE_MISMATCH, {"Select", "bool", "sint"}},
      {"Project(Array([i=2]), [x = /(1, i)])", KEST_ERR_DIVISION_BY_ZERO, {}},
      {"Project(Array([i=1]), [x = sint('abc')])", KEST_ERR_NOT_NUMBER, {"abc"}},
      {"Project(Array([i=1]), [x = date(true)])", KEST_ERR_CONVERSION, {"date", "bool", "date"}},
      {"Project(Array([i=1]), [x = +(2147483647, 1)])",
       KEST_ERR_OUT_OF_RANGE,
       {"2147483648", "sint"}},
      {"Project(Array([i=1]), [x = *(i)])", KEST_ERR_ARITY, {"*", "2", "1"}},
      {"Array([i=1, i=2])", KEST_ERR_DUPLICATE_COLUMN, {"i", "Array"}},
      // The system's s128 reader reports overflow as unreadable.
      {"Project(Array([i=1]), [x = s128('170141183460469231731687303715884105728')])",
       KEST_ERR_NOT_NUMBER,
       {"170141183460469231731687303715884105728"}},
      {"Project(Array([i=1]), [x = slng('99999999999999999999999999999999999999999')])",
       KEST_ERR_OUT_OF_RANGE,
       {"99999999999999999999999999999999999999999", "slng"}}};
  for (const auto& c : cases) {
    query_context_destroy(ctx_);
    ctx_ = query_context_create(nullptr);
    Result r = run(c.query);
    EXPECT_EQ(r.error, c.code) << c.query;
    EXPECT_EQ(r.params, c.params) << c.query;
  }
}

TEST_F(RefServerEval, OverflowMidStreamFailsAtThatVector) {
  Result r = run("Project(Select(Array([i=1000]), >(i, 700)), [x = *(schr(i), 2)])", 100);
  EXPECT_EQ(r.error, KEST_ERR_OUT_OF_RANGE);
}

}  // namespace
