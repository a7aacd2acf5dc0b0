#include "utils/znlog.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/temp_dir.h"
#include "utils/platform.h"

namespace {

namespace fs = std::filesystem;

// Every file of these tests lies here.
const kest_test::TempDir& temp_dir() {
  static const kest_test::TempDir dir("kest_znlog");
  return dir;
}
fs::path temp_path(const std::string& name) { return temp_dir() / name; }

// The log file is opened in text mode, so on Windows its lines end in CR LF: folded back here.
std::string read_log(const fs::path& p) {
  std::string text = kest_test::read_file(p);
  for (size_t i; (i = text.find("\r\n")) != std::string::npos;) text.erase(i, 1);
  return text;
}

std::string pid_field() {
  char pid[16];
  std::snprintf(pid, sizeof pid, "PID%6d:", current_process_id());
  return pid;
}

// A stream backed by a named temporary file, read back byte for byte.
class CapturedStream {
 public:
  explicit CapturedStream(const std::string& name) : path_(temp_path(name)) {
    stream_ = std::fopen(path_.string().c_str(), "w+b");
  }
  ~CapturedStream() {
    if (stream_) std::fclose(stream_);
    fs::remove(path_);
  }
  std::FILE* get() const { return stream_; }
  std::string text() const {
    std::fflush(stream_);
    return kest_test::read_file(path_);
  }
  // What another reader sees without this writer flushing first.
  std::string unflushed_text() const { return kest_test::read_file(path_); }

 private:
  fs::path path_;
  std::FILE* stream_ = nullptr;
};

class Logger : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(out_.get() && err_.get()); }
  void TearDown() override {
    platform_setenv("ZNLOG_DIRECTORY", nullptr);
    zn_log_reset_for_tests("", nullptr, nullptr);
  }
  void configure(const std::string& text) {
    zn_log_reset_for_tests(text.c_str(), out_.get(), err_.get());
  }

  CapturedStream out_{"out"};
  CapturedStream err_{"err"};
};

TEST_F(Logger, WithoutConfigurationInfoAndAboveGoToStandardError) {
  configure("");
  __zn_log("f.cpp", 1, "ZNCONFIG", ZN_ERROR, "bad %d", 1);
  __zn_log("f.cpp", 2, "ZNCONFIG", ZN_WARN, "careful");
  __zn_log("f.cpp", 3, "ZNCONFIG", ZN_INFO, "note");
  __zn_log("f.cpp", 4, "ZNCONFIG", ZN_DEBUG, "dropped");
  __zn_log("f.cpp", 6, nullptr, ZN_INFO, "no facility");
  EXPECT_EQ(err_.text(),
            "ERROR:ZNCONFIG:bad 1\n"
            "# WARN:ZNCONFIG:careful\n"
            "#ZNCONFIG:note\n"
            "#no facility\n");
  EXPECT_EQ(out_.text(), "");
}

// A program's default level (kest_client --quiet sets warn) replaces info where the configuration
// text names no level: set before the logger configures itself or after, the rules come out the
// same; a level the text names is kept.
TEST_F(Logger, ProgramDefaultLevelYieldsToLevelsTheTextNames) {
  const struct {
    const char* text;
    const char* expected;
  } cases[] = {
      {"", "# WARN:A:w\n# WARN:B:w\n"},
      {"default = info", "# WARN:A:w\n#A:i\n# WARN:B:w\n#B:i\n"},
      {"default = stderr", "# WARN:A:w\n# WARN:B:w\n"},  // an output, no level
      {"B = debug", "# WARN:A:w\n# WARN:B:w\n#B:i\n#B:d\n"},
      // B's rule starts from the default as it stands when B is read.
      {"B = stderr\ndefault = info", "# WARN:A:w\n#A:i\n# WARN:B:w\n"},
  };
  for (const auto& c : cases) {
    for (const bool after_first_message : {false, true}) {
      SCOPED_TRACE(testing::Message() << c.text << (after_first_message ? ", after" : ", before"));
      zn_log_set_default_level(after_first_message ? ZN_INFO : ZN_WARN);
      configure(c.text);
      if (after_first_message) zn_log_set_default_level(ZN_WARN);
      const size_t start = err_.text().size();
      for (const char* facility : {"A", "B"}) {
        __zn_log("f.cpp", 1, facility, ZN_WARN, "w");
        __zn_log("f.cpp", 1, facility, ZN_INFO, "i");
        __zn_log("f.cpp", 1, facility, ZN_DEBUG, "d");
      }
      zn_log_set_default_level(ZN_INFO);
      EXPECT_EQ(err_.text().substr(start), c.expected);
    }
  }
}

TEST_F(Logger, DefaultDebugToStdoutUsesTheBuiltinStdoutStyle) {
  configure("default = debug:stdout");
  __zn_log("f.cpp", 1, "NETBUFFER", ZN_DEBUG, "d");
  __zn_log("f.cpp", 1, "LTYPE", ZN_WARN, "w");
  __zn_log("f.cpp", 1, "STRCONV", ZN_ERROR, "e");
  __zn_log("f.cpp", 1, "STRCONV", ZN_TRACE, "dropped");
  EXPECT_EQ(out_.text(),
            "#NETBUFFER:d\x1b[m\n"
            "#\x1b[1;33m WARN:LTYPE:w\x1b[m\n"
            "\x1b[1;31mERROR:STRCONV:e\x1b[m\n");
  EXPECT_EQ(err_.text(), "");
}

