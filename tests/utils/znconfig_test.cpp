#include "utils/znconfig.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <tuple>

#include "support/temp_dir.h"
#include "utils/znconfig_parser.h"
#include "utils/znconfig_tables.h"

namespace {

using testing::HasSubstr;

constexpr int kClient = ZNCONFIG_GROUP_CLIENT;
constexpr int kServer = ZNCONFIG_GROUP_SERVER;

// Runs `f` and returns what it wrote to standard error (the logger's default output).
template <typename F>
std::string logged(F&& f) {
  testing::internal::CaptureStderr();
  f();
  return testing::internal::GetCapturedStderr();
}

// The store as znconfig_create builds it, without the per-user file, so that the tests do not
// depend on the home directory of whoever runs them.
struct Store {
  ConfigLayer* defaults = znconfig_schema_create()->defaults;
  ConfigLayer* user = znconfig_layer_create(nullptr, "kest_config", defaults);
  ConfigLayer* conffile = znconfig_layer_create(nullptr, "conffile", user);
  ConfigLayer* cmdline = znconfig_layer_create(nullptr, "cmdline", conffile);
  ~Store() { znconfig_free(cmdline); }
  int64_t port() { return znconfig_get_lng(cmdline, kClient, ZNCONFIG_CLIENT_PORT); }
  std::string host() {
    const char* h = znconfig_get_str(cmdline, kClient, ZNCONFIG_CLIENT_HOST);
    return h ? h : "(null)";
  }
  // Parses settings text (or the file it names) into the "conffile" layer; returns the error
  // count and keeps the log.
  int parse(const std::string& text, int from_file = 0) {
    int errors = 0;
    log = logged([&] { errors = znconfig_parse_config(conffile, text.c_str(), from_file); });
    return errors;
  }
  std::string log;
};

// The log holds `fragment`; an empty fragment asks for a silent log.
testing::Matcher<std::string> LogHas(const char* fragment) {
  if (*fragment) return HasSubstr(fragment);
  return testing::IsEmpty();
}

TEST(ZnConfigDefaults, ClientRows) {
  Store s;
  EXPECT_EQ(s.port(), 48130);
  EXPECT_STREQ(znconfig_get_str(s.cmdline, kClient, ZNCONFIG_CLIENT_OUTPUT_MODE), "ascii");
  EXPECT_EQ(s.host(), "localhost");
  EXPECT_EQ(znconfig_get_lng(s.cmdline, kClient, ZNCONFIG_CLIENT_CONNECTION_RETRIES), 3);
  EXPECT_EQ(znconfig_get_str(s.cmdline, kClient, ZNCONFIG_CLIENT_PASSFILE), nullptr);
  EXPECT_EQ(znconfig_get_lng(s.cmdline, kServer, 3), 100 * 1048576);  // a size default
}

TEST(ZnConfigNames, PropertyIdAndType) {
  Store s;
  const std::pair<const char*, int> cases[] = {
      {"port", 18}, {"profiling", 1}, {"drop_columns_eagerly", 122}, {"nosuch", 0}, {"Port", 0}};
  for (const auto& [name, id] : cases) EXPECT_EQ(znconfig_property_id(s.cmdline, name), id) << name;
  EXPECT_EQ(znconfig_property_type(s.cmdline, kServer, "profiling"), PROP_TPE_BOOL);
  EXPECT_EQ(znconfig_property_type(s.cmdline, kClient, "profiling"), PROP_TPE_ANY);
}

TEST(ZnConfigRules, SizeRule) {
  constexpr int64_t kRefused = 12345;  // the untouched output
  const std::pair<const char*, int64_t> cases[] = {
      {"-1", -1},   {"1.5K", 1536},      {"16 m", 1 << 24}, {"16mb ", 1 << 24}, {"256T", 1LL << 48},
      {"-2.9", -2}, {"10KBB", kRefused}, {"10X", kRefused}, {"", kRefused},     {"5 5", kRefused}};
  for (const auto& [text, value] : cases) {
    SCOPED_TRACE(text);
    const bool ok = value != kRefused;
    int64_t v = kRefused;
    testing::internal::CaptureStderr();  // no lambda: Clang 14 captures no structured binding
    EXPECT_EQ(znconfig_parse_size(text, &v) == 0, ok);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(v, value);
    EXPECT_EQ(
        log,
        ok ? "" : "ERROR:ZNCONFIG:znconfig_parse_size: can't parse: '" + std::string(text) + "'\n");
  }
}

TEST(ZnConfigRules, BooleanRule) {
  const std::pair<const char*, int> cases[] = {{"TRUE", 1},  {"Yes", 1}, {"on", 1},   {"-3", 1},
                                               {"false", 0}, {"", 0},    {"yess", 0}, {" on", 0}};
  for (const auto& [text, value] : cases) EXPECT_EQ(znconfig_parse_bool(text), value) << text;
}

TEST(ZnConfigLayers, UppermostLayerAnswersAndLowerValuesStay) {
  Store s;
  ASSERT_EQ(znconfig_set_by_id(s.user, kClient, ZNCONFIG_CLIENT_PORT, "1000"), 1);
  ASSERT_EQ(znconfig_set_by_id(s.conffile, kClient, ZNCONFIG_CLIENT_PORT, "2000"), 1);
  EXPECT_EQ(s.port(), 2000);
  EXPECT_EQ(znconfig_get_lng(s.user, kClient, ZNCONFIG_CLIENT_PORT), 1000);
  // A default changed at run time shows through every layer that does not hold the property.
  znconfig_set_str(znconfig_defaults(s.cmdline), kClient, ZNCONFIG_CLIENT_OUTPUT_MODE, "unicode");
  EXPECT_STREQ(znconfig_get_str(s.cmdline, kClient, ZNCONFIG_CLIENT_OUTPUT_MODE), "unicode");
  // Setting a string again keeps the caller's pointer and overwrites the same node.
  static const char first[] = "db1", second[] = "db2";
  ASSERT_EQ(znconfig_set_str(s.cmdline, kClient, ZNCONFIG_CLIENT_HOST, first), 1);
  ASSERT_EQ(znconfig_set_str(s.cmdline, kClient, ZNCONFIG_CLIENT_HOST, second), 1);
  EXPECT_EQ(s.cmdline->props[kClient]->next, nullptr);
  EXPECT_EQ(znconfig_get_str(s.cmdline, kClient, ZNCONFIG_CLIENT_HOST), second);
}

TEST(ZnConfigLayers, GettersWarnForPropertiesNoLayerHolds) {
  Store s;
  EXPECT_THAT(logged([&] { EXPECT_EQ(znconfig_get_str(s.cmdline, kServer, 20), nullptr); }),
              HasSubstr("WARN:ZNCONFIG:znconfig_get_str: invalid property with gid = 2 and "
                        "pid = 20"));
  EXPECT_THAT(logged([] { EXPECT_EQ(znconfig_get_lng(nullptr, kClient, 18), 0); }),
              HasSubstr("znconfig_get_lng: invalid property with gid = 3 and pid = 18"));
}

// Texts of the -P and -t options; a refused text logs and leaves the value as it was.
TEST(ZnConfigSet, OptionTextsForPortAndRetries) {
  const std::tuple<int, const char*, int64_t, const char*> cases[] = {
      {ZNCONFIG_CLIENT_PORT, "1K", 1024, ""},
      {ZNCONFIG_CLIENT_PORT, "0", 0, ""},
      {ZNCONFIG_CLIENT_PORT, "65535", 65535, ""},
      {ZNCONFIG_CLIENT_PORT, "", 0, ""},  // empty text: 0, not validated
      {ZNCONFIG_CLIENT_PORT, "65536", 48130,
       "ERROR:ZNCONFIG:znconfig_validate: 65536.000000 not between 0.000000 and 65535.000000."},
      {ZNCONFIG_CLIENT_PORT, "-1", 48130, "-1.000000 not between 0.000000 and 65535.000000."},
      {ZNCONFIG_CLIENT_PORT, "http", 48130, "znconfig_parse_size: can't parse: 'http'"},
      {ZNCONFIG_CLIENT_CONNECTION_RETRIES, "-5", -5, ""},  // no rule covers retries
  };
  for (const auto& [pid, text, after, log] : cases) {
    SCOPED_TRACE(text);
    Store s;
    testing::internal::CaptureStderr();
    EXPECT_EQ(znconfig_set_by_id(s.cmdline, kClient, pid, text), !*log);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), LogHas(log));
    EXPECT_EQ(znconfig_get_lng(s.cmdline, kClient, pid), after);
  }
}

