// The configuration store's constant tables: property names by id, validation rules, the rule
// map, the groups and the defaults.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "utils/znconfig.h"

// Indexed by property id; entry 0 is null.
extern const char* const znconfig_property_names[ZNCONFIG_PROPERTY_COUNT];
extern const ValidationRule znconfig_rules[ZNCONFIG_RULE_COUNT];
extern const std::array<uint32_t, ZNCONFIG_PROPERTY_COUNT> znconfig_rule_map;

// Group names by id; entry 0 is null.
extern const char* const znconfig_group_names[ZNCONFIG_GROUP_COUNT];

// One registered property: its group, id, type and default text (null for none).
struct ZnConfigDefault {
  int gid;
  int pid;
  uint32_t tpe;
  const char* text;
};
// Every property, in id order.
std::span<const ZnConfigDefault> znconfig_default_rows();
