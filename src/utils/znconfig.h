// The configuration store: typed, named properties in groups, held in a chain of layers. A layer
// asked for a property it does not hold passes the question to its parent, down to the layer of
// built-in defaults. The store made by znconfig_create is, top to bottom, "cmdline", "conffile",
// "kest_config" (the per-user settings file) and "defaults". All of a store's memory lives in one
// memory context named "znconfig"; nothing is freed one by one. Logs under facility "ZNCONFIG".
#pragma once

#include <cstdint>

#include "utils/property.h"

struct MemContext;
struct ConfigLayer;

// Group ids (0 is never used).
enum ZnConfigGroup : int {
  ZNCONFIG_GROUP_DEFAULT = 1,
  ZNCONFIG_GROUP_SERVER = 2,
  ZNCONFIG_GROUP_CLIENT = 3,
  ZNCONFIG_GROUP_SYSTEM = 4,
  ZNCONFIG_GROUP_CBM = 5,
  ZNCONFIG_GROUP_MEMORY = 6,
  ZNCONFIG_GROUP_ENGINE = 7,
};
constexpr int ZNCONFIG_GROUP_COUNT = 8;  // list heads per layer, ids 0 to 7

// Property ids the client reads (group ZNCONFIG_GROUP_CLIENT).
enum ZnConfigClientProperty : int {
  ZNCONFIG_CLIENT_PORT = 18,                // LNG, default 48130, 0..65535
  ZNCONFIG_CLIENT_OUTPUT_MODE = 19,         // STR, default "ascii"
  ZNCONFIG_CLIENT_HOST = 20,                // STR, default "localhost"
  ZNCONFIG_CLIENT_CONNECTION_RETRIES = 21,  // LNG, default 3
  ZNCONFIG_CLIENT_PASSFILE = 22,            // STR, default null
  // The client's own settings, beyond the classic ones.
  ZNCONFIG_CLIENT_FORMAT = 123,   // STR, default null: the output format by its --format name
  ZNCONFIG_CLIENT_NULL = 124,     // STR, default null: how a null prints
  ZNCONFIG_CLIENT_TIMING = 125,   // BOOL, default false: wall time and rows after each query
  ZNCONFIG_CLIENT_QUIET = 126,    // BOOL, default false: the logger starts at warn level
  ZNCONFIG_CLIENT_TIMEOUT = 127,  // DBL, default 0: seconds without a byte from the server
                                  // before a query fails; 0 waits for ever
};
constexpr int ZNCONFIG_PROPERTY_COUNT = 128;  // ids 1 to 127 name a property; id 0 none
constexpr int ZNCONFIG_RULE_COUNT = 30;       // rule 0 is the empty "no rule" entry

// A range (and optionally a validator) for a numeric property. Bounds are integers for an LNG
// rule and floats for a DBL rule.
struct ValidationRule {
  uint32_t tpe;  // PROP_TPE_LNG or PROP_TPE_DBL
  PropertySlot min;
  PropertySlot max;
  int (*validator)(uint32_t tpe, PropertySlot value);  // optional; nonzero accepts
};

// Shared by all layers of one store.
struct ConfigSchema {
  MemContext* mem;              // "znconfig": owns the schema, every layer and every value
  Property* groups;             // one LNG node per group, named by the group name, slot 0 the id
  const char* const* names;     // ZNCONFIG_PROPERTY_COUNT entries, names[0] null
  const ValidationRule* rules;  // ZNCONFIG_RULE_COUNT entries
  const uint32_t* rule_map;     // property id -> rule index, 0 for none
  ConfigLayer* defaults;
};

struct ConfigLayer {
  MemContext* mem;
  ConfigSchema* schema;
  char* name;  // copied into mem
  Property* props[ZNCONFIG_GROUP_COUNT];
  ConfigLayer* parent;  // null for the defaults layer
};

