// The built client against servers that misbehave on purpose: bad frame lengths, fields that run
// past their frame, impossible row counts, odd error records and connections that end early.
// Every case has a time limit; each checks how the client ended and what it said.
#include "reliability/hostile_client.h"

namespace {

using namespace kest_hostile;
using testing::HasSubstr;

const Column kInt{"a", "sint", "sint"};

TEST(HostilePeer, EndsAsSpecifiedWithinItsTimeLimit) {
  const std::string good_ack = ack(4, {kInt});
  const char* const past_frame = "assertion \"pos + len <= buf->used\" failed";
  expect_runs({
      {"FrameLength0", be32(0), End::kFailed, "", "Invalid message length 0 "},
      {"FrameLength2Pow31", be32(0x80000000u), End::kFailed, "",
       "Invalid message length 2147483648"},
      {"FrameLength2Pow32Minus1", be32(0xFFFFFFFFu), End::kFailed, "",
       "Invalid message length 4294967295"},
      {"VarRunsPastFrame", frame(be32(0) + be32(1) + be32(4) + "\x0a" + "ab"), End::kAborted, "",
       past_frame},
      {"RowCountNegative", good_ack + data(-1), End::kFailed, "", ""},
      {"TruncatedColumnBlock", good_ack + data(3, sints({1, 2})), End::kAborted, "",
       "assertion \"buf->pos + len <= buf->used\" failed"},
      {"ErrorWithNoParameters", error_record(3, {}), End::kFailed, "Error: Not implemented: .\n",
       ""},
      {"ErrorWith10000Parameters", error_record(3, std::vector<std::string>(10000, "p")),
       End::kFailed, "Error: Not implemented: p.\n", ""},
      {"ErrorCodeMinus1", error_record(-1, {"x"}), End::kFailed,
       "Error: Unknown error code -1 (parameters: 'x')", ""},
      {"ErrorInDataMessage", good_ack + data(1, sints({7})) + error_record(100000, {}),
       End::kFailed, "Error: Unknown error code 100000 (no parameters)", ""},
  });
}

// The connection ends after k bytes of a whole answer (an int and a text column, two data
// messages, the end): inside the header of the acknowledgement, inside its body, inside a data
// message, just before the end message. The client fails the query with a network message.
TEST(HostilePeer, ConnectionClosedAfterKOfNBytes) {
  const std::string answer = ack(4, {kInt, {"s", "varchar(8)", "str"}}) +
                             data(2, sints({1, -2}) + var("x") + var("")) +
                             data(1, sints({3}) + var("yz")) + data(0);
  for (size_t k :
       {size_t{0}, size_t{2}, size_t{4}, size_t{20}, answer.size() - 12, answer.size() - 1}) {
    SCOPED_TRACE("k = " + std::to_string(k) + " of " + std::to_string(answer.size()));
    ScriptedPeer peer;
    peer.read_frame().send(answer.substr(0, k)).close();
    const ProcessResult r = run_client(peer);
    peer.join();
    ASSERT_TRUE(r.exited) << r.err;
    EXPECT_EQ(r.status, -1);
    EXPECT_THAT(r.err, testing::AnyOf(HasSubstr("network error"),
                                      HasSubstr("connection closed by server")));
  }
}

TEST(HostilePeer, ResetMidStream) {
  ScriptedPeer peer;
  peer.read_frame().send(ack(4, {kInt}) + data(1, sints({5}))).wait_us(50'000).reset();
  const ProcessResult r = run_client(peer);
  peer.join();
  ASSERT_TRUE(r.exited) << r.err;
  EXPECT_EQ(r.status, -1);
  // The rows that came are shown, and the footer counts them.
  EXPECT_EQ(r.out,
            "+-----------+\n|a          |\n|sint       |\n+-----------+\n|          5|\n"
            "+-----------+\n(1 row)\n");
}

}  // namespace
