#include "tools/standalone_client/session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/scripted_peer.h"
#include "tools/standalone_client/client_globals.h"
#include "utils/netbuffer_socket.h"
#include "utils/znconfig.h"

using kest_test::be32;
using kest_test::frame;
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

// A successful answer with no columns: the acknowledgement and the end of the results.
std::string empty_result() {
  return frame(be32(0) + be32(0) + be32(1024)) + frame(be32(0) + be32(0));
}

std::string error_ack(uint32_t code, const std::vector<std::string>& params) {
  std::string body = be32(0xFFFFFFFFu) + be32(code) + be32(static_cast<uint32_t>(params.size()));
  for (const auto& p : params) body += var(p);
  return frame(body);
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

struct TriesCase {
  int64_t tries;
  std::vector<uint32_t> pauses;
};

class SessionTries : public Session, public testing::WithParamInterface<TriesCase> {};

TEST_P(SessionTries, RefusedTriesWarnAndPauseDoublingThenGiveUp) {
  const TriesCase& c = GetParam();
  DeadPort dead;
  testing::internal::CaptureStderr();
  ClientConnection* connection = client_connect("127.0.0.1", dead.port, c.tries);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_EQ(connection, nullptr);
  EXPECT_EQ(pauses, c.pauses);
  EXPECT_EQ(count_of(log, "server not responding, still trying"), c.pauses.size());
  EXPECT_THAT(log, HasSubstr("cannot connect to kest server"));
}

INSTANTIATE_TEST_SUITE_P(Counts, SessionTries,
                         testing::Values(TriesCase{3, {400, 800}}, TriesCase{1, {}},
                                         TriesCase{0, {}}));

TEST_F(Session, PauseShiftCountWrapsAtThirtyTwo) {
  DeadPort dead;
  testing::internal::CaptureStderr();
  EXPECT_EQ(client_connect("127.0.0.1", dead.port, 34), nullptr);
  testing::internal::GetCapturedStderr();
  ASSERT_EQ(pauses.size(), 33u);
  EXPECT_EQ(pauses[1], 800u);
  EXPECT_EQ(pauses[5], 12800u);
  EXPECT_EQ(pauses[22], 1677721600u);
  EXPECT_EQ(pauses[31], 0u) << "400 << 31 keeps no bit of 400 in 32 bits";
  EXPECT_EQ(pauses[32], 400u) << "try 32 pauses like try 0";
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

TEST_F(Session, DottedAddressWithALowLastPartIsAccepted) {
  ScriptedPeer::Options options;
  options.address = net_inet_addr("127.0.0.100");
  ScriptedPeer peer(options);
  peer.start();
  ClientConnection* connection = client_connect("127.0.0.100", peer.port(), 1);
  ASSERT_NE(connection, nullptr);
  EXPECT_GE(connection->netbuf.socket, 0);
  EXPECT_EQ(connection->netbuf.state, NETBUF_BUILDING);
  ASSERT_NE(connection->key, nullptr);
  EXPECT_STREQ(connection->key, "") << "no passfile, no key";
  client_disconnect(connection);
  EXPECT_TRUE(peer.join());
}

TEST_F(Session, HostNameIsResolved) {
  ScriptedPeer peer;
  peer.start();
  ClientConnection* connection = client_connect("localhost", peer.port(), 1);
  ASSERT_NE(connection, nullptr);
  client_disconnect(connection);
  EXPECT_TRUE(peer.join());
}

TEST_F(Session, NegativeTriesLeaveTheSocketUnconnectedAndTheSendFails) {
  DeadPort dead;
  ClientConnection* connection = client_connect("127.0.0.1", dead.port, -1);
  ASSERT_NE(connection, nullptr);
  testing::internal::CaptureStderr();
  EXPECT_EQ(run_query(connection, "q"), -1);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_THAT(log, HasSubstr("network error while sending query"));
  client_disconnect(connection);
}

struct KeyCase {
  const char* name;
  size_t file_bytes;  // 0: no passfile configured
  size_t key_bytes;   // what is sent
  const char* log;    // expected in the log, or ""
};

class SessionKey : public Session, public testing::WithParamInterface<KeyCase> {
 protected:
  void TearDown() override {
    Session::TearDown();
    if (config_) znconfig_free(config_);
    if (!path_.empty()) std::filesystem::remove(path_);
  }
  ConfigLayer* config_ = nullptr;
  std::filesystem::path path_;
};

TEST_P(SessionKey, PassfileBytesAreSentAsTheKey) {
  const KeyCase& c = GetParam();
  std::string content;
  for (size_t i = 0; i < c.file_bytes; ++i) content += static_cast<char>('A' + i % 26);
  config_ = znconfig_create();
  ASSERT_NE(config_, nullptr);
  client_config = config_;
  const std::string path_text = [&] {
    if (c.file_bytes == 0) return std::string();
    path_ = std::filesystem::temp_directory_path() /
            ("kest_session_key_" + std::to_string(c.file_bytes));
    std::ofstream(path_, std::ios::binary) << content;
    return path_.string();
  }();
  if (!path_text.empty()) {
    ASSERT_EQ(znconfig_set_str(config_, 3, 22, path_text.c_str()), 1);
  }

  ScriptedPeer peer;
  peer.read_frame().close();
  peer.start();
  testing::internal::CaptureStderr();
  ClientConnection* connection = client_connect("127.0.0.1", peer.port(), 1);
  ASSERT_NE(connection, nullptr);
  EXPECT_EQ(run_query(connection, "Array([i=0])"), -1);
  const std::string log = testing::internal::GetCapturedStderr();
  client_disconnect(connection);
  ASSERT_TRUE(peer.join());
  ASSERT_EQ(peer.frames().size(), 1u);
  EXPECT_EQ(peer.frames()[0], query_frame("Array([i=0])", content.substr(0, c.key_bytes)));
  EXPECT_THAT(log, HasSubstr(c.log));
  EXPECT_THAT(log, HasSubstr("network error while reading ack"));
}

INSTANTIATE_TEST_SUITE_P(
    Files, SessionKey,
    testing::Values(KeyCase{"None", 0, 0, ""},
                    KeyCase{"ShortFile", 10, 10, "only contains 10 bytes instead of 64"},
                    KeyCase{"ExactFile", 64, 64, ""}, KeyCase{"LongFile", 70, 64, ""}),
    [](const auto& info) { return std::string(info.param.name); });

struct ErrorAckCase {
  const char* name;
  uint32_t code;
  std::vector<std::string> params;
  const char* printed;
};

class SessionErrorAck : public Session, public testing::WithParamInterface<ErrorAckCase> {};

TEST_P(SessionErrorAck, IsPrintedAndTheConnectionServesTheNextQuery) {
  const ErrorAckCase& c = GetParam();
  ScriptedPeer peer;
  peer.read_frame().send(error_ack(c.code, c.params)).read_frame().send(empty_result());
  peer.start();
  ClientConnection* connection = client_connect("127.0.0.1", peer.port(), 1);
  ASSERT_NE(connection, nullptr);
  testing::internal::CaptureStdout();
  EXPECT_EQ(run_query(connection, "first"), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), std::string("Error: ") + c.printed + "\n");
  EXPECT_EQ(run_query(connection, "second"), 0);
  EXPECT_EQ(connection->column_count, 0);
  EXPECT_EQ(connection->vector_size, 1024);
  client_disconnect(connection);
  ASSERT_TRUE(peer.join());
  ASSERT_EQ(peer.frames().size(), 2u);
  EXPECT_EQ(peer.frames()[1], query_frame("second", ""));
}

INSTANTIATE_TEST_SUITE_P(
    Codes, SessionErrorAck,
    testing::Values(
        ErrorAckCase{
            "InTable", 10, {"q", "1", "2", "bad"}, "Parse error in q at line 1, column 2: bad."},
        ErrorAckCase{
            "JustPastTheTable", 184, {"a", "b"}, "Unknown error code 184 (parameters: 'a', 'b')"},
        ErrorAckCase{"Huge", 100000, {}, "Unknown error code 100000 (no parameters)"},
        ErrorAckCase{"Negative", 0xFFFFFFFEu, {"x"}, "Unknown error code -2 (parameters: 'x')"}),
    [](const auto& info) { return std::string(info.param.name); });

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

}  // namespace
