#include "utils/znlog.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "utils/platform.h"

namespace {

namespace fs = std::filesystem;

fs::path temp_path(const std::string& name) {
  return fs::temp_directory_path() /
         ("kest_znlog_" + std::to_string(current_process_id()) + "_" + name);
}

// The log file is opened in text mode, so on Windows its lines end in CR LF: `log_file` folds
// them back.
std::string read_file(const fs::path& p, bool log_file = false) {
  std::string text;
  if (std::FILE* f = std::fopen(p.string().c_str(), "rb")) {
    char chunk[4096];
    for (size_t n; (n = std::fread(chunk, 1, sizeof chunk, f)) > 0;) text.append(chunk, n);
    std::fclose(f);
  }
  for (size_t i; log_file && (i = text.find("\r\n")) != std::string::npos;) text.erase(i, 1);
  return text;
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
    return read_file(path_);
  }
  // What another reader sees without this writer flushing first.
  std::string unflushed_text() const { return read_file(path_); }

 private:
  fs::path path_;
  std::FILE* stream_ = nullptr;
};

class Logger : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(out_.get() && err_.get()); }
  void TearDown() override {
    for (const char* v : {"ZNLOG", "ZNLOG_CONFIGFILE", "ZNLOG_DIRECTORY", "USERPROFILE"}) {
      platform_setenv(v, nullptr);
    }
    zn_log_reset_for_tests("", nullptr, nullptr);
  }
  void configure(const char* text) { zn_log_reset_for_tests(text, out_.get(), err_.get()); }

  CapturedStream out_{"out"};
  CapturedStream err_{"err"};
};

TEST_F(Logger, WithoutConfigurationInfoAndAboveGoToStandardError) {
  configure("");
  __zn_log("f.cpp", 1, "ZNCONFIG", ZN_ERROR, "bad %d", 1);
  __zn_log("f.cpp", 2, "ZNCONFIG", ZN_WARN, "careful");
  __zn_log("f.cpp", 3, "ZNCONFIG", ZN_INFO, "note");
  __zn_log("f.cpp", 4, "ZNCONFIG", ZN_DEBUG, "dropped");
  __zn_log("f.cpp", 5, "ZNCONFIG", ZN_TRACE, "dropped");
  __zn_log("f.cpp", 6, nullptr, ZN_INFO, "no facility");
  EXPECT_EQ(err_.text(),
            "ERROR:ZNCONFIG:bad 1\n"
            "# WARN:ZNCONFIG:careful\n"
            "#ZNCONFIG:note\n"
            "#no facility\n");
  EXPECT_EQ(out_.text(), "");
}

TEST_F(Logger, DefaultDebugToStdoutUsesTheBuiltinStdoutStyle) {
  configure("default = debug:stdout");
  __zn_log("f.cpp", 1, "NETBUFFER", ZN_DEBUG, "d");
  __zn_log("f.cpp", 1, "LTYPE", ZN_INFO, "i");
  __zn_log("f.cpp", 1, "LTYPE", ZN_WARN, "w");
  __zn_log("f.cpp", 1, "STRCONV", ZN_ERROR, "e");
  __zn_log("f.cpp", 1, "STRCONV", ZN_TRACE, "dropped");
  EXPECT_EQ(out_.text(),
            "#NETBUFFER:d\x1b[m\n"
            "#LTYPE:i\x1b[m\n"
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
  char rest[200];
  std::snprintf(rest, sizeof rest,
                "PID%6d:TID %llu:TXID 77:DEBUG:FAC:src/f.cpp:12:\x1b[0;31mtext\x1b[m\n",
                current_process_id(), static_cast<unsigned long long>(current_thread_id()));
  EXPECT_EQ(m[3].str(), rest);
  const long long secs = std::stoll(m[1].str());
  TimeVal now;
  gettimeofday(&now, nullptr);
  EXPECT_LE(now.tv_sec - secs, 5);
}

// The time forms the line above does not show.
TEST_F(Logger, TimeStyleGoldens) {
  const char* const cases[][2] = {
      {"timesec:usec", R"(\d{10}\.\d{6}:FAC:x\n)"},
      {"timestamp", R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d FAC:x\n)"},
      {"timestamp:usec", R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} FAC:x\n)"},
  };
  for (const auto& [style, pattern] : cases) {
    CapturedStream out("golden");
    const std::string config = std::string("stdout = ") + style + "\nFAC = stdout";
    zn_log_reset_for_tests(config.c_str(), out.get(), err_.get());
    __zn_log("g.cpp", 7, "FAC", ZN_INFO, "x");
    const std::string text = out.text();
    EXPECT_TRUE(std::regex_match(text, std::regex(pattern))) << style << ": " << text;
  }
}

