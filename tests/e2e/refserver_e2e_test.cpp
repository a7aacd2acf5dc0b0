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
using testing::Not;
namespace fs = std::filesystem;

// A reference server on a thread of the test, stopped and joined by the destructor.
class ServerThread {
 public:
  explicit ServerThread(ServerOptions options) : options_(std::move(options)) {
    types_init();
    options_.host = "127.0.0.1";
    options_.port = 0;
    const int32_t listener = server_listen(options_, &port_);
    EXPECT_GE(listener, 0);
    if (listener >= 0)
      thread_ = std::thread([this, listener] { server_serve(listener, options_, stop_); });
  }
  ~ServerThread() {
    stop_.store(true);
    if (thread_.joinable()) thread_.join();
  }
  std::string port() const { return std::to_string(port_); }

 private:
  ServerOptions options_;
  uint16_t port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

class RefServerE2E : public testing::Test {
 protected:
  void SetUp() override {
    home_ = fs::temp_directory_path() / ("kest_e2e_" + std::to_string(std::random_device{}()));
    fs::create_directories(home_);
  }
  void TearDown() override { fs::remove_all(home_); }

  void start(ServerOptions options = {}) {
    server_ = std::make_unique<ServerThread>(std::move(options));
  }

  ProcessResult client(std::vector<std::string> args,
                       std::optional<std::string> input = std::nullopt,
                       std::chrono::milliseconds limit = std::chrono::seconds(30),
                       std::chrono::milliseconds interrupt_after = std::chrono::milliseconds(0)) {
    std::vector<std::string> argv = {KEST_CLIENT_BIN, "-h", "127.0.0.1", "-P", server_->port()};
    argv.insert(argv.end(), args.begin(), args.end());
    ProcessOptions o;
    o.stdin_text = std::move(input);
    o.env = {{"HOME", home_.string()}, {"USERPROFILE", home_.string()}};
    o.time_limit = limit;
    o.interrupt_after = interrupt_after;
    ProcessResult r = run_process(argv, o);
    std::erase(r.out, '\r');  // the Windows client writes text-mode line ends
    return r;
  }

  std::string write_file(const std::string& name, const std::string& text) {
    const fs::path p = home_ / name;
    std::ofstream(p, std::ios::binary) << text;
    return p.string();
  }

  fs::path home_;
  std::unique_ptr<ServerThread> server_;
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

const std::vector<std::string> kValueTexts = {"true",
                                              "-2",
                                              "2.0",
                                              "0.00",
                                              "2.000",
                                              "$ 2.00",
                                              "\xE2\x82\xAC",
                                              "abc",
                                              "2023-03-03",
                                              "12:34:56.5",
                                              "2024-02-29 01:02:03",
                                              "1 01:01:01",
                                              "-1-02",
                                              "const"};

TEST_F(RefServerE2E, EveryOutputModeShowsEveryType) {
  start();
  for (const char* mode : {"ascii", "unicode", "raw", "html"}) {
    ProcessResult r = client({"-o", mode, "-e", kAllTypes});
    ASSERT_TRUE(r.exited) << mode << r.err;
    EXPECT_EQ(r.status, 0) << mode << r.err;
    for (const std::string& v : kValueTexts) EXPECT_THAT(r.out, HasSubstr(v)) << mode;
    if (std::string(mode) != "raw") {
      for (const std::string& t : kTypeTexts) EXPECT_THAT(r.out, HasSubstr(t)) << mode;
      EXPECT_THAT(r.out, HasSubstr("3 rows")) << mode;
    }
  }
}

TEST_F(RefServerE2E, NullsPrintEmptyAndConstantsRepeat) {
  start();
  ProcessResult r = client({"-r", "-e", "Project(Array([i=3]), [n = nullif(i, 1), k = 'c'])"});
  ASSERT_TRUE(r.exited);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("0|c\n|c\n2|c\n"));
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
    EXPECT_THAT(r.out, HasSubstr("0\n1\n"));
    EXPECT_THAT(r.out, HasSubstr("second"));
  }
}

