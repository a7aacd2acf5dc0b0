// Replays every input of every fuzz corpus (seeds and the regression inputs of past findings)
// through the same checks the fuzz targets run, so the ordinary suites catch a regression on
// every platform without a fuzzer.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz/support/receive_harness.h"
#include "fuzz/support/split_harness.h"
#include "fuzz/support/text_harness.h"
#include "support/scripted_peer.h"

namespace {

namespace fs = std::filesystem;
using namespace kest_test;

const fs::path kFuzzDir = fs::path(KEST_TEST_DATA_DIR).parent_path() / "fuzz";

// The contents of every file in `dir`, by name.
std::vector<std::pair<std::string, std::string>> inputs(const fs::path& dir) {
  std::vector<std::pair<std::string, std::string>> files;
  if (fs::is_directory(dir))
    for (const auto& e : fs::directory_iterator(dir)) {
      std::ifstream in(e.path(), std::ios::binary);
      files.emplace_back(e.path().filename().string(),
                         std::string(std::istreambuf_iterator<char>(in), {}));
    }
  EXPECT_FALSE(files.empty()) << "no inputs in " << dir;
  return files;
}

// Runs `check` over the corpus of `target`; returns how many inputs were judged (not skipped).
template <class Check>
int replay(const char* target, Check check) {
  int judged = 0;
  for (const auto& [name, bytes] : inputs(kFuzzDir / "corpus" / target)) {
    bool skipped = false;
    EXPECT_EQ(check(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), &skipped), "")
        << target << "/" << name;
    judged += skipped ? 0 : 1;
  }
  return judged;
}

TEST(FuzzReplay, EveryCorpusInput) {
  // Most seeds are well-formed: the replay must not have skipped them all.
  EXPECT_GE(replay("receive", kest_fuzz::check_receive), 40);
  EXPECT_GE(replay("split", kest_fuzz::check_split), 10);
  const auto unskipped = [](std::string (*check)(const uint8_t*, size_t)) {
    return [check](const uint8_t* d, size_t n, bool*) { return check(d, n); };
  };
  replay("settings", unskipped(kest_fuzz::check_settings));
  replay("logconfig", unskipped(kest_fuzz::check_log_config));
  replay("types", unskipped(kest_fuzz::check_types));
  replay("options", unskipped(kest_fuzz::check_options));
}

// The inputs left for the reception to refuse are still what the harness sets aside; when the
// client learns to refuse them, they move into the corpus and this expectation goes.
TEST(FuzzReplay, OpenFindingsAreSetAsideByTheModel) {
  kest_fuzz::fuzz_init();
  for (const auto& [name, bytes] : inputs(kFuzzDir / "findings" / "receive"))
    EXPECT_EQ(kest_fuzz::model_stream(std::string_view(bytes).substr(2)).verdict,
              kest_fuzz::StreamVerdict::kMismatchedTypes)
        << name;
}

// The model must agree with the client on what a stream holds: a hand-built stream with two
// data messages and its end gives those row counts.
TEST(FuzzReplay, ModelReadsTheRowCountsOfAWellFormedStream) {
  kest_fuzz::fuzz_init();
  const std::string stream = ack(3, {{"a", "int", "sint"}}) + data(2, std::string(8, '\1')) +
                             data(3, std::string(12, '\2')) + data(0);
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
  auto one_column = [](const std::string& ltype, const std::string& ptype) {
    return ack(4, {{"a", ltype, ptype}});
  };
  const struct {
    const char* name;
    std::string stream;
    const char* report;  // plain text: death tests on Windows know no alternation
  } streams[] = {
      {"name past the frame", frame(be32(0) + be32(1) + be32(4) + char(9) + "a"), "assertion"},
      {"type text of 64 bytes", one_column(std::string(64, 't'), "sint"), "assertion"},
      {"unknown physical type", one_column("sint", "nosuch"), "Unknown type: nosuch"},
      {"money in a four-byte column", one_column("money", "sint"),
       "LTYPE_MONEY .. queryres.width.i. >= 8"},
      {"negative column count", frame(be32(0) + be32(0xFFFFFFFFu) + be32(4)), "assertion"},
      {"short column block", one_column("sint", "sint") + data(2, "xxxxx"), "assertion"},
      {"error parameters past the frame", frame(be32(0xFFFFFFFFu) + be32(1) + be32(3) + var("p")),
       "assertion"},
  };
  for (const auto& r : streams) {
    ASSERT_EQ(kest_fuzz::model_stream(r.stream).verdict, kest_fuzz::StreamVerdict::kMustAbort)
        << r.name;
    EXPECT_DEATH(kest_fuzz::run_reception(r.stream, OUTPUT_ASCII, {false, 0}), r.report) << r.name;
  }
}

}  // namespace
