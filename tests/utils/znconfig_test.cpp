#include "utils/znconfig.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <string>

#include "utils/znconfig_parser.h"
#include "utils/znconfig_tables.h"

namespace {

using testing::HasSubstr;
using testing::Not;

constexpr int kClient = ZNCONFIG_GROUP_CLIENT;
constexpr int kServer = ZNCONFIG_GROUP_SERVER;

// The store as znconfig_create builds it, without the per-user file, so that the tests do not
// depend on the home directory of whoever runs them.
struct Store {
  ConfigLayer* cmdline;
  ConfigLayer* conffile;
  ConfigLayer* user;
  ConfigLayer* defaults;
  Store() {
    ConfigSchema* schema = znconfig_schema_create();
    defaults = schema->defaults;
    user = znconfig_layer_create(nullptr, "kest_config", defaults);
    conffile = znconfig_layer_create(nullptr, "conffile", user);
    cmdline = znconfig_layer_create(nullptr, "cmdline", conffile);
  }
  ~Store() { znconfig_free(cmdline); }
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;
};

// Runs `f` and returns what it wrote to standard error (the logger's default output).
template <typename F>
std::string logged(F&& f) {
  testing::internal::CaptureStderr();
  f();
  return testing::internal::GetCapturedStderr();
}

std::filesystem::path temp_file(const std::string& stem, const std::string& contents) {
  auto path = std::filesystem::temp_directory_path() /
              (stem + "_" + std::to_string(std::random_device{}()) + ".conf");
  std::ofstream(path, std::ios::binary) << contents;
  return path;
}

TEST(ZnConfigDefaults, ClientAndServerRowsHaveTheirTypesAndValues) {
  Store s;
  EXPECT_EQ(znconfig_get_lng(s.cmdline, kClient, ZNCONFIG_CLIENT_PORT), 48130);
  EXPECT_STREQ(znconfig_get_str(s.cmdline, kClient, ZNCONFIG_CLIENT_OUTPUT_MODE), "ascii");
  EXPECT_STREQ(znconfig_get_str(s.cmdline, kClient, ZNCONFIG_CLIENT_HOST), "localhost");
  EXPECT_EQ(znconfig_get_lng(s.cmdline, kClient, ZNCONFIG_CLIENT_CONNECTION_RETRIES), 3);
  EXPECT_EQ(znconfig_get_str(s.cmdline, kClient, ZNCONFIG_CLIENT_PASSFILE), nullptr);

  EXPECT_EQ(znconfig_get_bool(s.cmdline, kServer, 1), 0);
  EXPECT_EQ(znconfig_get_lng(s.cmdline, kServer, 3), 100 * 1048576);
  EXPECT_EQ(znconfig_get_lng(s.cmdline, kServer, 4), 1000);
  EXPECT_EQ(znconfig_get_lng(s.cmdline, kServer, 6), 48130);
  EXPECT_STREQ(znconfig_get_str(s.cmdline, kServer, 9), "default");
  EXPECT_STREQ(znconfig_get_str(s.cmdline, kServer, 11), "077");
  EXPECT_EQ(znconfig_get_lng(s.cmdline, kServer, 14), 1);
  EXPECT_STREQ(znconfig_get_str(s.cmdline, kServer, 15), "US");
  EXPECT_EQ(znconfig_get_lng(s.cmdline, kServer, 16), -1);
}

TEST(ZnConfigDefaults, EngineDefaults) {
  Store s;
  EXPECT_EQ(znconfig_get_lng(s.cmdline, ZNCONFIG_GROUP_SYSTEM, 48), 1024);  // vectorsize
  EXPECT_EQ(znconfig_get_lng(s.cmdline, ZNCONFIG_GROUP_SYSTEM, 47), 20);    // max_transactions
  EXPECT_EQ(znconfig_get_lng(s.cmdline, ZNCONFIG_GROUP_SYSTEM, 45), 1);     // num_cores
  EXPECT_DOUBLE_EQ(znconfig_get_dbl(s.cmdline, ZNCONFIG_GROUP_SYSTEM, 46), 0.25);
  EXPECT_EQ(znconfig_get_lng(s.cmdline, ZNCONFIG_GROUP_CBM, 70), 512 * 1024);  // block_size
  EXPECT_DOUBLE_EQ(znconfig_get_dbl(s.cmdline, ZNCONFIG_GROUP_MEMORY, 26), 0.15);
  EXPECT_EQ(znconfig_get_lng(s.cmdline, ZNCONFIG_GROUP_MEMORY, 39), int64_t{2} << 30);
  EXPECT_STREQ(znconfig_get_str(s.cmdline, ZNCONFIG_GROUP_ENGINE, 119), "AUTO");
  EXPECT_EQ(znconfig_get_lng(s.cmdline, ZNCONFIG_GROUP_SYSTEM, 59), 3);
  EXPECT_EQ(znconfig_get_lng(s.cmdline, ZNCONFIG_GROUP_ENGINE, 109), 1000);
}

TEST(ZnConfigDefaults, EveryIdIsRegisteredOnceInItsGroup) {
  Store s;
  // Group ranges by id: server 1-17, client 18-22, memory 23-44, system 45-65, cbm 66-88,
  // engine 89-122.
  auto group_of = [](int pid) {
    if (pid <= 17) return kServer;
    if (pid <= 22) return kClient;
    if (pid <= 44) return static_cast<int>(ZNCONFIG_GROUP_MEMORY);
    if (pid <= 65) return static_cast<int>(ZNCONFIG_GROUP_SYSTEM);
    if (pid <= 88) return static_cast<int>(ZNCONFIG_GROUP_CBM);
    return static_cast<int>(ZNCONFIG_GROUP_ENGINE);
  };
  size_t total = 0;
  for (int gid = 0; gid < ZNCONFIG_GROUP_COUNT; ++gid) {
    std::set<std::string> seen;
    for (Property* p = s.defaults->props[gid]; p; p = p->next) {
      EXPECT_TRUE(seen.insert(p->name).second) << p->name;
      ++total;
    }
  }
  EXPECT_EQ(total, 122u);
  for (int pid = 1; pid < ZNCONFIG_PROPERTY_COUNT; ++pid) {
    const char* name = znconfig_property_names[pid];
    EXPECT_NE(znconfig_property_type(s.cmdline, group_of(pid), name), PROP_TPE_ANY) << name;
    EXPECT_NE(property_find(s.defaults->props[group_of(pid)], name), nullptr) << name;
  }
  EXPECT_EQ(s.defaults->props[ZNCONFIG_GROUP_DEFAULT], nullptr);
}

TEST(ZnConfigDefaults, GroupListIsBuiltFrontFirst) {
  Store s;
  const char* expected[] = {"engine", "memory", "cbm", "system", "client", "server", "default"};
  int64_t id = 7;
  Property* g = s.cmdline->schema->groups;
  for (const char* name : expected) {
    ASSERT_NE(g, nullptr);
    EXPECT_STREQ(g->name, name);
    EXPECT_EQ(g->tpe, PROP_TPE_LNG);
    EXPECT_EQ(g->val[0].lng, id--);
    g = g->next;
  }
  EXPECT_EQ(g, nullptr);
}

TEST(ZnConfigNames, PropertyIdSearchesDownward) {
  Store s;
  struct Case {
    const char* name;
    int id;
  } cases[] = {
      {"port", 18},       {"profiling", 1}, {"passfile", 22}, {"drop_columns_eagerly", 122},
      {"vectorsize", 48}, {"nosuch", 0},    {"", 0},          {"Port", 0}};
  for (const Case& c : cases) EXPECT_EQ(znconfig_property_id(s.cmdline, c.name), c.id) << c.name;
  EXPECT_EQ(znconfig_property_type(s.cmdline, kClient, "port"), PROP_TPE_LNG);
  EXPECT_EQ(znconfig_property_type(s.cmdline, kClient, "host"), PROP_TPE_STR);
  EXPECT_EQ(znconfig_property_type(s.cmdline, kServer, "profiling"), PROP_TPE_BOOL);
  EXPECT_EQ(znconfig_property_type(s.cmdline, kClient, "profiling"), PROP_TPE_ANY);
}

TEST(ZnConfigRules, SizeRule) {
  struct Case {
    const char* text;
    bool ok;
    int64_t value;
  } cases[] = {
      {"0", true, 0},
      {"48130", true, 48130},
      {"-1", true, -1},
      {"1K", true, 1024},
      {"1k", true, 1024},
      {"1.5K", true, 1536},
      {"16MB", true, 16777216},
      {"16 m", true, 16777216},
      {"16mb ", true, 16777216},
      {"2G", true, int64_t{2} << 30},
      {"256T", true, int64_t{256} << 40},
      {" 7 ", true, 7},
      {"1e3", true, 1000},
      {"2.9", true, 2},  // truncated
      {"-2.9", true, -2},
      {"10Kx", false, 0},
      {"10KBB", false, 0},
      {"10 K B", false, 0},
      {"10X", false, 0},
      {"abc", false, 0},
      {"", false, 0},
      {"K", false, 0},
      {"5 5", false, 0},
  };
  for (const Case& c : cases) {
    int64_t v = 12345;
    std::string log =
        logged([&] { EXPECT_EQ(znconfig_parse_size(c.text, &v) == 0, c.ok) << c.text; });
    if (c.ok) {
      EXPECT_EQ(v, c.value) << c.text;
      EXPECT_EQ(log, "") << c.text;
    } else {
      EXPECT_EQ(v, 12345) << c.text;
      EXPECT_THAT(log, HasSubstr("ERROR:ZNCONFIG:znconfig_parse_size: can't parse: '" +
                                 std::string(c.text) + "'"));
    }
  }
}

TEST(ZnConfigRules, BooleanRule) {
  struct Case {
    const char* text;
    int value;
  } cases[] = {{"true", 1}, {"TRUE", 1},  {"Yes", 1},   {"on", 1},    {"ON", 1},   {"1", 1},
               {"-3", 1},   {"42abc", 1}, {"false", 0}, {"off", 0},   {"no", 0},   {"0", 0},
               {"", 0},     {"maybe", 0}, {"tru", 0},   {"true!", 0}, {"yess", 0}, {" on", 0}};
  for (const Case& c : cases) EXPECT_EQ(znconfig_parse_bool(c.text), c.value) << c.text;
}

TEST(ZnConfigParse, TypesAndEmptyText) {
  Store s;
  MemContext* mem = s.cmdline->mem;
  PropertySlot v{.raw = 99};
  EXPECT_EQ(znconfig_parse(mem, nullptr, PROP_TPE_LNG, &v), 0);
  EXPECT_EQ(v.raw, 0u);
  v.raw = 99;
  EXPECT_EQ(znconfig_parse(mem, "", PROP_TPE_STR, &v), 0);
  EXPECT_EQ(v.str, nullptr);
  EXPECT_EQ(znconfig_parse(mem, "0.5abc", PROP_TPE_DBL, &v), 0);  // trailing text ignored
  EXPECT_EQ(v.dbl, 0.5);
  EXPECT_EQ(znconfig_parse(mem, "abc", PROP_TPE_DBL, &v), -1);
  EXPECT_EQ(znconfig_parse(mem, "yes", PROP_TPE_BOOL, &v), 0);
  EXPECT_EQ(v.bln, 1);
  const char text[] = "copied";
  EXPECT_EQ(znconfig_parse(mem, text, PROP_TPE_STR, &v), 0);
  EXPECT_STREQ(v.str, "copied");
  EXPECT_NE(v.str, text);
  std::string log = logged([&] { EXPECT_EQ(znconfig_parse(mem, "1", PROP_TPE_PTR, &v), -1); });
  EXPECT_EQ(v.raw, 0u);
  EXPECT_THAT(log, HasSubstr("WARN:ZNCONFIG:znconfig_parse: invalid PropertyType 5"));
}

TEST(ZnConfigLayers, UppermostLayerAnswersAndLowerValuesStay) {
  Store s;
  ASSERT_EQ(znconfig_set_by_id(s.user, kClient, ZNCONFIG_CLIENT_PORT, "1000"), 1);
  ASSERT_EQ(znconfig_set_by_id(s.conffile, kClient, ZNCONFIG_CLIENT_PORT, "2000"), 1);
  EXPECT_EQ(znconfig_get_lng(s.cmdline, kClient, ZNCONFIG_CLIENT_PORT), 2000);
  ASSERT_EQ(znconfig_set_by_id(s.cmdline, kClient, ZNCONFIG_CLIENT_PORT, "3000"), 1);
  EXPECT_EQ(znconfig_get_lng(s.cmdline, kClient, ZNCONFIG_CLIENT_PORT), 3000);
  EXPECT_EQ(znconfig_get_lng(s.conffile, kClient, ZNCONFIG_CLIENT_PORT), 2000);
  EXPECT_EQ(znconfig_get_lng(s.user, kClient, ZNCONFIG_CLIENT_PORT), 1000);
  EXPECT_EQ(znconfig_get_lng(s.defaults, kClient, ZNCONFIG_CLIENT_PORT), 48130);
  // The server's port is another property of the same name.
  EXPECT_EQ(znconfig_get_lng(s.cmdline, kServer, 6), 48130);
  // A default changed at run time shows through every layer that does not hold the property.
  znconfig_set_str(znconfig_defaults(s.cmdline), kClient, ZNCONFIG_CLIENT_OUTPUT_MODE, "unicode");
  EXPECT_STREQ(znconfig_get_str(s.cmdline, kClient, ZNCONFIG_CLIENT_OUTPUT_MODE), "unicode");
}

TEST(ZnConfigLayers, SetStrKeepsThePointerAndOverwritesInPlace) {
  Store s;
  static const char first[] = "db1";
  static const char second[] = "db2";
  ASSERT_EQ(znconfig_set_str(s.cmdline, kClient, ZNCONFIG_CLIENT_HOST, first), 1);
  EXPECT_EQ(znconfig_get_str(s.cmdline, kClient, ZNCONFIG_CLIENT_HOST), first);
  Property* node = s.cmdline->props[kClient];
  ASSERT_EQ(znconfig_set_str(s.cmdline, kClient, ZNCONFIG_CLIENT_HOST, second), 1);
  EXPECT_EQ(s.cmdline->props[kClient], node);  // the same node, no second one in front
  EXPECT_EQ(node->next, nullptr);
  EXPECT_EQ(znconfig_get_str(s.cmdline, kClient, ZNCONFIG_CLIENT_HOST), second);
}

TEST(ZnConfigLayers, GettersWarnForPropertiesNoLayerHolds) {
  Store s;
  struct Case {
    int gid, pid;
    const char* getter;
  } cases[] = {{kClient, 5, "str"},   {kServer, 20, "str"}, {kClient, 0, "bool"},
               {kClient, 123, "dbl"}, {9, 18, "lng"},       {-1, 18, "str"}};
  for (const Case& c : cases) {
    std::string log = logged([&] {
      const std::string g = c.getter;
      if (g == "str") {
        EXPECT_EQ(znconfig_get_str(s.cmdline, c.gid, c.pid), nullptr);
      }
      if (g == "lng") {
        EXPECT_EQ(znconfig_get_lng(s.cmdline, c.gid, c.pid), 0);
      }
      if (g == "bool") {
        EXPECT_EQ(znconfig_get_bool(s.cmdline, c.gid, c.pid), 0);
      }
      if (g == "dbl") {
        EXPECT_EQ(znconfig_get_dbl(s.cmdline, c.gid, c.pid), 0.0);
      }
    });
    EXPECT_THAT(log, HasSubstr("WARN:ZNCONFIG:znconfig_get_" + std::string(c.getter) +
                               ": invalid property with gid = " + std::to_string(c.gid) +
                               " and pid = " + std::to_string(c.pid)));
  }
  std::string log = logged([] { EXPECT_EQ(znconfig_get_lng(nullptr, kClient, 18), 0); });
  EXPECT_THAT(log, HasSubstr("znconfig_get_lng: invalid property with gid = 3 and pid = 18"));
}

TEST(ZnConfigSet, OptionTextsForPortAndRetries) {
  struct Case {
    int pid;
    const char* text;
    int stored;
    int64_t after;
    const char* log;  // expected fragment, or "" for a silent set
  } cases[] = {
      {ZNCONFIG_CLIENT_PORT, "5000", 1, 5000, ""},
      {ZNCONFIG_CLIENT_PORT, "1K", 1, 1024, ""},
      {ZNCONFIG_CLIENT_PORT, "0", 1, 0, ""},
      {ZNCONFIG_CLIENT_PORT, "65535", 1, 65535, ""},
      {ZNCONFIG_CLIENT_PORT, "", 1, 0, ""},  // empty text: 0, not validated
      {ZNCONFIG_CLIENT_PORT, "70000", 0, 48130,
       "ERROR:ZNCONFIG:znconfig_validate: 70000.000000 not between 0.000000 and 65535.000000."},
      {ZNCONFIG_CLIENT_PORT, "-1", 0, 48130,
       "znconfig_validate: -1.000000 not between 0.000000 and 65535.000000."},
      {ZNCONFIG_CLIENT_PORT, "64K", 0, 48130,
       "znconfig_validate: 65536.000000 not between 0.000000 and 65535.000000."},
      {ZNCONFIG_CLIENT_PORT, "http", 0, 48130, "znconfig_parse_size: can't parse: 'http'"},
      {ZNCONFIG_CLIENT_CONNECTION_RETRIES, "2k", 1, 2048, ""},
      {ZNCONFIG_CLIENT_CONNECTION_RETRIES, "abc", 0, 3, "can't parse: 'abc'"},
      {ZNCONFIG_CLIENT_CONNECTION_RETRIES, "-5", 1, -5, ""},  // no rule covers retries
  };
  for (const Case& c : cases) {
    Store s;
    std::string log =
        logged([&] { EXPECT_EQ(znconfig_set_by_id(s.cmdline, kClient, c.pid, c.text), c.stored); });
    EXPECT_EQ(znconfig_get_lng(s.cmdline, kClient, c.pid), c.after) << c.text;
    if (*c.log) {
      EXPECT_THAT(log, HasSubstr(c.log)) << c.text;
    } else {
      EXPECT_EQ(log, "") << c.text;
    }
  }
}

TEST(ZnConfigValidate, RangesAndPowerOfTwo) {
  Store s;
  struct Case {
    int gid;
    const char* name;
    const char* text;
    int stored;
    const char* log;
  } cases[] = {
      {ZNCONFIG_GROUP_MEMORY, "large_allocation_limit", "1.5", 0,
       "znconfig_validate: 1.500000 not between 0.000100 and 1.000000."},
      {ZNCONFIG_GROUP_MEMORY, "large_allocation_limit", "0.0001", 1, ""},
      {ZNCONFIG_GROUP_CBM, "io_prefetch_blocks", "0", 1, ""},
      {ZNCONFIG_GROUP_CBM, "io_prefetch_blocks", "512", 1, ""},
      {ZNCONFIG_GROUP_CBM, "io_prefetch_blocks", "1K", 1, ""},
      {ZNCONFIG_GROUP_CBM, "io_prefetch_blocks", "3", 0,
       "ERROR:ZNCONFIG:znconf_validate_power2: 3 is not a power of two."},
      {ZNCONFIG_GROUP_CBM, "io_prefetch_blocks", "2K", 0,
       "znconfig_validate: 2048.000000 not between 0.000000 and 1024.000000."},
      {ZNCONFIG_GROUP_CBM, "block_size", "1M", 1, ""},
      {ZNCONFIG_GROUP_CBM, "block_size", "96K", 0, "98304 is not a power of two."},
      {ZNCONFIG_GROUP_CBM, "group_size", "0", 0,
       "znconfig_validate: 0.000000 not between 1.000000 and 128.000000."},
      {ZNCONFIG_GROUP_ENGINE, "max_update_parallelism_level", "-1", 1, ""},
      {ZNCONFIG_GROUP_ENGINE, "max_update_parallelism_level", "-2", 0,
       "-2.000000 not between -1.000000 and 256.000000."},
      {ZNCONFIG_GROUP_MEMORY, "max_memory_size", "256T", 1, ""},
      {ZNCONFIG_GROUP_MEMORY, "max_memory_size", "31M", 0,
       "32505856.000000 not between 33554432.000000 and 281474976710656.000000."},
  };
  for (const Case& c : cases) {
    const uint32_t tpe = znconfig_property_type(s.cmdline, c.gid, c.name);
    const char* name = znconfig_property_names[znconfig_property_id(s.cmdline, c.name)];
    std::string log = logged([&] {
      EXPECT_EQ(znconfig_set_from_string(s.cmdline, name, c.gid, c.text, tpe), c.stored)
          << c.name << " " << c.text;
    });
    if (*c.log) {
      EXPECT_THAT(log, HasSubstr(c.log)) << c.name << " " << c.text;
    } else {
      EXPECT_EQ(log, "") << c.name << " " << c.text;
    }
  }
}

TEST(ZnConfigValidate, PowerOfTwoValidatorDirectly) {
  EXPECT_EQ(znconf_validate_power2(PROP_TPE_LNG, property_slot_lng(0)), 1);
  EXPECT_EQ(znconf_validate_power2(PROP_TPE_LNG, property_slot_lng(int64_t{1} << 62)), 1);
  EXPECT_EQ(znconf_validate_power2(PROP_TPE_DBL, property_slot_dbl(64.9)), 1);  // truncated
  std::string log = logged([] {
    EXPECT_EQ(znconf_validate_power2(PROP_TPE_LNG, property_slot_lng(-4)), 0);
    EXPECT_EQ(znconf_validate_power2(PROP_TPE_STR, property_slot_str("4")), 0);
  });
  EXPECT_THAT(log, HasSubstr("znconf_validate_power2: -4 is not a power of two."));
  EXPECT_THAT(log, HasSubstr("znconf_validate_power2: unsupported property type"));
}

using ZnConfigDeathTest = testing::Test;

TEST_F(ZnConfigDeathTest, ProgrammingErrorsAbortWithTheirConditionText) {
  Store s;
  EXPECT_DEATH(znconfig_get_str(s.cmdline, kClient, ZNCONFIG_CLIENT_PORT),
               "assertion \"prop->tpe == PROP_TPE_ANY \\|\\| prop->tpe == PROP_TPE_STR\"");
  EXPECT_DEATH(znconfig_get_lng(s.cmdline, kClient, ZNCONFIG_CLIENT_HOST),
               "assertion \"prop->tpe == PROP_TPE_ANY \\|\\| prop->tpe == PROP_TPE_LNG\"");
  EXPECT_DEATH(znconfig_get_dbl(s.cmdline, kServer, 1),
               "assertion \"prop->tpe == PROP_TPE_ANY \\|\\| prop->tpe == PROP_TPE_DBL\"");
  EXPECT_DEATH(znconfig_get_bool(s.cmdline, kServer, 3),
               "assertion \"prop->tpe == PROP_TPE_ANY \\|\\| prop->tpe == PROP_TPE_BOOL\"");
  EXPECT_DEATH(znconfig_set_str(s.defaults, kClient, ZNCONFIG_CLIENT_PORT, "x"),
               "assertion \"p->tpe == tpe\" failed");
  EXPECT_DEATH(znconfig_set(nullptr, kClient, "port", property_slot_lng(1), PROP_TPE_LNG, 0),
               "assertion \"config\" failed");
  EXPECT_DEATH(znconfig_layer_create(nullptr, "x", nullptr), "assertion \"mem \\|\\| parent\"");
}

// ---- Settings text -----------------------------------------------------------------------------

struct ParseResult {
  int errors;
  std::string log;
};

ParseResult parse_text(Store& s, const std::string& text) {
  ParseResult r{};
  r.log = logged([&] { r.errors = znconfig_parse_config(s.conffile, text.c_str(), 0); });
  return r;
}

int64_t port(Store& s) { return znconfig_get_lng(s.cmdline, kClient, ZNCONFIG_CLIENT_PORT); }
std::string host(Store& s) {
  const char* h = znconfig_get_str(s.cmdline, kClient, ZNCONFIG_CLIENT_HOST);
  return h ? h : "(null)";
}

TEST(ZnConfigFile, AcceptedForms) {
  struct Case {
    const char* text;
    int64_t port;
    const char* host;
  } cases[] = {
      {"client/port = 5000\nhost = db1\n", 5000, "db1"},
      {"[client]\nport=1\nhost=h\n", 1, "h"},
      {"[client], port = 1", 1, "localhost"},
      {"# comment\n\n[client] # the client\r\n  port = 7 # seven\n\thost\t=\tx\n", 7, "x"},
      {"[client]\nhost = \"my host\"\n", 48130, "my host"},
      {"[client]\nhost = a\\b\n", 48130, "a\\b"},
      {"[client]\nhost = data/x/y\n", 48130, "data/x/y"},
      {"[server]\nport = 1\nclient/port = 2\nport = 3\n", 3, "localhost"},
      {"[client]\nport = 2k\n", 2048, "localhost"},
      {"[client]\nport = 9\nport = 10", 10, "localhost"},  // last value wins, no final EOL
      {"", 48130, "localhost"},
  };
  for (const Case& c : cases) {
    Store s;
    ParseResult r = parse_text(s, c.text);
    EXPECT_EQ(r.errors, 0) << c.text << "\n" << r.log;
    EXPECT_EQ(port(s), c.port) << c.text;
    EXPECT_EQ(host(s), c.host) << c.text;
    EXPECT_EQ(znconfig_get_lng(s.cmdline, kServer, 6), c.port == 3 ? 1 : 48130) << c.text;
  }
}

TEST(ZnConfigFile, ErrorsAreLoggedCountedAndParsingGoesOn) {
  struct Case {
    const char* text;
    int errors;
    const char* log;
    int64_t port;  // after the whole text
  } cases[] = {
      {"host = db1\n[client]\nport = 5\n", 1,
       "WARN:ZNCONFIG:znconfig_parse_config: key 'host' on line 1 while not in any group", 5},
      {"[nosuch]\nport = 1\n[client]\nport = 2\n", 2,
       "znconfig_parse_config: invalid group 'nosuch' on line 1", 2},
      {"[nosuch]\nport = 1\n", 2, "znconfig_parse_config: invalid key 'port' on line 2", 48130},
      {"[client]\nportx = 1\nport = 4\n", 1, "invalid key 'portx' on line 2", 4},
      {"a/b = c\n", 2, "invalid group 'a' on line 1", 48130},
      {"[client]\nport =\nport = 6\n", 1, "znconfig_parse_config: unexpected EOL on line 2", 6},
      {"[client]\nport =\n", 1,
       "found token 12 on line 2 while expecting 10, skipping rest of line", 48130},
      {"[client]\nport = ", 1, "znconfig_parse_config: unexpected end of config", 48130},
      {"[client", 1, "unexpected end of config", 48130},
      {"[client]\nhost = \"open\n", 2, "znconfig_parser_next: EOF while in string", 48130},
      {"[client]\nhost = \"open", 2, "znconfig_parse_config: unimplemented token 0", 48130},
  };
  for (const Case& c : cases) {
    Store s;
    ParseResult r = parse_text(s, c.text);
    EXPECT_EQ(r.errors, c.errors) << c.text << "\n" << r.log;
    EXPECT_THAT(r.log, HasSubstr(c.log)) << c.text;
    EXPECT_EQ(port(s), c.port) << c.text;
  }
}

TEST(ZnConfigFile, MismatchesSkipTheLineWithoutCounting) {
  struct Case {
    const char* text;
    const char* log;
    int64_t port;
  } cases[] = {
      {"[client]\nport = 1 2\nhost = h\n",
       "found token 10 on line 2 while expecting 12, skipping rest of line", 1},
      {"[client]\n= 5\nport = 3\n", "found token 1 on line 2 while expecting 0", 3},
      {"[client]\nport port = 5\n", "found token 10 on line 2 while expecting 1", 48130},
      {"[client] x\nport = 8\n", "found token 10 on line 1 while expecting 12", 8},
      {"client/port/x = 1\n", "found token 4 on line 1 while expecting 1", 48130},
      {"]\n[client]\nport=2,port=3,]\n", "found token 3 on line 1 while expecting 0", 3},
  };
  for (const Case& c : cases) {
    Store s;
    ParseResult r = parse_text(s, c.text);
    EXPECT_EQ(r.errors, 0) << c.text << "\n" << r.log;
    EXPECT_THAT(r.log, HasSubstr(c.log)) << c.text;
    EXPECT_EQ(port(s), c.port) << c.text;
  }
}

TEST(ZnConfigFile, RefusedValueIsReportedButNotCounted) {
  Store s;
  ParseResult r = parse_text(s, "[client]\nport = 70000\n");
  EXPECT_EQ(r.errors, 0);
  EXPECT_THAT(r.log, HasSubstr("znconfig_validate: 70000.000000 not between 0.000000 and "
                               "65535.000000."));
  EXPECT_THAT(r.log, HasSubstr("znconfig_parse_config: '70000' is an invalid value for key "
                               "'port' in group 'client'."));
  EXPECT_EQ(port(s), 48130);
}

TEST(ZnConfigFile, WordLimitIsFourThousandCharacters) {
  Store s;
  const std::string fits(4000, 'h');
  ParseResult ok = parse_text(s, "[client]\nhost = " + fits + "\n");
  EXPECT_EQ(ok.errors, 0) << ok.log;
  EXPECT_EQ(host(s), fits);

  Store t;
  ParseResult bad = parse_text(t, "[client]\nhost = \"" + fits + "x\"\nport = 5\n");
  EXPECT_THAT(bad.log, HasSubstr("WARN:ZNCONFIG:znconfig_add_char: string longer than buffer "
                                 "(4000 bytes)"));
  EXPECT_GE(bad.errors, 1);
  EXPECT_EQ(host(t), "localhost");
}

TEST(ZnConfigFile, ScannerTokenNumbers) {
  ZnConfigScanner sc;
  ASSERT_EQ(znconfig_parser_init(&sc, "[g] a/b = \"q w\" # c\n x,y\t\r", 0), 0);
  const int expected[] = {ZNCONFIG_TOKEN_LBRACKET, ZNCONFIG_TOKEN_WORD,  ZNCONFIG_TOKEN_RBRACKET,
                          ZNCONFIG_TOKEN_WORD,     ZNCONFIG_TOKEN_SLASH, ZNCONFIG_TOKEN_WORD,
                          ZNCONFIG_TOKEN_EQUAL,    ZNCONFIG_TOKEN_WORD,  ZNCONFIG_TOKEN_COMMENT,
                          ZNCONFIG_TOKEN_EOL,      ZNCONFIG_TOKEN_WORD,  ZNCONFIG_TOKEN_EOL,
                          ZNCONFIG_TOKEN_WORD,     ZNCONFIG_TOKEN_EOF,   ZNCONFIG_TOKEN_EOF};
  const char* words[] = {"", "g", "", "a", "", "b", "", "q w", "", "", "x", "", "y", "", ""};
  for (size_t i = 0; i < std::size(expected); ++i) {
    EXPECT_EQ(znconfig_parser_next(&sc, false), expected[i]) << i;
    EXPECT_STREQ(sc.word, words[i]) << i;
  }
  ZnConfigScanner value;
  ASSERT_EQ(znconfig_parser_init(&value, "a/b/c d", 0), 0);
  EXPECT_EQ(znconfig_parser_next(&value, true), ZNCONFIG_TOKEN_WORD);
  EXPECT_STREQ(value.word, "a/b/c");
  EXPECT_EQ(ZNCONFIG_TOKEN_ERROR, 0);
  EXPECT_EQ(ZNCONFIG_TOKEN_EOL, 12);
  EXPECT_EQ(ZNCONFIG_TOKEN_EOF, 13);
}

TEST(ZnConfigFile, MissingFileReturnsErrno) {
  Store s;
  const auto path = std::filesystem::temp_directory_path() / "kest_no_such_dir" / "x.conf";
  EXPECT_EQ(znconfig_parse_config(s.conffile, path.string().c_str(), 1), ENOENT);
  EXPECT_EQ(port(s), 48130);
}

TEST(ZnConfigFile, FileAcrossManyBlocks) {
  // Lines that straddle the 4000-byte block boundaries, a long value among them.
  std::string text = "# settings\n[client]\n";
  for (int i = 1; i <= 900; ++i) text += "port = " + std::to_string(i) + "\n";
  text += "host = " + std::string(3999, 'q') + "\n";
  text += "server/dbname = last\n";
  const auto path = temp_file("kest_blocks", text);
  Store s;
  ParseResult r;
  r.log = logged([&] { r.errors = znconfig_parse_config(s.conffile, path.string().c_str(), 1); });
  std::filesystem::remove(path);
  EXPECT_EQ(r.errors, 0) << r.log;
  EXPECT_THAT(r.log, HasSubstr("Reading configuration from '" + path.string() + "'"));
  EXPECT_EQ(port(s), 900);
  EXPECT_EQ(host(s), std::string(3999, 'q'));
  EXPECT_STREQ(znconfig_get_str(s.cmdline, kServer, 8), "last");
}

TEST(ZnConfigFile, RandomBytesNeverCrashTheStore) {
  const unsigned seed = std::random_device{}();
  std::printf("random settings files, seed %u\n", seed);
  std::mt19937 rng(seed);
  // Bytes biased towards the characters the scanner treats specially.
  const std::string special = "[]=/,#\"\n \t\rclient port host server";
  for (int round = 0; round < 60; ++round) {
    std::string bytes(rng() % 12000, '\0');
    for (char& b : bytes)
      b = rng() % 3 == 0 ? special[rng() % special.size()] : static_cast<char>(rng() % 256);
    const auto path = temp_file("kest_random", bytes);
    Store s;
    int errors = -1;
    logged([&] { errors = znconfig_parse_config(s.conffile, path.string().c_str(), 1); });
    std::filesystem::remove(path);
    EXPECT_GE(errors, 0) << "seed " << seed << " round " << round;
    // The store still answers with typed values.
    const int64_t p = port(s);
    EXPECT_TRUE(p >= 0 && p <= 65535) << "seed " << seed;
  }
}

}  // namespace
