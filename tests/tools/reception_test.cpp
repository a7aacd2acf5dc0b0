#include "tools/standalone_client/reception.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "kernel/ltype.h"
#include "support/scripted_peer.h"
#include "tools/standalone_client/client_globals.h"
#include "tools/standalone_client/printer.h"
#include "tools/standalone_client/session.h"
#include "utils/netbuffer.h"

#if __has_include(<unistd.h>)
#include <unistd.h>
#endif

using kest_test::ack;
using kest_test::be32;
using kest_test::data;
using kest_test::frame;
using kest_test::ScriptedPeer;
using kest_test::var;
using testing::HasSubstr;

namespace {

const kest_test::Column kInt{"a", "sint", "sint"};

// Fixed-size values travel in the host's own byte order.
template <typename T>
std::string raw(std::initializer_list<T> values) {
  std::string out;
  for (T v : values) out.append(reinterpret_cast<const char*>(&v), sizeof v);
  return out;
}

template <typename T>
std::vector<T> column_values(int column, size_t count) {
  std::vector<T> out(count);
  std::memcpy(out.data(), queryres.data[column], count * sizeof(T));
  return out;
}

// A connection to a scripted peer, as run_query holds it while reading results.
struct Client {
  ClientConnection conn{};
  explicit Client(const ScriptedPeer& peer) {
    conn.socket = peer.connect_client();
    NetBufferInit(&conn.netbuf, conn.socket);
  }
  ~Client() { NetBufferClose(&conn.netbuf); }
  QueryAck ack() {
    QueryAck ack{};
    EXPECT_EQ(NetBufferRecv(&conn.netbuf), 1);
    receive_ack(&conn.netbuf, &ack);
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
    output_mode_code = OUTPUT_RAW;
  }
  void TearDown() override {
    if (queryres.printer) printer_close(queryres.printer);
    queryres.printer = nullptr;
    queryres_free();
    print_results = saved_print_;
    output_mode_code = saved_mode_;
  }
  int saved_print_ = 1;
  int saved_mode_ = 0;
};

TEST_F(Reception, FixedAndConstantColumnsFillTheirAreasPerMessage) {
  ScriptedPeer peer;
  peer.send(ack(4, {kInt, {"b", "slng", "slng", 1}, {"price", "decimal(12,2)", "slng"}}) +
            data(3, raw<int32_t>({1, -2, 3}) + raw<int64_t>({77}) + raw<int64_t>({100, 250, -5})) +
            data(4, raw<int32_t>({9, 8, 7, 6}) + raw<int64_t>({-1}) + raw<int64_t>({1, 2, 3, 4})) +
            data(5, raw<int32_t>({0, 0, 0, 0, 0})));
  peer.start();
  Client client(peer);
  const QueryAck ack = client.ack();
  ASSERT_EQ(ack.column_count, 3);
  EXPECT_EQ(ack.vector_size, 4);
  EXPECT_STREQ(queryres.name[2], "price");
  EXPECT_EQ(queryres.name[3], nullptr);
  EXPECT_EQ(ltype_id(queryres.ltype[2]), LTYPE_DECIMAL);
  EXPECT_STREQ(queryres.type[1]->name, "slng");
  EXPECT_EQ(queryres.isconst[1], 1);

  ASSERT_EQ(receive_data(&client.conn), 3);
  EXPECT_EQ(column_values<int32_t>(0, 3), (std::vector<int32_t>{1, -2, 3}));
  EXPECT_EQ(column_values<int64_t>(1, 1), (std::vector<int64_t>{77}));
  EXPECT_EQ(column_values<int64_t>(2, 3), (std::vector<int64_t>{100, 250, -5}));

  ASSERT_EQ(receive_data(&client.conn), 4) << "a row count equal to the vector size is accepted";
  EXPECT_EQ(column_values<int32_t>(0, 4), (std::vector<int32_t>{9, 8, 7, 6}));
  EXPECT_EQ(column_values<int64_t>(1, 1), (std::vector<int64_t>{-1}));

  testing::internal::CaptureStderr();
  EXPECT_EQ(receive_data(&client.conn), -1);
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              HasSubstr("Received more tuples than vectorsize. Aborting."));
  EXPECT_EQ(column_values<int32_t>(0, 4), (std::vector<int32_t>{9, 8, 7, 6}))
      << "a refused message leaves the areas alone";
  EXPECT_TRUE(peer.join());
}

TEST_F(Reception, TextValuesReachThePrinterIncludingTheEmptyOne) {
  print_results = 1;
  const std::string long_text(300, 'w');
  ScriptedPeer peer;
  peer.send(ack(8, {{"s", "str", "str"}, {"k", "varchar(3)", "str", 1}}) +
            data(3, var("abc") + var("") + var("x y") + var("K")) +
            data(1, var(long_text) + var("")) + data(0));
  peer.start();
  Client client(peer);
  testing::internal::CaptureStdout();
  client.ack();
  ASSERT_NE(queryres.printer, nullptr);
  EXPECT_EQ(receive_data(&client.conn), 3);
  EXPECT_EQ(receive_data(&client.conn), 1);
  EXPECT_EQ(receive_data(&client.conn), 0);
  printer_close(queryres.printer);
  queryres.printer = nullptr;
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "abc|K\n|K\nx y|K\n" + long_text + "|\n");
  EXPECT_TRUE(peer.join());
}