// A float rule and the power-of-two validator; the port rows above show the integer bounds.
TEST(ZnConfigValidate, FloatRangeAndPowerOfTwo) {
  Store s;
  const std::tuple<int, const char*, const char*, const char*> cases[] = {
      {ZNCONFIG_GROUP_MEMORY, "large_allocation_limit", "1.5",
       "ERROR:ZNCONFIG:znconfig_validate: 1.500000 not between 0.000100 and 1.000000."},
      {ZNCONFIG_GROUP_CBM, "io_prefetch_blocks", "3",
       "ERROR:ZNCONFIG:znconf_validate_power2: 3 is not a power of two."},
  };
  for (const auto& [gid, key, text, log] : cases) {
    const char* name = znconfig_property_names[znconfig_property_id(s.cmdline, key)];
    const uint32_t tpe = znconfig_property_type(s.cmdline, gid, key);
    testing::internal::CaptureStderr();
    EXPECT_EQ(znconfig_set_from_string(s.cmdline, name, gid, text, tpe), 0) << text;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), std::string(log) + "\n");
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

TEST(ZnConfigFile, AcceptedForms) {
  const std::tuple<const char*, int64_t, const char*> cases[] = {
      {"client/port = 5000\nhost = db1\n", 5000, "db1"},
      {"[client], port = 1", 1, "localhost"},
      {"# comment\n\n[client] # the client\r\n  port = 7 # seven\n\thost\t=\tx\n", 7, "x"},
      {"[client]\nhost = \"my host\"\n", 48130, "my host"},
      {"[client]\nhost = data/x/y\n", 48130, "data/x/y"},
      {"[server]\nport = 1\nclient/port = 2\nport = 3\n", 3, "localhost"},
  };
  for (const auto& [text, port, host] : cases) {
    SCOPED_TRACE(text);
    Store s;
    EXPECT_EQ(s.parse(text), 0) << s.log;
    EXPECT_EQ(s.port(), port);
    EXPECT_EQ(s.host(), host);
    EXPECT_EQ(znconfig_get_lng(s.cmdline, kServer, 6), port == 3 ? 1 : 48130);
  }
}