TEST_F(Logger, BuiltinFileStyleAndDefaultFileNameInTheLogDirectory) {
  const fs::path dir = temp_path("logdir");
  fs::create_directories(dir);
  platform_setenv("ZNLOG_DIRECTORY", dir.string().c_str());
  configure("FAC = file");
  __zn_log("f.cpp", 1, "FAC", ZN_INFO, "to the file");
  __zn_log("f.cpp", 1, "OTHER", ZN_INFO, "to stderr");
  zn_log_reset_for_tests("", nullptr, nullptr);  // closes the log file
  const std::string text = read_file(dir / "quillmarke.log", true);
  fs::remove_all(dir);
  char pid[16];
  std::snprintf(pid, sizeof pid, "PID%6d:", current_process_id());
  EXPECT_TRUE(std::regex_match(text, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d )" +
                                                std::string(pid) + " INFO:FAC:to the file\n")))
      << text;
  EXPECT_EQ(err_.text(), "#OTHER:to stderr\n");
}

TEST_F(Logger, NamedFileIsAppendedToAndFlushIsHonoured) {
  const fs::path path = temp_path("named.log");
  std::ofstream(path, std::ios::binary) << "earlier\n";
  const std::string config = "filename = \"" + path.string() + "\"\nfile = flush\nFAC = file";
  configure(config.c_str());
  __zn_log("f.cpp", 1, "FAC", ZN_WARN, "now");
  // Visible to another reader before any close: the line was flushed.
  EXPECT_EQ(read_file(path, true), "earlier\n WARN:FAC:now\n");
  zn_log_reset_for_tests("", nullptr, nullptr);
  fs::remove(path);
}

TEST_F(Logger, FlushSwitchDecidesWhetherLinesReachTheStreamAtOnce) {
  configure("stdout = flush\nFAC = stdout");
  __zn_log("f.cpp", 1, "FAC", ZN_INFO, "flushed");
  EXPECT_EQ(out_.unflushed_text(), "FAC:flushed\n");
  {
    CapturedStream probe("probe");
    std::fputs("probe\n", probe.get());
    if (probe.unflushed_text() == "probe\n") {
      GTEST_SKIP() << "this C runtime writes lines of file streams through at once";
    }
  }
  CapturedStream buffered("buffered");
  zn_log_reset_for_tests("stdout = comment\nFAC = stdout", buffered.get(), err_.get());
  __zn_log("f.cpp", 1, "FAC", ZN_INFO, "held");
  EXPECT_EQ(buffered.unflushed_text(), "");  // still in the stream's buffer
  EXPECT_EQ(buffered.text(), "#FAC:held\n");
}

TEST_F(Logger, UnopenableLogFileSilentlyDisablesThatOutput) {
  const std::string config =
      "filename = \"" + (temp_path("no_such_dir") / "x.log").string() + "\"\nFAC = file:stderr";
  configure(config.c_str());
  __zn_log("f.cpp", 1, "FAC", ZN_INFO, "still here");
  EXPECT_EQ(err_.text(), "#FAC:still here\n");
}

