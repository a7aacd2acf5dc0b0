#include "tools/refserver/cast.h"

#include <cmath>
#include <cstring>

#include "kernel/ltype.h"
#include "kernel/number_text.h"
#include "tools/refserver/query_error.h"
#include "utils/context.h"
#include "utils/kest_error.h"
#include "utils/str_funcs.h"

namespace {

// How a logical type takes part in conversions.
enum class Kind { exact, real, money, temporal, character, text };

Kind kind_of(uint32_t type) {
  const uint32_t id = ltype_id(type);
  if (id <= LTYPE_DECIMAL) return Kind::exact;  // bool, the integers and decimal
  if (id == LTYPE_FLT4 || id == LTYPE_FLT8) return Kind::real;
  if (id == LTYPE_MONEY) return Kind::money;
  if (id >= LTYPE_DATE) return Kind::temporal;
  return value_form(type) == ValueForm::integer ? Kind::character : Kind::text;
}

int scale_of(uint32_t type) { return ltype_id(type) == LTYPE_DECIMAL ? int(type >> 16) : 0; }
int fraction_of(uint32_t type) {
  const uint32_t id = ltype_id(type);
  const bool has_f = id == LTYPE_TIME || id == LTYPE_TIMESTAMP || id == LTYPE_INTERVALDS;
  return has_f ? std::min(int(type >> 16), 9) : 0;
}
bool is_unsigned(uint32_t id) {
  return id == LTYPE_BOOL || id == LTYPE_UCHR || id == LTYPE_USHT || id == LTYPE_UINT ||
         id == LTYPE_ULNG || id == LTYPE_UIDX;
}

i128 load_int(const unsigned char* p, int width, bool unsigned_value) {
  if (width == 16) {
    s128 v;
    std::memcpy(&v, p, 16);
    return (static_cast<i128>(v.hi) << 64) | static_cast<i128>(v.lo);
  }
  uint64_t u = 0;
  std::memcpy(&u, p, static_cast<size_t>(width));
  if (unsigned_value || width == 8) {
    return unsigned_value ? static_cast<i128>(u) : static_cast<i128>(static_cast<int64_t>(u));
  }
  const int shift = 64 - 8 * width;
  return static_cast<int64_t>(u << shift) >> shift;
}

[[noreturn]] void out_of_range(QueryContext* ctx, const std::string& value, uint32_t type) {
  query_fail(ctx, KEST_ERR_OUT_OF_RANGE, {value, type_text(type)});
}

void check_range(QueryContext* ctx, i128 v, uint32_t type) {
  if (v < integer_min(type) || v > integer_max(type)) out_of_range(ctx, i128_text(v), type);
}

// Code points of UTF-8 text; -1 when it is not well-formed.
long code_points(const std::string& s) {
  if (utf8_length(s.c_str()) < 0) return -1;
  long n = 0;
  for (unsigned char c : s) n += (c & 0xC0) != 0x80;
  return n;
}

int32_t first_code_point(const std::string& s) {
  const auto* p = reinterpret_cast<const unsigned char*>(s.data());
  if (p[0] < 0x80) return p[0];
  int extra = p[0] >= 0xF0 ? 3 : p[0] >= 0xE0 ? 2 : 1;
  int32_t cp = p[0] & (0x3F >> extra);
  for (int i = 1; i <= extra; ++i) cp = (cp << 6) | (p[i] & 0x3F);
  return cp;
}

}  // namespace

std::string utf8_of(int32_t cp) {
  std::string out;
  if (cp < 0x80) return std::string(1, static_cast<char>(cp));
  const int extra = cp < 0x800 ? 1 : cp < 0x10000 ? 2 : 3;
  out.push_back(static_cast<char>((0xF00 >> extra) | (cp >> (6 * extra))));
  for (int i = extra - 1; i >= 0; --i)
    out.push_back(static_cast<char>(0x80 | ((cp >> (6 * i)) & 0x3F)));
  return out;
}

