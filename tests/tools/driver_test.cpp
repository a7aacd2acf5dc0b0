#include "tools/standalone_client/driver.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/run_process.h"
#include "support/temp_dir.h"
#include "tools/standalone_client/client_globals.h"
#include "utils/znconfig.h"

namespace {

using testing::HasSubstr;

// A store without the per-user file, and a run scanned from `args`, with what it printed.
struct Scan {
  kest_test::Argv args;
  ClientRun run;
  OptionsOutcome outcome;
  std::string out, err;

  explicit Scan(std::vector<std::string> a) : args("kest_client", std::move(a)) {
    run.config = znconfig_layer_create(
        nullptr, "cmdline",
        znconfig_layer_create(nullptr, "conffile", znconfig_schema_create()->defaults));
    print_results = 1;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    outcome = client_scan_options(args.argc(), args.argv(), &run);
    out = testing::internal::GetCapturedStdout();
    err = testing::internal::GetCapturedStderr();
  }
  ~Scan() {
    client_run_close_file(&run);
    znconfig_free(run.config);
    print_results = 1;
  }
  int64_t lng(int pid) { return znconfig_get_lng(run.config, ZNCONFIG_GROUP_CLIENT, pid); }
  std::string str(int pid) {
    const char* s = znconfig_get_str(run.config, ZNCONFIG_GROUP_CLIENT, pid);
    return s ? s : "(null)";
  }
};

// Output mode, port and tries as the options leave them in the store: the last option counts, and
// a refused value is logged and keeps the value below it.
TEST(ClientOptions, StoreValuesFollowTheLastOption) {
  struct Case {
    std::vector<std::string> args;
    const char* mode;
    OutputMode code;
    int64_t port, tries;
    const char* log;
  } cases[] = {
      {{}, "ascii", OutputMode::kAscii, 48130, 3, ""},
      {{"-u", "--port", "1K", "-t", "2k"}, "unicode", OutputMode::kUnicode, 1024, 2048, ""},
      {{"-r", "-o", "html"}, "html", OutputMode::kHtml, 48130, 3, ""},
      {{"-o", "HTML", "-P", "6000", "-P", "70000"},
       "HTML",
       OutputMode::kAscii,
       6000,
       3,
       "ERROR:ZNCONFIG:znconfig_validate: 70000.000000 not between 0.000000 and 65535.000000.\n"},
      {{"-unr", "-t", "abc"},
       "raw",
       OutputMode::kRaw,
       48130,
       3,
       "znconfig_parse_size: can't parse: 'abc'"}};
  for (const Case& c : cases) {
    Scan s(c.args);
    EXPECT_EQ(s.outcome, OptionsOutcome::kRun);
    EXPECT_EQ(s.str(ZNCONFIG_CLIENT_OUTPUT_MODE), c.mode);
    EXPECT_EQ(client_output_mode_code(s.str(ZNCONFIG_CLIENT_OUTPUT_MODE).c_str()), c.code);
    EXPECT_EQ(s.lng(ZNCONFIG_CLIENT_PORT), c.port);
    EXPECT_EQ(s.lng(ZNCONFIG_CLIENT_CONNECTION_RETRIES), c.tries);
    EXPECT_EQ(s.err.empty(), !*c.log) << s.err;
    EXPECT_THAT(s.err, HasSubstr(c.log));
  }
  EXPECT_EQ(client_output_mode_code(nullptr), OutputMode::kAscii);
}

TEST(ClientOptions, StringsQueryAndFlags) {
  Scan s({"-h", "db1", "-a", "key.bin", "-e", "q1", "--execute=q2", "-pi"});
  ASSERT_EQ(s.outcome, OptionsOutcome::kRun);
  EXPECT_EQ(s.str(ZNCONFIG_CLIENT_HOST), "db1");
  EXPECT_EQ(s.str(ZNCONFIG_CLIENT_PASSFILE), "key.bin");
  EXPECT_STREQ(s.run.query, "q2");
  EXPECT_TRUE(s.run.ping && s.run.ignore_errors);
  EXPECT_EQ(print_results, 0);
  Scan plain({});
  EXPECT_EQ(plain.run.query, nullptr);
  EXPECT_FALSE(plain.run.ping || plain.run.ignore_errors);
  EXPECT_EQ(print_results, 1);
}

// The -f file is opened when scanned; one that cannot be read ends the scan there. (The end-to-end
// suite shows -v, the settings files of -c and the file error as a user meets them.)
TEST(ClientOptions, FileIsOpenedWhenScanned) {
  const kest_test::TempDir dir("kest_driver");
  const std::string path = dir.write("query.txt", "Array([i=0]);\n");
  {
    Scan s({"-f", path});
    EXPECT_EQ(s.outcome, OptionsOutcome::kRun);
    ASSERT_NE(s.run.file, nullptr);
    EXPECT_EQ(std::fgetc(s.run.file), 'A');
  }
  const std::string missing = path + ".missing";
  Scan bad({"-e", "q1", "-f", missing, "-P", "70000"});
  EXPECT_EQ(bad.outcome, OptionsOutcome::kExitFailed);
  EXPECT_EQ(bad.err, "\nError: cannot read file '" + missing + "'\n");  // -P never scanned
  EXPECT_EQ(bad.run.file, nullptr);
}

// Runs the client with standard input on a descriptor of `path` open for writing only, so that
// its first read fails, and exits with 7 when the run returned -1.
[[noreturn]] void run_on_unreadable_stdin(const std::string& path) {
  const int write_only = open(path.c_str(), O_WRONLY);
  if (write_only < 0 || dup2(write_only, fileno(stdin)) < 0) std::exit(3);
  close(write_only);
  kest_test::Argv args("kest_client", {"-h", "127.0.0.1", "-P", "1"});
  std::exit(kest_client_main(args.argc(), args.argv()) == -1 ? 7 : 0);
}

// Standard input that fails at its first read: the run fails with the error and never connects
// (port 1 of the loopback address, where nothing listens, would add its own error).
TEST(ClientRunDeathTest, UnreadableStandardInputFailsTheRun) {
  const kest_test::TempDir dir("kest_driver");
  EXPECT_EXIT(run_on_unreadable_stdin(dir.write("empty", "")), testing::ExitedWithCode(7),
              "\nError: cannot read standard input\n$");
}

// The output settings as the command line and a settings file below it leave them: a format,
// when set, wins over output_mode; a classic output option takes back a format below it; the last
// output option of the command line counts.
TEST(ClientOutputSettings, CommandLineOverSettingsFile) {
  const struct {
    std::vector<std::string> args;
    const char* settings;  // the [client] section of a settings file
    OutputMode mode;
    const char* null_text = nullptr;
    bool header = true, timing = false, quiet = false;
  } cases[] = {
      {{}, "", OutputMode::kAscii},
      {{"--format", "json"}, "", OutputMode::kJson},
      {{"--format=html"}, "", OutputMode::kHtml},
      {{"-o", "html", "--format", "csv"}, "", OutputMode::kCsv},
      {{"--format", "csv", "-r"}, "", OutputMode::kRaw},
      {{"--format", "csv", "-o", "CSV"}, "", OutputMode::kAscii},
      {{}, "format = vertical\noutput_mode = raw", OutputMode::kVertical},
      {{"-u"}, "format = tsv", OutputMode::kUnicode},
      {{"--format", "markdown"}, "format = tsv", OutputMode::kMarkdown},
      {{}, "null = NA\ntiming = yes\nquiet = on", OutputMode::kAscii, "NA", true, true, true},
      {{"--null", "", "--no-header", "--timing", "--quiet"},
       "null = NA",
       OutputMode::kAscii,
       "",
       false,
       true,
       true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args) + " over " + c.settings);
    Scan s(c.args);
    ASSERT_EQ(s.outcome, OptionsOutcome::kRun) << s.err;
    EXPECT_EQ(znconfig_parse_config(s.run.config->parent,
                                    ("[client]\n" + std::string(c.settings)).c_str(), 0),
              0);
    OutputSettings settings;
    ASSERT_TRUE(client_output_settings(s.run, &settings));
    EXPECT_EQ(settings.mode, c.mode);
    EXPECT_EQ(settings.print.null_text ? settings.print.null_text : "(none)",
              std::string(c.null_text ? c.null_text : "(none)"));
    EXPECT_EQ(settings.print.header, c.header);
    EXPECT_EQ(settings.timing, c.timing);
    EXPECT_EQ(settings.quiet, c.quiet);
  }
}

