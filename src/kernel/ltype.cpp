#include "kernel/ltype.h"

#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "kernel/datetime_text.h"
#include "kernel/digits.h"
#include "kernel/number_text.h"
#include "kernel/ptype.h"
#include "kernel/s128.h"
#include "utils/kest_assert.h"
#include "utils/str_funcs.h"
#include "utils/znlog.h"

namespace {

constexpr const char* kFacility = "LTYPE";
constexpr const char* kUnknown = "UNKNOWNTYPE";

struct TypeInfo {
  const char* name;
  int digits;
  int width;  // display width; parameterised types add to it
};

constexpr TypeInfo kTypes[LTYPE_COUNT] = {
    {kUnknown, 0, 0},     {"bool", 1, 5},        {"schr", 3, 4},      {"uchr", 3, 3},
    {"ssht", 5, 6},       {"usht", 5, 5},        {"sint", 10, 11},    {"uint", 10, 10},
    {"slng", 19, 20},     {"ulng", 19, 19},      {"s128", 39, 40},    {"uidx", 19, 19},
    {"decimal", 0, 0},    {"flt", 7, 14},        {"dbl", 16, 23},     {"money", 16, 17},
    {"char", 0, 0},       {"varchar", 0, 0},     {"date", 0, 10},     {"time", 0, 8},
    {"timestamp", 0, 19}, {"intervalds", 0, 17}, {"intervalym", 0, 8}};

int precision_of(uint32_t type) { return static_cast<int>((type >> 8) & 0xFFu); }
int scale_of(uint32_t type) { return static_cast<int>(type >> 16); }  // also f and money's 2
int length_of(uint32_t type) { return static_cast<int>(type >> 8); }

uint32_t make_word(uint32_t id, int low, int high) {
  return id | ((static_cast<uint32_t>(low) & 0xFFu) << 8) |
         ((static_cast<uint32_t>(high) & 0xFFFFu) << 16);
}
uint32_t make_decimal(int precision, int scale) {
  return make_word(LTYPE_DECIMAL, precision, scale);
}
uint32_t make_string(uint32_t id, int length) {
  return id | ((static_cast<uint32_t>(length) & 0xFFFFFFu) << 8);
}

// Case-insensitive match of a whole name, followed by '(' or the end of the text.
bool name_is(const char* text, const char* name) {
  size_t i = 0;
  for (; name[i]; ++i) {
    char c = text[i];
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    if (c != name[i]) return false;
  }
  return text[i] == 0 || text[i] == '(';
}

uint32_t integer_of_width(int bytes) {
  switch (bytes) {
    case 1:
      return LTYPE_SCHR;
    case 2:
      return LTYPE_SSHT;
    case 4:
      return LTYPE_SINT;
    case 8:
      return LTYPE_SLNG;
    case 16:
      return LTYPE_S128;
    default:
      return LTYPE_NONE;
  }
}

uint32_t from_name(const char* name, int p1, int p2) {
  if (name_is(name, "integer") || name_is(name, "int")) return integer_of_width(p1 ? p1 : 4);
  if (name_is(name, "decimal")) return make_decimal(p1 ? p1 : 10, p2);
  if (name_is(name, "float")) {
    int bytes = p1 ? p1 : 8;
    return bytes == 4 ? LTYPE_FLT4 : bytes == 8 ? LTYPE_FLT8 : LTYPE_NONE;
  }
  int f = p1 < 0 ? 0 : p1;
  if (name_is(name, "bool")) return LTYPE_BOOL;
  if (name_is(name, "date")) return LTYPE_DATE;
  if (name_is(name, "time")) return make_word(LTYPE_TIME, 0, f);
  if (name_is(name, "timestamp")) return make_word(LTYPE_TIMESTAMP, 0, f > 6 ? 6 : f);
  if (name_is(name, "intervalds")) return make_word(LTYPE_INTERVALDS, 0, f);
  if (name_is(name, "intervalym")) return LTYPE_INTERVALYM;
  if (name_is(name, "char")) return make_string(LTYPE_CHAR, p1 ? p1 : 1);
  if (name_is(name, "varchar")) return make_string(LTYPE_VCHAR, p1);
  for (uint32_t id = LTYPE_SCHR; id <= LTYPE_FLT8; ++id)
    if (id != LTYPE_UIDX && id != LTYPE_DECIMAL && name_is(name, kTypes[id].name)) return id;
  if (name_is(name, "money")) return make_word(LTYPE_MONEY, 0, 2);
  if (name_is(name, "str")) return LTYPE_VCHAR;
  if (name_is(name, "uidx")) return LTYPE_UIDX;
  return LTYPE_NONE;
}

// The integer descriptor of a storage width.
const PhysicalType* integer_physical(int bytes) {
  switch (bytes) {
    case 16:
      return g_ptype_s128;
    case 8:
      return g_ptype_slng;
    case 4:
      return g_ptype_sint;
    case 2:
      return g_ptype_ssht;
    default:
      return g_ptype_schr;
  }
}

double pow10_double(int n) { return std::pow(10.0, n); }

}  // namespace