namespace {

// A text value for a character type, checked against its length.
void check_length(QueryContext* ctx, const std::string& s, uint32_t type) {
  const long n = code_points(s);
  if (n < 0) query_fail(ctx, 33, {"'" + s + "'"});
  const long limit = static_cast<long>(type >> 8);
  if (limit > 0 && n > limit) out_of_range(ctx, "'" + s + "'", type);
}

enum class Strict { not_integer, ok, too_big };

// "[blanks][+|-]digits[blanks]" read exactly; a magnitude beyond 128 bits is too_big.
Strict strict_integer(const std::string& s, i128* out) {
  size_t i = 0;
  while (i < s.size() && s[i] == ' ') ++i;
  const bool neg = i < s.size() && s[i] == '-';
  if (i < s.size() && (s[i] == '-' || s[i] == '+')) ++i;
  using u128 = unsigned __int128;
  const u128 limit = static_cast<u128>(1) << 127;  // the magnitude of the smallest s128
  u128 v = 0;
  size_t digits = 0;
  bool big = false;
  for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i, ++digits) {
    big = big || v > (limit - static_cast<u128>(s[i] - '0')) / 10;
    if (!big) v = v * 10 + static_cast<u128>(s[i] - '0');
  }
  while (i < s.size() && s[i] == ' ') ++i;
  if (digits == 0 || i != s.size()) return Strict::not_integer;
  if (big || v > limit - (neg ? 0 : 1)) return Strict::too_big;
  *out = neg ? static_cast<i128>(0 - v) : static_cast<i128>(v);
  return Strict::ok;
}

Vector constant_of(uint32_t type) {
  Vector v = make_vector(ColumnType{type, false, false}, 1);
  v.is_const = true;
  v.rows = 1;
  return v;
}

i128 read_exact_literal(QueryContext* ctx, uint32_t type, const std::string& text) {
  if (ltype_id(type) == LTYPE_DECIMAL) {
    s128 v{};
    NumberRead r = decimal_from_string(text.c_str(), int((type >> 8) & 0xFF), scale_of(type), &v);
    if (r == NumberRead::not_a_number) query_fail(ctx, KEST_ERR_NOT_NUMBER, {text});
    if (r == NumberRead::overflow) out_of_range(ctx, text, type);
    return (static_cast<i128>(v.hi) << 64) | static_cast<i128>(v.lo);
  }
  alignas(16) unsigned char buf[16] = {};
  if (value_from_string(ctx, buf, type, text.c_str()) != 0) throw QueryFailed{};
  i128 strict = 0;
  if (ltype_id(type) != LTYPE_BOOL && kind_of(type) == Kind::exact) {
    const Strict r = strict_integer(text, &strict);
    if (r == Strict::too_big) out_of_range(ctx, text, type);
    if (r == Strict::ok) {
      check_range(ctx, strict, type);
      return strict;
    }
  }
  const int width = ltype_id(type) == LTYPE_BOOL ? 1 : ptype_width(ltype_physical(type));
  return load_int(buf, width, is_unsigned(ltype_id(type)));
}

double read_real_literal(QueryContext* ctx, uint32_t type, const std::string& text) {
  alignas(16) unsigned char buf[16] = {};
  if (value_from_string(ctx, buf, type, text.c_str()) != 0) throw QueryFailed{};
  if (ltype_id(type) == LTYPE_FLT4) {
    float f;
    std::memcpy(&f, buf, sizeof f);
    return f;
  }
  double d;
  std::memcpy(&d, buf, sizeof d);
  return d;
}

}  // namespace

std::string i128_text(i128 value) {
  const bool neg = value < 0;
  unsigned __int128 u = neg ? -static_cast<unsigned __int128>(value) : value;
  std::string digits;
  do {
    digits.insert(digits.begin(), static_cast<char>('0' + static_cast<int>(u % 10)));
    u /= 10;
  } while (u);
  return neg ? "-" + digits : digits;
}

i128 pow10_i128(int n) {
  i128 p = 1;
  for (int i = 0; i < n; ++i) p *= 10;
  return p;
}

