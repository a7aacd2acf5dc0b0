#include <algorithm>
#include <cmath>

#include "kernel/ltype.h"
#include "tools/refserver/cast.h"
#include "tools/refserver/expr.h"
#include "tools/refserver/query_error.h"
#include "tools/refserver/text_funcs.h"
#include "utils/kest_error.h"

namespace {

enum class NumClass { none, integer, decimal, real };

NumClass num_class(uint32_t type) {
  const uint32_t id = ltype_id(type);
  if (id >= LTYPE_SCHR && id <= LTYPE_UIDX) return NumClass::integer;
  if (id == LTYPE_DECIMAL) return NumClass::decimal;
  if (id == LTYPE_FLT4 || id == LTYPE_FLT8) return NumClass::real;
  return NumClass::none;
}

int precision_of(uint32_t type) {
  if (ltype_id(type) == LTYPE_DECIMAL) return static_cast<int>((type >> 8) & 0xFF);
  return std::min(ltype_digits(type), 38);
}
int scale_of(uint32_t type) {
  return ltype_id(type) == LTYPE_DECIMAL ? static_cast<int>(type >> 16) : 0;
}
bool is_text_type(uint32_t type) {
  return ltype_id(type) == LTYPE_CHAR || ltype_id(type) == LTYPE_VCHAR;
}

[[noreturn]] void mismatch(QueryContext* ctx, const std::string& op, const char* expected,
                           const ColumnType& got) {
  query_fail(ctx, KEST_ERR_TYPE_MISMATCH, {op, expected, type_text(got.ltype)});
}

uint32_t arith_type(QueryContext* ctx, const std::string& op, uint32_t a, uint32_t b) {
  const NumClass ca = num_class(a), cb = num_class(b);
  if (ca == NumClass::real || cb == NumClass::real) {
    if (op == "%") mismatch(ctx, op, "integers", {ca == NumClass::real ? a : b});
    return ltype_id(a) == LTYPE_FLT4 && ltype_id(b) == LTYPE_FLT4 ? LTYPE_FLT4 : LTYPE_FLT8;
  }
  if (ca == NumClass::decimal || cb == NumClass::decimal) {
    if (op == "%") mismatch(ctx, op, "integers", {ca == NumClass::decimal ? a : b});
    if (op == "/") return LTYPE_FLT8;
    const int pa = precision_of(a), sa = scale_of(a), pb = precision_of(b), sb = scale_of(b);
    int p, s;
    if (op == "*") {
      s = sa + sb;
      p = pa + pb;
    } else {
      s = std::max(sa, sb);
      p = std::max(pa - sa, pb - sb) + s + 1;
    }
    if (s > 38) mismatch(ctx, op, "a scale of at most 38", {a});
    return ltype_from_name("decimal", std::min(p, 38), s);
  }
  return std::max(ltype_id(a), ltype_id(b));  // the larger integer type
}

CExpr node(CExpr::Op op, const Expr& call, std::vector<CExpr> args, uint32_t type) {
  CExpr e;
  e.op = op;
  e.symbol = call.text;
  e.what = call.text;
  bool nullable = false;
  for (const CExpr& a : args) nullable = nullable || a.type.nullable;
  e.type = ColumnType{type, nullable, false};
  e.args = std::move(args);
  return e;
}

void check_comparable(QueryContext* ctx, const std::string& op, const ColumnType& a,
                      const ColumnType& b) {
  const bool numbers = num_class(a.ltype) != NumClass::none && num_class(b.ltype) != NumClass::none;
  const bool texts = is_text_type(a.ltype) && is_text_type(b.ltype);
  if (!numbers && !texts && a.ltype != b.ltype) mismatch(ctx, op, type_text(a.ltype).c_str(), b);
}

void arity(QueryContext* ctx, const Expr& call, size_t n) {
  if (call.args.size() != n) {
    query_fail(ctx, KEST_ERR_ARITY,
               {call.text, std::to_string(n), std::to_string(call.args.size())});
  }
}

}  // namespace