void types_init() {
  static bool done = false;
  if (done) return;
  done = true;
  ptype_register_integers();
  ptype_register_floats();
  ptype_register_string();
  ptype_register_pointer();
}

uint32_t ltype_from_name(const char* name, int p1, int p2) {
  uint32_t type = name ? from_name(name, p1, p2) : LTYPE_NONE;
  if (type == LTYPE_NONE)
    ZN_LOG(kFacility, ZN_WARN, "unknown type <%s(%d,%d)>", name ? name : "", p1, p2);
  return type;
}

// Parameters are read only after a lower-case name, as "%*[a-z](%d" does: the parameters of a
// name in capitals are not read although the name itself matches.
uint32_t ltype_parse(const char* text) {
  int p1 = 0, p2 = 0;
  if (text && std::strchr(text, '(')) {  // without one neither pattern matches
    std::sscanf(text, "%*[a-z](%d", &p1);
    std::sscanf(text, "%*[a-z](%*d,%d", &p2);
  }
  return ltype_from_name(text, p1, p2);
}

const char* ltype_name(uint32_t type) {
  uint32_t id = ltype_id(type);
  return id < LTYPE_COUNT ? kTypes[id].name : kUnknown;
}

int ltype_to_string(char* buffer, uint32_t type) {
  uint32_t id = ltype_id(type);
  switch (id) {
    case LTYPE_DECIMAL:
      return std::snprintf(buffer, 64, "decimal(%d,%d)", precision_of(type), scale_of(type));
    case LTYPE_CHAR:
      return std::snprintf(buffer, 64, "char(%d)", length_of(type));
    case LTYPE_VCHAR:
      if (length_of(type)) return std::snprintf(buffer, 64, "varchar(%d)", length_of(type));
      return std::snprintf(buffer, 64, "str");
    case LTYPE_TIME:
    case LTYPE_TIMESTAMP:
    case LTYPE_INTERVALDS:
      if (scale_of(type))
        return std::snprintf(buffer, 64, "%s(%d)", ltype_name(id), scale_of(type));
      break;
    default:
      break;
  }
  return std::snprintf(buffer, 64, "%s", ltype_name(id));
}

const char* ltype_format(MemContext* ctx, uint32_t type, uint32_t flags) {
  char text[64];
  ltype_to_string(text, type);
  const char* bare = ltype_name(type);
  if (std::strcmp(text, bare) == 0) return bare;
  if (std::strcmp(text, "str") == 0) return "str";
  return str_dup(ctx, text, flags);
}

void ltype_params(uint32_t type, int* p1, int* p2) {
  *p1 = 0;
  *p2 = 0;
  switch (ltype_id(type)) {
    case LTYPE_DECIMAL:
      *p1 = precision_of(type);
      *p2 = scale_of(type);
      break;
    case LTYPE_CHAR:
    case LTYPE_VCHAR:
      *p1 = length_of(type);
      break;
    case LTYPE_TIME:
    case LTYPE_TIMESTAMP:
    case LTYPE_INTERVALDS:
      *p1 = scale_of(type);
      break;
    default:
      break;
  }
}