Vector read_literal(QueryContext* ctx, uint32_t type, const std::string& text) {
  Vector v = constant_of(type);
  switch (kind_of(type)) {
    case Kind::text:
      check_length(ctx, text, type);
      v.texts.push_back(text);
      break;
    case Kind::character:
      check_length(ctx, text, type);
      if (text.empty()) out_of_range(ctx, "''", type);
      v.ints.push_back(first_code_point(text));
      break;
    case Kind::real:
    case Kind::money:
      v.reals.push_back(read_real_literal(ctx, type, text));
      break;
    default:
      v.ints.push_back(read_exact_literal(ctx, type, text));
      break;
  }
  return v;
}

const PhysicalType* physical_of(const ColumnType& type) {
  if (type.dbl_storage) return ptype_lookup("dbl");
  return ltype_physical(type.ltype);
}

int store_physical(const Vector& v, size_t i, unsigned char* dest) {
  const size_t k = v.at(i);
  if (v.type.dbl_storage) {
    const double d = static_cast<double>(v.ints[k]);
    std::memcpy(dest, &d, sizeof d);
    return 8;
  }
  if (value_form(v.type.ltype) == ValueForm::real) {
    if (ltype_id(v.type.ltype) == LTYPE_FLT4) {
      const float f = static_cast<float>(v.reals[k]);
      std::memcpy(dest, &f, sizeof f);
      return 4;
    }
    std::memcpy(dest, &v.reals[k], 8);
    return 8;
  }
  const int width = ptype_width(physical_of(v.type));
  const i128 value = v.ints[k];
  std::memcpy(dest, &value, static_cast<size_t>(width));  // the low bytes on a little-endian host
  return width;
}

std::string value_text(const Vector& v, size_t i) {
  if (v.is_null(i)) return "";
  if (value_form(v.type.ltype) == ValueForm::text) return v.texts[v.at(i)];
  alignas(16) unsigned char bytes[16] = {};
  store_physical(v, i, bytes);
  char buf[1024];
  const int n = value_to_string(buf, sizeof buf, physical_of(v.type), v.type.ltype, bytes);
  return n < 0 ? std::string() : std::string(buf);
}

bool can_convert(uint32_t from, uint32_t to) {
  const Kind f = kind_of(from), t = kind_of(to);
  if (from == to || t == Kind::text || f == Kind::text || f == Kind::character) return true;
  const auto numeric = [](Kind k) {
    return k == Kind::exact || k == Kind::real || k == Kind::money;
  };
  if (numeric(f) && numeric(t)) return true;
  if (f == Kind::temporal && t == Kind::temporal) {
    const uint32_t a = ltype_id(from), b = ltype_id(to);
    const bool day_time = (a == LTYPE_DATE || a == LTYPE_TIME || a == LTYPE_TIMESTAMP) &&
                          (b == LTYPE_DATE || b == LTYPE_TIME || b == LTYPE_TIMESTAMP);
    return a == b || (day_time && !(a == LTYPE_TIME || b == LTYPE_TIME)) ||
           (a == LTYPE_TIMESTAMP && b == LTYPE_TIME);
  }
  // Raw units: an integer becomes a day number, a time, an interval or a code point and back.
  const auto plain_integer = [](uint32_t type) {
    return ltype_id(type) > LTYPE_BOOL && ltype_id(type) < LTYPE_DECIMAL;
  };
  const bool integer_f = f == Kind::exact && plain_integer(from);
  const bool integer_t = t == Kind::exact && plain_integer(to);
  return (integer_f && (t == Kind::temporal || t == Kind::character)) ||
         (integer_t && f == Kind::temporal);
}