TEST_F(Logger, ALaterDefaultDoesNotChangeEarlierRules) {
  configure("default = red:stdout\nNETBUFFER = error\ndefault = trace");
  __zn_log("f.cpp", 1, "NETBUFFER", ZN_WARN, "dropped");
  __zn_log("f.cpp", 1, "NETBUFFER", ZN_ERROR, "kept");
  __zn_log("f.cpp", 1, "LTYPE", ZN_TRACE, "default");
  EXPECT_EQ(out_.text(), "\x1b[1;31mERROR:NETBUFFER:\x1b[0;31mkept\x1b[m\n");
  EXPECT_EQ(err_.text(), "#LTYPE:default\n");
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
  struct Case {
    const char* text;
    const char* want;
  };
  const Case cases[] = {
      {"a\nb\n", "#a b\n"}, {"a\nb", "#a b\n"}, {"a\r\nb\r", "#a  b\r\n"},
      {"\n", "#\n"},        {"", "#"},          {"x\r", "#x\r\n"},
  };
  for (const Case& c : cases) {
    CapturedStream err("fold");
    zn_log_reset_for_tests("", out_.get(), err.get());
    __zn_log("f.cpp", 1, nullptr, ZN_INFO, "%s", c.text);
    EXPECT_EQ(err.text(), c.want) << c.text;
  }
}

TEST_F(Logger, FacilityNamesAreClippedTo15Characters) {
  configure("ABCDEFGHIJKLMNOPQ = debug:stdout");
  __zn_log("f.cpp", 1, "ABCDEFGHIJKLMNOPQ", ZN_DEBUG, "longer: default rule, dropped");
  __zn_log("f.cpp", 1, "ABCDEFGHIJKLMNO", ZN_DEBUG, "clipped name matches");
  EXPECT_EQ(out_.text(), "#ABCDEFGHIJKLMNO:clipped name matches\x1b[m\n");
  EXPECT_TRUE(zn_log_enabled("ABCDEFGHIJKLMNO", ZN_DEBUG));
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
  EXPECT_EQ(zn_log_thread_get_txid(me), 42);
  __zn_log("f.cpp", 1, "T", ZN_INFO, "set");
  zn_log_thread_create(me + 1000000);  // a new thread inherits the creator's transaction
  EXPECT_EQ(zn_log_thread_get_txid(me + 1000000), 42);
  zn_log_thread_destroy(me);
  EXPECT_EQ(zn_log_thread_get_txid(me), 0);
  __zn_log("f.cpp", 1, "T", ZN_INFO, "destroyed");
  zn_log_thread_destroy(me + 1000000);
  EXPECT_EQ(out_.text(), "T:unregistered\nT:zero\nTXID 42:T:set\nT:destroyed\n");
}

TEST_F(Logger, PiecewiseMessagesAreOneLineClippedAt65536) {
  configure("default = debug:stderr, stdout = showlevel");
  LogMessage m;
  zn_log_begin("p.cpp", 3, &m, "PIECE", ZN_DEBUG);
  ASSERT_NE(m.text, nullptr);
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

  zn_log_begin("p.cpp", 3, &m, nullptr, ZN_INFO);
  const std::string chunk(1000, 'x');
  for (int i = 0; i < 70; ++i) zn_log_append(&m, "%s", chunk.c_str());
  zn_log_append(&m, "more");
  EXPECT_EQ(m.length, kZnLogMaxText);
  zn_log_end(&m);
  EXPECT_EQ(err_.text(), "#PIECE:a=1, b=two c\n#" + std::string(kZnLogMaxText, 'x') + "\n");
}