// Unlike -o, a format name is checked: on the command line when scanned (nothing after it is
// looked at), in a settings file when the settings are read.
TEST(ClientOutputSettings, UnknownFormatIsRefusedWithTheNames) {
  const std::string refusal =
      "Error: unknown format 'CSV' (formats: ascii, unicode, raw, html, csv, tsv, json, markdown, "
      "vertical)\n";
  Scan bad({"--format", "CSV", "-P", "70000"});
  EXPECT_EQ(bad.outcome, OptionsOutcome::kExitFailed);
  EXPECT_EQ(bad.err, refusal);  // -P never scanned
  EXPECT_EQ(bad.out, "");

  Scan s({});
  znconfig_parse_config(s.run.config->parent, "[client]\nformat = CSV\n", 0);
  OutputSettings settings;
  testing::internal::CaptureStderr();
  EXPECT_FALSE(client_output_settings(s.run, &settings));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), refusal);
}

// --quiet is looked for before the store exists, with the scan's own rules.
TEST(ClientOptions, QuietIsFoundWhereTheScanReachesIt) {
  const struct {
    std::vector<std::string> args;
    bool quiet;
  } cases[] = {
      {{"--quiet"}, true},        {{"-f", "missing.txt", "--timing", "-pi", "--quiet"}, true},
      {{"-e", "--quiet"}, false},  // the value of -e
      {{"-x", "--quiet"}, false},  // the scan stops at a refused option
      {{"-v", "--quiet"}, false},  // and at -v
      {{"--quiet=1"}, false},      // refused: it takes no value
      {{"--quieter"}, false},
  };
  for (const auto& c : cases) {
    kest_test::Argv args("kest_client", c.args);
    EXPECT_EQ(client_quiet_requested(args.argc(), args.argv()), c.quiet)
        << testing::PrintToString(c.args);
  }
}