// A new store; returns its "cmdline" layer. When HOME is set, HOME + the platform's path
// separator + ".quillmarke.conf" is parsed into the "kest_config" layer (a missing file is only
// logged at debug level).
ConfigLayer* znconfig_create();
// The memory context "znconfig", the group list, name table, rules and the filled defaults layer.
ConfigSchema* znconfig_schema_create();
// A layer on top of `parent` sharing its schema. A null `mem` takes the parent's context; both
// null is an assertion failure ("mem || parent").
ConfigLayer* znconfig_layer_create(MemContext* mem, const char* name, ConfigLayer* parent);
// Frees a whole store (every layer and value) given any of its layers. Every pointer obtained
// from the store, strings included, dies with it.
void znconfig_free(ConfigLayer* layer);

// The schema's defaults layer, so a program can change a default at run time.
ConfigLayer* znconfig_defaults(ConfigLayer* layer);

// Stores a raw value as `name` of group `gid` in this layer. With `check` nonzero the value is
// validated first; a refused value is not stored and 0 is returned. A node of the same name but
// another type fails the assertion "p->tpe == tpe"; a null layer fails "config". `name` is kept
// as given and must outlive the store. Returns 1 when stored.
int znconfig_set(ConfigLayer* config, int gid, const char* name, PropertySlot value, uint32_t tpe,
                 int check);
// Parses `text` as a `tpe` value (strings are copied into the store) and stores it, validated
// when the text is non-empty. 0 when the parse failed or the value was refused.
int znconfig_set_from_string(ConfigLayer* config, const char* name, int gid, const char* text,
                             uint32_t tpe);
// As znconfig_set_from_string for property id `pid`, with the type of its default.
int znconfig_set_by_id(ConfigLayer* config, int gid, int pid, const char* text);
// Stores the pointer `text` itself (no copy, validated): it must outlive the store.
int znconfig_set_str(ConfigLayer* config, int gid, int pid, const char* text);

// The value of property `pid` of group `gid` in the uppermost layer, from `config` down, that
// holds it. A node of another type (not PROP_TPE_ANY) is an assertion failure. Unknown or absent
// properties, and a null layer, log a warning and give 0 (0.0, null).
int znconfig_get_bool(ConfigLayer* config, int gid, int pid);
int64_t znconfig_get_lng(ConfigLayer* config, int gid, int pid);
double znconfig_get_dbl(ConfigLayer* config, int gid, int pid);
const char* znconfig_get_str(ConfigLayer* config, int gid, int pid);

// Property id of `name`, searched from the highest id down (so "port" gives 18); 0 when unknown.
int znconfig_property_id(ConfigLayer* config, const char* name);
// Type of `name` in group `gid` of the defaults layer; 0 (PROP_TPE_ANY) when absent.
uint32_t znconfig_property_type(ConfigLayer* config, int gid, const char* name);

// Text to value. Null or empty text gives 0 and succeeds. BOOL by znconfig_parse_bool, LNG by
// znconfig_parse_size, DBL by strtod (at least one character consumed, the rest ignored), STR as
// a copy in `mem`. Returns 0 on success, -1 on failure (logged; *result is then 0 for an unknown
// type and untouched otherwise).
int znconfig_parse(MemContext* mem, const char* text, uint32_t tpe, PropertySlot* result);
// 1 for "true", "yes", "on" (any case), else 1 when the text reads as a nonzero base-10 integer.
int znconfig_parse_bool(const char* text);
// A decimal number with an optional K, M, G or T suffix (powers of 1024, optional B, any case),
// white space allowed around the suffix, truncated to an integer. 0 on success, -1 (logged) when
// the text is not such a size.
int znconfig_parse_size(const char* text, int64_t* result);

// Checks `value` against the rule of `name`; nonzero accepts. A refusal is logged.
int znconfig_validate(ConfigLayer* config, int gid, const char* name, PropertySlot value,
                      uint32_t tpe);
// Accepts 0 and the positive powers of two (a DBL value is truncated first).
int znconf_validate_power2(uint32_t tpe, PropertySlot value);

// Parses settings text into `config`: a file path when `is_file` is nonzero, else the text
// itself. Returns 0 on a clean parse, the number of errors otherwise, or errno when the file
// cannot be opened.
int znconfig_parse_config(ConfigLayer* config, const char* source, int is_file);