namespace refserver_detail {

CExpr compile_operator(QueryContext* ctx, const Expr& call, std::vector<CExpr> args) {
  const std::string& op = call.text;
  if (op == "+" || op == "-") {
    if (args.size() == 1) {
      if (num_class(args[0].type.ltype) == NumClass::none)
        mismatch(ctx, op, "a number", args[0].type);
      const uint32_t t = args[0].type.ltype;
      return node(op == "-" ? CExpr::Op::negate : CExpr::Op::arith, call, std::move(args), t);
    }
  }
  if (op == "+" || op == "-" || op == "*" || op == "/" || op == "%") {
    arity(ctx, call, 2);
    for (const CExpr& a : args) {
      if (num_class(a.type.ltype) == NumClass::none) mismatch(ctx, op, "a number", a.type);
    }
    const uint32_t t = arith_type(ctx, op, args[0].type.ltype, args[1].type.ltype);
    return node(CExpr::Op::arith, call, std::move(args), t);
  }
  if (op == "==" || op == "!=" || op == "<" || op == "<=" || op == ">" || op == ">=") {
    arity(ctx, call, 2);
    check_comparable(ctx, op, args[0].type, args[1].type);
    return node(CExpr::Op::compare, call, std::move(args), LTYPE_BOOL);
  }
  if (op == "&&" || op == "||" || op == "!") {
    arity(ctx, call, op == "!" ? 1 : 2);
    for (const CExpr& a : args) {
      if (ltype_id(a.type.ltype) != LTYPE_BOOL) mismatch(ctx, op, "bool", a.type);
    }
    return node(CExpr::Op::logic, call, std::move(args), LTYPE_BOOL);
  }
  if (op == "nullif") {
    arity(ctx, call, 2);
    check_comparable(ctx, op, args[0].type, args[1].type);
    const uint32_t t = args[0].type.ltype;
    CExpr e = node(CExpr::Op::nullif, call, std::move(args), t);
    e.type.nullable = true;
    e.type.dbl_storage = e.args[0].type.dbl_storage;
    return e;
  }
  query_fail(ctx, KEST_ERR_UNKNOWN_OPERATOR, {op});
}

Vector fold(QueryContext* ctx, const CExpr& e) {
  Batch none;
  none.rows = 1;
  return eval_expr(ctx, e, none);
}

}  // namespace refserver_detail