int ltype_digits(uint32_t type) {
  uint32_t id = ltype_id(type);
  if (id == LTYPE_DECIMAL) return precision_of(type);
  return id < LTYPE_COUNT ? kTypes[id].digits : 0;
}

int ltype_display_width(uint32_t type) {
  uint32_t id = ltype_id(type);
  int f = scale_of(type);
  switch (id) {
    case LTYPE_DECIMAL: {
      int p = precision_of(type);
      return p + 1 + (f != 0) + (p == f);
    }
    case LTYPE_CHAR:
    case LTYPE_VCHAR:
      return length_of(type);
    case LTYPE_TIME:
    case LTYPE_TIMESTAMP:
    case LTYPE_INTERVALDS:
      return kTypes[id].width + f + (f > 0);
    default:
      return id < LTYPE_COUNT ? kTypes[id].width : 0;
  }
}

bool ltype_is_scaled(uint32_t id) {
  id = ltype_id(id);
  return id == LTYPE_DECIMAL || (id >= LTYPE_DATE && id <= LTYPE_INTERVALYM);
}

int ltype_storage_width(uint32_t type) {
  switch (ltype_id(type)) {
    case LTYPE_DECIMAL: {
      int p = precision_of(type);
      return p >= 19 ? 16 : p >= 10 ? 8 : p >= 5 ? 4 : p >= 3 ? 2 : 1;
    }
    case LTYPE_DATE:
    case LTYPE_INTERVALYM:
      return 4;
    case LTYPE_TIME:
      return scale_of(type) < 5 ? 4 : 8;
    case LTYPE_TIMESTAMP:
    case LTYPE_INTERVALDS:
      return 8;
    default:
      return 1;
  }
}

const PhysicalType* ltype_physical(uint32_t type) {
  switch (ltype_id(type)) {
    case LTYPE_BOOL:
    case LTYPE_UCHR:
      return g_ptype_uchr;
    case LTYPE_SCHR:
      return g_ptype_schr;
    case LTYPE_SSHT:
      return g_ptype_ssht;
    case LTYPE_USHT:
      return g_ptype_usht;
    case LTYPE_SINT:
      return g_ptype_sint;
    case LTYPE_UINT:
      return g_ptype_uint;
    case LTYPE_SLNG:
      return g_ptype_slng;
    case LTYPE_ULNG:
      return g_ptype_ulng;
    case LTYPE_S128:
      return g_ptype_s128;
    case LTYPE_UIDX:
      return g_ptype_uidx;
    case LTYPE_FLT4:
      return g_ptype_flt;
    case LTYPE_FLT8:
    case LTYPE_MONEY:
      return g_ptype_dbl;
    case LTYPE_DECIMAL:
    case LTYPE_DATE:
    case LTYPE_TIME:
    case LTYPE_TIMESTAMP:
    case LTYPE_INTERVALDS:
    case LTYPE_INTERVALYM:
      return integer_physical(ltype_storage_width(type));
    case LTYPE_CHAR:
      return length_of(type) == 1 ? g_ptype_sint : g_ptype_str;
    case LTYPE_VCHAR:
      return g_ptype_str;
    default:
      return nullptr;
  }
}

double ltype_min(uint32_t type) {
  switch (ltype_id(type)) {
    case LTYPE_SLNG:
    case LTYPE_ULNG:
    case LTYPE_UIDX:
    case LTYPE_S128:
      return -DBL_MAX;
    case LTYPE_DECIMAL:
      return -pow10_double(precision_of(type));
    case LTYPE_MONEY:
      return -1e14;
    case LTYPE_DATE:
    case LTYPE_TIME:
    case LTYPE_TIMESTAMP:
      return 0.0;
    default: {
      const PhysicalType* p = ltype_physical(type);
      return p ? p->min : -DBL_MAX;
    }
  }
}

