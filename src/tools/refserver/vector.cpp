#include "tools/refserver/vector.h"

#include <limits>

#include "kernel/ltype.h"

namespace {

i128 pow10(int n) {
  i128 p = 1;
  for (int i = 0; i < n; ++i) p *= 10;
  return p;
}

int upper_param(uint32_t ltype) { return static_cast<int>(ltype >> 16); }

constexpr i128 kI128Max = ~(static_cast<i128>(1) << 127);

}  // namespace

ValueForm value_form(uint32_t ltype) {
  switch (ltype_id(ltype)) {
    case LTYPE_FLT4:
    case LTYPE_FLT8:
    case LTYPE_MONEY:
      return ValueForm::real;
    case LTYPE_VCHAR:
      return ValueForm::text;
    case LTYPE_CHAR:
      return (ltype >> 8) == 1 ? ValueForm::integer : ValueForm::text;
    default:
      return ValueForm::integer;
  }
}

i128 integer_min(uint32_t ltype) {
  switch (ltype_id(ltype)) {
    case LTYPE_SCHR:
      return INT8_MIN;
    case LTYPE_SSHT:
      return INT16_MIN;
    case LTYPE_SINT:
    case LTYPE_INTERVALYM:
      return INT32_MIN;
    case LTYPE_SLNG:
    case LTYPE_INTERVALDS:
      return INT64_MIN;
    case LTYPE_S128:
      return -kI128Max - 1;
    case LTYPE_DECIMAL:
      return -(pow10((ltype >> 8) & 0xFF) - 1);
    default:  // unsigned ids, bool, date, time, timestamp, char
      return 0;
  }
}

i128 integer_max(uint32_t ltype) {
  const int f = upper_param(ltype) > 9 ? 9 : upper_param(ltype);
  switch (ltype_id(ltype)) {
    case LTYPE_BOOL:
      return 1;
    case LTYPE_SCHR:
      return INT8_MAX;
    case LTYPE_UCHR:
      return UINT8_MAX;
    case LTYPE_SSHT:
      return INT16_MAX;
    case LTYPE_USHT:
      return UINT16_MAX;
    case LTYPE_SINT:
    case LTYPE_INTERVALYM:
      return INT32_MAX;
    case LTYPE_UINT:
      return UINT32_MAX;
    case LTYPE_SLNG:
    case LTYPE_INTERVALDS:
      return INT64_MAX;
    case LTYPE_ULNG:
    case LTYPE_UIDX:
      return UINT64_MAX;
    case LTYPE_S128:
      return kI128Max;
    case LTYPE_DECIMAL:
      return pow10((ltype >> 8) & 0xFF) - 1;
    case LTYPE_DATE:
      return 3652424;
    case LTYPE_TIME:
      return 86400 * pow10(f) - 1;
    case LTYPE_TIMESTAMP:
      return static_cast<i128>(3652425) * 86400 * pow10(f) - 1;
    case LTYPE_CHAR:
      return 0x10FFFF;
    default:
      return 0;
  }
}

std::string type_text(uint32_t ltype) {
  char buf[64];
  ltype_to_string(buf, ltype);
  return buf;
}

Vector make_vector(const ColumnType& type, size_t rows) {
  Vector v;
  v.type = type;
  switch (value_form(type.ltype)) {
    case ValueForm::integer:
      v.ints.reserve(rows);
      break;
    case ValueForm::real:
      v.reals.reserve(rows);
      break;
    case ValueForm::text:
      v.texts.reserve(rows);
      break;
  }
  if (type.nullable) v.nulls.reserve(rows);
  return v;
}

void append_value(Vector& to, const Vector& from, size_t i) {
  const size_t k = from.at(i);
  switch (value_form(to.type.ltype)) {
    case ValueForm::integer:
      to.ints.push_back(from.ints[k]);
      break;
    case ValueForm::real:
      to.reals.push_back(from.reals[k]);
      break;
    case ValueForm::text:
      to.texts.push_back(from.texts[k]);
      break;
  }
  if (to.type.nullable) to.nulls.push_back(from.is_null(i) ? 1 : 0);
  ++to.rows;
}

void append_null(Vector& to) {
  switch (value_form(to.type.ltype)) {
    case ValueForm::integer:
      to.ints.push_back(0);
      break;
    case ValueForm::real:
      to.reals.push_back(0);
      break;
    case ValueForm::text:
      to.texts.emplace_back();
      break;
  }
  to.nulls.push_back(1);
  ++to.rows;
}

Vector filter_vector(const Vector& in, const std::vector<uint8_t>& keep, size_t kept) {
  if (in.is_const) return in;
  Vector out = make_vector(in.type, kept);
  for (size_t i = 0; i < in.rows; ++i) {
    if (keep[i]) append_value(out, in, i);
  }
  return out;
}
