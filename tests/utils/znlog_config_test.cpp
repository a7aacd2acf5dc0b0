#include "utils/znlog_config.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
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
  const RuleCase cases[] = {
      {"", nullptr, 2, 16, kStderrBit},
      {"default = debug:stdout", nullptr, 3, 16, kStdoutBit},
      {"default = stdout:file:stderr", nullptr, 2, 16, kStdoutBit | kStderrBit | kFileBit},
      {"default = red:trace:green:warn", nullptr, 1, 2, kStderrBit},  // the last one wins
      {"NETBUFFER = error\ndefault = trace", "NETBUFFER", 0, 16, kStderrBit},
      {"default = trace", nullptr, 4, 16, kStderrBit},
      {"default = red:stdout\nNETBUFFER = error\ndefault = trace", "NETBUFFER", 0, 1, kStdoutBit},
      {"default = red:stdout\nNETBUFFER = error\ndefault = trace", nullptr, 4, 16, kStderrBit},
      // A later default starts from the built-in rule, not from the one before it.
      {"default = red:stdout:debug\ndefault = warn", nullptr, 1, 16, kStderrBit},
      {"facility LTYPE = white:file", "LTYPE", 2, 15, kFileBit},
      {"facility default = error", nullptr, 0, 16, kStderrBit},
      {"\"QUOTED NAME\" = brightcyan", "QUOTED NAME", 2, 14, kStderrBit},
      {"X = defaultcolor, Y = black", "Y", 2, 0, kStderrBit},
      {"  \tTABS\t=\tdebug  # trailing comment", "TABS", 3, 16, kStderrBit},
      {"CRLF = debug:stdout\r\nNEXT = warn\r\n", "NEXT", 1, 16, kStderrBit},
      {"CRLF = debug:stdout\r\nNEXT = warn\r\n", "CRLF", 3, 16, kStdoutBit},
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

TEST(LogConfigRules, NamesAreClippedTo15Characters) {
  const LogConfig c = parse_log_config("ABCDEFGHIJKLMNOPQRS = debug");
  ASSERT_EQ(c.rule_count, 2);
  EXPECT_STREQ(c.rules[1].name, "ABCDEFGHIJKLMNO");
  EXPECT_EQ(c.rules[1].name[15], '\0');
}

TEST(LogConfigRules, At128RulesTheNextFacilityIsAnError) {
  std::string text;
  for (int i = 1; i < kMaxFacilityRules; ++i)
    text.append("F").append(std::to_string(i)).append(" = debug\n");
  LogConfig c = parse_log_config(text);
  EXPECT_EQ(c.error_line, 0);
  EXPECT_EQ(c.rule_count, kMaxFacilityRules);
  // A default entry still fits (it replaces entry 0); one more facility does not.
  text += "default = trace\nONE_TOO_MANY = error\nLATER = warn\n";
  c = parse_log_config(text);
  EXPECT_EQ(c.error_line, kMaxFacilityRules + 1);
  EXPECT_EQ(c.rule_count, kMaxFacilityRules);
  EXPECT_EQ(c.rules[0].level, 4u);
  EXPECT_EQ(find_rule(c, "ONE_TOO_MANY"), nullptr);
}

struct StyleCase {
  const char* text;
  int output;
  OutputStyle want;
};

TEST(LogConfigStyles, BuiltinsAndConfiguredStyles) {
  //                              stream time color fileline showlevel comment pid tid txid flush
  //                              usec
  const StyleCase cases[] = {
      {"", kLogStdout, {nullptr, 0, 1, 0, 0, 1, 0, 0, 0, 0, 0}},
      {"", kLogStderr, {nullptr, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0}},
      {"", kLogFile, {nullptr, 2, 0, 0, 1, 0, 1, 0, 0, 0, 0}},
      // A mentioned output starts from all switches off.
      {"stdout = pid", kLogStdout, {nullptr, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0}},
      {"stderr = timesec:usec:flush", kLogStderr, {nullptr, 1, 0, 0, 0, 0, 0, 0, 0, 1, 1}},
      {"file = fileline:showlevel:comment:tid:txid:color:timestamp:timesec",
       kLogFile,
       {nullptr, 1, 1, 1, 1, 1, 0, 1, 1, 0, 0}},
      {"stdout = color\nstdout = comment", kLogStdout, {nullptr, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0}},
  };
  for (const StyleCase& c : cases) {
    SCOPED_TRACE(c.text);
    const LogConfig config = parse_log_config(c.text);
    EXPECT_EQ(config.error_line, 0);
    const OutputStyle& s = config.styles[c.output];
    EXPECT_EQ(s.stream, nullptr);
    EXPECT_EQ(s.time_mode, c.want.time_mode);
    EXPECT_EQ(s.color, c.want.color);
    EXPECT_EQ(s.fileline, c.want.fileline);
    EXPECT_EQ(s.showlevel, c.want.showlevel);
    EXPECT_EQ(s.comment, c.want.comment);
    EXPECT_EQ(s.pid, c.want.pid);
    EXPECT_EQ(s.tid, c.want.tid);
    EXPECT_EQ(s.txid, c.want.txid);
    EXPECT_EQ(s.flush, c.want.flush);
    EXPECT_EQ(s.usec, c.want.usec);
  }
}

struct ErrorCase {
  const char* text;
  int error_line;
};

TEST(LogConfigErrors, TheFirstErrorStopsParsingAtItsEntryNumber) {
  const ErrorCase cases[] = {
      {"stdout = color:bogus", 1},
      {"# comment\n\ndefault = debug\nstdout = color:bogus\nX = warn", 4},
      {"a = warn, b = warn, stdout = color:bogus", 3},  // commas count as entries
      {"stdout color", 1},                              // missing '='
      {"stdout =", 1},
      {"stdout = :color", 1},
      {"stdout = color::pid", 1},
      {"stdout = color = pid", 1},
      {"= debug", 1},
      {": debug", 1},
      {"X = debug:nosuchword", 1},
      {"X = Debug", 1},  // keywords are case-sensitive
      {"facility = debug", 1},
      {"facility", 1},
      {"filename", 1},
      {"filename = a b", 1},
      {"filename = a:b", 1},
      {"\n\n\nX", 4},
      {"X = debug\nY", 2},
      {"X = \"debug", 0},  // an unterminated quote runs to the end: the word "debug"
  };
  for (const ErrorCase& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(parse_log_config(c.text).error_line, c.error_line);
  }
}

TEST(LogConfigErrors, EntriesBeforeTheErrorStayAndTheFailingOneIsNotApplied) {
  const LogConfig c = parse_log_config(
      "default = debug:stdout\nstdout = showlevel\nstdout = color:bogus\n"
      "default = trace");
  EXPECT_EQ(c.error_line, 3);
  EXPECT_EQ(c.rules[0].level, 3u);
  EXPECT_EQ(c.rules[0].outputs, kStdoutBit);
  EXPECT_EQ(c.styles[kLogStdout].showlevel, 1u);
  EXPECT_EQ(c.styles[kLogStdout].color, 0u);
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

// Junk texts of configuration-like fragments and raw bytes must parse without reading outside
// the text (the sanitizer build checks that) and always leave a usable configuration.
TEST(LogConfigJunk, RandomTextsNeverBreakTheParser) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  const char* pieces[] = {"stdout", "stderr", "file",  "filename", "facility", "default", "=",
                          ":",      ",",      "\n",    "#",        "\"",       " ",       "\t",
                          "debug",  "red",    "color", "usec",     "X",        "\r",      "trace"};
  for (int i = 0; i < 3000; ++i) {
    std::string text;
    const int n = static_cast<int>(rng() % 40);
    for (int k = 0; k < n; ++k) {
      if (rng() % 4 == 0) {
        text += static_cast<char>(1 + rng() % 255);
      } else {
        text += pieces[rng() % std::size(pieces)];
      }
    }
    // Parse a copy in an exactly sized heap block so an overrun is caught.
    auto exact = std::make_unique<char[]>(text.size());
    std::memcpy(exact.get(), text.data(), text.size());
    const LogConfig c = parse_log_config(std::string_view(exact.get(), text.size()));
    ASSERT_GE(c.error_line, 0);
    ASSERT_GE(c.rule_count, 1);
    ASSERT_LE(c.rule_count, kMaxFacilityRules);
    for (int r = 0; r < c.rule_count; ++r) {
      ASSERT_EQ(c.rules[r].name[kFacilityNameMax], '\0');
      ASSERT_LE(c.rules[r].level, 4u);
      ASSERT_LE(c.rules[r].colour, 16u);
      ASSERT_LE(c.rules[r].outputs, 7u);
    }
  }
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
    std::FILE* f = std::fopen(p.string().c_str(), "wb");
    ASSERT_NE(f, nullptr);
    std::fwrite(text.data(), 1, text.size(), f);
    std::fclose(f);
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
