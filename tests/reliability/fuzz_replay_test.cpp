// Replays every input of every fuzz corpus (seeds and the regression inputs of past findings)
// through the same checks the fuzz targets run, so the ordinary suites catch a regression on
// every platform without a fuzzer.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz/support/query_harness.h"
#include "fuzz/support/receive_harness.h"
#include "fuzz/support/split_harness.h"
#include "fuzz/support/text_harness.h"

namespace {

namespace fs = std::filesystem;

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
  EXPECT_GE(replay("query", kest_fuzz::check_query), 20);
  const auto unskipped = [](std::string (*check)(const uint8_t*, size_t)) {
    return [check](const uint8_t* d, size_t n, bool*) { return check(d, n); };
  };
  replay("settings", unskipped(kest_fuzz::check_settings));
  replay("logconfig", unskipped(kest_fuzz::check_log_config));
  replay("types", unskipped(kest_fuzz::check_types));
  replay("options", unskipped(kest_fuzz::check_options));
}

// The open findings: a column whose physical type does not fit its logical one. The client has
// no check of its own for them yet and ends in the value printer's assertion; when it learns to
// refuse them, they move into the corpus and this expectation goes.
TEST(FuzzReplay, OpenFindingsEndInTheValuePrintersAssertion) {
  kest_fuzz::fuzz_init();
  for (const auto& [name, bytes] : inputs(kFuzzDir / "findings" / "receive")) {
    const auto run = kest_fuzz::run_reception(std::string_view(bytes).substr(2),
                                              static_cast<OutputMode>(bytes[0] & 3), false, 0);
    EXPECT_EQ(run.end, kest_fuzz::RunEnd::kAsserted) << name;
    EXPECT_THAT(run.asserted.condition, testing::StartsWith("tid == LTYPE_")) << name;
  }
}

}  // namespace
