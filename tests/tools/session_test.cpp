#include "tools/standalone_client/session.h"

#include "tools/standalone_client/connection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kernel/ltype.h"
#include "support/scripted_peer.h"
#include "support/temp_dir.h"
#include "tools/standalone_client/client_globals.h"
#include "utils/netbuffer_socket.h"
#include "utils/znconfig.h"

using kest_test::be32;
using kest_test::frame;
using kest_test::raw;
using kest_test::ScriptedPeer;
using kest_test::var;
using testing::HasSubstr;

namespace {

std::vector<uint32_t> pauses;
void record_pause(uint32_t ms) { pauses.push_back(ms); }

size_t count_of(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

// A loopback port where nothing listens: bound, never listening, so connections are refused.
struct DeadPort {
  int32_t s = net_bind(net_loopback_address(), 0, false);
  uint16_t port = net_local_port(s);
  ~DeadPort() { net_close(s); }
};

std::string query_frame(const std::string& query, const std::string& key) {
  return frame(be32(1) + var(query) + var(key));
}

class Session : public testing::Test {
 protected:
  void SetUp() override {
    network_init();
    saved_print_ = print_results;
    print_results = 0;
    client_config = nullptr;
    pauses.clear();
    session_set_sleep(record_pause);
  }
  void TearDown() override {
    session_set_sleep(nullptr);
    print_results = saved_print_;
    client_config = nullptr;
  }
  int saved_print_ = 1;
};

TEST_F(Session, RefusedTriesWarnAndPauseDoublingThenGiveUp) {
  const struct {
    int64_t tries;
    size_t pause_count;
    std::vector<std::pair<size_t, uint32_t>> pauses;  // {index, milliseconds}
  } cases[] = {
      {3, 2, {{0, 400}, {1, 800}}},
      {1, 0, {}},
      {0, 0, {}},
      // The shift count wraps at 32: 400 << 31 keeps no bit of 400, try 32 pauses like try 0.
      {34, 33, {{31, 0}, {32, 400}}},
  };
  DeadPort dead;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.tries);
    pauses.clear();
    testing::internal::CaptureStderr();
    EXPECT_EQ(client_connect("127.0.0.1", dead.port, c.tries), nullptr);
    const std::string log = testing::internal::GetCapturedStderr();
    ASSERT_EQ(pauses.size(), c.pause_count);
    for (const auto& [index, ms] : c.pauses) EXPECT_EQ(pauses[index], ms) << "pause " << index;
    EXPECT_EQ(count_of(log, "server not responding, still trying"), c.pause_count);
    EXPECT_THAT(log, HasSubstr("cannot connect to kest server"));
  }
}

TEST_F(Session, DottedAddressesWithAHighLastPartAreRefused) {
  for (const char* host : {"127.0.0.200", "127.0.0.128", "127.0.0.255", "1host", "127.0.0.1.5"}) {
    testing::internal::CaptureStderr();
    ClientConnection* connection = client_connect(host, 1, 1);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(connection, nullptr) << host;
    EXPECT_THAT(log, HasSubstr(std::string("invalid IP address ") + host)) << host;
    EXPECT_THAT(log, HasSubstr(std::string("connecting to ") + host));
  }
  EXPECT_TRUE(pauses.empty()) << "a refused address is never tried";
}

TEST_F(Session, LowDottedAddressesAndHostNamesConnect) {
  for (const char* host : {"127.0.0.100", "localhost"}) {
    SCOPED_TRACE(host);
    ScriptedPeer::Options options;
    if (host[0] == '1') options.address = net_inet_addr(host);
    ScriptedPeer peer(options);
    peer.start();
    ClientConnection* connection = client_connect(host, peer.port(), 1);
    ASSERT_NE(connection, nullptr);
    client_disconnect(connection);
    EXPECT_TRUE(peer.join());
  }
}

