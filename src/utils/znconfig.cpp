#include "utils/znconfig.h"

#include <cctype>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "utils/kest_assert.h"
#include "utils/mem.h"
#include "utils/znconfig_tables.h"
#include "utils/znlog.h"

namespace {

constexpr const char* kFacility = "ZNCONFIG";
constexpr const char* kUserFileName = "quillmarke.conf";

Property* create_group_list(MemContext* mem) {
  Property* list = nullptr;
  for (int gid = 1; gid < ZNCONFIG_GROUP_COUNT; ++gid) {
    list = property_create(mem, list, znconfig_group_names[gid], 1, PROP_TPE_LNG);
    list->val[0].lng = gid;
  }
  return list;
}

void register_defaults(ConfigLayer* defaults) {
  for (const ZnConfigDefault& row : znconfig_default_rows()) {
    const char* name = znconfig_property_names[row.pid];
    if (row.text) {
      // A broken default is a build fault, not a user error.
      KEST_ASSERT_TEXT(kFacility,
                       znconfig_set_from_string(defaults, name, row.gid, row.text, row.tpe),
                       "default value accepted");
    } else {
      znconfig_set(defaults, row.gid, name, property_slot_lng(0), row.tpe, 0);
    }
  }
}

// The uppermost node for (gid, pid) from `config` down, or null.
Property* lookup(ConfigLayer* config, int gid, int pid) {
  if (gid < 0 || gid >= ZNCONFIG_GROUP_COUNT || pid <= 0 || pid >= ZNCONFIG_PROPERTY_COUNT)
    return nullptr;
  const char* name = znconfig_property_names[pid];
  for (ConfigLayer* layer = config; layer; layer = layer->parent)
    if (Property* p = property_find(layer->props[gid], name)) return p;
  return nullptr;
}

const char* pid_name(int pid) {
  return pid > 0 && pid < ZNCONFIG_PROPERTY_COUNT ? znconfig_property_names[pid] : nullptr;
}

bool at_word_end(char c) { return c == '\0' || std::isspace(static_cast<unsigned char>(c)); }

const char* skip_space(const char* p) {
  while (*p && std::isspace(static_cast<unsigned char>(*p))) ++p;
  return p;
}

double suffix_factor(char c) {
  switch (std::toupper(static_cast<unsigned char>(c))) {
    case 'K':
      return 1024.0;
    case 'M':
      return 1048576.0;
    case 'G':
      return 1073741824.0;
    case 'T':
      return 1099511627776.0;
    default:
      return 0.0;
  }
}

int64_t to_int64(double v) {
  // Truncation; values beyond the range saturate rather than overflow.
  if (std::isnan(v)) return 0;
  if (v >= 9223372036854775807.0) return INT64_MAX;
  if (v <= -9223372036854775808.0) return INT64_MIN;
  return static_cast<int64_t>(v);
}

}  // namespace

ConfigSchema* znconfig_schema_create() {
  MemContext* mem = mem_context_create(nullptr, "znconfig");
  auto* schema = static_cast<ConfigSchema*>(mem_zalloc(mem, sizeof(ConfigSchema), 0));
  schema->mem = mem;
  schema->groups = create_group_list(mem);
  schema->names = znconfig_property_names;
  schema->rules = znconfig_rules;
  schema->rule_map = znconfig_rule_map.data();
  auto* defaults = static_cast<ConfigLayer*>(mem_zalloc(mem, sizeof(ConfigLayer), 0));
  defaults->mem = mem;
  defaults->schema = schema;
  defaults->name = mem_strdup(mem, "defaults");
  schema->defaults = defaults;
  register_defaults(defaults);
  return schema;
}

ConfigLayer* znconfig_layer_create(MemContext* mem, const char* name, ConfigLayer* parent) {
  KEST_ASSERT(kFacility, mem || parent);
  if (!mem) mem = parent->mem;
  auto* layer = static_cast<ConfigLayer*>(mem_zalloc(mem, sizeof(ConfigLayer), 0));
  layer->mem = mem;
  layer->schema = parent ? parent->schema : nullptr;
  layer->name = mem_strdup(mem, name);
  layer->parent = parent;
  return layer;
}

ConfigLayer* znconfig_create() {
  ConfigSchema* schema = znconfig_schema_create();
  ConfigLayer* user = znconfig_layer_create(nullptr, "kest_config", schema->defaults);
  ConfigLayer* conffile = znconfig_layer_create(nullptr, "conffile", user);
  ConfigLayer* cmdline = znconfig_layer_create(nullptr, "cmdline", conffile);
  if (const char* home = std::getenv("HOME")) {
    const std::string path = std::string(home) +
                             static_cast<char>(std::filesystem::path::preferred_separator) + '.' +
                             kUserFileName;
    znconfig_parse_config(user, path.c_str(), 1);
  }
  return cmdline;
}