namespace {

struct Out {
  Vector v;
  void put_int(i128 x) {
    v.ints.push_back(x);
    done();
  }
  void put_real(double x) {
    v.reals.push_back(x);
    done();
  }
  void done() {
    if (v.type.nullable) v.nulls.push_back(0);
    ++v.rows;
  }
};

i128 to_scale(QueryContext* ctx, const Vector& v, size_t i, int scale, uint32_t result) {
  const i128 x = v.ints[v.at(i)];
  i128 out;
  if (__builtin_mul_overflow(x, pow10_i128(scale - scale_of(v.type.ltype)), &out)) {
    query_fail(ctx, KEST_ERR_OUT_OF_RANGE, {i128_text(x), type_text(result)});
  }
  return out;
}

double real_op(QueryContext* ctx, char op, double x, double y) {
  switch (op) {
    case '+':
      return x + y;
    case '-':
      return x - y;
    case '*':
      return x * y;
    default:
      if (y == 0) query_fail(ctx, KEST_ERR_DIVISION_BY_ZERO);
      return x / y;
  }
}

i128 exact_op(QueryContext* ctx, char op, i128 x, i128 y, uint32_t result) {
  i128 r = 0;
  bool overflow = false;
  switch (op) {
    case '+':
      overflow = __builtin_add_overflow(x, y, &r);
      break;
    case '-':
      overflow = __builtin_sub_overflow(x, y, &r);
      break;
    case '*':
      overflow = __builtin_mul_overflow(x, y, &r);
      break;
    default:
      if (y == 0) query_fail(ctx, op == '/' ? KEST_ERR_DIVISION_BY_ZERO : 110);
      overflow = y == -1 && x == integer_min(LTYPE_S128);
      if (!overflow) r = op == '/' ? x / y : x % y;
      break;
  }
  if (overflow || r < integer_min(result) || r > integer_max(result)) {
    query_fail(ctx, KEST_ERR_OUT_OF_RANGE,
               {overflow ? "overflow" : i128_text(r), type_text(result)});
  }
  return r;
}

void arith_row(QueryContext* ctx, const CExpr& e, const Vector& a, const Vector& b, size_t i,
               Out& out) {
  const char op = e.symbol[0];
  const uint32_t t = e.type.ltype;
  if (num_class(t) == NumClass::real) {
    const double r = real_op(ctx, op, numeric_double(a, i), numeric_double(b, i));
    out.put_real(ltype_id(t) == LTYPE_FLT4 ? static_cast<float>(r) : r);
  } else if (num_class(t) == NumClass::decimal && op != '*') {
    const int s = scale_of(t);
    out.put_int(exact_op(ctx, op, to_scale(ctx, a, i, s, t), to_scale(ctx, b, i, s, t), t));
  } else {
    out.put_int(exact_op(ctx, op, a.ints[a.at(i)], b.ints[b.at(i)], t));
  }
}

std::string text_of(const Vector& v, size_t i) {
  return value_form(v.type.ltype) == ValueForm::text
             ? v.texts[v.at(i)]
             : utf8_of(static_cast<int32_t>(v.ints[v.at(i)]));
}

template <class T>
int three_way(const T& x, const T& y) {
  return x < y ? -1 : (y < x ? 1 : 0);
}

int compare_row(const Vector& a, const Vector& b, size_t i) {
  const uint32_t ta = a.type.ltype, tb = b.type.ltype;
  if (is_text_type(ta)) return three_way(text_of(a, i), text_of(b, i));
  if (value_form(ta) == ValueForm::real || value_form(tb) == ValueForm::real) {
    const bool numbers = num_class(ta) != NumClass::none;
    return numbers ? three_way(numeric_double(a, i), numeric_double(b, i))
                   : three_way(a.reals[a.at(i)], b.reals[b.at(i)]);
  }
  const int s = std::max(scale_of(ta), scale_of(tb));
  i128 x, y;
  if (__builtin_mul_overflow(a.ints[a.at(i)], pow10_i128(s - scale_of(ta)), &x) ||
      __builtin_mul_overflow(b.ints[b.at(i)], pow10_i128(s - scale_of(tb)), &y)) {
    return three_way(numeric_double(a, i), numeric_double(b, i));
  }
  return three_way(x, y);
}

bool compare_holds(const std::string& op, int c) {
  if (op == "==") return c == 0;
  if (op == "!=") return c != 0;
  if (op == "<") return c < 0;
  if (op == "<=") return c <= 0;
  if (op == ">") return c > 0;
  return c >= 0;
}

// Three-valued logic: -1 stands for null.
int logic_row(const CExpr& e, const std::vector<Vector>& args, size_t i) {
  auto value = [&](size_t k) {
    return args[k].is_null(i) ? -1 : int(args[k].ints[args[k].at(i)] != 0);
  };
  const int x = value(0);
  if (e.symbol == "!") return x < 0 ? -1 : !x;
  const int y = value(1);
  if (e.symbol == "&&") return (x == 0 || y == 0) ? 0 : (x < 0 || y < 0) ? -1 : 1;
  return (x == 1 || y == 1) ? 1 : (x < 0 || y < 0) ? -1 : 0;
}

void eval_row(QueryContext* ctx, const CExpr& e, const std::vector<Vector>& args, size_t i,
              Out& out) {
  if (e.op == CExpr::Op::logic) {
    const int r = logic_row(e, args, i);
    r < 0 ? append_null(out.v) : out.put_int(r);
    return;
  }
  if (e.op == CExpr::Op::nullif) {
    const bool null =
        args[0].is_null(i) || (!args[1].is_null(i) && compare_row(args[0], args[1], i) == 0);
    null ? append_null(out.v) : append_value(out.v, args[0], i);
    return;
  }
  for (const Vector& a : args) {
    if (a.is_null(i)) return append_null(out.v);
  }
  switch (e.op) {
    case CExpr::Op::compare:
      out.put_int(compare_holds(e.symbol, compare_row(args[0], args[1], i)) ? 1 : 0);
      break;
    case CExpr::Op::negate:
      if (value_form(e.type.ltype) == ValueForm::real) {
        out.put_real(-args[0].reals[args[0].at(i)]);
      } else {
        out.put_int(exact_op(ctx, '-', 0, args[0].ints[args[0].at(i)], e.type.ltype));
      }
      break;
    default:  // arith
      if (args.size() == 1) return append_value(out.v, args[0], i);
      arith_row(ctx, e, args[0], args[1], i, out);
      break;
  }
}

}  // namespace

Vector eval_expr(QueryContext* ctx, const CExpr& e, const Batch& batch) {
  const NestingGuard level(ctx, Walk::eval);
  switch (e.op) {
    case CExpr::Op::constant:
      return e.value;
    case CExpr::Op::column:
      return batch.columns[e.column];
    case CExpr::Op::cast:
      return convert_vector(ctx, eval_expr(ctx, e.args[0], batch), batch.rows, e.type.ltype,
                            e.what);
    default:
      break;
  }
  std::vector<Vector> args;
  bool all_const = true;
  for (const CExpr& a : e.args) {
    args.push_back(eval_expr(ctx, a, batch));
    all_const = all_const && args.back().is_const;
  }
  const size_t n = all_const ? 1 : batch.rows;
  if (e.op == CExpr::Op::text) {
    Vector v = eval_text_function(ctx, e, args, n);
    v.is_const = all_const;
    return v;
  }
  Out out{make_vector(e.type, n)};
  for (size_t i = 0; i < n; ++i) eval_row(ctx, e, args, i, out);
  out.v.is_const = all_const;
  return std::move(out.v);
}
