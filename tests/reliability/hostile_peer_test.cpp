// The built client against servers that misbehave on purpose: bad frame lengths, fields that run
// past their frame, impossible row counts, unknown types, odd error records, connections that
// end early, a drip of single bytes and a server that never answers. Every case has a time
// limit; each checks how the client ended and what it said.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "reliability/hostile_client.h"

namespace {

using namespace kest_hostile;
using testing::HasSubstr;

// How a run must end.
enum class End { kFailed, kAborted };

struct HostileCase {
  const char* name;
  std::string reply;  // everything the server sends after reading the query
  End end;
  const char* err;  // expected in standard error ("" for no check)
  const char* out;  // expected in standard output ("" for no check)
};

const Column kInt{"a", "sint", "sint"};

std::string many_params(int n) { return error_record(3, std::vector<std::string>(n, "p")); }

std::vector<HostileCase> cases() {
  const std::string good_ack = ack(4, {kInt});
  return {
      {"FrameLength0", be32(0), End::kFailed, "Invalid message length 0 ", ""},
      {"FrameLength3", be32(3), End::kFailed, "Invalid message length 3 ", ""},
      {"FrameLength2Pow31", be32(0x80000000u), End::kFailed, "Invalid message length 2147483648",
       ""},
      {"FrameLength2Pow32Minus1", be32(0xFFFFFFFFu), End::kFailed,
       "Invalid message length 4294967295", ""},
      {"VarRunsPastFrame",
       frame(be32(0) + be32(1) + be32(4) +
             "\x0a"
             "ab"),
       End::kAborted, "assertion \"pos + len <= buf->used\" failed", ""},
      {"RowCountAboveVectorSize", good_ack + data(5, sints({1, 2, 3, 4, 5})), End::kFailed,
       "Received more tuples than vectorsize. Aborting.", ""},
      {"RowCountNegative", good_ack + data(-1), End::kFailed, "", ""},
      {"TruncatedColumnBlock", good_ack + data(3, sints({1, 2})), End::kAborted,
       "assertion \"buf->pos + len <= buf->used\" failed", ""},
      {"UnknownTypeName", ack(4, {{"a", "sint", "nosuchtype"}}), End::kAborted,
       "Unknown type: nosuchtype", ""},
      {"ErrorWithNoParameters", error_record(3, {}), End::kFailed, "", "Error: "},
      {"ErrorWith10000Parameters", many_params(10000), End::kFailed, "", "Error: "},
      {"ErrorCodeMinus1", error_record(-1, {"x"}), End::kFailed, "",
       "Error: Unknown error code -1 (parameters: 'x')"},
      {"ErrorCode100000", error_record(100000, {}), End::kFailed, "",
       "Error: Unknown error code 100000 (no parameters)"},
      {"ErrorInDataMessage", good_ack + data(1, sints({7})) + error_record(100000, {}),
       End::kFailed, "", "Error: Unknown error code 100000"},
  };
}

class HostilePeer : public testing::TestWithParam<HostileCase> {
 protected:
  void SetUp() override { ASSERT_EQ(network_init(), 0); }
};

TEST_P(HostilePeer, EndsAsSpecifiedWithinItsTimeLimit) {
  const HostileCase& c = GetParam();
  ScriptedPeer peer;
  peer.read_frame().send(c.reply).read_to_end();
  const ProcessResult r = run_client(peer);
  ASSERT_FALSE(r.timed_out);
  if (c.end == End::kAborted) {
    EXPECT_TRUE(aborted(r)) << r.err;
  } else {
    ASSERT_TRUE(r.exited) << r.err;
    EXPECT_EQ(r.status, -1);
  }
  EXPECT_THAT(r.err, HasSubstr(c.err));
  EXPECT_THAT(r.out, HasSubstr(c.out));
  peer.join();
}

INSTANTIATE_TEST_SUITE_P(Cases, HostilePeer, testing::ValuesIn(cases()),
                         [](const testing::TestParamInfo<HostileCase>& i) { return i.param.name; });

// A whole, well-formed answer: an int and a text column, two data messages, the end.
std::string full_answer() {
  return ack(4, {kInt, {"s", "varchar(8)", "str"}}) + data(2, sints({1, -2}) + var("x") + var("")) +
         data(1, sints({3}) + var("yz")) + data(0);
}

// The connection ends after k bytes of the answer: inside the header of the acknowledgement,
// inside its body, inside a data message, just before the end message. The client fails the
// query with a network message and never crashes or hangs.
TEST(HostilePeerClose, AfterKOfNBytes) {
  ASSERT_EQ(network_init(), 0);
  const std::string answer = full_answer();
  for (size_t k :
       {size_t{0}, size_t{2}, size_t{4}, size_t{20}, answer.size() - 12, answer.size() - 1}) {
    SCOPED_TRACE("k = " + std::to_string(k) + " of " + std::to_string(answer.size()));
    ScriptedPeer peer;
    peer.read_frame().send(answer.substr(0, k)).close();
    const ProcessResult r = run_client(peer);
    ASSERT_TRUE(r.exited) << r.err;
    EXPECT_EQ(r.status, -1);
    EXPECT_THAT(r.err, testing::AnyOf(HasSubstr("network error while reading ack"),
                                      HasSubstr("connection closed by server"),
                                      HasSubstr("network error")));
    peer.join();
  }
}

TEST(HostilePeerClose, ResetMidStream) {
  ASSERT_EQ(network_init(), 0);
  ScriptedPeer peer;
  peer.read_frame().send(ack(4, {kInt}) + data(1, sints({5}))).wait_us(50'000).reset();
  const ProcessResult r = run_client(peer);
  ASSERT_TRUE(r.exited) << r.err;
  EXPECT_EQ(r.status, -1);
  EXPECT_THAT(r.out, HasSubstr("5"));  // the rows that came are shown
  peer.join();
}

// One byte per send with a pause between: the client prints exactly what it prints for the
// answer sent whole.
TEST(HostilePeerDrip, OneByteAtATimeGivesTheSameOutput) {
  ASSERT_EQ(network_init(), 0);
  ScriptedPeer whole;
  whole.read_frame().send(full_answer()).read_to_end();
  const ProcessResult a = run_client(whole);
  EXPECT_TRUE(whole.join());
  ScriptedPeer drip({.chunk = 1, .pause_us = 200});
  drip.read_frame().send(full_answer()).read_to_end();
  const ProcessResult b = run_client(drip);
  EXPECT_TRUE(drip.join());
  ASSERT_TRUE(a.exited && b.exited);
  EXPECT_EQ(a.status, 0);
  EXPECT_EQ(b.status, 0);
  EXPECT_THAT(a.out, HasSubstr("(3 rows)"));
  EXPECT_EQ(a.out, b.out);
}

// A server that takes the query and says nothing: the client waits as it would for a long
// query, and is still waiting when the time limit ends it.
TEST(HostilePeerSilent, ClientWaitsUntilEnded) {
  ASSERT_EQ(network_init(), 0);
  ScriptedPeer peer;
  peer.read_frame().wait_us(2'000'000).close();
  const auto start = std::chrono::steady_clock::now();
  const ProcessResult r = run_client(peer, std::chrono::milliseconds(700));
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_TRUE(r.timed_out);
  EXPECT_FALSE(r.exited);
  EXPECT_LT(took, std::chrono::seconds(2));  // ended at the limit, not when the server gave up
  peer.join();
}

}  // namespace
