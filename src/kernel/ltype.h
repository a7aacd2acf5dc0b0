// Logical types (the packed 32-bit type word with its parameters), the registry of physical types
// (how values are stored in column vectors) and the conversion of one stored value to text.
#pragma once

#include <cstddef>
#include <cstdint>

struct MemContext;
struct QueryContext;

// Type ids, the low byte of the logical type word.
enum : uint32_t {
  LTYPE_NONE = 0,
  LTYPE_BOOL = 1,
  LTYPE_SCHR = 2,
  LTYPE_UCHR = 3,
  LTYPE_SSHT = 4,
  LTYPE_USHT = 5,
  LTYPE_SINT = 6,
  LTYPE_UINT = 7,
  LTYPE_SLNG = 8,
  LTYPE_ULNG = 9,
  LTYPE_S128 = 10,
  LTYPE_UIDX = 11,
  LTYPE_DECIMAL = 12,
  LTYPE_FLT4 = 13,
  LTYPE_FLT8 = 14,
  LTYPE_MONEY = 15,
  LTYPE_CHAR = 16,
  LTYPE_VCHAR = 17,
  LTYPE_DATE = 18,
  LTYPE_TIME = 19,
  LTYPE_TIMESTAMP = 20,
  LTYPE_INTERVALDS = 21,
  LTYPE_INTERVALYM = 22,
  LTYPE_COUNT = 23
};

inline constexpr uint32_t ltype_id(uint32_t type) { return type & 0xFFu; }

// One physical type. The registry owns the records; callers hold pointers and never free them.
struct PhysicalType {
  char name[64];        // "uchr", "sint", "slng", "s128", "flt", "dbl", "str", "ptr", ...
  uint32_t index;       // place in the registry
  int32_t width_class;  // 1,2 = one byte, 3 = two, 4 = four, 5 = eight, 6 = sixteen
  int32_t is_integer;
  int32_t fixed_size;    // 0 only for "str": the column stores one pointer per value
  int32_t by_reference;  // 1 only for "str"
  double min;
  double max;
};

// Fills the conversion tables and registers the built-in physical types; idempotent. Call once at
// start before any other thread exists.
void types_init();

// Logical type names.
uint32_t ltype_from_name(const char* name, int p1, int p2);  // 0 on failure (logged)
uint32_t ltype_parse(const char* text);                      // "decimal(12,2)", "varchar(5)", ...
const char* ltype_name(uint32_t type);                       // bare name, or "UNKNOWNTYPE"
// Writes the full type text ("decimal(12,2)", "str", "time(3)", ...) into `buffer`, which must
// hold at least 64 bytes; returns its length.
int ltype_to_string(char* buffer, uint32_t type);
const char* ltype_format(MemContext* ctx, uint32_t type, uint32_t flags);
void ltype_params(uint32_t type, int* p1, int* p2);
int ltype_digits(uint32_t type);
int ltype_display_width(uint32_t type);  // 0 when the type has none
bool ltype_is_scaled(uint32_t id);
// Bytes a value of this type takes when stored without a physical type at hand: "decimal" 1, 2,
// 4, 8 or 16 by precision; "date", "intervalym" 4; "time" 4 (f < 5) or 8; "timestamp",
// "intervalds" 8; every other id 1.
int ltype_storage_width(uint32_t type);
// The registered descriptor values of this type use; null for unknown ids and before types_init.
const PhysicalType* ltype_physical(uint32_t type);
double ltype_min(uint32_t type);
double ltype_max(uint32_t type);
uint32_t ltype_common(uint32_t a, uint32_t b);

// The physical type registry: at most 64 entries, filled once at start.
uint32_t ptype_register(const PhysicalType* descriptor);
int ptype_index(const char* name);                   // -1 when unknown (exact, case-sensitive)
const PhysicalType* ptype_lookup(const char* name);  // null when unknown
const PhysicalType* ptype_get(uint32_t index);       // null when out of range
uint32_t ptype_count();
int ptype_width(const PhysicalType* descriptor);  // bytes per value (0 for an unknown class)

// Text of the value at `value`, stored as `physical`, meaning `type`. Returns the number of
// characters written, or -1 when the text does not fit in `size` bytes (the buffer then holds a
// terminated cut, as str_bprintf leaves it). One exception, kept on purpose: a "char" code point
// whose UTF-8 does not fit leaves the buffer empty and returns its byte length.
// The value layout per logical type (with the physical type of ltype_physical): bool, integers,
// date, time, timestamp, intervals and decimals are integers of the physical width; "s128" and
// decimals of precision 19 or more are an s128 (kernel/s128.h); "flt" a float; "dbl" and "money"
// a double ("money" counts cents); "char" of length 1 an int32_t code point; other "char" and
// "varchar" a const char* to a terminated string. `value` need not be aligned.
// REQUIRES: physical is non-null; a "dbl" physical type means "dbl" or "decimal", a "flt" one a
// float type and "str" a string type (else assertion).
int value_to_string(char* buffer, size_t size, const PhysicalType* physical, uint32_t type,
                    const void* value);
// value_to_string chosen once for a column: the function returned gives the same text and
// result as value_to_string for every value stored as `physical` meaning `type`, without
// choosing the conversion again per value (the common integer, decimal, date, "dbl" and "str"
// columns get a direct one; any other pair gets value_to_string itself).
using ValueTextFn = int (*)(char* buffer, size_t size, const PhysicalType* physical, uint32_t type,
                            const void* value);
ValueTextFn value_text_fn(const PhysicalType* physical, uint32_t type);
// The reverse conversion, storing into `result` with the storage width of `type` (integers by
// their own width, "s128" in 16 bytes, "money" as a double of cents, "flt" a float, "dbl" a
// double); 0 or the error code raised on `context` (KEST_ERR_NOT_BOOL, KEST_ERR_NOT_NUMBER,
// KEST_ERR_NOT_MONEY, KEST_ERR_CONVERSION). Types with no reader ("char", "varchar") and
// decimals of precision 19 or more (16 bytes of storage) answer KEST_ERR_CONVERSION.
// REQUIRES: result has room for 16 bytes.
int value_from_string(QueryContext* context, void* result, uint32_t type, const char* text);
// Parses and prints again, in storage of context->mem (it lives as long as that); null when
// parsing failed (the error is on the context).
char* value_normalise(QueryContext* context, uint32_t type, const char* text);