TEST_F(Logger, EveryPrefixElementInOrder) {
  configure(
      "stdout = comment:color:timesec:pid:tid:txid:showlevel:fileline\n"
      "FAC = debug:red:stdout");
  zn_log_thread_create(current_thread_id());
  zn_log_thread_set_txid(current_thread_id(), 77);
  __zn_log("src/f.cpp", 12, "FAC", ZN_DEBUG, "text");
  zn_log_thread_destroy(current_thread_id());
  const std::string line = out_.text();
  std::smatch m;
  ASSERT_TRUE(std::regex_match(line, m, std::regex(R"(#(\d{10})\.(\d{3}):([\s\S]*))"))) << line;
  EXPECT_EQ(m[3].str(), pid_field() + "TID " + std::to_string(current_thread_id()) +
                            ":TXID 77:DEBUG:FAC:src/f.cpp:12:\x1b[0;31mtext\x1b[m\n");
  TimeVal now;
  gettimeofday(&now, nullptr);
  EXPECT_LE(now.tv_sec - std::stoll(m[1].str()), 5);
}

// The time forms with microseconds (the lines above and the file line show the others).
TEST_F(Logger, TimeStylesWithMicroseconds) {
  configure("stdout = timesec:usec\nstderr = timestamp:usec\nFAC = stdout:stderr");
  __zn_log("g.cpp", 7, "FAC", ZN_INFO, "x");
  EXPECT_TRUE(std::regex_match(out_.text(), std::regex(R"(\d{10}\.\d{6}:FAC:x\n)"))) << out_.text();
  EXPECT_TRUE(
      std::regex_match(err_.text(), std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} FAC:x\n)")))
      << err_.text();
}

TEST_F(Logger, BuiltinFileStyleAndDefaultFileNameInTheLogDirectory) {
  const fs::path dir = temp_path("logdir");
  fs::create_directories(dir);
  platform_setenv("ZNLOG_DIRECTORY", dir.string().c_str());
  configure("FAC = file");
  __zn_log("f.cpp", 1, "FAC", ZN_INFO, "to the file");
  __zn_log("f.cpp", 1, "OTHER", ZN_INFO, "to stderr");
  zn_log_reset_for_tests("", nullptr, nullptr);  // closes the log file
  const std::string text = read_log(dir / "quillmarke.log");
  fs::remove_all(dir);
  EXPECT_TRUE(std::regex_match(text, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d )" + pid_field() +
                                                " INFO:FAC:to the file\n")))
      << text;
  EXPECT_EQ(err_.text(), "#OTHER:to stderr\n");
}

TEST_F(Logger, NamedFileIsAppendedToAndFlushIsHonoured) {
  const fs::path path = temp_path("named.log");
  std::ofstream(path, std::ios::binary) << "earlier\n";
  configure("filename = \"" + path.string() + "\"\nfile = flush\nFAC = file");
  __zn_log("f.cpp", 1, "FAC", ZN_WARN, "now");
  // Visible to another reader before any close: the line was flushed.
  EXPECT_EQ(read_log(path), "earlier\n WARN:FAC:now\n");
  zn_log_reset_for_tests("", nullptr, nullptr);
}

// Lines are written with fwrite, so a buffered stream stays buffered unless `flush` is on.
TEST_F(Logger, WithoutFlushALineStaysInTheStreamBuffer) {
  std::fputs("probe\n", err_.get());
  if (err_.unflushed_text() == "probe\n") {
    GTEST_SKIP() << "this C runtime writes lines of file streams through at once";
  }
  configure("stdout = comment\nFAC = stdout");
  __zn_log("f.cpp", 1, "FAC", ZN_INFO, "held");
  EXPECT_EQ(out_.unflushed_text(), "");
  EXPECT_EQ(out_.text(), "#FAC:held\n");
}

TEST_F(Logger, UnopenableLogFileSilentlyDisablesThatOutput) {
  configure("filename = \"" + (temp_path("no_such_dir") / "x.log").string() +
            "\"\nFAC = file:stderr");
  __zn_log("f.cpp", 1, "FAC", ZN_INFO, "still here");
  EXPECT_EQ(err_.text(), "#FAC:still here\n");
}

TEST_F(Logger, ParseErrorIsReportedOnStandardOutputAndEarlierEntriesStay) {
  configure("default = info:stdout\nstdout = showlevel, stdout = color:bogus\ndefault = error");
  EXPECT_EQ(out_.text(), "error parsing configuration logger at line 3\n");
  __zn_log("f.cpp", 1, "X", ZN_INFO, "i");
  EXPECT_EQ(out_.text(), "error parsing configuration logger at line 3\n INFO:X:i\n");
}

