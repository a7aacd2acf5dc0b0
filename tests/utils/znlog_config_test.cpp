#include "utils/znlog_config.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "support/temp_dir.h"
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

TEST(LogConfigRules, FieldsComeFromTheListOrTheDefaultAsItStood) {
  const char* const later_default = "default = red:stdout\nNETBUFFER = error\ndefault = trace";
  const struct {
    const char* text;
    const char* facility;  // null: the default rule
    uint32_t level, colour, outputs;
  } cases[] = {
      {"", nullptr, 2, 16, kStderrBit},
      {"default = stdout:file:stderr", nullptr, 2, 16, kStdoutBit | kStderrBit | kFileBit},
      {"default = red:trace:green:warn", nullptr, 1, 2, kStderrBit},  // the last one wins
      {later_default, "NETBUFFER", 0, 1, kStdoutBit},
      // A later default starts from the built-in rule, not from the one before it.
      {later_default, nullptr, 4, 16, kStderrBit},
      {"facility LTYPE = white:file", "LTYPE", 2, 15, kFileBit},
      {"\"QUOTED NAME\" = brightcyan # comment", "QUOTED NAME", 2, 14, kStderrBit},
      {"CRLF = debug:stdout\r\nNEXT = warn\r\n", "NEXT", 1, 16, kStderrBit},
  };
  for (const auto& c : cases) {
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
}

// Every style word and the built-in styles show in the logger's own golden lines; these two
// rules do not.
TEST(LogConfigStyles, ALaterMentionStartsAfreshAndTheLastTimeWordWins) {
  const LogConfig c =
      parse_log_config("stdout = color\nstdout = comment\nfile = timestamp:timesec");
  EXPECT_EQ(c.styles[kLogStdout].color, 0u);
  EXPECT_EQ(c.styles[kLogStdout].comment, 1u);
  EXPECT_EQ(c.styles[kLogFile].time_mode, 1u);
}

TEST(LogConfigErrors, TheFirstErrorStopsParsingAtItsEntryNumber) {
  const std::pair<const char*, int> cases[] = {
      {"# comment\n\ndefault = debug\nstdout = color:bogus\nX = warn", 4},
      {"a = warn, b = warn, stdout = color:bogus", 3},  // commas count as entries
      {"stdout color", 1},                              // missing '='
      {"X = Debug", 1},                                 // keywords are case-sensitive
      {"X = \"debug", 0},  // an unterminated quote runs to the end: the word "debug"
  };
  for (const auto& [text, line] : cases) EXPECT_EQ(parse_log_config(text).error_line, line) << text;
}

TEST(LogConfigFile, RelativeNamesGoIntoTheDirectory) {
  LogConfig c = parse_log_config("filename = run.log");
  EXPECT_EQ(log_file_path(c, nullptr), "run.log");
  EXPECT_EQ(log_file_path(c, "logs"), std::string("logs") + kPathSeparator + "run.log");
  c.filename = "C:\\logs\\run.log";
  EXPECT_EQ(log_file_path(c, "logs"), "C:\\logs\\run.log");
  c.filename = std::string(1, kPathSeparator) + "abs.log";
  EXPECT_EQ(log_file_path(c, "logs"), c.filename);
}

// The first source that yields text wins; a missing or empty file is skipped, but a set
// directory without a znlog.conf ends the search before the profile is consulted.
TEST(LogConfigSearch, FirstSourceThatYieldsTextWins) {
  namespace fs = std::filesystem;
  const kest_test::TempDir dir("kest_znlog_search");
  const char* const vars[] = {"ZNLOG", "ZNLOG_CONFIGFILE", "ZNLOG_DIRECTORY", "USERPROFILE"};
  for (const char* v : vars) platform_setenv(v, nullptr);
  for (const char* sub : {"home", "logdir", "emptydir"}) fs::create_directories(dir / sub);
  dir.write("empty.conf", "");
  dir.write("named.conf", "from configfile");
  dir.write("logdir/znlog.conf", "from directory");
  dir.write("home/.znlog", "from profile");
  auto found = [] {
    char* text = logger_get_config();
    const std::string s = text ? text : "(null)";
    std::free(text);
    return s;
  };
  EXPECT_EQ(found(), "");
  const char* const steps[][3] = {
      {"USERPROFILE", "home", "from profile"},
      {"ZNLOG_CONFIGFILE", "empty.conf", "from profile"},
      {"ZNLOG_CONFIGFILE", "missing.conf", "from profile"},
      {"ZNLOG_DIRECTORY", "emptydir", ""},
      {"ZNLOG_DIRECTORY", "logdir", "from directory"},
      {"ZNLOG_CONFIGFILE", "named.conf", "from configfile"},
  };
  for (const auto& [var, path, want] : steps) {
    platform_setenv(var, (dir / path).string().c_str());
    EXPECT_EQ(found(), want) << var << "=" << path;
  }
  platform_setenv("ZNLOG", "from variable");
  EXPECT_EQ(found(), "from variable");
  for (const char* v : vars) platform_setenv(v, nullptr);
}

}  // namespace
