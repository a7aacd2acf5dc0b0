// The client's command line through the built program: texts, log lines and exit statuses.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "support/run_process.h"
#include "support/scripted_peer.h"
#include "utils/netbuffer.h"

namespace {

using testing::HasSubstr;
using testing::Not;

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

  ProcessResult run(std::vector<std::string> args, std::string input = "") {
    args.insert(args.begin(), KEST_CLIENT_BIN);
    ProcessOptions options;
    options.stdin_text = std::move(input);
    options.env = {{"HOME", home_.string()}};
    options.time_limit = std::chrono::seconds(30);
    ProcessResult r = run_process(args, options);
    r.out = normalize_newlines(std::move(r.out));
    r.err = normalize_newlines(std::move(r.err));
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

// Whole runs against a scripted server on the loopback address.
using kest_test::be32;
using kest_test::frame;
using kest_test::ScriptedPeer;
using kest_test::var;

std::string query_frame(const std::string& query) { return frame(be32(1) + var(query) + var("")); }

// A successful answer with no columns: the acknowledgement and the end of the results.
std::string empty_result() {
  return frame(be32(0) + be32(0) + be32(1024)) + frame(be32(0) + be32(0));
}

std::string parse_error_ack() {
  return frame(be32(0xFFFFFFFFu) + be32(10) + be32(4) + var("q") + var("1") + var("2") +
               var("bad"));
}
constexpr const char* kParseErrorLine = "Error: Parse error in q at line 1, column 2: bad.\n";

class CliRun : public Cli {
 protected:
  void SetUp() override {
    Cli::SetUp();
    ASSERT_EQ(network_init(), 0);
  }
  ProcessResult run_against(ScriptedPeer& peer, std::vector<std::string> args,
                            std::string input = "") {
    peer.start();
    std::vector<std::string> all = {"-h", "127.0.0.1", "-P", std::to_string(peer.port()),
                                    "-t", "1"};
    all.insert(all.end(), args.begin(), args.end());
    ProcessResult r = run(all, std::move(input));
    EXPECT_TRUE(peer.join());
    return r;
  }
};

TEST_F(CliRun, NoQueryStillConnectsAndSucceeds) {
  ScriptedPeer peer;
  peer.read_to_end();
  ProcessResult r = run_against(peer, {});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(peer.received(), "");
  EXPECT_THAT(r.err, HasSubstr("KESTCLIENT:Starting\n"));
  EXPECT_THAT(r.err, HasSubstr("KESTCLIENT:Creating connection to server\n"));
  EXPECT_THAT(r.err, Not(HasSubstr("Pinging server")));
}

TEST_F(CliRun, StopsAtTheFirstFailedQuery) {
  ScriptedPeer peer;
  peer.read_frame().send(parse_error_ack()).read_to_end();
  ProcessResult r = run_against(peer, {"-e", "first;second"});
  EXPECT_EQ(r.status, -1);
  EXPECT_EQ(r.out, kParseErrorLine);
  EXPECT_EQ(peer.frames(), std::vector<std::string>{query_frame("first")});
}

TEST_F(CliRun, IgnoreErrorsRunsEveryQueryAndKeepsTheLastStatus) {
  ScriptedPeer peer;
  peer.read_frame().send(parse_error_ack()).read_frame().send(empty_result()).read_to_end();
  ProcessResult r = run_against(peer, {"-i", "-e", "first;second"});
  EXPECT_EQ(r.status, 0);
  EXPECT_THAT(r.out, HasSubstr(kParseErrorLine));
  EXPECT_EQ(peer.frames(), (std::vector<std::string>{query_frame("first"), query_frame("second")}));

  ScriptedPeer last_fails;
  last_fails.read_frame().send(empty_result()).read_frame().send(parse_error_ack()).read_to_end();
  EXPECT_EQ(run_against(last_fails, {"-i", "-e", "first;second"}).status, -1);
}

TEST_F(CliRun, PingSendsTheFixedQueryInsteadOfTheGivenOneAndPrintsNothing) {
  const std::string file = write("queries.txt", "a;b;");
  ScriptedPeer peer;
  peer.read_frame().send(empty_result()).read_to_end();
  ProcessResult r = run_against(peer, {"-e", "other", "-f", file, "-pu"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "");
  EXPECT_THAT(r.err, HasSubstr("KESTCLIENT:Pinging server\n"));
  EXPECT_EQ(peer.frames(), std::vector<std::string>{query_frame("Array([i=0])")});
}

TEST_F(CliRun, QueriesComeFromTheTextThenTheFileThenStandardInput) {
  const std::string file = write("queries.txt", "from_file_1; from_file_2;");
  struct Case {
    std::vector<std::string> args;
    std::string input;
    std::vector<std::string> queries;
  } cases[] = {
      {{"-f", file, "-e", "from_text"}, "from_stdin;", {"from_text"}},
      {{"-f", file}, "from_stdin;", {"from_file_1", "from_file_2"}},
      {{}, "from_stdin_1;\nfrom_stdin_2", {"from_stdin_1", "from_stdin_2"}},
  };
  for (const Case& c : cases) {
    ScriptedPeer peer;
    std::vector<std::string> expected;
    for (const std::string& q : c.queries) {
      peer.read_frame().send(empty_result());
      expected.push_back(query_frame(q));
    }
    peer.read_to_end();
    ProcessResult r = run_against(peer, c.args, c.input);
    EXPECT_EQ(r.status, 0) << c.queries[0] << r.err;
    EXPECT_EQ(peer.frames(), expected) << c.queries[0];
  }
}

TEST_F(CliRun, FailedConnectionRunsNoQuery) {
  // Port 1 on the loopback address: nothing listens there.
  ProcessResult r = run({"-h", "127.0.0.1", "-P", "1", "-t", "1", "-e", "q"});
  EXPECT_EQ(r.status, -1);
  EXPECT_EQ(r.out, "");
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
