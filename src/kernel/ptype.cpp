#include "kernel/ptype.h"

#include <cfloat>
#include <cstring>

#include "utils/kest_assert.h"

namespace {

constexpr const char* kFacility = "LTYPE";

struct Registry {
  PhysicalType types[PTYPE_MAX];
  uint32_t count;
};
Registry registry;

const PhysicalType* add(const char* name, int32_t width_class, int32_t is_integer, double min,
                        double max) {
  PhysicalType d = ptype_new(name);
  d.width_class = width_class;
  d.is_integer = is_integer;
  d.fixed_size = 1;
  d.by_reference = 0;
  d.min = min;
  d.max = max;
  return ptype_get(ptype_register(&d));
}

}  // namespace

const PhysicalType* g_ptype_schr;
const PhysicalType* g_ptype_uchr;
const PhysicalType* g_ptype_ssht;
const PhysicalType* g_ptype_usht;
const PhysicalType* g_ptype_sint;
const PhysicalType* g_ptype_uint;
const PhysicalType* g_ptype_slng;
const PhysicalType* g_ptype_ulng;
const PhysicalType* g_ptype_s128;
const PhysicalType* g_ptype_uidx;
const PhysicalType* g_ptype_flt;
const PhysicalType* g_ptype_dbl;
const PhysicalType* g_ptype_str;
const PhysicalType* g_ptype_ptr;

PhysicalType ptype_new(const char* name) {
  PhysicalType d;
  std::memset(&d, 0, sizeof d);
  d.width_class = -1;
  d.is_integer = -1;
  d.fixed_size = -1;
  std::strncpy(d.name, name, sizeof d.name - 1);
  return d;
}

uint32_t ptype_register(const PhysicalType* descriptor) {
  KEST_ASSERT(kFacility, registry.count < PTYPE_MAX);
  uint32_t index = registry.count++;
  registry.types[index] = *descriptor;
  registry.types[index].index = index;
  return index;
}

int ptype_index(const char* name) {
  for (uint32_t i = 0; i < registry.count; ++i)
    if (std::strcmp(registry.types[i].name, name) == 0) return static_cast<int>(i);
  return -1;
}

const PhysicalType* ptype_lookup(const char* name) {
  int i = ptype_index(name);
  return i < 0 ? nullptr : &registry.types[i];
}

const PhysicalType* ptype_get(uint32_t index) {
  return index < registry.count ? &registry.types[index] : nullptr;
}

uint32_t ptype_count() { return registry.count; }

int ptype_width(const PhysicalType* descriptor) {
  switch (descriptor->width_class) {
    case 1:
    case 2:
      return 1;
    case 3:
      return 2;
    case 4:
      return 4;
    case 5:
      return 8;
    case 6:
      return 16;
    default:
      return 0;
  }
}

// One-byte integers use class 2: class 1 is a one-byte class whose values are not read as
// integers when printed.
void ptype_register_integers() {
  g_ptype_schr = add("schr", 2, 1, -128.0, 127.0);
  g_ptype_uchr = add("uchr", 2, 1, 0.0, 255.0);
  g_ptype_ssht = add("ssht", 3, 1, -32768.0, 32767.0);
  g_ptype_usht = add("usht", 3, 1, 0.0, 65535.0);
  g_ptype_sint = add("sint", 4, 1, -2147483648.0, 2147483647.0);
  g_ptype_uint = add("uint", 4, 1, 0.0, 4294967295.0);
  g_ptype_slng = add("slng", 5, 1, -9223372036854775808.0, 9223372036854775807.0);
  g_ptype_ulng = add("ulng", 5, 1, 0.0, 18446744073709551615.0);
  g_ptype_s128 = add("s128", 6, 1, -1.7014118346046923e38, 1.7014118346046923e38);
  g_ptype_uidx = add("uidx", 5, 1, 0.0, 18446744073709551615.0);
}

void ptype_register_floats() {
  g_ptype_flt = add("flt", 4, 0, -3.4028234663852886e38, 3.4028234663852886e38);
  g_ptype_dbl = add("dbl", 5, 0, -DBL_MAX, DBL_MAX);
}

// A string column stores one pointer per value to a terminated string.
void ptype_register_string() {
  PhysicalType d = ptype_new("str");
  d.width_class = 5;
  d.is_integer = 0;
  d.fixed_size = 0;
  d.by_reference = 1;
  d.min = -DBL_MAX;
  d.max = DBL_MAX;
  g_ptype_str = ptype_get(ptype_register(&d));
}

void ptype_register_pointer() { g_ptype_ptr = add("ptr", 5, 0, 0.0, 18446744073709551615.0); }