// The first 64 bytes of the passfile are the key. Negative tries leave the socket unconnected,
// so the query's send fails.
TEST_F(Session, PassfileBytesAreTheKeyAndNegativeTriesConnectNothing) {
  const kest_test::TempDir dir("kest_session");
  const std::string path = (dir / "key").string();  // the store keeps this text, not a copy
  const struct {
    size_t file_bytes;  // 0: no passfile configured
    size_t key_bytes;
    const char* log;  // expected in the log, or ""
  } cases[] = {
      {0, 0, ""}, {10, 10, "only contains 10 bytes instead of 64"}, {64, 64, ""}, {70, 64, ""}};
  DeadPort dead;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file_bytes);
    std::string content;
    for (size_t i = 0; i < c.file_bytes; ++i) content += static_cast<char>('A' + i % 26);
    const std::unique_ptr<ConfigLayer, void (*)(ConfigLayer*)> config(znconfig_create(),
                                                                      znconfig_free);
    client_config = config.get();
    if (c.file_bytes > 0) {
      dir.write("key", content);
      ASSERT_EQ(znconfig_set_str(config.get(), 3, 22, path.c_str()), 1);
    }
    testing::internal::CaptureStderr();
    ClientConnection* connection = client_connect("127.0.0.1", dead.port, -1);
    ASSERT_NE(connection, nullptr);
    EXPECT_EQ(connection->key, content.substr(0, c.key_bytes));
    EXPECT_EQ(run_query(connection, "q"), -1);
    const std::string log = testing::internal::GetCapturedStderr();
    client_disconnect(connection);
    client_config = nullptr;
    EXPECT_THAT(log, HasSubstr(c.log));
    EXPECT_THAT(log, HasSubstr("network error while sending query"));
  }
}

// An error acknowledgement is printed, and the connection serves the next query.
TEST_F(Session, ErrorAcknowledgementIsPrintedAndTheNextQueryRuns) {
  const struct {
    std::string reply;
    const char* printed;
  } cases[] = {
      {kest_test::error_record(10, {"q", "1", "2", "bad"}),
       "Parse error in q at line 1, column 2: bad."},
      {kest_test::error_record(-2, {"x"}), "Unknown error code -2 (parameters: 'x')"},
      // A negative parameter count reads no parameter.
      {frame(be32(0xFFFFFFFFu) + be32(184) + be32(0xFFFFFFFFu)),
       "Unknown error code 184 (no parameters)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.printed);
    ScriptedPeer peer;
    peer.read_frame().send(c.reply).read_frame().send(kest_test::ack(1024, {}) +
                                                      kest_test::data(0));
    peer.start();
    ClientConnection* connection = client_connect("127.0.0.1", peer.port(), 1);
    ASSERT_NE(connection, nullptr);
    testing::internal::CaptureStdout();
    EXPECT_EQ(run_query(connection, "first"), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), std::string("Error: ") + c.printed + "\n");
    EXPECT_EQ(run_query(connection, "second"), 0);
    EXPECT_EQ(connection->vector_size, 1024);
    client_disconnect(connection);
    ASSERT_TRUE(peer.join());
    EXPECT_EQ(peer.frames(), std::vector({query_frame("first", ""), query_frame("second", "")}));
  }
}

TEST_F(Session, AfterAResetEveryQueryFailsWithoutTouchingTheSocket) {
  ScriptedPeer peer;
  peer.read_frame().reset();
  peer.start();
  ClientConnection* connection = client_connect("127.0.0.1", peer.port(), 1);
  ASSERT_NE(connection, nullptr);
  testing::internal::CaptureStderr();
  EXPECT_EQ(run_query(connection, "first"), -1);
  if (connection->netbuf.state != NETBUF_RESET) {
    testing::internal::GetCapturedStderr();
    client_disconnect(connection);
    EXPECT_TRUE(peer.join());
    GTEST_SKIP() << "the socket layer reported the peer's reset as an orderly close (as wine may)";
  }
  EXPECT_EQ(run_query(connection, "second"), -1);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_THAT(log, HasSubstr("network error while reading ack"));
  EXPECT_THAT(log, HasSubstr("Not sending data, connection was reset before."));
  EXPECT_THAT(log, HasSubstr("network error while sending query"));
  client_disconnect(connection);
  EXPECT_TRUE(peer.join());
}

