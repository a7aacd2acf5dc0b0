// The client's command line through the built program: texts, log lines and exit statuses.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "support/run_process.h"

namespace {

using testing::HasSubstr;

namespace fs = std::filesystem;

const std::string kVersion =
    "kest-vs9-OPTXPROF-64(branches/zn2.50) built on Oct 19 2012 01:09:04 with Microsoft "
    "Compiler version 1500";

std::string usage(const std::string& progname, const std::string& port) {
  return "Kest client\n\n"
         "Usage: " +
         progname +
         " [OPTIONS]\n"
         "Executes an kest query on an kest server.\n\n"
         "Options:\n"
         "  -e, --execute QUERY   query to execute\n"
         "      or\n"
         "  -f, --file FILE       query file to execute\n"
         "                        if not provided, query is read from stdin\n"
         "  -h, --host HOSTNAME   server hostname or IP address\n"
         "                        default: localhost\n"
         "  -P, --port PORT       server port\n"
         "                        default: " +
         port +
         "\n"
         "  -p, --ping            ping the server with simple query\n"
         "  -t, --tries TRIES     number of times to try to connect to the server\n"
         "                        default: 1 time\n"
         "  -a  --passfile FILE   authentication file for the server\n"
         "  -o, --output ascii|unicode|raw|html\n"
         "                        selects output formatting\n"
         "  -i, --ignore-err      do not exit on error\n"
         "  -v, --version         print version and exit\n";
}

// Each test gets its own home directory, so no per-user settings file of the machine leaks in.
class Cli : public testing::Test {
 protected:
  void SetUp() override {
    home_ = fs::temp_directory_path() / ("kest_cli_" + std::to_string(std::random_device{}()));
    fs::create_directories(home_);
  }
  void TearDown() override { fs::remove_all(home_); }

  ProcessResult run(std::vector<std::string> args) {
    args.insert(args.begin(), KEST_CLIENT_BIN);
    ProcessOptions options;
    options.stdin_text = "";
    options.env = {{"HOME", home_.string()}};
    options.time_limit = std::chrono::seconds(30);
    ProcessResult r = run_process(args, options);
    EXPECT_EQ(r.error, "");
    EXPECT_FALSE(r.timed_out);
    EXPECT_TRUE(r.exited);
    return r;
  }

  std::string write(const std::string& name, const std::string& contents) {
    const fs::path p = home_ / name;
    std::ofstream(p, std::ios::binary) << contents;
    return p.string();
  }

