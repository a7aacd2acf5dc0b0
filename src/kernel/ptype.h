// The built-in physical types and the helpers that register them. The registry itself (at most 64
// descriptors, filled once at start) is reached through the ptype_* functions of ltype.h.
#pragma once

#include "kernel/ltype.h"

inline constexpr uint32_t PTYPE_MAX = 64;

// A descriptor ready to be filled: all zero except width_class, is_integer and fixed_size, which
// are all ones until the registering code sets them. `name` is cut to 63 characters.
PhysicalType ptype_new(const char* name);

// The registered descriptor of each built-in physical type; null until types_init has run.
extern const PhysicalType* g_ptype_schr;
extern const PhysicalType* g_ptype_uchr;
extern const PhysicalType* g_ptype_ssht;
extern const PhysicalType* g_ptype_usht;
extern const PhysicalType* g_ptype_sint;
extern const PhysicalType* g_ptype_uint;
extern const PhysicalType* g_ptype_slng;
extern const PhysicalType* g_ptype_ulng;
extern const PhysicalType* g_ptype_s128;
extern const PhysicalType* g_ptype_uidx;
extern const PhysicalType* g_ptype_flt;
extern const PhysicalType* g_ptype_dbl;
extern const PhysicalType* g_ptype_str;
extern const PhysicalType* g_ptype_ptr;

// Registration of the built-in families; types_init calls each once.
void ptype_register_integers();
void ptype_register_floats();
void ptype_register_string();
void ptype_register_pointer();