// Lines of several threads never interleave, and each carries its own thread's transaction.
TEST_F(Logger, LinesFromManyThreadsNeverInterleave) {
  configure("stdout = tid:txid\ndefault = stdout");
  constexpr int kThreads = 4, kLines = 300;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      const uint32_t me = current_thread_id();
      zn_log_thread_create(me);
      zn_log_thread_set_txid(me, 100 + t);
      const std::string body(100 + t * 37, static_cast<char>('a' + t));
      for (int i = 0; i < kLines; ++i)
        __zn_log("f.cpp", 1, "MT", ZN_INFO, "%d:%s", i, body.c_str());
      zn_log_thread_destroy(me);
    });
  }
  for (auto& th : threads) th.join();
  const std::string text = out_.text();
  const std::regex line_re(R"(TID \d+:TXID 10(\d):MT:\d+:([a-d]+))");
  size_t start = 0, lines = 0;
  for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1, ++lines) {
    const std::string line = text.substr(start, end - start);
    std::smatch m;
    ASSERT_TRUE(std::regex_match(line, m, line_re)) << line.substr(0, 80);
    const int t = m[2].str()[0] - 'a';
    ASSERT_EQ(m[1].str()[0] - '0', t) << line.substr(0, 80);
    ASSERT_EQ(m[2].length(), 100 + t * 37);
  }
  EXPECT_EQ(start, text.size());
  EXPECT_EQ(lines, static_cast<size_t>(kThreads * kLines));
}

TEST_F(Logger, ConfigurationComesFromTheEnvironmentWhenNotGiven) {
  platform_setenv("ZNLOG", "default = debug:stdout, stdout = showlevel");
  zn_log_reset_for_tests(nullptr, out_.get(), err_.get());
  __zn_log("f.cpp", 1, "E", ZN_DEBUG, "from ZNLOG");
  platform_setenv("ZNLOG", nullptr);

  const fs::path conf = temp_path("env.conf");
  std::ofstream(conf, std::ios::binary) << "# comment\ndefault = warn:stdout\nstdout = pid\n";
  platform_setenv("ZNLOG_CONFIGFILE", conf.string().c_str());
  CapturedStream second("env2");
  zn_log_reset_for_tests(nullptr, second.get(), err_.get());
  __zn_log("f.cpp", 1, "E", ZN_INFO, "dropped");
  __zn_log("f.cpp", 1, "E", ZN_WARN, "from file");
  fs::remove(conf);
  EXPECT_EQ(out_.text(), "DEBUG:E:from ZNLOG\n");
  char want[64];
  std::snprintf(want, sizeof want, "PID%6d: WARN:E:from file\n", current_process_id());
  EXPECT_EQ(second.text(), want);
  EXPECT_EQ(err_.text(), "");
}

// Any configuration text, however broken, leaves a working logger: an error passes every rule,
// and every rule sends to standard output or standard error unless the text could name the file
// output. A style with colour ends the text with the reset escape before the line feed.
TEST_F(Logger, JunkConfigurationsNeverBreakLogging) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  const char* pieces[] = {"stdout", "stderr", "=",     ":",     ",",       "\n",    "#",
                          "\"",     " ",      "debug", "trace", "timesec", "color", "fileline",
                          "txid",   "pid",    "usec",  "F",     "default", "bogus"};
  for (int i = 0; i < 300; ++i) {
    std::string text;
    for (int k = static_cast<int>(rng() % 30); k > 0; --k) {
      text += rng() % 5 == 0 ? std::string(1, static_cast<char>(1 + rng() % 255))
                             : pieces[rng() % std::size(pieces)];
    }
    if (text.find("file") != std::string::npos) continue;
    CapturedStream out("junk_out"), err("junk_err");
    zn_log_reset_for_tests(text.c_str(), out.get(), err.get());
    __zn_log("j.cpp", 1, "F", ZN_ERROR, "error line %d", i);
    const std::string all = out.text() + err.text(), line = "error line " + std::to_string(i);
    EXPECT_TRUE(all.find(line + "\n") != std::string::npos ||
                all.find(line + "\x1b[m\n") != std::string::npos)
        << "config: " << text << "\noutput: " << all;
  }
}

}  // namespace
