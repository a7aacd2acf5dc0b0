// The built client against the reference server, run as a user runs it. The server runs inside
// the test on a free loopback port; every client run has a time limit.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "kernel/ltype.h"
#include "support/run_process.h"
#include "tools/refserver/server.h"

namespace {

using testing::HasSubstr;
namespace fs = std::filesystem;

// Each test runs a reference server on a thread of its own and the client in a home directory of
// its own.
class RefServerE2E : public testing::Test {
 protected:
  void SetUp() override {
    home_ = fs::temp_directory_path() / ("kest_e2e_" + std::to_string(std::random_device{}()));
    fs::create_directories(home_);
    types_init();
  }
  void TearDown() override {
    stop();
    fs::remove_all(home_);
  }

  void start(ServerOptions options = {}) {
    stop();
    options_ = std::move(options);
    options_.host = "127.0.0.1";
    options_.port = 0;
    const int32_t listener = server_listen(options_, &port_);
    ASSERT_GE(listener, 0);
    server_ = std::thread([this, listener] { server_serve(listener, options_, stop_); });
  }
  void stop() {
    stop_.store(true);
    if (server_.joinable()) server_.join();
    stop_.store(false);
  }

  ProcessResult client(std::vector<std::string> args,
                       std::optional<std::string> input = std::nullopt,
                       std::chrono::milliseconds limit = std::chrono::seconds(30),
                       std::chrono::milliseconds interrupt_after = std::chrono::milliseconds(0)) {
    std::vector<std::string> argv = {KEST_CLIENT_BIN, "-h", "127.0.0.1", "-P",
                                     std::to_string(port_)};
    argv.insert(argv.end(), args.begin(), args.end());
    ProcessOptions o;
    o.stdin_text = std::move(input);
    o.env = {{"HOME", home_.string()}, {"USERPROFILE", home_.string()}};
    o.time_limit = limit;
    o.interrupt_after = interrupt_after;
    return run_process(argv, o);
  }

  std::string write_file(const std::string& name, const std::string& text) {
    const fs::path p = home_ / name;
    std::ofstream(p, std::ios::binary) << text;
    return p.string();
  }

  fs::path home_;
  ServerOptions options_;
  uint16_t port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread server_;
};

// One column of every logical type, a nullable column and a constant.
const char* const kAllTypes =
    "Project(Array([i=3]), [b = bool(i), sc = schr(-(i)), uc = uchr(i), ss = ssht(i), "
    "us = usht(i), si = i, ui = uint(i), sl = slng(i), ul = ulng(i), h = s128(i), x = uidx(i), "
    "d1 = decimal(i, 2, 1), d2 = decimal(i, 4, 2), d4 = decimal(i, 9, 3), "
    "d8 = decimal(i, 18, 2), d16 = decimal(i, 30, 2), dd = asdbl(decimal(i, 10, 2)), "
    "f = flt(i), g = dbl(i), m = money(i), c = char('\\u20ac'), cs = char('abc'), v = str(i), "
    "dt = date(+(i, 738945)), tm = time('12:34:56.5', 1), ts = timestamp('2024-02-29 01:02:03'), "
    "ids = intervalds('1 01:01:01'), iym = intervalym('-1-2'), n = nullif(i, 1), k = 'const'])";

const std::vector<std::string> kTypeTexts = {
    "bool",          "schr",          "uchr",         "ssht",         "usht",
    "sint",          "uint",          "slng",         "ulng",         "s128",
    "uidx",          "decimal(2,1)",  "decimal(4,2)", "decimal(9,3)", "decimal(18,2)",
    "decimal(30,2)", "decimal(10,2)", "flt",          "dbl",          "money",
    "char(1)",       "char(3)",       "str",          "date",         "time(1)",
    "timestamp",     "intervalds",    "intervalym"};

const char* const kValueTexts[] = {
    "true", "-2",         "2.0",        "0.00",       "2.000", "$ 2.00", "\xE2\x82\xAC",
    "abc",  "2023-03-03", "12:34:56.5", "1 01:01:01", "-1-02", "const",  "2024-02-29 01:02:03"};

TEST_F(RefServerE2E, EveryOutputModeShowsEveryType) {
  start();
  for (const char* mode : {"ascii", "unicode", "raw", "html"}) {
    ProcessResult r = client({"-o", mode, "-e", kAllTypes});
    ASSERT_TRUE(r.exited) << mode << r.err;
    EXPECT_EQ(r.status, 0) << mode << r.err;
    for (const char* v : kValueTexts) EXPECT_THAT(r.out, HasSubstr(v)) << mode;
    if (std::string(mode) != "raw") {
      for (const std::string& t : kTypeTexts) EXPECT_THAT(r.out, HasSubstr(t)) << mode;
      EXPECT_THAT(r.out, HasSubstr("3 rows")) << mode;
    } else {  // the null prints empty, the constant repeats on every row
      EXPECT_THAT(r.out, HasSubstr("|0|const\n"));
      EXPECT_THAT(r.out, HasSubstr("-1-02||const\n"));
      EXPECT_THAT(r.out, HasSubstr("|2|const\n"));
    }
  }
}

TEST_F(RefServerE2E, ScriptsFromEveryInput) {
  start();
  const std::string script = "Array([i=2]);\nProject(Array([j=1]), [w = 'second']);\n";
  const std::string file = write_file("q.kest", script);
  for (const auto& [args, input] :
       std::vector<std::pair<std::vector<std::string>, std::optional<std::string>>>{
           {{"-r", "-e", script}, std::nullopt},
           {{"-r", "-f", file}, std::nullopt},
           {{"-r"}, script}}) {
    ProcessResult r = client(args, input);
    ASSERT_TRUE(r.exited) << r.err;
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "0\n1\nsecond\n");
  }
}