TEST_F(Reception, ServerErrorInTheStreamIsPrintedAndFailsTheQuery) {
  print_results = 1;
  ScriptedPeer peer;
  peer.send(ack(8, {kInt}) + data(2, raw<int32_t>({1, 2})) + kest_test::error_record(21, {}));
  peer.start();
  Client client(peer);
  client.ack();
  testing::internal::CaptureStdout();
  EXPECT_EQ(receive_data(&client.conn), 2);
  EXPECT_EQ(receive_data(&client.conn), -1);
  printer_close(queryres.printer);
  queryres.printer = nullptr;
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "1\n2\nError: Division by zero.\n")
      << "the error line follows the rows printed before it";
  EXPECT_TRUE(peer.join());
}

// Standard output sent to a file for the life of the object, so that another thread can read
// what has reached it.
class StdoutToFile {
 public:
  explicit StdoutToFile(std::string path) : path_(std::move(path)) {
    std::fflush(stdout);
    saved_ = dup(1);
    FILE* file = std::fopen(path_.c_str(), "wb");
    dup2(fileno(file), 1);
    std::fclose(file);
  }
  ~StdoutToFile() {
    std::fflush(stdout);
    dup2(saved_, 1);
    close(saved_);
    std::filesystem::remove(path_);
  }
  // Waits, at most ten seconds, until the file holds `text`.
  bool wait_for(const std::string& text) const {
    for (int i = 0; i < 1000; ++i) {
      std::ostringstream got;
      got << std::ifstream(path_, std::ios::binary).rdbuf();
      if (got.str().find(text) != std::string::npos) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }

 private:
  std::string path_;
  int saved_ = -1;
};

// Rows are on their way to the screen before the client waits for more: the peer holds the end
// of the results back until the first message's rows have reached standard output.
TEST_F(Reception, RowsReachTheScreenBeforeTheClientWaitsForMore) {
  print_results = 1;
  const StdoutToFile out(
      (std::filesystem::temp_directory_path() /
       ("kest_rows_" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) + ".txt"))
          .string());
  ScriptedPeer peer;
  peer.send(ack(8, {kInt}) + data(1, raw<int32_t>({42})))
      .then([&out] { return out.wait_for("42\n"); })
      .send(data(0));
  peer.start();
  Client client(peer);
  client.ack();
  EXPECT_EQ(receive_data(&client.conn), 1);
  EXPECT_EQ(receive_data(&client.conn), 0);
  EXPECT_TRUE(peer.join()) << "the rows never reached standard output while the client waited";
}

TEST_F(Reception, PeerClosingMidStreamFailsTheQuery) {
  const struct {
    std::string tail;  // what follows one good data message before the peer closes
    const char* log;
  } cases[] = {{"", "connection closed by server"}, {be32(40) + be32(0), "network error"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.log);
    ScriptedPeer peer;
    peer.send(ack(8, {kInt}) + data(1, raw<int32_t>({5})) + c.tail).close();
    peer.start();
    Client client(peer);
    client.ack();
    EXPECT_EQ(receive_data(&client.conn), 1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(receive_data(&client.conn), -1);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(c.log));
    EXPECT_TRUE(peer.join());
    queryres_free();
  }
}

TEST_F(Reception, ErrorAcknowledgementWithANegativeCountReadsNoParameter) {
  NetBuffer nb{};
  kest_test::hold_message(&nb, be32(0xFFFFFFFFu) + be32(10) + be32(0xFFFFFFFFu));
  QueryAck ack{};
  receive_ack(&nb, &ack);
  ASSERT_TRUE(ack.is_error);
  ASSERT_NE(ack.error, nullptr);
  EXPECT_EQ(ack.error->code, 10);
  EXPECT_EQ(ack.error->num_err_params, 0);
  EXPECT_EQ(ack.column_count, 0);
  EXPECT_EQ(queryres.name, nullptr);
  EXPECT_EQ(nb.pos, nb.used);
  free_error(ack.error);
  NetBufferClose(&nb);
}

TEST(ReceptionDeathTest, NegativeColumnCountEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  types_init();
  NetBuffer nb{};
  kest_test::hold_message(&nb, be32(0) + be32(0xFFFFFFFFu) + be32(8));
  QueryAck ack{};
  EXPECT_DEATH(receive_ack(&nb, &ack), "KESTCLIENT:assertion \"queryres.name && queryres.type");
  NetBufferClose(&nb);
}

}  // namespace
