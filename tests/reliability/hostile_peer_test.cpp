// The built client against scripted loopback servers that send values past the limits the client
// enforces (the README's "Limits" table): frame lengths, type texts, row counts, error codes and
// parameter counts. Each run has a time limit and checks how the client ended (a failed query or
// the specified abort, never a crash) and what it said; the unit suites hold each limit's logic.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/run_process.h"
#include "support/scripted_peer.h"
#include "utils/netbuffer.h"

namespace {

using namespace kest_test;
using testing::HasSubstr;

struct Case {
  const char* name;
  std::string reply;  // what the peer sends after reading the query; then it waits for the end
  bool aborts;        // else the query fails and the client exits with -1
  std::string out;    // expected in standard output
  std::string err;    // expected in standard error
};

TEST(HostilePeer, EndsAsSpecifiedWithinItsTimeLimit) {
  const std::string vector5 = ack(5, {{"a", "sint", "sint"}});
  const auto rows = [](int32_t n) { return data(n, std::string(size_t(n) * 4, '\0')); };
  const auto type_text = [](size_t len) { return ack(4, {{"a", std::string(len, 'x'), "sint"}}); };
  const auto error_with = [](uint32_t count) {
    return frame(be32(0xFFFFFFFFu) + be32(100000) + be32(count) + var("a") + var("b") + var("c"));
  };
  const std::string short_read = "assertion \"buf->pos + len <= buf->used\" failed";
  const std::string long_type = "assertion \"NetBufferGetLen(netbuf) < MAX_TYPE_NAME\" failed";
  const Case cases[] = {
      // The frame length field runs from 4 (the header alone) to NETBUF_MAX_FRAME. Outside, the
      // frame is refused; inside, an empty acknowledgement fails its first read.
      {"FrameLength3", be32(3), false, "", "Invalid message length 3 (allowed 4 to 1073741824)"},
      {"FrameLength4", be32(4), true, "", short_read},
      // A logical type text is shorter than MAX_TYPE_NAME (64) bytes.
      {"TypeText64", type_text(64), true, "", long_type},
      // "money" is read as an 8-byte double: a narrower column is refused before any value.
      {"MoneyInAFourByteColumn", ack(4, {{"m", "money", "sint"}}), true, "",
       "assertion \"ltype_id(queryres.ltype[i]) != LTYPE_MONEY || queryres.width[i] >= 8\" failed"},
      // A data message carries at most the acknowledgement's vector size of rows.
      {"Rows6", vector5 + rows(6) + data(0), false, "",
       "Received more tuples than vectorsize. Aborting."},
      // Codes 0 .. 183 have a template; any other is named as unknown. Parameters may be many.
      {"ErrorCode184", error_record(184, {}), false,
       "Error: Unknown error code 184 (no parameters)", ""},
      {"ErrorWith10000Parameters", error_record(3, std::vector<std::string>(10000, "p")), false,
       "Error: Not implemented: p.\n", ""},
      // An error record's parameter count must match the parameters its frame holds.
      {"ErrorParameters3", error_with(3), false, "(parameters: 'a', 'b', 'c')\n", ""},
      {"ErrorParameters4", error_with(4), true, "", "assertion \"pos + len <= buf->used\" failed"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ScriptedPeer peer;
    peer.read_frame().send(c.reply).read_to_end().start();
    ProcessOptions options;
    options.env = {{"HOME", std::nullopt}, {"ZNLOG", std::nullopt}};
    options.time_limit = std::chrono::seconds(20);
    const ProcessResult r = run_process({KEST_CLIENT_BIN, "-h", "127.0.0.1", "-P",
                                         std::to_string(peer.port()), "-t", "1", "-e", "q"},
                                        options);
    peer.join();
    ASSERT_EQ(r.error, "");
    ASSERT_FALSE(r.timed_out);
    if (c.aborts) {  // abort(): a signal on POSIX, exit code 3 on Windows
      EXPECT_TRUE(!r.exited || r.raw_code == 3) << r.err;
    } else {
      EXPECT_TRUE(r.exited) << r.err;
      EXPECT_EQ(r.status, -1);
    }
    EXPECT_THAT(r.out, HasSubstr(c.out));
    EXPECT_THAT(r.err, HasSubstr(c.err));
  }
}

}  // namespace