// Server errors print from the client's templates: one with several parameters, one in the
// acknowledgement, one in a data message after the head was printed. The server's codes for each
// fault of a query are the refserver evaluation test's concern.
TEST_F(RefServerE2E, ServerErrorsArriveAsText) {
  start();
  const struct {
    const char* query;
    const char* text;
  } cases[] = {
      {"Array([i=1)", "Error: Parse error in query at line 1, column 11: expected ']', found ')'."},
      {"Sort(x)", "Error: Unknown relation Sort."},
      {"Project(Array([i=1]), [z = /(i, 0)])", "Error: Division by zero."},
  };
  for (const auto& c : cases) {
    ProcessResult r = client({"-e", c.query});
    ASSERT_TRUE(r.exited) << c.query;
    EXPECT_EQ(r.status, -1) << c.query;
    EXPECT_THAT(r.out, HasSubstr(c.text)) << c.query;
  }
}

TEST_F(RefServerE2E, PingAndAuthentication) {
  const std::string key(64, 'k');
  ServerOptions o;
  o.passfile = write_file("server.key", key);
  o.key = key;
  start(o);
  ProcessResult r = client({"-a", write_file("right.key", key), "-p"});
  ASSERT_TRUE(r.exited);
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  r = client({"-a", write_file("wrong.key", std::string(64, 'w')), "-e", "Array([i=1])"});
  ASSERT_TRUE(r.exited);
  EXPECT_EQ(r.status, -1);
  EXPECT_THAT(r.out, HasSubstr("Error: Authentication failed: the key does not match."));
}

// Every fault the server can play, four rows to a data message.
TEST_F(RefServerE2E, FaultsEndTheClientWithAnError) {
  enum End { kOk, kFailed, kAborted };
  const struct {
    Fault fault;
    const char* expected;  // in standard output or standard error
    End end;
  } cases[] = {
      {Fault::close_after_ack, "connection closed by server", kFailed},
      {Fault::close_mid_frame, "Remote socket closed while receiving", kFailed},
      {Fault::reset, "", kFailed},
      {Fault::too_many_rows, "Received more tuples than vectorsize. Aborting.", kFailed},
      {Fault::unknown_type, "Unknown type: nosuchtype", kAborted},
      {Fault::short_frame, "network error while reading ack", kFailed},
      {Fault::huge_frame, "network error while reading ack", kFailed},
      // Messages that arrive one byte at a time read like whole ones.
      {Fault::byte_by_byte, "0|0\n1|1\n2|2\n3|3\n4|4\n5|5\n6|6\n7|7\n8|8\n9|9\n", kOk},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.expected);
    ServerOptions o;
    o.fault = c.fault;
    o.vector_size = 4;
    start(o);
    ProcessResult r = client({"-r", "-e", "Project(Array([i=10]), [i, s = str(i)])"}, std::nullopt,
                             std::chrono::seconds(20));
    EXPECT_FALSE(r.timed_out);
    EXPECT_THAT(r.out + r.err, HasSubstr(c.expected));
    if (c.end == kAborted) {  // abort(): a signal on POSIX, exit code 3 on Windows
      EXPECT_TRUE(!r.exited || r.raw_code == 3) << r.err;
    } else {
      ASSERT_TRUE(r.exited) << r.err;
      EXPECT_EQ(r.status, c.end == kOk ? 0 : -1);
    }
    if (c.end == kOk) {
      EXPECT_EQ(r.out, c.expected);
    }
  }
}

// A query may run for hours, so the client has no time-out of its own; an interrupt is how a user
// stops the wait, and it must end the client at once and not as a success.
TEST_F(RefServerE2E, InterruptEndsTheWaitForAServerThatNeverAnswers) {
  ServerOptions o;
  o.fault = Fault::no_answer;
  start(o);
  const auto begin = std::chrono::steady_clock::now();
  ProcessResult r = client({"-e", "Array([i=1])"}, std::nullopt, std::chrono::seconds(4),
                           std::chrono::milliseconds(800));
  const auto took = std::chrono::steady_clock::now() - begin;
  // Without an interrupt for a child (Windows), the client still waits when its time is up.
  if (!r.interrupted && r.timed_out) GTEST_SKIP() << "no console interrupt for a child here";
  EXPECT_TRUE(r.interrupted) << "the client ended before the interrupt: " << r.err;
  EXPECT_FALSE(r.timed_out);
  EXPECT_TRUE(!r.exited || r.status != 0);
  EXPECT_LT(took, std::chrono::seconds(3));
}

}  // namespace
