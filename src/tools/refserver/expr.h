// Expressions of the reference server, compiled against the columns of their input and evaluated
// one vector at a time.
//
// Typing, small and exact:
//   - integer literals are "sint", or "slng" / "s128" when the value needs it; decimal literals
//     are decimal(digits, fraction digits); 'text' is "str"; true and false are "bool".
//   - a type name applied to a literal reads the literal as that type: sint('5'),
//   date('2024-02-29'),
//     decimal('12.34') (precision and scale from the text), decimal('1', 20, 2), char('x'),
//     time('12:00:00.5', 1); applied to any other expression it converts (a cast). Optional
//     integer parameters are the type's own: length, precision and scale, fractional digits.
//   - + - * / % take numbers: integers give the larger integer type of the two (checked for
//     overflow), any decimal makes + - * exact decimals and / a "dbl", any float gives "dbl"
//     ("flt" when both are). % takes integers only. A unary - or + keeps the type.
//   - == != < <= > >= compare numbers with numbers, text with text, otherwise equal types; they
//     give "bool". && || ! take "bool" with three-valued logic for nulls.
//   - nullif(a, b) is a, or null where a equals b; its column is nullable.
//   - asdbl(d) sends the decimal d with the physical type "dbl" (its unscaled value as a double).
//   - concat(a, b) and substr(s, start[, length]) work on text (text_funcs.h).
// Any operand that is null makes the result null (except the logic noted above). An expression
// that depends on no column is evaluated once while compiling and sent as a constant column.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tools/refserver/parser.h"
#include "tools/refserver/vector.h"

struct QueryContext;

struct Schema {
  std::vector<std::string> names;
  std::vector<ColumnType> types;
  // The value of a constant column (the same in every vector), or null.
  std::vector<std::shared_ptr<const Vector>> constants;
};

// At most vectorsize rows of every column of a relation.
struct Batch {
  size_t rows = 0;
  std::vector<Vector> columns;
};

struct CExpr {
  enum class Op { column, constant, cast, arith, negate, compare, logic, nullif, text };
  Op op = Op::constant;
  ColumnType type;
  size_t column = 0;   // column
  Vector value;        // constant
  std::string symbol;  // operator or function name
  std::string what;    // source text, for messages
  std::vector<CExpr> args;
};

// Resolves names and types. Unknown column 11, unknown operator or function 12, wrong argument
// count 16, unreadable literals 18/19/24/25/26, wrong operand types 20; each raises QueryFailed.
CExpr compile_expr(QueryContext* ctx, const Expr& expr, const Schema& input);
// The value of `e` for every row of `batch`: a constant vector when `e` depends on no column.
// Division by zero raises 21, modulo by zero 110, overflow 19.
Vector eval_expr(QueryContext* ctx, const CExpr& e, const Batch& batch);