void znconfig_free(ConfigLayer* layer) {
  if (layer) mem_context_destroy(layer->schema->mem);
}

ConfigLayer* znconfig_defaults(ConfigLayer* layer) {
  KEST_ASSERT(kFacility, layer);
  return layer->schema->defaults;
}

int znconfig_set(ConfigLayer* config, int gid, const char* name, PropertySlot value, uint32_t tpe,
                 int check) {
  KEST_ASSERT(kFacility, config);
  KEST_ASSERT(kFacility, gid >= 0 && gid < ZNCONFIG_GROUP_COUNT);
  if (check && !znconfig_validate(config, gid, name, value, tpe)) return 0;
  Property* p = property_find(config->props[gid], name);
  if (!p) {
    p = property_create(config->mem, config->props[gid], name, 1, tpe);
    config->props[gid] = p;
  }
  KEST_ASSERT(kFacility, p->tpe == tpe);
  p->val[0] = value;
  return 1;
}

int znconfig_set_from_string(ConfigLayer* config, const char* name, int gid, const char* text,
                             uint32_t tpe) {
  KEST_ASSERT(kFacility, config);
  PropertySlot value{.raw = 0};
  if (znconfig_parse(config->mem, text, tpe, &value) != 0) return 0;
  const int check = text && *text ? 1 : 0;
  return znconfig_set(config, gid, name, value, tpe, check);
}

int znconfig_set_by_id(ConfigLayer* config, int gid, int pid, const char* text) {
  KEST_ASSERT(kFacility, config);
  const char* name = pid_name(pid);
  if (!name) return 0;
  const uint32_t tpe = znconfig_property_type(config, gid, name);
  return znconfig_set_from_string(config, name, gid, text, tpe);
}

int znconfig_set_str(ConfigLayer* config, int gid, int pid, const char* text) {
  KEST_ASSERT(kFacility, config);
  const char* name = pid_name(pid);
  if (!name) return 0;
  return znconfig_set(config, gid, name, property_slot_str(text), PROP_TPE_STR, 1);
}

namespace {

// The value a typed getter reads, or null when the property is absent (logged, naming the
// getter). A property of another type breaks the getter's contract: the assertion reads
// `type_check`, the condition as the getter states it.
const Property* typed_property(ConfigLayer* config, int gid, int pid, const char* getter,
                               uint32_t type, const char* type_check) {
  const Property* prop = lookup(config, gid, pid);
  if (!prop) {
    ZN_LOG(kFacility, ZN_WARN, "%s: invalid property with gid = %d and pid = %d", getter, gid, pid);
    return nullptr;
  }
  KEST_ASSERT_TEXT(kFacility, prop->tpe == PROP_TPE_ANY || prop->tpe == type, type_check);
  return prop;
}

}  // namespace

int znconfig_get_bool(ConfigLayer* config, int gid, int pid) {
  const Property* prop = typed_property(config, gid, pid, "znconfig_get_bool", PROP_TPE_BOOL,
                                        "prop->tpe == PROP_TPE_ANY || prop->tpe == PROP_TPE_BOOL");
  return prop ? prop->val[0].bln : 0;
}

int64_t znconfig_get_lng(ConfigLayer* config, int gid, int pid) {
  const Property* prop = typed_property(config, gid, pid, "znconfig_get_lng", PROP_TPE_LNG,
                                        "prop->tpe == PROP_TPE_ANY || prop->tpe == PROP_TPE_LNG");
  return prop ? prop->val[0].lng : 0;
}

double znconfig_get_dbl(ConfigLayer* config, int gid, int pid) {
  const Property* prop = typed_property(config, gid, pid, "znconfig_get_dbl", PROP_TPE_DBL,
                                        "prop->tpe == PROP_TPE_ANY || prop->tpe == PROP_TPE_DBL");
  return prop ? prop->val[0].dbl : 0.0;
}

const char* znconfig_get_str(ConfigLayer* config, int gid, int pid) {
  const Property* prop = typed_property(config, gid, pid, "znconfig_get_str", PROP_TPE_STR,
                                        "prop->tpe == PROP_TPE_ANY || prop->tpe == PROP_TPE_STR");
  return prop ? prop->val[0].str : nullptr;
}

int znconfig_property_id(ConfigLayer* /*config*/, const char* name) {
  // From the top down: a name registered twice ("port") resolves to its higher id.
  for (int pid = ZNCONFIG_PROPERTY_COUNT - 1; pid > 0; --pid)
    if (std::strcmp(znconfig_property_names[pid], name) == 0) return pid;
  return 0;
}

