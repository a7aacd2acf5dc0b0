#include "utils/property.h"

#include <cstddef>
#include <cstring>

#include "utils/kest_assert.h"
#include "utils/mem.h"

namespace {

constexpr const char* kFacility = "ZNCONFIG";

// The slot of `list`'s node `name` checked against the getter's type, or null when absent.
// The assertion texts name the getter's type, so each getter passes its own.
const PropertySlot* typed_slot(Property* list, const char* name, uint32_t pos, uint32_t tpe,
                               const char* type_text) {
  Property* prop = property_find(list, name);
  if (!prop) return nullptr;
  KEST_ASSERT_TEXT(kFacility, prop->tpe == PROP_TPE_ANY || prop->tpe == tpe, type_text);
  KEST_ASSERT_TEXT(kFacility, pos < prop->cnt, "pos < prop->cnt");
  return &prop->val[pos];
}

PropertySlot* writable_slot(Property* p, uint32_t pos, uint32_t tpe, const char* type_text) {
  KEST_ASSERT_TEXT(kFacility, p->tpe == PROP_TPE_ANY || p->tpe == tpe, type_text);
  KEST_ASSERT(kFacility, pos < p->cnt);
  return &p->val[pos];
}

}  // namespace

Property* property_create(MemContext* mem, Property* next, const char* name, uint32_t cnt,
                          uint32_t tpe) {
  const size_t slots = cnt == 0 ? 1 : cnt;
  const size_t size = offsetof(Property, val) + slots * sizeof(PropertySlot);
  auto* p = static_cast<Property*>(mem_zalloc(mem, size, 0));
  p->next = next;
  p->name = name;
  p->tpe = tpe;
  p->cnt = cnt;
  return p;
}

Property* property_find(Property* list, const char* name) {
  for (Property* p = list; p; p = p->next) {
    if (p->name == name) return p;
    // Most names differ in their first two characters; test those before the whole string.
    if (p->name[0] != name[0]) continue;
    if (name[0] != '\0' && p->name[1] != name[1]) continue;
    if (std::strcmp(p->name, name) == 0) return p;
  }
  return nullptr;
}

int property_get_bool(Property* list, const char* name, uint32_t pos, int dflt) {
  const PropertySlot* s = typed_slot(list, name, pos, PROP_TPE_BOOL,
                                     "prop->tpe == PROP_TPE_ANY || prop->tpe == PROP_TPE_BOOL");
  return s ? s->bln : dflt;
}

int64_t property_get_lng(Property* list, const char* name, uint32_t pos, int64_t dflt) {
  const PropertySlot* s = typed_slot(list, name, pos, PROP_TPE_LNG,
                                     "prop->tpe == PROP_TPE_ANY || prop->tpe == PROP_TPE_LNG");
  return s ? s->lng : dflt;
}

double property_get_dbl(Property* list, const char* name, uint32_t pos, double dflt) {
  const PropertySlot* s = typed_slot(list, name, pos, PROP_TPE_DBL,
                                     "prop->tpe == PROP_TPE_ANY || prop->tpe == PROP_TPE_DBL");
  return s ? s->dbl : dflt;
}

const char* property_get_str(Property* list, const char* name, uint32_t pos, const char* dflt) {
  const PropertySlot* s = typed_slot(list, name, pos, PROP_TPE_STR,
                                     "prop->tpe == PROP_TPE_ANY || prop->tpe == PROP_TPE_STR");
  return s ? s->str : dflt;
}

void* property_get_ptr(Property* list, const char* name, uint32_t pos, void* dflt) {
  const PropertySlot* s = typed_slot(list, name, pos, PROP_TPE_PTR,
                                     "prop->tpe == PROP_TPE_ANY || prop->tpe == PROP_TPE_PTR");
  return s ? s->ptr : dflt;
}

void* property_get_xn(Property* list, const char* name, uint32_t pos, void* dflt) {
  const PropertySlot* s = typed_slot(list, name, pos, PROP_TPE_XN,
                                     "prop->tpe == PROP_TPE_ANY || prop->tpe == PROP_TPE_XN");
  return s ? s->ptr : dflt;
}

void property_set_bool(Property* p, uint32_t pos, int value) {
  *writable_slot(p, pos, PROP_TPE_BOOL, "p->tpe == PROP_TPE_ANY || p->tpe == PROP_TPE_BOOL") =
      property_slot_bool(value);
}

void property_set_lng(Property* p, uint32_t pos, int64_t value) {
  writable_slot(p, pos, PROP_TPE_LNG, "p->tpe == PROP_TPE_ANY || p->tpe == PROP_TPE_LNG")->lng =
      value;
}

void property_set_dbl(Property* p, uint32_t pos, double value) {
  writable_slot(p, pos, PROP_TPE_DBL, "p->tpe == PROP_TPE_ANY || p->tpe == PROP_TPE_DBL")->dbl =
      value;
}

void property_set_str(Property* p, uint32_t pos, const char* value) {
  writable_slot(p, pos, PROP_TPE_STR, "p->tpe == PROP_TPE_ANY || p->tpe == PROP_TPE_STR")->str =
      value;
}

void property_set_ptr(Property* p, uint32_t pos, void* value) {
  writable_slot(p, pos, PROP_TPE_PTR, "p->tpe == PROP_TPE_ANY || p->tpe == PROP_TPE_PTR")->ptr =
      value;
}

void property_set_xn(Property* p, uint32_t pos, void* value) {
  writable_slot(p, pos, PROP_TPE_XN, "p->tpe == PROP_TPE_ANY || p->tpe == PROP_TPE_XN")->ptr =
      value;
}

Property* property_list_copy(MemContext* mem, Property* head, Property* tail) {
  Property* last = head;
  for (Property* q = head->next; q; q = q->next) {
    Property* copy = property_create(mem, nullptr, q->name, 1, q->tpe);
    copy->val[0] = q->val[0];
    last->next = copy;
    last = copy;
  }
  last->next = tail;
  return head;
}
