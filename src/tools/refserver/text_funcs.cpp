#include "tools/refserver/text_funcs.h"

#include <algorithm>
#include <string_view>

#include "kernel/ltype.h"
#include "tools/refserver/cast.h"
#include "tools/refserver/query_error.h"
#include "utils/kest_error.h"

namespace {

bool is_text(uint32_t type) {
  return ltype_id(type) == LTYPE_CHAR || ltype_id(type) == LTYPE_VCHAR;
}
bool is_integer(uint32_t type) {
  const uint32_t id = ltype_id(type);
  return id >= LTYPE_SCHR && id <= LTYPE_UIDX;
}

// A one-character "char" is held as its code point (spelled out in `scratch`), every other
// text as the text itself. The view lives as long as `v` and `scratch`.
std::string_view text_at(const Vector& v, size_t i, std::string& scratch) {
  if (value_form(v.type.ltype) == ValueForm::text) return v.texts[v.at(i)];
  scratch = utf8_of(static_cast<int32_t>(v.ints[v.at(i)]));
  return scratch;
}

// Byte offset of code point `n` (from 0) of the UTF-8 text `s`, or s.size() when it has fewer.
size_t offset_of(std::string_view s, i128 n) {
  size_t at = 0;
  for (; at < s.size() && n > 0; --n) {
    ++at;
    while (at < s.size() && (static_cast<unsigned char>(s[at]) & 0xC0) == 0x80) ++at;
  }
  return at;
}

// Code points [start, start + length) of `s`, counting from 1 and clipped to the text; without
// a length, everything from `start` on.
std::string_view substr_of(QueryContext* ctx, std::string_view s, i128 start, const i128* length) {
  if (length && *length < 0) {
    query_fail(ctx, KEST_ERR_OUT_OF_RANGE, {i128_text(*length), "substr length"});
  }
  const i128 first = start - 1;
  const size_t from = offset_of(s, std::max<i128>(first, 0));
  if (!length) return s.substr(from);
  const i128 last = first + *length;  // one past, from 0
  if (last <= 0) return {};
  return s.substr(from, offset_of(s, last) - from);
}

// The byte budget of the concat texts of one column.
struct TextBudget {
  size_t used;
  size_t max;
};

// Row i of the call, appended to `out` (empty on entry).
void row_value(QueryContext* ctx, const CExpr& e, const std::vector<Vector>& args, size_t i,
               std::string& out, TextBudget& budget) {
  std::string scratch0, scratch1;
  const std::string_view s = text_at(args[0], i, scratch0);
  if (e.symbol == "concat") {
    const std::string_view t = text_at(args[1], i, scratch1);
    budget.used += s.size() + t.size();
    if (budget.used > budget.max) {
      query_fail(ctx, kErrTextTooLong,
                 {std::to_string(budget.used), std::to_string(budget.max), e.what});
    }
    out.reserve(s.size() + t.size());
    out.append(s).append(t);
    return;
  }
  const i128 start = args[1].ints[args[1].at(i)];
  const i128 length = args.size() == 3 ? args[2].ints[args[2].at(i)] : 0;
  out.append(substr_of(ctx, s, start, args.size() == 3 ? &length : nullptr));
}

}  // namespace

bool is_text_function(const std::string& name) { return name == "concat" || name == "substr"; }

CExpr compile_text_function(QueryContext* ctx, const Expr& call, std::vector<CExpr> args) {
  CExpr e;
  e.op = CExpr::Op::text;
  for (char c : call.text) e.symbol += static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
  e.what = call.text;
  const bool concat = e.symbol == "concat";
  const size_t lo = 2, hi = concat ? 2 : 3;
  if (args.size() < lo || args.size() > hi) {
    query_fail(
        ctx, KEST_ERR_ARITY,
        {call.text, std::to_string(args.size() < lo ? lo : hi), std::to_string(args.size())});
  }
  for (size_t k = 0; k < args.size(); ++k) {
    const bool want_text = concat || k == 0;
    if (want_text ? !is_text(args[k].type.ltype) : !is_integer(args[k].type.ltype)) {
      query_fail(ctx, KEST_ERR_TYPE_MISMATCH,
                 {call.text, want_text ? "text" : "an integer", type_text(args[k].type.ltype)});
    }
  }
  bool nullable = false;
  for (const CExpr& a : args) nullable = nullable || a.type.nullable;
  e.type = ColumnType{LTYPE_VCHAR, nullable, false};
  e.args = std::move(args);
  return e;
}

Vector eval_text_function(QueryContext* ctx, const CExpr& e, const std::vector<Vector>& args,
                          size_t rows, size_t max_bytes) {
  Vector out = make_vector(e.type, rows);
  TextBudget budget{0, max_bytes};
  for (size_t i = 0; i < rows; ++i) {
    const bool null =
        std::any_of(args.begin(), args.end(), [i](const Vector& a) { return a.is_null(i); });
    if (null) {
      append_null(out);
      continue;
    }
    row_value(ctx, e, args, i, out.texts.emplace_back(), budget);
    if (out.type.nullable) out.nulls.push_back(0);
    ++out.rows;
  }
  return out;
}
