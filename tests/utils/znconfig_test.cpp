#include "utils/znconfig.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
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

// The log holds `fragment`; an empty fragment asks for a silent log.
testing::Matcher<std::string> LogHas(const char* fragment) {
  if (*fragment) return HasSubstr(fragment);
  return testing::IsEmpty();
}

std::filesystem::path temp_file(const std::string& stem, const std::string& contents) {
  auto path = std::filesystem::temp_directory_path() /
              (stem + "_" + std::to_string(std::random_device{}()) + ".conf");
  std::ofstream(path, std::ios::binary) << contents;
  return path;
}

TEST(ZnConfigDefaults, ClientRowsAndARepresentativeOfEachType) {
  Store s;
  EXPECT_EQ(znconfig_get_lng(s.cmdline, kClient, ZNCONFIG_CLIENT_PORT), 48130);
  EXPECT_STREQ(znconfig_get_str(s.cmdline, kClient, ZNCONFIG_CLIENT_OUTPUT_MODE), "ascii");
  EXPECT_STREQ(znconfig_get_str(s.cmdline, kClient, ZNCONFIG_CLIENT_HOST), "localhost");
  EXPECT_EQ(znconfig_get_lng(s.cmdline, kClient, ZNCONFIG_CLIENT_CONNECTION_RETRIES), 3);
  EXPECT_EQ(znconfig_get_str(s.cmdline, kClient, ZNCONFIG_CLIENT_PASSFILE), nullptr);
  EXPECT_EQ(znconfig_get_bool(s.cmdline, kServer, 1), 0);
  EXPECT_EQ(znconfig_get_lng(s.cmdline, kServer, 3), 100 * 1048576);
  EXPECT_EQ(znconfig_get_lng(s.cmdline, kServer, 16), -1);
  EXPECT_DOUBLE_EQ(znconfig_get_dbl(s.cmdline, ZNCONFIG_GROUP_MEMORY, 26), 0.15);
  EXPECT_EQ(znconfig_get_lng(s.cmdline, ZNCONFIG_GROUP_MEMORY, 39), int64_t{2} << 30);
  EXPECT_STREQ(znconfig_get_str(s.cmdline, ZNCONFIG_GROUP_ENGINE, 119), "AUTO");
}

TEST(ZnConfigNames, PropertyIdAndType) {
  Store s;
  struct Case {
    const char* name;
    int id;
  } cases[] = {{"port", 18},       {"profiling", 1}, {"drop_columns_eagerly", 122},
               {"vectorsize", 48}, {"nosuch", 0},    {"", 0},
               {"Port", 0}};
  for (const Case& c : cases) EXPECT_EQ(znconfig_property_id(s.cmdline, c.name), c.id) << c.name;
  EXPECT_EQ(znconfig_property_type(s.cmdline, kClient, "host"), PROP_TPE_STR);
  EXPECT_EQ(znconfig_property_type(s.cmdline, kServer, "profiling"), PROP_TPE_BOOL);
  EXPECT_EQ(znconfig_property_type(s.cmdline, kClient, "profiling"), PROP_TPE_ANY);
}

TEST(ZnConfigRules, SizeRule) {
  constexpr int64_t kRefused = 12345;  // the untouched output
  struct Case {
    const char* text;
    int64_t value;
  } cases[] = {{"48130", 48130},  {"-1", -1},          {"1k", 1024},         {"1.5K", 1536},
               {"16 m", 1 << 24}, {"16mb ", 1 << 24},  {"256T", 1LL << 48},  {"1e3", 1000},
               {"-2.9", -2},      {"10KBB", kRefused}, {"10 K B", kRefused}, {"10X", kRefused},
               {"", kRefused},    {"K", kRefused},     {"5 5", kRefused}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    const bool ok = c.value != kRefused;
    int64_t v = kRefused;
    std::string log = logged([&] { EXPECT_EQ(znconfig_parse_size(c.text, &v) == 0, ok); });
    EXPECT_EQ(v, c.value);
    EXPECT_EQ(log, ok ? ""
                      : "ERROR:ZNCONFIG:znconfig_parse_size: can't parse: '" + std::string(c.text) +
                            "'\n");
  }
}

