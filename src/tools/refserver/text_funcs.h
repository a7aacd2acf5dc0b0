// Text functions of the reference server's expressions:
//   concat(a, b)                 the text of a followed by the text of b
//   substr(s, start[, length])   the code points of s from position `start` (the first is 1)
//                                on, at most `length` of them; positions before 1 count
//                                towards the length, so substr('abc', 0, 2) is 'a'
// Arguments of text are "char" or "varchar"/"str"; `start` and `length` are integers. The
// result is "str"; any null argument makes it null.
#pragma once

#include <string>
#include <vector>

#include "tools/refserver/expr.h"

// Whether `name` (lower case) is one of the text functions above.
bool is_text_function(const std::string& name);
// Checks the argument count (16) and types (20) of the call and returns its node
// (op CExpr::Op::text). REQUIRES: is_text_function(lower-case callee).
CExpr compile_text_function(QueryContext* ctx, const Expr& call, std::vector<CExpr> args);
// The text that concat may produce for one column of one vector, in bytes. A chain of
// Project(..., [s = concat(s, s)]) doubles its text at every level and keeps each level's
// constant: without a bound, forty levels of a two-letter text ask for terabytes.
constexpr size_t kMaxConcatBytes = size_t{64} << 20;

// The call's values for `rows` rows of its evaluated arguments (one row when every argument is
// constant). A negative length raises 19; concat texts of more than `max_bytes` in all raise 34.
Vector eval_text_function(QueryContext* ctx, const CExpr& e, const std::vector<Vector>& args,
                          size_t rows, size_t max_bytes = kMaxConcatBytes);