double ltype_max(uint32_t type) {
  int f = scale_of(type) > 9 ? 9 : scale_of(type);
  switch (ltype_id(type)) {
    case LTYPE_SLNG:
    case LTYPE_ULNG:
    case LTYPE_UIDX:
    case LTYPE_S128:
      return DBL_MAX;
    case LTYPE_DECIMAL:
      return pow10_double(precision_of(type));
    case LTYPE_MONEY:
      return 1e14;
    case LTYPE_DATE:
      return 3652424.0;
    case LTYPE_TIME:
      return 86400.0 * pow10_double(f);
    case LTYPE_TIMESTAMP:
      return 3652425.0 * 86400.0 * pow10_double(f);
    default: {
      const PhysicalType* p = ltype_physical(type);
      return p ? p->max : DBL_MAX;
    }
  }
}

uint32_t ltype_common(uint32_t a, uint32_t b) {
  if (a == b) return a;
  uint32_t ia = ltype_id(a), ib = ltype_id(b);
  if (ia < LTYPE_CHAR && ib < LTYPE_CHAR) {
    uint32_t id = ia > ib ? ia : ib;
    if (id != LTYPE_DECIMAL) return id == ia ? a : b;
    int sa = scale_of(a), sb = scale_of(b);
    int s = sa > sb ? sa : sb;
    int pa = precision_of(a) + (s - sa), pb = precision_of(b) + (s - sb);
    int p = pa > pb ? pa : pb;
    p = p < 0 ? 0 : (p > 255 ? 255 : p);
    return make_decimal(p, s > p ? p : s);
  }
  bool sa = ia == LTYPE_CHAR || ia == LTYPE_VCHAR, sb = ib == LTYPE_CHAR || ib == LTYPE_VCHAR;
  if (sa && sb) {
    int la = length_of(a), lb = length_of(b);
    int length = (la == 0 || lb == 0) ? 0 : (la > lb ? la : lb);
    return make_string(ia > ib ? ia : ib, length);
  }
  return LTYPE_NONE;
}

namespace {

template <typename T>
T load(const void* value) {
  T v;
  std::memcpy(&v, value, sizeof v);
  return v;
}

bool physical_is(const PhysicalType* physical, const char (&name)[4]) {
  const char* n = physical->name;
  return n[0] == name[0] && n[1] == name[1] && n[2] == name[2] && n[3] == 0;
}

// The decimal printers report a cut text their own way; here it becomes -1 with a terminated
// buffer, as the bounded formatter answers.
int cut_to_minus_one(char* buffer, size_t size, int length) {
  if (length >= 0 && static_cast<size_t>(length) < size) return length;
  if (size) buffer[size - 1] = 0;
  return -1;
}

int decimal_double_text(char* buffer, size_t size, double value, int scale) {
  if (value > -9223372036854775808.0 && value < 9223372036854775808.0)
    return cut_to_minus_one(buffer, size, decimal_double_to_string(buffer, size, value, scale));
  int n = decimal_double_to_string(buffer, size, value, scale);
  if (n > 0) return n - 1;  // that path counts the terminator
  if (size) buffer[0] = 0;
  return -1;
}

// UTF-8 of a code point, up to six bytes. When the room (size - 1) is short nothing is written
// and the length is still returned.
int code_point_text(char* buffer, size_t size, uint32_t c) {
  int length = c < 0x80        ? 1
               : c < 0x800     ? 2
               : c < 0x10000   ? 3
               : c < 0x200000  ? 4
               : c < 0x4000000 ? 5
                               : 6;
  if (size == 0) return length;
  buffer[0] = 0;
  if (static_cast<size_t>(length) > size - 1) return length;
  if (length == 1) {
    buffer[0] = static_cast<char>(c);
  } else {
    static constexpr unsigned char kLead[7] = {0, 0, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC};
    for (int i = length - 1; i > 0; --i) {
      buffer[i] = static_cast<char>(0x80 | (c & 0x3F));
      c >>= 6;
    }
    buffer[0] = static_cast<char>(kLead[length] | c);
  }
  buffer[length] = 0;
  return length;
}

int sixteen_byte_text(char* buffer, size_t size, uint32_t type, const void* value) {
  s128 v = load<s128>(value);
  int n = ltype_id(type) == LTYPE_S128 ? s128_to_string_ptr(buffer, size, &v)
                                       : decimal128_to_string(buffer, size, v, scale_of(type));
  return cut_to_minus_one(buffer, size, n);
}

int integer_text(char* buffer, size_t size, uint32_t type, int64_t sv, uint64_t uv) {
  switch (ltype_id(type)) {
    case LTYPE_BOOL:
      return uv ? bounded_copy(buffer, size, "true", 4) : bounded_copy(buffer, size, "false", 5);
    case LTYPE_SCHR:
    case LTYPE_SSHT:
    case LTYPE_SINT:
    case LTYPE_SLNG:
    case LTYPE_S128:
      return int64_to_string(buffer, size, sv);
    case LTYPE_UCHR:
    case LTYPE_USHT:
    case LTYPE_UINT:
    case LTYPE_ULNG:
    case LTYPE_UIDX:
      return uint64_to_string(buffer, size, uv);
    case LTYPE_DECIMAL:
      return cut_to_minus_one(buffer, size, decimal64_to_string(buffer, size, sv, scale_of(type)));
    case LTYPE_CHAR:
      return code_point_text(buffer, size, static_cast<uint32_t>(sv));
    case LTYPE_DATE:
      return date_to_string(buffer, size, static_cast<int32_t>(sv));
    case LTYPE_TIME:
      return time_to_string(buffer, size, sv, scale_of(type));
    case LTYPE_TIMESTAMP:
      return timestamp_to_string(buffer, size, sv, scale_of(type));
    case LTYPE_INTERVALDS:
      return intervalds_to_string(buffer, size, sv, scale_of(type));
    case LTYPE_INTERVALYM:
      return intervalym_to_string(buffer, size, static_cast<int32_t>(sv));
    default:
      return bounded_copy(buffer, size, kUnknown, std::strlen(kUnknown));
  }
}

}  // namespace