namespace {

double as_double(const Vector& in, size_t k) {
  switch (kind_of(in.type.ltype)) {
    case Kind::real:
      return in.reals[k];
    case Kind::money:
      return in.reals[k] / 100.0;
    default:
      return static_cast<double>(in.ints[k]) /
             static_cast<double>(pow10_i128(scale_of(in.type.ltype)));
  }
}

// `v` with `from` fraction digits as a value with `to` digits; dropped digits are truncated.
i128 rescale(QueryContext* ctx, i128 v, int from, int to, uint32_t type) {
  if (to < from) return v / pow10_i128(from - to);
  i128 out;
  if (__builtin_mul_overflow(v, pow10_i128(to - from), &out)) {
    out_of_range(ctx, i128_text(v), type);
  }
  return out;
}

// A double as an exact value with `scale` fraction digits, rounded half away from zero.
i128 round_real(QueryContext* ctx, double x, int scale, uint32_t type) {
  const double scaled = std::round(x * static_cast<double>(pow10_i128(scale)));
  if (!std::isfinite(scaled) || std::fabs(scaled) >= 1.7e38) {
    char buf[64];
    str_bprintf(buf, sizeof buf, "%.17g", x);
    out_of_range(ctx, buf, type);
  }
  return static_cast<i128>(scaled);
}

i128 convert_temporal(QueryContext* ctx, i128 v, uint32_t from, uint32_t to) {
  const uint32_t a = ltype_id(from), b = ltype_id(to);
  const int ff = fraction_of(from), ft = fraction_of(to);
  if (a == b) return rescale(ctx, v, ff, ft, to);
  if (a == LTYPE_DATE) return rescale(ctx, v * 86400, 0, ft, to);  // date to timestamp
  const i128 day = 86400 * pow10_i128(ff);
  if (b == LTYPE_DATE) return v / day;
  return rescale(ctx, v % day, ff, ft, to);  // timestamp to time of day
}

i128 exact_value(QueryContext* ctx, const Vector& in, size_t k, uint32_t to) {
  const uint32_t from = in.type.ltype;
  switch (kind_of(from)) {
    case Kind::exact:
      return rescale(ctx, in.ints[k], scale_of(from), scale_of(to), to);
    case Kind::real:
    case Kind::money:
      return round_real(ctx, as_double(in, k), scale_of(to), to);
    default:  // raw units of a time or a code point
      return in.ints[k];
  }
}

void convert_value(QueryContext* ctx, const Vector& in, size_t i, uint32_t to, Vector& out) {
  const uint32_t from = in.type.ltype;
  const size_t k = in.at(i);
  const Kind f = kind_of(from), t = kind_of(to);
  const bool raw_code_point = f == Kind::character && t == Kind::exact;
  if ((f == Kind::text || f == Kind::character) && !raw_code_point) {
    const std::string s = f == Kind::text ? in.texts[k] : utf8_of(static_cast<int32_t>(in.ints[k]));
    append_value(out, read_literal(ctx, to, s), 0);
    return;
  }
  if (t == Kind::text || (t == Kind::character && f != Kind::exact)) {
    append_value(out, read_literal(ctx, to, value_text(in, i)), 0);
    return;
  }
  if (t == Kind::real || t == Kind::money) {
    const double d = as_double(in, k);
    out.reals.push_back(t == Kind::money             ? std::round(d * 100.0)
                        : ltype_id(to) == LTYPE_FLT4 ? static_cast<float>(d)
                                                     : d);
  } else {
    i128 v = t == Kind::temporal && f == Kind::temporal
                 ? convert_temporal(ctx, in.ints[k], from, to)
                 : exact_value(ctx, in, k, to);
    if (ltype_id(to) == LTYPE_BOOL) v = v != 0;
    check_range(ctx, v, to);
    out.ints.push_back(v);
  }
  if (out.type.nullable) out.nulls.push_back(0);
  ++out.rows;
}

}  // namespace

double numeric_double(const Vector& v, size_t i) { return as_double(v, v.at(i)); }

Vector convert_vector(QueryContext* ctx, const Vector& in, size_t rows, uint32_t to,
                      const std::string& what) {
  if (!can_convert(in.type.ltype, to)) {
    query_fail(ctx, KEST_ERR_CONVERSION, {what, type_text(in.type.ltype), type_text(to)});
  }
  ColumnType type{to, in.type.nullable, false};
  const size_t n = in.is_const ? 1 : rows;
  Vector out = make_vector(type, n);
  for (size_t i = 0; i < n; ++i) {
    if (in.is_null(i)) {
      append_null(out);
    } else {
      convert_value(ctx, in, i, to, out);
    }
  }
  out.is_const = in.is_const;
  return out;
}