TEST(ZnConfigRules, BooleanRule) {
  struct Case {
    const char* text;
    int value;
  } cases[] = {{"TRUE", 1},  {"Yes", 1}, {"on", 1},  {"-3", 1},   {"42abc", 1},
               {"false", 0}, {"", 0},    {"tru", 0}, {"yess", 0}, {" on", 0}};
  for (const Case& c : cases) EXPECT_EQ(znconfig_parse_bool(c.text), c.value) << c.text;
}

TEST(ZnConfigParse, TypesAndEmptyText) {
  Store s;
  PropertySlot v{.raw = 99};
  EXPECT_EQ(znconfig_parse(s.cmdline->mem, nullptr, PROP_TPE_LNG, &v), 0);
  EXPECT_EQ(v.raw, 0u);
  EXPECT_EQ(znconfig_parse(s.cmdline->mem, "0.5abc", PROP_TPE_DBL, &v), 0);  // trailing text
  EXPECT_EQ(v.dbl, 0.5);
  EXPECT_EQ(znconfig_parse(s.cmdline->mem, "abc", PROP_TPE_DBL, &v), -1);
  std::string log =
      logged([&] { EXPECT_EQ(znconfig_parse(s.cmdline->mem, "1", PROP_TPE_PTR, &v), -1); });
  EXPECT_THAT(log, HasSubstr("WARN:ZNCONFIG:znconfig_parse: invalid PropertyType 5"));
}

TEST(ZnConfigLayers, UppermostLayerAnswersAndLowerValuesStay) {
  Store s;
  ASSERT_EQ(znconfig_set_by_id(s.user, kClient, ZNCONFIG_CLIENT_PORT, "1000"), 1);
  ASSERT_EQ(znconfig_set_by_id(s.conffile, kClient, ZNCONFIG_CLIENT_PORT, "2000"), 1);
  EXPECT_EQ(znconfig_get_lng(s.cmdline, kClient, ZNCONFIG_CLIENT_PORT), 2000);
  EXPECT_EQ(znconfig_get_lng(s.user, kClient, ZNCONFIG_CLIENT_PORT), 1000);
  EXPECT_EQ(znconfig_get_lng(s.defaults, kClient, ZNCONFIG_CLIENT_PORT), 48130);
  // The server's port is another property of the same name.
  EXPECT_EQ(znconfig_get_lng(s.cmdline, kServer, 6), 48130);
  // A default changed at run time shows through every layer that does not hold the property.
  znconfig_set_str(znconfig_defaults(s.cmdline), kClient, ZNCONFIG_CLIENT_OUTPUT_MODE, "unicode");
  EXPECT_STREQ(znconfig_get_str(s.cmdline, kClient, ZNCONFIG_CLIENT_OUTPUT_MODE), "unicode");
  // Setting a string again keeps the caller's pointer and overwrites the same node.
  static const char first[] = "db1", second[] = "db2";
  ASSERT_EQ(znconfig_set_str(s.cmdline, kClient, ZNCONFIG_CLIENT_HOST, first), 1);
  Property* node = s.cmdline->props[kClient];
  ASSERT_EQ(znconfig_set_str(s.cmdline, kClient, ZNCONFIG_CLIENT_HOST, second), 1);
  EXPECT_EQ(s.cmdline->props[kClient], node);
  EXPECT_EQ(node->next, nullptr);
  EXPECT_EQ(znconfig_get_str(s.cmdline, kClient, ZNCONFIG_CLIENT_HOST), second);
}

