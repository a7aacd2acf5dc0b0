#include "tools/standalone_client/reception.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "kernel/ltype.h"
#include "support/scripted_peer.h"
#include "support/temp_dir.h"
#include "tools/standalone_client/client_globals.h"
#include "tools/standalone_client/connection.h"
#include "tools/standalone_client/printer.h"
#include "utils/netbuffer.h"

#if __has_include(<unistd.h>)
#include <unistd.h>
#endif

using kest_test::ack;
using kest_test::be32;
using kest_test::data;
using kest_test::frame;
using kest_test::raw;
using kest_test::ScriptedPeer;
using kest_test::var;
using testing::HasSubstr;

namespace {

const kest_test::Column kInt{"a", "sint", "sint"};

// A connection to a scripted peer, as run_query holds it while reading results.
struct Client {
  ClientConnection conn{};
  explicit Client(const ScriptedPeer& peer) {
    conn.socket = peer.connect_client();
    NetBufferInit(&conn.netbuf, conn.socket);
  }
  ~Client() {
    query_finish(&conn.result);
    NetBufferClose(&conn.netbuf);
  }
  QueryAck ack() {
    QueryAck ack{};
    EXPECT_EQ(NetBufferRecv(&conn.netbuf), 1);
    receive_ack(&conn.result, &conn.netbuf, &ack);
    conn.column_count = ack.column_count;
    conn.vector_size = ack.vector_size;
    return ack;
  }
};

class Reception : public testing::Test {
 protected:
  void SetUp() override {
    types_init();
    saved_print_ = print_results;
    saved_mode_ = output_mode_code;
    print_results = 0;
    output_mode_code = OutputMode::kRaw;
  }
  void TearDown() override {
    print_results = saved_print_;
    output_mode_code = saved_mode_;
  }
  int saved_print_ = 1;
  OutputMode saved_mode_ = OutputMode::kAscii;
};

// Fixed-size, text and constant columns over two messages, then an error record after the rows.
TEST_F(Reception, ServerErrorInTheStreamIsPrintedAndFailsTheQuery) {
  print_results = 1;
  const std::string long_text(300, 'w');
  ScriptedPeer peer;
  peer.send(ack(3, {kInt, {"b", "slng", "slng", 1}, {"s", "str", "str"}, {"k", "str", "str", 1}}) +
            data(3, raw<int32_t>({1, -2, 3}) + raw<int64_t>({77}) + var("abc") + var("") +
                        var("x y") + var("K")) +
            data(1, raw<int32_t>({9}) + raw<int64_t>({-1}) + var(long_text) + var("")) +
            kest_test::error_record(21, {}));
  peer.start();
  Client client(peer);
  testing::internal::CaptureStdout();
  client.ack();
  ASSERT_NE(client.conn.result.printer, nullptr);
  EXPECT_EQ(receive_data(&client.conn), 3) << "a row count equal to the vector size is accepted";
  EXPECT_EQ(receive_data(&client.conn), 1);
  EXPECT_EQ(receive_data(&client.conn), -1);
  query_finish(&client.conn.result);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "1|77|abc|K\n-2|77||K\n3|77|x y|K\n9|-1|" + long_text + "|\nError: Division by zero.\n")
      << "the error line follows the rows printed before it";
  EXPECT_TRUE(peer.join());
}

// Rows are on their way to the screen before the client waits for more: standard output goes to
// a file, and the peer holds the end of the results back until the first rows are in it.
TEST_F(Reception, RowsReachTheScreenBeforeTheClientWaitsForMore) {
  print_results = 1;
  const kest_test::TempDir dir("kest_rows");
  const std::string path = (dir / "stdout").string();
  std::fflush(stdout);
  const int saved_stdout = dup(1);
  FILE* file = std::fopen(path.c_str(), "wb");
  ASSERT_NE(file, nullptr);
  dup2(fileno(file), 1);
  std::fclose(file);
  const auto rows_arrived = [&path] {
    for (int i = 0; i < 1000; ++i) {  // at most ten seconds
      if (kest_test::read_file(path) == "42\n") return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  };
  ScriptedPeer peer;
  peer.send(ack(8, {kInt}) + data(1, raw<int32_t>({42}))).then(rows_arrived).send(data(0));
  peer.start();
  Client client(peer);
  client.ack();
  EXPECT_EQ(receive_data(&client.conn), 1);
  EXPECT_EQ(receive_data(&client.conn), 0);
  std::fflush(stdout);
  dup2(saved_stdout, 1);
  close(saved_stdout);
  EXPECT_TRUE(peer.join()) << "the rows never reached standard output while the client waited";
}

TEST(ReceptionDeathTest, NegativeColumnCountEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  types_init();
  NetBuffer nb{};
  kest_test::hold_message(&nb, be32(0) + be32(0xFFFFFFFFu) + be32(8));
  QueryAck ack{};
  QueryResult result{};
  EXPECT_DEATH(receive_ack(&result, &nb, &ack),
               "KESTCLIENT:assertion \"queryres.name && queryres.type");
  NetBufferClose(&nb);
}

}  // namespace