int value_to_string(char* buffer, size_t size, const PhysicalType* physical, uint32_t type,
                    const void* value) {
  uint32_t tid = ltype_id(type);
  if (tid == LTYPE_MONEY) return money_to_string(buffer, size, load<double>(value));
  if (physical_is(physical, "dbl")) {
    if (tid == LTYPE_DECIMAL)
      return decimal_double_text(buffer, size, load<double>(value), scale_of(type));
    KEST_ASSERT(kFacility, tid == LTYPE_FLT8);
    return double_to_string(buffer, size, load<double>(value));
  }
  if (physical_is(physical, "flt")) {
    KEST_ASSERT(kFacility, tid == LTYPE_FLT4 || tid == LTYPE_FLT8);
    return float_to_string(buffer, size, load<float>(value));
  }
  if (physical_is(physical, "str")) {
    KEST_ASSERT(kFacility, tid == LTYPE_CHAR || tid == LTYPE_VCHAR);
    const char* text = load<const char*>(value);
    if (!text) text = "(null)";  // what "%s" prints for a null pointer
    return bounded_copy(buffer, size, text, std::strlen(text));
  }
  int64_t sv = 0;
  uint64_t uv = 0;
  switch (physical->width_class) {
    case 2:
      sv = load<int8_t>(value);
      uv = load<uint8_t>(value);
      break;
    case 3:
      sv = load<int16_t>(value);
      uv = load<uint16_t>(value);
      break;
    case 4:
      sv = load<int32_t>(value);
      uv = load<uint32_t>(value);
      break;
    case 6:
      if (tid == LTYPE_S128 || tid == LTYPE_DECIMAL)
        return sixteen_byte_text(buffer, size, type, value);
      [[fallthrough]];  // the low eight of the sixteen bytes
    case 5:
      sv = load<int64_t>(value);
      uv = static_cast<uint64_t>(sv);
      break;
    default:
      break;
  }
  return integer_text(buffer, size, type, sv, uv);
}

