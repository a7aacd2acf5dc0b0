// Hostile inputs met by the built client and the reference server, as a user or a server would
// produce them: a query file that is a directory, scripts with statements longer than every
// buffer, queries nested far too deep, and answers that are huge, wide or carry huge error
// parameters. Every run has a time limit; servers listen on 127.0.0.1 only.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/e2e.h"
#include "support/scripted_peer.h"

namespace {

using namespace kest_test;
using testing::HasSubstr;

std::string repeat(const std::string& s, int n) {
  std::string out;
  for (int i = 0; i < n; ++i) out += s;
  return out;
}

// Where two long outputs part, with a little of each, instead of both whole.
std::string first_difference(const std::string& got, const std::string& want) {
  size_t at = 0;
  while (at < got.size() && at < want.size() && got[at] == want[at]) ++at;
  return "sizes " + std::to_string(got.size()) + " and " + std::to_string(want.size()) +
         ", first difference at " + std::to_string(at) + ": got [" + got.substr(at, 40) +
         "], want [" + want.substr(at, 40) + "]";
}

class HostileE2E : public testing::Test {
 protected:
  ProcessResult client(uint16_t port, Args args, std::string input = "") {
    return run_client(home_, at_port(port, std::move(args)), std::move(input),
                      std::chrono::seconds(60));
  }

  TempDir home_{"kest_hostile"};
  RefServer server_;
};

// Some systems open a directory for reading and fail only its first read; the client refuses it
// when it scans -f, as a missing file, and never connects (nothing listens on port 1).
TEST_F(HostileE2E, DirectoryAsQueryFileIsRefused) {
  for (const std::string& dir : {home_.path().string(), home_.path().string() + "/"}) {
    const ProcessResult r = client(1, {"-f", dir, "-e", "q"});  // the scan ends at -f
    EXPECT_TRUE(r.exited);
    EXPECT_EQ(r.status, -1);
    EXPECT_EQ(r.err, "\nError: cannot read file '" + dir + "'\n");
    EXPECT_EQ(r.out, "");
  }
}

// A statement longer than every buffer on the way (the stream's, the splitter's, the network
// buffer's first size) comes whole from standard input, between thousands of short ones: the
// server reads the end of its 3 MB literal.
TEST_F(HostileE2E, StatementLongerThanEveryBufferRunsWhole) {
  const uint16_t port = server_.start();
  const std::string text = repeat("0123456789", 300000) + "tail";
  const std::string script = repeat("Array([i=1]);\n", 2000) +
                             "Project(Array([i=1]), [s = substr('" + text + "', 3000001)]);\n" +
                             repeat("Array([i=2]);\n", 2000);
  const ProcessResult r = client(port, {"-r"}, script);
  ASSERT_TRUE(r.exited);
  EXPECT_EQ(r.status, 0) << r.err.substr(0, 300);
  const std::string expected = repeat("0\n", 2000) + "tail\n" + repeat("0\n1\n", 2000);
  EXPECT_TRUE(r.out == expected) << first_difference(r.out, expected);
}

// Queries nested far too deep are a parse error, the server serves on (the next query on the
// same connection runs), and the deepest accepted nesting runs on a server thread's stack.
TEST_F(HostileE2E, DeepNestingIsAParseErrorAndTheServerServesOn) {
  const uint16_t port = server_.start();
  const std::string script =
      repeat("Project(", 20000) + ";\n" +  // unclosed
      "Project(Array([i=1]), [a = " + repeat("!(", 20000) + "true" + repeat(")", 20000) + "]);\n" +
      repeat("Project(", 255) + "Array([i=1])" + repeat(", [i])", 255) + ";\n" +
      "Project(Array([i=1]), [a = " + repeat("!(", 254) + "true" + repeat(")", 254) + "]);\n";
  const ProcessResult r = client(port, {"-r", "-i"}, script);
  ASSERT_TRUE(r.exited);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out,
            "Error: Parse error in query at line 1, column 2049: nesting deeper than 256 levels.\n"
            "Error: Parse error in query at line 1, column 538: nesting deeper than 256 levels.\n"
            "0\n"
            "true\n");
}

// What a hostile server may send within the frame limit: the client holds it (the costs are in
// docs/reliability-round2.md) and prints what it must, or fails the query cleanly.
TEST_F(HostileE2E, HugeWideAndLongAnswersArePrintedOrFailCleanly) {
  std::vector<std::string> fifty_parameters(50, std::string(1 << 20, 'p'));
  fifty_parameters[0] = "first";
  std::vector<Column> wide;
  std::string row;
  for (int i = 0; i < 20000; ++i) {
    wide.push_back({"c" + std::to_string(i), "int", "sint"});
    row += std::string("\x07\x00\x00\x00", 4);
  }
  const struct {
    const char* name;
    std::string reply;
    int status;
    std::string out, err;
  } cases[] = {
      // A frame announced at the limit, 64 MiB of it sent, then the connection closed.
      {"PartOfAHugeFrame",
       ack(1, {{"s", "varchar", "str"}}) + be32(1u << 30) + std::string(64 << 20, 'x'), -1, "",
       "Remote socket closed while receiving"},
      {"TwentyThousandColumns", ack(1, wide) + data(1, row) + data(0), 0,
       repeat("7|", 19999) + "7\n", ""},
      // "Internal error: %0." names the first of fifty parameters; the other 49 hold 1 MB each.
      {"FiftyParametersOfAMegabyte", error_record(1, fifty_parameters), -1,
       "Error: Internal error: first.\n", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ScriptedPeer peer;
    peer.read_frame().send(c.reply).close().start();
    const ProcessResult r = client(peer.port(), {"-r", "-e", "q"});
    peer.join();
    ASSERT_TRUE(r.exited) << r.err;
    EXPECT_EQ(r.status, c.status);
    EXPECT_TRUE(r.out == c.out) << first_difference(r.out, c.out);
    EXPECT_THAT(r.err, HasSubstr(c.err));
  }
}

}  // namespace