// The rows of the last query run are counted, those before a failure too: --timing shows them.
TEST_F(Session, RowsOfTheLastQueryAreCounted) {
  using kest_test::ack;
  using kest_test::data;
  const std::string head = ack(4, {{"i", "int", "sint"}});
  ScriptedPeer peer;
  peer.read_frame().send(head + data(2, be32(1) + be32(2)) + data(1, be32(3)) + data(0));
  peer.read_frame().send(head + data(4, be32(1) + be32(2) + be32(3) + be32(4)) +
                         kest_test::error_record(3, {"x"}));
  peer.read_frame().send(kest_test::error_record(3, {"y"}));
  peer.start();
  types_init();
  ClientConnection* connection = client_connect("127.0.0.1", peer.port(), 1);
  ASSERT_NE(connection, nullptr);
  testing::internal::CaptureStdout();
  EXPECT_EQ(run_query(connection, "a"), 0);
  EXPECT_EQ(connection->rows, 3);
  EXPECT_EQ(run_query(connection, "b"), -1);
  EXPECT_EQ(connection->rows, 4);
  EXPECT_EQ(run_query(connection, "c"), -1);
  EXPECT_EQ(connection->rows, 0);
  testing::internal::GetCapturedStdout();
  client_disconnect(connection);
  EXPECT_TRUE(peer.join());
}

TEST(SessionTiming, LineFormat) {
  EXPECT_EQ(timing_line(12.3456, 3), "Time: 12.346 ms, 3 rows\n");
  EXPECT_EQ(timing_line(0.0004, 1), "Time: 0.000 ms, 1 row\n");
  EXPECT_EQ(timing_line(61234.5, 0), "Time: 61234.500 ms, 0 rows\n");
}

// An answer that fails before its end leaves the rest in the stream; with errors ignored the
// next query must read its own answer, never the rest of the old one.
TEST_F(Session, AnUnfinishedAnswerIsDrainedBeforeTheNextQuery) {
  const kest_test::Column col{"a", "sint", "sint"};
  const struct {
    const char* name;
    std::string first_answer;
  } cases[] = {
      {"more rows than the vector size",
       kest_test::ack(2, {col}) + kest_test::data(3, raw<int32_t>({1, 2, 3})) +
           kest_test::data(1, raw<int32_t>({4})) + kest_test::data(0)},
      {"a negative row count", kest_test::ack(2, {col}) + frame(be32(0) + be32(0xFFFFFFF0u)) +
                                   kest_test::data(1, raw<int32_t>({5})) + kest_test::data(0)},
      {"an error record ends the answer",  // nothing to drain: the next frame is the new answer
       kest_test::ack(2, {col}) + kest_test::data(1, raw<int32_t>({6})) +
           kest_test::error_record(21, {})},
  };
  types_init();
  const OutputMode saved_mode = output_mode_code;
  output_mode_code = OutputMode::kRaw;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ScriptedPeer peer;
    peer.read_frame()
        .send(c.first_answer)
        .read_frame()
        .send(kest_test::ack(2, {col}) + kest_test::data(1, raw<int32_t>({42})) +
              kest_test::data(0));
    peer.start();
    ClientConnection* connection = client_connect("127.0.0.1", peer.port(), 1);
    ASSERT_NE(connection, nullptr);
    EXPECT_EQ(run_query(connection, "first"), -1);
    print_results = 1;
    testing::internal::CaptureStdout();
    EXPECT_EQ(run_query(connection, "second"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "42\n");
    print_results = 0;
    client_disconnect(connection);
    EXPECT_TRUE(peer.join());
  }
  output_mode_code = saved_mode;
}

// Between queries: a connection in step stays as it is; one the server closed is opened anew;
// one whose server is gone for good cannot be, and says so by -1.
TEST_F(Session, ReviveReopensAConnectionTheServerClosed) {
  auto peer = std::make_unique<ScriptedPeer>();
  peer->read_frame().send(kest_test::ack(1024, {}) + kest_test::data(0)).close();
  peer->start();
  ClientConnection* connection = client_connect("127.0.0.1", peer->port(), 1);
  ASSERT_NE(connection, nullptr);
  EXPECT_EQ(run_query(connection, "first"), 0);
  ASSERT_TRUE(peer->join());  // the server has closed its end

  testing::internal::CaptureStderr();
  EXPECT_EQ(session_revive(connection), 0);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("re-opening the connection"));
  testing::internal::CaptureStderr();
  EXPECT_EQ(session_revive(connection), 0);  // the new connection waits for a query: in step
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

  peer.reset();  // the listener goes, and resets the connection it never accepted
  testing::internal::CaptureStderr();
  EXPECT_EQ(session_revive(connection), -1);
  EXPECT_EQ(session_revive(connection), -1);  // and again, for as long as there is no server
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("cannot connect to kest server"));
  client_disconnect(connection);
}

}  // namespace