namespace {

// The longest integer or scaled decimal text: a sign, 19 digits, a point, a terminator.
constexpr size_t kLongestNumber = 22;

template <typename T>
int signed_text(char* buffer, size_t size, const PhysicalType*, uint32_t, const void* value) {
  const int64_t v = load<T>(value);
  if (size < kLongestNumber) return int64_to_string(buffer, size, v);
  const uint64_t a = v < 0 ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
  const int digits = decimal_digit_count(a);
  char* end = buffer + (v < 0) + digits;
  if (digits <= 8) {  // one word, stored whole: the buffer has room past the text
    const uint64_t word = last_digits_word(static_cast<uint32_t>(a), digits);
    std::memcpy(end - digits, &word, sizeof word);
  } else {
    write_digits_backwards(end, a);
  }
  *end = 0;
  if (v < 0) buffer[0] = '-';
  return static_cast<int>(end - buffer);
}

template <typename T>
int decimal_text(char* buffer, size_t size, const PhysicalType*, uint32_t type, const void* value) {
  const int64_t v = load<T>(value);
  const int scale = scale_of(type);
  if (size < kLongestNumber || scale < 1 || scale > 18)
    return cut_to_minus_one(buffer, size, decimal64_to_string(buffer, size, v, scale));
  // The digits below the point always show, the integer part at least as "0".
  uint64_t a = v < 0 ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
  const int digits = decimal_digit_count(a);
  const int shown = digits > scale ? digits : scale + 1;
  char* const start = buffer + (v < 0);
  char* end = start + shown + 1;
  if (shown <= 8) {  // one word: the integer digits, the point, the rest shifted past it (stored
    // whole: the buffer has room past the text)
    const uint64_t word = last_digits_word(static_cast<uint32_t>(a), shown);
    const int whole = shown - scale;
    std::memcpy(start, &word, sizeof word);
    start[whole] = '.';
    const uint64_t fraction = word >> (8 * whole);
    std::memcpy(start + whole + 1, &fraction, sizeof fraction);
  } else {
    char* p = write_low_digits_backwards(end, a, scale);
    *--p = '.';
    write_digits_backwards(p, a);
  }
  *end = 0;
  if (v < 0) buffer[0] = '-';
  return static_cast<int>(end - buffer);
}

// date_to_string's "%04d-%02d-%02d", written directly for the years 0 to 9999.
template <typename T>
int date_text(char* buffer, size_t size, const PhysicalType*, uint32_t, const void* value) {
  const auto day = static_cast<int32_t>(load<T>(value));
  int y, m, d;
  day_to_ymd(day, &y, &m, &d);
  if (size <= 10 || y < 0 || y > 9999) return date_to_string(buffer, size, day);
  put_digit_pair(buffer, y / 100);
  put_digit_pair(buffer + 2, y % 100);
  buffer[4] = '-';
  put_digit_pair(buffer + 5, m);
  buffer[7] = '-';
  put_digit_pair(buffer + 8, d);
  buffer[10] = 0;
  return 10;
}

int dbl_text(char* buffer, size_t size, const PhysicalType*, uint32_t, const void* value) {
  return double_to_string(buffer, size, load<double>(value));
}

int str_text(char* buffer, size_t size, const PhysicalType*, uint32_t, const void* value) {
  const char* text = load<const char*>(value);
  if (!text) text = "(null)";
  return bounded_copy(buffer, size, text, std::strlen(text));
}

// The direct conversion of an integer of width T for `tid`, or null.
template <typename T>
ValueTextFn integer_fn(uint32_t tid) {
  switch (tid) {
    case LTYPE_SCHR:
    case LTYPE_SSHT:
    case LTYPE_SINT:
    case LTYPE_SLNG:
      return signed_text<T>;
    case LTYPE_DECIMAL:
      return decimal_text<T>;
    case LTYPE_DATE:
      return date_text<T>;
    default:
      return nullptr;
  }
}

}  // namespace

ValueTextFn value_text_fn(const PhysicalType* physical, uint32_t type) {
  const uint32_t tid = ltype_id(type);
  ValueTextFn direct = nullptr;
  if (physical->is_integer == 1 && physical->width_class == 4) {
    direct = integer_fn<int32_t>(tid);
  } else if (physical->is_integer == 1 && physical->width_class == 5) {
    direct = integer_fn<int64_t>(tid);
  } else if (physical_is(physical, "dbl") && tid == LTYPE_FLT8) {
    direct = dbl_text;
  } else if (physical_is(physical, "str") && (tid == LTYPE_CHAR || tid == LTYPE_VCHAR)) {
    direct = str_text;
  }
  return direct ? direct : value_to_string;
}
