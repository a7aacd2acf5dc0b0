// Property lists: singly linked chains of named, typed value nodes, allocated from a memory
// context. The configuration store keeps one list per layer and group; the group table is a list
// too. Nodes are never freed one by one: they die with their memory context.
#pragma once

#include <cstdint>

struct MemContext;

// The type of a property's value slots. The names are part of the assertion texts.
enum PropertyType : uint32_t {
  PROP_TPE_ANY = 0,   // any; every typed getter accepts it
  PROP_TPE_BOOL = 1,  // 32-bit truth value (0 or 1) in the slot's low 32 bits
  PROP_TPE_LNG = 2,   // signed 64-bit integer
  PROP_TPE_DBL = 3,   // 64-bit float
  PROP_TPE_STR = 4,   // NUL-terminated string, not owned by the node
  PROP_TPE_PTR = 5,   // untyped pointer
  PROP_TPE_XN = 6,    // algebra node (engine use only)
};

// One 64-bit value slot. Which member is live follows the node's `tpe`; a truth value is the low
// 32 bits (`bln`), the rest of the slot is zero when it was written through property_slot_bool.
union PropertySlot {
  int64_t lng;
  double dbl;
  int32_t bln;
  const char* str;
  void* ptr;
  uint64_t raw;
};
static_assert(sizeof(PropertySlot) == 8);

constexpr PropertySlot property_slot_lng(int64_t v) { return PropertySlot{.lng = v}; }
constexpr PropertySlot property_slot_dbl(double v) { return PropertySlot{.dbl = v}; }
constexpr PropertySlot property_slot_str(const char* v) { return PropertySlot{.str = v}; }
constexpr PropertySlot property_slot_ptr(void* v) { return PropertySlot{.ptr = v}; }
inline PropertySlot property_slot_bool(int v) {
  PropertySlot s{.raw = 0};
  s.bln = v;
  return s;
}

// A list node. `val` has room for max(cnt, 1) slots; the node is allocated in one piece.
struct Property {
  Property* next;
  const char* name;  // not copied: must outlive the node
  uint32_t tpe;      // a PropertyType
  uint32_t cnt;      // number of value slots
  PropertySlot val[1];
};

// A new node in front of `next`, slots zeroed. `name` is kept as given.
Property* property_create(MemContext* mem, Property* next, const char* name, uint32_t cnt,
                          uint32_t tpe);

// The first node of the chain whose name equals `name` (a node holding the very same pointer
// matches at once), or null.
Property* property_find(Property* list, const char* name);

// Typed reads of slot `pos` of the node named `name`; `dflt` when the list has no such node.
// The node must be of the getter's type or PROP_TPE_ANY, and `pos` must be below its cnt, else an
// assertion fails.
int property_get_bool(Property* list, const char* name, uint32_t pos, int dflt);
int64_t property_get_lng(Property* list, const char* name, uint32_t pos, int64_t dflt);
double property_get_dbl(Property* list, const char* name, uint32_t pos, double dflt);
const char* property_get_str(Property* list, const char* name, uint32_t pos, const char* dflt);
void* property_get_ptr(Property* list, const char* name, uint32_t pos, void* dflt);
void* property_get_xn(Property* list, const char* name, uint32_t pos, void* dflt);

// Typed writes of slot `pos` of node `p`; the same type and position assertions apply.
void property_set_bool(Property* p, uint32_t pos, int value);
void property_set_lng(Property* p, uint32_t pos, int64_t value);
void property_set_dbl(Property* p, uint32_t pos, double value);
void property_set_str(Property* p, uint32_t pos, const char* value);
void property_set_ptr(Property* p, uint32_t pos, void* value);
void property_set_xn(Property* p, uint32_t pos, void* value);

// Replaces the nodes that follow `head` by fresh single-slot copies (name, type and slot 0) made
// in `mem`, and hangs `tail` behind the last copy (behind `head` when nothing follows it).
// The original following nodes are left untouched for whoever else links to them. Returns head.
Property* property_list_copy(MemContext* mem, Property* head, Property* tail);
