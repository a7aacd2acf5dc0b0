#include <algorithm>
#include <array>
#include <cctype>

#include "kernel/ltype.h"
#include "kernel/number_text.h"
#include "tools/refserver/cast.h"
#include "tools/refserver/expr.h"
#include "tools/refserver/query_error.h"
#include "tools/refserver/text_funcs.h"
#include "utils/kest_error.h"

namespace {

constexpr std::array<const char*, 27> kTypeNames = {
    "bool",  "schr", "uchr",    "ssht", "usht", "sint", "uint",      "slng",       "ulng",
    "s128",  "uidx", "decimal", "dec",  "flt",  "dbl",  "float",     "int",        "integer",
    "money", "char", "varchar", "str",  "date", "time", "timestamp", "intervalds", "intervalym"};

std::string lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

bool is_type_name(const std::string& name) {
  return std::any_of(kTypeNames.begin(), kTypeNames.end(),
                     [&](const char* t) { return name == t; });
}

CExpr constant(Vector v) {
  CExpr e;
  e.op = CExpr::Op::constant;
  e.type = v.type;
  e.value = std::move(v);
  return e;
}

bool is_literal(const Expr& e) {
  return e.kind != Expr::Kind::column && e.kind != Expr::Kind::call;
}

// Precision and scale of a decimal literal's text.
uint32_t decimal_type_of(QueryContext* ctx, const std::string& text) {
  int digits = 0, scale = 0;
  bool point = false;
  for (char c : text) {
    if (c == '.') point = true;
    if (c >= '0' && c <= '9') {
      ++digits;
      scale += point;
    }
  }
  if (digits > 38) query_fail(ctx, KEST_ERR_OUT_OF_RANGE, {text, "decimal(38)"});
  return ltype_from_name("decimal", std::max(digits, 1), scale);
}

CExpr integer_literal(QueryContext* ctx, const std::string& text) {
  if (text.size() > 38) query_fail(ctx, KEST_ERR_OUT_OF_RANGE, {text, "s128"});
  i128 v = 0;
  for (char c : text) v = v * 10 + (c - '0');
  const uint32_t type = v <= INT32_MAX ? LTYPE_SINT : v <= INT64_MAX ? LTYPE_SLNG : LTYPE_S128;
  return constant(read_literal(ctx, type, text));
}

CExpr literal(QueryContext* ctx, const Expr& e) {
  switch (e.kind) {
    case Expr::Kind::integer:
      return integer_literal(ctx, e.text);
    case Expr::Kind::decimal:
      return constant(read_literal(ctx, decimal_type_of(ctx, e.text), e.text));
    case Expr::Kind::text:
      return constant(read_literal(ctx, LTYPE_VCHAR, e.text));
    default:
      return constant(read_literal(ctx, LTYPE_BOOL, e.text));
  }
}

// Code points of a literal, the default length of char('...').
int text_length(const std::string& s) {
  int n = 0;
  for (unsigned char c : s) n += (c & 0xC0) != 0x80;
  return std::max(n, 1);
}

int int_param(QueryContext* ctx, const Expr& call, size_t i) {
  if (i >= call.args.size()) return 0;
  const Expr& a = call.args[i];
  if (a.kind != Expr::Kind::integer || a.text.size() > 9) {
    query_fail(ctx, 102, {std::to_string(i + 1), call.text});
  }
  return std::stoi(a.text);
}

void check_arity(QueryContext* ctx, const Expr& call, size_t lo, size_t hi) {
  const size_t n = call.args.size();
  if (n < lo || n > hi) {
    query_fail(ctx, KEST_ERR_ARITY,
               {call.text, std::to_string(lo == hi || n < lo ? lo : hi), std::to_string(n)});
  }
}

}  // namespace

namespace refserver_detail {
CExpr compile_operator(QueryContext* ctx, const Expr& call, std::vector<CExpr> args);
Vector fold(QueryContext* ctx, const CExpr& e);
}  // namespace refserver_detail

namespace {

CExpr cast(QueryContext* ctx, const Expr& call, const Schema& input) {
  check_arity(ctx, call, 1, 3);
  const std::string name = lower(call.text) == "dec" ? "decimal" : lower(call.text);
  const Expr& arg = call.args[0];
  int p1 = int_param(ctx, call, 1), p2 = int_param(ctx, call, 2);
  if (call.args.size() == 1 && is_literal(arg)) {
    if (name == "decimal") {
      return constant(read_literal(ctx, decimal_type_of(ctx, arg.text), arg.text));
    }
    if (name == "char") p1 = text_length(arg.text);
  }
  if (name == "decimal" && call.args.size() == 1) p1 = 10;
  const uint32_t type = ltype_from_name(name.c_str(), p1, p2);
  if (type == 0)
    query_fail(ctx, 23, {call.text + "(" + std::to_string(p1) + "," + std::to_string(p2) + ")"});
  if (is_literal(arg) && arg.kind != Expr::Kind::boolean) {
    return constant(read_literal(ctx, type, arg.text));
  }
  CExpr e;
  e.op = CExpr::Op::cast;
  e.symbol = name;
  e.what = arg.kind == Expr::Kind::column ? arg.text : call.text;
  e.args.push_back(compile_expr(ctx, arg, input));
  e.type = ColumnType{type, e.args[0].type.nullable, false};
  if (!can_convert(e.args[0].type.ltype, type)) {
    query_fail(ctx, KEST_ERR_CONVERSION,
               {e.what, type_text(e.args[0].type.ltype), type_text(type)});
  }
  return e;
}

CExpr as_dbl(QueryContext* ctx, const Expr& call, const Schema& input) {
  check_arity(ctx, call, 1, 1);
  CExpr e = compile_expr(ctx, call.args[0], input);
  if (ltype_id(e.type.ltype) != LTYPE_DECIMAL) {
    query_fail(ctx, KEST_ERR_TYPE_MISMATCH, {call.text, "decimal", type_text(e.type.ltype)});
  }
  e.type.dbl_storage = true;
  e.value.type.dbl_storage = true;
  return e;
}

}  // namespace

CExpr compile_expr(QueryContext* ctx, const Expr& expr, const Schema& input) {
  const NestingGuard level(ctx, Walk::build);
  if (is_literal(expr)) return literal(ctx, expr);
  if (expr.kind == Expr::Kind::column) {
    auto it = std::find(input.names.begin(), input.names.end(), expr.text);
    if (it == input.names.end()) query_fail(ctx, KEST_ERR_UNKNOWN_COLUMN, {expr.text});
    const size_t index = static_cast<size_t>(it - input.names.begin());
    if (input.constants[index]) return constant(*input.constants[index]);
    CExpr e;
    e.op = CExpr::Op::column;
    e.column = index;
    e.type = input.types[e.column];
    e.what = expr.text;
    return e;
  }
  const std::string name = lower(expr.text);
  CExpr e;
  if (is_type_name(name)) {
    e = cast(ctx, expr, input);
  } else if (name == "asdbl") {
    return as_dbl(ctx, expr, input);
  } else {
    std::vector<CExpr> args;
    for (const Expr& a : expr.args) args.push_back(compile_expr(ctx, a, input));
    e = is_text_function(name) ? compile_text_function(ctx, expr, std::move(args))
                               : refserver_detail::compile_operator(ctx, expr, std::move(args));
  }
  const bool folds = e.op != CExpr::Op::constant &&
                     std::all_of(e.args.begin(), e.args.end(),
                                 [](const CExpr& a) { return a.op == CExpr::Op::constant; });
  return folds ? constant(refserver_detail::fold(ctx, e)) : e;
}
