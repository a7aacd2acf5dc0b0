#include "tools/standalone_client/meta_command.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using testing::HasSubstr;

TEST(MetaLine, ABackslashFirstAfterBlanks) {
  EXPECT_TRUE(is_meta_line("\\q"));
  EXPECT_TRUE(is_meta_line("  \t\\timing on"));
  EXPECT_FALSE(is_meta_line("Array([i=1]); \\q"));
  EXPECT_FALSE(is_meta_line(""));
  EXPECT_FALSE(is_meta_line("q"));
}

// Every command with good and bad arguments: what it reads, or the error it names.
TEST(MetaCommandParse, CommandsAndTheirArguments) {
  const struct {
    const char* line;
    MetaKind kind;
    std::string argument = "";
    int64_t port = 0;
    Switch setting = Switch::kToggle;
    const char* error = "";
  } cases[] = {
      {"\\q", MetaKind::kQuit},
      {"  \\q  ", MetaKind::kQuit},
      {"\\q now", MetaKind::kInvalid, "", 0, Switch::kToggle, "\\q: takes no argument"},
      {"\\?", MetaKind::kHelp},
      {"\\format raw", MetaKind::kFormat, "raw"},
      {"\\format  html ", MetaKind::kFormat, "html"},
      {"\\format", MetaKind::kInvalid, "", 0, Switch::kToggle,
       "\\format: needs one of ascii, unicode, raw, html"},
      {"\\format HTML", MetaKind::kInvalid, "", 0, Switch::kToggle, "needs one of"},
      {"\\format raw html", MetaKind::kInvalid, "", 0, Switch::kToggle, "needs one of"},
      {"\\o", MetaKind::kOutput, ""},
      {"\\o out.txt", MetaKind::kOutput, "out.txt"},
      {"\\o my results.txt ", MetaKind::kOutput, "my results.txt"},
      {"\\o 'a b.txt'", MetaKind::kOutput, "a b.txt"},
      {"\\o 'a b.txt", MetaKind::kInvalid, "", 0, Switch::kToggle, "no closing quote"},
      {"\\o 'a' b", MetaKind::kInvalid, "", 0, Switch::kToggle, "no closing quote"},
      {"\\timing", MetaKind::kTiming},
      {"\\timing on", MetaKind::kTiming, "", 0, Switch::kOn},
      {"\\timing off", MetaKind::kTiming, "", 0, Switch::kOff},
      {"\\timing yes", MetaKind::kInvalid, "", 0, Switch::kToggle,
       "\\timing: takes on, off or nothing"},
      {"\\pager off", MetaKind::kPager, "", 0, Switch::kOff},
      {"\\pager on off", MetaKind::kInvalid, "", 0, Switch::kToggle, "takes on, off or nothing"},
      {"\\x", MetaKind::kExpanded},
      {"\\i script.kest", MetaKind::kInclude, "script.kest"},
      {"\\i", MetaKind::kInvalid, "", 0, Switch::kToggle, "\\i: needs a file name"},
      {"\\i ''", MetaKind::kInvalid, "", 0, Switch::kToggle, "\\i: needs a file name"},
      {"\\c db1", MetaKind::kConnect, "db1"},
      {"\\c 127.0.0.1 5000", MetaKind::kConnect, "127.0.0.1", 5000},
      {"\\c h 65535", MetaKind::kConnect, "h", 65535},
      {"\\c", MetaKind::kInvalid, "", 0, Switch::kToggle, "needs HOST and an optional PORT"},
      {"\\c h 1 2", MetaKind::kInvalid, "", 0, Switch::kToggle, "needs HOST"},
      {"\\c h 0", MetaKind::kInvalid, "", 0, Switch::kToggle, "PORT must be a number"},
      {"\\c h 65536", MetaKind::kInvalid, "", 0, Switch::kToggle, "PORT must be a number"},
      {"\\c h 50x", MetaKind::kInvalid, "", 0, Switch::kToggle, "PORT must be a number"},
      // Names are whole and case matters.
      {"\\Q", MetaKind::kInvalid, "", 0, Switch::kToggle, "Unknown command \\Q;"},
      {"\\quit", MetaKind::kInvalid, "", 0, Switch::kToggle, "Unknown command \\quit;"},
      {"\\", MetaKind::kInvalid, "", 0, Switch::kToggle, "Unknown command \\;"},
      {"\\timingon", MetaKind::kInvalid, "", 0, Switch::kToggle, "Unknown command \\timingon;"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    const MetaCommand m = parse_meta_command(c.line);
    EXPECT_EQ(m.kind, c.kind);
    EXPECT_EQ(m.argument, c.argument);
    EXPECT_EQ(m.port, c.port);
    EXPECT_EQ(m.setting, c.setting);
    if (c.kind == MetaKind::kInvalid) {
      EXPECT_THAT(m.error, HasSubstr(c.error));
      EXPECT_THAT(m.error, HasSubstr("\\? lists the commands."));  // every error names the help
      EXPECT_EQ(m.error.find('\n'), std::string::npos);            // on one line
    } else {
      EXPECT_EQ(m.error, "");
    }
  }
}

TEST(MetaCommandParse, FormatNamesTheModeOfTheTable) {
  EXPECT_EQ(parse_meta_command("\\format ascii").mode, OutputMode::kAscii);
  EXPECT_EQ(parse_meta_command("\\format unicode").mode, OutputMode::kUnicode);
  EXPECT_EQ(parse_meta_command("\\format raw").mode, OutputMode::kRaw);
  EXPECT_EQ(parse_meta_command("\\format html").mode, OutputMode::kHtml);
  EXPECT_EQ(parse_meta_command("\\format csv").mode, OutputMode::kCsv);
  EXPECT_EQ(parse_meta_command("\\format vertical").mode, OutputMode::kVertical);
  EXPECT_EQ(parse_meta_command("\\format CSV").kind, MetaKind::kInvalid);
}

TEST(WordCommand, HelpQuitAndExitAloneOnALine) {
  const struct {
    const char* line;
    MetaKind kind;
  } cases[] = {
      {"help", MetaKind::kHelp},       {"  HELP ", MetaKind::kHelp},
      {"quit", MetaKind::kQuit},       {"exit;", MetaKind::kQuit},
      {"Quit ; ", MetaKind::kQuit},    {"quit now", MetaKind::kInvalid},
      {"helpful", MetaKind::kInvalid}, {"Array([i=1])", MetaKind::kInvalid},
      {"", MetaKind::kInvalid},
  };
  for (const auto& c : cases) EXPECT_EQ(word_command(c.line), c.kind) << c.line;
}

// The help lists every command the parser knows, each at the start of a line of its own.
TEST(MetaCommandHelp, ListsEveryCommand) {
  const std::string help = "\n" + meta_command_help();
  for (const std::string command :
       {"\\q ", "\\? ", "\\format NAME ", "\\o [FILE] ", "\\timing [on|off] ", "\\x ", "\\i FILE ",
        "\\c HOST [PORT] ", "\\pager [on|off] "}) {
    EXPECT_THAT(help, HasSubstr("\n" + command));
    const std::string name = command.substr(0, command.find(' '));
    EXPECT_THAT(parse_meta_command(name).error, testing::Not(HasSubstr("Unknown"))) << name;
  }
  EXPECT_THAT(help, HasSubstr("ascii, unicode, raw, html"));
}

}  // namespace
