// The text-to-value half of ltype.h: value_from_string and value_normalise.
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "kernel/datetime_text.h"
#include "kernel/ltype.h"
#include "kernel/number_text.h"
#include "kernel/s128.h"
#include "utils/context.h"
#include "utils/kest_error.h"
#include "utils/mem.h"

namespace {

constexpr const char* kFacility = "LTYPE";

int raise_one(QueryContext* context, const char* facility, int32_t code, const char* text) {
  add_error(context, facility, code, 1, text);
  return code;
}

int raise_conversion(QueryContext* context, uint32_t type, const char* text) {
  add_error(context, kFacility, KEST_ERR_CONVERSION, 3, text, "str", ltype_name(type));
  return KEST_ERR_CONVERSION;
}

bool equals_nocase(const char* a, const char* b) {
  for (; *a && *b; ++a, ++b) {
    char c = *a >= 'A' && *a <= 'Z' ? static_cast<char>(*a - 'A' + 'a') : *a;
    if (c != *b) return false;
  }
  return *a == *b;
}

template <typename T>
int scan(QueryContext* context, void* result, const char* text, const char* format) {
  T v{};
  if (std::sscanf(text, format, &v) != 1)
    return raise_one(context, kFacility, KEST_ERR_NOT_NUMBER, text);
  std::memcpy(result, &v, sizeof v);
  return 0;
}

// Stores an integer with the storage width of the type; false for a width other than 1, 2, 4, 8.
bool store(void* result, int width, int64_t v) {
  switch (width) {
    case 1: {
      int8_t x = static_cast<int8_t>(v);
      std::memcpy(result, &x, 1);
      return true;
    }
    case 2: {
      int16_t x = static_cast<int16_t>(v);
      std::memcpy(result, &x, 2);
      return true;
    }
    case 4: {
      int32_t x = static_cast<int32_t>(v);
      std::memcpy(result, &x, 4);
      return true;
    }
    case 8:
      std::memcpy(result, &v, 8);
      return true;
    default:
      return false;
  }
}

int read_decimal(QueryContext* context, void* result, uint32_t type, const char* text) {
  int precision = static_cast<int>((type >> 8) & 0xFFu);
  int scale = static_cast<int>(type >> 16);
  int width = ltype_storage_width(type);
  if (width == 16) return raise_conversion(context, type, text);
  s128 v;
  NumberRead r = decimal_from_string(text, precision, scale, &v);
  if (r == NumberRead::not_a_number)
    return raise_one(context, kFacility, KEST_ERR_NOT_NUMBER, text);
  if (r == NumberRead::overflow) return raise_conversion(context, type, text);
  store(result, width, s128_toint_ptr(&v));
  return 0;
}

int read_money(QueryContext* context, void* result, const char* text) {
  double cents;
  if (money_from_string(text, &cents) != NumberRead::ok) {
    bool pending = context && context->errors && context->errors->code != KEST_OK;
    if (!pending) add_error(context, "STRCONV", KEST_ERR_NOT_MONEY, 1, text);
    std::memset(result, 0, sizeof cents);
    return KEST_ERR_NOT_MONEY;
  }
  std::memcpy(result, &cents, sizeof cents);
  return 0;
}

int read_s128(QueryContext* context, void* result, const char* text) {
  const char* digits = text[0] == '-' ? text + 1 : text;
  s128 v;
  if (!(*digits >= '0' && *digits <= '9') || s128_from_string_ptr(text, &v) != 0)
    return raise_one(context, kFacility, KEST_ERR_NOT_NUMBER, text);
  std::memcpy(result, &v, sizeof v);
  return 0;
}

// Dates, times and intervals: the reader's integer, stored with the type's width.
int read_temporal(QueryContext* context, void* result, uint32_t type, const char* text) {
  int f = static_cast<int>(type >> 16);
  int64_t v = 0;
  bool ok = false;
  switch (ltype_id(type)) {
    case LTYPE_DATE: {
      int32_t day;
      ok = date_from_string(text, &day);
      v = day;
      break;
    }
    case LTYPE_TIME:
      ok = time_from_string(text, f, &v);
      break;
    case LTYPE_TIMESTAMP:
      ok = timestamp_from_string(text, f, &v);
      break;
    case LTYPE_INTERVALDS:
      ok = intervalds_from_string(text, f, &v);
      break;
    default: {
      int32_t months;
      ok = intervalym_from_string(text, &months);
      v = months;
      break;
    }
  }
  if (!ok || !store(result, ltype_storage_width(type), v))
    return raise_conversion(context, type, text);
  return 0;
}

}  // namespace

int value_from_string(QueryContext* context, void* result, uint32_t type, const char* text) {
  switch (ltype_id(type)) {
    case LTYPE_BOOL: {
      uint8_t v;
      if (equals_nocase(text, "true"))
        v = 1;
      else if (equals_nocase(text, "false"))
        v = 0;
      else
        return raise_one(context, kFacility, KEST_ERR_NOT_BOOL, text);
      std::memcpy(result, &v, 1);
      return 0;
    }
    case LTYPE_SCHR:
      return scan<signed char>(context, result, text, "%hhd");
    case LTYPE_UCHR:
      return scan<unsigned char>(context, result, text, "%hhu");
    case LTYPE_SSHT:
      return scan<short>(context, result, text, "%hd");
    case LTYPE_USHT:
      return scan<unsigned short>(context, result, text, "%hu");
    case LTYPE_SINT:
      return scan<int>(context, result, text, "%d");
    case LTYPE_UINT:
      return scan<unsigned>(context, result, text, "%u");
    case LTYPE_SLNG:
      return scan<long long>(context, result, text, "%lld");
    case LTYPE_ULNG:
      return scan<unsigned long long>(context, result, text, "%llu");
    case LTYPE_UIDX:
      return scan<uint64_t>(context, result, text, "%" SCNu64);
    case LTYPE_FLT4:
      return scan<float>(context, result, text, "%f");
    case LTYPE_FLT8:
      return scan<double>(context, result, text, "%lf");
    case LTYPE_S128:
      return read_s128(context, result, text);
    case LTYPE_DECIMAL:
      return read_decimal(context, result, type, text);
    case LTYPE_MONEY:
      return read_money(context, result, text);
    case LTYPE_DATE:
    case LTYPE_TIME:
    case LTYPE_TIMESTAMP:
    case LTYPE_INTERVALDS:
    case LTYPE_INTERVALYM:
      return read_temporal(context, result, type, text);
    default:
      return raise_conversion(context, type, text);
  }
}

char* value_normalise(QueryContext* context, uint32_t type, const char* text) {
  alignas(16) unsigned char value[16] = {};
  if (value_from_string(context, value, type, text) != 0) return nullptr;
  const PhysicalType* physical = ltype_physical(type);
  if (!physical) return nullptr;
  // Texts of values are short; the cap only guards against a printer that never fits.
  for (size_t size = 128; size <= (1u << 20); size *= 2) {
    auto* buffer = static_cast<char*>(mem_malloc(context->mem, size, 0));
    if (value_to_string(buffer, size, physical, type, value) >= 0) return buffer;
    mem_free(context->mem, buffer);
  }
  return nullptr;
}