TEST(ZnConfigLayers, GettersWarnForPropertiesNoLayerHolds) {
  Store s;
  const std::string logs[] = {
      logged([&] { EXPECT_EQ(znconfig_get_str(s.cmdline, kServer, 20), nullptr); }),
      logged([&] { EXPECT_EQ(znconfig_get_dbl(s.cmdline, kClient, 123), 0.0); }),
      logged([] { EXPECT_EQ(znconfig_get_lng(nullptr, kClient, 18), 0); }),
  };
  EXPECT_THAT(logs[0], HasSubstr("WARN:ZNCONFIG:znconfig_get_str: invalid property with gid = 2 "
                                 "and pid = 20"));
  EXPECT_THAT(logs[1], HasSubstr("znconfig_get_dbl: invalid property with gid = 3 and pid = 123"));
  EXPECT_THAT(logs[2], HasSubstr("znconfig_get_lng: invalid property with gid = 3 and pid = 18"));
}

TEST(ZnConfigSet, OptionTextsForPortAndRetries) {
  struct Case {
    int pid;
    const char* text;
    int stored;
    int64_t after;
    const char* log;  // expected fragment, or "" for a silent set
  } cases[] = {
      {ZNCONFIG_CLIENT_PORT, "1K", 1, 1024, ""},
      {ZNCONFIG_CLIENT_PORT, "0", 1, 0, ""},
      {ZNCONFIG_CLIENT_PORT, "65535", 1, 65535, ""},
      {ZNCONFIG_CLIENT_PORT, "", 1, 0, ""},  // empty text: 0, not validated
      {ZNCONFIG_CLIENT_PORT, "70000", 0, 48130,
       "ERROR:ZNCONFIG:znconfig_validate: 70000.000000 not between 0.000000 and 65535.000000."},
      {ZNCONFIG_CLIENT_PORT, "-1", 0, 48130,
       "znconfig_validate: -1.000000 not between 0.000000 and 65535.000000."},
      {ZNCONFIG_CLIENT_PORT, "http", 0, 48130, "znconfig_parse_size: can't parse: 'http'"},
      {ZNCONFIG_CLIENT_CONNECTION_RETRIES, "2k", 1, 2048, ""},
      {ZNCONFIG_CLIENT_CONNECTION_RETRIES, "abc", 0, 3, "can't parse: 'abc'"},
      {ZNCONFIG_CLIENT_CONNECTION_RETRIES, "-5", 1, -5, ""},  // no rule covers retries
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    Store s;
    std::string log =
        logged([&] { EXPECT_EQ(znconfig_set_by_id(s.cmdline, kClient, c.pid, c.text), c.stored); });
    EXPECT_EQ(znconfig_get_lng(s.cmdline, kClient, c.pid), c.after);
    EXPECT_THAT(log, LogHas(c.log));
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
      {ZNCONFIG_GROUP_CBM, "io_prefetch_blocks", "3", 0,
       "ERROR:ZNCONFIG:znconf_validate_power2: 3 is not a power of two."},
      {ZNCONFIG_GROUP_CBM, "io_prefetch_blocks", "2K", 0,
       "znconfig_validate: 2048.000000 not between 0.000000 and 1024.000000."},
      {ZNCONFIG_GROUP_MEMORY, "large_allocation_limit", "0.0001", 1, ""},  // bounds included
      {ZNCONFIG_GROUP_CBM, "io_prefetch_blocks", "1K", 1, ""},
      {ZNCONFIG_GROUP_MEMORY, "max_memory_size", "31M", 0,
       "32505856.000000 not between 33554432.000000 and 281474976710656.000000."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.name) + " " + c.text);
    const uint32_t tpe = znconfig_property_type(s.cmdline, c.gid, c.name);
    const char* name = znconfig_property_names[znconfig_property_id(s.cmdline, c.name)];
    std::string log = logged([&] {
      EXPECT_EQ(znconfig_set_from_string(s.cmdline, name, c.gid, c.text, tpe), c.stored);
    });
    EXPECT_THAT(log, LogHas(c.log));
  }
}

using ZnConfigDeathTest = testing::Test;