// The shell runs without -e, -f and -p, at a terminal or when --interactive asks for it; the
// options that name the queries always mean the classic run.
TEST(ClientOptions, WhenTheShellRuns) {
  const kest_test::TempDir dir("kest_driver");
  const std::string query = dir.write("query.txt", "Array([i=0]);\n");
  const struct {
    std::vector<std::string> args;
    bool at_terminal, over_pipes;  // client_wants_shell with and without terminals
  } cases[] = {
      {{}, true, false},
      {{"--interactive"}, true, true},
      {{"-r", "--interactive", "-P", "5000"}, true, true},
      {{"-e", "q"}, false, false},
      {{"--interactive", "-e", "q"}, false, false},
      {{"-p"}, false, false},
      {{"--interactive", "-p"}, false, false},
      {{"-f", query}, false, false},
      {{"--interactive", "-f", query}, false, false},
      {{"-i", "-u"}, true, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    Scan s(c.args);
    ASSERT_EQ(s.outcome, OptionsOutcome::kRun);
    EXPECT_EQ(client_wants_shell(s.run, true), c.at_terminal);
    EXPECT_EQ(client_wants_shell(s.run, false), c.over_pipes);
  }
  // A long option without a value takes none; a short form does not exist.
  EXPECT_EQ(Scan({"--interactive=1"}).outcome, OptionsOutcome::kExitFailed);
  EXPECT_EQ(Scan({"--interactiv"}).outcome, OptionsOutcome::kExitFailed);
  EXPECT_EQ(Scan({"--timeout"}).outcome, OptionsOutcome::kExitFailed);  // its value is missing
}

}  // namespace

namespace {

// --timeout takes a number of seconds from 0 to a year; anything else ends the scan with an error
// before anything is sent, like an unknown --format.
TEST(ClientOptions, TimeoutMustBeANumberOfSeconds) {
  for (const char* good : {"0", "0.25", "30", "31536000"}) {
    Scan s({"--timeout", good});
    EXPECT_EQ(s.outcome, OptionsOutcome::kRun) << good << ": " << s.err;
  }
  for (const char* bad : {"abc", "1.5s", "-1", "31536001", "", "nan"}) {
    Scan s({"--timeout", bad, "-P", "70000"});
    EXPECT_EQ(s.outcome, OptionsOutcome::kExitFailed) << bad;
    EXPECT_EQ(s.err, std::string("Error: invalid timeout '") + bad +
                         "' (seconds, 0 for no limit, up to 31536000)\n");  // -P never scanned
  }
}

}  // namespace
