// Replays every input of every fuzz corpus (seeds and the regression inputs of past findings)
// through the same checks the fuzz targets run, so the ordinary suites catch a regression on
// every platform without a fuzzer.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz/support/receive_harness.h"
#include "fuzz/support/split_harness.h"
#include "fuzz/support/text_harness.h"

namespace {

namespace fs = std::filesystem;

const fs::path kFuzzDir = fs::path(KEST_TEST_DATA_DIR).parent_path() / "fuzz";

std::vector<fs::path> inputs(const fs::path& dir) {
  std::vector<fs::path> files;
  if (fs::is_directory(dir))
    for (const auto& e : fs::directory_iterator(dir))
      if (e.is_regular_file()) files.push_back(e.path());
  std::sort(files.begin(), files.end());
  return files;
}

std::string bytes_of(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

using Check = std::function<std::string(const uint8_t*, size_t, bool*)>;

// Runs `check` over the corpus of `target`; returns how many inputs were judged (not skipped).
int replay(const char* target, const Check& check) {
  const std::vector<fs::path> files = inputs(kFuzzDir / "corpus" / target);
  EXPECT_FALSE(files.empty()) << "no corpus for " << target;
  int judged = 0;
  for (const fs::path& f : files) {
    const std::string data = bytes_of(f);
    bool skipped = false;
    const std::string why =
        check(reinterpret_cast<const uint8_t*>(data.data()), data.size(), &skipped);
    EXPECT_EQ(why, "") << f.filename().string();
    if (!skipped) ++judged;
  }
  return judged;
}

Check plain(std::string (*check)(const uint8_t*, size_t)) {
  return [check](const uint8_t* d, size_t n, bool* skipped) {
    *skipped = false;
    return check(d, n);
  };
}

TEST(FuzzReplay, ReceivePathOverEveryCorpusInput) {
  const int judged = replay("receive", [](const uint8_t* d, size_t n, bool* skipped) {
    return kest_fuzz::check_receive(d, n, skipped);
  });
  // Most seeds are well-formed streams: the replay must not have skipped them all.
  EXPECT_GE(judged, 40);
}

TEST(FuzzReplay, SplitterOverEveryCorpusInput) {
  const int judged = replay("split", [](const uint8_t* d, size_t n, bool* skipped) {
    return kest_fuzz::check_split(d, n, skipped);
  });
  EXPECT_GE(judged, 10);
}

TEST(FuzzReplay, TextParsersOverEveryCorpusInput) {
  replay("settings", plain(kest_fuzz::check_settings));
  replay("logconfig", plain(kest_fuzz::check_log_config));
  replay("types", plain(kest_fuzz::check_types));
  replay("options", plain(kest_fuzz::check_options));
}

// The inputs left for the reception to refuse are still what the harness sets aside; when the
// client learns to refuse them, they move into the corpus and this expectation goes.
TEST(FuzzReplay, OpenFindingsAreSetAsideByTheModel) {
  kest_fuzz::fuzz_init();
  const std::vector<fs::path> files = inputs(kFuzzDir / "findings" / "receive");
  ASSERT_FALSE(files.empty());
  for (const fs::path& f : files) {
    const std::string data = bytes_of(f);
    const auto model = kest_fuzz::model_stream(std::string_view(data).substr(2));
    EXPECT_EQ(model.verdict, kest_fuzz::StreamVerdict::kMismatchedTypes) << f.filename().string();
  }
}

// The model must agree with the client on what a stream holds: a hand-built stream with two
// data messages and its end gives those row counts, whole and fragmented alike.
TEST(FuzzReplay, ModelReadsTheRowCountsOfAWellFormedStream) {
  kest_fuzz::fuzz_init();
  using kest_test_bytes = std::string;
  auto be32 = [](uint32_t v) {
    return kest_test_bytes{char(v >> 24), char(v >> 16), char(v >> 8), char(v)};
  };
  auto frame = [&](const std::string& body) { return be32(uint32_t(body.size() + 4)) + body; };
  const std::string ack = frame(be32(0) + be32(1) + be32(3) +
                                "\x01"
                                "a" +
                                be32(0) +
                                "\x03"
                                "int" +
                                "\x04"
                                "sint");
  const std::string stream = ack + frame(be32(0) + be32(2) + std::string(8, '\1')) +
                             frame(be32(0) + be32(3) + std::string(12, '\2')) +
                             frame(be32(0) + be32(0));
  const auto model = kest_fuzz::model_stream(stream);
  ASSERT_EQ(model.verdict, kest_fuzz::StreamVerdict::kRuns);
  EXPECT_EQ(model.rows, (std::vector<int64_t>{2, 3, 0}));
  const auto run = kest_fuzz::run_reception(stream, OUTPUT_RAW, {true, 5});
  if (!run.ok) GTEST_SKIP() << "no loopback sockets here";
  EXPECT_EQ(run.rows, model.rows);
  EXPECT_EQ(run.printed, "16843009\n16843009\n33686018\n33686018\n33686018\n");
}

// The model must not skip more than it should: every kind of stream it rules out really ends
// the client through one of the specified reports.
TEST(FuzzReplayDeathTest, StreamsTheModelRulesOutReallyAbort) {
  kest_fuzz::fuzz_init();
  auto be32 = [](uint32_t v) {
    return std::string{char(v >> 24), char(v >> 16), char(v >> 8), char(v)};
  };
  auto var = [](const std::string& text) { return char(text.size()) + text; };
  auto frame = [&](const std::string& body) { return be32(uint32_t(body.size() + 4)) + body; };
  auto one_column = [&](const std::string& ltype, const std::string& ptype) {
    return frame(be32(0) + be32(1) + be32(4) + var("a") + be32(0) + var(ltype) + var(ptype));
  };
  struct Ruled {
    const char* name;
    std::string stream;
    const char* report;  // plain text: death tests on Windows know no alternation
  };
  const std::vector<Ruled> streams = {
      {"name past the frame", frame(be32(0) + be32(1) + be32(4) + char(9) + "a"), "assertion"},
      {"type text of 64 bytes", one_column(std::string(64, 't'), "sint"), "assertion"},
      {"unknown physical type", one_column("sint", "nosuch"), "Unknown type: nosuch"},
      {"money in a four-byte column", one_column("money", "sint"),
       "LTYPE_MONEY .. queryres.width.i. >= 8"},
      {"negative column count", frame(be32(0) + be32(0xFFFFFFFFu) + be32(4)), "assertion"},
      {"short column block",
       one_column("sint", "sint") + frame(be32(0) + be32(2) + std::string(5, 'x')), "assertion"},
      {"error parameters past the frame", frame(be32(0xFFFFFFFFu) + be32(1) + be32(3) + var("p")),
       "assertion"},
  };
  for (const Ruled& r : streams) {
    ASSERT_EQ(kest_fuzz::model_stream(r.stream).verdict, kest_fuzz::StreamVerdict::kMustAbort)
        << r.name;
    EXPECT_DEATH(kest_fuzz::run_reception(r.stream, OUTPUT_ASCII, {false, 0}), r.report) << r.name;
  }
}

}  // namespace