TEST_F(RefServerE2E, FailingQueriesStopTheRunUnlessIgnored) {
  start();
  const std::string script = "Array([i=1]); Sort(x); Project(Array([i=1]), [w = 'after'])";
  ProcessResult r = client({"-r", "-e", script});
  ASSERT_TRUE(r.exited);
  EXPECT_NE(r.status, 0);
  EXPECT_THAT(r.out, HasSubstr("Error: Unknown relation Sort."));
  EXPECT_THAT(r.out, Not(HasSubstr("after")));
  r = client({"-r", "-i", "-e", script + "; Project(Array([i=1]), [z = /(i, 0)])"});
  ASSERT_TRUE(r.exited);
  EXPECT_NE(r.status, 0);
  EXPECT_THAT(r.out, HasSubstr("after"));
  EXPECT_THAT(r.out, HasSubstr("Error: Division by zero."));
}

TEST_F(RefServerE2E, ServerErrorsArriveAsText) {
  start();
  const struct {
    const char* query;
    const char* text;
  } cases[] = {
      {"Array([i=1)", "Error: Parse error in query at line 1, column 11: expected ']', found ')'."},
      {"Project(Array([i=1]), [x = j])", "Error: Unknown column j."},
      {"Project(Array([i=1]), [x = +(i, 'a')])",
       "Error: Type mismatch: + expects a number, got str."},
      {"Project(Array([i=1]), [x = frob(i)])", "Error: Unknown operator or function frob."},
      {"Project(Array([i=1]), [x = sint('z')])", "Error: 'z' does not read as a number."},
      {"Project(Array([i=1]), [x = bool('z')])", "Error: 'z' does not read as a boolean."},
      {"Project(Array([i=1]), [x = money('z')])", "Error: 'z' is not a money value."},
      {"Project(Array([i=1]), [x = date(true)])",
       "Error: Cannot convert 'date' from bool to date."},
  };
  for (const auto& c : cases) {
    ProcessResult r = client({"-e", c.query});
    ASSERT_TRUE(r.exited) << c.query;
    EXPECT_NE(r.status, 0) << c.query;
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
  EXPECT_NE(r.status, 0);
  EXPECT_THAT(r.out, HasSubstr("Error: Authentication failed: the key does not match."));
}

struct FaultCase {
  Fault fault;
  const char* expected;  // in standard output or standard error
  bool client_aborts;
};

TEST_F(RefServerE2E, FaultsEndTheClientWithAnError) {
  const FaultCase cases[] = {
      {Fault::close_after_ack, "connection closed by server", false},
      {Fault::close_mid_frame, "Remote socket closed while receiving", false},
      {Fault::reset, "", false},
      {Fault::too_many_rows, "Received more tuples than vectorsize. Aborting.", false},
      {Fault::unknown_type, "Unknown type: nosuchtype", true},
      {Fault::short_frame, "network error while reading ack", false},
      {Fault::huge_frame, "network error while reading ack", false},
  };
  for (const FaultCase& c : cases) {
    ServerOptions o;
    o.fault = c.fault;
    o.vector_size = 4;
    start(o);
    ProcessResult r = client({"-e", "Array([i=10])"}, std::nullopt, std::chrono::seconds(20));
    EXPECT_FALSE(r.timed_out) << c.expected;
    EXPECT_THAT(r.out + r.err, HasSubstr(c.expected));
    // abort() ends the process by a signal on POSIX and with exit code 3 on Windows.
    EXPECT_TRUE(!r.exited || r.status != 0) << c.expected;
    if (!c.client_aborts) {
      EXPECT_TRUE(r.exited) << c.expected << r.err;
    }
    server_.reset();
  }
}

TEST_F(RefServerE2E, ByteByByteMessagesReadLikeWholeOnes) {
  ServerOptions o;
  o.fault = Fault::byte_by_byte;
  start(o);
  ProcessResult r = client({"-r", "-e", "Project(Array([i=3]), [i, s = str(i)])"});
  ASSERT_TRUE(r.exited) << r.err;
  EXPECT_EQ(r.status, 0);
  EXPECT_THAT(r.out, HasSubstr("0|0\n1|1\n2|2\n"));
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
  if (!r.interrupted && r.timed_out) GTEST_SKIP() << "no console interrupt for a child here";
  EXPECT_TRUE(r.interrupted) << "the client ended before the interrupt: " << r.err;
  EXPECT_FALSE(r.timed_out);
  EXPECT_TRUE(!r.exited || r.status != 0);
  EXPECT_LT(took, std::chrono::seconds(3));
}

}  // namespace
