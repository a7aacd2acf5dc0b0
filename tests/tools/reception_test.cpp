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

using kest_test::be32;
using kest_test::frame;
using kest_test::ScriptedPeer;
using kest_test::var;
using testing::HasSubstr;

namespace {

struct Col {
  std::string name;
  bool isconst;
  std::string ltype;
  std::string ptype;
};

std::string ack_body(int32_t vector_size, const std::vector<Col>& cols) {
  std::string body =
      be32(0) + be32(static_cast<uint32_t>(cols.size())) + be32(static_cast<uint32_t>(vector_size));
  for (const auto& c : cols) body += var(c.name);
  for (const auto& c : cols) body += be32(c.isconst ? 1 : 0) + var(c.ltype) + var(c.ptype);
  return body;
}

std::string data_frame(int32_t rows, const std::string& blocks = "") {
  return frame(be32(0) + be32(static_cast<uint32_t>(rows)) + blocks);
}

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

TEST_F(Reception, ZeroColumnsCarryOnlyStatusAndRowCount) {
  ScriptedPeer peer;
  peer.send(frame(ack_body(1024, {})) + data_frame(5) + data_frame(0));
  peer.start();
  Client client(peer);
  const QueryAck ack = client.ack();
  EXPECT_FALSE(ack.is_error);
  EXPECT_EQ(ack.column_count, 0);
  EXPECT_EQ(ack.vector_size, 1024);
  ASSERT_NE(queryres.name, nullptr);
  EXPECT_EQ(queryres.name[0], nullptr);
  EXPECT_EQ(receive_data(&client.conn), 5);
  EXPECT_EQ(receive_data(&client.conn), 0);
  EXPECT_TRUE(peer.join());
}

TEST_F(Reception, FixedAndConstantColumnsFillTheirAreasPerMessage) {
  const std::vector<Col> cols = {{"a", false, "sint", "sint"},
                                 {"b", true, "slng", "slng"},
                                 {"price", false, "decimal(12,2)", "slng"}};
  ScriptedPeer peer;
  peer.send(
      frame(ack_body(4, cols)) +
      data_frame(3, raw<int32_t>({1, -2, 3}) + raw<int64_t>({77}) + raw<int64_t>({100, 250, -5})) +
      data_frame(4, raw<int32_t>({9, 8, 7, 6}) + raw<int64_t>({-1}) + raw<int64_t>({1, 2, 3, 4})) +
      data_frame(5, raw<int32_t>({0, 0, 0, 0, 0})));
  peer.start();
  Client client(peer);
  const QueryAck ack = client.ack();
  ASSERT_EQ(ack.column_count, 3);
  EXPECT_STREQ(queryres.name[2], "price");
  EXPECT_EQ(queryres.name[3], nullptr);
  EXPECT_EQ(ltype_id(queryres.ltype[0]), LTYPE_SINT);
  EXPECT_EQ(ltype_id(queryres.ltype[2]), LTYPE_DECIMAL);
  EXPECT_STREQ(queryres.type[1]->name, "slng");
  EXPECT_EQ(queryres.width[0], 4);
  EXPECT_EQ(queryres.width[1], 8);
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

TEST_F(Reception, NegativeRowCountFailsTheQuery) {
  ScriptedPeer peer;
  peer.send(frame(ack_body(8, {{"a", false, "sint", "sint"}})) + data_frame(-1));
  peer.start();
  Client client(peer);
  client.ack();
  EXPECT_EQ(receive_data(&client.conn), -1);
  EXPECT_TRUE(peer.join());
}

TEST_F(Reception, TextValuesReachThePrinterIncludingTheEmptyOne) {
  print_results = 1;
  const std::string long_text(300, 'w');
  ScriptedPeer peer;
  peer.send(frame(ack_body(8, {{"s", false, "str", "str"}, {"k", true, "varchar(3)", "str"}})) +
            data_frame(3, var("abc") + var("") + var("x y") + var("K")) +
            data_frame(1, var(long_text) + var("")) + data_frame(0));
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
  peer.send(frame(ack_body(8, {{"a", false, "sint", "sint"}})) +
            data_frame(2, raw<int32_t>({1, 2})) + frame(be32(0xFFFFFFFFu) + be32(21) + be32(0)));
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
  peer.send(frame(ack_body(8, {{"a", false, "sint", "sint"}})) + data_frame(1, raw<int32_t>({42})))
      .then([&out] { return out.wait_for("42\n"); })
      .send(data_frame(0));
  peer.start();
  Client client(peer);
  client.ack();
  EXPECT_EQ(receive_data(&client.conn), 1);
  EXPECT_EQ(receive_data(&client.conn), 0);
  EXPECT_TRUE(peer.join()) << "the rows never reached standard output while the client waited";
}

struct Cutoff {
  const char* name;
  std::string tail;  // what follows one good data message before the peer closes
  const char* log;
};

class ReceptionCutoff : public Reception, public testing::WithParamInterface<Cutoff> {};

TEST_P(ReceptionCutoff, PeerClosingMidStreamFailsTheQuery) {
  const Cutoff& c = GetParam();
  ScriptedPeer peer;
  peer.send(frame(ack_body(8, {{"a", false, "sint", "sint"}})) + data_frame(1, raw<int32_t>({5})) +
            c.tail);
  peer.close();
  peer.start();
  Client client(peer);
  client.ack();
  EXPECT_EQ(receive_data(&client.conn), 1);
  testing::internal::CaptureStderr();
  EXPECT_EQ(receive_data(&client.conn), -1);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(c.log));
  EXPECT_TRUE(peer.join());
}

INSTANTIATE_TEST_SUITE_P(
    Ends, ReceptionCutoff,
    testing::Values(Cutoff{"BetweenMessages", "", "connection closed by server"},
                    Cutoff{"InsideAMessage", be32(40) + be32(0), "network error"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ReceptionError, RecordCarriesCodeAndParameters) {
  NetBuffer nb{};
  kest_test::hold_message(&nb, be32(26) + be32(3) + var("12x") + var("") + var("sint"));
  ErrorRecord* record = receive_error(&nb);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->code, 26);
  ASSERT_EQ(record->num_err_params, 3);
  EXPECT_STREQ(record->params[0], "12x");
  EXPECT_STREQ(record->params[1], "");
  EXPECT_STREQ(record->params[2], "sint");
  EXPECT_EQ(nb.pos, nb.used);
  free_error(record);

  kest_test::hold_message(&nb, be32(0xFFFFFFFFu) + be32(10) + be32(0xFFFFFFFFu));
  QueryAck ack{};
  receive_ack(&nb, &ack);
  ASSERT_TRUE(ack.is_error);
  ASSERT_NE(ack.error, nullptr);
  EXPECT_EQ(ack.error->code, 10);
  EXPECT_EQ(ack.error->num_err_params, 0) << "a negative count reads no parameter";
  EXPECT_EQ(ack.column_count, 0);
  EXPECT_EQ(queryres.name, nullptr);
  free_error(ack.error);
  NetBufferClose(&nb);
}

TEST(ReceptionError, UnknownCodesNeverIndexTheTable) {
  const char* params[] = {"a", nullptr};
  ErrorRecord record{};
  record.params = const_cast<char**>(params);
  record.num_err_params = 2;
  for (int32_t code : {-1, 184, 1 << 30}) {
    record.code = code;
    EXPECT_EQ(server_error_text(&record),
              "Unknown error code " + std::to_string(code) + " (parameters: 'a', null)");
  }
  record.code = 21;
  EXPECT_EQ(server_error_text(&record), "Division by zero.");
}

struct AckDeath {
  const char* name;
  std::string body;
  const char* message;  // regular expression
};

class ReceptionDeathTest : public testing::TestWithParam<AckDeath> {};

TEST_P(ReceptionDeathTest, BadAcknowledgementEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  types_init();
  const AckDeath& c = GetParam();
  NetBuffer nb{};
  kest_test::hold_message(&nb, c.body);
  QueryAck ack{};
  EXPECT_DEATH(receive_ack(&nb, &ack), c.message);
  NetBufferClose(&nb);
}

INSTANTIATE_TEST_SUITE_P(
    Acks, ReceptionDeathTest,
    testing::Values(
        AckDeath{"UnknownPhysicalType", ack_body(8, {{"a", false, "sint", "blob"}}),
                 "KESTCLIENT:Unknown type: blob"},
        AckDeath{"LogicalTypeTextOfSixtyFourBytes",
                 ack_body(8, {{"a", false, std::string(64, 'v'), "sint"}}),
                 "KESTCLIENT:assertion \"NetBufferGetLen\\(netbuf\\) < MAX_TYPE_NAME\" failed"},
        AckDeath{"NegativeColumnCount", be32(0) + be32(0xFFFFFFFFu) + be32(8),
                 "KESTCLIENT:assertion \"queryres.name && queryres.type"},
        AckDeath{"NamesRunPastTheMessage", be32(0) + be32(2) + be32(8) + var("only"),
                 "NETBUFFER:assertion"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(Reception, LogicalTypeTextOfSixtyThreeBytesIsAccepted) {
  NetBuffer nb{};
  kest_test::hold_message(&nb, ack_body(8, {{"a", false, std::string(63, 'v'), "sint"}}));
  QueryAck ack{};
  testing::internal::CaptureStderr();
  receive_ack(&nb, &ack);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(ack.column_count, 1);
  EXPECT_EQ(queryres.width[0], 4);
  NetBufferClose(&nb);
}

}  // namespace
