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
using Args = std::vector<std::string>;

const std::string kVersion =
    "kest-vs9-OPTXPROF-64(branches/zn2.50) built on Oct 19 2012 01:09:04 with Microsoft "
    "Compiler version 1500";

std::string usage(const std::string& port) {
  return "Kest client\n\n"
         "Usage: " KEST_CLIENT_BIN
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

  ProcessResult run(Args args, std::string input = "") {
    args.insert(args.begin(), KEST_CLIENT_BIN);
    ProcessOptions options;
    options.stdin_text = std::move(input);
    options.env = {{"HOME", home_.string()}};
    options.time_limit = std::chrono::seconds(30);
    ProcessResult r = run_process(args, options);
    EXPECT_EQ(r.error, "");
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
  for (const Args& args :
       {Args{"--help"}, {"-x"}, {"query.txt"}, {"-?"}, {"--ping=1"}, {"--port"}, {"-e"}}) {
    ProcessResult r = run(args);
    EXPECT_EQ(r.out, usage("48130")) << args[0];
    EXPECT_EQ(r.err, "") << args[0];
    EXPECT_EQ(r.status, -1) << args[0];
  }
}

// The usage text shows the port of the merged layers: the per-user file, then the files of -c,
// then the command line, whatever the order of the options; a refused value keeps the layer below.
TEST_F(Cli, UsageShowsThePortOfTheSettingsLayers) {
  write(".quillmarke.conf", "[client]\nport = 2468\n");
  const std::string conf = write("client.conf", "# test settings\n[client]\nport = 4321\n");
  const std::string bad = write("bad.conf", "port = 1\n[nosuch]\nx = 2\n[client]\nport = 7\n");
  const struct {
    Args args;
    const char* port;
    std::vector<std::string> err;
  } cases[] = {
      {{"--help"}, "2468", {}},
      {{"-P", "1K", "--help"}, "1024", {}},
      {{"-c", conf, "--help"}, "4321", {"Reading configuration from '" + conf + "'"}},
      {{"-P", "99", "-c", conf, "--help"}, "99", {}},
      {{"-c", (home_ / "none.conf").string(), "--help"}, "2468", {}},  // a missing file is no error
      {{"-P", "70000", "--help"},
       "2468",
       {"ERROR:ZNCONFIG:znconfig_validate: 70000.000000 not between 0.000000 and 65535.000000.\n"}},
      {{"-c", bad, "--help"},
       "7",
       {"znconfig_parse_config: key 'port' on line 1 while not in any group",
        "znconfig_parse_config: invalid group 'nosuch' on line 2",
        "znconfig_parse_config: invalid key 'x' on line 3"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    ProcessResult r = run(c.args);
    EXPECT_EQ(r.out, usage(c.port));
    EXPECT_EQ(r.status, -1);
    for (const std::string& e : c.err) EXPECT_THAT(r.err, HasSubstr(e));
    if (c.err.empty()) {
      EXPECT_THAT(r.err, Not(HasSubstr("ERROR")));
    }
  }
}

TEST_F(Cli, UnreadableQueryFileEndsTheRun) {
  const std::string missing = (home_ / "missing.txt").string();
  for (const Args& args :
       {Args{"-f", missing}, {"-e", "q1", "-f", missing}, {"--file=" + missing, "-v"}}) {
    ProcessResult r = run(args);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "\nError: cannot read file '" + missing + "'\n");
    EXPECT_EQ(r.status, -1);
  }
}

TEST_F(Cli, FailedConnectionRunsNoQuery) {
  // Port 1 on the loopback address: nothing listens there.
  ProcessResult r = run({"-h", "127.0.0.1", "-P", "1", "-t", "1", "-e", "q"});
  EXPECT_EQ(r.status, -1);
  EXPECT_EQ(r.out, "");
}

// Whole runs against a scripted server on the loopback address.
using kest_test::ScriptedPeer;

std::string query_frame(const std::string& query) {
  return kest_test::frame(kest_test::be32(1) + kest_test::var(query) + kest_test::var(""));
}

// A successful answer with no columns and its table, and an error answer and its line.
const std::string kEmpty = kest_test::ack(1024, {}) + kest_test::data(0);
const std::string kEmptyTable = "+\n|\n|\n+\n+\n(0 rows)\n";
const std::string kError = kest_test::error_record(10, {"q", "1", "2", "bad"});
const std::string kErrorLine = "Error: Parse error in q at line 1, column 2: bad.\n";

// Which queries are sent (the text of -e before the file of -f before standard input), which run,
// and the exit status: the server answers each query it reads with the next reply of the row.
TEST_F(Cli, QueriesSentAndTheExitStatus) {
  const std::string file = write("queries.txt", "from_file_1; from_file_2;");
  const struct {
    Args args;
    std::string input;
    std::vector<std::pair<std::string, std::string>> exchange;  // query sent, reply
    int status;
    std::string out;
    const char* log = "";
  } cases[] = {
      {{}, "", {}, 0, "", "KESTCLIENT:Creating connection to server\n"},  // connects all the same
      {{"-f", file, "-e", "from_text"}, "from_stdin;", {{"from_text", kEmpty}}, 0, kEmptyTable},
      {{"-f", file},
       "from_stdin;",
       {{"from_file_1", kEmpty}, {"from_file_2", kEmpty}},
       0,
       kEmptyTable + kEmptyTable},
      // The first failed query ends the run, unless -i; then the last query's status counts.
      {{"-e", "first;second"}, "", {{"first", kError}}, -1, kErrorLine},
      {{"-i", "-e", "first;second"},
       "",
       {{"first", kError}, {"second", kEmpty}},
       0,
       kErrorLine + kEmptyTable},
      {{"-i", "-e", "first;second"},
       "",
       {{"first", kEmpty}, {"second", kError}},
       -1,
       kEmptyTable + kErrorLine},
      // A ping sends its fixed query instead of the given ones and prints nothing.
      {{"-e", "other", "-f", file, "-pu"},
       "",
       {{"Array([i=0])", kEmpty}},
       0,
       "",
       "KESTCLIENT:Pinging server\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    ScriptedPeer peer;
    std::vector<std::string> expected;
    for (const auto& [query, reply] : c.exchange) {
      peer.read_frame().send(reply);
      expected.push_back(query_frame(query));
    }
    peer.read_to_end().start();
    Args args = {"-h", "127.0.0.1", "-P", std::to_string(peer.port()), "-t", "1"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    ProcessResult r = run(args, c.input);
    EXPECT_TRUE(peer.join());
    EXPECT_EQ(r.status, c.status) << r.err;
    EXPECT_EQ(peer.frames(), expected);
    EXPECT_EQ(peer.received(), "");  // nothing more was sent
    EXPECT_EQ(r.out, c.out);
    EXPECT_THAT(r.err, HasSubstr(c.log));
  }
}

// The runner itself, with a POSIX shell as the child (the Windows build has none to call).
TEST(ProcessRunner, FeedsInputSetsEnvironmentAndKillsAtTheTimeLimit) {
  if (std::string(KEST_CLIENT_BIN).ends_with(".exe")) GTEST_SKIP() << "needs a POSIX shell";
  ProcessOptions o;
  o.stdin_text = "abc";
  o.env = {{"KEST_RUNNER_X", "1"}, {"HOME", std::nullopt}};
  ProcessResult r = run_process(
      {"/bin/sh", "-c", "cat; echo \"[$KEST_RUNNER_X][${HOME-unset}]\" >&2; exit 255"}, o);
  EXPECT_EQ(r.out, "abc");
  EXPECT_EQ(r.err, "[1][unset]\n");
  EXPECT_TRUE(r.exited);
  EXPECT_EQ(r.status, -1);

  o.time_limit = std::chrono::milliseconds(200);
  ProcessResult hung = run_process({"/bin/sh", "-c", "echo started; exec sleep 30"}, o);
  EXPECT_TRUE(hung.timed_out);
  EXPECT_FALSE(hung.exited);
  EXPECT_EQ(hung.out, "started\n");
  EXPECT_THAT(run_process({"/nonexistent/kest_program"}).error, HasSubstr("cannot start"));
}

}  // namespace