uint32_t znconfig_property_type(ConfigLayer* config, int gid, const char* name) {
  if (gid < 0 || gid >= ZNCONFIG_GROUP_COUNT) return PROP_TPE_ANY;
  const Property* p = property_find(znconfig_defaults(config)->props[gid], name);
  return p ? p->tpe : PROP_TPE_ANY;
}

int znconfig_parse_bool(const char* text) {
  for (const char* word : {"true", "yes", "on"}) {
    if (std::strlen(text) != std::strlen(word)) continue;
    bool same = true;
    for (size_t i = 0; word[i] && same; ++i)
      same = std::tolower(static_cast<unsigned char>(text[i])) == word[i];
    if (same) return 1;
  }
  return std::strtol(text, nullptr, 10) != 0 ? 1 : 0;
}

int znconfig_parse_size(const char* text, int64_t* result) {
  char* end = nullptr;
  double v = std::strtod(text, &end);
  if (end == text) {
    ZN_LOG(kFacility, ZN_ERROR, "znconfig_parse_size: can't parse: '%s'\n", text);
    return -1;
  }
  const char* p = skip_space(end);
  if (const double factor = suffix_factor(*p); factor != 0.0) {
    const char after = p[1];
    const bool b_follows = after == 'B' || after == 'b';
    if (at_word_end(after) || b_follows) {
      v *= factor;
      p += b_follows ? 2 : 1;
    }
  }
  p = skip_space(p);
  if (*p != '\0') {
    ZN_LOG(kFacility, ZN_ERROR, "znconfig_parse_size: can't parse: '%s'\n", text);
    return -1;
  }
  *result = to_int64(v);
  return 0;
}

int znconfig_parse(MemContext* mem, const char* text, uint32_t tpe, PropertySlot* result) {
  if (!text || !*text) {
    *result = PropertySlot{.raw = 0};
    return 0;
  }
  switch (tpe) {
    case PROP_TPE_BOOL:
      *result = property_slot_bool(znconfig_parse_bool(text));
      return 0;
    case PROP_TPE_LNG: {
      int64_t v = 0;
      if (znconfig_parse_size(text, &v) != 0) return -1;
      *result = property_slot_lng(v);
      return 0;
    }
    case PROP_TPE_DBL: {
      char* end = nullptr;
      const double v = std::strtod(text, &end);
      if (end == text) return -1;
      *result = property_slot_dbl(v);
      return 0;
    }
    case PROP_TPE_STR:
      *result = property_slot_str(mem_strdup(mem, text));
      return 0;
    default:
      ZN_LOG(kFacility, ZN_WARN, "znconfig_parse: invalid PropertyType %d\n",
             static_cast<int>(tpe));
      *result = PropertySlot{.raw = 0};
      return -1;
  }
}

int znconfig_validate(ConfigLayer* config, int /*gid*/, const char* name, PropertySlot value,
                      uint32_t tpe) {
  KEST_ASSERT(kFacility, config);
  const int pid = znconfig_property_id(config, name);
  const uint32_t index = config->schema->rule_map[pid];
  if (index == 0) return 1;
  const ValidationRule& rule = config->schema->rules[index];
  if (rule.tpe != PROP_TPE_LNG && rule.tpe != PROP_TPE_DBL) return 0;
  if (tpe == PROP_TPE_LNG || tpe == PROP_TPE_DBL) {
    const double v = tpe == PROP_TPE_LNG ? static_cast<double>(value.lng) : value.dbl;
    const double min = rule.tpe == PROP_TPE_LNG ? static_cast<double>(rule.min.lng) : rule.min.dbl;
    const double max = rule.tpe == PROP_TPE_LNG ? static_cast<double>(rule.max.lng) : rule.max.dbl;
    if (!(v >= min && v <= max)) {
      ZN_LOG(kFacility, ZN_ERROR, "znconfig_validate: %lf not between %lf and %lf.", v, min, max);
      return 0;
    }
  }
  return rule.validator ? rule.validator(tpe, value) : 1;
}

int znconf_validate_power2(uint32_t tpe, PropertySlot value) {
  int64_t v = 0;
  if (tpe == PROP_TPE_LNG) {
    v = value.lng;
  } else if (tpe == PROP_TPE_DBL) {
    v = to_int64(value.dbl);
  } else {
    ZN_LOG(kFacility, ZN_ERROR, "znconf_validate_power2: unsupported property type");
    return 0;
  }
  if (v >= 0 && (v & (v - 1)) == 0) return 1;
  ZN_LOG(kFacility, ZN_ERROR, "znconf_validate_power2: %lld is not a power of two.",
         static_cast<long long>(v));
  return 0;
}