// Errors are counted and parsing goes on; a token out of place skips the rest of its line
// without counting; a refused value is reported but not counted.
TEST(ZnConfigFile, ErrorsAndMismatchesAreLoggedAndParsingGoesOn) {
  // Text, errors counted, a line of the log, the port after the whole text.
  const std::tuple<const char*, int, const char*, int64_t> cases[] = {
      {"host = db1\n[client]\nport = 5\n", 1,
       "WARN:ZNCONFIG:znconfig_parse_config: key 'host' on line 1 while not in any group", 5},
      {"[nosuch]\nport = 1\n[client]\nport = 2\n", 2,
       "znconfig_parse_config: invalid group 'nosuch' on line 1", 2},
      {"[nosuch]\nport = 1\n", 2, "znconfig_parse_config: invalid key 'port' on line 2", 48130},
      {"[client]\nport =\nport = 6\n", 1, "znconfig_parse_config: unexpected EOL on line 2", 6},
      {"[client]\nport = ", 1, "znconfig_parse_config: unexpected end of config", 48130},
      {"[client]\nhost = \"open\n", 2, "znconfig_parser_next: EOF while in string", 48130},
      {"[client]\nhost = \"open", 2, "znconfig_parse_config: unimplemented token 0", 48130},
      {"[client]\nport = 1 2\nhost = h\n", 0,
       "found token 10 on line 2 while expecting 12, skipping rest of line", 1},
      {"[client]\nport = 70000\n", 0,
       "znconfig_parse_config: '70000' is an invalid value for key 'port' in group 'client'.",
       48130},
  };
  for (const auto& [text, errors, log, port] : cases) {
    SCOPED_TRACE(text);
    Store s;
    EXPECT_EQ(s.parse(text), errors) << s.log;
    EXPECT_THAT(s.log, HasSubstr(log));
    EXPECT_EQ(s.port(), port);
  }
}

TEST(ZnConfigFile, WordLimitIsFourThousandCharacters) {
  const std::string fits(4000, 'h');
  Store s, t;
  EXPECT_EQ(s.parse("[client]\nhost = " + fits + "\n"), 0);
  EXPECT_EQ(s.host(), fits);
  EXPECT_GE(t.parse("[client]\nhost = \"" + fits + "x\"\nport = 5\n"), 1);
  EXPECT_THAT(t.log, HasSubstr("WARN:ZNCONFIG:znconfig_add_char: string longer than buffer "
                               "(4000 bytes)"));
  EXPECT_EQ(t.host(), "localhost");
}

// Reading across the 4000-byte blocks of a file is checked by the settings corpus replay.
TEST(ZnConfigFile, FileIsAnnouncedAndAMissingOneGivesItsErrorNumber) {
  const kest_test::TempDir dir("kest_settings");
  const std::string path = dir.write("settings.conf", "[client]\nport = 900\n");
  Store s;
  EXPECT_EQ(s.parse(path, 1), 0) << s.log;
  EXPECT_THAT(s.log, HasSubstr("Reading configuration from '" + path + "'"));
  EXPECT_EQ(s.port(), 900);
  EXPECT_EQ(s.parse((dir / "no_such_dir" / "x.conf").string(), 1), ENOENT);
}

}  // namespace
