#include "utils/znlog_config.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "utils/platform.h"
#include "utils/znlog.h"

namespace {

constexpr uint32_t kStdoutBit = 1, kStderrBit = 2, kFileBit = 4;

const FacilityRule* find_rule(const LogConfig& c, const char* name) {
  for (int i = 1; i < c.rule_count; ++i) {
    if (std::strncmp(c.rules[i].name, name, 16) == 0) return &c.rules[i];
  }
  return nullptr;
}

struct RuleCase {
  const char* text;
  const char* facility;  // null: the default rule
  uint32_t level, colour, outputs;
};

TEST(LogConfigRules, FieldsComeFromTheListOrTheDefaultAsItStood) {
  const char* const later_default = "default = red:stdout\nNETBUFFER = error\ndefault = trace";
  const RuleCase cases[] = {
      {"", nullptr, 2, 16, kStderrBit},
      {"default = stdout:file:stderr", nullptr, 2, 16, kStdoutBit | kStderrBit | kFileBit},
      {"default = red:trace:green:warn", nullptr, 1, 2, kStderrBit},  // the last one wins
      {later_default, "NETBUFFER", 0, 1, kStdoutBit},
      // A later default starts from the built-in rule, not from the one before it.
      {later_default, nullptr, 4, 16, kStderrBit},
      {"facility LTYPE = white:file", "LTYPE", 2, 15, kFileBit},
      {"\"QUOTED NAME\" = brightcyan", "QUOTED NAME", 2, 14, kStderrBit},
      {"X = defaultcolor, Y = black", "Y", 2, 0, kStderrBit},
      {"  \tTABS\t=\tdebug  # trailing comment", "TABS", 3, 16, kStderrBit},
      {"CRLF = debug:stdout\r\nNEXT = warn\r\n", "NEXT", 1, 16, kStderrBit},
  };
  for (const RuleCase& c : cases) {
    SCOPED_TRACE(c.text);
    const LogConfig config = parse_log_config(c.text);
    EXPECT_EQ(config.error_line, 0);
    const FacilityRule* r = c.facility ? find_rule(config, c.facility) : &config.rules[0];
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->level, c.level);
    EXPECT_EQ(r->colour, c.colour);
    EXPECT_EQ(r->outputs, c.outputs);
  }
}

TEST(LogConfigRules, At128RulesTheNextFacilityIsAnError) {
  std::string text;
  for (int i = 1; i < kMaxFacilityRules; ++i)
    text.append("F").append(std::to_string(i)).append(" = debug\n");
  // A default entry still fits (it replaces entry 0); one more facility does not.
  text += "default = trace\nONE_TOO_MANY = error\nLATER = warn\n";
  const LogConfig c = parse_log_config(text);
  EXPECT_EQ(c.error_line, kMaxFacilityRules + 1);
  EXPECT_EQ(c.rule_count, kMaxFacilityRules);
  EXPECT_EQ(c.rules[0].level, 4u);
  EXPECT_EQ(find_rule(c, "ONE_TOO_MANY"), nullptr);
}

// The switches of a style as one word: time mode, then color fileline showlevel comment pid tid
// txid flush usec.
std::string switches(const OutputStyle& s) {
  std::string out = std::to_string(s.time_mode) + ":";
  for (uint32_t v :
       {s.color, s.fileline, s.showlevel, s.comment, s.pid, s.tid, s.txid, s.flush, s.usec})
    out += std::to_string(v);
  return out;
}

TEST(LogConfigStyles, BuiltinsAndConfiguredStyles) {
  const struct {
    const char* text;
    int output;
    const char* want;
  } cases[] = {
      {"", kLogStdout, "0:100100000"},
      {"", kLogStderr, "0:000100000"},
      {"", kLogFile, "2:001010000"},
      {"stdout = pid", kLogStdout, "0:000010000"},  // a mentioned output starts all off
      {"stderr = timesec:usec:flush", kLogStderr, "1:000000011"},
      {"file = fileline:showlevel:comment:tid:txid:color:timestamp:timesec", kLogFile,
       "1:111101100"},
      {"stdout = color\nstdout = comment", kLogStdout, "0:000100000"},
  };
  for (const auto& c : cases) {
    const LogConfig config = parse_log_config(c.text);
    EXPECT_EQ(config.error_line, 0) << c.text;
    EXPECT_EQ(config.styles[c.output].stream, nullptr);
    EXPECT_EQ(switches(config.styles[c.output]), c.want) << c.text;
  }
}

struct ErrorCase {
  const char* text;
  int error_line;
};

TEST(LogConfigErrors, TheFirstErrorStopsParsingAtItsEntryNumber) {
  const ErrorCase cases[] = {
      {"# comment\n\ndefault = debug\nstdout = color:bogus\nX = warn", 4},
      {"a = warn, b = warn, stdout = color:bogus", 3},  // commas count as entries
      {"stdout color", 1},                              // missing '='
      {"stdout =", 1},
      {"stdout = color::pid", 1},
      {"= debug", 1},
      {"X = Debug", 1},  // keywords are case-sensitive
      {"facility = debug", 1},
      {"filename = a b", 1},
      {"X = debug\nY", 2},
      {"X = \"debug", 0},  // an unterminated quote runs to the end: the word "debug"
  };
  for (const ErrorCase& c : cases)
    EXPECT_EQ(parse_log_config(c.text).error_line, c.error_line) << c.text;
}