  fs::path home_;
};

TEST_F(Cli, VersionPrintsTheProgramNameAsTypedAndTheBuildLine) {
  ProcessResult r = run({"-v"});
  EXPECT_EQ(r.out, std::string(KEST_CLIENT_BIN) + "\n" + kVersion + "\n");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(run({"--version", "--bogus"}).status, 0);  // options after it are not looked at
}

TEST_F(Cli, RefusedOptionsPrintTheUsageAndFail) {
  for (std::vector<std::string> args : std::vector<std::vector<std::string>>{
           {"--help"}, {"-x"}, {"query.txt"}, {"-?"}, {"--ping=1"}, {"--port"}, {"-e"}}) {
    ProcessResult r = run(args);
    EXPECT_EQ(r.out, usage(KEST_CLIENT_BIN, "48130")) << args[0];
    EXPECT_EQ(r.err, "") << args[0];
    EXPECT_EQ(r.status, -1) << args[0];
  }
}

TEST_F(Cli, UsageShowsThePortSetBeforeTheRefusal) {
  ProcessResult r = run({"-P", "1K", "--help"});
  EXPECT_EQ(r.out, usage(KEST_CLIENT_BIN, "1024"));
  EXPECT_EQ(r.status, -1);
}

TEST_F(Cli, PortOutOfRangeIsRefusedByItsRule) {
  ProcessResult r = run({"-P", "70000", "-v"});
  EXPECT_EQ(r.out, std::string(KEST_CLIENT_BIN) + "\n" + kVersion + "\n");
  EXPECT_EQ(r.err,
            "ERROR:ZNCONFIG:znconfig_validate: 70000.000000 not between 0.000000 and "
            "65535.000000.\n");
  EXPECT_EQ(r.status, 0);
  ProcessResult kept = run({"-P", "70000", "--help"});
  EXPECT_EQ(kept.out, usage(KEST_CLIENT_BIN, "48130"));
}

TEST_F(Cli, SettingsFileGivenWithDashC) {
  const std::string conf = write("client.conf", "# test settings\n[client]\nport = 4321\n");
  ProcessResult r = run({"-c", conf, "--help"});
  EXPECT_EQ(r.out, usage(KEST_CLIENT_BIN, "4321"));
  EXPECT_THAT(r.err, HasSubstr("Reading configuration from '" + conf + "'"));
  EXPECT_EQ(r.status, -1);

  // The command line wins over the file, whatever their order.
  EXPECT_EQ(run({"-P", "99", "-c", conf, "--help"}).out, usage(KEST_CLIENT_BIN, "99"));

  const std::string bad = write("bad.conf", "port = 1\n[nosuch]\nx = 2\n[client]\nport = 7\n");
  ProcessResult errors = run({"-c", bad, "--help"});
  EXPECT_EQ(errors.out, usage(KEST_CLIENT_BIN, "7"));
  EXPECT_THAT(errors.err, HasSubstr("znconfig_parse_config: key 'port' on line 1 while not in "
                                    "any group"));
  EXPECT_THAT(errors.err, HasSubstr("znconfig_parse_config: invalid group 'nosuch' on line 2"));
  EXPECT_THAT(errors.err, HasSubstr("znconfig_parse_config: invalid key 'x' on line 3"));

  // A missing settings file is no error for the run.
  ProcessResult missing = run({"-c", (home_ / "none.conf").string(), "-v"});
  EXPECT_EQ(missing.status, 0);
  EXPECT_EQ(missing.err, "");
}

TEST_F(Cli, PerUserSettingsFileIsReadFromHome) {
  write(".quillmarke.conf", "[client]\nport = 2468\n");
  ProcessResult r = run({"--help"});
  EXPECT_EQ(r.out, usage(KEST_CLIENT_BIN, "2468"));
}

TEST_F(Cli, UnreadableQueryFileEndsTheRun) {
  const std::string missing = (home_ / "missing.txt").string();
  for (std::vector<std::string> args : std::vector<std::vector<std::string>>{
           {"-f", missing}, {"-e", "q1", "-f", missing}, {"--file=" + missing, "-v"}}) {
    ProcessResult r = run(args);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "\nError: cannot read file '" + missing + "'\n");
    EXPECT_EQ(r.status, -1);
  }
}

}  // namespace

namespace {

// The runner itself, with a POSIX shell as the child (the Windows build has none to call).
TEST(ProcessRunner, FeedsInputSetsEnvironmentAndKillsAtTheTimeLimit) {
  if (std::string(KEST_CLIENT_BIN).ends_with(".exe")) GTEST_SKIP() << "needs a POSIX shell";
  ProcessOptions o;
  o.stdin_text = "abc";
  o.env = {{"KEST_RUNNER_X", "1"}, {"HOME", std::nullopt}};
  ProcessResult r = run_process(
      {"/bin/sh", "-c", "cat; echo \"[$KEST_RUNNER_X][${HOME-unset}]\" >&2; exit 3"}, o);
  EXPECT_EQ(r.out, "abc");
  EXPECT_EQ(r.err, "[1][unset]\n");
  EXPECT_TRUE(r.exited);
  EXPECT_EQ(r.status, 3);

  ProcessResult minus_one = run_process({"/bin/sh", "-c", "exit 255"});
  EXPECT_TRUE(minus_one.exited);
  EXPECT_EQ(minus_one.status, -1);
  EXPECT_EQ(minus_one.raw_code, 255);

  ProcessOptions quick;
  quick.time_limit = std::chrono::milliseconds(200);
  ProcessResult hung = run_process({"/bin/sh", "-c", "echo started; exec sleep 30"}, quick);
  EXPECT_TRUE(hung.timed_out);
  EXPECT_FALSE(hung.exited);
  EXPECT_EQ(hung.out, "started\n");

  ProcessResult missing = run_process({"/nonexistent/kest_program"});
  EXPECT_FALSE(missing.exited);
  EXPECT_THAT(missing.error, HasSubstr("cannot start /nonexistent/kest_program"));
}

}  // namespace