TEST_F(Logger, PrefixIsClippedAt256AndTextAt65536) {
  configure("stdout = timesec:showlevel\ndefault = trace:stdout");
  const std::string facility(300, 'F');
  const std::string text(70000, 't');
  __zn_log("f.cpp", 1, facility.c_str(), ZN_DEBUG, "%s", text.c_str());
  const std::string line = out_.text();
  ASSERT_EQ(line.size(), 256 + kZnLogMaxText + 1);
  EXPECT_TRUE(std::regex_match(line.substr(0, 21), std::regex(R"(\d{10}\.\d{3}:DEBUG:)")));
  EXPECT_EQ(line.substr(21, 235), std::string(235, 'F'));
  EXPECT_EQ(line.substr(256), std::string(kZnLogMaxText, 't') + "\n");
}

TEST_F(Logger, LineFeedsAndCarriageReturnsFoldIntoOneLine) {
  const char* const cases[][2] = {
      {"a\nb\n", "#a b\n"}, {"a\nb", "#a b\n"}, {"a\r\nb\r", "#a  b\r\n"}, {"", "#"}};
  for (const auto& [text, want] : cases) {
    CapturedStream err("fold");
    zn_log_reset_for_tests("", out_.get(), err.get());
    __zn_log("f.cpp", 1, nullptr, ZN_INFO, "%s", text);
    EXPECT_EQ(err.text(), want) << text;
  }
}

TEST_F(Logger, FacilityNamesAreClippedTo15Characters) {
  configure("ABCDEFGHIJKLMNOPQ = debug:stdout");
  __zn_log("f.cpp", 1, "ABCDEFGHIJKLMNOPQ", ZN_DEBUG, "longer: default rule, dropped");
  __zn_log("f.cpp", 1, "ABCDEFGHIJKLMNO", ZN_DEBUG, "clipped name matches");
  EXPECT_EQ(out_.text(), "#ABCDEFGHIJKLMNO:clipped name matches\x1b[m\n");
  EXPECT_FALSE(zn_log_enabled("ABCDEFGHIJKLMNOPQ", ZN_DEBUG));
}

TEST_F(Logger, TransactionIdIsPrintedOnlyWhenRegisteredAndNonZero) {
  configure("stdout = txid\ndefault = stdout");
  const uint32_t me = current_thread_id();
  zn_log_thread_set_txid(me, 5);  // never registered: ignored
  EXPECT_EQ(zn_log_thread_get_txid(me), 0);
  __zn_log("f.cpp", 1, "T", ZN_INFO, "unregistered");
  zn_log_thread_create(me);
  __zn_log("f.cpp", 1, "T", ZN_INFO, "zero");
  zn_log_thread_set_txid(me, 42);
  __zn_log("f.cpp", 1, "T", ZN_INFO, "set");
  zn_log_thread_create(me + 1000000);  // a new thread inherits the creator's transaction
  EXPECT_EQ(zn_log_thread_get_txid(me + 1000000), 42);
  zn_log_thread_destroy(me);
  __zn_log("f.cpp", 1, "T", ZN_INFO, "destroyed");
  zn_log_thread_destroy(me + 1000000);
  EXPECT_EQ(out_.text(), "T:unregistered\nT:zero\nTXID 42:T:set\nT:destroyed\n");
}

TEST_F(Logger, PiecewiseMessagesAreOneLine) {
  configure("default = debug:stderr, stdout = showlevel");
  LogMessage m;
  zn_log_begin("p.cpp", 3, &m, "PIECE", ZN_DEBUG);
  zn_log_append(&m, "a=%d", 1);
  zn_log_append(&m, ", b=%s\n", "two");
  zn_log_append(&m, "c");
  zn_log_end(&m);
  EXPECT_EQ(m.text, nullptr);
  zn_log_begin("p.cpp", 4, &m, "PIECE", ZN_TRACE);  // filtered: nothing allocated or written
  EXPECT_EQ(m.text, nullptr);
  zn_log_append(&m, "ignored %d", 2);
  zn_log_end(&m);
  EXPECT_EQ(err_.text(), "#PIECE:a=1, b=two c\n");
}

// Lines of several threads never interleave, and each carries its own thread's transaction.
TEST_F(Logger, LinesFromManyThreadsNeverInterleave) {
  configure("stdout = txid\ndefault = stdout");
  constexpr int kThreads = 4, kLines = 300;
  std::map<std::string, int> want;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    const std::string body(100 + t * 37, static_cast<char>('a' + t));
    want["TXID " + std::to_string(100 + t) + ":MT:" + body] = kLines;
    threads.emplace_back([t, body] {
      const uint32_t me = current_thread_id();
      zn_log_thread_create(me);
      zn_log_thread_set_txid(me, 100 + t);
      for (int i = 0; i < kLines; ++i) __zn_log("f.cpp", 1, "MT", ZN_INFO, "%s", body.c_str());
      zn_log_thread_destroy(me);
    });
  }
  for (auto& th : threads) th.join();
  std::map<std::string, int> got;
  std::istringstream text(out_.text());
  for (std::string line; std::getline(text, line);) ++got[line];
  EXPECT_EQ(got, want);
}

}  // namespace