TEST(LogConfigErrors, EntriesBeforeTheErrorStayAndTheFailingOneIsNotApplied) {
  const LogConfig c = parse_log_config("stdout = showlevel\nstdout = color:bogus\ndefault = trace");
  EXPECT_EQ(c.error_line, 2);
  EXPECT_EQ(c.rules[0].level, 2u);
  EXPECT_EQ(switches(c.styles[kLogStdout]), "0:001000000");
}

TEST(LogConfigFile, NameDefaultsOnlyWhenARuleWritesToTheFile) {
  EXPECT_EQ(parse_log_config("").filename, "");
  EXPECT_EQ(parse_log_config("X = file").filename, "quillmarke.log");
  EXPECT_EQ(parse_log_config("default = file:stdout").filename, "quillmarke.log");
  EXPECT_EQ(parse_log_config("filename = run.log").filename, "run.log");
  EXPECT_EQ(parse_log_config("filename = \"my run.log\", X = file").filename, "my run.log");
}

TEST(LogConfigFile, RelativeNamesGoIntoTheDirectory) {
  LogConfig c = parse_log_config("filename = run.log");
  EXPECT_EQ(log_file_path(c, nullptr), "run.log");
  EXPECT_EQ(log_file_path(c, ""), "run.log");
  EXPECT_EQ(log_file_path(c, "logs"), std::string("logs") + kPathSeparator + "run.log");
  c.filename = "C:\\logs\\run.log";
  EXPECT_EQ(log_file_path(c, "logs"), "C:\\logs\\run.log");
  c.filename = std::string(1, kPathSeparator) + "abs.log";
  EXPECT_EQ(log_file_path(c, "logs"), c.filename);
  c.filename.clear();
  EXPECT_EQ(log_file_path(c, "logs"), "");
}

class LogConfigSearch : public testing::Test {
 protected:
  void SetUp() override {
    dir_ = std::filesystem::temp_directory_path() /
           ("kest_znlog_search_" + std::to_string(current_process_id()));
    std::filesystem::create_directories(dir_ / "home");
    std::filesystem::create_directories(dir_ / "logdir");
    for (const char* v : kVars) platform_setenv(v, nullptr);
  }
  void TearDown() override {
    for (const char* v : kVars) platform_setenv(v, nullptr);
    std::filesystem::remove_all(dir_);
  }
  void write(const std::filesystem::path& p, const std::string& text) {
    std::ofstream(p, std::ios::binary) << text;
  }
  std::string found() {
    char* text = logger_get_config();
    EXPECT_NE(text, nullptr);
    std::string s = text ? text : "";
    std::free(text);
    return s;
  }

  static constexpr const char* kVars[] = {"ZNLOG", "ZNLOG_CONFIGFILE", "ZNLOG_DIRECTORY",
                                          "USERPROFILE"};
  std::filesystem::path dir_;
};

TEST_F(LogConfigSearch, FirstSourceThatYieldsTextWins) {
  write(dir_ / "named.conf", "from configfile");
  write(dir_ / "logdir" / "znlog.conf", "from directory");
  write(dir_ / "home" / ".znlog", "from profile");
  EXPECT_EQ(found(), "");
  platform_setenv("USERPROFILE", (dir_ / "home").string().c_str());
  EXPECT_EQ(found(), "from profile");
  platform_setenv("ZNLOG_DIRECTORY", (dir_ / "logdir").string().c_str());
  EXPECT_EQ(found(), "from directory");
  platform_setenv("ZNLOG_CONFIGFILE", (dir_ / "named.conf").string().c_str());
  EXPECT_EQ(found(), "from configfile");
  platform_setenv("ZNLOG", "from variable");
  EXPECT_EQ(found(), "from variable");
}

TEST_F(LogConfigSearch, MissingOrEmptySourcesAreSkipped) {
  write(dir_ / "empty.conf", "");
  write(dir_ / "home" / ".znlog", "from profile");
  platform_setenv("USERPROFILE", (dir_ / "home").string().c_str());
  platform_setenv("ZNLOG_CONFIGFILE", (dir_ / "empty.conf").string().c_str());
  EXPECT_EQ(found(), "from profile");
  platform_setenv("ZNLOG_CONFIGFILE", (dir_ / "missing.conf").string().c_str());
  EXPECT_EQ(found(), "from profile");
  // A set directory without a znlog.conf ends the search: the profile is not consulted.
  platform_setenv("ZNLOG_DIRECTORY", (dir_ / "logdir").string().c_str());
  EXPECT_EQ(found(), "");
}

}  // namespace