TEST_F(ZnConfigDeathTest, ProgrammingErrorsAbortWithTheirConditionText) {
  Store s;
  EXPECT_DEATH(znconfig_get_str(s.cmdline, kClient, ZNCONFIG_CLIENT_PORT),
               "assertion \"prop->tpe == PROP_TPE_ANY \\|\\| prop->tpe == PROP_TPE_STR\"");
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

ParseResult parse_text(Store& s, const std::string& text, int from_file = 0) {
  ParseResult r{};
  r.log = logged([&] { r.errors = znconfig_parse_config(s.conffile, text.c_str(), from_file); });
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
      {"[client], port = 1", 1, "localhost"},
      {"# comment\n\n[client] # the client\r\n  port = 7 # seven\n\thost\t=\tx\n", 7, "x"},
      {"[client]\nhost = \"my host\"\n", 48130, "my host"},
      {"[client]\nhost = data/x/y\n", 48130, "data/x/y"},
      {"[server]\nport = 1\nclient/port = 2\nport = 3\n", 3, "localhost"},
      {"[client]\nport = 9\nport = 10", 10, "localhost"},  // last value wins, no final EOL
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    Store s;
    ParseResult r = parse_text(s, c.text);
    EXPECT_EQ(r.errors, 0) << r.log;
    EXPECT_EQ(port(s), c.port);
    EXPECT_EQ(host(s), c.host);
    EXPECT_EQ(znconfig_get_lng(s.cmdline, kServer, 6), c.port == 3 ? 1 : 48130);
  }
}

// Errors are counted and parsing goes on; a token out of place skips the rest of its line
// without counting; a refused value is reported but not counted.
TEST(ZnConfigFile, ErrorsAndMismatchesAreLoggedAndParsingGoesOn) {
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
      {"a/b = c\n", 2, "invalid group 'a' on line 1", 48130},
      {"[client]\nport =\nport = 6\n", 1, "znconfig_parse_config: unexpected EOL on line 2", 6},
      {"[client]\nport = ", 1, "znconfig_parse_config: unexpected end of config", 48130},
      {"[client]\nhost = \"open\n", 2, "znconfig_parser_next: EOF while in string", 48130},
      {"[client]\nhost = \"open", 2, "znconfig_parse_config: unimplemented token 0", 48130},
      {"[client]\nport = 1 2\nhost = h\n", 0,
       "found token 10 on line 2 while expecting 12, skipping rest of line", 1},
      {"[client]\n= 5\nport = 3\n", 0, "found token 1 on line 2 while expecting 0", 3},
      {"client/port/x = 1\n", 0, "found token 4 on line 1 while expecting 1", 48130},
      {"[client]\nport = 70000\n", 0,
       "znconfig_parse_config: '70000' is an invalid value for key 'port' in group 'client'.",
       48130},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    Store s;
    ParseResult r = parse_text(s, c.text);
    EXPECT_EQ(r.errors, c.errors) << r.log;
    EXPECT_THAT(r.log, HasSubstr(c.log));
    EXPECT_EQ(port(s), c.port);
  }
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

TEST(ZnConfigFile, FileAcrossManyBlocksAndAMissingFile) {
  // Lines that straddle the 4000-byte block boundaries, a long value among them.
  std::string text = "# settings\n[client]\n";
  for (int i = 1; i <= 900; ++i) text += "port = " + std::to_string(i) + "\n";
  text += "host = " + std::string(3999, 'q') + "\nserver/dbname = last\n";
  const auto path = temp_file("kest_blocks", text);
  Store s;
  ParseResult r = parse_text(s, path.string(), 1);
  std::filesystem::remove(path);
  EXPECT_EQ(r.errors, 0) << r.log;
  EXPECT_THAT(r.log, HasSubstr("Reading configuration from '" + path.string() + "'"));
  EXPECT_EQ(port(s), 900);
  EXPECT_EQ(host(s), std::string(3999, 'q'));
  EXPECT_STREQ(znconfig_get_str(s.cmdline, kServer, 8), "last");
  EXPECT_EQ(parse_text(s, (path.parent_path() / "kest_no_such_dir" / "x.conf").string(), 1).errors,
            ENOENT);
}

}  // namespace
