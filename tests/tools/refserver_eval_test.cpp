// The reference server's parser, expressions and relations, without sockets: a query is parsed,
// planned and drained vector by vector, and each value is checked by the text the client would
// print for it. What the end-to-end suite shows (a column of every type, casts of columns, nulls
// and constants in every output mode) is not repeated here.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "kernel/ltype.h"
#include "tools/refserver/cast.h"
#include "tools/refserver/expr.h"
#include "tools/refserver/parser.h"
#include "tools/refserver/query_error.h"
#include "tools/refserver/relation.h"
#include "tools/refserver/text_funcs.h"
#include "utils/context.h"
#include "utils/kest_error.h"

namespace {

struct Result {
  std::vector<std::string> types;  // logical type text
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

  // Runs `query` on a fresh context, which holds its errors afterwards.
  Result run(const std::string& query, size_t vector_size = 1024) {
    fresh();
    Result r;
    try {
      auto rel = parse_query(ctx_, query);
      auto source = build_plan(ctx_, *rel, vector_size, nullptr);
      for (const auto& t : source->schema().types) r.types.push_back(type_text(t.ltype));
      Batch b;
      while (source->next(b)) {
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

  // The single value of a one-row, one-column query, and its type text.
  std::string value(const std::string& expr, std::string* type = nullptr) {
    Result r = run("Project(Array([i=1]), [v = " + expr + "])");
    EXPECT_EQ(r.error, 0) << expr << (r.params.empty() ? "" : ": " + r.params.back());
    if (type && !r.types.empty()) *type = r.types[0];
    return r.rows.empty() ? "<error>" : r.rows[0][0];
  }

  void fresh() {
    query_context_destroy(ctx_);
    ctx_ = query_context_create(nullptr);
  }

  QueryContext* ctx_ = nullptr;
};

TEST_F(RefServerEval, ArrayCountsFromZeroLastDimensionFastest) {
  Result r = run("Array([i=2, j=3])");
  ASSERT_EQ(r.error, 0);
  const std::vector<std::vector<std::string>> expected = {{"0", "0"}, {"0", "1"}, {"0", "2"},
                                                          {"1", "0"}, {"1", "1"}, {"1", "2"}};
  EXPECT_EQ(r.rows, expected);
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

// Arithmetic, comparisons with three-valued logic, and the text functions (by code point).
TEST_F(RefServerEval, Expressions) {
  const struct {
    const char* expr;
    const char* text;
  } cases[] = {{"*(sint('-4'), 3)", "-12"},
               {"/(-(7), 2)", "-3"},
               {"-(0.1, 1.25)", "-1.15"},
               {"+(dbl('0.5'), 1)", "1.5"},
               {">=(dbl('2.5'), 2.5)", "true"},
               {"<('abc', 'abd')", "true"},
               {"&&(false, ==(nullif(1, 1), 1))", "false"},
               {"||(true, ==(nullif(1, 1), 1))", "true"},
               {"&&(true, ==(nullif(1, 1), 1))", "NULL"},
               {"concat(char('x'), 'yz')", "xyz"},  // a one-character char is held as a code point
               {"substr('abcdef', 2, 3)", "bcd"},
               {"substr('abcdef', 5, 10)", "ef"},
               {"substr('abcdef', 9, 2)", ""},
               {"substr('abcdef', 0, 2)", "a"},  // position 0 counts towards the length
               {"substr('abcdef', -(0, 3), 6)", "ab"},
               {"substr('h\xC3\xA9llo w\xC3\xB6rld', 2, 4)", "\xC3\xA9llo"}};
  for (const auto& c : cases) EXPECT_EQ(value(c.expr), c.text) << c.expr;
  std::string type;
  EXPECT_EQ(value("substr(concat('12', 'abcdefghij'), 1, 5)", &type), "12abc");
  EXPECT_EQ(type, "str");
}

TEST_F(RefServerEval, TextFunctionsPerRowAcrossVectors) {
  // The text column of the comparison benchmark: the digits of i, then letters, cut to 5..20.
  Result r =
      run("Project(Array([i=40]), [v = substr(concat(str(i), 'abcdefghijklmnopqrst'), 1, "
          "+(5, %(i, 16))), n = concat(str(nullif(i, 1)), 'x')])",
          7);
  ASSERT_EQ(r.rows.size(), 40u);
  for (int i = 0; i < 40; ++i) {
    const std::string full = std::to_string(i) + "abcdefghijklmnopqrst";
    EXPECT_EQ(r.rows[i][0], full.substr(0, 5 + i % 16)) << i;
    EXPECT_EQ(r.rows[i][1], i == 1 ? "NULL" : std::to_string(i) + "x") << i;
  }
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
      {"Project(Array([i=2]), [x = /(1, i)])", KEST_ERR_DIVISION_BY_ZERO, {}},
      {"Project(Array([i=1]), [x = sint('abc')])", KEST_ERR_NOT_NUMBER, {"abc"}},
      {"Project(Array([i=1]), [x = date(true)])", KEST_ERR_CONVERSION, {"date", "bool", "date"}},
      {"Project(Array([i=1]), [x = +(2147483647, 1)])",
       KEST_ERR_OUT_OF_RANGE,
       {"2147483648", "sint"}},
      {"Project(Array([i=1]), [x = *(i)])", KEST_ERR_ARITY, {"*", "2", "1"}},
      {"Project(Array([i=1]), [x = concat(i, 'b')])",
       KEST_ERR_TYPE_MISMATCH,
       {"concat", "text", "sint"}},
      {"Project(Array([i=1]), [x = substr('abc', 1, -(i, 1))])",
       KEST_ERR_OUT_OF_RANGE,
       {"-1", "substr length"}},
      {"Array([i=1, i=2])", KEST_ERR_DUPLICATE_COLUMN, {"i", "Array"}},
      // The system's s128 reader reports overflow as unreadable.
      {"Project(Array([i=1]), [x = s128('170141183460469231731687303715884105728')])",
       KEST_ERR_NOT_NUMBER,
       {"170141183460469231731687303715884105728"}},
      {"Project(Array([i=1]), [x = slng('99999999999999999999999999999999999999999')])",
       KEST_ERR_OUT_OF_RANGE,
       {"99999999999999999999999999999999999999999", "slng"}}};
  for (const auto& c : cases) {
    Result r = run(c.query);
    EXPECT_EQ(r.error, c.code) << c.query;
    EXPECT_EQ(r.params, c.params) << c.query;
  }
}

TEST_F(RefServerEval, OverflowMidStreamFailsAtThatVector) {
  Result r = run("Project(Select(Array([i=1000]), >(i, 700)), [x = *(schr(i), 2)])", 100);
  EXPECT_EQ(r.error, KEST_ERR_OUT_OF_RANGE);
}

std::string repeat(const std::string& s, int n) {
  std::string out;
  for (int i = 0; i < n; ++i) out += s;
  return out;
}

// Relations and expressions nested `k` levels of one kind; levels(k) counts them together.
struct Nesting {
  const char* kind;
  std::string (*query)(int k);
  int (*levels)(int k);
  const char* value;  // of the first row's first column, at the deepest accepted k
};

const Nesting kNestings[] = {
    {"Project", [](int k) { return repeat("Project(", k) + "Array([i=1])" + repeat(", [i])", k); },
     [](int k) { return k + 1; }, "0"},
    {"Select", [](int k) { return repeat("Select(", k) + "Array([i=1])" + repeat(", true)", k); },
     [](int k) { return k + 1; }, "0"},
    {"!",
     [](int k) {
       return "Project(Array([i=1]), [v = " + repeat("!(", k) + "true" + repeat(")", k) + "])";
     },
     [](int k) { return k + 2; }, "true"},
    {"+",
     [](int k) {
       return "Project(Array([i=1]), [v = " + repeat("+(i, ", k) + "1" + repeat(")", k) + "])";
     },
     [](int k) { return k + 2; }, "1"},
    {"cast",
     [](int k) {
       return "Project(Array([i=1]), [v = " + repeat("slng(", k) + "i" + repeat(")", k) + "])";
     },
     [](int k) { return k + 2; }, "0"}};

// Every walk of a query tree recurses, so the parser bounds the nesting: the deepest accepted
// query of each kind runs through parser, plan, compiler and evaluator; one level more, or a
// hostile 20,000, is a parse error at the token that would open the next level.
TEST_F(RefServerEval, NestingIsBoundedByTheParser) {
  for (const Nesting& n : kNestings) {
    SCOPED_TRACE(n.kind);
    int k = 1;
    while (n.levels(k + 1) <= kMaxQueryNesting) ++k;
    Result ok = run(n.query(k));
    EXPECT_EQ(ok.error, 0) << (ok.params.empty() ? "" : ok.params.back());
    ASSERT_EQ(ok.rows.size(), 1u);
    EXPECT_EQ(ok.rows[0][0], n.value);
    for (const int deeper : {k + 1, 20000}) {
      const Result r = run(n.query(deeper));
      EXPECT_EQ(r.error, KEST_ERR_PARSE) << deeper;
      ASSERT_EQ(r.params.size(), 4u);
      EXPECT_EQ(r.params[1], "1");
      EXPECT_EQ(r.params[3], "nesting deeper than 256 levels");
    }
  }
  // The column names the first token past the limit: here the 256th "!", at level 257.
  const Result r = run(kNestings[2].query(300));
  EXPECT_EQ(r.params[2], std::to_string(std::strlen("Project(Array([i=1]), [v = ") + 2 * 255 + 1));
}

// Trees that do not come from text meet the same bound in the compiler and the evaluator, as an
// error instead of a stack overflow.
TEST_F(RefServerEval, CompilerAndEvaluatorRefuseTreesDeeperThanTheLimit) {
  Expr deep;
  deep.kind = Expr::Kind::boolean;
  deep.text = "true";
  for (int i = 0; i < kMaxQueryNesting; ++i) {
    Expr call;
    call.kind = Expr::Kind::call;
    call.text = "!";
    call.args.push_back(std::move(deep));
    deep = std::move(call);
  }
  Schema none;
  EXPECT_THROW(compile_expr(ctx_, deep, none), QueryFailed);
  ASSERT_NE(ctx_->errors, nullptr);
  EXPECT_EQ(ctx_->errors->code, kErrNestingDepth);
  EXPECT_STREQ(ctx_->errors->params[0], "256");

  CExpr tree;
  tree.op = CExpr::Op::column;
  for (int i = 0; i < kMaxQueryNesting; ++i) {
    CExpr negate;
    negate.op = CExpr::Op::negate;
    negate.args.push_back(std::move(tree));
    tree = std::move(negate);
  }
  fresh();
  EXPECT_THROW(eval_expr(ctx_, tree, Batch{}), QueryFailed);
  ASSERT_NE(ctx_->errors, nullptr);
  EXPECT_EQ(ctx_->errors->code, kErrNestingDepth);
  // A walk that failed released its levels: the next query runs as deep as ever.
  EXPECT_EQ(run(kNestings[0].query(kMaxQueryNesting - 1)).error, 0);
}

// Text and token counts are bounded too: a column of concat texts may not outgrow a frame (a
// chain of concat(s, s) would otherwise double its way through memory), and a query may not hold
// more than kMaxQueryTokens tokens (each costs the parser a few dozen bytes).
TEST_F(RefServerEval, ConcatTextsAndTokensAreBounded) {
  Expr call;
  call.kind = Expr::Kind::call;
  call.text = "concat";
  call.args.resize(2);
  call.args[0].kind = call.args[1].kind = Expr::Kind::column;
  call.args[0].text = call.args[1].text = "s";
  Schema input;
  input.names = {"s"};
  input.types = {ColumnType{LTYPE_VCHAR, false, false}};
  input.constants = {nullptr};
  const CExpr e = compile_expr(ctx_, call, input);
  Vector s = make_vector(input.types[0], 3);
  s.texts = {"abc", "de", "f"};
  s.rows = 3;
  EXPECT_EQ(eval_text_function(ctx_, e, {s, s}, 3, 12).texts[2], "ff");  // 6 + 4 + 2 bytes fit
  EXPECT_THROW(eval_text_function(ctx_, e, {s, s}, 3, 11), QueryFailed);
  ASSERT_NE(ctx_->errors, nullptr);
  EXPECT_EQ(ctx_->errors->code, kErrTextTooLong);
  EXPECT_STREQ(ctx_->errors->params[0], "12");
  EXPECT_STREQ(ctx_->errors->params[1], "11");

  std::string many = "Array([i=1])";
  while (many.size() < 2 * kMaxQueryTokens) many += " 1";
  const Result r = run(many);
  EXPECT_EQ(r.error, KEST_ERR_PARSE);
  EXPECT_EQ(
      r.params,
      (std::vector<std::string>{
          "query", "1", std::to_string(std::strlen("Array([i=1])") + 2 * (kMaxQueryTokens + 1 - 8)),
          "more than 1000000 tokens"}));
}

}  // namespace
